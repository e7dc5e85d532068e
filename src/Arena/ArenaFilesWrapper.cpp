#include "Arena/ArenaFilesWrapper.h"

#include "Arena/Memory.h"
#include "Basalt/Util.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace Arena {

namespace {

std::string joinPath(const std::string & directory, const std::string & fileName) {
  if (directory.empty()) {
    return fileName;
  }
  return directory.back() == '/' ? directory + fileName : directory + "/" + fileName;
}

std::string errorText() { return std::strerror(errno); }

}  // namespace

ArenaFilesWrapper::ArenaFilesWrapper(Basalt::Platform::DebugHandler & handler, std::string directory,
                                     std::string fileName, bool localMem, bool useHeap)
    : handler_(handler),
      directory_(std::move(directory)),
      path_(joinPath(directory_, fileName)),
      local_(localMem ? std::make_unique<Local>(handler, useHeap) : nullptr) {}

ArenaFilesWrapper::~ArenaFilesWrapper() { detach(); }

void * ArenaFilesWrapper::attach(std::size_t size, Mode mode) {
  detach();
  reason_.clear();
  mode_ = mode;
  void * mapped;
  if (local_) {
    mapped = local_->attach(size);
    if (mapped == nullptr) {
      return fail("attach", fmt::format("cannot get private memory for {}: {}", path_,
                                        size == 0 ? "0 bytes asked" : local_->reason()));
    }
  } else {
    mapped = attachFile(size);
    if (mapped == nullptr) {
      return nullptr;
    }
  }
  adviseDump();
  adviseHugePages();
  BASALT_TRACE(handler_, 5, "ArenaFilesWrapper::attach() {} {} bytes at {}", path_, memSize(), mapped);
  return mapped;
}

void * ArenaFilesWrapper::resize(std::size_t size) {
  reason_.clear();
  if (size == 0) {
    detach();
    return nullptr;
  }
  void * old = base();
  if (old == nullptr) {
    return fail("resize", fmt::format("{} is not mapped", path_));
  }
  void * mapped;
  if (local_) {
    mapped = local_->resize(size);
    if (mapped == nullptr) {
      return fail("resize", fmt::format("cannot resize private memory for {}: {}", path_, local_->reason()));
    }
  } else {
    mapped = resizeFile(size);
    if (mapped == nullptr) {
      return nullptr;
    }
  }
  adviseDump();
  adviseHugePages();
  BASALT_TRACE(handler_, 5, "ArenaFilesWrapper::resize() {} to {} bytes, base {} -> {}", path_, size, old,
               mapped);
  return mapped;
}

// A hole punched into the file: the pages go back to the system, the length
// stays, and a later read of the range (by a reader's older mapping) finds
// zeros, never the end of the file.
bool ArenaFilesWrapper::releaseTail(std::size_t keep) {
  reason_.clear();
  if (local_) {
    return true;
  }
  // Unlike a failed attach or resize, a refusal leaves the mapping alone.
  auto refuse = [&](std::string what) {
    reason_ = std::move(what);
    BASALT_TRACE(handler_, 1, "ArenaFilesWrapper::releaseTail() {}", reason_);
    return false;
  };
  if (fd_ < 0 || mode_ != Mode::ReadWrite) {
    return refuse(fmt::format("{} is not mapped for writing", path_));
  }
  struct stat status;
  if (fstat(fd_, &status) != 0) {
    return refuse(fmt::format("cannot stat {}: {}", path_, errorText()));
  }
  const auto length = static_cast<std::size_t>(status.st_size);
  const std::size_t from = (keep + pageSize_ - 1) / pageSize_ * pageSize_;
  if (from >= length) {
    return true;
  }
  if (fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                static_cast<off_t>(length - from)) != 0) {
    return refuse(fmt::format("cannot release {} bytes of {} from byte {}: {}", length - from, path_, from,
                              errorText()));
  }
  BASALT_TRACE(handler_, 5, "ArenaFilesWrapper::releaseTail() {} released {} bytes from byte {}", path_,
               length - from, from);
  return true;
}

std::size_t ArenaFilesWrapper::allocatedSize() const {
  if (local_) {
    return local_->memSize();
  }
  struct stat status;
  int result = fd_ >= 0 ? fstat(fd_, &status) : stat(path_.c_str(), &status);
  return result == 0 ? static_cast<std::size_t>(status.st_blocks) * 512 : 0;
}

void ArenaFilesWrapper::detach() {
  if (local_) {
    local_->detach();
    return;
  }
  if (base_ != nullptr) {
    // munmap fails only for a range that was never mapped, and this one was.
    munmap(base_, mapped_);
    base_ = nullptr;
    mapped_ = 0;
  }
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
}

bool ArenaFilesWrapper::remove() {
  detach();
  if (local_ || unlink(path_.c_str()) == 0 || errno == ENOENT) {
    BASALT_TRACE(handler_, 5, "ArenaFilesWrapper::remove() {}", path_);
    return true;
  }
  fail("remove", fmt::format("cannot unlink {}: {}", path_, errorText()));
  return false;
}

bool ArenaFilesWrapper::dumpToCoreIs(bool dump) {
  dumpToCore_ = dump;
  return adviseDump();
}

// The heap's blocks share pages with other allocations, so private memory on
// the heap is left as the heap has it.
bool ArenaFilesWrapper::adviseDump() {
  if (!dumpToCore_ || base() == nullptr || (local_ && local_->useHeap())) {
    return true;
  }
  if (madvise(base(), memSize(), *dumpToCore_ ? MADV_DODUMP : MADV_DONTDUMP) != 0) {
    BASALT_TRACE(handler_, 0, "ArenaFilesWrapper::dumpToCoreIs() madvise of {} failed: {}", path_,
                 errorText());
    return false;
  }
  return true;
}

// A large table's lookups miss the TLB on nearly every slot with 4 KiB
// pages. Where the file system lets it (a tmpfs mounted with huge=advise, or
// huge=within_size / always, which need no advice), the kernel then backs the
// mapping with 2 MiB pages. The advice changes no byte and no mapping: a
// system that refuses it (no transparent huge pages) only keeps small pages.
void ArenaFilesWrapper::adviseHugePages() {
  if (local_ || base_ == nullptr || mapped_ < HugePageSize) {
    return;
  }
  if (madvise(base_, mapped_, MADV_HUGEPAGE) != 0) {
    BASALT_TRACE(handler_, 5, "ArenaFilesWrapper::adviseHugePages() {} keeps small pages: {}", path_, errorText());
  }
}

void * ArenaFilesWrapper::base() const { return local_ ? local_->base() : base_; }

std::size_t ArenaFilesWrapper::memSize() const {
  if (local_) {
    return local_->memSize();
  }
  return base_ != nullptr ? mapped_ : fileSize();
}

std::size_t ArenaFilesWrapper::fileSize() const {
  if (local_) {
    return local_->memSize();
  }
  struct stat status;
  int result = fd_ >= 0 ? fstat(fd_, &status) : stat(path_.c_str(), &status);
  return result == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

// The mapping always covers the whole file as it is after the extension: a
// writer that finds a longer file (left by an earlier, larger table) sees all
// of it, and a reader never maps a page past the end of the file.
void * ArenaFilesWrapper::attachFile(std::size_t size) {
  bool writable = mode_ == Mode::ReadWrite;
  if (writable && !makeDirectories()) {
    return nullptr;
  }
  fd_ = open(path_.c_str(), (writable ? O_RDWR | O_CREAT : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    return fail("attach", fmt::format("cannot open {}: {}", path_, errorText()));
  }
  std::optional<std::size_t> length = openFileLength("attach");
  if (!length) {
    return nullptr;
  }
  if (*length < size) {
    if (!writable) {
      return fail("attach", fmt::format("{} is {} bytes long, shorter than the {} bytes asked", path_,
                                        *length, size));
    }
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      return fail("attach",
                  fmt::format("cannot extend {} from {} to {} bytes: {}", path_, *length, size, errorText()));
    }
    length = size;
  }
  if (*length == 0) {
    return fail("attach", fmt::format("{} is empty: nothing to map", path_));
  }
  void * mapped = mmap(nullptr, *length, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd_, 0);
  if (mapped == MAP_FAILED) {
    return fail("attach", fmt::format("cannot map {} bytes of {}: {}", *length, path_, errorText()));
  }
  base_ = mapped;
  mapped_ = *length;
  return base_;
}

// A shrink leaves the file as long as it was: a reader in another process may
// still map the tail until it sees the new size.
void * ArenaFilesWrapper::resizeFile(std::size_t size) {
  std::optional<std::size_t> length = openFileLength("resize");
  if (!length) {
    return nullptr;
  }
  if (*length < size) {
    if (mode_ == Mode::ReadOnly) {
      return fail("resize", fmt::format("{} is {} bytes long, shorter than the {} bytes asked", path_,
                                        *length, size));
    }
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      return fail("resize",
                  fmt::format("cannot extend {} from {} to {} bytes: {}", path_, *length, size, errorText()));
    }
  }
  void * moved = mremap(base_, mapped_, size, MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) {
    return fail("resize",
                fmt::format("cannot remap {} from {} to {} bytes: {}", path_, mapped_, size, errorText()));
  }
  base_ = moved;
  mapped_ = size;
  return base_;
}

// mkdir on each prefix of the directory in turn, as `mkdir -p` does, with the
// owner and mode of each checked (Basalt::Util::makeDirectories).
bool ArenaFilesWrapper::makeDirectories() {
  std::string error;
  if (!Basalt::Util::makeDirectories(directory_, error)) {
    fail("attach", error);
    return false;
  }
  return true;
}

std::optional<std::size_t> ArenaFilesWrapper::openFileLength(const char * method) {
  struct stat status;
  if (fstat(fd_, &status) != 0) {
    fail(method, fmt::format("cannot stat {}: {}", path_, errorText()));
    return std::nullopt;
  }
  return static_cast<std::size_t>(status.st_size);
}

void * ArenaFilesWrapper::fail(const char * method, std::string what) {
  detach();
  reason_ = std::move(what);
  BASALT_TRACE(handler_, 0, "ArenaFilesWrapper::{}() {}", method, reason_);
  return nullptr;
}

}  // namespace Arena

#include "Arena/Local.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fmt/format.h>

#include "Arena/Memory.h"

namespace Arena {

Local::Local(Basalt::Platform::DebugHandler & handler, bool useHeap, int flags)
    : handler_(handler), useHeap_(useHeap), flags_(flags) {}

Local::~Local() { detach(); }

void * Local::attach(std::size_t bytes, int mode) {
  detach();
  reason_.clear();
  if (mode != 0) {
    return fail("attach", fmt::format("unknown mode {}", mode));
  }
  return change("attach", bytes);
}

void * Local::resize(std::size_t bytes) {
  reason_.clear();
  return change("resize", bytes);
}

void * Local::change(const char * method, std::size_t bytes) {
  if (bytes == 0) {
    detach();
    return nullptr;
  }
  return useHeap_ ? changeHeap(method, bytes) : changeAnonymous(method, bytes);
}

void Local::detach() {
  if (base_ == nullptr) {
    return;
  }
  if (useHeap_) {
    std::free(base_);
  } else {
    // munmap fails only for a range that is not page-aligned, and this one is.
    munmap(base_, size_);
  }
  base_ = nullptr;
  size_ = 0;
}

std::optional<std::size_t> Local::roundUp(std::size_t bytes) {
  if (bytes > std::numeric_limits<std::size_t>::max() - (pageSize_ - 1)) {
    return std::nullopt;
  }
  return (bytes + pageSize_ - 1) / pageSize_ * pageSize_;
}

// realloc keeps the contents and may move; the bytes past the old size are
// whatever the allocator had there, so they are zeroed here.
void * Local::changeHeap(const char * method, std::size_t bytes) {
  void * grown = std::realloc(base_, bytes);
  if (grown == nullptr) {
    int error = errno;
    return fail(method,
                fmt::format("realloc from {} to {} bytes failed: {}", size_, bytes, std::strerror(error)));
  }
  if (bytes > size_) {
    std::memset(static_cast<char *>(grown) + size_, 0, bytes - size_);
  }
  base_ = grown;
  size_ = bytes;
  return base_;
}

// Pages of an anonymous private mapping start zeroed, whether mapped fresh or
// added by mremap; a shrink unmaps the tail, so a later growth gets new zero
// pages and never sees old contents again.
void * Local::changeAnonymous(const char * method, std::size_t bytes) {
  std::optional<std::size_t> rounded = roundUp(bytes);
  if (!rounded) {
    return fail(method, fmt::format("{} bytes do not fit in whole pages", bytes));
  }
  void * mapped;
  if (base_ == nullptr) {
    mapped = mmap(nullptr, *rounded, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags_, -1, 0);
  } else if (*rounded == size_) {
    return base_;
  } else {
    mapped = mremap(base_, size_, *rounded, MREMAP_MAYMOVE);
  }
  if (mapped == MAP_FAILED) {
    int error = errno;
    return fail(method, base_ == nullptr
                              ? fmt::format("mmap of {} bytes failed: {}", *rounded, std::strerror(error))
                              : fmt::format("mremap from {} to {} bytes failed: {}", size_, *rounded,
                                            std::strerror(error)));
  }
  base_ = mapped;
  size_ = *rounded;
  return base_;
}

void * Local::fail(const char * method, std::string what) {
  detach();
  reason_ = std::move(what);
  BASALT_TRACE(handler_, 0, "Local::{}() {}", method, reason_);
  return nullptr;
}

}  // namespace Arena

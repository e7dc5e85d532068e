#include "ArenaFiles/OwnerFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Basalt/Util.h"

namespace ArenaFiles {

namespace {

// Bytes of a file that is not a record, shown by headerToString.
constexpr std::size_t DumpedBytes = 32;

// A name as read from a file that may hold anything: printable characters as
// they are, others as \xNN.
std::string printable(std::string_view text) {
  std::string shown;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f) {
      shown += static_cast<char>(c);
    } else {
      fmt::format_to(std::back_inserter(shown), "\\x{:02x}", c);
    }
  }
  return shown;
}

std::string_view nameOf(const OwnerFile::Record & record) {
  return std::string_view(record.socketName, strnlen(record.socketName, sizeof(record.socketName)));
}

}  // namespace

uint32_t OwnerFile::Record::doChecksum() const {
  return SmallFile::checksumOf(*this, offsetof(Record, checksum));
}

OwnerFile::OwnerFile(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem)
    : handler_(handler),
      directory_(std::move(directory)),
      path_(directory_ + "/" + FILENAME),
      lockPath_(directory_ + "/" + LOCK_NAME),
      localMem_(localMem) {}

OwnerFile::~OwnerFile() { unlock(); }

namespace {

std::chrono::milliseconds & lockWaitLimit() {
  static std::chrono::milliseconds limit = OwnerFile::DefaultLockWait;
  return limit;
}

}  // namespace

std::chrono::milliseconds OwnerFile::lockWait() { return lockWaitLimit(); }
void OwnerFile::lockWaitIs(std::chrono::milliseconds wait) { lockWaitLimit() = wait; }

void OwnerFile::lock() {
  if (localMem_ || locked()) {
    return;
  }
  std::string message;
  switch (Basalt::Util::lockFile(lockPath_, lockWait(), lockFd_, message)) {
    case Basalt::Util::LockOutcome::Locked:
      if (Basalt::Util::lockHolderIs(lockFd_, getpid())) {
        BASALT_TRACE(handler_, 5, "OwnerFile::lock() {} locked", lockPath_);
        return;
      }
      message = fmt::format("cannot record pid in {}: {}", lockPath_, std::strerror(errno));
      unlock();
      break;
    case Basalt::Util::LockOutcome::Busy: {
      const pid_t holder = Basalt::Util::lockHolder(lockFd_);
      unlock();
      message = fmt::format("table:{} still locked by {} after {} ms", directory_,
                            holder != 0 ? fmt::format("pid:{}", holder) : std::string("an unknown process"),
                            lockWait().count());
      break;
    }
    case Basalt::Util::LockOutcome::Failed:
      break;
  }
  message = fmt::format("OwnerFile::lock() {}", message);
  BASALT_TRACE(handler_, 0, "{}", message);
  throw Basalt::InvalidInitializeException(message);
}

// Closing the one descriptor of the lock's open file description drops it.
void OwnerFile::unlock() {
  if (!locked()) {
    return;
  }
  close(lockFd_);
  lockFd_ = -1;
  BASALT_TRACE(handler_, 5, "OwnerFile::unlock() {} unlocked", lockPath_);
}

// The lock file goes last, while its lock is still held (invariant 3).
void OwnerFile::remove() {
  if (localMem_) {
    return;
  }
  for (const std::string & path : {path_, lockPath_}) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      BASALT_TRACE(handler_, 0, "OwnerFile::remove() cannot unlink {}: {}", path, std::strerror(errno));
    }
  }
}

bool OwnerFile::validate() const {
  std::string error;
  if (validate(error)) {
    return true;
  }
  BASALT_TRACE(handler_, 1, "{}", error);
  return false;
}

bool OwnerFile::validate(std::string & error) const {
  Record record;
  std::string why;
  if (localMem_ || load(record, why) != Load::Unsound) {
    return true;
  }
  error = fmt::format("OwnerFile::validate() {} {}", path_, why);
  return false;
}

void OwnerFile::validateFile() const {
  if (localMem_) {
    return;
  }
  Record record;
  std::string why;
  switch (load(record, why)) {
    case Load::Sound:
      return;
    case Load::Absent:
      why = "absent";
      break;
    case Load::Empty:
      why = "holds no owner record";
      break;
    case Load::Unsound:
      break;
  }
  auto message = fmt::format("OwnerFile::validateFile() {} {}", path_, why);
  BASALT_TRACE(handler_, 0, "{}", message);
  throw Basalt::CorruptionDetectedException(message);
}

DoorbellInfo OwnerFile::doorbellInfo() const {
  Record record;
  std::string why;
  if (localMem_) {
    return DoorbellInfo();
  }
  switch (load(record, why)) {
    case Load::Sound:
      return DoorbellInfo(std::string(nameOf(record)), record.tableId);
    case Load::Absent:
    case Load::Empty:
      return DoorbellInfo();
    case Load::Unsound:
      break;
  }
  auto message = fmt::format("OwnerFile::doorbellInfo() {} {}", path_, why);
  BASALT_TRACE(handler_, 0, "{}", message);
  throw Basalt::CorruptionDetectedException(message);
}

// One write of the whole record at offset 0 (invariant 2); the truncation
// cuts whatever a longer, damaged file held past it.
bool OwnerFile::doorbellInfoIs(const DoorbellInfo & info) {
  if (localMem_) {
    return true;
  }
  Record record{};
  record.magic = Magic;
  record.version = Version;
  record.tableId = info.tableId();
  record.nameLength = static_cast<uint32_t>(info.socketName().size());
  std::memcpy(record.socketName, info.socketName().data(), info.socketName().size());
  record.checksum = record.doChecksum();

  int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  bool done = fd >= 0 && pwrite(fd, &record, sizeof(record), 0) == static_cast<ssize_t>(sizeof(record)) &&
              ftruncate(fd, sizeof(record)) == 0;
  if (!done) {
    BASALT_TRACE(handler_, 0, "OwnerFile::doorbellInfoIs() cannot write {}: {}", path_, std::strerror(errno));
  }
  if (fd >= 0) {
    close(fd);
  }
  if (done) {
    BASALT_TRACE(handler_, 2, "OwnerFile::doorbellInfoIs() {} {}", path_, info.toString());
  }
  return done;
}

std::string OwnerFile::headerToString() const {
  if (localMem_) {
    return "OwnerFile::Header() local table, no file";
  }
  SmallFile::Contents contents = SmallFile::read(path_, sizeof(Record));
  switch (contents.status) {
    case SmallFile::Status::Absent:
      return fmt::format("OwnerFile::Header() {} absent", path_);
    case SmallFile::Status::Failed:
      return fmt::format("OwnerFile::Header() {}", contents.error);
    case SmallFile::Status::Read:
      break;
  }
  if (contents.bytes.empty()) {
    return fmt::format("OwnerFile::Header() {} empty", path_);
  }
  if (contents.bytes.size() != sizeof(Record)) {
    return fmt::format("OwnerFile::Header() {} size:{}{} bytes: {}", path_,
                       contents.bytes.size() > sizeof(Record) ? "more than " : "",
                       std::min(contents.bytes.size(), sizeof(Record)),
                       Basalt::dumpHex(contents.bytes.data(), std::min(contents.bytes.size(), DumpedBytes)));
  }
  Record record;
  std::memcpy(&record, contents.bytes.data(), sizeof(record));
  return fmt::format(
      "OwnerFile::Header() {} magic:0x{:x} version:{} checksum:0x{:x} computed:0x{:x} tableId:{} "
      "nameLength:{} socketName:{} reserved:{}",
      path_, record.magic, record.version, record.checksum, record.doChecksum(), record.tableId,
      record.nameLength, printable(nameOf(record)), record.reserved);
}

OwnerFile::Load OwnerFile::load(Record & record, std::string & why) const {
  SmallFile::Contents contents = SmallFile::read(path_, sizeof(Record));
  switch (contents.status) {
    case SmallFile::Status::Absent:
      return Load::Absent;
    case SmallFile::Status::Failed:
      why = contents.error;
      return Load::Unsound;
    case SmallFile::Status::Read:
      break;
  }
  if (contents.bytes.empty()) {
    return Load::Empty;
  }
  if (contents.bytes.size() != sizeof(Record)) {
    why = contents.bytes.size() > sizeof(Record)
              ? fmt::format("bad size: more than {} bytes", sizeof(Record))
              : fmt::format("bad size:{} expected:{}", contents.bytes.size(), sizeof(Record));
    return Load::Unsound;
  }
  std::memcpy(&record, contents.bytes.data(), sizeof(record));
  const uint32_t computed = record.doChecksum();
  if (record.magic != Magic) {
    why = fmt::format("bad magic:0x{:x}", record.magic);
  } else if (record.version != Version) {
    why = fmt::format("bad version:{}", record.version);
  } else if (computed != record.checksum) {
    why = fmt::format("checksum fail: 0x{:x} != 0x{:x}", computed, record.checksum);
  } else if (record.nameLength > DoorbellInfo::MaxSocketName || nameOf(record).size() != record.nameLength) {
    why = fmt::format("bad nameLength:{} for socket name:{}", record.nameLength, printable(nameOf(record)));
  } else if (std::any_of(record.socketName + record.nameLength, record.socketName + SocketNameSize,
                         [](char c) { return c != '\0'; })) {
    why = "bad socket name padding";
  } else if (record.reserved != 0) {
    why = fmt::format("bad reserved:{}", record.reserved);
  } else {
    return Load::Sound;
  }
  return Load::Unsound;
}

}  // namespace ArenaFiles

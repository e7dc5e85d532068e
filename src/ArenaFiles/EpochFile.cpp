#include "ArenaFiles/EpochFile.h"

#include <sys/stat.h>

#include <cstring>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Basalt/Util.h"

namespace ArenaFiles {

uint32_t EpochFile::Record::doChecksum() const {
  return SmallFile::checksumOf(*this, offsetof(Record, checksum));
}

EpochFile::EpochFile(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem)
    : handler_(handler),
      directory_(std::move(directory)),
      path_(directory_ + "/" + EPOCH_NAME),
      localMem_(localMem) {}

EpochId EpochFile::read() const {
  EpochId id;
  std::string why;
  switch (localMem_ ? Load::Absent : load(id, why)) {
    case Load::Sound:
      BASALT_TRACE(handler_, 5, "EpochFile::read() {} epochId:{}", path_, id.toString());
      return id;
    case Load::Absent:
      BASALT_TRACE(handler_, 5, "EpochFile::read() {} absent", path_);
      return EpochId();
    case Load::Unsound:
      BASALT_TRACE(handler_, 0, "EpochFile::read() {} {}", path_, why);
      return EpochId();
  }
  return EpochId();
}

void EpochFile::write(EpochId id) const {
  BASALT_ASSERT(!id.none(), "ArenaFiles/EpochFile", fmt::format("EpochFile::write() {} epochId 0", path_));
  if (localMem_) {
    return;
  }
  Record record{Magic, Version, id, 0, 0};
  record.checksum = record.doChecksum();
  std::string error;
  if (!Basalt::Util::makeDirectories(directory_, error) ||
      !SmallFile::replace(path_, std::string_view(reinterpret_cast<const char *>(&record), sizeof(record)),
                          error)) {
    auto message = fmt::format("EpochFile::write() {} epochId:{} {}", path_, id.toString(), error);
    BASALT_TRACE(handler_, 0, "{}", message);
    throw Basalt::InvalidInitializeException(message);
  }
  BASALT_TRACE(handler_, 2, "EpochFile::write() {} epochId:{}", path_, id.toString());
}

void EpochFile::validate(EpochId expected) const {
  if (localMem_) {
    return;
  }
  EpochId id;
  std::string why;
  std::string message;
  switch (load(id, why)) {
    case Load::Sound:
      if (id == expected) {
        return;
      }
      message = fmt::format("EpochFile::validate() {} epochId:{} expected:{}", path_, id.toString(),
                            expected.toString());
      break;
    case Load::Absent:
      message = fmt::format("EpochFile::validate() {} absent, expected:{}", path_, expected.toString());
      break;
    case Load::Unsound:
      message = fmt::format("EpochFile::validate() {} {}", path_, why);
      break;
  }
  BASALT_TRACE(handler_, 0, "{}", message);
  throw Basalt::CorruptionDetectedException(message);
}

int64_t EpochFile::mtime() const {
  struct stat status;
  if (localMem_ || stat(path_.c_str(), &status) != 0) {
    return 0;
  }
  return static_cast<int64_t>(status.st_mtime);
}

EpochFile::Load EpochFile::load(EpochId & id, std::string & why) const {
  SmallFile::Contents contents = SmallFile::read(path_, sizeof(Record));
  if (contents.status == SmallFile::Status::Absent) {
    return Load::Absent;
  }
  if (contents.status == SmallFile::Status::Failed) {
    why = contents.error;
    return Load::Unsound;
  }
  if (contents.bytes.size() != sizeof(Record)) {
    why = contents.bytes.size() > sizeof(Record)
              ? fmt::format("bad size: more than {} bytes", sizeof(Record))
              : fmt::format("bad size:{} expected:{}", contents.bytes.size(), sizeof(Record));
    return Load::Unsound;
  }
  Record record;
  std::memcpy(&record, contents.bytes.data(), sizeof(record));
  const uint32_t computed = record.doChecksum();
  if (record.magic != Magic) {
    why = fmt::format("bad magic:0x{:x}", record.magic);
  } else if (record.version != Version) {
    why = fmt::format("bad version:{}", record.version);
  } else if (computed != record.checksum) {
    why = fmt::format("checksum fail: 0x{:x} != 0x{:x}", computed, record.checksum);
  } else if (record.epochId.none()) {
    why = "bad epochId:0x00000000";
  } else {
    id = record.epochId;
    return Load::Sound;
  }
  return Load::Unsound;
}

}  // namespace ArenaFiles

#pragma once
// ArenaFiles::EpochFile: the generation stamp that a table's writer leaves
// beside the table's files, the EpochId under which they were last attached
// and found sound. A reader takes its generation from here and refuses files
// of any other.
//
// Contract:
//   write(id)     writer only, after a successful attach; the stamp is
//                 recorded only once the files are sound. Raises
//                 Basalt::InvalidInitializeException when it can't; an id of
//                 0 (none) is a programming error, an assertion.
//   read()        any process: the stamp, or 0 when there is no usable one
//                 (absent: traced at level 5; unsound or unreadable: level 0).
//   validate(id)  any process: returns if the stamp is `id`, else raises
//                 Basalt::CorruptionDetectedException saying why.
//   mtime()       any process: when the stamp was written, in seconds since
//                 the epoch of the system clock; 0 when there is no file.
// A table in local memory has no file: read() and mtime() give 0, write and
// validate do nothing.
//
// The file EPOCH_NAME in the table's directory is one record of 24 bytes:
//
//   offset size field
//   0      8    magic     "TSLEPOCH"
//   8      4    version   1
//   12     4    epochId   the table's generation, never 0
//   16     4    checksum  FNV-1a (Basalt/HashMix.h) of bytes 0-15 and 20-23
//   20     4    reserved  0
//
// Invariants:
//  1. The file is replaced whole (ArenaFiles/SmallFile.h: temporary file,
//     sync, rename), so a reader sees the old stamp or the new one, and a
//     crash during write leaves the old one.
//  2. Anything but exactly such a record, with its checksum, is no stamp:
//     read() gives 0, which a reader takes for "no table yet" and a writer
//     for "new table".

#include <cstddef>
#include <cstdint>
#include <string>

#include "ArenaFiles/EpochId.h"
#include "ArenaFiles/SmallFile.h"
#include "Basalt/DebugHandler.h"

namespace ArenaFiles {

class EpochFile {
 public:
  static constexpr const char * EPOCH_NAME = "epoch";
  static constexpr uint64_t Magic = SmallFile::magicOf("TSLEPOCH");
  static constexpr uint32_t Version = 1;

  struct Record {
    uint64_t magic;
    uint32_t version;
    EpochId epochId;
    uint32_t checksum;
    uint32_t reserved;

    // FNV-1a of every byte but the checksum's own.
    uint32_t doChecksum() const;
  };

  // `directory` is the table's directory (Cairn::RootPath::directory()).
  EpochFile(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem);

  EpochId read() const;
  void write(EpochId id) const;
  void validate(EpochId expected) const;
  int64_t mtime() const;

  const std::string & path() const { return path_; }
  bool localMem() const { return localMem_; }

 private:
  enum class Load { Sound, Absent, Unsound };
  // The stamp in `id` when Sound; otherwise `why` says what is wrong.
  Load load(EpochId & id, std::string & why) const;

  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
  std::string path_;
  bool localMem_;
};

static_assert(sizeof(EpochFile::Record) == 24, "the epoch file is one 24-byte record");
static_assert(offsetof(EpochFile::Record, version) == 8 && offsetof(EpochFile::Record, epochId) == 12 &&
                  offsetof(EpochFile::Record, checksum) == 16 && offsetof(EpochFile::Record, reserved) == 20,
              "epoch file fields at their file-format offsets");

}  // namespace ArenaFiles

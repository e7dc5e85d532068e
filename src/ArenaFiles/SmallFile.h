#pragma once
// The small files that lie beside a table's mapped files (the epoch file, the
// corruption marker) are read whole and replaced whole, so that no process
// ever sees one half written.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Basalt/HashMix.h"

namespace ArenaFiles::SmallFile {

// Eight characters as the 64-bit word they are when read little-endian: the
// magic of a record whose file begins with these characters.
constexpr uint64_t magicOf(const char (&text)[9]) {
  uint64_t word = 0;
  for (int i = 7; i >= 0; --i) {
    word = (word << 8) | static_cast<uint8_t>(text[i]);
  }
  return word;
}

enum class Status { Read, Absent, Failed };

struct Contents {
  Status status = Status::Absent;
  std::string bytes;  // Read: the file, or its first limit + 1 bytes if it is longer
  std::string error;  // Failed: what failed on which path
};

// The file at `path`, read up to `limit` + 1 bytes, so that a caller that
// expects at most `limit` tells a longer file from one that fits.
Contents read(const std::string & path, std::size_t limit);

// Neither function follows a symbolic link at `path` (O_NOFOLLOW): a link
// reads as a failure to open, and a replace renames over the link itself.

// Replaces the file at `path` by `bytes` in one step: they are written to
// "<path>.tmp.<pid>", synced, and renamed over `path`. Whoever opens the path
// gets the old file or the new one, never a mixture, and so does a restart
// after a crash. The sync matters when the files lie on a disk; on tmpfs (the
// default base directory) it costs nothing. The directory must exist. On
// false, `error` says what failed, and no temporary file is left.
bool replace(const std::string & path, std::string_view bytes, std::string & error);

// FNV-1a of every byte of `record` except its 32-bit checksum field, which
// lies at `checksumOffset`: the checksum of each small file's record.
template <typename Record>
uint32_t checksumOf(const Record & record, std::size_t checksumOffset) {
  Basalt::Impl::HashMix<unsigned int> mix;
  const auto * bytes = reinterpret_cast<const char *>(&record);
  mix.mixBytes(bytes, checksumOffset);
  const std::size_t after = checksumOffset + sizeof(uint32_t);
  mix.mixBytes(bytes + after, sizeof(Record) - after);
  return mix.result();
}

}  // namespace ArenaFiles::SmallFile

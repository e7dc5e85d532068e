#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Basalt::Util {

// The 32 bits of `value` in reverse order (bit 0 to bit 31, bit 1 to bit 30, ...):
// neighbouring bits swapped, then neighbouring pairs, then nibbles, then the
// four bytes reversed. A key's place in its chain is the reversal of its hash.
constexpr uint32_t reverse(uint32_t value) {
  value = ((value >> 1) & 0x55555555u) | ((value & 0x55555555u) << 1);
  value = ((value >> 2) & 0x33333333u) | ((value & 0x33333333u) << 2);
  value = ((value >> 4) & 0x0F0F0F0Fu) | ((value & 0x0F0F0F0Fu) << 4);
  return __builtin_bswap32(value);
}

// Core dumps. /proc/self/coredump_filter chooses which mappings a core of
// this process holds; bits 0 to 3 are anonymous private, anonymous shared,
// file-backed private and file-backed shared memory. The kernel's default
// (0x33) leaves out file-backed shared mappings, and so every table file.
// includeShmemInCore() sets bits 0 to 3 and keeps every other bit as it was,
// so that a core taken after detected corruption holds the tables as the
// process saw them. A mapping marked MADV_DONTDUMP stays out whatever the
// filter says (Arena::ArenaFilesWrapper::dumpToCoreIs). The filter is
// inherited by children forked later. Returns false, with a level 0 trace of
// the process handler, when the file can't be read or written.
constexpr unsigned CoreDumpSharedBits = 0x0F;
bool includeShmemInCore();

// Creates `directory` and its missing parents with mode 0755, as `mkdir -p`
// does; a component that exists already is passed over. On false `error`
// says which prefix failed and why.
bool makeDirectories(const std::string & directory, std::string & error);

// An exclusive flock(2) on a file, the lock of the table files. flock belongs
// to the open file description: it is held while any descriptor of that
// description is open, a second open of the same file in the same process
// gets a lock of its own (which conflicts with the first), and the kernel
// drops it when its last holder dies.
//
// lockFile opens `path` read-write with O_CLOEXEC, creating it (mode 0644)
// and its directory when absent, and takes the lock, waiting for it when
// `wait` is true. It returns only holding a lock on the file that is linked
// at `path` at that moment: a holder may unlink the file and so hand its
// lock to an orphan inode, and a lock taken on an orphan is dropped and taken
// again on the file now at the path.
//   Locked  `fd` is the open descriptor that holds the lock.
//   Busy    (only without `wait`) another description holds it; `fd` is open
//           without the lock, so that the caller can read what its holder
//           recorded, and the caller closes it.
//   Failed  `fd` is -1 and `error` says what failed on which path.
enum class LockOutcome { Locked, Busy, Failed };
LockOutcome lockFile(const std::string & path, bool wait, int & fd, std::string & error);

}  // namespace Basalt::Util

namespace Basalt {

// Bytes as lower-case hex pairs separated by blanks ("01 ff 00"); the form in
// which corruption messages print keys.
std::string dumpHex(const void * data, std::size_t length);

}  // namespace Basalt

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
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
// does, and makes sure that nobody but this user and root can change what
// lies in it. Every directory on the path, from "/" down, existing or made
// here, must be:
//   - owned by the effective user of the process or by root, and
//   - not writable by group or others, except with the sticky bit (as /tmp
//     and /dev/shm): there others may add entries of their own but can't
//     remove or rename ours. `directory` itself, where the files are made,
//     must not be writable by group or others at all.
// A symbolic link on the path is followed only when it is owned by this user
// or root (its directory, checked before it, lets nobody else replace it);
// its target's path is then checked the same way. A component that is
// neither a directory nor a link is left to the operation that needs it (its
// mkdir or open fails with ENOTDIR). On false `error` names the path that
// failed and why; nothing is created past it. The library's table
// directories are made through this, so that no other user can plant a file
// or a link where a writer makes its files.
bool makeDirectories(const std::string & directory, std::string & error);

// An exclusive flock(2) on a file, the lock of the table files. flock belongs
// to the open file description: it is held while any descriptor of that
// description is open, a second open of the same file in the same process
// gets a lock of its own (which conflicts with the first), and the kernel
// drops it when its last holder dies.
//
// lockFile opens `path` read-write with O_NOFOLLOW and O_CLOEXEC, creating it
// (mode 0600) and its directory (makeDirectories) when absent, and takes the
// lock, trying again for at most `wait` while another holds it: never without
// bound. A lock file is private to the user that makes it, so that no other
// user can open it, and so can't hold its lock: one that others could open
// (left by an older release) is removed once its lock is ours and made anew.
// It returns only holding a lock on the file that is linked at `path` at that
// moment: a holder may unlink the file and so hand its lock to an orphan
// inode, and a lock taken on an orphan is dropped and taken again on the file
// now at the path.
//   Locked  `fd` is the open descriptor that holds the lock.
//   Busy    another description still holds it after `wait`; `fd` is open
//           without the lock, so that the caller can read what its holder
//           recorded (lockHolder), and the caller closes it.
//   Failed  `fd` is -1 and `error` says what failed on which path.
enum class LockOutcome { Locked, Busy, Failed };
LockOutcome lockFile(const std::string & path, std::chrono::milliseconds wait, int & fd, std::string & error);

// The holder of a lock file records its process id in it, as decimal text
// and a newline, so that a process that finds the lock busy can name it.
// lockHolderIs writes `pid` over the file's contents (false on failure, with
// errno set); lockHolder reads it back, 0 when none is recorded.
bool lockHolderIs(int fd, pid_t pid);
pid_t lockHolder(int fd);

// 16 lower-case hex digits from the kernel's random source (getrandom(2)):
// the part of a socket name that no other process can predict. Tests may
// replace the source with randomTokenSourceIs; an empty function restores it.
std::string randomToken();
void randomTokenSourceIs(std::function<std::string()> source);

}  // namespace Basalt::Util

namespace Basalt {

// Bytes as lower-case hex pairs separated by blanks ("01 ff 00"); the form in
// which corruption messages print keys.
std::string dumpHex(const void * data, std::size_t length);

}  // namespace Basalt

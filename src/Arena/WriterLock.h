#pragma once
// Arena::WriterLock: one writer process per table, for as long as it lives.
//
// Contract (all of it runs on the thread that attaches tables):
//   acquireWriterLock(handler, directory)
//       makes the calling process the one writer of the table whose files lie
//       in `directory`, and returns this writer's socket name. A table whose
//       writer has died is taken over. A table with a live writer in another
//       process is refused with Basalt::InvalidInitializeException
//       "WriterLock::acquireWriterLock() table:<directory> owned by live
//       writer pid:<pid>", also traced at level 0; it never waits. In the
//       process that is the writer already, it returns the same name again
//       and changes nothing.
//   releaseWriterLock(handler, directory)
//       gives the role up: removes the lock file and drops the lock. False
//       when this process did not hold it.
//   ownerIsMe(handler, socketName), ownerIsAlive(handler, socketName, text)
//       judge an owner by the process id its socket name carries.
//
// Mechanism. The lock file LOCK_NAME in the table's directory holds an
// exclusive flock(2), taken on a descriptor that a process-wide registry keeps
// open until the table is released or the process ends; then the kernel
// drops the lock, so a writer that dies (even by SIGKILL) frees its table.
// The holder writes its process id into the file, as decimal text, so that a
// refused process can name it. The file is private to the writer's user
// (mode 0600, Basalt::Util::lockFile): a user who may read the table can't
// open it, and so can't hold its lock and keep the next writer out. Nothing
// waits for it: a held lock is a refusal at once.
//
// Invariants:
//  1. At most one process holds the flock of the lock file linked at the path
//     (Basalt::Util::lockFile never returns holding a lock on an unlinked
//     file, and a release unlinks the file before it drops the lock).
//  2. A holder has written its pid before it returns from acquire. Callers
//     acquire under the lock of the table's ArenaFiles::OwnerFile, so no
//     other acquirer reads the file between the lock and that write.
//  3. The registry has an entry for a directory exactly while this process
//     holds that table's lock. flock belongs to the open file description,
//     and two opens in one process conflict, so a second acquire in the same
//     process is answered from the registry, never from the kernel.
//  4. A child made by fork() shares its parent's open file descriptions and
//     so would keep the parent's tables locked after the parent's death: the
//     child closes its copies inside fork(), before fork() returns in it (a
//     pthread_atfork handler), and starts with an empty registry. Closing a copy leaves the parent's lock alone.
//     Lock descriptors are O_CLOEXEC, so an exec'd program holds none.
//
// Socket names. A writer's name is "tessel-<last component of the directory,
// at most 32 characters>-<8 hex digits of the FNV-1a of the directory>-<16
// random hex digits>-<pid>": at most 76 characters, fit for the abstract
// socket namespace or a file name. The random part (Basalt::Util::randomToken)
// is new with every name, so that no other process can take a writer's name
// before it listens: the abstract namespace checks no permission, and a
// predictable name could be bound first by any user. Readers learn the name
// from the owner file. Every doorbell socket name, also the process-wide one
// that replaces it under the OneSocketNudge toggle, ends in "-<decimal pid>";
// pidOfSocketName reads it back. ArenaFiles::DoorbellName is the face of this
// rule for the layers above.

#include <sys/types.h>

#include <string>

#include "Basalt/DebugHandler.h"

namespace Arena {

class WriterLock {
 public:
  static constexpr const char * LOCK_NAME = "writer.lock";

  WriterLock() = delete;

  static std::string acquireWriterLock(Basalt::Platform::DebugHandler & handler,
                                       const std::string & directory);
  static bool releaseWriterLock(Basalt::Platform::DebugHandler & handler, const std::string & directory);
  // True if this process holds the lock of the table in `directory`.
  static bool holdsWriterLock(const std::string & directory);

  // True if `socketName` carries this process's id.
  static bool ownerIsMe(Basalt::Platform::DebugHandler & handler, const std::string & socketName);
  // True if `socketName` carries the id of a process that exists. `ownerText`
  // becomes that process's command name (or "pid<N>" when it can't be read);
  // when false, "none" for an empty name, "unknown" for a name without an id,
  // "dead" for a process that is gone. A pid that the system has reused for
  // another process since counts as alive.
  static bool ownerIsAlive(Basalt::Platform::DebugHandler & handler, const std::string & socketName,
                           std::string & ownerText);

  // A fresh name for writer `pid` of the table in `directory`: a new random
  // part with every call.
  static std::string socketNameFor(const std::string & directory, pid_t pid);
  // In the process that holds the table's lock: a fresh name replaces the
  // one acquireWriterLock gave (which another socket has taken), and is
  // returned from then on. Not holding the lock is a programming error, an
  // assertion.
  static std::string renewSocketName(Basalt::Platform::DebugHandler & handler, const std::string & directory);
  // The id at the end of a socket name, 0 when it ends in none.
  static pid_t pidOfSocketName(const std::string & socketName);
};

}  // namespace Arena

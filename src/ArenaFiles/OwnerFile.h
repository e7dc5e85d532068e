#pragma once
// ArenaFiles::OwnerFile: who owns a table, and the lock under which a writer
// attaches to it or cleans it up.
//
// Contract:
//   lock(), unlock()     writer side, any process that attaches or cleans up:
//                        an exclusive flock(2) on the lock file LOCK_NAME
//                        beside the record, created with its directory when
//                        absent (Basalt::Util::lockFile: mode 0600, so that
//                        only the writer's user can open it), waited for at
//                        most lockWait(), and held until unlock() or the end
//                        of the object. Attaches and cleanups of one table
//                        thus never overlap, and Arena::WriterLock, acquired
//                        under it, always finds its lock file's pid recorded.
//                        The holder records its pid in the lock file. A lock
//                        still held by another after lockWait() raises
//                        Basalt::InvalidInitializeException "OwnerFile::lock()
//                        table:<directory> still locked by pid:<pid> after
//                        <ms> ms" ("an unknown process" when none is
//                        recorded). Readers never take it, and can't: the
//                        record they read is another file. Two OwnerFile
//                        objects of one table locked by one thread exclude
//                        each other, and the second lock() raises after the
//                        wait. A child made by fork() while the lock is held
//                        shares it until the child unlock()s its copy of the
//                        object.
//   remove()             cleanup, under the lock: removes the record and the
//                        lock file.
//   doorbellInfoIs(info) writer only: records the owner's DoorbellInfo; in
//                        attach under the lock, in detach (an empty info)
//                        after Arena::WriterLock::ownerIsMe. False, traced at
//                        level 0, when the file can't be written.
//   doorbellInfo()       any process: the recorded info; empty when the file
//                        is absent or empty; Basalt::CorruptionDetectedException
//                        when it is unsound.
//   validate(), validate(error)
//                        any process: true for a sound record and for a file
//                        that has not yet been written (absent, or empty as
//                        an older release's lock() left it); false with the
//                        reason.
//   validateFile()       any process, on an attached table: returns if the
//                        file holds a sound record, else raises
//                        Basalt::CorruptionDetectedException (also when it is
//                        absent or empty: an attached writer has written one).
//   headerToString()     the file as it stands, for failure traces.
// A table in local memory has no file: lock, unlock, remove and
// doorbellInfoIs do nothing, doorbellInfo is empty, and every validation passes.
//
// The file FILENAME in the table's directory is empty or one record of 136
// bytes:
//
//   offset size field
//   0      8    magic       "TSLOWNER"
//   8      4    version     1
//   12     4    checksum    FNV-1a (Basalt/HashMix.h) of bytes 0-11 and 16-135
//   16     4    tableId     DoorbellInfo::tableId
//   20     4    nameLength  bytes of the socket name, 0 to 107
//   24     108  socketName  the name, then NUL bytes to the end
//   132    4    reserved    0
//
// An empty socket name (nameLength 0) says that no writer is there.
//
// Invariants:
//  1. The file is empty or holds exactly one record, and a sound record's
//     checksum matches and its name fills nameLength bytes, NULs after.
//  2. The record is rewritten in place, by one write of all 136 bytes at
//     offset 0. A reader racing a rewrite may see a torn record; its
//     checksum then fails, and it reads as corruption, which callers take
//     for "owner unknown".
//  3. cleanup removes the lock file while it holds the lock;
//     Basalt::Util::lockFile never returns holding a lock on a removed file,
//     so a waiting locker locks the file at the path, not the orphan.
//  4. The record is readable by every user (mode 0644), the lock file by the
//     writer's user alone (0600): whoever may read a table can't hold the
//     lock of its attach.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ArenaFiles/DoorbellInfo.h"
#include "ArenaFiles/SmallFile.h"
#include "Basalt/DebugHandler.h"

namespace ArenaFiles {

class OwnerFile {
 public:
  static constexpr const char * FILENAME = "owner";
  static constexpr const char * LOCK_NAME = "owner.lock";
  // How long lock() waits for another attach or cleanup of the table by
  // default: far longer than any of them takes.
  static constexpr std::chrono::milliseconds DefaultLockWait{10000};
  static constexpr uint64_t Magic = SmallFile::magicOf("TSLOWNER");
  static constexpr uint32_t Version = 1;
  static constexpr std::size_t SocketNameSize = DoorbellInfo::MaxSocketName + 1;

  struct Record {
    uint64_t magic;
    uint32_t version;
    uint32_t checksum;
    uint32_t tableId;
    uint32_t nameLength;
    char socketName[SocketNameSize];
    uint32_t reserved;

    // FNV-1a of every byte but the checksum's own.
    uint32_t doChecksum() const;
  };

  // `directory` is the table's directory (Cairn::RootPath::directory()).
  OwnerFile(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem);
  ~OwnerFile();
  OwnerFile(const OwnerFile &) = delete;
  OwnerFile & operator=(const OwnerFile &) = delete;

  // Raises Basalt::InvalidInitializeException, traced at level 0, when the
  // file can't be created or locked in time. A second lock() of a locked
  // object does nothing.
  void lock();
  void unlock();
  void remove();
  // The bound of lock()'s wait, for every OwnerFile of the process.
  static std::chrono::milliseconds lockWait();
  static void lockWaitIs(std::chrono::milliseconds wait);
  bool locked() const { return lockFd_ >= 0; }

  bool validate() const;
  bool validate(std::string & error) const;
  void validateFile() const;
  DoorbellInfo doorbellInfo() const;
  bool doorbellInfoIs(const DoorbellInfo & info);
  std::string headerToString() const;

  const std::string & path() const { return path_; }
  const std::string & lockPath() const { return lockPath_; }
  bool localMem() const { return localMem_; }

 private:
  enum class Load { Sound, Absent, Empty, Unsound };
  // The record in `record` when Sound; when Unsound, `why` says what is wrong.
  Load load(Record & record, std::string & why) const;

  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
  std::string path_;
  std::string lockPath_;
  bool localMem_;
  int lockFd_ = -1;
};

static_assert(sizeof(OwnerFile::Record) == 136, "the owner file is empty or one 136-byte record");
static_assert(offsetof(OwnerFile::Record, version) == 8 && offsetof(OwnerFile::Record, checksum) == 12 &&
                  offsetof(OwnerFile::Record, tableId) == 16 &&
                  offsetof(OwnerFile::Record, nameLength) == 20 &&
                  offsetof(OwnerFile::Record, socketName) == 24 &&
                  offsetof(OwnerFile::Record, reserved) == 132,
              "owner file fields at their file-format offsets");

}  // namespace ArenaFiles

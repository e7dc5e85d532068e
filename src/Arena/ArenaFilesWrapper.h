#pragma once
// Arena::ArenaFilesWrapper: one table file mapped into this process, or a
// block of private memory with the same contract when the table is local.
//
// Contract:
//   attach(size, mode)  ReadWrite: creates the directory and the file if they
//                       are absent and extends the file to `size` if it is
//                       shorter; maps the whole file (at least `size` bytes),
//                       shared. ReadOnly: opens an existing file of at least
//                       `size` bytes and maps it whole, read-only; the
//                       process then never writes a byte of it. Returns the
//                       base, or null with reason() set.
//   resize(size)        ReadWrite extends the file if it is shorter (a file
//                       never shrinks here); both modes then remap to exactly
//                       `size` bytes. The base may move. Null on failure, with
//                       reason() set, and then nothing stays mapped.
//   memSize()           the bytes mapped; while detached, the size of the file
//                       on disk (0 when it does not exist).
//   fileSize()          the size of the file on disk now: of the file mapped
//                       while attached (another process may have extended it
//                       since), of the file at the path while detached. A
//                       reader that must know whether the file holds what its
//                       header announces asks this, not memSize().
//   releaseTail(keep)   gives the memory behind the file's bytes from `keep`
//                       (rounded up to a page) to its end back to the system,
//                       while the file keeps its length: a mapping of the old
//                       length, in any process, stays readable and reads
//                       zeros there. ReadWrite only. Private memory has
//                       nothing to give back: its resize unmaps the tail.
//   remove()            unlinks the file, detaching first if it is mapped (the
//                       writer's cleanup alone calls it). True when no file is
//                       left at the path, an absent file included.
// A mapping is released by detach(), a failed resize or the destructor, never
// by anything else.
//
// Sizes of 0: attach maps at least one byte, so attaching 0 bytes of an empty
// or absent file (or of private memory) fails. resize(0) releases the mapping
// and returns null with reason() empty, which is not a failure.
//
// A ReadWrite attach creates the directory and its missing parents (mode
// 0755) and the file (mode 0644), and refuses a directory that another user
// could change (Basalt::Util::makeDirectories says which). No attach follows
// a symbolic link at the file's path (O_NOFOLLOW): a link fails to open. A ReadOnly attach or resize never changes
// the file: asking for more than it holds fails, since touching a mapped page
// past the end of a file raises SIGBUS.
//
// reason() says what failed, on which path, and the system's error text; the
// same words go to the trace at level 0 behind "ArenaFilesWrapper::<method>() ".
//
// dumpToCoreIs(bool) marks the mapping for core dumps: true MADV_DODUMP,
// false MADV_DONTDUMP. The choice is remembered and applied again to every
// later mapping (attach, resize), so it holds however the mapping moves; until
// it is made, mappings keep the kernel's default. A shared file mapping is in
// a core only if /proc/self/coredump_filter also asks for it
// (Basalt::Util::includeShmemInCore). False when madvise fails (traced at
// level 0); the choice is kept all the same.
//
// A file mapping of at least HugePageSize bytes is advised for huge pages
// (MADV_HUGEPAGE) at every attach and resize; the tmpfs the tables live on
// decides whether the kernel follows the advice (docs/PERFORMANCE.md).
//
// With `localMem`, a block of Arena::Local (on the heap with `useHeap`) takes
// the file's place: nothing is created on disk, fileSize() is memSize(), and
// the directory and name serve only in texts.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "Arena/Local.h"
#include "Basalt/DebugHandler.h"

namespace Arena {

class ArenaFilesWrapper {
 public:
  enum class Mode { ReadWrite, ReadOnly };

  static constexpr std::size_t HugePageSize = std::size_t{2} << 20;

  // `directory` holds the table's files; `localMem` backs the wrapper by
  // private memory, and then the directory and name serve only in texts.
  // `useHeap` puts that private memory on the heap; without `localMem` it is
  // not looked at.
  ArenaFilesWrapper(Basalt::Platform::DebugHandler & handler, std::string directory,
                    std::string fileName, bool localMem, bool useHeap = false);
  ~ArenaFilesWrapper();
  ArenaFilesWrapper(const ArenaFilesWrapper &) = delete;
  ArenaFilesWrapper & operator=(const ArenaFilesWrapper &) = delete;

  void * attach(std::size_t size, Mode mode = Mode::ReadWrite);
  void * resize(std::size_t size);
  // False when the file system refuses (reason() says why, and level 1
  // traces it): the file is then as it was, with its memory still held.
  bool releaseTail(std::size_t keep);
  // The bytes of memory or disk the file holds now, which holes don't count
  // in; memSize() for private memory.
  std::size_t allocatedSize() const;
  void detach();
  bool remove();
  bool dumpToCoreIs(bool dump);

  void * base() const;
  bool attached() const { return base() != nullptr; }
  std::size_t memSize() const;
  std::size_t fileSize() const;
  bool localMem() const { return local_ != nullptr; }
  Mode mode() const { return mode_; }
  const std::string & getFilename() const { return path_; }
  const std::string & reason() const { return reason_; }
  std::optional<bool> dumpToCore() const { return dumpToCore_; }

 private:
  void * attachFile(std::size_t size);
  void * resizeFile(std::size_t size);
  bool makeDirectories();
  // The length of the open file, or nothing with the failure recorded.
  std::optional<std::size_t> openFileLength(const char * method);
  // Applies the dump-to-core choice, if one was made, to the present mapping.
  bool adviseDump();
  void adviseHugePages();
  // Releases the mapping, records `what` as the reason, traces it; returns null.
  void * fail(const char * method, std::string what);

  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
  std::string path_;
  std::unique_ptr<Local> local_;
  Mode mode_ = Mode::ReadWrite;
  int fd_ = -1;
  void * base_ = nullptr;
  std::size_t mapped_ = 0;
  std::string reason_;
  std::optional<bool> dumpToCore_;
};

}  // namespace Arena

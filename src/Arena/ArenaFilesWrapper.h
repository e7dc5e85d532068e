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
//   fileSize()          the size of the file on disk now.
//   remove()            unlinks the file (the writer's cleanup alone calls it).
// A mapping is released by detach() or the destructor, never by anything else.

#include <cstddef>
#include <memory>
#include <string>

#include "Arena/Local.h"
#include "Basalt/DebugHandler.h"

namespace Arena {

class ArenaFilesWrapper {
 public:
  enum class Mode { ReadWrite, ReadOnly };

  // `directory` holds the table's files; `localMem` backs the wrapper by
  // private memory, and then the directory and name serve only in texts.
  ArenaFilesWrapper(Basalt::Platform::DebugHandler & handler, std::string directory,
                    std::string fileName, bool localMem);
  ~ArenaFilesWrapper();
  ArenaFilesWrapper(const ArenaFilesWrapper &) = delete;
  ArenaFilesWrapper & operator=(const ArenaFilesWrapper &) = delete;

  void * attach(std::size_t size, Mode mode = Mode::ReadWrite);
  void * resize(std::size_t size);
  void detach();
  bool remove();

  void * base() const;
  bool attached() const { return base() != nullptr; }
  std::size_t memSize() const;
  std::size_t fileSize() const;
  bool localMem() const { return local_ != nullptr; }
  Mode mode() const { return mode_; }
  const std::string & getFilename() const { return path_; }
  const std::string & reason() const { return reason_; }

 private:
  void fail(const std::string & what);

  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
  std::string path_;
  std::unique_ptr<Local> local_;
  Mode mode_ = Mode::ReadWrite;
  int fd_ = -1;
  void * base_ = nullptr;
  std::size_t mapped_ = 0;
  std::string reason_;
};

}  // namespace Arena

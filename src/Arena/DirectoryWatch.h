#pragma once
// Arena::DirectoryWatch: the changes to one directory, which may not exist
// yet, seen through the Linux inotify API on one descriptor that an event
// loop watches. The sentries of a table stand on it.
//
// Contract:
// 1. While the directory exists, it is watched for the `events` given
//    (inotify IN_* bits) and for its own removal or renaming. While it does
//    not, its deepest existing ancestor is watched for entries created or
//    moved into it, so that the directory's appearance, however deep the
//    missing part, is seen; when it is removed the watch falls back to the
//    ancestor. At any time one inotify watch is armed.
// 2. drain() reads every event queued and re-arms the watch where the tree
//    has changed. It returns true if anything was queued: then the watched
//    files may have changed and the owner is to look at them. It never says
//    what changed; the owner reads the files themselves, so an event lost to
//    a queue overflow, or seen between a change and a re-arm, loses nothing.
// 3. `onChange` is called on the loop after a drain that found something.
//    It may destroy this object.
// The constructor and drain() raise Basalt::InvalidInitializeException,
// traced at level 0, when inotify can't be had or the path can't be watched
// (a component of it is not a directory).

#include <cstdint>
#include <functional>
#include <string>

#include "Basalt/DebugHandler.h"
#include "Loop/EventLoop.h"

namespace Arena {

class DirectoryWatch {
 public:
  DirectoryWatch(Basalt::Platform::DebugHandler & handler, std::string directory, uint32_t events,
                 Loop::EventLoop & loop, std::function<void()> onChange);
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch &) = delete;
  DirectoryWatch & operator=(const DirectoryWatch &) = delete;

  bool drain();

  const std::string & directory() const { return directory_; }
  // The directory, or the ancestor of it that is watched now.
  const std::string & watched() const { return watched_; }

 private:
  void arm();
  [[noreturn]] void fail(const std::string & what, int error) const;

  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
  uint32_t events_;
  std::function<void()> onChange_;
  int fd_ = -1;
  int wd_ = -1;  // the one armed watch, -1 once inotify has dropped it
  std::string watched_;
  Loop::Registration registration_;
};

}  // namespace Arena

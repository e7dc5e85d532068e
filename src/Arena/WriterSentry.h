#pragma once
// Arena::WriterSentry: watches a shared writer's own files, and has the
// writer check them when they are touched through the file system: removed,
// renamed, truncated or extended, or their mode changed. A writer changes
// its tables through their mappings, which inotify does not see; what it
// does through the file system itself (a table file grown, the owner file
// written at detach, the corruption marker removed) passes the check, and
// the map forgets the changes of its own detach (purgeInotifyRecord).
//
// Contract:
// 1. At each change, on the map's event loop, or at a poke that finds
//    changes queued, the sentry calls validateFiles() on its notifiee, once
//    for all the changes queued. A marker that a reader writes into the
//    table's directory thus makes the writer check its files, and a sound
//    check removes the marker.
// 2. A failed check (Basalt::CorruptionDetectedException) is written at
//    level 0 with the notifiee's generation, and the sentry watches on.
//    Other exceptions pass to the loop's run, or to the poker.
// 3. While attached() is false the changes are read and dropped.
// The notifiee may destroy the sentry inside validateFiles.

#include <cstdint>
#include <memory>
#include <string>

#include "Arena/DirectoryWatch.h"
#include "Arena/Sentry.h"
#include "ArenaFiles/EpochId.h"
#include "Basalt/DebugHandler.h"
#include "Loop/EventLoop.h"

namespace Arena {

// What a writer sentry calls; a map implements it.
class WriterSentryNotifiee {
 public:
  virtual ~WriterSentryNotifiee() = default;
  virtual ArenaFiles::EpochId epochId() const = 0;
  // Returns true if the files are sound, or raises what the first failing
  // check raises.
  virtual bool validateFiles() = 0;
};

class WriterSentry : public Sentry {
 public:
  WriterSentry(Basalt::Platform::DebugHandler & handler, WriterSentryNotifiee & notifiee, std::string directory,
               Loop::EventLoop & loop = Loop::processLoop());
  ~WriterSentry() override;

  void poke(const std::string & reason, uint32_t delayMs = 0) override;
  void purgeInotifyRecord() override;

  const std::string & directory() const { return watch_.directory(); }

 private:
  void check(const std::string & reason);

  Basalt::Platform::DebugHandler & handler_;
  WriterSentryNotifiee & notifiee_;
  Loop::EventLoop & loop_;
  Loop::Registration delayed_;
  std::shared_ptr<bool> alive_;
  DirectoryWatch watch_;
};

}  // namespace Arena

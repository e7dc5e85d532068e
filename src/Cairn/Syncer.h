#pragma once
// Cairn::Syncer: the walker of a shadow. A walk visits the slots 0 to
// numSlots - 1 once each, in order, and then makes one completion call:
//
//   mode     per slot                                  at the end
//   sync     shadow.doSlot(i, NoSequence, false)       shadow.syncComplete()
//   resync   shadow.doSlot(i, NoSequence, true)        shadow.syncComplete()
//   flush    shadow.doFlushSlot(i)                     shadow.flushComplete()
//
// A sync walk fills a shadow; it need not compare, as nothing is there yet
// or the process wants every entry reported. A resync walk compares, so
// that a slot found equal to the shadow's copy makes no callback. NoSequence
// says that the slot is tied to no queue entry.
//
// Slicing. A walk made with async false runs whole inside sync(). An
// asynchronous one runs in slices, each a deferred call on the loop
// (Loop::EventLoop::runSoon): a slice visits slots until at least the
// shadow's yieldTime seconds have passed, reading the clock once every
// `sample` slots (so a slice visits at least `sample` slots, one at least),
// and defers the next slice. Between slices the loop runs everything else:
// sockets, timers, the process's own calls and reads of the shadow. Its
// completion call always comes from a slice, never from inside sync(), even
// for a walk of no slots.
//
// Notifications. While notifyingIs(false), an asynchronous walk makes no
// progress: it visits slots that call back into the process. Turned on
// again, it goes on where it stopped. A walk with async false and
// forceSyncCompletion() run regardless.
//
// Walks replace one another. sync() while a walk runs abandons that walk,
// without its completion call, and starts the new one at slot 0. A doSlot or
// a completion call may call sync() or forceSyncCompletion() itself: the
// walk that was running notices and stops touching anything.
//
// Event-loop thread only, like the shadow it belongs to. An exception out of
// a slot's call passes out of the slice (and so out of the loop's run); the
// walk stays where it stopped, and the next slice, already deferred, goes on
// with the following slot.
//
//   state      event                        action                         next
//   idle       sync(n, m, false)            walk all, completion call      idle
//   idle       sync(n, m, true)             defer a slice                  running
//   running    slice, not notifying         nothing (no slice deferred)    paused
//   running    slice, slots left            visit a slice, defer next      running
//   running    slice, none left             completion call                idle
//   paused     notifyingIs(true)            defer a slice                  running
//   running,   forceSyncCompletion()        visit the rest, completion     idle
//   paused
//   running,   sync(...)                    abandon: no completion call    as idle
//   paused
//   idle       forceSyncCompletion()        nothing                        idle

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Basalt/Debuggable.h"
#include "Loop/EventLoop.h"

namespace Cairn {

class CairnShadowBase;

enum class SyncerMode : uint32_t { sync = 0, resync = 1, flush = 2 };

// "sync", "resync" or "flush"; a mode outside these gives "".
std::string toString(SyncerMode mode);
// The same words; a mode outside these writes nothing.
std::ostream & operator<<(std::ostream & stream, SyncerMode mode);

class Syncer : public Basalt::Debuggable {
 public:
  // The sequence a walk passes to doSlot: the slot is tied to no queue entry.
  static constexpr uint64_t NoSequence = ~uint64_t{0};

  // `shadow` owns the Syncer; `loop` runs the slices and outlives it.
  Syncer(CairnShadowBase & shadow, Loop::EventLoop & loop);
  Syncer(const Syncer &) = delete;
  Syncer & operator=(const Syncer &) = delete;

  // Walks slots 0 to numSlots - 1 in `mode` (see the table above). With
  // `async` false the walk and its completion call are over on return.
  void sync(uint32_t numSlots, SyncerMode mode, bool async);
  // Ends a running walk now: the slots left are visited and the completion
  // call made before it returns. Nothing if no walk runs.
  void forceSyncCompletion();
  // The process turned its notifications on or off.
  void notifyingIs(bool notifying);

  // The mode of the running walk, or of the last one.
  SyncerMode mode() const { return mode_; }
  // No walk is running.
  bool done() const { return !running_; }
  bool notifying() const { return notifying_; }
  uint32_t numSlots() const { return numSlots_; }
  // The next slot the running walk visits; numSlots() once all are visited.
  uint32_t nextSlot() const { return next_; }
  // Slices run, and walks begun, since construction.
  uint64_t slices() const { return slices_; }
  uint64_t walks() const { return walk_; }

 private:
  void deferSlice();
  void runSlice();
  // Visits slot next_ of walk `walk`; false if that walk is no longer the
  // running one (replaced, forced or finished from inside the call).
  bool visitNext(uint64_t walk);
  void finish();

  CairnShadowBase * shadow_;
  Loop::EventLoop * loop_;
  SyncerMode mode_ = SyncerMode::sync;
  uint32_t numSlots_ = 0;
  uint32_t next_ = 0;
  bool running_ = false;
  bool notifying_ = true;
  uint64_t walk_ = 0;  // raised by each sync(): the number of the running or last walk
  uint64_t slices_ = 0;
  Loop::Registration slice_;
};

}  // namespace Cairn

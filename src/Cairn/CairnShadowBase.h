#pragma once
// CairnShadowBase: the part of a shadow that follows the writer. A shadow is
// a reader's private copy of a table, kept in local memory; the class that
// derives from this one (CairnShadow) holds the copy and reads the shared
// slots. This base decides WHEN a slot is read: at a walk of all slots
// (Cairn::Syncer), and for each entry of the table's notification queue
// (Ripple::RippleReader), to which the wake-up socket (Nudge::ReaderNudgeSm)
// calls it back when the writer has notified something new.
//
// Event-loop thread only: everything here runs on Loop::processLoop(), in
// deferred calls and socket callbacks, one at a time. Only the writer runs
// in parallel, in another process; all contact with it goes through the
// mapped files and the socket. Nothing is locked.
//
// What the derived shadow provides (pure virtual):
//   doSlot(slot, sequence, compare)  bring one slot up to date from the shared
//                                    table; `sequence` is the queue entry's,
//                                    or Syncer::NoSequence in a walk. False
//                                    only if the entry turned out stale
//                                    (RippleReader::validateNotif false). It
//                                    may record a live sequence it applied in
//                                    counters().sequence; after a true result
//                                    the base records it in any case.
//   doFlushSlot(slot)                take one slot out of the copy
//   syncComplete(), flushComplete()  a walk ended (called by the Syncer)
//   handleQuiesced(bool)             the shadow caught up with the writer, or
//                                    fell behind again
//   corruptionDetected(text)         the queue can't be read
//   handleDisconnect()               the socket to the writer closed
//   localCapacity(), capacity()      slots of the copy, and of the reader
//   resize()                         bring the reader's mappings up to date
//   quiesced()                       RippleReader::quiesced()
// and may provide prefetchSlot(slot), which touches a slot a few entries
// ahead of its doSlot (the default touches nothing),
// and overrides yieldTimeIs, sampleIs and notifyingIs (virtual here and in
// CairnInterfaceBase, with the same signatures) to call these.
//
// No change is lost between walk and queue. A walk begins by reading the
// writer's latest sequence S in the queue (syncSequence()). The writer
// stores a slot before it notifies it, so every change up to S lies in the
// slots when the walk reads them, or has been overwritten by a newer value,
// which the walk reads instead. While the walk runs the queue is not
// consumed. When it ends, counters().sequence becomes S and the queue is
// taken up at its first entry above S (RippleReader::resume): every later
// change has a live entry there (compactions copy live entries with their
// sequences), and the entries the walk already covered are harmless, since
// doSlot reads the slot's newest value. The first walk is mode sync; later
// ones (resync()) are mode resync, which compares and stays silent on the
// slots found equal.
//
// Consuming the queue. A pass begins when the writer's wake arrives, and
// also, sooner, at any turn of the loop that finds entries the shadow has not
// taken (RippleReader::hasNews, two loads; Loop::EventLoop::eachTurn): a loop
// busy with other work sees a change without waiting for the wake's system
// calls, and the wake that follows finds the queue empty. A pass takes the
// queue's entries in order and calls doSlot(slot, sequence, compare) for
// each, with `compare` from flag bit 1 (below). A pass runs until the queue is empty or yieldTime seconds have
// passed (the clock read once every `sample` entries), and then defers the
// next pass, so that a burst never holds the loop. A doSlot false passes the
// entry over, and needs nothing more: the store stayed as it was and
// counters().sequence didn't move, and the change belongs to a later entry
// of the slot (the entry was tombstoned) or comes again from the new table
// (the queue swapped: the RippleReader takes the new table up at its first
// entry above counters().sequence). A gap entry (the writer left out the
// entries of slots a shrink gave back) ends the pass and begins resync(): the
// walk reads every slot, those past the table's end included, so the copy
// loses what the left-out entries would have taken out. At the end of a pass
// that found the queue empty:
//   1. Continuity. If the queue's generation (the control block's epoch)
//      is not the one attached, or its latest sequence lies below what the
//      shadow applied, the queue was formatted afresh under it: resync().
//   2. Quiesced. handleQuiesced(quiesced()) if the answer differs from the
//      one last reported by a pass. After each walk the next pass reports
//      whatever it finds, so a value that syncComplete() reported itself may
//      come once more.
//   3. Sleep. Unless it sleeps already, the socket tells the writer what has
//      been applied (ReaderNudgeSm::appliedIs); the writer wakes it with the
//      next notification, at once if it has one already.
//
// The writer's socket. maybeConnect() reads the writer's socket name and
// table id from the table's owner file and connects. A connection made after
// the shadow had none (the first attempt failed, or the writer went away)
// begins resync(): whatever the writer did meanwhile, a restart with the
// files kept or formatted afresh, the walk brings the copy up to date. When
// the socket closes, handleDisconnect() tells the derived shadow, which
// tells its map; the copy goes on serving reads, and the queue, as the dead
// writer left it, is still consumed.
//
// flags (the constructor's third argument):
//   bit 0 (1)  read by the derived shadow: a key shadow
//   bit 1 (2)  CompareNotifications: queue entries are passed with compare
//              true, so that a notified value equal to the copy's makes no
//              callback. Clear, every entry reaches the process.
//   bit 2 (4)  read by the derived shadow: callbacks at a flush
//
// yieldTime and sample: how long a slice of a walk or a pass over the queue
// runs before the loop gets its turn (seconds; 0 or less: one batch), and
// how many slots or entries it handles between two reads of the clock.
//
// syncFromRipple(): true while the copy is kept up to date by the queue: no
// walk runs and the queue is being consumed.
//
// States (rows are events, in this base; "walk" is the Syncer's):
//
//   state       event                         action                             next
//   detached    initializeRipple()            attach queue, maybeConnect,        walking
//                                             walk mode sync (S = latest)
//   detached    initializeRipple(), no queue  level 0 trace, false                detached
//   walking     walk ends: syncComplete()     -> maybeEnableRipple()             following
//   walking     resync()                      re-attach queue, walk again        walking
//   walking     wake                          nothing (entries wait)             walking
//   following   wake, maybeEnableRipple()     defer a pass                       following
//   following   pass: queue empty             continuity, quiesced, sleep        following
//   following   pass: discontinuity           resync()                           walking
//   following   pass: gap entry               resync()                           walking
//   following   pass: corruption              stop consuming,                    stopped
//                                             corruptionDetected(text)
//   following   notifyingIs(false)            passes stop, walk paused           paused
//   paused      notifyingIs(true)             -> maybeEnableRipple()             following
//   any         socket closes                 handleDisconnect()                 same
//   any         maybeConnect(), no socket     connect; after a loss: resync()    same/walking
//   stopped     resync()                      re-attach queue, walk              walking
//   any         detachRipple()                stop consuming, close socket,      detached
//                                             detach queue, reset queue counters
//
// maybeEnableRipple() begins consuming only when no walk runs, the process
// wants notifications and the queue is attached; otherwise it does nothing,
// and the event that removes the obstacle calls it again (the walk's end,
// notifyingIs(true)). detachRipple() is what the derived shadow's detach
// does to the queue and the socket, before its flush walk.

#include <cstdint>
#include <optional>
#include <string>

#include "ArenaFiles/EpochId.h"
#include "Basalt/Debuggable.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/RootPath.h"
#include "Cairn/Syncer.h"
#include "Loop/EventLoop.h"
#include "Nudge/ReaderNudgeSm.h"
#include "Ripple/RippleReader.h"

namespace Cairn {

class CairnShadowBase : public Basalt::Debuggable {
 public:
  static constexpr uint32_t KeyShadowFlag = 1;
  static constexpr uint32_t CompareNotificationsFlag = 2;
  static constexpr uint32_t NotifyOnFlushFlag = 4;
  // How many queue entries ahead of the one applied a slot is touched: far
  // enough for a miss to be served before its turn, near enough to stay cached.
  static constexpr uint32_t PrefetchDistance = 8;

  // `path` is the table's name, as a CairnReader takes it. Touches no file.
  CairnShadowBase(Basalt::Platform::DebugHandler & handler, std::string path, unsigned flags);
  virtual ~CairnShadowBase();
  CairnShadowBase(const CairnShadowBase &) = delete;
  CairnShadowBase & operator=(const CairnShadowBase &) = delete;

  // ---- Provided by the derived shadow ----

  virtual bool doSlot(unsigned slotIndex, uint64_t sequence, bool compare) = 0;
  virtual void prefetchSlot(uint32_t /*slotIndex*/) const {}
  virtual void doFlushSlot(unsigned slotIndex) = 0;
  virtual void handleQuiesced(bool quiesced) = 0;
  virtual void corruptionDetected(const std::string & message) = 0;
  virtual void handleDisconnect() = 0;
  virtual void syncComplete() = 0;
  virtual void flushComplete() = 0;
  virtual uint32_t localCapacity() const = 0;
  virtual bool resize() const = 0;
  virtual uint32_t capacity() const = 0;
  virtual bool quiesced() const = 0;

  // ---- Following the writer ----

  // Attaches the queue, connects to the writer if it can, and begins the
  // first walk, mode sync, sliced unless `async` is false (then the walk
  // and syncComplete() are over on return). False, with nothing begun, if
  // the queue can't be attached. Starts unconnected: connected_ is cleared.
  bool initializeRipple(bool async = true);
  // Connects the socket to the writer if it isn't connected; true if it is
  // connected on return. See above for the resync after a loss.
  bool maybeConnect();
  // Begins consuming the queue, at the first entry above the last walk's
  // syncSequence(), if no walk runs, notifications are wanted and the queue
  // is attached; if consuming already, defers a pass.
  void maybeEnableRipple();
  // Re-attaches the queue (it may have been formatted afresh) and begins an
  // asynchronous walk in mode resync.
  void resync();
  // True while no walk runs and the queue is consumed.
  bool syncFromRipple() const { return rippleEnabled_ && syncer.done(); }
  // Stops consuming, closes the socket (without handleDisconnect) with
  // notifications off in it, detaches the queue and resets the queue's part
  // of counters() (sequence to 0). The copy and the Syncer are untouched.
  void detachRipple();
  // Wake-ups are being handled: the queue is consumed, or a pass is due.
  bool nudgeProcessing() const { return rippleEnabled_ || draining_; }

  // ---- Settings ----

  virtual void yieldTimeIs(double yieldTime) { yieldTime_ = yieldTime; }
  virtual void sampleIs(uint32_t sample) { sample_ = sample; }
  // Stores the value and passes it to the Syncer and the socket; turned on,
  // consuming resumes (maybeEnableRipple), turned off, passes stop.
  virtual void notifyingIs(bool notifying);

  double yieldTime() const { return yieldTime_; }
  uint32_t sample() const { return sample_; }
  bool notifying() const { return notifying_; }
  uint32_t flags() const { return flags_; }
  // The queue's latest sequence when the running or last walk began.
  uint64_t syncSequence() const { return syncSequence_; }
  const RootPath & tablePath() const { return rootPath_; }
  Reader::Counters & counters() { return counters_; }
  const Reader::Counters & counters() const { return counters_; }
  Loop::EventLoop & loop() const { return *loop_; }

 private:
  Loop::EventLoop * loop_;
  RootPath rootPath_;
  uint32_t flags_;
  double yieldTime_ = 0.05;
  uint32_t sample_ = 8;
  bool notifying_ = true;
  uint64_t syncSequence_ = 0;
  // Declared before the pieces that keep pointers to it.
  Reader::Counters counters_;

 protected:
  // The first walk has completed (mountStatus 2); the derived shadow sets it.
  bool connected_ = false;

 public:
  Syncer syncer;
  Ripple::RippleReader rippleReader;
  Nudge::ReaderNudgeSm nudge;

 private:
  bool attachQueue();
  void beginWalk(SyncerMode mode, bool async);
  void stopConsuming();
  void deferPass();
  void passIfNews();
  void pass();
  bool applyEntries(uint64_t generation);
  void afterEmpty(uint64_t generation);
  bool queueFormattedAfresh();
  void lostWriter();

  bool rippleEnabled_ = false;
  bool draining_ = false;      // a pass is deferred
  bool awaitingWalk_ = false;  // a walk began; its end sets counters().sequence
  bool missedWriter_ = false;  // ran without a socket: the next connection resyncs
  uint64_t generation_ = 0;    // raised each time consuming stops
  ArenaFiles::EpochId queueEpoch_;
  std::optional<bool> reportedQuiesced_;
  Loop::Registration passCall_;
  Loop::Registration eachTurn_;  // passIfNews; last, so that it goes first
};

}  // namespace Cairn

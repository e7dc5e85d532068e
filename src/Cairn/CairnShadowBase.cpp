#include "Cairn/CairnShadowBase.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Exception.h"

namespace Cairn {

CairnShadowBase::CairnShadowBase(Basalt::Platform::DebugHandler & handler, std::string path, unsigned flags)
    : Basalt::Debuggable(handler),
      loop_(&Loop::processLoop()),
      rootPath_(handler, path, true),
      flags_(flags),
      syncer(*this, *loop_),
      rippleReader(handler, rootPath_.directory(), &counters_),
      nudge(handler, *loop_) {
  nudge.wakeHookIs([this](uint64_t) { deferPass(); });
  nudge.disconnectHookIs([this] { lostWriter(); });
  eachTurn_ = loop_->eachTurn([this] { passIfNews(); });
}

CairnShadowBase::~CairnShadowBase() = default;

// ---------------------------------------------------------------- walks

bool CairnShadowBase::initializeRipple(bool async) {
  connected_ = false;
  missedWriter_ = false;
  nudge.notifyingIs(notifying_);
  syncer.notifyingIs(notifying_);
  if (!attachQueue()) {
    BASALT_TRACE(debugHandler(), 0, "CairnShadowBase::initializeRipple() {} cannot attach the notification queue",
                 rootPath_.toString());
    return false;
  }
  if (!maybeConnect()) {
    missedWriter_ = true;  // a writer that comes later may have changed anything
  }
  beginWalk(SyncerMode::sync, async);
  return true;
}

void CairnShadowBase::resync() {
  if (!attachQueue()) {
    // The walk still brings the copy up to date; the queue waits for the
    // next resync, which the writer's next connection begins.
    BASALT_TRACE(debugHandler(), 0, "CairnShadowBase::resync() {} cannot attach the notification queue",
                 rootPath_.toString());
    missedWriter_ = true;
  }
  beginWalk(SyncerMode::resync, true);
}

// Maps the queue afresh and notes its generation. False, with the queue
// detached, if it can't be had.
bool CairnShadowBase::attachQueue() {
  stopConsuming();
  try {
    if (rippleReader.attach()) {
      queueEpoch_ = ArenaFiles::EpochId(Arena::Atomics::observe32(rippleReader.control()->epochId.value));
      return true;
    }
  } catch (const Basalt::CorruptionDetectedException & exception) {
    BASALT_TRACE(debugHandler(), 0, "CairnShadowBase::attachQueue() {} corruption detected: {}", rootPath_.toString(),
                 exception.what());
  }
  rippleReader.detach();
  return false;
}

// The walk covers every change up to the queue's latest sequence, read
// before it visits a slot (see the header); the queue waits meanwhile.
void CairnShadowBase::beginWalk(SyncerMode mode, bool async) {
  stopConsuming();
  try {
    syncSequence_ = rippleReader.attached() ? rippleReader.latestSequence() : counters_.sequence;
  } catch (const Basalt::CorruptionDetectedException & exception) {
    BASALT_TRACE(debugHandler(), 0, "CairnShadowBase::beginWalk() {} corruption detected: {}", rootPath_.toString(),
                 exception.what());
    rippleReader.detach();
    syncSequence_ = counters_.sequence;
  }
  awaitingWalk_ = true;
  resize();
  // Slots of the copy past the shared table's end are walked too: the walk
  // finds them empty and takes their entries out.
  const uint32_t numSlots = std::max(capacity(), localCapacity());
  BASALT_TRACE(debugHandler(), 2, "CairnShadowBase::beginWalk() {} mode:{} numSlots:{} syncSequence:{}",
               rootPath_.toString(), toString(mode), numSlots, syncSequence_);
  syncer.sync(numSlots, mode, async);
}

// ---------------------------------------------------------------- the writer's socket

bool CairnShadowBase::maybeConnect() {
  if (nudge.connected()) {
    return true;
  }
  ArenaFiles::DoorbellInfo doorbell;
  try {
    doorbell = ArenaFiles::OwnerFile(debugHandler(), rootPath_.directory(), false).doorbellInfo();
  } catch (const Basalt::CorruptionDetectedException & exception) {
    BASALT_TRACE(debugHandler(), 1, "CairnShadowBase::maybeConnect() {} owner unknown: {}", rootPath_.toString(),
                 exception.what());
    return false;
  }
  if (doorbell.socketName().empty()) {
    BASALT_TRACE(debugHandler(), 5, "CairnShadowBase::maybeConnect() {} no writer to connect to",
                 rootPath_.toString());
    return false;
  }
  if (!nudge.connect(doorbell.socketName(), doorbell.tableId())) {
    return false;  // traced by the socket
  }
  if (missedWriter_) {
    missedWriter_ = false;
    BASALT_TRACE(debugHandler(), 1, "CairnShadowBase::maybeConnect() {} connected after running without the writer",
                 rootPath_.toString());
    resync();
  }
  return true;
}

void CairnShadowBase::lostWriter() {
  missedWriter_ = true;
  BASALT_TRACE(debugHandler(), 2, "CairnShadowBase::lostWriter() {} connection to the writer lost",
               rootPath_.toString());
  handleDisconnect();
}

// ---------------------------------------------------------------- consuming the queue

void CairnShadowBase::maybeEnableRipple() {
  if (!syncer.done() || !notifying_ || !rippleReader.attached()) {
    return;
  }
  if (!rippleEnabled_) {
    if (awaitingWalk_) {
      // The walk has covered every change up to syncSequence (see the header).
      counters_.sequence = syncSequence_;
      awaitingWalk_ = false;
    }
    rippleReader.resume();
    rippleEnabled_ = true;
    reportedQuiesced_.reset();
    BASALT_TRACE(debugHandler(), 2, "CairnShadowBase::maybeEnableRipple() {} consuming above sequence:{}",
                 rootPath_.toString(), counters_.sequence);
  }
  deferPass();
}

void CairnShadowBase::notifyingIs(bool notifying) {
  notifying_ = notifying;
  syncer.notifyingIs(notifying);
  nudge.notifyingIs(notifying);
  if (notifying) {
    maybeEnableRipple();
  } else {
    passCall_.cancel();
    draining_ = false;
  }
}

void CairnShadowBase::detachRipple() {
  stopConsuming();
  nudge.onDetach();
  nudge.notifyingIs(false);
  rippleReader.detach();
  static_cast<Ripple::Reader::Counters &>(counters_) = Ripple::Reader::Counters();
  awaitingWalk_ = false;
  missedWriter_ = false;
  BASALT_TRACE(debugHandler(), 2, "CairnShadowBase::detachRipple() {} detached", rootPath_.toString());
}

void CairnShadowBase::stopConsuming() {
  rippleEnabled_ = false;
  draining_ = false;
  passCall_.cancel();
  ++generation_;
}

void CairnShadowBase::deferPass() {
  if (!rippleEnabled_ || !notifying_ || draining_) {
    return;
  }
  draining_ = true;
  passCall_ = loop_->runSoon([this] { pass(); });
}

// At a turn of the loop: the entries the queue holds beyond those taken are
// applied now, when consuming is on, no pass is deferred already and the
// socket to the writer stands (as a wake needs it: a shadow that lost its
// writer takes nothing more until it has connected and walked the table).
void CairnShadowBase::passIfNews() {
  if (rippleEnabled_ && notifying_ && !draining_ && nudge.connected() && rippleReader.hasNews()) {
    pass();
  }
}

void CairnShadowBase::pass() {
  draining_ = false;
  const uint64_t generation = generation_;
  try {
    if (applyEntries(generation)) {
      afterEmpty(generation);
    }
  } catch (const Basalt::CorruptionDetectedException & exception) {
    // No ordering of writer and reader explains it: the queue is not read again.
    BASALT_TRACE(debugHandler(), 0, "CairnShadowBase::pass() {} corruption detected: {}", rootPath_.toString(),
                 exception.what());
    stopConsuming();
    corruptionDetected(exception.what());
  }
}

// Applies the entries the queue holds: true if it found the queue empty;
// false if consuming stopped meanwhile (a callback's doing) or the slice's
// time is up, in which case the next pass is deferred.
bool CairnShadowBase::applyEntries(uint64_t generation) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration<double>(yieldTime_);
  const uint32_t batch = std::max<uint32_t>(sample_, 1);
  const bool compare = (flags_ & CompareNotificationsFlag) != 0;
  Ripple::Notification entry{};
  uint32_t count = 0;
  while (rippleReader.nextEntry(entry)) {
    if (entry.slot == Ripple::RIPPLE_GAP) {
      // Entries of given-back slots were left out before it: only a walk
      // completes the copy (see the header).
      BASALT_TRACE(debugHandler(), 1, "CairnShadowBase::pass() {} gap at sequence:{}, walking the table again",
                   rootPath_.toString(), entry.sequence());
      resync();
      return false;
    }
    // The slot of an entry a few places on is touched now, so that when its
    // turn comes it is in the cache: a shadow catching up with changes
    // scattered over the table otherwise waits out one miss after another.
    prefetchSlot(rippleReader.slotAhead(PrefetchDistance));
    // False passes the entry over: its change comes with a later entry (see the header).
    // True applies the entry even where the shadow had nothing to do and
    // recorded nothing (a slot free in the table and in the copy, or past the
    // table's end): were its sequence left unrecorded, a last entry of that
    // kind would keep quiesced() false until the writer's next change.
    const bool applied = doSlot(entry.slot, entry.sequence(), compare);
    if (applied && generation == generation_ && counters_.sequence < entry.sequence()) {
      counters_.sequence = entry.sequence();
    }
    if (generation != generation_ || !notifying_) {
      return false;
    }
    if (++count % batch == 0 && Clock::now() >= deadline) {
      deferPass();
      return false;
    }
  }
  return true;
}

void CairnShadowBase::afterEmpty(uint64_t generation) {
  if (queueFormattedAfresh()) {
    resync();
    return;
  }
  const bool caughtUp = quiesced();
  if (reportedQuiesced_ != caughtUp) {
    reportedQuiesced_ = caughtUp;
    handleQuiesced(caughtUp);
    if (generation != generation_) {
      return;
    }
  }
  if (!nudge.sleeping()) {
    // Behind the writer's latest, the writer answers with a wake at once.
    nudge.appliedIs(counters_.sequence);
  }
}

// A queue formatted afresh under the shadow (a new writer that could not
// keep the files) shows another generation, or sequences that start over.
bool CairnShadowBase::queueFormattedAfresh() {
  const ArenaFiles::EpochId epoch(Arena::Atomics::observe32(rippleReader.control()->epochId.value));
  const uint64_t latest = rippleReader.latestSequence();
  if (epoch == queueEpoch_ && latest >= counters_.sequence) {
    return false;
  }
  BASALT_TRACE(debugHandler(), 1,
               "CairnShadowBase::pass() {} queue formatted afresh, epochId:{} was:{} latest:{} applied:{}",
               rootPath_.toString(), epoch.toString(), queueEpoch_.toString(), latest, counters_.sequence);
  return true;
}

}  // namespace Cairn

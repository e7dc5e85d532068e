#include "Cairn/Syncer.h"

#include <algorithm>
#include <chrono>
#include <ostream>

#include <fmt/format.h>

#include "Cairn/CairnShadowBase.h"

namespace Cairn {

std::string toString(SyncerMode mode) {
  switch (mode) {
    case SyncerMode::sync: return "sync";
    case SyncerMode::resync: return "resync";
    case SyncerMode::flush: return "flush";
  }
  return "";
}

std::ostream & operator<<(std::ostream & stream, SyncerMode mode) {
  return stream << toString(mode);
}

Syncer::Syncer(CairnShadowBase & shadow, Loop::EventLoop & loop)
    : Basalt::Debuggable(shadow.debugHandler()), shadow_(&shadow), loop_(&loop) {}

void Syncer::sync(uint32_t numSlots, SyncerMode mode, bool async) {
  if (running_) {
    BASALT_TRACE(debugHandler(), 2, "Syncer::sync() {} abandoning the {} walk at slot:{} of {}",
                 shadow_->tablePath().toString(), toString(mode_), next_, numSlots_);
  }
  slice_.cancel();
  ++walk_;
  mode_ = mode;
  numSlots_ = numSlots;
  next_ = 0;
  running_ = true;
  BASALT_TRACE(debugHandler(), 2, "Syncer::sync() {} mode:{} numSlots:{} async:{}", shadow_->tablePath().toString(),
               toString(mode), numSlots, async);
  if (async) {
    deferSlice();
  } else {
    forceSyncCompletion();
  }
}

void Syncer::forceSyncCompletion() {
  if (!running_) {
    return;
  }
  BASALT_TRACE(debugHandler(), 5, "Syncer::forceSyncCompletion() {} mode:{} from slot:{} of {}",
               shadow_->tablePath().toString(), toString(mode_), next_, numSlots_);
  slice_.cancel();
  const uint64_t walk = walk_;
  while (next_ < numSlots_) {
    if (!visitNext(walk)) {
      return;
    }
  }
  finish();
}

void Syncer::notifyingIs(bool notifying) {
  notifying_ = notifying;
  if (notifying_ && running_ && !slice_.active()) {
    deferSlice();  // a walk paused while notifications were off goes on
  }
}

void Syncer::deferSlice() {
  slice_ = loop_->runSoon([this] { runSlice(); });
}

void Syncer::runSlice() {
  if (!notifying_) {
    return;  // paused; notifyingIs(true) defers the next slice
  }
  ++slices_;
  const uint64_t walk = walk_;
  // Deferred first, so that a walk whose slot call throws goes on at the next slot.
  deferSlice();
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration<double>(shadow_->yieldTime());
  const uint32_t batch = std::max<uint32_t>(shadow_->sample(), 1);
  while (next_ < numSlots_) {
    const uint32_t end = next_ + std::min(batch, numSlots_ - next_);
    while (next_ < end) {
      if (!visitNext(walk)) {
        return;
      }
    }
    if (next_ < numSlots_ && Clock::now() >= deadline) {
      return;  // the slice deferred above goes on
    }
  }
  finish();
}

bool Syncer::visitNext(uint64_t walk) {
  // Moved before the call: a call that forces completion goes on after it.
  const uint32_t slot = next_++;
  if (mode_ == SyncerMode::flush) {
    shadow_->doFlushSlot(slot);
  } else {
    shadow_->doSlot(slot, NoSequence, mode_ == SyncerMode::resync);
  }
  return walk == walk_ && running_;
}

// The completion call comes last: it may begin another walk at once.
void Syncer::finish() {
  running_ = false;
  slice_.cancel();
  BASALT_TRACE(debugHandler(), 5, "Syncer::finish() {} mode:{} numSlots:{} slices:{}",
               shadow_->tablePath().toString(), toString(mode_), numSlots_, slices_);
  if (mode_ == SyncerMode::flush) {
    shadow_->flushComplete();
  } else {
    shadow_->syncComplete();
  }
}

}  // namespace Cairn

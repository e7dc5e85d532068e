#include "Ripple/RippleReader.h"

#include <fmt/format.h>

#include <algorithm>

#include "Arena/Atomics.h"
#include "Basalt/Exception.h"
#include "Basalt/Fmt.h"

namespace Ripple {

using Arena::Atomics::loadFence;
using Arena::Atomics::observe32;

const Notification & RippleReader::RippleNotifications::operator[](uint32_t index) const {
  if (index >= limit) {
    throw Basalt::CorruptionDetectedException(Basalt::Fmt(
        "RippleReader::RippleNotifications::operator[]() out-of-range index:{} max:{}", index, limit));
  }
  return table->entries()[index];
}

RippleReader::RippleReader(Basalt::Platform::DebugHandler & handler, std::string directory,
                           Reader::Counters * counters)
    : RippleTable(handler, std::move(directory), false), counters_(counters) {}

RippleReader::~RippleReader() {
  RippleReader::detach();
}

bool RippleReader::attach(ArenaFiles::EpochId wanted) {
  detach();
  std::string error;
  if (!mapFiles(Arena::ArenaFilesWrapper::Mode::ReadOnly, TableHeaderSize, error)) {
    BASALT_TRACE(debugHandler(), 0, "RippleReader::attach() {}", error);
    return false;
  }
  if (!control_->validate(controlFile_.memSize(), wanted, error)) {
    BASALT_TRACE(debugHandler(), 0, "RippleReader::attach() {}: {}", controlFile_.getFilename(), error);
    detach();
    return false;
  }
  const ArenaFiles::EpochId epoch(observe32(control_->epochId.value));
  for (unsigned index : {Primary, Secondary}) {
    const ArenaFiles::EpochId tableEpoch(observe32(tables_[index]->epochId.value));
    if (!(tableEpoch == epoch)) {
      BASALT_TRACE(debugHandler(), 0, "RippleReader::attach() {}: bad epoch:{} wanted:{}",
                   tableFiles_[index].getFilename(), tableEpoch.toString(), epoch.toString());
      detach();
      return false;
    }
    notifications_[index] = {tables_[index], entriesIn(tableFiles_[index].memSize())};
  }
  swapCount_ = loadSwapCount();
  tableIndex_ = swapCount_ & 1u;
  attached_ = true;
  position_ = 0;
  next_ = 0;
  BASALT_TRACE(debugHandler(), 2, "RippleReader::attach() {} swapCount:{}", directory_, swapCount_);
  return true;
}

void RippleReader::detach() {
  RippleTable::detach();
  swapCount_ = 0;
  tableIndex_ = Primary;
  attached_ = false;
  notifications_[Primary] = {};
  notifications_[Secondary] = {};
  position_ = 0;
  next_ = 0;
}

bool RippleReader::hasNews() const {
  if (!attached_) {
    return false;
  }
  // Pair with the swap and with the store that publishes an entry; what
  // they show only prompts a pass, which checks everything again.
  return loadSwapCount() != swapCount_ || observe32(notifications_[tableIndex_].table->size) > next_;
}

uint32_t RippleReader::slotAhead(uint32_t distance) const {
  const RippleNotifications & table = notifications_[tableIndex_];
  const uint64_t index = uint64_t{next_} + distance;
  if (!attached_ || index >= table.limit) {
    return RIPPLE_TOMBSTONED;
  }
  return table[static_cast<uint32_t>(index)].loadSlot();
}

bool RippleReader::nextEntry(Notification & out) {
  if (!attached_) {
    return false;
  }
  for (;;) {
    const uint32_t swaps = loadSwapCount();
    if (swaps != swapCount_) {
      takeUp(swaps);
      continue;
    }
    // Pairs with the store that publishes an entry: those below size are complete.
    const uint32_t size = observe32(notifications_[tableIndex_].table->size);
    loadFence();  // the loads above stay before the next load of swapCount
    if (next_ >= size) {
      if (loadSwapCount() == swapCount_) {
        return false;  // nothing new in this generation
      }
      continue;  // the size may come from a table being reused
    }
    if (next_ >= notifications_[tableIndex_].limit) {
      remap(tableIndex_);  // the writer grew the table past this mapping
      if (next_ >= notifications_[tableIndex_].limit && loadSwapCount() != swapCount_) {
        continue;  // a size from a table being reused, not a file shorter than its size
      }
    }
    const Notification & entry = notifications_[tableIndex_][next_];
    const uint32_t slot = entry.loadSlot();
    const uint64_t sequence = entry.sequence();
    loadFence();  // the entry's loads stay before the check below
    if (loadSwapCount() != swapCount_) {
      continue;  // the words may come from a table being reused: not believed
    }
    position_ = next_++;
    if (slot == RIPPLE_TOMBSTONED) {
      // A tombstone needs no work: passing it counts as applying it.
      counters_->sequence = std::max(counters_->sequence, sequence);
      ++counters_->tombstonesPassed;
      continue;
    }
    ++counters_->notificationsRead;
    out = Notification::of(sequence, slot);
    BASALT_TRACE(debugHandler(), 7, "RippleReader::nextEntry() pos:{} sequence:{} slot:{}", position_,
                 sequence, slot);
    return true;
  }
}

// Takes up the table that swapCount `swaps` names. Pairs with the writer's
// store of the count: that table is complete.
void RippleReader::takeUp(uint32_t swaps) {
  ++counters_->swapsSeen;
  settleOn(swaps);
  BASALT_TRACE(debugHandler(), 5,
               "RippleReader::nextEntry() {} ripple swapped swapCount:{} table:{} resuming at pos:{}",
               directory_, swapCount_, tableIndex_, next_);
}

void RippleReader::resume() {
  if (!attached_) {
    return;
  }
  settleOn(loadSwapCount());
  BASALT_TRACE(debugHandler(), 5, "RippleReader::resume() {} swapCount:{} table:{} above sequence:{} at pos:{}",
               directory_, swapCount_, tableIndex_, counters_->sequence, next_);
}

// Takes up the table that swapCount `swaps` names, at its first entry above
// counters.sequence. A swap after the load of `swaps` makes the search's
// answer meaningless, and nextEntry, which loads swapCount first, takes the
// new table up in turn, from the same sequence.
void RippleReader::settleOn(uint32_t swaps) {
  swapCount_ = swaps;
  tableIndex_ = swaps & 1u;
  if (observe32(notifications_[tableIndex_].table->size) > notifications_[tableIndex_].limit) {
    remap(tableIndex_);
  }
  next_ = firstAbove(counters_->sequence);
}

uint64_t RippleReader::latestSequence() {
  if (!attached_) {
    return 0;
  }
  for (;;) {
    const uint32_t swaps = loadSwapCount();
    const unsigned index = swaps & 1u;
    // Pairs with the store that publishes an entry, as in nextEntry.
    const uint32_t size = observe32(notifications_[index].table->size);
    const uint32_t latest = size == 0 ? 0 : size - 1;
    if (latest >= notifications_[index].limit) {
      remap(index);
      if (latest >= notifications_[index].limit && loadSwapCount() != swaps) {
        continue;  // a size from a table being reused
      }
    }
    const uint64_t sequence = notifications_[index][latest].sequence();
    loadFence();  // the entry's load stays before the second load of swapCount
    if (loadSwapCount() == swaps) {
      return sequence;  // not torn: the table was current throughout
    }
  }
}

// Binary search on the rising sequences (invariant 1). Words read from a
// table being reused give a wrong answer, which the next check of swapCount
// in nextEntry discards.
uint32_t RippleReader::firstAbove(uint64_t sequence) const {
  const RippleNotifications & notifications = notifications_[tableIndex_];
  uint32_t low = 0;
  uint32_t high = std::min(observe32(notifications.table->size), notifications.limit);
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (notifications[middle].sequence() <= sequence) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// Extends the mapping of table `index` to the file as it is now; files of the
// queue never shrink, so the older mapping was valid until here.
void RippleReader::remap(unsigned index) {
  const std::size_t bytes = tableFiles_[index].fileSize();
  std::string reason;
  if (!remapTable(index, bytes, reason)) {
    auto message = fmt::format("RippleReader::remap() cannot remap {} to {} bytes: {}",
                               tableFiles_[index].getFilename(), bytes, reason);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    detach();
    throw Basalt::MemoryResourceException(message);
  }
  notifications_[index] = {tables_[index], entriesIn(bytes)};
  ++counters_->remaps;
  BASALT_TRACE(debugHandler(), 5, "RippleReader::remap() {} to {} entries", tableFiles_[index].getFilename(),
               notifications_[index].limit);
}

bool RippleReader::quiesced() const {
  if (!attached_) {
    BASALT_TRACE(debugHandler(), 5, "RippleReader::quiesced() not attached");
    return false;
  }
  // The reader has work to do on the other table.
  if (loadSwapCount() != swapCount_) {
    BASALT_TRACE(debugHandler(), 5, "RippleReader::quiesced() ripple swapped");
    return false;
  }
  const RippleNotifications & notifications = notifications_[tableIndex_];
  const uint32_t size = observe32(notifications.table->size);
  const uint32_t latest = size == 0 ? 0 : size - 1;
  // The writer appended past what this reader has mapped.
  if (latest >= notifications.limit) {
    BASALT_TRACE(debugHandler(), 5, "RippleReader::quiesced() latest notification out-of-range");
    return false;
  }
  // Torn only if the table is being reused, which the check of swapCount
  // below detects: a torn value can only make the answer false.
  const uint64_t writerSeq = notifications[latest].sequence();
  const uint64_t shadowSeq = counters_->sequence;
  BASALT_TRACE(debugHandler(), 5, "RippleReader::quiesced() writerSeq:{} shadowSeq:{}", writerSeq, shadowSeq);
  if (writerSeq != shadowSeq) {
    return false;
  }
  loadFence();  // the entry's load stays before the second load of swapCount
  // A swap since the first check could have given an entry of another generation.
  return loadSwapCount() == swapCount_;
}

bool RippleReader::validateNotif() {
  const RippleNotifications & notifications = notifications_[tableIndex_];
  // The word first, then the swap test: a word read from a table that is
  // being reused is never believed.
  const uint32_t slot = notifications[position_].loadSlot();
  loadFence();
  if (loadSwapCount() != swapCount_) {
    return false;
  }
  return slot != RIPPLE_TOMBSTONED;
}

void RippleReader::positionIs(uint32_t position) {
  position_ = position;
  next_ = position + 1;
}

}  // namespace Ripple

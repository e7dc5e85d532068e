#pragma once
// Ripple::RippleReader: a reader of a table's notification queue, in any
// process, without a lock and without writing a byte of the files (format
// and invariants: Ripple/RippleFormat.h).
//
// One thread: the consumer's (a shadow's event loop). What it shares with the
// writer's process is the mapped files alone; every load of a word the writer
// stores goes through Arena/Atomics.h.
//
// Reading. attach() maps the three files read-only and takes up the current
// table (swapCount & 1) at its first entry. nextEntry() hands out the live
// entries after `position` in order, passes tombstones over, and notices a
// swap: after one, it takes up the other table and resumes at its first entry
// above the sequence recorded in the counters, which lies there in order,
// since a compaction copies the live entries with their sequences. So an entry
// is never lost: one handed out but not applied is handed out again after a
// swap. A reader that falls behind meets each changed slot once, and reads the
// slot's newest value when it handles it. A gap entry (slot RIPPLE_GAP) is
// handed out as any other: what it asks of the consumer is the consumer's
// business (invariant 7). A table that the writer grew in
// place past this reader's mapping is mapped anew, to the file's length, when
// the reader reaches the end of its mapping (files of the queue never shrink).
//
// The consumer records in counters.sequence the sequence of each live entry
// it has applied; quiesced() compares that with the writer's latest.
//
// How each check pairs with the writer's stores:
//   - size (observe32) with the store that publishes an entry: entries below
//     the size loaded are complete;
//   - swapCount (observe32), loaded before and again after an entry's words,
//     with the swap and the format (invariant 5): a count unchanged after the
//     loads means they came from a table that wasn't being reused; a changed
//     one discards them. A loadFence keeps the entry's loads before that
//     second load of the count.
//   - the slot word (observe32) with tombstoneAt.
// A new generation of the table (a re-format by another EpochId) is seen here
// as a swap only; the reader learns of it, and re-attaches, through the slot
// file's epoch.

#include <cstdint>
#include <string>

#include "ArenaFiles/EpochId.h"
#include "Ripple/RippleCounters.h"
#include "Ripple/RippleTable.h"

namespace Ripple {

class RippleReader : public RippleTable {
 public:
  // The reader's view of one table: its mapped header and `limit`, the number
  // of entries the mapping holds (the bound of operator[]).
  struct RippleNotifications {
    const TableHeader * table = nullptr;
    uint32_t limit = 0;

    // Entry `index`; Basalt::CorruptionDetectedException if it lies past the
    // mapping, which no ordering of writer and reader explains.
    const Notification & operator[](uint32_t index) const;
  };

  // `counters` outlives the reader; its `sequence` is what this reader has applied.
  RippleReader(Basalt::Platform::DebugHandler & handler, std::string directory, Reader::Counters * counters);
  ~RippleReader() override;

  // Maps the files of generation `wanted` (any, if none) and takes up the
  // current table at its first entry. False, with a level 0 message, if a
  // file is missing or not of this format.
  bool attach(ArenaFiles::EpochId wanted = ArenaFiles::EpochId());
  void detach() override;

  // The next live entry after `position`: true and the entry in `out`, with
  // `position` on it; false when there is none now.
  bool nextEntry(Notification & out);
  // The slot word of the entry `distance` places past the one nextEntry
  // looks at next, for a consumer that touches that slot ahead of its turn
  // so that the cache misses of scattered slots overlap. A hint, never
  // trusted: no size or swap is checked, so it may be any word (a tombstone,
  // a gap, an entry not yet published); RIPPLE_TOMBSTONED past the mapping.
  uint32_t slotAhead(uint32_t distance) const;
  // True when the writer has published an entry at or past the one
  // nextEntry looks at next, or swapped its tables: two loads and no system
  // call, for a consumer that looks at every turn of its loop. A hint only:
  // nextEntry decides what there is (that entry may be a tombstone).
  bool hasNews() const;
  // True if this reader has applied the writer's last notification. Never throws.
  bool quiesced() const;
  // True if the entry at `position` still stands: its table is still current
  // and it wasn't tombstoned.
  bool validateNotif();
  // Puts `position` on entry `position` of the present table; nextEntry
  // resumes after it.
  void positionIs(uint32_t position);
  // Takes up the current table at its first entry above counters.sequence,
  // as after a swap: where a consumer resumes once it has covered every
  // change up to that sequence by other means (a walk of all slots).
  void resume();
  // The writer's latest sequence: that of the last entry of the current
  // table, 0 before the first notification. Moves no position. 0 while
  // detached.
  uint64_t latestSequence();

  bool attached() const { return attached_; }
  uint32_t position() const { return position_; }
  uint32_t tableIndex() const { return tableIndex_; }
  uint32_t swapCount() const { return swapCount_; }
  const RippleNotifications & notifications(unsigned index) const { return notifications_[index]; }
  Reader::Counters * counters() const { return counters_; }

 private:
  void takeUp(uint32_t swapCount);
  void settleOn(uint32_t swapCount);
  void remap(unsigned index);
  // The first position of the present table whose sequence is above `sequence`.
  uint32_t firstAbove(uint64_t sequence) const;
  uint32_t loadSwapCount() const { return Arena::Atomics::observe32(control_->swapCount); }

  uint32_t swapCount_ = 0;
  uint32_t tableIndex_ = Primary;
  bool attached_ = false;
  RippleNotifications notifications_[2];
  uint32_t position_ = 0;
  uint32_t next_ = 0;  // where nextEntry looks first
  Reader::Counters * counters_;
};

}  // namespace Ripple

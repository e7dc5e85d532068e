#pragma once
// Ripple::RippleWriter: the writer of a table's notification queue. After
// each change of a slot the table's writer calls notify(slot); the queue
// appends (next sequence, slot) to the current table and tombstones the
// slot's older entry, so that a slot has at most one live entry and a reader
// that falls behind meets each changed slot once (format and invariants:
// Ripple/RippleFormat.h).
//
// Writer thread only: every method, and every callback it makes, runs on the
// thread of the table's one writer. Readers in other processes see its stores
// as they happen; the order of those stores is the protocol, commented at
// each one in RippleWriter.cpp.
//
// Making room. When the current table is full, notify first makes room, as
// the PruneMode says: it either doubles the current table in place (readers
// keep their places and extend their mappings), or compacts: copies the live
// entries, in order and with their sequences, into the other table, sized so
// that they fill at most half of it, publishes that table's size, and swaps
// by one store of swapCount. The last entry is always copied, tombstoned or
// not, so that the latest sequence stays visible to RippleReader::quiesced.
// After a swap that leaves the current table at most a quarter full, the pages
// of both tables past room for twice its entries go back to the system: the
// old table's content is void for every reader (invariant 5), and the new
// table's past its size is trusted by none (invariant 2). A queue in steady
// use keeps its pages.
//
// Gaps. A table that shrinks gives slots back, and the queue would keep the
// live entry of each (their emptying) for ever: after a table of a million
// entries is emptied, a million entries. When no corral stands and at least
// half of the live entries are those of slots at or above the notifiee's
// slotCount(), a compaction leaves them out, and appends a gap entry
// (invariant 7 of Ripple/RippleFormat.h), which sends each consumer that
// meets it through a walk of the table; the gap before it is tombstoned. Such
// a compaction is made by makeRoom, and at once when a shrink's corral is
// released (or when a shrink ends with none), so that memory goes back
// without waiting for the next fill.
//
// The corral. markShrinkStart() and markShrinkEnd() bracket a slot shrink.
// Its notifications form the corral (invariant 4): they are never tombstoned,
// so every reader meets them in the shrink's order. The corral is released
// (its entries become ordinary ones, each slot again with one live entry, and
// corralStart goes back to 0) as soon as every client known to the queue has
// applied its last notification: at once in markShrinkEnd when no client is
// known, else in clientProgressIs or clientDel, which then call the
// notifiee's shrink() so that a shrink refused meanwhile is looked at afresh.
// A shrink that notified nothing leaves no corral.
//
// Clients. The queue doesn't see its readers; the wake-up layer tells it of
// them: clientProgressIs(name, sequence) when a reader reports the sequence it
// has applied, clientDel(name) when it goes. quiesced() is true when every
// client known has applied the latest notification (so also when none is
// known). handleQuiesced(bool) of the notifiee is called from those two
// methods when that answer differs from the one last reported, never from
// inside notify: a write never calls back into its owner.
//
// Restart. attach(epochId) keeps existing files of the same generation whose
// headers are sound and whose current table is well-ordered: the sequence
// continues from the last entry, and each slot's live entry is found again.
// It finishes what a writer that died may have left half done: a notify that
// appended its entry but hadn't tombstoned the older one, and a corral (the
// new writer knows no client yet, so nobody waits for it).
//
// Failures: a mapping that can't be had or grown raises
// Basalt::MemoryResourceException (Basalt::InvalidInitializeException from
// attach); misuse (a slot that is no slot index, a second markShrinkStart,
// notify while detached) raises the debug assertion.

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "ArenaFiles/EpochId.h"
#include "Ripple/RippleCounters.h"
#include "Ripple/RipplePos.h"
#include "Ripple/RippleTable.h"

namespace Ripple {

// How notify makes room in a full table. The numbers are those the table's
// configuration passes: 0 for a synchronous table, 2 otherwise.
enum class PruneMode : uint32_t {
  // Compact and swap at every fill, whatever share of the entries is live:
  // the queue stays as small as its live entries allow, and readers meet a
  // swap at every fill.
  Synchronous = 0,
  // Compact and swap when at least half of the entries are tombstones; when
  // more than half are live, double the current table in place instead,
  // which spares readers a swap. The default.
  Balanced = 2,
};

// What the writer of the table offers the queue. CairnWriter implements it.
class RippleWriterNotifiee {
 public:
  virtual ~RippleWriterNotifiee() = default;
  // A corral was released: a slot shrink refused while it stood may now run.
  virtual void shrink() = 0;
  // The table's slot count now: slots at or above it were given back.
  virtual uint32_t slotCount() const = 0;
  // The clients' collective answer to quiesced() changed to `quiesced`.
  virtual void handleQuiesced(bool quiesced) = 0;
};

class RippleWriter : public RippleTable {
 public:
  // Called at the end of each notify with its sequence, to wake sleeping
  // readers (the nudge socket, when there is one).
  using NudgeHook = std::function<void(uint64_t sequence)>;

  // `counters` and `notifiee` (which may be null) outlive the writer.
  RippleWriter(Basalt::Platform::DebugHandler & handler, std::string directory, Writer::Counters & counters,
               bool localMem, PruneMode pruneMode, RippleWriterNotifiee * notifiee);
  ~RippleWriter() override;

  // 1 new, 2 existing kept, 4 re-formatted (as Cairn::AttachResult); throws
  // Basalt::InvalidInitializeException if the files can't be mapped.
  int attach(ArenaFiles::EpochId epochId);
  void detach() override;
  // Detaches and removes the three files.
  void cleanup();

  // Appends (next sequence, slot) and tombstones the slot's older entry.
  void notify(uint32_t slot);
  // Tombstones the slot's live entry; true if it had one. Corral entries are
  // never tombstoned.
  bool tombstone(uint32_t slot);
  void markShrinkStart();
  void markShrinkEnd();

  void nudgeHookIs(NudgeHook hook) { nudgeHook_ = std::move(hook); }
  void clientProgressIs(const std::string & name, uint64_t sequence);
  void clientDel(const std::string & name);
  bool quiesced() const;
  // False for a client the queue doesn't know.
  bool clientQuiesced(const std::string & name) const;

  // The sound-format check of the validator: headers of this generation,
  // well-ordered entries, slot indices below `mostSlots`, a consistent
  // corral, and every position RipplePos holds on a live entry of its slot.
  // A live entry that RipplePos doesn't point at, and RipplePos pointing into
  // the corral, are the table validator's to report (Cairn/Validator.h). On
  // false the reason is in errorText (and at level 0).
  bool validate(ArenaFiles::EpochId wanted, uint32_t mostSlots, std::string & errorText) const;
  // Checks the three files on disk afresh, read-only: they exist and their
  // headers are sound for this generation. Throws
  // Basalt::CorruptionDetectedException otherwise. Nothing to check when local.
  void validateFile() const;

  uint64_t sequence() const { return sequence_; }
  ArenaFiles::EpochId epochId() const { return epochId_; }
  PruneMode pruneMode() const { return pruneMode_; }
  bool attached() const { return control_ != nullptr; }
  // What the validator reads. positionOf is RipplePos[slot], or
  // RIPPLE_TOMBSTONED beyond the array; the rest describe the current table.
  uint32_t positionOf(uint32_t slot) const { return positions_.at(slot); }
  unsigned currentTable() const { return current_; }
  uint32_t size() const;
  uint32_t capacity() const;
  Notification entry(uint32_t position) const;
  uint64_t corralStart() const;
  uint64_t corralEnd() const;

 private:
  TableHeader & current() const { return *tables_[current_]; }
  bool keepExisting(std::string & reason);
  bool headersAreSound(ArenaFiles::EpochId wanted, std::string & errorOut) const;
  bool recover(std::string & reason);
  void format();
  void formatTable(unsigned index);

  uint32_t append(uint32_t slot);
  void tombstoneAt(uint32_t position);
  // The live entries of given-back slots that a compaction leaves out: those
  // of slots at or above `from`, `entries` of them. None: from SlotLimit.
  struct LeaveOut {
    uint32_t from = SlotLimit;
    uint32_t entries = 0;
  };
  LeaveOut leaveOut() const;
  void makeRoom();
  void compact(LeaveOut out);
  void compactIfGivenBack();
  void appendGap();
  void releaseUnusedPages();
  void growCurrent();
  uint32_t doubled(uint32_t capacity) const;
  void mapTable(unsigned index, uint32_t capacity);

  bool inCorral(uint64_t sequence) const;
  bool clientsPast(uint64_t sequence) const;
  void releaseCorral();
  void clearCorral();
  void afterClientChange();

  bool validateEntries(uint32_t mostSlots, std::string & errorText) const;

  Writer::Counters * counters_;
  PruneMode pruneMode_;
  RippleWriterNotifiee * notifiee_;
  ArenaFiles::EpochId epochId_;
  unsigned current_ = Primary;
  uint64_t sequence_ = 0;
  uint32_t liveEntries_ = 0;  // entries of the current table not tombstoned
  uint32_t gapPosition_ = RIPPLE_TOMBSTONED;  // the live gap entry's position, if any
  PositionArray positions_;
  NudgeHook nudgeHook_;
  std::map<std::string, uint64_t> clients_;  // name -> sequence applied
  bool reportedQuiesced_ = true;
};

}  // namespace Ripple

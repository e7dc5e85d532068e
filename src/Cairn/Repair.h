#pragma once
// Cairn::Repair: mends, at a writer's start, what a writer killed inside an
// operation leaves half made, so that the table is kept rather than
// formatted afresh.
//
// It runs only on kept files whose WriteInProgress bit is set (the mark of a
// writer that stopped inside a change), after the three pieces attached and
// before the Validator, on the writer's thread. Readers of other processes
// may be walking the table meanwhile: every store below is one a writer
// operation makes, in the order that operation makes it.
//
// The states it mends, and nothing else:
//  1. A bucket table caught between the two passes of a doubling, or inside
//     the splice pass of a halving: a lower bucket's chain runs on into its
//     twin's slots, or ends on its twin's terminator. Each such chain is cut
//     where its twin's begin, which finishes the doubling and undoes the
//     halving: either way every chain is again its own bucket's.
//  2. A rewrite caught behind its LOOKASIDE bit (write, directCommit): the
//     LookasideSlot holds the finished value of the same key, with the same
//     rhash. The value is copied in and the bit cleared, as the rewrite
//     would have, and the slot is notified.
//  3. Slots on neither list, and a free list or occupiedSlots a step behind:
//     a slot taken from the free list and not yet linked (insert,
//     directWrite, a shrink's move), a slot unlinked and not yet freed
//     (remove, a shrink's old place), free slots purged by a shrink that
//     stopped, a free-list head pushed and not yet linked on, a count not
//     yet stored. The chains decide: the free list is threaded anew through
//     every slot no chain reaches, lowest index first, each emptied of
//     OCCUPIED and LOOKASIDE, and occupiedSlots becomes the number of slots
//     the chains reach. An entry that loses its slot this way was never
//     reachable after its operation began, or its removal had begun; it is
//     notified, so that a consumer that held it lets it go.
// Anything else (a chain that can't be walked, a LookasideSlot of another
// key) it leaves as it found it: the Validator then refuses the table.
//
// What it did is traced at level 1, one line per mended state.

#include <cstdint>
#include <vector>

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Cairn/IterHint.h"
#include "Cairn/OccupiedMarks.h"
#include "Cairn/SlotFormat.h"
#include "Cairn/SlotWriter.h"
#include "Cairn/WriterHashMap.h"
#include "Ripple/RippleWriter.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class Repair : public Basalt::Debuggable, public OccupiedMarks {
 public:
  using SlotWriter = SlotWriterTable<Key, Value, Ops>;
  using Slot = typename SlotWriter::Slot;
  using Map = WriterHashMap<Key, Value, Ops>;
  using KeyOperations = typename Ops::KeyOperations;
  using Marshalling = typename Ops::ValueOperations::Marshalling;

  Repair(Basalt::Platform::DebugHandler & handler, std::string tableName, SlotWriter & slots, Map & map,
         Ripple::RippleWriter & ripple)
      : Basalt::Debuggable(handler), tableName_(std::move(tableName)), slots_(slots), map_(map), ripple_(ripple) {}

  // Mends what it can. A table it cannot walk is left alone (traced at
  // level 1) for the Validator to refuse.
  void run() {
    try {
      cutChainsAtTwins();
      markReachableSlots();
      finishRewrite();
      rethreadFreeList();
    } catch (const Basalt::CorruptionDetectedException & exception) {
      BASALT_TRACE(debugHandler(), 1, "Repair::run() {} cannot repair: {}", tableName_, exception.what());
    }
  }

  // Called by the map's walk for each slot a chain reaches.
  void markOccupied(uint32_t slot) override {
    if (reachable_[slot]) {
      throw Basalt::CorruptionDetectedException(fmt::format("Repair::markOccupied() slot:{} reached twice", slot));
    }
    reachable_[slot] = true;
    ++reachableCount_;
  }

 private:
  void cutChainsAtTwins() {
    const uint32_t cut = map_.cutChainsAtTwins();
    if (cut != 0) {
      BASALT_TRACE(debugHandler(), 1, "Repair::run() {} cut {} bucket chains at their twins, numBuckets:{}",
                   tableName_, cut, map_.buckets().numBuckets());
    }
  }

  // The walk of the Validator, with this object taking the marks: it checks
  // each slot's bucket and rhash on the way.
  void markReachableSlots() {
    const uint32_t count = slots_.capacity();
    reachable_.assign(count, false);
    map_.validatorIs(this);
    try {
      Value value;
      IterHint hint;
      for (bool more = map_.first(0, value, hint); more; more = map_.next(KeyOperations::key(value), value, hint)) {
        if (reachableCount_ > count) {
          throw Basalt::CorruptionDetectedException(
              fmt::format("Repair::markReachableSlots() the chains reach more than the {} slots", count));
        }
      }
    } catch (...) {
      map_.validatorIs(nullptr);
      throw;
    }
    map_.validatorIs(nullptr);
  }

  // A reachable slot with LOOKASIDE set stopped inside a rewrite, whose
  // LookasideSlot was complete before the bit was set.
  void finishRewrite() {
    const Slot * lookaside = slots_.lookasideSlot();
    for (uint32_t index = 0; index < reachable_.size(); ++index) {
      Slot * slot = slots_.slots()[index];
      if (!reachable_[index] || !(slot->flags & LOOKASIDE)) {
        continue;
      }
      if (lookaside->rhash != slot->rhash ||
          !(KeyOperations::key(lookaside->value) == KeyOperations::key(slot->value))) {
        BASALT_TRACE(debugHandler(), 1, "Repair::run() {} slot:{} has LOOKASIDE set and the LookasideSlot "
                     "holds another key: left to the validator", tableName_, index);
        continue;
      }
      Value value;
      Marshalling::fromSlot(value, &lookaside->value);
      Marshalling::toSlot(&slot->value, value);
      // Clears LOOKASIDE and raises the version (guard word: the slot's
      // flags): the slot holds the finished value whole, as the rewrite's
      // last store would have left it.
      Arena::Atomics::publish32(slot->flags, (slot->flags + LOOKASIDE) | OCCUPIED);
      ripple_.notify(index);
      BASALT_TRACE(debugHandler(), 1, "Repair::run() {} finished the rewrite of slot:{} from the LookasideSlot",
                   tableName_, index);
    }
  }

  // The free list and occupiedSlots, as the chains say they must be. Left
  // untouched when they already are.
  void rethreadFreeList() {
    auto & header = *slots_.header();
    if (header.occupiedSlots == reachableCount_ && freeListHoldsEveryOtherSlot()) {
      return;
    }
    const uint32_t oldOccupied = header.occupiedSlots;
    const uint32_t oldHead = header.freeSlots;
    uint32_t head = NoFreeSlot;
    uint32_t entriesLost = 0;
    for (uint32_t index = static_cast<uint32_t>(reachable_.size()); index-- > 0;) {
      if (reachable_[index]) {
        continue;
      }
      Slot * slot = slots_.slots()[index];
      const uint32_t flags = slot->flags;
      if (flags & (OCCUPIED | LOOKASIDE)) {
        // Empties the slot (guard word: its flags): OCCUPIED and LOOKASIDE
        // clear, version raised, as a free slot must be for the insert that takes it.
        Arena::Atomics::publish32(slot->flags, (flags & ~(OCCUPIED | LOOKASIDE)) + FlagsVersionStep);
        if (flags & OCCUPIED) {
          ripple_.notify(index);
          ++entriesLost;
        }
      }
      slot->link.storeNext(head);
      head = index;
    }
    // Publishes the new list and count: every slot is on exactly one list again.
    Arena::Atomics::publish32(header.freeSlots, head);
    Arena::Atomics::publish32(header.occupiedSlots, reachableCount_);
    BASALT_TRACE(debugHandler(), 1,
                 "Repair::run() {} threaded the free list anew through the {} slots no chain reaches "
                 "({} held an unreachable entry), occupiedSlots:{} -> {}, freeSlots head:{} -> {}",
                 tableName_, reachable_.size() - reachableCount_, entriesLost, oldOccupied, reachableCount_,
                 oldHead, head);
  }

  // True if the free list runs, without a loop, through exactly the slots
  // no chain reaches, each empty.
  bool freeListHoldsEveryOtherSlot() const {
    const uint32_t count = static_cast<uint32_t>(reachable_.size());
    std::vector<bool> seen(count, false);
    uint32_t length = 0;
    for (uint32_t index = slots_.header()->freeSlots; index != NoFreeSlot;) {
      if (index >= count || reachable_[index] || seen[index]) {
        return false;
      }
      const Slot * slot = slots_.slots()[index];
      if (slot->flags & (OCCUPIED | LOOKASIDE)) {
        return false;
      }
      seen[index] = true;
      ++length;
      index = slot->link.value();
    }
    return length + reachableCount_ == count;
  }

  std::string tableName_;
  SlotWriter & slots_;
  Map & map_;
  Ripple::RippleWriter & ripple_;
  std::vector<bool> reachable_;
  uint32_t reachableCount_ = 0;
};

}  // namespace Cairn

#pragma once
// ShadowHashMap: the index of a shadow store, a chained hash table in private
// memory whose chains run through the store's local slots (ShadowSlot.h).
//
// Private to one process and one thread (the store's): plain pointers, plain
// stores, no versions, no locks. The slots lie in one array that the store
// owns and may move when it resizes it; the store then calls patch. The bucket
// array lies in a mapping of its own (bucketsMem_), which only grow and shrink
// resize; they rewrite the cells' back pointers themselves.
//
// Invariants between operations:
//  1. A slot in the map holds rhash = reversed 32-bit key hash (seed 0), the
//     place of the key in split order, as in the shared table.
//  2. The slot lies in bucket rhash >> (32 - bucketFactor_), the top bits of
//     rhash: ascending bucket index is ascending rhash.
//  3. A chain stands in split order: ascending rhash, equal rhash by the
//     key's operator<. A walk of the buckets from 0 up visits the entries in
//     the order of a walk of the shared table.
//  4. A slot's prev is the address of the cell that points at it (a bucket
//     cell for a head, else the predecessor's next); a slot out of the map
//     has both links null.
//  5. counters_->occupied is the number of slots in the chains, and the bins
//     of slotCounters_ count the same slots by index.
//  6. numBuckets_ is 2 << (bucketFactor_ - 1), at least 2. The map grows when
//     occupied exceeds numBuckets_ << loadShift_ (one entry per bucket) and
//     halves when it falls to a quarter of that, so a table of steady size
//     doesn't resize at each write.
//
// Grow and a move of the buckets never need patch; a move of the slots never
// needs a bucket fix: the cells don't move with the slots, and the slots'
// links don't name the cells except in each head's prev.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

#include "Arena/Local.h"
#include "Arena/Memory.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/SlotCounters.h"

namespace Cairn {

template <typename K, typename V, typename Slot, typename Ops>
class ShadowHashMap : public Basalt::Debuggable {
 public:
  using KeyOperations = typename Ops::KeyOperations;

  ShadowHashMap(Basalt::Platform::DebugHandler & handler, Reader::Counters * counters,
                SlotCounters * slotCounters, const Ops * ops)
      : Basalt::Debuggable(handler),
        counters_(counters),
        slotCounters_(slotCounters),
        ops_(ops),
        bucketsMem_(handler, false, Arena::Local::LOCAL_DEFAULT_FLAGS) {
    counters_->occupied = 0;
  }
  ShadowHashMap(const ShadowHashMap &) = delete;
  ShadowHashMap & operator=(const ShadowHashMap &) = delete;

  // A fresh, empty bucket array of 2 cells. bucketFactor_ keeps its value: a
  // map only ever comes back here empty, and so shrunk to factor 1.
  bool initialize() {
    numBuckets_ = 2;
    buckets_ = bucketsMem_.attachAs<Slot *>(numBuckets_, 0);
    if (buckets_ == nullptr) {
      BASALT_TRACE(debugHandler(), 0, "ShadowHashMap::initialize() bucketsMem_.attachAs() failed");
      return false;
    }
    std::memset(static_cast<void *>(buckets_), 0, numBuckets_ * sizeof(Slot *));
    counters_->occupied = 0;
    return true;
  }

  // Enters `slot`, whose key the caller has stored already, under that key.
  // The slot is dead, or it is in the map under this same key. The result
  // says whether the caller has a change to tell: `changed` when the slot was
  // in place already, else true (for an entry that moved slots, as the slot
  // kind says).
  bool write(unsigned int slotIndex, Slot & slot, bool changed) {
    const K & key = slot.slotKey();
    ++counters_->shadowWrites;
    BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() slotIndex:{} key:{}", slotIndex,
                 KeyOperations::toString(key));
    if (slot.prev != nullptr) {
      // In the map under this same key (invariant 4 and the caller's word):
      // its rhash and its place in the chain stand, so neither the key's
      // hash nor a walk of the chain is needed.
      BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() no index update needed");
      return changed;
    }
    slot.rhash = KeyOperations::rhash(key);
    Slot ** cell = &buckets_[bucketOf(slot.rhash)];
    if (*cell == nullptr) {
      linkBefore(slot, cell, nullptr);
      BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() value inserted in fresh bucket");
      return added(slotIndex);
    }
    Slot * tail = nullptr;
    Slot * at = *cell;
    while (at != nullptr && order(*at, slot.rhash, key) < 0) {
      tail = at;
      at = at->next;
    }
    if (at == nullptr) {
      linkBefore(slot, &tail->next, nullptr);
      BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() add slot to end of chain");
      return added(slotIndex);
    }
    if (order(*at, slot.rhash, key) > 0) {
      linkBefore(slot, at->prev, at);
      BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() value inserted");
      return added(slotIndex);
    }
    if (at == &slot) {
      BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() no index update needed");
      return changed;
    }
    return rekey(slotIndex, slot, *at);
  }

  // Takes `slot` out of its chain; false if it was in none (a dead slot).
  bool remove(unsigned int slotIndex, Slot & slot) {
    if (slot.prev == nullptr) {
      BASALT_TRACE(debugHandler(), 9, "ShadowHashMap::remove() dead slot {}", slotIndex);
      return false;
    }
    BASALT_TRACE(debugHandler(), 8,
                 "ShadowHashMap::remove() slot:{} prev->next:{} next:{} occupied:{} key:{}", slotIndex,
                 indexOf(*slot.prev, slotIndex, slot), indexOf(slot.next, slotIndex, slot), counters_->occupied,
                 KeyOperations::toString(slot.slotKey()));
    *slot.prev = slot.next;
    if (slot.next != nullptr) {
      slot.next->prev = slot.prev;
    }
    slot.next = nullptr;
    slot.prev = nullptr;
    slotCounters_->drop(slotIndex);
    --counters_->occupied;
    if (counters_->occupied > ((numBuckets_ << loadShift_) >> 2) || bucketFactor_ < 2) {
      return true;
    }
    shrink();
    return true;
  }

  // The slot of `key`, or null.
  Slot * lookup(const K & key) const {
    const uint32_t rhash = KeyOperations::rhash(key);
    Slot * at = buckets_[bucketOf(rhash)];
    while (at != nullptr && order(*at, rhash, key) < 0) {
      at = at->next;
    }
    return at != nullptr && order(*at, rhash, key) == 0 ? at : nullptr;
  }

  // The first slot after `key` in split order, or null. `hint`, if linked and
  // still holding `key`, is the key's slot and saves the search; `key` itself
  // need not be in the map, so a walk survives the removal of the entry that
  // it stands on.
  Slot * next(const K & key, Slot * hint) const {
    if (hint != nullptr && !hint->dead() && KeyOperations::equal(hint->slotKey(), key)) {
      return hint->next != nullptr ? hint->next : firstFrom(bucketOf(hint->rhash) + 1);
    }
    ++counters_->iterHintMisses;
    const uint32_t rhash = KeyOperations::rhash(key);
    const uint32_t bucket = bucketOf(rhash);
    Slot * at = buckets_[bucket];
    while (at != nullptr && order(*at, rhash, key) <= 0) {
      at = at->next;
    }
    return at != nullptr ? at : firstFrom(bucket + 1);
  }

  // The slot array moved by `offset` bytes (new base minus old): every slot
  // pointer in the chains and the cells moves with it. The cells themselves
  // don't move, so each head's prev stays.
  void patch(long offset) {
    BASALT_TRACE(debugHandler(), 5, "ShadowHashMap::patch() address offset is {}", offset);
    for (uint32_t bucket = 0; bucket < numBuckets_; ++bucket) {
      if (buckets_[bucket] == nullptr) {
        continue;
      }
      BASALT_TRACE(debugHandler(), 9, "ShadowHashMap::patch() Patching slots in bucket {}", bucket);
      buckets_[bucket] = moved(buckets_[bucket], offset);
      // Every slot of a chain lies in the one array, so all links move alike;
      // `at` is always a slot already in the new array.
      for (Slot * at = buckets_[bucket]; at->next != nullptr;) {
        at->next = moved(at->next, offset);
        at = at->next;
        at->prev = moved(at->prev, offset);
      }
    }
    ++counters_->shadowPatches;
  }

  uint32_t numBuckets() const { return numBuckets_; }
  uint32_t bucketFactor() const { return bucketFactor_; }
  // The chain heads, numBuckets() of them; null before initialize and after a
  // failed resize.
  Slot * const * buckets() const { return buckets_; }
  // Bytes mapped for the bucket array.
  std::size_t mappedSize() const { return bucketsMem_.memSize(); }

 private:
  uint32_t bucketOf(uint32_t rhash) const { return rhash >> (32 - bucketFactor_); }

  // Where slot `at` stands against (rhash, key) in split order.
  static int order(const Slot & at, uint32_t rhash, const K & key) {
    return KeyOperations::splitOrder(at.rhash, at.slotKey(), rhash, key);
  }

  // Links `slot` between the cell `prev` and `next`, which that cell named.
  static void linkBefore(Slot & slot, Slot ** prev, Slot * next) {
    slot.prev = prev;
    slot.next = next;
    if (next != nullptr) {
      next->prev = &slot.next;
    }
    *prev = &slot;
  }

  // The index of `other` in the slot array of `slot` (index `slotIndex`);
  // 0 for null.
  static unsigned int indexOf(const Slot * other, unsigned int slotIndex, const Slot & slot) {
    return other == nullptr ? 0 : static_cast<unsigned int>(slotIndex + (other - &slot));
  }

  template <typename T>
  static T * moved(T * pointer, long offset) {
    return reinterpret_cast<T *>(reinterpret_cast<std::intptr_t>(pointer) + offset);
  }

  // A new entry at `slotIndex` is in its chain: count it, then grow if the
  // load went above one entry per bucket.
  bool added(unsigned int slotIndex) {
    ++counters_->occupied;
    slotCounters_->add(slotIndex);
    if ((numBuckets_ << loadShift_) >= counters_->occupied) {
      return true;
    }
    grow();
    return true;
  }

  // The key of `slot` sits in `old`, another slot: the shared table moved the
  // entry. `slot` takes `old`'s place in the chain, and `old` goes out dead.
  bool rekey(unsigned int slotIndex, Slot & slot, Slot & old) {
    const bool result = slot.changedFrom(old);
    ++counters_->shadowRekeys;
    slot.prev = old.prev;
    slot.next = old.next;
    *slot.prev = &slot;
    if (slot.next != nullptr) {
      slot.next->prev = &slot.next;
    }
    slotCounters_->drop(indexOf(&old, slotIndex, slot));
    slotCounters_->add(slotIndex);
    old.reset(*ops_);
    BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::write() value updated");
    return result;
  }

  Slot * firstFrom(uint32_t bucket) const {
    for (; bucket < numBuckets_; ++bucket) {
      if (buckets_[bucket] != nullptr) {
        return buckets_[bucket];
      }
    }
    return nullptr;
  }

  // Resizes the bucket array to `count` cells; on failure throws, naming the
  // operation, with buckets_ null (the mapping released its block).
  void resizeBuckets(const char * method, uint32_t count) {
    buckets_ = static_cast<Slot **>(bucketsMem_.resize(Arena::multiplyOverflowCheck(count, sizeof(Slot *))));
    if (buckets_ == nullptr) {
      throw Basalt::MemoryResourceException(
          fmt::format("ShadowHashMap::{}() failed to resize {} from {} to {} buckets : {}", method,
                      bucketsMem_.kind(), numBuckets_, count, bucketsMem_.reason()));
    }
  }

  // Doubles the buckets. Entered with occupied one above numBuckets_, so one
  // doubling restores a load of at most one entry per bucket.
  void grow() {
    const uint32_t oldCount = numBuckets_;
    const uint32_t newCount = oldCount * 2;
    const uint32_t factor = bucketFactor_ + 1;
    BASALT_TRACE(debugHandler(), 2, "ShadowHashMap::grow() buckets growing from:{} to:{}", oldCount,
                 newCount);
    const void * oldBase = buckets_;
    resizeBuckets("grow", newCount);
    std::memset(static_cast<void *>(buckets_ + oldCount), 0, oldCount * sizeof(Slot *));
    if (buckets_ != oldBase) {
      // Nothing to fix here: the split below sets prev of every chain head.
      BASALT_TRACE(debugHandler(), 2, "ShadowHashMap::grow() base address moved from 0x{:x} to 0x{:x}",
                   reinterpret_cast<std::uintptr_t>(oldBase), reinterpret_cast<std::uintptr_t>(buckets_));
    }
    // From the top down, so that a target cell (2i or 2i+1) is never a cell
    // still to be read.
    for (uint32_t i = oldCount; i-- > 0;) {
      split(i, factor);
    }
    numBuckets_ = newCount;
    bucketFactor_ = factor;
    ++counters_->bucketGrows;
  }

  // Old bucket i feeds new buckets 2i and 2i+1. The next bit of rhash is the
  // highest that differs within the chain, and the chain is sorted by rhash,
  // so the lower and upper parts are contiguous: a cut, not a sort.
  void split(uint32_t i, uint32_t factor) {
    Slot * head = buckets_[i];
    if (head == nullptr) {
      return;
    }
    const uint32_t lower = 2 * i;
    buckets_[i] = nullptr;
    buckets_[lower] = head;
    head->prev = &buckets_[lower];
    Slot * at = head;
    while (at != nullptr && (at->rhash >> (32 - factor)) == lower) {
      at = at->next;
    }
    if (at == nullptr) {
      return;
    }
    BASALT_TRACE(debugHandler(), 8, "ShadowHashMap::grow() splitting bucket {} to buckets {} and {}", i,
                 lower, lower + 1);
    // Ends the lower chain, or empties cell 2i if the chain lies wholly upper.
    *at->prev = nullptr;
    buckets_[lower + 1] = at;
    at->prev = &buckets_[lower + 1];
  }

  // Halves the buckets: bucket i/2 takes twin i's chain followed by twin
  // i+1's, which keeps split order (the upper twin's rhash are all higher).
  void shrink() {
    const uint32_t oldCount = numBuckets_;
    // Ascending, so that each cell is read before it is written: the target
    // i/2 is never above i.
    for (uint32_t i = 0; i < oldCount; i += 2) {
      splice(buckets_[i], buckets_[i + 1], &buckets_[i / 2]);
    }
    const void * oldBase = buckets_;
    resizeBuckets("shrink", oldCount / 2);
    --bucketFactor_;
    numBuckets_ = oldCount / 2;
    ++counters_->bucketShrinks;
    BASALT_TRACE(debugHandler(), 2, "ShadowHashMap::shrink() shrunk to numBuckets_:{} bucketFactor_:{}",
                 numBuckets_, bucketFactor_);
    if (buckets_ != oldBase) {
      BASALT_TRACE(debugHandler(), 2, "ShadowHashMap::shrink() base address moved from 0x{:x} to 0x{:x}",
                   reinterpret_cast<std::uintptr_t>(oldBase), reinterpret_cast<std::uintptr_t>(buckets_));
      for (uint32_t bucket = 0; bucket < numBuckets_; ++bucket) {
        if (buckets_[bucket] != nullptr) {
          buckets_[bucket]->prev = &buckets_[bucket];
        }
      }
    }
  }

  // Makes cell `dst` the head of chain `lo` followed by chain `hi`.
  static void splice(Slot * lo, Slot * hi, Slot ** dst) {
    if (lo == nullptr) {
      *dst = hi;
      if (hi != nullptr) {
        hi->prev = dst;
      }
      return;
    }
    lo->prev = dst;
    *dst = lo;
    Slot * tail = lo;
    while (tail->next != nullptr) {
      tail = tail->next;
    }
    tail->next = hi;
    if (hi != nullptr) {
      hi->prev = &tail->next;
    }
  }

  Reader::Counters * counters_;
  SlotCounters * slotCounters_;
  const Ops * ops_;
  uint32_t loadShift_ = 0;
  uint32_t bucketFactor_ = 1;
  uint32_t numBuckets_ = 2;
  Slot ** buckets_ = nullptr;
  Arena::Local bucketsMem_;
};

}  // namespace Cairn

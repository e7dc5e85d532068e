#pragma once
// Cairn::ShadowStore<K, V, Ops, Slot>: a reader's private copy of one shared
// table, kept in step slot by slot. It holds one local slot per shared slot,
// at the same index, and links the occupied ones into its ShadowHashMap, so
// that lookups and walks are answered from private memory. Two slot kinds
// (Cairn/ShadowSlot.h): ValueShadowSlot keeps whole values; KeyShadowSlot
// keeps keys alone and reads values from the shared table at each access
// (Cairn/KeyShadowStore.h).
//
// Contract (one thread: the one that runs the queue and the walks, and
// calls lookup, first and next):
// 1. doSlot(index, sequence, compare) brings one local slot to what the
//    shared slot holds now, read whole under the flags protocol. A slot
//    reused for another key gives a delete callback for the old key, then an
//    update callback for the new one. With `compare`, an unchanged value
//    gives no callback and writes nothing.
// 2. A notification whose slot now holds another key, or nothing, is checked
//    against the queue (RippleReader::validateNotif) before anything changes:
//    a tombstoned one leaves the store as it was and returns false. Walks
//    (sequence all ones) are not tied to the queue and are never checked.
// 3. Inside an update callback, lookup of the notified key answers the new
//    value; inside a delete callback, it answers not found: the callbacks
//    run before the index is written.
// 4. notifiedValue_ and removedKey_ are set only during doSlot, and every
//    exit from it, an exception included, clears them.
// 5. The slot array follows the shared table's capacity when it grows, and
//    shrinks when at most a quarter of it is occupied and the top bins allow
//    (tryShrink); the hash map's pointers are patched when it moves.
// 6. A callback may disable the store; doSlot then stops without touching a
//    slot again.

#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Arena/Local.h"
#include "Arena/Memory.h"
#include "Arena/Notify.h"
#include "Arena/VersionAnchor.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnReader.h"
#include "Cairn/IterHint.h"
#include "Cairn/ShadowHashMap.h"
#include "Cairn/ShadowSlot.h"
#include "Cairn/SlotCounters.h"
#include "Ripple/RippleReader.h"

namespace Cairn {

// What a shadow asks of its store, whatever the slot kind.
template <typename K, typename V>
class ShadowStoreInterface {
 public:
  virtual ~ShadowStoreInterface() = default;
  virtual bool initialize() = 0;
  virtual bool doSlot(uint32_t slotIndex, uint64_t sequence, bool compare) = 0;
  virtual void doFlushSlot(uint32_t slotIndex) = 0;
  virtual void prefetch(uint32_t slotIndex) const = 0;
  virtual uint64_t shadowMappedSize() const = 0;
  virtual uint64_t epochMappedSize() const = 0;
  virtual const V * directLookup(const K & key, bool & found, V * out) const = 0;
  virtual const V * lookup(const K & key, bool & found, V * out) const = 0;
  virtual bool first(uint32_t bucket, V & out, IterHint & hint) const = 0;
  virtual bool next(const K & key, V & out, IterHint & hint) const = 0;
  virtual uint32_t numSlots() const = 0;
  virtual void validateVersionAnchor() const = 0;
  virtual Arena::CacheVersionAnchor getCacheVersionAnchor() const = 0;
  virtual void disable() = 0;
};

template <typename K, typename V, typename Ops, typename SlotKind>
class ShadowStore : public ShadowStoreInterface<K, V>, public Basalt::Debuggable {
 public:
  using Reader = CairnReader<K, V, Ops>;
  using Slot = SlotKind;
  using HashMap = ShadowHashMap<K, V, Slot, Ops>;
  using Callbacks = Arena::Notify<K, V>;
  using KeyOperations = typename Ops::KeyOperations;

  // Slots of the key kind hold no value: reads go to the shared table.
  static constexpr bool keysOnly = !requires(Slot slot) { slot.value; };
  // The sequence of a slot that is not tied to a queue entry (a walk).
  static constexpr uint64_t NoSequence = ~uint64_t{0};

  ShadowStore(Basalt::Platform::DebugHandler & handler, Reader & reader, Ripple::RippleReader * rippleReader,
              const Callbacks & callbacks, bool notifyOnFlush)
      : Basalt::Debuggable(handler),
        reader_(reader),
        ops_(&reader.ops()),
        rippleReader_(rippleReader),
        slotCounters_(handler, firstPageSlots()),
        callbacks_(&callbacks),
        hashMap_(handler, &reader.counters(), &slotCounters_, ops_),
        slotsMem_(handler),
        counters_(&reader.counters()),
        notifyOnFlush_(notifyOnFlush),
        baseAnchor_(&reader.slotTable().versionAnchor()),
        notifyAnchor_(&reader.slotTable().spareAnchor()),
        currentAnchor_(baseAnchor_) {}
  ~ShadowStore() override = default;
  ShadowStore(const ShadowStore &) = delete;
  ShadowStore & operator=(const ShadowStore &) = delete;

  // ---- Life ----

  bool initialize() override {
    if (initialized_) {
      return true;
    }
    if (!hashMap_.initialize()) {
      return false;
    }
    slots_ = nullptr;
    numSlots_ = 0;
    initialized_ = true;
    return true;
  }

  void disable() override {
    initialized_ = false;
    shrink(0);
  }

  bool initialized() const { return initialized_; }

  // ---- Following the shared table ----

  bool doSlot(uint32_t slotIndex, uint64_t sequence, bool compare) override {
    const ClearOnExit clear(*this);
    if (slotIndex >= numSlots_ && !makeRoom(slotIndex)) {
      return true;
    }
    return update(slotIndex, sequence, compare);
  }

  // Touches, ahead of its doSlot, the shared slot and this copy's slot of
  // `slotIndex`; keeps nothing it reads. Past either end it touches nothing.
  void prefetch(uint32_t slotIndex) const override {
    reader_.slotTable().prefetch(slotIndex);
    if (slotIndex < numSlots_) {
      __builtin_prefetch(&slots_[slotIndex]);
    }
  }

  void doFlushSlot(uint32_t slotIndex) override {
    Slot & slot = slots_[slotIndex];
    if (slot.dead()) {
      return;
    }
    BASALT_TRACE(debugHandler(), 9, "ShadowStore::doFlushSlot() slotIndex {} key: {}", slotIndex,
                 KeyOperations::toString(slot.slotKey()));
    hashMap_.remove(slotIndex, slot);
    if (notifyOnFlush_) {
      callbacks_->deleteCallback()(slot.slotKey());
    }
  }

  // ---- Reads ----

  const V * lookup(const K & key, bool & found, V * out) const override {
    found = false;
    if (removedKey_ != nullptr) {
      if (KeyOperations::equal(key, *removedKey_)) {
        ++counters_->notifiedHits;
        currentAnchor_ = notifyAnchor_;
        if constexpr (keysOnly) {
          if (out != nullptr) {
            *out = ops_->defaultValue;
          }
        }
        return &ops_->defaultValue;
      }
      ++counters_->notifiedMisses;
    } else if (notifiedValue_ != nullptr) {
      if (KeyOperations::equal(key, notifiedValue_->fwkKey())) {
        found = true;
        ++counters_->notifiedHits;
        currentAnchor_ = notifyAnchor_;
        return notifiedValueFor(out);
      }
      ++counters_->notifiedMisses;
    }
    currentAnchor_ = baseAnchor_;
    Slot * slot = hashMap_.lookup(key);
    if (slot == nullptr) {
      return &ops_->defaultValue;
    }
    if constexpr (keysOnly) {
      const V * value = sharedValue(indexOf(*slot), out);
      found = value != nullptr;
      return found ? value : &ops_->defaultValue;
    } else {
      found = true;
      return &slot->value;
    }
  }

  // What the writer's table holds this moment, however far the store is behind.
  const V * directLookup(const K & key, bool & found, V * out) const override {
    currentAnchor_ = baseAnchor_;
    return reader_.lookup(key, found, out);
  }

  bool first(uint32_t bucket, V & out, IterHint & hint) const override {
    currentAnchor_ = baseAnchor_;
    Slot * slot = bucket < hashMap_.numBuckets() ? headFrom(bucket) : nullptr;
    if constexpr (keysOnly) {
      if (slot != nullptr) {
        hint.slot = indexOf(*slot);
      }
    }
    return deliver(slot, out, hint);
  }

  bool next(const K & key, V & out, IterHint & hint) const override {
    currentAnchor_ = baseAnchor_;
    Slot * hintSlot = nullptr;
    if (hint.slot < numSlots_) {
      hintSlot = &slots_[hint.slot];
    } else {
      ++counters_->iterHintMisses;
    }
    return deliver(hashMap_.next(key, hintSlot), out, hint);
  }

  // ---- State ----

  uint64_t shadowMappedSize() const override { return slotsMem_.memSize() + hashMap_.mappedSize(); }
  uint64_t epochMappedSize() const override { return 0; }
  uint32_t numSlots() const override { return numSlots_; }
  // Local slot `index`, below numSlots(), for inspection.
  const Slot & slot(uint32_t index) const { return slots_[index]; }
  const SlotCounters & slotCounters() const { return slotCounters_; }
  void validateVersionAnchor() const override { currentAnchor_->validate(); }
  Arena::CacheVersionAnchor getCacheVersionAnchor() const override {
    return Arena::CacheVersionAnchor{currentAnchor_->version, currentAnchor_->offset};
  }

 protected:
  // ---- doSlot, in its steps ----

  // The array reaches slotIndex, or the notification is to be dropped.
  bool makeRoom(uint32_t slotIndex) {
    const uint32_t shmemSlots = sharedNumSlots();
    if (slotIndex >= shmemSlots) {
      BASALT_TRACE(debugHandler(), 5,
                   "ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:{} because shared "
                   "memory has shrunk to {} slots",
                   slotIndex, shmemSlots);
      return false;
    }
    if (!grow(slotIndex)) {
      BASALT_TRACE(debugHandler(), 5, "ShadowStore::doSlot() discarding notification for slotIndex:{}", slotIndex);
      return false;
    }
    return true;
  }

  bool update(uint32_t slotIndex, uint64_t sequence, bool compare) {
    Slot * slot = &slots_[slotIndex];
    Slot temporary{};
    temporary.reset(*ops_);
    const K oldKey = slot->slotKey();
    const bool live = sequence != NoSequence;
    const bool wasDead = slot->dead();
    Slot * target = wasDead || !live ? slot : &temporary;
    *notifyAnchor_ = Arena::VersionAnchor();
    if constexpr (keysOnly) {
      notifiedValue_ = &tempValue_;
    }

    if constexpr (!keysOnly) {
      if (compare && target == slot && sharedEqualsLocal(slotIndex, *slot)) {
        notifiedValue_ = &slot->value;
        BASALT_TRACE(debugHandler(), 9, "ShadowStore::doSlot() updated: {} compare: {} slotIndex:{} found", 0,
                     compare, slotIndex);
        return publishFound(slotIndex, *slot, *target, temporary, oldKey, sequence, wasDead, compare, false);
      }
    }

    bool found = false;
    if (!readShared(slotIndex, *target, found)) {
      BASALT_TRACE(debugHandler(), 9, "ShadowStore::doSlot() updated: {} compare: {} slotIndex:{} not found", 0,
                   compare, slotIndex);
      return notFound(slotIndex, *slot, oldKey, sequence, wasDead);
    }
    if (!found) {
      reader_.slotTable().resetAnchor();
    }
    if constexpr (!keysOnly) {
      notifiedValue_ = &target->value;
    }
    BASALT_TRACE(debugHandler(), 9, "ShadowStore::doSlot() updated: {} compare: {} slotIndex:{}{}", 1, compare,
                 slotIndex, found ? " found" : " not found");
    if (!found) {
      return notFound(slotIndex, *slot, oldKey, sequence, wasDead);
    }
    return publishFound(slotIndex, *slot, *target, temporary, oldKey, sequence, wasDead, compare, true);
  }

  // Reads the shared slot into `target` (a value store) or into tempValue_ (a
  // key store), following the writer's remaps. False when the slot can't be
  // read at all: it counts as not found.
  bool readShared(uint32_t slotIndex, Slot & target, bool & found) {
    V & destination = readDestination(target);
    bool retried = false;
    while (true) {
      try {
        found = false;
        if (slotIndex < reader_.capacity()) {
          const uint64_t word = reader_.slotTable().getValue(slotIndex, destination, nullptr);
          found = (word & OCCUPIED) != 0;
          if constexpr (keysOnly) {
            tempValueSize_ = sizeof(V);
          }
        }
        if (!reader_.doResize()) {
          break;
        }
      } catch (const Basalt::CorruptionDetectedException &) {
        bool moved = false;
        if (!retried) {
          try {
            moved = reader_.doResize();
          } catch (const Basalt::CorruptionDetectedException &) {
          }
        }
        if (!moved) {
          return false;
        }
        retried = true;
      }
    }
    if constexpr (keysOnly) {
      target.key = tempValue_.fwkKey();
    }
    return true;
  }

  // Steps 8 to 10: the shared slot holds an entry.
  bool publishFound(uint32_t slotIndex, Slot & slot, Slot & target, const Slot & temporary, const K & oldKey,
                    uint64_t sequence, bool wasDead, bool compare, bool changedIn) {
    const Arena::VersionAnchor noted = reader_.slotTable().versionAnchor();
    const bool live = sequence != NoSequence;
    if (wasDead || KeyOperations::equal(oldKey, target.slotKey())) {
      recordSequence(sequence);
    } else {
      // The shared slot was reused for another key.
      if (live && !validate(sequence)) {
        return false;
      }
      recordSequence(sequence);
      if (hashMap_.remove(slotIndex, slot)) {
        if (!announceRemoval(oldKey)) {
          return true;
        }
      }
    }
    bool changed = changedIn;
    if (&target == &temporary) {
      changed = mergeTemporary(slot, temporary, compare);
    } else if constexpr (keysOnly) {
      changed = true;
    }
    if constexpr (!keysOnly) {
      notifiedValue_ = &slot.value;
    }
    *notifyAnchor_ = noted;
    if (hashMap_.write(slotIndex, slot, changed)) {
      if constexpr (keysOnly) {
        callbacks_->keyCallback()(slot.key);
      } else {
        callbacks_->valueCallback()(slot.value);
      }
    }
    return true;
  }

  // Step 9: the temporary read becomes the slot's, unless unchanged.
  bool mergeTemporary(Slot & slot, const Slot & temporary, bool compare) {
    if constexpr (keysOnly) {
      slot.key = temporary.key;
      return true;
    } else {
      if (compare && temporary.value == slot.value) {
        return false;
      }
      slot.value = temporary.value;
      return true;
    }
  }

  // Steps 11 and 12: the shared slot is free.
  bool notFound(uint32_t slotIndex, Slot & slot, const K & oldKey, uint64_t sequence, bool wasDead) {
    if (wasDead) {
      return true;
    }
    if (sequence != NoSequence) {
      if (!validate(sequence)) {
        return false;
      }
      recordSequence(sequence);
    }
    if (!hashMap_.remove(slotIndex, slot)) {
      return true;
    }
    if (!announceRemoval(oldKey)) {
      return true;
    }
    slot.reset(*ops_);
    tryShrink();
    return true;
  }

  // The delete callback for `key`; false if the callback disabled the store.
  bool announceRemoval(const K & key) {
    removedKey_ = &key;
    callbacks_->deleteCallback()(key);
    removedKey_ = nullptr;
    return initialized_;
  }

  bool validate(uint64_t sequence) {
    if (rippleReader_ != nullptr && rippleReader_->validateNotif()) {
      return true;
    }
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::doSlot() failed because sequence:{} may have been tombstoned",
                 sequence);
    return false;
  }

  void recordSequence(uint64_t sequence) {
    if (sequence != NoSequence) {
      counters_->sequence = sequence;
    }
  }

  // ---- The slot array ----

  bool grow(uint32_t slotIndex) {
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::grow() for slotIndex:{}", slotIndex);
    reader_.doResize();
    const uint32_t capacity = reader_.capacity();
    if (slotIndex >= capacity) {
      BASALT_TRACE(debugHandler(), 5,
                   "ShadowStore::grow() complete. Never learned of slotIndex:{} so it is safe to ignore.", slotIndex);
      return false;
    }
    BASALT_TRACE(debugHandler(), 2, "ShadowStore::grow() resize shadow slots from {} to {} due to out of range slot {}",
                 numSlots_, capacity, slotIndex);
    const uint32_t oldCount = numSlots_;
    Slot * const oldBase = slots_;
    slots_ = static_cast<Slot *>(slotsMem_.resize(Arena::multiplyOverflowCheck(capacity, sizeof(Slot))));
    if (slots_ == nullptr) {
      throw Basalt::MemoryResourceException(fmt::format("ShadowStore::grow() failed to resize {} from {} to {} slots - {}",
                                                        slotsMem_.kind(), oldCount, capacity, slotsMem_.reason()));
    }
    numSlots_ = capacity;
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::grow() Passed resize {} and got {} back.", capacity,
                 static_cast<const void *>(slots_));
    for (uint32_t index = oldCount; index < capacity; ++index) {
      new (&slots_[index]) Slot{};
      slots_[index].reset(*ops_);
    }
    patchIfMoved(oldBase);
    ++counters_->shadowGrows;
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::grow() complete.");
    return true;
  }

  void tryShrink() {
    if (counters_->occupied > (numSlots_ >> 2)) {
      return;
    }
    const uint32_t largest = slotCounters_.largestOccupied();
    if (largest >= numSlots_) {
      return;
    }
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::tryShrink() shadow slot occupancy <= 25% and can shrink to {} slots.",
                 largest);
    const auto * header = reader_.slotTable().header();
    if (header != nullptr && largest != 0) {
      const uint32_t shmemSlots = sharedNumSlots();
      if (largest < shmemSlots) {
        BASALT_TRACE(debugHandler(), 5,
                     "ShadowStore::tryShrink() skip shrinking of shadow table to {} slots because shared memory has "
                     "grown to {} slots",
                     largest, shmemSlots);
        return;
      }
    }
    shrink(largest);
  }

  void shrink(uint32_t newNumSlots) {
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::shrink() newNumSlots:{}", newNumSlots);
    BASALT_TRACE(debugHandler(), 2, "ShadowStore::shrink() resize shadow slots from {} to {}", numSlots_, newNumSlots);
    Slot * const oldBase = slots_;
    slots_ = static_cast<Slot *>(slotsMem_.resize(Arena::multiplyOverflowCheck(newNumSlots, sizeof(Slot))));
    if (slots_ == nullptr && newNumSlots != 0) {
      throw Basalt::MemoryResourceException(
          fmt::format("ShadowStore::shrink() failed to resize {} from {} to {} slots - {}", slotsMem_.kind(), numSlots_,
                      newNumSlots, slotsMem_.reason()));
    }
    numSlots_ = newNumSlots;
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::shrink() Passed resize {} and got {} back.", newNumSlots,
                 static_cast<const void *>(slots_));
    patchIfMoved(oldBase);
    ++counters_->shadowShrinks;
    BASALT_TRACE(debugHandler(), 5, "ShadowStore::shrink() complete.");
  }

  void patchIfMoved(Slot * oldBase) {
    if (oldBase != nullptr && slots_ != nullptr && slots_ != oldBase) {
      hashMap_.patch(reinterpret_cast<char *>(slots_) - reinterpret_cast<char *>(oldBase));
    }
  }

  // ---- Helpers ----

  // Clears notifiedValue_ and removedKey_ on every exit from doSlot.
  struct ClearOnExit {
    ShadowStore & store;
    ~ClearOnExit() {
      store.notifiedValue_ = nullptr;
      store.removedKey_ = nullptr;
    }
  };

  V & readDestination(Slot & target) {
    if constexpr (keysOnly) {
      return tempValue_;
    } else {
      return target.value;
    }
  }

  uint32_t indexOf(const Slot & slot) const { return static_cast<uint32_t>(&slot - slots_); }

  uint32_t sharedNumSlots() const {
    const auto * header = reader_.slotTable().header();
    return header == nullptr ? 0 : header->numSlots.load().value;
  }

  // The shared slots on the slot file's first page.
  static uint32_t firstPageSlots() {
    return SlotCounters::firstPageSlotsFor(Arena::pageSize_, Reader::SlotReader::slotSize);
  }

  // Compares the shared value with the local one, whole, under the flags
  // protocol; the anchor keeps what it stood on.
  bool sharedEqualsLocal(uint32_t slotIndex, const Slot & slot) {
    if (slotIndex >= reader_.capacity()) {
      return false;
    }
    const Arena::VersionAnchor saved = reader_.slotTable().versionAnchor();
    V shared;
    uint64_t word;
    try {
      word = reader_.slotTable().getValue(slotIndex, shared, nullptr);
    } catch (const Basalt::CorruptionDetectedException &) {
      return false;
    }
    reader_.slotTable().restoreAnchor(saved);
    return (word & OCCUPIED) != 0 && shared == slot.value;
  }

  const V * notifiedValueFor(V * out) const {
    if constexpr (keysOnly) {
      if (out != nullptr) {
        std::memcpy(static_cast<void *>(out), &tempValue_, tempValueSize_);
        return out;
      }
      scratchValue_ = tempValue_;
      return &scratchValue_;
    } else {
      return notifiedValue_;
    }
  }

  // A key store's value of local slot `slotIndex`, from the shared table: the
  // slot's own if it still holds the key, else the key's wherever it moved.
  const V * sharedValue(uint32_t slotIndex, V * out) const {
    V & into = out != nullptr ? *out : scratchValue_;
    const K & key = slots_[slotIndex].key;
    if (reader_.safeValue(slotIndex, into, nullptr)) {
      if (KeyOperations::equal(into.fwkKey(), key)) {
        return &into;
      }
      ++counters_->keyMismatches;
    }
    bool found = false;
    const V * value = reader_.lookup(key, found, out);
    if (found) {
      return value;
    }
    reader_.slotTable().resetAnchor();
    if (out != nullptr) {
      *out = ops_->defaultValue;
    }
    return nullptr;
  }

  Slot * headFrom(uint32_t bucket) const {
    for (; bucket < hashMap_.numBuckets(); ++bucket) {
      if (hashMap_.buckets()[bucket] != nullptr) {
        return hashMap_.buckets()[bucket];
      }
    }
    return nullptr;
  }

  // Hands out candidate `slot` of a walk, or, for a key store, the first
  // candidate from it whose value can still be read.
  bool deliver(Slot * slot, V & out, IterHint & hint) const {
    if constexpr (keysOnly) {
      while (slot != nullptr) {
        const uint32_t index = indexOf(*slot);
        const V * value = sharedValue(index, &out);
        if (value != nullptr) {
          hint.slot = index;
          if (value != &out) {
            out = *value;
          }
          return true;
        }
        slot = followingCandidate(*slot);
      }
    } else if (slot != nullptr) {
      hint.slot = indexOf(*slot);
      if (&out != &slot->value) {
        out = slot->value;
      }
      return true;
    }
    out = ops_->defaultValue;
    return false;
  }

  // The candidate after `slot` in a key store's walk: its chain successor, or
  // the head of the next non-empty bucket; by key if it is no longer linked.
  Slot * followingCandidate(const Slot & slot) const {
    if (slot.dead()) {
      ++counters_->iterHintMisses;
      return hashMap_.next(slot.key, nullptr);
    }
    if (slot.next != nullptr) {
      return slot.next;
    }
    return headFrom((slot.rhash >> (32 - hashMap_.bucketFactor())) + 1);
  }

  Reader & reader_;
  const Ops * ops_;
  Ripple::RippleReader * rippleReader_;
  SlotCounters slotCounters_;
  const Callbacks * callbacks_;
  HashMap hashMap_;
  uint32_t numSlots_ = 0;
  Slot * slots_ = nullptr;
  Arena::Local slotsMem_;
  Cairn::Reader::Counters * counters_;
  const V * notifiedValue_ = nullptr;
  const K * removedKey_ = nullptr;
  V tempValue_{};             // a key store's read of the notified slot
  uint64_t tempValueSize_ = 0;
  mutable V scratchValue_{};  // a key store's answer when the caller gives no buffer
  bool notifyOnFlush_;
  bool initialized_ = false;
  const Arena::VersionAnchor * baseAnchor_;
  Arena::VersionAnchor * notifyAnchor_;
  mutable const Arena::VersionAnchor * currentAnchor_;
};

}  // namespace Cairn

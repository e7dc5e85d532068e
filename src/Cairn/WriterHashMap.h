#pragma once
// WriterHashMap: the chained hash table that runs through a table's slots.
//
// Every chain ends with a link to the next bucket in table order (or with
// EndOfTable after the last bucket), so all entries form one list sorted by
// (rhash, key): split order within a chain, table order between buckets. A
// power-of-two bucket table is then doubled or halved by cutting and splicing
// that list, one 64-bit link store at a time, while readers walk it.
//
// Writer thread only. What a lock-free reader relies on:
//  1. A slot becomes reachable by exactly one store, the 64-bit store of the
//     link before it, which comes after every store into the slot.
//  2. Every link store changes version and value together, so a reader can
//     verify later that a link it read is unchanged.
//  3. growBuckets: during its first pass readers see nothing new; between the
//     passes a reader with the new count and bucket b walks b's lower run and
//     on into its twin's slots, where its sorted search stops; one with
//     bucket b + old sees the upper run alone; one with the old count sees the
//     old chains whole. The last slot of a chain always reaches the next
//     bucket in table order, in either count.
//  4. Halving splices each twin onto its lower bucket while the count is
//     still the old one, so readers with either count find every key.
// No store here carries a fence: x86-64 store order is what is relied on.

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Cairn/BucketWriter.h"
#include "Cairn/IterHint.h"
#include "Cairn/OccupiedMarks.h"
#include "Cairn/SlotWriter.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class WriterHashMap : public Basalt::Debuggable {
 public:
  using SlotWriter = SlotWriterTable<Key, Value, Ops>;
  using Slot = typename SlotWriter::Slot;
  using KeyOperations = typename Ops::KeyOperations;
  using ValueOperations = typename Ops::ValueOperations;
  using Marshalling = typename ValueOperations::Marshalling;

  WriterHashMap(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath,
                Writer::Counters & counters, Ops & ops, SlotWriter & slots, bool shrinkBuckets,
                bool localMem)
      : Basalt::Debuggable(handler),
        buckets_(handler, rootPath, counters, localMem),
        counters_(&counters),
        ops_(&ops),
        shrinkBuckets_(shrinkBuckets),
        slots_(&slots) {}

  // Attaches the bucket file; 1 new, 2 existing, 4 re-formatted.
  int attach(ArenaFiles::EpochId epochId) {
    const int result = buckets_.attach(epochId);
    thresholdsIs(buckets_.numBuckets());
    return result;
  }

  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }

  // Looks for `key` in `bucket`. *prev ends as the link that leads to the
  // key's place; *curr as the key's slot on success, else the slot the search
  // stopped at (the key would stand before it), or *prev itself if the chain
  // held nothing it looked at. A new slot goes between *prev and what *prev
  // links to, and takes over *prev's link, terminator included.
  bool find(const Key & key, uint32_t bucket, SlotLink ** prev, SlotLink ** curr, uint32_t hash) const {
    *prev = *curr = buckets_[bucket];
    const uint32_t rhash = Basalt::Util::reverse(hash);
    uint32_t count = 0;
    while (true) {
      const uint32_t link = (*prev)->value();
      if (link & NextBucketBit) {
        BASALT_TRACE(debugHandler(), 9, "WriterHashMap::find() {} not found curr:{} next:{}",
                     KeyOperations::toString(key), slotIndexOf(*curr), link);
        return false;
      }
      if (++count > slots_->capacity()) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "WriterHashMap::find() hash chain cycle detected, slotCount:{} capacity:{}", count,
            slots_->capacity()));
      }
      Slot * slot = slots_->slots()[link];
      *curr = &slot->link;
      if (!(slot->flags & OCCUPIED)) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::find() slot: {} not marked as occupied", link));
      }
      const Key & slotKey = KeyOperations::key(slot->value);
      if (bucketOf(KeyOperations::hash(slotKey)) != bucket) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::find() corrupt key detected, slot: {}", link));
      }
      const int order = comparePairs(rhash, key, slot->rhash, slotKey);
      if (order <= 0) {
        if (order == 0) {
          BASALT_TRACE(debugHandler(), 9, "WriterHashMap::find() {} found curr:{} next:{}",
                       KeyOperations::toString(key), link, slot->link.value());
        } else {
          BASALT_TRACE(debugHandler(), 9, "WriterHashMap::find() {} not found curr:{} next:{}",
                       KeyOperations::toString(key), link, slot->link.value());
        }
        return order == 0;
      }
      *prev = &slot->link;
      BASALT_TRACE(debugHandler(), 9, "WriterHashMap::find() {} next curr:{}",
                   KeyOperations::toString(key), slot->link.value());
    }
  }

  // The address of the key's value in its slot, or null; sets the slot
  // table's version anchor on a hit.
  const Value * lookup(const Key & key, bool & found) const {
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = bucketOf(hash);
    const uint32_t rhash = Basalt::Util::reverse(hash);
    uint32_t link = buckets_[bucket]->value();
    uint32_t count = 0;
    while (!(link & NextBucketBit)) {
      if (++count > slots_->capacity()) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "WriterHashMap::lookup() hash chain cycle detected, slotCount:{} capacity:{}", count,
            slots_->capacity()));
      }
      const Slot * slot = slots_->slots()[link];
      const uint32_t flags = slot->flags;
      if (!(flags & OCCUPIED)) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::lookup() slot: {} not marked as occupied", link));
      }
      const Key & slotKey = KeyOperations::key(slot->value);
      if (bucketOf(KeyOperations::hash(slotKey)) != bucket) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::lookup() corrupt key detected, slot: {}", link));
      }
      const int order = comparePairs(rhash, key, slot->rhash, slotKey);
      if (order < 0) {
        break;
      }
      if (order == 0) {
        slots_->anchorOn(slot, flags);
        BASALT_TRACE(debugHandler(), 9, "WriterHashMap::lookup() {} found bucket:{} slot:{}",
                     ValueOperations::toString(slot->value), bucket, link);
        found = true;
        return &slot->value;
      }
      link = slot->link.value();
    }
    BASALT_TRACE(debugHandler(), 8, "WriterHashMap::lookup() {} not found bucket:{}",
                 KeyOperations::toString(key), bucket);
    found = false;
    return nullptr;
  }

  // The first entry at or after `bucket` in table order.
  bool first(uint32_t bucket, Value & value, IterHint & hint) const {
    uint32_t current = bucket;
    uint32_t link = buckets_[current]->value();
    uint32_t steps = 0;
    while (SlotLink::isNextBucket(link)) {
      const uint32_t next = SlotLink::bucketOf(link);
      verifyNextBucket(current, next);
      link = buckets_[next]->value();
      current = next;
      if (++steps >= buckets_.numBuckets()) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::first() has bucket cycle detected, bucketCount: {} numBuckets: {}",
                        steps, buckets_.numBuckets()));
      }
    }
    if (link == EndOfTable) {
      if (current != buckets_.numBuckets() - 1) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "WriterHashMap::first() thinks we've reached the end of the table, but we're in bucket {} "
            "when there are numBuckets: {}",
            current, buckets_.numBuckets()));
      }
      BASALT_TRACE(debugHandler(), 8, "WriterHashMap::first() none found!");
      return false;
    }
    const Slot * slot = slots_->slots()[link];
    const uint32_t flags = slot->flags;
    if (!(flags & OCCUPIED)) {
      throw Basalt::CorruptionDetectedException(fmt::format(
          "WriterHashMap::first() slot: {} from bucket: {} not marked as occupied", link, current));
    }
    slots_->anchorOn(slot, flags);
    Marshalling::fromSlot(value, &slot->value);
    const uint32_t keyHash = KeyOperations::hash(KeyOperations::key(value));
    if (bucketOf(keyHash) != current) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("WriterHashMap::first() corrupt key detected, slot: {}", link));
    }
    if (validator_ != nullptr) {
      checkRhash("first", link, slot->rhash, keyHash);
      validator_->markOccupied(link);
    }
    hint = IterHint{flags, link, current};
    BASALT_TRACE(debugHandler(), 9, "WriterHashMap::first() {} found at bucket {}",
                 ValueOperations::toString(value), current);
    return true;
  }

  // The entry after `key`, which need not be in the table any more. The hint
  // saves the lookup while its slot is unchanged.
  bool next(const Key & lastKey, Value & value, IterHint & hint) const {
    // Callers pass the key inside `value`, which the walk overwrites.
    const Key key = lastKey;
    if (hint.slot < slots_->capacity() && hint.bucket < buckets_.numBuckets() &&
        hint.flags == slots_->slots()[hint.slot]->flags) {
      try {
        return nextFast(key, value, hint);
      } catch (const Basalt::CorruptionDetectedException & exception) {
        BASALT_TRACE(debugHandler(), 5,
                     "WriterHashMap::next() saw exception in fast path: {}. This might be okay, "
                     "dropping to slow path to find out",
                     exception.what());
      }
    }
    return nextSlow(key, value, hint);
  }

  // Checks that `next` is `bucket`'s successor in table order.
  void verifyNextBucket(uint32_t bucket, uint32_t next) const {
    const uint32_t count = buckets_.numBuckets();
    const uint32_t expected =
        bucket < count / 2 ? bucket + count / 2
                           : bucketSuccessor(bucket, buckets_.numBucketBits()) % count;
    if (next != expected) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("WriterHashMap::verifyNextBucket() has bucket: {} with next bucket: {} and "
                      "numBuckets: {}",
                      bucket, next, count));
    }
  }

  // Doubles the bucket table once occupancy exceeds one entry per bucket.
  void maybeGrowBuckets() {
    if (slots_->header()->occupiedSlots > growBucketsThreshold_) {
      growBuckets();
    }
  }

  void growBuckets() {
    const uint32_t oldCount = buckets_.numBuckets();
    const uint32_t newCount = oldCount * 2;
    BASALT_TRACE(debugHandler(), 2, "WriterHashMap::growBuckets() growing from: {} to: {}", oldCount,
                 newCount);
    buckets_.resize(newCount);
    // First pass: each twin's head is the first slot of b's chain that belongs
    // to the twin, or b's terminator. No reader looks at a twin yet: the
    // file's count is still the old one.
    for (uint32_t bucket = 0; bucket < oldCount; ++bucket) {
      buckets_[bucket + oldCount]->storeNext(firstForeignLink(bucket, newCount));
    }
    // Publishes the new count: every twin is a well-formed chain head, and
    // every lower chain still runs on into its twin's slots.
    BucketTableHeader & header = *buckets_.header();
    header.numBuckets.store(header.numBuckets.load().version + 1, newCount);
    // Second pass: cut each lower chain where its twin's slots begin.
    for (uint32_t bucket = 0; bucket < oldCount; ++bucket) {
      cutAtTwin(bucket, newCount);
    }
    thresholdsIs(newCount);
  }

  // Halves the bucket table when occupancy falls below a quarter entry per
  // bucket; a table of 2 buckets stays (its threshold is 0).
  void maybeShrinkBuckets() {
    if (shrinkBuckets_ && slots_->header()->occupiedSlots < shrinkBucketsThreshold_) {
      shrinkBuckets();
    }
  }

  void shrinkBuckets() {
    const uint32_t oldCount = buckets_.numBuckets();
    const uint32_t half = oldCount / 2;
    // Splices each twin's chain onto the end of its lower bucket's chain
    // while the count is still the old one.
    for (uint32_t bucket = 0; bucket < half; ++bucket) {
      lastLinkOf(bucket)->storeNext(buckets_[bucket + half]->value());
    }
    // Publishes the halved count: every lower chain now holds its twin's slots.
    BucketTableHeader & header = *buckets_.header();
    header.numBuckets.store(header.numBuckets.load().version + 1, half);
    buckets_.resize(half);
    BASALT_TRACE(debugHandler(), 2, "WriterHashMap::shrinkBuckets() shrunk to numBuckets: {} shrinkBuckets_:{}",
                 half, shrinkBuckets_);
    growBucketsThreshold_ = half;
    shrinkBucketsThreshold_ = oldCount / 8;
  }

  // Mends a doubling that stopped between its passes, or a halving that
  // stopped inside its splice pass: in both, a lower bucket's chain runs on
  // into its twin's slots or ends on its twin's terminator. Cutting each such
  // chain where its twin's slots begin leaves every chain its own bucket's
  // under the published count. Chains already cut are not touched. Returns
  // how many it cut; throws CorruptionDetectedException on a chain longer
  // than the table.
  uint32_t cutChainsAtTwins() {
    const uint32_t count = buckets_.numBuckets();
    uint32_t cut = 0;
    for (uint32_t bucket = 0; bucket < count / 2; ++bucket) {
      if (runsIntoTwin(bucket, count)) {
        cutAtTwin(bucket, count);
        ++cut;
      }
    }
    return cut;
  }

  BucketWriterTable & buckets() { return buckets_; }
  const BucketWriterTable & buckets() const { return buckets_; }
  uint32_t growBucketsThreshold() const { return growBucketsThreshold_; }
  uint32_t shrinkBucketsThreshold() const { return shrinkBucketsThreshold_; }
  void validatorIs(OccupiedMarks * validator) { validator_ = validator; }

 private:
  // Orders (rhash, key) pairs: rhash first, then the key's operator<.
  static int comparePairs(uint32_t rhashA, const Key & a, uint32_t rhashB, const Key & b) {
    if (rhashA != rhashB) {
      return rhashA < rhashB ? -1 : 1;
    }
    if (KeyOperations::less(a, b)) {
      return -1;
    }
    return KeyOperations::less(b, a) ? 1 : 0;
  }

  // The index of the slot whose link `link` is; EndOfTable for a bucket entry,
  // which lies in the other file's mapping, below or above the slots.
  uint32_t slotIndexOf(const SlotLink * link) const {
    const auto base = reinterpret_cast<std::uintptr_t>(slots_->slots().base);
    const auto at = reinterpret_cast<std::uintptr_t>(link);
    if (base == 0 || at < base || at - base >= std::uintptr_t{slots_->capacity()} * SlotWriter::slotSize) {
      return EndOfTable;
    }
    return static_cast<uint32_t>((at - base) / SlotWriter::slotSize);
  }

  uint32_t bucketOfSlot(uint32_t index, uint32_t count) const {
    return KeyOperations::hash(KeyOperations::key(slots_->slots()[index]->value)) & (count - 1);
  }

  // The link that leads past the run of `bucket`'s slots under `count` buckets.
  uint32_t firstForeignLink(uint32_t bucket, uint32_t count) const {
    uint32_t link = buckets_[bucket]->value();
    while (!(link & NextBucketBit) && bucketOfSlot(link, count) == bucket) {
      link = slots_->slots()[link]->link.value();
    }
    return link;
  }

  void cutAtTwin(uint32_t bucket, uint32_t count) {
    SlotLink * at = buckets_[bucket];
    uint32_t link = at->value();
    while (!(link & NextBucketBit)) {
      const uint32_t slotBucket = bucketOfSlot(link, count);
      if (slotBucket != bucket) {
        at->storeNext(SlotLink::nextBucketLink(slotBucket));
        return;
      }
      at = &slots_->slots()[link]->link;
      link = at->value();
    }
    at->storeNext(SlotLink::nextBucketLink(bucket + count / 2));
  }

  // True if `bucket`'s chain (a lower bucket under `count`) holds a slot of
  // another bucket, or ends anywhere but on its twin.
  bool runsIntoTwin(uint32_t bucket, uint32_t count) const {
    uint32_t link = buckets_[bucket]->value();
    for (uint32_t steps = 0; !(link & NextBucketBit); ++steps) {
      if (steps > slots_->capacity()) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::runsIntoTwin() bucket:{} chain longer than the table", bucket));
      }
      if (bucketOfSlot(link, count) != bucket) {
        return true;
      }
      link = slots_->slots()[link]->link.value();
    }
    return link != SlotLink::nextBucketLink(bucket + count / 2);
  }

  SlotLink * lastLinkOf(uint32_t bucket) const {
    SlotLink * at = buckets_[bucket];
    for (uint32_t link = at->value(); !(link & NextBucketBit); link = at->value()) {
      at = &slots_->slots()[link]->link;
    }
    return at;
  }

  void checkRhash(const char * function, uint32_t index, uint32_t stored, uint32_t keyHash) const {
    if (stored != Basalt::Util::reverse(keyHash)) {
      throw Basalt::CorruptionDetectedException(fmt::format(
          "WriterHashMap::{}() corrupt rhash detected, slot: {} slot.rhash:{:x} rhash:{:x}", function,
          index, stored, Basalt::Util::reverse(keyHash)));
    }
  }

  // Takes the answer `slot` (at `index`, in `bucket`) into value and hint.
  void handOut(const Slot * slot, uint32_t index, uint32_t bucket, Value & value, IterHint & hint) const {
    const uint32_t flags = slot->flags;
    slots_->anchorOn(slot, flags);
    Marshalling::fromSlot(value, &slot->value);
    hint = IterHint{flags, index, bucket};
  }

  bool nextFast(const Key & key, Value & value, IterHint & hint) const {
    const Slot * slot = slots_->slots()[hint.slot];
    const uint32_t link = slot->link.value();
    if (!(link & NextBucketBit)) {
      const Slot * nextSlot = slots_->slots()[link];
      if (!(nextSlot->flags & OCCUPIED)) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::next() slot: {} not marked as occupied", link));
      }
      const uint32_t nextHash = KeyOperations::hash(KeyOperations::key(nextSlot->value));
      if (bucketOf(nextHash) != bucketOf(KeyOperations::hash(KeyOperations::key(slot->value)))) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::next() corrupt key detected, slot: {}", link));
      }
      if (validator_ != nullptr) {
        checkRhash("next", link, nextSlot->rhash, nextHash);
        validator_->markOccupied(link);
      }
      const IterHint used = hint;
      handOut(nextSlot, link, hint.bucket, value, hint);
      BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} success {} using {}, saving new slot hint {}",
                   KeyOperations::toString(key), ValueOperations::toString(value), toString(used), link);
      return true;
    }
    if (link == EndOfTable) {
      failIfNotLastBucket(hint.bucket);
      BASALT_TRACE(debugHandler(), 8, "WriterHashMap::next() {} failed", KeyOperations::toString(key));
      return false;
    }
    const uint32_t nextBucket = SlotLink::bucketOf(link);
    verifyNextBucket(hint.bucket, nextBucket);
    BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} next bucket {} using {}",
                 KeyOperations::toString(key), nextBucket, toString(hint));
    return first(nextBucket, value, hint);
  }

  bool nextSlow(const Key & key, Value & value, IterHint & hint) const {
    ++counters_->nextSlowPaths;
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = bucketOf(hash);
    const uint32_t rhash = Basalt::Util::reverse(hash);
    uint32_t link = buckets_[bucket]->value();
    if (SlotLink::isNextBucket(link)) {
      const uint32_t nextBucket = SlotLink::bucketOf(link);
      verifyNextBucket(bucket, nextBucket);
      BASALT_TRACE(debugHandler(), 8, "WriterHashMap::next() {} next bucket {}",
                   KeyOperations::toString(key), nextBucket);
      return first(nextBucket, value, hint);
    }
    if (link == EndOfTable) {
      failIfNotLastBucket(bucket);
      BASALT_TRACE(debugHandler(), 8, "WriterHashMap::next() {} failed", KeyOperations::toString(key));
      return false;
    }
    uint32_t count = 0;
    while (!(link & NextBucketBit)) {
      if (++count > slots_->capacity()) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "WriterHashMap::next() hash chain cycle detected, slotCount:{} capacity:{}", count,
            slots_->capacity()));
      }
      const Slot * slot = slots_->slots()[link];
      if (!(slot->flags & OCCUPIED)) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::next() slot: {} not marked as occupied", link));
      }
      const Key & slotKey = KeyOperations::key(slot->value);
      const uint32_t slotHash = KeyOperations::hash(slotKey);
      if (bucketOf(slotHash) != bucket) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("WriterHashMap::next() corrupt key detected, slot: {}", link));
      }
      BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} comparing slot {} {}",
                   KeyOperations::toString(key), link, KeyOperations::toString(slotKey));
      if (comparePairs(slot->rhash, slotKey, rhash, key) > 0) {
        BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} next slot {} success {}",
                     KeyOperations::toString(key), link, KeyOperations::toString(slotKey));
        checkRhash("next", link, slot->rhash, slotHash);
        if (validator_ != nullptr) {
          validator_->markOccupied(link);
        }
        handOut(slot, link, bucket, value, hint);
        BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} success {}", KeyOperations::toString(key),
                     ValueOperations::toString(value));
        return true;
      }
      link = slot->link.value();
    }
    if (link == EndOfTable) {
      BASALT_TRACE(debugHandler(), 8, "WriterHashMap::next() {} failed", KeyOperations::toString(key));
      return false;
    }
    const uint32_t nextBucket = SlotLink::bucketOf(link);
    verifyNextBucket(bucket, nextBucket);
    BASALT_TRACE(debugHandler(), 9, "WriterHashMap::next() {} next bucket {}", KeyOperations::toString(key),
                 nextBucket);
    return first(nextBucket, value, hint);
  }

  void failIfNotLastBucket(uint32_t bucket) const {
    if (bucket != buckets_.numBuckets() - 1) {
      throw Basalt::CorruptionDetectedException(fmt::format(
          "WriterHashMap::next() thinks we've reached the end of the table, but we're in bucket {} "
          "when there are numBuckets: {}",
          bucket, buckets_.numBuckets()));
    }
  }

  void thresholdsIs(uint32_t numBuckets) {
    growBucketsThreshold_ = numBuckets;
    shrinkBucketsThreshold_ = numBuckets / 4;
  }

  uint32_t growBucketsThreshold_ = 0;
  uint32_t shrinkBucketsThreshold_ = 0;
  BucketWriterTable buckets_;
  Writer::Counters * counters_;
  Ops * ops_;
  bool shrinkBuckets_;
  SlotWriter * slots_;
  OccupiedMarks * validator_ = nullptr;
};

}  // namespace Cairn

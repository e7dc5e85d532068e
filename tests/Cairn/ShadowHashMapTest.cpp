// The shadow's private hash map, over both slot kinds: chains in split order,
// growth and halving of the buckets (also when their mapping moves), entries
// that move slots, iteration by key and hint, and the fix of every pointer
// after the slot array moved. A property test runs random writes, removes,
// rewrites, moves of keys and moves of the slot array against a std::map.

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/Memory.h"
#include "Cairn/MapTestTypes.h"
#include "Cairn/ShadowHashMap.h"
#include "Cairn/ShadowSlot.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;

namespace {

using Ops = OpsFor<HashedValue>;
using ValueSlot = Cairn::ValueShadowSlot<HashedValue>;
using KeySlot = Cairn::KeyShadowSlot<HashedKey>;

// What a test stores into a slot before it writes it to the map: the whole
// value, or the key alone.
void store(ValueSlot & slot, const HashedKey & key, uint64_t payload) {
  slot.value = HashedValue(key, payload);
}
void store(KeySlot & slot, const HashedKey & key, uint64_t /*payload*/) { slot.key = key; }

bool holdsDefault(const ValueSlot & slot, const Ops & ops) { return slot.value == ops.defaultValue; }
uint64_t payloadOf(const ValueSlot & slot) { return slot.value.payload; }
uint64_t payloadOf(const KeySlot &) { return 0; }
bool holdsDefault(const KeySlot & slot, const Ops & ops) { return slot.key == ops.defaultKey; }

// A key whose rhash (its place in split order) is `rhash`.
HashedKey keyAt(uint32_t rhash, uint32_t id = 0) { return HashedKey{Basalt::Util::reverse(rhash), id}; }

// The slot array of a store: the map's chains run through it. moveTo makes a
// new array, copies the slots, spoils the old one so that a pointer left into
// it shows, and patches the map: the array always moves.
template <typename Slot>
class SlotArray {
 public:
  explicit SlotArray(std::size_t count) : slots_(count) {}

  Slot & operator[](std::size_t index) { return slots_[index]; }
  const Slot * begin() const { return slots_.data(); }
  const Slot * end() const { return slots_.data() + slots_.size(); }
  std::size_t size() const { return slots_.size(); }
  bool holds(const void * address) const {
    const auto * at = static_cast<const char *>(address);
    return at >= reinterpret_cast<const char *>(begin()) && at < reinterpret_cast<const char *>(end());
  }
  uint32_t indexOf(const Slot * slot) const { return static_cast<uint32_t>(slot - begin()); }

  template <typename Map>
  void moveTo(std::size_t count, Map & map) {
    std::vector<Slot> moved(count);
    std::memcpy(static_cast<void *>(moved.data()), slots_.data(),
                std::min(count, slots_.size()) * sizeof(Slot));
    const long offset =
        reinterpret_cast<const char *>(moved.data()) - reinterpret_cast<const char *>(slots_.data());
    std::memset(static_cast<void *>(slots_.data()), 0xA5, slots_.size() * sizeof(Slot));
    map.patch(offset);
    slots_.swap(moved);
  }

 private:
  std::vector<Slot> slots_;
};

template <typename Slot>
class ShadowHashMapTest : public ::testing::Test {
 protected:
  using Map = Cairn::ShadowHashMap<HashedKey, HashedValue, Slot, Ops>;
  // Split order, as the map keeps it; the model maps each key to its slot.
  using Model = std::map<HashedKey, uint32_t, decltype(&splitOrderLess)>;
  // A slot kind that holds the value tells a moved entry only if the value
  // changed; one that holds the key always does.
  static constexpr bool holdsValue = std::is_same_v<Slot, ValueSlot>;

  void SetUp() override {
    handler_.maskIs(1);
    ASSERT_TRUE(map_.initialize());
  }

  bool put(uint32_t index, const HashedKey & key, uint64_t payload = 0, bool changed = false) {
    store(slots_[index], key, payload);
    return map_.write(index, slots_[index], changed);
  }
  bool drop(uint32_t index) { return map_.remove(index, slots_[index]); }
  Slot * slot(uint32_t index) { return &slots_[index]; }
  Slot * const * cells() const { return map_.buckets(); }

  // Inserts `count` keys at slots 0.. with well spread hashes.
  void fill(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      put(i, HashedKey{i * 2654435761u, i});
    }
  }

  // Every invariant of the map against the model: the chains in bucket order
  // are the model's entries in split order, each in its bucket with sound
  // links; counters and bins agree; lookup finds each key in its slot; a walk
  // by next() with hints and one without visit the model's order.
  void check(const Model & model) {
    const uint32_t numBuckets = map_.numBuckets();
    ASSERT_EQ(numBuckets, 1u << map_.bucketFactor());
    ASSERT_GE(numBuckets, 2u);
    ASSERT_EQ(counters_.occupied, model.size());
    ASSERT_LE(counters_.occupied, numBuckets);
    if (map_.bucketFactor() > 1) {
      ASSERT_GT(counters_.occupied, numBuckets / 4) << "a map this empty shrinks";
    }
    std::vector<uint32_t> chained;
    const Slot * previous = nullptr;
    for (uint32_t bucket = 0; bucket < numBuckets; ++bucket) {
      Slot * const * cell = &cells()[bucket];
      for (const Slot * at = *cell; at != nullptr; at = at->next) {
        ASSERT_TRUE(slots_.holds(at)) << "bucket " << bucket;
        ASSERT_EQ(at->prev, cell) << "bucket " << bucket << " slot " << slots_.indexOf(at);
        ASSERT_EQ(at->rhash, at->slotKey().rhash());
        ASSERT_EQ(at->rhash >> (32 - map_.bucketFactor()), bucket);
        if (previous != nullptr) {
          ASSERT_TRUE(splitOrderLess(previous->slotKey(), at->slotKey()));
        }
        previous = at;
        chained.push_back(slots_.indexOf(at));
        cell = &at->next;
      }
    }
    std::vector<uint32_t> expected;
    uint32_t bins[Cairn::SlotCounters::NumBins] = {};
    uint32_t occupiedBins = 0;
    for (const auto & [key, index] : model) {
      expected.push_back(index);
      ASSERT_EQ(map_.lookup(key), slot(index)) << valueToStrep(key);
      const unsigned bin = slotCounters_.binOf(index);
      ++bins[bin];
      occupiedBins |= 1u << bin;
    }
    ASSERT_EQ(chained, expected);
    ASSERT_EQ(slotCounters_.occupiedBins, occupiedBins);
    ASSERT_TRUE(std::equal(std::begin(bins), std::end(bins), std::begin(slotCounters_.bins)));
    checkDeadSlots(model);
    checkWalk(model);
  }

  // Slots out of the model are out of the chains.
  void checkDeadSlots(const Model & model) {
    std::set<uint32_t> live;
    for (const auto & entry : model) {
      live.insert(entry.second);
    }
    for (uint32_t index = 0; index < slots_.size(); ++index) {
      if (!live.count(index)) {
        ASSERT_TRUE(slots_[index].dead()) << "slot " << index;
      }
    }
  }

  void checkWalk(const Model & model) {
    Slot * at = first();
    for (const auto & [key, index] : model) {
      ASSERT_EQ(at, slot(index)) << valueToStrep(key);
      const uint32_t misses = counters_.iterHintMisses;
      Slot * following = map_.next(key, at);
      ASSERT_EQ(counters_.iterHintMisses, misses);
      ASSERT_EQ(map_.next(key, nullptr), following);
      ASSERT_EQ(counters_.iterHintMisses, misses + 1);
      at = following;
    }
    ASSERT_EQ(at, nullptr);
  }

  // The head of the first non-empty bucket, as a store's first() finds it.
  Slot * first() const {
    for (uint32_t bucket = 0; bucket < map_.numBuckets(); ++bucket) {
      if (cells()[bucket] != nullptr) {
        return cells()[bucket];
      }
    }
    return nullptr;
  }

  Basalt::Platform::DebugHandler handler_{"shadow-map-test"};
  Ops ops_;
  Cairn::Reader::Counters counters_;
  Cairn::SlotCounters slotCounters_{handler_, 64};
  Map map_{handler_, &counters_, &slotCounters_, &ops_};
  SlotArray<Slot> slots_{4096};
};

using SlotKinds = ::testing::Types<ValueSlot, KeySlot>;

class SlotKindNames {
 public:
  template <typename T>
  static std::string GetName(int) {
    return std::is_same_v<T, ValueSlot> ? "ValueShadowSlot" : "KeyShadowSlot";
  }
};

TYPED_TEST_SUITE(ShadowHashMapTest, SlotKinds, SlotKindNames);

TYPED_TEST(ShadowHashMapTest, NewMapHasTwoEmptyBuckets) {
  EXPECT_EQ(this->map_.numBuckets(), 2u);
  EXPECT_EQ(this->map_.bucketFactor(), 1u);
  EXPECT_EQ(this->cells()[0], nullptr);
  EXPECT_EQ(this->cells()[1], nullptr);
  EXPECT_EQ(this->counters_.occupied, 0u);
  EXPECT_EQ(this->map_.lookup(HashedKey{1, 1}), nullptr);
  EXPECT_EQ(this->map_.next(HashedKey{1, 1}, nullptr), nullptr);
  EXPECT_EQ(this->map_.mappedSize(), Arena::pageSize_);
}

TYPED_TEST(ShadowHashMapTest, EqualRhashKeysStayInKeyOrderAndLookupTellsThemApart) {
  const uint32_t hash = 0x12345678;
  typename TestFixture::Model model(splitOrderLess);
  for (uint32_t id : {2u, 4u, 1u, 3u}) {
    EXPECT_TRUE(this->put(id, HashedKey{hash, id}));
    model[HashedKey{hash, id}] = id;
  }
  this->check(model);
  // All four in one chain, ordered by id.
  std::vector<uint32_t> ids;
  const uint32_t rhash = HashedKey{hash, 1}.rhash();
  for (auto * at = this->map_.lookup(HashedKey{hash, 1}); at != nullptr && at->rhash == rhash; at = at->next) {
    ids.push_back(at->slotKey().id);
  }
  EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3, 4}));
  // Below and above the present keys of that rhash: none found.
  for (uint32_t id : {0u, 5u}) {
    EXPECT_EQ(this->map_.lookup(HashedKey{hash, id}), nullptr) << id;
  }
  this->drop(3);
  model.erase(HashedKey{hash, 3});
  EXPECT_EQ(this->map_.lookup(HashedKey{hash, 3}), nullptr);
  this->check(model);
}

TYPED_TEST(ShadowHashMapTest, ThirdInsertGrowsToFourBucketsAndFifthToEight) {
  this->fill(2);
  EXPECT_EQ(this->map_.numBuckets(), 2u);
  this->put(2, HashedKey{0xabcdef01, 2});
  EXPECT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_EQ(this->map_.bucketFactor(), 2u);
  EXPECT_EQ(this->counters_.bucketGrows, 1u);
  this->put(3, HashedKey{0x01234567, 3});
  EXPECT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_EQ(this->counters_.bucketGrows, 1u);
  this->put(4, HashedKey{0x76543210, 4});
  EXPECT_EQ(this->map_.numBuckets(), 8u);
  EXPECT_EQ(this->map_.bucketFactor(), 3u);
  EXPECT_EQ(this->counters_.bucketGrows, 2u);
  EXPECT_EQ(this->counters_.occupied, 5u);
}

TYPED_TEST(ShadowHashMapTest, TwoBucketsNeverShrink) {
  this->fill(2);
  EXPECT_TRUE(this->drop(0));
  EXPECT_EQ(this->map_.numBuckets(), 2u);
  EXPECT_TRUE(this->drop(1));
  EXPECT_EQ(this->map_.numBuckets(), 2u);
  EXPECT_EQ(this->map_.bucketFactor(), 1u);
  EXPECT_EQ(this->counters_.bucketShrinks, 0u);
  EXPECT_EQ(this->counters_.occupied, 0u);
  this->check(typename TestFixture::Model(splitOrderLess));
}

TYPED_TEST(ShadowHashMapTest, FourBucketsWithOneEntryLeftShrinkToTwo) {
  this->fill(3);
  ASSERT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_TRUE(this->drop(0));
  EXPECT_EQ(this->map_.numBuckets(), 4u) << "2 entries are above a quarter of 4 buckets";
  EXPECT_TRUE(this->drop(1));
  EXPECT_EQ(this->map_.numBuckets(), 2u);
  EXPECT_EQ(this->map_.bucketFactor(), 1u);
  EXPECT_EQ(this->counters_.bucketShrinks, 1u);
  typename TestFixture::Model model(splitOrderLess);
  model[HashedKey{2 * 2654435761u, 2}] = 2;
  this->check(model);
}

TYPED_TEST(ShadowHashMapTest, SplitWhoseChainLiesWhollyInTheUpperHalf) {
  TestSupport::TraceCapture traces;
  this->handler_.maskIs(levels({0, 8}));
  // Two keys of old bucket 0 that both go to new bucket 1, and one of bucket 1.
  this->put(0, keyAt(0x40000000));
  this->put(1, keyAt(0x50000000));
  this->put(2, keyAt(0xC0000000));
  ASSERT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_EQ(this->cells()[0], nullptr);
  EXPECT_EQ(this->cells()[1], this->slot(0));
  EXPECT_EQ(this->slot(0)->prev, &this->cells()[1]);
  EXPECT_EQ(this->slot(0)->next, this->slot(1));
  EXPECT_EQ(this->slot(1)->prev, &this->slot(0)->next);
  EXPECT_EQ(this->slot(1)->next, nullptr);
  EXPECT_EQ(this->cells()[2], nullptr);
  EXPECT_EQ(this->cells()[3], this->slot(2));
  EXPECT_EQ(this->slot(2)->prev, &this->cells()[3]);
  EXPECT_TRUE(traces.contains("L8 ShadowHashMap::grow() splitting bucket 0 to buckets 0 and 1"));
  EXPECT_TRUE(traces.contains("L8 ShadowHashMap::grow() splitting bucket 1 to buckets 2 and 3"));
}

TYPED_TEST(ShadowHashMapTest, SplitCutsAChainBetweenLowerAndUpperPart) {
  this->put(0, keyAt(0x10000000));
  this->put(1, keyAt(0x20000000));
  this->put(2, keyAt(0x60000000));
  ASSERT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_EQ(this->cells()[0], this->slot(0));
  EXPECT_EQ(this->slot(1)->next, nullptr) << "the lower chain ends at its last lower slot";
  EXPECT_EQ(this->cells()[1], this->slot(2));
  EXPECT_EQ(this->slot(2)->prev, &this->cells()[1]);
}

TYPED_TEST(ShadowHashMapTest, NextWithNullOrStaleHintSearchesByKeyAndCountsOneMiss) {
  this->put(0, keyAt(0x10000000));
  this->put(1, keyAt(0x10000000, 1));
  this->put(2, keyAt(0x90000000));
  const HashedKey key = keyAt(0x10000000);
  EXPECT_EQ(this->map_.next(key, this->slot(0)), this->slot(1));
  EXPECT_EQ(this->counters_.iterHintMisses, 0u);
  EXPECT_EQ(this->map_.next(key, nullptr), this->slot(1));
  EXPECT_EQ(this->counters_.iterHintMisses, 1u);
  // The hint's slot now holds another key: the search by key answers.
  this->drop(0);
  this->put(0, keyAt(0xF0000000));
  EXPECT_EQ(this->map_.next(key, this->slot(0)), this->slot(1));
  EXPECT_EQ(this->counters_.iterHintMisses, 2u);
  // A dead hint, and a key that is gone: the first slot above it.
  this->drop(1);
  EXPECT_EQ(this->map_.next(keyAt(0x10000000, 1), this->slot(1)), this->slot(2));
  EXPECT_EQ(this->counters_.iterHintMisses, 3u);
}

TYPED_TEST(ShadowHashMapTest, NextCrossesToTheFirstNonEmptyBucketAfterTheHint) {
  this->put(0, keyAt(0x00000001));
  this->put(1, keyAt(0x30000000));
  this->put(2, keyAt(0xF0000000));
  ASSERT_EQ(this->map_.numBuckets(), 4u);
  EXPECT_EQ(this->map_.next(keyAt(0x30000000), this->slot(1)), this->slot(2));
  EXPECT_EQ(this->map_.next(keyAt(0x30000000), nullptr), this->slot(2));
  // A key that isn't present, above everything in its bucket.
  EXPECT_EQ(this->map_.next(keyAt(0x3FFFFFFF), nullptr), this->slot(2));
}

TYPED_TEST(ShadowHashMapTest, NextOfTheLastKeyOfTheLastBucketIsNull) {
  this->fill(20);
  const HashedKey last = keyAt(0xFFFFFFFF, 7);
  this->put(100, last);
  EXPECT_EQ(this->cells()[this->map_.numBuckets() - 1] != nullptr, true);
  EXPECT_EQ(this->map_.next(last, this->slot(100)), nullptr);
  EXPECT_EQ(this->map_.next(last, nullptr), nullptr);
  EXPECT_EQ(this->map_.next(keyAt(0xFFFFFFFF, 8), nullptr), nullptr);
}

TYPED_TEST(ShadowHashMapTest, WriteOfASlotInPlaceReturnsChangedAndCountsNothingElse) {
  EXPECT_TRUE(this->put(5, HashedKey{77, 1}));
  EXPECT_EQ(this->counters_.occupied, 1u);
  EXPECT_FALSE(this->put(5, HashedKey{77, 1}, 9, false));
  EXPECT_TRUE(this->put(5, HashedKey{77, 1}, 9, true));
  EXPECT_EQ(this->counters_.occupied, 1u);
  EXPECT_EQ(this->counters_.shadowWrites, 3u);
  EXPECT_EQ(this->counters_.shadowRekeys, 0u);
  EXPECT_EQ(this->slotCounters_.bins[0], 1u);
}

TYPED_TEST(ShadowHashMapTest, KeyThatMovedSlotsTakesTheOldSlotsPlace) {
  // Slot 3 in bin 0, slot 200 in bin 2 (shift 6: 200 >> 6 is 3).
  const HashedKey key{0x5555, 1};
  this->put(1, HashedKey{0x5555, 0});
  this->put(3, key, 10);
  this->put(2, HashedKey{0x5555, 2});
  ASSERT_EQ(this->slot(3)->next, this->slot(2));
  // Same value in the new slot: only a key-only slot tells a change.
  EXPECT_EQ(this->put(200, key, 10), !TestFixture::holdsValue);
  EXPECT_EQ(this->counters_.shadowRekeys, 1u);
  EXPECT_EQ(this->counters_.occupied, 3u);
  EXPECT_TRUE(this->slot(3)->dead());
  EXPECT_TRUE(holdsDefault(*this->slot(3), this->ops_));
  EXPECT_EQ(this->slot(1)->next, this->slot(200));
  EXPECT_EQ(this->slot(200)->prev, &this->slot(1)->next);
  EXPECT_EQ(this->slot(2)->prev, &this->slot(200)->next);
  EXPECT_EQ(this->slotCounters_.bins[0], 2u);
  EXPECT_EQ(this->slotCounters_.bins[2], 1u);
  EXPECT_EQ(this->slotCounters_.occupiedBins, 0b101u);
  // And back, with another value: a change for both kinds.
  EXPECT_TRUE(this->put(3, key, 11));
  EXPECT_EQ(this->slotCounters_.bins[2], 0u);
  EXPECT_EQ(this->slotCounters_.occupiedBins, 0b1u);
  typename TestFixture::Model model(splitOrderLess);
  model[HashedKey{0x5555, 0}] = 1;
  model[key] = 3;
  model[HashedKey{0x5555, 2}] = 2;
  this->check(model);
}

TYPED_TEST(ShadowHashMapTest, RemoveOfADeadSlotChangesNothing) {
  TestSupport::TraceCapture traces;
  this->handler_.maskIs(levels({0, 9}));
  this->fill(1);
  const Cairn::Reader::Counters before = this->counters_;
  EXPECT_FALSE(this->drop(7));
  EXPECT_EQ(std::memcmp(&before, &this->counters_, sizeof(before)), 0);
  EXPECT_TRUE(traces.contains("L9 ShadowHashMap::remove() dead slot 7"));
}

TYPED_TEST(ShadowHashMapTest, PatchPointsEveryLinkIntoTheMovedArray) {
  TestSupport::TraceCapture traces;
  this->handler_.maskIs(levels({0, 5, 9}));
  typename TestFixture::Model model(splitOrderLess);
  for (uint32_t i = 0; i < 40; ++i) {
    const HashedKey key{i % 4 == 0 ? 0x777u : i * 0x9E3779B9u, i};
    this->put(i * 3, key);
    model[key] = i * 3;
  }
  std::vector<bool> empty;
  for (uint32_t bucket = 0; bucket < this->map_.numBuckets(); ++bucket) {
    empty.push_back(this->cells()[bucket] == nullptr);
  }
  ASSERT_NE(std::count(empty.begin(), empty.end(), true), 0) << "the test wants some empty buckets";
  const auto * oldBase = reinterpret_cast<const char *>(this->slots_.begin());
  this->slots_.moveTo(this->slots_.size(), this->map_);
  EXPECT_EQ(this->counters_.shadowPatches, 1u);
  for (uint32_t bucket = 0; bucket < this->map_.numBuckets(); ++bucket) {
    auto * head = this->cells()[bucket];
    EXPECT_EQ(head == nullptr, empty[bucket]) << bucket;
    for (auto * at = head; at != nullptr; at = at->next) {
      EXPECT_TRUE(this->slots_.holds(at));
      EXPECT_TRUE(at == head ? at->prev == &this->cells()[bucket] : this->slots_.holds(at->prev));
    }
  }
  this->check(model);
  const long offset = reinterpret_cast<const char *>(this->slots_.begin()) - oldBase;
  EXPECT_TRUE(traces.contains(fmt::format("L5 ShadowHashMap::patch() address offset is {}", offset)));
  EXPECT_TRUE(traces.contains("L9 ShadowHashMap::patch() Patching slots in bucket "));
}

TYPED_TEST(ShadowHashMapTest, GrowWhoseBucketMemoryMovesKeepsEveryChain) {
  TestSupport::TraceCapture traces;
  this->handler_.maskIs(levels({0, 2}));
  // One page holds 512 cells. Occupy the page after it, so that the doubling
  // to 1024 cells can't stay in place; a page taken already blocks as well.
  const auto * base = reinterpret_cast<const char *>(this->cells());
  void * next = const_cast<char *>(base) + Arena::pageSize_;
  void * blocker =
      mmap(next, Arena::pageSize_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  typename TestFixture::Model model(splitOrderLess);
  for (uint32_t i = 0; i < 513; ++i) {
    const HashedKey key{i * 2654435761u, i};
    this->put(i, key);
    model[key] = i;
  }
  if (blocker == next) {
    munmap(blocker, Arena::pageSize_);
  }
  ASSERT_EQ(this->map_.numBuckets(), 1024u);
  const auto * moved = reinterpret_cast<const char *>(this->cells());
  ASSERT_NE(moved, base);
  EXPECT_TRUE(traces.contains(fmt::format("L2 ShadowHashMap::grow() base address moved from 0x{:x} to 0x{:x}",
                                          reinterpret_cast<std::uintptr_t>(base),
                                          reinterpret_cast<std::uintptr_t>(moved))));
  this->check(model);
}

TYPED_TEST(ShadowHashMapTest, TracesNameEachStep) {
  TestSupport::TraceCapture traces;
  this->handler_.maskIs(levels({0, 2, 5, 8}));
  ASSERT_TRUE(this->map_.initialize());
  this->put(4, keyAt(0x80000000, 1));
  this->put(5, keyAt(0x10000000, 2));
  this->put(6, keyAt(0x20000000, 3));
  this->put(7, keyAt(0x30000000, 4));
  this->put(7, keyAt(0x30000000, 4));
  this->put(8, keyAt(0x00000000, 5));
  this->put(9, keyAt(0x30000000, 4));
  this->drop(9);
  this->drop(5);
  this->drop(6);
  const std::vector<std::string> expected = {
      "L5 size:2 elements",
      "L8 ShadowHashMap::write() slotIndex:4 key:HashedKey(hash:0x1 id:1)",
      "L8 ShadowHashMap::write() value inserted in fresh bucket",
      "L8 ShadowHashMap::write() slotIndex:5 key:HashedKey(hash:0x8 id:2)",
      "L8 ShadowHashMap::write() value inserted in fresh bucket",
      "L8 ShadowHashMap::write() slotIndex:6 key:HashedKey(hash:0x4 id:3)",
      "L8 ShadowHashMap::write() add slot to end of chain",
      "L2 ShadowHashMap::grow() buckets growing from:2 to:4",
      "L8 ShadowHashMap::write() slotIndex:7 key:HashedKey(hash:0xc id:4)",
      "L8 ShadowHashMap::write() add slot to end of chain",
      "L8 ShadowHashMap::write() slotIndex:7 key:HashedKey(hash:0xc id:4)",
      "L8 ShadowHashMap::write() no index update needed",
      "L8 ShadowHashMap::write() slotIndex:8 key:HashedKey(hash:0x0 id:5)",
      "L8 ShadowHashMap::write() value inserted",
      "L2 ShadowHashMap::grow() buckets growing from:4 to:8",
      "L8 ShadowHashMap::write() slotIndex:9 key:HashedKey(hash:0xc id:4)",
      "L8 ShadowHashMap::write() value updated",
      "L8 ShadowHashMap::remove() slot:9 prev->next:9 next:0 occupied:5 key:HashedKey(hash:0xc id:4)",
      "L8 ShadowHashMap::remove() slot:5 prev->next:5 next:0 occupied:4 key:HashedKey(hash:0x8 id:2)",
      "L8 ShadowHashMap::remove() slot:6 prev->next:6 next:0 occupied:3 key:HashedKey(hash:0x4 id:3)",
      "L2 ShadowHashMap::shrink() shrunk to numBuckets_:4 bucketFactor_:2",
  };
  std::vector<std::string> lines;
  for (const auto & line : traces.lines()) {
    if (line.find("grow() splitting") == std::string::npos) {
      lines.push_back(line);
    }
  }
  EXPECT_EQ(lines, expected);
}

// Random writes, removes, rewrites in place, moves of keys to other slots and
// moves of the slot array, in phases that fill the map to over a thousand
// entries and empty it again, so that the buckets double and halve many
// times. Some keys share their hash. The map is checked whole against the
// model after every phase and at random points within.
TYPED_TEST(ShadowHashMapTest, RandomOperationsAgreeWithAModel) {
  std::mt19937 random(20240611);
  typename TestFixture::Model model(splitOrderLess);
  std::vector<HashedKey> keyOfSlot(this->slots_.size());
  std::vector<uint32_t> freeSlots;
  for (uint32_t index = 0; index < this->slots_.size(); ++index) {
    freeSlots.push_back(index);
  }
  std::shuffle(freeSlots.begin(), freeSlots.end(), random);
  auto takeFree = [&]() {
    const std::size_t pick = random() % freeSlots.size();
    std::swap(freeSlots[pick], freeSlots.back());
    const uint32_t index = freeSlots.back();
    freeSlots.pop_back();
    return index;
  };
  auto randomLive = [&]() { return std::next(model.begin(), static_cast<long>(random() % model.size())); };
  uint32_t nextId = 0;
  uint32_t rekeys = 0;
  const std::vector<std::size_t> targets = {1200, 3, 1500, 0, 700, 40, 2000, 1};
  for (std::size_t target : targets) {
    while (model.size() != target) {
      const bool growing = model.size() < target;
      const unsigned choice = random() % 10;
      if (choice < 5 && growing) {
        // A new key; one in eight shares a hash with others.
        const uint32_t hash = random() % 8 == 0 ? 0xC0FFEEu + random() % 4 : static_cast<uint32_t>(random());
        const HashedKey key{hash, nextId++};
        const uint32_t index = takeFree();
        ASSERT_TRUE(this->put(index, key, random()));
        model[key] = index;
        keyOfSlot[index] = key;
      } else if (choice < 5 && !model.empty()) {
        auto entry = randomLive();
        ASSERT_TRUE(this->drop(entry->second));
        freeSlots.push_back(entry->second);
        model.erase(entry);
      } else if (choice < 7 && !model.empty()) {
        auto entry = randomLive();
        ASSERT_FALSE(this->put(entry->second, entry->first, random(), false));
      } else if (choice < 9 && !model.empty()) {
        // The shared table moved the entry: same key, another slot.
        auto entry = randomLive();
        const uint32_t index = takeFree();
        const uint64_t payload = random();
        const bool expected = !TestFixture::holdsValue || payload != payloadOf(*this->slot(entry->second));
        ASSERT_EQ(this->put(index, entry->first, payload), expected);
        ASSERT_TRUE(this->slot(entry->second)->dead());
        freeSlots.push_back(entry->second);
        entry->second = index;
        ++rekeys;
      } else {
        this->slots_.moveTo(this->slots_.size(), this->map_);
      }
      if (random() % 200 == 0) {
        ASSERT_NO_FATAL_FAILURE(this->check(model));
      }
    }
    ASSERT_NO_FATAL_FAILURE(this->check(model));
  }
  EXPECT_EQ(this->counters_.shadowRekeys, rekeys);
  EXPECT_GE(this->counters_.bucketGrows, 20u);
  EXPECT_GE(this->counters_.bucketShrinks, 20u);
  EXPECT_GT(this->counters_.shadowPatches, 100u);
}

// A doubling whose resize fails: the entry is in, counted, and the map has no
// bucket array any more. The child process limits its address space so that
// the bucket mapping can't grow.
void growBeyondTheAddressSpaceLimit() {
  Basalt::Platform::DebugHandler handler("shadow-map-test");
  handler.maskIs(0);
  Ops ops;
  Cairn::Reader::Counters counters;
  Cairn::SlotCounters slotCounters(handler, 64);
  Cairn::ShadowHashMap<HashedKey, HashedValue, KeySlot, Ops> map(handler, &counters, &slotCounters, &ops);
  std::vector<KeySlot> slots(65537);
  if (!map.initialize()) {
    _exit(2);
  }
  for (uint32_t i = 0; i < 65536; ++i) {
    slots[i].key = HashedKey{i * 2654435761u, i};
    map.write(i, slots[i], false);
  }
  std::ifstream status("/proc/self/status");
  std::string line;
  rlim_t limit = 0;
  while (std::getline(status, line)) {
    if (line.rfind("VmSize:", 0) == 0) {
      limit = std::stoull(line.substr(7)) * 1024 + 256 * 1024;
    }
  }
  const rlimit cap{limit, limit};
  if (limit == 0 || setrlimit(RLIMIT_AS, &cap) != 0) {
    _exit(3);
  }
  slots[65536].key = HashedKey{0x5EED, 65536};
  try {
    map.write(65536, slots[65536], false);
  } catch (const Basalt::MemoryResourceException & exception) {
    std::fprintf(stderr, "%s\n", exception.what());
    const bool sound = map.buckets() == nullptr && map.numBuckets() == 65536 && counters.occupied == 65537;
    std::fflush(stderr);
    _exit(sound ? 0 : 4);
  }
  _exit(5);
}

TEST(ShadowHashMapDeathTest, GrowWhoseResizeFailsThrowsNamingTheMapping) {
  EXPECT_EXIT(growBeyondTheAddressSpaceLimit(), ::testing::ExitedWithCode(0),
              "ShadowHashMap::grow\\(\\) failed to resize anonymous from 65536 to 131072 buckets : "
              "mremap from 524288 to 1048576 bytes failed: Cannot allocate memory");
}

}  // namespace

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/MapTestTypes.h"
#include "Support/TextTesting.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using ArenaFiles::EpochId;
using Cairn::EndOfTable;
using Cairn::IterHint;
using Cairn::SlotLink;
using RigTesting::messageOf;

namespace {

const EpochId epochA = EpochId::of(0, 4321);

// Keys with hashes 0, 8 and 16 share bucket 0 of up to 8 buckets; their
// reversed hashes order them 0, then 16, then 8.
const HashedValue lowKey = valueOf(0x00, 9, 1);
const HashedValue highKey = valueOf(0x08, 1, 2);
const uint32_t middleHash = 0x10;

// The keys of the table met by first and next, in order.
std::vector<HashedKey> walkKeys(const MapFixture & f) {
  std::vector<HashedKey> keys;
  HashedValue value;
  IterHint hint;
  for (bool more = f.map.first(0, value, hint); more; more = f.map.next(value.key, value, hint)) {
    keys.push_back(value.key);
  }
  return keys;
}

std::vector<HashedKey> keysOfChain(const MapFixture & f, uint32_t bucket) {
  std::vector<HashedKey> keys;
  for (uint32_t index : f.chain(bucket).first) {
    keys.push_back(f.slot(index)->value.key);
  }
  return keys;
}

std::vector<HashedValue> randomValues(std::size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<HashedValue> values;
  for (uint32_t id = 0; id < count; ++id) {
    values.push_back(valueOf(static_cast<uint32_t>(random()), id, id * 10));
  }
  return values;
}

}  // namespace

class WriterHashMapTest : public ::testing::Test {
 protected:
  void SetUp() override { f.attach(epochA); }
  // The traces a test turned on stay out of the fixture's teardown.
  void TearDown() override { f.handler.maskIs(Basalt::Platform::DebugHandler::defaultMask()); }

  ScopedShmRoot root;
  MapFixture f{false};
};

TEST_F(WriterHashMapTest, InsertedKeysAreFoundAndLookupAnchorsOnTheirSlot) {
  const HashedValue a = valueOf(0x0, 1, 11);
  const HashedValue b = valueOf(0x2, 2, 22);
  EXPECT_TRUE(f.insert(a));
  EXPECT_TRUE(f.insert(b));
  EXPECT_FALSE(f.insert(valueOf(0x2, 2, 99)));
  EXPECT_EQ(f.occupied(), 2u);
  EXPECT_EQ(f.chain(0).first, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(f.chain(0).second, SlotLink::nextBucketLink(1));
  EXPECT_EQ(f.chain(1).first, std::vector<uint32_t>{});
  EXPECT_EQ(f.chain(1).second, EndOfTable);
  // A new slot's flags went 0, 2 (being written), then 5: OCCUPIED, version 1.
  EXPECT_EQ(f.slot(1)->flags, 5u);
  EXPECT_EQ(f.slot(1)->rhash, Basalt::Util::reverse(0x2));

  bool found = false;
  const HashedValue * value = f.map.lookup(b.key, found);
  ASSERT_TRUE(found);
  EXPECT_EQ(value, &f.slot(1)->value);
  EXPECT_EQ(*value, b);
  const Arena::VersionAnchor & anchor = f.slots.versionAnchor();
  EXPECT_EQ(anchor.version, 5u);
  EXPECT_EQ(anchor.offset, MapFixture::Table::SlotHeaderSize + MapFixture::Table::slotSize + 8);
  EXPECT_EQ(anchor.base, reinterpret_cast<uint64_t>(f.slots.header()));

  EXPECT_EQ(f.map.lookup(HashedKey{0x4, 2}, found), nullptr);
  EXPECT_FALSE(found);
  EXPECT_EQ(f.map.lookup(HashedKey{0x2, 3}, found), nullptr);
  EXPECT_FALSE(found);
}

TEST_F(WriterHashMapTest, FindOnAnEmptyChainStopsAtTheBucketEntry) {
  SlotLink * prev = nullptr;
  SlotLink * curr = nullptr;
  EXPECT_FALSE(f.map.find(lowKey.key, 0, &prev, &curr, lowKey.key.hashValue));
  EXPECT_EQ(prev, f.bucket(0));
  EXPECT_EQ(curr, f.bucket(0));
}

TEST_F(WriterHashMapTest, FindOnAChainOfOneSlotWithAGreaterPair) {
  ASSERT_TRUE(f.insert(highKey));
  SlotLink * prev = nullptr;
  SlotLink * curr = nullptr;
  EXPECT_FALSE(f.map.find(lowKey.key, 0, &prev, &curr, lowKey.key.hashValue));
  EXPECT_EQ(prev, f.bucket(0));
  EXPECT_EQ(curr, &f.slot(0)->link);

  // Above every pair of the chain: both end at its last slot.
  const HashedKey above{0x08, 2};
  EXPECT_FALSE(f.map.find(above, 0, &prev, &curr, above.hashValue));
  EXPECT_EQ(prev, &f.slot(0)->link);
  EXPECT_EQ(curr, &f.slot(0)->link);

  EXPECT_TRUE(f.map.find(highKey.key, 0, &prev, &curr, highKey.key.hashValue));
  EXPECT_EQ(prev, f.bucket(0));
  EXPECT_EQ(curr, &f.slot(0)->link);
}

TEST_F(WriterHashMapTest, KeysOfEqualHashStandInKeyOrder) {
  ASSERT_TRUE(f.insert(highKey));
  ASSERT_TRUE(f.insert(valueOf(middleHash, 5)));
  ASSERT_TRUE(f.insert(valueOf(middleHash, 3)));
  ASSERT_TRUE(f.insert(lowKey));
  ASSERT_TRUE(f.insert(valueOf(middleHash, 4)));
  ASSERT_EQ(f.numBuckets(), 8u);
  const std::vector<HashedKey> ordered{
      lowKey.key, {middleHash, 3}, {middleHash, 4}, {middleHash, 5}, highKey.key};
  EXPECT_EQ(keysOfChain(f, 0), ordered);
  EXPECT_EQ(walkKeys(f), ordered);
  for (const HashedKey & key : ordered) {
    bool found = false;
    f.map.lookup(key, found);
    EXPECT_TRUE(found) << valueToStrep(key);
  }

  ASSERT_TRUE(f.remove(HashedKey{middleHash, 4}));
  EXPECT_EQ(keysOfChain(f, 0),
            (std::vector<HashedKey>{lowKey.key, {middleHash, 3}, {middleHash, 5}, highKey.key}));
  ASSERT_TRUE(f.insert(valueOf(middleHash, 4)));
  EXPECT_EQ(keysOfChain(f, 0), ordered);
}

TEST_F(WriterHashMapTest, FirstOnAnEmptyTableWalksEveryBucketInTableOrder) {
  const auto values = randomValues(5, 1);
  for (const auto & value : values) {
    ASSERT_TRUE(f.insert(value));
  }
  for (const auto & value : values) {
    ASSERT_TRUE(f.remove(value.key));
  }
  ASSERT_EQ(f.numBuckets(), 8u);

  TestSupport::TraceCapture traces;
  f.handler.levelIs(8, true);
  HashedValue value;
  IterHint hint;
  EXPECT_FALSE(f.map.first(0, value, hint));
  EXPECT_TRUE(traces.contains("L8 WriterHashMap::first() none found!"));
  for (uint32_t bucket = 0; bucket < 8; ++bucket) {
    EXPECT_FALSE(f.map.first(bucket, value, hint)) << bucket;
  }
  // An end of the table put into each bucket in turn is met exactly there:
  // the walk from bucket 0 went through the buckets before it in table order.
  for (uint32_t bucket : {0u, 4u, 2u, 6u, 1u, 5u, 3u}) {
    const uint32_t terminator = f.bucket(bucket)->value();
    f.bucket(bucket)->storeNext(EndOfTable);
    EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { f.map.first(0, value, hint); }),
              fmt::format("WriterHashMap::first() thinks we've reached the end of the table, but we're "
                          "in bucket {} when there are numBuckets: 8",
                          bucket));
    f.bucket(bucket)->storeNext(terminator);
  }
  EXPECT_FALSE(f.map.first(0, value, hint));
}

TEST_F(WriterHashMapTest, WalkYieldsEveryEntryInSplitOrderThroughItsHints) {
  auto values = randomValues(200, 2);
  for (const auto & value : values) {
    ASSERT_TRUE(f.insert(value));
  }
  std::vector<HashedKey> expected;
  for (const auto & value : values) {
    expected.push_back(value.key);
  }
  std::sort(expected.begin(), expected.end(), splitOrderLess);

  HashedValue value;
  IterHint hint;
  std::size_t position = 0;
  for (bool more = f.map.first(0, value, hint); more; more = f.map.next(value.key, value, hint)) {
    ASSERT_LT(position, expected.size());
    ASSERT_EQ(value.key, expected[position]);
    EXPECT_EQ(value.payload, value.key.id * 10u);
    const uint32_t index = *f.indexOf(value.key);
    EXPECT_EQ(hint.slot, index);
    EXPECT_EQ(hint.flags, f.slot(index)->flags);
    EXPECT_EQ(hint.bucket, value.key.hashValue & (f.numBuckets() - 1));
    ++position;
  }
  EXPECT_EQ(position, expected.size());
  EXPECT_EQ(f.counters.nextSlowPaths, 0u);
}

TEST_F(WriterHashMapTest, NextAboveEveryEntryEndsTheWalk) {
  for (const auto & value : randomValues(20, 3)) {
    ASSERT_TRUE(f.insert(value));
  }
  ASSERT_TRUE(f.insert(valueOf(0xFFFFFFFF, 100)));
  HashedValue value;
  IterHint hint;
  EXPECT_FALSE(f.map.next(HashedKey{0xFFFFFFFF, 101}, value, hint));
  EXPECT_EQ(f.counters.nextSlowPaths, 1u);

  // The last entry of a walk, through its hint.
  const std::vector<HashedKey> keys = walkKeys(f);
  ASSERT_EQ(keys.back(), (HashedKey{0xFFFFFFFF, 100}));
  const std::size_t slowPaths = f.counters.nextSlowPaths;
  EXPECT_TRUE(f.map.next(keys[keys.size() - 2], value, hint));
  EXPECT_FALSE(f.map.next(value.key, value, hint));
  EXPECT_EQ(f.counters.nextSlowPaths, slowPaths + 1) << "only the first next, without a hint";
}

TEST_F(WriterHashMapTest, NextOfARemovedKeyGivesItsSuccessor) {
  for (const auto & value : randomValues(30, 4)) {
    ASSERT_TRUE(f.insert(value));
  }
  const std::vector<HashedKey> keys = walkKeys(f);
  HashedValue value;
  IterHint hint;
  ASSERT_TRUE(f.map.first(0, value, hint));
  ASSERT_TRUE(f.map.next(value.key, value, hint));
  ASSERT_EQ(value.key, keys[1]);
  ASSERT_TRUE(f.remove(keys[1]));
  const std::size_t slowPaths = f.counters.nextSlowPaths;
  ASSERT_TRUE(f.map.next(keys[1], value, hint));
  EXPECT_EQ(value.key, keys[2]);
  EXPECT_EQ(f.counters.nextSlowPaths, slowPaths + 1);
  IterHint none;
  ASSERT_TRUE(f.map.next(keys[1], value, none));
  EXPECT_EQ(value.key, keys[2]);
}

TEST_F(WriterHashMapTest, NextWithAHintWhoseSlotWasRewrittenTakesTheSlowPath) {
  for (const auto & value : randomValues(50, 5)) {
    ASSERT_TRUE(f.insert(value));
  }
  const std::vector<HashedKey> keys = walkKeys(f);
  HashedValue value;
  IterHint hint;
  ASSERT_TRUE(f.map.first(0, value, hint));
  for (int step = 0; step < 10; ++step) {
    ASSERT_TRUE(f.map.next(value.key, value, hint));
  }
  const HashedKey at = value.key;
  const IterHint saved = hint;
  HashedValue fast;
  IterHint fastHint = saved;
  ASSERT_TRUE(f.map.next(at, fast, fastHint));
  ASSERT_EQ(f.counters.nextSlowPaths, 0u);

  ASSERT_TRUE(f.rewrite(HashedValue(at, 12345)));
  EXPECT_NE(f.slot(saved.slot)->flags, saved.flags);
  EXPECT_EQ(f.slot(saved.slot)->flags, saved.flags + 4);
  HashedValue slow;
  IterHint slowHint = saved;
  ASSERT_TRUE(f.map.next(at, slow, slowHint));
  EXPECT_EQ(slow, fast);
  EXPECT_EQ(slowHint.slot, fastHint.slot);
  EXPECT_EQ(slowHint.flags, fastHint.flags);
  EXPECT_EQ(f.counters.nextSlowPaths, 1u);
  bool found = false;
  EXPECT_EQ(f.map.lookup(at, found)->payload, 12345u);
}

TEST_F(WriterHashMapTest, AValidatorIsToldOfEverySlotTheWalkHandsOut) {
  for (const auto & value : randomValues(40, 6)) {
    ASSERT_TRUE(f.insert(value));
  }
  MarkList marks;
  f.map.validatorIs(&marks);
  EXPECT_EQ(walkKeys(f).size(), 40u);
  std::sort(marks.marks.begin(), marks.marks.end());
  std::vector<uint32_t> all(40);
  for (uint32_t index = 0; index < 40; ++index) {
    all[index] = index;
  }
  EXPECT_EQ(marks.marks, all);
  f.map.validatorIs(nullptr);
  walkKeys(f);
  EXPECT_EQ(marks.marks.size(), 40u);
}

TEST_F(WriterHashMapTest, BucketsDoubleAboveOneEntryPerBucket) {
  EXPECT_EQ(f.map.growBucketsThreshold(), 2u);
  EXPECT_EQ(f.map.shrinkBucketsThreshold(), 0u);
  const auto values = randomValues(3, 7);
  ASSERT_TRUE(f.insert(values[0]));
  ASSERT_TRUE(f.insert(values[1]));
  EXPECT_EQ(f.numBuckets(), 2u);
  TestSupport::TraceCapture traces;
  f.handler.levelIs(2, true);
  ASSERT_TRUE(f.insert(values[2]));
  EXPECT_EQ(f.numBuckets(), 4u);
  EXPECT_EQ(f.map.buckets().header()->numBuckets.load(), (Arena::VerU32{1, 4}));
  EXPECT_TRUE(traces.contains("L2 WriterHashMap::growBuckets() growing from: 2 to: 4"));
  EXPECT_EQ(f.map.growBucketsThreshold(), 4u);
  EXPECT_EQ(f.map.shrinkBucketsThreshold(), 1u);
  // Without shrinkBuckets_ the table keeps its size when it empties.
  for (const auto & value : values) {
    ASSERT_TRUE(f.remove(value.key));
  }
  EXPECT_EQ(f.numBuckets(), 4u);
}

TEST_F(WriterHashMapTest, BucketsHalveBelowAQuarterEntryPerBucketDownToTwo) {
  MapFixture shrinking(true, "test/shrinking");
  shrinking.attach(epochA);
  const auto values = randomValues(9, 8);
  for (const auto & value : values) {
    ASSERT_TRUE(shrinking.insert(value));
  }
  ASSERT_EQ(shrinking.numBuckets(), 16u);
  EXPECT_EQ(shrinking.map.shrinkBucketsThreshold(), 4u);
  TestSupport::TraceCapture traces;
  shrinking.handler.levelIs(2, true);
  // occupancy after each removal -> buckets: 8..4 keep 16; 3 < 4 halves.
  const std::vector<uint32_t> expected{16, 16, 16, 16, 16, 8, 8, 4, 2};
  for (std::size_t step = 0; step < values.size(); ++step) {
    ASSERT_TRUE(shrinking.remove(values[step].key));
    EXPECT_EQ(shrinking.numBuckets(), expected[step]) << "after removal " << step;
    EXPECT_EQ(shrinking.map.buckets().header()->numBuckets.load().value, expected[step]);
    EXPECT_EQ(shrinking.map.growBucketsThreshold(), expected[step]);
    for (std::size_t kept = step + 1; kept < values.size(); ++kept) {
      bool found = false;
      shrinking.map.lookup(values[kept].key, found);
      ASSERT_TRUE(found) << kept;
    }
  }
  EXPECT_TRUE(
      traces.contains("L2 WriterHashMap::shrinkBuckets() shrunk to numBuckets: 8 shrinkBuckets_:true"));
  EXPECT_TRUE(
      traces.contains("L2 WriterHashMap::shrinkBuckets() shrunk to numBuckets: 2 shrinkBuckets_:true"));
  EXPECT_EQ(shrinking.map.shrinkBucketsThreshold(), 0u);
  // 3 doublings and 3 halvings, each one publish of the count.
  EXPECT_EQ(shrinking.map.buckets().header()->numBuckets.load(), (Arena::VerU32{6, 2}));
  HashedValue value;
  IterHint hint;
  EXPECT_FALSE(shrinking.map.first(0, value, hint));
}

TEST_F(WriterHashMapTest, ReattachKeepsTheBucketCountAndItsThresholds) {
  for (const auto & value : randomValues(9, 9)) {
    ASSERT_TRUE(f.insert(value));
  }
  ASSERT_EQ(f.numBuckets(), 16u);
  EXPECT_EQ(f.map.attach(epochA), Cairn::AttachedExisting);
  EXPECT_EQ(f.numBuckets(), 16u);
  EXPECT_EQ(f.map.growBucketsThreshold(), 16u);
  EXPECT_EQ(f.map.shrinkBucketsThreshold(), 4u);
  EXPECT_EQ(walkKeys(f).size(), 9u);
}

TEST_F(WriterHashMapTest, WalksTraceEachStepAtLevels8And9) {
  const HashedValue a = valueOf(0x0, 1, 10);
  const HashedValue b = valueOf(0x2, 2, 20);
  ASSERT_TRUE(f.insert(a));
  ASSERT_TRUE(f.insert(b));
  const std::string keyA = "HashedKey(hash:0x0 id:1)";
  const std::string keyB = "HashedKey(hash:0x2 id:2)";
  const std::string valueA = "HashedValue(" + keyA + " payload:10)";
  const std::string valueB = "HashedValue(" + keyB + " payload:20)";
  const HashedKey above{0x6, 4};
  const HashedKey alone{0x1, 5};  // bucket 1, empty
  TestSupport::TraceCapture traces;
  f.handler.levelIs(8, true);
  f.handler.levelIs(9, true);
  auto linesOf = [&](auto action) {
    const std::size_t start = traces.lines().size();
    action();
    return std::vector<std::string>(traces.lines().begin() + static_cast<std::ptrdiff_t>(start),
                                    traces.lines().end());
  };
  SlotLink * prev;
  SlotLink * curr;
  HashedValue value;
  IterHint hint;
  bool found;
  using Lines = std::vector<std::string>;

  EXPECT_EQ(linesOf([&] { f.map.find(b.key, 0, &prev, &curr, b.key.hashValue); }),
            (Lines{"L9 WriterHashMap::find() " + keyB + " next curr:1",
                   "L9 WriterHashMap::find() " + keyB + " found curr:1 next:2147483649"}));
  EXPECT_EQ(linesOf([&] { f.map.find(above, 0, &prev, &curr, above.hashValue); }),
            (Lines{"L9 WriterHashMap::find() HashedKey(hash:0x6 id:4) next curr:1",
                   "L9 WriterHashMap::find() HashedKey(hash:0x6 id:4) next curr:2147483649",
                   "L9 WriterHashMap::find() HashedKey(hash:0x6 id:4) not found curr:1 next:2147483649"}));
  // A search that looked at no slot names none, wherever the bucket file lies.
  EXPECT_EQ(
      linesOf([&] { f.map.find(alone, 1, &prev, &curr, alone.hashValue); }),
      (Lines{"L9 WriterHashMap::find() HashedKey(hash:0x1 id:5) not found curr:4294967295 next:4294967295"}));
  EXPECT_EQ(linesOf([&] { f.map.lookup(b.key, found); }),
            (Lines{"L9 WriterHashMap::lookup() " + valueB + " found bucket:0 slot:1"}));
  EXPECT_EQ(linesOf([&] {
              f.map.lookup(HashedKey{0x4, 9}, found);
            }),
            (Lines{"L8 WriterHashMap::lookup() HashedKey(hash:0x4 id:9) not found bucket:0"}));
  EXPECT_EQ(linesOf([&] { f.map.first(0, value, hint); }),
            (Lines{"L9 WriterHashMap::first() " + valueA + " found at bucket 0"}));
  EXPECT_EQ(linesOf([&] { f.map.next(a.key, value, hint); }),
            (Lines{"L9 WriterHashMap::next() " + keyA + " success " + valueB +
                   " using IterHint(flags:5 slot:0 bucket:0), saving new slot hint 1"}));
  EXPECT_EQ(
      linesOf([&] { f.map.next(b.key, value, hint); }),
      (Lines{"L9 WriterHashMap::next() " + keyB + " next bucket 1 using IterHint(flags:5 slot:1 bucket:0)",
             "L8 WriterHashMap::first() none found!"}));
  EXPECT_EQ(linesOf([&] {
              IterHint none;
              f.map.next(a.key, value, none);
            }),
            (Lines{"L9 WriterHashMap::next() " + keyA + " comparing slot 0 " + keyA,
                   "L9 WriterHashMap::next() " + keyA + " comparing slot 1 " + keyB,
                   "L9 WriterHashMap::next() " + keyA + " next slot 1 success " + keyB,
                   "L9 WriterHashMap::next() " + keyA + " success " + valueB}));
  EXPECT_EQ(linesOf([&] {
              IterHint none;
              f.map.next(above, value, none);
            }),
            (Lines{"L9 WriterHashMap::next() HashedKey(hash:0x6 id:4) comparing slot 0 " + keyA,
                   "L9 WriterHashMap::next() HashedKey(hash:0x6 id:4) comparing slot 1 " + keyB,
                   "L9 WriterHashMap::next() HashedKey(hash:0x6 id:4) next bucket 1",
                   "L8 WriterHashMap::first() none found!"}));
  EXPECT_EQ(linesOf([&] {
              IterHint none;
              f.map.next(alone, value, none);
            }),
            (Lines{"L8 WriterHashMap::next() HashedKey(hash:0x1 id:5) failed"}));
  ASSERT_TRUE(f.remove(a.key));
  ASSERT_TRUE(f.remove(b.key));
  EXPECT_EQ(linesOf([&] {
              IterHint none;
              f.map.next(a.key, value, none);
            }),
            (Lines{"L8 WriterHashMap::next() " + keyA + " next bucket 1",
                   "L8 WriterHashMap::first() none found!"}));
}

TEST_F(WriterHashMapTest, FindNamesNoSlotForABucketEntryAfterTheSlotFileMoved) {
  // Odd hashes only: bucket 0 stays empty while the slot file grows and moves.
  const void * moved = f.slots.header();
  for (uint32_t id = 0; id < 300; ++id) {
    ASSERT_TRUE(f.insert(valueOf(id * 2 + 1, id)));
  }
  ASSERT_NE(static_cast<void *>(f.slots.header()), moved) << "the slot file's mapping moved";
  TestSupport::TraceCapture traces;
  f.handler.levelIs(9, true);
  SlotLink * prev;
  SlotLink * curr;
  EXPECT_FALSE(f.map.find(HashedKey{0, 1}, 0, &prev, &curr, 0));
  EXPECT_EQ(curr, f.bucket(0));
  EXPECT_EQ(traces.lines(),
            (std::vector<std::string>{fmt::format(
                "L9 WriterHashMap::find() HashedKey(hash:0x0 id:1) not found curr:4294967295 next:{}",
                f.bucket(0)->value())}));
}

// Damaged chains and bucket entries: every walk of the writer hash map
// reports them with its own message, and none of them loops.

#include <string>

#include <gtest/gtest.h>

#include "Cairn/MapTestTypes.h"
#include "Support/TextTesting.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using ArenaFiles::EpochId;
using Basalt::CorruptionDetectedException;
using Cairn::EndOfTable;
using Cairn::IterHint;
using Cairn::SlotLink;
using RigTesting::messageOf;

namespace {

const EpochId epochA = EpochId::of(0, 99);

// In a table of 2 buckets: a and b share bucket 0 (a first), c is alone in
// bucket 1; they take slots 0, 1 and 2. `above` would stand after b.
const HashedValue a = valueOf(0x0, 1, 10);
const HashedValue b = valueOf(0x2, 2, 20);
const HashedValue c = valueOf(0x1, 3, 30);
const HashedKey above{0x6, 4};

}  // namespace

class WriterHashMapCorruptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    f.attach(epochA);
    ASSERT_TRUE(f.insert(a));
    ASSERT_TRUE(f.insert(b));
  }
  // The traces a test turned on stay out of the fixture's teardown.
  void TearDown() override { f.handler.maskIs(Basalt::Platform::DebugHandler::defaultMask()); }

  // Inserts c without doubling the buckets, so that it stays in bucket 1.
  void addC() { ASSERT_TRUE(f.insert(c, false)); }

  std::string findFails(const HashedKey & key) {
    return messageOf<CorruptionDetectedException>([&] {
      SlotLink * prev;
      SlotLink * curr;
      f.map.find(key, f.map.bucketOf(key.hashValue), &prev, &curr, key.hashValue);
    });
  }
  std::string lookupFails(const HashedKey & key) {
    return messageOf<CorruptionDetectedException>([&] {
      bool found;
      f.map.lookup(key, found);
    });
  }
  std::string firstFails(uint32_t bucket) {
    return messageOf<CorruptionDetectedException>([&] {
      HashedValue value;
      IterHint hint;
      f.map.first(bucket, value, hint);
    });
  }
  std::string nextFails(const HashedKey & key, IterHint hint = IterHint{}) {
    return messageOf<CorruptionDetectedException>([&] {
      HashedValue value;
      f.map.next(key, value, hint);
    });
  }
  // The hint that first gives for the first entry, a.
  IterHint hintOnA() {
    HashedValue value;
    IterHint hint;
    EXPECT_TRUE(f.map.first(0, value, hint));
    EXPECT_EQ(value, a);
    return hint;
  }

  ScopedShmRoot root;
  MapFixture f{false};
};

TEST_F(WriterHashMapCorruptionTest, ALoopingChainIsACycleNotAHang) {
  ASSERT_EQ(f.slots.capacity(), 64u);
  f.slot(1)->link.storeNext(0);  // b leads back to a
  EXPECT_EQ(findFails(above), "WriterHashMap::find() hash chain cycle detected, slotCount:65 capacity:64");
  EXPECT_EQ(lookupFails(above),
            "WriterHashMap::lookup() hash chain cycle detected, slotCount:65 capacity:64");
  EXPECT_EQ(nextFails(above), "WriterHashMap::next() hash chain cycle detected, slotCount:65 capacity:64");
}

TEST_F(WriterHashMapCorruptionTest, ASlotOfAChainMustBeOccupied) {
  f.slot(1)->flags &= ~Cairn::OCCUPIED;
  EXPECT_EQ(findFails(b.key), "WriterHashMap::find() slot: 1 not marked as occupied");
  EXPECT_EQ(lookupFails(b.key), "WriterHashMap::lookup() slot: 1 not marked as occupied");
  EXPECT_EQ(nextFails(a.key), "WriterHashMap::next() slot: 1 not marked as occupied");

  // The fast path meets it first, and hands over to the slow path.
  TestSupport::TraceCapture traces;
  f.handler.levelIs(5, true);
  EXPECT_EQ(nextFails(a.key, hintOnA()), "WriterHashMap::next() slot: 1 not marked as occupied");
  EXPECT_TRUE(traces.contains(
      "L5 WriterHashMap::next() saw exception in fast path: WriterHashMap::next() slot: 1 not marked as "
      "occupied. This might be okay, dropping to slow path to find out"));

  f.slot(0)->flags &= ~Cairn::OCCUPIED;
  EXPECT_EQ(firstFails(0), "WriterHashMap::first() slot: 0 from bucket: 0 not marked as occupied");
}

TEST_F(WriterHashMapCorruptionTest, ASlotOnTheWrongBucketsChainIsACorruptKey) {
  addC();
  f.slot(0)->link.storeNext(2);  // a leads to c, of bucket 1
  EXPECT_EQ(findFails(above), "WriterHashMap::find() corrupt key detected, slot: 2");
  EXPECT_EQ(lookupFails(above), "WriterHashMap::lookup() corrupt key detected, slot: 2");
  EXPECT_EQ(nextFails(above), "WriterHashMap::next() corrupt key detected, slot: 2");
  TestSupport::TraceCapture traces;
  f.handler.levelIs(5, true);
  EXPECT_EQ(nextFails(a.key, hintOnA()), "WriterHashMap::next() corrupt key detected, slot: 2");
  EXPECT_TRUE(traces.contains(
      "L5 WriterHashMap::next() saw exception in fast path: WriterHashMap::next() corrupt key detected, "
      "slot: 2."));

  f.bucket(0)->storeNext(2);  // bucket 0 leads straight to c
  EXPECT_EQ(firstFails(0), "WriterHashMap::first() corrupt key detected, slot: 2");
}

TEST_F(WriterHashMapCorruptionTest, ALinkOutOfTheFileIsOutOfRange) {
  f.slot(0)->link.storeNext(1000);
  EXPECT_EQ(findFails(above), "SlotWriter::Slots::operator[] out-of-range index: 1000 max:63");
  EXPECT_EQ(lookupFails(above), "SlotWriter::Slots::operator[] out-of-range index: 1000 max:63");
  EXPECT_EQ(nextFails(above), "SlotWriter::Slots::operator[] out-of-range index: 1000 max:63");
}

TEST_F(WriterHashMapCorruptionTest, FirstCountsTheBucketsItStepsThrough) {
  f.bucket(0)->storeNext(SlotLink::nextBucketLink(1));  // bucket 0 empty
  f.bucket(1)->storeNext(SlotLink::nextBucketLink(0));  // the last bucket leads back
  EXPECT_EQ(firstFails(0), "WriterHashMap::first() has bucket cycle detected, bucketCount: 2 numBuckets: 2");
  EXPECT_EQ(firstFails(1), "WriterHashMap::first() has bucket cycle detected, bucketCount: 2 numBuckets: 2");
}

TEST_F(WriterHashMapCorruptionTest, AnEndOfTableBeforeTheLastBucket) {
  f.bucket(0)->storeNext(EndOfTable);
  EXPECT_EQ(firstFails(0),
            "WriterHashMap::first() thinks we've reached the end of the table, but we're in bucket 0 when "
            "there are numBuckets: 2");
  EXPECT_EQ(nextFails(above),
            "WriterHashMap::next() thinks we've reached the end of the table, but we're in bucket 0 when "
            "there are numBuckets: 2");
}

TEST_F(WriterHashMapCorruptionTest, AnEndOfTableAfterASlotBeforeTheLastBucket) {
  const IterHint hint = hintOnA();
  f.slot(1)->link.storeNext(EndOfTable);  // b ends the table from bucket 0
  HashedValue value;
  IterHint onB = hint;
  ASSERT_TRUE(f.map.next(a.key, value, onB));
  ASSERT_EQ(value, b);
  TestSupport::TraceCapture traces;
  f.handler.levelIs(5, true);
  // The fast path refuses the end; the slow path runs out of the chain.
  EXPECT_FALSE(f.map.next(b.key, value, onB));
  EXPECT_TRUE(traces.contains(
      "L5 WriterHashMap::next() saw exception in fast path: WriterHashMap::next() thinks we've reached "
      "the end of the table, but we're in bucket 0 when there are numBuckets: 2."));
}

TEST_F(WriterHashMapCorruptionTest, NextBucketOutOfTableOrder) {
  EXPECT_EQ(messageOf<CorruptionDetectedException>([&] { f.map.verifyNextBucket(0, 0); }),
            "WriterHashMap::verifyNextBucket() has bucket: 0 with next bucket: 0 and numBuckets: 2");
  EXPECT_NO_THROW(f.map.verifyNextBucket(0, 1));
  // The last bucket's successor is bucket 0 modulo the count.
  EXPECT_NO_THROW(f.map.verifyNextBucket(1, 0));

  f.slot(1)->link.storeNext(SlotLink::nextBucketLink(0));  // b leads to bucket 0 again
  const std::string message =
      "WriterHashMap::verifyNextBucket() has bucket: 0 with next bucket: 0 and numBuckets: 2";
  EXPECT_EQ(nextFails(above), message);
  TestSupport::TraceCapture traces;
  f.handler.levelIs(5, true);
  HashedValue value;
  IterHint onB = hintOnA();
  ASSERT_TRUE(f.map.next(a.key, value, onB));
  EXPECT_EQ(nextFails(b.key, onB), message);
  EXPECT_TRUE(traces.contains("L5 WriterHashMap::next() saw exception in fast path: " + message));

  f.bucket(0)->storeNext(SlotLink::nextBucketLink(0));
  EXPECT_EQ(firstFails(0), message);
}

TEST_F(WriterHashMapCorruptionTest, VerifyNextBucketFollowsTableOrder) {
  for (int more = 0; more < 7; ++more) {
    ASSERT_TRUE(f.insert(valueOf(0x100 + more, 10 + more)));
  }
  ASSERT_EQ(f.numBuckets(), 16u);
  for (uint32_t bucket = 0; bucket < 16; ++bucket) {
    const uint32_t successor = Cairn::bucketSuccessor(bucket, 4) % 16;
    EXPECT_NO_THROW(f.map.verifyNextBucket(bucket, successor)) << bucket;
    EXPECT_EQ(
        messageOf<CorruptionDetectedException>([&] { f.map.verifyNextBucket(bucket, (successor + 1) % 16); }),
        fmt::format("WriterHashMap::verifyNextBucket() has bucket: {} with next bucket: {} and "
                    "numBuckets: 16",
                    bucket, (successor + 1) % 16));
  }
}

TEST_F(WriterHashMapCorruptionTest, FirstChecksRhashOnlyForAValidator) {
  f.slot(0)->rhash ^= 1;
  HashedValue value;
  IterHint hint;
  EXPECT_TRUE(f.map.first(0, value, hint));
  MarkList marks;
  f.map.validatorIs(&marks);
  EXPECT_EQ(firstFails(0), "WriterHashMap::first() corrupt rhash detected, slot: 0 slot.rhash:1 rhash:0");
  EXPECT_TRUE(marks.marks.empty());
}

TEST_F(WriterHashMapCorruptionTest, NextChecksRhashOnTheSlowPathAlways) {
  // b's stored rhash, one above what its key gives, still orders it after a.
  f.slot(1)->rhash += 1;
  EXPECT_EQ(nextFails(a.key),
            "WriterHashMap::next() corrupt rhash detected, slot: 1 slot.rhash:40000001 rhash:40000000");
  // Without a validator the fast path takes the slot as it is.
  HashedValue value;
  IterHint hint = hintOnA();
  EXPECT_TRUE(f.map.next(a.key, value, hint));
  EXPECT_EQ(value, b);
  // With one, the fast path refuses it too.
  MarkList marks;
  f.map.validatorIs(&marks);
  TestSupport::TraceCapture traces;
  f.handler.levelIs(5, true);
  EXPECT_EQ(nextFails(a.key, hintOnA()),
            "WriterHashMap::next() corrupt rhash detected, slot: 1 slot.rhash:40000001 rhash:40000000");
  EXPECT_TRUE(traces.contains(
      "L5 WriterHashMap::next() saw exception in fast path: WriterHashMap::next() corrupt rhash detected, "
      "slot: 1 slot.rhash:40000001 rhash:40000000."));
}

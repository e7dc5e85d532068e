// Corruption as a reader meets it: with no writer running, words of the real
// files are damaged on disk (a link that loops or points out of range, a
// flags word without OCCUPIED, a key byte), and each reader operation must end
// with its own Basalt::CorruptionDetectedException text, never a crash or a
// hang. With no writer, the reader's remap finds nothing to do, so the
// exception leaves the reader.

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"
#include "Support/TextTesting.h"

using namespace CairnTest;
using RigTesting::messageOf;

namespace {

class CairnReaderCorruptionTest : public ::testing::Test {
 protected:
  // Eight buckets; bucket 0 holds 0 and then 8, each other bucket at most one key.
  CairnReaderCorruptionTest() {
    for (uint32_t hash : {0u, 8u, 1u, 2u, 3u}) {
      table.write(hash, hash, hash + 100);
    }
    first = table.indexOf(HashedKey{0, 0});
    second = table.indexOf(HashedKey{8, 8});
    ofTwo = table.indexOf(HashedKey{2, 2});
    ofThree = table.indexOf(HashedKey{3, 3});
    table.stopWriter();
    reader = table.reader();
    bool found;
    reader->lookup(HashedKey{0, 0}, found, nullptr);
  }

  // The corruption message of `operation`.
  template <typename Operation>
  static std::string corruption(Operation operation) {
    return messageOf<Basalt::CorruptionDetectedException>(operation);
  }

  bool lookup(const HashedKey & key) const {
    bool found = false;
    HashedValue out;
    reader->lookup(key, found, &out);
    return found;
  }
  bool firstEntry(HashedValue & value, Cairn::IterHint & hint) const { return reader->first(value, hint); }
  // next by key alone, on the slow path.
  bool nextByKey(const HashedKey & key) const {
    HashedValue value;
    Cairn::IterHint spoiled;
    return reader->next(key, value, spoiled);
  }

  void writeLink(uint32_t slot, uint32_t link) const {
    table.slotFile().write(ReaderTable::linkValueOffset(slot), link);
  }

  ReaderTable table;
  uint32_t first = 0;
  uint32_t second = 0;
  uint32_t ofTwo = 0;
  uint32_t ofThree = 0;
  std::unique_ptr<HashedReader> reader;
};

std::string cycle(const char * method, uint32_t count, uint32_t capacity) {
  return fmt::format("CairnReader::{}() hash chain cycle detected, slotCount:{} capacity:{}", method, count, capacity);
}

// A whole walk that gives up after `limit` keys, so that a walk that would
// never end fails the test instead of hanging it.
std::vector<HashedKey> boundedWalk(const HashedReader & reader, std::size_t limit) {
  std::vector<HashedKey> keys;
  HashedValue value;
  Cairn::IterHint hint;
  for (bool more = reader.first(value, hint); more && keys.size() < limit;
       more = reader.next(value.key, value, hint)) {
    keys.push_back(value.key);
  }
  return keys;
}

}  // namespace

TEST_F(CairnReaderCorruptionTest, AChainThatLoopsIsReportedAsACycle) {
  ASSERT_EQ(reader->capacity(), 64u);
  // Slot 8 links to itself. A search for a key beyond it in split order
  // walks on and on; the step count stops it at capacity + 1.
  writeLink(second, second);
  EXPECT_EQ(corruption([&] { lookup(HashedKey{24, 24}); }), cycle("doLookup", 65, 64));
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{8, 8}); }), cycle("doNext", 65, 64));
  // Keys before the loop are still found.
  EXPECT_TRUE(lookup(HashedKey{0, 0}));
  EXPECT_TRUE(lookup(HashedKey{8, 8}));

  // A loop of two slots: 8 leads back to 0.
  writeLink(second, first);
  EXPECT_EQ(corruption([&] { lookup(HashedKey{24, 24}); }), cycle("doLookup", 65, 64));
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{8, 8}); }), cycle("doNext", 65, 64));
}

TEST_F(CairnReaderCorruptionTest, ALinkOutOfRangeIsReportedByTheBoundChecks) {
  const std::string outside = "SlotReader::Slots::operator[] out-of-range index:1000 numSlots:64";
  // A slot's link.
  writeLink(first, 1000);
  EXPECT_EQ(corruption([&] { lookup(HashedKey{8, 8}); }), outside);
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{0, 0}); }), outside);
  EXPECT_EQ(corruption([&] { walk(*reader); }), outside);
  writeLink(first, second);

  // A bucket entry.
  table.bucketFile().write(ReaderTable::bucketValueOffset(2), uint32_t{1000});
  EXPECT_EQ(corruption([&] { lookup(HashedKey{2, 2}); }), outside);
  EXPECT_EQ(corruption([&] { walk(*reader); }), outside);
  table.bucketFile().write(ReaderTable::bucketValueOffset(2), ofTwo);
  EXPECT_EQ(walk(*reader).size(), 5u);
}

TEST_F(CairnReaderCorruptionTest, ANextBucketLinkOutOfRangeIsReportedByTheBucketChecks) {
  // The end of bucket 0's chain names bucket 100 of 8.
  writeLink(second, Cairn::SlotLink::nextBucketLink(100));
  EXPECT_EQ(corruption([&] { lookup(HashedKey{24, 24}); }), "BucketReader::operator[] out-of-range, index:100 max:7");
  const std::string fromZero = "CairnReader::verifyNextBucket() has bucket: 0 with next bucket: 100 and numBuckets: 8";
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{8, 8}); }), fromZero);
  EXPECT_EQ(corruption([&] { walk(*reader); }), fromZero);
  writeLink(second, Cairn::SlotLink::nextBucketLink(4));

  // The entry of the empty bucket 4 names bucket 100.
  table.bucketFile().write(ReaderTable::bucketValueOffset(4), Cairn::SlotLink::nextBucketLink(100));
  EXPECT_EQ(corruption([&] { walk(*reader); }),
            "CairnReader::verifyNextBucket() has bucket: 4 with next bucket: 100 and numBuckets: 8");
  // A lookup finds the bucket empty and checks the bound of the bucket named.
  EXPECT_EQ(corruption([&] { lookup(HashedKey{4, 4}); }), "BucketReader::operator[] out-of-range, index:100 max:7");
}

TEST_F(CairnReaderCorruptionTest, AChainedSlotWithoutOccupiedIsReported) {
  const std::size_t flags = ReaderTable::flagsOffset(first);
  const auto occupied = table.slotFile().read<uint32_t>(flags);
  table.slotFile().write(flags, occupied & ~Cairn::OCCUPIED);
  const std::string key = hexOf(HashedKey{0, 0});
  EXPECT_EQ(corruption([&] { lookup(HashedKey{0, 0}); }),
            fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", first, key));
  EXPECT_EQ(corruption([&] { lookup(HashedKey{8, 8}); }),
            fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", first, key));
  HashedValue value;
  Cairn::IterHint hint;
  EXPECT_EQ(corruption([&] { firstEntry(value, hint); }),
            fmt::format("CairnReader::first() slot:{} not marked as occupied key:{}", first, key));
  table.slotFile().write(flags, occupied);

  // The second slot of the chain, reached from a hint on the first and by key.
  ASSERT_TRUE(firstEntry(value, hint));
  ASSERT_EQ(hint.slot, first);
  const std::size_t secondFlags = ReaderTable::flagsOffset(second);
  table.slotFile().write(secondFlags, table.slotFile().read<uint32_t>(secondFlags) & ~Cairn::OCCUPIED);
  const std::string secondKey = hexOf(HashedKey{8, 8});
  EXPECT_EQ(corruption([&] { reader->next(value.key, value, hint); }),
            fmt::format("CairnReader::doNext() slot:{} not marked as occupied key:{}", second, secondKey));
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{0, 0}); }),
            fmt::format("CairnReader::doNext() slow-path slot:{} not marked as occupied key:{} slotCount:2", second,
                        secondKey));
}

TEST_F(CairnReaderCorruptionTest, AChangedKeyByteIsReportedByTheBucketCheck) {
  // Bit 0 of the hash of the key in slot 8: the slot now holds key {9, 8},
  // which belongs to bucket 1 under 4, 8 and 16 buckets alike.
  table.slotFile().flip(ReaderTable::keyOffset(second), 1);
  const std::string changed = hexOf(HashedKey{9, 8});
  const std::string inLookup =
      fmt::format("CairnReader::doLookup() corrupt key detected. key:{} bucketIndex:0", changed);
  EXPECT_EQ(corruption([&] { lookup(HashedKey{8, 8}); }), inLookup);
  EXPECT_EQ(corruption([&] { lookup(HashedKey{24, 24}); }), inLookup);
  const std::string inNext = fmt::format("CairnReader::doNext() corrupt key detected. key:{} bucketIndex 0", changed);
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(firstEntry(value, hint));
  EXPECT_EQ(corruption([&] { reader->next(value.key, value, hint); }), inNext);
  EXPECT_EQ(corruption([&] { nextByKey(HashedKey{0, 0}); }), inNext);
  EXPECT_EQ(corruption([&] { walk(*reader); }), inNext);
  table.slotFile().flip(ReaderTable::keyOffset(second), 1);

  // The same in the first slot of the table, which first() returns.
  table.slotFile().flip(ReaderTable::keyOffset(first), 1);
  EXPECT_EQ(corruption([&] { firstEntry(value, hint); }),
            fmt::format("CairnReader::first() corrupt key detected, key:{} bucket:0", hexOf(HashedKey{1, 0})));
  table.slotFile().flip(ReaderTable::keyOffset(first), 1);
  EXPECT_EQ(walk(*reader).size(), 5u);
}

// A walk must end on a damaged file. On the hint's fast path a slot that
// links to itself, or back to an earlier slot of its chain, would hand out
// the same keys again and again; the answer must lie after the last key, and
// the walk by key then meets the step count.
TEST_F(CairnReaderCorruptionTest, AWalkOverASlotLinkedToItselfEndsWithTheCycle) {
  writeLink(second, second);
  EXPECT_EQ(corruption([&] { boundedWalk(*reader, 100); }), cycle("doNext", 65, 64));
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(firstEntry(value, hint));
  ASSERT_TRUE(reader->next(value.key, value, hint));
  ASSERT_EQ(value.key, (HashedKey{8, 8}));
  EXPECT_EQ(corruption([&] { reader->next(value.key, value, hint); }), cycle("doNext", 65, 64));
}

TEST_F(CairnReaderCorruptionTest, AWalkOverAShortCycleEndsWithTheCycle) {
  writeLink(second, first);  // 8 leads back to 0
  EXPECT_EQ(corruption([&] { boundedWalk(*reader, 100); }), cycle("doNext", 65, 64));
}

// The chain of bucket 3 ends with a link to bucket 0. Bucket 3 is the last in
// table order under 4 buckets, so the successor test of a reader one halving
// away lets the link pass; the walk would start over from the first entry.
TEST_F(CairnReaderCorruptionTest, AWalkOverANextBucketLinkBackToTheStartEnds) {
  writeLink(ofThree, Cairn::SlotLink::nextBucketLink(0));
  EXPECT_EQ(corruption([&] { boundedWalk(*reader, 100); }),
            fmt::format("CairnReader::doNext() out-of-order key:{} after key:{} bucket:0", hexOf(HashedKey{0, 0}),
                        hexOf(HashedKey{3, 3})));
  // Lookups don't walk across buckets: every key is still found.
  for (uint32_t hash : {0u, 8u, 1u, 2u, 3u}) {
    EXPECT_TRUE(lookup(HashedKey{hash, hash})) << hash;
  }
}

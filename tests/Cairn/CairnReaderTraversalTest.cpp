// A reader's lookups and walks of a table that its writer changes: empty
// buckets, chains that end in a link to the next bucket, equal hashes, slots
// removed under the reader's feet, a bucket count one doubling or halving
// away, removed keys, the table's end, hints across remaps, and safeValue.
// Every state is built deterministically: the writer is idle while a reader
// runs, or is caught mid-way by the hash hook.

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"
#include "Support/TextTesting.h"

using namespace CairnTest;
using RigTesting::messageOf;

namespace {

// Looks `key` up and expects the value the tests write for it.
void expectFound(const HashedReader & reader, const HashedKey & key) {
  bool found = false;
  HashedValue out;
  reader.lookup(key, found, &out);
  EXPECT_TRUE(found) << valueToStrep(key);
  EXPECT_EQ(out, HashedValue(key, key.hashValue + 100)) << valueToStrep(key);
}

void expectAbsent(const HashedReader & reader, const HashedKey & key) {
  bool found = true;
  HashedValue out(key, 7);
  const HashedValue * answer = reader.lookup(key, found, &out);
  EXPECT_FALSE(found) << valueToStrep(key);
  EXPECT_EQ(out, HashedValue()) << valueToStrep(key);
  EXPECT_EQ(*answer, HashedValue());
  EXPECT_TRUE(reader.slotTable().cacheVersionAnchor().empty());
}

class CairnReaderTraversalTest : public ::testing::Test {
 protected:
  // Writes one key per hash, with id equal to the hash and payload hash + 100.
  void writeHashes(std::initializer_list<uint32_t> hashes) {
    for (uint32_t hash : hashes) {
      table.write(hash, hash, hash + 100);
      keys.push_back(HashedKey{hash, hash});
    }
  }
  void removeHash(uint32_t hash) {
    ASSERT_TRUE(table.remove(hash, hash));
    keys.erase(std::find(keys.begin(), keys.end(), HashedKey{hash, hash}));
  }

  // A reader whose view is mapped: one lookup has run.
  std::unique_ptr<HashedReader> mappedReader() {
    auto reader = table.reader();
    bool found;
    reader->lookup(HashedKey{0xFFFFFFFFu, 0xFFFFFFFFu}, found, nullptr);
    return reader;
  }

  ReaderTable table;
  std::vector<HashedKey> keys;
};

// Clears OCCUPIED of a slot for the life of the scope, through the writer's mapping.
class Unoccupied {
 public:
  Unoccupied(ReaderTable & table, const HashedKey & key) : slot_(table.slotOf(key)), flags_(slot_->flags) {
    Arena::Atomics::publish32(slot_->flags, flags_ & ~Cairn::OCCUPIED);
  }
  ~Unoccupied() { Arena::Atomics::publish32(slot_->flags, flags_); }

 private:
  ReaderTable::Slot * slot_;
  uint32_t flags_;
};

// Replaces a link word for the life of the scope, as the writer stores one
// (version + 4), through the writer's mapping; restores the word exactly.
class Relinked {
 public:
  Relinked(Cairn::SlotLink & link, uint32_t value) : link_(link), original_(link.load()) {
    link_.word.store(original_.version + Cairn::LinkVersionStep, value);
  }
  ~Relinked() { link_.word.store(original_.version, original_.value); }

 private:
  Cairn::SlotLink & link_;
  Arena::VerU32 original_;
};

}  // namespace

// ---- Lookups ----

TEST_F(CairnReaderTraversalTest, ALookupInAnEmptyBucketReadsNoSlot) {
  writeHashes({0, 1, 2, 4, 6});  // 8 buckets; 3, 5 and 7 are empty
  ASSERT_EQ(table.numBuckets(), 8u);
  auto reader = mappedReader();
  const uint32_t index = table.indexOf(HashedKey{4, 4});
  // Every slot of the table unreadable: a read of any of them would throw.
  std::vector<std::unique_ptr<Unoccupied>> damage;
  for (const auto & key : keys) {
    damage.push_back(std::make_unique<Unoccupied>(table, key));
  }
  expectAbsent(*reader, HashedKey{3, 0});
  expectAbsent(*reader, HashedKey{0xFFFFFFFDu, 9});
  expectAbsent(*reader, HashedKey{7, 7});
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { expectFound(*reader, HashedKey{4, 4}); }),
            fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", index,
                        hexOf(HashedKey{4, 4})));
}

TEST_F(CairnReaderTraversalTest, NotFoundIsAnsweredOnlyFromTheFilesBucketCount) {
  writeHashes({0, 1, 2, 4, 6});
  auto reader = mappedReader();
  ASSERT_EQ(reader->buckets().numBuckets(), 8u);
  const uint32_t resizes = reader->counters().bucketResizes;
  writeHashes({8, 9, 10, 12});  // 16 buckets
  ASSERT_EQ(table.numBuckets(), 16u);
  // Bucket 3 is empty in both counts: the stale walk ends at once, and
  // checkResize sends the reader to the file's count before it says no.
  expectAbsent(*reader, HashedKey{3, 3});
  EXPECT_EQ(reader->buckets().numBuckets(), 16u);
  EXPECT_EQ(reader->counters().bucketResizes, resizes + 1);
  EXPECT_EQ(reader->counters().chainRetries, 0u);
}

TEST_F(CairnReaderTraversalTest, ALookupRightAfterInitializeMapsTheTablesUnseen) {
  writeHashes({0, 1, 2, 4, 6});
  auto reader = table.reader();
  ASSERT_EQ(reader->capacity(), 0u);
  expectFound(*reader, HashedKey{4, 4});
  EXPECT_EQ(reader->counters().slotResizes, 1u);
  EXPECT_EQ(reader->counters().bucketResizes, 1u);
  EXPECT_EQ(reader->counters().chainRetries, 0u);
  EXPECT_EQ(reader->capacity(), 64u);

  // The same for the other operations of a reader fresh from initialize.
  HashedValue value;
  Cairn::IterHint hint;
  auto walker = table.reader();
  ASSERT_TRUE(walker->first(value, hint));
  EXPECT_EQ(value.key, (HashedKey{0, 0}));
  EXPECT_EQ(walker->counters().slotResizes, 1u);
  auto stepper = table.reader();
  ASSERT_TRUE(stepper->next(HashedKey{0, 0}, value, hint));
  EXPECT_EQ(value.key, (HashedKey{4, 4}));
  EXPECT_EQ(stepper->counters().slotResizes, 1u);
  auto single = table.reader();
  ASSERT_TRUE(single->safeValue(table.indexOf(HashedKey{6, 6}), value, nullptr));
  EXPECT_EQ(value, valueOf(6, 6, 106));
  EXPECT_EQ(single->counters().slotResizes, 1u);
}

TEST_F(CairnReaderTraversalTest, AChainEndingInANextBucketLinkEndsTheWalkWithTheBucketBoundCheck) {
  writeHashes({0, 1, 2, 4, 10});  // bucket 2 holds 2, then 10
  ASSERT_EQ(table.numBuckets(), 8u);
  auto reader = mappedReader();
  // Above every key of bucket 2 in split order: the walk passes both and
  // ends at the link to bucket 6.
  const HashedKey beyond{0xFFFFFFFAu, 1};
  expectAbsent(*reader, beyond);
  expectFound(*reader, HashedKey{10, 10});

  Relinked outside(table.slotOf(HashedKey{10, 10})->link, Cairn::SlotLink::nextBucketLink(100));
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { expectAbsent(*reader, beyond); }),
            "BucketReader::operator[] out-of-range, index:100 max:7");
}

TEST_F(CairnReaderTraversalTest, KeysOfEqualHashAreOrderedByKeyAndTheGreaterIsFoundPastTheSmaller) {
  table.write(5, 2, 52);
  table.write(5, 1, 51);
  table.write(0, 0, 100);
  auto reader = mappedReader();
  const HashedKey smaller{5, 1};
  const HashedKey greater{5, 2};
  bool found = false;
  HashedValue out;
  reader->lookup(greater, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, valueOf(5, 2, 52));
  reader->lookup(smaller, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, valueOf(5, 1, 51));
  expectAbsent(*reader, HashedKey{5, 0});
  expectAbsent(*reader, HashedKey{5, 3});
  EXPECT_EQ(walk(*reader), (std::vector<HashedKey>{HashedKey{0, 0}, smaller, greater}));
  const uint32_t smallerIndex = table.indexOf(smaller);
  const uint32_t greaterIndex = table.indexOf(greater);

  {
    // Looking for the greater reads the smaller first.
    Unoccupied damaged(table, smaller);
    EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->lookup(greater, found, &out); }),
              fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", smallerIndex,
                          hexOf(smaller)));
  }
  {
    // Looking for the smaller, or below it, never reaches the greater.
    Unoccupied damaged(table, greater);
    reader->lookup(smaller, found, &out);
    EXPECT_TRUE(found);
    expectAbsent(*reader, HashedKey{5, 0});
    EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->lookup(HashedKey{5, 3}, found, &out); }),
              fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", greaterIndex,
                          hexOf(greater)));
  }
}

TEST_F(CairnReaderTraversalTest, ASlotRemovedUnderTheReadersFeetRestartsTheWalk) {
  // Bucket 0 of 4 holds, in split order, hashes 0, 8 and 4.
  writeHashes({0, 8, 4});
  ASSERT_EQ(table.numBuckets(), 4u);
  auto reader = mappedReader();
  const uint32_t firstFlags = ReaderTable::flagsOffset(table.indexOf(HashedKey{0, 0}));
  // The reader has read slot 0 and loaded its link to slot 8 when the writer
  // removes 8: slot 8 shows OCCUPIED clear, and the link to it has moved.
  auto standsOnFirst = [&] { return reader->slotTable().cacheVersionAnchor().offset == firstFlags; };
  {
    HashHook hook(standsOnFirst, [&] { removeHash(8); });
    expectFound(*reader, HashedKey{4, 4});
    EXPECT_EQ(hook.fired(), 1u);
  }
  EXPECT_EQ(reader->counters().chainRetries, 1u);

  // The same under a not-found answer: the walk starts over and ends right.
  writeHashes({8});
  {
    HashHook hook(standsOnFirst, [&] { removeHash(8); });
    expectAbsent(*reader, HashedKey{12, 12});
    EXPECT_EQ(hook.fired(), 1u);
  }
  EXPECT_EQ(reader->counters().chainRetries, 2u);
}

// ---- A bucket count one doubling or halving away ----

namespace {

// Readers mapped at the bucket count of the moment, kept for later: each
// serves one operation while its view is stale.
class StaleReaders {
 public:
  StaleReaders(ReaderTable & table, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      readers_.push_back(table.reader());
      bool found;
      readers_.back()->lookup(HashedKey{0xFFFFFFFFu, 0xFFFFFFFFu}, found, nullptr);
    }
  }
  // A reader not used before; null when all are used.
  HashedReader * take() { return used_ < readers_.size() ? readers_[used_++].get() : nullptr; }
  // The same, for a test that made enough of them.
  HashedReader & use() {
    HashedReader * reader = take();
    if (reader == nullptr) {
      throw std::runtime_error("StaleReaders::use() all readers used");
    }
    return *reader;
  }

 private:
  std::vector<std::unique_ptr<HashedReader>> readers_;
  std::size_t used_ = 0;
};

}  // namespace

TEST_F(CairnReaderTraversalTest, ReadersOneDoublingAwayFindEveryKeyAndWalkInOrder) {
  // Each bucket of 8 holds b and b + 8, which a doubling splits.
  writeHashes({0, 8, 1, 9, 2, 10, 3, 11});
  ASSERT_EQ(table.numBuckets(), 8u);
  const std::vector<HashedKey> all = [&] {
    auto with = keys;
    with.push_back(HashedKey{4, 4});
    return inTableOrder(with);
  }();
  // Caught inside the doubling, at every hash the writer computes once the
  // bucket entries above 8 exist: before and after it publishes 16. At each
  // pause, a reader fresh from initialize and readers mapped at 8 before the
  // doubling began find every key and walk the table in order.
  StaleReaders stale(table, 250);
  int before = 0;
  int after = 0;
  auto check = [&] {
    ++(table.numBuckets() == 16 ? after : before);
    auto fresh = table.reader();
    for (const auto & key : all) {
      expectFound(*fresh, key);
      if (HashedReader * old = stale.take()) {
        expectFound(*old, key);
      }
    }
    expectAbsent(*fresh, HashedKey{5, 5});
    EXPECT_EQ(walk(*fresh), all);
    if (HashedReader * old = stale.take()) {
      EXPECT_EQ(walk(*old), all);
    }
    if (HashedReader * old = stale.take()) {
      expectAbsent(*old, HashedKey{13, 13});
      EXPECT_EQ(old->buckets().numBuckets(), table.numBuckets());
    }
    // The fresh reader's count is the file's all along, and its walk ran
    // across chains not yet cut: the one-step tolerance of the bucket check
    // and of verifyNextBucket carried it, without a remap.
    EXPECT_EQ(fresh->counters().bucketResizes, 1u);
  };
  {
    HashHook hook([&] { return table.writer().map().buckets().numBuckets() == 16; }, check, HashHook::Runs::always);
    writeHashes({4});
  }
  ASSERT_EQ(table.numBuckets(), 16u);
  EXPECT_GT(before, 0);
  EXPECT_GT(after, 0);
  EXPECT_NE(stale.take(), nullptr) << "too few stale readers for " << before + after << " pauses";
}

TEST_F(CairnReaderTraversalTest, ReadersOneDoublingBehindAreBroughtUpToDateByTheirFirstNotFound) {
  writeHashes({0, 8, 1, 9, 2, 10, 3, 11});
  StaleReaders stale(table, 9 + 2);  // one per key, one to walk, one to ask for an absent key
  writeHashes({4});
  ASSERT_EQ(table.numBuckets(), 16u);
  for (const auto & key : keys) {
    HashedReader & reader = stale.use();
    expectFound(reader, key);
    // Keys of the upper twin sit behind a cut chain: found after one remap.
    EXPECT_LE(reader.counters().bucketResizes, 2u);
  }
  HashedReader & walker = stale.use();
  EXPECT_EQ(walk(walker), inTableOrder(keys));
  EXPECT_EQ(walker.buckets().numBuckets(), 16u);
  HashedReader & asker = stale.use();
  expectAbsent(asker, HashedKey{13, 13});
  EXPECT_EQ(asker.buckets().numBuckets(), 16u);
}

TEST(CairnReaderHalvingTest, ReadersOneHalvingBehindFindEveryKeyAndWalkInOrder) {
  Cairn::MapDescriptor descriptor = sharedDescriptor(1000);
  descriptor.shrinkBuckets = true;
  ReaderTable table(descriptor);
  for (uint32_t hash = 0; hash < 9; ++hash) {
    table.write(hash, hash, hash + 100);
  }
  for (uint32_t hash : {0u, 2u, 4u, 6u, 8u}) {
    ASSERT_TRUE(table.remove(hash, hash));
  }
  ASSERT_EQ(table.numBuckets(), 16u);
  const std::vector<HashedKey> left = inTableOrder({HashedKey{1, 1}, HashedKey{3, 3}, HashedKey{5, 5}});
  StaleReaders stale(table, left.size() + 2);  // one per key, one to walk, one to ask
  // Down to 3 entries, below a quarter of 16: the table halves to 8.
  ASSERT_TRUE(table.remove(7, 7));
  ASSERT_EQ(table.numBuckets(), 8u);
  for (const auto & key : left) {
    HashedReader & reader = stale.use();
    ASSERT_EQ(reader.buckets().numBuckets(), 16u);
    expectFound(reader, key);
  }
  HashedReader & walker = stale.use();
  EXPECT_EQ(walk(walker), left);
  EXPECT_EQ(walker.buckets().numBuckets(), 8u);
  HashedReader & asker = stale.use();
  expectAbsent(asker, HashedKey{7, 7});
  EXPECT_EQ(asker.buckets().numBuckets(), 8u);
}

// ---- Walks ----

TEST_F(CairnReaderTraversalTest, NextWithARemovedKeyReturnsTheEntryThatFollowedIt) {
  writeHashes({0, 1, 2, 3, 4});  // table order 0, 4, 2, 1, 3
  auto reader = mappedReader();
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(reader->first(value, hint));
  ASSERT_TRUE(reader->next(value.key, value, hint));
  ASSERT_TRUE(reader->next(value.key, value, hint));
  ASSERT_EQ(value.key, (HashedKey{2, 2}));
  const uint32_t misses = reader->counters().iterHintMisses;
  removeHash(2);
  ASSERT_TRUE(reader->next(value.key, value, hint));
  EXPECT_EQ(value, valueOf(1, 1, 101));
  EXPECT_EQ(reader->counters().iterHintMisses, misses + 1);
  // Removed while it stood last in its bucket and the hint is spoiled: by key.
  removeHash(1);
  hint.bucket = HashedReader::SpoiledBucket;
  ASSERT_TRUE(reader->next(HashedKey{1, 1}, value, hint));
  EXPECT_EQ(value.key, (HashedKey{3, 3}));
  EXPECT_FALSE(reader->next(value.key, value, hint));
}

TEST_F(CairnReaderTraversalTest, NextOnTheLastEntryEndsAndTheSameEndOnAnyOtherBucketThrows) {
  writeHashes({0, 1, 2, 3, 7});  // 8 buckets; 7 is the last in table order
  auto reader = mappedReader();
  HashedValue value;
  Cairn::IterHint hint;
  EXPECT_EQ(walk(*reader), inTableOrder(keys));
  hint = Cairn::IterHint{table.slotOf(HashedKey{7, 7})->flags, table.indexOf(HashedKey{7, 7}), 7};
  EXPECT_FALSE(reader->next(HashedKey{7, 7}, value, hint));
  hint.bucket = HashedReader::SpoiledBucket;
  EXPECT_FALSE(reader->next(HashedKey{7, 7}, value, hint));

  // Bucket 1's chain ends in EndOfTable, which only bucket 7 may hold.
  Relinked end(table.slotOf(HashedKey{1, 1})->link, Cairn::EndOfTable);
  const std::string expected =
      "CairnReader::verifyNextBucket() has bucket: 1 with next bucket: 0 and numBuckets: 8";
  hint = Cairn::IterHint{table.slotOf(HashedKey{1, 1})->flags, table.indexOf(HashedKey{1, 1}), 1};
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->next(HashedKey{1, 1}, value, hint); }),
            expected);
  hint.bucket = HashedReader::SpoiledBucket;
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->next(HashedKey{1, 1}, value, hint); }),
            expected);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { walk(*reader); }), expected);
}

TEST_F(CairnReaderTraversalTest, FirstWalksEveryEmptyBucketAndNoMore) {
  writeHashes({0, 1, 2, 3, 7});
  for (uint32_t hash : {0u, 1u, 2u, 3u}) {
    removeHash(hash);
  }
  ASSERT_EQ(table.numBuckets(), 8u);
  auto reader = mappedReader();
  // Only bucket 7, the last in table order, holds an entry: seven hops.
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(reader->first(value, hint));
  EXPECT_EQ(value, valueOf(7, 7, 107));
  EXPECT_EQ(hint.bucket, 7u);
  EXPECT_EQ(hint.slot, table.indexOf(HashedKey{7, 7}));
  EXPECT_FALSE(reader->next(value.key, value, hint));

  // An empty table whose last bucket leads on to bucket 0: the eighth hop is one too many.
  removeHash(7);
  EXPECT_FALSE(reader->first(value, hint));
  EXPECT_EQ(value, HashedValue());
  Relinked round(*table.bucket(7), Cairn::SlotLink::nextBucketLink(0));
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->first(value, hint); }),
            "CairnReader::first() has bucket cycle detected, bucketCount: 8 numBuckets: 8");
}

TEST_F(CairnReaderTraversalTest, FirstOnASingleBucketWhoseEntryLeadsOnThrowsAtOnce) {
  // A bucket file that claims one bucket; its entry 0 leads on to bucket 1.
  auto & numBuckets = table.bucketHeader().numBuckets;
  const Arena::VerU32 original = numBuckets.load();
  numBuckets.store(original.version + 1, 1);
  auto reader = table.reader();
  HashedValue value;
  Cairn::IterHint hint;
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->first(value, hint); }),
            "CairnReader::first() has bucket cycle detected, bucketCount: 1 numBuckets: 1");
  EXPECT_EQ(reader->buckets().numBuckets(), 1u);
  numBuckets.store(original.version, original.value);
}

// ---- Hints across remaps ----

TEST_F(CairnReaderTraversalTest, NextAfterARemapKeepsTheFastPathWhileTheHintsSlotIsUnchanged) {
  table.write(1, 1, 11);
  table.write(1, 2, 12);
  auto reader = mappedReader();
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(reader->first(value, hint));
  ASSERT_EQ(value.key, (HashedKey{1, 1}));
  // The slot file and the bucket file both grow; a lookup remaps the reader.
  for (uint32_t hash = 2; hash < 102; ++hash) {
    table.write(hash, hash);
  }
  bool found = false;
  reader->lookup(HashedKey{50, 50}, found, nullptr);
  ASSERT_TRUE(found);
  ASSERT_EQ(reader->capacity(), 128u);
  const uint32_t misses = reader->counters().iterHintMisses;
  ASSERT_TRUE(reader->next(value.key, value, hint));
  EXPECT_EQ(value, valueOf(1, 2, 12));
  EXPECT_EQ(reader->counters().iterHintMisses, misses);
  EXPECT_EQ(hint.slot, table.indexOf(HashedKey{1, 2}));
}

TEST_F(CairnReaderTraversalTest, AHintFromBeforeTwoDoublingsLeadsToTheRightEntry) {
  // Two keys of hash 7 in bucket 1 of 2; later 7 is their bucket among 8 or more.
  table.write(7, 1, 71);
  table.write(7, 2, 72);
  auto reader = mappedReader();
  HashedValue value;
  Cairn::IterHint hint;
  ASSERT_TRUE(reader->first(value, hint));
  ASSERT_EQ(hint.bucket, 1u);
  // None of them in bucket 7 of 16; 31 in bucket 15, which follows 7.
  for (uint32_t hash : {16u, 17u, 18u, 19u, 20u, 21u, 22u, 31u}) {
    table.write(hash, hash);
  }
  ASSERT_EQ(table.numBuckets(), 16u);
  bool found = false;
  reader->lookup(HashedKey{16, 16}, found, nullptr);
  ASSERT_EQ(reader->buckets().numBuckets(), 16u);
  // The successor on the same chain.
  ASSERT_TRUE(reader->next(value.key, value, hint));
  EXPECT_EQ(value, valueOf(7, 2, 72));
  // And from the chain's end to the next bucket in table order.
  hint.bucket = 1;
  ASSERT_TRUE(reader->next(value.key, value, hint));
  EXPECT_EQ(value.key, (HashedKey{31, 31}));
}

TEST_F(CairnReaderTraversalTest, AWalkInSlicesWithLookupsBetweenSeesEveryKeptKeyOnce) {
  // Between the first slices the writer grows the table many times over,
  // and the reader remaps in the lookups that run between them.
  std::vector<HashedKey> kept;
  for (uint32_t hash = 0; hash < 6; ++hash) {
    table.write(hash * 7 + 3, hash, hash);
    kept.push_back(HashedKey{hash * 7 + 3, hash});
  }
  auto reader = mappedReader();
  std::vector<HashedKey> seen;
  HashedValue value;
  Cairn::IterHint hint;
  uint32_t next = 1000;
  for (bool more = reader->first(value, hint); more; more = reader->next(value.key, value, hint)) {
    if (value.key.id < 1000) {
      seen.push_back(value.key);
    }
    if (next < 1240) {
      for (uint32_t i = 0; i < 40; ++i, ++next) {
        table.write(next * 13, next);
      }
    }
    bool found = false;
    reader->lookup(HashedKey{(next - 1) * 13, next - 1}, found, nullptr);
    ASSERT_TRUE(found);
  }
  EXPECT_EQ(seen, inTableOrder(kept));
}

// ---- safeValue ----

TEST_F(CairnReaderTraversalTest, SafeValueOfAnIndexTheFileDoesNotHoldIsAPlainNo) {
  writeHashes({0, 1, 2});
  TestSupport::TraceCapture traces;
  table.readerHandler.maskIs(levels({0, 5}));
  auto reader = table.reader();
  const uint32_t index = table.indexOf(HashedKey{2, 2});
  HashedValue value;
  HashedValue fallback(HashedKey{9, 9}, 9);
  ASSERT_TRUE(reader->safeValue(index, value, &fallback));
  EXPECT_EQ(value, valueOf(2, 2, 102));
  EXPECT_EQ(reader->slotTable().cacheVersionAnchor().offset, ReaderTable::flagsOffset(index));
  EXPECT_EQ(fallback, HashedValue(HashedKey{9, 9}, 9));

  // A free slot: no, with the default value.
  EXPECT_FALSE(reader->safeValue(40, value, &fallback));
  EXPECT_EQ(fallback, HashedValue());
  EXPECT_TRUE(reader->slotTable().cacheVersionAnchor().empty());

  // Above the shared capacity: no, without a read; the default is not written.
  fallback = HashedValue(HashedKey{9, 9}, 9);
  EXPECT_FALSE(reader->safeValue(64, value, &fallback));
  EXPECT_EQ(fallback, HashedValue(HashedKey{9, 9}, 9));
  EXPECT_TRUE(reader->slotTable().cacheVersionAnchor().empty());
  EXPECT_TRUE(traces.contains("L5 CairnReader::safeValue() slotIndex:64 shmemCapacity:64, returning not found"));

  // A shrink took index 40 away between two notifications.
  auto & numSlots = table.header().numSlots;
  const Arena::VerU32 original = numSlots.load();
  numSlots.store(original.version + 1, 32);
  EXPECT_FALSE(reader->safeValue(40, value, &fallback));
  EXPECT_TRUE(traces.contains("L5 CairnReader::safeValue() slotIndex:40 shmemCapacity:32, returning not found"));
  ASSERT_TRUE(reader->safeValue(index, value, nullptr));
  EXPECT_EQ(reader->capacity(), 32u);

  // A count the file can't hold: the slot can't be read, and that is a no too.
  numSlots.store(original.version + 2, 100000);
  EXPECT_FALSE(reader->safeValue(100, value, &fallback));
  EXPECT_TRUE(traces.contains("L5 CairnReader::safeValue() unable to retrieve slotIndex:100, returning not found"));
  numSlots.store(original.version, original.value);
}

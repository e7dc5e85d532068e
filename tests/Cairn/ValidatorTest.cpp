// The Validator over tables that a real CairnWriter wrote and a test then
// damaged in place: through the writer's own mapping of the slot table, or
// through the queue's files. Every refusal is checked by its exact text, in
// the validator's errorText and in the level 0 traces of writer.validate().

#include <algorithm>
#include <cstddef>

#include <gtest/gtest.h>

#include "Cairn/MapTestTypes.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;

namespace {

using Writer = WriterFor<HashedValue>;
using Slot = Writer::Slot;

// Offset of corralStart in the queue's control file.
constexpr std::size_t CorralStartOffset = offsetof(Ripple::ControlBlock, corralStart);

class ValidatorTest : public ::testing::Test {
 protected:
  ValidatorTest() : table(sharedDescriptor(1000), "test/validator") { table.start(); }

  Writer & writer() { return *table.writer; }

  // Writes the entry of `id`. Every key's hash has its low 16 bits clear, so
  // all entries stand on bucket 0's chain, whatever the bucket count.
  void put(uint32_t id, uint64_t payload = 0) { writer().write(valueOf(id << 16, id, payload), true); }
  void drop(uint32_t id) {
    HashedValue removed;
    ASSERT_TRUE(writer().remove(HashedKey{id << 16, id}, removed));
  }

  uint32_t slotOf(uint32_t id) {
    bool found = false;
    const auto * address = writer().lookup(HashedKey{id << 16, id}, found, nullptr);
    EXPECT_TRUE(found) << id;
    const auto * base = reinterpret_cast<const char *>(writer().slotTable().slots().base);
    return static_cast<uint32_t>((reinterpret_cast<const char *>(address) - Cairn::SlotPrefixSize - base) /
                                 Writer::SlotWriter::slotSize);
  }

  Slot * slot(uint32_t index) { return writer().slotTable().slots()[index]; }
  Cairn::SlotTableHeader & header() { return *writer().slotTable().header(); }

  // The slots of bucket 0's chain, in order.
  std::vector<uint32_t> chain() {
    std::vector<uint32_t> indices;
    for (uint32_t link = writer().map().buckets()[0]->value(); !(link & Cairn::NextBucketBit);
         link = slot(link)->link.value()) {
      indices.push_back(link);
    }
    return indices;
  }

  // The first `count` slots of the free list.
  std::vector<uint32_t> freeList(std::size_t count) {
    std::vector<uint32_t> indices;
    for (uint32_t index = header().freeSlots; index != Cairn::NoFreeSlot && indices.size() < count;
         index = slot(index)->link.value()) {
      indices.push_back(index);
    }
    return indices;
  }

  // The level 0 traces of a writer.validate() that refuses with `error`:
  // the failure itself (as caught, if it came as an exception), the verdict,
  // and the headers.
  std::vector<std::string> refusal(const std::string & error, bool caught) {
    return {caught ? "Validator::validate caught: " + error : error,
            "Validator::validate() Cairn test/validator validation failed: " + error, writer().dumpHeaders()};
  }

  // A validator run whose traces the test doesn't look at.
  ValidatorRun quietRun() {
    TestSupport::TraceCapture quiet;
    return runValidator<HashedValue>(writer());
  }

  // Checks that both a validator run and writer.validate() refuse the table
  // with `error`, and what the latter traces at level 0.
  void expectRefused(const std::string & error, bool caught) {
    const ValidatorRun run = quietRun();
    EXPECT_FALSE(run.passed);
    EXPECT_EQ(run.errorText, error);
    TestSupport::TraceCapture traces;
    EXPECT_FALSE(writer().validate());
    EXPECT_EQ(tracesAt(traces, 0), refusal(error, caught));
  }

  void expectPassed() {
    const ValidatorRun run = quietRun();
    EXPECT_TRUE(run.passed) << run.errorText;
    EXPECT_EQ(run.errorText, "");
    TestSupport::TraceCapture traces;
    EXPECT_TRUE(writer().validate());
    EXPECT_TRUE(tracesAt(traces, 0).empty()) << traces.lines().front();
  }

  TableHarness<HashedValue> table;
};

}  // namespace

TEST_F(ValidatorTest, EmptyTablePassesWithEverySlotFree) {
  const ValidatorRun run = runValidator<HashedValue>(writer());
  EXPECT_TRUE(run.passed);
  EXPECT_EQ(run.occupiedCount, 0u);
  EXPECT_EQ(run.freeCount, writer().capacity());
  EXPECT_EQ(run.notifiedCount, 0u);
  EXPECT_EQ(writer().ripple().size(), 0u);
  expectPassed();
}

TEST_F(ValidatorTest, SoundTableIsCountedWhole) {
  for (uint32_t id = 1; id <= 10; ++id) {
    put(id);
  }
  put(3, 7);  // a rewrite: the older entry of its slot is tombstoned
  drop(5);
  const ValidatorRun run = runValidator<HashedValue>(writer());
  EXPECT_TRUE(run.passed) << run.errorText;
  EXPECT_EQ(run.occupiedCount, 9u);
  EXPECT_EQ(run.freeCount, writer().capacity() - 9);
  EXPECT_EQ(run.notifiedCount, 9u);  // the freed slot's live entry is its deletion, claimed by no one
}

TEST_F(ValidatorTest, ReachableEntryBeyondTheHeaderCountEndsTheWalk) {
  put(1);
  header().occupiedSlots = 0;
  expectRefused("Validator::walkOccupiedSlots() walkedSlots:1 is greater than header->occupiedSlots:0", false);
}

TEST_F(ValidatorTest, ChainThatSkipsAnEntryMisCounts) {
  put(1);
  put(2);
  put(3);
  const std::vector<uint32_t> slots = chain();
  ASSERT_EQ(slots.size(), 3u);
  slot(slots[0])->link.storeNext(slots[2]);  // the middle entry is on no list now
  expectRefused("Validator::walkOccupiedSlots() mismatch header->occupiedSlots:3 count:2", false);
}

TEST_F(ValidatorTest, ChainThatSkipsAnEntryWithAMatchingHeaderFailsTheSlotCount) {
  put(1);
  put(2);
  put(3);
  const std::vector<uint32_t> slots = chain();
  slot(slots[0])->link.storeNext(slots[2]);
  header().occupiedSlots = 2;
  const uint32_t capacity = writer().capacity();
  expectRefused(fmt::format("Validator::doValidate() bad slotCount:{} occupiedSlots:2 freeSlots:{} capacity:{}",
                            capacity - 1, capacity - 3, capacity),
                false);
}

TEST_F(ValidatorTest, OccupiedSlotOnTheFreeListToo) {
  put(1);
  put(2);
  const uint32_t occupied = chain()[1];
  header().freeSlots = occupied;
  expectRefused(fmt::format("Validator::walkFreeSlots() corrupted free slot not marked as empty: {}", occupied),
                false);
}

TEST_F(ValidatorTest, FreeSlotOnAChainToo) {
  put(1);
  put(2);
  const uint32_t first = chain()[0];
  const uint32_t free = freeList(1)[0];
  slot(free)->link.storeNext(slot(first)->link.value());
  slot(first)->link.storeNext(free);
  // The walk itself refuses the slot without OCCUPIED, before the validator marks it.
  expectRefused(fmt::format("WriterHashMap::next() slot: {} not marked as occupied", free), true);
}

// A writer's insert counts on a clear LOOKASIDE bit in the free slot it
// takes: from one with LOOKASIDE set it would make an occupied slot with
// LOOKASIDE stuck, whose value readers would take from the LookasideSlot for
// ever. No writer leaves LOOKASIDE on a free slot.
TEST_F(ValidatorTest, FreeSlotWithLookasideIsRefused) {
  put(1);
  const uint32_t free = freeList(1)[0];
  slot(free)->flags |= Cairn::LOOKASIDE;
  expectRefused(fmt::format("Validator::walkFreeSlots() corrupted free slot not marked as empty: {}", free), false);
}

TEST_F(ValidatorTest, FreeListWithALoopOfTwoSlots) {
  put(1);
  const std::vector<uint32_t> free = freeList(2);
  ASSERT_EQ(free.size(), 2u);
  slot(free[1])->link.storeNext(free[0]);
  expectRefused(fmt::format("Validator::walkFreeSlots() duplicate freeSlot detected: {}", free[0]), false);
}

TEST_F(ValidatorTest, FreeSlotIndexPastTheSlotCount) {
  put(1);
  const uint32_t count = writer().capacity();
  const uint32_t head = freeList(1)[0];
  slot(head)->link.storeNext(count + 1);
  expectRefused(
      fmt::format("Validator::walkFreeSlots() corrupted free slot detected with out of bound index: {}", count + 1),
      false);
  // An index equal to the count passes that test and is stopped by the slot range.
  slot(head)->link.storeNext(count);
  expectRefused(fmt::format("SlotWriter::Slots::operator[] out-of-range index: {} max:{}", count, count - 1), true);
}

TEST_F(ValidatorTest, SlotLeftWithLookaside) {
  put(1);
  const uint32_t index = slotOf(1);
  const uint32_t flags = slot(index)->flags | Cairn::LOOKASIDE;
  slot(index)->flags = flags;
  expectRefused(fmt::format("Validator::markOccupied() stuck LOOKASIDE bit: 0x{:x}", flags), true);
  EXPECT_EQ(flags, 0x7u);  // version 1, OCCUPIED, LOOKASIDE
}

// The walk reaches a slot after the first one by the fast path of next(),
// which retries by the slow path when anything in it reports corruption: the
// retry must report the slot for what it is, not as one seen twice.
TEST_F(ValidatorTest, SlotLeftWithLookasideInsideAChain) {
  put(1);
  put(2);
  put(3);
  const uint32_t index = chain()[1];
  const uint32_t flags = slot(index)->flags | Cairn::LOOKASIDE;
  slot(index)->flags = flags;
  expectRefused(fmt::format("Validator::markOccupied() stuck LOOKASIDE bit: 0x{:x}", flags), true);
}

TEST_F(ValidatorTest, OccupiedSlotWithoutAQueueEntryPasses) {
  put(1);
  put(2);
  const uint32_t index = slotOf(2);
  ASSERT_TRUE(queueOf(writer()).tombstone(index));
  table.handler.maskIs(levels({0, 9}));
  TestSupport::TraceCapture traces;
  const ValidatorRun run = runValidator<HashedValue>(writer());
  EXPECT_TRUE(run.passed) << run.errorText;
  EXPECT_EQ(run.occupiedCount, 2u);
  EXPECT_EQ(run.notifiedCount, 1u);
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  const std::vector<std::string> detailed = tracesAt(traces, 9);
  EXPECT_NE(std::find(detailed.begin(), detailed.end(),
                      fmt::format("Validator::markOccupied() no notification in ripple queue for occupied slotId:{}",
                                  index)),
            detailed.end());
}

TEST_F(ValidatorTest, SlotFreedAfterItsLastNotificationPasses) {
  put(1);
  put(2);
  const uint32_t index = slotOf(2);
  drop(2);
  // The slot's one live entry is its deletion, and RipplePos points at it.
  const uint32_t position = writer().ripple().positionOf(index);
  ASSERT_LT(position, writer().ripple().size());
  EXPECT_EQ(writer().ripple().entry(position).slot, index);
  EXPECT_FALSE(slot(index)->flags & Cairn::OCCUPIED);
  const ValidatorRun run = runValidator<HashedValue>(writer());
  EXPECT_TRUE(run.passed) << run.errorText;
  EXPECT_EQ(run.notifiedCount, 1u);
  expectPassed();
}

// The same slot with OCCUPIED set but claimed by no chain: the free walk
// meets it first, since every slot below the capacity must stand on one of
// the two lists.
TEST_F(ValidatorTest, FreedSlotWithOccupiedSetIsRefused) {
  put(1);
  put(2);
  const uint32_t index = slotOf(2);
  drop(2);
  slot(index)->flags |= Cairn::OCCUPIED;
  expectRefused(fmt::format("Validator::walkFreeSlots() corrupted free slot not marked as empty: {}", index), false);
}

TEST_F(ValidatorTest, CorralEntriesThatMatchNothingPass) {
  put(1);
  put(2);
  const uint32_t occupied = slotOf(1);
  const uint32_t free = freeList(1)[0];
  Ripple::RippleWriter & queue = queueOf(writer());
  // A slot shrink in the middle of its work: the corral is open (corralEnd 0).
  queue.markShrinkStart();
  queue.notify(free);
  queue.notify(occupied);
  ASSERT_NE(writer().ripple().corralStart(), 0u);
  ASSERT_EQ(writer().ripple().corralEnd(), 0u);
  EXPECT_EQ(writer().ripple().positionOf(occupied), Ripple::RIPPLE_TOMBSTONED);
  expectPassed();
  // Closed, but held by a client that hasn't applied it yet.
  queue.clientProgressIs("reader", 0);
  queue.markShrinkEnd();
  ASSERT_NE(writer().ripple().corralEnd(), 0u);
  expectPassed();
}

TEST_F(ValidatorTest, CorralLeftOpenByAWriterIsReleasedAtTheNextStart) {
  put(1);
  put(2);
  Ripple::RippleWriter & queue = queueOf(writer());
  queue.markShrinkStart();
  queue.notify(slotOf(1));
  table.stop();  // the writer goes with its corral open
  table.start();
  EXPECT_EQ(writer().ripple().corralStart(), 0u);
  EXPECT_EQ(writer().writerCounters().corralReleases, 1u);
  expectPassed();
  bool found = false;
  writer().lookup(HashedKey{1 << 16, 1}, found, nullptr);
  EXPECT_TRUE(found);
}

// An entry that RipplePos points at, drawn into the corral by a damaged
// corralStart in the queue's control file. The queue's own check leaves
// RipplePos to the queue pass, which reports it in its words.
TEST_F(ValidatorTest, CorralHoldingAnEntryThatRipplePosPointsAtIsRefused) {
  put(1);
  put(2);
  const uint32_t index = slotOf(2);
  const uint32_t position = writer().ripple().positionOf(index);
  ASSERT_LT(position, writer().ripple().size());
  const uint64_t sequence = writer().ripple().entry(position).sequence();
  FileBytes control(table.file(Ripple::ControlFileName));
  control.write<uint64_t>(CorralStartOffset, sequence);
  ASSERT_EQ(writer().ripple().corralStart(), sequence);
  expectRefused(fmt::format("Validator::doValidate() corral pos:{} seq:{} slot:{} ripplePos:{}", position, sequence,
                            index, position),
                false);
}

// An occupied slot whose notification was tombstoned for a later one, with
// the earlier entry made live again in the queue's table file: a live entry
// that no occupied slot claims, the entry of a deletion, yet its slot is
// occupied.
TEST_F(ValidatorTest, OccupiedSlotOnADeletedNotificationIsRefused) {
  put(1);
  put(1, 2);  // tombstones the entry of the first write
  put(2);
  const uint32_t index = slotOf(1);
  const uint32_t live = writer().ripple().positionOf(index);
  ASSERT_EQ(live, 1u);
  ASSERT_TRUE(writer().ripple().entry(0).slot == Ripple::RIPPLE_TOMBSTONED);
  const char * current =
      writer().ripple().currentTable() == Ripple::RippleTable::Primary ? Ripple::PrimaryFileName : Ripple::SecondaryFileName;
  FileBytes queue(table.file(current));
  queue.write<uint32_t>(Ripple::TableHeaderSize + offsetof(Ripple::Notification, slot), index);
  ASSERT_EQ(writer().ripple().entry(0).slot, index);
  const std::string error =
      fmt::format("Validator::doValidate() occupied slot:{} on deleted notification:0", index);
  expectRefused(error, false);

  // The next writer rebuilds RipplePos from the file, on the later entry, and
  // its start refuses the table with the same words.
  table.stop();
  TestSupport::TraceCapture traces;
  table.start();
  const std::vector<std::string> failures = tracesAt(traces, 0);
  EXPECT_NE(std::find(failures.begin(), failures.end(),
                      "Validator::validate() Cairn test/validator validation failed: " + error),
            failures.end());
}

TEST_F(ValidatorTest, KeyOfAnotherBucketOnAChain) {
  put(1);
  put(2);
  const uint32_t index = chain()[1];
  slot(index)->value.key.hashValue |= 1;  // its hash now names bucket 1
  expectRefused(fmt::format("WriterHashMap::next() corrupt key detected, slot: {}", index), true);
}

TEST_F(ValidatorTest, WrongRhashOnAChain) {
  put(1);
  put(2);
  const uint32_t index = chain()[1];
  const uint32_t right = slot(index)->rhash;
  slot(index)->rhash = right ^ 0x100;
  expectRefused(fmt::format("WriterHashMap::next() corrupt rhash detected, slot: {} slot.rhash:{:x} rhash:{:x}",
                            index, right ^ 0x100, right),
                true);
}

TEST_F(ValidatorTest, ChainLoopingBackIsACycle) {
  put(1);
  put(2);
  put(3);
  const std::vector<uint32_t> slots = chain();
  slot(slots[2])->link.storeNext(slots[1]);
  header().occupiedSlots = 5;  // room for the walk to come round again
  // The fast path meets slot 1 again, and the slow path, walking by key, the loop.
  const uint32_t capacity = writer().capacity();
  expectRefused(fmt::format("WriterHashMap::next() hash chain cycle detected, slotCount:{} capacity:{}",
                            capacity + 1, capacity),
                true);
}

TEST_F(ValidatorTest, HeaderOfAnotherGenerationIsRefusedByTheHeaderChecks) {
  put(1);
  const ArenaFiles::EpochId other = writer().epochId().reformatted();
  Cairn::Validator<HashedKey, HashedValue, OpsFor<HashedValue>> validator(writer());
  writer().map().validatorIs(&validator);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(validator.validate(other));
  writer().map().validatorIs(nullptr);
  // All three checks ran; the last failure's text, the queue's, stays.
  EXPECT_EQ(validator.errorText().rfind("RippleWriter::validate() " + table.file(Ripple::ControlFileName), 0), 0u)
      << validator.errorText();
  EXPECT_EQ(validator.occupiedCount(), 0u);  // no walk after a failed header check
}

// The reader's two helpers for a consumer that walks all slots: the writer's
// latest sequence, read without moving, and resuming the queue above the
// sequence the walk covered.

#include <gtest/gtest.h>

#include "Ripple/RippleTesting.h"

using namespace RippleTest;
using Ripple::PruneMode;

namespace {

class RippleReaderResumeTest : public QueueTest {};

std::vector<uint32_t> slotsFrom(uint32_t first, uint32_t end) {
  std::vector<uint32_t> slots;
  for (uint32_t slot = first; slot < end; ++slot) {
    slots.push_back(slot);
  }
  return slots;
}

}  // namespace

TEST_F(RippleReaderResumeTest, LatestSequenceIsTheLastEntrysAndMovesNothing) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  ReaderFixture fixture(directory);
  EXPECT_EQ(fixture.reader.latestSequence(), 0u);  // detached
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_EQ(fixture.reader.latestSequence(), 0u);  // nothing notified yet
  for (uint32_t slot = 0; slot < 5; ++slot) {
    writer.writer.notify(slot);
  }
  EXPECT_EQ(fixture.reader.latestSequence(), 5u);
  Ripple::Notification entry{};
  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_EQ(entry.slot, 0u);
  // Across swaps (Synchronous compacts at every fill) it reads the current table.
  for (uint32_t slot = 0; slot < 1000; ++slot) {
    writer.writer.notify(slot % 7);
  }
  ASSERT_GT(writer.counters.swaps, 1u);
  EXPECT_EQ(fixture.reader.latestSequence(), writer.writer.sequence());
  EXPECT_EQ(fixture.counters.swapsSeen, 0u);
}

TEST_F(RippleReaderResumeTest, LatestSequenceFollowsATableGrownPastTheMapping) {
  WriterFixture writer(directory, PruneMode::Balanced);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  const uint32_t limit = fixture.reader.notifications(fixture.reader.tableIndex()).limit;
  for (uint32_t slot = 0; slot < 3 * Ripple::InitialCapacity; ++slot) {
    writer.writer.notify(slot);  // all live: the table doubles in place
  }
  EXPECT_EQ(fixture.reader.latestSequence(), writer.writer.sequence());
  EXPECT_GT(fixture.reader.notifications(fixture.reader.tableIndex()).limit, limit);
}

TEST_F(RippleReaderResumeTest, ResumeTakesUpTheCurrentTableAboveTheAppliedSequence) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  for (uint32_t slot = 0; slot < 100; ++slot) {
    writer.writer.notify(slot);  // slot s has sequence s + 1
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  fixture.counters.sequence = 60;  // a walk covered everything up to 60
  fixture.reader.resume();
  EXPECT_EQ(drain(fixture.reader), slotsFrom(60, 100));
  EXPECT_TRUE(fixture.reader.quiesced());
}

TEST_F(RippleReaderResumeTest, ResumeAfterSwapsTheReaderDidNotSeeLosesNothingAbove) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  for (uint32_t slot = 0; slot < 300; ++slot) {
    writer.writer.notify(slot);
  }
  // Rewrites of slots 0 to 99 fill the table; compactions drop their older
  // entries and swap, several times, while the reader stands still.
  for (uint32_t round = 0; round < 5; ++round) {
    for (uint32_t slot = 0; slot < 100; ++slot) {
      writer.writer.notify(slot);
    }
  }
  ASSERT_GT(writer.counters.swaps, 1u);
  const uint64_t covered = writer.writer.sequence() - 50;  // the last 50 rewrites come after the walk
  fixture.counters.sequence = covered;
  fixture.reader.resume();
  EXPECT_EQ(drain(fixture.reader), slotsFrom(50, 100));
  EXPECT_EQ(fixture.counters.swapsSeen, 0u);
  EXPECT_TRUE(fixture.reader.quiesced());
}

TEST_F(RippleReaderResumeTest, ResumeOnADetachedReaderDoesNothing) {
  ReaderFixture fixture(directory);
  fixture.reader.resume();
  Ripple::Notification entry{};
  EXPECT_FALSE(fixture.reader.nextEntry(entry));
}

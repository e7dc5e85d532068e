// Gaps: after a large shrink the writer leaves the live entries of the slots
// given back out of a compaction, and appends a gap entry in their place;
// the pages the tables no longer use go back to the system.

#include <sys/stat.h>

#include <filesystem>

#include <fmt/format.h>

#include <gtest/gtest.h>

#include "Ripple/RippleTesting.h"
#include "Support/TraceCapture.h"

using namespace RippleTest;
using Ripple::RIPPLE_GAP;
using Ripple::RIPPLE_TOMBSTONED;

namespace {

class RippleGapTest : public QueueTest {
 protected:
  // Notifies each of the first `slots` slots once, then gives back every slot
  // from `kept` on, as a shrink that moved nothing: the corral it opens holds
  // no entry.
  void notifyThenGiveBack(uint32_t slots, uint32_t kept) {
    for (uint32_t slot = 0; slot < slots; ++slot) {
      fixture.writer.notify(slot);
    }
    fixture.notifiee.slots = kept;
    fixture.writer.markShrinkStart();
    fixture.writer.markShrinkEnd();
  }

  // The slots of the entries a new reader meets, gaps as RIPPLE_GAP.
  std::vector<uint32_t> entriesMet() {
    ReaderFixture reader(directory);
    EXPECT_TRUE(reader.reader.attach(epochA));
    return drain(reader.reader);
  }

  // Bytes of the file that hold memory: its length without holes.
  std::size_t held(const char * name) const {
    struct stat status;
    EXPECT_EQ(stat(file(name).c_str(), &status), 0);
    return static_cast<std::size_t>(status.st_blocks) * 512;
  }

  void expectSound() {
    std::string error;
    EXPECT_TRUE(fixture.writer.validate(epochA, mostSlots, error)) << error;
  }

  WriterFixture fixture{directory};
};

std::vector<uint32_t> slotsUpTo(uint32_t count) {
  std::vector<uint32_t> slots;
  for (uint32_t slot = 0; slot < count; ++slot) {
    slots.push_back(slot);
  }
  return slots;
}

}  // namespace

TEST_F(RippleGapTest, AShrinkThatGivesBackMostNotifiedSlotsLeavesTheirEntriesOutBehindAGap) {
  notifyThenGiveBack(1000, 10);
  auto & writer = fixture.writer;
  EXPECT_EQ(fixture.counters.gaps, 1u);
  EXPECT_EQ(fixture.counters.swaps, 1u);
  EXPECT_EQ(writer.sequence(), 1001u) << "the gap takes the next sequence";
  std::vector<uint32_t> expected = slotsUpTo(10);
  expected.push_back(RIPPLE_TOMBSTONED);  // the last entry, slot 999's, kept for its sequence
  expected.push_back(RIPPLE_GAP);
  std::vector<uint32_t> slots;
  for (uint32_t position = 0; position < writer.size(); ++position) {
    slots.push_back(writer.entry(position).slot);
  }
  EXPECT_EQ(slots, expected);
  EXPECT_EQ(writer.entry(10).sequence(), 1000u);
  EXPECT_EQ(writer.entry(11).sequence(), 1001u);
  for (uint32_t slot = 10; slot < 1000; ++slot) {
    ASSERT_EQ(writer.positionOf(slot), RIPPLE_TOMBSTONED) << slot;
  }
  EXPECT_EQ(liveEntries(writer).size(), 10u);
  expectSound();
  // A reader meets the slots kept, then the gap.
  std::vector<uint32_t> met = slotsUpTo(10);
  met.push_back(RIPPLE_GAP);
  EXPECT_EQ(entriesMet(), met);
}

TEST_F(RippleGapTest, FewerGivenBackEntriesThanHalfTheLiveOnesStayAndMakeNoGap) {
  notifyThenGiveBack(1000, 600);
  EXPECT_EQ(fixture.counters.gaps, 0u);
  EXPECT_EQ(fixture.counters.swaps, 0u);
  EXPECT_EQ(liveEntries(fixture.writer).size(), 1000u);
  EXPECT_EQ(fixture.writer.positionOf(999), 999u);
  expectSound();
}

TEST_F(RippleGapTest, NoGapWhileACorralStands) {
  for (uint32_t slot = 0; slot < 1000; ++slot) {
    fixture.writer.notify(slot);
  }
  fixture.notifiee.slots = 10;
  fixture.writer.clientProgressIs("shadow", 0);  // a client behind: the corral waits for it
  fixture.writer.markShrinkStart();
  fixture.writer.notify(5);
  fixture.writer.markShrinkEnd();
  EXPECT_NE(fixture.writer.corralStart(), 0u);
  // Fills past the capacity: makeRoom compacts or grows, and leaves nothing out.
  while (fixture.counters.swaps + fixture.counters.grows == 0) {
    fixture.writer.notify(7);
  }
  EXPECT_EQ(fixture.counters.gaps, 0u);
  EXPECT_NE(fixture.writer.positionOf(999), RIPPLE_TOMBSTONED);
  expectSound();
  // The client catches up: the corral goes, and the given-back entries with it.
  fixture.writer.clientProgressIs("shadow", fixture.writer.sequence());
  EXPECT_EQ(fixture.writer.corralStart(), 0u);
  EXPECT_EQ(fixture.counters.gaps, 1u);
  EXPECT_EQ(fixture.writer.positionOf(999), RIPPLE_TOMBSTONED);
  EXPECT_FALSE(fixture.writer.quiesced()) << "the client has not met the gap yet";
  expectSound();
}

TEST_F(RippleGapTest, MakeRoomLeavesGivenBackEntriesOutInsteadOfGrowing) {
  auto & writer = fixture.writer;
  for (uint32_t slot = 0; slot < 1000; ++slot) {
    writer.notify(slot);
  }
  // Slots given back without a shrink's end (the queue learns the count only
  // when it asks): the next fill compacts, since what stays is mostly free room.
  fixture.notifiee.slots = 100;
  const uint32_t capacity = writer.capacity();
  while (writer.size() < capacity) {
    writer.notify(1);
  }
  const uint64_t grows = fixture.counters.grows;
  writer.notify(2);
  EXPECT_EQ(fixture.counters.grows, grows);
  EXPECT_EQ(fixture.counters.gaps, 1u);
  EXPECT_EQ(liveEntries(writer).size(), 100u);
  expectSound();
}

TEST_F(RippleGapTest, ASecondGapTombstonesTheFirst) {
  notifyThenGiveBack(1000, 10);
  const uint32_t firstGap = fixture.writer.size() - 1;
  for (uint32_t slot = 0; slot < 1000; ++slot) {
    fixture.writer.notify(slot);
  }
  fixture.notifiee.slots = 10;
  fixture.writer.markShrinkStart();
  fixture.writer.markShrinkEnd();
  EXPECT_EQ(fixture.counters.gaps, 2u);
  uint32_t gaps = 0;
  for (uint32_t position = 0; position < fixture.writer.size(); ++position) {
    gaps += fixture.writer.entry(position).slot == RIPPLE_GAP ? 1 : 0;
  }
  EXPECT_EQ(gaps, 1u);
  EXPECT_EQ(fixture.writer.entry(fixture.writer.size() - 1).slot, RIPPLE_GAP);
  EXPECT_NE(firstGap, fixture.writer.size() - 1);
  expectSound();
}

TEST_F(RippleGapTest, AfterASwapTheTablesHoldOnlyThePagesOfTheirEntries) {
  for (uint32_t slot = 0; slot < 100000; ++slot) {
    fixture.writer.notify(slot);
  }
  const std::size_t before = held("ripple-primary") + held("ripple-secondary");
  EXPECT_GT(before, 1000000u);
  fixture.notifiee.slots = 10;
  fixture.writer.markShrinkStart();
  fixture.writer.markShrinkEnd();
  EXPECT_EQ(fixture.counters.gaps, 1u);
  const std::size_t after = held("ripple-primary") + held("ripple-secondary");
  EXPECT_LE(after, 2u * 4096u) << "a header page and one page of entries: " << before << " -> " << after;
  // The files keep their lengths: a reader's older mapping reads zeros there.
  EXPECT_GE(std::filesystem::file_size(file("ripple-primary")), Ripple::tableFileSize(100000));
  expectSound();
  // The writer goes on in the released pages.
  for (uint32_t slot = 0; slot < 5000; ++slot) {
    fixture.writer.notify(slot % 10);
  }
  expectSound();
}

TEST_F(RippleGapTest, AQueueInSteadyUseKeepsItsPagesAcrossSwaps) {
  // A thousand slots rewritten over and over: every compaction keeps about
  // as many entries as the last, so the pages it would give back are the
  // ones the next appends fill again. None go.
  auto heldNow = [&] { return held("ripple-primary") + held("ripple-secondary"); };
  for (uint32_t round = 0; round < 10; ++round) {  // both tables in use
    for (uint32_t slot = 0; slot < 1000; ++slot) {
      fixture.writer.notify(slot);
    }
  }
  const uint64_t swaps = fixture.counters.swaps;
  ASSERT_GT(swaps, 0u);
  const std::size_t before = heldNow();
  for (uint32_t round = 0; round < 20; ++round) {
    for (uint32_t slot = 0; slot < 1000; ++slot) {
      fixture.writer.notify(slot);
      ASSERT_GE(heldNow(), before) << "round " << round << " slot " << slot;
    }
  }
  EXPECT_GT(fixture.counters.swaps, swaps + 5);
  EXPECT_EQ(heldNow(), before);
  expectSound();
}

TEST_F(RippleGapTest, ARestartKeepsTheGapAndTombstonesAnOlderOneADeathLeftLive) {
  notifyThenGiveBack(1000, 10);
  fixture.writer.notify(3);
  const uint32_t gap = fixture.writer.size() - 2;
  ASSERT_EQ(fixture.writer.entry(gap).slot, RIPPLE_GAP);
  const uint64_t sequence = fixture.writer.sequence();
  const unsigned table = fixture.writer.currentTable();
  fixture.writer.detach();
  // A writer that died inside appendGap: the new gap published, the older one still live.
  const std::string path = file(table == 0 ? "ripple-primary" : "ripple-secondary");
  const uint32_t size = at<uint32_t>(readFile(path), 8);
  const std::size_t offset = Ripple::TableHeaderSize + std::size_t{size} * Ripple::NotificationSize;
  patchValue<uint64_t>(path, offset, sequence + 1);
  patchValue<uint32_t>(path, offset + 8, RIPPLE_GAP);
  patchValue<uint32_t>(path, 8, size + 1);

  TestSupport::TraceCapture capture;
  WriterFixture restarted(directory, Ripple::PruneMode::Balanced, epochA, false, eventTraces);
  EXPECT_EQ(restarted.attachResult, 2);
  EXPECT_TRUE(capture.contains(
      fmt::format("L1 RippleWriter::attach() {} tombstoning the older gap at pos:{}", directory, gap)));
  EXPECT_EQ(restarted.writer.sequence(), sequence + 1);
  EXPECT_EQ(restarted.writer.entry(gap).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(restarted.writer.entry(size).slot, RIPPLE_GAP);
  std::string error;
  EXPECT_TRUE(restarted.writer.validate(epochA, mostSlots, error)) << error;
}

TEST_F(RippleGapTest, ALiveGapThatIsNotTheWritersIsRefusedByValidation) {
  notifyThenGiveBack(1000, 10);
  fixture.writer.notify(3);  // tombstones slot 3's entry at pos 3
  const unsigned table = fixture.writer.currentTable();
  const std::string path = file(table == 0 ? "ripple-primary" : "ripple-secondary");
  patchValue<uint32_t>(path, Ripple::TableHeaderSize + 3 * Ripple::NotificationSize + 8, RIPPLE_GAP);
  std::string error;
  EXPECT_FALSE(fixture.writer.validate(epochA, mostSlots, error));
  EXPECT_EQ(error, "RippleWriter::validate() pos:3 seq:4 is a gap, but the live gap is at pos:11");
}

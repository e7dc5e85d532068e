// The writer: appends and tombstones, making room, the corral, clients,
// attach and restart, validation and corruption.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Basalt/Exception.h"
#include "Ripple/RippleTesting.h"
#include "Support/TraceCapture.h"

using namespace RippleTest;
using Ripple::PruneMode;
using Ripple::RIPPLE_TOMBSTONED;

namespace {

class RippleWriterTest : public QueueTest {};

// Notifies `slot` until the writer's table holds `size` entries.
void fillTo(Ripple::RippleWriter & writer, uint32_t slot, uint32_t size) {
  while (writer.size() < size) {
    writer.notify(slot);
  }
}

void expectSound(const Ripple::RippleWriter & writer) {
  std::string error;
  EXPECT_TRUE(writer.validate(epochA, mostSlots, error)) << error;
}

}  // namespace

// ---------------------------------------------------------------- notify and tombstone

TEST_F(RippleWriterTest, NewQueueHasThreeFilesAndNothingInIt) {
  WriterFixture fixture(directory);
  EXPECT_EQ(fixture.attachResult, 1);
  for (const char * name : {"ripple-control", "ripple-primary", "ripple-secondary"}) {
    EXPECT_TRUE(std::filesystem::exists(file(name))) << name;
  }
  EXPECT_EQ(fixture.writer.sequence(), 0u);
  EXPECT_EQ(fixture.writer.size(), 0u);
  EXPECT_EQ(fixture.writer.capacity(), Ripple::InitialCapacity);
  EXPECT_EQ(fixture.writer.primaryMappedSize(), 4092u);
  EXPECT_EQ(fixture.writer.secondaryMappedSize(), 4092u);
  expectSound(fixture.writer);
}

TEST_F(RippleWriterTest, NotifyAppendsAndTombstonesTheSlotsOlderEntry) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  writer.notify(3);
  writer.notify(4);
  EXPECT_EQ(writer.positionOf(3), 0u);
  EXPECT_EQ(writer.positionOf(4), 1u);
  writer.notify(3);
  EXPECT_EQ(writer.sequence(), 3u);
  EXPECT_EQ(writer.size(), 3u);
  EXPECT_EQ(writer.entry(0).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.entry(0).sequence(), 1u);  // a tombstone keeps its sequence
  EXPECT_EQ(writer.entry(2).slot, 3u);
  EXPECT_EQ(writer.entry(2).sequence(), 3u);
  EXPECT_EQ(writer.positionOf(3), 2u);
  EXPECT_EQ(writer.positionOf(5), RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.positionOf(1u << 30), RIPPLE_TOMBSTONED);  // beyond the array
  EXPECT_EQ(fixture.counters.notifications, 3u);
  EXPECT_EQ(fixture.counters.tombstones, 1u);
  EXPECT_EQ(fixture.counters.sequence, 3u);
  expectSound(writer);
}

TEST_F(RippleWriterTest, TombstoneReportsWhetherTheSlotHadALiveEntry) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  writer.notify(8);
  EXPECT_TRUE(writer.tombstone(8));
  EXPECT_EQ(writer.entry(0).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.positionOf(8), RIPPLE_TOMBSTONED);
  EXPECT_FALSE(writer.tombstone(8));
  EXPECT_FALSE(writer.tombstone(9));
  writer.notify(8);  // no older entry left to tombstone
  EXPECT_EQ(fixture.counters.tombstones, 1u);
  expectSound(writer);
}

TEST_F(RippleWriterTest, NotifyRefusesWhatIsNoSlotIndex) {
  WriterFixture fixture(directory);
  EXPECT_THROW(fixture.writer.notify(RIPPLE_TOMBSTONED), Basalt::AssertException);
  EXPECT_THROW(fixture.writer.notify(0x80000000u), Basalt::AssertException);
  fixture.writer.detach();
  EXPECT_THROW(fixture.writer.notify(1), Basalt::AssertException);
}

TEST_F(RippleWriterTest, LargeSlotIndicesCostOnlyTheirPages) {
  WriterFixture fixture(directory);
  fixture.writer.notify(0x7FFFFFFFu);
  fixture.writer.notify(0x7FFFFFFFu);
  EXPECT_EQ(fixture.writer.positionOf(0x7FFFFFFFu), 1u);
  std::string error;
  EXPECT_TRUE(fixture.writer.validate(epochA, 0x80000000u, error)) << error;
}

TEST_F(RippleWriterTest, NudgeHookHearsEachSequence) {
  WriterFixture fixture(directory);
  std::vector<uint64_t> heard;
  fixture.writer.nudgeHookIs([&heard](uint64_t sequence) { heard.push_back(sequence); });
  fixture.writer.notify(1);
  fixture.writer.notify(2);
  fixture.writer.tombstone(2);
  EXPECT_EQ(heard, (std::vector<uint64_t>{1, 2}));
}

// ---------------------------------------------------------------- making room

TEST_F(RippleWriterTest, SynchronousCompactsAndSwapsWhenFull) {
  WriterFixture fixture(directory, PruneMode::Synchronous);
  auto & writer = fixture.writer;
  writer.notify(1);
  fillTo(writer, 2, Ripple::InitialCapacity);  // slot 1 and slot 2 live, the rest tombstones
  const uint32_t swapCount = writer.control()->swapCount;
  writer.notify(3);
  EXPECT_EQ(fixture.counters.swaps, 1u);
  EXPECT_EQ(writer.control()->swapCount, swapCount + 1);
  EXPECT_EQ(writer.currentTable(), Ripple::RippleTable::Secondary);
  ASSERT_EQ(writer.size(), 3u);
  EXPECT_EQ(writer.entry(0).slot, 1u);
  EXPECT_EQ(writer.entry(0).sequence(), 1u);
  EXPECT_EQ(writer.entry(1).slot, 2u);
  EXPECT_EQ(writer.entry(1).sequence(), 340u);
  EXPECT_EQ(writer.entry(2).slot, 3u);
  EXPECT_EQ(writer.entry(2).sequence(), 341u);
  EXPECT_EQ(writer.positionOf(1), 0u);
  EXPECT_EQ(writer.positionOf(2), 1u);
  EXPECT_EQ(fixture.counters.droppedEntries, 338u);
  EXPECT_EQ(writer.capacity(), Ripple::InitialCapacity);
  expectSound(writer);
}

TEST_F(RippleWriterTest, CompactionKeepsTheLastEntryEvenTombstoned) {
  WriterFixture fixture(directory, PruneMode::Synchronous);
  auto & writer = fixture.writer;
  fillTo(writer, 7, Ripple::InitialCapacity - 1);
  writer.notify(8);
  EXPECT_TRUE(writer.tombstone(8));
  writer.notify(9);
  ASSERT_EQ(writer.size(), 3u);
  EXPECT_EQ(writer.entry(0).slot, 7u);
  EXPECT_EQ(writer.entry(0).sequence(), 339u);
  EXPECT_EQ(writer.entry(1).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.entry(1).sequence(), 340u);
  EXPECT_EQ(writer.entry(2).sequence(), 341u);
  expectSound(writer);
}

TEST_F(RippleWriterTest, SynchronousWithEveryEntryLiveSwapsIntoALargerTable) {
  WriterFixture fixture(directory, PruneMode::Synchronous);
  auto & writer = fixture.writer;
  for (uint32_t slot = 0; slot < Ripple::InitialCapacity; ++slot) {
    writer.notify(slot);
  }
  writer.notify(1000);
  EXPECT_EQ(fixture.counters.swaps, 1u);
  EXPECT_EQ(fixture.counters.grows, 1u);
  EXPECT_EQ(writer.currentTable(), Ripple::RippleTable::Secondary);
  EXPECT_EQ(writer.capacity(), 2 * Ripple::InitialCapacity);
  EXPECT_EQ(writer.size(), Ripple::InitialCapacity + 1);
  EXPECT_EQ(writer.secondaryMappedSize(), Ripple::tableFileSize(2 * Ripple::InitialCapacity));
  EXPECT_EQ(liveEntries(writer).size(), Ripple::InitialCapacity + 1);
  expectSound(writer);
}

TEST_F(RippleWriterTest, BalancedGrowsInPlaceWhileMostEntriesAreLive) {
  WriterFixture fixture(directory, PruneMode::Balanced);
  auto & writer = fixture.writer;
  for (uint32_t slot = 0; slot <= Ripple::InitialCapacity; ++slot) {
    writer.notify(slot);
  }
  EXPECT_EQ(fixture.counters.swaps, 0u);
  EXPECT_EQ(fixture.counters.grows, 1u);
  EXPECT_EQ(writer.currentTable(), Ripple::RippleTable::Primary);
  EXPECT_EQ(writer.capacity(), 2 * Ripple::InitialCapacity);
  EXPECT_EQ(writer.primaryMappedSize(), Ripple::tableFileSize(2 * Ripple::InitialCapacity));
  EXPECT_EQ(std::filesystem::file_size(file("ripple-primary")), Ripple::tableFileSize(680));
  expectSound(writer);
}

TEST_F(RippleWriterTest, BalancedCompactsWhenHalfIsTombstones) {
  WriterFixture fixture(directory, PruneMode::Balanced);
  auto & writer = fixture.writer;
  for (uint32_t slot = 0; slot < Ripple::InitialCapacity / 2; ++slot) {
    writer.notify(slot);
  }
  fillTo(writer, 0, Ripple::InitialCapacity);
  writer.notify(500);
  EXPECT_EQ(fixture.counters.swaps, 1u);
  EXPECT_EQ(fixture.counters.grows, 0u);
  EXPECT_EQ(writer.size(), Ripple::InitialCapacity / 2 + 1);
  EXPECT_EQ(liveEntries(writer).size(), Ripple::InitialCapacity / 2 + 1);
  expectSound(writer);
}

// ---------------------------------------------------------------- the corral

TEST_F(RippleWriterTest, CorralWithoutClientsIsReleasedWhenTheShrinkEnds) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  writer.notify(900);  // the entry that will move
  writer.notify(10);   // its destination's older entry
  writer.markShrinkStart();
  EXPECT_EQ(writer.corralStart(), 3u);
  EXPECT_EQ(writer.corralEnd(), 0u);
  writer.notify(10);
  EXPECT_TRUE(writer.tombstone(900));
  writer.notify(900);
  writer.markShrinkEnd();
  EXPECT_EQ(writer.corralStart(), 0u);
  EXPECT_EQ(writer.corralEnd(), 0u);
  EXPECT_EQ(writer.positionOf(10), 2u);
  EXPECT_EQ(writer.positionOf(900), 3u);
  EXPECT_EQ(fixture.counters.corrals, 1u);
  EXPECT_EQ(fixture.counters.corralReleases, 1u);
  EXPECT_EQ(fixture.notifiee.shrinks, 0);  // inside the shrink: nothing was refused
  expectSound(writer);
}

TEST_F(RippleWriterTest, AShrinkThatNotifiedNothingLeavesNoCorral) {
  WriterFixture fixture(directory);
  fixture.writer.clientProgressIs("reader", 0);
  fixture.writer.markShrinkStart();
  fixture.writer.markShrinkEnd();
  EXPECT_EQ(fixture.writer.corralStart(), 0u);
  EXPECT_EQ(fixture.writer.corralEnd(), 0u);
}

TEST_F(RippleWriterTest, CorralStandsUntilEveryClientHasAppliedIt) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  writer.notify(900);
  writer.notify(10);
  writer.clientProgressIs("reader", writer.sequence());
  writer.markShrinkStart();
  writer.notify(10);  // the moved entry's new place
  EXPECT_TRUE(writer.tombstone(900));
  writer.notify(900);  // its old place, now free
  writer.markShrinkEnd();
  EXPECT_EQ(writer.corralStart(), 3u);
  EXPECT_EQ(writer.corralEnd(), 4u);
  // No RipplePos points into the corral, and nothing tombstones its entries.
  EXPECT_EQ(writer.positionOf(10), RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.positionOf(900), RIPPLE_TOMBSTONED);
  EXPECT_FALSE(writer.tombstone(900));
  writer.notify(10);
  EXPECT_EQ(writer.entry(2).slot, 10u);
  EXPECT_EQ(writer.positionOf(10), 4u);
  expectSound(writer);
  EXPECT_THROW(writer.markShrinkStart(), Basalt::AssertException);

  writer.clientProgressIs("reader", 3);
  EXPECT_EQ(writer.corralStart(), 3u);
  EXPECT_EQ(fixture.notifiee.shrinks, 0);
  writer.clientProgressIs("reader", 4);
  EXPECT_EQ(writer.corralStart(), 0u);
  EXPECT_EQ(writer.corralEnd(), 0u);
  EXPECT_EQ(fixture.notifiee.shrinks, 1);
  // Each slot has one live entry again: the later of slot 10's, the corral's of slot 900.
  EXPECT_EQ(writer.entry(2).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(writer.positionOf(10), 4u);
  EXPECT_EQ(writer.positionOf(900), 3u);
  expectSound(writer);
}

TEST_F(RippleWriterTest, LosingTheLastWaitingClientReleasesTheCorral) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  writer.clientProgressIs("slow", 0);
  writer.clientProgressIs("fast", 0);
  writer.markShrinkStart();
  writer.notify(1);
  writer.markShrinkEnd();
  writer.clientProgressIs("fast", 1);
  EXPECT_EQ(writer.corralStart(), 1u);
  writer.clientDel("slow");
  EXPECT_EQ(writer.corralStart(), 0u);
  EXPECT_EQ(fixture.notifiee.shrinks, 1);
}

TEST_F(RippleWriterTest, CompactionCarriesTheCorral) {
  WriterFixture fixture(directory, PruneMode::Synchronous);
  auto & writer = fixture.writer;
  writer.clientProgressIs("reader", 0);
  writer.markShrinkStart();
  writer.notify(10);
  writer.notify(20);
  writer.markShrinkEnd();
  fillTo(writer, 10, Ripple::InitialCapacity);
  writer.notify(30);
  EXPECT_EQ(fixture.counters.swaps, 1u);
  ASSERT_EQ(writer.size(), 4u);
  EXPECT_EQ(writer.entry(0).slot, 10u);  // the corral, whole and in order
  EXPECT_EQ(writer.entry(1).slot, 20u);
  EXPECT_EQ(writer.entry(2).slot, 10u);
  EXPECT_EQ(writer.positionOf(10), 2u);
  expectSound(writer);
}

// ---------------------------------------------------------------- clients

TEST_F(RippleWriterTest, QuiescedWhenEveryClientHasAppliedTheLatest) {
  WriterFixture fixture(directory);
  auto & writer = fixture.writer;
  EXPECT_TRUE(writer.quiesced());  // no client: nobody is behind
  writer.notify(1);
  writer.notify(2);
  EXPECT_TRUE(fixture.notifiee.reports.empty());  // notify never calls back
  writer.clientProgressIs("a", 1);
  EXPECT_FALSE(writer.quiesced());
  EXPECT_FALSE(writer.clientQuiesced("a"));
  EXPECT_FALSE(writer.clientQuiesced("unknown"));
  EXPECT_EQ(fixture.notifiee.reports, (std::vector<bool>{false}));
  writer.clientProgressIs("a", 2);
  EXPECT_TRUE(writer.quiesced());
  EXPECT_TRUE(writer.clientQuiesced("a"));
  EXPECT_EQ(fixture.notifiee.reports, (std::vector<bool>{false, true}));
  writer.clientProgressIs("a", 2);  // no change, no report
  EXPECT_EQ(fixture.notifiee.reports.size(), 2u);
}

// ---------------------------------------------------------------- attach and restart

TEST_F(RippleWriterTest, RestartWithTheSameEpochKeepsTheQueue) {
  {
    WriterFixture first(directory);
    first.writer.notify(3);
    first.writer.notify(4);
    first.writer.notify(5);
    first.writer.tombstone(5);
  }
  WriterFixture second(directory);
  auto & writer = second.writer;
  EXPECT_EQ(second.attachResult, 2);
  EXPECT_EQ(writer.sequence(), 3u);
  EXPECT_EQ(second.counters.sequence, 3u);
  EXPECT_EQ(writer.positionOf(3), 0u);
  EXPECT_EQ(writer.positionOf(4), 1u);
  EXPECT_EQ(writer.positionOf(5), RIPPLE_TOMBSTONED);
  writer.notify(3);
  EXPECT_EQ(writer.entry(3).sequence(), 4u);
  EXPECT_EQ(writer.entry(0).slot, RIPPLE_TOMBSTONED);  // the restarted writer knew slot 3's entry
  expectSound(writer);
}

TEST_F(RippleWriterTest, RestartAfterASwapContinuesOnTheCurrentTable) {
  {
    WriterFixture first(directory, PruneMode::Synchronous);
    fillTo(first.writer, 1, Ripple::InitialCapacity);
    first.writer.notify(2);
    ASSERT_EQ(first.writer.currentTable(), Ripple::RippleTable::Secondary);
  }
  WriterFixture second(directory, PruneMode::Synchronous);
  EXPECT_EQ(second.attachResult, 2);
  EXPECT_EQ(second.writer.currentTable(), Ripple::RippleTable::Secondary);
  EXPECT_EQ(second.writer.sequence(), Ripple::InitialCapacity + 1);
  EXPECT_EQ(second.writer.positionOf(2), 1u);
  expectSound(second.writer);
}

TEST_F(RippleWriterTest, AnotherEpochReformats) {
  {
    WriterFixture first(directory);
    first.writer.notify(3);
  }
  WriterFixture second(directory, PruneMode::Balanced, epochB);
  EXPECT_EQ(second.attachResult, 4);
  EXPECT_EQ(second.writer.sequence(), 0u);
  EXPECT_EQ(second.writer.size(), 0u);
  EXPECT_EQ(second.writer.positionOf(3), RIPPLE_TOMBSTONED);
  EXPECT_EQ(second.writer.epochId(), epochB);
  std::string error;
  EXPECT_TRUE(second.writer.validate(epochB, mostSlots, error)) << error;
}

TEST_F(RippleWriterTest, ReformatChangesSwapCountBeforeReusingTheTables) {
  uint32_t before;
  {
    WriterFixture first(directory);
    first.writer.notify(3);
    before = first.writer.control()->swapCount;
  }
  WriterFixture second(directory, PruneMode::Balanced, epochB);
  EXPECT_NE(second.writer.control()->swapCount, before);
  EXPECT_EQ(second.writer.control()->swapCount & 1u, 0u);
}

TEST_F(RippleWriterTest, AMissingFileReformatsTheQueue) {
  { WriterFixture first(directory); }
  std::filesystem::remove(file("ripple-secondary"));
  WriterFixture second(directory);
  EXPECT_EQ(second.attachResult, 4);
}

TEST_F(RippleWriterTest, RestartFinishesANotifyThatDiedBeforeItsTombstone) {
  {
    WriterFixture first(directory);
    first.writer.notify(3);
    first.writer.notify(4);
    first.writer.notify(3);
  }
  // As if the writer had died between publishing entry 2 and tombstoning entry 0.
  patchValue<uint32_t>(file("ripple-primary"), 12 + 8, 3);
  TestSupport::TraceCapture traces;
  WriterFixture second(directory, PruneMode::Balanced, epochA, false, eventTraces);
  EXPECT_EQ(second.attachResult, 2);
  EXPECT_EQ(second.writer.entry(0).slot, RIPPLE_TOMBSTONED);
  EXPECT_EQ(second.writer.positionOf(3), 2u);
  EXPECT_TRUE(traces.contains("L1 RippleWriter::attach() " + directory + " tombstoning pos:0 of slot:3"));
  expectSound(second.writer);
}

TEST_F(RippleWriterTest, RestartReleasesACorralLeftByTheDeadWriter) {
  {
    WriterFixture first(directory);
    first.writer.notify(10);
    first.writer.clientProgressIs("reader", 0);
    first.writer.markShrinkStart();
    first.writer.notify(10);
    first.writer.notify(11);
    // the writer dies inside the shrink: the corral stays open
  }
  WriterFixture second(directory);
  EXPECT_EQ(second.attachResult, 2);
  EXPECT_EQ(second.writer.corralStart(), 0u);
  EXPECT_EQ(second.writer.corralEnd(), 0u);
  EXPECT_EQ(second.writer.positionOf(10), 1u);
  EXPECT_EQ(second.writer.positionOf(11), 2u);
  EXPECT_EQ(second.writer.entry(0).slot, RIPPLE_TOMBSTONED);
  expectSound(second.writer);
}

TEST_F(RippleWriterTest, TableWhoseSequencesDontRiseIsReformatted) {
  {
    WriterFixture first(directory);
    first.writer.notify(3);
    first.writer.notify(4);
  }
  patchValue<uint64_t>(file("ripple-primary"), 24, 1);  // entry 1 repeats sequence 1
  TestSupport::TraceCapture traces;
  WriterFixture second(directory, PruneMode::Balanced, epochA, false, eventTraces);
  EXPECT_EQ(second.attachResult, 4);
  EXPECT_TRUE(traces.contains("L1 RippleWriter::attach() re-formatting " + directory +
                              ": RippleWriter::attach() pos:1 sequence:1 not above previous:1"));
}

TEST_F(RippleWriterTest, LocalQueueHasNoFiles) {
  WriterFixture fixture(directory, PruneMode::Synchronous, epochA, true);
  EXPECT_EQ(fixture.attachResult, 1);
  for (uint32_t round = 0; round < 1000; ++round) {
    fixture.writer.notify(round % 50);
  }
  EXPECT_GE(fixture.counters.swaps, 1u);
  EXPECT_FALSE(std::filesystem::exists(directory));
  EXPECT_NO_THROW(fixture.writer.validateFile());
  expectSound(fixture.writer);
}

TEST_F(RippleWriterTest, CleanupRemovesTheFiles) {
  WriterFixture fixture(directory);
  fixture.writer.notify(1);
  fixture.writer.cleanup();
  EXPECT_FALSE(fixture.writer.attached());
  for (const char * name : {"ripple-control", "ripple-primary", "ripple-secondary"}) {
    EXPECT_FALSE(std::filesystem::exists(file(name))) << name;
  }
  EXPECT_EQ(fixture.writer.primaryMappedSize(), 0u);
}

TEST_F(RippleWriterTest, DumpToCoreHoldsForEveryMappingAndEveryRemap) {
  WriterFixture fixture(directory, PruneMode::Balanced);
  // The VmFlags of this process's mapping of `path`: "dd" marks one left out of cores.
  auto vmFlags = [](const std::string & path) {
    std::ifstream maps("/proc/self/smaps");
    bool inMapping = false;
    for (std::string line; std::getline(maps, line);) {
      if (line.find(path) != std::string::npos) {
        inMapping = true;
      } else if (inMapping && line.rfind("VmFlags:", 0) == 0) {
        return line;
      }
    }
    return std::string("no mapping of ") + path;
  };
  EXPECT_TRUE(fixture.writer.dumpToCoreIs(false));
  for (const char * name : {"ripple-control", "ripple-primary", "ripple-secondary"}) {
    EXPECT_NE(vmFlags(file(name)).find(" dd"), std::string::npos) << name << ": " << vmFlags(file(name));
  }
  for (uint32_t slot = 0; slot <= Ripple::InitialCapacity; ++slot) {
    fixture.writer.notify(slot);  // grows and remaps the primary
  }
  ASSERT_EQ(fixture.counters.grows, 1u);
  EXPECT_NE(vmFlags(file("ripple-primary")).find(" dd"), std::string::npos) << vmFlags(file("ripple-primary"));
  EXPECT_TRUE(fixture.writer.dumpToCoreIs(true));
  EXPECT_EQ(vmFlags(file("ripple-primary")).find(" dd"), std::string::npos) << vmFlags(file("ripple-primary"));
}

TEST_F(RippleWriterTest, HeadersToStringShowsAllThree) {
  WriterFixture fixture(directory);
  fixture.writer.notify(1);
  const std::string text = fixture.writer.headersToString();
  EXPECT_NE(text.find("RippleTable " + directory), std::string::npos) << text;
  EXPECT_NE(text.find("RippleTable::Control() magic:0x4c54434c50504952 version:2 epoch:0x000010e1 "
                      "entrySize:12"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("RippleTable::Header(ripple-primary) epoch:0x000010e1 capacity:340 size:1 mapped:4092"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("RippleTable::Header(ripple-secondary) epoch:0x000010e1 capacity:340 size:0"),
            std::string::npos)
      << text;
  fixture.writer.detach();
  EXPECT_EQ(fixture.writer.headersToString(), "RippleTable " + directory + " detached");
}

// ---------------------------------------------------------------- validation and corruption

// A live entry that RipplePos doesn't point at is the deletion of a slot or a
// second live entry of it: only the table's validator, which sees whether the
// slot is occupied, can tell, and it reports it. The queue's check passes it,
// and its position count still holds: RipplePos points at the later entry.
TEST_F(RippleWriterTest, ValidateLeavesALiveEntryThatRipplePosDoesntKnowToTheTable) {
  {
    WriterFixture first(directory);
    first.writer.notify(3);
    first.writer.notify(3);
    first.writer.notify(4);
  }
  patchValue<uint32_t>(file("ripple-primary"), 12 + 8, 3);  // entry 0 live again, not at the end
  WriterFixture second(directory);
  ASSERT_EQ(second.attachResult, 2);
  EXPECT_EQ(second.writer.positionOf(3), 1u);
  std::string error;
  EXPECT_TRUE(second.writer.validate(epochA, mostSlots, error)) << error;
}

// RipplePos pointing into the corral is left to the table's validator too.
TEST_F(RippleWriterTest, ValidateLeavesRipplePosInTheCorralToTheTable) {
  WriterFixture fixture(directory);
  fixture.writer.notify(3);
  fixture.writer.notify(4);
  patchValue<uint64_t>(file("ripple-control"), 40, 2);  // corralStart on entry 1, which RipplePos names
  ASSERT_EQ(fixture.writer.corralStart(), 2u);
  std::string error;
  EXPECT_TRUE(fixture.writer.validate(epochA, mostSlots, error)) << error;
}

TEST_F(RippleWriterTest, ValidateNoticesARipplePosLeftOnATombstone) {
  WriterFixture fixture(directory);
  fixture.writer.notify(3);
  fixture.writer.notify(4);
  patchValue<uint32_t>(file("ripple-primary"), 12 + 8, RIPPLE_TOMBSTONED);  // behind the writer's back
  std::string error;
  EXPECT_FALSE(fixture.writer.validate(epochA, mostSlots, error));
  EXPECT_EQ(error, "RippleWriter::validate() ripplePos holds 2 positions for 1 live entries");
}

TEST_F(RippleWriterTest, ValidateRefusesASlotBeyondMostSlots) {
  WriterFixture fixture(directory);
  fixture.writer.notify(70);
  std::string error;
  EXPECT_FALSE(fixture.writer.validate(epochA, 64, error));
  EXPECT_EQ(error, "RippleWriter::validate() pos:0 slot:70 seq:1 beyond mostSlots:64");
  EXPECT_FALSE(fixture.writer.validate(epochB, mostSlots, error));
  EXPECT_EQ(error, "RippleWriter::validate() " + file("ripple-control") +
                       ": RippleTable::Control::validate() bad epoch:0x000010e1 wanted:0x000110e1");
}

struct Damage {
  const char * name;
  std::size_t offset;
  uint8_t byte;
  std::string message;  // after "<path>: "
};

class RippleCorruptionTest : public QueueTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(RippleCorruptionTest, DamagedControlBytesAreFoundInTheFile) {
  const Damage & damage = GetParam();
  WriterFixture fixture(directory);
  fixture.writer.notify(1);
  const std::string path = file("ripple-control");
  expectSound(fixture.writer);
  EXPECT_NO_THROW(fixture.writer.validateFile());

  patchFile(path, damage.offset, {damage.byte});
  const std::string expected = path + ": " + damage.message;
  std::string error;
  EXPECT_FALSE(fixture.writer.validate(epochA, mostSlots, error));
  EXPECT_EQ(error, "RippleWriter::validate() " + expected);
  try {
    fixture.writer.validateFile();
    ADD_FAILURE() << "validateFile passed damaged bytes";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(exception.message(), "RippleWriter::validateFile() " + expected);
  }
  fixture.writer.detach();
  EXPECT_EQ(fixture.writer.attach(epochA), 4);
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, RippleCorruptionTest,
    ::testing::Values(
        Damage{"Magic", 0, 'X', "RippleTable::Control::validate() bad magic: 4c54434c50504958"},
        Damage{"Version", 8, 9, "RippleTable::Control::validate() bad version: 9"},
        Damage{"Epoch", 14, 1, "RippleTable::Control::validate() bad epoch:0x000110e1 wanted:0x000010e1"},
        Damage{"EntrySize", 16, 16, "RippleTable::Control::validate() bad entrySize: 16"},
        Damage{"Corral", 48, 1, "RippleTable::Control::validate() bad corral corralStart:0 corralEnd:1"}),
    [](const ::testing::TestParamInfo<Damage> & info) { return std::string(info.param.name); });

TEST_F(RippleWriterTest, DamagedChecksumIsFound) {
  WriterFixture fixture(directory);
  const std::string path = file("ripple-control");
  const uint32_t hash = fixture.writer.control()->hash;
  patchValue<uint32_t>(path, 20, hash ^ 0x10000u);
  std::string error;
  EXPECT_FALSE(fixture.writer.validate(epochA, mostSlots, error));
  EXPECT_EQ(error, fmt::format("RippleWriter::validate() {}: RippleTable::Control::validate() checksum fail: "
                               "{:x} != {:x}",
                               path, hash, hash ^ 0x10000u));
  EXPECT_THROW(fixture.writer.validateFile(), Basalt::CorruptionDetectedException);
}

TEST_F(RippleWriterTest, ValidateFileFindsAMissingOrShortTable) {
  WriterFixture fixture(directory);
  std::filesystem::resize_file(file("ripple-secondary"), 100);
  try {
    fixture.writer.validateFile();
    ADD_FAILURE() << "validateFile passed a short table";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(exception.message(), "RippleWriter::validateFile() " + file("ripple-secondary") +
                                       ": RippleTable::Header::validate() bad shmem size:100 wanted:4092 for "
                                       "capacity:340");
  }
  std::filesystem::remove(file("ripple-primary"));
  try {
    fixture.writer.validateFile();
    ADD_FAILURE() << "validateFile passed a missing table";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(
        exception.message().rfind("RippleWriter::validateFile() cannot map " + file("ripple-primary"), 0), 0u)
        << exception.message();
  }
}

// The next writer mends what a writer stopped inside an operation leaves half
// made, and nothing else. Each state is made in the files exactly as the
// stopped operation's stores leave it, with WriteInProgress set as that
// operation set it; the writer that starts on them must keep the table with
// every finished entry, say at level 1 what it mended, and clear the mark.
// The same states without the mark, and states no death can leave, are
// still refused by the validator and formatted afresh.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Value = IifSizedValue;
using Writer = WriterFor<Value>;

namespace {

constexpr uint64_t Entries = 40;

// Offsets in the slot file (Cairn/SlotFormat.h).
constexpr std::size_t RuntimeFlagsAt = 162;
constexpr std::size_t OccupiedSlotsAt = 168;
constexpr std::size_t FreeSlotsAt = 172;
constexpr std::size_t SlotFlagsAt = 8;
constexpr std::size_t SlotRhashAt = 12;
constexpr std::size_t SlotValueAt = 16;

class CairnWriterRepairTest : public ::testing::Test {
 protected:
  CairnWriterRepairTest() : table(sharedDescriptor(1000), "test/repair") {}

  void SetUp() override {
    Writer & writer = table.start();
    for (uint64_t number = 0; number < Entries; ++number) {
      writer.write(Value(number, 1), true);
    }
    slotSize = Writer::SlotWriter::slotSize;
    for (uint64_t number = 0; number < Entries; ++number) {
      bool found = false;
      const Value * address = writer.lookup(NumberKey{number}, found, nullptr);
      ASSERT_TRUE(found);
      slotOf[number] = static_cast<uint32_t>(
          (reinterpret_cast<const char *>(address) - SlotValueAt -
           reinterpret_cast<const char *>(writer.slotTable().slots().base)) /
          slotSize);
    }
    epoch = writer.epochId();
    stop();
  }

  // The writer process ends; its files and its name stay for the next.
  void stop() {
    table.stop();
    Arena::WriterLock::releaseWriterLock(table.handler, table.directory());
  }

  // A writer's start on the files, with the traces of levels 0 and 1.
  Writer & restart() {
    TestSupport::TraceCapture capture;
    table.handler.maskIs(levels({0, 1}));
    Writer & writer = table.start();
    traces = tracesAt(capture, 1);
    failures = tracesAt(capture, 0);
    return writer;
  }

  bool traced(const std::string & fragment) const {
    for (const auto & line : traces) {
      if (line.find(fragment) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  FileBytes slots() const { return FileBytes(table.file("slots")); }
  std::size_t slotAt(uint32_t index) const { return SlotHeaderSize() + std::size_t{index} * slotSize; }
  std::size_t lookasideAt() const { return Cairn::SlotHeaderFixedSize; }
  std::size_t SlotHeaderSize() const { return Cairn::slotHeaderSize(slotSize); }

  void markWriteInProgress() const {
    slots().write<uint16_t>(RuntimeFlagsAt, slots().read<uint16_t>(RuntimeFlagsAt) | Cairn::WriteInProgress);
  }

  // The table holds entry `number` at `version` for each number, and nothing else.
  void expectEntries(Writer & writer, uint64_t changed = Entries, uint64_t version = 1) const {
    EXPECT_EQ(writer.members(), Entries);
    for (uint64_t number = 0; number < Entries; ++number) {
      bool found = false;
      Value value;
      writer.lookup(NumberKey{number}, found, &value);
      EXPECT_TRUE(found) << number;
      EXPECT_EQ(value, Value(number, number == changed ? version : 1)) << number;
    }
  }

  // A rewrite of `number` to version 2 stopped behind its LOOKASIDE bit: the
  // LookasideSlot finished, the slot's value half copied.
  void stopRewriteBehindLookaside(uint64_t number, uint64_t lookasideNumber) const {
    const FileBytes file = slots();
    const std::size_t slot = slotAt(slotOf.at(number));
    const Value finished(lookasideNumber, 2);
    file.write<uint32_t>(lookasideAt() + SlotRhashAt, file.read<uint32_t>(slot + SlotRhashAt));
    file.write(lookasideAt() + SlotValueAt, finished);
    file.write<uint32_t>(slot + SlotFlagsAt, file.read<uint32_t>(slot + SlotFlagsAt) + Cairn::LOOKASIDE);
    const Value half(number, 2);
    file.write<uint64_t>(slot + SlotValueAt + 8, half.version);  // the key and version stored, the fill not yet
  }

  TableHarness<Value> table;
  std::size_t slotSize = 0;
  std::map<uint64_t, uint32_t> slotOf;
  ArenaFiles::EpochId epoch;
  std::vector<std::string> traces;
  std::vector<std::string> failures;
};

TEST_F(CairnWriterRepairTest, ASoundTableMarkedInProgressIsKeptUntouched) {
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch);
  expectEntries(writer);
  EXPECT_FALSE(traced("Repair::run()")) << "nothing to mend";
  EXPECT_EQ(writer.slotTable().header()->runtimeFlags & Cairn::WriteInProgress, 0) << "the mark is cleared";
}

TEST_F(CairnWriterRepairTest, ARewriteStoppedBehindItsLookasideBitIsFinished) {
  stopRewriteBehindLookaside(7, 7);
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch) << "kept";
  expectEntries(writer, 7, 2);
  EXPECT_TRUE(traced(fmt::format("finished the rewrite of slot:{} from the LookasideSlot", slotOf.at(7))));
  EXPECT_EQ(writer.ripple().positionOf(slotOf.at(7)), writer.ripple().size() - 1) << "notified last";
  EXPECT_TRUE(writer.validate());
  EXPECT_EQ(writer.slotTable().header()->runtimeFlags & Cairn::WriteInProgress, 0);
}

TEST_F(CairnWriterRepairTest, AStuckLookasideBitWithoutTheMarkIsStillRefused) {
  stopRewriteBehindLookaside(7, 7);
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch.reformatted());
  EXPECT_EQ(writer.members(), 0u);
  EXPECT_FALSE(traced("Repair::run()"));
  bool refused = false;
  for (const auto & line : failures) {
    refused = refused || line.find("stuck LOOKASIDE bit") != std::string::npos;
  }
  EXPECT_TRUE(refused);
}

TEST_F(CairnWriterRepairTest, ALookasideSlotOfAnotherKeyIsLeftToTheValidator) {
  stopRewriteBehindLookaside(7, 8);
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch.reformatted());
  EXPECT_TRUE(traced(fmt::format("slot:{} has LOOKASIDE set and the LookasideSlot holds another key", slotOf.at(7))));
}

TEST_F(CairnWriterRepairTest, AnOccupiedCountAStepBehindIsRecounted) {
  slots().write<uint32_t>(OccupiedSlotsAt, Entries - 1);  // a remove stopped before its count
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch);
  expectEntries(writer);
  EXPECT_TRUE(traced(fmt::format("occupiedSlots:{} -> {}", Entries - 1, Entries)));
  EXPECT_TRUE(writer.validate());
}

TEST_F(CairnWriterRepairTest, FreeSlotsOnNoListGoBackOnTheFreeList) {
  const uint32_t capacity = FileBytes(table.file("slots")).read<uint32_t>(188);
  slots().write<uint32_t>(FreeSlotsAt, Cairn::NoFreeSlot);  // a shrink's purge, stopped with the list cut
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch);
  expectEntries(writer);
  EXPECT_TRUE(traced(fmt::format("threaded the free list anew through the {} slots no chain reaches (0 held",
                                 capacity - Entries)));
  EXPECT_TRUE(writer.validate());
  for (uint64_t number = Entries; number < capacity; ++number) {
    writer.write(Value(number, 1), true);  // every slot can be had again
  }
  EXPECT_EQ(writer.capacity(), capacity);
}

TEST_F(CairnWriterRepairTest, AnEntryUnlinkedAndNotFreedGoesBackOnTheFreeListAndIsNotified) {
  // A remove of 5 stopped after its unlink: the slot keeps OCCUPIED and its
  // link, and no chain reaches it. Made here by hiding the slot behind
  // another slot's index: the link that led to it now leads past it.
  Writer & writer = table.start();
  Value removed;
  ASSERT_TRUE(writer.remove(NumberKey{5}, removed));
  const uint32_t index = slotOf.at(5);
  stop();
  const FileBytes file = slots();
  // The free list's head is the removed slot (pushFree): take it off the
  // list again and give it back its flags as the unlink left them.
  ASSERT_EQ(file.read<uint32_t>(FreeSlotsAt), index);
  file.write<uint32_t>(FreeSlotsAt, file.read<uint32_t>(slotAt(index) + 4));
  file.write<uint32_t>(slotAt(index) + SlotFlagsAt, file.read<uint32_t>(slotAt(index) + SlotFlagsAt) | Cairn::OCCUPIED);
  file.write<uint32_t>(OccupiedSlotsAt, Entries);
  markWriteInProgress();
  Writer & restarted = restart();
  EXPECT_EQ(restarted.epochId(), epoch);
  EXPECT_EQ(restarted.members(), Entries - 1);
  bool found = true;
  restarted.lookup(NumberKey{5}, found, nullptr);
  EXPECT_FALSE(found);
  EXPECT_TRUE(traced(fmt::format("(1 held an unreachable entry), occupiedSlots:{} -> {}", Entries, Entries - 1)));
  EXPECT_EQ(restarted.ripple().positionOf(index), restarted.ripple().size() - 1) << "its end is notified";
  EXPECT_TRUE(restarted.validate());
}

// A writer that kills its own process right before it would publish a new
// entry: the slot is whole, off the free list and linked to nothing.
class WriterDyingBeforePublish : public Writer {
 public:
  using Writer::Writer;

 protected:
  void beforePublish(uint32_t) override { raise(SIGKILL); }
};

TEST_F(CairnWriterRepairTest, ASlotTakenForAnInsertAndNeverLinkedGoesBack) {
  const pid_t child = fork();
  if (child == 0) {
    Basalt::Platform::DebugHandler handler("dying-writer");
    WriterDyingBeforePublish writer(handler, table.name, table.descriptor, OpsFor<Value>(), "TestClass",
                                    [](bool) {});
    writer.initialize(table.name);
    writer.write(Value(Entries, 1), true);
    _exit(1);  // never here: the insert kills the process
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch);
  expectEntries(writer);
  bool found = true;
  writer.lookup(NumberKey{Entries}, found, nullptr);
  EXPECT_FALSE(found) << "the insert never finished";
  EXPECT_TRUE(traced(fmt::format("(1 held an unreachable entry), occupiedSlots:{} -> {}", Entries + 1, Entries)));
  EXPECT_TRUE(writer.validate());
}

TEST_F(CairnWriterRepairTest, ABrokenChainIsNoDeathStateAndIsRefused) {
  // A chain link that leads out of the table: nothing a writer's stores make.
  slots().write<uint32_t>(slotAt(slotOf.at(3)) + 4, 0x7FFFFFF0u);
  markWriteInProgress();
  Writer & writer = restart();
  EXPECT_EQ(writer.epochId(), epoch.reformatted());
  EXPECT_TRUE(traced("cannot repair"));
}

}  // namespace

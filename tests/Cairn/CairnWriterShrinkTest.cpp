// A table that empties gives the top of its slot file back: the entries
// above the new end move down to free slots below it, and numSlots falls.
// These tests take the writer through the thresholds that decide when and
// how far a table shrinks, the queue's corral that holds a shrink back, the
// move of one entry, and a reader that follows the count down.

#include <sys/stat.h>

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

#include "Cairn/CairnReader.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;

namespace {

using Iif = IifSizedValue;        // 64-byte slots: a new table has 32
using Tunnel = TunnelSizedValue;  // 240-byte slots: a new table has 8

Cairn::MapDescriptor shrinkingDescriptor(uint32_t maxSlots) {
  auto descriptor = sharedDescriptor(maxSlots);
  descriptor.shrinkSlots = true;
  return descriptor;
}

template <typename Value>
class Table {
 public:
  explicit Table(const Cairn::MapDescriptor & descriptor) : harness(descriptor) {}

  WriterFor<Value> & writer() { return *harness.writer; }
  Cairn::Writer::Counters counters() { return writer().writerCounters(); }

  void fill(uint64_t from, uint64_t to) {
    for (uint64_t number = from; number < to; ++number) {
      writer().write(Value(number, number + 1), true);
    }
  }
  void remove(uint64_t number) {
    Value removed;
    ASSERT_TRUE(writer().remove(NumberKey{number}, removed)) << number;
    ASSERT_EQ(removed, Value(number, number + 1));
  }
  // Removes the keys of `keys` that are there, in its order, until `members` remain.
  void removeDownTo(const std::vector<uint64_t> & keys, uint32_t members) {
    for (uint64_t number : keys) {
      if (writer().members() == members) {
        return;
      }
      Value removed;
      if (writer().remove(NumberKey{number}, removed)) {
        ASSERT_EQ(removed, Value(number, number + 1));
      }
    }
  }

  // The slot that holds the key now, found by a lookup.
  uint32_t slotOf(uint64_t number) {
    bool found = false;
    const auto * address = writer().lookup(NumberKey{number}, found, nullptr);
    EXPECT_TRUE(found) << number;
    const auto * base = reinterpret_cast<const char *>(writer().slotTable().slots().base);
    return static_cast<uint32_t>((reinterpret_cast<const char *>(address) - Cairn::SlotPrefixSize - base) /
                                 WriterFor<Value>::SlotWriter::slotSize);
  }

  // Every key of `keys` is found with its value, and nothing else is there.
  void expectHolds(const std::set<uint64_t> & keys) {
    for (uint64_t number : keys) {
      bool found = false;
      Value out;
      writer().lookup(NumberKey{number}, found, &out);
      ASSERT_TRUE(found) << number;
      EXPECT_EQ(out, Value(number, number + 1));
    }
    EXPECT_EQ(writer().members(), keys.size());
    EXPECT_TRUE(writer().validate());
  }

  WriterHarness<Value> harness;
};

std::vector<uint64_t> numbers(uint64_t from, uint64_t to) {
  std::vector<uint64_t> all;
  for (uint64_t number = from; number < to; ++number) {
    all.push_back(number);
  }
  return all;
}

std::set<uint64_t> keySet(uint64_t from, uint64_t to) {
  const auto all = numbers(from, to);
  return {all.begin(), all.end()};
}

// The level-5 decisions of doMaybeShrinkSlots among `traces`.
std::vector<std::string> shrinkDecisions(const TestSupport::TraceCapture & traces) {
  std::vector<std::string> lines;
  for (const auto & line : tracesAt(traces, 5)) {
    if (line.rfind("CairnWriter::doMaybeShrinkSlots() ", 0) == 0) {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace

TEST(CairnWriterShrink, ATableAtItsFirstSizeAFixedTableAndOneWithShrinkingOffNeverShrink) {
  Table<Tunnel> first(shrinkingDescriptor(1000));
  EXPECT_EQ(first.writer().capacity(), 8u);
  EXPECT_EQ(first.writer().slotTable().shrinkThresholdValue(), 0u);
  first.fill(0, 3);
  first.removeDownTo(numbers(0, 3), 0);
  first.writer().shrink();
  EXPECT_EQ(first.writer().capacity(), 8u);

  auto fixedDescriptor = shrinkingDescriptor(64);
  fixedDescriptor.fixedSize = true;
  Table<Iif> fixed(fixedDescriptor);
  fixed.fill(0, 60);
  EXPECT_EQ(fixed.writer().slotTable().shrinkThresholdValue(), 0u);
  fixed.removeDownTo(numbers(0, 60), 0);
  fixed.writer().shrink();
  EXPECT_EQ(fixed.writer().capacity(), 64u);

  Table<Iif> off(sharedDescriptor(1000));
  off.fill(0, 100);
  EXPECT_EQ(off.writer().capacity(), 128u);
  EXPECT_EQ(off.writer().slotTable().shrinkThresholdValue(), 0u);
  off.removeDownTo(numbers(0, 100), 0);
  off.writer().shrink();
  EXPECT_EQ(off.writer().capacity(), 128u);

  for (auto counters : {first.counters(), fixed.counters(), off.counters()}) {
    EXPECT_EQ(counters.slotShrinks, 0u);
    EXPECT_EQ(counters.slotMoves, 0u);
  }
}

// 2048 slots, shrinkThreshold_ 1024: the remove that leaves 511 entries
// shrinks to 4 x 256 = 1024 slots, the threshold itself.
TEST(CairnWriterShrink, TheRemoveDownTo511EntriesOf2048SlotsShrinksTo1024) {
  Table<Iif> table(shrinkingDescriptor(4096));
  table.fill(0, 1100);
  auto & writer = table.writer();
  ASSERT_EQ(writer.capacity(), 2048u);
  ASSERT_EQ(writer.slotTable().shrinkThresholdValue(), 1024u);
  const auto order = numbers(0, 1100);
  table.removeDownTo(order, 600);
  table.removeDownTo(order, 512);
  EXPECT_EQ(writer.capacity(), 2048u) << "512 entries is not below half the threshold";
  const uint64_t next = 1100 - 512;  // the next key of `order` to go
  uint32_t above = 0;                // entries that the shrink must move
  for (uint64_t number = next + 1; number < 1100; ++number) {
    above += table.slotOf(number) >= 1024 ? 1 : 0;
  }
  ASSERT_GT(above, 0u);

  writer.debugHandler().maskIs(levels({2, 5}));
  TestSupport::TraceCapture traces;
  table.remove(next);
  writer.debugHandler().maskIs(0);

  EXPECT_EQ(writer.capacity(), 1024u);
  EXPECT_EQ(writer.slotTable().header()->numSlots.load().value, 1024u);
  EXPECT_EQ(writer.slotTable().header()->mostSlots, 2048u);
  EXPECT_EQ(writer.slotTable().shrinkThresholdValue(), 512u);
  EXPECT_EQ(shrinkDecisions(traces),
            (std::vector<std::string>{"CairnWriter::doMaybeShrinkSlots() threshold:1024 shrinkThreshold:1024",
                                      "CairnWriter::doMaybeShrinkSlots() at threshold:1024 done"}));
  EXPECT_FALSE(traces.contains("SUPER SHRINK!"));
  const std::string grew = fmt::format("L2 SlotWriter::shrink() {} from ", writer.rootPath().toString());
  EXPECT_TRUE(traces.contains(grew)) << grew;
  EXPECT_EQ(table.counters().slotShrinks, 1u);
  EXPECT_EQ(table.counters().slotMoves, above);
  table.expectHolds(keySet(next + 1, 1100));
}

// A reader of the queue that lags behind keeps the corral of the first shrink
// open: the shrinks asked for meanwhile are ignored, and when the reader
// catches up the queue asks again, by then from 5 entries: 4 x 4 = 16 slots,
// far below the threshold of 1024.
TEST(CairnWriterShrink, AShrinkHeldBackByTheCorralGoesFarBelowTheThresholdOnceReleased) {
  Table<Tunnel> table(shrinkingDescriptor(8192));
  table.fill(0, 2100);
  auto & writer = table.writer();
  ASSERT_EQ(writer.capacity(), 4096u);
  queueOf(writer).clientProgressIs("lagging-reader", writer.sequence());
  const auto order = numbers(0, 2100);
  table.removeDownTo(order, 1023);
  ASSERT_EQ(writer.capacity(), 2048u) << "the first shrink: 4 x 512";
  ASSERT_NE(writer.ripple().corralStart(), 0u) << "the reader hasn't applied the shrink's notifications";

  writer.debugHandler().maskIs(levels({5}));
  TestSupport::TraceCapture held;
  table.removeDownTo(order, 5);
  writer.debugHandler().maskIs(0);
  EXPECT_EQ(writer.capacity(), 2048u);
  const auto ignored = shrinkDecisions(held);
  ASSERT_EQ(ignored.size(), 507u) << "one for each remove that leaves 511 entries, 510, and so on down to 5";
  for (const auto & line : ignored) {
    EXPECT_EQ(line, "CairnWriter::doMaybeShrinkSlots() shrink started, ignoring shrinkThreshold:1024");
  }

  writer.debugHandler().maskIs(levels({5}));
  TestSupport::TraceCapture released;
  queueOf(writer).clientProgressIs("lagging-reader", writer.sequence());
  writer.debugHandler().maskIs(0);
  EXPECT_EQ(shrinkDecisions(released),
            (std::vector<std::string>{
                "CairnWriter::doMaybeShrinkSlots() threshold:16 shrinkThreshold:1024 SUPER SHRINK!",
                "CairnWriter::doMaybeShrinkSlots() at threshold:16 done"}));
  EXPECT_EQ(writer.capacity(), 16u);
  EXPECT_EQ(table.counters().slotShrinks, 2u);
  table.expectHolds(keySet(2095, 2100));
}

// With the last entry gone the base is 0: the table goes back to minSlots,
// and there is nothing to move.
TEST(CairnWriterShrink, RemovingTheLastEntryGoesBackToTheFirstSizeAndMovesNothing) {
  Table<Iif> table(shrinkingDescriptor(1000));
  table.fill(0, 100);
  auto & writer = table.writer();
  ASSERT_EQ(writer.capacity(), 128u);
  // A corral of the test's own holds every shrink back until one entry is left.
  queueOf(writer).markShrinkStart();
  table.removeDownTo(numbers(0, 100), 1);
  queueOf(writer).markShrinkEnd();
  ASSERT_EQ(writer.ripple().corralStart(), 0u) << "no client: released at once";
  ASSERT_EQ(writer.capacity(), 128u);

  writer.debugHandler().maskIs(levels({5}));
  TestSupport::TraceCapture traces;
  table.remove(99);
  writer.debugHandler().maskIs(0);
  EXPECT_EQ(shrinkDecisions(traces),
            (std::vector<std::string>{"CairnWriter::doMaybeShrinkSlots() threshold:32 shrinkThreshold:64 SUPER SHRINK!",
                                      "CairnWriter::doMaybeShrinkSlots() at threshold:32 done"}));
  EXPECT_EQ(writer.capacity(), writer.minSize());
  EXPECT_EQ(writer.slotTable().shrinkThresholdValue(), 0u);
  EXPECT_EQ(table.counters().slotShrinks, 1u);
  EXPECT_EQ(table.counters().slotMoves, 0u);
  table.expectHolds({});
  table.fill(0, 40);  // and it grows again from there
  EXPECT_EQ(writer.capacity(), 64u);
  table.expectHolds(keySet(0, 40));
}

// Keys 0..99 in slots 0..99. With keys 0..30 and 64 left, the remove of key
// 30 leaves 31 entries: the target is 64, the free list's head is slot 30,
// and the one entry above the target, in slot 64, moves there.
TEST(CairnWriterShrink, TheEntryJustAboveTheTargetMovesToTheFreeListsHeadAndIsFoundAtOnce) {
  Table<Iif> table(shrinkingDescriptor(1000));
  table.fill(0, 100);
  auto & writer = table.writer();
  for (uint64_t number : {0u, 30u, 64u, 99u}) {
    ASSERT_EQ(table.slotOf(number), number);
  }
  std::vector<uint64_t> others = numbers(31, 100);
  others.erase(std::find(others.begin(), others.end(), 64u));
  table.removeDownTo(others, 32);
  ASSERT_EQ(writer.capacity(), 128u);

  writer.debugHandler().maskIs(levels({9}));
  TestSupport::TraceCapture traces;
  table.remove(30);
  writer.debugHandler().maskIs(0);
  EXPECT_EQ(writer.capacity(), 64u);
  std::vector<std::string> moves;
  for (const auto & line : tracesAt(traces, 9)) {
    if (line.rfind("CairnWriter::doMaybeShrinkSlots() moving", 0) == 0) {
      moves.push_back(line);
    }
  }
  EXPECT_EQ(moves, std::vector<std::string>{"CairnWriter::doMaybeShrinkSlots() moving fromSlot:64 toSlot:30"});
  EXPECT_EQ(table.slotOf(64), 30u);
  EXPECT_EQ(table.counters().slotMoves, 1u);
  auto expected = keySet(0, 30);
  expected.insert(64);
  table.expectHolds(expected);
}

TEST(CairnWriterShrink, ShrinkWithMoreThanHalfTheThresholdOccupiedDoesNothing) {
  Table<Iif> table(shrinkingDescriptor(1000));
  table.fill(0, 100);
  auto & writer = table.writer();
  table.removeDownTo(numbers(0, 100), 40);
  writer.shrink();
  table.removeDownTo(numbers(0, 100), 32);
  writer.shrink();
  EXPECT_EQ(writer.capacity(), 128u);
  EXPECT_EQ(table.counters().slotShrinks, 0u);
  table.removeDownTo(numbers(0, 100), 31);
  EXPECT_EQ(writer.capacity(), 64u);
  EXPECT_EQ(table.counters().slotShrinks, 1u);
}

// Each moved entry is notified at its new place, then its old place, inside
// the shrink's corral; a slot the queue still had a live entry for is
// tombstoned first. The validator agrees with the queue afterwards.
TEST(CairnWriterShrink, TheQueueHearsOfEachMoveNewPlaceFirst) {
  Table<Iif> table(shrinkingDescriptor(1000));
  table.fill(0, 100);
  auto & writer = table.writer();
  std::vector<uint64_t> others = numbers(31, 100);
  others.erase(std::find(others.begin(), others.end(), 64u));
  table.removeDownTo(others, 32);
  const uint64_t before = writer.sequence();
  const uint64_t corrals = table.counters().corrals;
  table.remove(30);
  // The remove's own notification, then slot 30 and slot 64 for the move.
  EXPECT_EQ(writer.sequence(), before + 3);
  EXPECT_EQ(table.counters().corrals, corrals + 1);
  const auto & queue = writer.ripple();
  const uint32_t last = queue.size() - 1;
  EXPECT_EQ(queue.entry(last - 1).slot, 30u);
  EXPECT_EQ(queue.entry(last).slot, 64u);
  EXPECT_EQ(queue.corralStart(), 0u) << "no client: released at the shrink's end";
  EXPECT_TRUE(writer.validate());
}

// A reader of the table finds every key while the writer shrinks, and its
// mapping follows the count down at its next operation. The file keeps its
// length for readers that haven't followed yet, but its tail holds no memory.
TEST(CairnWriterShrink, AReaderFollowsTheCountDownAndTheFileGivesItsTailBack) {
  Table<Iif> table(shrinkingDescriptor(100000));
  auto & writer = table.writer();
  const std::size_t emptyHeld = writer.slotTable().wrapper().allocatedSize();
  Cairn::CairnReader<NumberKey, Iif, OpsFor<Iif>> reader(table.harness.handler, "test/writer", OpsFor<Iif>());
  ASSERT_TRUE(reader.initialize("test"));
  table.fill(0, 20000);
  const uint32_t grown = writer.capacity();
  const auto lookupAll = [&](uint64_t from, uint64_t to) {
    for (uint64_t number = from; number < to; ++number) {
      bool found = false;
      Iif out;
      reader.lookup(NumberKey{number}, found, &out);
      ASSERT_TRUE(found) << number;
      ASSERT_EQ(out, Iif(number, number + 1));
    }
  };
  lookupAll(0, 20000);
  EXPECT_EQ(reader.capacity(), grown);
  const auto & wrapper = writer.slotTable().wrapper();
  const std::size_t fullLength = wrapper.fileSize();
  const std::size_t fullHeld = wrapper.allocatedSize();

  table.removeDownTo(numbers(0, 20000), 10);
  lookupAll(19990, 20000);
  EXPECT_EQ(writer.capacity(), 32u);
  EXPECT_EQ(reader.capacity(), 32u);
  EXPECT_EQ(reader.readerCounters().slotMappedSize, wrapper.memSize());
  EXPECT_EQ(wrapper.fileSize(), fullLength) << "the file keeps its length";
  EXPECT_LE(wrapper.allocatedSize(), 2 * emptyHeld) << "held when full: " << fullHeld;
  EXPECT_GT(table.counters().slotShrinks, 1u);
  table.expectHolds(keySet(19990, 20000));
}

TEST(CairnWriterShrink, ATableInLocalMemoryShrinksToo) {
  auto descriptor = shrinkingDescriptor(1000);
  descriptor.localMem = true;
  Table<Iif> table(descriptor);
  table.fill(0, 500);
  table.removeDownTo(numbers(0, 500), 3);
  EXPECT_EQ(table.writer().capacity(), 32u);
  EXPECT_LE(table.writer().slotTable().wrapper().memSize(), Arena::pageSize_);
  table.expectHolds(keySet(497, 500));
}

// The occupancy bins of a shadow's slots: bins by index, the bit of each
// occupied bin, and largestOccupied as a size the writer's growing table
// takes, so that a shadow can shrink level with it.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "Arena/Memory.h"
#include "Cairn/SlotCounters.h"
#include "Cairn/SlotFormat.h"

namespace {

class SlotCountersTest : public ::testing::Test {
 protected:
  Basalt::Platform::DebugHandler handler_{"slot-counters-test"};
};

TEST_F(SlotCountersTest, ShiftIsTheLogarithmOfTheWritersFirstSize) {
  EXPECT_EQ(Cairn::SlotCounters(handler_, 0).shift, 0u);
  EXPECT_EQ(Cairn::SlotCounters(handler_, 1).shift, 0u);
  EXPECT_EQ(Cairn::SlotCounters(handler_, 64).shift, 6u);
  EXPECT_EQ(Cairn::SlotCounters(handler_, 100).shift, 6u);
  EXPECT_EQ(Cairn::SlotCounters(handler_, 127).shift, 6u);
  EXPECT_EQ(Cairn::SlotCounters(handler_, 128).shift, 7u);
}

TEST_F(SlotCountersTest, FirstPageSlotsAgreeWithTheWritersFirstSize) {
  for (std::size_t slotSize : {16u, 56u, 64u, 72u, 240u, 1000u, 3904u, 4000u, 8192u}) {
    const unsigned firstPage = Cairn::SlotCounters::firstPageSlotsFor(Arena::pageSize_, slotSize);
    const uint32_t minSlots = Cairn::minSlotsFor(Arena::pageSize_, slotSize);
    Cairn::SlotCounters counters(handler_, firstPage);
    EXPECT_EQ(uint32_t{1} << counters.shift, minSlots) << "slot size " << slotSize;
    counters.add(0);
    EXPECT_EQ(counters.largestOccupied(), minSlots) << "slot size " << slotSize;
  }
  EXPECT_EQ(Cairn::SlotCounters::firstPageSlotsFor(4096, 4096 - 192), 0u) << "the header fills the page";
}

TEST_F(SlotCountersTest, BinsCountIndicesByRange) {
  Cairn::SlotCounters counters(handler_, 64);
  EXPECT_EQ(counters.binOf(0), 0u);
  EXPECT_EQ(counters.binOf(63), 0u);
  EXPECT_EQ(counters.binOf(64), 1u);
  EXPECT_EQ(counters.binOf(127), 1u);
  EXPECT_EQ(counters.binOf(128), 2u);
  EXPECT_EQ(counters.binOf(255), 2u);
  EXPECT_EQ(counters.binOf(256), 3u);
  EXPECT_EQ(counters.binOf(0xFFFFFFFE), 26u);
  counters.add(5);
  counters.add(70);
  counters.add(71);
  EXPECT_EQ(counters.bins[0], 1u);
  EXPECT_EQ(counters.bins[1], 2u);
  EXPECT_EQ(counters.occupiedBins, 0b11u);
  counters.drop(70);
  EXPECT_EQ(counters.occupiedBins, 0b11u);
  counters.drop(71);
  EXPECT_EQ(counters.bins[1], 0u);
  EXPECT_EQ(counters.occupiedBins, 0b1u);
}

TEST_F(SlotCountersTest, LargestOccupiedIsZeroWhenEmpty) {
  Cairn::SlotCounters counters(handler_, 64);
  EXPECT_EQ(counters.largestOccupied(), 0u);
  counters.add(3);
  counters.drop(3);
  EXPECT_EQ(counters.largestOccupied(), 0u);
}

// A growing writer table starts at 64 slots here and doubles. Whatever its
// highest occupied slot, largestOccupied is the smallest such size above it.
TEST_F(SlotCountersTest, LargestOccupiedIsTheSmallestWriterSizeAboveEveryIndex) {
  Cairn::SlotCounters counters(handler_, 100);
  std::vector<uint32_t> sizes;
  for (uint64_t size = 64; size <= (uint64_t{1} << 31); size *= 2) {
    sizes.push_back(static_cast<uint32_t>(size));
  }
  for (uint32_t index : {0u, 1u, 63u, 64u, 65u, 127u, 128u, 1000u, 4095u, 4096u, 1u << 20, (1u << 31) - 1}) {
    counters.add(index);
    const uint32_t largest = counters.largestOccupied();
    EXPECT_GT(largest, index);
    uint32_t expected = 0;
    for (uint32_t size : sizes) {
      if (size > index) {
        expected = size;
        break;
      }
    }
    EXPECT_EQ(largest, expected) << "index " << index;
    counters.drop(index);
  }
  // The highest bin decides, however many lower ones are occupied.
  counters.add(10);
  counters.add(300);
  counters.add(20);
  EXPECT_EQ(counters.largestOccupied(), 512u);
}

TEST_F(SlotCountersTest, TheTopIndicesShareTheTopBinAndItsEndIsTheLargestCount) {
  Cairn::SlotCounters counters(handler_, 0);
  EXPECT_EQ(counters.binOf(0x40000000), 31u);
  EXPECT_EQ(counters.binOf(0xFFFFFFFE), 31u);
  counters.add(0xFFFFFFFE);
  EXPECT_EQ(counters.largestOccupied(), std::numeric_limits<uint32_t>::max());
  Cairn::SlotCounters shifted(handler_, 2);
  shifted.add(0xFFFFFFFE);
  EXPECT_EQ(shifted.binOf(0xFFFFFFFE), 31u);
  EXPECT_EQ(shifted.largestOccupied(), std::numeric_limits<uint32_t>::max());
  shifted.drop(0xFFFFFFFE);
  shifted.add(0x7FFFFFFF);
  EXPECT_EQ(shifted.largestOccupied(), 0x80000000u);
}

}  // namespace

// The writer's per-slot positions: a zeroed record says "no entry", the array
// grows to cover a slot it is told of, and releaseFrom gives back the memory
// of records that all say "no entry" without changing an answer.

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Ripple/RipplePos.h"

using Ripple::PositionArray;
using Ripple::RIPPLE_TOMBSTONED;

namespace {

// The process's resident memory in bytes (/proc/self/status, VmRSS in kB).
std::size_t residentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::stoull(line.substr(6)) * 1024;
    }
  }
  return 0;
}

class PositionArrayTest : public ::testing::Test {
 protected:
  Basalt::Platform::DebugHandler handler{"ripple-pos"};
  PositionArray positions{handler};
};

}  // namespace

TEST_F(PositionArrayTest, SlotsBeyondTheArrayAndZeroedRecordsHaveNoEntry) {
  EXPECT_EQ(positions.at(0), RIPPLE_TOMBSTONED);
  positions.set(5000, 7);
  EXPECT_GE(positions.count(), 5001u);
  EXPECT_EQ(positions.at(5000), 7u);
  EXPECT_EQ(positions.at(4999), RIPPLE_TOMBSTONED);
  EXPECT_EQ(positions.at(positions.count()), RIPPLE_TOMBSTONED);
  EXPECT_EQ(positions.pointing(), 1u);
  positions.set(5000, RIPPLE_TOMBSTONED);
  EXPECT_EQ(positions.pointing(), 0u);
}

TEST_F(PositionArrayTest, ReleaseFromGivesTheMemoryBackAndChangesNoAnswer) {
  constexpr uint32_t slots = 16u << 20;  // 64 MiB of records
  constexpr uint32_t kept = 100;
  // One record in each page, so that every page is touched.
  for (uint32_t slot = 0; slot < slots; slot += 1024) {
    positions.set(slot, slot / 1024);
  }
  for (uint32_t slot = 0; slot < kept; ++slot) {
    positions.set(slot, slot);
  }
  for (uint32_t slot = 1024; slot < slots; slot += 1024) {
    positions.set(slot, RIPPLE_TOMBSTONED);
  }
  const std::size_t before = residentBytes();
  positions.releaseFrom(kept);
  const std::size_t after = residentBytes();
  EXPECT_GE(before - after, 60u << 20) << before << " -> " << after;
  for (uint32_t slot = 0; slot < kept; ++slot) {
    ASSERT_EQ(positions.at(slot), slot);
  }
  for (uint32_t slot = kept; slot < slots; slot += 97) {
    ASSERT_EQ(positions.at(slot), RIPPLE_TOMBSTONED) << slot;
  }
  EXPECT_EQ(positions.pointing(), kept);
  positions.set(slots - 1, 3);
  EXPECT_EQ(positions.at(slots - 1), 3u);
  positions.releaseFrom(positions.count());  // nothing to give back
  EXPECT_EQ(positions.at(slots - 1), 3u);
}

// One live entry per slot, whatever the order of notifications, tombstones,
// compactions, growths and restarts: the writer checked against a model.

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Ripple/RippleTesting.h"

using namespace RippleTest;
using Ripple::PruneMode;

namespace {

class RipplePropertyTest : public QueueTest, public ::testing::WithParamInterface<PruneMode> {};

}  // namespace

TEST_P(RipplePropertyTest, OneLiveEntryPerSlotAfterRandomOperations) {
  WriterFixture fixture(directory, GetParam());
  auto & writer = fixture.writer;
  std::mt19937 random(20240611);
  std::map<uint32_t, uint64_t> model;  // slot -> sequence of its live entry
  uint64_t sequence = 0;
  constexpr int operations = 100000;
  for (int operation = 0; operation < operations; ++operation) {
    // A few hot slots most of the time, a long tail now and then: many
    // tombstones, and a live set that makes the tables grow.
    const uint32_t slot = random() % 4 == 0 ? random() % 5000 : random() % 64;
    const unsigned kind = random() % 1000;
    if (kind < 750) {
      writer.notify(slot);
      model[slot] = ++sequence;
    } else if (kind < 998) {
      ASSERT_EQ(writer.tombstone(slot), model.erase(slot) == 1) << "operation " << operation;
    } else {
      writer.detach();  // a restart keeps the queue and finds every live entry again
      ASSERT_EQ(writer.attach(epochA), 2) << "operation " << operation;
    }
    if (operation % 1000 == 999) {
      ASSERT_EQ(liveEntries(writer), model) << "operation " << operation;
      std::string error;
      ASSERT_TRUE(writer.validate(epochA, mostSlots, error)) << error;
    }
  }
  EXPECT_EQ(writer.sequence(), sequence);
  EXPECT_GT(fixture.counters.swaps, 0u);
}

INSTANTIATE_TEST_SUITE_P(Modes, RipplePropertyTest,
                         ::testing::Values(PruneMode::Synchronous, PruneMode::Balanced),
                         [](const ::testing::TestParamInfo<PruneMode> & info) {
                           return std::string(info.param == PruneMode::Synchronous ? "Synchronous"
                                                                                   : "Balanced");
                         });

// Cairn::Syncer: the three walks, their completion calls, slicing on the
// process's loop, forced completion, walks that replace one another, and a
// walk paused while notifications are off.

#include <sstream>

#include <gtest/gtest.h>

#include "Cairn/ShadowBaseTesting.h"

using namespace ShadowTest;
using Cairn::SyncerMode;

namespace {

constexpr uint64_t NoSequence = Cairn::Syncer::NoSequence;

std::vector<Call> walkOf(unsigned numSlots, SyncerMode mode) {
  std::vector<Call> calls;
  for (unsigned slot = 0; slot < numSlots; ++slot) {
    if (mode == SyncerMode::flush) {
      calls.push_back({Call::flushSlot, slot});
    } else {
      calls.push_back({Call::slot, slot, NoSequence, mode == SyncerMode::resync});
    }
  }
  calls.push_back({mode == SyncerMode::flush ? Call::flushComplete : Call::syncComplete});
  return calls;
}

class SyncerTest : public ::testing::Test {
 protected:
  Basalt::Platform::DebugHandler handler{"syncer-test"};
  RecordingShadow shadow{handler};
  Cairn::Syncer & syncer = shadow.syncer;
};

}  // namespace

TEST(SyncerMode, WordsOfTheThreeModesAndNothingElse) {
  EXPECT_EQ(Cairn::toString(SyncerMode::sync), "sync");
  EXPECT_EQ(Cairn::toString(SyncerMode::resync), "resync");
  EXPECT_EQ(Cairn::toString(SyncerMode::flush), "flush");
  EXPECT_EQ(Cairn::toString(static_cast<SyncerMode>(3)), "");
  std::ostringstream stream;
  stream << SyncerMode::resync << "|" << static_cast<SyncerMode>(7) << "|";
  EXPECT_EQ(stream.str(), "resync||");
  EXPECT_EQ(static_cast<uint32_t>(SyncerMode::sync), 0u);
  EXPECT_EQ(static_cast<uint32_t>(SyncerMode::resync), 1u);
  EXPECT_EQ(static_cast<uint32_t>(SyncerMode::flush), 2u);
}

TEST_F(SyncerTest, BeforeAnyWalkItIsDoneInModeSync) {
  EXPECT_TRUE(syncer.done());
  EXPECT_EQ(syncer.mode(), SyncerMode::sync);
  syncer.forceSyncCompletion();
  EXPECT_TRUE(shadow.calls.empty());
}

TEST_F(SyncerTest, EachModeWalksEverySlotInOrderThenMakesItsCompletionCall) {
  for (SyncerMode mode : {SyncerMode::sync, SyncerMode::resync, SyncerMode::flush}) {
    shadow.calls.clear();
    syncer.sync(5, mode, false);
    EXPECT_EQ(shadow.calls, walkOf(5, mode)) << Cairn::toString(mode);
    EXPECT_TRUE(syncer.done());
    EXPECT_EQ(syncer.mode(), mode);
    EXPECT_EQ(syncer.nextSlot(), 5u);
  }
}

TEST_F(SyncerTest, AnAsynchronousWalkCompletesOnTheLoopNeverInsideSync) {
  syncer.sync(40, SyncerMode::resync, true);
  EXPECT_TRUE(shadow.calls.empty());
  EXPECT_FALSE(syncer.done());
  EXPECT_EQ(syncer.mode(), SyncerMode::resync);
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  EXPECT_EQ(shadow.calls, walkOf(40, SyncerMode::resync));
}

TEST_F(SyncerTest, AnEmptyAsynchronousWalkStillCompletesOnTheLoop) {
  syncer.sync(0, SyncerMode::flush, true);
  EXPECT_TRUE(shadow.calls.empty());
  EXPECT_FALSE(syncer.done());
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  EXPECT_EQ(shadow.calls, walkOf(0, SyncerMode::flush));
}

// With yieldTime 0 a slice visits exactly `sample` slots, so the walk of 100
// slots takes 10 slices, and a callback that defers itself again and again
// runs between them.
TEST_F(SyncerTest, ASlicedWalkLetsTheProcesssOwnCallbacksRunBetweenSlices) {
  shadow.yieldTimeIs(0);
  shadow.sampleIs(10);
  std::vector<uint32_t> seen;  // where the walk stood each time the other callback ran
  std::function<void()> other;
  Loop::Registration otherCall;
  other = [&] {
    seen.push_back(syncer.nextSlot());
    if (!syncer.done()) {
      otherCall = Loop::processLoop().runSoon(other);
    }
  };
  syncer.sync(100, SyncerMode::sync, true);
  otherCall = Loop::processLoop().runSoon(other);
  ASSERT_TRUE(within([&] { return syncer.done() && !otherCall.active(); }));
  EXPECT_EQ(shadow.calls, walkOf(100, SyncerMode::sync));
  EXPECT_EQ(syncer.slices(), 10u);
  // It ran while the walk was half done, at each slice's end.
  std::vector<uint32_t> between;
  for (uint32_t slot : seen) {
    if (slot > 0 && slot < 100) {
      between.push_back(slot);
    }
  }
  EXPECT_GE(between.size(), 8u);
  for (uint32_t slot : between) {
    EXPECT_EQ(slot % 10, 0u) << slot;
  }
}

TEST_F(SyncerTest, ASampleOfZeroStillVisitsOneSlotPerSlice) {
  shadow.yieldTimeIs(0);
  shadow.sampleIs(0);
  syncer.sync(3, SyncerMode::sync, true);
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  EXPECT_EQ(syncer.slices(), 3u);
  EXPECT_EQ(shadow.calls, walkOf(3, SyncerMode::sync));
}

TEST_F(SyncerTest, ForceSyncCompletionFinishesARunningWalkBeforeItReturns) {
  shadow.yieldTimeIs(0);
  shadow.sampleIs(4);
  syncer.sync(30, SyncerMode::sync, true);
  ASSERT_TRUE(within([&] { return syncer.nextSlot() > 0; }));
  EXPECT_FALSE(syncer.done());
  syncer.forceSyncCompletion();
  EXPECT_TRUE(syncer.done());
  EXPECT_EQ(shadow.calls, walkOf(30, SyncerMode::sync));
  // No slice is left to call anything again.
  settle();
  settle();
  EXPECT_EQ(shadow.count(Call::syncComplete), 1u);
  EXPECT_EQ(shadow.calls.size(), 31u);
}

TEST_F(SyncerTest, ANewWalkAbandonsTheRunningOneWithoutItsCompletionCall) {
  shadow.yieldTimeIs(0);
  shadow.sampleIs(4);
  syncer.sync(30, SyncerMode::sync, true);
  ASSERT_TRUE(within([&] { return syncer.nextSlot() >= 8; }));
  const std::size_t before = shadow.calls.size();
  syncer.sync(3, SyncerMode::flush, false);
  std::vector<Call> after(shadow.calls.begin() + static_cast<std::ptrdiff_t>(before), shadow.calls.end());
  EXPECT_EQ(after, walkOf(3, SyncerMode::flush));
  settle();
  settle();
  EXPECT_EQ(shadow.count(Call::syncComplete), 0u);
  EXPECT_EQ(shadow.count(Call::slot), before);
  EXPECT_EQ(syncer.mode(), SyncerMode::flush);
}

TEST_F(SyncerTest, AWalkMakesNoProgressWhileNotificationsAreOff) {
  shadow.yieldTimeIs(0);
  shadow.sampleIs(2);
  syncer.sync(10, SyncerMode::resync, true);
  ASSERT_TRUE(within([&] { return syncer.nextSlot() >= 2; }));
  shadow.notifyingIs(false);
  const uint32_t stoppedAt = syncer.nextSlot();
  settle();
  settle();
  EXPECT_EQ(syncer.nextSlot(), stoppedAt);
  EXPECT_FALSE(syncer.done());
  shadow.notifyingIs(true);
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  EXPECT_EQ(shadow.calls, walkOf(10, SyncerMode::resync));
}

TEST_F(SyncerTest, ForceSyncCompletionEndsAPausedWalkToo) {
  shadow.notifyingIs(false);
  syncer.sync(6, SyncerMode::flush, true);
  settle();
  EXPECT_TRUE(shadow.calls.empty());
  syncer.forceSyncCompletion();
  EXPECT_EQ(shadow.calls, walkOf(6, SyncerMode::flush));
}

TEST_F(SyncerTest, ASlotCallThatForcesCompletionEndsTheWalkOnce) {
  shadow.onSlot = [&](unsigned slot) {
    if (slot == 3) {
      syncer.forceSyncCompletion();
    }
  };
  syncer.sync(8, SyncerMode::sync, true);
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  settle();
  EXPECT_EQ(shadow.calls, walkOf(8, SyncerMode::sync));
}

TEST_F(SyncerTest, ASlotCallThatBeginsAnotherWalkAbandonsItsOwn) {
  shadow.onSlot = [&](unsigned slot) {
    if (slot == 2 && syncer.mode() == SyncerMode::sync) {
      syncer.sync(4, SyncerMode::flush, false);
    }
  };
  syncer.sync(8, SyncerMode::sync, true);
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  settle();
  std::vector<Call> expected = walkOf(3, SyncerMode::sync);
  expected.pop_back();  // abandoned: no syncComplete
  for (const Call & call : walkOf(4, SyncerMode::flush)) {
    expected.push_back(call);
  }
  EXPECT_EQ(shadow.calls, expected);
}

TEST_F(SyncerTest, AnExceptionOutOfASlotLeavesTheWalkToGoOnAtTheNextSlot) {
  shadow.onSlot = [&](unsigned slot) {
    if (slot == 1) {
      throw std::runtime_error("slot 1");
    }
  };
  syncer.sync(4, SyncerMode::sync, true);
  EXPECT_THROW(within([&] { return syncer.done(); }), std::runtime_error);
  EXPECT_FALSE(syncer.done());
  ASSERT_TRUE(within([&] { return syncer.done(); }));
  EXPECT_EQ(shadow.calls, walkOf(4, SyncerMode::sync));
}

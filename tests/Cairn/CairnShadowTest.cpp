// A map in mode shadow or keyshadow on the files of a real writer in the
// same process: its sentry attaches a CairnShadow, whose first walk fills
// the store silently, after which every change of the writer reaches the
// map's callbacks through the queue; then the lifecycle of its detach and
// flush.

#include <chrono>
#include <map>

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"
#include "Loop/EventLoop.h"

using namespace MapFrontTest;

namespace {

using Shadow = Cairn::CairnShadow<Key, Value, Ops>;

Cairn::MapDescriptor descriptorFor(Cairn::CairnType mode) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 1000;
  descriptor.mode = mode;
  return descriptor;
}

bool within(const std::function<bool()> & done) {
  return Loop::processLoop().runUntil(done, std::chrono::seconds(20));
}

// A writer map and a shadow map of the same table, and the shadow's callbacks.
class CairnShadowTest : public ::testing::Test {
 protected:
  void startWriter(uint64_t entries) {
    writer_.init(descriptorFor(Cairn::CairnType::writer));
    for (uint64_t number = 0; number < entries; ++number) {
      write(number, 1);
    }
  }
  void write(uint64_t number, uint64_t version) {
    writer_.safeWrite(Value(number, version), true);
    model_[number] = version;
  }
  void remove(uint64_t number) {
    Value removed;
    writer_.safeRemove(Key{number}, removed);
    model_.erase(number);
  }
  // Mounts the shadow and waits for its first walk to end.
  void startShadow(Cairn::CairnType mode = Cairn::CairnType::shadow) {
    shadow_.init(descriptorFor(mode));
    ASSERT_TRUE(within([&] { return shadow_.mountStatus() == 2; })) << "status " << shadow_.mountStatus();
  }
  Shadow * backend() { return dynamic_cast<Shadow *>(shadow_.backend()); }
  bool caughtUp() { return shadow_.backend()->sequence() == writer_.sequence(); }
  // The shadow's lookups and walk agree with the model.
  void expectEqualsModel() {
    for (uint64_t number = 0; number < 300; ++number) {
      bool found = false;
      Value out;
      const Value * value = shadow_.safeLookup(Key{number}, found, &out);
      const auto expected = model_.find(number);
      ASSERT_EQ(found, expected != model_.end()) << number;
      if (found) {
        EXPECT_EQ(*value, Value(number, expected->second)) << number;
      }
    }
    EXPECT_EQ(shadow_.backend()->members(), model_.size());
  }

  CairnTest::ScopedShmRoot root_;
  CallbackLog log_;
  Map writer_{"maps/shadowed"};
  Map shadow_{"maps/shadowed", log_.callbacks()};
  std::map<uint64_t, uint64_t> model_;
};

}  // namespace

TEST_F(CairnShadowTest, TheFirstWalkFillsTheStoreSilentlyThenTheMountStatusIsTold) {
  startWriter(100);
  startShadow();
  ASSERT_NE(backend(), nullptr);
  EXPECT_EQ(backend()->type(), Cairn::CairnType::shadow);
  expectEqualsModel();
  const auto keyCalls = std::count_if(log_.calls.begin(), log_.calls.end(),
                                      [](const std::string & call) { return call.rfind("value:", 0) == 0; });
  EXPECT_EQ(keyCalls, 0) << "the first walk made per-key callbacks";
  EXPECT_NE(std::find(log_.calls.begin(), log_.calls.end(), "mountStatus"), log_.calls.end());
}

TEST_F(CairnShadowTest, EveryLaterChangeReachesTheCallbacksThroughTheQueue) {
  startWriter(50);
  startShadow();
  log_.calls.clear();
  for (uint64_t number = 0; number < 50; number += 5) {
    write(number, 2);
  }
  remove(7);
  write(200, 1);
  ASSERT_TRUE(within([&] { return caughtUp(); }));
  expectEqualsModel();
  std::set<std::string> seen(log_.calls.begin(), log_.calls.end());
  for (uint64_t number = 0; number < 50; number += 5) {
    EXPECT_TRUE(seen.contains("value:" + std::to_string(number))) << number;
  }
  EXPECT_TRUE(seen.contains("delete:7"));
  EXPECT_TRUE(seen.contains("value:200"));
}

TEST_F(CairnShadowTest, AKeyShadowIsTypeShadowAndCallsTheKeyCallback) {
  startWriter(20);
  startShadow(Cairn::CairnType::keyshadow);
  EXPECT_EQ(shadow_.mode(), Cairn::CairnType::keyshadow);
  EXPECT_EQ(backend()->type(), Cairn::CairnType::shadow);
  log_.calls.clear();
  write(3, 9);
  ASSERT_TRUE(within([&] { return caughtUp(); }));
  EXPECT_NE(std::find(log_.calls.begin(), log_.calls.end(), "key:3"), log_.calls.end());
  expectEqualsModel();
  EXPECT_GT(shadow_.readerCounters().epochMappedSize, 0u);
}

TEST_F(CairnShadowTest, MembersCountTheShadowsEntriesAndCapacitiesDiffer) {
  startWriter(10);
  startShadow();
  EXPECT_EQ(backend()->members(), 10u);
  EXPECT_EQ(backend()->capacity(), backend()->reader().capacity());
  EXPECT_LE(backend()->localCapacity(), backend()->capacity());
}

TEST_F(CairnShadowTest, AnUnforcedDetachFlushesAsynchronouslyAndInstallsTheDummyAfterItReturned) {
  startWriter(30);
  startShadow();
  shadow_.yieldTimeIs(0);
  Shadow * shadow = backend();
  shadow_.detach(false);
  EXPECT_EQ(shadow_.backend(), shadow) << "the shadow left before its flush ended";
  EXPECT_EQ(shadow_.mountStatus(), 3u);
  ASSERT_TRUE(within([&] { return shadow_.backend() != shadow; }));
  // The sentry, poked at the flush's end, may already have attached anew:
  // the writer is still there.
  EXPECT_NE(shadow_.mountStatus(), 3u);
}

TEST_F(CairnShadowTest, AForcedDetachFlushesInsideTheCall) {
  startWriter(30);
  startShadow();
  shadow_.detach(true);
  EXPECT_EQ(backend(), nullptr);
  EXPECT_EQ(shadow_.mountStatus(), 0u);
}

TEST_F(CairnShadowTest, AForcedDetachDuringAnAsynchronousFlushEndsItAtOnce) {
  startWriter(30);
  startShadow();
  Shadow * shadow = backend();
  shadow->detach(false);
  EXPECT_EQ(shadow->mountStatus(), 3u);
  EXPECT_EQ(shadow->syncer.mode(), Cairn::SyncerMode::flush);
  shadow->detach(true);
  // The flush ended inside the call: the map is out of its flushing status.
  // The shadow itself may be gone already (the sentry, poked at the flush's
  // end, attaches anew while the writer is there), so it is not read again.
  EXPECT_NE(shadow_.mountStatus(), 3u);
}

TEST_F(CairnShadowTest, AnUnforcedDetachDuringAFlushIsAnAssertion) {
  startWriter(30);
  startShadow();
  Shadow * shadow = backend();
  shadow->detach(false);
  EXPECT_THROW(shadow->detach(false), Basalt::AssertException);
  shadow->detach(true);
}

TEST_F(CairnShadowTest, CorruptionReportedDuringAFlushIsSilent) {
  startWriter(10);
  startShadow();
  int reports = 0;
  const auto previous =
      Cairn::CairnMapBase::corruptionHandlerIs([&](const std::string &, const std::string &) { ++reports; });
  Shadow * shadow = backend();
  shadow->detach(false);
  shadow->corruptionDetected("damaged");
  EXPECT_EQ(reports, 0);
  shadow->detach(true);
  Cairn::CairnMapBase::corruptionHandlerIs(previous);
}

TEST_F(CairnShadowTest, AResyncThatEndsDoesNotTellTheMountStatusAgain) {
  startWriter(10);
  startShadow();
  log_.calls.clear();
  backend()->resync();
  ASSERT_TRUE(within([&] { return backend()->syncer.done(); }));
  EXPECT_EQ(std::count(log_.calls.begin(), log_.calls.end(), "mountStatus"), 0);
  EXPECT_EQ(shadow_.mountStatus(), 2u);
}

TEST_F(CairnShadowTest, TheWritersEndTakesTheShadowOff) {
  startWriter(10);
  startShadow();
  writer_.cleanupAndDetach();
  ASSERT_TRUE(within([&] { return shadow_.mountStatus() == 0; }));
  bool found = true;
  shadow_.safeLookup(Key{1}, found);
  EXPECT_FALSE(found);
}

// A key written and removed before the shadow reads the queue: the insert's
// entry is tombstoned, and the removal's finds the slot free in the table and
// in the copy. The shadow has nothing to do for it, yet it has applied it:
// without its sequence recorded the shadow would stay behind the writer,
// never quiesced, until the writer changed something else.
TEST_F(CairnShadowTest, ALastEntryThatNeedsNothingStillCatchesTheShadowUp) {
  startWriter(10);
  startShadow();
  ASSERT_TRUE(within([&] { return caughtUp(); }));
  log_.calls.clear();
  write(500, 1);
  remove(500);
  ASSERT_TRUE(within([&] { return caughtUp() && shadow_.backend()->quiesced(); }))
      << "shadow at " << shadow_.backend()->sequence() << ", writer at " << writer_.sequence();
  EXPECT_TRUE(log_.calls.empty() || log_.calls == std::vector<std::string>{"quiesced:true"});
  expectEqualsModel();
}

// A shadow map follows a writer through shrink cycles: the writer fills its
// table, so that the slot file grows, then empties it, so that the entries
// move down and the file shrinks under the shadow, which learns of each move
// through the queue (the new place first, then the old one). The shadow is
// the queue's client, so each shrink's corral stays open until it has caught
// up, and its release lets the writer look at the table afresh. Once most of
// the queue's entries are those of slots given back, the writer leaves them
// out behind a gap, and the shadow walks the table again: it still loses
// every key removed, with a callback for each, and keeps the others.

#include <chrono>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"
#include "Loop/EventLoop.h"

using namespace MapFrontTest;

namespace {

constexpr uint64_t KeyRange = 3000;

Cairn::MapDescriptor descriptorFor(Cairn::CairnType mode) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 4096;
  descriptor.mode = mode;
  descriptor.shrinkSlots = true;
  return descriptor;
}

class CairnShadowShrinkTest : public ::testing::Test {
 protected:
  void write(uint64_t number, uint64_t version) {
    writer_.safeWrite(Value(number, version), true);
    model_[number] = version;
  }
  void remove(uint64_t number) {
    Value removed;
    writer_.safeRemove(Key{number}, removed);
    model_.erase(number);
  }
  // Runs the loop until the shadow has applied the writer's last change and
  // no shrink waits for it: the shadow's progress releases a shrink's
  // corral, and the writer may then shrink once more.
  void quiesce() {
    const auto & queue = dynamic_cast<Writer &>(*writer_.backend()).ripple();
    ASSERT_TRUE(Loop::processLoop().runUntil(
        [&] { return shadow_.backend()->sequence() == writer_.backend()->sequence() && queue.corralStart() == 0; },
        std::chrono::seconds(30)))
        << "shadow " << shadow_.backend()->sequence() << " writer " << writer_.backend()->sequence()
        << " corralStart " << queue.corralStart();
  }
  // The shadow and the writer answer alike for every key, and the shadow
  // holds what the model holds.
  void expectShadowEqualsWriter() {
    for (uint64_t number = 0; number < KeyRange; ++number) {
      bool inShadow = false;
      bool inWriter = false;
      const Value fromShadow = *shadow_.safeLookup(Key{number}, inShadow);
      const Value fromWriter = *writer_.safeLookup(Key{number}, inWriter);
      ASSERT_EQ(inShadow, inWriter) << number;
      ASSERT_EQ(inShadow, model_.count(number) == 1) << number;
      if (inShadow) {
        ASSERT_EQ(fromShadow, fromWriter) << number;
        ASSERT_EQ(fromShadow, Value(number, model_[number])) << number;
      }
    }
    EXPECT_EQ(shadow_.backend()->members(), model_.size());
    EXPECT_EQ(writer_.backend()->members(), model_.size());
  }

  CairnTest::ScopedShmRoot root_;
  CallbackLog log_;
  Map writer_{"maps/shrinking"};
  Map shadow_{"maps/shrinking", log_.callbacks()};
  std::map<uint64_t, uint64_t> model_;
};

}  // namespace

TEST_F(CairnShadowShrinkTest, AShadowFollowsTheWriterThroughShrinkCyclesAndEqualsItAtEveryQuiesce) {
  writer_.init(descriptorFor(Cairn::CairnType::writer));
  for (uint64_t number = 0; number < 20; ++number) {
    write(number, 1);
  }
  shadow_.init(descriptorFor(Cairn::CairnType::shadow));
  ASSERT_TRUE(Loop::processLoop().runUntil([&] { return shadow_.mountStatus() == 2; }, std::chrono::seconds(20)));
  const uint32_t first = writer_.backend()->capacity();
  uint64_t version = 1;
  for (int cycle = 0; cycle < 3; ++cycle) {
    ++version;
    for (uint64_t number = 0; number < KeyRange; ++number) {
      write(number, version);
    }
    quiesce();
    expectShadowEqualsWriter();
    EXPECT_GE(writer_.backend()->capacity(), KeyRange);
    // Empty to a few keys, from the bottom up, the shadow catching up now
    // and then, as a reader in another process would.
    const std::size_t callsBefore = log_.calls.size();
    for (uint64_t number = 0; number + 5 < KeyRange; ++number) {
      remove(number);
      if (number % 256 == 255) {
        quiesce();
      }
    }
    quiesce();
    EXPECT_EQ(writer_.backend()->capacity(), first);
    expectShadowEqualsWriter();
    const std::set<std::string> calls(log_.calls.begin() + static_cast<std::ptrdiff_t>(callsBefore),
                                      log_.calls.end());
    for (uint64_t number = 0; number < KeyRange; ++number) {
      ASSERT_EQ(calls.count("delete:" + std::to_string(number)), number + 5 < KeyRange ? 1u : 0u) << number;
    }
  }
  const auto counters = writer_.writerCounters();
  std::printf("writer: slot shrinks %llu, slot moves %llu, corrals %llu, corral releases %llu, queue gaps %llu\n",
              static_cast<unsigned long long>(counters.slotShrinks), static_cast<unsigned long long>(counters.slotMoves),
              static_cast<unsigned long long>(counters.corrals), static_cast<unsigned long long>(counters.corralReleases),
              static_cast<unsigned long long>(counters.gaps));
  EXPECT_GE(counters.slotShrinks, 3u);
  EXPECT_GT(counters.slotMoves, 0u);
  EXPECT_GT(counters.gaps, 0u);
}

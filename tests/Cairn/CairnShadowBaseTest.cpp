// CairnShadowBase on a real table: a small shadow (MapShadow) keeps a copy
// by reading slots through a CairnReader, while a CairnWriter changes the
// files. The first walk, the queue after it, a queue that swaps while the
// shadow doesn't consume, sliced and forced walks, the flush walk, a writer
// that restarts with its files kept or formatted afresh, and a writer in
// another process that wakes the shadow through the socket.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

#include "ArenaFiles/OwnerFile.h"
#include "Cairn/ShadowBaseTesting.h"

using namespace ShadowTest;
using Cairn::SyncerMode;

namespace {

constexpr const char * TableName = "test/shadow";
constexpr uint64_t NoSequence = Cairn::Syncer::NoSequence;

Cairn::MapDescriptor tableDescriptor(bool synchronous = false) {
  Cairn::MapDescriptor descriptor = CairnTest::sharedDescriptor(4096);
  descriptor.synchronous = synchronous;  // the queue compacts and swaps at every fill
  return descriptor;
}

class CairnShadowBaseTest : public ::testing::Test {
 protected:
  explicit CairnShadowBaseTest(bool synchronous = false) : table(tableDescriptor(synchronous), TableName) {
    table.start();
  }

  CairnTest::WriterFor<Value> & writer() { return *table.writer; }
  void write(uint64_t number, uint64_t version) {
    writer().write(Value(number, version), true);
    model[number] = Value(number, version);
  }
  void remove(uint64_t number) {
    Value removed;
    writer().remove(Key{number}, removed);
    model.erase(number);
  }
  void fill(uint64_t count, uint64_t version = 1) {
    for (uint64_t number = 0; number < count; ++number) {
      write(number, version);
    }
  }
  std::unique_ptr<MapShadow> makeShadow(unsigned flags = 0) {
    return std::make_unique<MapShadow>(handler, TableName, flags);
  }
  // Follows the queue, has applied the writer's last notification, and its
  // copy is the table.
  bool caughtUp(const MapShadow & shadow) {
    return shadow.syncFromRipple() && shadow.quiesced() && shadow.copy() == model;
  }
  std::string ownerPath() const { return table.file(ArenaFiles::OwnerFile::FILENAME); }

  CairnTest::TableHarness<Value> table;
  Basalt::Platform::DebugHandler handler{"shadow-test"};
  Model model;
};

class CairnShadowBaseSwapTest : public CairnShadowBaseTest {
 protected:
  CairnShadowBaseSwapTest() : CairnShadowBaseTest(true) {}
};

std::vector<uint64_t> sorted(std::vector<uint64_t> numbers) {
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

TEST_F(CairnShadowBaseTest, TheFirstWalkFillsTheCopyThenCompletesOnce) {
  fill(100);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  // Asynchronous: begun, not ended.
  EXPECT_FALSE(shadow->syncer.done());
  EXPECT_EQ(shadow->syncer.mode(), SyncerMode::sync);
  EXPECT_EQ(shadow->syncSequence(), writer().sequence());
  EXPECT_FALSE(shadow->firstWalkDone());
  EXPECT_FALSE(shadow->quiesced());
  EXPECT_FALSE(shadow->syncFromRipple());
  EXPECT_TRUE(shadow->nudge.connected());

  ASSERT_TRUE(within([&] { return shadow->firstWalkDone(); }));
  EXPECT_EQ(shadow->completed, std::vector<SyncerMode>{SyncerMode::sync});
  EXPECT_EQ(shadow->copy(), model);
  EXPECT_EQ(shadow->updated.size(), 100u);
  for (const Call & call : shadow->slotCalls) {
    EXPECT_EQ(call.sequence, NoSequence);
    EXPECT_FALSE(call.compare);
  }
  EXPECT_EQ(shadow->counters().sequence, writer().sequence());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  ASSERT_FALSE(shadow->quiescedCalls.empty());
  EXPECT_TRUE(shadow->quiescedCalls.back());
  EXPECT_TRUE(shadow->entryCalls().empty());  // nothing came after the walk's sequence
  settle();
  EXPECT_EQ(shadow->completed.size(), 1u);
}

TEST_F(CairnShadowBaseTest, ASynchronousFirstWalkIsOverWhenInitializeReturns) {
  fill(30);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize(false));
  EXPECT_TRUE(shadow->firstWalkDone());
  EXPECT_TRUE(shadow->syncer.done());
  EXPECT_EQ(shadow->copy(), model);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
}

TEST_F(CairnShadowBaseTest, AQueueThatCannotBeAttachedFailsInitialization) {
  auto shadow = std::make_unique<MapShadow>(handler, "test/nothing-here");
  EXPECT_FALSE(shadow->initializeRipple());
  EXPECT_FALSE(shadow->rippleReader.attached());
  EXPECT_TRUE(shadow->syncer.done());
  EXPECT_EQ(shadow->syncer.walks(), 0u);
}

TEST_F(CairnShadowBaseTest, ChangesAfterTheWalkReachDoSlotThroughTheQueueWithTheirSequences) {
  fill(20);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  shadow->clearRecords();

  const uint64_t before = writer().sequence();
  for (uint64_t number = 100; number < 105; ++number) {
    write(number, 1);  // new keys
  }
  for (uint64_t number = 0; number < 3; ++number) {
    write(number, 2);  // rewrites
  }
  remove(10);
  remove(11);
  ASSERT_EQ(writer().sequence(), before + 10);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));

  // Ten distinct slots, each notified once: ten entries, in order.
  const std::vector<Call> entries = shadow->entryCalls();
  ASSERT_EQ(entries.size(), 10u);
  for (std::size_t index = 0; index < entries.size(); ++index) {
    EXPECT_EQ(entries[index].sequence, before + 1 + index);
    EXPECT_FALSE(entries[index].compare);
  }
  EXPECT_EQ(entries, shadow->slotCalls);
  EXPECT_EQ(sorted(shadow->updated), (std::vector<uint64_t>{0, 1, 2, 100, 101, 102, 103, 104}));
  EXPECT_EQ(sorted(shadow->deleted), (std::vector<uint64_t>{10, 11}));
  EXPECT_EQ(shadow->counters().sequence, writer().sequence());
  ASSERT_FALSE(shadow->quiescedCalls.empty());
  EXPECT_TRUE(shadow->quiescedCalls.back());
  // The shadow told the writer what it applied.
  ASSERT_TRUE(within([&] { return writer().quiesced() && shadow->nudge.sleeping(); }));
  EXPECT_EQ(shadow->nudge.applied(), writer().sequence());
  EXPECT_EQ(shadow->completed.size(), 1u);
}

TEST_F(CairnShadowBaseTest, ASleepingShadowAppliesTheNextChangeAtTheLoopsNextTurnAndIsWokenAllTheSame) {
  fill(5);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow) && shadow->nudge.sleeping(); }));
  const uint64_t wakes = shadow->nudge.wakes();
  std::vector<uint64_t> wakesWhenApplied;
  shadow->onLiveSlot = [&] { wakesWhenApplied.push_back(shadow->nudge.wakes()); };
  write(3, 9);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow) && shadow->nudge.wakes() > wakes; }));
  // The turn before the loop looked at the socket found the entry and
  // applied it; the wake, read after, found the queue empty.
  EXPECT_EQ(wakesWhenApplied, std::vector<uint64_t>{wakes});
  EXPECT_EQ(shadow->copy().at(3), Value(3, 9));
}

TEST_F(CairnShadowBaseTest, WithCompareNotificationsAnUnchangedValueMakesNoUpdate) {
  fill(4);
  auto shadow = makeShadow(Cairn::CairnShadowBase::CompareNotificationsFlag);
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  shadow->clearRecords();
  write(1, 1);  // the same value again: notified, not changed
  write(2, 5);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  ASSERT_EQ(shadow->entryCalls().size(), 2u);
  EXPECT_TRUE(shadow->entryCalls()[0].compare);
  EXPECT_EQ(shadow->updated, std::vector<uint64_t>{2});
}

TEST_F(CairnShadowBaseTest, NotificationsOffHoldTheQueueUntilTheyAreOnAgain) {
  fill(10);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  shadow->notifyingIs(false);
  shadow->clearRecords();
  write(4, 2);
  write(50, 1);
  settle();
  settle();
  EXPECT_TRUE(shadow->slotCalls.empty());
  EXPECT_FALSE(shadow->quiesced());
  shadow->notifyingIs(true);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  EXPECT_EQ(shadow->entryCalls().size(), 2u);
}

TEST_F(CairnShadowBaseTest, CorruptionMetInTheQueueIsReportedAndTheQueueIsNotReadAgain) {
  fill(10);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  shadow->entryFault = "a test's fault";
  write(1, 2);
  ASSERT_TRUE(within([&] { return !shadow->corruptions.empty(); }));
  EXPECT_EQ(shadow->corruptions, std::vector<std::string>{"a test's fault"});
  EXPECT_FALSE(shadow->syncFromRipple());
  EXPECT_FALSE(shadow->nudgeProcessing());
  shadow->entryFault.clear();
  write(2, 2);
  settle();
  settle();
  EXPECT_TRUE(shadow->entryCalls().empty());
  // A resync takes the queue up again.
  shadow->resync();
  ASSERT_TRUE(within([&] { return shadow->completed.size() == 2 && caughtUp(*shadow); }));
}

TEST_F(CairnShadowBaseSwapTest, AQueueThatSwapsWhileTheShadowDoesNotConsumeIsCaughtUpWithoutAResync) {
  fill(50);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  shadow->notifyingIs(false);
  const uint64_t swapsBefore = writer().writerCounters().swaps;
  // Far more changes than one table holds (340 entries): each fill compacts
  // and swaps, and the shadow meets the queue only afterwards.
  for (uint64_t round = 2; round < 10; ++round) {
    for (uint64_t number = 0; number < 300; ++number) {
      write(number, round);
    }
    for (uint64_t number = round * 10; number < round * 10 + 5; ++number) {
      remove(number);
    }
  }
  ASSERT_GT(writer().writerCounters().swaps, swapsBefore + 2);
  shadow->notifyingIs(true);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  EXPECT_GT(shadow->counters().swapsSeen, 0u);
  EXPECT_EQ(shadow->completed.size(), 1u);  // no resync was needed
  EXPECT_EQ(shadow->counters().sequence, writer().sequence());
}

TEST_F(CairnShadowBaseSwapTest, AShadowThatConsumesWhileTheQueueSwapsLosesNothing) {
  fill(10);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  // Rounds of changes, each followed by a little consuming, so that the
  // shadow is mid-queue at many of the swaps.
  for (uint64_t round = 1; round < 40; ++round) {
    for (uint64_t number = 0; number < 97; ++number) {
      if ((number + round) % 7 == 0) {
        remove(number);
      } else {
        write(number, round);
      }
    }
    Loop::processLoop().runOnce();
  }
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  EXPECT_EQ(shadow->completed.size(), 1u);
}

TEST_F(CairnShadowBaseTest, ASlicedFirstWalkLetsOtherCallbacksReadThePartialCopy) {
  fill(1000);
  auto shadow = makeShadow();
  shadow->yieldTimeIs(0);
  shadow->sampleIs(50);
  std::vector<std::size_t> seen;  // copy sizes seen by another callback during the walk
  std::function<void()> other;
  Loop::Registration otherCall;
  other = [&] {
    seen.push_back(shadow->copy().size());
    if (!shadow->firstWalkDone()) {
      otherCall = Loop::processLoop().runSoon(other);
    }
  };
  ASSERT_TRUE(shadow->initialize());
  otherCall = Loop::processLoop().runSoon(other);
  ASSERT_TRUE(within([&] { return shadow->firstWalkDone() && !otherCall.active(); }));
  EXPECT_GE(shadow->syncer.slices(), 20u);
  const auto partial = std::count_if(seen.begin(), seen.end(), [](std::size_t size) { return size > 0 && size < 1000; });
  EXPECT_GE(partial, 10);
  EXPECT_EQ(shadow->copy(), model);
}

TEST_F(CairnShadowBaseTest, ForceSyncCompletionEndsTheFirstWalkAtOnce) {
  fill(500);
  auto shadow = makeShadow();
  shadow->yieldTimeIs(0);
  shadow->sampleIs(10);
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return shadow->syncer.nextSlot() > 0; }));
  ASSERT_FALSE(shadow->firstWalkDone());
  shadow->syncer.forceSyncCompletion();
  EXPECT_TRUE(shadow->firstWalkDone());
  EXPECT_EQ(shadow->copy(), model);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  EXPECT_EQ(shadow->completed.size(), 1u);
}

TEST_F(CairnShadowBaseTest, AFlushWalkTakesEverySlotOutThenCallsFlushComplete) {
  fill(40);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  const uint32_t numSlots = shadow->localCapacity();
  ASSERT_GE(numSlots, 40u);

  shadow->detachRipple();
  EXPECT_FALSE(shadow->rippleReader.attached());
  EXPECT_FALSE(shadow->nudge.connected());
  EXPECT_EQ(shadow->counters().sequence, 0u);
  EXPECT_FALSE(shadow->nudgeProcessing());
  EXPECT_FALSE(shadow->syncFromRipple());
  shadow->syncer.sync(numSlots, SyncerMode::flush, true);
  EXPECT_EQ(shadow->flushCompletes, 0u);
  ASSERT_TRUE(within([&] { return shadow->flushCompletes == 1; }));
  std::vector<unsigned> every(numSlots);
  for (unsigned slot = 0; slot < numSlots; ++slot) {
    every[slot] = slot;
  }
  EXPECT_EQ(shadow->flushed, every);
  EXPECT_TRUE(shadow->copy().empty());
  // Detached: the writer's changes no longer reach it, and no disconnect is reported.
  shadow->clearRecords();
  write(1, 5);
  settle();
  settle();
  EXPECT_TRUE(shadow->slotCalls.empty());
  EXPECT_EQ(shadow->disconnects, 0u);
}

TEST_F(CairnShadowBaseTest, AWriterThatRestartsWithItsFilesIsFollowedAgainAfterAResync) {
  fill(60);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));

  table.stop();
  ASSERT_TRUE(within([&] { return shadow->disconnects == 1; }));
  EXPECT_FALSE(shadow->nudge.connected());
  // The copy goes on serving while no writer runs.
  EXPECT_EQ(shadow->copy(), model);

  table.start();  // the files are kept
  shadow->clearRecords();
  write(5, 2);
  write(70, 1);
  remove(6);
  settle();
  EXPECT_TRUE(shadow->slotCalls.empty());  // not connected: not woken

  ASSERT_TRUE(shadow->maybeConnect());
  EXPECT_EQ(shadow->syncer.mode(), SyncerMode::resync);
  EXPECT_FALSE(shadow->syncer.done());
  ASSERT_TRUE(within([&] { return shadow->completed.size() == 2 && caughtUp(*shadow); }));
  EXPECT_EQ(shadow->completed.back(), SyncerMode::resync);
  // The resync compared: only what changed made an update.
  EXPECT_EQ(sorted(shadow->updated), (std::vector<uint64_t>{5, 70}));
  EXPECT_EQ(shadow->deleted, std::vector<uint64_t>{6});
  for (const Call & call : shadow->slotCalls) {
    EXPECT_TRUE(call.compare);
  }
  // Connected again: later changes come through the queue.
  write(71, 1);
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));
  EXPECT_TRUE(shadow->maybeConnect());
  EXPECT_EQ(shadow->completed.size(), 2u);
}

TEST_F(CairnShadowBaseTest, AQueueFormattedAfreshUnderTheShadowLeadsToAResync) {
  fill(80);
  auto shadow = makeShadow();
  ASSERT_TRUE(shadow->initialize());
  ASSERT_TRUE(within([&] { return caughtUp(*shadow); }));

  table.stop();
  ASSERT_TRUE(within([&] { return shadow->disconnects == 1; }));
  CairnTest::FileBytes(ownerPath()).contentsIs("garbage");
  table.start();  // formats the table afresh: every entry is gone
  model.clear();
  for (uint64_t number = 1000; number < 1010; ++number) {
    write(number, 7);
  }
  // Not connected; a pass over the queue finds the new generation itself.
  shadow->maybeEnableRipple();
  ASSERT_TRUE(within([&] { return shadow->completed.size() == 2 && caughtUp(*shadow); }));
  EXPECT_EQ(shadow->completed.back(), SyncerMode::resync);
  EXPECT_EQ(shadow->copy(), model);
  EXPECT_EQ(shadow->counters().sequence, writer().sequence());
}

// ---------------------------------------------------------------- a writer in another process

namespace {

// The writer runs in a process of its own: this test program started again
// with only ShadowWriterProcess.Run selected, which learns its two pipe ends
// from this variable. It applies the phases it is sent and answers each with
// its latest sequence; phase 0 ends it.
constexpr const char * WriterVariable = "TESSEL_SHADOW_WRITER";

template <typename Write, typename Remove>
void replay(uint32_t phase, Write && write, Remove && remove) {
  switch (phase) {
    case 1:  // fill, past several bucket doublings and slot growths
      for (uint64_t number = 0; number < 600; ++number) {
        write(number, 1);
      }
      break;
    case 2:  // rewrite half, remove a quarter
      for (uint64_t number = 0; number < 600; number += 2) {
        write(number, 2);
      }
      for (uint64_t number = 450; number < 600; ++number) {
        remove(number);
      }
      break;
    case 3:  // remove nearly everything: the table shrinks
      for (uint64_t number = 0; number < 440; ++number) {
        remove(number);
      }
      break;
    case 4:
      for (uint64_t number = 2000; number < 2100; ++number) {
        write(number, 4);
      }
      break;
    default:
      break;
  }
}

bool readAll(int fd, void * data, std::size_t size) {
  auto * bytes = static_cast<char *>(data);
  while (size > 0) {
    const ssize_t got = read(fd, bytes, size);
    if (got <= 0) {
      return false;
    }
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void writeAll(int fd, const void * data, std::size_t size) {
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    throw std::runtime_error("pipe write failed");
  }
}

int runWriter(int in, int out) {
  Basalt::Platform::DebugHandler handler{"shadow-writer"};
  CairnTest::WriterFor<Value> writer(handler, TableName, tableDescriptor(), Ops(), "TestClass", [](bool) {});
  writer.initialize(TableName);
  uint64_t ready = writer.sequence();
  writeAll(out, &ready, sizeof ready);
  // The loop runs between phases, so that the writer's socket serves the shadow.
  bool received = false;
  uint32_t phase = 0;
  Loop::Registration watch = Loop::processLoop().watchReadable(in, [&] {
    received = true;
    if (!readAll(in, &phase, sizeof phase)) {
      phase = 0;
    }
  });
  for (;;) {
    received = false;
    Loop::processLoop().runUntil([&] { return received; }, std::chrono::seconds(60));
    if (!received || phase == 0) {
      return 0;
    }
    replay(
        phase, [&](uint64_t number, uint64_t version) { writer.write(Value(number, version), true); },
        [&](uint64_t number) {
          Value removed;
          writer.remove(Key{number}, removed);
        });
    const uint64_t sequence = writer.sequence();
    writeAll(out, &sequence, sizeof sequence);
  }
}

// One writer process and the pipes to it.
class WriterProcess {
 public:
  WriterProcess() {
    int toWriter[2];
    int fromWriter[2];
    if (pipe(toWriter) != 0 || pipe(fromWriter) != 0) {
      throw std::runtime_error("pipe failed");
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(toWriter[1]);
      close(fromWriter[0]);
      const std::string role = fmt::format("{} {}", toWriter[0], fromWriter[1]);
      setenv(WriterVariable, role.c_str(), 1);
      execl("/proc/self/exe", "ShadowWriter", "--gtest_filter=ShadowWriterProcess.Run", nullptr);
      _exit(127);
    }
    close(toWriter[0]);
    close(fromWriter[1]);
    out_ = toWriter[1];
    in_ = fromWriter[0];
  }
  ~WriterProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_);
    close(in_);
  }

  // The writer's sequence once it is attached, or after a phase.
  uint64_t answer() {
    uint64_t sequence = 0;
    if (!readAll(in_, &sequence, sizeof sequence)) {
      throw std::runtime_error("writer process gone");
    }
    return sequence;
  }
  uint64_t run(uint32_t phase) {
    writeAll(out_, &phase, sizeof phase);
    return answer();
  }
  // Phase 0: the writer detaches and ends.
  void end() {
    const uint32_t phase = 0;
    writeAll(out_, &phase, sizeof phase);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  void killHard() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
};

void replayOnModel(uint32_t phase, Model & model) {
  replay(
      phase, [&](uint64_t number, uint64_t version) { model[number] = Value(number, version); },
      [&](uint64_t number) { model.erase(number); });
}

}  // namespace

TEST(ShadowWriterProcess, Run) {
  const char * role = std::getenv(WriterVariable);
  if (role == nullptr) {
    GTEST_SKIP() << "runs only as the writer process of CairnShadowBaseMultiProcess";
  }
  int in = -1;
  int out = -1;
  ASSERT_EQ(std::sscanf(role, "%d %d", &in, &out), 2);
  EXPECT_EQ(runWriter(in, out), 0);
}

TEST(CairnShadowBaseMultiProcess, AShadowFollowsAWriterInAnotherProcessAndOutlivesItsRestart) {
  CairnTest::ScopedTableRoot root;
  Basalt::Platform::DebugHandler handler{"shadow-test"};
  auto writer = std::make_unique<WriterProcess>();
  writer->answer();

  MapShadow shadow(handler, TableName);
  ASSERT_TRUE(shadow.initialize());
  Model model;
  ASSERT_TRUE(within([&] { return shadow.syncFromRipple() && shadow.quiesced() && shadow.copy() == model; }));
  for (uint32_t phase = 1; phase <= 3; ++phase) {
    const uint64_t sequence = writer->run(phase);
    replayOnModel(phase, model);
    ASSERT_TRUE(within([&] {
      return shadow.quiesced() && shadow.counters().sequence == sequence && shadow.copy() == model;
    })) << "phase " << phase;
  }
  // Woken by the other process's socket, and never walked again.
  EXPECT_GT(shadow.nudge.wakes(), 0u);
  EXPECT_EQ(shadow.completed.size(), 1u);

  writer->killHard();
  ASSERT_TRUE(within([&] { return shadow.disconnects == 1; }));
  EXPECT_EQ(shadow.copy(), model);

  writer = std::make_unique<WriterProcess>();  // keeps the files
  writer->answer();
  const uint64_t sequence = writer->run(4);
  replayOnModel(4, model);
  ASSERT_TRUE(shadow.maybeConnect());
  ASSERT_TRUE(within([&] {
    return shadow.completed.size() == 2 && shadow.syncFromRipple() && shadow.quiesced() &&
           shadow.counters().sequence == sequence && shadow.copy() == model;
  }));
  EXPECT_EQ(shadow.completed.back(), SyncerMode::resync);
  writer->end();
  ASSERT_TRUE(within([&] { return shadow.disconnects == 2; }));
}

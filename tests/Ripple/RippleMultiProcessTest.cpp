// Multi-process stress test: a child process writes notifications, swapping
// and growing the tables, while this process reads them through a
// RippleReader. The slot of every sequence is known in advance (a seeded
// generator), so the reader proves that each entry it is handed is whole and
// current: its slot is the one of its sequence, and sequences rise. In the
// end, every slot's last notification must have been met: nothing was lost.
//
// The child never runs more than a window ahead of what the reader has
// applied, which the reader publishes in a shared word: so the two run side
// by side, and tables are swapped (several times within a window) and grown
// under a reader in the middle of them, however the processes are scheduled.

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "Arena/Atomics.h"
#include "Ripple/RippleTesting.h"

using namespace RippleTest;
using Ripple::PruneMode;

namespace {

constexpr uint32_t slotCount = 200;
constexpr uint32_t notifications = 400000;
constexpr uint64_t window = 2000;  // several tables' worth of notifications

// The slot that the notification of each sequence names: every slot once in
// order, then random slots. Index 0 is unused.
std::vector<uint32_t> slotsBySequence() {
  std::vector<uint32_t> slots(notifications + 1, 0);
  std::mt19937 random(7);
  for (uint32_t sequence = 1; sequence <= notifications; ++sequence) {
    slots[sequence] = sequence <= slotCount ? sequence - 1 : random() % slotCount;
  }
  return slots;
}

// A word in memory shared with the child: the sequence the reader has applied.
class SharedProgress {
 public:
  SharedProgress()
      : word_(static_cast<uint64_t *>(
            mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~SharedProgress() { munmap(word_, sizeof(uint64_t)); }
  bool valid() const { return word_ != MAP_FAILED; }
  void publish(uint64_t sequence) { Arena::Atomics::publish64(*word_, sequence); }
  uint64_t observe() const { return Arena::Atomics::observe64(*word_); }

 private:
  uint64_t * word_;
};

// Ends the child if the test leaves before it has reaped it.
class ChildGuard {
 public:
  explicit ChildGuard(pid_t child) : child_(child) {}
  ~ChildGuard() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
  }
  // True once the child has exited, with its status.
  bool reaped(int & status) {
    if (waitpid(child_, &status, WNOHANG) != child_) {
      return false;
    }
    child_ = 0;
    return true;
  }

 private:
  pid_t child_;
};

// The child's whole life: its own writer on the queue, notifying the slots
// of slotsBySequence() in turn. Its exit status says what went wrong.
[[noreturn]] void writeInChild(const std::string & directory, PruneMode mode,
                               const SharedProgress & progress) {
  int status = 0;
  try {
    const std::vector<uint32_t> slots = slotsBySequence();
    WriterFixture writer(directory, mode);
    if (writer.attachResult != 2) {
      _exit(2);
    }
    for (uint32_t sequence = 1; sequence <= notifications; ++sequence) {
      while (progress.observe() + window < writer.writer.sequence()) {
        sched_yield();
      }
      writer.writer.notify(slots[sequence]);
    }
  } catch (...) {
    status = 3;
  }
  _exit(status);
}

class RippleMultiProcessTest : public QueueTest, public ::testing::WithParamInterface<PruneMode> {};

}  // namespace

TEST_P(RippleMultiProcessTest, ParentReadsEverySlotTheChildNotifies) {
  { WriterFixture creator(directory, GetParam()); }  // the files exist before either side starts
  ReaderFixture fixture(directory);
  fixture.handler.levelIs(5, false);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  SharedProgress progress;
  ASSERT_TRUE(progress.valid());

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    writeInChild(directory, GetParam(), progress);
  }
  ChildGuard guard(child);

  const std::vector<uint32_t> slots = slotsBySequence();
  std::vector<uint64_t> lastMet(slotCount, 0);  // per slot, the last sequence met
  uint64_t lastSequence = 0;
  Ripple::Notification entry{};
  int status = 0;
  for (bool childDone = false; !childDone;) {
    // Looked at before draining: once the child is gone, one more drain reads all it wrote.
    childDone = guard.reaped(status);
    while (fixture.reader.nextEntry(entry)) {
      ASSERT_GT(entry.sequence(), lastSequence);
      ASSERT_LE(entry.sequence(), notifications);
      ASSERT_EQ(entry.slot, slots[entry.sequence()]) << "sequence " << entry.sequence();
      lastSequence = entry.sequence();
      lastMet[entry.slot] = entry.sequence();
      fixture.counters.sequence = entry.sequence();
    }
    progress.publish(fixture.counters.sequence);
    sched_yield();
  }
  ASSERT_TRUE(WIFEXITED(status)) << status;
  ASSERT_EQ(WEXITSTATUS(status), 0);
  std::vector<uint64_t> lastNotified(slotCount, 0);
  for (uint32_t sequence = 1; sequence <= notifications; ++sequence) {
    lastNotified[slots[sequence]] = sequence;
  }
  EXPECT_EQ(lastMet, lastNotified);
  EXPECT_TRUE(fixture.reader.quiesced());
  EXPECT_EQ(fixture.counters.sequence, notifications);
  EXPECT_GE(fixture.counters.swapsSeen, 2u);
}

INSTANTIATE_TEST_SUITE_P(Modes, RippleMultiProcessTest,
                         ::testing::Values(PruneMode::Synchronous, PruneMode::Balanced),
                         [](const ::testing::TestParamInfo<PruneMode> & info) {
                           return std::string(info.param == PruneMode::Synchronous ? "Synchronous"
                                                                                   : "Balanced");
                         });

// Multi-process stress of slot shrinking: one writer process fills an L3Iif
// Config table and an L3Tunnel Config table with many entries, so that the
// slot files grow, then removes them all again in a random order, so that
// every shrink on the way moves entries down under the readers, and starts
// over, while reader processes look keys up and walk both tables the whole
// time. A few stable keys stay in both tables throughout. The readers count
// what must never happen:
//   torn       a value that is not one whole write of its key
//   missing    a stable key not found by a lookup
//   walkMissing / walkTwice   a stable key absent from a walk; any key twice in one
//   disorder   a walk that did not rise strictly in split order
//   wrongKey   a lookup answered with another key's value
//   escaped    an exception that left the reader
// TESSEL_SHRINK_STRESS_ENTRIES sets the entries of a fill (default 20,000; the
// 1,000,000 of a long run), TESSEL_SHRINK_STRESS_SECONDS the readers' run time
// (default 6); the writer finishes the cycle it is in when they are done.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/CairnReader.h"
#include "Cairn/CairnWriter.h"
#include "Cairn/SelfCheckingRecords.h"
#include "Cairn/SlotTestTypes.h"

using namespace CairnTest;

namespace {

constexpr uint64_t stableKeys = 64;
constexpr uint64_t churnBase = 1000000;
constexpr int readerCount = 2;

uint64_t churnKeys() {
  const char * text = std::getenv("TESSEL_SHRINK_STRESS_ENTRIES");
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 20000;
}

double stressSeconds() {
  const char * text = std::getenv("TESSEL_SHRINK_STRESS_SECONDS");
  return text != nullptr ? std::atof(text) : 6.0;
}

struct ReaderCounts {
  uint64_t lookups = 0;
  uint64_t walks = 0;
  uint64_t walkedEntries = 0;
  uint64_t torn = 0;
  uint64_t missing = 0;
  uint64_t walkMissing = 0;
  uint64_t walkTwice = 0;
  uint64_t disorder = 0;
  uint64_t wrongKey = 0;
  uint64_t escaped = 0;
  uint64_t slotResizes = 0;
  uint64_t chainRetries = 0;
  uint64_t hintMisses = 0;
  bool ran = false;
};

struct WriterCounts {
  uint64_t cycles = 0;
  uint64_t operations = 0;
  uint64_t slotShrinks = 0;
  uint64_t slotMoves = 0;
  uint64_t mostSlots = 0;
  uint64_t leastSlots = 0;
  bool valid = false;
  bool ran = false;
};

// Lives in memory shared by the test's processes (an anonymous shared mapping).
struct Board {
  uint32_t stop;  // set by the parent when the readers are done
  WriterCounts writer;
  ReaderCounts readers[readerCount];
};

bool stopRequested(Board & board) {
  return std::atomic_ref<uint32_t>(board.stop).load(std::memory_order_relaxed) != 0;
}

Cairn::MapDescriptor shrinkingDescriptor() {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 1024;
  descriptor.shrinkBuckets = true;
  descriptor.shrinkSlots = true;
  return descriptor;
}

template <typename R>
struct WriterTable {
  using Writer = Cairn::CairnWriter<typename R::Key, typename R::Value, typename R::Ops>;

  explicit WriterTable(Basalt::Platform::DebugHandler & handler) {
    writer = std::make_unique<Writer>(handler, std::string("shrink-stress/") + R::name, shrinkingDescriptor(),
                                      typename R::Ops(), "Stress", [](bool) {});
    writer->initialize("stress");
    for (uint64_t number = 0; number < stableKeys; ++number) {
      writer->write(R::make(number, 1), true);
    }
  }

  void insert(uint64_t index, uint64_t cycle) { writer->write(R::make(churnBase + index, cycle), true); }
  void remove(uint64_t index) {
    typename R::Value removed;
    writer->remove(R::key(churnBase + index), removed);
  }

  std::unique_ptr<Writer> writer;
};

// Fill and empty, cycle after cycle: each fill in key order, each emptying
// in a new random order, so that the entries left above each shrink's end
// lie all over the table.
void runWriter(Board & board, int readyFd) {
  Basalt::Platform::DebugHandler handler("shrink-stress-writer");
  WriterTable<IifRecords> iif(handler);
  WriterTable<TunnelRecords> tunnel(handler);
  const char ready = 1;
  if (write(readyFd, &ready, 1) != 1) {
    _exit(3);
  }
  WriterCounts & counts = board.writer;
  counts.leastSlots = UINT64_MAX;
  std::mt19937_64 random(11);
  std::vector<uint64_t> order(churnKeys());
  for (uint64_t index = 0; index < order.size(); ++index) {
    order[index] = index;
  }
  for (uint64_t cycle = 1; !stopRequested(board); ++cycle) {
    for (uint64_t index = 0; index < order.size(); ++index) {
      iif.insert(index, cycle);
      tunnel.insert(index, cycle);
    }
    counts.mostSlots = std::max<uint64_t>(counts.mostSlots, iif.writer->capacity());
    std::shuffle(order.begin(), order.end(), random);
    for (uint64_t index : order) {
      iif.remove(index);
      tunnel.remove(index);
    }
    counts.leastSlots = std::min<uint64_t>(counts.leastSlots, iif.writer->capacity());
    counts.operations += 4 * order.size();
    ++counts.cycles;
  }
  const auto iifCounters = iif.writer->writerCounters();
  const auto tunnelCounters = tunnel.writer->writerCounters();
  counts.slotShrinks = iifCounters.slotShrinks + tunnelCounters.slotShrinks;
  counts.slotMoves = iifCounters.slotMoves + tunnelCounters.slotMoves;
  counts.valid = iif.writer->validate() && tunnel.writer->validate();
  counts.ran = true;
}

template <typename R>
class ReaderTable {
 public:
  using Reader = Cairn::CairnReader<typename R::Key, typename R::Value, typename R::Ops>;

  ReaderTable(Basalt::Platform::DebugHandler & handler, ReaderCounts & counts)
      : reader_(handler, std::string("shrink-stress/") + R::name, typename R::Ops()),
        counts_(counts),
        seen_(stableKeys + churnKeys(), 0) {
    if (!reader_.initialize("stress")) {
      _exit(4);
    }
  }

  void lookup(uint64_t number, bool stable) {
    ++counts_.lookups;
    bool found = false;
    typename R::Value value;
    reader_.lookup(R::key(number), found, &value);
    if (!found) {
      counts_.missing += stable ? 1 : 0;
      return;
    }
    check(value);
    if (R::number(value) != number) {
      ++counts_.wrongKey;
    }
    if (stable && R::version(value) != 1) {
      ++counts_.torn;
    }
  }

  void walk() {
    ++counts_.walks;
    std::fill(seen_.begin(), seen_.end(), 0);
    typename R::Value value;
    Cairn::IterHint hint;
    std::pair<uint32_t, uint64_t> last{0, 0};
    bool firstEntry = true;
    for (bool more = reader_.first(value, hint); more; more = reader_.next(value.fwkKey(), value, hint)) {
      ++counts_.walkedEntries;
      check(value);
      const uint64_t number = R::number(value);
      const std::pair<uint32_t, uint64_t> pair{Basalt::Util::reverse(R::key(number).hash(0)), number};
      if (!firstEntry && !(last < pair)) {
        ++counts_.disorder;
      }
      last = pair;
      firstEntry = false;
      const uint64_t index = number < stableKeys ? number : stableKeys + (number - churnBase);
      if (index < seen_.size() && seen_[index]++ != 0) {
        ++counts_.walkTwice;
      }
    }
    counts_.walkMissing += static_cast<uint64_t>(std::count(seen_.begin(), seen_.begin() + stableKeys, 0));
  }

  void report() {
    const auto & counters = reader_.counters();
    counts_.slotResizes += counters.slotResizes;
    counts_.chainRetries += counters.chainRetries;
    counts_.hintMisses += counters.iterHintMisses;
  }

 private:
  void check(const typename R::Value & value) {
    if (!R::whole(value)) {
      ++counts_.torn;
    }
  }

  Reader reader_;
  ReaderCounts & counts_;
  std::vector<uint8_t> seen_;  // per walk: stable keys, then churn keys
};

void runReader(Board & board, int index) {
  Basalt::Platform::DebugHandler handler("shrink-stress-reader");
  ReaderCounts & counts = board.readers[index];
  ReaderTable<IifRecords> iif(handler, counts);
  ReaderTable<TunnelRecords> tunnel(handler, counts);
  std::mt19937_64 random(200 + static_cast<uint64_t>(index));
  const uint64_t churn = churnKeys();
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(stressSeconds());
  for (uint64_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
    try {
      for (int i = 0; i < 200; ++i) {
        const bool stable = random() % 2 == 0;
        const uint64_t number = stable ? random() % stableKeys : churnBase + random() % churn;
        iif.lookup(number, stable);
        tunnel.lookup(number, stable);
      }
      if (round % 2 == 0) {
        iif.walk();
      } else {
        tunnel.walk();
      }
    } catch (const std::exception & exception) {
      ++counts.escaped;
      std::fprintf(stderr, "reader %d: %s\n", index, exception.what());
    }
  }
  iif.report();
  tunnel.report();
  counts.ran = true;
}

pid_t forkRunning(const std::function<void()> & body) {
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

bool exitedCleanly(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

unsigned long long ull(uint64_t value) { return static_cast<unsigned long long>(value); }

}  // namespace

TEST(ReaderStressShrinkMultiProcess, ReadersNeverSeeATornValueOrLoseAKeyWhileTablesShrink) {
  ScopedShmRoot root;
  void * shared = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  Board & board = *new (shared) Board();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);

  const pid_t writer = forkRunning([&] { runWriter(board, ready[1]); });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the writer did not come up";
  std::vector<pid_t> readers;
  for (int index = 0; index < readerCount; ++index) {
    readers.push_back(forkRunning([&, index] { runReader(board, index); }));
  }
  bool readersClean = true;
  for (pid_t reader : readers) {
    readersClean = exitedCleanly(reader) && readersClean;
  }
  std::atomic_ref<uint32_t>(board.stop).store(1, std::memory_order_relaxed);
  EXPECT_TRUE(exitedCleanly(writer));
  EXPECT_TRUE(readersClean);
  close(ready[0]);
  close(ready[1]);

  const WriterCounts & w = board.writer;
  std::printf("writer: entries per fill %llu, cycles %llu, operations %llu, slot shrinks %llu, slot moves %llu, "
              "L3Iif slots from %llu to %llu\n",
              ull(churnKeys()), ull(w.cycles), ull(w.operations), ull(w.slotShrinks), ull(w.slotMoves),
              ull(w.leastSlots), ull(w.mostSlots));
  EXPECT_TRUE(w.ran);
  EXPECT_TRUE(w.valid) << "the validator refused a table after the last cycle";
  EXPECT_GT(w.cycles, 0u);
  EXPECT_GT(w.slotShrinks, 0u);
  EXPECT_GT(w.slotMoves, 0u);
  EXPECT_GE(w.mostSlots, churnKeys());
  for (int index = 0; index < readerCount; ++index) {
    const ReaderCounts & r = board.readers[index];
    std::printf("reader %d: lookups %llu, walks %llu, entries walked %llu, torn %llu, missing %llu, walk missing %llu, "
                "walk twice %llu, disorder %llu, wrong key %llu, escaped %llu; remaps %llu, chain retries %llu, "
                "hint misses %llu\n",
                index, ull(r.lookups), ull(r.walks), ull(r.walkedEntries), ull(r.torn), ull(r.missing),
                ull(r.walkMissing), ull(r.walkTwice), ull(r.disorder), ull(r.wrongKey), ull(r.escaped),
                ull(r.slotResizes), ull(r.chainRetries), ull(r.hintMisses));
    EXPECT_TRUE(r.ran);
    EXPECT_GT(r.lookups, 0u);
    EXPECT_GT(r.walks, 0u);
    EXPECT_EQ(r.torn, 0u);
    EXPECT_EQ(r.missing, 0u);
    EXPECT_EQ(r.walkMissing, 0u);
    EXPECT_EQ(r.walkTwice, 0u);
    EXPECT_EQ(r.disorder, 0u);
    EXPECT_EQ(r.wrongKey, 0u);
    EXPECT_EQ(r.escaped, 0u);
  }
  munmap(shared, sizeof(Board));
}

// Multi-process stress: one writer process changes an L3Iif Config table and
// an L3Tunnel Config table at full speed (inserts, rewrites, removals, direct
// operations, bucket doubling and halving, slot growth) while reader
// processes look keys up and walk both tables the whole time, each in its
// own address space, with no lock. Every value is self-checking
// (SelfCheckingRecords.h); a set of stable keys is written once and never
// touched again, and a few hot keys are rewritten all the time, so that
// readers keep meeting rewrites in progress. Lookups go one by one and in
// batches (lookupBatch). The readers count what must never happen:
//   torn       a value that is not one whole write of its key
//   missing    a stable key not found by a lookup
//   walkMissing / walkTwice   a stable key absent from, or twice in, a walk
//   disorder   a walk that did not rise strictly in split order
//   wrongKey   a lookup answered with another key's value
//   escaped    an exception that left the reader
// TESSEL_STRESS_SECONDS sets the readers' run time (default 20).

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/CairnReader.h"
#include "Cairn/CairnWriter.h"
#include "Cairn/SelfCheckingRecords.h"
#include "Cairn/SlotTestTypes.h"

using namespace CairnTest;

namespace {

constexpr uint64_t stableKeys = 500;
constexpr uint64_t churnBase = 1000000;
constexpr uint64_t churnKeys = 20000;
constexpr uint64_t hotKeys = 16;  // the first churn keys, rewritten most often
constexpr int readerCount = 2;

double stressSeconds() {
  const char * text = std::getenv("TESSEL_STRESS_SECONDS");
  return text != nullptr ? std::atof(text) : 20.0;
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
  uint64_t lookasideReads = 0;
  uint64_t hintMisses = 0;
  bool ran = false;
};

struct WriterCounts {
  uint64_t operations = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketHalvings = 0;
  uint64_t slotGrows = 0;
  uint64_t mostBuckets = 0;
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

// One table of the writer: the writer backend and each churn key's version.
template <typename R>
struct WriterTable {
  using Writer = Cairn::CairnWriter<typename R::Key, typename R::Value, typename R::Ops>;

  explicit WriterTable(Basalt::Platform::DebugHandler & handler) : versions(churnKeys, 0) {
    Cairn::MapDescriptor descriptor;
    descriptor.maxSlots = 1024;
    descriptor.shrinkBuckets = true;
    writer = std::make_unique<Writer>(handler, std::string("stress/") + R::name, descriptor, typename R::Ops(),
                                      "Stress", [](bool) {});
    writer->initialize("stress");
    for (uint64_t number = 0; number < stableKeys; ++number) {
      writer->write(R::make(number, 1), true);
    }
  }

  // One random operation on a churn key; filling or draining by phase, so
  // that the bucket table doubles and halves.
  void step(std::mt19937_64 & random, bool filling) {
    if (random() % 4 == 0) {
      // A hot key rewritten again and again: readers meet rewrites in progress.
      const uint64_t index = random() % hotKeys;
      writer->write(R::make(churnBase + index, ++versions[index]), true);
      return;
    }
    const uint64_t index = random() % churnKeys;
    const uint64_t number = churnBase + index;
    const unsigned choice = static_cast<unsigned>(random() % 100);
    // Filling: about 70% of operations insert; draining: about 4%.
    const unsigned writes = filling ? 55 : 2;
    const unsigned removes = writes + (filling ? 20 : 88);
    const unsigned directWrites = removes + (filling ? 10 : 1);
    const unsigned directUpdates = directWrites + (filling ? 10 : 8);
    typename R::Value removed;
    if (choice < writes) {
      writer->write(R::make(number, ++versions[index]), true);
    } else if (choice < removes) {
      writer->remove(R::key(number), removed);
    } else if (choice < directWrites) {
      auto * address = writer->directWrite(R::key(number));
      *address = R::make(number, ++versions[index]);
      writer->directCommit();
    } else if (choice < directUpdates) {
      if (auto * address = writer->directUpdate(R::key(number))) {
        *address = R::make(number, ++versions[index]);
        writer->directCommit();
      }
    } else {
      writer->write(R::make(number, ++versions[index]), false);
    }
  }

  std::unique_ptr<Writer> writer;
  std::vector<uint64_t> versions;
};

void runWriter(Board & board, int readyFd) {
  Basalt::Platform::DebugHandler handler("stress-writer");
  WriterTable<IifRecords> iif(handler);
  WriterTable<TunnelRecords> tunnel(handler);
  const char ready = 1;
  if (write(readyFd, &ready, 1) != 1) {
    _exit(3);
  }
  std::mt19937_64 random(7);
  WriterCounts & counts = board.writer;
  uint32_t lastBuckets = 0;
  for (uint64_t op = 0; !stopRequested(board); ++op) {
    const bool filling = (op / 60000) % 2 == 0;
    iif.step(random, filling);
    tunnel.step(random, filling);
    counts.operations += 2;
    const uint32_t buckets = iif.writer->map().buckets().numBuckets();
    if (lastBuckets != 0 && buckets > lastBuckets) {
      ++counts.bucketGrows;
    } else if (buckets < lastBuckets) {
      ++counts.bucketHalvings;
    }
    lastBuckets = buckets;
    counts.mostBuckets = std::max<uint64_t>(counts.mostBuckets, buckets);
  }
  counts.slotGrows = iif.writer->writerCounters().slotGrows + tunnel.writer->writerCounters().slotGrows;
  counts.ran = true;
}

template <typename R>
class ReaderTable {
 public:
  using Reader = Cairn::CairnReader<typename R::Key, typename R::Value, typename R::Ops>;

  ReaderTable(Basalt::Platform::DebugHandler & handler, ReaderCounts & counts)
      : reader_(handler, std::string("stress/") + R::name, typename R::Ops()), counts_(counts) {
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

  // The stable keys from `first` on, a batch at a time: each must be found,
  // whole, at version 1.
  void lookupBatch(uint64_t first) {
    constexpr std::size_t Count = 2 * Reader::BatchWidth;
    typename R::Key keys[Count];
    typename R::Value values[Count];
    bool found[Count];
    for (std::size_t i = 0; i < Count; ++i) {
      keys[i] = R::key((first + i) % stableKeys);
    }
    reader_.lookupBatch(keys, values, found);
    counts_.lookups += Count;
    for (std::size_t i = 0; i < Count; ++i) {
      if (!found[i]) {
        ++counts_.missing;
        continue;
      }
      check(values[i]);
      counts_.wrongKey += R::number(values[i]) != (first + i) % stableKeys ? 1 : 0;
      counts_.torn += R::version(values[i]) != 1 ? 1 : 0;
    }
  }

  void walk() {
    ++counts_.walks;
    std::vector<uint8_t> seen(stableKeys, 0);
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
      if (number < stableKeys && seen[number]++ != 0) {
        ++counts_.walkTwice;
      }
    }
    for (uint8_t times : seen) {
      counts_.walkMissing += times == 0 ? 1 : 0;
    }
  }

  void report() {
    const auto & counters = reader_.counters();
    counts_.slotResizes += counters.slotResizes;
    counts_.chainRetries += counters.chainRetries;
    counts_.lookasideReads += counters.lookasideReads;
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
};

void runReader(Board & board, int index) {
  Basalt::Platform::DebugHandler handler("stress-reader");
  ReaderCounts & counts = board.readers[index];
  ReaderTable<IifRecords> iif(handler, counts);
  ReaderTable<TunnelRecords> tunnel(handler, counts);
  std::mt19937_64 random(100 + static_cast<uint64_t>(index));
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(stressSeconds());
  for (uint64_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
    try {
      for (int i = 0; i < 200; ++i) {
        const unsigned kind = static_cast<unsigned>(random() % 3);
        const bool stable = kind == 0;
        const uint64_t number = stable       ? random() % stableKeys
                                : kind == 1 ? churnBase + random() % hotKeys
                                            : churnBase + random() % churnKeys;
        iif.lookup(number, stable);
        tunnel.lookup(number, stable);
      }
      iif.lookupBatch(random() % stableKeys);
      tunnel.lookupBatch(random() % stableKeys);
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

}  // namespace

TEST(ReaderStressMultiProcess, ReadersNeverSeeATornValueOrLoseAStableKey) {
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
  std::printf("writer: operations %llu, bucket doublings %llu, halvings %llu, most buckets %llu, slot growths %llu\n",
              static_cast<unsigned long long>(w.operations), static_cast<unsigned long long>(w.bucketGrows),
              static_cast<unsigned long long>(w.bucketHalvings), static_cast<unsigned long long>(w.mostBuckets),
              static_cast<unsigned long long>(w.slotGrows));
  EXPECT_TRUE(w.ran);
  EXPECT_GT(w.bucketGrows, 0u);
  EXPECT_GT(w.bucketHalvings, 0u);
  EXPECT_GT(w.slotGrows, 0u);
  for (int index = 0; index < readerCount; ++index) {
    const ReaderCounts & r = board.readers[index];
    std::printf("reader %d: lookups %llu, walks %llu, entries walked %llu, torn %llu, missing %llu, walk missing %llu, "
                "walk twice %llu, disorder %llu, wrong key %llu, escaped %llu; remaps %llu, chain retries %llu, "
                "lookaside reads %llu, hint misses %llu\n",
                index, static_cast<unsigned long long>(r.lookups), static_cast<unsigned long long>(r.walks),
                static_cast<unsigned long long>(r.walkedEntries), static_cast<unsigned long long>(r.torn),
                static_cast<unsigned long long>(r.missing), static_cast<unsigned long long>(r.walkMissing),
                static_cast<unsigned long long>(r.walkTwice), static_cast<unsigned long long>(r.disorder),
                static_cast<unsigned long long>(r.wrongKey), static_cast<unsigned long long>(r.escaped),
                static_cast<unsigned long long>(r.slotResizes), static_cast<unsigned long long>(r.chainRetries),
                static_cast<unsigned long long>(r.lookasideReads), static_cast<unsigned long long>(r.hintMisses));
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

// Reads of a live table from another process: lookup hit, lookup miss and a
// full walk through a CairnReader in this process while the table's writer
// runs in a child process, once idle and once rewriting entries at full speed,
// and the idle case's hits again in batches (lookupBatch);
// against CairnWriter::lookup and walk in the writer's own process, and
// against std::unordered_map in process. L3Iif Config and L3Tunnel Config
// values at 1,000, 65,536 and 1,048,576 entries. The last table printed gives
// ns per operation and the ratio to std::unordered_map.
// Run with `./run bench`.

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <span>
#include <unordered_map>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "BenchTables.h"
#include "Cairn/CairnReader.h"
#include "RatioReporter.h"

namespace {

template <typename Table>
using ReaderOf = Cairn::CairnReader<typename Table::Key, typename Table::Value, typename Table::Ops>;

// The writer's process: fills the table, says so, then idles or rewrites
// entries at full speed as the parent tells it through a pipe.
template <typename Table>
[[noreturn]] void runWriterProcess(uint32_t entries, int commands, int ready) {
  Basalt::Platform::DebugHandler handler("bench-writer");
  auto writer = Bench::makeWriter<Table>(handler, entries);
  const auto numbers = Bench::shuffled(0, entries);
  for (uint64_t number : numbers) {
    writer->write(Table::make(number, 1), true);
  }
  const char done = 1;
  if (write(ready, &done, 1) != 1) {
    _exit(1);
  }
  std::mt19937_64 random(3);
  uint64_t version = 1;
  char command = 0;
  while (read(commands, &command, 1) == 1 && command != 'q') {
    if (command != 'b') {
      continue;
    }
    pollfd waiting{commands, POLLIN, 0};
    while (true) {
      for (int i = 0; i < 256; ++i) {
        writer->write(Table::make(numbers[random() % entries], ++version), true);
      }
      if (poll(&waiting, 1, 0) > 0) {
        break;  // the next command: stop rewriting
      }
    }
  }
  _exit(0);
}

// One table of `entries` entries: its writer in a child process, a reader
// here, and the two baselines here (a writer of its own table, a hash map).
template <typename Table>
class Setup {
 public:
  explicit Setup(uint32_t entries)
      : entries_(entries), hits_(Bench::shuffled(0, entries)), misses_(Bench::shuffled(entries, entries)) {
    int commands[2];
    int ready[2];
    if (pipe(commands) != 0 || pipe(ready) != 0) {
      std::abort();
    }
    child_ = fork();
    if (child_ == 0) {
      close(commands[1]);
      close(ready[0]);
      runWriterProcess<Table>(entries, commands[0], ready[1]);
    }
    close(commands[0]);
    close(ready[1]);
    commands_ = commands[1];
    char done = 0;
    if (read(ready[0], &done, 1) != 1) {
      std::abort();
    }
    close(ready[0]);
    reader_ = std::make_unique<ReaderOf<Table>>(handler_, fmt::format("bench/{}-{}", Table::name, entries),
                                                typename Table::Ops());
    if (!reader_->initialize("bench")) {
      std::abort();
    }
    localWriter_ = Bench::makeWriter<Table>(handler_, entries, "Local");
    map_.reserve(entries);
    for (uint64_t number : hits_) {
      localWriter_->write(Table::make(number, 1), true);
      map_.emplace(Table::key(number), Table::make(number, 1).value);
    }
  }

  ~Setup() {
    const char quit[2] = {'s', 'q'};
    if (write(commands_, quit, 2) != 2) {
      kill(child_, SIGKILL);
    }
    close(commands_);
    waitpid(child_, nullptr, 0);
  }

  void busyIs(bool busy) {
    if (busy != busy_) {
      const char command = busy ? 'b' : 's';
      if (write(commands_, &command, 1) != 1) {
        std::abort();
      }
      busy_ = busy;
    }
  }

  uint32_t entries() const { return entries_; }
  const std::vector<uint64_t> & probes(bool hit) const { return hit ? hits_ : misses_; }
  ReaderOf<Table> & reader() { return *reader_; }
  Bench::WriterOf<Table> & localWriter() { return *localWriter_; }
  auto & map() { return map_; }

 private:
  uint32_t entries_;
  std::vector<uint64_t> hits_;
  std::vector<uint64_t> misses_;
  pid_t child_ = -1;
  int commands_ = -1;
  bool busy_ = false;
  Basalt::Platform::DebugHandler handler_{"bench-reader"};
  std::unique_ptr<ReaderOf<Table>> reader_;
  std::unique_ptr<Bench::WriterOf<Table>> localWriter_;
  std::unordered_map<typename Table::Key, typename Table::Entry, Bench::KeyHash<Table>> map_;
};

// The benchmarks of one setup run one after another; the next setup replaces it.
std::shared_ptr<void> current;
std::string currentName;

template <typename Table>
Setup<Table> & setupFor(uint32_t entries) {
  const std::string name = fmt::format("{}/{}", Table::name, entries);
  if (currentName != name) {
    current.reset();
    current = std::make_shared<Setup<Table>>(entries);
    currentName = name;
  }
  return *static_cast<Setup<Table> *>(current.get());
}

// Lookups through `find(number) -> found`, cycling through the probes.
template <typename Find>
void lookups(benchmark::State & state, const std::vector<uint64_t> & probes, Find && find) {
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(find(probes[next]));
    next = next + 1 == probes.size() ? 0 : next + 1;
  }
}

// Whole walks through `walk() -> entries seen`; reported per entry.
template <typename Walk>
void walks(benchmark::State & state, uint32_t entries, Walk && walk) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(walk());
  }
  state.counters["ops"] = entries;
}

template <typename Table>
void registerTable(uint32_t entries) {
  using Value = typename Table::Value;
  const std::string suffix = fmt::format("{}/{}", Table::name, entries);
  auto add = [&](const std::string & group, const std::string & operation, auto body) {
    benchmark::RegisterBenchmark(fmt::format("{}/{}/{}", group, operation, suffix).c_str(), body)
        ->Unit(benchmark::kNanosecond)
        ->UseRealTime();
  };
  auto walkThrough = [](auto & backend) {
    Value value;
    Cairn::IterHint hint;
    uint64_t seen = 0;
    for (bool more = backend.first(value, hint); more; more = backend.next(value.fwkKey(), value, hint)) {
      ++seen;
    }
    return seen;
  };
  for (bool busy : {false, true}) {
    const std::string group = busy ? "reader-busy" : "reader-idle";
    for (bool hit : {true, false}) {
      add(group, hit ? "lookupHit" : "lookupMiss", [=](benchmark::State & state) {
        auto & setup = setupFor<Table>(entries);
        setup.busyIs(busy);
        Value out;
        lookups(state, setup.probes(hit), [&](uint64_t number) {
          bool found = false;
          setup.reader().lookup(Table::key(number), found, &out);
          return found;
        });
      });
    }
    add(group, "walk", [=](benchmark::State & state) {
      auto & setup = setupFor<Table>(entries);
      setup.busyIs(busy);
      walks(state, entries, [&] { return walkThrough(setup.reader()); });
    });
  }
  // The idle reader's hits again, BatchWidth keys at a time through
  // lookupBatch; reported per key.
  add("reader-batch", "lookupHit", [=](benchmark::State & state) {
    auto & setup = setupFor<Table>(entries);
    setup.busyIs(false);
    constexpr std::size_t Width = ReaderOf<Table>::BatchWidth;
    const auto & probes = setup.probes(true);
    std::vector<typename Table::Key> keys;
    for (std::size_t i = 0; i < probes.size() / Width * Width; ++i) {
      keys.push_back(Table::key(probes[i]));
    }
    Value out[Width];
    bool found[Width];
    std::size_t next = 0;
    for (auto _ : state) {
      benchmark::DoNotOptimize(setup.reader().lookupBatch(std::span(keys.data() + next, Width), out, found));
      next = next + Width == keys.size() ? 0 : next + Width;
    }
    state.counters["ops"] = Width;
  });
  for (bool hit : {true, false}) {
    add("writer", hit ? "lookupHit" : "lookupMiss", [=](benchmark::State & state) {
      auto & setup = setupFor<Table>(entries);
      setup.busyIs(false);
      Value out;
      lookups(state, setup.probes(hit), [&](uint64_t number) {
        bool found = false;
        setup.localWriter().lookup(Table::key(number), found, &out);
        return found;
      });
    });
    add("unordered_map", hit ? "lookupHit" : "lookupMiss", [=](benchmark::State & state) {
      auto & setup = setupFor<Table>(entries);
      typename Table::Entry out;
      lookups(state, setup.probes(hit), [&](uint64_t number) {
        auto at = setup.map().find(Table::key(number));
        if (at == setup.map().end()) {
          return false;
        }
        out = at->second;
        return true;
      });
    });
  }
  add("writer", "walk", [=](benchmark::State & state) {
    auto & setup = setupFor<Table>(entries);
    walks(state, entries, [&] { return walkThrough(setup.localWriter()); });
  });
  add("unordered_map", "walk", [=](benchmark::State & state) {
    auto & setup = setupFor<Table>(entries);
    walks(state, entries, [&] {
      uint64_t seen = 0;
      typename Table::Entry out;
      for (const auto & entry : setup.map()) {
        out = entry.second;
        benchmark::DoNotOptimize(out);
        ++seen;
      }
      return seen;
    });
  });
}

}  // namespace

int main(int argc, char ** argv) {
  const std::string base = Bench::tableBase();
  for (uint32_t entries : {1000u, 65536u, 1048576u}) {
    registerTable<CairnTest::IifRecords>(entries);
    registerTable<CairnTest::TunnelRecords>(entries);
  }
  benchmark::Initialize(&argc, argv);
  Bench::RatioReporter reporter("unordered_map");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  current.reset();
  benchmark::Shutdown();
  std::filesystem::remove_all(base);
  return 0;
}

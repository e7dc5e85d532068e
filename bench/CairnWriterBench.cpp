// Writer operations through CairnWriter against std::unordered_map holding
// the same records, side by side in one run:
//   insert, update, remove, lookup hit, lookup miss
//   for the L3Iif Config and L3Tunnel Config value sizes
//   at 1,000, 65,536 and 1,048,576 entries.
// The last table printed gives ns per operation and the ratio to the baseline.
// Run with `./run bench`; Google Benchmark flags pass through
// (for example --benchmark_filter=lookup).

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "BenchTables.h"
#include "RatioReporter.h"

namespace {

// The engine under test: a CairnWriter on a table file in the benchmark's
// base directory.
template <typename Table>
class CairnSubject {
 public:
  using Value = typename Table::Value;
  using Writer = Bench::WriterOf<Table>;

  explicit CairnSubject(uint32_t entries) : writer_(Bench::makeWriter<Table>(handler_, entries)) {}

  void insert(uint64_t number, uint64_t version) { writer_->write(Table::make(number, version), true); }
  bool remove(uint64_t number) { return writer_->remove(Table::key(number), removed_); }
  bool lookup(uint64_t number) {
    bool found = false;
    writer_->lookup(Table::key(number), found, &out_);
    return found;
  }

 private:
  Basalt::Platform::DebugHandler handler_{"bench"};
  std::unique_ptr<Writer> writer_;
  Value removed_;
  Value out_;
};

// The baseline: the same records in a std::unordered_map, hashed by the same key hash.
template <typename Table>
class MapBaseline {
 public:
  explicit MapBaseline(uint32_t entries) { map_.reserve(entries); }
  void insert(uint64_t number, uint64_t version) {
    map_.insert_or_assign(Table::key(number), Table::make(number, version).value);
  }
  bool remove(uint64_t number) {
    auto at = map_.find(Table::key(number));
    if (at == map_.end()) {
      return false;
    }
    removed_ = at->second;
    map_.erase(at);
    return true;
  }
  bool lookup(uint64_t number) {
    auto at = map_.find(Table::key(number));
    if (at == map_.end()) {
      return false;
    }
    out_ = at->second;
    return true;
  }

 private:
  std::unordered_map<typename Table::Key, typename Table::Entry, Bench::KeyHash<Table>> map_;
  typename Table::Entry removed_;
  typename Table::Entry out_;
};

template <typename Subject>
void fill(Subject & subject, const std::vector<uint64_t> & numbers) {
  for (uint64_t number : numbers) {
    subject.insert(number, 1);
  }
}

template <typename Subject>
void benchInsert(benchmark::State & state, uint32_t entries) {
  const auto numbers = Bench::shuffled(0, entries);
  for (auto _ : state) {
    state.PauseTiming();
    auto subject = std::make_unique<Subject>(entries);
    state.ResumeTiming();
    fill(*subject, numbers);
    state.PauseTiming();
    subject.reset();
    state.ResumeTiming();
  }
  state.counters["ops"] = entries;
}

template <typename Subject>
void benchRemove(benchmark::State & state, uint32_t entries) {
  const auto numbers = Bench::shuffled(0, entries);
  for (auto _ : state) {
    state.PauseTiming();
    auto subject = std::make_unique<Subject>(entries);
    fill(*subject, numbers);
    state.ResumeTiming();
    for (uint64_t number : numbers) {
      benchmark::DoNotOptimize(subject->remove(number));
    }
    state.PauseTiming();
    subject.reset();
    state.ResumeTiming();
  }
  state.counters["ops"] = entries;
}

template <typename Subject>
void benchUpdate(benchmark::State & state, uint32_t entries) {
  const auto numbers = Bench::shuffled(0, entries);
  Subject subject(entries);
  fill(subject, numbers);
  uint64_t version = 1;
  std::size_t next = 0;
  for (auto _ : state) {
    subject.insert(numbers[next], ++version);
    next = next + 1 == numbers.size() ? 0 : next + 1;
  }
}

template <typename Subject>
void benchLookup(benchmark::State & state, uint32_t entries, bool hit) {
  const auto numbers = Bench::shuffled(0, entries);
  Subject subject(entries);
  fill(subject, numbers);
  const auto probes = hit ? numbers : Bench::shuffled(entries, entries);
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(subject.lookup(probes[next]));
    next = next + 1 == probes.size() ? 0 : next + 1;
  }
}

template <typename Table>
void registerTable(uint32_t entries) {
  const std::string suffix = fmt::format("{}/{}", Table::name, entries);
  auto add = [&](const std::string & operation, auto cairn, auto baseline) {
    benchmark::RegisterBenchmark(fmt::format("cairn/{}/{}", operation, suffix).c_str(), cairn)
        ->Unit(benchmark::kNanosecond)->UseRealTime();
    benchmark::RegisterBenchmark(fmt::format("unordered_map/{}/{}", operation, suffix).c_str(), baseline)
        ->Unit(benchmark::kNanosecond)->UseRealTime();
  };
  using C = CairnSubject<Table>;
  using B = MapBaseline<Table>;
  add("insert", [=](benchmark::State & s) { benchInsert<C>(s, entries); },
      [=](benchmark::State & s) { benchInsert<B>(s, entries); });
  add("update", [=](benchmark::State & s) { benchUpdate<C>(s, entries); },
      [=](benchmark::State & s) { benchUpdate<B>(s, entries); });
  add("remove", [=](benchmark::State & s) { benchRemove<C>(s, entries); },
      [=](benchmark::State & s) { benchRemove<B>(s, entries); });
  add("lookupHit", [=](benchmark::State & s) { benchLookup<C>(s, entries, true); },
      [=](benchmark::State & s) { benchLookup<B>(s, entries, true); });
  add("lookupMiss", [=](benchmark::State & s) { benchLookup<C>(s, entries, false); },
      [=](benchmark::State & s) { benchLookup<B>(s, entries, false); });
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
  benchmark::Shutdown();
  std::filesystem::remove_all(base);
  return 0;
}

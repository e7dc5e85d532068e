// The key's own costs on the read path: its hash, and its comparison with an
// equal key, for L3Iif and L3Tunnel keys; against a lookup of the same keys
// in an in-process std::unordered_map of 65,536 entries, which pays one hash
// and one comparison itself. Keys are those of the reader and writer
// benchmarks. The last table printed gives ns per operation and the ratio to
// std::unordered_map.
// Run with `./run bench`.

#include <cstdint>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchTables.h"
#include "RatioReporter.h"

namespace {

constexpr uint32_t entries = 65536;

template <typename Table>
std::vector<typename Table::Key> keys() {
  std::vector<typename Table::Key> made;
  for (uint64_t number : Bench::shuffled(0, entries)) {
    made.push_back(Table::key(number));
  }
  return made;
}

// Runs `operation(key, twin)` over the keys in turn, `twin` an equal key
// made apart from it.
template <typename Table, typename Operation>
void overKeys(benchmark::State & state, Operation && operation) {
  const auto all = keys<Table>();
  const auto twins = keys<Table>();
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(operation(all[next], twins[next]));
    next = next + 1 == all.size() ? 0 : next + 1;
  }
}

template <typename Table>
void registerTable() {
  using Key = typename Table::Key;
  auto add = [](const std::string & group, auto body) {
    benchmark::RegisterBenchmark(fmt::format("{}/{}", group, Table::name).c_str(), body)
        ->Unit(benchmark::kNanosecond)
        ->UseRealTime();
  };
  add("hash", [](benchmark::State & state) {
    overKeys<Table>(state, [](const Key & key, const Key &) { return key.hash(0); });
  });
  add("equal", [](benchmark::State & state) {
    overKeys<Table>(state, [](const Key & key, const Key & twin) { return key == twin; });
  });
  add("unordered_map", [](benchmark::State & state) {
    std::unordered_map<Key, uint64_t, Bench::KeyHash<Table>> map;
    map.reserve(entries);
    for (uint64_t number = 0; number < entries; ++number) {
      map.emplace(Table::key(number), number);
    }
    overKeys<Table>(state, [&](const Key & key, const Key &) { return map.find(key)->second; });
  });
}

}  // namespace

int main(int argc, char ** argv) {
  registerTable<CairnTest::IifRecords>();
  registerTable<CairnTest::TunnelRecords>();
  benchmark::Initialize(&argc, argv);
  Bench::RatioReporter reporter("unordered_map");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

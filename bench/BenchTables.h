#pragma once
// What the benchmarks share: the tables they run on (the self-checking
// records of the concurrency tests, so that every table is an L3Iif Config or
// L3Tunnel Config table with realistic values), a writer on one, the
// baseline's hash, and a base directory for the tables' files.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Cairn/CairnWriter.h"
#include "Cairn/SelfCheckingRecords.h"

namespace Bench {

template <typename Table>
using WriterOf = Cairn::CairnWriter<typename Table::Key, typename Table::Value, typename Table::Ops>;

// A writer on the table "bench/<name>-<entries>", empty.
template <typename Table>
std::unique_ptr<WriterOf<Table>> makeWriter(Basalt::Platform::DebugHandler & handler, uint32_t entries,
                                            const std::string & variant = "") {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = entries;
  descriptor.shrinkBuckets = true;
  auto writer = std::make_unique<WriterOf<Table>>(
      handler, fmt::format("bench/{}{}-{}", Table::name, variant, entries), descriptor, typename Table::Ops(), "Bench",
      [](bool) {});
  writer->initialize("bench");
  return writer;
}

// The baseline hashes keys with the same key hash as the engine, so that the
// comparison is one of the structures.
template <typename Table>
struct KeyHash {
  std::size_t operator()(const typename Table::Key & key) const { return key.hash(0); }
};

// first .. first + count - 1 in a fixed random order.
inline std::vector<uint64_t> shuffled(uint64_t first, uint64_t count) {
  std::vector<uint64_t> numbers(count);
  for (uint64_t i = 0; i < count; ++i) {
    numbers[i] = first + i;
  }
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(42));
  return numbers;
}

// A fresh directory for the tables, set as the tables' base directory for
// this process and its children: in TESSEL_BENCH_BASE when that names a
// directory (a tmpfs mounted with huge pages, to compare), else in /dev/shm
// when there is room.
inline std::string tableBase() {
  const char * parent = std::getenv("TESSEL_BENCH_BASE");
  std::string base = std::string(parent != nullptr ? parent : "/dev/shm") + "/tessel-bench-XXXXXX";
  if (mkdtemp(base.data()) == nullptr) {
    base = (std::filesystem::temp_directory_path() / "tessel-bench-XXXXXX").string();
    if (mkdtemp(base.data()) == nullptr) {
      fmt::print(stderr, "bench: cannot make a directory for the tables\n");
      std::exit(1);
    }
  }
  setenv(Cairn::RootPath::baseVariable, base.c_str(), 1);
  return base;
}

}  // namespace Bench

// TesselHwLib beside its peers, in one run, on the same keys and the same
// records (L3Iif Config and L3Tunnel Config values) at 1,000, 65,536 and
// 1,048,576 entries:
//   tessel     a CairnWriter; a CairnReader in another process
//   absl       absl::flat_hash_map in process (the baseline of every ratio)
//   std        std::unordered_map in process
//   boost      a boost::unordered_map in Boost.Interprocess shared memory,
//              every access under the segment's sharable mutex
//   lmdb       an LMDB environment on the tables' tmpfs, a read transaction
//              per lookup and a write transaction per change; keyed by the
//              key's number (8 bytes), as its keys are bytes, not records
// Cases: lookup hit and miss, insert into an empty store (the inserts alone),
// update and remove in the writer's process; lookup hit from another process with the writer idle
// ("<system>-idle") and rewriting at full speed ("<system>-busy"); then one
// writer and N reader processes for a while (N = cores - 1), in lookups and
// updates per second.
// TESSEL_PEERS_MARKDOWN=<file> also writes the tables as Markdown.
// Run with `./run peers`.

#include <lmdb.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <unordered_map>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#include <fmt/format.h>

#include "BenchTables.h"
#include "Cairn/CairnReader.h"
#include "RatioReporter.h"

namespace {

namespace bip = boost::interprocess;

std::string base;  // the tables' directory of this run

// ---------------------------------------------------------------- the systems
//
// Each system is a store of Table::Value by key number with the same faces:
// a writer (create, put, erase, get) and, for those shared between
// processes, a reader opened in another process (openReader, given the
// writer process, and read).

template <typename Table>
using Value = typename Table::Value;

template <typename Table>
class TesselStore {
 public:
  static constexpr const char * name = "tessel";
  ~TesselStore() {
    if (writer_ != nullptr) {
      writer_->cleanup();  // the next store of this name starts from empty files
    }
  }

  void create(uint32_t entries) { writer_ = Bench::makeWriter<Table>(handler_, entries, "Peers"); }
  void put(uint64_t number, uint64_t version) { writer_->write(Table::make(number, version), true); }
  bool erase(uint64_t number) {
    Value<Table> removed;
    return writer_->remove(Table::key(number), removed);
  }
  bool get(uint64_t number, Value<Table> & out) const {
    bool found = false;
    writer_->lookup(Table::key(number), found, &out);
    return found;
  }

  void openReader(pid_t /*writer*/, uint32_t entries) {
    reader_ = std::make_unique<Reader>(handler_, fmt::format("bench/{}Peers-{}", Table::name, entries),
                                       typename Table::Ops());
    if (!reader_->initialize("bench")) {
      std::abort();
    }
  }
  bool read(uint64_t number, Value<Table> & out) const {
    bool found = false;
    reader_->lookup(Table::key(number), found, &out);
    return found;
  }

 private:
  using Reader = Cairn::CairnReader<typename Table::Key, Value<Table>, typename Table::Ops>;
  Basalt::Platform::DebugHandler handler_{"peers"};
  std::unique_ptr<Bench::WriterOf<Table>> writer_;
  std::unique_ptr<Reader> reader_;
};

// An in-process hash map of one of the two kinds.
template <typename Table, typename Map, const char * Name>
class InProcessStore {
 public:
  static constexpr const char * name = Name;

  void create(uint32_t entries) {
    map_ = Map();
    map_.reserve(entries);
  }
  void put(uint64_t number, uint64_t version) { map_.insert_or_assign(Table::key(number), Table::make(number, version)); }
  bool erase(uint64_t number) { return map_.erase(Table::key(number)) != 0; }
  bool get(uint64_t number, Value<Table> & out) const {
    const auto at = map_.find(Table::key(number));
    if (at == map_.end()) {
      return false;
    }
    out = at->second;
    return true;
  }
 private:
  Map map_;
};

constexpr char AbslName[] = "absl";
constexpr char StdName[] = "std";

template <typename Table>
using AbslStore = InProcessStore<
    Table, absl::flat_hash_map<typename Table::Key, Value<Table>, Bench::KeyHash<Table>>, AbslName>;
template <typename Table>
using StdStore = InProcessStore<
    Table, std::unordered_map<typename Table::Key, Value<Table>, Bench::KeyHash<Table>>, StdName>;

// A boost::unordered_map in a managed shared-memory segment, with the
// sharable mutex that lets readers in and keeps them out while the writer
// changes the map.
template <typename Table>
class BoostStore {
 public:
  static constexpr const char * name = "boost";

  ~BoostStore() {
    if (owner_) {
      bip::shared_memory_object::remove(segmentName_.c_str());
    }
  }

  void create(uint32_t entries) {
    segmentName_ = fmt::format("tessel-peers-{}-{}-{}", getpid(), Table::name, entries);
    bip::shared_memory_object::remove(segmentName_.c_str());
    const std::size_t bytes = (sizeof(Pair) + 64) * std::size_t{entries} * 2 + (std::size_t{1} << 20);
    segment_ = std::make_unique<bip::managed_shared_memory>(bip::create_only, segmentName_.c_str(), bytes);
    owner_ = true;
    root_ = segment_->construct<Root>("root")(segment_->get_segment_manager());
    root_->map.reserve(entries);
  }
  void put(uint64_t number, uint64_t version) {
    bip::scoped_lock<bip::interprocess_sharable_mutex> lock(root_->mutex);
    root_->map.insert_or_assign(Table::key(number), Table::make(number, version));
  }
  bool erase(uint64_t number) {
    bip::scoped_lock<bip::interprocess_sharable_mutex> lock(root_->mutex);
    return root_->map.erase(Table::key(number)) != 0;
  }
  bool get(uint64_t number, Value<Table> & out) const { return read(number, out); }

  // Opens the segment that the writer process `writer` made.
  void openReader(pid_t writer, uint32_t entries) {
    segmentName_ = fmt::format("tessel-peers-{}-{}-{}", writer, Table::name, entries);
    segment_ = std::make_unique<bip::managed_shared_memory>(bip::open_only, segmentName_.c_str());
    root_ = segment_->find<Root>("root").first;
  }
  bool read(uint64_t number, Value<Table> & out) const {
    bip::sharable_lock<bip::interprocess_sharable_mutex> lock(root_->mutex);
    const auto at = root_->map.find(Table::key(number));
    if (at == root_->map.end()) {
      return false;
    }
    out = at->second;
    return true;
  }

 private:
  using Key = typename Table::Key;
  using Pair = std::pair<const Key, Value<Table>>;
  using Allocator = bip::allocator<Pair, bip::managed_shared_memory::segment_manager>;
  using Map = boost::unordered_map<Key, Value<Table>, Bench::KeyHash<Table>, std::equal_to<Key>, Allocator>;
  struct Root {
    explicit Root(bip::managed_shared_memory::segment_manager * manager)
        : map(0, Bench::KeyHash<Table>(), std::equal_to<Key>(), Allocator(manager)) {}
    bip::interprocess_sharable_mutex mutex;
    Map map;
  };

  std::string segmentName_;
  std::unique_ptr<bip::managed_shared_memory> segment_;
  Root * root_ = nullptr;
  bool owner_ = false;
};

// LMDB keyed by the key number, on the tables' tmpfs without syncs: its
// fastest safe setting for data that lives no longer than the machine is up.
template <typename Table>
class LmdbStore {
 public:
  static constexpr const char * name = "lmdb";

  ~LmdbStore() {
    if (readTxn_ != nullptr) {
      mdb_txn_abort(readTxn_);
    }
    if (env_ != nullptr) {
      mdb_env_close(env_);
    }
  }

  void create(uint32_t entries) {
    directory_ = fmt::format("{}/lmdb-{}-{}", base, Table::name, entries);
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
    open(entries, 0);
  }
  void put(uint64_t number, uint64_t version) {
    const Value<Table> value = Table::make(number, version);
    write([&](MDB_txn * txn) {
      MDB_val key{sizeof(number), &number};
      MDB_val data{sizeof(value), const_cast<Value<Table> *>(&value)};
      check(mdb_put(txn, dbi_, &key, &data, 0), "mdb_put");
    });
  }
  bool erase(uint64_t number) {
    bool erased = false;
    write([&](MDB_txn * txn) {
      MDB_val key{sizeof(number), &number};
      erased = mdb_del(txn, dbi_, &key, nullptr) == 0;
    });
    return erased;
  }
  bool get(uint64_t number, Value<Table> & out) const { return read(number, out); }

  void openReader(pid_t /*writer*/, uint32_t entries) {
    directory_ = fmt::format("{}/lmdb-{}-{}", base, Table::name, entries);
    open(entries, MDB_RDONLY);
  }
  // A read transaction per lookup, renewed rather than made anew, as a
  // reader that keeps its handle does.
  bool read(uint64_t number, Value<Table> & out) const {
    if (readTxn_ == nullptr) {
      check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &readTxn_), "mdb_txn_begin");
    } else {
      check(mdb_txn_renew(readTxn_), "mdb_txn_renew");
    }
    MDB_val key{sizeof(number), &number};
    MDB_val data;
    const bool found = mdb_get(readTxn_, dbi_, &key, &data) == 0;
    if (found) {
      std::memcpy(static_cast<void *>(&out), data.mv_data, sizeof(out));
    }
    mdb_txn_reset(readTxn_);
    return found;
  }

 private:
  static void check(int result, const char * call) {
    if (result != 0) {
      fmt::print(stderr, "peers: {}: {}\n", call, mdb_strerror(result));
      std::abort();
    }
  }

  void open(uint32_t entries, unsigned flags) {
    check(mdb_env_create(&env_), "mdb_env_create");
    const std::size_t bytes = (sizeof(Value<Table>) + 64) * std::size_t{entries} * 4 + (std::size_t{16} << 20);
    check(mdb_env_set_mapsize(env_, bytes), "mdb_env_set_mapsize");
    check(mdb_env_set_maxreaders(env_, 256), "mdb_env_set_maxreaders");
    check(mdb_env_open(env_, directory_.c_str(), flags | MDB_NOSYNC | MDB_NOMETASYNC | MDB_NOTLS, 0644),
          "mdb_env_open");
    MDB_txn * txn;
    check(mdb_txn_begin(env_, nullptr, flags & MDB_RDONLY, &txn), "mdb_txn_begin");
    check(mdb_dbi_open(txn, nullptr, (flags & MDB_RDONLY) ? 0 : MDB_CREATE, &dbi_), "mdb_dbi_open");
    check(mdb_txn_commit(txn), "mdb_txn_commit");
  }

  template <typename Change>
  void write(Change && change) {
    MDB_txn * txn;
    check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
    change(txn);
    check(mdb_txn_commit(txn), "mdb_txn_commit");
  }

  std::string directory_;
  MDB_env * env_ = nullptr;
  MDB_dbi dbi_ = 0;
  mutable MDB_txn * readTxn_ = nullptr;
};

// ---------------------------------------------------------------- processes

// Memory shared by this process and its children.
template <typename T>
T & sharedObject() {
  void * memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::abort();
  }
  return *new (memory) T();
}

struct Flags {
  std::atomic<uint32_t> stop{0};
  std::atomic<uint32_t> ready{0};
  std::atomic<uint64_t> lookups{0};
  std::atomic<uint64_t> updates{0};
};

template <typename Body>
pid_t forkRunning(Body && body) {
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

// A writer of `Store` in a child process: fills the table, says so, then
// idles or rewrites random entries at full speed while `busy` says so,
// counting its updates, until `stop`. An idle writer sleeps in a read of its
// wake-up pipe, so that it takes no time from the reader being measured (a
// writer waking every few hundred microseconds to look at the flag cost an
// idle reader up to half its speed on a small machine).
template <typename Table, typename Store>
class WriterProcess {
 public:
  explicit WriterProcess(uint32_t entries) : flags_(sharedObject<Flags>()), busy_(sharedObject<std::atomic<uint32_t>>()) {
    if (pipe(wake_) != 0) {
      std::abort();
    }
    pid_ = forkRunning([&] {
      close(wake_[1]);
      Store store;
      store.create(entries);
      const auto numbers = Bench::shuffled(0, entries);
      for (uint64_t number : numbers) {
        store.put(number, 1);
      }
      flags_.ready.store(1);
      std::mt19937_64 random(3);
      uint64_t version = 1;
      while (flags_.stop.load(std::memory_order_relaxed) == 0) {
        if (busy_.load(std::memory_order_relaxed) == 0) {
          char wake;
          if (read(wake_[0], &wake, 1) != 1) {
            break;  // the parent has gone
          }
          continue;
        }
        for (int i = 0; i < 64; ++i) {
          store.put(numbers[random() % entries], ++version);
        }
        flags_.updates.fetch_add(64, std::memory_order_relaxed);
      }
    });
    close(wake_[0]);
    while (flags_.ready.load() == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  ~WriterProcess() {
    flags_.stop.store(1);
    wake();
    waitpid(pid_, nullptr, 0);
    close(wake_[1]);
    munmap(&flags_, sizeof(Flags));
    munmap(&busy_, sizeof(busy_));
  }
  void busyIs(bool busy) {
    busy_.store(busy ? 1 : 0);
    wake();
  }
  pid_t pid() const { return pid_; }
  Flags & flags() { return flags_; }

 private:
  void wake() {
    const char byte = 1;
    if (write(wake_[1], &byte, 1) != 1) {
      std::abort();
    }
  }

  Flags & flags_;
  std::atomic<uint32_t> & busy_;
  int wake_[2] = {-1, -1};
  pid_t pid_ = -1;
};

// ---------------------------------------------------------------- the cases

template <typename Table, typename Store>
void registerWriterCases(uint32_t entries) {
  const std::string suffix = fmt::format("{}/{}", Table::name, entries);
  auto add = [&](const std::string & operation, auto body) {
    benchmark::RegisterBenchmark(fmt::format("{}/{}/{}", Store::name, operation, suffix).c_str(), body)
        ->Unit(benchmark::kNanosecond)
        ->UseRealTime()
        ->MinTime(0.3);
  };
  const auto hits = std::make_shared<std::vector<uint64_t>>(Bench::shuffled(0, entries));
  const auto misses = std::make_shared<std::vector<uint64_t>>(Bench::shuffled(entries, entries));
  for (bool hit : {true, false}) {
    add(hit ? "lookupHit" : "lookupMiss", [=](benchmark::State & state) {
      Store store;
      store.create(entries);
      for (uint64_t number : *hits) {
        store.put(number, 1);
      }
      const auto & probes = hit ? *hits : *misses;
      Value<Table> out;
      std::size_t next = 0;
      for (auto _ : state) {
        benchmark::DoNotOptimize(store.get(probes[next], out));
        next = next + 1 == probes.size() ? 0 : next + 1;
      }
    });
  }
  // The inserts alone: making the empty store (for tessel its files and
  // mappings, for absl an allocation) and dropping it are not timed.
  add("insert", [=](benchmark::State & state) {
    for (auto _ : state) {
      state.PauseTiming();
      auto store = std::make_unique<Store>();
      store->create(entries);
      state.ResumeTiming();
      for (uint64_t number : *hits) {
        store->put(number, 1);
      }
      state.PauseTiming();
      store.reset();
      state.ResumeTiming();
    }
    state.counters["ops"] = entries;
  });
  add("update", [=](benchmark::State & state) {
    Store store;
    store.create(entries);
    for (uint64_t number : *hits) {
      store.put(number, 1);
    }
    uint64_t version = 1;
    std::size_t next = 0;
    for (auto _ : state) {
      store.put((*hits)[next], ++version);
      next = next + 1 == hits->size() ? 0 : next + 1;
    }
  });
  add("remove", [=](benchmark::State & state) {
    Store store;
    store.create(entries);
    for (auto _ : state) {
      state.PauseTiming();
      for (uint64_t number : *hits) {
        store.put(number, 1);
      }
      state.ResumeTiming();
      for (uint64_t number : *hits) {
        benchmark::DoNotOptimize(store.erase(number));
      }
    }
    state.counters["ops"] = entries;
  });
}

// The setup of the reader cases: a writer process and this process's reader.
std::shared_ptr<void> currentSetup;
std::string currentName;

template <typename Table, typename Store>
struct ReaderSetup {
  explicit ReaderSetup(uint32_t entries) : writer(entries) { store.openReader(writer.pid(), entries); }
  WriterProcess<Table, Store> writer;
  Store store;
};

template <typename Table, typename Store>
ReaderSetup<Table, Store> & readerSetup(uint32_t entries) {
  const std::string name = fmt::format("{}/{}/{}", Store::name, Table::name, entries);
  if (currentName != name) {
    currentSetup.reset();
    currentSetup = std::make_shared<ReaderSetup<Table, Store>>(entries);
    currentName = name;
  }
  return *static_cast<ReaderSetup<Table, Store> *>(currentSetup.get());
}

template <typename Table, typename Store>
void registerReaderCases(uint32_t entries) {
  const auto hits = std::make_shared<std::vector<uint64_t>>(Bench::shuffled(0, entries));
  for (bool busy : {false, true}) {
    const std::string group = fmt::format("{}-{}", Store::name, busy ? "busy" : "idle");
    benchmark::RegisterBenchmark(fmt::format("{}/lookupHit/{}/{}", group, Table::name, entries).c_str(),
                                 [=](benchmark::State & state) {
                                   auto & setup = readerSetup<Table, Store>(entries);
                                   setup.writer.busyIs(busy);
                                   Value<Table> out;
                                   std::size_t next = 0;
                                   for (auto _ : state) {
                                     benchmark::DoNotOptimize(setup.store.read((*hits)[next], out));
                                     next = next + 1 == hits->size() ? 0 : next + 1;
                                   }
                                   setup.writer.busyIs(false);
                                 })
        ->Unit(benchmark::kNanosecond)
        ->UseRealTime()
        ->MinTime(0.3);
  }
}

template <typename Table>
void registerTable(uint32_t entries) {
  registerWriterCases<Table, AbslStore<Table>>(entries);
  registerWriterCases<Table, StdStore<Table>>(entries);
  registerWriterCases<Table, TesselStore<Table>>(entries);
  registerWriterCases<Table, BoostStore<Table>>(entries);
  registerWriterCases<Table, LmdbStore<Table>>(entries);
  registerReaderCases<Table, TesselStore<Table>>(entries);
  registerReaderCases<Table, BoostStore<Table>>(entries);
  registerReaderCases<Table, LmdbStore<Table>>(entries);
}

// ---------------------------------------------------------------- scaling

struct Scaling {
  std::string system;
  unsigned readers = 0;
  double lookupsPerSecond = 0;
  double updatesPerSecond = 0;
};

// One writer rewriting at full speed and `readers` reader processes looking
// up hits, for `seconds`.
template <typename Table, typename Store>
Scaling scale(uint32_t entries, unsigned readers, double seconds) {
  WriterProcess<Table, Store> writer(entries);
  Flags & flags = sharedObject<Flags>();
  std::vector<pid_t> children;
  for (unsigned index = 0; index < readers; ++index) {
    children.push_back(forkRunning([&, index] {
      Store store;
      store.openReader(writer.pid(), entries);
      const auto probes = Bench::shuffled(0, entries);
      std::size_t next = index * 7919 % entries;
      Value<Table> out;
      while (flags.stop.load(std::memory_order_relaxed) == 0) {
        for (int i = 0; i < 256; ++i) {
          benchmark::DoNotOptimize(store.read(probes[next], out));
          next = next + 1 == probes.size() ? 0 : next + 1;
        }
        flags.lookups.fetch_add(256, std::memory_order_relaxed);
      }
    }));
  }
  writer.busyIs(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // every reader is up
  const uint64_t lookups = flags.lookups.load();
  const uint64_t updates = writer.flags().updates.load();
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  Scaling result{Store::name, readers, (flags.lookups.load() - lookups) / elapsed,
                 (writer.flags().updates.load() - updates) / elapsed};
  flags.stop.store(1);
  for (pid_t child : children) {
    waitpid(child, nullptr, 0);
  }
  munmap(&flags, sizeof(Flags));
  return result;
}

// ---------------------------------------------------------------- the report

// The cases side by side, by system, each with its ratio to absl.
std::string markdownTable(const Bench::RatioReporter::Table & ns) {
  const std::vector<std::string> systems{"absl", "std", "tessel", "boost", "lmdb", "tessel-idle",
                                         "tessel-busy", "boost-idle", "boost-busy", "lmdb-idle", "lmdb-busy"};
  std::string text = "| case |";
  std::string rule = "|---|";
  for (const auto & system : systems) {
    text += fmt::format(" {} |", system);
    rule += "---:|";
  }
  text += "\n" + rule + "\n";
  for (const auto & [name, bySystem] : ns) {
    const auto baseline = bySystem.find("absl");
    text += fmt::format("| {} |", name);
    for (const auto & system : systems) {
      const auto at = bySystem.find(system);
      if (at == bySystem.end()) {
        text += " |";
      } else if (baseline == bySystem.end() || system == "absl") {
        text += fmt::format(" {:.1f} |", at->second);
      } else {
        text += fmt::format(" {:.1f} ({:.2f}x) |", at->second, at->second / baseline->second);
      }
    }
    text += "\n";
  }
  return text;
}

std::string machine() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string model = "unknown processor";
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  return fmt::format("{}, {} cores", model, std::thread::hardware_concurrency());
}

}  // namespace

int main(int argc, char ** argv) {
  base = Bench::tableBase();
  for (uint32_t entries : {1000u, 65536u, 1048576u}) {
    registerTable<CairnTest::IifRecords>(entries);
    registerTable<CairnTest::TunnelRecords>(entries);
  }
  benchmark::Initialize(&argc, argv);
  Bench::RatioReporter reporter("absl");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  currentSetup.reset();

  const unsigned readers = std::max(1u, std::thread::hardware_concurrency() - 1);
  std::vector<Scaling> scaling{
      scale<CairnTest::IifRecords, TesselStore<CairnTest::IifRecords>>(65536, readers, 2.0),
      scale<CairnTest::IifRecords, BoostStore<CairnTest::IifRecords>>(65536, readers, 2.0),
      scale<CairnTest::IifRecords, LmdbStore<CairnTest::IifRecords>>(65536, readers, 2.0)};
  std::string scalingTable = "| system | readers | lookups/s | writer updates/s |\n|---|---:|---:|---:|\n";
  for (const auto & row : scaling) {
    scalingTable += fmt::format("| {} | {} | {:.0f} | {:.0f} |\n", row.system, row.readers, row.lookupsPerSecond,
                                row.updatesPerSecond);
  }
  const std::string report = fmt::format(
      "Machine: {}.\n\nns per operation (ratio to absl::flat_hash_map in process); \"-idle\"/\"-busy\": a "
      "reader in another process, its writer idle or rewriting at full speed.\n\n{}\nOne writer rewriting "
      "L3Iif Config entries of a 65,536-entry table at full speed, with reader processes looking up hits:\n\n{}",
      machine(), markdownTable(reporter.nsPerOperation()), scalingTable);
  fmt::print("\n{}", report);
  if (const char * markdown = std::getenv("TESSEL_PEERS_MARKDOWN")) {
    std::ofstream(markdown) << report;
  }
  benchmark::Shutdown();
  std::filesystem::remove_all(base);
  return 0;
}

#include "Demo.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "Cairn/MapDescriptor.h"
#include "Cairn/RootPath.h"
#include "Inspect/Commands.h"
#include "Loop/EventLoop.h"
#include "Nudge/DoorbellAcceptSm.h"
#include "Rig/Directory.h"
#include "Rig/Factory.h"
#include "TesselHwLib/TesselHwLibTypesTH3.h"
#include "Wirekit/IpGenAddr.h"

namespace Demo {

namespace {

using namespace TesselHwLib;
using Clock = std::chrono::steady_clock;

constexpr size_t MaxLatencies = 1 << 20;

// What the processes share: one anonymous shared mapping made before the
// forks. Every field is a lock-free atomic.
struct Shared {
  enum Phase : uint32_t { Starting, TablesMade, HardwareReady, ConfigDone, Consistent, Stop };
  std::atomic<uint32_t> phase;
  std::atomic<uint64_t> configOps;
  std::atomic<uint64_t> notifications;
  std::atomic<uint64_t> statusWrites;
  std::atomic<uint64_t> readerWalks;
  std::atomic<uint64_t> readerEntries;
  std::atomic<uint64_t> readerBad;
  std::atomic<uint64_t> latencyCount;
  std::atomic<uint32_t> failures;
  char failure[512];
  uint64_t latencies[MaxLatencies];
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "the counters live in memory shared by processes");

Shared * shared = nullptr;

uint64_t nowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// ---------------------------------------------------------------- the tables

// Valid keys of each key type, one per number.
L3IifTH3Key keyOf(uint32_t number, const L3IifTH3Key *) { return L3IifTH3Key(number); }

MyStationTcamTH3Key keyOf(uint32_t number, const MyStationTcamTH3Key *) {
  MyStationTcamTH3Key key;
  key.vlanIdIs(static_cast<uint16_t>(number % 4096));
  key.priorityIs(number / 4096);
  return key;
}

L3TunnelTH3Key keyOf(uint32_t number, const L3TunnelTH3Key *) {
  const auto address = [](const std::string & text) {
    Wirekit::IpGenAddr result;
    result.handleInitialized(text);
    return result;
  };
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.sipIs(address(fmt::format("10.{}.{}.1", (number >> 8) & 0xFF, number & 0xFF)));
  key.sipMaskIs(address("255.255.255.255"));
  key.dipIs(address("192.0.2.1"));
  key.dipMaskIs(address("255.255.255.255"));
  key.priorityIs(number >> 16);
  return key;
}

// An entry's own check: what its entryHandle must be for its key and genId.
template <typename Key>
uint64_t checkOf(const Key & key, uint64_t genId) {
  return genId ^ (uint64_t{key.hash(0)} * 0x9E3779B97F4A7C15u);
}

template <typename Entry>
bool selfConsistent(const Entry & entry) {
  return entry.entryHandle() == checkOf(entry.key(), entry.genId());
}

// One table family: its Config and Status collections and its name.
template <typename ConfigC, typename StatusC>
struct Family {
  using Config = ConfigC;
  using Status = StatusC;
  using Key = typename Config::Key;
  const char * name;

  static Key key(uint32_t number) { return keyOf(number, static_cast<const Key *>(nullptr)); }
};

const auto families = std::make_tuple(Family<L3IifTH3Config, L3IifTH3Status>{"l3Iif"},
                                      Family<L3TunnelTH3Config, L3TunnelTH3Status>{"l3Tunnel"},
                                      Family<MyStationTcamTH3Config, MyStationTcamTH3Status>{"myStationTcam"});

template <typename Visit>
void forEachFamily(Visit && visit) {
  std::apply([&](const auto &... family) { (visit(family), ...); }, families);
}

Cairn::MapDescriptor descriptorOf(Cairn::CairnType mode, const Options & options) {
  Cairn::MapDescriptor descriptor;
  descriptor.mode = mode;
  descriptor.maxSlots = std::max<uint32_t>(1024, 2 * options.keys);
  return descriptor;
}

// A collection made by its factory, placed under `directory` and mounted.
template <typename C>
Rig::Ptr<C> mounted(const Rig::Ptr<Rig::Directory> & directory, const char * name, Cairn::CairnType mode,
                    const Options & options) {
  Rig::Ptr<C> collection = Rig::make<C>(Rig::Name(name));
  directory->entityIs(collection);
  collection->tableControl()->mount(descriptorOf(mode, options));
  return collection;
}

// ---------------------------------------------------------------- the processes

// Runs the process loop (readers connect to writers through it) until
// `done` or `timeout`; a repeating tick lets `done` see what other
// processes change.
bool serveUntil(const std::function<bool()> & done, std::chrono::milliseconds timeout) {
  const Loop::Registration tick = Loop::processLoop().timerRepeat(std::chrono::milliseconds(1), [] {});
  return Loop::processLoop().runUntil(done, timeout);
}

bool phaseAtLeast(uint32_t phase) { return shared->phase.load() >= phase; }

// Serves the loop until the run reaches `phase`; raises `failure` after a minute.
void awaitPhase(uint32_t phase, const char * failure) {
  if (!serveUntil([phase] { return phaseAtLeast(phase); }, std::chrono::seconds(60))) {
    throw std::runtime_error(failure);
  }
}

void fail(const std::string & text) {
  if (shared->failures.fetch_add(1) == 0) {
    std::snprintf(shared->failure, sizeof shared->failure, "%s", text.c_str());
  }
}

void configAgent(const Options & options) {
  const auto root = Rig::make<Rig::Directory>(Rig::Name("config"));
  auto tables = std::apply(
      [&](const auto &... family) {
        return std::make_tuple(mounted<typename std::decay_t<decltype(family)>::Config>(
            root, family.name, Cairn::CairnType::writer, options)...);
      },
      families);
  shared->phase = Shared::TablesMade;
  awaitPhase(Shared::HardwareReady, "the hardware agent did not start");
  std::mt19937 random(20261125);
  for (uint32_t burst = 0; burst < options.bursts; ++burst) {
    for (uint32_t operation = 0; operation < options.burstSize; ++operation) {
      const uint32_t number = random() % options.keys;
      const bool remove = random() % 10 == 0;
      const uint32_t which = random() % 3;
      uint32_t index = 0;
      std::apply(
          [&](auto &... collection) {
            (
                [&] {
                  if (index++ != which) {
                    return;
                  }
                  using C = std::remove_reference_t<decltype(*collection)>;
                  const auto key = keyOf(number, static_cast<const typename C::Key *>(nullptr));
                  if (remove) {
                    collection->tableDel(key);
                  } else {
                    typename C::EntryType entry(key);
                    const uint64_t genId = nowNs();
                    entry.genIdIs(genId);
                    entry.entryHandleIs(checkOf(key, genId));
                    entry.validIs(true);
                    collection->tableIs(entry);
                  }
                }(),
                ...);
          },
          tables);
      ++shared->configOps;
    }
    serveUntil([] { return false; }, std::chrono::milliseconds(2));
  }
  shared->phase = Shared::ConfigDone;
  serveUntil([] { return phaseAtLeast(Shared::Stop); }, std::chrono::minutes(10));
}

// Tells the hardware agent of each key its Config shadow changed.
template <typename Key>
class KeyObserver : public Rig::PtrInterface::NotifieeConst {
 public:
  explicit KeyObserver(std::function<void(const Key &)> changed) : changed_(std::move(changed)) {}
  void onAttribute(uint32_t attributeId, const void * key) override {
    if (attributeId == 258 && key != nullptr) {
      changed_(*static_cast<const Key *>(key));
    }
  }

 private:
  std::function<void(const Key &)> changed_;
};

// The Status entry of a Config entry, or the Status entry removed.
template <typename Config, typename Status>
void reflect(Config & config, Status & status, const typename Config::Key & key) {
  ++shared->notifications;
  bool found = false;
  const auto * value = config.table().safeLookup(key, found);
  if (!found) {
    status.tableDel(key);
    return;
  }
  const auto & entry = value->value;
  const uint64_t index = shared->latencyCount.fetch_add(1);
  if (index < MaxLatencies) {
    shared->latencies[index] = nowNs() - entry.genId();
  }
  typename Status::EntryType written(key);
  written.genIdIs(entry.genId());
  written.entryHandleIs(entry.entryHandle());
  status.tableIs(written);
  ++shared->statusWrites;
}

void hardwareAgent(const Options & options) {
  awaitPhase(Shared::TablesMade, "the config agent made no tables");
  const auto configRoot = Rig::make<Rig::Directory>(Rig::Name("config"));
  const auto statusRoot = Rig::make<Rig::Directory>(Rig::Name("status"));
  std::vector<std::function<bool()>> ready;
  std::vector<Rig::Ptr<Rig::PtrInterface>> kept;
  forEachFamily([&](const auto & family) {
    using F = std::decay_t<decltype(family)>;
    auto config = mounted<typename F::Config>(configRoot, family.name, Cairn::CairnType::shadow, options);
    auto status = mounted<typename F::Status>(statusRoot, family.name, Cairn::CairnType::writer, options);
    auto observer = Rig::make<KeyObserver<typename F::Key>>(
        [config = config.ptr(), status = status.ptr()](const typename F::Key & key) { reflect(*config, *status, key); });
    config->notifieeList().list->newMember(config.ptr(), observer);
    ready.push_back([config = config.ptr()] { return config->table().mountStatus() == 2; });
    kept.push_back(config);
    kept.push_back(status);
  });
  const auto allReady = [&] { return std::all_of(ready.begin(), ready.end(), [](const auto & one) { return one(); }); };
  if (!serveUntil(allReady, std::chrono::seconds(60))) {
    throw std::runtime_error("the Config shadows did not mount");
  }
  shared->phase = Shared::HardwareReady;
  serveUntil([] { return phaseAtLeast(Shared::Stop); }, std::chrono::minutes(10));
}

// Walks a reader collection, checking each entry; returns key text -> genId.
template <typename C>
std::map<std::string, uint64_t> walkChecked(C & collection) {
  std::map<std::string, uint64_t> seen;
  typename C::Table::IteratorConst iterator(&collection.table());
  for (; iterator.nonnull(); iterator.advance()) {
    const auto & entry = iterator.value().value;
    ++shared->readerEntries;
    if (!selfConsistent(entry)) {
      ++shared->readerBad;
      fail(fmt::format("the reader read an inconsistent entry: {}", std::string(valueToStrep(entry))));
    }
    seen[std::string(valueToStrep(entry.key()))] = entry.genId();
  }
  return seen;
}

void reader(const Options & options) {
  awaitPhase(Shared::HardwareReady, "the agents did not start");
  const auto configRoot = Rig::make<Rig::Directory>(Rig::Name("config"));
  const auto statusRoot = Rig::make<Rig::Directory>(Rig::Name("status"));
  std::vector<std::function<bool()>> walks;
  std::vector<Rig::Ptr<Rig::PtrInterface>> kept;
  forEachFamily([&](const auto & family) {
    using F = std::decay_t<decltype(family)>;
    auto config = mounted<typename F::Config>(configRoot, family.name, Cairn::CairnType::reader, options);
    auto status = mounted<typename F::Status>(statusRoot, family.name, Cairn::CairnType::reader, options);
    // One round: both tables walked and checked; true when they match.
    walks.push_back([config = config.ptr(), status = status.ptr()] {
      ++shared->readerWalks;
      return walkChecked(*config) == walkChecked(*status);
    });
    kept.push_back(config);
    kept.push_back(status);
  });
  while (!phaseAtLeast(Shared::Stop)) {
    serveUntil([] { return false; }, std::chrono::milliseconds(20));
    const bool configDone = phaseAtLeast(Shared::ConfigDone);
    bool consistent = true;
    for (const auto & walk : walks) {
      consistent = walk() && consistent;
    }
    if (configDone && consistent && shared->phase.load() == Shared::ConfigDone) {
      shared->phase = Shared::Consistent;
    }
  }
}

// Runs `body` in a child process; its failure is recorded, never thrown.
pid_t spawn(const char * role, void (*body)(const Options &), const Options & options) {
  const pid_t child = ::fork();
  if (child == 0) {
    Nudge::forgetDoorbellAcceptSmInChild();  // each agent listens on a doorbell of its own
    int status = 0;
    try {
      body(options);
    } catch (const std::exception & exception) {
      fail(fmt::format("{}: {}", role, exception.what()));
      status = 1;
    }
    std::fflush(stdout);
    ::_exit(status);
  }
  return child;
}

// ---------------------------------------------------------------- the report

struct Percentiles {
  double p50, p99, p999, max;
};

Percentiles percentiles(std::vector<uint64_t> samples) {
  if (samples.empty()) {
    return {0, 0, 0, 0};
  }
  std::sort(samples.begin(), samples.end());
  const auto at = [&](double fraction) {
    return static_cast<double>(samples[std::min(samples.size() - 1, static_cast<size_t>(fraction * samples.size()))]);
  };
  return {at(0.5), at(0.99), at(0.999), static_cast<double>(samples.back())};
}

// The progress line, drawn again in its place (on a terminal only).
void printProgress(double seconds) {
  fmt::print(
      "\r{:6.1f} s  config ops {:>8}  notifications {:>8}  status writes {:>8}  reader walks {:>5} entries {:>9} bad {}",
      seconds, shared->configOps.load(), shared->notifications.load(), shared->statusWrites.load(),
      shared->readerWalks.load(), shared->readerEntries.load(), shared->readerBad.load());
  std::fflush(stdout);
}

}  // namespace

int run(const Options & options) {
  std::string base = (std::filesystem::temp_directory_path() / "tessel-demo-XXXXXX").string();
  if (::mkdtemp(base.data()) == nullptr) {
    fmt::print(stderr, "tessel demo: cannot make a temporary directory\n");
    return 1;
  }
  ::setenv(Cairn::RootPath::baseVariable, base.c_str(), 1);
  void * memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    fmt::print(stderr, "tessel demo: cannot map shared memory\n");
    return 1;
  }
  shared = new (memory) Shared();
  fmt::print("tessel demo: {} keys per table, {} bursts of {} config operations, tables under {}\n", options.keys,
             options.bursts, options.burstSize, base);
  const bool terminal = ::isatty(STDOUT_FILENO) != 0;
  std::fflush(stdout);  // the children must not print this process's buffer again
  const auto start = Clock::now();
  const std::vector<pid_t> children = {spawn("config agent", configAgent, options),
                                       spawn("hardware agent", hardwareAgent, options),
                                       spawn("reader", reader, options)};
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  auto configDoneAt = Clock::time_point::max();
  while (shared->phase.load() < Shared::Consistent && shared->failures.load() == 0) {
    if (shared->phase.load() >= Shared::ConfigDone && configDoneAt == Clock::time_point::max()) {
      configDoneAt = Clock::now();
    }
    if (Clock::now() - configDoneAt > std::chrono::seconds(30) || Clock::now() - start > std::chrono::minutes(10)) {
      fail("the Status tables did not come to match the Config tables");
      break;
    }
    if (terminal) {
      printProgress(elapsed());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(terminal ? 100 : 20));
  }
  const double seconds = elapsed();
  if (terminal) {
    printProgress(seconds);
  }
  shared->phase = Shared::Stop;
  bool exitedWell = true;
  for (const pid_t child : children) {
    int status = 0;
    exitedWell = ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 && exitedWell;
  }
  if (terminal) {
    fmt::print("\n");
  }

  const size_t count = std::min<uint64_t>(shared->latencyCount.load(), MaxLatencies);
  const Percentiles latency = percentiles(std::vector<uint64_t>(shared->latencies, shared->latencies + count));
  fmt::print("\nin {:.2f} s: {} config operations, {} notifications to the hardware agent, {} status writes\n",
             seconds, shared->configOps.load(), shared->notifications.load(), shared->statusWrites.load());
  fmt::print("notification latency, config write to the hardware agent's callback (us): p50 {:.1f}  p99 {:.1f}  "
             "p99.9 {:.1f}  max {:.1f}  ({} samples)\n",
             latency.p50 / 1000, latency.p99 / 1000, latency.p999 / 1000, latency.max / 1000, count);
  fmt::print("reader: {} walks, {} entries checked, {} inconsistent\n\n", shared->readerWalks.load(),
             shared->readerEntries.load(), shared->readerBad.load());
  fmt::print("{}", Inspect::ls(false));
  const bool passed = exitedWell && shared->failures.load() == 0;
  if (!passed) {
    fmt::print(stderr, "\ntessel demo: FAILED: {}\n",
               shared->failures.load() > 0 ? shared->failure : "an agent did not exit cleanly");
  } else {
    fmt::print("\nevery Status table matches its Config table\n");
  }
  if (options.keep) {
    fmt::print("\nthe tables stay; look at them with:\n  export {}={}\n  build/tools/tessel ls\n"
               "  build/tools/tessel dump config/l3Iif/table\n  build/tools/tessel stat status/l3Tunnel/table\n"
               "  build/tools/tessel watch config/l3Iif/table   (while a writer runs)\n",
               Cairn::RootPath::baseVariable, base);
  } else {
    std::error_code error;
    std::filesystem::remove_all(base, error);
    fmt::print("(tables removed; run with --keep to look at them with tessel ls, dump, stat and watch)\n");
  }
  ::munmap(memory, sizeof(Shared));
  return passed ? 0 : 1;
}

}  // namespace Demo

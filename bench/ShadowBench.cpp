// The road of a notification to a shadow in another process, measured in
// one run:
//   - latency from the writer's store to the shadow map's value callback,
//     with the shadow asleep in the kernel (woken by its socket) and awake
//     (its loop busy), beside a bare Unix-socket wake-up between the same
//     two processes: p50, p99, p99.9 and the ratios;
//   - the shadow's socket wake-ups per update in a burst of updates;
//   - the rate at which a shadow that stood still catches up, the changed
//     keys lying in the order of their slots and scattered over them;
//   - a full resync of a large table (nothing changed: no callback).
// The writer runs in a child process: this program started again with the
// role in an environment variable. Timestamps are CLOCK_MONOTONIC, taken by
// the writer just before its write and carried in the value (the entry's
// genId), read by the shadow's callback.
//
// Run with `./run bench`; sizes with flags or environment variables, e.g.
// --samples=50000 or TESSEL_SHADOW_BENCH_ENTRIES=4194304 (see Options).
// Other flags (those of the Google Benchmark programs beside it) are ignored.

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchTables.h"
#include "Cairn/CairnMap.h"
#include "Loop/EventLoop.h"

namespace {

using Table = CairnTest::IifRecords;
using Value = Table::Value;
using Map = Cairn::CairnMap<Table::Key, Value, Table::Ops>;
using Shadow = Cairn::CairnShadow<Table::Key, Value, Table::Ops>;

constexpr const char * WriterVariable = "TESSEL_SHADOW_BENCH_WRITER";
constexpr auto Patience = std::chrono::seconds(120);

uint64_t nowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// Busy for `ns` nanoseconds: the process keeps its processor, as a busy agent does.
void spin(uint64_t ns) {
  const uint64_t until = nowNs() + ns;
  while (nowNs() < until) {
  }
}

[[noreturn]] void fail(const std::string & what) {
  fmt::print(stderr, "ShadowBench: {}\n", what);
  std::exit(1);
}

void readAll(int fd, void * data, std::size_t size) {
  auto * bytes = static_cast<char *>(data);
  while (size > 0) {
    const ssize_t got = read(fd, bytes, size);
    if (got <= 0) {
      fail(fmt::format("read from fd {} failed", fd));
    }
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
}

void writeAll(int fd, const void * data, std::size_t size) {
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    fail(fmt::format("write to fd {} failed", fd));
  }
}

// ---------------------------------------------------------------- options

struct Options {
  uint32_t samples = 10000;   // latency samples per case
  uint32_t gapUs = 100;       // the writer's pause before each latency sample
  uint32_t burst = 100000;    // updates per burst
  uint32_t entries = 1u << 20;  // entries of the catch-up and resync table
  uint32_t changes = 0;       // changes while the shadow stands still; 0: entries
};

// --name=N, or TESSEL_SHADOW_BENCH_<NAME>=N; a flag wins.
Options parseOptions(int argc, char ** argv) {
  Options options;
  const std::pair<const char *, uint32_t *> fields[] = {{"samples", &options.samples},
                                                        {"gap_us", &options.gapUs},
                                                        {"burst", &options.burst},
                                                        {"entries", &options.entries},
                                                        {"changes", &options.changes}};
  for (const auto & [name, field] : fields) {
    std::string variable = std::string("TESSEL_SHADOW_BENCH_") + name;
    std::transform(variable.begin(), variable.end(), variable.begin(), ::toupper);
    if (const char * value = std::getenv(variable.c_str())) {
      *field = static_cast<uint32_t>(std::strtoul(value, nullptr, 10));
    }
    const std::string flag = fmt::format("--{}=", name);
    for (int i = 1; i < argc; ++i) {
      if (std::strncmp(argv[i], flag.c_str(), flag.size()) == 0) {
        *field = static_cast<uint32_t>(std::strtoul(argv[i] + flag.size(), nullptr, 10));
      }
    }
  }
  options.samples = std::max(options.samples, 1u);
  options.entries = std::max(options.entries, 1u);
  if (options.changes == 0) {
    options.changes = options.entries;
  }
  return options;
}

// ---------------------------------------------------------------- percentiles

struct Percentiles {
  std::size_t count = 0;
  double p50 = 0;
  double p99 = 0;
  double p999 = 0;
};

Percentiles percentilesOf(std::vector<uint64_t> samples) {
  Percentiles result;
  result.count = samples.size();
  if (samples.empty()) {
    return result;
  }
  std::sort(samples.begin(), samples.end());
  auto at = [&](double q) {
    return static_cast<double>(samples[std::min(samples.size() - 1, static_cast<std::size_t>(q * samples.size()))]);
  };
  result.p50 = at(0.5);
  result.p99 = at(0.99);
  result.p999 = at(0.999);
  return result;
}

// ---------------------------------------------------------------- the writer's process

enum class Command : uint32_t { Quit, Latency, Burst, Changes, Socket };

struct Request {
  Command command;
  uint32_t count;
  // Burst: the writer serves its loop after every `every` updates (0: never).
  // Changes: 1 to change the keys in the order they were inserted, which is
  // the order of their slots; 0 in the order of their numbers, which
  // scatters them over the slots.
  uint32_t every;
  uint32_t gapNs;
};

struct Answer {
  uint64_t sequence = 0;
  uint64_t nudges = 0;  // wake messages the writer sent during the command
  uint64_t writeP50Ns = 0;
  uint64_t writeP99Ns = 0;
};

// The writer: fills its table, then serves the coordinator's requests, its
// loop running between them so that its socket serves the shadow.
class WriterRole {
 public:
  WriterRole(int in, int out, int socket, uint32_t entries)
      : in_(in),
        out_(out),
        socket_(socket),
        entries_(entries),
        loop_(Loop::processLoop()),
        writer_(Bench::makeWriter<Table>(handler_, entries)),
        inserted_(Bench::shuffled(0, entries)) {
    for (uint64_t number : inserted_) {
      writer_->write(Table::make(number, version_), true);
    }
    answer(Answer{writer_->sequence()});
  }

  void serve() {
    for (Request request = next(); request.command != Command::Quit; request = next()) {
      switch (request.command) {
        case Command::Latency:
          latency(request.count, request.gapNs);
          break;
        case Command::Burst:
          burst(request.count, request.every);
          break;
        case Command::Changes:
          changes(request.count, request.every == 1);
          break;
        case Command::Socket:
          bareSocket(request.count, request.gapNs);
          break;
        case Command::Quit:
          break;
      }
    }
  }

 private:
  Request next() {
    bool readable = false;
    Loop::Registration watch = loop_.watchReadable(in_, [&] { readable = true; });
    while (!readable) {
      loop_.runOnce();
    }
    Request request{};
    readAll(in_, &request, sizeof request);
    return request;
  }

  void answer(const Answer & answer) { writeAll(out_, &answer, sizeof answer); }
  uint64_t nudges() const { return writer_->writerCounters().nudges; }

  // One loop iteration that doesn't block: a deferred call that defers
  // another keeps the loop from sleeping in this iteration's poll.
  void serveLoop() {
    Loop::Registration second;
    Loop::Registration first = loop_.runSoon([&] { second = loop_.runSoon([] {}); });
    loop_.runOnce();
  }

  // Each sample: wait until the shadow said it applied everything and
  // sleeps, pause, then rewrite one entry carrying the time of the write.
  void latency(uint32_t count, uint32_t gapNs) {
    const uint64_t nudgesBefore = nudges();
    std::vector<uint64_t> writes;
    writes.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      if (!loop_.runUntil([&] { return writer_->writerCounters().sleepingReaders > 0; }, Patience)) {
        fail("the shadow never slept");
      }
      spin(gapNs);
      Value value = Table::make(i % entries_, 0);
      const uint64_t start = nowNs();
      value.value.genIdIs(start);
      writer_->write(value, true);
      writes.push_back(nowNs() - start);
    }
    const Percentiles percentiles = percentilesOf(std::move(writes));
    answer(Answer{writer_->sequence(), nudges() - nudgesBefore, static_cast<uint64_t>(percentiles.p50),
                  static_cast<uint64_t>(percentiles.p99)});
  }

  // Updates at full speed, the loop served every `every` updates, as a
  // writer whose loop stays responsive during a burst.
  void burst(uint32_t count, uint32_t every) {
    const uint64_t nudgesBefore = nudges();
    for (uint32_t i = 0; i < count; ++i) {
      writer_->write(Table::make(i % entries_, ++version_), true);
      if (every != 0 && (i + 1) % every == 0) {
        serveLoop();
      }
    }
    answer(Answer{writer_->sequence(), nudges() - nudgesBefore});
  }

  void changes(uint32_t count, bool slotOrder) {
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t number = slotOrder ? inserted_[i % entries_] : i % entries_;
      writer_->write(Table::make(number, ++version_), true);
    }
    answer(Answer{writer_->sequence()});
  }

  // The baseline: wait for the receiver's byte saying it sleeps, pause,
  // send the time.
  void bareSocket(uint32_t count, uint32_t gapNs) {
    for (uint32_t i = 0; i < count; ++i) {
      char ready = 0;
      readAll(socket_, &ready, 1);
      spin(gapNs);
      const uint64_t start = nowNs();
      writeAll(socket_, &start, sizeof start);
    }
    answer(Answer{});
  }

  int in_;
  int out_;
  int socket_;
  uint32_t entries_;
  uint64_t version_ = 1;
  Loop::EventLoop & loop_;
  Basalt::Platform::DebugHandler handler_{"bench-writer"};
  std::unique_ptr<Bench::WriterOf<Table>> writer_;
  std::vector<uint64_t> inserted_;  // the key numbers in the order of the fill
};

int runWriter(const char * role) {
  int in = -1;
  int out = -1;
  int socket = -1;
  uint32_t entries = 0;
  if (std::sscanf(role, "%d %d %d %u", &in, &out, &socket, &entries) != 4) {
    fail(fmt::format("bad writer role '{}'", role));
  }
  WriterRole(in, out, socket, entries).serve();
  return 0;
}

// The coordinator's handle on a writer process: started by executing this
// program again (a child that runs an event loop must not be a bare fork).
class WriterProcess {
 public:
  WriterProcess(uint32_t entries, int socket) {
    int toWriter[2];
    int fromWriter[2];
    if (pipe(toWriter) != 0 || pipe(fromWriter) != 0) {
      fail("pipe failed");
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(toWriter[1]);
      close(fromWriter[0]);
      const std::string role = fmt::format("{} {} {} {}", toWriter[0], fromWriter[1], socket, entries);
      setenv(WriterVariable, role.c_str(), 1);
      execl("/proc/self/exe", "ShadowBenchWriter", nullptr);
      _exit(127);
    }
    close(toWriter[0]);
    close(fromWriter[1]);
    out_ = toWriter[1];
    in_ = fromWriter[0];
    filled_ = answer();
  }
  ~WriterProcess() {
    send(Request{Command::Quit, 0, 0, 0});
    waitpid(pid_, nullptr, 0);
    close(out_);
    close(in_);
  }
  WriterProcess(const WriterProcess &) = delete;
  WriterProcess & operator=(const WriterProcess &) = delete;

  void send(const Request & request) { writeAll(out_, &request, sizeof request); }
  // Waits for the answer without running the loop.
  Answer answer() {
    Answer answer;
    readAll(in_, &answer, sizeof answer);
    return answer;
  }
  // Runs the loop until the answer has come and `done(answer)` holds.
  Answer answerWhileLooping(const std::function<bool(const Answer &)> & done) {
    std::optional<Answer> got;
    Loop::Registration watch = Loop::processLoop().watchReadable(in_, [&] {
      if (!got) {
        got = answer();
      }
    });
    if (!Loop::processLoop().runUntil([&] { return got && done(*got); }, Patience)) {
      fail("the shadow did not catch up");
    }
    return *got;
  }
  // The writer's sequence after its fill.
  uint64_t filled() const { return filled_.sequence; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
  Answer filled_;
};

// ---------------------------------------------------------------- the shadow's side

// Keeps the loop busy: a deferred call that defers itself again, so that the
// loop never sleeps in the kernel and looks at its sockets at every turn.
class BusyLoop {
 public:
  explicit BusyLoop(Loop::EventLoop & loop) : loop_(loop) { arm(); }

 private:
  void arm() {
    call_ = loop_.runSoon([this] { arm(); });
  }
  Loop::EventLoop & loop_;
  Loop::Registration call_;
};

// A map in mode shadow on the writer's table, and what its callbacks saw.
class ShadowSide {
 public:
  explicit ShadowSide(uint32_t entries)
      : map_(fmt::format("bench/{}-{}", Table::name, entries), callbacks()) {}
  ~ShadowSide() { map_.controlDetach(); }

  // Mounts the shadow and waits until its copy holds the writer's `sequence`.
  void mount(uint32_t entries, uint64_t sequence) {
    Cairn::MapDescriptor descriptor;
    descriptor.mode = Cairn::CairnType::shadow;
    descriptor.maxSlots = entries;
    descriptor.shrinkBuckets = true;
    map_.init(descriptor);
    if (!Loop::processLoop().runUntil(
            [&] { return map_.mountStatus() == 2 && shadow().sequence() >= sequence && shadow().quiesced(); },
            Patience)) {
      fail(fmt::format("the shadow of {} did not mount", map_.path()));
    }
  }
  Shadow & shadow() { return dynamic_cast<Shadow &>(*map_.backend()); }

  // Keeps now - genId of the next `count` value callbacks.
  void recordLatencies(uint32_t count) {
    latencies_.clear();
    latencies_.reserve(count);
    recording_ = true;
  }
  std::vector<uint64_t> takeLatencies() {
    recording_ = false;
    return std::move(latencies_);
  }
  std::size_t recorded() const { return latencies_.size(); }
  uint64_t values() const { return values_; }
  uint64_t lastQuiescedNs() const { return lastQuiescedNs_; }

 private:
  Map::Callbacks callbacks() {
    return Map::Callbacks(
        [this](const Value & value) {
          // The clock is read only for a latency: on some machines a read
          // costs as much as applying a slot.
          ++values_;
          if (recording_) {
            latencies_.push_back(nowNs() - value.value.genId());
          }
        },
        {}, {}, {}, [this](bool) { lastQuiescedNs_ = nowNs(); });
  }

  Map map_;
  bool recording_ = false;
  std::vector<uint64_t> latencies_;
  uint64_t values_ = 0;
  uint64_t lastQuiescedNs_ = 0;
};

// ---------------------------------------------------------------- the cases

// The bare wake-up: this process says it sleeps (one byte), waits in
// epoll_wait, blocking or, when `busy`, polling at once again and again; the
// writer's process pauses and sends the time.
std::vector<uint64_t> bareSocket(WriterProcess & writer, int socket, const Options & options, bool busy) {
  const int poller = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  if (poller < 0 || epoll_ctl(poller, EPOLL_CTL_ADD, socket, &event) != 0) {
    fail("epoll failed");
  }
  std::vector<uint64_t> latencies;
  latencies.reserve(options.samples);
  writer.send(Request{Command::Socket, options.samples, 0, options.gapUs * 1000});
  for (uint32_t i = 0; i < options.samples; ++i) {
    const char ready = 'r';
    writeAll(socket, &ready, 1);
    while (epoll_wait(poller, &event, 1, busy ? 0 : -1) != 1) {
    }
    const uint64_t end = nowNs();
    uint64_t start = 0;
    readAll(socket, &start, sizeof start);
    latencies.push_back(end - start);
  }
  writer.answer();
  close(poller);
  return latencies;
}

struct ShadowLatency {
  std::vector<uint64_t> latencies;
  Answer answer;
};

ShadowLatency shadowLatency(WriterProcess & writer, ShadowSide & side, const Options & options, bool busy) {
  std::optional<BusyLoop> busyLoop;
  if (busy) {
    busyLoop.emplace(Loop::processLoop());
  }
  side.recordLatencies(options.samples);
  writer.send(Request{Command::Latency, options.samples, 0, options.gapUs * 1000});
  const Answer answer = writer.answerWhileLooping([&](const Answer &) { return side.recorded() >= options.samples; });
  return ShadowLatency{side.takeLatencies(), answer};
}

struct BurstResult {
  uint32_t every;
  uint64_t updates;
  uint64_t wakes;
  uint64_t nudges;
  double seconds;
};

BurstResult burst(WriterProcess & writer, ShadowSide & side, uint32_t count, uint32_t every) {
  Shadow & shadow = side.shadow();
  const uint64_t wakesBefore = shadow.nudge.wakes();
  const uint64_t start = nowNs();
  writer.send(Request{Command::Burst, count, every, 0});
  const Answer answer = writer.answerWhileLooping([&](const Answer & got) {
    return shadow.sequence() == got.sequence && shadow.nudge.sleeping();
  });
  const double seconds = static_cast<double>(nowNs() - start) / 1e9;
  return BurstResult{every, count, shadow.nudge.wakes() - wakesBefore, answer.nudges, seconds};
}

struct Rate {
  uint64_t slots = 0;
  double seconds = 0;
  uint64_t callbacks = 0;
};

// The writer changes entries while this process runs no loop; then the
// shadow's loop runs until its copy holds the writer's last sequence.
Rate catchUp(WriterProcess & writer, ShadowSide & side, uint32_t changes, bool slotOrder) {
  Shadow & shadow = side.shadow();
  writer.send(Request{Command::Changes, changes, slotOrder ? 1u : 0u, 0});
  const Answer answer = writer.answer();
  const uint64_t valuesBefore = side.values();
  const uint64_t start = nowNs();
  if (!Loop::processLoop().runUntil([&] { return shadow.sequence() == answer.sequence; }, Patience)) {
    fail("the shadow did not catch up");
  }
  const uint64_t end = nowNs();
  const uint64_t slots = side.values() - valuesBefore;
  return Rate{slots, static_cast<double>(end - start) / 1e9, slots};
}

// resync() until its walk completed, which the quiesced callback marks.
Rate resync(ShadowSide & side, uint32_t entries) {
  Shadow & shadow = side.shadow();
  const uint64_t valuesBefore = side.values();
  const uint64_t start = nowNs();
  shadow.resync();
  if (!Loop::processLoop().runUntil([&] { return shadow.syncer.done(); }, Patience)) {
    fail("the resync did not end");
  }
  const uint64_t end = side.lastQuiescedNs() > start ? side.lastQuiescedNs() : nowNs();
  return Rate{entries, static_cast<double>(end - start) / 1e9, side.values() - valuesBefore};
}

// ---------------------------------------------------------------- the report

void printLatencyRow(const std::string & name, const Percentiles & p, const Percentiles * baseline) {
  std::string ratios;
  if (baseline != nullptr && baseline->p50 > 0) {
    ratios = fmt::format("{:>8.2f} {:>8.2f}", p.p50 / baseline->p50, p.p99 / baseline->p99);
  }
  fmt::print("{:<38} {:>8} {:>9.0f} {:>9.0f} {:>9.0f} {}\n", name, p.count, p.p50, p.p99, p.p999, ratios);
}

void latencies(const Options & options) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets) != 0) {
    fail("socketpair failed");
  }
  constexpr uint32_t entries = 1024;
  WriterProcess writer(entries, sockets[1]);
  ShadowSide side(entries);
  side.mount(entries, writer.filled());

  const Percentiles socketAsleep = percentilesOf(bareSocket(writer, sockets[0], options, false));
  const ShadowLatency asleep = shadowLatency(writer, side, options, false);
  const Percentiles socketBusy = percentilesOf(bareSocket(writer, sockets[0], options, true));
  const ShadowLatency awake = shadowLatency(writer, side, options, true);
  const Percentiles shadowAsleep = percentilesOf(asleep.latencies);
  const Percentiles shadowAwake = percentilesOf(awake.latencies);

  fmt::print("\nNotification latency, writer's store to the shadow's callback in another process "
             "(ns; writer pauses {} us before each)\n",
             options.gapUs);
  fmt::print("{:<38} {:>8} {:>9} {:>9} {:>9} {:>8} {:>8}\n", "case", "samples", "p50", "p99", "p99.9", "p50/base",
             "p99/base");
  printLatencyRow("socket wake-up, receiver asleep [base]", socketAsleep, nullptr);
  printLatencyRow("shadow asleep, woken by its socket", shadowAsleep, &socketAsleep);
  printLatencyRow("socket wake-up, receiver polling", socketBusy, nullptr);
  printLatencyRow("shadow awake, its loop busy", shadowAwake, &socketBusy);
  fmt::print("writer's write() itself, p50/p99 ns: asleep {}/{}, awake {}/{}; wake messages sent: {} and {}\n",
             asleep.answer.writeP50Ns, asleep.answer.writeP99Ns, awake.answer.writeP50Ns, awake.answer.writeP99Ns,
             asleep.answer.nudges, awake.answer.nudges);
  fmt::print("goal: asleep p50 within 1.20x of the asleep socket: {:.2f}x {}\n", shadowAsleep.p50 / socketAsleep.p50,
             shadowAsleep.p50 <= 1.2 * socketAsleep.p50 ? "met" : "NOT met");
  fmt::print("goal: awake p50 under 2000 ns: {:.0f} ns {}\n", shadowAwake.p50,
             shadowAwake.p50 < 2000 ? "met" : "NOT met");

  fmt::print("\nBurst of {} updates at full speed: the shadow's socket wake-ups\n", options.burst);
  fmt::print("{:<44} {:>10} {:>10} {:>12} {:>10}\n", "writer serves its loop", "wake-ups", "per update",
             "writer sent", "ms");
  for (uint32_t every : {1u, 100u, 0u}) {
    const BurstResult result = burst(writer, side, options.burst, every);
    const std::string serving = every == 0 ? "never during the burst" : fmt::format("after every {} update(s)", every);
    fmt::print("{:<44} {:>10} {:>10.5f} {:>12} {:>10.1f}\n", serving, result.wakes,
               static_cast<double>(result.wakes) / static_cast<double>(result.updates), result.nudges,
               result.seconds * 1e3);
  }
  close(sockets[0]);
  close(sockets[1]);
}

void catchUpAndResync(const Options & options) {
  const uint64_t start = nowNs();
  WriterProcess writer(options.entries, -1);
  const uint64_t filled = nowNs();
  ShadowSide side(options.entries);
  side.mount(options.entries, writer.filled());
  const uint64_t mounted = nowNs();
  fmt::print("\nTable of {} entries: writer filled it in {:.0f} ms, the shadow mounted (first walk) in {:.0f} ms\n",
             options.entries, static_cast<double>(filled - start) / 1e6, static_cast<double>(mounted - filled) / 1e6);

  const Rate walk = resync(side, options.entries);
  fmt::print("full resync of {} entries: {:.1f} ms, {:.1f} M slots/s, {} callbacks (goal: under 500 ms: {})\n",
             walk.slots, walk.seconds * 1e3, static_cast<double>(walk.slots) / walk.seconds / 1e6, walk.callbacks,
             walk.seconds < 0.5 ? "met" : "NOT met");

  fmt::print("catch-up after {} changes made while the shadow stood still (goal: at least 10 M slots/s)\n",
             options.changes);
  for (bool slotOrder : {true, false}) {
    const Rate caught = catchUp(writer, side, options.changes, slotOrder);
    const double rate = static_cast<double>(caught.slots) / caught.seconds;
    fmt::print("  {:<36} {:>8} slots in {:>7.1f} ms, {:>5.1f} M slots/s {}\n",
               slotOrder ? "keys changed in the order of slots" : "keys changed in scattered slots", caught.slots,
               caught.seconds * 1e3, rate / 1e6, rate >= 1e7 ? "met" : "NOT met");
  }
}

}  // namespace

int main(int argc, char ** argv) {
  if (const char * role = std::getenv(WriterVariable)) {
    return runWriter(role);
  }
  const Options options = parseOptions(argc, argv);
  const std::string base = Bench::tableBase();
  fmt::print("ShadowBench: {} processors (shared: figures vary from run to run)\n", sysconf(_SC_NPROCESSORS_ONLN));
  latencies(options);
  catchUpAndResync(options);
  std::filesystem::remove_all(base);
  return 0;
}

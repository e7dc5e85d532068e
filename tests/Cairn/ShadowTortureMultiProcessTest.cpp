// Multi-process torture of the shadows. One writer process changes a table
// at full speed: rounds of inserts, rewrites and removals that fill the table
// (its buckets double, its slot file grows) and drain it (its buckets halve),
// with a few hot keys rewritten all the time. Two other processes follow it,
// each through a map of its own, one in mode shadow and one in mode
// keyshadow, and log every callback their map makes. After each round the
// writer stops at a quiesce point: it checks its own table, and the test
// hands its sequence, generation and content to both shadow processes. Each
// runs its loop until its shadow has applied that sequence, then checks:
//   - every key ever used, looked up, and a full walk give exactly the
//     writer's table (a key shadow reads the values through the writer's
//     files); every value is whole (its fill is a function of its key and
//     version), in the callbacks too, while the writer runs;
//   - every key whose entry differs from the last quiesce point got at least
//     one callback, and the last callback of every key agrees with the table;
//   - on request, a resync then changes nothing, and a value shadow's resync
//     makes no callback at all.
// A writer whose drained table also gives slots back moves entries to slots
// the shadows knew other keys in; they stay equal too. A slow shadow (it
// sleeps in each callback and yields after short slices) loses only
// intermediate states, and the queue's files stay bounded by the table's
// size however far it lags. A writer killed by SIGKILL and started
// again on its files is followed again after a resync; one started on
// damaged files formats the table afresh, and the shadows see it emptied (a
// delete callback for each old key) and refilled. Last, a shadow made to skip
// one notification is caught by the same checks.
//
// The processes are this test program started again with only
// ShadowTortureProcess.Run selected, their role and pipe ends in
// TESSEL_SHADOW_TORTURE. TESSEL_STRESS_SCALE multiplies the operations of a
// round (default 1: 5000 operations; 0.25 in sanitizer builds).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Util.h"
#include "Cairn/MapFrontTesting.h"
#include "Loop/EventLoop.h"
#include "Ripple/RippleFormat.h"

using namespace MapFrontTest;

namespace {

using Shadow = Cairn::CairnShadow<Key, Value, Ops>;
// A table's content: the version of each key number.
using Model = std::map<uint64_t, uint64_t>;

constexpr const char * TableName = "torture/table";
constexpr const char * RoleVariable = "TESSEL_SHADOW_TORTURE";
constexpr uint32_t MaxSlots = 2048;
constexpr uint64_t KeySpace = 1500;     // the numbers ordinary operations use
constexpr uint64_t HotKeys = 16;        // the first numbers, rewritten most often
constexpr uint64_t FreshBase = 100000;  // a round's fresh key: FreshBase + round
// A process that waits longer than this is hung; no test measures time.
constexpr auto Patience = std::chrono::seconds(60);

double stressScale() {
  const char * text = std::getenv("TESSEL_STRESS_SCALE");
  if (text != nullptr && *text != '\0') {
    return std::max(std::atof(text), 0.01);
  }
#if defined(__SANITIZE_ADDRESS__)
  return 0.25;
#else
  return 1.0;
#endif
}

uint64_t operationsPerRound() { return std::max<uint64_t>(static_cast<uint64_t>(5000 * stressScale()), 50); }

// Rounds whose number is a multiple of 3 drain the table; the others fill it.
bool draining(uint64_t round) { return round % 3 == 0; }

bool whole(const Value & value) { return value == Value(value.key.number, value.version); }

// ---------------------------------------------------------------- messages

// Messages between the processes: a length, then the bytes.
class Channel {
 public:
  Channel(int in, int out) : in_(in), out_(out) {}

  void send(const std::string & bytes) const {
    const auto size = static_cast<uint32_t>(bytes.size());
    writeAll(&size, sizeof size);
    writeAll(bytes.data(), bytes.size());
  }
  // Nothing once the other end has gone.
  std::optional<std::string> receive() const {
    uint32_t size = 0;
    if (!readAll(&size, sizeof size)) {
      return std::nullopt;
    }
    std::string bytes(size, '\0');
    if (!readAll(bytes.data(), size)) {
      return std::nullopt;
    }
    return bytes;
  }
  int in() const { return in_; }
  int out() const { return out_; }

 private:
  void writeAll(const void * data, std::size_t size) const {
    const auto * bytes = static_cast<const char *>(data);
    while (size > 0) {
      const ssize_t put = ::write(out_, bytes, size);
      if (put < 0 && errno == EINTR) {
        continue;
      }
      if (put <= 0) {
        throw std::runtime_error(fmt::format("pipe write failed: {}", std::strerror(errno)));
      }
      bytes += put;
      size -= static_cast<std::size_t>(put);
    }
  }
  // A descriptor the loop has watched is non-blocking: wait for the rest.
  bool readAll(void * data, std::size_t size) const {
    auto * bytes = static_cast<char *>(data);
    while (size > 0) {
      const ssize_t got = ::read(in_, bytes, size);
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        pollfd readable{in_, POLLIN, 0};
        ::poll(&readable, 1, -1);
        continue;
      }
      if (got <= 0) {
        return false;
      }
      bytes += got;
      size -= static_cast<std::size_t>(got);
    }
    return true;
  }

  int in_;
  int out_;
};

class Packer {
 public:
  template <typename T>
  Packer & put(const T & value) {
    static_assert(std::is_trivially_copyable_v<T>);
    bytes_.append(reinterpret_cast<const char *>(&value), sizeof value);
    return *this;
  }
  Packer & putText(const std::string & text) {
    put(static_cast<uint64_t>(text.size()));
    bytes_ += text;
    return *this;
  }
  Packer & putModel(const Model & model) {
    put(static_cast<uint64_t>(model.size()));
    for (const auto & [number, version] : model) {
      put(number).put(version);
    }
    return *this;
  }
  const std::string & bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

class Unpacker {
 public:
  explicit Unpacker(const std::string & bytes) : bytes_(bytes.begin(), bytes.end()) {}

  template <typename T>
  T get() {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    std::memcpy(&value, take(sizeof value), sizeof value);
    return value;
  }
  std::string text() {
    const auto size = get<uint64_t>();
    return std::string(take(size), size);
  }
  Model model() {
    Model model;
    for (auto count = get<uint64_t>(); count > 0; --count) {
      const auto number = get<uint64_t>();
      model[number] = get<uint64_t>();
    }
    return model;
  }

 private:
  const char * take(std::size_t size) {
    if (at_ + size > bytes_.size()) {
      throw std::runtime_error("message cut short");
    }
    at_ += size;
    return bytes_.data() + at_ - size;
  }

  std::vector<char> bytes_;
  std::size_t at_ = 0;
};

// What the test asks of the writer for one round.
struct RoundOrder {
  uint64_t round = 0;
  uint64_t operations = 0;
  uint64_t freshKeyFirst = 0;   // 1: the round begins with the insert of FreshBase + round
  uint64_t announceAt = ~0ull;  // the writer says "halfway" after this many operations
};

// The writer process's counts since it started.
struct WriterCounts {
  uint64_t operations = 0;
  uint64_t bucketDoublings = 0;
  uint64_t bucketHalvings = 0;
  uint64_t mostBuckets = 0;
  uint64_t slotGrows = 0;
  uint64_t slotShrinks = 0;
  uint64_t slotMoves = 0;
  uint64_t slotCapacity = 0;
  uint64_t notifications = 0;
  uint64_t queueSwaps = 0;
  uint64_t queueGrows = 0;
  uint64_t queueGaps = 0;
};

// The writer at a quiesce point: its sequence, generation, counts, what its
// self-check found wrong, and its table.
struct WriterReport {
  uint64_t sequence = 0;
  uint64_t epoch = 0;
  WriterCounts counts;
  std::string problems;
  Model model;

  std::string pack() const { return Packer().put(sequence).put(epoch).put(counts).putText(problems).putModel(model).bytes(); }
  static WriterReport unpack(const std::string & bytes) {
    Unpacker in(bytes);
    WriterReport report;
    report.sequence = in.get<uint64_t>();
    report.epoch = in.get<uint64_t>();
    report.counts = in.get<WriterCounts>();
    report.problems = in.text();
    report.model = in.model();
    return report;
  }
};

// What the test asks of the shadows at a quiesce point, besides the checks.
constexpr uint64_t ResyncFlag = 1;    // resync after the check: it must change nothing
constexpr uint64_t SkipNextFlag = 2;  // a shadow that can skip skips the next queue entry
constexpr uint64_t EmptiedFlag = 4;   // the table was formatted afresh: every old key is deleted

struct QuiescePoint {
  uint64_t sequence = 0;
  uint64_t epoch = 0;
  uint64_t flags = 0;
};

// A shadow process's counts since it started.
struct ShadowCounts {
  uint64_t checks = 0;
  uint64_t valueCallbacks = 0;
  uint64_t keyCallbacks = 0;
  uint64_t deleteCallbacks = 0;
  uint64_t resyncs = 0;
  uint64_t resyncCallbacks = 0;
  uint64_t skipped = 0;
  uint64_t walks = 0;  // of the present backend
  uint64_t notificationsRead = 0;
  uint64_t tombstonesPassed = 0;
  uint64_t swapsSeen = 0;
  uint64_t doSlotFailures = 0;
  uint64_t shadowGrows = 0;
  uint64_t shadowShrinks = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t rekeys = 0;  // entries found moved to another slot
  uint64_t mostQueueBytes = 0;  // mapped of the queue's two tables
};

// Runs the process's loop until a message comes or the other end goes: a
// writer serves its readers' sockets meanwhile, a shadow follows its writer.
std::optional<std::string> receiveWhileLooping(const Channel & channel) {
  bool readable = false;
  Loop::Registration watch = Loop::processLoop().watchReadable(channel.in(), [&] { readable = true; });
  while (!readable) {
    Loop::processLoop().runUntil([&] { return readable; }, Patience);
  }
  watch.cancel();
  return channel.receive();
}

// Problems found by a check, each told once; the first few in full.
class Problems {
 public:
  template <typename... Args>
  void add(fmt::format_string<Args...> format, Args &&... args) {
    if (++count_ <= Shown) {
      text_ += fmt::format(format, std::forward<Args>(args)...) + "\n";
    }
  }
  void addAll(const std::vector<std::string> & lines) {
    for (const std::string & line : lines) {
      add("{}", line);
    }
  }
  std::string text() const {
    return count_ <= Shown ? text_ : text_ + fmt::format("... {} problems in all\n", count_);
  }

 private:
  static constexpr std::size_t Shown = 12;
  std::size_t count_ = 0;
  std::string text_;
};

std::string describe(const Model & model, uint64_t number) {
  const auto found = model.find(number);
  return found == model.end() ? "absent" : fmt::format("v{:x}", found->second);
}

// ---------------------------------------------------------------- the writer process

// With `shrinkSlots` a drained table also gives slots back: the entries
// above its new end move down, to slots the shadows knew another key in.
Cairn::MapDescriptor writerDescriptor(bool shrinkSlots) {
  Cairn::MapDescriptor descriptor = descriptorOf(Cairn::CairnType::writer, MaxSlots);
  descriptor.shrinkBuckets = true;
  descriptor.shrinkSlots = shrinkSlots;
  return descriptor;
}

// Lets the loop handle what is ready, without waiting: the readers' sockets
// are served while the writer runs at full speed.
void pollLoop() {
  Loop::EventLoop & loop = Loop::processLoop();
  Loop::Registration keeper;
  // A call deferred from inside a deferred call keeps the loop from sleeping.
  Loop::Registration tick = loop.runSoon([&] { keeper = loop.runSoon([] {}); });
  loop.runOnce();
}

class TortureWriter {
 public:
  explicit TortureWriter(bool shrinkSlots) : shrinkSlots_(shrinkSlots) {
    map_.init(writerDescriptor(shrinkSlots));
    // A writer started on kept files has their content.
    model_ = walk(problems_);
    lastBuckets_ = backend().map().buckets().numBuckets();
  }

  void run(const RoundOrder & order, const Channel & channel) {
    std::mt19937_64 random(order.round * 7919 + 17);
    if (order.freshKeyFirst != 0) {
      write(FreshBase + order.round, order.round << 24);
    }
    for (uint64_t operation = 0; operation < order.operations; ++operation) {
      if (operation == order.announceAt) {
        channel.send("halfway");
      }
      step(random, order.round, (order.round << 24) | (operation + 1));
      ++counts_.operations;
      noteBuckets();
      if (operation % 32 == 31) {
        pollLoop();
      }
    }
  }

  WriterReport report() {
    settle();
    Problems problems;
    problems.addAll(std::exchange(problems_, {}));
    selfCheck(problems);
    const Cairn::Writer::Counters counters = backend().writerCounters();
    counts_.slotGrows += counters.slotGrows - reported_.slotGrows;
    counts_.slotShrinks += counters.slotShrinks - reported_.slotShrinks;
    counts_.slotMoves += counters.slotMoves - reported_.slotMoves;
    reported_ = counters;
    counts_.slotCapacity = backend().capacity();
    counts_.notifications = counters.notifications;
    counts_.queueSwaps = counters.swaps;
    counts_.queueGrows = counters.grows;
    counts_.queueGaps = counters.gaps;
    return {map_.sequence(), map_.epochId().value, counts_, problems.text(), model_};
  }

 private:
  Writer & backend() { return dynamic_cast<Writer &>(*map_.backend()); }

  // Filling: three writes to one removal of a random key. Draining: removals
  // of present keys, four to one write. Every tenth operation rewrites a hot key.
  void step(std::mt19937_64 & random, uint64_t round, uint64_t version) {
    const auto choice = random() % 100;
    const uint64_t number = random() % KeySpace;
    if (choice < 10) {
      write(number % HotKeys, version);
    } else if (choice < (draining(round) ? 28 : 77)) {
      write(number, version);
    } else if (draining(round)) {
      removePresent(number);
    } else {
      remove(number);
    }
  }
  void write(uint64_t number, uint64_t version) {
    map_.safeWrite(Value(number, version), true);
    model_[number] = version;
  }
  void remove(uint64_t number) {
    Value removed;
    map_.safeRemove(Key{number}, removed);
    model_.erase(number);
  }
  // The first ordinary key from `number` on, wrapping around; fresh keys stay.
  void removePresent(uint64_t number) {
    auto found = model_.lower_bound(number);
    if (found == model_.end() || found->first >= KeySpace) {
      found = model_.begin();
    }
    if (found != model_.end() && found->first < KeySpace) {
      remove(found->first);
    }
  }
  void noteBuckets() {
    const uint32_t buckets = backend().map().buckets().numBuckets();
    counts_.bucketDoublings += buckets > lastBuckets_ ? 1 : 0;
    counts_.bucketHalvings += buckets < lastBuckets_ ? 1 : 0;
    counts_.mostBuckets = std::max<uint64_t>(counts_.mostBuckets, buckets);
    lastBuckets_ = buckets;
  }

  Model walk(std::vector<std::string> & problems) const {
    Model walked;
    Value value;
    Cairn::IterHint hint;
    const Interface & table = *map_.backend();
    for (bool more = table.first(value, hint); more; more = table.next(value.key, value, hint)) {
      if (!whole(value)) {
        problems.push_back(fmt::format("writer: walk gave a torn value of {}", value.key.number));
      }
      if (!walked.emplace(value.key.number, value.version).second) {
        problems.push_back(fmt::format("writer: walk gave {} twice", value.key.number));
      }
    }
    return walked;
  }

  // The writer's own table against what it did.
  void selfCheck(Problems & problems) {
    std::vector<std::string> walkProblems;
    if (walk(walkProblems) != model_) {
      problems.add("writer: its walk differs from what it wrote");
    }
    problems.addAll(walkProblems);
    std::set<uint64_t> numbers;
    for (uint64_t number = 0; number < KeySpace; ++number) {
      numbers.insert(number);
    }
    for (const auto & entry : model_) {
      numbers.insert(entry.first);
    }
    for (uint64_t number : numbers) {
      bool found = false;
      const Value * value = map_.safeLookup(Key{number}, found);
      const auto expected = model_.find(number);
      if (found != (expected != model_.end()) || (found && !(*value == Value(number, expected->second)))) {
        problems.add("writer: lookup of {} differs from what it wrote ({})", number, describe(model_, number));
      }
    }
  }

  // A shrink refused while its readers had not applied the last one's moves
  // runs when they have, from the loop: the table is still only once every
  // reader has applied every notification.
  void settle() {
    if (shrinkSlots_ && !Loop::processLoop().runUntil([&] { return map_.quiesced(); }, Patience)) {
      problems_.push_back("writer: its readers never applied its last notification");
    }
  }

  bool shrinkSlots_;
  Map map_{TableName};
  Model model_;
  WriterCounts counts_;
  Cairn::Writer::Counters reported_;  // the writer's counters at the last report
  uint32_t lastBuckets_ = 0;
  std::vector<std::string> problems_;
};

int runWriterProcess(const Channel & channel, bool shrinkSlots) {
  TortureWriter writer(shrinkSlots);
  channel.send(writer.report().pack());
  for (;;) {
    const std::optional<std::string> message = receiveWhileLooping(channel);
    if (!message) {
      return 0;  // the test closed its end
    }
    writer.run(Unpacker(*message).get<RoundOrder>(), channel);
    channel.send(writer.report().pack());
  }
}

// ---------------------------------------------------------------- the shadow processes

// A shadow broken on purpose, for the test of the checks: armed, it drops
// the next queue entry as if it had applied it (its sequence is recorded,
// the store is not touched).
class SkippingShadow : public Shadow {
 public:
  using Shadow::Shadow;

  bool doSlot(unsigned slotIndex, uint64_t sequence, bool compare) override {
    if (armed && sequence != Cairn::Syncer::NoSequence) {
      armed = false;
      ++skipped;
      counters().sequence = sequence;
      return true;
    }
    return Shadow::doSlot(slotIndex, sequence, compare);
  }

  bool armed = false;
  uint64_t skipped = 0;
};

// The map of a shadow process: it attaches a SkippingShadow when asked to.
class TortureMap : public Map {
 public:
  TortureMap(bool canSkip, Callbacks callbacks) : Map(TableName, std::move(callbacks)), canSkip_(canSkip) {}

 protected:
  Interface * makeAttachBackend() override {
    if (!canSkip_) {
      return Map::makeAttachBackend();
    }
    return new SkippingShadow(debugHandler(), path(), ops(), shadowFlags(), *this, *this);
  }

 private:
  bool canSkip_;
};

// One callback of the map.
struct Event {
  enum Kind { value, key, remove };
  Kind kind;
  uint64_t number;
  uint64_t version;  // of the value given (value) or read inside the callback (key); 0 for remove
};

class TortureShadow {
 public:
  TortureShadow(Cairn::CairnType mode, unsigned slowMicros, bool canSkip)
      : mode_(mode), slowMicros_(slowMicros), map_(canSkip, callbacks()) {
    Cairn::CairnMapBase::corruptionHandlerIs([this](const std::string &, const std::string & message) {
      corruptions_.push_back(message);
    });
    Cairn::MapDescriptor descriptor = descriptorOf(mode, MaxSlots);
    descriptor.shadowOptionBit2 = true;  // a flush tells each key it takes out
    map_.init(descriptor);
    if (slowMicros_ > 0) {
      map_.yieldTimeIs(0.0002);
      map_.sampleIs(2);
    }
  }

  bool mounted() const { return map_.mountStatus() == 2; }

  // Waits until the shadow has applied the writer's sequence, then checks.
  std::string quiesce(const QuiescePoint & point, const Model & model) {
    Problems problems;
    if (!Loop::processLoop().runUntil([&] { return caughtUp(point); }, Patience)) {
      problems.add("did not catch up: {}", state(point));
      return problems.text();
    }
    problems.addAll(std::exchange(callbackProblems_, {}));
    for (const std::string & message : std::exchange(corruptions_, {})) {
      problems.add("corruption reported: {}", message);
    }
    checkContent(model, problems);
    checkCallbacks(model, (point.flags & EmptiedFlag) != 0, problems);
    previous_ = model;
    events_.clear();
    statuses_.clear();
    if ((point.flags & ResyncFlag) != 0) {
      resync(point, model, problems);
    }
    if ((point.flags & SkipNextFlag) != 0) {
      if (auto * skipping = dynamic_cast<SkippingShadow *>(backend())) {
        skipping->armed = true;
      }
    }
    ++counts_.checks;
    noteCounters();
    return problems.text();
  }

  const ShadowCounts & counts() const { return counts_; }

 private:
  Map::Callbacks callbacks() {
    return Map::Callbacks([this](const Value & value) { onValue(value); }, [this](const Key & key) { onKey(key); },
                          [this](const Key & key) { onDelete(key); },
                          [this] { statuses_.push_back(map_.mountStatus()); }, [](bool) {});
  }

  Shadow * backend() const { return dynamic_cast<Shadow *>(map_.backend()); }
  std::string name() const { return Cairn::toString(mode_); }

  void slow() const {
    if (slowMicros_ > 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(slowMicros_));
    }
  }

  // ---- Callbacks: logged, and checked while the writer runs ----

  void onValue(const Value & value) {
    slow();
    ++counts_.valueCallbacks;
    events_.push_back({Event::value, value.key.number, value.version});
    if (!whole(value)) {
      callbackProblem("value callback of {} gave a torn value", value.key.number);
    }
    bool found = false;
    const Value * seen = map_.safeLookup(value.key, found);
    if (!found || !(*seen == value)) {
      callbackProblem("inside the value callback of {} a lookup gave another value", value.key.number);
    }
  }
  void onKey(const Key & key) {
    slow();
    ++counts_.keyCallbacks;
    bool found = false;
    Value out;
    const Value * value = map_.safeLookup(key, found, &out);
    events_.push_back({Event::key, key.number, found ? value->version : 0});
    if (!found) {
      callbackProblem("inside the key callback of {} a lookup found nothing", key.number);
    } else if (!whole(*value) || !(value->key == key)) {
      callbackProblem("inside the key callback of {} a lookup gave a torn or foreign value", key.number);
    }
  }
  void onDelete(const Key & key) {
    slow();
    ++counts_.deleteCallbacks;
    events_.push_back({Event::remove, key.number, 0});
    bool found = true;
    map_.safeLookup(key, found);
    if (found) {
      callbackProblem("inside the delete callback of {} a lookup found it", key.number);
    }
  }
  template <typename... Args>
  void callbackProblem(fmt::format_string<Args...> format, Args &&... args) {
    if (callbackProblems_.size() < 20) {
      callbackProblems_.push_back(fmt::format(format, std::forward<Args>(args)...));
    }
  }

  // ---- Quiesce points ----

  bool caughtUp(const QuiescePoint & point) const {
    const Shadow * shadow = backend();
    return shadow != nullptr && shadow->mountStatus() == 2 && shadow->connected() && shadow->syncFromRipple() &&
           shadow->epochId().value == point.epoch && shadow->sequence() == point.sequence && shadow->quiesced();
  }
  std::string state(const QuiescePoint & point) const {
    const Shadow * shadow = backend();
    if (shadow == nullptr) {
      return fmt::format("no shadow attached, map status {}", map_.mountStatus());
    }
    return fmt::format("status {} connected {} following {} epoch {:x} of {:x} sequence {} of {} quiesced {}",
                       shadow->mountStatus(), shadow->connected(), shadow->syncFromRipple(),
                       shadow->epochId().value, point.epoch, shadow->sequence(), point.sequence,
                       shadow->quiesced());
  }

  // Every key ever used looked up, and a full walk, against the table.
  void checkContent(const Model & model, Problems & problems) const {
    std::set<uint64_t> numbers;
    for (uint64_t number = 0; number < KeySpace; ++number) {
      numbers.insert(number);
    }
    for (const Model * source : {&model, &previous_}) {
      for (const auto & entry : *source) {
        numbers.insert(entry.first);
      }
    }
    for (uint64_t number : numbers) {
      bool found = false;
      Value out;
      const Value * value = map_.safeLookup(Key{number}, found, &out);
      const auto expected = model.find(number);
      if (found != (expected != model.end())) {
        problems.add("{}: lookup of {} found:{}, the writer has it {}", name(), number, found,
                     describe(model, number));
      } else if (found && !(*value == Value(number, expected->second))) {
        problems.add("{}: lookup of {} gave v{:x}{}, the writer has it {}", name(), number, value->version,
                     whole(*value) ? "" : " torn", describe(model, number));
      }
    }
    checkWalk(model, problems);
    if (backend()->members() != model.size()) {
      problems.add("{}: members {}, the writer has {}", name(), backend()->members(), model.size());
    }
  }

  // A walk gives each entry once, whole, in split order, and all of them.
  void checkWalk(const Model & model, Problems & problems) const {
    const Shadow & shadow = *backend();
    Model walked;
    Value value;
    Cairn::IterHint hint;
    std::optional<std::pair<uint32_t, uint64_t>> last;
    for (bool more = shadow.first(value, hint); more; more = shadow.next(value.key, value, hint)) {
      const uint64_t number = value.key.number;
      if (!whole(value)) {
        problems.add("{}: walk gave a torn value of {}", name(), number);
      }
      if (!walked.emplace(number, value.version).second) {
        problems.add("{}: walk gave {} twice", name(), number);
      }
      const std::pair<uint32_t, uint64_t> order{Basalt::Util::reverse(value.key.hash(0)), number};
      if (last && !(*last < order)) {
        problems.add("{}: walk gave {} out of split order", name(), number);
      }
      last = order;
    }
    for (const Model * source : {&model, static_cast<const Model *>(&walked)}) {
      for (const auto & entry : *source) {
        if (describe(model, entry.first) != describe(walked, entry.first)) {
          problems.add("{}: walk gave {} {}, the writer has it {}", name(), entry.first,
                       describe(walked, entry.first), describe(model, entry.first));
        }
      }
    }
  }

  // Since the last quiesce point: a callback for each key whose entry
  // changed, and the last callback of each key agrees with the table. After
  // a re-format, every old key was deleted.
  void checkCallbacks(const Model & model, bool emptied, Problems & problems) const {
    std::map<uint64_t, const Event *> lastEvent;
    std::set<uint64_t> deleted;
    for (const Event & event : events_) {
      lastEvent[event.number] = &event;
      if (event.kind == Event::remove) {
        deleted.insert(event.number);
      }
    }
    std::set<uint64_t> numbers;
    for (const Model * source : {&model, &previous_}) {
      for (const auto & entry : *source) {
        numbers.insert(entry.first);
      }
    }
    for (const auto & entry : lastEvent) {
      numbers.insert(entry.first);
    }
    for (uint64_t number : numbers) {
      const std::string was = describe(previous_, number);
      const std::string now = describe(model, number);
      const auto found = lastEvent.find(number);
      if (found == lastEvent.end()) {
        if (was != now) {
          problems.add("{}: key {} changed from {} to {} with no callback", name(), number, was, now);
        }
        continue;
      }
      if (!agrees(*found->second, model)) {
        problems.add("{}: the last callback of {} ({}) disagrees with the writer's {}", name(), number,
                     toString(*found->second), now);
      }
    }
    if (emptied) {
      for (const auto & entry : previous_) {
        if (!deleted.contains(entry.first)) {
          problems.add("{}: no delete callback for {} of the table formatted afresh", name(), entry.first);
        }
      }
      // The old shadow flushed (status 3), and a new one walked the new table.
      const auto flushed = std::find(statuses_.begin(), statuses_.end(), 3u);
      if (flushed == statuses_.end() || std::find(flushed, statuses_.end(), 2u) == statuses_.end()) {
        problems.add("{}: the mount statuses told were {}, not a flush and then a new walk", name(),
                     fmt::join(statuses_, " "));
      }
    }
  }
  bool agrees(const Event & event, const Model & model) const {
    const auto found = model.find(event.number);
    if (found == model.end()) {
      return event.kind == Event::remove;
    }
    const Event::Kind expected = mode_ == Cairn::CairnType::shadow ? Event::value : Event::key;
    return event.kind == expected && event.version == found->second;
  }
  static std::string toString(const Event & event) {
    static const char * const kinds[] = {"value", "key", "delete"};
    return fmt::format("{} v{:x}", kinds[event.kind], event.version);
  }

  // A resync of an unchanged table changes nothing. A value shadow compares
  // and stays silent; a key shadow, which has no values to compare, tells
  // each key again, with its current value.
  void resync(const QuiescePoint & point, const Model & model, Problems & problems) {
    Shadow & shadow = *backend();
    const uint64_t walks = shadow.syncer.walks();
    shadow.resync();
    if (!Loop::processLoop().runUntil([&] { return shadow.syncer.walks() > walks && caughtUp(point); },
                                      Patience)) {
      problems.add("{}: the resync did not end: {}", name(), state(point));
      return;
    }
    ++counts_.resyncs;
    counts_.resyncCallbacks += events_.size();
    for (const Event & event : events_) {
      if (mode_ == Cairn::CairnType::shadow || !agrees(event, model) || event.kind == Event::remove) {
        problems.add("{}: the resync of an unchanged table made a callback for {} ({})", name(), event.number,
                     toString(event));
      }
    }
    problems.addAll(std::exchange(callbackProblems_, {}));
    checkContent(model, problems);
    events_.clear();
  }

  void noteCounters() {
    const Shadow & shadow = *backend();
    const Cairn::Reader::Counters counters = shadow.readerCounters();
    counts_.walks = shadow.syncer.walks();
    counts_.notificationsRead = counters.notificationsRead;
    counts_.tombstonesPassed = counters.tombstonesPassed;
    counts_.swapsSeen = counters.swapsSeen;
    counts_.doSlotFailures = counters.doSlotFailures;
    counts_.shadowGrows = counters.shadowGrows;
    counts_.shadowShrinks = counters.shadowShrinks;
    counts_.bucketGrows = counters.bucketGrows;
    counts_.bucketShrinks = counters.bucketShrinks;
    counts_.rekeys = counters.shadowRekeys;
    counts_.mostQueueBytes =
        std::max(counts_.mostQueueBytes, counters.primaryMappedSize + counters.secondaryMappedSize);
    if (const auto * skipping = dynamic_cast<const SkippingShadow *>(&shadow)) {
      counts_.skipped = skipping->skipped;
    }
  }

  Cairn::CairnType mode_;
  unsigned slowMicros_;
  std::vector<Event> events_;
  std::vector<uint32_t> statuses_;  // mount statuses told
  std::vector<std::string> callbackProblems_;
  std::vector<std::string> corruptions_;
  Model previous_;  // the table at the last quiesce point
  ShadowCounts counts_;
  TortureMap map_;  // last: its callbacks use the members above
};

int runShadowProcess(const Channel & channel, Cairn::CairnType mode, unsigned slowMicros, bool canSkip) {
  TortureShadow shadow(mode, slowMicros, canSkip);
  const bool mounted = Loop::processLoop().runUntil([&] { return shadow.mounted(); }, Patience);
  channel.send(Packer().putText(mounted ? "" : "the shadow did not mount").put(shadow.counts()).bytes());
  for (;;) {
    const std::optional<std::string> message = receiveWhileLooping(channel);
    if (!message) {
      return 0;
    }
    Unpacker in(*message);
    const auto point = in.get<QuiescePoint>();
    const Model model = in.model();
    const std::string problems = shadow.quiesce(point, model);
    channel.send(Packer().putText(problems).put(shadow.counts()).bytes());
  }
}

// ---------------------------------------------------------------- the test's side

// A process of this test: this program started again in `role`, which
// learns its two pipe ends from the environment. Every other descriptor of
// the test is closed in it, so that it sees the test's end when the test
// closes its pipe or dies.
class Process {
 public:
  explicit Process(const std::string & role) {
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe failed");
    }
    pid_ = fork();
    if (pid_ == 0) {
      fcntl(toChild[0], F_SETFD, 0);
      fcntl(fromChild[1], F_SETFD, 0);
      setenv(RoleVariable, fmt::format("{} {} {}", toChild[0], fromChild[1], role).c_str(), 1);
      execl("/proc/self/exe", "ShadowTorture", "--gtest_filter=ShadowTortureProcess.Run", nullptr);
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    channel_ = std::make_unique<Channel>(fromChild[0], toChild[1]);
  }
  ~Process() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    closeOutput();
    close(channel_->in());
  }
  Process(const Process &) = delete;
  Process & operator=(const Process &) = delete;

  void send(const std::string & bytes) const { channel_->send(bytes); }
  std::string receive() const {
    std::optional<std::string> bytes = channel_->receive();
    if (!bytes) {
      throw std::runtime_error("a process of the test has gone");
    }
    return *bytes;
  }
  // SIGKILL, and the process reaped.
  void killHard() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // Closes the process's input, which ends it; true if it exited with 0.
  bool end() {
    closeOutput();
    int status = 0;
    const bool clean = waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    pid_ = -1;
    return clean;
  }

 private:
  void closeOutput() {
    if (!outputClosed_) {
      close(channel_->out());
      outputClosed_ = true;
    }
  }

  pid_t pid_ = -1;
  std::unique_ptr<Channel> channel_;
  bool outputClosed_ = false;
};

class ShadowTortureMultiProcess : public ::testing::Test {
 protected:
  static constexpr std::size_t ShadowCount = 2;
  static constexpr Cairn::CairnType Modes[ShadowCount] = {Cairn::CairnType::shadow, Cairn::CairnType::keyshadow};

  // A writer process on the table; its report holds what it found there.
  WriterReport startWriter(bool shrinkSlots = false) {
    writer_ = std::make_unique<Process>(fmt::format("writer {}", shrinkSlots ? 1 : 0));
    WriterReport report = WriterReport::unpack(writer_->receive());
    EXPECT_EQ(report.problems, "");
    return report;
  }
  void startShadows(unsigned slowMicros = 0, bool canSkip = false) {
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      shadows_[index] = std::make_unique<Process>(
          fmt::format("{} {} {}", Cairn::toString(Modes[index]), slowMicros, canSkip ? 1 : 0));
    }
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      Unpacker ready(shadows_[index]->receive());
      EXPECT_EQ(ready.text(), "") << Cairn::toString(Modes[index]);
    }
  }

  WriterReport round(uint64_t number, bool freshKeyFirst = false) {
    sendOrder(number, freshKeyFirst);
    WriterReport report = WriterReport::unpack(writer_->receive());
    EXPECT_EQ(report.problems, "") << "round " << number;
    writerCounts_ = report.counts;
    return report;
  }
  // Orders a round and kills the writer halfway through it.
  void roundKilledHalfway(uint64_t number) {
    sendOrder(number, false, operationsPerRound() / 2);
    EXPECT_EQ(writer_->receive(), "halfway");
    writer_->killHard();
  }

  // Hands the writer's quiesce point to both shadows; their problems, by mode.
  std::vector<std::string> quiesce(const WriterReport & report, uint64_t flags = 0) {
    const QuiescePoint point{report.sequence, report.epoch, flags};
    const std::string message = Packer().put(point).putModel(report.model).bytes();
    for (const auto & shadow : shadows_) {
      shadow->send(message);
    }
    std::vector<std::string> problems;
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      Unpacker reply(shadows_[index]->receive());
      problems.push_back(reply.text());
      shadowCounts_[index] = reply.get<ShadowCounts>();
    }
    ++quiescePoints_;
    checkQueueFiles();
    return problems;
  }
  // A quiesce point that must find nothing wrong.
  void expectQuiet(const WriterReport & report, uint64_t flags = 0) {
    const std::vector<std::string> problems = quiesce(report, flags);
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      EXPECT_EQ(problems[index], "") << Cairn::toString(Modes[index]) << " at sequence " << report.sequence;
    }
  }

  // The queue's tables hold at most one live entry per slot: a table grows
  // only while more than half its entries are live, and a compacted one is
  // at most half full, so neither passes four entries per slot of the
  // table, however far a shadow lags.
  void checkQueueFiles() {
    const uint64_t bound =
        Ripple::TableHeaderSize + Ripple::NotificationSize * std::max<uint64_t>(Ripple::InitialCapacity, 4ull * MaxSlots);
    for (const char * file : {Ripple::PrimaryFileName, Ripple::SecondaryFileName}) {
      struct stat status {};
      if (::stat(fmt::format("{}/{}/{}", root_.path(), TableName, file).c_str(), &status) == 0) {
        const auto size = static_cast<uint64_t>(status.st_size);
        mostQueueFileBytes_ = std::max(mostQueueFileBytes_, size);
        EXPECT_LE(size, bound) << file;
      }
    }
  }

  std::string ownerPath() const {
    return fmt::format("{}/{}/{}", root_.path(), TableName, ArenaFiles::OwnerFile::FILENAME);
  }

  // Ends every process (each must exit cleanly) and prints what was counted.
  void finish() {
    EXPECT_TRUE(writer_->end()) << "writer";
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      EXPECT_TRUE(shadows_[index]->end()) << Cairn::toString(Modes[index]);
    }
    const WriterCounts & w = writerCounts_;
    fmt::print("writer: {} operations, {} notifications, {} quiesce points; buckets doubled {}, halved {}, at most "
               "{}; slot file grown {}, shrunk {} ({} entries moved), last {} slots; queue swaps {}, grows {}, "
               "gaps {}, largest file {} bytes\n",
               w.operations, w.notifications, quiescePoints_, w.bucketDoublings, w.bucketHalvings, w.mostBuckets,
               w.slotGrows, w.slotShrinks, w.slotMoves, w.slotCapacity, w.queueSwaps, w.queueGrows, w.queueGaps,
               mostQueueFileBytes_);
    for (std::size_t index = 0; index < ShadowCount; ++index) {
      const ShadowCounts & c = shadowCounts_[index];
      fmt::print("{}: {} checks; callbacks value {}, key {}, delete {}; resyncs {} (callbacks {}); walks {}; "
                 "entries read {}, tombstones passed {}, swaps seen {}, doSlot failures {}; store grows {}, "
                 "shrinks {}, bucket grows {}, shrinks {}, entries moved {}; queue mapped at most {} bytes; "
                 "skipped {}\n",
                 Cairn::toString(Modes[index]), c.checks, c.valueCallbacks, c.keyCallbacks, c.deleteCallbacks,
                 c.resyncs, c.resyncCallbacks, c.walks, c.notificationsRead, c.tombstonesPassed, c.swapsSeen,
                 c.doSlotFailures, c.shadowGrows, c.shadowShrinks, c.bucketGrows, c.bucketShrinks, c.rekeys,
                 c.mostQueueBytes, c.skipped);
    }
  }

  // Declared first: the files outlive every process.
  CairnTest::ScopedTableRoot root_;
  std::unique_ptr<Process> writer_;
  std::unique_ptr<Process> shadows_[ShadowCount];
  WriterCounts writerCounts_;
  ShadowCounts shadowCounts_[ShadowCount];
  uint64_t quiescePoints_ = 0;
  uint64_t mostQueueFileBytes_ = 0;

 private:
  void sendOrder(uint64_t number, bool freshKeyFirst, uint64_t announceAt = ~0ull) {
    writer_->send(Packer().put(RoundOrder{number, operationsPerRound(), freshKeyFirst ? 1u : 0u, announceAt}).bytes());
  }
};

}  // namespace

// The processes' side of the tests below, when this program was started as
// one of them; skipped otherwise.
TEST(ShadowTortureProcess, Run) {
  const char * role = std::getenv(RoleVariable);
  if (role == nullptr) {
    GTEST_SKIP() << "runs only as a process of ShadowTortureMultiProcess";
  }
  int in = -1;
  int out = -1;
  char kind[16] = {};
  // writer: whether slots shrink; shadows: microseconds slept per callback, and whether it can skip.
  unsigned first = 0;
  unsigned second = 0;
  const int fields = std::sscanf(role, "%d %d %15s %u %u", &in, &out, kind, &first, &second);
  if (fields < 3) {
    _exit(4);
  }
  const Channel channel(in, out);
  const std::string name = kind;
  if (name == "writer") {
    _exit(runWriterProcess(channel, first != 0));
  }
  const auto mode = name == "keyshadow" ? Cairn::CairnType::keyshadow : Cairn::CairnType::shadow;
  _exit(runShadowProcess(channel, mode, first, second != 0));
}

TEST_F(ShadowTortureMultiProcess, BothShadowsEqualTheWritersTableAtEveryQuiescePoint) {
  startWriter();
  startShadows();
  for (uint64_t number = 1; number <= 9 && !HasFailure(); ++number) {
    // Every third point also resyncs, on a table that hasn't changed since.
    expectQuiet(round(number), number % 3 == 2 ? ResyncFlag : 0);
  }
  finish();
  EXPECT_GT(writerCounts_.bucketDoublings, 0u);
  EXPECT_GT(writerCounts_.bucketHalvings, 0u);
  EXPECT_GT(writerCounts_.slotGrows, 0u);
  for (const ShadowCounts & counts : shadowCounts_) {
    EXPECT_EQ(counts.checks, 9u);
    EXPECT_EQ(counts.resyncs, 3u);
    EXPECT_GT(counts.deleteCallbacks, 0u);
  }
  EXPECT_GT(shadowCounts_[0].valueCallbacks, 0u);
  EXPECT_EQ(shadowCounts_[0].resyncCallbacks, 0u) << "a value shadow's resync of an unchanged table is silent";
  EXPECT_GT(shadowCounts_[1].keyCallbacks, 0u);
}

// A drained table gives slots back: its entries above the new end move down,
// each notified in its new slot and then its old one, in that order. When a
// drain gives most of the slots back (at scale 1 and above), their entries
// leave the queue behind a gap, and the shadows walk the table again.
TEST_F(ShadowTortureMultiProcess, EntriesMovedByASlotShrinkKeepBothShadowsEqual) {
  startWriter(/*shrinkSlots=*/true);
  startShadows();
  for (uint64_t number = 1; number <= 9 && !HasFailure(); ++number) {
    expectQuiet(round(number), number % 3 == 0 ? ResyncFlag : 0);
  }
  finish();
  EXPECT_GT(writerCounts_.slotShrinks, 0u);
  EXPECT_GT(writerCounts_.slotMoves, 0u);
}

TEST_F(ShadowTortureMultiProcess, ASlowShadowLosesOnlyIntermediateStatesAndItsQueueStaysBounded) {
  startWriter();
  startShadows(/*slowMicros=*/100);
  for (uint64_t number = 1; number <= 9 && !HasFailure(); ++number) {
    expectQuiet(round(number), number == 4 ? ResyncFlag : 0);
  }
  finish();
  // Bounded by the table, not by the operations: many more than would fit.
  EXPECT_GT(writerCounts_.notifications * Ripple::NotificationSize, mostQueueFileBytes_);
}

TEST_F(ShadowTortureMultiProcess, AWriterKilledAndStartedAgainOnItsFilesIsFollowedAfterAResync) {
  const uint64_t epoch = startWriter().epoch;
  startShadows();
  for (uint64_t number = 1; number <= 2 && !HasFailure(); ++number) {
    expectQuiet(round(number));
  }
  roundKilledHalfway(4);
  const WriterReport restarted = startWriter();
  EXPECT_EQ(restarted.epoch, epoch) << "the new writer formatted the table afresh";
  // The shadows see what the dead writer finished, and the new writer's round.
  expectQuiet(round(5));
  expectQuiet(round(6));
  finish();
  for (const ShadowCounts & counts : shadowCounts_) {
    EXPECT_GE(counts.walks, 2u) << "no resync followed the restart";
  }
}

TEST_F(ShadowTortureMultiProcess, AWriterStartedOnDamagedFilesFormatsAfreshAndTheShadowsSeeTheTableEmptiedAndRefilled) {
  const uint64_t epoch = startWriter().epoch;
  startShadows();
  for (uint64_t number = 1; number <= 2 && !HasFailure(); ++number) {
    expectQuiet(round(number));
  }
  writer_->killHard();
  CairnTest::FileBytes(ownerPath()).contentsIs("garbage");
  const WriterReport formatted = startWriter();
  EXPECT_NE(formatted.epoch, epoch);
  EXPECT_TRUE(formatted.model.empty());
  expectQuiet(round(4), EmptiedFlag);
  expectQuiet(round(5));
  finish();
}

// The test of the test: a shadow that drops one queue entry, the insert of a
// key nothing touches again, must be caught at the next quiesce point.
TEST_F(ShadowTortureMultiProcess, TheChecksCatchAShadowThatSkipsOneNotification) {
  startWriter();
  startShadows(0, /*canSkip=*/true);
  expectQuiet(round(1), SkipNextFlag);
  const std::vector<std::string> problems = quiesce(round(2, /*freshKeyFirst=*/true));
  const uint64_t fresh = FreshBase + 2;
  for (std::size_t index = 0; index < ShadowCount; ++index) {
    const std::string & found = problems[index];
    const std::string mode = Cairn::toString(Modes[index]);
    EXPECT_NE(found.find(fmt::format("{}: lookup of {} found:false", mode, fresh)), std::string::npos) << found;
    EXPECT_NE(found.find(fmt::format("{}: walk gave {} absent", mode, fresh)), std::string::npos) << found;
    EXPECT_NE(found.find(fmt::format("{}: key {} changed from absent to", mode, fresh)), std::string::npos)
        << found;
    EXPECT_NE(found.find(fmt::format("{}: members", mode)), std::string::npos) << found;
  }
  finish();
  for (const ShadowCounts & counts : shadowCounts_) {
    EXPECT_EQ(counts.skipped, 1u);
  }
}

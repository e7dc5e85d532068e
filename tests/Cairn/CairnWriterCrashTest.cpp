// Multi-process tests of a table's one writer: a writer in a child process
// holds the table against a writer in this process until it is killed, and
// writers killed with SIGKILL in the middle of their work leave files that
// the next writer keeps, with every entry that was reported done (mending
// what the death left half made), or formats afresh; killed at random times
// with readers attached, they leave tables the next writer always keeps, and
// the readers never see a torn value. Children are made by fork() and report
// over pipes; nothing here waits by sleeping.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Cairn/CairnReader.h"
#include "Cairn/WriterTestTypes.h"

using namespace CairnTest;
using Value = IifSizedValue;
using Writer = WriterFor<Value>;

namespace {

// A pipe from a child to this process, of fixed-size records. A record is
// far below PIPE_BUF, so it is written whole or not at all, even by a
// process killed in the middle. The pipe is made as large as the system
// allows, so that a child that reports runs on, rather than waiting in a
// write, while this process reads.
class Pipe {
 public:
  Pipe() {
    if (pipe(fds_) != 0) {
      throw std::runtime_error("pipe failed");
    }
    fcntl(fds_[1], F_SETPIPE_SZ, 1 << 20);  // a smaller pipe only makes the kills land between operations
  }
  ~Pipe() {
    closeReading();
    closeWriting();
  }
  Pipe(const Pipe &) = delete;
  Pipe & operator=(const Pipe &) = delete;

  void closeReading() { closeEnd(0); }
  void closeWriting() { closeEnd(1); }

  template <typename Record>
  void send(const Record & record) {
    if (write(fds_[1], &record, sizeof(record)) != static_cast<ssize_t>(sizeof(record))) {
      _exit(3);  // only children send: the reader is gone, and so is the test
    }
  }

  // The next record, or none at the end of the pipe.
  template <typename Record>
  std::optional<Record> receive() {
    Record record;
    auto * bytes = reinterpret_cast<char *>(&record);
    std::size_t done = 0;
    while (done < sizeof(record)) {
      const ssize_t got = read(fds_[0], bytes + done, sizeof(record) - done);
      if (got < 0 && errno == EINTR) {
        continue;
      }
      if (got <= 0) {
        return std::nullopt;
      }
      done += static_cast<std::size_t>(got);
    }
    return record;
  }

 private:
  void closeEnd(int end) {
    if (fds_[end] >= 0) {
      close(fds_[end]);
      fds_[end] = -1;
    }
  }

  int fds_[2] = {-1, -1};
};

// Kills and reaps the child if the test leaves before it has.
class ChildGuard {
 public:
  explicit ChildGuard(pid_t child) : child_(child) {}
  ~ChildGuard() { kill(); }
  ChildGuard(const ChildGuard &) = delete;
  ChildGuard & operator=(const ChildGuard &) = delete;

  // SIGKILL, and waits for the child to be gone: its locks are free after.
  void kill() {
    if (child_ > 0) {
      ::kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
      child_ = 0;
    }
  }

 private:
  pid_t child_;
};

// A child's writer on the table `name`, with a handler of its own.
template <typename W = Writer>
struct ChildWriter {
  ChildWriter(const std::string & name, const Cairn::MapDescriptor & descriptor)
      : writer(handler, name, descriptor, OpsFor<Value>(), "TestClass", [](bool) {}) {
    writer.initialize(name);
  }
  Basalt::Platform::DebugHandler handler{"child-writer"};
  W writer;
};

// Runs `body` in a child process, which never comes back into the test: it
// ends by _exit, 2 if `body` threw.
template <typename Body>
pid_t forkChild(Body && body) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      body();
    } catch (const std::exception & exception) {
      std::cerr << "child " << getpid() << ": " << exception.what() << std::endl;
      _exit(2);
    }
    _exit(0);
  }
  return child;
}

[[noreturn]] void waitForTheEnd() {
  for (;;) {
    pause();
  }
}

}  // namespace

// ---- One writer per table ----

namespace {

struct Hello {
  uint32_t epochId;
  uint32_t hashSeed;
};

}  // namespace

TEST(CairnWriterMultiProcess, OneWriterPerTableUntilItDies) {
  TableHarness<Value> table(sharedDescriptor(1000), "test/one-writer");
  Pipe hello;
  const pid_t child = forkChild([&] {
    hello.closeReading();
    ChildWriter<> owner(table.name, table.descriptor);
    for (uint64_t number = 0; number < 50; ++number) {
      owner.writer.write(Value(number, number), true);
    }
    hello.send(Hello{owner.writer.epochId().value, owner.writer.slotTable().header()->hashSeed});
    waitForTheEnd();
  });
  ASSERT_GT(child, 0);
  ChildGuard guard(child);
  hello.closeWriting();
  const std::optional<Hello> greeting = hello.receive<Hello>();
  ASSERT_TRUE(greeting.has_value()) << "the child's writer did not start";

  const std::string refusal =
      fmt::format("WriterLock::acquireWriterLock() table:{} owned by live writer pid:{}", table.directory(), child);
  {
    TestSupport::TraceCapture traces;
    try {
      table.start();
      ADD_FAILURE() << "a second writer attached";
    } catch (const Basalt::InvalidInitializeException & exception) {
      EXPECT_EQ(std::string(exception.what()), refusal);
    }
    EXPECT_EQ(tracesAt(traces, 0), std::vector<std::string>{refusal});
  }
  table.stop();

  guard.kill();
  Writer & writer = table.start();
  EXPECT_EQ(writer.epochId().value, greeting->epochId);
  EXPECT_EQ(writer.slotTable().header()->hashSeed, greeting->hashSeed);
  EXPECT_EQ(writer.members(), 50u);
  for (uint64_t number = 0; number < 50; ++number) {
    bool found = false;
    Value out;
    writer.lookup(NumberKey{number}, found, &out);
    ASSERT_TRUE(found) << number;
    EXPECT_EQ(out, Value(number, number));
  }
  EXPECT_TRUE(writer.validate());
  table.stop();
  Arena::WriterLock::releaseWriterLock(table.handler, table.directory());
}

// ---- Writers killed at random moments ----

namespace {

enum class Operation : uint32_t { Write, Remove, DirectWrite, DirectUpdate };
enum class Kind : uint32_t { Begin, Present, Absent };

// What a child reports of each operation: its beginning (with the operation
// and the version it writes), then the state of the key once it is done.
struct Report {
  Kind kind;
  Operation operation;
  uint64_t key;
  uint64_t version;
};

constexpr uint64_t KeyCount = 300;

// TESSEL_CRASH_ROUNDS sets the number of writers killed (default 200; 10000 for a long run).
int rounds() {
  const char * text = std::getenv("TESSEL_CRASH_ROUNDS");
  return text != nullptr ? std::atoi(text) : 200;
}
constexpr uint32_t MostOperationsBeforeTheKill = 600;

Cairn::MapDescriptor crashDescriptor(bool shrinkSlots = false) {
  auto descriptor = sharedDescriptor(1000);
  descriptor.shrinkBuckets = true;
  descriptor.shrinkSlots = shrinkSlots;
  return descriptor;
}

constexpr uint64_t GiveUpAfter = 1000000;

// The key of the table's first entry, if it has one.
template <typename W>
bool firstKey(W & writer, uint64_t & key) {
  Value value;
  Cairn::IterHint hint;
  if (!writer.first(value, hint)) {
    return false;
  }
  key = value.key.number;
  return true;
}

// The child's work, until it is killed: random operations of every kind on
// KeyCount keys, in phases that fill the table and drain it again, so that
// the slot file grows (and shrinks, if the descriptor lets it) and the
// bucket table doubles and halves.
template <typename W = Writer>
[[noreturn]] void workUntilKilled(const std::string & name, const Cairn::MapDescriptor & descriptor, uint64_t round,
                                  Pipe & reports) {
  ChildWriter<W> child(name, descriptor);
  W & writer = child.writer;
  std::mt19937_64 random(round + 1);
  for (uint64_t op = 0;; ++op) {
    if (op == GiveUpAfter) {
      _exit(5);  // never killed: the test waits for nothing longer
    }
    uint64_t key = random() % KeyCount;
    const uint64_t version = round * 1000000 + op + 1;
    const bool draining = (op / 250) % 2 == 1;
    const uint64_t choice = random() % 100;
    // A table that may shrink drains to empty: every operation removes its
    // first entry, so that shrinks run all the way down in each phase.
    const bool emptying = draining && descriptor.shrinkSlots && firstKey(writer, key);
    Operation operation;
    if (emptying || choice < (draining ? 60u : 15u)) {
      operation = Operation::Remove;
    } else if (choice < 70) {
      operation = Operation::Write;
    } else if (choice < 85) {
      operation = Operation::DirectWrite;
    } else {
      operation = Operation::DirectUpdate;
    }
    reports.send(Report{Kind::Begin, operation, key, version});
    bool present = true;
    switch (operation) {
      case Operation::Write:
        writer.write(Value(key, version), true);
        break;
      case Operation::Remove: {
        Value removed;
        writer.remove(NumberKey{key}, removed);
        present = false;
        break;
      }
      case Operation::DirectWrite:
        *writer.directWrite(NumberKey{key}) = Value(key, version);
        writer.directCommit();
        break;
      case Operation::DirectUpdate:
        if (Value * value = writer.directUpdate(NumberKey{key})) {
          *value = Value(key, version);
          writer.directCommit();
        } else {
          present = false;
        }
        break;
    }
    reports.send(Report{present ? Kind::Present : Kind::Absent, operation, key, version});
  }
}

using Model = std::map<uint64_t, Value>;

// What the reports of one child say: the entries it finished, and the
// operation it was in when it died, if any.
struct Reported {
  Model model;
  std::optional<Report> inFlight;
  uint32_t completed = 0;
};

void apply(Reported & reported, const Report & report) {
  switch (report.kind) {
    case Kind::Begin:
      reported.inFlight = report;
      return;
    case Kind::Present:
      reported.model[report.key] = Value(report.key, report.version);
      break;
    case Kind::Absent:
      reported.model.erase(report.key);
      break;
  }
  reported.inFlight.reset();
  ++reported.completed;
}

// The states the key in flight may be found in: as before its operation, or as after it.
std::vector<std::optional<Value>> allowedStates(const Model & model, const Report & inFlight) {
  const auto before = model.find(inFlight.key);
  const std::optional<Value> old =
      before == model.end() ? std::nullopt : std::optional<Value>(before->second);
  std::optional<Value> done = Value(inFlight.key, inFlight.version);
  if (inFlight.operation == Operation::Remove || (inFlight.operation == Operation::DirectUpdate && !old)) {
    done.reset();
  }
  return {old, done};
}

std::optional<Value> stateOf(Writer & writer, uint64_t key) {
  bool found = false;
  Value out;
  writer.lookup(NumberKey{key}, found, &out);
  return found ? std::optional<Value>(out) : std::nullopt;
}

// The kept table holds every finished entry, and the key in flight in one
// of its two states. Returns what the table holds.
Model verifyKept(Writer & writer, const Reported & reported) {
  Model held;
  Value value;
  Cairn::IterHint hint;
  for (bool more = writer.first(value, hint); more; more = writer.next(value.key, value, hint)) {
    held[value.key.number] = value;
  }
  EXPECT_EQ(writer.members(), held.size());
  for (uint64_t key = 0; key < KeyCount; ++key) {
    const std::optional<Value> found = stateOf(writer, key);
    const auto expected = reported.model.find(key);
    if (reported.inFlight && reported.inFlight->key == key) {
      const auto allowed = allowedStates(reported.model, *reported.inFlight);
      EXPECT_TRUE(found == allowed[0] || found == allowed[1]) << "key in flight " << key;
    } else if (expected == reported.model.end()) {
      EXPECT_FALSE(found.has_value()) << "key " << key << " was removed";
    } else {
      EXPECT_EQ(found, std::optional<Value>(expected->second)) << "key " << key;
    }
  }
  return held;
}

}  // namespace

namespace {

struct Outcomes {
  int kept = 0;
  int reformatted = 0;
  int inFlight = 0;  // kills that landed inside an operation
  int repaired = 0;  // kept tables whose next writer mended something first
};

// The next writer on the table after a child's death: it keeps every entry
// the child reported done (and the one in flight in one of its two states),
// or it formats the table afresh. `model` becomes what the table holds.
void restartAfter(TableHarness<Value> & table, const Reported & reported, int round, Model & model,
                  Outcomes & outcomes) {
  outcomes.inFlight += reported.inFlight ? 1 : 0;
  const ArenaFiles::EpochId before = ArenaFiles::EpochFile(table.handler, table.directory(), false).read();
  Writer * writer = nullptr;
  {
    TestSupport::TraceCapture traces;  // a re-format says why at level 0; the outcome is checked below
    table.handler.maskIs(levels({0, 1}));
    ASSERT_NO_THROW(writer = &table.start()) << "round " << round;
    outcomes.repaired += traces.contains("Repair::run()") ? 1 : 0;
  }
  if (writer->epochId() == before) {
    ++outcomes.kept;
    model = verifyKept(*writer, reported);
  } else {
    ++outcomes.reformatted;
    EXPECT_EQ(writer->epochId(), before.reformatted()) << "round " << round;
    EXPECT_EQ(writer->members(), 0u) << "round " << round;
    model.clear();
  }
  EXPECT_TRUE(writer->validate()) << "round " << round;
  ASSERT_FALSE(::testing::Test::HasFailure()) << "round " << round << " after " << reported.completed << " operations";
  // This process gives the table up for the next round's child.
  table.stop();
  Arena::WriterLock::releaseWriterLock(table.handler, table.directory());
}

// Round after round on one table: a child writer works until `kill` has
// killed it (reading the reports it waits for into `reported`), the rest of
// its reports are read, and the next writer starts on what it left. `kill`
// returns false if the child stopped by itself.
template <typename Kill>
Outcomes killRoundAfterRound(TableHarness<Value> & table, Kill && kill) {
  Model model;
  Outcomes outcomes;
  for (int round = 0; round < rounds(); ++round) {
    Pipe reports;
    const pid_t child = forkChild([&] {
      reports.closeReading();
      workUntilKilled(table.name, table.descriptor, static_cast<uint64_t>(round), reports);
    });
    EXPECT_GT(child, 0);
    ChildGuard guard(child);
    reports.closeWriting();
    Reported reported{model, std::nullopt, 0};
    if (!kill(guard, reports, reported)) {
      ADD_FAILURE() << "round " << round << ": the child stopped by itself";
      return outcomes;
    }
    while (const std::optional<Report> report = reports.receive<Report>()) {
      apply(reported, *report);
    }
    restartAfter(table, reported, round, model, outcomes);
    if (::testing::Test::HasFailure()) {
      return outcomes;
    }
  }
  return outcomes;
}

// Children killed by this process after a random number of operations,
// wherever they are then: the kill comes once the child has reported this
// many operations done, while it goes on working.
Outcomes killAtRandomMoments(TableHarness<Value> & table, unsigned seed) {
  std::mt19937 random(seed);
  return killRoundAfterRound(table, [&](ChildGuard & guard, Pipe & reports, Reported & reported) {
    const uint32_t killAfter = 1 + random() % MostOperationsBeforeTheKill;
    while (reported.completed < killAfter) {
      const std::optional<Report> report = reports.receive<Report>();
      if (!report) {
        return false;
      }
      apply(reported, *report);
    }
    guard.kill();
    return true;
  });
}

}  // namespace

TEST(CairnWriterMultiProcess, WritersKilledAtRandomMomentsLeaveFilesTheNextWriterKeeps) {
  TableHarness<Value> table(crashDescriptor(), "test/crash");
  const Outcomes outcomes = killAtRandomMoments(table, 20240601);
  std::cout << "[ CRASHES  ] " << rounds() << " writers killed, " << outcomes.inFlight
            << " inside an operation: " << outcomes.kept << " tables kept (" << outcomes.repaired
            << " after a repair), " << outcomes.reformatted << " re-formatted" << std::endl;
  EXPECT_EQ(outcomes.reformatted, 0);
}

// The same with tables that shrink in their draining phases: some kills land
// inside a shrink.
TEST(CairnWriterMultiProcess, WritersOfShrinkingTablesKilledAtRandomMomentsLeaveFilesTheNextWriterKeeps) {
  TableHarness<Value> table(crashDescriptor(true), "test/crash-shrinking");
  const Outcomes outcomes = killAtRandomMoments(table, 20240602);
  std::cout << "[ CRASHES  ] " << rounds() << " writers of shrinking tables killed, " << outcomes.inFlight
            << " inside an operation: " << outcomes.kept << " tables kept (" << outcomes.repaired
            << " after a repair), " << outcomes.reformatted << " re-formatted" << std::endl;
  EXPECT_EQ(outcomes.reformatted, 0);
}

namespace {

// A writer that kills its own process in the middle of a shrink, after
// `movesBeforeDeath` entries have moved: the next entry is then whole in its
// new slot, and not yet linked there.
class WriterDyingInAShrink : public Writer {
 public:
  using Writer::Writer;
  static inline uint32_t movesBeforeDeath = 0;

 protected:
  void beforePublish(uint32_t) override {
    if (ripple().corralStart() != 0 && moves_++ == movesBeforeDeath) {
      raise(SIGKILL);
    }
  }

 private:
  uint32_t moves_ = 0;
};

}  // namespace

// A writer killed with an entry half moved: the next writer mends it and
// keeps a table that holds every finished operation.
TEST(CairnWriterMultiProcess, AWriterKilledWithAnEntryHalfMovedLeavesATableTheNextWriterMendsAndKeeps) {
  TableHarness<Value> table(crashDescriptor(true), "test/crash-in-shrink");
  std::mt19937 random(20240603);
  Model model;
  Outcomes outcomes;
  const int count = std::max(1, rounds() / 10);
  for (int round = 0; round < count; ++round) {
    WriterDyingInAShrink::movesBeforeDeath = random() % 40;
    Pipe reports;
    const pid_t child = forkChild([&] {
      reports.closeReading();
      workUntilKilled<WriterDyingInAShrink>(table.name, table.descriptor, static_cast<uint64_t>(round), reports);
    });
    ASSERT_GT(child, 0);
    reports.closeWriting();
    Reported reported{model, std::nullopt, 0};
    while (const std::optional<Report> report = reports.receive<Report>()) {
      apply(reported, *report);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "round " << round << " status " << status;
    ASSERT_TRUE(reported.inFlight.has_value()) << "a shrink runs inside an operation";
    EXPECT_EQ(reported.inFlight->operation, Operation::Remove) << "round " << round;
    restartAfter(table, reported, round, model, outcomes);
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
  std::cout << "[ CRASHES  ] " << count << " writers killed inside a shrink: " << outcomes.kept << " tables kept ("
            << outcomes.repaired << " after a repair), " << outcomes.reformatted << " re-formatted" << std::endl;
  EXPECT_EQ(outcomes.reformatted, 0);
  EXPECT_EQ(outcomes.repaired, count) << "an entry half moved is always mended";
}

// ---- Kills at random times, with readers attached ----

namespace {

using Reader = Cairn::CairnReader<typename OpsFor<Value>::Key, Value, OpsFor<Value>>;

// What the reader processes count, in memory shared with this process.
struct ReaderBoard {
  uint32_t stop = 0;  // set by this process when the kills are done
  struct Counts {
    uint64_t lookups = 0;
    uint64_t walkedEntries = 0;
    uint64_t torn = 0;      // a value that is not one whole write of its key
    uint64_t wrongKey = 0;  // a lookup answered with another key's value
    uint64_t escaped = 0;   // an exception that left the reader
    bool ran = false;
  } readers[2];
};

bool stopRequested(ReaderBoard & board) {
  return std::atomic_ref<uint32_t>(board.stop).load(std::memory_order_relaxed) != 0;
}

// A reader process: lookups of every key and walks of the table, with each
// value checked, through every writer's death and restart, until told to stop.
void readUntilStopped(const std::string & name, ReaderBoard & board, ReaderBoard::Counts & counts) {
  Basalt::Platform::DebugHandler handler("crash-reader");
  Reader reader(handler, name, OpsFor<Value>());
  if (!reader.initialize(name)) {
    _exit(4);
  }
  auto whole = [](const Value & value) { return value == Value(value.key.number, value.version); };
  while (!stopRequested(board)) {
    try {
      for (uint64_t key = 0; key < KeyCount; ++key) {
        ++counts.lookups;
        bool found = false;
        Value value;
        reader.lookup(NumberKey{key}, found, &value);
        counts.torn += found && !whole(value) ? 1 : 0;
        counts.wrongKey += found && value.key.number != key ? 1 : 0;
      }
      Value value;
      Cairn::IterHint hint;
      for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
        ++counts.walkedEntries;
        counts.torn += whole(value) ? 0 : 1;
      }
    } catch (const std::exception & exception) {
      ++counts.escaped;
      std::cerr << "reader " << getpid() << ": " << exception.what() << std::endl;
    }
  }
  counts.ran = true;
}

// A busy wait, as a sleep's timer slack would round the short delays up.
void spinFor(std::chrono::nanoseconds delay) {
  const auto end = std::chrono::steady_clock::now() + delay;
  while (std::chrono::steady_clock::now() < end) {
  }
}

// TESSEL_CRASH_DELAY_US sets the longest delay of a kill after the child's start (default 8000).
std::chrono::microseconds mostDelayBeforeTheKill() {
  const char * text = std::getenv("TESSEL_CRASH_DELAY_US");
  return std::chrono::microseconds(text != nullptr ? std::atoi(text) : 8000);
}

// Each child is killed a random time after it was made: in its start (which
// may itself be mending the previous child's death), inside an operation or
// between two. Two reader processes read the table all along.
Outcomes killAtRandomTimes(TableHarness<Value> & table, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int64_t> delays(0, mostDelayBeforeTheKill().count() * 1000);
  return killRoundAfterRound(table, [&](ChildGuard & guard, Pipe &, Reported &) {
    spinFor(std::chrono::nanoseconds(delays(random)));
    guard.kill();
    return true;
  });
}

void killWithReadersAttached(const Cairn::MapDescriptor & descriptor, const std::string & name, unsigned seed,
                             const char * what) {
  TableHarness<Value> table(descriptor, name);
  table.start();  // the readers find the table's files
  table.stop();
  Arena::WriterLock::releaseWriterLock(table.handler, table.directory());
  void * shared = mmap(nullptr, sizeof(ReaderBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  ReaderBoard & board = *new (shared) ReaderBoard();
  std::vector<pid_t> readers;
  for (auto & counts : board.readers) {
    readers.push_back(forkChild([&] { readUntilStopped(table.name, board, counts); }));
  }
  const Outcomes outcomes = killAtRandomTimes(table, seed);
  std::atomic_ref<uint32_t>(board.stop).store(1, std::memory_order_relaxed);
  int readerDeaths = 0;
  for (pid_t reader : readers) {
    int status = 0;
    const bool clean = waitpid(reader, &status, 0) == reader && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    readerDeaths += clean ? 0 : 1;
  }
  std::cout << "[ CRASHES  ] " << rounds() << " " << what << " killed at random times, " << outcomes.inFlight
            << " inside an operation: " << outcomes.kept << " tables kept (" << outcomes.repaired
            << " after a repair), " << outcomes.reformatted << " re-formatted" << std::endl;
  for (const auto & counts : board.readers) {
    std::cout << "[ READER   ] " << counts.lookups << " lookups, " << counts.walkedEntries << " entries walked, "
              << counts.torn << " torn, " << counts.wrongKey << " wrong key, " << counts.escaped << " escaped"
              << std::endl;
    EXPECT_TRUE(counts.ran);
    EXPECT_GT(counts.lookups, 0u);
    EXPECT_EQ(counts.torn, 0u);
    EXPECT_EQ(counts.wrongKey, 0u);
    EXPECT_EQ(counts.escaped, 0u);
  }
  EXPECT_EQ(readerDeaths, 0);
  EXPECT_EQ(outcomes.reformatted, 0) << "a writer's death leaves nothing the next writer can't mend";
  munmap(shared, sizeof(ReaderBoard));
}

}  // namespace

TEST(CairnWriterMultiProcess, WritersKilledAtRandomTimesWithReadersAttachedLeaveTablesTheNextWriterKeeps) {
  killWithReadersAttached(crashDescriptor(), "test/crash-timed", 20240604, "writers");
}

TEST(CairnWriterMultiProcess, WritersOfShrinkingTablesKilledAtRandomTimesWithReadersAttachedLeaveTablesTheNextWriterKeeps) {
  killWithReadersAttached(crashDescriptor(true), "test/crash-timed-shrinking", 20240605,
                          "writers of shrinking tables");
}

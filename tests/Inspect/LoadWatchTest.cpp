// tessel load, watch and stat against real tables of every type: a dump
// loaded into a fresh table dumps again the same, as text and as JSON; a
// watcher in this process sees, as JSON lines, exactly the changes a writer
// in another process makes after the watcher mounted; stat and ls tell that
// writer alive, then gone.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Inspect/Commands.h"
#include "Inspect/Json.h"
#include "Inspect/TableFiles.h"
#include "Loop/EventLoop.h"
#include "Rig/Directory.h"
#include "Support/TempDir.h"
#include "TesselHwLib/CollectionTesting.h"

namespace {

using namespace CollectionTest;

// Reads one byte from `fd` (0 at its end) while the process loop runs, as a
// writer must run it: readers connect to its socket through the loop.
int readServing(int fd, char & byte) {
  bool readable = false;
  const Loop::Registration watch = Loop::processLoop().watchReadable(fd, [&] { readable = true; });
  if (!Loop::processLoop().runUntil([&] { return readable; }, std::chrono::seconds(60))) {
    return -1;
  }
  return static_cast<int>(::read(fd, &byte, 1));
}

[[noreturn]] void serveUntilKilled() {
  const Loop::Registration tick = Loop::processLoop().timerRepeat(std::chrono::seconds(1), [] {});
  while (true) {
    Loop::processLoop().runOnce();
  }
}

void writeFile(const std::string & path, const std::string & text) {
  std::ofstream file(path);
  file << text;
}

// The writer of "agent/source/table" in a process of its own: this program
// started again (a fresh process, with no loop or doorbell of this one) as
// InspectWriterProcess.Run, its role in WriterVariable. It fills the table
// with ten entries and writes a byte to `ready`; then, for "changes", it
// waits for a byte on `go`, writes keys 100 to 104, removes keys 3 and 4 and
// stays until `go` closes; for "stays" it stays until killed. It serves its
// loop all the while, as a writer must: readers connect through it.
constexpr const char * WriterVariable = "TESSEL_INSPECT_WRITER";

// The writer process, once it has filled the table: its pid (-1 when it did
// not start) and the end of `go` this process writes to.
struct WriterProcess {
  pid_t pid;
  int go;
};

template <typename C>
WriterProcess startWriter(const char * role) {
  int ready[2];
  int go[2];
  if (::pipe(ready) != 0 || ::pipe(go) != 0) {
    return {-1, -1};
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ready[0]);
    ::close(go[1]);
    const std::string text =
        fmt::format("{} {} {} {}", Rig::demangleStdString(typeid(C)), role, ready[1], go[0]);
    ::setenv(WriterVariable, text.c_str(), 1);
    ::execl("/proc/self/exe", "InspectWriter", "--gtest_filter=InspectWriterProcess.Run", nullptr);
    ::_exit(127);
  }
  ::close(ready[1]);
  ::close(go[0]);
  char byte;
  const bool started = child > 0 && ::read(ready[0], &byte, 1) == 1;
  ::close(ready[0]);
  return {started ? child : -1, go[1]};
}

template <typename C>
int runWriter(const std::string & role, int ready, int go) {
  using T = Table<C>;
  const auto root = Rig::make<Rig::Directory>(Rig::Name("agent"));
  auto collection = T::make("source");
  root->entityIs(collection);
  collection->tableControl()->mount(descriptor(Cairn::CairnType::writer, false, 512));
  for (uint64_t number = 0; number < 10; ++number) {
    collection->tableIs(T::entry(number));
  }
  char byte = 'r';
  if (::write(ready, &byte, 1) != 1) {
    return 1;
  }
  if (role == "stays") {
    serveUntilKilled();
  }
  if (readServing(go, byte) != 1) {
    return 1;
  }
  for (uint64_t number = 100; number < 105; ++number) {
    collection->tableIs(T::entry(number));
  }
  collection->tableDel(T::key(3));
  collection->tableDel(T::key(4));
  return readServing(go, byte) == 0 ? 0 : 1;
}

template <typename... Cs>
int runWriterOf(const std::string & collection, const std::string & role, int ready, int go) {
  int result = 3;
  ((collection == Rig::demangleStdString(typeid(Cs)) ? (result = runWriter<Cs>(role, ready, go), true) : false) ||
   ...);
  return result;
}

template <typename C>
class InspectLoadWatch : public ::testing::Test {
 protected:
  using T = Table<C>;
  static constexpr const char * Source = "agent/source/table";

  // Fills the table "agent/source/table" with `count` entries.
  void fillSource(uint64_t count) {
    auto collection = T::make("source");
    root_->entityIs(collection);
    collection->tableControl()->mount(descriptor(Cairn::CairnType::writer, false, 512));
    for (uint64_t number = 0; number < count; ++number) {
      collection->tableIs(T::entry(number, number % 7));
    }
    collection->tableControl()->unmount();
    root_->entityDel(Rig::Name("source"));
  }

  std::string dumpFile(const std::string & text) {
    const std::string path = files_.path() + "/dump";
    writeFile(path, text);
    return path;
  }

  ScopedShmRoot shmRoot_;
  TestSupport::TempDir files_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("agent"));
};

TYPED_TEST_SUITE(InspectLoadWatch, Collections);

TYPED_TEST(InspectLoadWatch, ATextDumpLoadedIntoAFreshTableDumpsAgainTheSame) {
  this->fillSource(60);
  const std::string dump = Inspect::dump(this->Source, false, std::nullopt);
  EXPECT_EQ(Inspect::load("copy/text", this->dumpFile(dump), "", 0),
            "table copy/text: 60 entries loaded, 60 in the table\n");
  EXPECT_EQ(Inspect::dump("copy/text", false, std::nullopt), dump);
  // The new table is a collection's: its class is the collection's.
  const auto header = Inspect::TableFiles("copy/text").slotHeader();
  EXPECT_EQ(Cairn::SlotTableHeader::name(header.classType), Rig::demangleStdString(typeid(TypeParam)));
  EXPECT_TRUE(Inspect::check("copy/text").sound);
}

TYPED_TEST(InspectLoadWatch, AJsonDumpLoadedIntoAFreshTableDumpsAgainTheSame) {
  this->fillSource(60);
  const std::string dump = Inspect::dump(this->Source, true, std::nullopt);
  const std::string type(Rig::Record::Layout<typename TestFixture::T::Entry>::typeName);
  EXPECT_EQ(Inspect::load("copy/json", this->dumpFile(dump), type, 100),
            "table copy/json: 60 entries loaded, 60 in the table\n");
  EXPECT_EQ(Inspect::dump("copy/json", true, std::nullopt), dump);
  EXPECT_EQ(Inspect::TableFiles("copy/json").slotHeader().maxSlots, 100u);
  // Loaded again into the table it came from: every entry rewritten, none added.
  EXPECT_EQ(Inspect::load(this->Source, this->dumpFile(dump), "", 0),
            "table agent/source/table: 60 entries loaded, 60 in the table\n");
}

TYPED_TEST(InspectLoadWatch, ABadDumpIsRefusedNamingTheEntryAndWritesNothing) {
  using T = typename TestFixture::T;
  const std::string good = std::string(valueToStrep(T::entry(1))) + "\n";
  const std::string bad = good + "Value('nonsense')\n";
  try {
    Inspect::load("copy/bad", this->dumpFile(bad), "", 0);
    FAIL() << "a bad dump was loaded";
  } catch (const Inspect::Error & error) {
    EXPECT_EQ(error.status(), 2);
    EXPECT_EQ(std::string(error.what()).rfind("table copy/bad: entry 2 of the dump: ", 0), 0u) << error.what();
  }
  EXPECT_THROW(Inspect::TableFiles("copy/bad"), Inspect::Error);
  try {
    Inspect::load("copy/bad", this->dumpFile("[{\"genId\": 1}]"), "", 0);
    FAIL() << "a JSON dump without a type made a table";
  } catch (const Inspect::Error & error) {
    EXPECT_EQ(error.status(), 2);
    EXPECT_EQ(std::string(error.what()),
              "table copy/bad: a new table needs its value type (--type) for a JSON dump");
  }
}

TYPED_TEST(InspectLoadWatch, AWatcherSeesEveryChangeAWriterInAnotherProcessMakesAfterItMounted) {
  using T = typename TestFixture::T;
  const WriterProcess writer = startWriter<TypeParam>("changes");
  ASSERT_GT(writer.pid, 0) << "the writer did not start";
  std::vector<nlohmann::json> lines;
  Inspect::watch(
      this->Source, 7, [&](const std::string & line) { lines.push_back(nlohmann::json::parse(line)); },
      [&] { ASSERT_EQ(::write(writer.go, "g", 1), 1); });
  ::close(writer.go);
  int status = 0;
  ASSERT_EQ(::waitpid(writer.pid, &status, 0), writer.pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_EQ(lines.size(), 7u);
  uint64_t lastSequence = 0;
  for (size_t index = 0; index < lines.size(); ++index) {
    const bool deleted = index >= 5;
    const uint64_t number = deleted ? index - 2 : 100 + index;
    EXPECT_EQ(lines[index]["key"], Inspect::toJson(T::key(number))) << index;
    if (deleted) {
      EXPECT_EQ(lines[index]["deleted"], true) << index;
    } else {
      EXPECT_EQ(lines[index]["value"], Inspect::toJson(T::entry(number))) << index;
    }
    EXPECT_GE(lines[index]["sequence"].template get<uint64_t>(), lastSequence);
    lastSequence = lines[index]["sequence"].template get<uint64_t>();
  }
}

TYPED_TEST(InspectLoadWatch, StatAndLsTellAWriterInAnotherProcessAliveThenGone) {
  const WriterProcess writer = startWriter<TypeParam>("stays");
  ASSERT_GT(writer.pid, 0) << "the writer did not start";
  const pid_t child = writer.pid;
  const auto alive = nlohmann::json::parse(Inspect::stat(this->Source, true));
  EXPECT_EQ(alive["writerPid"], child);
  EXPECT_EQ(alive["writerAlive"], true);
  EXPECT_EQ(alive["entries"], 10u);
  EXPECT_EQ(nlohmann::json::parse(Inspect::ls(true))[0]["writerPid"], child);
  ::kill(child, SIGKILL);
  ::close(writer.go);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  const auto gone = nlohmann::json::parse(Inspect::stat(this->Source, true));
  EXPECT_EQ(gone["writerAlive"], false);
  EXPECT_EQ(gone["entries"], 10u);
  EXPECT_EQ(Inspect::dump(this->Source, false, std::nullopt).size() > 0, true);
}

}  // namespace

// The writer's side of the tests above, when this program was started as
// their writer; skipped otherwise.
TEST(InspectWriterProcess, Run) {
  const char * role = std::getenv(WriterVariable);
  if (role == nullptr) {
    GTEST_SKIP() << "runs only as the writer process of InspectLoadWatch";
  }
  char collection[128] = {};
  char kind[16] = {};
  int ready = -1;
  int go = -1;
  if (std::sscanf(role, "%127s %15s %d %d", collection, kind, &ready, &go) != 4) {
    ::_exit(4);
  }
  ::_exit(runWriterOf<L3IifTH3Config, L3IifTH3Status, L3TunnelTH3Config, L3TunnelTH3Status, MyStationTcamTH3Config,
                      MyStationTcamTH3Status>(collection, kind, ready, go));
}

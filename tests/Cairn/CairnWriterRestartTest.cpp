// A writer's life on a table's files: the first start, restarts on files that
// a predecessor left (kept or re-formatted, one test per situation a restart
// can meet), the check of the files on disk, detach and cleanup. Each writer
// start is a new CairnWriter object on the same files, as a new writer process
// would make; the traces of levels 0 to 2 tell what each start decided.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Cairn/ScopedEnvironment.h"
#include "Cairn/Util.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Value = IifSizedValue;
using Writer = WriterFor<Value>;
using Model = std::map<uint64_t, Value>;

namespace {

constexpr const char * TableName = "test/restart";

// A wanted trace line: the whole text, or its beginning where the rest
// carries what the test can't know (a reason from another component, a dump).
struct Line {
  std::string text;
  bool whole;
};
Line whole(std::string text) { return {std::move(text), true}; }
Line begins(std::string text) { return {std::move(text), false}; }

bool matches(const std::string & line, const Line & wanted) {
  return wanted.whole ? line == wanted.text : line.rfind(wanted.text, 0) == 0;
}

// The index of the first of `lines` at or after `from` that matches, or none.
std::optional<std::size_t> find(const std::vector<std::string> & lines, const Line & wanted, std::size_t from = 0) {
  for (std::size_t index = from; index < lines.size(); ++index) {
    if (matches(lines[index], wanted)) {
      return index;
    }
  }
  return std::nullopt;
}

// Each wanted line occurs in `lines`, in this order.
void expectInOrder(const std::vector<std::string> & lines, const std::vector<Line> & wanted) {
  std::size_t from = 0;
  for (const Line & line : wanted) {
    const auto at = find(lines, line, from);
    ASSERT_TRUE(at.has_value()) << "missing, or out of order: " << line.text << "\nin:\n"
                                << testing::PrintToString(lines);
    from = *at + 1;
  }
}

// The traces of levels 0 to 2, the events of a table's life, without their level.
std::vector<std::string> lifeEvents(const TestSupport::TraceCapture & traces) {
  std::vector<std::string> lines;
  for (const auto & line : traces.lines()) {
    if (line.size() > 3 && line[0] == 'L' && line[1] >= '0' && line[1] <= '2' && line[2] == ' ') {
      lines.push_back(line.substr(3));
    }
  }
  return lines;
}

bool contains(const std::vector<std::string> & lines, const std::string & fragment) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string & line) { return line.find(fragment) != std::string::npos; });
}

// Captures the traces of the table's handler at `mask` while it lives, and
// puts the handler back to failures alone after.
class Watched : public TestSupport::TraceCapture {
 public:
  explicit Watched(Basalt::Platform::DebugHandler & handler, uint32_t mask = levels({0, 1, 2, 5}))
      : handler_(handler) {
    handler_.maskIs(mask);
  }
  ~Watched() { handler_.maskIs(levels({0})); }

 private:
  Basalt::Platform::DebugHandler & handler_;
};

class CairnWriterRestartTest : public ::testing::Test {
 protected:
  CairnWriterRestartTest() : table(sharedDescriptor(1000), TableName) {}

  Writer & writer() { return *table.writer; }

  // Fills the table past its first size with inserts, rewrites, removes and
  // direct operations, and returns what it holds.
  Model populate() {
    Model model;
    for (uint64_t number = 0; number < 60; ++number) {
      writer().write(Value(number, 1), true);
      model[number] = Value(number, 1);
    }
    for (uint64_t number = 0; number < 60; number += 3) {
      writer().write(Value(number, 2), true);
      model[number] = Value(number, 2);
    }
    for (uint64_t number = 1; number < 60; number += 4) {
      Value removed;
      writer().remove(NumberKey{number}, removed);
      model.erase(number);
    }
    *writer().directWrite(NumberKey{100}) = Value(100, 3);
    writer().directCommit();
    model[100] = Value(100, 3);
    *writer().directUpdate(NumberKey{6}) = Value(6, 4);
    writer().directCommit();
    model[6] = Value(6, 4);
    return model;
  }

  // The table holds exactly `model`.
  void expectHolds(const Model & model) {
    EXPECT_EQ(writer().members(), model.size());
    for (const auto & [number, value] : model) {
      bool found = false;
      Value out;
      writer().lookup(NumberKey{number}, found, &out);
      ASSERT_TRUE(found) << number;
      EXPECT_EQ(out, value) << number;
    }
    std::size_t walked = 0;
    Value value;
    Cairn::IterHint hint;
    for (bool more = writer().first(value, hint); more; more = writer().next(value.key, value, hint)) {
      EXPECT_EQ(model.count(value.key.number), 1u) << value.key.number;
      ++walked;
    }
    EXPECT_EQ(walked, model.size());
  }

  ArenaFiles::EpochFile epochFile() { return ArenaFiles::EpochFile(table.handler, table.directory(), false); }
  FileBytes slotFile() { return FileBytes(table.file("slots")); }
  std::string ownerPath() { return table.file(ArenaFiles::OwnerFile::FILENAME); }
  std::string markerPath() { return table.file(Cairn::Util::CORRUPTION_FILENAME); }
  bool exists(const std::string & path) { return std::filesystem::exists(path); }

  // The attach traces of the three pieces, as they format new files.
  std::vector<Line> newPieces() {
    return {whole("SlotWriter::attach() to new file " + table.file("slots")),
            whole("BucketWriter::attach() to new file " + table.file("buckets")),
            whole("RippleWriter::attach() to new files in " + table.directory())};
  }
  // ... as they re-format files of another generation.
  std::vector<Line> reformattedPieces() {
    return {whole("SlotWriter::attach() re-formatted " + table.file("slots")),
            whole("BucketWriter::attach() re-formatted " + table.file("buckets")),
            begins("RippleWriter::attach() re-formatting " + table.directory() + ": ")};
  }

  // The second pass of a start: every piece formatted afresh under the next generation.
  std::vector<Line> secondPass() {
    std::vector<Line> lines{whole("CairnWriter::attachAndValidate() all entries from test/restart will be lost")};
    for (Line & line : reformattedPieces()) {
      lines.push_back(line);
    }
    lines.push_back(whole("CairnWriter::attachAndValidate(): re-formatted successfully"));
    return lines;
  }

  // After a re-format: the next generation of `before`, an empty table, and
  // the new generation recorded.
  void expectReformatted(ArenaFiles::EpochId before) {
    EXPECT_EQ(writer().epochId(), before.reformatted());
    EXPECT_EQ(epochFile().read(), before.reformatted());
    EXPECT_EQ(writer().members(), 0u);
    expectHolds({});
    EXPECT_TRUE(writer().validate());
  }

  TableHarness<Value> table;
};

}  // namespace

// ---- First start ----

TEST_F(CairnWriterRestartTest, FirstStartFormatsAllThreePiecesAndRecordsTheGeneration) {
  Watched traces(table.handler);
  table.start();
  const std::vector<std::string> events = lifeEvents(traces);
  std::vector<Line> wanted = newPieces();
  const ArenaFiles::OwnerFile owner(table.handler, table.directory(), false);
  wanted.push_back(whole(fmt::format("CairnWriter::attach() success test/restart capacity:{} epochId:{} mtime:{} "
                                     "doorbellInfo:{}",
                                     writer().capacity(), writer().epochId().toString(), epochFile().mtime(),
                                     owner.doorbellInfo().toString())));
  expectInOrder(events, wanted);
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  EXPECT_FALSE(contains(events, "will be lost"));
  EXPECT_EQ(tracesAt(traces, 5).front(),
            "CairnWriter::attach() localMem_: false rootPath:" + table.directory());
  // A new generation: this process in the low half.
  EXPECT_FALSE(writer().epochId().none());
  EXPECT_EQ(writer().epochId().low(), static_cast<uint16_t>(getpid()));
  EXPECT_EQ(epochFile().read(), writer().epochId());
  EXPECT_TRUE(Arena::WriterLock::ownerIsMe(table.handler, owner.doorbellInfo().socketName()));
  EXPECT_EQ(writer().members(), 0u);
  EXPECT_EQ(writer().mountStatus(), 1u);
  EXPECT_TRUE(writer().validate());
}

TEST_F(CairnWriterRestartTest, EpochFileWithoutAGenerationCountsAsNone) {
  std::filesystem::create_directories(table.directory());
  FileBytes(table.file(ArenaFiles::EpochFile::EPOCH_NAME)).contentsIs(std::string(24, '\0'));
  Watched traces(table.handler);
  ASSERT_TRUE(epochFile().read().none());
  table.start();
  expectInOrder(lifeEvents(traces), newPieces());
  EXPECT_FALSE(contains(lifeEvents(traces), "will be lost"));
  EXPECT_FALSE(writer().epochId().none());
  EXPECT_EQ(epochFile().read(), writer().epochId());
}

// ---- Restarts that keep the table ----

TEST_F(CairnWriterRestartTest, RestartWithGoodFilesKeepsEntriesSeedAndGeneration) {
  table.start();
  const Model model = populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  const uint32_t hashSeed = writer().slotTable().header()->hashSeed;
  const uint64_t sequence = writer().sequence();
  table.stop();
  Watched traces(table.handler);
  table.start();
  expectInOrder(lifeEvents(traces),
                {whole("SlotWriter::attach() to existing " + table.file("slots")),
                 whole("BucketWriter::attach() to existing " + table.file("buckets")),
                 whole(fmt::format("RippleWriter::attach() to existing {} sequence:{}", table.directory(), sequence)),
                 begins("CairnWriter::attach() success test/restart ")});
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  EXPECT_FALSE(contains(lifeEvents(traces), "will be lost"));
  EXPECT_EQ(writer().epochId(), epoch);
  EXPECT_EQ(epochFile().read(), epoch);
  EXPECT_EQ(writer().slotTable().header()->hashSeed, hashSeed);
  expectHolds(model);
  // The counts start over; the queue's sequence goes on from the last entry.
  const Cairn::Writer::Counters counters = writer().writerCounters();
  EXPECT_EQ(counters.slotsAllocated, 0u);
  EXPECT_EQ(counters.slotsRemoved, 0u);
  EXPECT_EQ(counters.slotGrows, 0u);
  EXPECT_EQ(counters.directWrites, 0u);
  EXPECT_EQ(counters.directCommits, 0u);
  EXPECT_EQ(counters.nextSlowPaths, 0u);
  EXPECT_EQ(counters.notifications, 0u);
  EXPECT_EQ(counters.tombstones, 0u);
  EXPECT_EQ(counters.corralReleases, 0u);
  EXPECT_EQ(counters.sequence, sequence);
  // The table goes on working where it was left.
  writer().write(Value(500, 1), true);
  EXPECT_EQ(writer().sequence(), sequence + 1);
  EXPECT_TRUE(writer().validate());
}

TEST_F(CairnWriterRestartTest, SuccessfulStartRemovesTheCorruptionMarker) {
  table.start();
  populate();
  table.stop();
  ASSERT_TRUE(Cairn::Util::writeCorruptionFile(table.handler, table.directory(), "found by a reader"));
  table.start();
  EXPECT_FALSE(exists(markerPath()));
}

// ---- Restarts that re-format the table ----

TEST_F(CairnWriterRestartTest, RestartAfterTheSlotFileAloneWasDeletedReformatsAll) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  std::filesystem::remove(table.file("slots"));
  Watched traces(table.handler);
  table.start();
  const std::vector<std::string> events = lifeEvents(traces);
  // First pass: slots 1, buckets and queue 2; the OR is 3, not consistent.
  std::vector<Line> wanted{whole("SlotWriter::attach() to new file " + table.file("slots")),
                           whole("BucketWriter::attach() to existing " + table.file("buckets")),
                           begins("RippleWriter::attach() to existing " + table.directory()),
                           begins("CairnWriter::attachAndValidate() failed to attach to existing files")};
  for (Line & line : secondPass()) {
    wanted.push_back(line);
  }
  expectInOrder(events, wanted);
  const std::vector<std::string> failures = tracesAt(traces, 0);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find("owner file: OwnerFile::Header() " + ownerPath()), std::string::npos) << failures[0];
  expectReformatted(epoch);
}

TEST_F(CairnWriterRestartTest, RestartWithAQueueOfAnotherGenerationReformatsAll) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  FileBytes(table.file(Ripple::ControlFileName))
      .write(offsetof(Ripple::ControlBlock, epochId), epoch.reformatted().reformatted());
  Watched traces(table.handler);
  table.start();
  std::vector<Line> wanted{whole("SlotWriter::attach() to existing " + table.file("slots")),
                           whole("BucketWriter::attach() to existing " + table.file("buckets")),
                           begins("RippleWriter::attach() re-formatting " + table.directory()),
                           begins("CairnWriter::attachAndValidate() failed to attach to existing files")};
  for (Line & line : secondPass()) {
    wanted.push_back(line);
  }
  expectInOrder(lifeEvents(traces), wanted);
  expectReformatted(epoch);
}

TEST_F(CairnWriterRestartTest, OwnerFileGarbageReformatsAtOnce) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  FileBytes(ownerPath()).contentsIs("garbage");
  Watched traces(table.handler);
  table.start();
  const std::vector<std::string> events = lifeEvents(traces);
  expectInOrder(events,
                {whole("OwnerFile::validate() " + ownerPath() + " bad size:7 expected:136"),
                 begins("CairnWriter::attach() owner file validation failed, dumping owner file string: "
                        "OwnerFile::Header() " +
                        ownerPath() + " size:7 bytes: "),
                 whole("CairnWriter::attachAndValidate() all entries from test/restart will be lost")});
  // No first pass: nothing is attached before the entries are given up.
  const std::size_t lost = *find(events, whole("CairnWriter::attachAndValidate() all entries from test/restart "
                                               "will be lost"));
  for (std::size_t index = 0; index < lost; ++index) {
    EXPECT_EQ(events[index].find("::attach() to"), std::string::npos) << events[index];
  }
  EXPECT_FALSE(contains(events, "failed to attach to existing files"));
  expectInOrder(events, secondPass());
  expectReformatted(epoch);
  EXPECT_NO_THROW(ArenaFiles::OwnerFile(table.handler, table.directory(), false).validateFile());
}

TEST_F(CairnWriterRestartTest, FailedValidationReformatsAll) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  // Slot 0 holds an entry: the writer stopped, say, in the middle of its rewrite.
  const std::size_t flags = Writer::SlotWriter::SlotHeaderSize + offsetof(Cairn::SlotPrefix, flags);
  const uint32_t stuck = slotFile().read<uint32_t>(flags) | Cairn::LOOKASIDE;
  ASSERT_TRUE(stuck & Cairn::OCCUPIED);
  slotFile().write(flags, stuck);
  Watched traces(table.handler);
  table.start();
  const std::string error = fmt::format("Validator::markOccupied() stuck LOOKASIDE bit: 0x{:x}", stuck);
  std::vector<Line> wanted{whole("SlotWriter::attach() to existing " + table.file("slots")),
                           whole("Validator::validate caught: " + error),
                           whole("Validator::validate() Cairn test/restart validation failed: " + error),
                           begins("CairnWriter::attachAndValidate() failed to validate existing files")};
  for (Line & line : secondPass()) {
    wanted.push_back(line);
  }
  expectInOrder(lifeEvents(traces), wanted);
  EXPECT_EQ(tracesAt(traces, 0).size(), 3u);
  expectReformatted(epoch);
}

// Files of the previous key hash (slot file version 17) hold their keys where
// that hash put them: a writer formats them afresh rather than read them.
TEST_F(CairnWriterRestartTest, SlotFileOfThePreviousKeyHashReformatsAll) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  ASSERT_EQ(slotFile().read<uint32_t>(8), Cairn::SlotVersion);
  slotFile().write(8, uint32_t{17});
  Watched traces(table.handler);
  table.start();
  std::vector<Line> wanted{whole("SlotTable::Header::validate() bad version: 17"),
                           whole("SlotWriter::attach() re-formatted " + table.file("slots")),
                           begins("CairnWriter::attachAndValidate() failed to attach to existing files")};
  for (Line & line : secondPass()) {
    wanted.push_back(line);
  }
  expectInOrder(lifeEvents(traces), wanted);
  expectReformatted(epoch);
  EXPECT_EQ(slotFile().read<uint32_t>(8), Cairn::SlotVersion);
}

TEST_F(CairnWriterRestartTest, ChangedSizeOfAFixedTableReformatsAll) {
  table.descriptor = sharedDescriptor(10);
  table.descriptor.fixedSize = true;
  table.start();
  writer().write(Value(1, 1), true);
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  table.descriptor.maxSlots = 20;
  Watched traces(table.handler);
  table.start();
  std::vector<Line> wanted{
      begins("SlotWriter::attach() wanted capacity:20 for fixed-size table, but existing file has capacity:10"),
      whole("SlotWriter::attach() re-formatted " + table.file("slots")),
      whole("BucketWriter::attach() to existing " + table.file("buckets")),
      begins("CairnWriter::attachAndValidate() failed to attach to existing files")};
  for (Line & line : secondPass()) {
    wanted.push_back(line);
  }
  expectInOrder(lifeEvents(traces), wanted);
  EXPECT_EQ(writer().capacity(), 20u);
  expectReformatted(epoch);
}

// ---- The strict system ----

namespace {

// Puts back the process's core dump filter, which a strict failure changes.
class ScopedCoreDumpFilter {
 public:
  ScopedCoreDumpFilter() { saved_ = read(); }
  ~ScopedCoreDumpFilter() { std::ofstream("/proc/self/coredump_filter") << saved_; }
  static std::string read() {
    std::string text;
    std::ifstream("/proc/self/coredump_filter") >> text;
    return text;
  }

 private:
  std::string saved_;
};

}  // namespace

TEST_F(CairnWriterRestartTest, FailedValidationOnAStrictSystemKeepsTheFilesAndStops) {
  table.start();
  const Model model = populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  const std::size_t flags = Writer::SlotWriter::SlotHeaderSize + offsetof(Cairn::SlotPrefix, flags);
  slotFile().write(flags, slotFile().read<uint32_t>(flags) | Cairn::LOOKASIDE);
  const std::string slotsBefore = slotFile().contents();
  const std::string message =
      "CairnWriter::attachAndValidate() failed initial validation of test/restart after re-attaching";
  {
    CairnTesting::ScopedEnvironment dut(Cairn::Util::PhysicalDutVariable, "1");
    CairnTesting::ScopedEnvironment strict(Cairn::Util::StrictValidationVariable, "1");
    ScopedCoreDumpFilter filter;
    Watched traces(table.handler);
    Writer & strictWriter = table.make();
    try {
      strictWriter.initialize(TableName);
      FAIL() << "no exception";
    } catch (const Basalt::InvalidInitializeException & exception) {
      EXPECT_EQ(std::string(exception.what()), message);
    }
    EXPECT_EQ(tracesAt(traces, 0).back(), message);
    EXPECT_FALSE(contains(lifeEvents(traces), "will be lost"));
    // The evidence: the files as found, in the core with the shared memory.
    EXPECT_FALSE(exists(table.file(ArenaFiles::EpochFile::EPOCH_NAME)));
    EXPECT_EQ(slotFile().contents(), slotsBefore);
    EXPECT_EQ(strictWriter.slotTable().wrapper().dumpToCore(), std::optional<bool>(true));
    EXPECT_EQ(strictWriter.map().buckets().wrapper().dumpToCore(), std::optional<bool>(true));
    EXPECT_EQ(std::stoul(ScopedCoreDumpFilter::read(), nullptr, 16) & Basalt::Util::CoreDumpSharedBits,
              Basalt::Util::CoreDumpSharedBits);
    EXPECT_EQ(strictWriter.mountStatus(), 0u);
    table.stop();
  }
  EXPECT_EQ(std::getenv(Cairn::Util::PhysicalDutVariable), nullptr);
  EXPECT_EQ(std::getenv(Cairn::Util::StrictValidationVariable), nullptr);
  // The next start finds no generation and builds a new table.
  Watched traces(table.handler);
  table.start();
  EXPECT_NE(writer().epochId(), epoch);
  EXPECT_NE(writer().epochId(), epoch.reformatted());
  expectHolds({});
  EXPECT_TRUE(writer().validate());
  EXPECT_EQ(epochFile().read(), writer().epochId());
}

TEST_F(CairnWriterRestartTest, OneSwitchAloneIsNoStrictSystem) {
  table.start();
  populate();
  const ArenaFiles::EpochId epoch = writer().epochId();
  table.stop();
  const std::size_t flags = Writer::SlotWriter::SlotHeaderSize + offsetof(Cairn::SlotPrefix, flags);
  slotFile().write(flags, slotFile().read<uint32_t>(flags) | Cairn::LOOKASIDE);
  CairnTesting::ScopedEnvironment strict(Cairn::Util::StrictValidationVariable, "1");
  CairnTesting::ScopedEnvironment dut(Cairn::Util::PhysicalDutVariable, std::nullopt);
  Watched traces(table.handler);
  table.start();
  expectInOrder(lifeEvents(traces), secondPass());
  expectReformatted(epoch);
}

// ---- Checking the files on disk ----

namespace {

class ValidateFilesTest : public CairnWriterRestartTest {
 protected:
  ValidateFilesTest() {
    table.start();
    populate();
    Cairn::Util::writeCorruptionFile(table.handler, table.directory(), "found by a reader");
  }

  // validateFiles raises `message`, traced at level 0, and leaves the marker.
  void expectRaises(const std::string & message) {
    Watched traces(table.handler, levels({0}));
    try {
      writer().validateFiles();
      ADD_FAILURE() << "no exception";
    } catch (const Basalt::CorruptionDetectedException & exception) {
      EXPECT_EQ(std::string(exception.what()), message);
    }
    EXPECT_EQ(tracesAt(traces, 0), std::vector<std::string>{message});
    EXPECT_TRUE(exists(markerPath()));
  }
};

}  // namespace

TEST_F(ValidateFilesTest, SoundFilesPassAndLoseTheMarker) {
  ASSERT_TRUE(exists(markerPath()));
  EXPECT_TRUE(writer().validateFiles());
  EXPECT_FALSE(exists(markerPath()));
}

TEST_F(ValidateFilesTest, DamagedBucketFile) {
  FileBytes(table.file("buckets")).flip(0, 0x01);
  expectRaises(fmt::format("BucketWriter::validateFile() {}: BucketTable::Header::validate() bad magic: {:x}",
                           table.file("buckets"), Cairn::BucketMagic ^ 0x01));
}

TEST_F(ValidateFilesTest, SlotFileTooShort) {
  const std::size_t expected =
      Writer::SlotWriter::SlotHeaderSize + std::size_t{writer().capacity()} * Writer::SlotWriter::slotSize;
  const std::size_t size = slotFile().size();
  ASSERT_EQ(size, expected);
  slotFile().truncate(expected - 1);
  expectRaises(fmt::format("Cairn::Util::validateFile() {} size:{} expected:{}", table.file("slots"), expected - 1,
                           expected));
  slotFile().truncate(size);  // whole again before the writer lets go of its mapping
}

TEST_F(ValidateFilesTest, DamagedQueueFile) {
  FileBytes(table.file(Ripple::ControlFileName)).flip(0, 0x01);
  expectRaises(fmt::format("RippleWriter::validateFile() {}: RippleTable::Control::validate() bad magic: {:x}",
                           table.file(Ripple::ControlFileName), Ripple::ControlMagic ^ 0x01));
}

TEST_F(ValidateFilesTest, DamagedEpochFile) {
  const std::string path = table.file(ArenaFiles::EpochFile::EPOCH_NAME);
  FileBytes(path).contentsIs("garbage");
  expectRaises("EpochFile::validate() " + path + " bad size:7 expected:24");
}

TEST_F(ValidateFilesTest, EpochFileOfAnotherGeneration) {
  const ArenaFiles::EpochId other = writer().epochId().reformatted();
  epochFile().write(other);
  expectRaises(fmt::format("EpochFile::validate() {} epochId:{} expected:{}",
                           table.file(ArenaFiles::EpochFile::EPOCH_NAME), other.toString(),
                           writer().epochId().toString()));
}

TEST_F(ValidateFilesTest, DamagedOwnerFile) {
  FileBytes(ownerPath()).contentsIs("garbage");
  expectRaises("OwnerFile::validateFile() " + ownerPath() + " bad size:7 expected:136");
}

// ---- Detach, cleanup and a second initialize ----

TEST_F(CairnWriterRestartTest, DetachWithAnOpenDirectWriteOfANewKeyReleasesNothing) {
  table.start();
  populate();
  const uint32_t slot = writer().slotTable().header()->freeSlots;  // the one the new key takes
  *writer().directWrite(NumberKey{200}) = Value(200, 1);
  const ArenaFiles::OwnerFile owner(table.handler, table.directory(), false);
  try {
    writer().detach(false);
    FAIL() << "no assertion";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              fmt::format("CairnWriter::detach() unbalanced directSlot:{} containing value:200/v1 - Make sure "
                          "the DirectIs/Commit are properly paired!",
                          slot));
  }
  // Still attached, listening and owner.
  EXPECT_EQ(writer().mountStatus(), 1u);
  EXPECT_NE(writer().slotTable().header(), nullptr);
  EXPECT_NE(writer().map().buckets().header(), nullptr);
  EXPECT_TRUE(writer().ripple().attached());
  EXPECT_TRUE(Arena::WriterLock::ownerIsMe(table.handler, owner.doorbellInfo().socketName()));
  // The operation can still be closed, and then the writer lets go.
  writer().directCommit();
  bool found = false;
  Value out;
  writer().lookup(NumberKey{200}, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, Value(200, 1));
  EXPECT_NO_THROW(writer().detach(false));
  EXPECT_EQ(writer().mountStatus(), 0u);
  EXPECT_EQ(writer().slotTable().header(), nullptr);
  EXPECT_TRUE(owner.doorbellInfo().socketName().empty());
}

TEST_F(CairnWriterRestartTest, DetachWithACorruptOwnerFileOnlyTracesIt) {
  table.start();
  FileBytes(ownerPath()).contentsIs("garbage");
  Watched traces(table.handler, levels({0}));
  EXPECT_NO_THROW(writer().detach(false));
  const std::string error = "OwnerFile::doorbellInfo() " + ownerPath() + " bad size:7 expected:136";
  EXPECT_EQ(tracesAt(traces, 0),
            (std::vector<std::string>{error, "CairnWriter::detach() ignoring owner file corruption:" + error}));
  EXPECT_EQ(writer().mountStatus(), 0u);
  EXPECT_EQ(writer().slotTable().header(), nullptr);
}

TEST_F(CairnWriterRestartTest, DetachLeavesTheFilesForTheNextWriter) {
  table.start();
  const Model model = populate();
  writer().detach(false);
  for (const char * file : {"slots", "buckets", Ripple::ControlFileName, Ripple::PrimaryFileName,
                            Ripple::SecondaryFileName, ArenaFiles::EpochFile::EPOCH_NAME,
                            ArenaFiles::OwnerFile::FILENAME}) {
    EXPECT_TRUE(exists(table.file(file))) << file;
  }
  table.start();
  expectHolds(model);
}

TEST_F(CairnWriterRestartTest, CleanupWithACorruptOwnerFileStillRemovesEverything) {
  table.start();
  populate();
  table.stop();
  Cairn::Util::writeCorruptionFile(table.handler, table.directory(), "found by a reader");
  FileBytes(ownerPath()).contentsIs("garbage");
  Watched traces(table.handler, levels({0, 1, 3, 5}));
  table.make().cleanup();  // a writer that never attached
  expectInOrder(tracesAt(traces, 1),
                {begins("CairnWriter::cleanup() owner file corruption detected but continuing with cleanup, dumped "
                        "owner file: OwnerFile::Header() " +
                        ownerPath() + " size:7 bytes: "),
                 whole("CairnWriter::removeFiles() removing Cairn files in " + table.directory())});
  expectInOrder(tracesAt(traces, 3), {whole("SlotWriter::cleanup() removing file: " + table.file("slots"))});
  EXPECT_EQ(tracesAt(traces, 5).front(),
            "CairnWriter::cleanup() owner:false localMem_:false rootPath:" + table.directory());
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  EXPECT_FALSE(exists(table.directory()));
  // A new start builds a new table there.
  table.start();
  expectHolds({});
}

TEST_F(CairnWriterRestartTest, CleanupOfTheAttachedWriterRemovesEverything) {
  table.start();
  populate();
  writer().cleanup();
  EXPECT_FALSE(exists(table.directory()));
  table.stop();
  table.start();
  expectHolds({});
}

TEST_F(CairnWriterRestartTest, SecondInitializeDoesNotAttachAgain) {
  table.start();
  writer().write(Value(1, 1), true);
  const ArenaFiles::EpochId epoch = writer().epochId();
  const uint64_t sequence = writer().sequence();
  Watched traces(table.handler);
  EXPECT_TRUE(writer().initialize(TableName));
  EXPECT_FALSE(contains(tracesAt(traces, 5), "CairnWriter::attach()"));
  EXPECT_EQ(writer().epochId(), epoch);
  EXPECT_EQ(writer().sequence(), sequence);
  EXPECT_EQ(writer().writerCounters().slotsAllocated, 1u);  // counts don't start over
  expectHolds({{1, Value(1, 1)}});
}

TEST(CairnWriterLocalRestart, LocalTableTakesThisProcessAsItsGenerationAndAttachesOnce) {
  auto descriptor = sharedDescriptor(100);
  descriptor.localMem = true;
  TableHarness<Value> table(descriptor, "test/local");
  table.handler.maskIs(levels({0, 5}));
  TestSupport::TraceCapture traces;
  Writer & writer = table.start();
  EXPECT_EQ(tracesAt(traces, 5).front(),
            "CairnWriter::attach() localMem_: true rootPath:" + table.root.path() + "/test/local");
  EXPECT_EQ(writer.epochId(), ArenaFiles::EpochId::of(0, static_cast<uint16_t>(getpid())));
  writer.write(Value(1, 1), true);
  const std::size_t attaches = tracesAt(traces, 5).size();
  EXPECT_TRUE(writer.initialize("test/local"));
  const std::vector<std::string> after = tracesAt(traces, 5);
  EXPECT_FALSE(std::any_of(after.begin() + static_cast<std::ptrdiff_t>(attaches), after.end(),
                           [](const std::string & line) { return line.rfind("CairnWriter::attach()", 0) == 0; }));
  EXPECT_EQ(writer.members(), 1u);
  EXPECT_TRUE(writer.validate());
  EXPECT_TRUE(writer.validateFiles());
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  EXPECT_FALSE(std::filesystem::exists(table.root.path() + "/test/local"));
}

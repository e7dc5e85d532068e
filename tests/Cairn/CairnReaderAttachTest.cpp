// How a reader joins a writer's files and leaves them: a second initialize
// and a second detach, counters passed in or owned, files of another
// generation or with a damaged header (refused, with the corruption file
// written), an epoch file without a stamp (refused, without it), a reader whose
// look at the bucket file's size comes before a doubling that the count it
// reads already shows (accepted), the state a
// reader reports, the refusal of every write, and a reader that never writes
// a byte of the files.

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"
#include "Cairn/SyscallProbes.h"
#include "Support/TextTesting.h"

using namespace CairnTest;
using RigTesting::messageOf;

namespace {

class CairnReaderAttachTest : public ::testing::Test {
 protected:
  CairnReaderAttachTest() {
    for (uint32_t hash : {0u, 1u, 2u, 3u, 4u}) {
      table.write(hash, hash, hash + 100);
    }
    epochId = table.writer().epochId();
  }

  std::string epochPath() const { return table.file(ArenaFiles::EpochFile::EPOCH_NAME); }
  bool corruptionFileExists() const { return std::filesystem::exists(table.corruptionFile()); }
  std::string corruptionFileText() const {
    std::ifstream in(table.corruptionFile());
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // Initializes a new reader that must refuse the files; the level 0 traces
  // go to `traces`. The reader stays for the test to look at.
  std::unique_ptr<HashedReader> refused(std::vector<std::string> & traces) {
    auto reader = table.makeReader();
    TestSupport::TraceCapture capture;
    EXPECT_FALSE(reader->initialize("test"));
    traces = tracesAt(capture, 0);
    EXPECT_FALSE(reader->initialized());
    // What attached stays attached.
    EXPECT_NE(reader->slotTable().header(), nullptr);
    EXPECT_TRUE(reader->buckets().mapped());
    return reader;
  }

  // A refusal at the validation of the slot header: the header's own message,
  // the reader's, the headers, and the message in the corruption file.
  std::unique_ptr<HashedReader> expectSlotsRefused(const std::string & message) {
    std::vector<std::string> traces;
    auto reader = refused(traces);
    EXPECT_EQ(traces, (std::vector<std::string>{message, "CairnReader::initialize() failed to validate slots",
                                                reader->dumpHeaders()}));
    EXPECT_EQ(corruptionFileText(), message + "\n");
    return reader;
  }
  void expectBucketsRefused(const std::string & message) {
    std::vector<std::string> traces;
    auto reader = refused(traces);
    EXPECT_EQ(traces, (std::vector<std::string>{"CairnReader::initialize() failed to validate buckets",
                                                reader->dumpHeaders()}));
    EXPECT_EQ(corruptionFileText(), message + "\n");
  }

  // A reader accepts the files again once they are mended.
  void expectAccepted() {
    auto reader = table.reader();
    bool found = false;
    reader->lookup(HashedKey{3, 3}, found, nullptr);
    EXPECT_TRUE(found);
  }

  ReaderTable table;
  ArenaFiles::EpochId epochId;
};

// The files of the table's directory, each with its bytes.
std::map<std::string, std::string> snapshot(const std::string & directory) {
  std::map<std::string, std::string> files;
  for (const auto & entry : std::filesystem::directory_iterator(directory)) {
    if (entry.is_regular_file()) {
      files[entry.path().filename().string()] = FileBytes(entry.path().string()).contents();
    }
  }
  return files;
}

}  // namespace

// ---- initialize and detach ----

TEST_F(CairnReaderAttachTest, TheSuccessOfInitializeIsTracedWithTheTablesStamp) {
  table.readerHandler.maskIs(levels({0, 1}));
  auto reader = table.makeReader();
  TestSupport::TraceCapture traces;
  ASSERT_TRUE(reader->initialize("startup"));
  const int64_t mtime = ArenaFiles::EpochFile(table.readerHandler, table.directory(), false).mtime();
  const auto lines = tracesAt(traces, 1);
  ASSERT_EQ(lines.size(), 1u);
  const std::string head =
      fmt::format("CairnReader::initialize() success test/reader capacity:0 epochId:{} mtime:{} delay:",
                  epochId.toString(), mtime);
  EXPECT_EQ(lines[0].substr(0, head.size()), head);
  EXPECT_TRUE(lines[0].ends_with(" event:startup")) << lines[0];
  EXPECT_TRUE(tracesAt(traces, 0).empty());
  EXPECT_EQ(reader->epochId(), epochId);
  table.readerHandler.maskIs(levels({0}));
}

TEST_F(CairnReaderAttachTest, ASecondInitializeReturnsTrueAndReadsNothing) {
  auto reader = table.reader();
  // Whatever happened to the files since is not looked at again.
  table.stopWriter();
  std::filesystem::remove(epochPath());
  table.slotFile().write(12, ArenaFiles::EpochId::of(7, 7));
  table.readerHandler.maskIs(0xFFFFFFFFu);
  TestSupport::TraceCapture traces;
  EXPECT_TRUE(reader->initialize("again"));
  table.readerHandler.maskIs(levels({0}));
  EXPECT_EQ(traces.lines(), std::vector<std::string>{});
  EXPECT_EQ(reader->epochId(), epochId);
  EXPECT_FALSE(corruptionFileExists());
}

TEST_F(CairnReaderAttachTest, DetachTwiceOnlyTracesTheSecondTime) {
  auto reader = table.reader();
  bool found = false;
  reader->lookup(HashedKey{1, 1}, found, nullptr);
  ASSERT_TRUE(found);
  TestSupport::TraceCapture traces;
  table.readerHandler.maskIs(levels({0, 1, 5}));
  reader->detach(false);
  EXPECT_EQ(tracesAt(traces, 1), std::vector<std::string>{"CairnReader::detach() test/reader detached"});
  EXPECT_FALSE(reader->initialized());
  EXPECT_EQ(reader->capacity(), 0u);
  EXPECT_EQ(reader->buckets().numBuckets(), 0u);
  EXPECT_EQ(reader->slotTable().header(), nullptr);
  EXPECT_FALSE(reader->buckets().mapped());
  EXPECT_EQ(reader->mountStatus(), 0u);

  const std::size_t before = traces.lines().size();
  reader->detach(true);
  EXPECT_EQ(std::vector<std::string>(traces.lines().begin() + static_cast<long>(before), traces.lines().end()),
            std::vector<std::string>{"L5 CairnReader::detach() already detached"});

  // A later initialize attaches again.
  ASSERT_TRUE(reader->initialize("again"));
  reader->lookup(HashedKey{1, 1}, found, nullptr);
  EXPECT_TRUE(found);
  table.readerHandler.maskIs(levels({0}));
}

TEST_F(CairnReaderAttachTest, CountersPassedInAreNeitherResetNorFreed) {
  Cairn::Reader::Counters mine;
  mine.chainRetries = 7;
  mine.sequence = 99;
  {
    auto reader = table.reader(&mine);
    EXPECT_EQ(&reader->counters(), &mine);
    bool found = false;
    reader->lookup(HashedKey{1, 1}, found, nullptr);
    EXPECT_EQ(mine.slotResizes, 1u);
    EXPECT_EQ(mine.chainRetries, 7u);
    const Cairn::Reader::Counters copy = reader->readerCounters();
    EXPECT_EQ(copy.slotMappedSize, reader->slotTable().wrapper().memSize());
    EXPECT_EQ(copy.bucketMappedSize, reader->buckets().wrapper().memSize());
    EXPECT_EQ(mine.slotMappedSize, copy.slotMappedSize);
    EXPECT_EQ(copy.sequence, 99u);
  }
  // The reader is gone; the record is the caller's, as it was left.
  EXPECT_EQ(mine.slotResizes, 1u);
  EXPECT_EQ(mine.chainRetries, 7u);
  EXPECT_EQ(mine.sequence, 99u);

  // Without a record the reader keeps its own, from zero, and frees it when
  // it goes (a leak would fail the sanitized build).
  auto own = table.reader();
  EXPECT_NE(&own->counters(), &mine);
  EXPECT_EQ(own->counters().chainRetries, 0u);
  EXPECT_EQ(own->counters().slotResizes, 0u);
}

// ---- Files refused ----

TEST_F(CairnReaderAttachTest, AnEpochFileWithoutAStampIsRefusedWithoutACorruptionFile) {
  // A sound record whose id is 0.
  ArenaFiles::EpochFile::Record record{ArenaFiles::EpochFile::Magic, ArenaFiles::EpochFile::Version,
                                       ArenaFiles::EpochId(), 0, 0};
  record.checksum = record.doChecksum();
  FileBytes(epochPath()).contentsIs(std::string_view(reinterpret_cast<const char *>(&record), sizeof(record)));
  std::vector<std::string> traces;
  auto reader = refused(traces);
  EXPECT_EQ(traces, (std::vector<std::string>{
                        fmt::format("EpochFile::read() {} bad epochId:0x00000000", epochPath()),
                        "CairnReader::initialize() failed to read epoch file", reader->dumpHeaders()}));
  EXPECT_TRUE(reader->epochId().none());
  EXPECT_FALSE(corruptionFileExists());

  // No epoch file at all: the same, and still no corruption file.
  std::filesystem::remove(epochPath());
  auto another = refused(traces);
  EXPECT_EQ(traces, (std::vector<std::string>{"CairnReader::initialize() failed to read epoch file",
                                              another->dumpHeaders()}));
  EXPECT_FALSE(corruptionFileExists());
}

TEST_F(CairnReaderAttachTest, ASlotFileOfAnotherGenerationIsRefusedWithTheBadEpochText) {
  table.stopWriter();
  const ArenaFiles::EpochId other = ArenaFiles::EpochId::of(epochId.high() + 1, epochId.low());
  table.slotFile().write(12, other);
  auto reader = expectSlotsRefused(
      fmt::format("SlotTable::validate() bad epoch:{} wanted:{}", other.toString(), epochId.toString()));
  EXPECT_TRUE(corruptionFileText().starts_with("SlotTable::validate() bad epoch:"));
  table.slotFile().write(12, epochId);
  expectAccepted();
  // The refused reader attaches again, this time to sound files.
  ASSERT_TRUE(reader->initialize("again"));
  EXPECT_EQ(walk(*reader).size(), 5u);
}

TEST_F(CairnReaderAttachTest, AnEpochFileOfAnotherGenerationIsRefusedAtTheBucketFile) {
  table.stopWriter();
  const ArenaFiles::EpochId other = ArenaFiles::EpochId::of(epochId.high() + 1, epochId.low());
  ArenaFiles::EpochFile(table.readerHandler, table.directory(), false).write(other);
  expectBucketsRefused(
      fmt::format("BucketTable::validate() bad epoch:{} wanted:{}", epochId.toString(), other.toString()));
  ArenaFiles::EpochFile(table.readerHandler, table.directory(), false).write(epochId);
  expectAccepted();
}

TEST_F(CairnReaderAttachTest, ASlotHeaderWithABadMagicOrChecksumIsRefused) {
  table.stopWriter();
  const FileBytes slots = table.slotFile();
  slots.flip(0, 0x20);
  expectSlotsRefused(fmt::format("SlotTable::Header::validate() bad magic: {:x}", slots.read<uint64_t>(0)));
  slots.flip(0, 0x20);
  expectAccepted();

  // maxSlots is one of the fields the checksum covers.
  slots.write(156, uint32_t{2000});
  const auto header = slots.read<Cairn::SlotTableHeader>(0);
  expectSlotsRefused(
      fmt::format("SlotTable::Header::validate() checksum fail: {:x} != {:x}", header.doHash(), header.hash));
  slots.write(156, uint32_t{1000});
  expectAccepted();
}

// A table written by a build of the previous key hash (slot file version 17)
// has its keys where that hash put them: it is refused, never read.
TEST_F(CairnReaderAttachTest, ASlotFileOfThePreviousKeyHashIsRefused) {
  table.stopWriter();
  const FileBytes slots = table.slotFile();
  ASSERT_EQ(slots.read<uint32_t>(8), Cairn::SlotVersion);
  slots.write(8, uint32_t{17});
  expectSlotsRefused("SlotTable::Header::validate() bad version: 17");
  slots.write(8, Cairn::SlotVersion);
  expectAccepted();
}

TEST_F(CairnReaderAttachTest, ABucketHeaderWithABadMagicOrChecksumIsRefused) {
  table.stopWriter();
  const FileBytes buckets = table.bucketFile();
  buckets.flip(1, 0x01);
  expectBucketsRefused(fmt::format("BucketTable::Header::validate() bad magic: {:x}", buckets.read<uint32_t>(0)));
  buckets.flip(1, 0x01);
  expectAccepted();

  buckets.flip(12, 0x80);
  const auto header = buckets.read<Cairn::BucketTableHeader>(0);
  expectBucketsRefused(
      fmt::format("BucketTable::Header::validate() checksum fail: {:x} != {:x}", header.doHash(), header.hash));
  buckets.flip(12, 0x80);
  expectAccepted();
}

TEST_F(CairnReaderAttachTest, MissingFilesFailTheAttachWithoutACorruptionFile) {
  table.stopWriter();
  std::filesystem::remove(table.file(Cairn::SlotFileName));
  std::vector<std::string> traces;
  {
    auto reader = table.makeReader();
    TestSupport::TraceCapture capture;
    EXPECT_FALSE(reader->initialize("test"));
    traces = tracesAt(capture, 0);
  }
  EXPECT_EQ(traces, (std::vector<std::string>{"SlotReader::attach() no shared memory region",
                                              "CairnReader::initialize() failed to attach to slots"}));
  EXPECT_FALSE(corruptionFileExists());

  // A table that no writer ever made: nothing is created for it.
  HashedReader nowhere(table.readerHandler, "test/nowhere", HashedOps());
  TestSupport::TraceCapture capture;
  EXPECT_FALSE(nowhere.initialize("test"));
  ASSERT_FALSE(tracesAt(capture, 0).empty());
  EXPECT_EQ(tracesAt(capture, 0).back(), "CairnReader::initialize() failed to attach to buckets");
  EXPECT_FALSE(std::filesystem::exists(table.harness.root.path() + "/test/nowhere"));
}

// ---- What a reader reports and refuses ----

TEST_F(CairnReaderAttachTest, AReaderReportsItsModeAndSizes) {
  auto reader = table.makeReader();
  EXPECT_EQ(reader->type(), Cairn::CairnType::reader);
  EXPECT_EQ(static_cast<uint32_t>(reader->type()), 2u);
  EXPECT_EQ(reader->minSize(), 0u);
  EXPECT_FALSE(reader->quiesced());
  EXPECT_EQ(reader->quiesced(), reader->initialized());
  ASSERT_TRUE(reader->initialize("test"));
  EXPECT_TRUE(reader->quiesced());
  EXPECT_EQ(reader->mountStatus(), 1u);
  EXPECT_EQ(reader->maxSize(), 1000u);
  EXPECT_EQ(reader->members(), 5u);
  EXPECT_EQ(reader->cairnName(), "test/reader");
  EXPECT_EQ(reader->rootPath().directory(), table.directory());
  table.write(9, 9);
  EXPECT_EQ(reader->members(), 6u);  // read now, from the header
  reader->detach(false);
  EXPECT_FALSE(reader->quiesced());
  EXPECT_EQ(reader->minSize(), 0u);
}

TEST_F(CairnReaderAttachTest, ALookupOnADetachedReaderIsNotFoundAndTraced) {
  table.readerHandler.maskIs(levels({0, 5}));
  TestSupport::TraceCapture traces;
  auto never = table.makeReader();
  auto gone = table.reader();
  gone->detach(false);
  for (auto * reader : {never.get(), gone.get()}) {
    const std::size_t before = traces.lines().size();
    bool found = true;
    HashedValue out(HashedKey{1, 1}, 5);
    const HashedValue * answer = reader->lookup(HashedKey{1, 1}, found, &out);
    EXPECT_FALSE(found);
    EXPECT_EQ(out, HashedValue());
    EXPECT_EQ(*answer, HashedValue());
    EXPECT_EQ(std::vector<std::string>(traces.lines().begin() + static_cast<long>(before), traces.lines().end()),
              std::vector<std::string>{"L5 CairnReader::doLookup() bucket table detached"});
  }
}

TEST_F(CairnReaderAttachTest, EveryWriteIsRefused) {
  auto reader = table.reader();
  const std::string write = "write to read-only Cairn table";
  HashedValue removed;
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { reader->write(valueOf(1, 1, 5), true); }), write);
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { reader->remove(HashedKey{1, 1}, removed); }),
            "remove to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { reader->directWrite(HashedKey{1, 1}); }), write);
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { reader->directUpdate(HashedKey{1, 1}); }), write);
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { reader->directCommit(); }), write);
  // Nothing changed.
  bool found = false;
  HashedValue out;
  reader->lookup(HashedKey{1, 1}, found, &out);
  EXPECT_EQ(out, valueOf(1, 1, 101));
  EXPECT_EQ(reader->members(), 5u);
  // directLookup is a lookup.
  reader->directLookup(HashedKey{2, 2}, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, valueOf(2, 2, 102));
}

TEST_F(CairnReaderAttachTest, AReaderNeverWritesAByteOfTheFiles) {
  for (uint32_t hash = 5; hash < 150; ++hash) {
    table.write(hash * 3, hash, hash);
  }
  table.stopWriter();
  const auto before = snapshot(table.directory());
  ASSERT_GE(before.size(), 4u);  // slots, buckets, epoch, owner and the queue's files

  auto reader = table.reader();
  EXPECT_EQ(reader->slotTable().wrapper().mode(), Arena::ArenaFilesWrapper::Mode::ReadOnly);
  EXPECT_EQ(reader->buckets().wrapper().mode(), Arena::ArenaFilesWrapper::Mode::ReadOnly);
  HashedValue value;
  Cairn::IterHint hint;
  bool found = false;
  for (int round = 0; round < 3; ++round) {
    for (uint32_t hash = 0; hash < 600; ++hash) {
      reader->lookup(HashedKey{hash, hash / 3}, found, &value);
      reader->lookup(HashedKey{hash, hash}, found, nullptr);
    }
    EXPECT_EQ(walk(*reader).size(), 150u);
    for (uint32_t slot = 0; slot < 300; ++slot) {
      reader->safeValue(slot, value, &value);
    }
    for (uint32_t hash = 0; hash < 100; ++hash) {
      hint = Cairn::IterHint();
      reader->next(HashedKey{hash, hash}, value, hint);
    }
    reader->readerCounters();
    reader->dumpHeaders();
    reader->members();
    reader->detach(false);
    ASSERT_TRUE(reader->initialize("again"));
  }
  EXPECT_TRUE(snapshot(table.directory()) == before);

  // A reader that refuses the files of another generation leaves its mark
  // beside them, and touches nothing else.
  ArenaFiles::EpochFile(table.readerHandler, table.directory(), false).write(ArenaFiles::EpochId::of(9, 9));
  const auto stamped = snapshot(table.directory());
  std::vector<std::string> traces;
  refused(traces);
  auto after = snapshot(table.directory());
  EXPECT_EQ(after.erase(Cairn::Util::CORRUPTION_FILENAME), 1u);
  EXPECT_TRUE(after == stamped);
}


namespace {

Cairn::BucketTableHeader * doublingHeader = nullptr;
const char * doublingPath = nullptr;

// A doubling as the writer makes it, as far as the header goes: the file is
// extended, then the doubled count published.
void doubleTheTable() {
  const Arena::VerU32 count = doublingHeader->numBuckets.load();
  if (truncate(doublingPath, static_cast<off_t>(Cairn::bucketFileSize(count.value * 2))) == 0) {
    doublingHeader->numBuckets.store(count.version + 1, count.value * 2);
  }
}

}  // namespace

// A reader that joins while the writer doubles the table: the doubling lands
// right after the reader's look at the bucket file's size. The count the
// reader judges is the one it read before that look, so the files are sound.
TEST_F(CairnReaderAttachTest, ADoublingRightAfterTheLookAtTheFileSizeLeavesTheBucketsSound) {
  auto reader = table.reader();
  const std::string path = table.file(Cairn::BucketFileName);
  doublingHeader = &table.bucketHeader();
  doublingPath = path.c_str();
  const uint32_t before = table.numBuckets();
  ASSERT_EQ(table.bucketFile().size(), Cairn::bucketFileSize(before)) << "the file holds no room for a doubling";
  const int outcome = inChild(
      [&] {
        const std::vector<int> descriptors = descriptorsOf(path);
        StatTrap::afterStat = doubleTheTable;
        return !descriptors.empty() && StatTrap::install(descriptors);
      },
      [&] {
        std::string error;
        const bool sound = reader->buckets().validate(epochId, error);
        if (!sound) {
          std::fprintf(stderr, "%s\n", error.c_str());
        }
        return sound && table.numBuckets() > before;
      });
  if (outcome == 2) {
    GTEST_SKIP() << "seccomp filters are not available here";
  }
  EXPECT_EQ(outcome, 0);
}

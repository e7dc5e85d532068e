// What a map passes through to its backend, and how it turns corruption that
// a backend finds into the table's one report of it; the version anchors of
// the values it hands out.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Cairn/MapFrontTesting.h"
#include "Support/TraceCapture.h"

using namespace MapFrontTest;
using Cairn::CairnType;

namespace {

class CairnMapOperationsTest : public ::testing::Test {
 protected:
  CairnMapOperationsTest() : map("test/map", log.callbacks()) {}
  ~CairnMapOperationsTest() override { Cairn::CairnMapBase::corruptionHandlerIs({}); }

  std::string directory() const { return root.path() + "/test/map"; }
  std::string marker() const {
    std::ifstream file(directory() + "/" + Cairn::Util::CORRUPTION_FILENAME);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
  // A shared writer, then a backend that finds every read and write corrupt.
  void serveFromCorruptBackend() {
    map.init(descriptorOf(CairnType::writer));
    map.backendIs(new CorruptBackend(map.debugHandler(), "test/map", map.ops(), nullptr, false));
  }

  CairnTest::ScopedShmRoot root;
  CallbackLog log;
  TestMap map;
};

// ---- Corruption ----

TEST_F(CairnMapOperationsTest, CorruptLookupAnswersWithTheDefaultValueAndReports) {
  serveFromCorruptBackend();
  std::vector<std::string> reported;
  Cairn::CairnMapBase::corruptionHandlerIs(
      [&](const std::string & path, const std::string & message) { reported.push_back(path + "|" + message); });
  TestSupport::TraceCapture traces;
  bool found = false;
  Value out(4, 4);
  const Value * result = map.safeLookup(Key{4}, found, &out);
  EXPECT_EQ(*result, Value());
  EXPECT_TRUE(found) << "found is as the backend left it";
  EXPECT_EQ(out, Value(4, 4));
  EXPECT_EQ(reported, (std::vector<std::string>{std::string("test/map|") + CorruptBackend::Message}));
  EXPECT_EQ(marker(), std::string(CorruptBackend::Message) + "\n");
  EXPECT_TRUE(traces.contains(std::string("L0 CairnMapBase::doCorruptionDetected() table:test/map ") +
                              CorruptBackend::Message));
}

TEST_F(CairnMapOperationsTest, CorruptWriteRemoveOrCommitReachesNoMansLand) {
  serveFromCorruptBackend();
  int reports = 0;
  Cairn::CairnMapBase::corruptionHandlerIs([&](const std::string &, const std::string &) { ++reports; });
  Value removed;
  EXPECT_EQ(assertionText([&] { map.safeWrite(Value(1, 1), true); }), "CairnMap::safeWrite() in no man's land");
  EXPECT_EQ(assertionText([&] { map.safeRemove(Key{1}, removed); }), "CairnMap::safeRemove() in no man's land");
  EXPECT_EQ(assertionText([&] { map.directCommit(); }), "CairnMap::directCommit() in no man's land");
  EXPECT_EQ(reports, 3) << "each reported its corruption before the assertion";
  EXPECT_EQ(marker(), std::string(CorruptBackend::Message) + "\n");
}

TEST_F(CairnMapOperationsTest, HandlerThatDoesNotReturnStopsTheWrite) {
  serveFromCorruptBackend();
  struct Stop {};
  Cairn::CairnMapBase::corruptionHandlerIs([](const std::string &, const std::string &) { throw Stop(); });
  EXPECT_THROW(map.safeWrite(Value(1, 1), true), Stop);
}

TEST_F(CairnMapOperationsTest, CorruptionInAnUninitialisedOrLocalMapLeavesNoMarker) {
  map.backendIs(new CorruptBackend(map.debugHandler(), "test/map", map.ops(), nullptr, false));
  bool found = false;
  EXPECT_EQ(*map.safeLookup(Key{1}, found), Value());
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_F(CairnMapOperationsTest, OtherExceptionsPassThrough) {
  map.init(descriptorOf(CairnType::reader));
  int reports = 0;
  Cairn::CairnMapBase::corruptionHandlerIs([&](const std::string &, const std::string &) { ++reports; });
  Value removed;
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { map.safeWrite(Value(1, 1), true); }),
            "write to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { map.safeRemove(Key{1}, removed); }),
            "remove to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { map.directCommit(); }),
            "write to read-only Cairn table");
  EXPECT_EQ(reports, 0);
}

// ---- Writes through a writer ----

TEST_F(CairnMapOperationsTest, WritesReachTheWriter) {
  map.init(descriptorOf(CairnType::writer));
  EXPECT_EQ(*map.safeWrite(Value(1, 1), true), Value(1, 1));
  bool found = false;
  EXPECT_EQ(*map.safeLookup(Key{1}, found), Value(1, 1));
  EXPECT_TRUE(found);
  Value removed;
  EXPECT_TRUE(map.safeRemove(Key{1}, removed));
  EXPECT_EQ(removed, Value(1, 1));
  EXPECT_FALSE(map.safeRemove(Key{1}, removed));
}

TEST_F(CairnMapOperationsTest, DirectCommitClosesTheWritersDirectOperation) {
  map.init(descriptorOf(CairnType::writer));
  Value * slot = map.backend()->directWrite(Key{5});
  *slot = Value(5, 3);
  map.directCommit();
  bool found = false;
  EXPECT_EQ(*map.safeLookup(Key{5}, found), Value(5, 3));
  EXPECT_EQ(assertionText([&] { map.directCommit(); }),
            "CairnWriter::directCommit() not in direct mode! Make sure the DirectIs/Commit are properly paired!");
}

TEST_F(CairnMapOperationsTest, WriteOnADummyIsRefused) {
  map.init(descriptorOf(CairnType::writer));
  map.detach(false);
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { map.safeWrite(Value(1, 1), true); }),
            "write to read-only Cairn table");
}

// ---- Forwarding ----

TEST_F(CairnMapOperationsTest, ForwardersTraceAtLevelFive) {
  map.init(descriptorOf(CairnType::writer));
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_TRUE(map.validate());
  EXPECT_TRUE(map.validateFiles());
  EXPECT_EQ(map.mountStatus(), 1u);
  EXPECT_EQ(map.sequence(), 0u);
  EXPECT_FALSE(map.clientQuiesced("reader-1"));
  EXPECT_TRUE(map.quiesced());
  map.sampleIs(16);
  map.yieldTimeIs(0.25);
  const std::string at = directory();
  for (const std::string & line : {"L5 CairnMap::validate() " + at, "L5 CairnMap::validateFiles() " + at,
                                   "L5 CairnMap::mountStatus() " + at, "L5 CairnMap::sequence() " + at,
                                   "L5 CairnMap::clientQuiesced() " + at + " readerName:reader-1",
                                   "L5 CairnMap::quiesced() " + at + " type:writer",
                                   "L5 CairnMap::sampleIs() " + at + " sample:16",
                                   "L5 CairnMap::yieldTimeIs() " + at + " yieldTime:0.25"}) {
    EXPECT_TRUE(traces.contains(line)) << line;
  }
}

TEST_F(CairnMapOperationsTest, DisabledTracesAreNotWritten) {
  map.init(descriptorOf(CairnType::writer));
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", 1);
  map.validate();
  map.mountStatus();
  map.sampleIs(3);
  EXPECT_FALSE(traces.contains("CairnMap::"));
}

TEST_F(CairnMapOperationsTest, QuietForwardersAnswerFromTheBackend) {
  map.init(descriptorOf(CairnType::writer, 500));
  EXPECT_EQ(map.maxSize(), 500u);
  EXPECT_EQ(map.capacity(), map.backend()->capacity());
  EXPECT_FALSE(map.connected());
  EXPECT_EQ(map.epochId(), map.backend()->epochId());
  EXPECT_EQ(map.name(), "test/map");
  EXPECT_EQ(map.rootPath().directory(), directory());
  EXPECT_TRUE(map.notifying());
}

TEST_F(CairnMapOperationsTest, CountersPassThroughTheMapAndSurviveADetach) {
  map.init(descriptorOf(CairnType::writer));
  map.safeWrite(Value(1, 1), true);
  map.safeWrite(Value(2, 1), true);
  const Cairn::Writer::Counters counted = map.writerCounters();
  EXPECT_EQ(counted.slotsAllocated, 2u);
  EXPECT_GT(counted.slotMappedSize, 0u);
  map.detach(false);
  EXPECT_EQ(map.backend()->writerCounters().slotsAllocated, 0u);
  EXPECT_EQ(map.writerCounters().slotsAllocated, 2u) << "the last mounted backend's record";
  EXPECT_EQ(map.readerCounters().slotResizes, 0u);
}

TEST_F(CairnMapOperationsTest, YieldTimeIsStoredEvenWhenTheBackendIgnoresIt) {
  map.init(descriptorOf(CairnType::writer));
  EXPECT_EQ(map.yieldTime(), 0.05);
  map.yieldTimeIs(1.5);
  EXPECT_EQ(map.yieldTime(), 1.5);
  EXPECT_EQ(map.sample(), 8u);
}

TEST_F(CairnMapOperationsTest, SampleSetBeforeABackendChangeReachesTheNextBackendInAttach) {
  map.init(descriptorOf(CairnType::reader));
  map.sampleIs(32);
  map.yieldTimeIs(0.5);
  map.attachFakeReaders();
  std::filesystem::create_directories(directory());
  ArenaFiles::EpochFile(map.debugHandler(), directory(), false).write(ArenaFiles::EpochId(0x20007));
  map.attach("test");
  ASSERT_NE(map.fakeReader(), nullptr);
  EXPECT_EQ(map.fakeReader()->sample, 32u);
  EXPECT_EQ(map.fakeReader()->yieldTime, 0.5);
  EXPECT_TRUE(map.fakeReader()->notifying);
}

TEST_F(CairnMapOperationsTest, InitGivesTheNewBackendTheSample) {
  map.sampleIs(64);
  auto descriptor = descriptorOf(CairnType::shadow);
  descriptor.localMem = true;
  map.init(descriptor);
  EXPECT_EQ(map.sample(), 64u);
}

// ---- notifyingIs ----

TEST_F(CairnMapOperationsTest, NotifyingOffOnAWriterIsPassedDownWithoutAPoke) {
  map.init(descriptorOf(CairnType::writer));
  auto * recorder = new FakeReader(map.debugHandler(), "test/map", map.ops());
  recorder->notifying = true;
  map.backendIs(recorder);
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  map.notifyingIs(false);
  EXPECT_FALSE(map.notifying());
  EXPECT_FALSE(recorder->notifying);
  EXPECT_TRUE(traces.contains("L5 CairnMap::notifyingIs() " + directory() + " notifying:false"));
  EXPECT_FALSE(traces.contains("WriterSentry::poke()"));
  map.notifyingIs(true);
  EXPECT_TRUE(recorder->notifying);
  EXPECT_TRUE(traces.contains("WriterSentry::poke() " + directory() + " reason:Notifications enabled"));
}

TEST_F(CairnMapOperationsTest, NotifyingAfterSuppressionIsRefused) {
  map.init(descriptorOf(CairnType::shadow));
  EXPECT_EQ(assertionText([&] { map.notifyingIs(true); }),
            "CairnMap::notifyingIs() not allowed at this time, initialized:true keyNotifications:false");
  // Before init, or once key notifications are back, it is allowed.
  TestMap other("test/other");
  EXPECT_NO_THROW(other.notifyingIs(false));
  EXPECT_NO_THROW(other.notifyingIs(true));
}

// ---- Version anchors ----

class CairnMapAnchorTest : public CairnMapOperationsTest {
 protected:
  CairnMapAnchorTest() {
    map.init(descriptorOf(CairnType::writer));
    map.safeWrite(Value(1, 1), true);
    map.safeWrite(Value(2, 1), true);
  }
  void lookUp(uint64_t number) {
    bool found = false;
    map.safeLookup(Key{number}, found);
  }
};

TEST_F(CairnMapAnchorTest, HitThenValidateWithNoWriteBetweenIsQuiet) {
  lookUp(1);
  EXPECT_NO_THROW(map.validateVersionAnchor());
}

TEST_F(CairnMapAnchorTest, RewriteOrRemovalOfTheEntryIsAMismatch) {
  lookUp(1);
  map.safeWrite(Value(1, 2), true);
  EXPECT_THROW(map.validateVersionAnchor(), Arena::VersionMismatchException);
  lookUp(2);
  Value removed;
  map.safeRemove(Key{2}, removed);
  EXPECT_THROW(map.validateVersionAnchor(), Arena::VersionMismatchException);
}

TEST_F(CairnMapAnchorTest, RewriteOfAnotherEntryIsQuiet) {
  lookUp(1);
  map.safeWrite(Value(2, 2), true);
  EXPECT_NO_THROW(map.validateVersionAnchor());
}

TEST_F(CairnMapAnchorTest, ValidateAfterAMissIsTheAssertion) {
  lookUp(99);
  EXPECT_EQ(assertionText([&] { map.validateVersionAnchor(); }),
            "should not be called on a default-constructed VersionAnchor");
}

TEST_F(CairnMapAnchorTest, CacheAnchorAfterAMissIsTheEmptyOne) {
  lookUp(99);
  const Arena::CacheVersionAnchor anchor = map.getCacheVersionAnchor();
  EXPECT_EQ(anchor.version, 0u);
  EXPECT_EQ(anchor.offset, 0xFFFFFFFEu);
  EXPECT_EQ(anchor.packed(), 0xFFFFFFFE00000000ull);
  EXPECT_TRUE(map.compareVersionAnchor(Arena::CacheVersionAnchor()));
  EXPECT_FALSE(map.compareVersionAnchor(Arena::CacheVersionAnchor{0, 0}));
  EXPECT_FALSE(map.compareVersionAnchor(Arena::CacheVersionAnchor{1, 0xFFFFFFFEu}));
}

TEST_F(CairnMapAnchorTest, HookSeesTheAnchorBeforeItIsValidated) {
  static int calls = 0;
  calls = 0;
  map.validateVersionAnchorHookIs([](const Arena::VersionAnchor & anchor) {
    ++calls;
    EXPECT_FALSE(anchor.empty());
  });
  lookUp(1);
  map.validateVersionAnchor();
  EXPECT_EQ(calls, 1);
}

}  // namespace

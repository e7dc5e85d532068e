// The two placeholder backends: what each operation answers, traces or
// asserts, and the backend each owns.

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"
#include "Support/TraceCapture.h"

using namespace MapFrontTest;

namespace {

// Counts the calls a dummy passes on to the backend it replaced.
class CountingBackend : public Dummy {
 public:
  CountingBackend(Basalt::Platform::DebugHandler & handler, int & cleanups, int & destructions)
      : Dummy(handler, "test/previous", Ops(), nullptr, false), cleanups_(cleanups), destructions_(destructions) {}
  ~CountingBackend() override { ++destructions_; }
  void cleanup() override { ++cleanups_; }

 private:
  int & cleanups_;
  int & destructions_;
};

class CairnDummyTest : public ::testing::Test {
 protected:
  CairnDummyTest() { handler.maskIs(0x21); }  // levels 0 and 5

  // A default value that can be told from a zeroed one.
  static Ops opsWithDefault() {
    Ops result;
    result.defaultValue = Value(0, 42);
    return result;
  }

  std::string strictText(const std::string & text, const std::string & extra = "") const {
    return text + "test/table rootpath:" + root.path() + "/test/table" + extra + Map::OrphanMessage;
  }

  CairnTest::ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"dummy-test"};
  Ops ops = opsWithDefault();
  Dummy dummy{handler, "test/table", ops, nullptr, false};
  StrictDummy strict{handler, "test/table", ops, nullptr, false, Map::OrphanMessage};
};

// ---- CairnDummy ----

TEST_F(CairnDummyTest, DummyAnswersAsAnEmptyUnmountedTableAndTracesEachCall) {
  TestSupport::TraceCapture traces;
  EXPECT_TRUE(dummy.initialize("boot"));
  dummy.detach(true);
  EXPECT_TRUE(dummy.validate());
  EXPECT_TRUE(dummy.validateFiles());
  dummy.cleanup();
  EXPECT_EQ(dummy.members(), 0u);
  EXPECT_EQ(dummy.minSize(), 0u);
  EXPECT_EQ(dummy.maxSize(), 0u);
  EXPECT_EQ(dummy.capacity(), 0u);
  EXPECT_EQ(dummy.type(), Cairn::CairnType::reader);
  EXPECT_EQ(dummy.readerCounters().slotResizes, 0u);
  EXPECT_EQ(dummy.mountStatus(), 0u);
  EXPECT_EQ(traces.lines(), (std::vector<std::string>{
                                "L5 CairnDummy::initialize() test/table event:boot",
                                "L5 CairnDummy::detach() test/table",
                                "L5 CairnDummy::validate() test/table",
                                "L5 CairnDummy::validateFiles() test/table",
                                "L5 CairnDummy::cleanup() test/table",
                                "L5 CairnDummy::members() test/table",
                                "L5 CairnDummy::minSize() test/table",
                                "L5 CairnDummy::maxSize() test/table",
                                "L5 CairnDummy::capacity() test/table",
                                "L5 CairnDummy::type() test/table",
                                "L5 CairnDummy::readerCounters() test/table",
                                "L5 CairnDummy::mountStatus() test/table",
                            }));
}

TEST_F(CairnDummyTest, DummyRootPathIsItsNameAndAttachesToNothing) {
  EXPECT_EQ(dummy.rootPath().directory(), root.path() + "/test/table");
  EXPECT_FALSE(dummy.rootPath().shared());
  EXPECT_EQ(dummy.cairnName(), "test/table");
  EXPECT_TRUE(Dummy(handler, "test/table", ops, nullptr, true).rootPath().shared());
  // The inherited defaults.
  EXPECT_TRUE(dummy.quiesced());
  EXPECT_FALSE(dummy.connected());
  EXPECT_EQ(dummy.sequence(), 0u);
  EXPECT_TRUE(dummy.epochId().none());
  EXPECT_FALSE(dummy.clientQuiesced("reader"));
  EXPECT_EQ(dummy.writerCounters().slotsAllocated, 0u);
  EXPECT_EQ(dummy.getCacheVersionAnchor(), Arena::CacheVersionAnchor());
}

TEST_F(CairnDummyTest, LookupLeavesTheBufferAloneAndGivesTheDefaultValue) {
  TestSupport::TraceCapture traces;
  Value out(5, 5);
  bool found = true;
  const Value * result = dummy.lookup(Key{5}, found, &out);
  EXPECT_FALSE(found);
  EXPECT_EQ(*result, Value(0, 42));
  EXPECT_EQ(out, Value(5, 5));
  EXPECT_TRUE(traces.contains("L5 CairnDummy::lookup() test/table"));
  // directLookup is lookup.
  found = true;
  EXPECT_EQ(*dummy.directLookup(Key{5}, found, &out), Value(0, 42));
  EXPECT_FALSE(found);
}

TEST_F(CairnDummyTest, NextGivesFalseAndTheDefaultValueWhateverTheKey) {
  Cairn::IterHint hint;
  for (uint64_t number : {0u, 7u, 1000000u}) {
    TestSupport::TraceCapture traces;
    Value out(9, 9);
    EXPECT_FALSE(dummy.next(Key{number}, out, hint));
    EXPECT_EQ(out, Value(0, 42));
    EXPECT_EQ(traces.lines(), (std::vector<std::string>{"L5 CairnDummy::next() test/table",
                                                        "L5 CairnDummy::first() test/table"}));
  }
  Value out(9, 9);
  EXPECT_FALSE(dummy.first(out, hint));
  EXPECT_EQ(out, Value(0, 42));
}

TEST_F(CairnDummyTest, ValidateVersionAnchorFailsThoughEverythingElseIsQuiet) {
  bool found = false;
  dummy.lookup(Key{1}, found, nullptr);
  EXPECT_EQ(assertionText([&] { dummy.validateVersionAnchor(); }),
            "CairnDummy::validateVersionAnchor() should never be called since it's impossible for a lookup to "
            "succeed");
}

TEST_F(CairnDummyTest, WritesAreRefusedAsOnEveryReadOnlyBackend) {
  Value removed;
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { dummy.write(Value(1, 1), true); }),
            "write to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { dummy.remove(Key{1}, removed); }),
            "remove to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { dummy.directWrite(Key{1}); }),
            "write to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { dummy.directUpdate(Key{1}); }),
            "write to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { strict.directCommit(); }),
            "write to read-only Cairn table");
  EXPECT_EQ(messageOf<Basalt::NoPermissionException>([&] { strict.remove(Key{1}, removed); }),
            "remove to read-only Cairn table");
}

TEST_F(CairnDummyTest, CleanupOnADummyReachesTheBackendItReplaced) {
  int cleanups = 0;
  int destructions = 0;
  {
    Dummy owner(handler, "test/table", ops, new CountingBackend(handler, cleanups, destructions), false);
    owner.cleanup();
    EXPECT_EQ(cleanups, 1);
    StrictDummy strictOwner(handler, "test/table", ops, new CountingBackend(handler, cleanups, destructions),
                            false, Map::OrphanMessage);
    strictOwner.cleanup();
    EXPECT_EQ(cleanups, 2);
    EXPECT_EQ(destructions, 0);
  }
  EXPECT_EQ(destructions, 2) << "a dummy deletes the backend it owns";
}

TEST_F(CairnDummyTest, DummiesCopyTheOpsTheyAreGiven) {
  Ops other;
  other.defaultValue = Value(0, 7);
  Dummy copy(handler, "test/table", other, nullptr, false);
  other.defaultValue = Value(0, 8);
  bool found = false;
  EXPECT_EQ(*copy.lookup(Key{1}, found, nullptr), Value(0, 7));
}

// ---- CairnStrictDummy ----

TEST_F(CairnDummyTest, StrictDummyAssertsOnEverythingThatReadsTheTable) {
  bool found = false;
  Value out;
  Cairn::IterHint hint;
  EXPECT_EQ(assertionText([&] { strict.members(); }), strictText("CairnStrictDummy::members() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.minSize(); }), strictText("CairnStrictDummy::minSize() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.maxSize(); }), strictText("CairnStrictDummy::maxSize() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.capacity(); }), strictText("CairnStrictDummy::capacity() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.type(); }), strictText("CairnStrictDummy::type() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.readerCounters(); }),
            strictText("CairnStrictDummy::readerCounters() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.lookup(Key{12}, found, &out); }),
            strictText("CairnStrictDummy::lookup() invoked, name:", " key:12"));
  EXPECT_EQ(assertionText([&] { strict.first(out, hint); }),
            strictText("CairnStrictDummy::first() invoked, name:"));
  EXPECT_EQ(assertionText([&] { strict.next(Key{13}, out, hint); }),
            strictText("CairnStrictDummy::next() invoked, name:", " key:13"));
  EXPECT_EQ(assertionText([&] { strict.validateVersionAnchor(); }),
            strictText("CairnStrictDummy::validateVersionAnchor() invoked, name:"));
}

TEST_F(CairnDummyTest, StrictDirectLookupFailsWithTheTextOfLookup) {
  bool found = false;
  EXPECT_EQ(assertionText([&] { strict.directLookup(Key{12}, found, nullptr); }),
            strictText("CairnStrictDummy::lookup() invoked, name:", " key:12"));
}

TEST_F(CairnDummyTest, StrictInitializeSaysRootPathWithACapitalP) {
  EXPECT_EQ(assertionText([&] { strict.initialize("attach"); }),
            "CairnStrictDummy::initialize() test/table rootPath:" + root.path() + "/test/table event:attach" +
                Map::OrphanMessage);
}

TEST_F(CairnDummyTest, StrictDummyLetsWhatAMapDoesOnLettingGoWorkQuietly) {
  TestSupport::TraceCapture traces;
  strict.detach(false);
  EXPECT_TRUE(strict.validate());
  EXPECT_TRUE(strict.validateFiles());
  strict.cleanup();
  EXPECT_EQ(strict.mountStatus(), 0u);
  EXPECT_EQ(strict.rootPath().directory(), root.path() + "/test/table");
  EXPECT_EQ(strict.cairnName(), "test/table");
  EXPECT_EQ(traces.lines(), (std::vector<std::string>{
                                "L5 CairnStrictDummy::detach() test/table",
                                "L5 CairnStrictDummy::validate() test/table",
                                "L5 CairnStrictDummy::validateFiles() test/table",
                                "L5 CairnStrictDummy::cleanup() test/table",
                            }));
  // The inherited defaults.
  EXPECT_TRUE(strict.quiesced());
  EXPECT_FALSE(strict.connected());
  EXPECT_TRUE(strict.epochId().none());
}

}  // namespace

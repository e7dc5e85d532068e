// The reader sentry on a table's real files: when it attaches and detaches
// its notifiee, what holds it back, and how it follows the table's
// directory into and out of existence.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "Cairn/SentryTesting.h"
#include "Support/TraceCapture.h"

using namespace SentryTest;
using MapFrontTest::runUntil;
using State = Arena::ReaderSentry::TableState;

namespace {

class ReaderSentryTest : public ::testing::Test {
 protected:
  ReaderSentryTest() : reader(table.handler, table.directory()) {}

  std::unique_ptr<Arena::ReaderSentry> makeSentry() {
    return std::make_unique<Arena::ReaderSentry>(table.handler, table.directory(), reader, probe(table.handler));
  }
  // Whether a look prompted by the files has found nothing new.
  bool sawUnchangedLook(const TestSupport::TraceCapture & traces) const {
    return traces.contains("reason:inotify") && traces.contains("changed:false");
  }

  TableFiles table;
  Reader reader;
};

// ---- The probe ----

TEST_F(ReaderSentryTest, ProbeTellsAbsentReadyAndOrphaned) {
  EXPECT_EQ(Cairn::probeTable(table.handler, table.directory()).state, State::Absent);
  table.ownedBy(getpid());
  EXPECT_EQ(Cairn::probeTable(table.handler, table.directory()).state, State::Absent)
      << "no generation yet: the writer has not finished formatting";
  table.formatted(0x10001);
  auto view = Cairn::probeTable(table.handler, table.directory());
  EXPECT_EQ(view.state, State::Ready);
  EXPECT_EQ(view.epochId, ArenaFiles::EpochId(0x10001));
  table.ownedBy(DeadPid);
  view = Cairn::probeTable(table.handler, table.directory());
  EXPECT_EQ(view.state, State::Orphaned);
  EXPECT_EQ(view.owner, "dead");
  std::ofstream(table.file(ArenaFiles::OwnerFile::FILENAME)) << "garbage";
  view = Cairn::probeTable(table.handler, table.directory());
  EXPECT_EQ(view.state, State::Orphaned);
  EXPECT_EQ(view.owner, "unknown");
}

// ---- Attach ----

TEST_F(ReaderSentryTest, AttachesWhenAWriterFormatsTheTableEvenWhereNoDirectoryExistedYet) {
  auto sentry = makeSentry();
  sentry->poke("start");
  EXPECT_TRUE(reader.calls.empty());
  table.formatted(0x10001);  // makes the base directory, the table's and its files
  ASSERT_TRUE(runUntil([&] { return !reader.calls.empty(); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:inotify"}));
  EXPECT_EQ(reader.mounted, ArenaFiles::EpochId(0x10001));
  EXPECT_EQ(sentry->record()->state, State::Ready);
}

TEST_F(ReaderSentryTest, PokeAttachesAtOnceAndOnlyOnce) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("CairnMap::init()");
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:CairnMap::init()"}));
  sentry->poke("tryAttach");
  EXPECT_EQ(reader.calls.size(), 1u) << "fully attached to the generation there";
}

TEST_F(ReaderSentryTest, DelayedPokeLooksLaterOnTheLoop) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("later", 5);
  EXPECT_TRUE(reader.calls.empty());
  ASSERT_TRUE(runUntil([&] { return !reader.calls.empty(); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:later"}));
}

TEST_F(ReaderSentryTest, NoAttachWhileTheWriterIsDead) {
  table.formatted(0x10001, DeadPid);
  auto sentry = makeSentry();
  sentry->poke("start");
  EXPECT_TRUE(reader.calls.empty());
  table.ownedBy(getpid());  // a writer restarts on the same files
  ASSERT_TRUE(runUntil([&] { return !reader.calls.empty(); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:inotify"}));
}

TEST_F(ReaderSentryTest, ReaderOfADeadWritersFilesStaysAttached) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("start");
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  table.ownedBy(DeadPid);
  ASSERT_TRUE(runUntil([&] { return traces.contains("reason:inotify") && traces.contains("table:orphaned"); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start"}));
  table.ownedBy(getpid());  // the writer is back, with the same generation
  ASSERT_TRUE(runUntil([&] { return traces.contains("table:ready"); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start"}));
}

TEST_F(ReaderSentryTest, DisconnectedActiveReaderIsAttachedAgainWhenItsWriterIsBack) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("start");
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  table.ownedBy(DeadPid);
  reader.disconnected = true;
  ASSERT_TRUE(runUntil([&] { return traces.contains("table:orphaned"); }));
  table.ownedBy(getpid());
  ASSERT_TRUE(runUntil([&] { return reader.calls.size() == 2; }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start", "attach:inotify"}));
}

// ---- Detach ----

TEST_F(ReaderSentryTest, DetachesWhenTheWritersFilesGoAway) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("start");
  table.removed();
  ASSERT_TRUE(runUntil([&] { return reader.calls.size() == 2; }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start", "detach"}));
  // The directory comes back with a new table: the sentry found its way up and down again.
  table.formatted(0x20001);
  ASSERT_TRUE(runUntil([&] { return reader.calls.size() == 3; }));
  EXPECT_EQ(reader.calls.back(), "attach:inotify");
  EXPECT_EQ(reader.mounted, ArenaFiles::EpochId(0x20001));
}

TEST_F(ReaderSentryTest, NewGenerationIsDetachedThenAttached) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->poke("start");
  table.formatted(0x20001);  // a writer re-formatted the table
  ASSERT_TRUE(runUntil([&] { return reader.calls.size() == 3; }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start", "detach", "attach:inotify"}));
  EXPECT_EQ(reader.mounted, ArenaFiles::EpochId(0x20001));
}

// ---- Record, attached state and purge ----

TEST_F(ReaderSentryTest, FailedAttachIsNotRetriedForChangesThatDoNotMoveTheTable) {
  table.formatted(0x10001);
  reader.mounts = false;
  auto sentry = makeSentry();
  sentry->poke("start");
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  // What a reader writes beside the table after a failed attach.
  Cairn::Util::writeCorruptionFile(table.handler, table.directory(), "bad epoch");
  ASSERT_TRUE(runUntil([&] { return sawUnchangedLook(traces); }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start"}));
  sentry->poke("tryAttach");  // a poke always acts
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:start", "attach:tryAttach"}));
}

TEST_F(ReaderSentryTest, HeldBackSentryCallsNothingUntilLetGoAndPoked) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  sentry->attachedIs(false);
  sentry->poke("start");
  EXPECT_TRUE(reader.calls.empty());
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  table.formatted(0x20001);
  ASSERT_TRUE(runUntil([&] { return traces.contains("reason:inotify held back"); }));
  EXPECT_TRUE(reader.calls.empty());
  sentry->attachedIs(true);
  sentry->poke("CairnMap::flushComplete()");
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:CairnMap::flushComplete()"}));
}

TEST_F(ReaderSentryTest, PurgeForgetsQueuedChangesAndTheRecord) {
  table.formatted(0x10001, DeadPid);
  auto sentry = makeSentry();
  sentry->poke("start");
  ASSERT_TRUE(sentry->record().has_value());
  table.ownedBy(getpid());  // queued, not yet looked at
  sentry->purgeInotifyRecord();
  EXPECT_FALSE(sentry->record().has_value());
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  std::ofstream(table.file("unrelated")) << "x";
  ASSERT_TRUE(runUntil([&] { return traces.contains("reason:inotify"); }));
  // One look, for the later change; the purged record makes it act.
  int looks = 0;
  for (const auto & line : traces.lines()) {
    looks += line.find("ReaderSentry::look()") != std::string::npos && line.find("reason:inotify") != std::string::npos;
  }
  EXPECT_EQ(looks, 1);
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:inotify"}));
}

// ---- Safety ----

TEST_F(ReaderSentryTest, NotifieeMayDestroyTheSentryInsideAttach) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  reader.onAttach = [&] { sentry.reset(); };
  table.ownedBy(getpid());
  ASSERT_TRUE(runUntil([&] { return sentry == nullptr; }));
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:inotify"}));
}

TEST_F(ReaderSentryTest, PathUnderAFileCannotBeWatched) {
  const std::string file = table.root.path() + "/file";
  std::ofstream(file) << "x";
  EXPECT_THROW(Arena::ReaderSentry(table.handler, file + "/table", reader, probe(table.handler)),
               Basalt::InvalidInitializeException);
}

TEST_F(ReaderSentryTest, NotifieeOfALocalTableIsAnAssertion) {
  reader.local = true;
  EXPECT_THROW(makeSentry(), Basalt::AssertException);
}

}  // namespace

// The writer's socket closed, but its process still answered when the
// shadow's disconnect made the sentry look: the attach could not connect.
// The next writer keeps the generation, so the view stays the same, and
// only a look at its files can bring the shadow to its socket.
TEST_F(ReaderSentryTest, AShadowAttachedButNotConnectedIsAttachedAgainAtTheNextChangeOfTheFiles) {
  table.formatted(0x10001);
  auto sentry = makeSentry();
  reader.disconnected = true;
  sentry->poke("disconnect");
  EXPECT_EQ(reader.calls, (std::vector<std::string>{"attach:disconnect"}));
  reader.onAttach = [&] { reader.disconnected = false; };  // this time it connects
  table.ownedBy(getpid());  // a writer restarts on the same files
  ASSERT_TRUE(runUntil([&] { return reader.calls.size() == 2; }));
  EXPECT_EQ(reader.calls.back(), "attach:inotify");
  // Connected: later changes that don't move the table attach nothing.
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  table.ownedBy(getpid());
  ASSERT_TRUE(runUntil([&] { return sawUnchangedLook(traces); }));
  EXPECT_EQ(reader.calls.size(), 2u);
}

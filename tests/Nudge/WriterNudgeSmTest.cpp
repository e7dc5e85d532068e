// A writer and its readers in one process, on one loop: who is woken when,
// the counts, the hooks, the socket's name and file, and a reader that
// doesn't read.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Basalt/Exception.h"
#include "Nudge/ReaderNudgeSm.h"
#include "Nudge/WriterNudgeSm.h"
#include "Support/TraceCapture.h"
#include "NudgeTesting.h"

namespace {

using NudgeTesting::NudgeTest;
using NudgeTesting::RawPeer;
using NudgeTesting::readerName;

bool isSocketFile(const std::string & path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// A reader that records its wakes.
struct TestReader {
  TestReader(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop) : nudge(handler, loop) {
    nudge.wakeHookIs([this](uint64_t sequence) { woken.push_back(sequence); });
    nudge.disconnectHookIs([this] { ++disconnects; });
  }
  Nudge::ReaderNudgeSm nudge;
  std::vector<uint64_t> woken;
  int disconnects = 0;
};

class WriterNudgeSmTest : public NudgeTest {
 protected:
  WriterNudgeSmTest() {
    writer_.progressHookIs([this](const std::string & reader, uint64_t sequence) {
      progress_.push_back(fmt::format("{}@{}", reader, sequence));
    });
    writer_.goneHookIs([this](const std::string & reader) { gone_.push_back(reader); });
  }

  // Connects `reader` to writer_, and runs until the writer has its hello.
  void join(TestReader & reader) {
    const uint32_t before = writer_.readers();
    ASSERT_TRUE(reader.nudge.connect(path_, writer_.tableId()));
    ASSERT_TRUE(runUntil([&] { return writer_.readers() == before + 1; }));
  }
  // The reader says it has applied `sequence`; runs until the writer knows.
  void sleepAt(TestReader & reader, uint64_t sequence) {
    const uint32_t before = writer_.sleepingReaders();
    reader.nudge.appliedIs(sequence);
    ASSERT_TRUE(runUntil([&] { return writer_.sleepingReaders() == before + 1; }));
  }

  std::string path_ = socketPath("nudge");
  Nudge::WriterNudgeSm writer_{handler_, loop_};
  std::vector<std::string> progress_;
  std::vector<std::string> gone_;
};

TEST_F(WriterNudgeSmTest, ListensOnASocketFileAndRemovesItOnDetach) {
  EXPECT_FALSE(writer_.listening());
  writer_.doEnableListen(path_);
  EXPECT_TRUE(writer_.listening());
  EXPECT_EQ(writer_.socketName(), path_);
  EXPECT_TRUE(isSocketFile(path_));
  writer_.onDetach();
  EXPECT_FALSE(writer_.listening());
  EXPECT_FALSE(isSocketFile(path_));
  writer_.onDetach();  // a second detach is no change
  EXPECT_FALSE(writer_.listening());
}

TEST_F(WriterNudgeSmTest, TableIdsAreUniqueAndNeverZero) {
  Nudge::WriterNudgeSm other(handler_, loop_);
  EXPECT_NE(writer_.tableId(), 0u);
  EXPECT_NE(other.tableId(), 0u);
  EXPECT_NE(other.tableId(), writer_.tableId());
}

TEST_F(WriterNudgeSmTest, ListeningTwiceIsAnAssertion) {
  writer_.doEnableListen(path_);
  try {
    writer_.doEnableListen(socketPath("other"));
    FAIL() << "no assertion";
  } catch (const Basalt::AssertException & e) {
    EXPECT_EQ(e.message(), fmt::format("WriterNudgeSm::doEnableListen() tableId:{} already listening on {}",
                                       writer_.tableId(), path_));
  }
}

TEST_F(WriterNudgeSmTest, ANameThatCantBeBoundIsRefusedWithALevelZeroTrace) {
  const std::string path = socketPath("missing/nudge");
  const std::string expected = fmt::format(
      "WriterNudgeSm::doEnableListen() tableId:{} cannot listen on {}: bind: No such file or directory",
      writer_.tableId(), path);
  TestSupport::TraceCapture capture;
  try {
    writer_.doEnableListen(path);
    FAIL() << "no exception";
  } catch (const Basalt::InvalidInitializeException & e) {
    EXPECT_EQ(e.message(), expected);
  }
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"L0 " + expected});
  EXPECT_FALSE(writer_.listening());
}

TEST_F(WriterNudgeSmTest, ANameALiveWriterListensOnIsRefusedAndKeepsWorking) {
  writer_.doEnableListen(path_);
  Nudge::WriterNudgeSm second(handler_, loop_);
  try {
    second.doEnableListen(path_);
    FAIL() << "no exception";
  } catch (const Basalt::InvalidInitializeException & e) {
    EXPECT_EQ(e.message(), fmt::format("WriterNudgeSm::doEnableListen() tableId:{} cannot listen on {}: a live "
                                       "socket listens on it",
                                       second.tableId(), path_));
  }
  EXPECT_TRUE(isSocketFile(path_));
  TestReader reader(handler_, loop_);
  join(reader);
}

TEST_F(WriterNudgeSmTest, ASocketFileLeftByADeadWriterIsTakenOver) {
  // What a writer that died leaves: a socket file that nobody listens on.
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path_.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
  ::close(fd);
  ASSERT_TRUE(isSocketFile(path_));
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  join(reader);
}

TEST_F(WriterNudgeSmTest, AWriterLockNameIsAnAbstractNameAndLeavesNoFile) {
  const std::string name = Arena::WriterLock::socketNameFor(temp_.path(), ::getpid());
  writer_.doEnableListen(name);
  EXPECT_FALSE(isSocketFile(name));
  TestReader reader(handler_, loop_);
  ASSERT_TRUE(reader.nudge.connect(name, writer_.tableId()));
  ASSERT_TRUE(runUntil([&] { return writer_.readers() == 1; }));
  sleepAt(reader, 0);
  writer_.notify(1);
  ASSERT_TRUE(runUntil([&] { return reader.woken.size() == 1; }));
  writer_.onDetach();
  ASSERT_TRUE(runUntil([&] { return reader.disconnects == 1; }));
}

TEST_F(WriterNudgeSmTest, ATakenNameIsRenewedWhenTheOwnerGivesAWayToRenewIt) {
  const std::string taken = "tessel-nudge-test-taken-" + std::to_string(::getpid());
  const std::string fresh = "tessel-nudge-test-fresh-" + std::to_string(::getpid());
  Nudge::Listener squatter;
  std::string error;
  ASSERT_TRUE(squatter.listenOn(taken, error)) << error;
  handler_.maskIs(3);
  TestSupport::TraceCapture capture;
  writer_.doEnableListen(taken, [&] { return fresh; });
  EXPECT_EQ(writer_.socketName(), fresh);
  EXPECT_TRUE(capture.contains(fmt::format("L1 WriterNudgeSm::doEnableListen() tableId:{} {} was taken, renewed as {}",
                                           writer_.tableId(), taken, fresh)));
  TestReader reader(handler_, loop_);
  ASSERT_TRUE(reader.nudge.connect(fresh, writer_.tableId()));
  ASSERT_TRUE(runUntil([&] { return writer_.readers() == 1; }));
}

TEST_F(WriterNudgeSmTest, OneWriterWakesItsTwoSleepingReaders) {
  writer_.doEnableListen(path_);
  TestReader first(handler_, loop_);
  TestReader second(handler_, loop_);
  join(first);
  join(second);
  EXPECT_EQ(writer_.readers(), 2u);
  EXPECT_EQ(writer_.sleepingReaders(), 0u);
  sleepAt(first, 0);
  sleepAt(second, 0);
  EXPECT_EQ(writer_.sleepingReaders(), 2u);
  EXPECT_TRUE(first.nudge.sleeping());

  writer_.notify(1);
  EXPECT_EQ(writer_.nudges(), 2u);
  EXPECT_EQ(writer_.sleepingReaders(), 0u);
  ASSERT_TRUE(runUntil([&] { return first.woken.size() == 1 && second.woken.size() == 1; }));
  EXPECT_EQ(first.woken, std::vector<uint64_t>{1});
  EXPECT_EQ(second.woken, std::vector<uint64_t>{1});
  EXPECT_FALSE(first.nudge.sleeping());
  EXPECT_EQ(first.nudge.latest(), 1u);
  EXPECT_EQ(first.nudge.wakes(), 1u);

  // Only the first goes back to sleep, and only the first is woken for 2.
  sleepAt(first, 1);
  writer_.notify(2);
  writer_.notify(3);  // the first is awake now: nothing more is sent
  EXPECT_EQ(writer_.nudges(), 3u);
  ASSERT_TRUE(runUntil([&] { return first.woken.size() == 2; }));
  EXPECT_EQ(first.woken, (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(second.woken, std::vector<uint64_t>{1});
  EXPECT_EQ(writer_.sequence(), 3u);

  ASSERT_TRUE(runUntil([&] { return progress_.size() == 5; }));
  EXPECT_EQ(progress_, (std::vector<std::string>{readerName(1) + "@0", readerName(2) + "@0", readerName(1) + "@0",
                                                 readerName(2) + "@0", readerName(1) + "@1"}));
}

TEST_F(WriterNudgeSmTest, AReaderThatSleepsBehindTheLatestSequenceIsWokenAtOnce) {
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  join(reader);
  writer_.notify(5);  // it is awake: nothing is sent
  EXPECT_EQ(writer_.nudges(), 0u);
  reader.nudge.appliedIs(3);
  ASSERT_TRUE(runUntil([&] { return reader.woken.size() == 1; }));
  EXPECT_EQ(reader.woken, std::vector<uint64_t>{5});
  EXPECT_EQ(writer_.nudges(), 1u);
  EXPECT_EQ(writer_.sleepingReaders(), 0u);
  sleepAt(reader, 5);  // caught up: it sleeps
  EXPECT_EQ(writer_.nudges(), 1u);
}

TEST_F(WriterNudgeSmTest, TheHelloCarriesTheSequenceAppliedSoFar) {
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  reader.nudge.appliedIs(41);  // not connected: only recorded
  EXPECT_FALSE(reader.nudge.sleeping());
  join(reader);
  ASSERT_TRUE(runUntil([&] { return progress_.size() == 1; }));
  EXPECT_EQ(progress_, std::vector<std::string>{readerName(1) + "@41"});
  EXPECT_EQ(writer_.sleepingReaders(), 0u);
}

TEST_F(WriterNudgeSmTest, ReadersSeeTheWriterDetachAndReconnectWhenAsked) {
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  join(reader);
  sleepAt(reader, 7);
  ASSERT_TRUE(runUntil([&] { return progress_.size() == 2; }));
  writer_.onDetach();
  EXPECT_EQ(writer_.readers(), 0u);
  ASSERT_TRUE(runUntil([&] { return reader.disconnects == 1; }));
  EXPECT_FALSE(reader.nudge.connected());
  EXPECT_FALSE(reader.nudge.sleeping());
  EXPECT_TRUE(gone_.empty());  // the writer closed them itself

  {
    TestSupport::TraceCapture capture;
    EXPECT_FALSE(reader.nudge.reconnect());
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{fmt::format("L0 ReaderNudgeSm::connect() tableId:{} cannot connect to {}: "
                                                   "connect: No such file or directory",
                                                   writer_.tableId(), path_)});
  }
  writer_.doEnableListen(path_);
  ASSERT_TRUE(reader.nudge.reconnect());
  ASSERT_TRUE(runUntil([&] { return writer_.readers() == 1; }));
  ASSERT_TRUE(runUntil([&] { return progress_.size() == 3; }));
  EXPECT_EQ(progress_.back(), readerName(2) + "@7");  // the new hello tells what it has applied
  EXPECT_EQ(reader.disconnects, 1);
}

TEST_F(WriterNudgeSmTest, AReaderThatLeavesIsReportedGoneFromTheLoop) {
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  join(reader);
  sleepAt(reader, 0);
  reader.nudge.onDetach();
  ASSERT_TRUE(runUntil([&] { return writer_.readers() == 0; }));
  EXPECT_EQ(writer_.sleepingReaders(), 0u);
  ASSERT_TRUE(runUntil([&] { return gone_.size() == 1; }));
  EXPECT_EQ(gone_, std::vector<std::string>{readerName(1)});
  EXPECT_EQ(reader.disconnects, 0);  // its own detach calls no hook
}

TEST_F(WriterNudgeSmTest, AConnectionThatClosesBeforeItsHelloIsNoReader) {
  writer_.doEnableListen(path_);
  {
    RawPeer peer;
    ASSERT_TRUE(peer.connect(path_));
    writer_.notify(1);
  }
  TestReader reader(handler_, loop_);
  join(reader);  // served after the silent one has come and gone
  EXPECT_EQ(writer_.readers(), 1u);
  EXPECT_TRUE(gone_.empty());
}

TEST_F(WriterNudgeSmTest, WakesHeldWhileNotNotifyingArePassedOnWhenItResumes) {
  writer_.doEnableListen(path_);
  TestReader reader(handler_, loop_);
  join(reader);
  reader.nudge.notifyingIs(false);
  EXPECT_FALSE(reader.nudge.notifying());
  sleepAt(reader, 0);
  writer_.notify(4);
  ASSERT_TRUE(runUntil([&] { return reader.nudge.wakes() == 1; }));
  EXPECT_TRUE(reader.woken.empty());
  reader.nudge.notifyingIs(true);
  EXPECT_TRUE(reader.woken.empty());  // passed on from the loop
  ASSERT_TRUE(runUntil([&] { return reader.woken.size() == 1; }));
  EXPECT_EQ(reader.woken, std::vector<uint64_t>{4});
}

TEST_F(WriterNudgeSmTest, AReaderThatNeverReadsIsDroppedAndNeverHoldsUpNotify) {
  // Should a send ever block, the alarm ends the test program instead of
  // hanging it.
  ::alarm(60);
  writer_.doEnableListen(path_);
  TestReader good(handler_, loop_);
  join(good);
  RawPeer deaf;  // says hello and sleeps, again and again, and never reads
  ASSERT_TRUE(deaf.connect(path_));
  ASSERT_TRUE(deaf.send(Nudge::Kind::Hello, writer_.tableId(), 0));
  ASSERT_TRUE(runUntil([&] { return writer_.readers() == 2; }));

  TestSupport::TraceCapture capture;
  uint64_t sequence = 0;
  bool goneInsideNotify = false;
  for (; sequence < 100000 && writer_.readers() == 2; ++sequence) {
    ASSERT_TRUE(deaf.send(Nudge::Kind::Sleep, writer_.tableId(), sequence));
    ASSERT_TRUE(runUntil([&] { return writer_.sleepingReaders() == 1; }));
    writer_.notify(sequence + 1);
    goneInsideNotify = goneInsideNotify || !gone_.empty();
  }
  ::alarm(0);
  ASSERT_EQ(writer_.readers(), 1u) << "the deaf reader's socket never filled";
  EXPECT_FALSE(goneInsideNotify);  // hooks run from the loop, not inside notify
  EXPECT_EQ(capture.lines(),
            std::vector<std::string>{fmt::format("L0 WriterNudgeSm::notify() tableId:{} dropping reader:{} that does "
                                                 "not read: socket buffer full",
                                                 writer_.tableId(), readerName(2))});
  ASSERT_TRUE(runUntil([&] { return gone_.size() == 1; }));
  EXPECT_EQ(gone_, std::vector<std::string>{readerName(2)});
  EXPECT_TRUE(deaf.closedByPeer());

  // The one that reads is served as before.
  sleepAt(good, sequence);
  writer_.notify(sequence + 1);
  ASSERT_TRUE(runUntil([&] { return good.woken.size() == 1; }));
  EXPECT_EQ(good.woken, std::vector<uint64_t>{sequence + 1});
}

}  // namespace

// The process's one socket for all its tables: readers name their table in
// the hello, the doorbell hands them to that table's WriterNudgeSm. The
// doorbell lives on the process loop, so these tests run that loop.

#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Loop/EventLoop.h"
#include "Nudge/DoorbellAcceptSm.h"
#include "Nudge/ReaderNudgeSm.h"
#include "Nudge/WriterNudgeSm.h"
#include "Support/TraceCapture.h"
#include "NudgeTesting.h"

namespace {

using NudgeTesting::Deadline;
using NudgeTesting::exitStatus;
using NudgeTesting::forkChild;
using NudgeTesting::RawPeer;

class DoorbellAcceptSmTest : public ::testing::Test {
 protected:
  DoorbellAcceptSmTest() { handler_.maskIs(1); }

  bool runUntil(const std::function<bool()> & done) { return loop_.runUntil(done, Deadline); }
  // Runs until the doorbell has no connection waiting for its hello.
  bool settled() { return runUntil([this] { return doorbell_.waitingConnections() == 0; }); }

  Basalt::Platform::DebugHandler handler_{"DoorbellTest"};
  Loop::EventLoop & loop_ = Loop::processLoop();
  Nudge::DoorbellAcceptSm & doorbell_ = Nudge::doorbellAcceptSm();
};

TEST_F(DoorbellAcceptSmTest, IsOneProcessWideSocketInTheAbstractNamespace) {
  EXPECT_EQ(&Nudge::doorbellAcceptSm(), &doorbell_);
  EXPECT_EQ(Nudge::existingDoorbellAcceptSm(), &doorbell_);
  EXPECT_EQ(doorbell_.socketName().rfind("tessel-doorbell-", 0), 0u) << doorbell_.socketName();
  EXPECT_EQ(doorbell_.socketName().size(), std::string("tessel-doorbell--").size() + 16 + std::to_string(::getpid()).size())
      << "16 hex digits of random part: " << doorbell_.socketName();
  EXPECT_EQ(doorbell_.socketName().find('/'), std::string::npos) << "abstract";
  EXPECT_EQ(Arena::WriterLock::pidOfSocketName(doorbell_.socketName()), ::getpid());
}

TEST_F(DoorbellAcceptSmTest, HandsEachReaderToTheTableItNames) {
  Nudge::WriterNudgeSm first(handler_, loop_);
  Nudge::WriterNudgeSm second(handler_, loop_);
  first.doEnableListen(doorbell_.socketName());
  second.doEnableListen(doorbell_.socketName());
  EXPECT_EQ(first.socketName(), doorbell_.socketName());
  EXPECT_EQ(doorbell_.tables(), 2u);

  Nudge::ReaderNudgeSm readerOfFirst(handler_, loop_);
  Nudge::ReaderNudgeSm readerOfSecond(handler_, loop_);
  std::vector<uint64_t> wokenFirst;
  std::vector<uint64_t> wokenSecond;
  readerOfFirst.wakeHookIs([&](uint64_t sequence) { wokenFirst.push_back(sequence); });
  readerOfSecond.wakeHookIs([&](uint64_t sequence) { wokenSecond.push_back(sequence); });
  ASSERT_TRUE(readerOfFirst.connect(doorbell_.socketName(), first.tableId()));
  ASSERT_TRUE(readerOfSecond.connect(doorbell_.socketName(), second.tableId()));
  readerOfFirst.appliedIs(0);  // sent at once after the hello: the table reads it
  readerOfSecond.appliedIs(0);
  ASSERT_TRUE(runUntil([&] { return first.sleepingReaders() == 1 && second.sleepingReaders() == 1; }));
  EXPECT_EQ(first.readers(), 1u);
  EXPECT_EQ(second.readers(), 1u);
  EXPECT_EQ(doorbell_.waitingConnections(), 0u);

  second.notify(9);
  ASSERT_TRUE(runUntil([&] { return wokenSecond.size() == 1; }));
  EXPECT_EQ(wokenSecond, std::vector<uint64_t>{9});
  EXPECT_TRUE(wokenFirst.empty());
  EXPECT_EQ(first.nudges(), 0u);
  EXPECT_EQ(second.nudges(), 1u);

  // A table that detaches leaves the doorbell, which stays for the others.
  second.onDetach();
  EXPECT_EQ(doorbell_.tables(), 1u);
  first.notify(1);
  ASSERT_TRUE(runUntil([&] { return wokenFirst.size() == 1; }));
}

TEST_F(DoorbellAcceptSmTest, AReaderInAChildIsWokenThroughTheDoorbell) {
  Nudge::WriterNudgeSm writer(handler_, loop_);
  writer.doEnableListen(doorbell_.socketName());
  const std::string name = doorbell_.socketName();
  const uint32_t tableId = writer.tableId();
  const pid_t child = forkChild([&] {
    Basalt::Platform::DebugHandler handler("child");
    Loop::UvEventLoop loop;
    Nudge::ReaderNudgeSm reader(handler, loop);
    uint64_t woken = 0;
    reader.wakeHookIs([&](uint64_t sequence) { woken = sequence; });
    if (!reader.connect(name, tableId)) {
      return 1;
    }
    reader.appliedIs(2);
    if (!loop.runUntil([&] { return woken != 0; }, Deadline)) {
      return 2;
    }
    return woken == 3 ? 0 : 3;
  });
  ASSERT_GT(child, 0);
  ASSERT_TRUE(runUntil([&] { return writer.sleepingReaders() == 1; }));
  writer.notify(3);
  ASSERT_TRUE(runUntil([&] { return writer.readers() == 0; }));
  EXPECT_EQ(exitStatus(child), 0);
}

TEST_F(DoorbellAcceptSmTest, AReaderOfAnUnknownTableIsRejectedAndSeesTheConnectionClose) {
  Nudge::WriterNudgeSm writer(handler_, loop_);  // a table id nobody registered
  Nudge::ReaderNudgeSm reader(handler_, loop_);
  int disconnects = 0;
  reader.disconnectHookIs([&] { ++disconnects; });
  TestSupport::TraceCapture capture;
  ASSERT_TRUE(reader.connect(doorbell_.socketName(), writer.tableId()));
  ASSERT_TRUE(runUntil([&] { return disconnects == 1; }));
  EXPECT_TRUE(settled());
  ASSERT_FALSE(capture.lines().empty());
  EXPECT_EQ(capture.lines().front(),
            fmt::format("L0 DoorbellAcceptSm::readHello() {} rejected connection: no table with tableId:{}",
                        doorbell_.socketName(), writer.tableId()));
}

TEST_F(DoorbellAcceptSmTest, ADetachedTablesReadersAreRejected) {
  Nudge::WriterNudgeSm writer(handler_, loop_);
  writer.doEnableListen(doorbell_.socketName());
  writer.onDetach();
  TestSupport::TraceCapture capture;
  RawPeer peer;
  ASSERT_TRUE(peer.connect(doorbell_.socketName()));
  ASSERT_TRUE(peer.send(Nudge::Kind::Hello, writer.tableId(), 0));
  ASSERT_TRUE(runUntil([&] { return peer.closedByPeer(); }));
  EXPECT_EQ(capture.lines(), std::vector<std::string>{fmt::format(
                                 "L0 DoorbellAcceptSm::readHello() {} rejected connection: no table with tableId:{}",
                                 doorbell_.socketName(), writer.tableId())});
}

TEST_F(DoorbellAcceptSmTest, AFirstMessageThatIsNoHelloIsRejected) {
  Nudge::WriterNudgeSm writer(handler_, loop_);
  writer.doEnableListen(doorbell_.socketName());
  const std::vector<std::pair<std::function<void(RawPeer &)>, std::string>> cases{
      {[&](RawPeer & peer) { peer.send(Nudge::Kind::Sleep, writer.tableId(), 0); }, "a sleep before the hello"},
      {[&](RawPeer & peer) { peer.send(Nudge::Kind::Wake, writer.tableId(), 0); }, "a wake before the hello"},
      {[&](RawPeer & peer) { peer.sendBytes("hello", 5); }, "a record of 5 bytes, not 24"},
      {[&](RawPeer & peer) {
         auto message = Nudge::makeMessage(Nudge::Kind::Hello, writer.tableId(), 0);
         message.version = 7;
         peer.sendRaw(message);
       },
       "unknown version:7"},
  };
  for (const auto & [send, problem] : cases) {
    TestSupport::TraceCapture capture;
    RawPeer peer;
    ASSERT_TRUE(peer.connect(doorbell_.socketName()));
    send(peer);
    ASSERT_TRUE(runUntil([&] { return peer.closedByPeer(); })) << problem;
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{fmt::format("L0 DoorbellAcceptSm::readHello() {} rejected connection: {}",
                                                   doorbell_.socketName(), problem)});
  }
  EXPECT_TRUE(settled());
  EXPECT_EQ(writer.readers(), 0u);
}

TEST_F(DoorbellAcceptSmTest, AConnectionThatClosesBeforeItsHelloIsForgotten) {
  {
    RawPeer peer;
    ASSERT_TRUE(peer.connect(doorbell_.socketName()));
    ASSERT_TRUE(runUntil([&] { return doorbell_.waitingConnections() == 1; }));
  }
  EXPECT_TRUE(settled());
}

}  // namespace

// Peers that break the protocol: each bad message is refused with one level
// 0 trace and the end of its connection, and the side that got it goes on
// serving others. Both directions: a bad reader to a writer, a bad writer to
// a reader.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Nudge/NudgeFormat.h"
#include "Nudge/ReaderNudgeSm.h"
#include "Nudge/WriterNudgeSm.h"
#include "Support/TraceCapture.h"
#include "NudgeTesting.h"

namespace {

using NudgeTesting::NudgeTest;
using NudgeTesting::RawPeer;
using NudgeTesting::readerName;

// What a bad peer sends: well-formed messages before the bad one, then the
// bad one as raw bytes, and the problem the receiver must name.
struct BadInput {
  const char * name;
  std::vector<Nudge::Kind> before;
  std::vector<unsigned char> bytes;
  std::string problem;
};

std::vector<unsigned char> bytesOf(const Nudge::Message & message) {
  std::vector<unsigned char> bytes(sizeof(message));
  std::memcpy(bytes.data(), &message, sizeof(message));
  return bytes;
}

// A message of `kind` with one field spoiled by `spoil`. Its table id is
// relative to the table under test: forTable adds that table's id.
template <typename Spoil>
std::vector<unsigned char> spoiled(Nudge::Kind kind, Spoil spoil) {
  Nudge::Message message = Nudge::makeMessage(kind, 0, 0);
  spoil(message);
  return bytesOf(message);
}

// ---------------------------------------------------------------- reader to writer

class BadReaderTest : public NudgeTest, public ::testing::WithParamInterface<BadInput> {
 protected:
  BadReaderTest() {
    writer_.doEnableListen(path_);
    writer_.goneHookIs([this](const std::string & reader) { gone_.push_back(reader); });
  }

  std::string path_ = socketPath("nudge");
  Nudge::WriterNudgeSm writer_{handler_, loop_};
  std::vector<std::string> gone_;
};

// Table ids in the inputs are relative: this adds the id of the table
// under test to the id of a whole message.
std::vector<unsigned char> forTable(std::vector<unsigned char> bytes, uint32_t tableId) {
  if (bytes.size() == sizeof(Nudge::Message)) {
    Nudge::Message message;
    std::memcpy(&message, bytes.data(), sizeof(message));
    message.tableId += tableId;
    bytes = bytesOf(message);
  }
  return bytes;
}

TEST_P(BadReaderTest, IsRejectedWithALevelZeroTraceAndClosed) {
  const BadInput & input = GetParam();
  RawPeer peer;
  ASSERT_TRUE(peer.connect(path_));
  for (Nudge::Kind kind : input.before) {
    ASSERT_TRUE(peer.send(kind, writer_.tableId(), 0));
  }
  const auto bytes = forTable(input.bytes, writer_.tableId());
  TestSupport::TraceCapture capture;
  ASSERT_TRUE(peer.sendBytes(bytes.data(), bytes.size()));
  ASSERT_TRUE(runUntil([&] { return peer.closedByPeer(); }));
  std::string problem = input.problem;
  if (const auto at = problem.find("{}"); at != std::string::npos) {
    problem.replace(at, 2, std::to_string(writer_.tableId() + 1000));
  }
  EXPECT_EQ(capture.lines(), std::vector<std::string>{fmt::format(
                                 "L0 WriterNudgeSm::handleMessage() tableId:{} reader:{} rejected: {}",
                                 writer_.tableId(), readerName(1), problem)});
  EXPECT_EQ(writer_.readers(), 0u);
  const bool greeted = !input.before.empty();
  ASSERT_TRUE(runUntil([&] { return gone_.size() == (greeted ? 1u : 0u); }));

  // The writer goes on serving readers that keep to the protocol.
  Nudge::ReaderNudgeSm good(handler_, loop_);
  uint64_t woken = 0;
  good.wakeHookIs([&](uint64_t sequence) { woken = sequence; });
  ASSERT_TRUE(good.connect(path_, writer_.tableId()));
  good.appliedIs(0);
  ASSERT_TRUE(runUntil([&] { return writer_.sleepingReaders() == 1; }));
  writer_.notify(1);
  ASSERT_TRUE(runUntil([&] { return woken == 1; }));
}

const std::vector<unsigned char> FiveBytes{1, 2, 3, 4, 5};
const std::vector<unsigned char> FortyBytes(40, 0);

INSTANTIATE_TEST_SUITE_P(
    Messages, BadReaderTest,
    ::testing::Values(
        BadInput{"ShortRecord", {}, FiveBytes, "a record of 5 bytes, not 24"},
        BadInput{"LongRecord", {}, FortyBytes, "a record longer than 24 bytes"},
        BadInput{"BadMagic", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.magic = 0x12345678; }),
                 "bad magic:0x12345678"},
        BadInput{"BadVersion", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.version = 2; }),
                 "unknown version:2"},
        BadInput{"UnknownKind", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.kind = 9; }), "unknown kind:9"},
        BadInput{"ZeroKind", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.kind = 0; }), "unknown kind:0"},
        BadInput{"Reserved", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.reserved = 1; }),
                 "reserved:1 is not 0"},
        BadInput{"HelloForAnotherTable", {}, spoiled(Nudge::Kind::Hello, [](auto & m) { m.tableId = 1000; }),
                 "hello for tableId:{}"},
        BadInput{"WakeFromAReader", {}, spoiled(Nudge::Kind::Wake, [](auto &) {}), "a wake from a reader"},
        BadInput{"SleepBeforeHello", {}, spoiled(Nudge::Kind::Sleep, [](auto &) {}), "a sleep before the hello"},
        BadInput{"SecondHello", {Nudge::Kind::Hello}, spoiled(Nudge::Kind::Hello, [](auto &) {}),
                 "a second hello"},
        BadInput{"SleepForAnotherTable",
                 {Nudge::Kind::Hello},
                 spoiled(Nudge::Kind::Sleep, [](auto & m) { m.tableId = 1000; }),
                 "sleep for tableId:{}"},
        BadInput{"ShortRecordAfterHello", {Nudge::Kind::Hello}, FiveBytes, "a record of 5 bytes, not 24"}),
    [](const ::testing::TestParamInfo<BadInput> & info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- writer to reader

class BadWriterTest : public NudgeTest, public ::testing::WithParamInterface<BadInput> {
 protected:
  BadWriterTest() {
    std::string error;
    EXPECT_TRUE(fake_.listenOn(path_, error)) << error;
    reader_.disconnectHookIs([this] { ++disconnects_; });
    reader_.wakeHookIs([this](uint64_t) { ++wakes_; });
  }

  static constexpr uint32_t TableId = 77;
  std::string path_ = socketPath("nudge");
  Nudge::Listener fake_;  // a writer that speaks the protocol by hand
  Nudge::ReaderNudgeSm reader_{handler_, loop_};
  int disconnects_ = 0;
  int wakes_ = 0;
};

TEST_P(BadWriterTest, IsRejectedWithALevelZeroTraceAndClosed) {
  const BadInput & input = GetParam();
  ASSERT_TRUE(reader_.connect(path_, TableId));
  RawPeer writer(fake_.accept());
  ASSERT_TRUE(writer.socket());
  Nudge::Message hello{};
  ASSERT_EQ(writer.receive(hello), Nudge::ReceiveResult::Received);
  EXPECT_EQ(hello.kind, static_cast<uint16_t>(Nudge::Kind::Hello));
  EXPECT_EQ(hello.tableId, TableId);
  reader_.appliedIs(3);

  TestSupport::TraceCapture capture;
  const auto bytes = forTable(input.bytes, TableId);
  ASSERT_TRUE(writer.sendBytes(bytes.data(), bytes.size()));
  ASSERT_TRUE(runUntil([&] { return disconnects_ == 1; }));
  EXPECT_FALSE(reader_.connected());
  EXPECT_EQ(wakes_, 0);
  std::string problem = input.problem;
  if (const auto at = problem.find("{}"); at != std::string::npos) {
    problem.replace(at, 2, std::to_string(TableId + 1000));
  }
  EXPECT_EQ(capture.lines(), std::vector<std::string>{fmt::format(
                                 "L0 ReaderNudgeSm::readWakes() tableId:{} connection to {} lost: rejected: {}",
                                 TableId, path_, problem)});
  EXPECT_TRUE(writer.closedByPeer());
}

INSTANTIATE_TEST_SUITE_P(
    Messages, BadWriterTest,
    ::testing::Values(
        BadInput{"ShortRecord", {}, std::vector<unsigned char>{1, 2, 3}, "a record of 3 bytes, not 24"},
        BadInput{"LongRecord", {}, FortyBytes, "a record longer than 24 bytes"},
        BadInput{"BadMagic", {}, spoiled(Nudge::Kind::Wake, [](auto & m) { m.magic = 0; }),
                 "bad magic:0x00000000"},
        BadInput{"HelloFromTheWriter", {}, spoiled(Nudge::Kind::Hello, [](auto &) {}), "a hello from the writer"},
        BadInput{"SleepFromTheWriter", {}, spoiled(Nudge::Kind::Sleep, [](auto &) {}), "a sleep from the writer"},
        BadInput{"WakeForAnotherTable", {}, spoiled(Nudge::Kind::Wake, [](auto & m) { m.tableId = 1000; }),
                 "a wake for tableId:{}"}),
    [](const ::testing::TestParamInfo<BadInput> & info) { return std::string(info.param.name); });

TEST_F(NudgeTest, AReaderSeesAWriterThatClosesAtOnceAsADisconnect) {
  Nudge::Listener fake;
  std::string error;
  const std::string path = socketPath("nudge");
  ASSERT_TRUE(fake.listenOn(path, error)) << error;
  Nudge::ReaderNudgeSm reader(handler_, loop_);
  int disconnects = 0;
  reader.disconnectHookIs([&] { ++disconnects; });
  ASSERT_TRUE(reader.connect(path, 1));
  fake.accept().close();
  ASSERT_TRUE(runUntil([&] { return disconnects == 1; }));
  EXPECT_FALSE(reader.connected());
}

}  // namespace

// The message layout and the socket layer under the wake-up classes: names
// in both namespaces, refused names, one record per message, and what a
// receiver sees of short, long and missing records.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Nudge/NudgeFormat.h"
#include "Nudge/Socket.h"
#include "NudgeTesting.h"

namespace {

using NudgeTesting::RawPeer;

bool exists(const std::string & path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

TEST(NudgeFormatTest, AMessageIsTwentyFourBytesWithItsFieldsInPlace) {
  const Nudge::Message message = Nudge::makeMessage(Nudge::Kind::Sleep, 5, 0x1122334455667788);
  unsigned char bytes[sizeof(message)];
  std::memcpy(bytes, &message, sizeof(message));
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(bytes), 4), "NUDG");
  EXPECT_EQ(bytes[4], 1);   // version
  EXPECT_EQ(bytes[6], 2);   // kind: sleep
  EXPECT_EQ(bytes[8], 5);   // tableId
  EXPECT_EQ(bytes[12], 0);  // reserved
  EXPECT_EQ(bytes[16], 0x88);
  EXPECT_EQ(bytes[23], 0x11);
  EXPECT_EQ(Nudge::layoutProblem(message), "");
}

TEST(NudgeFormatTest, KindsHaveTheirWords) {
  EXPECT_EQ(Nudge::kindText(1), "hello");
  EXPECT_EQ(Nudge::kindText(2), "sleep");
  EXPECT_EQ(Nudge::kindText(3), "wake");
  EXPECT_EQ(Nudge::kindText(4), "kind:4");
}

class SocketTest : public ::testing::Test {
 protected:
  TestSupport::TempDir temp_;
  std::string path_ = temp_.path() + "/socket";
};

TEST_F(SocketTest, AFileNameListensAndCloseRemovesTheFile) {
  Nudge::Listener listener;
  std::string error;
  ASSERT_TRUE(listener.listenOn(path_, error)) << error;
  EXPECT_TRUE(exists(path_));
  RawPeer peer;
  ASSERT_TRUE(peer.connect(path_));
  Nudge::Socket accepted = listener.accept();
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted.peerPid(), ::getpid());
  EXPECT_FALSE(listener.accept());  // nobody else waits
  listener.close();
  EXPECT_FALSE(exists(path_));
}

TEST_F(SocketTest, CloseLeavesAFileThatAnotherListenerHasTakenOver) {
  Nudge::Listener first;
  std::string error;
  ASSERT_TRUE(first.listenOn(path_, error)) << error;
  ::unlink(path_.c_str());  // as if the first were thought dead and its file cleaned
  Nudge::Listener second;
  ASSERT_TRUE(second.listenOn(path_, error)) << error;
  first.close();
  EXPECT_TRUE(exists(path_));
  RawPeer peer;
  EXPECT_TRUE(peer.connect(path_));
}

TEST_F(SocketTest, BadNamesAreRefusedWithTheReason) {
  Nudge::Listener listener;
  std::string error;
  EXPECT_FALSE(listener.listenOn("", error));
  EXPECT_EQ(error, "empty socket name");
  EXPECT_FALSE(listener.listenOn(std::string(108, 'x'), error));
  EXPECT_EQ(error, "socket name longer than 107 bytes");
  EXPECT_FALSE(listener.listenOn(std::string("a\0b", 3), error));
  EXPECT_EQ(error, "socket name holds a NUL byte");
  EXPECT_FALSE(listener);
}

// The abstract namespace checks no permission: a name that another socket
// holds is given up for the next fresh one.
TEST_F(SocketTest, ListenOnFreePassesOverTakenNames) {
  const std::string stem = "tessel-socket-test-" + std::to_string(::getpid());
  Nudge::Listener first;
  Nudge::Listener second;
  std::string error;
  ASSERT_TRUE(first.listenOn(stem + "-a", error)) << error;
  ASSERT_TRUE(second.listenOn(stem + "-b", error)) << error;
  const char * renewals[] = {"-b", "-c"};
  int made = 0;
  std::string name = stem + "-a";
  Nudge::Listener listener;
  ASSERT_TRUE(listener.listenOnFree(name, [&] { return stem + renewals[made++]; }, 2, error)) << error;
  EXPECT_EQ(name, stem + "-c");
  EXPECT_EQ(made, 2);
  EXPECT_TRUE(Nudge::connectTo(stem + "-c", error)) << error;

  name = stem + "-a";
  Nudge::Listener refused;
  EXPECT_FALSE(refused.listenOnFree(name, [&] { return stem + "-b"; }, 1, error));
  EXPECT_EQ(error, "a live socket listens on it") << "after its renewals, it gives up";
  EXPECT_FALSE(refused);
  name = "";
  EXPECT_FALSE(refused.listenOnFree(name, [&] { return stem + "-d"; }, 3, error));
  EXPECT_EQ(error, "empty socket name") << "only a taken name is renewed";
}

TEST_F(SocketTest, TheLongestNamesFitInBothNamespaces) {
  std::string error;
  const std::string abstract = fmt::format("tessel-longest-{}-", ::getpid()) + std::string(107, 'a');
  const std::string longest = abstract.substr(0, 107);
  Nudge::Listener listener;
  ASSERT_TRUE(listener.listenOn(longest, error)) << error;
  EXPECT_TRUE(RawPeer().connect(longest));
  EXPECT_FALSE(RawPeer().connect(longest.substr(0, 106)));  // names are exact
  EXPECT_FALSE(exists(longest));  // abstract: no file, here or anywhere

  std::string path = temp_.path() + "/";
  path += std::string(107 - path.size(), 'p');
  Nudge::Listener file;
  ASSERT_TRUE(file.listenOn(path, error)) << error;
  EXPECT_TRUE(RawPeer().connect(path));
}

TEST_F(SocketTest, ConnectingToNobodyFailsAtOnceWithTheReason) {
  std::string error;
  EXPECT_FALSE(Nudge::connectTo(path_, error));
  EXPECT_EQ(error, "connect: No such file or directory");
  EXPECT_FALSE(Nudge::connectTo(fmt::format("tessel-nobody-{}", ::getpid()), error));
  EXPECT_EQ(error, "connect: Connection refused");
}

TEST_F(SocketTest, EachMessageIsOneRecordAndBadRecordsAreNamed) {
  Nudge::Listener listener;
  std::string error;
  ASSERT_TRUE(listener.listenOn(path_, error)) << error;
  RawPeer sender;
  ASSERT_TRUE(sender.connect(path_));
  Nudge::Socket receiver = listener.accept();
  Nudge::Message message{};

  EXPECT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Empty);
  ASSERT_TRUE(sender.send(Nudge::Kind::Hello, 1, 10));
  ASSERT_TRUE(sender.send(Nudge::Kind::Sleep, 1, 11));
  ASSERT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Received);
  EXPECT_EQ(message.sequence, 10u);
  ASSERT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Received);
  EXPECT_EQ(message.sequence, 11u);

  ASSERT_TRUE(sender.sendBytes("abc", 3));
  EXPECT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Malformed);
  EXPECT_EQ(error, "a record of 3 bytes, not 24");
  const std::string longer(25, 'z');
  ASSERT_TRUE(sender.sendBytes(longer.data(), longer.size()));
  EXPECT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Malformed);
  EXPECT_EQ(error, "a record longer than 24 bytes");

  sender.close();
  EXPECT_EQ(Nudge::receiveMessage(receiver, message, error), Nudge::ReceiveResult::Closed);
  EXPECT_EQ(error, "connection closed");
  EXPECT_EQ(Nudge::sendMessage(receiver, Nudge::makeMessage(Nudge::Kind::Wake, 1, 1), error),
            Nudge::SendResult::Broken);
  EXPECT_EQ(error, "send: Broken pipe");
}

TEST_F(SocketTest, ASendToAPeerThatDoesntReadFailsAtOnceWhenItsQueueIsFull) {
  Nudge::Listener listener;
  std::string error;
  ASSERT_TRUE(listener.listenOn(path_, error)) << error;
  RawPeer deaf;
  ASSERT_TRUE(deaf.connect(path_));
  Nudge::Socket sender = listener.accept();
  const Nudge::Message message = Nudge::makeMessage(Nudge::Kind::Wake, 1, 1);
  int sent = 0;
  Nudge::SendResult result = Nudge::SendResult::Sent;
  while (sent < 1000000 && (result = Nudge::sendMessage(sender, message, error)) == Nudge::SendResult::Sent) {
    ++sent;
  }
  EXPECT_EQ(result, Nudge::SendResult::Full);
  EXPECT_EQ(error, "socket buffer full");
  EXPECT_GT(sent, 0);
}

}  // namespace

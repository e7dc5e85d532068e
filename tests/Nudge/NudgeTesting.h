#pragma once
// Shared pieces of the wake-up socket tests. Nothing here measures time:
// a test runs its loop until what it waits for has happened, under a
// deadline long enough never to matter unless the test is broken, and then
// it fails instead of hanging.

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/DebugHandler.h"
#include "Loop/UvEventLoop.h"
#include "Nudge/NudgeFormat.h"
#include "Nudge/Socket.h"
#include "Support/TempDir.h"

namespace NudgeTesting {

using namespace std::chrono_literals;

constexpr Loop::EventLoop::Duration Deadline = 20s;

// The name WriterNudgeSm gives the n-th connection it takes from this process.
inline std::string readerName(uint64_t serial) { return fmt::format("{}.{}", ::getpid(), serial); }

// A peer that speaks the protocol by hand, or breaks it: a plain connected
// socket.
class RawPeer {
 public:
  RawPeer() = default;
  explicit RawPeer(Nudge::Socket socket) : socket_(std::move(socket)) {}

  bool connect(const std::string & name) {
    std::string error;
    socket_ = Nudge::connectTo(name, error);
    return static_cast<bool>(socket_);
  }
  bool send(Nudge::Kind kind, uint32_t tableId, uint64_t sequence) {
    return sendRaw(Nudge::makeMessage(kind, tableId, sequence));
  }
  bool sendRaw(const Nudge::Message & message) { return sendBytes(&message, sizeof(message)); }
  bool sendBytes(const void * bytes, std::size_t size) {
    return ::send(socket_.fd(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
  }
  Nudge::ReceiveResult receive(Nudge::Message & message) {
    std::string error;
    return Nudge::receiveMessage(socket_, message, error);
  }
  // True once the other end has closed the connection: what is left to read
  // is read and dropped first.
  bool closedByPeer() {
    Nudge::Message message{};
    Nudge::ReceiveResult result;
    while ((result = receive(message)) == Nudge::ReceiveResult::Received) {
    }
    return result == Nudge::ReceiveResult::Closed;
  }
  const Nudge::Socket & socket() const { return socket_; }
  void close() { socket_.close(); }

 private:
  Nudge::Socket socket_;
};

// Runs `child` in a forked process and returns the child's pid. The child
// reports by its exit status and leaves by _exit, so that nothing of the
// parent's test runs twice; it makes its own loop and never touches the
// parent's.
inline pid_t forkChild(const std::function<int()> & child) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(child());
  }
  return pid;
}

// Waits for the child: its exit status, or -1 if it did not exit normally.
inline int exitStatus(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

class NudgeTest : public ::testing::Test {
 protected:
  NudgeTest() { handler_.maskIs(1); }

  bool runUntil(const std::function<bool()> & done) { return loop_.runUntil(done, Deadline); }
  std::string socketPath(const std::string & name) const { return temp_.path() + "/" + name; }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"NudgeTest"};
  Loop::UvEventLoop loop_;
};

}  // namespace NudgeTesting

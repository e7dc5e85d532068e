#include "Nudge/ReaderNudgeSm.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Nudge/NudgeFormat.h"

namespace Nudge {

namespace {

constexpr const char * SourceName = "Nudge/ReaderNudgeSm";

// At most this many records per callback (a writer sends one wake per sleep,
// so more means a broken peer); the rest wait for the next iteration.
constexpr int RecordsPerCallback = 16;

}  // namespace

ReaderNudgeSm::ReaderNudgeSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop)
    : Basalt::Debuggable(handler), loop_(&loop) {}

// ---------------------------------------------------------------- connecting

bool ReaderNudgeSm::connect(const std::string & socketName, uint32_t tableId) {
  onDetach();
  socketName_ = socketName;
  tableId_ = tableId;
  return reconnect();
}

bool ReaderNudgeSm::reconnect() {
  BASALT_ASSERT(!socketName_.empty(), SourceName, "ReaderNudgeSm::reconnect() no socket name to connect to");
  onDetach();
  std::string error;
  Socket socket = connectTo(socketName_, error);
  if (socket && sendMessage(socket, makeMessage(Kind::Hello, tableId_, applied_), error) != SendResult::Sent) {
    socket.close();
  }
  if (!socket) {
    BASALT_TRACE(debugHandler(), 0, "ReaderNudgeSm::connect() tableId:{} cannot connect to {}: {}", tableId_,
                 socketName_, error);
    return false;
  }
  socket_ = std::move(socket);
  watch_ = loop_->watchReadable(socket_.fd(), [this] { readWakes(); });
  BASALT_TRACE(debugHandler(), 2, "ReaderNudgeSm::connect() tableId:{} connected to {} applied:{}", tableId_,
               socketName_, applied_);
  return true;
}

void ReaderNudgeSm::onDetach() {
  disconnectCall_.cancel();
  wakeCall_.cancel();
  wakeHeld_ = false;
  close();
}

void ReaderNudgeSm::close() {
  watch_.cancel();
  socket_.close();
  sleeping_ = false;
  ++generation_;
}

// Closes the connection and calls the disconnect hook soon.
void ReaderNudgeSm::lose(unsigned level, const char * method, const std::string & why) {
  BASALT_TRACE(debugHandler(), level, "ReaderNudgeSm::{}() tableId:{} connection to {} lost: {}", method, tableId_,
               socketName_, why);
  close();
  disconnectCall_ = loop_->runSoon([this] {
    if (disconnectHook_) {
      disconnectHook_();
    }
  });
}

// ---------------------------------------------------------------- sleeping

void ReaderNudgeSm::appliedIs(uint64_t sequence) {
  applied_ = sequence;
  if (!connected()) {
    return;
  }
  std::string error;
  if (sendMessage(socket_, makeMessage(Kind::Sleep, tableId_, sequence), error) != SendResult::Sent) {
    lose(0, "appliedIs", error);
    return;
  }
  sleeping_ = true;
  BASALT_TRACE(debugHandler(), 7, "ReaderNudgeSm::appliedIs() tableId:{} sleeps, applied:{}", tableId_, sequence);
}

void ReaderNudgeSm::notifyingIs(bool notifying) {
  notifying_ = notifying;
  if (notifying_ && wakeHeld_) {
    wakeHeld_ = false;
    wakeCall_ = loop_->runSoon([this] {
      if (wakeHook_) {
        wakeHook_(latest_);
      }
    });
  }
}

// ---------------------------------------------------------------- waking

void ReaderNudgeSm::readWakes() {
  const uint64_t generation = generation_;
  for (int i = 0; i < RecordsPerCallback && generation == generation_; ++i) {
    Message message{};
    std::string error;
    switch (receiveMessage(socket_, message, error)) {
      case ReceiveResult::Received:
        if (!handleMessage(message)) {
          return;
        }
        break;
      case ReceiveResult::Empty:
        return;
      case ReceiveResult::Closed:
        lose(1, "readWakes", error);
        return;
      case ReceiveResult::Malformed:
        lose(0, "readWakes", fmt::format("rejected: {}", error));
        return;
    }
  }
}

// Passes a wake on; false if the message ended the connection. The wake
// hook may close or reconnect: readWakes notices by the generation.
bool ReaderNudgeSm::handleMessage(const Message & message) {
  std::string problem = layoutProblem(message);
  if (problem.empty() && message.kind != static_cast<uint16_t>(Kind::Wake)) {
    problem = fmt::format("a {} from the writer", kindText(message.kind));
  }
  if (problem.empty() && message.tableId != tableId_) {
    problem = fmt::format("a wake for tableId:{}", message.tableId);
  }
  if (!problem.empty()) {
    lose(0, "readWakes", fmt::format("rejected: {}", problem));
    return false;
  }
  sleeping_ = false;
  latest_ = message.sequence;
  ++wakes_;
  BASALT_TRACE(debugHandler(), 7, "ReaderNudgeSm::readWakes() tableId:{} woken, sequence:{}", tableId_, latest_);
  if (!notifying_) {
    wakeHeld_ = true;
  } else if (wakeHook_) {
    wakeHook_(latest_);
  }
  return true;
}

}  // namespace Nudge

#include "Nudge/WriterNudgeSm.h"

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Nudge/DoorbellAcceptSm.h"

namespace Nudge {

namespace {

constexpr const char * SourceName = "Nudge/WriterNudgeSm";

// At most this many records or connections are taken per callback, so that
// one busy peer can't hold the loop; the rest wait for the next iteration
// (a watched descriptor that is still readable calls back again).
constexpr int RecordsPerCallback = 16;
constexpr int AcceptsPerCallback = 16;

// The last table id handed out; 0 is no table.
std::atomic<uint32_t> lastTableId{0};

}  // namespace

WriterNudgeSm::WriterNudgeSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop)
    : Basalt::Debuggable(handler), loop_(&loop), tableId_(++lastTableId) {}

WriterNudgeSm::~WriterNudgeSm() { onDetach(); }

// ---------------------------------------------------------------- listening

void WriterNudgeSm::doEnableListen(const std::string & socketName, const std::function<std::string()> & renew) {
  BASALT_ASSERT(!listening(), SourceName,
                fmt::format("WriterNudgeSm::doEnableListen() tableId:{} already listening on {}", tableId_,
                            socketName_));
  if (DoorbellAcceptSm * doorbell = existingDoorbellAcceptSm();
      doorbell != nullptr && doorbell->socketName() == socketName) {
    doorbell->tableIs(tableId_, *this);
    doorbell_ = doorbell;
    socketName_ = socketName;
  } else {
    std::string name = socketName;
    std::string error;
    if (!listener_.listenOnFree(name, renew, renew ? NameRenewals : 0, error)) {
      auto message = fmt::format("WriterNudgeSm::doEnableListen() tableId:{} cannot listen on {}: {}", tableId_,
                                 name, error);
      BASALT_TRACE(debugHandler(), 0, "{}", message);
      throw Basalt::InvalidInitializeException(message);
    }
    if (name != socketName) {
      BASALT_TRACE(debugHandler(), 1, "WriterNudgeSm::doEnableListen() tableId:{} {} was taken, renewed as {}",
                   tableId_, socketName, name);
    }
    acceptWatch_ = loop_->watchReadable(listener_.fd(), [this] { acceptReaders(); });
    socketName_ = std::move(name);
  }
  sequence_ = 0;
  nudges_ = 0;
  BASALT_TRACE(debugHandler(), 1, "WriterNudgeSm::doEnableListen() tableId:{} listening on {}{}", tableId_,
               socketName_, doorbell_ != nullptr ? " through the doorbell" : "");
}

void WriterNudgeSm::onDetach() {
  if (!listening()) {
    return;
  }
  BASALT_TRACE(debugHandler(), 1, "WriterNudgeSm::onDetach() tableId:{} closing {} and {} readers", tableId_,
               socketName_, readers());
  eventsCall_.cancel();
  events_.clear();
  readers_.clear();
  acceptWatch_.cancel();
  listener_.close();
  if (doorbell_ != nullptr) {
    std::exchange(doorbell_, nullptr)->tableDel(tableId_);
  }
  socketName_.clear();
}

// ---------------------------------------------------------------- connections

void WriterNudgeSm::acceptReaders() {
  for (int i = 0; i < AcceptsPerCallback; ++i) {
    Socket socket = listener_.accept();
    if (!socket) {
      return;
    }
    const uint64_t serial = addReader(std::move(socket));
    BASALT_TRACE(debugHandler(), 5, "WriterNudgeSm::acceptReaders() tableId:{} reader:{} connected", tableId_,
                 readers_.at(serial)->name);
  }
}

void WriterNudgeSm::adoptReader(Socket socket, const Message & hello) {
  handleMessage(addReader(std::move(socket)), hello);
}

uint64_t WriterNudgeSm::addReader(Socket socket) {
  const uint64_t serial = nextSerial_++;
  auto reader = std::make_unique<Reader>();
  reader->name = fmt::format("{}.{}", socket.peerPid(), serial);
  reader->socket = std::move(socket);
  // By serial, not by pointer: the reader may be gone when the loop calls.
  reader->watch = loop_->watchReadable(reader->socket.fd(), [this, serial] { readFrom(serial); });
  readers_.emplace(serial, std::move(reader));
  return serial;
}

void WriterNudgeSm::readFrom(uint64_t serial) {
  for (int i = 0; i < RecordsPerCallback; ++i) {
    const auto found = readers_.find(serial);
    if (found == readers_.end()) {
      return;  // dropped by the message before
    }
    Message message{};
    std::string error;
    switch (receiveMessage(found->second->socket, message, error)) {
      case ReceiveResult::Received:
        handleMessage(serial, message);
        break;
      case ReceiveResult::Empty:
        return;
      case ReceiveResult::Closed:
        BASALT_TRACE(debugHandler(), 2, "WriterNudgeSm::readFrom() tableId:{} reader:{} closed: {}", tableId_,
                     found->second->name, error);
        drop(serial);
        return;
      case ReceiveResult::Malformed:
        reject(serial, error);
        return;
    }
  }
}

void WriterNudgeSm::handleMessage(uint64_t serial, const Message & message) {
  Reader & reader = *readers_.at(serial);
  if (std::string problem = layoutProblem(message); !problem.empty()) {
    reject(serial, problem);
  } else if (message.tableId != tableId_) {
    reject(serial, fmt::format("{} for tableId:{}", kindText(message.kind), message.tableId));
  } else if (message.kind == static_cast<uint16_t>(Kind::Wake)) {
    reject(serial, "a wake from a reader");
  } else if (message.kind == static_cast<uint16_t>(Kind::Hello)) {
    if (reader.greeted) {
      reject(serial, "a second hello");
      return;
    }
    reader.greeted = true;
    reader.applied = message.sequence;
    BASALT_TRACE(debugHandler(), 2, "WriterNudgeSm::handleMessage() tableId:{} reader:{} hello applied:{}",
                 tableId_, reader.name, reader.applied);
    report(Event{reader.name, false, reader.applied});
  } else if (!reader.greeted) {
    reject(serial, "a sleep before the hello");
  } else {
    report(Event{reader.name, false, message.sequence});
    goToSleep(serial, reader, message.sequence);
  }
}

void WriterNudgeSm::reject(uint64_t serial, const std::string & problem) {
  BASALT_TRACE(debugHandler(), 0, "WriterNudgeSm::handleMessage() tableId:{} reader:{} rejected: {}", tableId_,
               readers_.at(serial)->name, problem);
  drop(serial);
}

void WriterNudgeSm::drop(uint64_t serial) {
  auto node = readers_.extract(serial);
  if (node && node.mapped()->greeted) {
    report(Event{node.mapped()->name, true, 0});
  }
  // The node goes here: its watch is cancelled, then its socket closed.
}

// ---------------------------------------------------------------- waking

void WriterNudgeSm::goToSleep(uint64_t serial, Reader & reader, uint64_t applied) {
  reader.applied = applied;
  reader.sleeping = true;
  BASALT_TRACE(debugHandler(), 7, "WriterNudgeSm::handleMessage() tableId:{} reader:{} sleeps, applied:{}",
               tableId_, reader.name, applied);
  // A notify that came between the reader's last read and its sleep.
  if (applied < sequence_ && !wake(reader, "handleMessage")) {
    drop(serial);
  }
}

void WriterNudgeSm::notify(uint64_t sequence) {
  sequence_ = sequence;
  std::vector<uint64_t> lost;
  for (auto & [serial, reader] : readers_) {
    if (reader->sleeping && reader->applied < sequence && !wake(*reader, "notify")) {
      lost.push_back(serial);
    }
  }
  for (uint64_t serial : lost) {
    drop(serial);
  }
  BASALT_TRACE(debugHandler(), 7, "WriterNudgeSm::notify() tableId:{} sequence:{} nudges:{}", tableId_, sequence,
               nudges_);
}

// Sends the wake; false if the reader is to be dropped.
bool WriterNudgeSm::wake(Reader & reader, const char * method) {
  std::string error;
  switch (sendMessage(reader.socket, makeMessage(Kind::Wake, tableId_, sequence_), error)) {
    case SendResult::Sent:
      reader.sleeping = false;
      ++nudges_;
      return true;
    case SendResult::Full:
      // Invariant 4 of the protocol: a reader that reads has room for the
      // wake. This one doesn't read, and the writer doesn't wait for it.
      BASALT_TRACE(debugHandler(), 0, "WriterNudgeSm::{}() tableId:{} dropping reader:{} that does not read: {}",
                   method, tableId_, reader.name, error);
      return false;
    case SendResult::Broken:
      BASALT_TRACE(debugHandler(), 2, "WriterNudgeSm::{}() tableId:{} reader:{} is gone: {}", method, tableId_,
                   reader.name, error);
      return false;
  }
  return false;
}

// ---------------------------------------------------------------- hooks

void WriterNudgeSm::report(Event event) {
  events_.push_back(std::move(event));
  if (!eventsCall_.active()) {
    eventsCall_ = loop_->runSoon([this] { deliverEvents(); });
  }
}

void WriterNudgeSm::deliverEvents() {
  while (!events_.empty()) {
    Event event = std::move(events_.front());
    events_.pop_front();
    if (event.gone) {
      if (goneHook_) {
        goneHook_(event.reader);
      }
    } else if (progressHook_) {
      progressHook_(event.reader, event.sequence);
    }
  }
}

// ---------------------------------------------------------------- counts

uint32_t WriterNudgeSm::readers() const {
  return static_cast<uint32_t>(
      std::count_if(readers_.begin(), readers_.end(), [](const auto & entry) { return entry.second->greeted; }));
}

uint32_t WriterNudgeSm::sleepingReaders() const {
  return static_cast<uint32_t>(
      std::count_if(readers_.begin(), readers_.end(), [](const auto & entry) { return entry.second->sleeping; }));
}

}  // namespace Nudge

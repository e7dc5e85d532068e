#include "Nudge/DoorbellAcceptSm.h"

#include <unistd.h>

#include <utility>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Basalt/Util.h"
#include "Nudge/NudgeFormat.h"
#include "Nudge/WriterNudgeSm.h"

namespace Nudge {

namespace {

constexpr const char * SourceName = "Nudge/DoorbellAcceptSm";

// As in WriterNudgeSm: a busy listener can't hold the loop.
constexpr int AcceptsPerCallback = 16;

// Never deleted: the process's doorbell lives until the process ends, and
// the kernel closes its sockets then. So no exit-time destructor can run
// after the loop it is registered on is gone.
DoorbellAcceptSm * theDoorbell = nullptr;

}  // namespace

std::string doorbellName() { return fmt::format("tessel-doorbell-{}-{}", Basalt::Util::randomToken(), ::getpid()); }

DoorbellAcceptSm & doorbellAcceptSm() {
  if (theDoorbell == nullptr) {
    static Basalt::Platform::DebugHandler handler("DoorbellAcceptSm");
    theDoorbell = new DoorbellAcceptSm(handler, Loop::processLoop(), doorbellName());
  }
  return *theDoorbell;
}

DoorbellAcceptSm * existingDoorbellAcceptSm() { return theDoorbell; }

void forgetDoorbellAcceptSmInChild() { theDoorbell = nullptr; }

DoorbellAcceptSm::DoorbellAcceptSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop,
                                   std::string socketName)
    : Basalt::Debuggable(handler), loop_(&loop), socketName_(std::move(socketName)) {
  std::string error;
  if (!listener_.listenOnFree(socketName_, doorbellName, NameRenewals, error)) {
    auto message = fmt::format("DoorbellAcceptSm::DoorbellAcceptSm() cannot listen on {}: {}", socketName_, error);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    throw Basalt::InvalidInitializeException(message);
  }
  acceptWatch_ = loop_->watchReadable(listener_.fd(), [this] { acceptConnections(); });
  BASALT_TRACE(debugHandler(), 1, "DoorbellAcceptSm::DoorbellAcceptSm() listening on {}", socketName_);
}

// ---------------------------------------------------------------- tables

void DoorbellAcceptSm::tableIs(uint32_t tableId, WriterNudgeSm & writer) {
  const bool added = tables_.emplace(tableId, &writer).second;
  BASALT_ASSERT(added, SourceName,
                fmt::format("DoorbellAcceptSm::tableIs() tableId:{} has a writer already", tableId));
  BASALT_TRACE(debugHandler(), 2, "DoorbellAcceptSm::tableIs() tableId:{} added", tableId);
}

void DoorbellAcceptSm::tableDel(uint32_t tableId) {
  tables_.erase(tableId);
  BASALT_TRACE(debugHandler(), 2, "DoorbellAcceptSm::tableDel() tableId:{} removed", tableId);
}

// ---------------------------------------------------------------- connections

void DoorbellAcceptSm::acceptConnections() {
  for (int i = 0; i < AcceptsPerCallback; ++i) {
    Socket socket = listener_.accept();
    if (!socket) {
      return;
    }
    const uint64_t serial = nextSerial_++;
    auto waiting = std::make_unique<Waiting>();
    waiting->socket = std::move(socket);
    waiting->watch = loop_->watchReadable(waiting->socket.fd(), [this, serial] { readHello(serial); });
    waiting_.emplace(serial, std::move(waiting));
  }
}

// Reads the first message of a connection and hands the connection to the
// table it names.
void DoorbellAcceptSm::readHello(uint64_t serial) {
  Message hello{};
  std::string error;
  switch (receiveMessage(waiting_.at(serial)->socket, hello, error)) {
    case ReceiveResult::Empty:
      return;
    case ReceiveResult::Closed:
      BASALT_TRACE(debugHandler(), 2, "DoorbellAcceptSm::readHello() {} connection closed before its hello: {}",
                   socketName_, error);
      waiting_.erase(serial);
      return;
    case ReceiveResult::Malformed:
      reject(serial, error);
      return;
    case ReceiveResult::Received:
      break;
  }
  if (std::string problem = layoutProblem(hello); !problem.empty()) {
    reject(serial, problem);
    return;
  }
  if (hello.kind != static_cast<uint16_t>(Kind::Hello)) {
    reject(serial, fmt::format("a {} before the hello", kindText(hello.kind)));
    return;
  }
  const auto table = tables_.find(hello.tableId);
  if (table == tables_.end()) {
    reject(serial, fmt::format("no table with tableId:{}", hello.tableId));
    return;
  }
  auto node = waiting_.extract(serial);
  node.mapped()->watch.cancel();
  table->second->adoptReader(std::move(node.mapped()->socket), hello);
}

void DoorbellAcceptSm::reject(uint64_t serial, const std::string & problem) {
  BASALT_TRACE(debugHandler(), 0, "DoorbellAcceptSm::readHello() {} rejected connection: {}", socketName_, problem);
  waiting_.erase(serial);
}

}  // namespace Nudge

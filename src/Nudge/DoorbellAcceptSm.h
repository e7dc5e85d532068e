#pragma once
// Nudge::DoorbellAcceptSm: one listening socket for all the tables that a
// process writes, used instead of a socket per table when the feature
// toggle "OneSocketNudge" is on. A reader connects and sends its hello,
// which names a table id; the doorbell hands the connection, hello and all,
// to the WriterNudgeSm of that table, which serves it from then on. A
// WriterNudgeSm joins the doorbell when its doEnableListen is given the
// doorbell's socket name.
//
// There is one per process, made on first use by doorbellAcceptSm() on
// Loop::processLoop(), listening on "tessel-doorbell-<16 random hex
// digits>-<pid>" in the abstract namespace (it belongs to no table's
// directory, and the name goes with the process however it ends). The
// abstract namespace checks no permission, so the random part keeps other
// processes from taking the name first; a name found taken all the same is
// given up for a fresh one (Listener::listenOnFree). Readers learn the name
// from the owner files. Like every doorbell name, it ends in "-<decimal
// pid>", which Arena::WriterLock::pidOfSocketName reads back.
// It lives as long as the process. A forked child that wants one of its own
// calls forgetDoorbellAcceptSmInChild() first, or execs.
//
// Event-loop thread only. A connection that sends anything but a well-formed
// hello for a known table is closed with a level 0 trace.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Basalt/Debuggable.h"
#include "Loop/EventLoop.h"
#include "Nudge/Socket.h"

namespace Nudge {

class WriterNudgeSm;

class DoorbellAcceptSm : public Basalt::Debuggable {
 public:
  DoorbellAcceptSm(const DoorbellAcceptSm &) = delete;
  DoorbellAcceptSm & operator=(const DoorbellAcceptSm &) = delete;

  const std::string & socketName() const { return socketName_; }
  // Tables whose readers it takes, and connections that haven't said hello.
  uint32_t tables() const { return static_cast<uint32_t>(tables_.size()); }
  uint32_t waitingConnections() const { return static_cast<uint32_t>(waiting_.size()); }

 private:
  friend DoorbellAcceptSm & doorbellAcceptSm();
  friend class WriterNudgeSm;

  // Listens at once; throws Basalt::InvalidInitializeException if it can't.
  DoorbellAcceptSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop, std::string socketName);

  // Called by WriterNudgeSm::doEnableListen and onDetach.
  void tableIs(uint32_t tableId, WriterNudgeSm & writer);
  void tableDel(uint32_t tableId);

  struct Waiting {
    Socket socket;  // declared first: the watch goes before the socket closes
    Loop::Registration watch;
  };
  void acceptConnections();
  void readHello(uint64_t serial);
  void reject(uint64_t serial, const std::string & problem);

  Loop::EventLoop * loop_;
  std::string socketName_;
  Listener listener_;
  Loop::Registration acceptWatch_;
  std::map<uint32_t, WriterNudgeSm *> tables_;
  std::map<uint64_t, std::unique_ptr<Waiting>> waiting_;  // by serial
  uint64_t nextSerial_ = 1;
};

// A fresh doorbell name: "tessel-doorbell-<random>-<pid>".
std::string doorbellName();
// The process's doorbell, made on first use.
DoorbellAcceptSm & doorbellAcceptSm();
// The process's doorbell if it has been made, else null.
DoorbellAcceptSm * existingDoorbellAcceptSm();
// In a child made by fork(): lets go of the copy of the parent's doorbell
// (its sockets are the parent's; the copy is left as it is, never used
// again), so that the next doorbellAcceptSm() makes the child's own.
void forgetDoorbellAcceptSmInChild();

}  // namespace Nudge

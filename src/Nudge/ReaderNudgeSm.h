#pragma once
// Nudge::ReaderNudgeSm: the reader's end of a table's wake-up socket. The
// reader connects to the writer's socket (its own or the process doorbell)
// naming the table id, reads the table's queue, and when it has applied all
// of it reports that with appliedIs and sleeps: its event loop blocks until
// the writer's WriterNudgeSm wakes it, and the wake hook runs. When the
// connection closes (the writer detached, restarted or died), the
// disconnect hook runs, and the owner decides when to reconnect. Protocol:
// Nudge/NudgeFormat.h and docs/NUDGE.md.
//
// Event-loop thread only. Hooks are called from the loop: the wake hook
// when a wake arrives, the disconnect hook soon after the connection is
// lost, never from inside a method of this object. A hook may call any
// method, but must not destroy the object.
//
// Nothing here waits: connecting fails at once if nobody listens or the
// listener's backlog is full, and a report the writer can't take (it
// doesn't read) ends the connection.

#include <cstdint>
#include <functional>
#include <string>

#include "Basalt/Debuggable.h"
#include "Loop/EventLoop.h"
#include "Nudge/Socket.h"

namespace Nudge {

class ReaderNudgeSm : public Basalt::Debuggable {
 public:
  // The writer's latest sequence was `sequence`, above what this reader applied.
  using WakeHook = std::function<void(uint64_t sequence)>;
  // The connection to the writer is gone; connected() is false.
  using DisconnectHook = std::function<void()>;

  // `loop` outlives the object.
  ReaderNudgeSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop);
  ~ReaderNudgeSm() { onDetach(); }
  ReaderNudgeSm(const ReaderNudgeSm &) = delete;
  ReaderNudgeSm & operator=(const ReaderNudgeSm &) = delete;

  // Closes any connection, then connects to `socketName` and says hello to
  // table `tableId` with the sequence applied so far. True if connected;
  // false, with a level 0 trace, if not.
  bool connect(const std::string & socketName, uint32_t tableId);
  // connect() again with the last socket name and table id.
  bool reconnect();
  // Everything up to `sequence` is applied: tells the writer, and sleeps
  // until it has a later one. Not connected, it only records the sequence,
  // which the next hello carries.
  void appliedIs(uint64_t sequence);
  // Closes the connection without calling the disconnect hook. The socket
  // name and table id stay, for reconnect().
  void onDetach();
  // While false, wakes are taken off the socket but not passed on; turning
  // it on again passes on one wake if any came meanwhile. On at the start.
  void notifyingIs(bool notifying);

  void wakeHookIs(WakeHook hook) { wakeHook_ = std::move(hook); }
  void disconnectHookIs(DisconnectHook hook) { disconnectHook_ = std::move(hook); }

  bool connected() const { return static_cast<bool>(socket_); }
  // Said it applied everything, and hasn't been woken since.
  bool sleeping() const { return sleeping_; }
  bool notifying() const { return notifying_; }
  const std::string & socketName() const { return socketName_; }
  uint32_t tableId() const { return tableId_; }
  // The last sequence reported by appliedIs.
  uint64_t applied() const { return applied_; }
  // The sequence of the last wake received, and the number of wakes.
  uint64_t latest() const { return latest_; }
  uint64_t wakes() const { return wakes_; }

 private:
  void readWakes();
  bool handleMessage(const Message & message);
  void lose(unsigned level, const char * method, const std::string & why);
  void close();

  Loop::EventLoop * loop_;
  std::string socketName_;
  uint32_t tableId_ = 0;
  Socket socket_;  // declared before the watch: the watch goes first
  Loop::Registration watch_;
  uint64_t generation_ = 0;  // raised by each close, so a reader loop knows its socket went
  uint64_t applied_ = 0;
  uint64_t latest_ = 0;
  uint64_t wakes_ = 0;
  bool sleeping_ = false;
  bool notifying_ = true;
  bool wakeHeld_ = false;  // a wake came while not notifying
  WakeHook wakeHook_;
  DisconnectHook disconnectHook_;
  Loop::Registration wakeCall_;        // a held wake, passed on soon
  Loop::Registration disconnectCall_;  // the disconnect hook, soon
};

}  // namespace Nudge

#pragma once
// Nudge::WriterNudgeSm: the writer's end of a table's wake-up sockets. A
// reader that has applied every notification of the table's queue says so
// and sleeps; when the writer notifies a later sequence, this object wakes
// it with one message, and the reader reads the queue. Readers that are
// awake get nothing: they are reading already. Protocol: Nudge/NudgeFormat.h
// and docs/NUDGE.md.
//
// It listens on a socket of its own, or, when its socket name is that of the
// process's DoorbellAcceptSm, lets the doorbell hand it the readers that
// name its table id.
//
// Event-loop thread only: every method and every hook runs on the thread
// of the loop it was given.
//
// Guarantees:
// 1. The writer never waits for a reader. Every socket is non-blocking; a
//    notify sends at most one message to each sleeping reader, and a reader
//    whose socket can't take it (it doesn't read) is dropped at once.
// 2. A reader is woken for sequence s only if it said it had applied less
//    than s, and it is woken at once if it says so after s was notified.
// 3. A peer that breaks the protocol is dropped with a level 0 trace; it
//    can't make this object fail.
// 4. Hooks are called from the loop, never from inside a method of this
//    object: notify may run inside a write, and its owner must not be
//    called back there.

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Basalt/Debuggable.h"
#include "Loop/EventLoop.h"
#include "Nudge/NudgeFormat.h"
#include "Nudge/Socket.h"

namespace Nudge {

class DoorbellAcceptSm;

class WriterNudgeSm : public Basalt::Debuggable {
 public:
  // A reader, by its name ("<pid>.<serial>"), reported the sequence it has
  // applied: at its hello and each time it goes to sleep.
  using ProgressHook = std::function<void(const std::string & reader, uint64_t sequence)>;
  // A reader that had said hello is gone: it closed, broke the protocol or
  // was dropped. Not called for the readers that onDetach closes.
  using GoneHook = std::function<void(const std::string & reader)>;

  // Takes a new table id, unique in the process. `loop` outlives the object.
  WriterNudgeSm(Basalt::Platform::DebugHandler & handler, Loop::EventLoop & loop);
  ~WriterNudgeSm();
  WriterNudgeSm(const WriterNudgeSm &) = delete;
  WriterNudgeSm & operator=(const WriterNudgeSm &) = delete;

  // Starts taking readers on `socketName` (see Nudge/Socket.h for names).
  // Counts start over. A name that another socket has taken is given up for
  // the next that `renew` makes, at most NameRenewals times; socketName()
  // then tells the name listened on, which the caller publishes. Throws
  // Basalt::InvalidInitializeException if no name can be listened on; raises
  // the debug assertion if already listening.
  void doEnableListen(const std::string & socketName, const std::function<std::string()> & renew = {});
  // Closes the listening socket (and removes its file) and every reader's
  // connection; the readers see their connection close. Hooks not yet
  // called are dropped: the queue forgets its clients when it detaches too.
  // No-op if not listening.
  void onDetach();

  // The queue's writer notified `sequence`: wakes the sleeping readers that
  // have applied less. The queue's nudge hook.
  void notify(uint64_t sequence);

  void progressHookIs(ProgressHook hook) { progressHook_ = std::move(hook); }
  void goneHookIs(GoneHook hook) { goneHook_ = std::move(hook); }

  uint32_t tableId() const { return tableId_; }
  const std::string & socketName() const { return socketName_; }
  bool listening() const { return !socketName_.empty(); }
  // The last sequence notified since doEnableListen, 0 if none.
  uint64_t sequence() const { return sequence_; }
  // Wake messages sent since doEnableListen.
  uint64_t nudges() const { return nudges_; }
  // Readers connected that have said hello.
  uint32_t readers() const;
  // Readers that have said they applied everything and wait.
  uint32_t sleepingReaders() const;

 private:
  friend class DoorbellAcceptSm;

  // One connection. The socket is declared first so that the watch on it is
  // cancelled before it is closed.
  struct Reader {
    Socket socket;
    Loop::Registration watch;
    std::string name;
    uint64_t applied = 0;
    bool greeted = false;
    bool sleeping = false;
  };
  // What the hooks are to hear, in order.
  struct Event {
    std::string reader;
    bool gone;
    uint64_t sequence;
  };

  // A connection whose hello the doorbell has read.
  void adoptReader(Socket socket, const Message & hello);
  uint64_t addReader(Socket socket);
  void acceptReaders();
  void readFrom(uint64_t serial);
  void handleMessage(uint64_t serial, const Message & message);
  void reject(uint64_t serial, const std::string & problem);
  void goToSleep(uint64_t serial, Reader & reader, uint64_t applied);
  bool wake(Reader & reader, const char * method);
  void drop(uint64_t serial);
  void report(Event event);
  void deliverEvents();

  Loop::EventLoop * loop_;
  uint32_t tableId_;
  std::string socketName_;
  DoorbellAcceptSm * doorbell_ = nullptr;  // when the doorbell takes our readers
  Listener listener_;                      // when we take them ourselves
  Loop::Registration acceptWatch_;
  std::map<uint64_t, std::unique_ptr<Reader>> readers_;  // by serial
  uint64_t nextSerial_ = 1;
  uint64_t sequence_ = 0;
  uint64_t nudges_ = 0;
  ProgressHook progressHook_;
  GoneHook goneHook_;
  std::deque<Event> events_;
  Loop::Registration eventsCall_;
};

}  // namespace Nudge

#pragma once
// Loop::EventLoop: the little the library needs of the event loop that its
// process runs. An agent has one loop, on one thread, and everything of a
// table runs on it: the wake-up sockets, the notification queue, the walks
// of a shadow (sliced into deferred calls) and the agent's own reads. The
// agent owns the loop; the library only registers work on it.
//
// Contract:
// 1. Every callback runs on the thread that runs the loop (run, runOnce or
//    runUntil), one at a time, never from inside the call that registers it.
// 2. Nothing waits by polling: a loop with nothing ready sleeps in the
//    kernel until a watched descriptor is readable or a timer is due.
// 3. Each registration is a Registration object. Destroying it (or calling
//    cancel) cancels the work; after that its callback is never called again,
//    even if it was already due in the current iteration. A callback may
//    cancel its own or any other registration, and may destroy the object
//    that owns them.
// 4. runSoon calls run in the order they were made. A call made from inside
//    a deferred call runs in a later iteration, after the loop has looked at
//    its descriptors and timers: sliced work lets everything else run
//    between its slices.
// 5. An exception that escapes a callback stops the loop and comes out of
//    the run, runOnce or runUntil that ran it.
// 6. An eachTurn callback runs once in every iteration, before the loop
//    looks at its descriptors, and never makes it wait less: if it defers a
//    call, that call runs in the next iteration without waiting; if not, the
//    loop sleeps as it would have. It alone keeps no run() going.
//
// A Registration must not outlive its loop. A descriptor has at most one
// watch at a time, and its watch is cancelled before the descriptor is
// closed, so that a reused descriptor number is never watched by mistake.

#include <chrono>
#include <cstdint>
#include <functional>

namespace Loop {

class EventLoop;

// The handle of one piece of work registered on a loop: an fd watch, a
// timer, a deferred call or a per-iteration call. Move-only; destroying it
// cancels the work.
class [[nodiscard]] Registration {
 public:
  Registration() = default;
  Registration(EventLoop & loop, uint64_t id) : loop_(&loop), id_(id) {}
  Registration(Registration && other) noexcept;
  Registration & operator=(Registration && other) noexcept;
  Registration(const Registration &) = delete;
  Registration & operator=(const Registration &) = delete;
  ~Registration() { cancel(); }

  // Cancels the work; a no-op if it was cancelled already or has finished.
  void cancel();
  // True while the work may still call back: a watch or a repeating timer
  // until cancelled, a one-shot timer or a deferred call until it has run.
  bool active() const;

 private:
  EventLoop * loop_ = nullptr;
  uint64_t id_ = 0;
};

class EventLoop {
 public:
  using Callback = std::function<void()>;
  using Duration = std::chrono::milliseconds;

  virtual ~EventLoop() = default;

  // Calls `onReadable` each time `fd` is readable, until cancelled. End of
  // file and errors make a descriptor readable: the callback's own read
  // finds them. Throws Basalt::InvalidInitializeException if `fd` can't be
  // watched.
  Registration watchReadable(int fd, Callback onReadable);
  // Calls `onTimeout` once, `after` from now.
  Registration timerOnce(Duration after, Callback onTimeout);
  // Calls `onTimeout` every `period` (at least 1 ms), until cancelled.
  Registration timerRepeat(Duration period, Callback onTimeout);
  // Calls `call` once, in the next iteration of the loop (contract 4).
  Registration runSoon(Callback call);
  // Calls `call` in every iteration, before the loop waits, until cancelled
  // (contract 6): for a look at shared memory that is cheaper than a system
  // call, so that a busy loop notices a change before its wake-up arrives.
  Registration eachTurn(Callback call);

  // Runs until stop() is called or nothing is registered any more.
  virtual void run() = 0;
  // Waits until something is ready, runs what is, and returns.
  virtual void runOnce() = 0;
  // Makes run() return at the end of the current iteration.
  virtual void stop() = 0;
  // Runs until `done()` holds, checking it after each iteration, or until
  // `timeout` has passed: true if `done()` holds. For tests and small
  // programs; an agent runs its loop with run().
  bool runUntil(const std::function<bool()> & done, Duration timeout);

 protected:
  friend class Registration;
  // Each returns the id of the new registration, never 0.
  virtual uint64_t doWatchReadable(int fd, Callback onReadable) = 0;
  virtual uint64_t doTimer(Duration after, Duration period, Callback onTimeout) = 0;
  virtual uint64_t doRunSoon(Callback call) = 0;
  virtual uint64_t doEachTurn(Callback call) = 0;
  virtual void doCancel(uint64_t id) = 0;
  virtual bool doActive(uint64_t id) const = 0;
};

// The loop of the process, on which process-wide objects (the doorbell of
// the wake-up sockets) are made: the one given to processLoopIs, or else a
// libuv loop made on first use that lives as long as the process.
EventLoop & processLoop();
// Gives the process its loop. Called once, before anything has used
// processLoop(); a later call with another loop raises the debug assertion.
// `loop` lives as long as the process.
void processLoopIs(EventLoop & loop);

}  // namespace Loop

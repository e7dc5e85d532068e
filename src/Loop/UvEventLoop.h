#pragma once
// Loop::UvEventLoop: the EventLoop on libuv (epoll underneath). A watch is a
// uv_poll_t, a timer a uv_timer_t, a per-iteration call a uv_prepare_t
// (unreferenced: it keeps no run() going); deferred calls wait in a queue that
// one uv_idle_t drains, and that handle is active only while the queue holds a
// call, so an idle loop blocks in epoll_wait. Why libuv: docs/EVENTLOOP.md.
//
// One thread: the one that runs it. Destroying the loop cancels whatever is
// still registered; no Registration may be used after that.

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <unordered_map>

#include "Loop/EventLoop.h"

struct uv_loop_s;
struct uv_idle_s;

namespace Loop {

class UvEventLoop : public EventLoop {
 public:
  UvEventLoop();
  ~UvEventLoop() override;
  UvEventLoop(const UvEventLoop &) = delete;
  UvEventLoop & operator=(const UvEventLoop &) = delete;

  void run() override;
  void runOnce() override;
  void stop() override;

 protected:
  uint64_t doWatchReadable(int fd, Callback onReadable) override;
  uint64_t doTimer(Duration after, Duration period, Callback onTimeout) override;
  uint64_t doRunSoon(Callback call) override;
  uint64_t doEachTurn(Callback call) override;
  void doCancel(uint64_t id) override;
  bool doActive(uint64_t id) const override;

 private:
  struct Entry;  // one watch or timer and its libuv handle
  static void onPoll(Entry & entry);
  static void onTimer(Entry & entry);
  void runDeferred();
  void invoke(const Callback & callback);
  void rethrowFailure();
  void close(Entry * entry);

  std::unique_ptr<uv_loop_s> loop_;
  std::unique_ptr<uv_idle_s> idle_;  // drains deferred_; active only while it holds a call
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, Entry *> entries_;  // owned; freed by libuv's close callback
  std::map<uint64_t, Callback> deferred_;          // by id, so in the order made
  std::exception_ptr failure_;                     // first exception out of a callback
};

}  // namespace Loop

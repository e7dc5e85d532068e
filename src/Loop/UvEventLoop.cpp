#include "Loop/UvEventLoop.h"

#include <uv.h>

#include <utility>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Loop {

namespace {

constexpr const char * SourceName = "Loop/UvEventLoop";

// Raises the debug assertion for a libuv call that can't fail on a sound loop.
void check(int status, const char * call) {
  BASALT_ASSERT(status == 0, SourceName,
                fmt::format("UvEventLoop::{} failed: {}", call, uv_strerror(status)));
}

}  // namespace

// The handle lives inside the entry, and libuv may still touch it after it
// is cancelled, until its close callback: that callback frees the entry. So
// a callback that cancels itself, or destroys its owner, runs on memory that
// stays valid until it has returned.
struct UvEventLoop::Entry {
  UvEventLoop * owner;
  uint64_t id;
  Callback callback;
  bool oneShot;
  union {
    uv_handle_t handle;
    uv_poll_t poll;
    uv_timer_t timer;
    uv_prepare_t prepare;
  } uv;
};

UvEventLoop::UvEventLoop() : loop_(std::make_unique<uv_loop_t>()), idle_(std::make_unique<uv_idle_t>()) {
  check(uv_loop_init(loop_.get()), "uv_loop_init()");
  check(uv_idle_init(loop_.get(), idle_.get()), "uv_idle_init()");
  idle_->data = this;
}

UvEventLoop::~UvEventLoop() {
  while (!entries_.empty()) {
    close(entries_.begin()->second);
  }
  uv_close(reinterpret_cast<uv_handle_t *>(idle_.get()), nullptr);
  // Nothing is active any more: this only runs the close callbacks.
  uv_run(loop_.get(), UV_RUN_DEFAULT);
  uv_loop_close(loop_.get());
}

// ---------------------------------------------------------------- running

void UvEventLoop::run() {
  uv_run(loop_.get(), UV_RUN_DEFAULT);
  rethrowFailure();
}

void UvEventLoop::runOnce() {
  uv_run(loop_.get(), UV_RUN_ONCE);
  rethrowFailure();
}

void UvEventLoop::stop() { uv_stop(loop_.get()); }

// Every callback passes through here: an exception must not unwind through
// libuv's C frames, so it is kept, the loop stopped, and the exception raised
// again by the run that ran the callback.
void UvEventLoop::invoke(const Callback & callback) {
  try {
    callback();
  } catch (...) {
    if (!failure_) {
      failure_ = std::current_exception();
    }
    uv_stop(loop_.get());
  }
}

void UvEventLoop::rethrowFailure() {
  if (failure_) {
    std::rethrow_exception(std::exchange(failure_, nullptr));
  }
}

// ---------------------------------------------------------------- registering

uint64_t UvEventLoop::doWatchReadable(int fd, Callback onReadable) {
  auto * entry = new Entry{this, nextId_++, std::move(onReadable), false, {}};
  // uv_poll_init also makes the descriptor non-blocking.
  if (int status = uv_poll_init(loop_.get(), &entry->uv.poll, fd); status != 0) {
    delete entry;  // the handle was never registered, so libuv holds nothing of it
    throw Basalt::InvalidInitializeException(
        fmt::format("EventLoop::watchReadable() cannot watch fd:{}: {}", fd, uv_strerror(status)));
  }
  entry->uv.handle.data = entry;
  entries_.emplace(entry->id, entry);
  check(uv_poll_start(&entry->uv.poll, UV_READABLE,
                      [](uv_poll_t * handle, int, int) { onPoll(*static_cast<Entry *>(handle->data)); }),
        "uv_poll_start()");
  return entry->id;
}

uint64_t UvEventLoop::doTimer(Duration after, Duration period, Callback onTimeout) {
  auto * entry = new Entry{this, nextId_++, std::move(onTimeout), period.count() == 0, {}};
  check(uv_timer_init(loop_.get(), &entry->uv.timer), "uv_timer_init()");
  entry->uv.handle.data = entry;
  entries_.emplace(entry->id, entry);
  // The loop's clock is the time of its last wake-up; "from now" means now.
  uv_update_time(loop_.get());
  check(uv_timer_start(&entry->uv.timer,
                       [](uv_timer_t * handle) { onTimer(*static_cast<Entry *>(handle->data)); },
                       static_cast<uint64_t>(after.count()), static_cast<uint64_t>(period.count())),
        "uv_timer_start()");
  return entry->id;
}

// A prepare handle runs after the idle handle and before the loop computes
// how long to wait, so a call it defers makes that wait zero (contract 6).
uint64_t UvEventLoop::doEachTurn(Callback call) {
  auto * entry = new Entry{this, nextId_++, std::move(call), false, {}};
  check(uv_prepare_init(loop_.get(), &entry->uv.prepare), "uv_prepare_init()");
  entry->uv.handle.data = entry;
  entries_.emplace(entry->id, entry);
  check(uv_prepare_start(&entry->uv.prepare,
                         [](uv_prepare_t * handle) {
                           auto & turn = *static_cast<Entry *>(handle->data);
                           turn.owner->invoke(turn.callback);
                         }),
        "uv_prepare_start()");
  uv_unref(&entry->uv.handle);
  return entry->id;
}

uint64_t UvEventLoop::doRunSoon(Callback call) {
  const uint64_t id = nextId_++;
  deferred_.emplace(id, std::move(call));
  if (!uv_is_active(reinterpret_cast<uv_handle_t *>(idle_.get()))) {
    check(uv_idle_start(idle_.get(),
                        [](uv_idle_t * handle) { static_cast<UvEventLoop *>(handle->data)->runDeferred(); }),
          "uv_idle_start()");
  }
  return id;
}

void UvEventLoop::doCancel(uint64_t id) {
  if (auto found = entries_.find(id); found != entries_.end()) {
    close(found->second);
  } else if (deferred_.erase(id) == 1 && deferred_.empty()) {
    uv_idle_stop(idle_.get());
  }
}

bool UvEventLoop::doActive(uint64_t id) const { return entries_.count(id) == 1 || deferred_.count(id) == 1; }

// Stops the handle at once (a cancelled watch or timer doesn't call back even
// if it was due in this iteration) and frees the entry when libuv lets go.
void UvEventLoop::close(Entry * entry) {
  entries_.erase(entry->id);
  uv_close(&entry->uv.handle, [](uv_handle_t * handle) { delete static_cast<Entry *>(handle->data); });
}

// ---------------------------------------------------------------- calling back

void UvEventLoop::onPoll(Entry & entry) {
  // An error (status < 0) is the descriptor's to report: the callback's own
  // read finds it.
  entry.owner->invoke(entry.callback);
}

void UvEventLoop::onTimer(Entry & entry) {
  if (!entry.oneShot) {
    entry.owner->invoke(entry.callback);
    return;
  }
  // A one-shot timer is finished before it calls back, so that active() is
  // false inside its callback and the callback may register afresh.
  UvEventLoop * owner = entry.owner;
  Callback callback = std::move(entry.callback);
  owner->close(&entry);
  owner->invoke(callback);
}

// Runs the calls that were deferred before this iteration began; those that
// they defer in turn wait for the next iteration, after the loop has looked
// at its descriptors and timers.
void UvEventLoop::runDeferred() {
  const uint64_t end = nextId_;
  while (!deferred_.empty() && deferred_.begin()->first < end && !failure_) {
    auto node = deferred_.extract(deferred_.begin());
    invoke(node.mapped());
  }
  if (deferred_.empty()) {
    uv_idle_stop(idle_.get());
  }
}

}  // namespace Loop

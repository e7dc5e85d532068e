#include "Loop/EventLoop.h"

#include <utility>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Loop/UvEventLoop.h"

namespace Loop {

namespace {

constexpr const char * SourceName = "Loop/EventLoop";

// The loop processLoop() answers with; null until given or first used.
EventLoop * theProcessLoop = nullptr;

}  // namespace

// ---------------------------------------------------------------- Registration

Registration::Registration(Registration && other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), id_(std::exchange(other.id_, 0)) {}

Registration & Registration::operator=(Registration && other) noexcept {
  if (this != &other) {
    cancel();
    loop_ = std::exchange(other.loop_, nullptr);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

void Registration::cancel() {
  if (loop_ != nullptr) {
    std::exchange(loop_, nullptr)->doCancel(std::exchange(id_, 0));
  }
}

bool Registration::active() const { return loop_ != nullptr && loop_->doActive(id_); }

// ---------------------------------------------------------------- EventLoop

Registration EventLoop::watchReadable(int fd, Callback onReadable) {
  return Registration(*this, doWatchReadable(fd, std::move(onReadable)));
}

Registration EventLoop::timerOnce(Duration after, Callback onTimeout) {
  return Registration(*this, doTimer(after, Duration::zero(), std::move(onTimeout)));
}

Registration EventLoop::timerRepeat(Duration period, Callback onTimeout) {
  BASALT_ASSERT(period.count() >= 1, SourceName,
                fmt::format("EventLoop::timerRepeat() period:{}ms is below 1 ms", period.count()));
  return Registration(*this, doTimer(period, period, std::move(onTimeout)));
}

Registration EventLoop::runSoon(Callback call) {
  return Registration(*this, doRunSoon(std::move(call)));
}

Registration EventLoop::eachTurn(Callback call) {
  return Registration(*this, doEachTurn(std::move(call)));
}

bool EventLoop::runUntil(const std::function<bool()> & done, Duration timeout) {
  bool expired = false;
  Registration deadline = timerOnce(timeout, [&expired] { expired = true; });
  while (!done() && !expired) {
    runOnce();
  }
  return done();
}

// ---------------------------------------------------------------- the process loop

EventLoop & processLoop() {
  if (theProcessLoop == nullptr) {
    static UvEventLoop own;
    theProcessLoop = &own;
  }
  return *theProcessLoop;
}

void processLoopIs(EventLoop & loop) {
  BASALT_ASSERT(theProcessLoop == nullptr || theProcessLoop == &loop, SourceName,
                "Loop::processLoopIs() the process loop is already in use");
  theProcessLoop = &loop;
}

}  // namespace Loop

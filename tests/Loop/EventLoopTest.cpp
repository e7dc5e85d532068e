// The loop contract of Loop/EventLoop.h on the libuv loop. No test measures
// time: each runs the loop until what it waits for has happened, under a
// generous deadline that fails the test instead of hanging it.

#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Basalt/Exception.h"
#include "Loop/EventLoop.h"
#include "Loop/UvEventLoop.h"

namespace {

using namespace std::chrono_literals;

constexpr Loop::EventLoop::Duration Deadline = 10s;

// A pipe whose read end a test watches.
class Pipe {
 public:
  Pipe() {
    if (::pipe(fds_) != 0) {
      throw std::runtime_error("pipe failed");
    }
  }
  ~Pipe() {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  int readEnd() const { return fds_[0]; }
  void put() const { ASSERT_EQ(::write(fds_[1], "x", 1), 1); }
  void take() const {
    char byte;
    ASSERT_EQ(::read(fds_[0], &byte, 1), 1);
  }

 private:
  int fds_[2];
};

class EventLoopTest : public ::testing::Test {
 protected:
  // Runs `iterations` iterations of the loop, each one made sure to end by
  // a deferred call: enough for anything already ready to call back.
  void spin(int iterations) {
    for (int i = 0; i < iterations; ++i) {
      bool ran = false;
      Loop::Registration call = loop_.runSoon([&ran] { ran = true; });
      ASSERT_TRUE(loop_.runUntil([&ran] { return ran; }, Deadline));
    }
  }

  Loop::UvEventLoop loop_;
};

TEST_F(EventLoopTest, AOneShotTimerFiresOnceAndIsThenInactive) {
  int fired = 0;
  bool activeInside = true;
  Loop::Registration timer = loop_.timerOnce(1ms, [&] {
    ++fired;
    activeInside = timer.active();
  });
  EXPECT_TRUE(timer.active());
  ASSERT_TRUE(loop_.runUntil([&] { return fired == 1; }, Deadline));
  EXPECT_FALSE(activeInside);
  EXPECT_FALSE(timer.active());
  spin(3);
  EXPECT_EQ(fired, 1);
}

TEST_F(EventLoopTest, ARepeatingTimerFiresUntilCancelled) {
  int fired = 0;
  Loop::Registration timer;
  timer = loop_.timerRepeat(1ms, [&] {
    if (++fired == 3) {
      timer.cancel();
    }
  });
  ASSERT_TRUE(loop_.runUntil([&] { return !timer.active(); }, Deadline));
  EXPECT_EQ(fired, 3);
  // Nothing is registered any more: run() returns at once.
  loop_.run();
  EXPECT_EQ(fired, 3);
}

TEST_F(EventLoopTest, ARepeatingTimerOfNoPeriodIsRefused) {
  try {
    Loop::Registration timer = loop_.timerRepeat(0ms, [] {});
    FAIL() << "no assertion";
  } catch (const Basalt::AssertException & e) {
    EXPECT_EQ(e.message(), "EventLoop::timerRepeat() period:0ms is below 1 ms");
  }
}

TEST_F(EventLoopTest, DeferredCallsRunInOrderAndCancelledOnesDoNot) {
  std::vector<int> order;
  Loop::Registration first = loop_.runSoon([&] { order.push_back(1); });
  Loop::Registration second = loop_.runSoon([&] { order.push_back(2); });
  Loop::Registration third = loop_.runSoon([&] { order.push_back(3); });
  second.cancel();
  EXPECT_FALSE(second.active());
  EXPECT_TRUE(third.active());
  loop_.run();
  EXPECT_EQ(order, (std::vector<int>{1, 3}));
  EXPECT_FALSE(third.active());
}

TEST_F(EventLoopTest, DestroyingARegistrationCancelsIt) {
  bool ran = false;
  {
    Loop::Registration call = loop_.runSoon([&] { ran = true; });
    Loop::Registration timer = loop_.timerOnce(1ms, [&] { ran = true; });
  }
  loop_.run();
  EXPECT_FALSE(ran);
}

TEST_F(EventLoopTest, AMovedRegistrationKeepsTheWorkAndAssigningOverOneCancelsIt) {
  int fired = 0;
  Loop::Registration moved = loop_.runSoon([&] { fired += 1; });
  Loop::Registration target(std::move(moved));
  EXPECT_FALSE(moved.active());
  EXPECT_TRUE(target.active());
  Loop::Registration replaced = loop_.runSoon([&] { fired += 10; });
  replaced = std::move(target);  // cancels the call that added 10
  loop_.run();
  EXPECT_EQ(fired, 1);
}

TEST_F(EventLoopTest, SlicedWorkLetsADescriptorBeServedBetweenSlices) {
  Pipe pipe;
  int slices = 0;
  int sliceAtRead = -1;
  Loop::Registration watch = loop_.watchReadable(pipe.readEnd(), [&] {
    pipe.take();
    sliceAtRead = slices;
  });
  Loop::Registration slice;
  std::function<void()> work = [&] {
    if (++slices < 1000 && sliceAtRead < 0) {
      slice = loop_.runSoon(work);
    }
  };
  slice = loop_.runSoon(work);
  pipe.put();
  ASSERT_TRUE(loop_.runUntil([&] { return sliceAtRead >= 0; }, Deadline));
  // The descriptor was served after the first slice, not after the last.
  EXPECT_EQ(sliceAtRead, 1);
}

TEST_F(EventLoopTest, AnEachTurnCallRunsOnceInEveryIterationUntilCancelled) {
  int turns = 0;
  Loop::Registration turn = loop_.eachTurn([&turns] { ++turns; });
  EXPECT_TRUE(turn.active());
  spin(3);
  EXPECT_EQ(turns, 3);
  turn.cancel();
  EXPECT_FALSE(turn.active());
  spin(3);
  EXPECT_EQ(turns, 3);
}

TEST_F(EventLoopTest, ACallDeferredByAnEachTurnCallRunsInTheNextIterationWithoutWaiting) {
  // A watch that never fires keeps the loop waiting; the guard ends a wait
  // that should not have happened, so the test fails instead of hanging.
  Pipe pipe;
  Loop::Registration watch = loop_.watchReadable(pipe.readEnd(), [] { FAIL() << "never readable"; });
  bool guardFired = false;
  Loop::Registration guard = loop_.timerOnce(Deadline, [&guardFired] { guardFired = true; });
  int turns = 0;
  bool ran = false;
  Loop::Registration call;
  Loop::Registration turn = loop_.eachTurn([&] {
    if (++turns == 1) {
      call = loop_.runSoon([&ran] { ran = true; });
    }
  });
  loop_.runOnce();  // the turn defers the call: this iteration does not wait
  EXPECT_FALSE(ran);
  loop_.runOnce();  // the call runs
  EXPECT_TRUE(ran);
  EXPECT_FALSE(guardFired);
  EXPECT_EQ(turns, 2);
}

TEST_F(EventLoopTest, AnEachTurnCallAloneKeepsNoRunGoing) {
  int turns = 0;
  Loop::Registration turn = loop_.eachTurn([&turns] { ++turns; });
  bool ran = false;
  Loop::Registration call = loop_.runSoon([&ran] { ran = true; });
  loop_.run();  // returns once the deferred call has run: nothing else holds it
  EXPECT_TRUE(ran);
  EXPECT_GE(turns, 1);
  EXPECT_TRUE(turn.active());
}

TEST_F(EventLoopTest, AWatchCallsBackWhileReadableAndNotAfterCancel) {
  Pipe pipe;
  int reads = 0;
  Loop::Registration watch = loop_.watchReadable(pipe.readEnd(), [&] {
    pipe.take();
    ++reads;
  });
  pipe.put();
  ASSERT_TRUE(loop_.runUntil([&] { return reads == 1; }, Deadline));
  pipe.put();
  ASSERT_TRUE(loop_.runUntil([&] { return reads == 2; }, Deadline));
  watch.cancel();
  pipe.put();  // readable, but nobody watches any more
  spin(3);
  EXPECT_EQ(reads, 2);
}

TEST_F(EventLoopTest, ACallbackMayCancelItsOwnWatch) {
  Pipe pipe;
  int calls = 0;
  Loop::Registration watch;
  watch = loop_.watchReadable(pipe.readEnd(), [&] {
    ++calls;
    watch.cancel();  // the byte stays unread: a live watch would call again
  });
  pipe.put();
  ASSERT_TRUE(loop_.runUntil([&] { return calls == 1; }, Deadline));
  spin(3);
  EXPECT_EQ(calls, 1);
}

TEST_F(EventLoopTest, ADescriptorThatCantBeWatchedIsRefused) {
  try {
    Loop::Registration watch = loop_.watchReadable(-1, [] {});
    FAIL() << "no exception";
  } catch (const Basalt::InvalidInitializeException & e) {
    EXPECT_EQ(std::string(e.what()).rfind("EventLoop::watchReadable() cannot watch fd:-1: ", 0), 0u) << e.what();
  }
}

TEST_F(EventLoopTest, StopEndsRunEvenWithWorkRegistered) {
  int fired = 0;
  Loop::Registration timer = loop_.timerRepeat(1ms, [&] {
    if (++fired == 2) {
      loop_.stop();
    }
  });
  loop_.run();
  EXPECT_EQ(fired, 2);
  EXPECT_TRUE(timer.active());
}

TEST_F(EventLoopTest, AnExceptionFromACallbackComesOutOfTheRun) {
  bool later = false;
  Loop::Registration failing = loop_.runSoon([] { throw std::runtime_error("callback failed"); });
  EXPECT_THROW(loop_.run(), std::runtime_error);
  // The loop is usable afterwards.
  Loop::Registration next = loop_.runSoon([&] { later = true; });
  loop_.run();
  EXPECT_TRUE(later);
}

TEST_F(EventLoopTest, RunUntilGivesUpAtItsDeadline) {
  EXPECT_FALSE(loop_.runUntil([] { return false; }, 1ms));
  EXPECT_TRUE(loop_.runUntil([] { return true; }, 1ms));
}

TEST_F(EventLoopTest, DestroyingALoopReleasesWhatIsStillRegistered) {
  // As the process's doorbell does, which is never destroyed: registrations
  // that are never released. They live in storage that is never destroyed,
  // so nothing touches the loop after it is gone; the loop frees the rest.
  Pipe pipe;
  auto loop = std::make_unique<Loop::UvEventLoop>();
  alignas(Loop::Registration) unsigned char storage[4][sizeof(Loop::Registration)];
  new (storage[0]) Loop::Registration(loop->watchReadable(pipe.readEnd(), [] {}));
  new (storage[1]) Loop::Registration(loop->timerRepeat(1ms, [] {}));
  new (storage[2]) Loop::Registration(loop->runSoon([] {}));
  new (storage[3]) Loop::Registration(loop->eachTurn([] {}));
  pipe.put();
  loop->runOnce();
  loop.reset();
  SUCCEED();  // AddressSanitizer checks that nothing leaked or was freed twice
}

TEST(ProcessLoopTest, IsOneLoopAndCantBeReplacedOnceUsed) {
  Loop::EventLoop & loop = Loop::processLoop();
  EXPECT_EQ(&Loop::processLoop(), &loop);
  Loop::processLoopIs(loop);  // the same loop again is no change
  Loop::UvEventLoop other;
  try {
    Loop::processLoopIs(other);
    FAIL() << "no assertion";
  } catch (const Basalt::AssertException & e) {
    EXPECT_EQ(e.message(), "Loop::processLoopIs() the process loop is already in use");
  }
  EXPECT_EQ(&Loop::processLoop(), &loop);
}

}  // namespace

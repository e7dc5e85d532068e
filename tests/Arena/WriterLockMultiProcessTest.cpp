// One writer per table across processes. A child that must stay alive while
// the parent tries the table waits in pause(), after telling the parent on a
// pipe that it holds the lock, and is ended by SIGKILL, as a crashed writer
// would be. alarm() bounds every child, so a failure ends it, never the run.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Basalt/Exception.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using Arena::WriterLock;

constexpr unsigned ChildSeconds = 30;

// A forked process that runs `body`, which reports one byte on the pipe when
// it is ready, then waits to be killed.
class Child {
 public:
  explicit Child(const std::function<char()> & body) {
    int fds[2];
    if (pipe(fds) != 0) {
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      alarm(ChildSeconds);
      close(fds[0]);
      char report = body();
      (void)!write(fds[1], &report, 1);
      while (true) {
        pause();
      }
    }
    close(fds[1]);
    if (pid_ > 0 && read(fds[0], &report_, 1) != 1) {
      report_ = '?';
    }
    close(fds[0]);
  }
  ~Child() { kill(); }

  pid_t pid() const { return pid_; }
  char report() const { return report_; }
  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
  char report_ = '?';
};

class WriterLockMultiProcessTest : public ::testing::Test {
 protected:
  WriterLockMultiProcessTest() { handler_.maskIs(1); }
  ~WriterLockMultiProcessTest() override { WriterLock::releaseWriterLock(handler_, directory_); }

  // 'L' when the acquire in this process succeeded, 'R' when it was refused.
  char tryAcquire() {
    try {
      WriterLock::acquireWriterLock(handler_, directory_);
      return 'L';
    } catch (const Basalt::InvalidInitializeException &) {
      return 'R';
    }
  }

  std::string refusal(pid_t owner) const {
    return fmt::format("WriterLock::acquireWriterLock() table:{} owned by live writer pid:{}", directory_,
                       owner);
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"WriterLockMultiProcessTest"};
  std::string directory_ = temp_.path() + "/agent/l3IifConfig";
};

TEST_F(WriterLockMultiProcessTest, LiveWriterInAChildIsRefusedThenTakenOverAfterItsDeath) {
  Child writer([&] { return tryAcquire(); });
  ASSERT_EQ(writer.report(), 'L');
  {
    TestSupport::TraceCapture capture;
    try {
      WriterLock::acquireWriterLock(handler_, directory_);
      FAIL() << "the child is the live writer";
    } catch (const Basalt::InvalidInitializeException & error) {
      EXPECT_EQ(error.message(), refusal(writer.pid()));
    }
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], "L0 " + refusal(writer.pid()));
  }
  EXPECT_FALSE(WriterLock::holdsWriterLock(directory_)) << "a refusal leaves no registry entry";

  const pid_t dead = writer.pid();
  writer.kill();
  handler_.maskIs(3);
  TestSupport::TraceCapture capture;
  EXPECT_EQ(WriterLock::pidOfSocketName(WriterLock::acquireWriterLock(handler_, directory_)), getpid());
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
  EXPECT_TRUE(capture.contains(fmt::format(
      "L1 WriterLock::acquireWriterLock() table:{} taken over from dead writer pid:{}", directory_, dead)));
}

TEST_F(WriterLockMultiProcessTest, ChildIsRefusedWhileThisProcessIsTheWriter) {
  WriterLock::acquireWriterLock(handler_, directory_);
  // The child inherits the registry's entry and a copy of the descriptor; it
  // must still not count as the writer.
  Child contender([&] {
    if (WriterLock::holdsWriterLock(directory_)) {
      return 'H';
    }
    try {
      WriterLock::acquireWriterLock(handler_, directory_);
      return 'L';
    } catch (const Basalt::InvalidInitializeException & error) {
      return error.message() == refusal(getppid()) ? 'R' : 'M';
    }
  });
  EXPECT_EQ(contender.report(), 'R');
}

// The writer forks a helper and dies. The helper's copy of the lock
// descriptor must not keep the dead writer's table locked.
TEST_F(WriterLockMultiProcessTest, ForkedChildDoesNotKeepItsParentsTableLocked) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    alarm(ChildSeconds);
    close(fds[0]);
    WriterLock::acquireWriterLock(handler_, directory_);
    if (fork() == 0) {
      // fork() has returned here, so the helper has closed its copies.
      alarm(ChildSeconds);
      pid_t helper = getpid();
      (void)!write(fds[1], &helper, sizeof(helper));
      while (true) {
        pause();
      }
    }
    _exit(0);
  }
  close(fds[1]);
  pid_t helper = -1;
  ASSERT_EQ(read(fds[0], &helper, sizeof(helper)), static_cast<ssize_t>(sizeof(helper)));
  close(fds[0]);
  ASSERT_EQ(waitpid(writer, nullptr, 0), writer);

  EXPECT_EQ(tryAcquire(), 'L') << "the helper, still alive, holds nothing";
  kill(helper, SIGKILL);
}

TEST_F(WriterLockMultiProcessTest, ReleaseInOneProcessLetsAnotherAcquire) {
  Child writer([&] {
    char got = tryAcquire();
    return got == 'L' && WriterLock::releaseWriterLock(handler_, directory_) ? 'F' : got;
  });
  ASSERT_EQ(writer.report(), 'F');
  EXPECT_EQ(tryAcquire(), 'L') << "the child still lives, but let the table go";
}

}  // namespace

// What another local user, one who may read a table's files, can do to the
// lock that makes a process the table's one writer: nothing. The test runs
// as root and plays the other user in a child (TestSupport::IntruderProcess).

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "Basalt/Exception.h"
#include "Support/Intruder.h"
#include "Support/TempDir.h"

namespace {

using Arena::WriterLock;

class WriterLockTwoUserTest : public ::testing::Test {
 protected:
  WriterLockTwoUserTest() { handler_.maskIs(1); }
  ~WriterLockTwoUserTest() override { WriterLock::releaseWriterLock(handler_, directory_); }

  // A writer in a child that takes the table and dies with it, as a killed
  // writer does: its lock file stays behind.
  void writerDiesHoldingTheTable() {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      alarm(30);
      try {
        WriterLock::acquireWriterLock(handler_, directory_);
      } catch (...) {
        _exit(1);
      }
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"WriterLockTwoUserTest"};
  std::string directory_ = temp_.path() + "/agent/l3IifConfig";
};

TEST_F(WriterLockTwoUserTest, LockFileIsPrivateToTheWritersUser) {
  WriterLock::acquireWriterLock(handler_, directory_);
  struct stat status;
  ASSERT_EQ(lstat((directory_ + "/" + WriterLock::LOCK_NAME).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(status.st_uid, geteuid());
}

// The user locks every file of the table it can open, the lock file left by
// the dead writer among them if it could open it; the next writer must take
// the table all the same.
TEST_F(WriterLockTwoUserTest, ReaderOfTheTableCannotKeepTheNextWriterOut) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  writerDiesHoldingTheTable();
  TestSupport::openToEveryone(directory_);
  TestSupport::IntruderProcess attacker(intruder, [&] { return TestSupport::lockEveryFile(directory_); });
  EXPECT_EQ(attacker.report(), '0') << "the other user could open and lock the writer's lock file";
  try {
    WriterLock::acquireWriterLock(handler_, directory_);
  } catch (const Basalt::InvalidInitializeException & error) {
    FAIL() << "the next writer is kept out: " << error.message();
  }
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
}

}  // namespace

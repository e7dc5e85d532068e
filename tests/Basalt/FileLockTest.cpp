#include <sys/file.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/Util.h"
#include "Support/TempDir.h"

namespace {

using Basalt::Util::LockOutcome;

bool isDirectory(const std::string & path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

TEST(MakeDirectories, CreatesEveryMissingComponentAndPassesOverExistingOnes) {
  TestSupport::TempDir temp;
  std::string error;
  ASSERT_TRUE(Basalt::Util::makeDirectories(temp.path() + "/a/b/c", error)) << error;
  EXPECT_TRUE(isDirectory(temp.path() + "/a/b/c"));
  EXPECT_TRUE(Basalt::Util::makeDirectories(temp.path() + "/a/b/c", error)) << "all there already";
  EXPECT_TRUE(Basalt::Util::makeDirectories(temp.path() + "/a/b/d/", error)) << "a trailing slash";
  EXPECT_TRUE(isDirectory(temp.path() + "/a/b/d"));
}

TEST(MakeDirectories, SaysWhichComponentFailed) {
  TestSupport::TempDir temp;
  std::ofstream(temp.path() + "/file") << "x";
  std::string error;
  EXPECT_FALSE(Basalt::Util::makeDirectories(temp.path() + "/file/sub/deeper", error));
  EXPECT_EQ(error, fmt::format("cannot create directory {}/file/sub: Not a directory", temp.path()));
}

class LockFileTest : public ::testing::Test {
 protected:
  ~LockFileTest() override {
    for (int fd : open_) {
      close(fd);
    }
  }
  LockOutcome lock(bool wait, int & fd) {
    LockOutcome outcome = Basalt::Util::lockFile(path_, wait, fd, error_);
    if (fd >= 0) {
      open_.push_back(fd);
    }
    return outcome;
  }

  TestSupport::TempDir temp_;
  std::string path_ = temp_.path() + "/dir/lock";
  std::string error_;
  std::vector<int> open_;
};

TEST_F(LockFileTest, LocksAndCreatesTheFileAndItsDirectory) {
  int fd = -1;
  ASSERT_EQ(lock(false, fd), LockOutcome::Locked) << error_;
  EXPECT_GE(fd, 0);
  EXPECT_TRUE(isDirectory(temp_.path() + "/dir"));
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LockFileTest, SecondOpenInTheSameProcessIsBusyWithItsDescriptorOpen) {
  int holder = -1;
  ASSERT_EQ(lock(false, holder), LockOutcome::Locked);
  int other = -1;
  EXPECT_EQ(lock(false, other), LockOutcome::Busy);
  ASSERT_GE(other, 0) << "open, so that the holder's record can be read";
  EXPECT_EQ(write(holder, "42", 2), 2);
  char text[3] = {};
  EXPECT_EQ(pread(other, text, 2, 0), 2);
  EXPECT_STREQ(text, "42");
}

TEST_F(LockFileTest, LockIsFreeOnceItsHolderClosesIt) {
  int holder = -1;
  ASSERT_EQ(lock(false, holder), LockOutcome::Locked);
  close(holder);
  open_.clear();
  int next = -1;
  EXPECT_EQ(lock(false, next), LockOutcome::Locked);
}

// A holder that unlinks its file keeps a lock on an orphan; the next locker
// locks the file at the path. (The race in which the next locker opened the
// orphan before the unlink is OwnerFileTest.WaiterOfARemovedFileLocksTheNewOne.)
TEST_F(LockFileTest, LockAfterItsHolderRemovedTheFileIsOnTheFileAtThePath) {
  int holder = -1;
  ASSERT_EQ(lock(false, holder), LockOutcome::Locked);
  int oldFile = open(path_.c_str(), O_RDWR);
  ASSERT_GE(oldFile, 0);
  ASSERT_EQ(unlink(path_.c_str()), 0);
  int next = -1;
  ASSERT_EQ(lock(false, next), LockOutcome::Locked);
  struct stat locked;
  struct stat linked;
  ASSERT_EQ(fstat(next, &locked), 0);
  ASSERT_EQ(stat(path_.c_str(), &linked), 0);
  EXPECT_EQ(locked.st_ino, linked.st_ino);
  close(oldFile);
}

TEST_F(LockFileTest, FailureSaysWhatAndWhere) {
  std::ofstream(temp_.path() + "/dir") << "a file where the directory should be";
  int fd = 7;
  EXPECT_EQ(lock(false, fd), LockOutcome::Failed);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(error_, fmt::format("cannot open {}/dir/lock: Not a directory", temp_.path()));
}

}  // namespace

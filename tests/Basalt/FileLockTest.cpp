#include <sys/file.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
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

// What another user could change is refused, naming the directory: the rule
// of every directory in which a writer makes its files.
TEST(MakeDirectories, RefusesADirectoryThatOthersCanWriteWithoutTheStickyBit) {
  TestSupport::TempDir temp;
  const std::string open = temp.path() + "/open";
  ASSERT_EQ(mkdir(open.c_str(), 0755), 0);
  ASSERT_EQ(chmod(open.c_str(), 0777), 0);
  std::string error;
  EXPECT_FALSE(Basalt::Util::makeDirectories(open + "/table", error));
  EXPECT_EQ(error, fmt::format("directory {} is writable by group or others (mode 0777) and not sticky", open));
  EXPECT_FALSE(isDirectory(open + "/table")) << "nothing is made past it";
  ASSERT_EQ(chmod(open.c_str(), 0775), 0);
  EXPECT_FALSE(Basalt::Util::makeDirectories(open + "/table", error)) << "group-writable too";
}

// A sticky directory (as /tmp and /dev/shm) may lie above a table's
// directory: others can't remove or rename what we made there. The table's
// own directory must be ours alone.
TEST(MakeDirectories, AcceptsAStickyDirectoryAboveTheLastButNotAsTheLast) {
  TestSupport::TempDir temp;
  const std::string shared = temp.path() + "/shared";
  ASSERT_EQ(mkdir(shared.c_str(), 0755), 0);
  ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
  std::string error;
  EXPECT_TRUE(Basalt::Util::makeDirectories(shared + "/base/table", error)) << error;
  EXPECT_FALSE(Basalt::Util::makeDirectories(shared, error));
  EXPECT_EQ(error, fmt::format("directory {} is writable by group or others (mode 01777)", shared));
}

TEST(MakeDirectories, RefusesADirectoryOwnedByAnotherUser) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a directory to another user";
  }
  TestSupport::TempDir temp;
  const std::string foreign = temp.path() + "/foreign";
  ASSERT_EQ(mkdir(foreign.c_str(), 0755), 0);
  ASSERT_EQ(chown(foreign.c_str(), 4242, 4242), 0);
  std::string error;
  EXPECT_FALSE(Basalt::Util::makeDirectories(foreign + "/table", error));
  EXPECT_EQ(error, fmt::format("directory {} is owned by uid:4242, neither this user (uid:0) nor root", foreign));
  EXPECT_FALSE(isDirectory(foreign + "/table"));
}

// A link is followed only when its owner is trusted, and its target is
// checked as the path it stands for.
TEST(MakeDirectories, FollowsOnlyALinkOfThisUserOrRoot) {
  TestSupport::TempDir temp;
  const std::string real = temp.path() + "/real";
  const std::string link = temp.path() + "/link";
  ASSERT_EQ(mkdir(real.c_str(), 0755), 0);
  ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
  std::string error;
  EXPECT_TRUE(Basalt::Util::makeDirectories(link + "/table", error)) << error;
  EXPECT_TRUE(isDirectory(real + "/table"));
  ASSERT_EQ(chmod(real.c_str(), 0777), 0);
  EXPECT_FALSE(Basalt::Util::makeDirectories(link + "/table", error));
  EXPECT_EQ(error, fmt::format("directory {} is writable by group or others (mode 0777) and not sticky", real));
  ASSERT_EQ(chmod(real.c_str(), 0755), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(lchown(link.c_str(), 4242, 4242), 0);
    EXPECT_FALSE(Basalt::Util::makeDirectories(link + "/table", error));
    EXPECT_EQ(error,
              fmt::format("symbolic link {} is owned by uid:4242, neither this user (uid:0) nor root", link));
  }
}

class LockFileTest : public ::testing::Test {
 protected:
  ~LockFileTest() override {
    for (int fd : open_) {
      close(fd);
    }
  }
  // `wait`: how long a busy lock is tried again.
  LockOutcome lock(bool wait, int & fd) {
    LockOutcome outcome =
        Basalt::Util::lockFile(path_, std::chrono::milliseconds(wait ? 1000 : 0), fd, error_);
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

// Only this user can open a lock file, so only this user can hold its lock.
TEST_F(LockFileTest, LockFileIsPrivateAndRecordsItsHolder) {
  int fd = -1;
  ASSERT_EQ(lock(false, fd), LockOutcome::Locked) << error_;
  struct stat status;
  ASSERT_EQ(fstat(fd, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(Basalt::Util::lockHolder(fd), 0) << "none recorded yet";
  ASSERT_TRUE(Basalt::Util::lockHolderIs(fd, 4242));
  EXPECT_EQ(Basalt::Util::lockHolder(fd), 4242);
  std::ifstream file(path_);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "4242\n");
}

// A lock file that others could open (an older release made it 0644) can't
// be trusted to exclude them: once its lock is ours it is replaced.
TEST_F(LockFileTest, LockFileThatOthersCanOpenIsReplacedByAPrivateOne) {
  ASSERT_EQ(mkdir((temp_.path() + "/dir").c_str(), 0755), 0);
  std::ofstream(path_) << "1\n";
  ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
  int fd = -1;
  ASSERT_EQ(lock(false, fd), LockOutcome::Locked) << error_;
  struct stat locked;
  ASSERT_EQ(fstat(fd, &locked), 0);
  EXPECT_EQ(locked.st_mode & 0777, 0600u);
  EXPECT_EQ(locked.st_size, 0) << "a new file, not the old one made private (its inode number may be reused)";
  struct stat linked;
  ASSERT_EQ(stat(path_.c_str(), &linked), 0);
  EXPECT_EQ(linked.st_ino, locked.st_ino);
}

TEST_F(LockFileTest, LinkAtThePathIsNotFollowed) {
  ASSERT_EQ(mkdir((temp_.path() + "/dir").c_str(), 0755), 0);
  const std::string victim = temp_.path() + "/victim";
  std::ofstream(victim) << "precious";
  ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
  int fd = 7;
  EXPECT_EQ(lock(false, fd), LockOutcome::Failed);
  EXPECT_EQ(error_, fmt::format("cannot open {}: Too many levels of symbolic links", path_));
  struct stat status;
  ASSERT_EQ(stat(victim.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  EXPECT_EQ(status.st_size, 8);
}

// A busy lock is tried again for the time given, then reported busy: no
// wait is without bound.
TEST_F(LockFileTest, WaitForABusyLockEnds) {
  int holder = -1;
  ASSERT_EQ(lock(false, holder), LockOutcome::Locked);
  int waiter = -1;
  EXPECT_EQ(Basalt::Util::lockFile(path_, std::chrono::milliseconds(30), waiter, error_), LockOutcome::Busy);
  ASSERT_GE(waiter, 0);
  close(waiter);
}

TEST_F(LockFileTest, FailureSaysWhatAndWhere) {
  std::ofstream(temp_.path() + "/dir") << "a file where the directory should be";
  int fd = 7;
  EXPECT_EQ(lock(false, fd), LockOutcome::Failed);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(error_, fmt::format("cannot open {}/dir/lock: Not a directory", temp_.path()));
}

}  // namespace

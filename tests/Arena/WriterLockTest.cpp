#include "Arena/WriterLock.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/Exception.h"
#include "Basalt/HashMix.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using Arena::WriterLock;

std::string contents(const std::string & path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  DIR * directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) {
    ++count;
  }
  closedir(directory);
  return count;
}

class WriterLockTest : public ::testing::Test {
 protected:
  WriterLockTest() { handler_.maskIs(1); }
  ~WriterLockTest() override { WriterLock::releaseWriterLock(handler_, directory_); }

  std::string lockPath() const { return directory_ + "/" + WriterLock::LOCK_NAME; }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"WriterLockTest"};
  std::string directory_ = temp_.path() + "/agent/l3IifConfig";
};

TEST_F(WriterLockTest, AcquireMakesThisProcessTheWriterAndRecordsItsPid) {
  const std::string name = WriterLock::acquireWriterLock(handler_, directory_);
  EXPECT_EQ(name.rfind("tessel-l3IifConfig-", 0), 0u) << name;
  EXPECT_EQ(WriterLock::pidOfSocketName(name), getpid());
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
  EXPECT_EQ(contents(lockPath()), fmt::format("{}\n", getpid()));
  EXPECT_TRUE(WriterLock::ownerIsMe(handler_, name));
}

TEST_F(WriterLockTest, SecondAcquireInTheSameProcessIsAnsweredByTheRegistry) {
  const std::string first = WriterLock::acquireWriterLock(handler_, directory_);
  const std::size_t descriptors = openDescriptors();
  const std::string second = WriterLock::acquireWriterLock(handler_, directory_);
  EXPECT_EQ(second, first);
  EXPECT_EQ(openDescriptors(), descriptors) << "no second descriptor, so no second, conflicting lock";
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
}

TEST_F(WriterLockTest, TablesAreLockedEachOnItsOwn) {
  const std::string other = temp_.path() + "/agent/other";
  const std::string first = WriterLock::acquireWriterLock(handler_, directory_);
  const std::string second = WriterLock::acquireWriterLock(handler_, other);
  EXPECT_NE(first, second);
  EXPECT_TRUE(WriterLock::releaseWriterLock(handler_, other));
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
  EXPECT_FALSE(WriterLock::holdsWriterLock(other));
}

TEST_F(WriterLockTest, ReleaseRemovesTheLockFileAndAllowsANewAcquire) {
  WriterLock::acquireWriterLock(handler_, directory_);
  EXPECT_TRUE(WriterLock::releaseWriterLock(handler_, directory_));
  EXPECT_FALSE(WriterLock::holdsWriterLock(directory_));
  EXPECT_NE(access(lockPath().c_str(), F_OK), 0);
  EXPECT_FALSE(WriterLock::releaseWriterLock(handler_, directory_)) << "nothing left to release";
  WriterLock::acquireWriterLock(handler_, directory_);
  EXPECT_TRUE(WriterLock::holdsWriterLock(directory_));
}

TEST_F(WriterLockTest, AcquireWhereNoDirectoryCanBeMadeIsRefused) {
  std::ofstream(temp_.path() + "/plain") << "not a directory";
  const std::string blocked = temp_.path() + "/plain/table";
  TestSupport::TraceCapture capture;
  try {
    WriterLock::acquireWriterLock(handler_, blocked);
    FAIL() << "no lock file can be made under a plain file";
  } catch (const Basalt::InvalidInitializeException & error) {
    EXPECT_EQ(error.message(), fmt::format("WriterLock::acquireWriterLock() table:{} cannot create directory "
                                           "{}: Not a directory",
                                           blocked, blocked));
  }
  EXPECT_TRUE(capture.contains("L0 WriterLock::acquireWriterLock() table:" + blocked));
  EXPECT_FALSE(WriterLock::holdsWriterLock(blocked));
}

TEST_F(WriterLockTest, OwnerIsMeComparesTheCarriedPid) {
  EXPECT_TRUE(WriterLock::ownerIsMe(handler_, WriterLock::socketNameFor("/x", getpid())));
  EXPECT_TRUE(WriterLock::ownerIsMe(handler_, fmt::format("tessel-doorbell-{}", getpid())));
  EXPECT_FALSE(WriterLock::ownerIsMe(handler_, WriterLock::socketNameFor("/x", getpid() + 1)));
  EXPECT_FALSE(WriterLock::ownerIsMe(handler_, ""));
}

TEST_F(WriterLockTest, OwnerIsAliveNamesTheOwner) {
  std::string text;
  EXPECT_TRUE(WriterLock::ownerIsAlive(handler_, WriterLock::socketNameFor(directory_, getpid()), text));
  std::string command;
  std::getline(std::ifstream("/proc/self/comm"), command);
  EXPECT_EQ(text, command);

  EXPECT_FALSE(WriterLock::ownerIsAlive(handler_, "", text));
  EXPECT_EQ(text, "none");
  EXPECT_FALSE(WriterLock::ownerIsAlive(handler_, "tessel-no-pid", text));
  EXPECT_EQ(text, "unknown");

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(WriterLock::ownerIsAlive(handler_, WriterLock::socketNameFor(directory_, child), text));
  EXPECT_EQ(text, "dead");
}

TEST_F(WriterLockTest, SocketNameIsBoundedAndNamesTheTable) {
  Basalt::Impl::HashMix<unsigned int> hash;
  hash.mixBytes(directory_.data(), directory_.size());
  const std::string name = WriterLock::socketNameFor(directory_, 123);
  const std::string prefix = fmt::format("tessel-l3IifConfig-{:08x}-", hash.result());
  ASSERT_EQ(name.size(), prefix.size() + 16 + 4) << name;
  EXPECT_EQ(name.substr(0, prefix.size()), prefix);
  EXPECT_EQ(name.substr(prefix.size() + 16), "-123");
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef", prefix.size()), prefix.size() + 16)
      << "16 hex digits of random part: " << name;
  EXPECT_EQ(WriterLock::socketNameFor(directory_ + "/", 123).rfind("tessel-l3IifConfig-", 0), 0u);
  EXPECT_NE(WriterLock::socketNameFor("/a/t", 1).substr(0, 16), WriterLock::socketNameFor("/b/t", 1).substr(0, 16));

  const std::string longName = WriterLock::socketNameFor("/base/" + std::string(300, 'q'), 2147483647);
  EXPECT_LE(longName.size(), 76u);
  EXPECT_EQ(longName.rfind("tessel-" + std::string(32, 'q') + "-", 0), 0u) << longName;
  EXPECT_EQ(WriterLock::pidOfSocketName(longName), 2147483647);
}

}  // namespace

// The owner file, the epoch file and the writer lock together, in the order
// in which a writer's attach, detach and cleanup use them, and in the order
// in which another process asks who owns a table.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "ArenaFiles/DoorbellName.h"
#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/FileTesting.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Exception.h"
#include "Support/TempDir.h"

namespace {

using ArenaFiles::DoorbellInfo;
using ArenaFiles::DoorbellName;
using ArenaFiles::EpochFile;
using ArenaFiles::EpochId;
using ArenaFiles::OwnerFile;
using Arena::WriterLock;

class OwnershipFlowTest : public ::testing::Test {
 protected:
  OwnershipFlowTest() { handler_.maskIs(1); }
  ~OwnershipFlowTest() override { WriterLock::releaseWriterLock(handler_, directory_); }

  // What a writer's attach does with these pieces; false when the owner file
  // would send it down the re-format path.
  bool attach(EpochId fresh) {
    EpochFile epoch(handler_, directory_, false);
    OwnerFile owner(handler_, directory_, false);
    owner.lock();
    DoorbellInfo info(WriterLock::acquireWriterLock(handler_, directory_), 5);
    const bool ownerSound = owner.validate();
    if (epoch.read().none()) {
      epoch.write(fresh);
    }
    std::string error;
    return owner.doorbellInfoIs(info) && owner.validate(error) && ownerSound;
  }

  // What a writer's detach does: clear the info if it names this process.
  void detach() {
    OwnerFile owner(handler_, directory_, false);
    if (WriterLock::ownerIsMe(handler_, owner.doorbellInfo().socketName())) {
      owner.doorbellInfoIs(DoorbellInfo());
    }
  }

  // What CairnMap::owner() answers: "<owner text>:<pid or 0>".
  std::string ownerText() {
    try {
      const std::string socket = OwnerFile(handler_, directory_, false).doorbellInfo().socketName();
      std::string text;
      const pid_t pid = WriterLock::ownerIsAlive(handler_, socket, text) ? DoorbellName(socket).pid() : 0;
      return fmt::format("{}:{}", text, pid);
    } catch (const Basalt::CorruptionDetectedException &) {
      return "corrupt:0";
    }
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"OwnershipFlowTest"};
  std::string directory_ = temp_.path() + "/agent/l3IifConfig";
};

TEST_F(OwnershipFlowTest, FirstStartFindsAFreshOwnerFileSound) {
  EXPECT_EQ(ownerText(), "none:0");
  ASSERT_TRUE(attach(EpochId::of(0, 42)));
  EXPECT_EQ(EpochFile(handler_, directory_, false).read(), EpochId::of(0, 42));
  const DoorbellInfo info = OwnerFile(handler_, directory_, false).doorbellInfo();
  EXPECT_EQ(info, DoorbellInfo(WriterLock::acquireWriterLock(handler_, directory_), 5));
  EXPECT_EQ(ownerText().substr(ownerText().rfind(':')), fmt::format(":{}", getpid()));
}

TEST_F(OwnershipFlowTest, DetachClearsTheInfoOfItsOwnProcessOnly) {
  ASSERT_TRUE(attach(EpochId::of(0, 1)));
  detach();
  EXPECT_TRUE(OwnerFile(handler_, directory_, false).doorbellInfo().empty());
  EXPECT_EQ(ownerText(), "none:0");

  OwnerFile(handler_, directory_, false).doorbellInfoIs(DoorbellInfo("tessel-other-1", 1));
  detach();
  EXPECT_EQ(OwnerFile(handler_, directory_, false).doorbellInfo().socketName(), "tessel-other-1");
}

TEST_F(OwnershipFlowTest, RestartAfterTheWritersDeathKeepsTheEpochAndTakesOver) {
  pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    alarm(30);
    _exit(attach(EpochId::of(0, 7)) ? 0 : 1);  // dies as the writer, its lock dropped by the kernel
  }
  int status = 0;
  ASSERT_EQ(waitpid(writer, &status, 0), writer);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(ownerText(), "dead:0") << "the owner file still names the dead writer";
  EXPECT_EQ(DoorbellName(OwnerFile(handler_, directory_, false).doorbellInfo().socketName()).pid(), writer);

  ASSERT_TRUE(attach(EpochId::of(0, 99)));
  EXPECT_EQ(EpochFile(handler_, directory_, false).read(), EpochId::of(0, 7)) << "same generation: readers go on";
  EXPECT_TRUE(WriterLock::ownerIsMe(handler_, OwnerFile(handler_, directory_, false).doorbellInfo().socketName()));
}

TEST_F(OwnershipFlowTest, GarbageOwnerFileIsSeenAtOnceAndRewritten) {
  std::filesystem::create_directories(directory_);
  FileTesting::overwrite(directory_ + "/" + OwnerFile::FILENAME, "garbage, not an owner record");
  EXPECT_EQ(ownerText(), "corrupt:0");
  EXPECT_FALSE(attach(EpochId::of(0, 3))) << "the re-format path, chosen before any file is looked at";
  std::string error;
  EXPECT_TRUE(OwnerFile(handler_, directory_, false).validate(error)) << "sound once the writer has written it";
}

// cleanup: lock, acquire, validate (false goes on), remove every file.
TEST_F(OwnershipFlowTest, CleanupWithACorruptOwnerFileStillRemovesEverything) {
  ASSERT_TRUE(attach(EpochId::of(0, 3)));
  const std::string ownerPath = directory_ + "/" + OwnerFile::FILENAME;
  FileTesting::flipByte(ownerPath, 30);
  {
    OwnerFile owner(handler_, directory_, false);
    owner.lock();
    WriterLock::acquireWriterLock(handler_, directory_);
    EXPECT_FALSE(owner.validate());
    EXPECT_NE(owner.headerToString().find("computed:"), std::string::npos) << owner.headerToString();
    std::filesystem::remove(directory_ + "/" + EpochFile::EPOCH_NAME);
    owner.remove();
    WriterLock::releaseWriterLock(handler_, directory_);
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

}  // namespace

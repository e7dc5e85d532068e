// What another local user, one who may read a table's files, can do to the
// lock of a writer's attach: nothing, while the owner record stays readable
// to it. The test runs as root and plays the other user in a child
// (TestSupport::IntruderProcess).

#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Exception.h"
#include "Support/Intruder.h"
#include "Support/TempDir.h"

namespace {

using ArenaFiles::DoorbellInfo;
using ArenaFiles::EpochFile;
using ArenaFiles::EpochId;
using ArenaFiles::OwnerFile;

class OwnerFileTwoUserTest : public ::testing::Test {
 protected:
  OwnerFileTwoUserTest() { handler_.maskIs(1); }

  // The small files a writer's attach leaves.
  void writerAttached() {
    OwnerFile owner(handler_, directory_, false);
    owner.lock();
    ASSERT_TRUE(owner.doorbellInfoIs(info_));
    EpochFile(handler_, directory_, false).write(EpochId::of(0, 7));
  }

  // A writer's attach lock, taken in a child bounded by alarm(): 'L' when it
  // got it, 'R' when it was refused, 'K' when it was still waiting when the
  // alarm went off.
  char lockInAChild() {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      try {
        OwnerFile(handler_, directory_, false).lock();
        _exit('L');
      } catch (const Basalt::InvalidInitializeException &) {
        _exit('R');
      }
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
      return '?';
    }
    return WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : 'K';
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"OwnerFileTwoUserTest"};
  std::string directory_ = temp_.path() + "/agent/l3IifConfig";
  const DoorbellInfo info_{"tessel-l3IifConfig-0badcafe-0123456789abcdef-4321", 17};
};

TEST_F(OwnerFileTwoUserTest, ReaderOfTheTableCannotStallTheNextAttach) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  writerAttached();
  TestSupport::openToEveryone(directory_);
  TestSupport::IntruderProcess attacker(intruder, [&] { return TestSupport::lockEveryFile(directory_); });
  EXPECT_EQ(attacker.report(), '2') << "it locks what it may read (owner and epoch), and nothing else";
  EXPECT_EQ(lockInAChild(), 'L') << "the attach must neither wait for the other user nor be refused";
}

TEST_F(OwnerFileTwoUserTest, OwnerRecordStaysReadableToOtherUsers) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  writerAttached();
  TestSupport::openToEveryone(directory_);
  const char report = TestSupport::runAsIntruder(intruder, [&] {
    try {
      return OwnerFile(handler_, directory_, false).doorbellInfo() == info_ ? 'Y' : 'N';
    } catch (const Basalt::CorruptionDetectedException &) {
      return 'C';
    }
  });
  EXPECT_EQ(report, 'Y');
}

}  // namespace

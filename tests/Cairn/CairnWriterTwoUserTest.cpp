// What another local user can do to a writer's start: make the base
// directory first, plant a link where the writer makes its slot file, or
// take the name of the writer's wake-up socket. None of it may give that user
// the table, a file of the writer's user, or a failed start that a fresh name
// avoids. The test runs as root and plays the other user in a child
// (TestSupport::IntruderProcess).

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ArenaFiles/OwnerFile.h"
#include "Arena/WriterLock.h"
#include "Basalt/Exception.h"
#include "Basalt/Util.h"
#include "Cairn/ScopedEnvironment.h"
#include "Cairn/Toggle.h"
#include "Cairn/WriterTestTypes.h"
#include "Nudge/Socket.h"
#include "Support/Intruder.h"
#include "Support/TempDir.h"

namespace {

using CairnTest::IifSizedValue;
using CairnTest::WriterFor;
using CairnTesting::ScopedEnvironment;
using Writer = WriterFor<IifSizedValue>;

constexpr const char * TableName = "test/writer";

class CairnWriterTwoUserTest : public ::testing::Test {
 protected:
  CairnWriterTwoUserTest() {
    handler_.maskIs(1);
    // A world-writable sticky directory, as /dev/shm is, that everyone can
    // reach: the place where the other user can come first.
    EXPECT_EQ(mkdir(shared_.c_str(), 0755), 0);
    EXPECT_EQ(chmod(shared_.c_str(), 01777), 0);
    TestSupport::openToEveryone(shared_);
    std::ofstream(victim_) << "precious";
  }

  std::unique_ptr<Writer> makeWriter() {
    return std::make_unique<Writer>(handler_, TableName, CairnTest::sharedDescriptor(64),
                                    CairnTest::OpsFor<IifSizedValue>(), "TestClass", [](bool) {});
  }

  std::string victimContents() const {
    std::ifstream file(victim_);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"CairnWriterTwoUserTest"};
  std::string shared_ = temp_.path() + "/shm";
  std::string base_ = shared_ + "/tessel";
  std::string directory_ = base_ + "/" + TableName;
  // A file of the writer's user (root) that the other user can't write.
  std::string victim_ = temp_.path() + "/victim";
  ScopedEnvironment root_{Cairn::RootPath::baseVariable, base_};
};

TEST_F(CairnWriterTwoUserTest, BaseDirectoryMadeByAnotherUserIsRefusedNamingIt) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  ASSERT_EQ(TestSupport::runAsIntruder(intruder, [&] { return mkdir(base_.c_str(), 0755) == 0 ? 'M' : 'F'; }),
            'M');
  auto writer = makeWriter();
  try {
    writer->initialize(TableName);
    FAIL() << "a writer took a table in a directory of another user";
  } catch (const Basalt::InvalidInitializeException & error) {
    EXPECT_NE(error.message().find(fmt::format("directory {} is owned by uid:{}", base_, intruder.uid)),
              std::string::npos)
        << error.message();
  }
  EXPECT_FALSE(std::filesystem::exists(directory_)) << "nothing is made in it";
}

// The other user makes the base and the table's directory, and a link named
// "slots" to a file of the writer's user elsewhere.
TEST_F(CairnWriterTwoUserTest, LinkPlantedAsTheSlotFileNeverReachesItsTarget) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  const char planted = TestSupport::runAsIntruder(intruder, [&] {
    std::string error;
    const bool made = mkdir(base_.c_str(), 0777) == 0 && mkdir((base_ + "/test").c_str(), 0777) == 0 &&
                      mkdir(directory_.c_str(), 0777) == 0 &&
                      symlink(victim_.c_str(), (directory_ + "/slots").c_str()) == 0;
    return made ? 'P' : 'F';
  });
  ASSERT_EQ(planted, 'P');
  auto writer = makeWriter();
  EXPECT_THROW(writer->initialize(TableName), Basalt::InvalidInitializeException);
  EXPECT_EQ(victimContents(), "precious");
  struct stat status;
  ASSERT_EQ(stat(victim_.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 8);
}

// With a socket of its own (OneSocketNudge off), a writer whose name the
// other user has taken listens on a fresh one and publishes that. The random
// part of the name is steered so that the first name is the taken one.
TEST_F(CairnWriterTwoUserTest, TakenSocketNameIsRenewedAndPublished) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  TestSupport::TempDir config;
  std::ofstream(config.path() + "/ArenaFiles.json") << R"({"OneSocketNudge": false})";
  ScopedEnvironment toggles("TESSEL_CONFIG_DIR", config.path());
  Cairn::resetToggleOneSocketNudgeForTesting();
  const std::string directory = Cairn::RootPath(handler_, TableName, true).directory();
  int next = 0;
  Basalt::Util::randomTokenSourceIs([&] { return fmt::format("{:016x}", ++next); });
  const std::string taken = Arena::WriterLock::socketNameFor(directory, getpid());
  next = 0;
  TestSupport::IntruderProcess squatter(intruder, [&] {
    std::string error;
    return (new Nudge::Listener)->listenOn(taken, error) ? 'B' : 'F';  // kept for the child's life
  });
  ASSERT_EQ(squatter.report(), 'B');
  auto writer = makeWriter();
  try {
    writer->initialize(TableName);
  } catch (const Basalt::InvalidInitializeException & error) {
    ADD_FAILURE() << "the start failed on a taken name: " << error.message();
  }
  Basalt::Util::randomTokenSourceIs({});
  Cairn::resetToggleOneSocketNudgeForTesting();
  const std::string published = ArenaFiles::OwnerFile(handler_, directory, false).doorbellInfo().socketName();
  EXPECT_NE(published, taken);
  EXPECT_EQ(published, taken.substr(0, taken.size() - 16 - 1 - std::to_string(getpid()).size()) +
                           fmt::format("{:016x}-{}", 2, getpid()));
  std::string error;
  EXPECT_TRUE(Nudge::connectTo(published, error)) << "readers reach the writer on it: " << error;
}

}  // namespace

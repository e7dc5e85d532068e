#include <cstdlib>

#include <gtest/gtest.h>

#include "Basalt/Exception.h"
#include "Cairn/Compatibility.h"
#include "Cairn/RootPath.h"

namespace {

class RootPathTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv(Cairn::RootPath::baseVariable); }
  void TearDown() override { unsetenv(Cairn::RootPath::baseVariable); }

  std::string refusal(const std::string & name) {
    try {
      Cairn::RootPath(handler, name, true);
    } catch (const Basalt::InvalidInitializeException & exception) {
      return exception.what();
    }
    return "accepted";
  }

  Basalt::Platform::DebugHandler handler{"rootpath-test"};
};

}  // namespace

TEST_F(RootPathTest, DefaultBaseIsUnderDevShm) {
  Cairn::RootPath path(handler, "agent/l3IifConfig", true);
  EXPECT_EQ(path.directory(), "/dev/shm/tessel/agent/l3IifConfig");
  EXPECT_EQ(path.file("slots"), "/dev/shm/tessel/agent/l3IifConfig/slots");
  EXPECT_EQ(path.cairnName(), "agent/l3IifConfig");
  EXPECT_EQ(path.toString(), path.directory());
}

TEST_F(RootPathTest, BaseComesFromTheEnvironment) {
  setenv(Cairn::RootPath::baseVariable, "/tmp/elsewhere", 1);
  EXPECT_EQ(Cairn::RootPath(handler, "/t", true).directory(), "/tmp/elsewhere/t");
  setenv(Cairn::RootPath::baseVariable, "", 1);
  EXPECT_EQ(Cairn::RootPath(handler, "t", true).directory(), "/dev/shm/tessel/t");
}

TEST_F(RootPathTest, NamesThatCouldLeaveTheBaseAreRefused) {
  EXPECT_EQ(refusal(""), "Cairn::RootPath() bad table name: ''");
  EXPECT_EQ(refusal("a//b"), "Cairn::RootPath() bad table name: 'a//b'");
  EXPECT_EQ(refusal("a/../b"), "Cairn::RootPath() bad table name: 'a/../b'");
  EXPECT_EQ(refusal(".."), "Cairn::RootPath() bad table name: '..'");
  EXPECT_EQ(refusal("a/./b"), "Cairn::RootPath() bad table name: 'a/./b'");
  EXPECT_EQ(refusal("a/"), "Cairn::RootPath() bad table name: 'a/'");
  EXPECT_EQ(refusal(std::string("a\0b", 3)), "Cairn::RootPath() bad table name: 'a\\0b'");
  EXPECT_EQ(refusal("a/b..c"), "accepted");
}

TEST(Compatibility, ThisSystemIsPlatformTwo) {
  EXPECT_EQ(Cairn::Compatibility::platform, 2u);
  EXPECT_EQ(Cairn::Compatibility::platformType(2), "x86_64-linux");
  EXPECT_EQ(Cairn::Compatibility::platformType(9), "unknown(9)");
}

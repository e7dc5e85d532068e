#include <unistd.h>

#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/WriterLock.h"
#include "ArenaFiles/DoorbellInfo.h"
#include "ArenaFiles/DoorbellName.h"
#include "Basalt/Exception.h"

namespace {

using ArenaFiles::DoorbellInfo;
using ArenaFiles::DoorbellName;

TEST(DoorbellInfo, DefaultIsEmptyAndSaysNoWriter) {
  DoorbellInfo info;
  EXPECT_TRUE(info.empty());
  EXPECT_EQ(info.socketName(), "");
  EXPECT_EQ(info.tableId(), 0u);
  EXPECT_EQ(info.toString(), "socketName: tableId:0");
}

TEST(DoorbellInfo, SettersAndText) {
  DoorbellInfo info;
  info.socketNameIs("tessel-l3Iif-01234567-99");
  info.tableIdIs(12);
  EXPECT_FALSE(info.empty());
  EXPECT_EQ(info.toString(), "socketName:tessel-l3Iif-01234567-99 tableId:12");
  EXPECT_EQ(info, DoorbellInfo("tessel-l3Iif-01234567-99", 12));
  EXPECT_NE(info, DoorbellInfo("tessel-l3Iif-01234567-99", 13));
}

TEST(DoorbellInfo, NameThatDoesNotFitASocketAddressIsAnAssertion) {
  DoorbellInfo info;
  info.socketNameIs(std::string(DoorbellInfo::MaxSocketName, 'n'));
  const std::string tooLong(DoorbellInfo::MaxSocketName + 1, 'n');
  try {
    info.socketNameIs(tooLong);
    FAIL() << "108 bytes don't fit with the NUL";
  } catch (const Basalt::AssertException & error) {
    EXPECT_EQ(error.message(), "DoorbellInfo::socketNameIs() bad socket name:" + tooLong);
  }
  EXPECT_THROW(info.socketNameIs(std::string("a\0b", 3)), Basalt::AssertException);
  EXPECT_EQ(info.socketName(), std::string(DoorbellInfo::MaxSocketName, 'n')) << "a refused name changes nothing";
}

TEST(DoorbellName, ForTableCarriesThePid) {
  const DoorbellName name = DoorbellName::forTable("/dev/shm/tessel/agent/l3Iif", 4242);
  EXPECT_EQ(name.name().rfind("tessel-l3Iif-", 0), 0u) << name.name();
  EXPECT_NE(name.name(), DoorbellName::forTable("/dev/shm/tessel/agent/l3Iif", 4242).name())
      << "a fresh random part with every name";
  EXPECT_EQ(name.pid(), 4242);
  EXPECT_EQ(DoorbellName::forTable("/t", getpid()).pid(), getpid());
}

TEST(DoorbellName, PidIsTheDecimalAfterTheLastDash) {
  EXPECT_EQ(DoorbellName("tessel-doorbell-77").pid(), 77);
  EXPECT_EQ(DoorbellName("a-b-c-2147483647").pid(), 2147483647);
  EXPECT_EQ(DoorbellName("").pid(), 0);
  EXPECT_EQ(DoorbellName("nodash").pid(), 0);
  EXPECT_EQ(DoorbellName("ends-").pid(), 0);
  EXPECT_EQ(DoorbellName("bad-12x").pid(), 0);
  EXPECT_EQ(DoorbellName("zero-0").pid(), 0);
  EXPECT_EQ(DoorbellName("big-2147483648").pid(), 0);
  EXPECT_EQ(DoorbellName("neg--5").pid(), 5) << "the last dash starts the number";
}

}  // namespace

// dumpToCoreIs: the kernel's view of a mapping, read from /proc/self/smaps,
// where "dd" among a mapping's VmFlags means "do not dump".

#include <string>

#include <gtest/gtest.h>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/MappingFlags.h"
#include "Arena/Memory.h"
#include "Support/TempDir.h"

namespace {

bool excludedFromCore(const void * address) {
  return ArenaTest::vmFlagsAt(address).find(" dd ") != std::string::npos;
}

class ArenaFilesWrapperDumpTest : public ::testing::TestWithParam<bool> {
 protected:
  ArenaFilesWrapperDumpTest() { handler_.maskIs(1); }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"ArenaFilesWrapperDumpTest"};
  Arena::ArenaFilesWrapper wrapper_{handler_, temp_.path() + "/table", "slots", GetParam()};
  const std::size_t page_ = Arena::pageSize_;
};

TEST_P(ArenaFilesWrapperDumpTest, MappingFollowsTheChoice) {
  void * base = wrapper_.attach(4 * page_);
  ASSERT_NE(base, nullptr);
  EXPECT_FALSE(wrapper_.dumpToCore().has_value()) << "no choice until one is made";
  ASSERT_NE(ArenaTest::vmFlagsAt(base), "");
  EXPECT_FALSE(excludedFromCore(base));

  EXPECT_TRUE(wrapper_.dumpToCoreIs(false));
  EXPECT_TRUE(excludedFromCore(base));
  EXPECT_TRUE(excludedFromCore(static_cast<char *>(base) + 3 * page_)) << "the whole mapping";

  EXPECT_TRUE(wrapper_.dumpToCoreIs(true));
  EXPECT_FALSE(excludedFromCore(base));
  EXPECT_EQ(wrapper_.dumpToCore(), true);
}

TEST_P(ArenaFilesWrapperDumpTest, ChoiceIsAppliedAgainAfterResizeAndAttach) {
  ASSERT_NE(wrapper_.attach(page_), nullptr);
  EXPECT_TRUE(wrapper_.dumpToCoreIs(false));
  void * grown = wrapper_.resize(64 * page_);
  ASSERT_NE(grown, nullptr);
  EXPECT_TRUE(excludedFromCore(grown));
  EXPECT_TRUE(excludedFromCore(static_cast<char *>(grown) + 63 * page_)) << "the grown tail too";

  wrapper_.detach();
  void * again = wrapper_.attach(2 * page_);
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(excludedFromCore(again));
}

TEST_P(ArenaFilesWrapperDumpTest, ChoiceMadeWhileDetachedWaitsForTheMapping) {
  EXPECT_TRUE(wrapper_.dumpToCoreIs(false));
  void * base = wrapper_.attach(page_);
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(excludedFromCore(base));
}

INSTANTIATE_TEST_SUITE_P(FileAndLocal, ArenaFilesWrapperDumpTest, ::testing::Values(false, true),
                         [](const auto & info) { return info.param ? "Local" : "File"; });

TEST(ArenaFilesWrapperDump, HeapBackedMemoryIsLeftAsTheHeapHasIt) {
  Basalt::Platform::DebugHandler handler("ArenaFilesWrapperDumpTest");
  Arena::ArenaFilesWrapper wrapper(handler, "/nowhere", "slots", true, true);
  void * base = wrapper.attach(100);
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(wrapper.dumpToCoreIs(false));
  EXPECT_EQ(wrapper.dumpToCore(), false);
}

}  // namespace

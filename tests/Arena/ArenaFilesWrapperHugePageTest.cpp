// Huge pages: a file mapping of 2 MiB or more is advised for them at every
// attach and resize ("hg" among its VmFlags); a smaller one, and private
// memory, are left as they are.

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/MappingFlags.h"
#include "Arena/Memory.h"
#include "Support/TempDir.h"

namespace {

bool advisedHuge(const void * address) { return ArenaTest::vmFlagsAt(address).find(" hg ") != std::string::npos; }

class ArenaFilesWrapperHugePageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/sys/kernel/mm/transparent_hugepage", F_OK) != 0) {
      GTEST_SKIP() << "this kernel has no transparent huge pages";
    }
  }

  Arena::ArenaFilesWrapper wrapper(bool localMem = false) {
    return Arena::ArenaFilesWrapper(handler_, temp_.path() + "/table", "slots", localMem);
  }

  static constexpr std::size_t Huge = Arena::ArenaFilesWrapper::HugePageSize;
  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"ArenaFilesWrapperHugePageTest"};
  const std::size_t page_ = Arena::pageSize_;
};

TEST_F(ArenaFilesWrapperHugePageTest, ALargeFileMappingIsAdvisedForHugePages) {
  auto files = wrapper();
  void * base = files.attach(2 * Huge);
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(advisedHuge(base));
  EXPECT_TRUE(advisedHuge(static_cast<char *>(base) + 2 * Huge - page_)) << "the whole mapping";
}

TEST_F(ArenaFilesWrapperHugePageTest, ASmallMappingIsLeftAlone) {
  auto files = wrapper();
  void * base = files.attach(4 * page_);
  ASSERT_NE(base, nullptr);
  EXPECT_FALSE(advisedHuge(base));
}

TEST_F(ArenaFilesWrapperHugePageTest, AMappingGrownPastTheSizeIsAdvisedAgain) {
  auto files = wrapper();
  ASSERT_NE(files.attach(4 * page_), nullptr);
  void * base = files.resize(Huge + page_);
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(advisedHuge(base));
}

TEST_F(ArenaFilesWrapperHugePageTest, AReadOnlyMappingOfALargeFileIsAdvisedToo) {
  auto writer = wrapper();
  ASSERT_NE(writer.attach(Huge), nullptr);
  auto reader = wrapper();
  void * base = reader.attach(Huge, Arena::ArenaFilesWrapper::Mode::ReadOnly);
  ASSERT_NE(base, nullptr);
  EXPECT_TRUE(advisedHuge(base));
}

TEST_F(ArenaFilesWrapperHugePageTest, PrivateMemoryIsLeftAsItIs) {
  auto local = wrapper(true);
  void * base = local.attach(2 * Huge);
  ASSERT_NE(base, nullptr);
  EXPECT_FALSE(advisedHuge(base));
}

}  // namespace

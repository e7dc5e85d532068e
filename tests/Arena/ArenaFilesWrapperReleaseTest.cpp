// releaseTail: a writer that has shrunk its mapping gives the memory of the
// file's tail back, while the file keeps its length, so that another mapping
// of the old length stays readable and reads zeros there.

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/Memory.h"
#include "Support/TempDir.h"

namespace {

using Mode = Arena::ArenaFilesWrapper::Mode;

constexpr std::size_t Length = 256 * 4096;

class ArenaFilesWrapperReleaseTest : public ::testing::Test {
 protected:
  Basalt::Platform::DebugHandler handler_{"release-test"};
  TestSupport::TempDir dir_;
};

}  // namespace

TEST_F(ArenaFilesWrapperReleaseTest, TheTailGoesBackAndAnOlderMappingReadsZerosThere) {
  Arena::ArenaFilesWrapper writer(handler_, dir_.path(), "slots", false);
  auto * bytes = static_cast<unsigned char *>(writer.attach(Length));
  ASSERT_NE(bytes, nullptr);
  std::memset(bytes, 0xA5, Length);
  const std::size_t held = writer.allocatedSize();
  EXPECT_GE(held, Length);

  Arena::ArenaFilesWrapper reader(handler_, dir_.path(), "slots", false);
  const auto * old = static_cast<const unsigned char *>(reader.attach(Length, Mode::ReadOnly));
  ASSERT_NE(old, nullptr);

  const std::size_t keep = 3 * 4096 + 100;  // the kept bytes end inside a page, which stays whole
  ASSERT_NE(writer.resize(keep), nullptr);
  ASSERT_TRUE(writer.releaseTail(keep)) << writer.reason();
  EXPECT_EQ(writer.fileSize(), Length);
  EXPECT_LE(writer.allocatedSize(), 2 * 4 * Arena::pageSize_) << "held before: " << held;
  EXPECT_EQ(old[keep], 0xA5) << "the rest of the last kept page";
  EXPECT_EQ(old[4 * 4096 - 1], 0xA5);
  EXPECT_EQ(old[4 * 4096], 0) << "the first released byte";
  EXPECT_EQ(old[Length - 1], 0) << "the last byte of the file, read without a fault";
  EXPECT_EQ(reader.fileSize(), Length);
}

TEST_F(ArenaFilesWrapperReleaseTest, NothingPastTheEndIsNothingToDoAndAReadOnlyMappingIsRefused) {
  Arena::ArenaFilesWrapper writer(handler_, dir_.path(), "slots", false);
  ASSERT_NE(writer.attach(4096), nullptr);
  EXPECT_TRUE(writer.releaseTail(4096));
  EXPECT_TRUE(writer.releaseTail(5000));
  Arena::ArenaFilesWrapper reader(handler_, dir_.path(), "slots", false);
  ASSERT_NE(reader.attach(4096, Mode::ReadOnly), nullptr);
  EXPECT_FALSE(reader.releaseTail(0));
  EXPECT_EQ(reader.reason(), dir_.path() + "/slots is not mapped for writing");
  EXPECT_NE(reader.base(), nullptr) << "the refusal leaves the mapping alone";
}

TEST_F(ArenaFilesWrapperReleaseTest, PrivateMemoryHasNothingToGiveBack) {
  Arena::ArenaFilesWrapper local(handler_, dir_.path(), "slots", true);
  ASSERT_NE(local.attach(Length), nullptr);
  ASSERT_NE(local.resize(4096), nullptr);
  EXPECT_TRUE(local.releaseTail(4096));
  EXPECT_EQ(local.allocatedSize(), local.memSize());
}

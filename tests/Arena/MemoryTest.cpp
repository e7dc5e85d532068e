#include <unistd.h>

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "Arena/Memory.h"
#include "Basalt/Exception.h"

namespace {

constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();

TEST(ArenaMemory, PageSizeIsTheSystemsPageSize) {
  EXPECT_EQ(Arena::pageSize_, static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(Arena::pageSize_ & (Arena::pageSize_ - 1), 0u) << "a page is a power of two";
}

TEST(ArenaMemory, MultiplyOverflowCheckReturnsTheProduct) {
  EXPECT_EQ(Arena::multiplyOverflowCheck(6, 7), 42u);
  EXPECT_EQ(Arena::multiplyOverflowCheck(0, kMax), 0u);
  EXPECT_EQ(Arena::multiplyOverflowCheck(kMax, 1), kMax);
  EXPECT_EQ(Arena::multiplyOverflowCheck(std::size_t{1} << 31, std::size_t{1} << 32), std::size_t{1} << 63);
}

TEST(ArenaMemory, MultiplyOverflowCheckThrowsNamingBothFactors) {
  try {
    Arena::multiplyOverflowCheck(std::size_t{1} << 32, std::size_t{1} << 32);
    FAIL() << "no exception";
  } catch (const Basalt::MemoryResourceException & e) {
    EXPECT_STREQ(e.what(), "Arena::multiplyOverflowCheck() 4294967296 * 4294967296 overflows");
  }
  EXPECT_THROW(Arena::multiplyOverflowCheck(kMax, 2), Basalt::MemoryResourceException);
  EXPECT_THROW(Arena::multiplyOverflowCheck((kMax >> 1) + 1, 2), Basalt::MemoryResourceException);
}

}  // namespace

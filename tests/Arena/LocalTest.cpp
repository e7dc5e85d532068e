#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <limits>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/Local.h"
#include "Arena/Memory.h"
#include "Support/TraceCapture.h"

namespace {

// Writes a byte pattern that depends on the offset, so that a moved or
// shifted copy is told apart from the original.
void fill(void * base, std::size_t bytes) {
  auto * p = static_cast<unsigned char *>(base);
  for (std::size_t i = 0; i < bytes; ++i) {
    p[i] = static_cast<unsigned char>(i * 7 + 1);
  }
}

// The first offset in [from, to) that does not hold the pattern, or `to`.
std::size_t firstUnfilled(const void * base, std::size_t from, std::size_t to) {
  const auto * p = static_cast<const unsigned char *>(base);
  for (std::size_t i = from; i < to; ++i) {
    if (p[i] != static_cast<unsigned char>(i * 7 + 1)) {
      return i;
    }
  }
  return to;
}

// The first offset in [from, to) that is not zero, or `to`.
std::size_t firstNonZero(const void * base, std::size_t from, std::size_t to) {
  const auto * p = static_cast<const unsigned char *>(base);
  for (std::size_t i = from; i < to; ++i) {
    if (p[i] != 0) {
      return i;
    }
  }
  return to;
}

// Traces at level 0 only, whatever TESSEL_DEBUG says.
Basalt::Platform::DebugHandler failureHandler() {
  Basalt::Platform::DebugHandler handler("LocalTest");
  handler.maskIs(1);
  return handler;
}

// Each behaviour holds for both backings: parameter true is the heap.
class LocalTest : public ::testing::TestWithParam<bool> {
 protected:
  Basalt::Platform::DebugHandler handler_ = failureHandler();
  Arena::Local local_{handler_, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Backing, LocalTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> & info) {
                           return info.param ? "Heap" : "Anonymous";
                         });

TEST_P(LocalTest, AttachGivesZeroedBlockOfAtLeastTheSize) {
  const std::size_t asked = Arena::pageSize_ + 100;
  void * base = local_.attach(asked);
  ASSERT_NE(base, nullptr) << local_.reason();
  EXPECT_EQ(local_.base(), base);
  EXPECT_GE(local_.memSize(), asked);
  EXPECT_EQ(firstNonZero(base, 0, local_.memSize()), local_.memSize());
  EXPECT_EQ(local_.reason(), "");
}

TEST_P(LocalTest, ResizeUpKeepsContentsAndZeroesTheAddedPart) {
  ASSERT_NE(local_.attach(100), nullptr);
  const std::size_t oldSize = local_.memSize();
  fill(local_.base(), oldSize);

  const std::size_t asked = 3 * Arena::pageSize_ + 5;
  void * base = local_.resize(asked);
  ASSERT_NE(base, nullptr) << local_.reason();
  ASSERT_GE(local_.memSize(), asked);
  EXPECT_EQ(firstUnfilled(base, 0, oldSize), oldSize);
  EXPECT_EQ(firstNonZero(base, oldSize, local_.memSize()), local_.memSize());
}

TEST_P(LocalTest, ResizeDownKeepsThePrefixAndALaterGrowthIsZero) {
  ASSERT_NE(local_.attach(3 * Arena::pageSize_), nullptr);
  fill(local_.base(), local_.memSize());

  ASSERT_NE(local_.resize(Arena::pageSize_), nullptr) << local_.reason();
  EXPECT_EQ(local_.memSize(), Arena::pageSize_);
  EXPECT_EQ(firstUnfilled(local_.base(), 0, Arena::pageSize_), Arena::pageSize_);

  // The bytes cut off are not handed back: what grows again is zero.
  ASSERT_NE(local_.resize(3 * Arena::pageSize_), nullptr) << local_.reason();
  EXPECT_EQ(firstUnfilled(local_.base(), 0, Arena::pageSize_), Arena::pageSize_);
  EXPECT_EQ(firstNonZero(local_.base(), Arena::pageSize_, local_.memSize()), local_.memSize());
}

TEST_P(LocalTest, GrowthToALargeBlockKeepsContents) {
  // From a small block to 4 MiB: on the heap that leaves the small-block
  // arena for a mapping of its own, so the copy is real.
  ASSERT_NE(local_.attach(64), nullptr);
  fill(local_.base(), 64);
  const std::size_t asked = 4u << 20;
  ASSERT_NE(local_.resize(asked), nullptr) << local_.reason();
  EXPECT_EQ(firstUnfilled(local_.base(), 0, 64), 64u);
  EXPECT_EQ(firstNonZero(local_.base(), 64, asked), asked);
}

TEST_P(LocalTest, ZeroBytesHoldNoMemoryAndAreNoFailure) {
  EXPECT_EQ(local_.attach(0), nullptr);
  EXPECT_EQ(local_.base(), nullptr);
  EXPECT_EQ(local_.memSize(), 0u);
  EXPECT_EQ(local_.reason(), "");

  ASSERT_NE(local_.resize(100), nullptr);
  fill(local_.base(), 100);
  EXPECT_EQ(local_.resize(0), nullptr);
  EXPECT_EQ(local_.base(), nullptr);
  EXPECT_EQ(local_.memSize(), 0u);
  EXPECT_EQ(local_.reason(), "");

  // A block after a release starts zeroed again.
  ASSERT_NE(local_.resize(100), nullptr);
  EXPECT_EQ(firstNonZero(local_.base(), 0, 100), 100u);
}

TEST_P(LocalTest, DetachReleasesAndAttachStartsAfresh) {
  ASSERT_NE(local_.attach(100), nullptr);
  fill(local_.base(), 100);
  local_.detach();
  EXPECT_EQ(local_.base(), nullptr);
  EXPECT_EQ(local_.memSize(), 0u);
  ASSERT_NE(local_.attach(100), nullptr);
  EXPECT_EQ(firstNonZero(local_.base(), 0, 100), 100u);
}

TEST_P(LocalTest, UnknownModeFailsWithAReason) {
  TestSupport::TraceCapture traces;
  EXPECT_EQ(local_.attach(100, 1), nullptr);
  EXPECT_EQ(local_.base(), nullptr);
  EXPECT_EQ(local_.reason(), "unknown mode 1");
  EXPECT_TRUE(traces.contains("L0 Local::attach() unknown mode 1"));
}

TEST_P(LocalTest, KindNamesTheBacking) {
  EXPECT_STREQ(local_.kind(), GetParam() ? Arena::Local::HEAP : Arena::Local::ANONYMOUS);
  EXPECT_EQ(local_.useHeap(), GetParam());
  EXPECT_STREQ(Arena::Local::HEAP, "heap");
  EXPECT_STREQ(Arena::Local::ANONYMOUS, "anonymous");
}

class LocalAnonymousTest : public ::testing::Test {
 protected:
  Basalt::Platform::DebugHandler handler_ = failureHandler();
  Arena::Local local_{handler_};
};

TEST_F(LocalAnonymousTest, SizesAreWholePages) {
  ASSERT_NE(local_.attach(Arena::pageSize_ + 1), nullptr);
  EXPECT_EQ(local_.memSize(), 2 * Arena::pageSize_);
  ASSERT_NE(local_.resize(1), nullptr);
  EXPECT_EQ(local_.memSize(), Arena::pageSize_);
}

TEST_F(LocalAnonymousTest, ResizeWithinThePageKeepsTheBase) {
  void * base = local_.attach(100);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(local_.resize(200), base);
  EXPECT_EQ(local_.memSize(), Arena::pageSize_);
}

TEST_F(LocalAnonymousTest, ResizeThatMustMoveKeepsContents) {
  void * old = local_.attach(Arena::pageSize_);
  ASSERT_NE(old, nullptr);
  fill(old, Arena::pageSize_);
  // Occupy the page right after the block so that it can't grow in place. If
  // that page is taken already, it blocks the growth just as well.
  void * next = static_cast<char *>(old) + Arena::pageSize_;
  void * blocker = mmap(next, Arena::pageSize_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  const bool ownBlocker = blocker == next;

  void * moved = local_.resize(4 * Arena::pageSize_);
  if (ownBlocker) {
    munmap(blocker, Arena::pageSize_);
  }
  ASSERT_NE(moved, nullptr) << local_.reason();
  EXPECT_NE(moved, old);
  EXPECT_EQ(firstUnfilled(moved, 0, Arena::pageSize_), Arena::pageSize_);
  EXPECT_EQ(firstNonZero(moved, Arena::pageSize_, 4 * Arena::pageSize_), 4 * Arena::pageSize_);
}

TEST_F(LocalAnonymousTest, FlagsReachTheMapping) {
  // MAP_POPULATE makes the page resident at once; without it a fresh
  // anonymous page stays unbacked until it is touched.
  Arena::Local populated(handler_, false, MAP_POPULATE);
  ASSERT_NE(populated.attach(Arena::pageSize_), nullptr);
  ASSERT_NE(local_.attach(Arena::pageSize_), nullptr);
  unsigned char resident = 0;
  ASSERT_EQ(mincore(populated.base(), Arena::pageSize_, &resident), 0);
  EXPECT_EQ(resident & 1, 1);
  ASSERT_EQ(mincore(local_.base(), Arena::pageSize_, &resident), 0);
  EXPECT_EQ(resident & 1, 0);
}

TEST_F(LocalAnonymousTest, SizeBeyondWholePagesFails) {
  TestSupport::TraceCapture traces;
  const std::size_t huge = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(local_.attach(huge), nullptr);
  EXPECT_EQ(local_.reason(), "18446744073709551615 bytes do not fit in whole pages");
  EXPECT_TRUE(traces.contains("L0 Local::attach() 18446744073709551615 bytes do not fit in whole pages"));
  EXPECT_EQ(local_.memSize(), 0u);
}

TEST_F(LocalAnonymousTest, AttachFailureGivesTheSystemsReason) {
  TestSupport::TraceCapture traces;
  const std::size_t exabyte = std::size_t{1} << 60;
  EXPECT_EQ(local_.attach(exabyte), nullptr);
  EXPECT_EQ(local_.reason(), "mmap of 1152921504606846976 bytes failed: Cannot allocate memory");
  EXPECT_TRUE(traces.contains("L0 Local::attach() mmap of 1152921504606846976 bytes failed"));
}

TEST_F(LocalAnonymousTest, ResizeFailureReleasesTheOldBlock) {
  TestSupport::TraceCapture traces;
  ASSERT_NE(local_.attach(100), nullptr);
  const std::size_t exabyte = std::size_t{1} << 60;
  EXPECT_EQ(local_.resize(exabyte), nullptr);
  EXPECT_EQ(local_.base(), nullptr);
  EXPECT_EQ(local_.memSize(), 0u);
  const std::string expected =
      fmt::format("mremap from {} to 1152921504606846976 bytes failed: Invalid argument", Arena::pageSize_);
  EXPECT_EQ(local_.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 Local::resize() " + expected));
}

TEST_F(LocalAnonymousTest, ASuccessClearsTheReason) {
  EXPECT_EQ(local_.attach(100, 7), nullptr);
  EXPECT_NE(local_.reason(), "");
  ASSERT_NE(local_.attach(100), nullptr);
  EXPECT_EQ(local_.reason(), "");
}

}  // namespace

#include <gtest/gtest.h>

#include "Basalt/HashMix.h"
#include "Basalt/Util.h"

TEST(BasaltUtil, ReverseMovesBitZeroToBitThirtyOne) {
  EXPECT_EQ(Basalt::Util::reverse(1u), 0x80000000u);
  EXPECT_EQ(Basalt::Util::reverse(0x80000000u), 1u);
  EXPECT_EQ(Basalt::Util::reverse(0x12345678u), 0x1E6A2C48u);
  EXPECT_EQ(Basalt::Util::reverse(0u), 0u);
  EXPECT_EQ(Basalt::Util::reverse(0xFFFFFFFFu), 0xFFFFFFFFu);
}

TEST(BasaltUtil, ReverseIsItsOwnInverse) {
  for (uint32_t v = 1; v < 0xF0000000u; v = v * 3 + 7) {
    EXPECT_EQ(Basalt::Util::reverse(Basalt::Util::reverse(v)), v);
  }
}

TEST(BasaltHashMix, IsFnv1a) {
  // FNV-1a of "a" is 0xe40c292c; of the empty input the offset basis.
  Basalt::Impl::HashMix<unsigned int> empty;
  EXPECT_EQ(empty.result(), 0x811c9dc5u);
  Basalt::Impl::HashMix<unsigned int> a;
  a.mixBytes("a", 1);
  EXPECT_EQ(a.result(), 0xe40c292cu);
  Basalt::Impl::HashMix<unsigned int> fixed;
  fixed.mixFixedLen<2>(0x6261);  // "ab", little-endian
  Basalt::Impl::HashMix<unsigned int> bytes;
  bytes.mixBytes("ab", 2);
  EXPECT_EQ(fixed.result(), bytes.result());
}

TEST(BasaltDumpHex, PrintsPairsSeparatedByBlanks) {
  const unsigned char bytes[] = {0x01, 0xff, 0x00, 0x2a};
  EXPECT_EQ(Basalt::dumpHex(bytes, sizeof(bytes)), "01 ff 00 2a");
  EXPECT_EQ(Basalt::dumpHex(bytes, 0), "");
}

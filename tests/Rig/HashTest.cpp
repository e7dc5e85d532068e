#include <gtest/gtest.h>

#include <xxhash.h>

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "Rig/Hash.h"

// The hash decides where keys live in shared files, so these pinned values
// must never change: a new function would strand every existing table.
TEST(RigHash, IsAFixedFunction) {
  EXPECT_EQ(Rig::hashSingleAttr(0, 0), 0xdeb39513u);
  EXPECT_EQ(Rig::hashSingleAttr(0, 1), 0x08ed6331u);
  EXPECT_EQ(Rig::hashSingleAttr(1, 0), 0xd1ea7deau);
  EXPECT_EQ(Rig::Hash(0).result(), 0x02cc5d05u);
}

TEST(RigHash, IsXxh32OfTheMixedBytesLittleEndian) {
  Rig::Hash hash(5);
  hash.hashMix<1>(0x01);
  hash.hashMix<2>(0x0302);
  hash.hashMix<4>(0x07060504);
  hash.hashMix<8>(0x0f0e0d0c0b0a0908);
  const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(hash.result(), XXH32(bytes, sizeof(bytes), 5));
  EXPECT_EQ(Rig::hashSingleAttr(9, 0x0807060504030201), XXH32(bytes, 8, 9));
}

TEST(RigHash, WiderMixesEqualTheirBytesInOrder) {
  Rig::Hash wide(3);
  wide.hashMix<4>(0xa1b2c3d4);
  Rig::Hash narrow(3);
  for (uint64_t byte : {0xd4, 0xc3, 0xb2, 0xa1}) {
    narrow.hashMix<1>(byte);
  }
  EXPECT_EQ(wide.result(), narrow.result());
}

TEST(RigHash, MixesTakeOnlyTheirLowBytes) {
  Rig::Hash high(0);
  high.hashMix<2>(0xffff0102);
  Rig::Hash low(0);
  low.hashMix<2>(0x0102);
  EXPECT_EQ(high.result(), low.result());
}

namespace {

// The hash with seed 0 of a sequence of mixes, each a width (1, 2 or 4) and a value.
uint32_t hashOfMixes(std::initializer_list<std::pair<unsigned, uint64_t>> mixes) {
  Rig::Hash hash(0);
  for (auto [width, value] : mixes) {
    switch (width) {
      case 1: hash.hashMix<1>(value); break;
      case 2: hash.hashMix<2>(value); break;
      default: hash.hashMix<4>(value); break;
    }
  }
  return hash.result();
}

}  // namespace

TEST(RigHash, OrderOfMixesMatters) {
  EXPECT_NE(hashOfMixes({{1, 1}, {2, 2}}), hashOfMixes({{2, 2}, {1, 1}}));
  EXPECT_NE(hashOfMixes({{4, 1}, {4, 2}}), hashOfMixes({{4, 2}, {4, 1}}));
  EXPECT_NE(hashOfMixes({{1, 1}, {4, 2}}), hashOfMixes({{4, 2}, {1, 1}}));
  EXPECT_NE(hashOfMixes({{2, 1}, {2, 2}, {4, 3}}), hashOfMixes({{2, 2}, {2, 1}, {4, 3}}));
  // Widths are part of the input: one byte 1 and two bytes 1 differ.
  EXPECT_NE(hashOfMixes({{1, 1}}), hashOfMixes({{2, 1}}));
  EXPECT_NE(hashOfMixes({{2, 1}}), hashOfMixes({{4, 1}}));
}

TEST(RigHash, SeedMatters) { EXPECT_NE(Rig::hashSingleAttr(0, 42), Rig::hashSingleAttr(1, 42)); }

// Beyond 64 bytes the gathered bytes are hashed with the running seed, and
// that becomes the seed of what follows.
TEST(RigHash, FoldsBeyondSixtyFourBytes) {
  std::vector<uint8_t> bytes;
  for (unsigned i = 0; i < 150; ++i) {
    bytes.push_back(static_cast<uint8_t>(i * 7 + 1));
  }
  auto hashFirst = [&](std::size_t count) {
    Rig::Hash hash(7);
    for (std::size_t i = 0; i < count; ++i) {
      hash.hashMix<1>(bytes[i]);
    }
    return hash.result();
  };
  EXPECT_EQ(hashFirst(64), XXH32(bytes.data(), 64, 7));
  uint32_t afterFirst = XXH32(bytes.data(), 64, 7);
  EXPECT_EQ(hashFirst(65), XXH32(bytes.data() + 64, 1, afterFirst));
  EXPECT_EQ(hashFirst(128), XXH32(bytes.data() + 64, 64, afterFirst));
  uint32_t afterSecond = XXH32(bytes.data() + 64, 64, afterFirst);
  EXPECT_EQ(hashFirst(150), XXH32(bytes.data() + 128, 22, afterSecond));
  // Every byte counts, the early ones too.
  uint32_t whole = hashFirst(150);
  bytes[3] ^= 1;
  EXPECT_NE(hashFirst(150), whole);
}

// A fold can fall inside a mix: one byte, then eight-byte mixes, puts the
// 64-byte boundary in the middle of the eighth of them.
TEST(RigHash, FoldsInsideAWideMix) {
  Rig::Hash wide(0);
  Rig::Hash narrow(0);
  wide.hashMix<1>(0xee);
  narrow.hashMix<1>(0xee);
  for (uint64_t i = 0; i < 10; ++i) {
    uint64_t value = 0x0102030405060708u * (i + 1);
    wide.hashMix<8>(value);
    for (unsigned b = 0; b < 8; ++b) {
      narrow.hashMix<1>(value >> (8 * b));
    }
  }
  EXPECT_EQ(wide.result(), narrow.result());
}

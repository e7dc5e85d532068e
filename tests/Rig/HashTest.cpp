#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "Rig/Hash.h"

namespace {

// The hash as Rig/Hash.h defines it, written out over a whole byte stream:
// the pinned values below were taken from it, and the class must agree with
// it for every way of cutting the stream into mixes.
uint32_t referenceHash(uint32_t seed, const std::vector<uint8_t> & bytes) {
  auto absorb = [](uint64_t state, uint64_t word) {
    const uint64_t mixed = (state ^ word) * 0xFF51AFD7ED558CCDull;
    return mixed ^ (mixed >> 32);
  };
  uint64_t state = (seed ^ 0x9E3779B97F4A7C15ull) * 0xFF51AFD7ED558CCDull;
  for (std::size_t at = 0; at < bytes.size(); at += 8) {
    uint64_t word = 0;
    for (std::size_t i = 0; i < 8 && at + i < bytes.size(); ++i) {
      word |= uint64_t{bytes[at + i]} << (8 * i);
    }
    state = absorb(state, word);
  }
  state ^= bytes.size() * 0xD6E8FEB86659FD93ull;
  state ^= state >> 33;
  state *= 0xFF51AFD7ED558CCDull;
  state ^= state >> 33;
  state *= 0xC4CEB9FE1A85EC53ull;
  state ^= state >> 33;
  return static_cast<uint32_t>(state);
}

// The hash with `seed` of a sequence of mixes, each a width (1, 2, 4 or 8) and a value.
uint32_t hashOfMixes(uint32_t seed, std::initializer_list<std::pair<unsigned, uint64_t>> mixes) {
  Rig::Hash hash(seed);
  for (auto [width, value] : mixes) {
    switch (width) {
      case 1: hash.hashMix<1>(value); break;
      case 2: hash.hashMix<2>(value); break;
      case 4: hash.hashMix<4>(value); break;
      default: hash.hashMix<8>(value); break;
    }
  }
  return hash.result();
}

uint32_t hashOfMixes(std::initializer_list<std::pair<unsigned, uint64_t>> mixes) {
  return hashOfMixes(0, mixes);
}

}  // namespace

// The hash decides where keys live in shared files, so these pinned values
// must never change: a new function strands every existing table (and needs
// a new slot file version).
TEST(RigHash, IsAFixedFunction) {
  EXPECT_EQ(Rig::hashSingleAttr(0, 0), 0xc8287992u);
  EXPECT_EQ(Rig::hashSingleAttr(0, 1), 0x4c520ebau);
  EXPECT_EQ(Rig::hashSingleAttr(1, 0), 0x33781667u);
  EXPECT_EQ(Rig::Hash(0).result(), 0x45fb73f6u);
  EXPECT_EQ(hashOfMixes(5, {{1, 0x01}, {2, 0x0302}, {4, 0x07060504}, {8, 0x0f0e0d0c0b0a0908}}), 0x4071e6beu);
}

TEST(RigHash, IsTheReferenceOverTheMixedBytesLittleEndian) {
  const std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(hashOfMixes(5, {{1, 0x01}, {2, 0x0302}, {4, 0x07060504}, {8, 0x0f0e0d0c0b0a0908}}),
            referenceHash(5, bytes));
  EXPECT_EQ(Rig::hashSingleAttr(9, 0x0807060504030201), referenceHash(9, {1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(Rig::Hash(4).result(), referenceHash(4, {}));
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

TEST(RigHash, OrderOfMixesMatters) {
  EXPECT_NE(hashOfMixes({{1, 1}, {2, 2}}), hashOfMixes({{2, 2}, {1, 1}}));
  EXPECT_NE(hashOfMixes({{4, 1}, {4, 2}}), hashOfMixes({{4, 2}, {4, 1}}));
  EXPECT_NE(hashOfMixes({{1, 1}, {4, 2}}), hashOfMixes({{4, 2}, {1, 1}}));
  EXPECT_NE(hashOfMixes({{2, 1}, {2, 2}, {4, 3}}), hashOfMixes({{2, 2}, {2, 1}, {4, 3}}));
  EXPECT_NE(hashOfMixes({{8, 1}, {8, 2}}), hashOfMixes({{8, 2}, {8, 1}}));
  // Widths are part of the input: one byte 1 and two bytes 1 differ.
  EXPECT_NE(hashOfMixes({{1, 1}}), hashOfMixes({{2, 1}}));
  EXPECT_NE(hashOfMixes({{2, 1}}), hashOfMixes({{4, 1}}));
  EXPECT_NE(hashOfMixes({{4, 0}}), hashOfMixes({{8, 0}}));
}

TEST(RigHash, SeedMatters) { EXPECT_NE(Rig::hashSingleAttr(0, 42), Rig::hashSingleAttr(1, 42)); }

// Mixes that straddle word boundaries, at every offset: one to seven single
// bytes, then eight-byte mixes, equal the same bytes one at a time and the
// reference over the whole stream. Every byte counts, the early ones too.
TEST(RigHash, WordBoundariesMayFallInsideAMix) {
  for (unsigned lead = 0; lead < 8; ++lead) {
    Rig::Hash wide(7);
    Rig::Hash narrow(7);
    std::vector<uint8_t> bytes;
    for (unsigned i = 0; i < lead; ++i) {
      wide.hashMix<1>(0xe0 + i);
      narrow.hashMix<1>(0xe0 + i);
      bytes.push_back(static_cast<uint8_t>(0xe0 + i));
    }
    for (uint64_t i = 0; i < 10; ++i) {
      const uint64_t value = 0x0102030405060708u * (i + 1);
      wide.hashMix<8>(value);
      for (unsigned b = 0; b < 8; ++b) {
        narrow.hashMix<1>(value >> (8 * b));
        bytes.push_back(static_cast<uint8_t>(value >> (8 * b)));
      }
    }
    EXPECT_EQ(wide.result(), narrow.result()) << "lead " << lead;
    EXPECT_EQ(wide.result(), referenceHash(7, bytes)) << "lead " << lead;
    const uint32_t whole = referenceHash(7, bytes);
    bytes[lead] ^= 1;
    EXPECT_NE(referenceHash(7, bytes), whole);
  }
}

// Trailing zero bytes are input like any other: the length tells them apart.
TEST(RigHash, TrailingZerosCount) {
  EXPECT_NE(hashOfMixes({{1, 5}}), hashOfMixes({{1, 5}, {1, 0}}));
  EXPECT_NE(hashOfMixes({{4, 5}}), hashOfMixes({{8, 5}}));
  EXPECT_NE(Rig::Hash(0).result(), hashOfMixes({{1, 0}}));
}

TEST(RigHash, LittleEndianWordReadsBytesLowFirst) {
  const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(Rig::littleEndianWord(bytes), 0x0807060504030201u);
}

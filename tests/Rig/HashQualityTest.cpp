// The key hash's quality on one 64-bit field, the whole hash of an L3 ingress
// interface key: an even spread over a table's buckets for sequential,
// strided and random keys, and full avalanche.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Rig/Hash.h"
#include "Support/HashQuality.h"

namespace {

constexpr uint32_t million = 1u << 20;

std::vector<uint32_t> hashesOf(uint64_t first, uint64_t stride) {
  std::vector<uint32_t> hashes;
  hashes.reserve(million);
  for (uint64_t i = 0; i < million; ++i) {
    hashes.push_back(Rig::hashSingleAttr(0, first + i * stride));
  }
  return hashes;
}

}  // namespace

TEST(RigHashQuality, SequentialKeysSpreadEvenly) { EXPECT_TRUE(TestSupport::spreadIsEven(hashesOf(0, 1))); }

TEST(RigHashQuality, StridedKeysSpreadEvenly) {
  for (uint64_t stride : {uint64_t{1} << 16, uint64_t{1} << 32, uint64_t{1000}, uint64_t{1} << 44}) {
    EXPECT_TRUE(TestSupport::spreadIsEven(hashesOf(7, stride))) << "stride " << stride;
  }
}

TEST(RigHashQuality, RandomKeysSpreadEvenly) {
  std::mt19937_64 random(11);
  std::vector<uint32_t> hashes;
  for (uint32_t i = 0; i < million; ++i) {
    hashes.push_back(Rig::hashSingleAttr(0, random()));
  }
  EXPECT_TRUE(TestSupport::spreadIsEven(hashes));
}

TEST(RigHashQuality, EveryInputBitAvalanches) {
  EXPECT_TRUE(TestSupport::avalanches(64, 20000, 0.02, [](std::mt19937_64 & random) {
    const uint64_t value = random();
    std::vector<uint32_t> hashes{Rig::hashSingleAttr(0, value)};
    for (unsigned bit = 0; bit < 64; ++bit) {
      hashes.push_back(Rig::hashSingleAttr(0, value ^ (uint64_t{1} << bit)));
    }
    return hashes;
  }));
}

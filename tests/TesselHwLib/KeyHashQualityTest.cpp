// The key hash's quality on whole L3 tunnel keys, the widest key of this
// library: an even spread over a table's buckets for a million sequential,
// strided and random keys, and full avalanche over every bit that enters the
// hash. (Tests/Rig/HashQualityTest.cpp does the same for one 64-bit field,
// the whole hash of an L3 ingress interface key.)

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "Support/HashQuality.h"
#include "TesselHwLib/L3TunnelTH3.h"

namespace {

using TesselHwLib::L3TunnelTH3Key;
using Wirekit::IpGenAddr;

constexpr uint32_t million = 1u << 20;

IpGenAddr ipv4(uint32_t number) {
  return IpGenAddr(Wirekit::IpAddr(Wirekit::IpAddr::Bytes{static_cast<uint8_t>(number >> 24),
                                                          static_cast<uint8_t>(number >> 16),
                                                          static_cast<uint8_t>(number >> 8),
                                                          static_cast<uint8_t>(number)}));
}

// An exact IPv4 tunnel key whose destination and priority are numbered.
L3TunnelTH3Key numberedKey(uint64_t number) {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.sipIs(ipv4(0x0A000001));
  key.sipMaskIs(ipv4(0xFFFFFFFF));
  key.dipIs(ipv4(static_cast<uint32_t>(number)));
  key.dipMaskIs(ipv4(0xFFFFFFFF));
  key.priorityIs(static_cast<uint32_t>(number >> 32));
  return key;
}

std::vector<uint32_t> hashesOf(uint64_t first, uint64_t stride) {
  std::vector<uint32_t> hashes;
  hashes.reserve(million);
  for (uint64_t i = 0; i < million; ++i) {
    hashes.push_back(numberedKey(first + i * stride).hash(0));
  }
  return hashes;
}

// The bits of a key's image that enter its hash: every field's bits, but an
// address's family (left out of the hash by design), the bool's upper seven
// bits and the padding.
std::vector<unsigned> hashedBits() {
  std::vector<unsigned> bits;
  auto take = [&](unsigned offset, unsigned bytes) {
    for (unsigned bit = 0; bit < 8 * bytes; ++bit) {
      bits.push_back(8 * offset + bit);
    }
  };
  take(0, 4);  // etherType, etherTypeMask
  for (unsigned address = 0; address < 8; ++address) {
    take(4 + 20 * address + 4, 16);
  }
  take(164, 8);  // l4DestPort, l4SrcPort, priority
  bits.push_back(8 * 172);  // ipV6ProtoEntry
  return bits;
}

}  // namespace

TEST(KeyHashQuality, SequentialTunnelKeysSpreadEvenly) { EXPECT_TRUE(TestSupport::spreadIsEven(hashesOf(0, 1))); }

TEST(KeyHashQuality, StridedTunnelKeysSpreadEvenly) {
  for (uint64_t stride : {uint64_t{1} << 8, uint64_t{1} << 16, uint64_t{1} << 24, uint64_t{1} << 32}) {
    EXPECT_TRUE(TestSupport::spreadIsEven(hashesOf(3, stride))) << "stride " << stride;
  }
}

TEST(KeyHashQuality, RandomTunnelKeysSpreadEvenly) {
  std::mt19937_64 random(5);
  std::vector<uint32_t> hashes;
  hashes.reserve(million);
  for (uint32_t i = 0; i < million; ++i) {
    L3TunnelTH3Key key = numberedKey(random());
    key.l4SrcPortIs(static_cast<uint16_t>(random()));
    hashes.push_back(key.hash(0));
  }
  EXPECT_TRUE(TestSupport::spreadIsEven(hashes));
}

TEST(KeyHashQuality, EveryHashedBitOfATunnelKeyAvalanches) {
  const std::vector<unsigned> bits = hashedBits();
  ASSERT_EQ(bits.size(), 4u * 8 + 8 * 128 + 8 * 8 + 1);
  EXPECT_TRUE(TestSupport::avalanches(static_cast<unsigned>(bits.size()), 2000, 0.06, [&](std::mt19937_64 & random) {
    // A random image of IPv6 addresses, the bool a bool and the padding zero.
    unsigned char image[sizeof(L3TunnelTH3Key)] = {};
    for (unsigned bit : bits) {
      image[bit / 8] |= static_cast<unsigned char>((random() & 1) << (bit % 8));
    }
    for (unsigned address = 0; address < 8; ++address) {
      image[4 + 20 * address] = 2;
    }
    auto hashOf = [](const unsigned char * bytes) {
      L3TunnelTH3Key key;
      std::memcpy(static_cast<void *>(&key), bytes, sizeof(key));
      return key.hash(0);
    };
    std::vector<uint32_t> hashes{hashOf(image)};
    for (unsigned bit : bits) {
      image[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
      hashes.push_back(hashOf(image));
      image[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    }
    return hashes;
  }));
}

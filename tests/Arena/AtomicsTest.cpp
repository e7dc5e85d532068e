#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "Arena/Atomics.h"
#include "AtomicsCodegenProbe.h"

namespace {

TEST(ArenaAtomics, CheckCpuSupportHoldsOnX86_64) { EXPECT_TRUE(Arena::Atomics::checkCpuSupport()); }

// The probes run the primitives themselves, so these tests check the very
// code that the codegen test disassembles.
TEST(ArenaAtomics, PublishedWordsAreObserved) {
  uint64_t word64 = 0;
  probePublish64(&word64, 0x0123456789ABCDEFull);
  EXPECT_EQ(probeObserve64(&word64), 0x0123456789ABCDEFull);
  EXPECT_EQ(word64, 0x0123456789ABCDEFull);

  uint32_t word32 = 0;
  probePublish32(&word32, 0x89ABCDEFu);
  EXPECT_EQ(probeObserve32(&word32), 0x89ABCDEFu);

  uint16_t word16 = 0;
  probePublish16(&word16, 0xBEEF);
  EXPECT_EQ(probeObserve16(&word16), 0xBEEF);
}

TEST(ArenaAtomics, QuietAccessesStoreAndLoadWholeWords) {
  uint64_t word = 0;
  probeStoreQuiet64(&word, ~0ull);
  EXPECT_EQ(probeLoadQuiet64(&word), ~0ull);
}

TEST(ArenaAtomics, FencedRoundStoresGuardAndValue) {
  uint64_t guard = 0;
  uint64_t value = 0;
  EXPECT_EQ(probeFences(&guard, &value, 41), 42u);
  EXPECT_EQ(guard, 1u);
  EXPECT_EQ(value, 41u);
}

TEST(ArenaAtomics, CopyQuietInAndOutMoveTheWholeImage) {
  alignas(8) unsigned char local[24];
  for (unsigned i = 0; i < sizeof(local); ++i) {
    local[i] = static_cast<unsigned char>(i + 1);
  }
  alignas(8) uint64_t shared[4] = {0, 0, 0, 0xFEEDull};
  probeCopyQuietIn(shared, local, sizeof(local));
  EXPECT_EQ(std::memcmp(shared, local, sizeof(local)), 0);
  EXPECT_EQ(shared[3], 0xFEEDull) << "the copy stops at the given size";

  alignas(8) unsigned char back[32] = {};
  probeCopyQuietOut(back, shared, sizeof(local));
  EXPECT_EQ(std::memcmp(back, local, sizeof(local)), 0);
  EXPECT_EQ(back[24], 0);
}

}  // namespace

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "Arena/VerU32.h"

namespace {

TEST(ArenaVerU32, StoreThenLoadGivesBothHalves) {
  Arena::VerU32 word;
  word.store(7, 0xDEADBEEF);
  Arena::VerU32 seen = word.load();
  EXPECT_EQ(seen.version, 7u);
  EXPECT_EQ(seen.value, 0xDEADBEEFu);
  EXPECT_EQ(word.loadVersion(), 7u);
  EXPECT_EQ(seen, (Arena::VerU32{7, 0xDEADBEEF}));

  word.store(0xFFFFFFFF, 0);
  EXPECT_EQ(word.load(), (Arena::VerU32{0xFFFFFFFF, 0}));
}

TEST(ArenaVerU32, VersionLiesAtByteZeroAndValueAtByteFour) {
  static_assert(offsetof(Arena::VerU32, version) == 0);
  static_assert(offsetof(Arena::VerU32, value) == 4);
  Arena::VerU32 word;
  word.store(0x01020304, 0xA0B0C0D0);
  unsigned char bytes[8];
  std::memcpy(bytes, &word, sizeof(bytes));
  const unsigned char expected[8] = {0x04, 0x03, 0x02, 0x01, 0xD0, 0xC0, 0xB0, 0xA0};
  EXPECT_EQ(std::memcmp(bytes, expected, sizeof(bytes)), 0);
}

TEST(ArenaVerU32, LoadSplitsARawWordAsAnotherProcessStoredIt) {
  // As another process would leave it in a file: one little-endian qword.
  alignas(8) unsigned char file[16] = {};
  const unsigned char stored[8] = {0x2A, 0x00, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44};
  std::memcpy(file + 8, stored, sizeof(stored));
  const auto * word = reinterpret_cast<const Arena::VerU32 *>(file + 8);
  EXPECT_EQ(word->load(), (Arena::VerU32{42, 0x44332211}));
  EXPECT_EQ(word->loadVersion(), 42u);
}

TEST(ArenaVerU32, PackPutsTheVersionInTheLowHalf) {
  EXPECT_EQ(Arena::VerU32::pack(1, 2), 0x0000000200000001ull);
  EXPECT_EQ(Arena::VerU32::unpack(0x0000000200000001ull), (Arena::VerU32{1, 2}));
  EXPECT_EQ(Arena::VerU32::unpack(Arena::VerU32::pack(0xFFFFFFFC, 0x80000005)),
            (Arena::VerU32{0xFFFFFFFC, 0x80000005}));
}

TEST(ArenaVerU32, ToStringPrintsValueThenVersion) {
  EXPECT_EQ((Arena::VerU32{7, 42}).toString(), "42 (version 7)");
  EXPECT_EQ(Arena::VerU32{}.toString(), "0 (version 0)");
  EXPECT_EQ((Arena::VerU32{4294967295u, 4294967295u}).toString(), "4294967295 (version 4294967295)");
}

}  // namespace

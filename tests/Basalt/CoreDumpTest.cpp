#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Basalt/Util.h"

namespace {

constexpr const char * Filter = "/proc/self/coredump_filter";

unsigned long readFilter() {
  std::ifstream file(Filter);
  unsigned long value = 0;
  file >> std::hex >> value;
  return value;
}

void writeFilter(unsigned long value) {
  std::ofstream file(Filter);
  file << "0x" << std::hex << value;
}

// Restores the process's filter, whatever the test did to it.
class CoreDumpTest : public ::testing::Test {
 protected:
  ~CoreDumpTest() override { writeFilter(saved_); }
  const unsigned long saved_ = readFilter();
};

TEST_F(CoreDumpTest, IncludeShmemInCoreSetsTheFourMappingBitsAndKeepsTheOthers) {
  writeFilter(0x30);  // ELF headers and private huge pages; no mapping kind at all
  ASSERT_EQ(readFilter(), 0x30ul);
  EXPECT_TRUE(Basalt::Util::includeShmemInCore());
  EXPECT_EQ(readFilter(), 0x3Ful);

  writeFilter(0x1C2);  // shared file-backed and anonymous set already, dax bits too
  EXPECT_TRUE(Basalt::Util::includeShmemInCore());
  EXPECT_EQ(readFilter(), 0x1CFul);
}

TEST_F(CoreDumpTest, IncludeShmemInCoreTwiceChangesNothingMore) {
  writeFilter(0x33);  // the kernel's default: shared file-backed mappings left out
  EXPECT_TRUE(Basalt::Util::includeShmemInCore());
  EXPECT_TRUE(Basalt::Util::includeShmemInCore());
  EXPECT_EQ(readFilter(), 0x3Ful);
}

}  // namespace

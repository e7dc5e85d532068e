// Memory given back: a writer fills a table to N entries and empties it
// again; the slot file's memory and the writer's mapping of it fall back to
// within twice what they were with the table empty. The figures are printed
// with the process's resident memory and its other parts, which are not
// checked: a test process holds what the other tests left behind, and the
// notification queue keeps the capacity it grew to (one live entry for each
// slot it was told of, the slots given back included).
// TESSEL_SHRINK_MEMORY_ENTRIES sets N (default 100,000; 1,000,000 for a long run).

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Cairn/WriterTestTypes.h"

using namespace CairnTest;

namespace {

using Value = IifSizedValue;

uint64_t entries() {
  const char * text = std::getenv("TESSEL_SHRINK_MEMORY_ENTRIES");
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 100000;
}

// The process's resident memory and its shared-memory part, in bytes, by
// the kernel's account (/proc/self/status, in kB).
struct Resident {
  std::size_t total = 0;
  std::size_t shmem = 0;

  static Resident now() {
    Resident resident;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) == 0) {
        resident.total = std::stoull(line.substr(6)) * 1024;
      } else if (line.rfind("RssShmem:", 0) == 0) {
        resident.shmem = std::stoull(line.substr(9)) * 1024;
      }
    }
    return resident;
  }
};

// What the table's memory comes to at one moment.
struct Figures {
  uint32_t slots = 0;
  std::size_t slotFileLength = 0;
  std::size_t slotFileHeld = 0;  // the file's memory: its length without holes
  std::size_t slotMapped = 0;
  std::size_t bucketMapped = 0;
  std::size_t queueMapped = 0;
  Resident resident;

  static Figures of(WriterFor<Value> & writer) {
    const auto & wrapper = writer.slotTable().wrapper();
    const auto counters = writer.writerCounters();
    return Figures{writer.capacity(),
                   wrapper.fileSize(),
                   wrapper.allocatedSize(),
                   wrapper.memSize(),
                   counters.bucketMappedSize,
                   counters.primaryMappedSize + counters.secondaryMappedSize,
                   Resident::now()};
  }

  void print(const char * when) const {
    std::printf("%-9s slots %u, slot file length %zu held %zu mapped %zu, buckets mapped %zu, queue mapped %zu; "
                "resident %zu (shared %zu)\n",
                when, slots, slotFileLength, slotFileHeld, slotMapped, bucketMapped, queueMapped, resident.total,
                resident.shmem);
  }
};

}  // namespace

TEST(CairnWriterShrinkMemory, AfterFillingAndEmptyingTheSlotFileHoldsNoMoreThanTwiceAnEmptyTables) {
  auto descriptor = sharedDescriptor(1024);
  descriptor.shrinkSlots = true;
  descriptor.shrinkBuckets = true;
  WriterHarness<Value> harness(descriptor, "test/memory");
  auto & writer = *harness.writer;
  const uint64_t count = entries();
  const Figures empty = Figures::of(writer);
  for (uint64_t number = 0; number < count; ++number) {
    writer.write(Value(number, 1), true);
  }
  const Figures full = Figures::of(writer);
  for (uint64_t number = 0; number < count; ++number) {
    Value removed;
    ASSERT_TRUE(writer.remove(NumberKey{number}, removed)) << number;
  }
  const Figures emptied = Figures::of(writer);
  std::printf("%llu entries, %llu slot shrinks, %llu slot moves\n", static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(writer.writerCounters().slotShrinks),
              static_cast<unsigned long long>(writer.writerCounters().slotMoves));
  empty.print("empty:");
  full.print("full:");
  emptied.print("emptied:");

  EXPECT_EQ(emptied.slots, empty.slots);
  EXPECT_GE(full.slots, count);
  EXPECT_EQ(emptied.slotFileLength, full.slotFileLength) << "the file keeps its length for older mappings";
  EXPECT_LE(emptied.slotFileHeld, 2 * empty.slotFileHeld);
  EXPECT_LE(emptied.slotMapped, 2 * empty.slotMapped);
  EXPECT_TRUE(writer.validate());
}

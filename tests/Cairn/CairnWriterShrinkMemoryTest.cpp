// Memory given back: a writer fills a table to N entries and empties it
// again; the memory of the slot file and of the notification queue's files,
// and the writer's mapping of the slot file, fall back to within twice what
// they were with the table empty (the queue leaves the given-back slots'
// entries out behind a gap, and gives back the pages its tables no longer
// use; its files keep their lengths and mappings). The figures are printed
// with the process's resident memory, which is not checked: a test process
// holds what the other tests left behind.
// TESSEL_SHRINK_MEMORY_ENTRIES sets N (default 100,000; 1,000,000 for a long run).

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Cairn/WriterTestTypes.h"
#include "Ripple/RippleFormat.h"

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
  std::size_t queueHeld = 0;  // the memory of the queue's three files
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
                   queueHeldBy(writer.ripple().directory()),
                   Resident::now()};
  }

  static std::size_t queueHeldBy(const std::string & directory) {
    std::size_t bytes = 0;
    for (const char * name : {Ripple::ControlFileName, Ripple::PrimaryFileName, Ripple::SecondaryFileName}) {
      struct stat status;
      if (stat((directory + "/" + name).c_str(), &status) == 0) {
        bytes += static_cast<std::size_t>(status.st_blocks) * 512;
      }
    }
    return bytes;
  }

  void print(const char * when) const {
    std::printf("%-9s slots %u, slot file length %zu held %zu mapped %zu, buckets mapped %zu, queue mapped %zu "
                "held %zu; resident %zu (shared %zu)\n",
                when, slots, slotFileLength, slotFileHeld, slotMapped, bucketMapped, queueMapped, queueHeld,
                resident.total, resident.shmem);
  }
};

}  // namespace

TEST(CairnWriterShrinkMemory, AfterFillingAndEmptyingTheFilesHoldNoMoreThanTwiceAnEmptyTables) {
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
  std::printf("%llu entries, %llu slot shrinks, %llu slot moves, %llu queue gaps\n",
              static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(writer.writerCounters().slotShrinks),
              static_cast<unsigned long long>(writer.writerCounters().slotMoves),
              static_cast<unsigned long long>(writer.writerCounters().gaps));
  empty.print("empty:");
  full.print("full:");
  emptied.print("emptied:");

  EXPECT_EQ(emptied.slots, empty.slots);
  EXPECT_GE(full.slots, count);
  EXPECT_EQ(emptied.slotFileLength, full.slotFileLength) << "the file keeps its length for older mappings";
  EXPECT_LE(emptied.slotFileHeld, 2 * empty.slotFileHeld);
  EXPECT_LE(emptied.slotMapped, 2 * empty.slotMapped);
  EXPECT_GT(full.queueHeld, 8 * empty.queueHeld);
  EXPECT_LE(emptied.queueHeld, 2 * empty.queueHeld);
  EXPECT_TRUE(writer.validate());
}

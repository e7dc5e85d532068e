// The slot reader table: a read-only mapping that follows the writer's
// growing and shrinking, its bound-checked slot index, and getValue's copy of
// one slot under the flags protocol. Each state a reader can meet is built
// deterministically beside an idle writer, through the writer's own mapping.

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"
#include "Cairn/SyscallProbes.h"
#include "Support/TextTesting.h"

using namespace CairnTest;
using RigTesting::messageOf;

namespace {

using SlotReader = Cairn::SlotReaderTable<HashedKey, HashedValue, HashedOps>;

// A slot reader table of its own on the files of "test/reader", for the
// tests that drive the table directly rather than through a CairnReader.
struct LoneSlotReader {
  LoneSlotReader() : rootPath(handler, ReaderTable::name, true), table(handler, rootPath, ops, counters) {}

  Basalt::Platform::DebugHandler handler{"slot-reader-test"};
  Cairn::RootPath rootPath;
  HashedOps ops;
  Cairn::Reader::Counters counters;
  SlotReader table;
};

std::string outOfRange(uint32_t index, uint32_t count) {
  return fmt::format("SlotReader::Slots::operator[] out-of-range index:{} numSlots:{}", index, count);
}

class SlotReaderTest : public ::testing::Test {
 protected:
  // Fills `count` keys of distinct hashes.
  void fill(uint32_t count) {
    for (uint32_t id = 0; id < count; ++id) {
      table.write(id, id, id + 100);
    }
  }

  ReaderTable table;
};

}  // namespace

TEST_F(SlotReaderTest, AttachToAnEmptyFileFailsAndMapsNothing) {
  // A directory with an empty "slots" file, of a table no writer formatted.
  ScopedShmRoot root;
  const std::string directory = root.path() + "/test/empty";
  std::filesystem::create_directories(directory);
  std::ofstream(directory + "/" + Cairn::SlotFileName).close();

  Basalt::Platform::DebugHandler handler{"slot-reader-test"};
  Cairn::RootPath rootPath(handler, "test/empty", true);
  HashedOps ops;
  Cairn::Reader::Counters counters;
  SlotReader reader(handler, rootPath, ops, counters);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(reader.attach());
  EXPECT_EQ(tracesAt(traces, 0), std::vector<std::string>{"SlotReader::attach() no shared memory region"});
  EXPECT_EQ(reader.header(), nullptr);
  EXPECT_FALSE(reader.wrapper().attached());
  EXPECT_EQ(reader.capacity(), 0u);
  EXPECT_FALSE(reader.doResize());

  // A missing file is no shared memory region either.
  std::filesystem::remove(directory + "/" + Cairn::SlotFileName);
  EXPECT_FALSE(reader.attach());
  EXPECT_EQ(tracesAt(traces, 0).size(), 2u);
  EXPECT_EQ(tracesAt(traces, 0).back(), "SlotReader::attach() no shared memory region");
  EXPECT_FALSE(reader.wrapper().attached());
}

TEST_F(SlotReaderTest, AfterAttachCapacityIsZeroAndEverySlotThrowsUntilDoResize) {
  fill(3);
  LoneSlotReader lone;
  SlotReader & reader = lone.table;
  ASSERT_TRUE(reader.attach());
  EXPECT_EQ(reader.capacity(), 0u);
  EXPECT_EQ(reader.localNumSlots(), (Arena::VerU32{0xFFFFFFFFu, 0}));
  EXPECT_EQ(lone.ops.hashSeed, table.header().hashSeed);

  const uint32_t index = table.indexOf(HashedKey{1, 1});
  HashedValue value;
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader.slots()[0]; }), outOfRange(0, 0));
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader.getValue(index, value, nullptr); }),
            outOfRange(index, 0));
  EXPECT_EQ(lone.counters.slotResizes, 0u);

  ASSERT_TRUE(reader.doResize());
  EXPECT_EQ(lone.counters.slotResizes, 1u);
  EXPECT_EQ(reader.localNumSlots(), table.header().numSlots.load());
  EXPECT_EQ(reader.capacity(), table.writer().capacity());
  const uint64_t read = reader.getValue(index, value, nullptr);
  EXPECT_EQ(value, valueOf(1, 1, 101));
  EXPECT_EQ(static_cast<uint32_t>(read), table.slot(index)->flags);
  EXPECT_TRUE(static_cast<uint32_t>(read) & Cairn::OCCUPIED);
  EXPECT_EQ(static_cast<uint32_t>(read >> 32), Basalt::Util::reverse(1u));
  // The anchor follows the slot read: its flags word, as an offset from the mapping.
  const auto & anchor = reader.cacheVersionAnchor();
  EXPECT_EQ(anchor.version, static_cast<uint32_t>(read));
  EXPECT_EQ(anchor.offset, ReaderTable::flagsOffset(index));
  EXPECT_EQ(anchor.base, reinterpret_cast<uint64_t>(reader.header()));
}

TEST_F(SlotReaderTest, DoResizeWithAnUnchangedVersionDoesNothing) {
  fill(3);
  auto reader = table.reader();
  reader->doResize();
  auto & slots = reader->slotTable();
  const auto * header = slots.header();
  const Arena::VerU32 local = slots.localNumSlots();
  const std::size_t mapped = slots.wrapper().memSize();
  const uint32_t resizes = reader->counters().slotResizes;
  ASSERT_EQ(resizes, 1u);

  EXPECT_FALSE(slots.doResize());
  EXPECT_FALSE(slots.doResize());
  EXPECT_EQ(reader->counters().slotResizes, resizes);
  EXPECT_EQ(reader->counters().slotRemaps, 0u);
  EXPECT_EQ(slots.header(), header);
  EXPECT_EQ(slots.localNumSlots(), local);
  EXPECT_EQ(slots.wrapper().memSize(), mapped);
  // Not a system call on the way.
  const int result = inSyscallFreeChild([&] { return !slots.doResize() && !reader->doResize(); });
  if (result == 2) {
    GTEST_SKIP() << "seccomp filters are not available here";
  }
  EXPECT_EQ(result, 0);
}

TEST_F(SlotReaderTest, OperationsInTheSteadyStateMakeNoSystemCall) {
  fill(5);
  auto reader = table.reader();
  reader->doResize();
  const uint32_t index = table.indexOf(HashedKey{3, 3});
  const int result = inSyscallFreeChild([&] {
    bool found = false;
    HashedValue value;
    Cairn::IterHint hint;
    reader->lookup(HashedKey{2, 2}, found, &value);
    bool sound = found && value == valueOf(2, 2, 102);
    reader->lookup(HashedKey{9, 9}, found, &value);
    sound = sound && !found;
    sound = sound && reader->first(value, hint) && reader->next(value.key, value, hint);
    sound = sound && reader->safeValue(index, value, nullptr) && value == valueOf(3, 3, 103);
    return sound && reader->counters().slotResizes == 1;
  });
  if (result == 2) {
    GTEST_SKIP() << "seccomp filters are not available here";
  }
  EXPECT_EQ(result, 0);
}

TEST_F(SlotReaderTest, AFileShorterThanItsCountWithTheVersionAtRestIsCorruption) {
  fill(3);
  auto reader = table.reader();
  reader->doResize();
  auto & numSlots = table.header().numSlots;
  const Arena::VerU32 original = numSlots.load();
  const std::size_t fileSize = table.slotFile().size();
  constexpr uint32_t claimed = 100000;
  const std::size_t needed = ReaderTable::slotHeaderSize + std::size_t{claimed} * ReaderTable::slotSize;
  numSlots.store(original.version + 1, claimed);

  const std::string expected = fmt::format(
      "SlotReader::doResize() requesting to map {} {} slots. Requested file resize to {} but real file size is {}",
      table.file(Cairn::SlotFileName), claimed, needed, fileSize);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->slotTable().doResize(); }), expected);
  // Nothing changed: the view is the one before.
  EXPECT_EQ(reader->slotTable().localNumSlots(), original);
  EXPECT_EQ(reader->counters().slotResizes, 1u);
  // A lookup meets the same statement, and it is not retried away.
  bool found = false;
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { reader->lookup(HashedKey{1, 1}, found, nullptr); }),
            expected);

  numSlots.store(original.version, original.value);
  HashedValue out;
  reader->lookup(HashedKey{1, 1}, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, valueOf(1, 1, 101));
}

namespace {

Arena::VerU32 * sharedNumSlots = nullptr;
uint32_t settledCount = 0;

// The writer changes the size once more between the reader's copy and its
// look at the file: the count the reader copied is gone, the new one fits.
void settleCount() {
  if (sharedNumSlots->load().value != settledCount) {
    sharedNumSlots->store(sharedNumSlots->load().version + 1, settledCount);
  }
}

}  // namespace

TEST_F(SlotReaderTest, ACountThatMovesBetweenTheCopyAndTheFileSizeIsCopiedAgain) {
  fill(3);
  auto reader = table.reader();
  reader->doResize();
  auto & numSlots = table.header().numSlots;
  const Arena::VerU32 original = numSlots.load();
  // Copied: a count the file can't hold. Then, before the reader sees the
  // file's size, the writer publishes a count the file holds.
  numSlots.store(original.version + 1, 100000);
  sharedNumSlots = &numSlots;
  settledCount = original.value / 2;
  const int moved = inTrappedChild(table.file(Cairn::SlotFileName), settleCount, [&] {
    try {
      return reader->slotTable().doResize() && reader->capacity() == settledCount &&
             reader->slotTable().localNumSlots() == Arena::VerU32{original.version + 2, settledCount};
    } catch (const Basalt::CorruptionDetectedException &) {
      return false;
    }
  });
  if (moved == 2) {
    GTEST_SKIP() << "seccomp filters are not available here";
  }
  EXPECT_EQ(moved, 0);

  // The same shortfall with the version at rest during the look is corruption.
  numSlots.store(original.version + 1, 100000);
  const int atRest = inTrappedChild(table.file(Cairn::SlotFileName), nullptr, [&] {
    try {
      reader->slotTable().doResize();
      return false;
    } catch (const Basalt::CorruptionDetectedException & exception) {
      return std::string(exception.what()).find("real file size is") != std::string::npos;
    }
  });
  EXPECT_EQ(atRest, 0);
  numSlots.store(original.version, original.value);
}

TEST_F(SlotReaderTest, TwoGrowthsBetweenOperationsTakeOneDoResize) {
  fill(3);
  auto reader = table.reader();
  reader->doResize();
  const Arena::VerU32 before = reader->slotTable().localNumSlots();
  ASSERT_EQ(before.value, 64u);
  // 64 slots to 128, then to 256.
  for (uint32_t id = 3; id < 130; ++id) {
    table.write(id, id);
  }
  const Arena::VerU32 now = table.header().numSlots.load();
  ASSERT_EQ(now, (Arena::VerU32{before.version + 2, 256}));

  EXPECT_TRUE(reader->slotTable().doResize());
  EXPECT_EQ(reader->counters().slotResizes, 2u);
  EXPECT_EQ(reader->slotTable().localNumSlots(), now);
  EXPECT_EQ(reader->capacity(), 256u);
  EXPECT_EQ(reader->slotTable().wrapper().memSize(), ReaderTable::slotHeaderSize + 256 * ReaderTable::slotSize);
  EXPECT_FALSE(reader->slotTable().doResize());
  EXPECT_EQ(reader->counters().slotResizes, 2u);
}

TEST_F(SlotReaderTest, AShrinkLowersCapacityAndMappingAndCutsOffTheIndexesAbove) {
  fill(3);
  auto reader = table.reader();
  reader->doResize();
  ASSERT_EQ(reader->capacity(), 64u);
  // A shrink to 32 slots, as the writer publishes it: the file keeps its tail.
  auto & numSlots = table.header().numSlots;
  const Arena::VerU32 original = numSlots.load();
  numSlots.store(original.version + 1, 32);

  EXPECT_TRUE(reader->slotTable().doResize());
  EXPECT_EQ(reader->capacity(), 32u);
  EXPECT_EQ(reader->slotTable().wrapper().memSize(), ReaderTable::slotHeaderSize + 32 * ReaderTable::slotSize);
  HashedValue value;
  reader->slotTable().getValue(31, value, nullptr);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>(
                [&] { reader->slotTable().getValue(40, value, nullptr); }),
            outOfRange(40, 32));
  bool found = false;
  reader->lookup(HashedKey{2, 2}, found, &value);
  EXPECT_TRUE(found);
  EXPECT_EQ(value, valueOf(2, 2, 102));

  // Growing back maps the tail again.
  numSlots.store(original.version + 2, 64);
  EXPECT_TRUE(reader->slotTable().doResize());
  EXPECT_EQ(reader->capacity(), 64u);
  reader->slotTable().getValue(40, value, nullptr);
  numSlots.store(original.version, original.value);
}

TEST_F(SlotReaderTest, TheLastSlotReadsAndTheNextIndexIsOutOfRange) {
  // 64 keys fill the 64 slots of a new table exactly.
  fill(64);
  auto reader = table.reader();
  reader->doResize();
  ASSERT_EQ(reader->capacity(), 64u);
  const auto & slots = reader->slotTable().slots();
  const auto * base = reinterpret_cast<const char *>(reader->slotTable().header());
  EXPECT_EQ(reinterpret_cast<const char *>(slots[63]), base + ReaderTable::slotOffset(63));
  EXPECT_EQ(reinterpret_cast<const char *>(slots[0]), base + ReaderTable::slotOffset(0));

  HashedValue value;
  const uint32_t flags = static_cast<uint32_t>(reader->slotTable().getValue(63, value, nullptr));
  EXPECT_TRUE(flags & Cairn::OCCUPIED);
  EXPECT_EQ(table.indexOf(value.key), 63u);
  EXPECT_EQ(value.payload, value.key.id + 100u);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { slots[64]; }), outOfRange(64, 64));
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>(
                [&] { reader->slotTable().getValue(64, value, nullptr); }),
            outOfRange(64, 64));
}

TEST_F(SlotReaderTest, LookasideLeftSetByADeadWriterIsReadFromTheLookasideSlot) {
  fill(3);
  const HashedKey key{1, 1};
  const uint32_t index = table.indexOf(key);
  // A writer that died inside a rewrite of the key: the LookasideSlot holds
  // the new value and rhash, the slot's LOOKASIDE bit is set, and its own
  // bytes are half old, half new.
  auto * slot = table.slot(index);
  auto * lookaside = table.writer().slotTable().lookasideSlot();
  Arena::Atomics::publish32(lookaside->rhash, slot->rhash);
  lookaside->value = valueOf(1, 1, 999);
  slot->value.payload = 555;
  const uint32_t flags = slot->flags + 2;
  Arena::Atomics::publish32(slot->flags, flags);
  table.stopWriter();

  auto reader = table.reader();
  reader->doResize();
  HashedValue value;
  const uint64_t read = reader->slotTable().getValue(index, value, nullptr);
  EXPECT_EQ(value, valueOf(1, 1, 999));
  EXPECT_EQ(static_cast<uint32_t>(read), flags);
  EXPECT_TRUE(static_cast<uint32_t>(read) & Cairn::LOOKASIDE);
  EXPECT_EQ(static_cast<uint32_t>(read >> 32), Basalt::Util::reverse(1u));
  EXPECT_EQ(reader->counters().lookasideReads, 1u);
  reader->slotTable().getValue(index, value, nullptr);
  EXPECT_EQ(value, valueOf(1, 1, 999));
  EXPECT_EQ(reader->counters().lookasideReads, 2u);
  // A lookup and a walk read it the same way, each once more.
  bool found = false;
  reader->lookup(key, found, &value);
  EXPECT_TRUE(found);
  EXPECT_EQ(value, valueOf(1, 1, 999));
  EXPECT_EQ(reader->counters().lookasideReads, 3u);
  EXPECT_EQ(reader->slotTable().cacheVersionAnchor().version, flags);
  EXPECT_EQ(walk(*reader), inTableOrder({HashedKey{0, 0}, HashedKey{1, 1}, HashedKey{2, 2}}));
  EXPECT_EQ(reader->counters().lookasideReads, 4u);
}

TEST_F(SlotReaderTest, ALookupHitIsReadWholeWhateverRhashTheSlotItselfShowsDuringARewrite) {
  fill(3);
  const HashedKey key{1, 1};
  auto * slot = table.slotOf(key);
  auto * lookaside = table.writer().slotTable().lookasideSlot();
  Arena::Atomics::publish32(lookaside->rhash, slot->rhash);
  lookaside->value = valueOf(1, 1, 999);
  Arena::Atomics::publish32(slot->flags, slot->flags + 2);
  auto reader = table.reader();
  reader->doResize();

  // The writer stays (idle) so that its mapping can change the slot between
  // lookups, as a rewrite in flux would. The slot's own rhash is a hint of which copy to make, never an answer:
  // in flux (another key's), the wanted one, and zero, the lookup answers
  // the value of the LookasideSlot each time, read once.
  for (const uint32_t shown : {Basalt::Util::reverse(7u), Basalt::Util::reverse(1u), 0u}) {
    Arena::Atomics::publish32(slot->rhash, shown);
    const uint64_t before = reader->counters().lookasideReads;
    bool found = false;
    HashedValue value;
    reader->lookup(key, found, &value);
    EXPECT_TRUE(found) << shown;
    EXPECT_EQ(value, valueOf(1, 1, 999)) << shown;
    EXPECT_EQ(reader->counters().lookasideReads, before + 1) << shown;
    reader->lookup(HashedKey{1, 2}, found, &value);  // of the same hash, past it
    EXPECT_FALSE(found) << shown;
  }
}

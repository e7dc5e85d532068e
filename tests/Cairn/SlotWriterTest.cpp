#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/SlotTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Cairn::NoFreeSlot;
using ArenaFiles::EpochId;

namespace {

const EpochId epochA = EpochId::of(0, 1234);
const EpochId epochB = EpochId::of(1, 1234);

WriterFixture<ConfigValue>::Config growing(uint32_t tableSize) {
  WriterFixture<ConfigValue>::Config config;
  config.tableSize = tableSize;
  config.classType = "TestTable";
  return config;
}

WriterFixture<ConfigValue>::Config fixed(uint32_t tableSize) {
  auto config = growing(tableSize);
  config.fixedSize = true;
  return config;
}

// Takes a slot and fills it as a chain insert would (value and OCCUPIED).
template <typename Fixture>
uint32_t fill(Fixture & fixture, uint64_t key) {
  auto & table = *fixture.table;
  uint32_t index = table.alloc(static_cast<uint32_t>(key));
  auto * slot = table.slots()[index];
  ConfigValue value{TesselHwLib::L3IifTH3ConfigEntry(TesselHwLib::L3IifTH3Key(key))};
  slot->value = value;
  slot->flags = Cairn::OCCUPIED;
  return index;
}

std::vector<unsigned char> readFile(const std::string & path) {
  std::ifstream stream(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(stream), {});
}

template <typename T>
T at(const std::vector<unsigned char> & bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

}  // namespace

class SlotWriterTest : public ::testing::Test {
 protected:
  ScopedShmRoot root;
};

TEST_F(SlotWriterTest, MinSlotsFillsOnePage) {
  EXPECT_EQ(Cairn::minSlotsFor(4096, Cairn::slotSizeFor(32)), 64u);   // L3IifTH3StatusEntry
  EXPECT_EQ(Cairn::minSlotsFor(4096, Cairn::slotSizeFor(224)), 8u);   // L3TunnelTH3ConfigEntry
  EXPECT_EQ(Cairn::minSlotsFor(4096, Cairn::slotSizeFor(48)), 32u);   // L3IifTH3ConfigEntry
  EXPECT_EQ(Cairn::minSlotsFor(256, Cairn::slotSizeFor(48)), 1u);     // page not above the header
  EXPECT_EQ(Cairn::minSlotsFor(300, Cairn::slotSizeFor(48)), 1u);     // quotient 0
}

TEST_F(SlotWriterTest, NewFileIsFormattedAndReportedNew) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  EXPECT_EQ(fixture.table->attach(epochA), Cairn::AttachedNew);
  auto & header = *fixture.table->header();
  EXPECT_EQ(fixture.table->capacity(), 32u);
  EXPECT_EQ(header.numSlots.load().value, 32u);
  EXPECT_EQ(header.numSlots.load().version, 0u);
  EXPECT_EQ(header.freeSlots, 0u);
  EXPECT_EQ(header.mostSlots, 32u);
  EXPECT_EQ(header.occupiedSlots, 0u);
  EXPECT_EQ(header.constFlags, Cairn::HasRippleTable);
  EXPECT_EQ(header.hash, header.doHash());
  EXPECT_EQ(fixture.ops.hashSeed, header.hashSeed);
  std::string error;
  EXPECT_TRUE(header.validate(fixture.handler, fixture.table->wrapper().memSize(), epochA, error)) << error;
}

TEST_F(SlotWriterTest, FileFormatByRawOffsets) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  fill(fixture, 77);
  auto bytes = readFile(fixture.table->fileName());
  const std::size_t slotSize = 64;
  const std::size_t headerSize = 192 + slotSize;
  ASSERT_GE(bytes.size(), headerSize + 32 * slotSize);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "CAIRNSLT");
  EXPECT_EQ(at<uint32_t>(bytes, 8), 18u);
  EXPECT_EQ(at<uint32_t>(bytes, 12), epochA.value);
  EXPECT_EQ(at<uint32_t>(bytes, 16), 2u);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(bytes.data() + 20)),
            "TesselHwLib::L3IifTH3ConfigEntry");
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(bytes.data() + 84)), "TestTable");
  EXPECT_EQ(at<uint32_t>(bytes, 148), 48u);
  EXPECT_EQ(at<uint32_t>(bytes, 152), 64u);
  EXPECT_EQ(at<uint32_t>(bytes, 156), 1000u);
  EXPECT_EQ(at<uint16_t>(bytes, 160), 2u);
  EXPECT_EQ(at<uint32_t>(bytes, 168), 1u);        // occupiedSlots
  EXPECT_EQ(at<uint32_t>(bytes, 172), 1u);        // freeSlots: slot 0 went first
  EXPECT_EQ(at<uint32_t>(bytes, 176), 32u);       // mostSlots
  EXPECT_EQ(at<uint32_t>(bytes, 184), 0u);        // numSlots version
  EXPECT_EQ(at<uint32_t>(bytes, 188), 32u);       // numSlots count
  EXPECT_EQ(at<uint32_t>(bytes, 192 + 4), 0xFFFFFFFFu);  // LookasideSlot link
  // Slot 0 at SlotHeaderSize: its flags, reversed hash and key.
  EXPECT_EQ(at<uint32_t>(bytes, headerSize + 8), Cairn::OCCUPIED);
  EXPECT_EQ(at<uint32_t>(bytes, headerSize + 12), Basalt::Util::reverse(77));
  EXPECT_EQ(at<uint64_t>(bytes, headerSize + 16 + 24), 77u);
  // Slot 1 heads the free list and links to slot 2; the last free slot ends it.
  EXPECT_EQ(at<uint32_t>(bytes, headerSize + slotSize + 4), 2u);
  EXPECT_EQ(at<uint32_t>(bytes, headerSize + slotSize), 4u);  // stored once: version 4
  EXPECT_EQ(at<uint32_t>(bytes, headerSize + 31 * slotSize + 4), 0xFFFFFFFFu);
}

TEST_F(SlotWriterTest, ForkedReaderSeesTheHeaderTheWriterWrote) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  fill(fixture, 5);
  const std::string path = fixture.table->fileName();
  const uint32_t hashSeed = fixture.table->header()->hashSeed;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Basalt::Platform::DebugHandler handler("reader");
    Arena::ArenaFilesWrapper reader(handler, root.path() + "/test/table", "slots", false);
    auto * header = static_cast<const Cairn::SlotTableHeader *>(
        reader.attach(sizeof(Cairn::SlotTableHeader), Arena::ArenaFilesWrapper::Mode::ReadOnly));
    std::string error;
    bool ok = header != nullptr && header->validate(handler, reader.memSize(), epochA, error) &&
              header->hashSeed == hashSeed && header->occupiedSlots == 1 &&
              header->numSlots.load().value == 32;
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SlotWriterTest, FixedTableTakesExactlyItsSize) {
  WriterFixture<ConfigValue> fixture(fixed(5));
  fixture.table->attach(epochA);
  for (uint64_t key = 0; key < 5; ++key) {
    fill(fixture, key);
  }
  TestSupport::TraceCapture traces;
  try {
    fill(fixture, 5);
    FAIL() << "no exception";
  } catch (const Cairn::TableFullException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotWriter::alloc() Cairn table full (occupancy:5 tableSize:5) " + root.path() +
                  "/test/table");
  }
  EXPECT_TRUE(traces.contains("L0 SlotWriter::alloc() Cairn table full (occupancy:5 tableSize:5)"));
  EXPECT_EQ(fixture.table->header()->occupiedSlots, 5u);
  EXPECT_EQ(fixture.table->header()->freeSlots, NoFreeSlot);
}

TEST_F(SlotWriterTest, GrowingTableLandsOnTableSizeThenGrowsByTenths) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  std::vector<uint32_t> sizes{fixture.table->capacity()};
  for (uint64_t key = 0; key < 1211; ++key) {
    fill(fixture, key);
    if (fixture.table->capacity() != sizes.back()) {
      sizes.push_back(fixture.table->capacity());
    }
  }
  EXPECT_EQ(sizes, (std::vector<uint32_t>{32, 64, 128, 256, 512, 1000, 1100, 1210, 1331}));
  EXPECT_EQ(fixture.counters.slotGrows, 8u);
  EXPECT_EQ(fixture.counters.slotsAllocated, 1211u);
  auto & header = *fixture.table->header();
  EXPECT_EQ(header.numSlots.load().version, 8u);
  EXPECT_EQ(header.mostSlots, 1331u);
  EXPECT_EQ(header.occupiedSlots, 1211u);
  // Every entry kept its value through the remaps.
  for (uint32_t index = 0; index < 1211; ++index) {
    ASSERT_EQ(fixture.table->slots()[index]->value.fwkKey().l3Iif(), index);
  }
}

TEST_F(SlotWriterTest, OneSlotGrowsToTwo) {
  using Big = SizedValue<4096>;
  WriterFixture<Big>::Config config;
  config.tableSize = 100;
  WriterFixture<Big> fixture(config);
  fixture.table->attach(epochA);
  EXPECT_EQ(fixture.table->capacity(), 1u);
  fixture.table->alloc(1);
  fixture.table->alloc(2);
  EXPECT_EQ(fixture.table->capacity(), 2u);
}

TEST_F(SlotWriterTest, TableOfOneSlotIsLegal) {
  WriterFixture<ConfigValue> fixture(fixed(1));
  fixture.table->attach(epochA);
  EXPECT_EQ(fixture.table->slots().maxIndex, 0u);
  EXPECT_EQ(fill(fixture, 9), 0u);
  EXPECT_THROW(fill(fixture, 10), Cairn::TableFullException);
  try {
    fixture.table->slots()[1];
    FAIL() << "no exception";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(std::string(exception.what()), "SlotWriter::Slots::operator[] out-of-range index: 1 max:0");
  }
}

TEST_F(SlotWriterTest, SameEpochKeepsEntriesOtherEpochReformats) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  for (uint64_t key = 0; key < 40; ++key) {
    fill(fixture, key);
  }
  const uint32_t seed = fixture.table->header()->hashSeed;
  fixture.restart(growing(1000));
  EXPECT_EQ(fixture.table->attach(epochA), Cairn::AttachedExisting);
  EXPECT_EQ(fixture.table->capacity(), 64u);  // the file's count, not minSlots
  EXPECT_EQ(fixture.table->header()->occupiedSlots, 40u);
  EXPECT_EQ(fixture.ops.hashSeed, seed);
  EXPECT_EQ(fixture.table->slots()[39]->value.fwkKey().l3Iif(), 39u);

  fixture.restart(growing(1000));
  EXPECT_EQ(fixture.table->attach(epochB), Cairn::AttachedReformatted);
  EXPECT_EQ(fixture.table->capacity(), 32u);
  EXPECT_EQ(fixture.table->header()->occupiedSlots, 0u);
  EXPECT_EQ(fixture.table->header()->epochId, epochB);
  EXPECT_EQ(fixture.table->wrapper().memSize(), 256u + 32 * 64);
}

TEST_F(SlotWriterTest, FixedTableWithChangedSizeReformatsEvenWithSameEpoch) {
  WriterFixture<ConfigValue> fixture(fixed(10));
  fixture.table->attach(epochA);
  fill(fixture, 1);
  TestSupport::TraceCapture traces;
  fixture.handler.levelIs(1, true);
  fixture.restart(fixed(20));
  EXPECT_EQ(fixture.table->attach(epochA), Cairn::AttachedReformatted);
  EXPECT_EQ(fixture.table->capacity(), 20u);
  EXPECT_EQ(fixture.table->header()->occupiedSlots, 0u);
  EXPECT_TRUE(traces.contains(
      "L1 SlotWriter::attach() wanted capacity:20 for fixed-size table, but existing file has "
      "capacity:10 (version 0)"));
}

TEST_F(SlotWriterTest, DamagedHeaderWithSameEpochReformats) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  fill(fixture, 1);
  fixture.table->header()->maxSlots = 999;  // breaks the checksum
  fixture.restart(growing(1000));
  EXPECT_EQ(fixture.table->attach(epochA), Cairn::AttachedReformatted);
  EXPECT_EQ(fixture.table->header()->occupiedSlots, 0u);
}

TEST_F(SlotWriterTest, PurgeOfOnlyHighSlotsEmptiesTheFreeList) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  for (uint64_t key = 0; key < 16; ++key) {
    fill(fixture, key);
  }
  fixture.table->purgeFreeSlots(16);
  EXPECT_EQ(fixture.table->header()->freeSlots, NoFreeSlot);
}

TEST_F(SlotWriterTest, PurgeKeepsLowSlotsInOrder) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  for (uint64_t key = 0; key < 10; ++key) {
    fill(fixture, key);
  }
  fixture.table->purgeFreeSlots(20);
  std::vector<uint32_t> list;
  for (uint32_t index = fixture.table->header()->freeSlots; index != Cairn::EndOfTable;
       index = fixture.table->slots()[index]->link.value()) {
    list.push_back(index);
  }
  std::vector<uint32_t> expected;
  for (uint32_t index = 10; index < 20; ++index) {
    expected.push_back(index);
  }
  EXPECT_EQ(list, expected);
}

TEST_F(SlotWriterTest, PurgeAuditsTheFreeList) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  fill(fixture, 1);
  fixture.table->header()->occupiedSlots = 5;
  try {
    fixture.table->purgeFreeSlots(16);
    FAIL() << "no exception";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotWriter::purgeFreeSlots() numSlots mismatch, length of freeList: 31, "
              "occupiedSlots: 5 do not add up to numSlots: 32 (version 0)");
  }
}

TEST_F(SlotWriterTest, PurgeAndAddFreeSlotsAssertTheirPreconditions) {
  WriterFixture<ConfigValue> fixture(fixed(2));
  fixture.table->attach(epochA);
  try {
    fixture.table->purgeFreeSlots(2);
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()), "SlotWriter::purgeFreeSlots() bad threshold: 2 numSlots:2");
    EXPECT_EQ(exception.sourceName(), "Cairn/SlotWriter");
  }
  try {
    fixture.table->addFreeSlots(1, 1);
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotWriterTable::addFreeSlots() bad index range, start: 1 end: 1");
  }
  try {
    fixture.table->addFreeSlots(0, 1);
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()), "SlotWriterTable::addFreeSlots() free-list is not empty");
  }
  fill(fixture, 1);
  fill(fixture, 2);
  try {
    fixture.table->purgeFreeSlots(1);
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()), "SlotWriterTable::purgeFreeSlots() free-list is empty");
  }
}

TEST_F(SlotWriterTest, GrowWithCountsThatDisagreeIsCorruption) {
  WriterFixture<ConfigValue> fixture(growing(1000));
  fixture.table->attach(epochA);
  fixture.table->header()->occupiedSlots = 3;
  try {
    fixture.table->grow();
    FAIL() << "no exception";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotWriter::grow() the slot table is full but numSlots: 32 (version 0) and "
              "occupiedSlots: 3 are not equal");
  }
}

TEST_F(SlotWriterTest, ShrinkThresholdIsThePowerOfTwoBelowTheCount) {
  auto config = growing(1000);
  config.shrinkEnabled = true;
  WriterFixture<ConfigValue> fixture(config);
  fixture.table->attach(epochA);
  EXPECT_EQ(fixture.table->shrinkThresholdValue(), 0u);  // at minSlots
  for (uint64_t key = 0; key < 33; ++key) {
    fill(fixture, key);
  }
  EXPECT_EQ(fixture.table->capacity(), 64u);
  EXPECT_EQ(fixture.table->shrinkThresholdValue(), 32u);
  for (uint64_t key = 33; key < 600; ++key) {
    fill(fixture, key);
  }
  EXPECT_EQ(fixture.table->capacity(), 1000u);
  EXPECT_EQ(fixture.table->shrinkThresholdValue(), 512u);
}

TEST_F(SlotWriterTest, TypeNamesOf63CharactersFitAnd64DoNot) {
  auto config = growing(100);
  config.classType = std::string(63, 'c');
  WriterFixture<ConfigValue> fits(config, "fits");
  EXPECT_EQ(fits.table->attach(epochA), Cairn::AttachedNew);
  EXPECT_EQ(Cairn::SlotTableHeader::name(fits.table->header()->classType), config.classType);

  config.classType = std::string(64, 'c');
  WriterFixture<ConfigValue> tooLong(config, "toolong");
  TestSupport::TraceCapture traces;
  try {
    tooLong.table->attach(epochA);
    FAIL() << "no exception";
  } catch (const Basalt::InvalidInitializeException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotTable::Header() class typename: " + config.classType + " exceeds 64 characters");
  }
  EXPECT_TRUE(traces.contains("L0 SlotTable::Header() class typename: "));

  WriterFixture<SizedValue<48, 63>>::Config sized;
  sized.tableSize = 10;
  WriterFixture<SizedValue<48, 63>> value63(sized, "value63");
  EXPECT_EQ(value63.table->attach(epochA), Cairn::AttachedNew);
  WriterFixture<SizedValue<48, 64>> value64(
      WriterFixture<SizedValue<48, 64>>::Config{10, false, false, "", false}, "value64");
  try {
    value64.table->attach(epochA);
    FAIL() << "no exception";
  } catch (const Basalt::InvalidInitializeException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "SlotTable::Header() value typename " + std::string(64, 'v') + " exceeds 64 characters");
  }
}

TEST_F(SlotWriterTest, LocalMemoryMakesNoFile) {
  auto config = growing(100);
  config.localMem = true;
  WriterFixture<ConfigValue> fixture(config, "local/table");
  EXPECT_EQ(fixture.table->attach(epochA), Cairn::AttachedNew);
  for (uint64_t key = 0; key < 70; ++key) {
    fill(fixture, key);
  }
  EXPECT_EQ(fixture.table->capacity(), 100u);
  EXPECT_FALSE(std::ifstream(root.path() + "/local/table/slots").good());
}

TEST_F(SlotWriterTest, SetSlotValueIsNotImplemented) {
  try {
    Cairn::SlotAllocator<TesselHwLib::L3IifTH3Key, ConfigValue>::Writer::setSlotValue(nullptr, ConfigValue());
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()), "Not implemented");
    EXPECT_EQ(exception.sourceName(), "Cairn/Operations");
  }
}

#include <gtest/gtest.h>

#include "Cairn/SlotTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using ArenaFiles::EpochId;

namespace {

const EpochId epoch = EpochId::of(3, 77);

// A sound header of a 32-slot L3Iif Config table, copied out of a real file
// so that each test can damage its own copy.
class SlotTableHeaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriterFixture<ConfigValue>::Config config;
    config.tableSize = 1000;
    config.classType = "HeaderTest";
    WriterFixture<ConfigValue> fixture(config);
    fixture.table->attach(epoch);
    header = *fixture.table->header();
    fileSize = fixture.table->wrapper().memSize();
  }

  std::string failure(unsigned long size, EpochId wanted = epoch) {
    std::string error;
    EXPECT_FALSE(header.validate(handler, size, wanted, error));
    return error;
  }

  ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"header-test"};
  Cairn::SlotTableHeader header{};
  unsigned long fileSize = 0;
};

}  // namespace

TEST_F(SlotTableHeaderTest, SoundHeaderValidates) {
  std::string error;
  EXPECT_TRUE(header.validate(handler, fileSize, epoch, error)) << error;
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(fileSize, 256u + 32 * 64);
}

TEST_F(SlotTableHeaderTest, EachTestHasItsMessage) {
  auto damaged = header;
  header.magic = 0x1122;
  EXPECT_EQ(failure(fileSize), "SlotTable::Header::validate() bad magic: 1122");
  header = damaged;
  header.version = 16;
  EXPECT_EQ(failure(fileSize), "SlotTable::Header::validate() bad version: 16");
  header = damaged;
  header.platform = 3;
  EXPECT_EQ(failure(fileSize),
            "SlotTable::Header::validate() bad platform specification: aarch64-linux expecting: "
            "x86_64-linux");
  header = damaged;
  header.slotSize = 65;
  EXPECT_EQ(failure(1u << 20), fmt::format("SlotTable::Header::validate() checksum fail: {:x} != {:x}",
                                           header.doHash(), damaged.hash));
  header = damaged;
  header.occupiedSlots = 33;
  EXPECT_EQ(failure(fileSize),
            "SlotTable::Header::validate() bad occupiedSlots: 33 num slots: 32 (version 0)");
  header = damaged;
  header.freeSlots = 32;
  EXPECT_EQ(failure(fileSize), "SlotTable::Header::validate() bad freeSlots: 32 slots: 32");
  header = damaged;
  header.mostSlots = 31;
  EXPECT_EQ(failure(fileSize), "SlotTable::Header::validate() bad mostSlots:31 numSlots:32");
  header = damaged;
  EXPECT_EQ(failure(fileSize - 1),
            "SlotTable::Header::validate() bad shmem size:2303 wanted:2304 for 32 slots");
}

TEST_F(SlotTableHeaderTest, ShortFileFailsWithTheHeaderSizeMessage) {
  EXPECT_EQ(failure(200), "SlotTable::Header::validate() bad header file size: 200 wanted:256");
}

TEST_F(SlotTableHeaderTest, FullTableWithNoFreeSlotIsSound) {
  header.freeSlots = Cairn::NoFreeSlot;
  header.occupiedSlots = 32;
  std::string error;
  EXPECT_TRUE(header.validate(handler, fileSize, epoch, error)) << error;
}

TEST_F(SlotTableHeaderTest, WantedEpochZeroAcceptsAnyGeneration) {
  std::string error;
  EXPECT_TRUE(header.validate(handler, fileSize, EpochId(), error)) << error;
}

TEST_F(SlotTableHeaderTest, OtherGenerationIsRejectedBeforeTheChecksum) {
  header.maxSlots = 1;  // the checksum no longer holds
  EXPECT_EQ(failure(fileSize, EpochId::of(4, 77)),
            "SlotTable::validate() bad epoch:0x0003004d wanted:0x0004004d");
}

TEST_F(SlotTableHeaderTest, FailureGoesOutAtLevelZeroAndIsReturnedWhenTheLevelIsOff) {
  header.version = 1;
  {
    TestSupport::TraceCapture traces;
    failure(fileSize);
    EXPECT_TRUE(traces.contains("L0 SlotTable::Header::validate() bad version: 1"));
  }
  handler.levelIs(0, false);
  TestSupport::TraceCapture traces;
  EXPECT_EQ(failure(fileSize), "SlotTable::Header::validate() bad version: 1");
  EXPECT_TRUE(traces.lines().empty());
}

TEST_F(SlotTableHeaderTest, ChecksumCoversOnlyConstantFields) {
  const uint32_t hash = header.doHash();
  header.version = 9;
  header.epochId = EpochId(5);
  header.platform = 7;
  header.runtimeFlags = 1;
  header.occupiedSlots = 3;
  header.freeSlots = 4;
  header.mostSlots = 100;
  header.numSlots.store(3, 99);
  EXPECT_EQ(header.doHash(), hash);
  header.valueType[63] = 'x';  // padding bytes of the name count too
  EXPECT_NE(header.doHash(), hash);
}

TEST_F(SlotTableHeaderTest, TextFormListsEveryField) {
  header.runtimeFlags = 1;
  EXPECT_EQ(header.toString(),
            fmt::format("SlotTable::Header() magic:0x544c534e52494143 version:18 epoch:0x0003004d "
                        "platform:2 valueType:\"TesselHwLib::L3IifTH3ConfigEntry\" "
                        "classType:\"HeaderTest\" valueSize:48 slotSize:64 maxSlots:1000 "
                        "constFlags:0x2 runtimeFlags:0x1 hash:0x{:x} occupiedSlots:0 freeSlots:0 "
                        "mostSlots:32 hashSeed:{} numSlots:32 (version 0)",
                        header.hash, header.hashSeed));
}

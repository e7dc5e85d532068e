// The queue's file format by raw offsets, and the header checks that tell
// content from garbage.

#include <gtest/gtest.h>

#include "Ripple/RippleFormat.h"
#include "Ripple/RippleTesting.h"

using namespace RippleTest;
using Ripple::RIPPLE_TOMBSTONED;

namespace {

class RippleFormatTest : public QueueTest {};

Ripple::ControlBlock soundControl(ArenaFiles::EpochId epoch) {
  Ripple::ControlBlock block{};
  block.magic = Ripple::ControlMagic;
  block.version = Ripple::ControlVersion;
  block.epochId = epoch;
  block.entrySize = 12;
  block.hash = block.doHash();
  return block;
}

}  // namespace

TEST_F(RippleFormatTest, FilesByRawOffsets) {
  WriterFixture fixture(directory);
  ASSERT_EQ(fixture.attachResult, 1);
  fixture.writer.notify(5);
  fixture.writer.notify(9);
  fixture.writer.notify(5);

  const auto control = readFile(file("ripple-control"));
  ASSERT_EQ(control.size(), 64u);
  EXPECT_EQ(std::string(control.begin(), control.begin() + 8), "RIPPLCTL");
  EXPECT_EQ(at<uint32_t>(control, 8), 2u);             // version
  EXPECT_EQ(at<uint32_t>(control, 12), epochA.value);  // epochId
  EXPECT_EQ(at<uint32_t>(control, 16), 12u);           // entrySize
  EXPECT_EQ(at<uint32_t>(control, 20), fixture.writer.control()->doHash());
  EXPECT_EQ(at<uint32_t>(control, 32) & 1u, 0u);  // swapCount: the primary is current
  EXPECT_EQ(at<uint64_t>(control, 40), 0u);       // corralStart
  EXPECT_EQ(at<uint64_t>(control, 48), 0u);       // corralEnd

  const auto primary = readFile(file("ripple-primary"));
  ASSERT_EQ(primary.size(), 12u + 340u * 12u);
  EXPECT_EQ(at<uint32_t>(primary, 0), epochA.value);        // reserved to the table: its generation
  EXPECT_EQ(at<uint32_t>(primary, 4), 340u);                // capacity
  EXPECT_EQ(at<uint32_t>(primary, 8), 3u);                  // size
  EXPECT_EQ(at<uint64_t>(primary, 12), 1u);                 // entry 0: sequence, 8-aligned
  EXPECT_EQ(at<uint32_t>(primary, 20), RIPPLE_TOMBSTONED);  // slot 5's older entry
  EXPECT_EQ(at<uint64_t>(primary, 24), 2u);                 // entry 1: sequence at 4 mod 8
  EXPECT_EQ(at<uint32_t>(primary, 32), 9u);
  EXPECT_EQ(at<uint64_t>(primary, 36), 3u);
  EXPECT_EQ(at<uint32_t>(primary, 44), 5u);

  const auto secondary = readFile(file("ripple-secondary"));
  ASSERT_EQ(secondary.size(), 12u + 340u * 12u);
  EXPECT_EQ(at<uint32_t>(secondary, 4), 340u);
  EXPECT_EQ(at<uint32_t>(secondary, 8), 0u);
}

TEST(RippleNotificationTest, SequenceRoundTripsAtEveryAlignment) {
  alignas(8) unsigned char bytes[12 + 2 * 12] = {};
  auto * entries = reinterpret_cast<Ripple::Notification *>(bytes + 12);
  entries[0].sequenceIs(0x0102030405060708ull);
  entries[1].sequenceIs(0xF0E0D0C0B0A09080ull);
  entries[1].publishSlot(77);
  EXPECT_EQ(entries[0].sequence(), 0x0102030405060708ull);
  EXPECT_EQ(entries[1].sequence(), 0xF0E0D0C0B0A09080ull);
  EXPECT_EQ(entries[1].loadSlot(), 77u);
  EXPECT_EQ(bytes[12], 0x08);  // little-endian, low word first
  const auto made = Ripple::Notification::of(99, 3);
  EXPECT_EQ(made.sequence(), 99u);
  EXPECT_EQ(made.slot, 3u);
}

TEST(RippleControlBlockTest, SoundBlockPasses) {
  const auto block = soundControl(epochA);
  std::string error;
  EXPECT_TRUE(block.validate(64, epochA, error)) << error;
  EXPECT_TRUE(block.validate(64, ArenaFiles::EpochId(), error)) << error;  // any generation
}

TEST(RippleControlBlockTest, EachDamageHasItsMessage) {
  std::string error;
  auto block = soundControl(epochA);
  EXPECT_FALSE(block.validate(63, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad file size:63 wanted:64");

  block.magic ^= 1;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad magic: 4c54434c50504953");

  block = soundControl(epochA);
  block.version = 7;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad version: 7");

  block = soundControl(epochA);
  EXPECT_FALSE(block.validate(64, epochB, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad epoch:0x000010e1 wanted:0x000110e1");

  block = soundControl(epochA);
  block.entrySize = 16;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad entrySize: 16");

  block = soundControl(epochA);
  block.hash ^= 0x100;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, fmt::format("RippleTable::Control::validate() checksum fail: {:x} != {:x}", block.doHash(),
                               block.hash));

  block = soundControl(epochA);
  block.corralEnd = 5;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad corral corralStart:0 corralEnd:5");
  block.corralStart = 6;
  EXPECT_FALSE(block.validate(64, epochA, error));
  EXPECT_EQ(error, "RippleTable::Control::validate() bad corral corralStart:6 corralEnd:5");
  block.corralEnd = 0;  // open
  EXPECT_TRUE(block.validate(64, epochA, error)) << error;
}

TEST(RippleTableHeaderTest, EachDamageHasItsMessage) {
  Ripple::TableHeader header{epochA, 340, 10};
  std::string error;
  EXPECT_TRUE(header.validate(Ripple::tableFileSize(340), epochA, error)) << error;

  EXPECT_FALSE(header.validate(Ripple::tableFileSize(340), epochB, error));
  EXPECT_EQ(error, "RippleTable::Header::validate() bad epoch:0x000010e1 wanted:0x000110e1");

  EXPECT_FALSE(header.validate(Ripple::tableFileSize(340) - 1, epochA, error));
  EXPECT_EQ(error, "RippleTable::Header::validate() bad shmem size:4091 wanted:4092 for capacity:340");

  header.size = 341;
  EXPECT_FALSE(header.validate(Ripple::tableFileSize(340), epochA, error));
  EXPECT_EQ(error, "RippleTable::Header::validate() bad size:341 capacity:340");

  header.capacity = 0;
  header.size = 0;
  EXPECT_FALSE(header.validate(Ripple::tableFileSize(340), epochA, error));
  EXPECT_EQ(error, "RippleTable::Header::validate() bad capacity:0 max:268435456");
}

TEST(RippleFormatSizesTest, TableFileSizes) {
  EXPECT_EQ(Ripple::tableFileSize(340), 4092u);
  EXPECT_EQ(Ripple::entriesIn(4092), 340u);
  EXPECT_EQ(Ripple::entriesIn(4096), 340u);
  EXPECT_EQ(Ripple::entriesIn(11), 0u);
}

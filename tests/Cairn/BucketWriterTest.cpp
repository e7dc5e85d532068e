#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Basalt/HashMix.h"
#include "Cairn/AttachResult.h"
#include "Cairn/BucketWriter.h"
#include "Cairn/SlotTestTypes.h"
#include "Support/TextTesting.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using ArenaFiles::EpochId;
using Cairn::BucketTableHeader;
using Cairn::BucketWriterTable;
using Cairn::EndOfTable;
using Cairn::SlotLink;
using RigTesting::messageOf;

namespace {

const EpochId epochA = EpochId::of(0, 1234);
const EpochId epochB = EpochId::of(1, 1234);

std::vector<unsigned char> readFile(const std::string & path) {
  std::ifstream stream(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(stream), {});
}

void writeFile(const std::string & path, std::size_t offset, const std::vector<unsigned char> & bytes) {
  std::fstream stream(path, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(offset));
  stream.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

template <typename T>
T at(const std::vector<unsigned char> & bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// The buckets visited from bucket 0 on, following successors, among 2^bits.
std::vector<uint32_t> tableOrder(uint32_t bits) {
  std::vector<uint32_t> order;
  for (uint32_t bucket = 0; bucket < (1u << bits) && order.size() <= (1u << bits);
       bucket = Cairn::bucketSuccessor(bucket, bits)) {
    order.push_back(bucket);
  }
  return order;
}

}  // namespace

class BucketWriterTest : public ::testing::Test {
 protected:
  // A fresh table object on the same file, as a restarted writer has.
  void restart() {
    table.reset();
    table = std::make_unique<BucketWriterTable>(handler, rootPath, counters, false);
  }
  std::string path() const { return root.path() + "/test/buckets/buckets"; }
  // Publishes a count as the map does, after resizing to it.
  void grownTo(uint32_t count) {
    table->resize(count);
    for (uint32_t bucket = 0; bucket < count; ++bucket) {
      (*table)[bucket]->storeNext(Cairn::bucketTerminator(bucket, table->numBucketBits()));
    }
    auto & header = *table->header();
    header.numBuckets.store(header.numBuckets.load().version + 1, count);
  }

  ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"bucket-test"};
  Cairn::RootPath rootPath{handler, "test/buckets", true};
  Cairn::Writer::Counters counters;
  std::unique_ptr<BucketWriterTable> table =
      std::make_unique<BucketWriterTable>(handler, rootPath, counters, false);
};

TEST_F(BucketWriterTest, NewFileHoldsInitialBucketsEachWithItsTerminator) {
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedNew);
  ASSERT_EQ(table->numBuckets(), Cairn::InitialBuckets);
  EXPECT_EQ(1u << table->numBucketBits(), Cairn::InitialBuckets);
  EXPECT_EQ(table->header()->numBuckets.load(), (Arena::VerU32{0, Cairn::InitialBuckets}));
  for (uint32_t bucket = 0; bucket < Cairn::InitialBuckets; ++bucket) {
    EXPECT_EQ((*table)[bucket]->load(),
              (Arena::VerU32{0, Cairn::bucketTerminator(bucket, table->numBucketBits())}));
  }
  // Two buckets: the first leads to the second, which ends the table.
  EXPECT_EQ((*table)[0]->value(), SlotLink::nextBucketLink(1));
  EXPECT_EQ((*table)[Cairn::InitialBuckets - 1]->value(), EndOfTable);
  std::string error;
  EXPECT_TRUE(table->validate(epochA, error)) << error;
}

TEST_F(BucketWriterTest, FileFormatByRawOffsets) {
  table->attach(epochA);
  grownTo(8);
  (*table)[5]->storeNext(42);
  const auto bytes = readFile(path());
  ASSERT_GE(bytes.size(), 32u + 8 * 8);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "CBKT");
  EXPECT_EQ(at<uint32_t>(bytes, 0), Cairn::BucketMagic);
  EXPECT_EQ(at<uint32_t>(bytes, 4), 1u);
  EXPECT_EQ(at<uint32_t>(bytes, 8), epochA.value);
  // The checksum is FNV-1a over magic, version and epoch, the first 12 bytes.
  Basalt::Impl::HashMix<unsigned int> fnv;
  fnv.mixBytes(bytes.data(), 12);
  EXPECT_EQ(at<uint32_t>(bytes, 12), fnv.result());
  EXPECT_EQ(at<uint32_t>(bytes, 16), 1u);  // count version: one publish
  EXPECT_EQ(at<uint32_t>(bytes, 20), 8u);  // count
  EXPECT_EQ(at<uint64_t>(bytes, 24), 0u);
  // Entry i at 32 + 8 i: link version, then link value.
  EXPECT_EQ(at<uint32_t>(bytes, 32 + 4), SlotLink::nextBucketLink(4));
  EXPECT_EQ(at<uint32_t>(bytes, 32 + 8 * 5), 8u);  // a new entry (0), then two stores
  EXPECT_EQ(at<uint32_t>(bytes, 32 + 8 * 5 + 4), 42u);
  EXPECT_EQ(at<uint32_t>(bytes, 32 + 8 * 7 + 4), EndOfTable);
}

TEST_F(BucketWriterTest, AttachKeepsSameEpochAndReformatsAnother) {
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedNew);
  grownTo(8);
  (*table)[3]->storeNext(7);
  restart();
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedExisting);
  EXPECT_EQ(table->numBuckets(), 8u);
  EXPECT_EQ(table->numBucketBits(), 3u);
  EXPECT_EQ(table->wrapper().memSize(), Cairn::bucketFileSize(8));
  EXPECT_EQ((*table)[3]->value(), 7u);
  EXPECT_EQ(table->header()->numBuckets.load(), (Arena::VerU32{1, 8}));

  restart();
  EXPECT_EQ(table->attach(epochB), Cairn::AttachedReformatted);
  EXPECT_EQ(table->numBuckets(), Cairn::InitialBuckets);
  EXPECT_EQ(table->header()->epochId, epochB);
  EXPECT_EQ(table->header()->numBuckets.load(), (Arena::VerU32{0, Cairn::InitialBuckets}));
  EXPECT_EQ(table->wrapper().memSize(), Cairn::bucketFileSize(Cairn::InitialBuckets));
  EXPECT_EQ((*table)[0]->value(), SlotLink::nextBucketLink(1));
  EXPECT_EQ((*table)[1]->value(), EndOfTable);
}

TEST_F(BucketWriterTest, AttachToAnAttachedTableDetachesFirst) {
  table->attach(epochA);
  grownTo(4);
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedExisting);
  EXPECT_EQ(table->numBuckets(), 4u);
}

TEST_F(BucketWriterTest, DamagedHeaderWithSameEpochReformats) {
  table->attach(epochA);
  grownTo(4);
  table->header()->magic = 0x12345678;
  restart();
  TestSupport::TraceCapture traces;
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedReformatted);
  EXPECT_TRUE(traces.contains("L0 BucketTable::Header::validate() bad magic: 12345678"));
  EXPECT_EQ(table->numBuckets(), Cairn::InitialBuckets);
  EXPECT_EQ(table->header()->magic, Cairn::BucketMagic);

  grownTo(4);
  table->header()->hash ^= 1;
  restart();
  EXPECT_EQ(table->attach(epochA), Cairn::AttachedReformatted);
  EXPECT_EQ(table->numBuckets(), Cairn::InitialBuckets);
  EXPECT_EQ(table->header()->hash, table->header()->doHash());
}

TEST_F(BucketWriterTest, HeaderValidateMessages) {
  table->attach(epochA);
  const std::size_t size = Cairn::bucketFileSize(2);
  const BucketTableHeader sound = *table->header();
  std::string error;
  EXPECT_TRUE(sound.validate(size, epochA, error)) << error;
  EXPECT_TRUE(sound.validate(size, EpochId(), error)) << "no wanted epoch accepts any file";

  auto failure = [&](BucketTableHeader header, std::size_t fileSize, EpochId wanted) {
    std::string text;
    EXPECT_FALSE(header.validate(fileSize, wanted, text));
    return text;
  };
  BucketTableHeader header = sound;
  header.magic = 0xabcd;
  EXPECT_EQ(failure(header, size, epochA), "BucketTable::Header::validate() bad magic: abcd");
  header = sound;
  header.version = 7;
  EXPECT_EQ(failure(header, size, epochA), "BucketTable::Header::validate() bad version: 7");
  // Another generation is refused before the checksum is looked at.
  header = sound;
  header.hash ^= 1;
  EXPECT_EQ(failure(header, size, epochB), "BucketTable::validate() bad epoch:0x000004d2 wanted:0x000104d2");
  EXPECT_EQ(
      failure(header, size, epochA),
      fmt::format("BucketTable::Header::validate() checksum fail: {:x} != {:x}", sound.hash, sound.hash ^ 1));
  header = sound;
  header.numBuckets.store(3, 3);
  EXPECT_EQ(failure(header, size, epochA), "BucketTable::Header::validate() bad numBuckets: 3 (version 3)");
  header.numBuckets.store(3, 0);
  EXPECT_EQ(failure(header, size, epochA), "BucketTable::Header::validate() bad numBuckets: 0 (version 3)");
  header.numBuckets.store(3, 8);
  EXPECT_EQ(failure(header, size, epochA),
            "BucketTable::Header::validate() bad shmem size:48 wanted:96 for 8 buckets");
  EXPECT_TRUE(header.validate(Cairn::bucketFileSize(8), epochA, error)) << error;
}

TEST_F(BucketWriterTest, TableValidateTracesItsFailure) {
  std::string error;
  EXPECT_FALSE(table->validate(epochA, error));
  EXPECT_EQ(error, "BucketTable::validate() " + path() + " is not attached");
  table->attach(epochA);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(table->validate(epochB, error));
  EXPECT_EQ(error, "BucketTable::validate() bad epoch:0x000004d2 wanted:0x000104d2");
  EXPECT_TRUE(traces.contains("L0 BucketTable::validate() bad epoch:0x000004d2 wanted:0x000104d2"));
  EXPECT_TRUE(table->validate(epochA, error)) << error;
}

TEST_F(BucketWriterTest, ValidateFileChecksTheFileOnDisk) {
  table->attach(epochA);
  EXPECT_NO_THROW(table->validateFile(epochA));
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { table->validateFile(epochB); }),
            "BucketWriter::validateFile() " + path() +
                ": BucketTable::validate() bad epoch:0x000004d2 wanted:0x000104d2");

  writeFile(path(), 0, std::vector<unsigned char>(16, 0xAB));
  TestSupport::TraceCapture traces;
  const std::string expected =
      "BucketWriter::validateFile() " + path() + ": BucketTable::Header::validate() bad magic: abababab";
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { table->validateFile(epochA); }), expected);
  EXPECT_TRUE(traces.contains("L0 " + expected));
}

TEST_F(BucketWriterTest, ValidateFileOfAMissingFileThrows) {
  table->attach(epochA);
  table->cleanup();
  EXPECT_FALSE(std::ifstream(path()).good());
  const std::string message =
      messageOf<Basalt::CorruptionDetectedException>([&] { table->validateFile(epochA); });
  EXPECT_EQ(message.rfind("BucketWriter::validateFile() cannot map " + path() + ": ", 0), 0u) << message;
}

TEST_F(BucketWriterTest, LocalMemoryMakesNoFile) {
  BucketWriterTable local(handler, rootPath, counters, true);
  EXPECT_EQ(local.attach(epochA), Cairn::AttachedNew);
  EXPECT_EQ(local.numBuckets(), Cairn::InitialBuckets);
  EXPECT_NO_THROW(local.validateFile(epochA));
  EXPECT_FALSE(std::ifstream(path()).good());
}

TEST_F(BucketWriterTest, OperatorIndexIsRangeChecked) {
  table->attach(epochA);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { (*table)[2]; }),
            "BucketWriter::operator[] out-of-range, index:2 max:1");
  table->resize(8);
  EXPECT_NO_THROW((*table)[7]);
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { (*table)[8]; }),
            "BucketWriter::operator[] out-of-range, index:8 max:7");
  EXPECT_EQ(messageOf<Basalt::CorruptionDetectedException>([&] { (*table)[0xFFFFFFFFu]; }),
            "BucketWriter::operator[] out-of-range, index:4294967295 max:7");
}

TEST_F(BucketWriterTest, ResizeKeepsLowerEntriesAndLeavesTheCountToTheMap) {
  table->attach(epochA);
  (*table)[1]->storeNext(9);
  table->resize(16);
  EXPECT_EQ(table->numBuckets(), 16u);
  EXPECT_EQ(table->numBucketBits(), 4u);
  EXPECT_EQ(table->header()->numBuckets.load(), (Arena::VerU32{0, 2}));
  EXPECT_EQ((*table)[0]->load(), (Arena::VerU32{0, SlotLink::nextBucketLink(1)}));
  EXPECT_EQ((*table)[1]->load(), (Arena::VerU32{4, 9}));
  for (uint32_t bucket = 2; bucket < 16; ++bucket) {
    EXPECT_EQ((*table)[bucket]->load().version % Cairn::LinkVersionStep, 0u) << bucket;
  }
  (*table)[12]->storeNext(3);
  table->resize(4);
  EXPECT_EQ(table->numBuckets(), 4u);
  EXPECT_EQ(table->numBucketBits(), 2u);
  EXPECT_EQ((*table)[1]->value(), 9u);
  // Growing again finds what the larger table left: still a well-formed word.
  table->resize(16);
  EXPECT_EQ((*table)[12]->load().version % Cairn::LinkVersionStep, 0u);
}

TEST_F(BucketWriterTest, ToStringShowsTheHeader) {
  EXPECT_EQ(table->toString(), "BucketTable::Header() detached");
  table->attach(epochA);
  EXPECT_EQ(table->toString(),
            fmt::format("BucketTable::Header() magic:0x544b4243 version:1 epoch:0x000004d2 hash:0x{:x} "
                        "numBuckets:2 (version 0)",
                        table->header()->hash));
}

TEST(BucketTableOrderTest, EightBucketsInBitReversedOrder) {
  EXPECT_EQ(tableOrder(3), (std::vector<uint32_t>{0, 4, 2, 6, 1, 5, 3, 7}));
  EXPECT_EQ(Cairn::bucketSuccessor(5, 3), 3u);  // 101 -> 011
  EXPECT_EQ(Cairn::bucketSuccessor(7, 3), 8u);  // the last bucket: the count
  EXPECT_EQ(Cairn::bucketTerminator(7, 3), EndOfTable);
  EXPECT_EQ(Cairn::bucketTerminator(6, 3), SlotLink::nextBucketLink(1));
}

TEST(BucketTableOrderTest, EveryBucketOnceEndingAtTheLast) {
  for (uint32_t bits = 0; bits <= 12; ++bits) {
    const uint32_t count = 1u << bits;
    const std::vector<uint32_t> order = tableOrder(bits);
    ASSERT_EQ(order.size(), count) << "bits " << bits;
    for (uint32_t position = 0; position < count; ++position) {
      // The position's bits reversed give the bucket.
      const uint32_t expected = bits == 0 ? 0 : Basalt::Util::reverse(position) >> (32 - bits);
      ASSERT_EQ(order[position], expected) << "bits " << bits << " position " << position;
      if (order[position] < count / 2) {
        ASSERT_EQ(Cairn::bucketSuccessor(order[position], bits), order[position] + count / 2);
      }
    }
    EXPECT_EQ(order.back(), count - 1);
    EXPECT_EQ(Cairn::bucketTerminator(count - 1, bits), EndOfTable);
    for (uint32_t bucket = 0; bucket + 1 < count; ++bucket) {
      ASSERT_NE(Cairn::bucketTerminator(bucket, bits), EndOfTable);
    }
  }
}

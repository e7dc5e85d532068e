#pragma once
// The bucket file: the heads of a table's hash chains, shared by its writer
// and any number of lock-free readers. docs/FILES.md draws the same layout.
//
//   0   magic       4   "CBKT" (0x544B4243 read little-endian)
//   4   version     4   1
//   8   epochId     4   generation of the writer that formatted the file
//   12  hash        4   FNV-1a of magic, version and epochId
//   16  numBuckets  8   Arena::VerU32: version at 16 (+1 per resize), count at 20
//   24  reserved    8   0
//   32  entries         numBuckets SlotLinks of 8 bytes; entry i at 32 + 8 i
//
// Invariants between two writer operations:
//  1. numBuckets is a power of two, at least 1.
//  2. Every chain ends in its bucket's terminator: a NextBucketLink to the
//     bucket's successor in table order, or EndOfTable for bucket n - 1 alone.
//     With all chains joined so, the table is one list sorted by rhash.
//  3. The count only changes together with its version (one 64-bit store).
//  4. The file is extended before a count that needs the extension is
//     published, and never cut short under a published count.
//
// Table order visits buckets in the order of their bit-reversed indices
// (8 buckets: 0 4 2 6 1 5 3 7). The successor of bucket b among n is b + n/2
// when b < n/2; otherwise, with b written in log2(n) bits, its leading 1 bits
// cleared and its highest 0 bit set (5 = 101 is followed by 3 = 011).

#include <cstddef>
#include <cstdint>
#include <string>

#include "Arena/VerU32.h"
#include "ArenaFiles/EpochId.h"
#include "Basalt/Util.h"
#include "Cairn/SlotFormat.h"

namespace Cairn {

constexpr uint32_t BucketMagic = 0x544B4243u;  // "CBKT"
constexpr uint32_t BucketVersion = 1;
constexpr std::size_t BucketHeaderSize = 32;
constexpr uint32_t InitialBuckets = 2;
constexpr const char * BucketFileName = "buckets";

struct BucketTableHeader {
  uint32_t magic;
  uint32_t version;
  ArenaFiles::EpochId epochId;
  uint32_t hash;
  Arena::VerU32 numBuckets;
  uint64_t reserved;

  uint32_t doHash() const;
  // True if the header, with its count read as `count`, is sound for a file
  // of `fileSize` bytes and, when `wanted` is not none, of that generation;
  // else the message in errorOut. While a writer may double the table, the
  // count must be loaded before the file's size is read: only a size read
  // after the count is sure to cover it (invariant 4).
  bool validate(Arena::VerU32 count, unsigned long fileSize, ArenaFiles::EpochId wanted,
                std::string & errorOut) const;
  // The same with the count as it stands, for a file whose size no one else
  // changes meanwhile (the writer's own, a copy at rest).
  bool validate(unsigned long fileSize, ArenaFiles::EpochId wanted, std::string & errorOut) const {
    return validate(numBuckets.load(), fileSize, wanted, errorOut);
  }
  std::string toString() const;
};

static_assert(sizeof(BucketTableHeader) == BucketHeaderSize, "bucket entries start at byte 32");
static_assert(offsetof(BucketTableHeader, epochId) == 8 && offsetof(BucketTableHeader, hash) == 12,
              "epochId at 8 and hash at 12 of the bucket file");
static_assert(offsetof(BucketTableHeader, numBuckets) == 16,
              "numBuckets is one aligned 64-bit word at 16, stored in one write");
static_assert(sizeof(SlotLink) == 8, "a bucket entry is one 64-bit link word");

constexpr std::size_t bucketFileSize(uint32_t numBuckets) {
  return BucketHeaderSize + static_cast<std::size_t>(numBuckets) * sizeof(SlotLink);
}

constexpr uint32_t log2Of(uint32_t powerOfTwo) {
  return powerOfTwo <= 1 ? 0 : 31 - static_cast<uint32_t>(__builtin_clz(powerOfTwo));
}

// The successor of `bucket` in table order among 2^bits buckets, or 2^bits
// when `bucket` is the last one (2^bits - 1).
constexpr uint32_t bucketSuccessor(uint32_t bucket, uint32_t bits) {
  if (bits == 0) {
    return 1;
  }
  const uint32_t reversed = Basalt::Util::reverse(bucket) >> (32 - bits);
  const uint32_t count = 1u << bits;
  if (reversed + 1 == count) {
    return count;
  }
  return Basalt::Util::reverse(reversed + 1) >> (32 - bits);
}

// The link that ends the chain of `bucket` among 2^bits buckets.
constexpr uint32_t bucketTerminator(uint32_t bucket, uint32_t bits) {
  const uint32_t next = bucketSuccessor(bucket, bits);
  return next == (1u << bits) ? EndOfTable : SlotLink::nextBucketLink(next);
}

}  // namespace Cairn

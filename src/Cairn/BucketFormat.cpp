#include "Cairn/BucketFormat.h"

#include <fmt/format.h>

#include "Basalt/HashMix.h"

namespace Cairn {

uint32_t BucketTableHeader::doHash() const {
  Basalt::Impl::HashMix<unsigned int> mix;
  mix.mixFixedLen<4>(magic);
  mix.mixFixedLen<4>(version);
  mix.mixFixedLen<4>(epochId.value);
  return mix.result();
}

bool BucketTableHeader::validate(Arena::VerU32 count, unsigned long fileSize, ArenaFiles::EpochId wanted,
                                 std::string & errorOut) const {
  if (magic != BucketMagic) {
    errorOut = fmt::format("BucketTable::Header::validate() bad magic: {:x}", magic);
  } else if (version != BucketVersion) {
    errorOut = fmt::format("BucketTable::Header::validate() bad version: {}", version);
  } else if (!wanted.none() && !(wanted == epochId)) {
    errorOut = fmt::format("BucketTable::validate() bad epoch:{} wanted:{}", epochId.toString(),
                           wanted.toString());
  } else if (doHash() != hash) {
    errorOut = fmt::format("BucketTable::Header::validate() checksum fail: {:x} != {:x}", doHash(), hash);
  } else if (count.value == 0 || (count.value & (count.value - 1)) != 0 || count.value > NextBucketBit) {
    errorOut = fmt::format("BucketTable::Header::validate() bad numBuckets: {}", count.toString());
  } else if (fileSize < bucketFileSize(count.value)) {
    errorOut = fmt::format("BucketTable::Header::validate() bad shmem size:{} wanted:{} for {} buckets",
                           fileSize, bucketFileSize(count.value), count.value);
  } else {
    return true;
  }
  return false;
}

std::string BucketTableHeader::toString() const {
  return fmt::format("BucketTable::Header() magic:0x{:x} version:{} epoch:{} hash:0x{:x} numBuckets:{}",
                     magic, version, epochId.toString(), hash, numBuckets.load().toString());
}

}  // namespace Cairn

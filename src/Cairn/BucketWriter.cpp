#include "Cairn/BucketWriter.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Cairn/AttachResult.h"

namespace Cairn {

BucketWriterTable::BucketWriterTable(Basalt::Platform::DebugHandler & handler,
                                     const RootPath & rootPath, Writer::Counters & counters,
                                     bool localMem)
    : Basalt::Debuggable(handler),
      rootPath_(rootPath),
      counters_(&counters),
      wrapper_(handler, rootPath.directory(), BucketFileName, localMem) {}

int BucketWriterTable::attach(ArenaFiles::EpochId epochId) {
  detach();
  const std::size_t present = wrapper_.memSize();
  const std::size_t wanted = bucketFileSize(InitialBuckets);
  header_ = static_cast<BucketTableHeader *>(wrapper_.attach(wanted));
  if (header_ == nullptr) {
    throw Basalt::InvalidInitializeException(
        fmt::format("BucketWriter::attach() cannot attach to shmem {} size:{}: {}",
                    wrapper_.getFilename(), wanted, wrapper_.reason()));
  }
  const bool existed = present != 0;
  std::string error;
  if (existed && header_->epochId == epochId && validate(epochId, error)) {
    const uint32_t count = header_->numBuckets.load().value;
    remap(bucketFileSize(count), "attach");
    countIs(count);
    BASALT_TRACE(debugHandler(), 2, "BucketWriter::attach() to existing {}", wrapper_.getFilename());
    return AttachedExisting;
  }
  if (existed) {
    remap(present, "attach");
    remap(wanted, "attach");
  }
  format(epochId);
  if (existed) {
    BASALT_TRACE(debugHandler(), 1, "BucketWriter::attach() re-formatted {}", wrapper_.getFilename());
    return AttachedReformatted;
  }
  BASALT_TRACE(debugHandler(), 2, "BucketWriter::attach() to new file {}", wrapper_.getFilename());
  return AttachedNew;
}

void BucketWriterTable::format(ArenaFiles::EpochId epochId) {
  header_->magic = BucketMagic;
  header_->version = BucketVersion;
  header_->epochId = epochId;
  header_->hash = header_->doHash();
  header_->reserved = 0;
  countIs(InitialBuckets);
  for (uint32_t bucket = 0; bucket < InitialBuckets; ++bucket) {
    entries()[bucket].reset(bucketTerminator(bucket, numBucketBits_));
  }
  // Publishes the count after every entry holds its terminator.
  header_->numBuckets.store(0, InitialBuckets);
}

void BucketWriterTable::resize(uint32_t numBuckets) {
  const uint32_t before = numBuckets_;
  const void * oldBase = header_;
  remap(bucketFileSize(numBuckets), "resize");
  if (header_ != oldBase) {
    ++counters_->bucketRemaps;
  }
  // Entries above the old count hold what an earlier, larger table left, or
  // zeros: either is a well-formed link word, and the map stores every one of
  // them before it publishes a count that covers them.
  countIs(numBuckets);
  BASALT_TRACE(debugHandler(), 5, "BucketWriter::resize() {} from {} to {} buckets",
               rootPath_.toString(), before, numBuckets);
}

void BucketWriterTable::remap(std::size_t bytes, const char * function) {
  header_ = static_cast<BucketTableHeader *>(wrapper_.resize(bytes));
  if (header_ == nullptr) {
    throw Basalt::MemoryResourceException(fmt::format("BucketWriter::{}() failed to resize {} to size {} : {}",
                                                      function, wrapper_.getFilename(), bytes,
                                                      wrapper_.reason()));
  }
}

bool BucketWriterTable::validate(ArenaFiles::EpochId wanted, std::string & errorOut) const {
  if (header_ == nullptr) {
    errorOut = fmt::format("BucketTable::validate() {} is not attached", wrapper_.getFilename());
    return false;
  }
  if (!header_->validate(wrapper_.memSize(), wanted, errorOut)) {
    BASALT_TRACE(debugHandler(), 0, "{}", errorOut);
    return false;
  }
  return true;
}

void BucketWriterTable::validateFile(ArenaFiles::EpochId wanted) const {
  if (wrapper_.localMem()) {
    return;
  }
  Basalt::Platform::DebugHandler quiet("bucket-file-check");
  Arena::ArenaFilesWrapper file(quiet, rootPath_.directory(), BucketFileName, false);
  const auto * header = static_cast<const BucketTableHeader *>(
      file.attach(BucketHeaderSize, Arena::ArenaFilesWrapper::Mode::ReadOnly));
  std::string error;
  if (header == nullptr) {
    error = fmt::format("BucketWriter::validateFile() cannot map {}: {}", wrapper_.getFilename(),
                        file.reason());
  } else if (!header->validate(file.memSize(), wanted, error)) {
    error = fmt::format("BucketWriter::validateFile() {}: {}", wrapper_.getFilename(), error);
  } else {
    return;
  }
  BASALT_TRACE(debugHandler(), 0, "{}", error);
  throw Basalt::CorruptionDetectedException(error);
}

void BucketWriterTable::detach() {
  wrapper_.detach();
  header_ = nullptr;
  numBuckets_ = 0;
  numBucketBits_ = 0;
}

void BucketWriterTable::cleanup() {
  BASALT_TRACE(debugHandler(), 3, "BucketWriter::cleanup() removing file: {}", wrapper_.getFilename());
  detach();
  wrapper_.remove();
}

void BucketWriterTable::throwOutOfRange(uint32_t index) const {
  throw Basalt::CorruptionDetectedException(fmt::format(
      "BucketWriter::operator[] out-of-range, index:{} max:{}", index, static_cast<int64_t>(numBuckets_) - 1));
}

std::string BucketWriterTable::toString() const {
  return header_ == nullptr ? std::string("BucketTable::Header() detached") : header_->toString();
}

void BucketWriterTable::countIs(uint32_t numBuckets) {
  numBuckets_ = numBuckets;
  numBucketBits_ = log2Of(numBuckets);
}

}  // namespace Cairn

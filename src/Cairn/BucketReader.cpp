#include "Cairn/BucketReader.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Cairn {

namespace {

// The local pair before the first doResize: no file ever holds this
// version, so the first doResize always maps the whole table.
constexpr Arena::VerU32 unmappedPair{0xFFFFFFFFu, 0};

}  // namespace

BucketReaderTable::BucketReaderTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath,
                                     Reader::Counters & counters)
    : Basalt::Debuggable(handler),
      rootPath_(rootPath),
      counters_(&counters),
      wrapper_(handler, rootPath.directory(), BucketFileName, false) {}

bool BucketReaderTable::attach() {
  detach();
  header_ = static_cast<const BucketTableHeader *>(
      wrapper_.attach(BucketHeaderSize, Arena::ArenaFilesWrapper::Mode::ReadOnly));
  if (header_ == nullptr) {
    BASALT_TRACE(debugHandler(), 0, "BucketReader::attach() cannot attach to shmem {}: {}",
                 wrapper_.getFilename(), wrapper_.reason());
    return false;
  }
  numBuckets_ = unmappedPair;
  numBucketBits_ = 0;
  return true;
}

void BucketReaderTable::detach() {
  wrapper_.detach();
  header_ = nullptr;
  numBuckets_ = Arena::VerU32{};
  numBucketBits_ = 0;
}

bool BucketReaderTable::doResize() {
  if (header_ == nullptr || !versionMoved()) {
    return false;
  }
  while (true) {
    const Arena::VerU32 count = header_->numBuckets.load();
    const std::size_t needed = bucketFileSize(count.value);
    const std::size_t size = wrapper_.fileSize();
    if (size >= needed) {
      header_ = static_cast<const BucketTableHeader *>(wrapper_.resize(needed));
      if (header_ == nullptr) {
        throw Basalt::MemoryResourceException(
            fmt::format("BucketReader::doResize() failed to resize {} to {} buckets, needed {} bytes. Reason: {}",
                        wrapper_.getFilename(), count.value, needed, wrapper_.reason()));
      }
      BASALT_TRACE(debugHandler(), 2, "BucketReader::doResize() {} from {} buckets to {}",
                   rootPath_.cairnName(), numBuckets_.toString(), count.toString());
      numBuckets_ = count;
      numBucketBits_ = log2Of(count.value);
      ++counters_->bucketResizes;
      return true;
    }
    // The file is shorter than the count read: the writer may have changed
    // the count since (it extends the file before it raises the count). Only
    // a shortfall with the count at rest is a fault of the file.
    if (header_->numBuckets.loadVersion() == count.version) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("BucketReader::doResize() requesting to map {} {} buckets. Requested file resize to {} "
                      "but real file size is {}",
                      wrapper_.getFilename(), count.value, needed, size));
    }
  }
}

bool BucketReaderTable::validate(ArenaFiles::EpochId wanted, std::string & errorOut) const {
  if (header_ == nullptr) {
    errorOut = fmt::format("BucketTable::validate() {} is not attached", wrapper_.getFilename());
    return false;
  }
  // The mapping may cover only the header: the size that counts is the file's.
  // The count is loaded first: a size read before it could predate a doubling
  // the count already shows, and judge a sound file too short.
  const Arena::VerU32 count = header_->numBuckets.load();
  return header_->validate(count, wrapper_.fileSize(), wanted, errorOut);
}

void BucketReaderTable::throwOutOfRange(uint32_t index) const {
  throw Basalt::CorruptionDetectedException(fmt::format("BucketReader::operator[] out-of-range, index:{} max:{}", index,
                                                        static_cast<int64_t>(numBuckets_.value) - 1));
}

void BucketReaderTable::throwResizeMismatch() const {
  throw Basalt::CorruptionDetectedException(
      fmt::format("BucketReader::checkResize() found mismatch, local numBuckets:{} header numBuckets:{}",
                  numBuckets_.toString(), header_->numBuckets.load().toString()));
}

std::string BucketReaderTable::toString() const {
  return header_ == nullptr ? std::string("BucketTable::Header() detached") : header_->toString();
}

}  // namespace Cairn

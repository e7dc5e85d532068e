#pragma once
// BucketReaderTable: a reader process's view of a table's bucket file
// (Cairn/BucketFormat.h): a read-only mapping that follows the writer's
// doubling and halving, and a bound-checked index of bucket entries.
//
// Safe in any reader process; one object belongs to one thread. It never
// writes a byte of the file: the only things it changes are its own mapping
// and its own copy of the (version, count) pair. All it reads of the file is
// the numBuckets word and the entries, each with one atomic load.

#include <cstdint>
#include <string>

#include "Arena/ArenaFilesWrapper.h"
#include "Basalt/Debuggable.h"
#include "Cairn/BucketFormat.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/RootPath.h"

namespace Cairn {

class BucketReaderTable : public Basalt::Debuggable {
 public:
  BucketReaderTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath,
                    Reader::Counters & counters);

  // Maps the file's header read-only; the entries are mapped by the first
  // doResize(). False, with a level 0 trace, if the file can't be mapped.
  bool attach();
  void detach();
  // Remaps to the count now in the file and takes that (version, count) as
  // the local pair. True if it did anything. Throws
  // Basalt::CorruptionDetectedException if the file is shorter than its own
  // count says while that count is at rest.
  bool doResize();
  // Tests the file's own header against `wanted`; the failure's text in errorOut.
  bool validate(ArenaFiles::EpochId wanted, std::string & errorOut) const;

  // The entry's address; past the local count,
  // "BucketReader::operator[] out-of-range, index:<i> max:<count - 1>".
  // Bounded by the local count, so a stale, torn or corrupt link can never
  // lead the reader out of its mapping. Inline: every lookup takes it.
  const SlotLink * operator[](uint32_t index) const {
    if (index >= numBuckets_.value) [[unlikely]] {
      throwOutOfRange(index);
    }
    return reinterpret_cast<const SlotLink *>(reinterpret_cast<const char *>(header_) + BucketHeaderSize) + index;
  }
  // Throws "BucketReader::checkResize() found mismatch, ..." when the file's
  // count has moved from the local one: the test that a not-found rests on.
  // Detects a writer that doubled or halved the table since this reader's
  // last remap: an answer of "not found" from a stale count is not given.
  void checkResize() const {
    if (versionMoved()) [[unlikely]] {
      throwResizeMismatch();
    }
  }
  // True when the file's numBuckets version differs from the local one: one
  // load, taken after every lookup.
  bool versionMoved() const {
    return header_ != nullptr && header_->numBuckets.loadVersion() != numBuckets_.version;
  }

  bool mapped() const { return header_ != nullptr; }
  const BucketTableHeader * header() const { return header_; }
  uint32_t numBuckets() const { return numBuckets_.value; }
  uint32_t numBucketBits() const { return numBucketBits_; }
  const Arena::VerU32 & localNumBuckets() const { return numBuckets_; }
  const Arena::ArenaFilesWrapper & wrapper() const { return wrapper_; }
  std::string toString() const;

 private:
  [[noreturn]] void throwOutOfRange(uint32_t index) const;
  [[noreturn]] void throwResizeMismatch() const;

  const RootPath & rootPath_;
  Reader::Counters * counters_;
  Arena::ArenaFilesWrapper wrapper_;
  const BucketTableHeader * header_ = nullptr;
  Arena::VerU32 numBuckets_;
  uint32_t numBucketBits_ = 0;
};

}  // namespace Cairn

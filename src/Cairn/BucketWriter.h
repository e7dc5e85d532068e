#pragma once
// BucketWriterTable: the writer's side of the bucket file (Cairn/BucketFormat.h).
// It creates, re-formats or re-attaches the file, resizes it, and gives
// range-checked access to the entries. The chains themselves, and the stores
// of the header's count, are the WriterHashMap's.
//
// Writer thread only. numBuckets() and numBucketBits() are this object's
// copies: resize() updates them at once, while the file's count changes only
// when the map publishes it.

#include <cstdint>
#include <string>

#include "Arena/ArenaFilesWrapper.h"
#include "Basalt/Debuggable.h"
#include "Cairn/BucketFormat.h"
#include "Cairn/RootPath.h"
#include "Cairn/WriterCounters.h"

namespace Cairn {

class BucketWriterTable : public Basalt::Debuggable {
 public:
  BucketWriterTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath,
                    Writer::Counters & counters, bool localMem);

  // 1 new, 2 existing kept, 4 re-formatted (Cairn::AttachResult); throws on failure.
  int attach(ArenaFiles::EpochId epochId);
  // Resizes the file and the mapping to `numBuckets` entries; entries below
  // the smaller count are left alone, new ones get a well-formed link version.
  void resize(uint32_t numBuckets);
  bool validate(ArenaFiles::EpochId wanted, std::string & errorOut) const;
  // Checks the file on disk: it exists, and its header is sound for this
  // generation. Throws Basalt::CorruptionDetectedException otherwise.
  void validateFile(ArenaFiles::EpochId wanted) const;
  void detach();
  void cleanup();
  // Puts the mapping into core dumps (a table refused at start).
  void dumpToCoreIs(bool on) { wrapper_.dumpToCoreIs(on); }

  // The entry's address; past the count (or detached),
  // "BucketWriter::operator[] out-of-range, index:<i> max:<count - 1>".
  // Inline: every operation takes it; the throw is out of line.
  SlotLink * operator[](uint32_t index) const {
    if (header_ == nullptr || index >= numBuckets_) [[unlikely]] {
      throwOutOfRange(index);
    }
    return entries() + index;
  }
  BucketTableHeader * header() const { return header_; }
  uint32_t numBuckets() const { return numBuckets_; }
  uint32_t numBucketBits() const { return numBucketBits_; }
  const Arena::ArenaFilesWrapper & wrapper() const { return wrapper_; }
  std::string toString() const;

 private:
  SlotLink * entries() const {
    return reinterpret_cast<SlotLink *>(reinterpret_cast<char *>(header_) + BucketHeaderSize);
  }
  [[noreturn]] void throwOutOfRange(uint32_t index) const;
  void countIs(uint32_t numBuckets);
  void remap(std::size_t bytes, const char * function);
  void format(ArenaFiles::EpochId epochId);

  const RootPath & rootPath_;
  Writer::Counters * counters_;
  Arena::ArenaFilesWrapper wrapper_;
  BucketTableHeader * header_ = nullptr;
  uint32_t numBuckets_ = 0;
  uint32_t numBucketBits_ = 0;
};

}  // namespace Cairn

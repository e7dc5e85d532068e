#pragma once
// What the reader tests share: a writer on a table of HashedKey entries, whose
// hashes the tests choose, readers attached beside it in the same process (a
// separate CairnReader on the same table name maps the same files read-only),
// the writer's own mapping through which a test changes words in place, and
// the file offsets at which it damages the files once no writer runs.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Arena/Atomics.h"
#include "Basalt/Util.h"
#include "Cairn/CairnReader.h"
#include "Cairn/MapTestTypes.h"
#include "Cairn/WriterTestTypes.h"

namespace CairnTest {

using HashedOps = OpsFor<HashedValue>;
using HashedWriter = WriterFor<HashedValue>;
using HashedReader = Cairn::CairnReader<HashedKey, HashedValue, HashedOps>;

// A writer on the table "test/reader" under a temporary base directory, and
// readers on the same files. The writer stays idle while a reader runs, so
// every state a test builds is deterministic.
struct ReaderTable {
  using Slot = HashedWriter::Slot;
  static constexpr std::size_t slotSize = HashedWriter::SlotWriter::slotSize;
  static constexpr std::size_t slotHeaderSize = HashedWriter::SlotWriter::SlotHeaderSize;
  static constexpr const char * name = "test/reader";

  explicit ReaderTable(const Cairn::MapDescriptor & descriptor = sharedDescriptor(1000))
      : harness(descriptor, name) {}

  // A reader on the table, not initialized.
  std::unique_ptr<HashedReader> makeReader(Cairn::Reader::Counters * counters = nullptr) {
    return std::make_unique<HashedReader>(readerHandler, name, HashedOps(), counters);
  }
  // A reader on the table, initialized; throws if it can't attach.
  std::unique_ptr<HashedReader> reader(Cairn::Reader::Counters * counters = nullptr) {
    auto made = makeReader(counters);
    if (!made->initialize("test")) {
      throw std::runtime_error("ReaderTable::reader() initialize failed");
    }
    return made;
  }

  HashedWriter & writer() { return *harness.writer; }
  void write(uint32_t hash, uint32_t id, uint64_t payload = 0) { writer().write(valueOf(hash, id, payload), true); }
  bool remove(uint32_t hash, uint32_t id) {
    HashedValue removed;
    return writer().remove(HashedKey{hash, id}, removed);
  }
  // A writer process's end: the files stay as they are.
  void stopWriter() { harness.writer.reset(); }

  // ---- The writer's mapping ----

  // The index of the key's slot; throws if the key is not in the table.
  uint32_t indexOf(const HashedKey & key) {
    Cairn::SlotLink * prev;
    Cairn::SlotLink * curr;
    auto & map = writer().map();
    if (!map.find(key, map.bucketOf(key.hashValue), &prev, &curr, key.hashValue)) {
      throw std::runtime_error("ReaderTable::indexOf() key not in the table");
    }
    return static_cast<uint32_t>(reinterpret_cast<Slot *>(curr) - writer().slotTable().slots().base);
  }
  Slot * slot(uint32_t index) { return writer().slotTable().slots()[index]; }
  Slot * slotOf(const HashedKey & key) { return slot(indexOf(key)); }
  Cairn::SlotLink * bucket(uint32_t index) { return writer().map().buckets()[index]; }
  Cairn::SlotTableHeader & header() { return *writer().slotTable().header(); }
  Cairn::BucketTableHeader & bucketHeader() { return *writer().map().buckets().header(); }
  // The count in the bucket file.
  uint32_t numBuckets() { return bucketHeader().numBuckets.load().value; }

  // ---- The files ----

  std::string directory() const { return harness.root.path() + "/" + name; }
  std::string file(std::string_view fileName) const { return directory() + "/" + std::string(fileName); }
  FileBytes slotFile() const { return FileBytes(file(Cairn::SlotFileName)); }
  FileBytes bucketFile() const { return FileBytes(file(Cairn::BucketFileName)); }
  std::string corruptionFile() const { return file(Cairn::Util::CORRUPTION_FILENAME); }

  static std::size_t slotOffset(uint32_t index) { return slotHeaderSize + std::size_t{index} * slotSize; }
  static std::size_t linkValueOffset(uint32_t index) { return slotOffset(index) + 4; }
  static std::size_t flagsOffset(uint32_t index) { return slotOffset(index) + 8; }
  static std::size_t keyOffset(uint32_t index) { return slotOffset(index) + Cairn::SlotPrefixSize; }
  static std::size_t bucketValueOffset(uint32_t index) {
    return Cairn::BucketHeaderSize + std::size_t{index} * sizeof(Cairn::SlotLink) + 4;
  }

  WriterHarness<HashedValue> harness;
  Basalt::Platform::DebugHandler readerHandler{"reader-test"};
};

// A key in a corruption message: its bytes, as read from the slot.
inline std::string hexOf(const HashedKey & key) { return Basalt::dumpHex(&key, sizeof(key)); }

// Sets the hash observer of HashedKey for the life of the scope: `action`
// runs at each hash for which `when` holds (at the first only, with
// Runs::once), with the observer quiet during the action, since readers and
// the writer hash keys too. The map hashes keys between its stores, so the
// action sees the files as a reader sees them in the middle of an operation.
class HashHook {
 public:
  enum class Runs { once, always };

  template <typename When, typename Action>
  HashHook(When when, Action action, Runs runs = Runs::once) {
    hashObserver() = [this, when, action, runs] {
      if (running_ || (runs == Runs::once && fired_ > 0) || !when()) {
        return;
      }
      running_ = true;
      action();
      running_ = false;
      ++fired_;
    };
  }
  ~HashHook() { hashObserver() = nullptr; }
  HashHook(const HashHook &) = delete;
  HashHook & operator=(const HashHook &) = delete;

  unsigned fired() const { return fired_; }

 private:
  unsigned fired_ = 0;
  bool running_ = false;
};

// The keys a whole walk of the reader returns, in the order returned.
inline std::vector<HashedKey> walk(const HashedReader & reader) {
  std::vector<HashedKey> keys;
  HashedValue value;
  Cairn::IterHint hint;
  for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
    keys.push_back(value.key);
  }
  return keys;
}

// The keys in the order of the table: split order.
inline std::vector<HashedKey> inTableOrder(std::vector<HashedKey> keys) {
  std::sort(keys.begin(), keys.end(), splitOrderLess);
  return keys;
}

}  // namespace CairnTest

#pragma once
// A writer hash map on its own slot table, for the map's tests: a key whose
// hash the test chooses, and the writer's steps of insert, rewrite and remove
// done store by store as the writer's operations do them, so that the tests
// drive the map exactly as the writer will.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Cairn/SlotTestTypes.h"
#include "Cairn/WriterHashMap.h"

namespace CairnTest {

// Called at every hash of a HashedKey while it is set. The map hashes keys
// between its stores, so a test sees through it the files in the states that
// readers see while an operation runs.
inline std::function<void()> & hashObserver() {
  static std::function<void()> observer;
  return observer;
}

// A key whose 32-bit hash is chosen by the test; keys of equal hash are told
// apart, and ordered, by `id`.
struct HashedKey {
  uint32_t hashValue = 0;
  uint32_t id = 0;

  uint32_t hash(uint32_t /*seed*/) const {
    if (hashObserver()) {
      hashObserver()();
    }
    return hashValue;
  }
  uint32_t rhash() const { return Basalt::Util::reverse(hashValue); }
  bool operator==(const HashedKey &) const = default;
  bool operator<(const HashedKey & other) const {
    return id != other.id ? id < other.id : hashValue < other.hashValue;
  }
};

// The order of entries in the table: rhash, then the key's operator<.
inline bool splitOrderLess(const HashedKey & a, const HashedKey & b) {
  return a.rhash() != b.rhash() ? a.rhash() < b.rhash() : a < b;
}

struct HashedValue {
  HashedKey key;
  uint64_t payload = 0;

  HashedValue() = default;
  explicit HashedValue(const HashedKey & k, uint64_t p = 0) : key(k), payload(p) {}

  const HashedKey & fwkKey() const { return key; }
  bool operator==(const HashedValue &) const = default;
  static std::string_view typeName() { return "CairnTest::HashedValue"; }
};

inline std::string valueToStrep(const HashedKey & key) {
  return fmt::format("HashedKey(hash:0x{:x} id:{})", key.hashValue, key.id);
}

inline std::string valueToStrep(const HashedValue & value) {
  return fmt::format("HashedValue({} payload:{})", valueToStrep(value.key), value.payload);
}

inline HashedValue valueOf(uint32_t hash, uint32_t id, uint64_t payload = 0) {
  return HashedValue(HashedKey{hash, id}, payload);
}

// A slot writer table and the writer hash map over it, with the writer's
// steps of insert, rewrite and remove.
struct MapFixture {
  using Ops = OpsFor<HashedValue>;
  using Table = WriterTableFor<HashedValue>;
  using Map = Cairn::WriterHashMap<HashedKey, HashedValue, Ops>;
  using Slot = Table::Slot;

  static Table::Config growing() {
    Table::Config config;
    config.tableSize = 100000;
    config.classType = "MapTest";
    return config;
  }

  explicit MapFixture(bool shrinkBuckets, std::string name = "test/map")
      : rootPath(handler, name, true),
        slots(handler, rootPath, ops, counters, growing()),
        map(handler, rootPath, counters, ops, slots, shrinkBuckets, false) {}

  void attach(ArenaFiles::EpochId epochId) {
    slots.attach(epochId);
    map.attach(epochId);
  }

  // The writer's insert of a new key; false, and nothing stored, if the key
  // is present. `grow` false leaves out the final doubling of the buckets.
  bool insert(const HashedValue & value, bool grow = true) {
    const uint32_t hash = value.key.hash(0);
    Cairn::SlotLink * prev;
    Cairn::SlotLink * curr;
    if (map.find(value.key, map.bucketOf(hash), &prev, &curr, hash)) {
      return false;
    }
    // alloc may move the slot file's mapping; a bucket entry stays where it is.
    const std::optional<std::ptrdiff_t> prevOffset = offsetInSlotFile(prev);
    const uint32_t index = slots.alloc(hash);
    if (prevOffset) {
      prev = reinterpret_cast<Cairn::SlotLink *>(slotFileBase() + *prevOffset);
    }
    Slot * slot = slots.slots()[index];
    slot->link.storeNext(prev->value());
    const uint32_t writing = slot->flags + 2;
    Arena::Atomics::publish32(slot->flags, writing);
    Cairn::Marshall<HashedValue>::toSlot(&slot->value, value);
    Arena::Atomics::publish32(slot->flags, (writing + 2) | Cairn::OCCUPIED);
    prev->storeNext(index);
    if (grow) {
      map.maybeGrowBuckets();
    }
    return true;
  }

  // The writer's rewrite of an existing key's value behind LOOKASIDE; false
  // if the key is absent.
  bool rewrite(const HashedValue & value) {
    const std::optional<uint32_t> index = indexOf(value.key);
    if (!index) {
      return false;
    }
    Slot * slot = slots.slots()[*index];
    Slot * lookaside = slots.lookasideSlot();
    Arena::Atomics::publish32(lookaside->rhash, slot->rhash);
    Cairn::Marshall<HashedValue>::toSlot(&lookaside->value, value);
    const uint32_t writing = slot->flags + 2;
    Arena::Atomics::publish32(slot->flags, writing);
    Cairn::Marshall<HashedValue>::toSlot(&slot->value, value);
    Arena::Atomics::publish32(slot->flags, (writing + 2) | Cairn::OCCUPIED);
    return true;
  }

  // The writer's remove up to, not including, the halving of the buckets;
  // false if the key is absent.
  bool unlink(const HashedKey & key) {
    const uint32_t hash = key.hash(0);
    Cairn::SlotLink * prev;
    Cairn::SlotLink * curr;
    if (!map.find(key, map.bucketOf(hash), &prev, &curr, hash)) {
      return false;
    }
    Slot * slot = reinterpret_cast<Slot *>(curr);  // the link is a slot's first word
    const auto index = static_cast<uint32_t>(slot - slots.slots().base);
    prev->storeNext(slot->link.value());
    Arena::Atomics::publish32(slot->flags, slot->flags & ~Cairn::OCCUPIED);
    Cairn::SlotTableHeader & header = *slots.header();
    const uint32_t head = header.freeSlots;
    Arena::Atomics::publish32(header.freeSlots, index);
    slot->link.storeNext(head);
    Arena::Atomics::publish32(header.occupiedSlots, header.occupiedSlots - 1);
    ++counters.slotsRemoved;
    return true;
  }

  // The writer's whole remove, the halving of the buckets included.
  bool remove(const HashedKey & key) {
    if (!unlink(key)) {
      return false;
    }
    map.maybeShrinkBuckets();
    return true;
  }

  // The index of the key's slot, if the key is in the table.
  std::optional<uint32_t> indexOf(const HashedKey & key) {
    Cairn::SlotLink * prev;
    Cairn::SlotLink * curr;
    if (!map.find(key, map.bucketOf(key.hashValue), &prev, &curr, key.hashValue)) {
      return std::nullopt;
    }
    return static_cast<uint32_t>(reinterpret_cast<Slot *>(curr) - slots.slots().base);
  }

  Slot * slot(uint32_t index) const { return slots.slots()[index]; }
  Cairn::SlotLink * bucket(uint32_t index) const { return map.buckets()[index]; }
  uint32_t numBuckets() const { return map.buckets().numBuckets(); }
  uint32_t occupied() const { return slots.header()->occupiedSlots; }

  // The slot indices on `bucket`'s chain and the link that ends it.
  std::pair<std::vector<uint32_t>, uint32_t> chain(uint32_t bucketIndex) const {
    std::vector<uint32_t> indices;
    uint32_t link = bucket(bucketIndex)->value();
    while (!(link & Cairn::NextBucketBit) && indices.size() <= slots.capacity()) {
      indices.push_back(link);
      link = slot(link)->link.value();
    }
    return {indices, link};
  }

  Basalt::Platform::DebugHandler handler{"map-test"};
  Cairn::RootPath rootPath;
  Ops ops;
  Cairn::Writer::Counters counters;
  Table slots;
  Map map;

 private:
  char * slotFileBase() const { return reinterpret_cast<char *>(slots.header()); }

  std::optional<std::ptrdiff_t> offsetInSlotFile(const Cairn::SlotLink * link) const {
    const auto at = reinterpret_cast<std::uintptr_t>(link);
    const auto base = reinterpret_cast<std::uintptr_t>(slotFileBase());
    if (at >= base && at < base + slots.wrapper().memSize()) {
      return static_cast<std::ptrdiff_t>(at - base);
    }
    return std::nullopt;
  }
};

// What a table walk reports to a validation hung on the map: here, a list.
class MarkList : public Cairn::OccupiedMarks {
 public:
  void markOccupied(uint32_t slot) override { marks.push_back(slot); }
  std::vector<uint32_t> marks;
};

}  // namespace CairnTest

// The shadow stores over a real writer's files: a value store and a key
// store, each fed slot by slot as the queue or a walk would, checked against
// what the writer did, the callbacks they made, and their counters.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cairn/KeyShadowStore.h"
#include "Cairn/ReaderTestTypes.h"
#include "Cairn/ShadowStore.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;

namespace {

using ValueStore = Cairn::ShadowStore<HashedKey, HashedValue, HashedOps, Cairn::ValueShadowSlot<HashedValue>>;
using KeyStore = Cairn::KeyShadowStore<HashedKey, HashedValue, HashedOps>;
constexpr uint64_t Walk = ValueStore::NoSequence;

std::string idOf(const HashedKey & key) { return std::to_string(key.id); }

// The callbacks a store made, as "value:<id>", "key:<id>" and "delete:<id>".
struct CallbackLog {
  std::vector<std::string> calls;
  std::function<void(const HashedKey &)> onDelete = [](const HashedKey &) {};
  std::function<void(const HashedValue &)> onValue = [](const HashedValue &) {};
  std::function<void(const HashedKey &)> onKey = [](const HashedKey &) {};

  Arena::Notify<HashedKey, HashedValue> callbacks() {
    return Arena::Notify<HashedKey, HashedValue>(
        [this](const HashedValue & value) {
          calls.push_back("value:" + idOf(value.key));
          onValue(value);
        },
        [this](const HashedKey & key) {
          calls.push_back("key:" + idOf(key));
          onKey(key);
        },
        [this](const HashedKey & key) {
          calls.push_back("delete:" + idOf(key));
          onDelete(key);
        });
  }
};

template <typename Store>
class StoreFixture : public ::testing::Test {
 protected:
  StoreFixture() {
    if (!ripple_.attach()) {
      throw std::runtime_error("queue did not attach");
    }
    store_.initialize();
  }

  // Hands every occupied and every free slot of the shared table to the
  // store, as a walk does.
  void walk(bool compare) {
    reader_->doResize();
    for (uint32_t index = 0; index < reader_->capacity(); ++index) {
      store_.doSlot(index, Walk, compare);
    }
  }
  bool found(const HashedKey & key) {
    bool isFound = false;
    HashedValue out;
    store_.lookup(key, isFound, &out);
    return isFound;
  }
  HashedValue valueOf(const HashedKey & key) {
    bool isFound = false;
    HashedValue out;
    const HashedValue * value = store_.lookup(key, isFound, &out);
    return *value;
  }
  std::vector<uint32_t> walkIds() {
    std::vector<uint32_t> ids;
    HashedValue value;
    Cairn::IterHint hint;
    for (bool more = store_.first(0, value, hint); more; more = store_.next(value.key, value, hint)) {
      ids.push_back(value.key.id);
    }
    return ids;
  }

  ReaderTable table_;
  Cairn::Reader::Counters counters_;
  std::unique_ptr<HashedReader> reader_ = table_.reader(&counters_);
  Basalt::Platform::DebugHandler handler_{"shadow-store-test"};
  Ripple::RippleReader ripple_{handler_, table_.directory(), &counters_};
  CallbackLog log_;
  Arena::Notify<HashedKey, HashedValue> callbacks_ = log_.callbacks();
  Store store_{handler_, *reader_, &ripple_, callbacks_, false};
};

using ValueStoreTest = StoreFixture<ValueStore>;
using KeyStoreTest = StoreFixture<KeyStore>;

}  // namespace

// ---- The value store ----

TEST_F(ValueStoreTest, ANotificationBeyondTheArrayGrowsItToTheReadersCapacity) {
  for (uint32_t id = 0; id < 150; ++id) {
    table_.write(id * 7919, id);
  }
  const uint32_t index = table_.indexOf(HashedKey{120 * 7919, 120});
  ASSERT_GE(index, 100u);
  EXPECT_EQ(store_.numSlots(), 0u);
  EXPECT_TRUE(store_.doSlot(index, Walk, false));
  reader_->doResize();
  EXPECT_EQ(store_.numSlots(), reader_->capacity());
  for (uint32_t slot = 0; slot < store_.numSlots(); ++slot) {
    EXPECT_EQ(store_.slot(slot).dead(), slot != index) << slot;
  }
  EXPECT_EQ(valueOf(HashedKey{120 * 7919, 120}), CairnTest::valueOf(120 * 7919, 120));
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"value:120"}));
}

TEST_F(ValueStoreTest, ANotificationBeyondTheSharedTableIsSkipped) {
  table_.write(1, 1);
  const uint32_t beyond = table_.header().numSlots.load().value + 5;
  const TestSupport::TraceCapture capture;
  handler_.maskIs(handler_.mask() | (1u << 5));
  EXPECT_TRUE(store_.doSlot(beyond, 9, false));
  EXPECT_EQ(store_.numSlots(), 0u);
  EXPECT_TRUE(capture.contains("ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:" +
                               std::to_string(beyond) + " because shared memory has shrunk to"));
}

TEST_F(ValueStoreTest, AReusedSlotGivesADeleteForTheOldKeyThenAnUpdateForTheNewOne) {
  table_.write(5, 1, 10);
  const uint32_t index = table_.indexOf(HashedKey{5, 1});
  walk(false);
  log_.calls.clear();
  ASSERT_TRUE(table_.remove(5, 1));
  table_.write(6, 2, 20);
  ASSERT_EQ(table_.indexOf(HashedKey{6, 2}), index) << "the writer did not reuse the slot";
  store_.doSlot(index, Walk, false);
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"delete:1", "value:2"}));
  EXPECT_FALSE(found(HashedKey{5, 1}));
  EXPECT_EQ(valueOf(HashedKey{6, 2}).payload, 20u);
  EXPECT_EQ(counters_.occupied, 1u);
}

TEST_F(ValueStoreTest, ALiveNotificationOfAFreeSlotDeadHereDoesNothing) {
  table_.write(5, 1);
  walk(false);
  log_.calls.clear();
  ASSERT_TRUE(table_.remove(5, 1));
  const uint32_t free = 3;
  ASSERT_TRUE(store_.slot(free).dead());
  counters_.sequence = 17;
  EXPECT_TRUE(store_.doSlot(free, 40, false));
  EXPECT_TRUE(log_.calls.empty());
  EXPECT_EQ(counters_.sequence, 17u);
}

TEST_F(ValueStoreTest, AComparingWalkOverAnUnchangedTableIsSilent) {
  for (uint32_t id = 0; id < 40; ++id) {
    table_.write(id * 31, id, id);
  }
  walk(false);
  EXPECT_EQ(log_.calls.size(), 40u);
  log_.calls.clear();
  const uint32_t occupied = counters_.occupied;
  counters_.sequence = 99;
  walk(true);
  EXPECT_TRUE(log_.calls.empty());
  EXPECT_EQ(counters_.occupied, occupied);
  EXPECT_EQ(counters_.sequence, 99u);
  // A changed value is not silent.
  table_.write(3 * 31, 3, 1000);
  walk(true);
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"value:3"}));
}

TEST_F(ValueStoreTest, InsideItsCallbacksALookupSeesTheChangeBeforeTheIndexDoes) {
  table_.write(8, 1, 1);
  bool foundInside = false;
  uint64_t payloadInside = 0;
  log_.onValue = [&](const HashedValue & value) {
    bool isFound = false;
    payloadInside = store_.lookup(value.key, isFound, nullptr)->payload;
    foundInside = isFound;
  };
  walk(false);
  EXPECT_TRUE(foundInside);
  EXPECT_EQ(payloadInside, 1u);
  EXPECT_GE(counters_.notifiedHits, 1u);

  ASSERT_TRUE(table_.remove(8, 1));
  bool foundInDelete = true;
  log_.onDelete = [&](const HashedKey & key) { foundInDelete = found(key); };
  walk(false);
  EXPECT_FALSE(foundInDelete);
  EXPECT_EQ(log_.calls.back(), "delete:1");
}

TEST_F(ValueStoreTest, ADeleteCallbackThatDisablesTheStoreStopsIt) {
  table_.write(8, 1);
  table_.write(9, 2);
  walk(false);
  const uint32_t index = table_.indexOf(HashedKey{8, 1});
  ASSERT_TRUE(table_.remove(8, 1));
  log_.onDelete = [&](const HashedKey &) { store_.disable(); };
  EXPECT_TRUE(store_.doSlot(index, Walk, false));
  EXPECT_FALSE(store_.initialized());
  EXPECT_EQ(store_.numSlots(), 0u);
}

TEST_F(ValueStoreTest, RemovingTheLastEntryEmptiesTheArrayAndTheNextNotificationGrowsItAgain) {
  table_.write(8, 1);
  walk(false);
  EXPECT_GT(store_.numSlots(), 0u);
  const uint32_t index = table_.indexOf(HashedKey{8, 1});
  ASSERT_TRUE(table_.remove(8, 1));
  store_.doSlot(index, Walk, false);
  EXPECT_EQ(store_.slotCounters().largestOccupied(), 0u);
  EXPECT_EQ(store_.numSlots(), 0u);
  table_.write(8, 1, 5);
  store_.doSlot(table_.indexOf(HashedKey{8, 1}), Walk, false);
  EXPECT_EQ(store_.numSlots(), reader_->capacity());
  EXPECT_EQ(valueOf(HashedKey{8, 1}).payload, 5u);
}

// The shared table never shrinks here, so the store, whose entries keep to
// the low indices, reaches the last step of tryShrink and waits for the
// writer's table to be as small: exactly a quarter passes the occupancy
// test, one more does not.
TEST_F(ValueStoreTest, OccupancyOfExactlyAQuarterPassesTheShrinkTest) {
  std::vector<HashedKey> keys;
  for (uint32_t id = 0; id < 300; ++id) {
    keys.push_back(HashedKey{id * 2654435761u, id});
    table_.write(keys.back().hashValue, id);
  }
  walk(false);
  std::vector<std::pair<uint32_t, HashedKey>> byIndex;
  for (const auto & key : keys) {
    byIndex.emplace_back(table_.indexOf(key), key);
  }
  std::sort(byIndex.rbegin(), byIndex.rend());
  handler_.maskIs(handler_.mask() | (1u << 5));
  const std::string passed = "ShadowStore::tryShrink() shadow slot occupancy <= 25% and can shrink to";
  size_t next = 0;
  const auto removeNext = [&] {
    ASSERT_TRUE(table_.remove(byIndex[next].second.hashValue, byIndex[next].second.id));
    store_.doSlot(byIndex[next].first, Walk, false);
    ++next;
  };
  while (counters_.occupied > (store_.numSlots() >> 2) + 1) {
    removeNext();
  }
  {
    const TestSupport::TraceCapture capture;
    removeNext();  // to exactly a quarter
    EXPECT_EQ(counters_.occupied, store_.numSlots() >> 2);
    EXPECT_TRUE(capture.contains(passed));
    EXPECT_TRUE(capture.contains("because shared memory has grown to " + std::to_string(store_.numSlots())));
  }
  EXPECT_EQ(counters_.shadowShrinks, 0u);
  for (size_t rest = next; rest < byIndex.size(); ++rest) {
    EXPECT_TRUE(found(byIndex[rest].second));
  }
}

TEST_F(ValueStoreTest, OneMoreThanAQuarterDoesNotTryToShrink) {
  for (uint32_t id = 0; id < 8; ++id) {
    table_.write(id * 2654435761u, id);
  }
  walk(false);
  handler_.maskIs(handler_.mask() | (1u << 5));
  const TestSupport::TraceCapture capture;
  // 7 of 8 entries stay: far above a quarter of the array.
  const uint32_t index = table_.indexOf(HashedKey{0, 0});
  ASSERT_TRUE(table_.remove(0, 0));
  store_.doSlot(index, Walk, false);
  EXPECT_FALSE(capture.contains("ShadowStore::tryShrink()"));
}

TEST_F(ValueStoreTest, AWalkOfTheStoreFollowsTheSharedTablesOrder) {
  for (uint32_t id = 0; id < 60; ++id) {
    table_.write(id * 40503u, id);
  }
  walk(false);
  std::vector<uint32_t> shared;
  HashedValue value;
  Cairn::IterHint hint;
  for (bool more = reader_->first(value, hint); more; more = reader_->next(value.key, value, hint)) {
    shared.push_back(value.key.id);
  }
  EXPECT_EQ(walkIds(), shared);
}

TEST_F(ValueStoreTest, ItsEpochMappingIsNone) { EXPECT_EQ(store_.epochMappedSize(), 0u); }

// ---- The key store ----

TEST_F(KeyStoreTest, AnEntryTheWriterMovedIsFoundByItsKey) {
  table_.write(5, 1, 10);
  const uint32_t index = table_.indexOf(HashedKey{5, 1});
  walk(false);
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"key:1"}));
  // The writer moves key 1 to another slot, and its notification waits.
  ASSERT_TRUE(table_.remove(5, 1));
  table_.write(6, 2, 20);
  ASSERT_EQ(table_.indexOf(HashedKey{6, 2}), index);
  table_.write(5, 1, 11);
  ASSERT_NE(table_.indexOf(HashedKey{5, 1}), index);
  const uint32_t mismatches = counters_.keyMismatches;
  EXPECT_EQ(valueOf(HashedKey{5, 1}).payload, 11u);
  EXPECT_EQ(counters_.keyMismatches, mismatches + 1);
}

TEST_F(KeyStoreTest, AKeyTheWriterRemovedIsNotFoundAndAWalkGoesPastIt) {
  table_.write(5, 1);
  table_.write(6, 2);
  table_.write(7, 3);
  walk(false);
  EXPECT_EQ(walkIds().size(), 3u);
  ASSERT_TRUE(table_.remove(6, 2));
  EXPECT_FALSE(found(HashedKey{6, 2}));
  const auto ids = walkIds();
  EXPECT_EQ(ids.size(), 2u);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), 2u), 0);
}

TEST_F(KeyStoreTest, ALookupInsideTheKeyCallbackGivesTheValueJustRead) {
  table_.write(5, 1, 77);
  uint64_t withBuffer = 0;
  uint64_t withoutBuffer = 0;
  log_.onKey = [&](const HashedKey & key) {
    bool isFound = false;
    HashedValue out;
    withBuffer = store_.lookup(key, isFound, &out)->payload;
    withoutBuffer = store_.lookup(key, isFound, nullptr)->payload;
  };
  walk(false);
  EXPECT_EQ(withBuffer, 77u);
  EXPECT_EQ(withoutBuffer, 77u);
}

TEST_F(KeyStoreTest, ItKeepsTheEpochFileMapped) {
  EXPECT_GT(store_.epochMappedSize(), 0u);
  store_.disable();
  EXPECT_EQ(store_.epochMappedSize(), 0u);
}

TEST_F(KeyStoreTest, AReusedSlotGivesADeleteThenAKeyCallback) {
  table_.write(5, 1);
  const uint32_t index = table_.indexOf(HashedKey{5, 1});
  walk(false);
  log_.calls.clear();
  ASSERT_TRUE(table_.remove(5, 1));
  table_.write(6, 2);
  ASSERT_EQ(table_.indexOf(HashedKey{6, 2}), index);
  store_.doSlot(index, Walk, false);
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"delete:1", "key:2"}));
}

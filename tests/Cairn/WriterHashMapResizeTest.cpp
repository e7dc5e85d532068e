// Doubling and halving of the writer hash map's buckets: against a model of
// the table under random inserts and removes, under an iteration that runs
// across them, and store by store as lock-free readers see them.

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/MapTestTypes.h"

using namespace CairnTest;
using ArenaFiles::EpochId;
using Cairn::EndOfTable;
using Cairn::IterHint;
using Cairn::NextBucketBit;
using Cairn::SlotLink;

namespace {

const EpochId epochA = EpochId::of(0, 777);

uint32_t mix(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

// Ids 2k and 2k + 1 share a hash, so equal hashes occur all over the table.
HashedKey keyOf(uint32_t id) { return HashedKey{mix(id >> 1), id}; }
HashedValue valueOfId(uint32_t id) { return HashedValue(keyOf(id), id * 7u + 1); }

std::vector<HashedKey> sortedKeys(const std::vector<uint32_t> & ids) {
  std::vector<HashedKey> keys;
  for (uint32_t id : ids) {
    keys.push_back(keyOf(id));
  }
  std::sort(keys.begin(), keys.end(), splitOrderLess);
  return keys;
}

// A copy of what a reader sees of the two files: the bucket count it loaded
// from the header, the bucket entries, and each slot's link, flags, rhash
// and key. Taken from the files, or put together by a test from two copies
// to stand for a state between two of the writer's stores.
struct MapImage {
  struct SlotImage {
    Arena::VerU32 link;
    uint32_t flags;
    uint32_t rhash;
    HashedKey key;
  };

  static MapImage of(const MapFixture & f) {
    MapImage image;
    image.count = f.map.buckets().header()->numBuckets.load();
    for (uint32_t bucket = 0; bucket < f.numBuckets(); ++bucket) {
      image.entries.push_back(f.bucket(bucket)->load());
    }
    for (uint32_t index = 0; index < f.slots.capacity(); ++index) {
      const MapFixture::Slot * slot = f.slot(index);
      image.slots.push_back({slot->link.load(), slot->flags, slot->rhash, slot->value.key});
    }
    return image;
  }

  // The slots of `bucket`'s chain and the link that ends it.
  std::pair<std::vector<uint32_t>, uint32_t> chain(uint32_t bucket) const {
    std::vector<uint32_t> indices;
    uint32_t link = entries.at(bucket).value;
    while (!(link & NextBucketBit) && indices.size() <= slots.size()) {
      indices.push_back(link);
      link = slots.at(link).link.value;
    }
    return {indices, link};
  }

  // A reader's lookup with this count: the sorted search along the key's
  // chain, which stops at the first pair above the key's.
  bool finds(const HashedKey & key) const {
    uint32_t link = entries.at(key.hashValue & (count.value - 1)).value;
    for (std::size_t steps = 0; !(link & NextBucketBit) && steps <= slots.size(); ++steps) {
      const SlotImage & slot = slots.at(link);
      if (slot.rhash == key.rhash() && slot.key == key) {
        return (slot.flags & Cairn::OCCUPIED) != 0;
      }
      if (slot.rhash > key.rhash() || (slot.rhash == key.rhash() && key < slot.key)) {
        return false;
      }
      link = slot.link.value;
    }
    return false;
  }

  // The keys a reader meets walking the whole table from bucket 0 with this
  // count, chain after chain; false if a link leads outside the count.
  bool walk(std::vector<HashedKey> & keys) const {
    uint32_t link = entries.at(0).value;
    for (std::size_t steps = 0; link != EndOfTable; ++steps) {
      if (steps > slots.size() + count.value) {
        return false;
      }
      if (link & NextBucketBit) {
        const uint32_t bucket = SlotLink::bucketOf(link);
        if (bucket >= count.value) {
          return false;
        }
        link = entries.at(bucket).value;
      } else {
        keys.push_back(slots.at(link).key);
        link = slots.at(link).link.value;
      }
    }
    return true;
  }

  Arena::VerU32 count;
  std::vector<Arena::VerU32> entries;
  std::vector<SlotImage> slots;
};

// True if a reader with this image finds every key of `keys` (sorted in
// split order) by lookup, and meets exactly those keys, in that order, in a
// walk of the table; else false with the first thing that went wrong.
bool readersSeeAll(const MapImage & image, const std::vector<HashedKey> & keys, std::string & why) {
  for (const HashedKey & key : keys) {
    if (!image.finds(key)) {
      why = fmt::format("count {}: lookup misses {}", image.count.toString(), valueToStrep(key));
      return false;
    }
  }
  std::vector<HashedKey> walked;
  if (!image.walk(walked) || walked != keys) {
    why = fmt::format("count {}: the walk met {} of {} keys, or not in order", image.count.toString(),
                      walked.size(), keys.size());
    return false;
  }
  return true;
}

// The table as a whole: first and next yield every key once in split order;
// each chain holds its bucket's keys in split order and ends in its bucket's
// terminator, EndOfTable after bucket n - 1 alone.
void expectSoundTable(const MapFixture & f, const std::vector<HashedKey> & keys) {
  std::vector<HashedKey> walked;
  HashedValue value;
  IterHint hint;
  for (bool more = f.map.first(0, value, hint); more && walked.size() <= keys.size();
       more = f.map.next(value.key, value, hint)) {
    walked.push_back(value.key);
  }
  ASSERT_EQ(walked, keys);
  const uint32_t count = f.numBuckets();
  ASSERT_EQ(f.map.buckets().header()->numBuckets.load().value, count);
  std::size_t chained = 0;
  for (uint32_t bucket = 0; bucket < count; ++bucket) {
    const auto [indices, terminator] = f.chain(bucket);
    ASSERT_EQ(terminator, Cairn::bucketTerminator(bucket, f.map.buckets().numBucketBits())) << bucket;
    for (std::size_t at = 0; at < indices.size(); ++at) {
      const MapFixture::Slot & slot = *f.slot(indices[at]);
      ASSERT_EQ(slot.value.key.hashValue & (count - 1), bucket);
      ASSERT_EQ(slot.rhash, slot.value.key.rhash());
      if (at > 0) {
        ASSERT_TRUE(splitOrderLess(f.slot(indices[at - 1])->value.key, slot.value.key));
      }
    }
    chained += indices.size();
  }
  ASSERT_EQ(chained, keys.size());
}

// Checks one growBuckets, from the files before (`pre`) and after (`post`)
// it: each lower chain cut at its twin, each twin's head the first slot of its
// upper run, every other link untouched; and readers whole in the state
// between its two passes, whose twin heads are published with the new count
// while no lower chain is cut yet.
void expectGrowth(const MapImage & pre, const MapImage & post, const std::vector<HashedKey> & keys) {
  const uint32_t old = pre.count.value;
  ASSERT_EQ(post.count, (Arena::VerU32{pre.count.version + 1, 2 * old}));
  std::set<uint32_t> cut;
  for (uint32_t bucket = 0; bucket < old; ++bucket) {
    const auto [indices, terminator] = pre.chain(bucket);
    auto upperStart = indices.begin();
    while (upperStart != indices.end() && (pre.slots[*upperStart].key.hashValue & (2 * old - 1)) == bucket) {
      ++upperStart;
    }
    const std::vector<uint32_t> lower(indices.begin(), upperStart);
    const std::vector<uint32_t> upper(upperStart, indices.end());
    for (uint32_t index : upper) {
      ASSERT_EQ(pre.slots[index].key.hashValue & (2 * old - 1), bucket + old)
          << "a chain is its lower run, then its upper run";
    }
    ASSERT_EQ(post.chain(bucket), std::make_pair(lower, SlotLink::nextBucketLink(bucket + old))) << bucket;
    ASSERT_EQ(post.entries[bucket + old].value, upper.empty() ? terminator : upper.front()) << bucket;
    ASSERT_EQ(post.chain(bucket + old), std::make_pair(upper, terminator)) << bucket;
    if (lower.empty()) {
      ASSERT_EQ(post.entries[bucket].version, pre.entries[bucket].version + 4);
    } else {
      ASSERT_EQ(post.entries[bucket], pre.entries[bucket]);
      ASSERT_EQ(post.slots[lower.back()].link.version, pre.slots[lower.back()].link.version + 4);
      cut.insert(lower.back());
    }
  }
  for (uint32_t index = 0; index < pre.slots.size(); ++index) {
    if (!cut.count(index)) {
      ASSERT_EQ(post.slots[index].link, pre.slots[index].link) << "slot " << index;
    }
  }
  MapImage between = pre;
  between.count = post.count;
  between.entries.resize(2 * old);
  for (uint32_t bucket = old; bucket < 2 * old; ++bucket) {
    between.entries[bucket] = post.entries[bucket];
  }
  std::string why;
  ASSERT_TRUE(readersSeeAll(pre, keys, why)) << "during the first pass, " << why;
  ASSERT_TRUE(readersSeeAll(between, keys, why)) << "between the passes, " << why;
  ASSERT_TRUE(readersSeeAll(post, keys, why)) << "after, " << why;
}

// Checks one halving, from the files before and after it: each twin's chain
// spliced onto the end of its lower bucket's chain by one store, every other
// link untouched; and readers whole in the state after the splices and
// before the halved count is published.
void expectHalving(const MapImage & pre, const MapImage & post, const std::vector<HashedKey> & keys) {
  const uint32_t old = pre.count.value;
  const uint32_t half = old / 2;
  ASSERT_EQ(post.count, (Arena::VerU32{pre.count.version + 1, half}));
  std::set<uint32_t> spliced;
  for (uint32_t bucket = 0; bucket < half; ++bucket) {
    const auto [lower, lowerEnd] = pre.chain(bucket);
    const auto [upper, upperEnd] = pre.chain(bucket + half);
    std::vector<uint32_t> joined = lower;
    joined.insert(joined.end(), upper.begin(), upper.end());
    ASSERT_EQ(post.chain(bucket), std::make_pair(joined, upperEnd)) << bucket;
    ASSERT_EQ(upperEnd, Cairn::bucketTerminator(bucket, Cairn::log2Of(half))) << bucket;
    if (lower.empty()) {
      ASSERT_EQ(post.entries[bucket],
                (Arena::VerU32{pre.entries[bucket].version + 4, pre.entries[bucket + half].value}));
    } else {
      ASSERT_EQ(post.entries[bucket], pre.entries[bucket]);
      ASSERT_EQ(post.slots[lower.back()].link,
                (Arena::VerU32{pre.slots[lower.back()].link.version + 4, pre.entries[bucket + half].value}));
      spliced.insert(lower.back());
    }
  }
  for (uint32_t index = 0; index < pre.slots.size(); ++index) {
    if (!spliced.count(index)) {
      ASSERT_EQ(post.slots[index].link, pre.slots[index].link) << "slot " << index;
    }
  }
  MapImage before = post;
  before.count = pre.count;
  before.entries.resize(old);
  for (uint32_t bucket = half; bucket < old; ++bucket) {
    before.entries[bucket] = pre.entries[bucket];
  }
  std::string why;
  ASSERT_TRUE(readersSeeAll(before, keys, why)) << "before the publish, " << why;
  ASSERT_TRUE(readersSeeAll(post, keys, why)) << "after, " << why;
}

// Clears the hash observer however the test ends.
struct ObserverScope {
  explicit ObserverScope(std::function<void()> observer) { hashObserver() = std::move(observer); }
  ~ObserverScope() { hashObserver() = nullptr; }
};

}  // namespace

class WriterHashMapResizeTest : public ::testing::Test {
 protected:
  ScopedShmRoot root;
};

TEST_F(WriterHashMapResizeTest, RandomInsertsAndRemovesAgainstAModel) {
  MapFixture f(true);
  f.attach(epochA);
  constexpr uint32_t universe = 1024;
  std::mt19937 random(2024);
  std::vector<bool> inTable(universe, false);
  std::vector<uint32_t> present;
  uint32_t expectedBuckets = 2;
  uint32_t largest = 2;
  bool backToTwo = false;
  // Percent of inserts and number of operations: fill, drain, fill, drain.
  const std::vector<std::pair<uint32_t, int>> phases{{90, 1500}, {10, 1500}, {70, 1000}, {0, 1200}};
  int operations = 0;
  for (const auto & [insertPercent, count] : phases) {
    for (int step = 0; step < count; ++step) {
      if (random() % 100 < insertPercent) {
        const uint32_t id = random() % universe;
        ASSERT_EQ(f.insert(valueOfId(id)), !inTable[id]) << id;
        if (!inTable[id]) {
          inTable[id] = true;
          present.push_back(id);
          if (present.size() > expectedBuckets) {
            expectedBuckets *= 2;
          }
        }
      } else {
        const bool anyId = present.empty() || random() % 10 == 0;
        const uint32_t id = anyId ? random() % universe : present[random() % present.size()];
        ASSERT_EQ(f.remove(keyOf(id)), inTable[id]) << id;
        if (inTable[id]) {
          inTable[id] = false;
          present.erase(std::find(present.begin(), present.end(), id));
          if (present.size() < expectedBuckets / 4) {
            expectedBuckets /= 2;
          }
        }
      }
      ++operations;
      const uint32_t buckets = f.numBuckets();
      ASSERT_EQ(buckets, expectedBuckets) << "operation " << operations;
      ASSERT_EQ(f.map.buckets().header()->numBuckets.load().value, buckets);
      ASSERT_EQ(f.occupied(), present.size());
      // At most one entry per bucket; at least a quarter, unless at 2 buckets.
      ASSERT_LE(present.size(), buckets);
      ASSERT_TRUE(buckets == 2 || present.size() >= buckets / 4) << buckets;
      largest = std::max(largest, buckets);
      backToTwo = backToTwo || (largest >= 512 && buckets == 2);
      for (uint32_t id = 0; id < universe; ++id) {
        bool found = false;
        const HashedValue * value = f.map.lookup(keyOf(id), found);
        ASSERT_EQ(found, inTable[id]) << "id " << id << " after operation " << operations;
        if (found) {
          ASSERT_EQ(*value, valueOfId(id));
        }
      }
      if (operations % 100 == 0) {
        ASSERT_NO_FATAL_FAILURE(expectSoundTable(f, sortedKeys(present))) << "operation " << operations;
      }
    }
  }
  EXPECT_TRUE(present.empty());
  EXPECT_GE(largest, 512u);
  EXPECT_TRUE(backToTwo);
}

TEST_F(WriterHashMapResizeTest, AnIterationAcrossGrowthHalvingAndRemovalSeesEveryStayingKeyOnce) {
  MapFixture f(true);
  f.attach(epochA);
  std::mt19937 random(99);
  std::vector<uint32_t> present;
  std::set<HashedKey, decltype(&splitOrderLess)> stayed(splitOrderLess);
  for (uint32_t id = 0; id < 100; ++id) {
    ASSERT_TRUE(f.insert(valueOfId(id)));
    present.push_back(id);
    stayed.insert(keyOf(id));
  }
  auto removeId = [&](uint32_t id) {
    ASSERT_TRUE(f.remove(keyOf(id)));
    present.erase(std::find(present.begin(), present.end(), id));
    stayed.erase(keyOf(id));
  };
  uint32_t nextId = 100;
  int grown = 0;
  int halved = 0;
  std::vector<HashedKey> seen;
  HashedValue value;
  IterHint hint;
  for (bool more = f.map.first(0, value, hint); more; more = f.map.next(value.key, value, hint)) {
    ASSERT_TRUE(seen.empty() || splitOrderLess(seen.back(), value.key)) << "out of order or repeated";
    ASSERT_EQ(value, valueOfId(value.key.id));
    seen.push_back(value.key);
    const uint32_t before = f.numBuckets();
    if (seen.size() <= 30) {
      for (int count = 0; count < 8; ++count) {
        ASSERT_TRUE(f.insert(valueOfId(nextId)));
        present.push_back(nextId++);
      }
    } else {
      for (int count = 0; count < 6 && present.size() > 1; ++count) {
        uint32_t id = value.key.id;
        while (id == value.key.id) {
          id = present[random() % present.size()];
        }
        removeId(id);
      }
    }
    if (seen.size() % 3 == 0) {
      removeId(value.key.id);  // the iteration goes on from a removed key
    }
    grown += f.numBuckets() > before;
    halved += f.numBuckets() < before;
  }
  for (const HashedKey & key : stayed) {
    EXPECT_TRUE(std::binary_search(seen.begin(), seen.end(), key, splitOrderLess)) << valueToStrep(key);
  }
  EXPECT_GE(grown, 1);
  EXPECT_GE(halved, 1);
  EXPECT_GT(f.counters.nextSlowPaths, 0u);
}

TEST_F(WriterHashMapResizeTest, GrowBucketsCutsEachChainAtItsTwinAndKeepsReadersWholeBetweenItsPasses) {
  MapFixture f(false);
  f.attach(epochA);
  std::vector<uint32_t> ids;
  int growths = 0;
  for (uint32_t id = 0; id < 600; ++id) {
    ASSERT_TRUE(f.insert(valueOfId(id), false));
    ids.push_back(id);
    if (f.occupied() > f.map.growBucketsThreshold()) {
      const MapImage pre = MapImage::of(f);
      f.map.growBuckets();
      ASSERT_NO_FATAL_FAILURE(expectGrowth(pre, MapImage::of(f), sortedKeys(ids))) << "growth " << growths;
      ++growths;
    }
  }
  EXPECT_EQ(f.numBuckets(), 1024u);
  EXPECT_EQ(growths, 9);
}

TEST_F(WriterHashMapResizeTest, HalvingSplicesEachTwinOntoItsLowerChainBeforeThePublish) {
  MapFixture f(true);
  f.attach(epochA);
  std::vector<uint32_t> ids;
  for (uint32_t id = 0; id < 600; ++id) {
    ASSERT_TRUE(f.insert(valueOfId(id)));
    ids.push_back(id);
  }
  ASSERT_EQ(f.numBuckets(), 1024u);
  std::mt19937 random(5);
  std::shuffle(ids.begin(), ids.end(), random);
  int halvings = 0;
  while (!ids.empty()) {
    ASSERT_TRUE(f.unlink(keyOf(ids.back())));
    ids.pop_back();
    if (f.occupied() < f.map.shrinkBucketsThreshold()) {
      const MapImage pre = MapImage::of(f);
      f.map.maybeShrinkBuckets();
      ASSERT_NO_FATAL_FAILURE(expectHalving(pre, MapImage::of(f), sortedKeys(ids))) << "halving " << halvings;
      ++halvings;
    }
  }
  EXPECT_EQ(f.numBuckets(), 2u);
  EXPECT_EQ(halvings, 9);
}

TEST_F(WriterHashMapResizeTest, EveryStateGrowBucketsPassesThroughKeepsReadersWhole) {
  MapFixture f(false);
  f.attach(epochA);
  std::vector<uint32_t> ids;
  std::vector<HashedKey> keys;
  uint32_t oldCount = 0;
  int observed = 0;
  int duringFirstPass = 0;
  int betweenCuts = 0;
  std::string firstFailure;
  // Runs at each key hash inside growBuckets, that is between its stores.
  ObserverScope scope([&] {
    const MapImage image = MapImage::of(f);
    ++observed;
    std::string why;
    if (!readersSeeAll(image, keys, why) && firstFailure.empty()) {
      firstFailure = fmt::format("observation {}: {}", observed, why);
    }
    if (image.count.value == oldCount) {
      ++duringFirstPass;
      return;
    }
    // Published, and some lower chain still runs on into its twin's slots.
    for (uint32_t bucket = 0; bucket < oldCount; ++bucket) {
      const auto indices = image.chain(bucket).first;
      if (!indices.empty() && image.slots[indices.back()].key.hashValue % (2 * oldCount) != bucket) {
        ++betweenCuts;
        return;
      }
    }
  });
  const auto observer = hashObserver();
  for (uint32_t id = 0; id < 300; ++id) {
    hashObserver() = nullptr;
    ASSERT_TRUE(f.insert(valueOfId(id), false));
    ids.push_back(id);
    keys = sortedKeys(ids);
    if (f.occupied() > f.map.growBucketsThreshold()) {
      oldCount = f.numBuckets();
      hashObserver() = observer;
      f.map.growBuckets();
    }
  }
  EXPECT_EQ(firstFailure, "");
  EXPECT_EQ(f.numBuckets(), 512u);
  EXPECT_GT(duringFirstPass, 100);
  EXPECT_GT(betweenCuts, 100);
}

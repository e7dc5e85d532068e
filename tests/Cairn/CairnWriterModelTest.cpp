// Property test: long random sequences of writer operations against a
// std::map model, with the slot file growing and shrinking (its entries moving
// down) and the bucket table doubling and halving on the way. After each
// operation the touched key and members() must agree with the model; after
// each shrink of the slot file, and every 1,000 operations, a full walk must
// give exactly the model's keys in split order and the validator must pass
// the whole table with its queue; a walk started from a random key must
// resume at the right successor.
//
// TESSEL_MODEL_OPS sets the number of operations per table (default 1,000,000).

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "Cairn/WriterTestTypes.h"
#include "RigCairn/RigCairnMapValueWrapper.h"

using namespace CairnTest;

namespace {

uint64_t operationCount() {
  const char * text = std::getenv("TESSEL_MODEL_OPS");
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 1000000;
}

// How the test makes keys and values of one table type.
template <typename Value>
struct Records;

template <>
struct Records<TunnelSizedValue> {
  using Key = NumberKey;
  static Key key(uint64_t number) { return Key{number}; }
  static TunnelSizedValue value(uint64_t number, uint64_t version) { return {number, version}; }
  static uint64_t number(const TunnelSizedValue & value) { return value.key.number; }
};

using IifValue = RigCairn::ValueWrapperOf<TesselHwLib::L3IifTH3ConfigEntry>;

template <>
struct Records<IifValue> {
  using Key = TesselHwLib::L3IifTH3Key;
  static Key key(uint64_t number) { return Key(number); }
  static IifValue value(uint64_t number, uint64_t version) {
    TesselHwLib::L3IifTH3ConfigEntry entry{Key(number)};
    entry.genIdIs(version);
    entry.vrfIs(static_cast<uint16_t>(version));
    entry.classIdIs(static_cast<uint16_t>(number));
    return IifValue(entry);
  }
  static uint64_t number(const IifValue & value) { return value.fwkKey().l3Iif(); }
};

template <typename Value>
class ModelRun {
 public:
  using R = Records<Value>;
  using Key = typename R::Key;
  using Pair = std::pair<uint32_t, uint64_t>;  // (rhash, key number): split order

  ModelRun() : harness(descriptor()) {}

  static Cairn::MapDescriptor descriptor() {
    auto descriptor = sharedDescriptor(512);
    descriptor.shrinkBuckets = true;
    descriptor.shrinkSlots = true;
    return descriptor;
  }

  void run(uint64_t operations, uint64_t seed) {
    std::mt19937_64 random(seed);
    for (uint64_t op = 0; op < operations; ++op) {
      // Phases of filling and draining, so that the table grows and the
      // bucket table doubles, then halves again.
      const bool filling = (op / 20000) % 2 == 0;
      const uint64_t number = random() % 3000;
      // Filling: 60% inserts, 20% removals; draining: 5% inserts, 75% removals.
      const unsigned choice = static_cast<unsigned>(random() % 100);
      const unsigned writes = filling ? 40 : 3;
      const unsigned removes = writes + (filling ? 20 : 75);
      const unsigned directWrites = removes + (filling ? 20 : 2);
      if (choice < writes) {
        write(number, random() % 2 == 0);
      } else if (choice < removes) {
        remove(number);
      } else if (choice < directWrites) {
        directWrite(number);
      } else if (choice < directWrites + 8) {
        directUpdate(number);
      } else {
        resumeFrom(number);
      }
      checkKey(number);
      ASSERT_EQ(writer().members(), model.size()) << "op " << op;
      const uint64_t shrunk = writer().writerCounters().slotShrinks;
      if (shrunk != shrinks) {
        shrinks = shrunk;
        walkAll();
        ASSERT_TRUE(writer().validate()) << "op " << op << " after shrink " << shrinks;
      }
      if (op % 1000 == 999) {
        walkAll();
        // The validator proves the queue's rule too: each slot has at most one
        // live entry, and the position array and the entries agree.
        ASSERT_TRUE(writer().validate()) << "op " << op;
      }
      if (::testing::Test::HasFatalFailure()) {
        FAIL() << "at operation " << op << " seed " << seed;
      }
    }
  }

  WriterFor<Value> & writer() { return *harness.writer; }

  WriterHarness<Value> harness;
  std::map<uint64_t, Value> model;
  std::set<Pair> order;
  uint64_t version = 0;
  uint32_t mostBuckets = 0;
  uint32_t halvings = 0;
  uint64_t shrinks = 0;

 private:
  Pair pairOf(uint64_t number) const {
    return {Basalt::Util::reverse(R::key(number).hash(0)), number};
  }

  void insertModel(uint64_t number, const Value & value) {
    model[number] = value;
    order.insert(pairOf(number));
    trackBuckets();
  }

  void trackBuckets() {
    const uint32_t buckets = writer().map().buckets().numBuckets();
    if (buckets < mostBuckets) {
      ++halvings;
    }
    mostBuckets = std::max(mostBuckets, buckets);
  }

  void write(uint64_t number, bool publish) {
    const Value value = R::value(number, ++version);
    writer().write(value, publish);
    if (publish || model.count(number) == 0) {
      insertModel(number, value);
    }
  }

  void remove(uint64_t number) {
    Value removed;
    const bool was = writer().remove(R::key(number), removed);
    ASSERT_EQ(was, model.count(number) == 1);
    if (was) {
      ASSERT_EQ(removed, model[number]);
      model.erase(number);
      order.erase(pairOf(number));
    }
    trackBuckets();
  }

  void directWrite(uint64_t number) {
    Value * address = writer().directWrite(R::key(number));
    ASSERT_NE(address, nullptr);
    const Value value = R::value(number, ++version);
    *address = value;
    writer().directCommit();
    insertModel(number, value);
  }

  void directUpdate(uint64_t number) {
    Value * address = writer().directUpdate(R::key(number));
    ASSERT_EQ(address != nullptr, model.count(number) == 1);
    if (address != nullptr) {
      const Value value = R::value(number, ++version);
      *address = value;
      writer().directCommit();
      insertModel(number, value);
    }
  }

  void checkKey(uint64_t number) {
    bool found = false;
    Value out;
    writer().lookup(R::key(number), found, &out);
    auto at = model.find(number);
    ASSERT_EQ(found, at != model.end()) << "key " << number;
    if (found) {
      ASSERT_EQ(out, at->second) << "key " << number;
    }
  }

  // next() from a key, present or not, gives the successor in split order.
  void resumeFrom(uint64_t number) {
    Value value;
    Cairn::IterHint hint;
    const bool more = writer().next(R::key(number), value, hint);
    auto successor = order.upper_bound(pairOf(number));
    ASSERT_EQ(more, successor != order.end()) << "from " << number;
    if (more) {
      ASSERT_EQ(R::number(value), successor->second);
      ASSERT_EQ(value, model[successor->second]);
    }
  }

  void walkAll() {
    Value value;
    Cairn::IterHint hint;
    auto expected = order.begin();
    for (bool more = writer().first(value, hint); more;
         more = writer().next(R::key(R::number(value)), value, hint)) {
      ASSERT_NE(expected, order.end()) << "walk gives more entries than the model holds";
      ASSERT_EQ(R::number(value), expected->second);
      ASSERT_EQ(value, model[expected->second]);
      ++expected;
    }
    ASSERT_EQ(expected, order.end()) << "walk missed entries";
  }
};

}  // namespace

TEST(CairnWriterModel, L3IifConfigTableAgainstAStdMap) {
  ModelRun<IifValue> run;
  run.run(operationCount(), 1);
  EXPECT_GE(run.mostBuckets, 1024u);
  EXPECT_GT(run.halvings, 0u);
  EXPECT_GT(run.shrinks, 0u);
  std::printf("slot shrinks %llu, slot moves %llu\n", static_cast<unsigned long long>(run.shrinks),
              static_cast<unsigned long long>(run.writer().writerCounters().slotMoves));
  RecordProperty("operations", std::to_string(operationCount()));
}

TEST(CairnWriterModel, TunnelSizedTableAgainstAStdMap) {
  ModelRun<TunnelSizedValue> run;
  run.run(operationCount(), 2);
  EXPECT_GE(run.mostBuckets, 1024u);
  EXPECT_GT(run.halvings, 0u);
  EXPECT_GT(run.shrinks, 0u);
}

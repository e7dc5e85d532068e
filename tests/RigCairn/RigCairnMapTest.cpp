// The binding of a map to its collection: its path from the tree, the five
// callbacks routed to the collection, its class, its traces, and the
// read-only iterator of generic walks.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <typeinfo>
#include <vector>

#include "Basalt/DebugHandlerRegistry.h"
#include "Rig/Directory.h"
#include "Support/TraceCapture.h"
#include "TesselHwLib/CollectionTesting.h"

using namespace CollectionTest;

namespace {

using Iif = L3IifTH3Config;
using T = Table<Iif>;
using Map = Iif::Table;
using Iterator = Map::IteratorConst;

// Sets the mask of a named handler for the life of the object.
class ScopedMask {
 public:
  ScopedMask(const std::string & name, uint32_t mask)
      : handler_(Basalt::Platform::getDebugHandler(name)), saved_(handler_->mask()) {
    handler_->maskIs(mask);
  }
  ~ScopedMask() { handler_->maskIs(saved_); }

 private:
  std::shared_ptr<Basalt::Platform::DebugHandler> handler_;
  uint32_t saved_;
};

constexpr uint32_t Level5 = 1u << 5;

// A map of the test's own whose backend finds the files corrupt at once.
class CorruptMap : public Map {
 public:
  using Dummy = Cairn::CairnDummy<Iif::Key, Iif::Wrapper, Iif::Ops>;
  class CorruptBackend : public Dummy {
   public:
    using Dummy::Dummy;
    bool first(Iif::Wrapper &, Cairn::IterHint &) const override {
      throw Basalt::CorruptionDetectedException("SlotReader::first() damaged");
    }
  };
  CorruptMap() { backendIs(new CorruptBackend(debugHandler(), "corrupt/table", ops(), nullptr, false)); }
};

std::vector<uint64_t> walk(const Map & map) {
  std::vector<uint64_t> keys;
  for (Iterator iterator(&map); iterator.nonnull(); iterator.advance()) {
    keys.push_back(iterator.key().l3Iif());
  }
  return keys;
}

class RigCairnMapTest : public ::testing::Test {
 protected:
  ScopedShmRoot shmRoot_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("agent"));
};

}  // namespace

TEST_F(RigCairnMapTest, AnIteratorOverANullMapIsAtItsEnd) {
  const Iterator iterator(nullptr);
  EXPECT_FALSE(iterator.nonnull());
}

TEST_F(RigCairnMapTest, AnIteratorWalksEveryKeyOnce) {
  auto collection = T::make("walked");
  for (uint64_t number = 0; number < 40; ++number) {
    collection->tableIs(T::entry(number));
  }
  auto keys = walk(collection->table());
  std::sort(keys.begin(), keys.end());
  std::vector<uint64_t> expected(40);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(keys, expected);
}

TEST_F(RigCairnMapTest, DeletingTheCurrentKeyThenAdvancingLandsOnTheNextKey) {
  auto collection = T::make("walked");
  for (uint64_t number = 0; number < 40; ++number) {
    collection->tableIs(T::entry(number));
  }
  const std::vector<uint64_t> order = walk(collection->table());
  std::vector<uint64_t> visited;
  for (Iterator iterator(&collection->table()); iterator.nonnull(); iterator.advance()) {
    visited.push_back(iterator.key().l3Iif());
    EXPECT_EQ(iterator.value().value, T::entry(visited.back()));
    collection->tableDel(iterator.key());
  }
  EXPECT_EQ(visited, order);
  EXPECT_EQ(collection->table().backend()->members(), 0u);
}

TEST_F(RigCairnMapTest, CorruptionWhileIteratingIsReportedAndEndsTheWalk) {
  std::vector<std::string> reports;
  const auto previous = Cairn::CairnMapBase::corruptionHandlerIs(
      [&](const std::string &, const std::string & message) { reports.push_back(message); });
  {
    const CorruptMap map;
    const Iterator iterator(&map);
    EXPECT_FALSE(iterator.nonnull());
  }
  Cairn::CairnMapBase::corruptionHandlerIs(previous);
  EXPECT_EQ(reports, (std::vector<std::string>{"SlotReader::first() damaged"}));
}

TEST_F(RigCairnMapTest, ClassTypeOfAnUnboundMapIsTheLanguagesBadTypeid) {
  const Map map;
  EXPECT_THROW(map.classType(), std::bad_typeid);
  EXPECT_EQ(T::make("bound")->table().classType(), "TesselHwLib::L3IifTH3Config");
}

TEST_F(RigCairnMapTest, TheCallbacksReachTheCollectionAndItsControl) {
  auto collection = T::make("called");
  auto observer = observe(*collection);
  Map & map = collection->table();
  map.valueCallback()(Iif::Wrapper(T::entry(1)));
  map.keyCallback()(T::key(2));
  map.deleteCallback()(T::key(3));
  EXPECT_EQ(observer->keys, (std::vector{T::key(1), T::key(2), T::key(3)}));

  map.quiescedCallback()(true);
  EXPECT_TRUE(collection->tableControl()->quiesced());
  map.quiescedCallback()(false);
  EXPECT_FALSE(collection->tableControl()->quiesced());
  collection->tableControl()->mount(descriptor(Cairn::CairnType::writer));
  EXPECT_EQ(collection->tableControl()->mountStatus(), 1u);
  collection->tableControl()->cleanupAndUnmount();
  EXPECT_EQ(collection->tableControl()->mountStatus(), 0u);
}

TEST_F(RigCairnMapTest, ItsTracesTellItsLife) {
  const ScopedMask mask(Cairn::CairnMapBase::TempHandlerName, Level5 | 1);
  const TestSupport::TraceCapture capture;
  auto collection = T::make("traced");
  root_->entityIs(collection);
  EXPECT_TRUE(collection->table().validateFiles("ignored", 7));
  root_->entityDel(Rig::Name("traced"));
  EXPECT_TRUE(capture.contains("L5 RigCairnMap::entity() creating local CairnWriter traced/table")) << [&] {
    std::string all;
    for (const auto & line : capture.lines()) {
      all += line + "\n";
    }
    return all;
  }();
  EXPECT_TRUE(capture.contains("L5 RigCairnMap::handleParent(): old: traced/table new: agent/traced/table"));
  EXPECT_TRUE(capture.contains("L5 RigCairnMap::validateFiles() delegating to CairnMap::validateFiles"));
  EXPECT_TRUE(capture.contains("L5 RigCairnMap::handleParent(): traced/table is now an orphan"));
}

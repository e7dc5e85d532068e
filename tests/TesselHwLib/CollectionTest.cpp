// The six collections, as one typed suite: writes, removals, notifications,
// counters, direct writes, the control link, attribute operations, orphans,
// reference counting and bad input.

#include <gtest/gtest.h>

#include <set>

#include "Basalt/Exception.h"
#include "Rig/Directory.h"
#include "TesselHwLib/CollectionTesting.h"

using namespace CollectionTest;

namespace {

template <typename C>
class CollectionSuite : public ::testing::Test {
 protected:
  using T = Table<C>;
  using Entry = typename T::Entry;
  using Key = typename T::Key;

  // A collection placed under a directory of the test, and its observer.
  Rig::Ptr<C> placed(const std::string & name = "table-object") {
    Rig::Ptr<C> collection = T::make(name);
    root_->entityIs(collection);
    return collection;
  }

  ScopedShmRoot shmRoot_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("agent"));
};

TYPED_TEST_SUITE(CollectionSuite, Collections);

}  // namespace

TYPED_TEST(CollectionSuite, AcceptsWritesBeforeAnyParentOrInitAndGivesThemBackOnRemoval) {
  using T = typename TestFixture::T;
  auto collection = T::make("fresh");
  collection->tableIs(T::entry(3));
  EXPECT_EQ(collection->tableDel(T::key(3)), T::entry(3));
}

TYPED_TEST(CollectionSuite, RemovingAnAbsentKeyGivesADefaultEntryCountsButDoesNotNotify) {
  using T = typename TestFixture::T;
  auto collection = this->placed();
  auto observer = observe(*collection);
  const CounterDeltas deltas;
  const auto removed = collection->tableDel(T::key(42));
  EXPECT_TRUE(!removed);
  EXPECT_EQ(deltas.tableDel(), 1u);
  EXPECT_EQ(deltas.tableNotify(), 0u);
  EXPECT_TRUE(observer->keys.empty());
}

TYPED_TEST(CollectionSuite, EveryWriteNotifiesWithTheKeyEvenOfAnEqualValue) {
  using T = typename TestFixture::T;
  auto collection = this->placed();
  auto observer = observe(*collection);
  const CounterDeltas deltas;
  collection->tableIs(T::entry(5));
  collection->tableIs(T::entry(5));
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{258, 258}));
  EXPECT_EQ(observer->keys, (std::vector{T::key(5), T::key(5)}));
  EXPECT_EQ(deltas.tableIs(), 2u);
  EXPECT_EQ(deltas.tableNotify(), 2u);
}

TYPED_TEST(CollectionSuite, RemoveAllNotifiesOncePerKeyAndNothingOnAnEmptyTable) {
  using T = typename TestFixture::T;
  auto collection = this->placed();
  auto observer = observe(*collection);
  collection->tableDelAll();
  EXPECT_TRUE(observer->attributes.empty());

  std::set<uint64_t> written;
  for (uint64_t number = 0; number < 37; ++number) {
    collection->tableIs(T::entry(number));
  }
  observer->keys.clear();
  const CounterDeltas deltas;
  collection->tableDelAll();
  EXPECT_EQ(observer->keys.size(), 37u);
  EXPECT_EQ(deltas.tableDel(), 37u);
  EXPECT_EQ(deltas.tableNotify(), 37u);
  EXPECT_EQ(std::set(observer->keys.begin(), observer->keys.end()).size(), 37u);
  EXPECT_EQ(collection->table().backend()->members(), 0u);
}

TYPED_TEST(CollectionSuite, SettingTheSameControlSendsNoNotificationAndANewOneDoes) {
  auto collection = this->placed();
  auto observer = observe(*collection);
  const auto same = collection->tableControl();
  collection->tableControlIs(same);
  EXPECT_TRUE(observer->attributes.empty());
  // The member given as itself: only the notification.
  collection->tableControlIs(collection->tableControl());
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{259}));

  auto other = Rig::make<RigCairn::CollectionControl>(collection->table());
  collection->tableControlIs(other);
  EXPECT_EQ(collection->tableControl(), other);
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{259, 259}));
}

TYPED_TEST(CollectionSuite, CommitWithoutADirectWriteFailsAfterCountingTableIs) {
  using T = typename TestFixture::T;
  auto collection = this->placed();
  const CounterDeltas deltas;
  const auto entry = T::entry(1);
  try {
    collection->tableCommit(&entry);
    FAIL() << "no assertion";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_STREQ(exception.what(),
                 "CairnWriter::directCommit() not in direct mode! Make sure the DirectIs/Commit are properly paired!");
  }
  EXPECT_EQ(deltas.tableIs(), 1u);
  EXPECT_EQ(deltas.tableNotify(), 0u);
}

TYPED_TEST(CollectionSuite, CommitPublishesWhatADirectWriteLeftInTheSlot) {
  using T = typename TestFixture::T;
  auto collection = this->placed();
  collection->table().init(descriptor(Cairn::CairnType::writer, true, 64));
  auto observer = observe(*collection);
  const auto entry = T::entry(9, 4);
  auto * slot = collection->table().backend()->directWrite(T::key(9));
  slot->value = entry;
  collection->tableCommit(&entry);
  EXPECT_EQ(observer->keys, (std::vector{T::key(9)}));
  bool found = false;
  EXPECT_EQ(collection->table().safeLookup(T::key(9), found)->value, entry);
  EXPECT_TRUE(found);
}

TYPED_TEST(CollectionSuite, EntriesWrittenBeforePlacingDoNotSurviveIt) {
  using T = typename TestFixture::T;
  auto collection = T::make("early");
  collection->tableIs(T::entry(1));
  this->root_->entityIs(collection);
  bool found = true;
  collection->table().safeLookup(T::key(1), found);
  EXPECT_FALSE(found);
  EXPECT_EQ(collection->table().path(), "agent/early/table");
}

TYPED_TEST(CollectionSuite, SameNamesUnderDifferentParentsGetDifferentPaths) {
  using T = typename TestFixture::T;
  auto left = Rig::make<Rig::Directory>(Rig::Name("left"));
  auto right = Rig::make<Rig::Directory>(Rig::Name("right"));
  auto one = T::make("config");
  auto two = T::make("config");
  left->entityIs(one);
  right->entityIs(two);
  EXPECT_EQ(one->table().path(), "left/config/table");
  EXPECT_EQ(two->table().path(), "right/config/table");
}

TYPED_TEST(CollectionSuite, ASecondParentIsRefused) {
  auto collection = this->placed("twice");
  collection->parentIs(nullptr);
  auto other = Rig::make<Rig::Directory>(Rig::Name("other"));
  try {
    other->entityIs(collection);
    FAIL() << "placed twice";
  } catch (const Basalt::InvalidInitializeException & exception) {
    EXPECT_STREQ(exception.what(), "Entity twice already initialized");
  }
}

TYPED_TEST(CollectionSuite, AnOrphanAnswersThroughADummy) {
  using T = typename TestFixture::T;
  auto collection = this->placed("orphan");
  collection->tableIs(T::entry(2));
  this->root_->entityDel(Rig::Name("orphan"));
  bool found = true;
  collection->table().safeLookup(T::key(2), found);
  EXPECT_FALSE(found);
  try {
    collection->tableIs(T::entry(2));
    FAIL() << "an orphan took a write";
  } catch (const Basalt::NoPermissionException & exception) {
    EXPECT_STREQ(exception.what(), "write to read-only Cairn table");
  }
}

TYPED_TEST(CollectionSuite, AnOrphanThatAskedForItFailsEveryReadThroughTheStrictDummy) {
  using T = typename TestFixture::T;
  auto collection = this->placed("strict");
  auto strict = descriptor(Cairn::CairnType::writer, true, 64);
  strict.assertOnOrphanAccess = true;
  collection->tableControl()->mount(strict);
  collection->tableIs(T::entry(2));
  this->root_->entityDel(Rig::Name("strict"));
  const auto endsWithOrphanText = [](const std::string & text) {
    const std::string tail = ". If you're seeing this, you're trying to operate on an orphan cairn entity";
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
  };
  // Whatever reads the table is an assertion; writes are refused as on any
  // read-only backend.
  EXPECT_THROW(collection->tableIs(T::entry(3)), Basalt::NoPermissionException);
  try {
    collection->tableDelAll();
    FAIL() << "the strict dummy answered a walk";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_TRUE(endsWithOrphanText(exception.what())) << exception.what();
  }
  try {
    bool found = false;
    collection->table().safeLookup(T::key(2), found);
    FAIL() << "the strict dummy answered a lookup";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_TRUE(endsWithOrphanText(exception.what())) << exception.what();
  }
  EXPECT_THROW(collection->tableControl()->mount(strict), Basalt::AssertException);
  collection->tableControl()->unmount();
}

TYPED_TEST(CollectionSuite, AtZeroReferencesItLivesWhileMountedAndDiesAtUnmount) {
  using T = typename TestFixture::T;
  const auto * track = [] {
    T::make("probe");  // makes the type's record
    return Rig::AllocTrackTypeInfo::record(typeid(TypeParam));
  }();
  ASSERT_NE(track, nullptr);
  const uint64_t liveBefore = track->liveObjects();

  auto collection = T::make("kept");
  collection->tableControl()->mount(descriptor(Cairn::CairnType::writer, true, 64));
  collection->tableIs(T::entry(7));
  Rig::Ptr<RigCairn::CollectionControl> control = collection->tableControl();
  collection = nullptr;
  EXPECT_EQ(track->liveObjects(), liveBefore + 1) << "a mounted collection died at zero references";
  auto * kept = dynamic_cast<TypeParam *>(control->entityRef().ptr());
  ASSERT_NE(kept, nullptr);
  bool found = false;
  EXPECT_EQ(kept->table().safeLookup(T::key(7), found)->value, T::entry(7));
  EXPECT_EQ(control->table(), &kept->table());

  control->unmount();
  EXPECT_EQ(track->liveObjects(), liveBefore);
  EXPECT_EQ(control->table(), nullptr);
  EXPECT_THROW(control->mount(descriptor(Cairn::CairnType::writer, true, 64)), Basalt::InvalidInitializeException);
}

TYPED_TEST(CollectionSuite, AtZeroReferencesAnUnmountedCollectionDies) {
  using T = typename TestFixture::T;
  T::make("probe");
  const auto * track = Rig::AllocTrackTypeInfo::record(typeid(TypeParam));
  const uint64_t liveBefore = track->liveObjects();
  auto collection = T::make("gone");
  collection->tableIs(T::entry(1));
  EXPECT_EQ(track->liveObjects(), liveBefore + 1);
  collection = nullptr;
  EXPECT_EQ(track->liveObjects(), liveBefore);
}

TYPED_TEST(CollectionSuite, TheTableAttributeOperations) {
  using T = typename TestFixture::T;
  using Entry = typename TestFixture::Entry;
  using Key = typename TestFixture::Key;
  auto collection = this->placed();
  const Entry written = T::entry(11);
  void * none = nullptr;
  EXPECT_EQ(collection->attributeOp(258, 1, none, &written), Rig::attributeDone);

  const Key key = T::key(11);
  Entry read;
  EXPECT_EQ(collection->attributeOp(258, 0, &read, &key), Rig::attributeDone);
  EXPECT_EQ(read, written);
  bool present = false;
  EXPECT_EQ(collection->attributeOp(258, 5, &present, &key), Rig::attributeDone);
  EXPECT_TRUE(present);
  uint32_t count = 99;
  EXPECT_EQ(collection->attributeOp(258, 3, &count, nullptr), Rig::attributeDone);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(collection->attributeOp(258, 4, &count, nullptr), Rig::attributeDone);
  EXPECT_EQ(count, 0u);
  Entry removed;
  EXPECT_EQ(collection->attributeOp(258, 2, &removed, &key), Rig::attributeDone);
  EXPECT_EQ(removed, written);
  EXPECT_EQ(collection->attributeOp(258, 5, &present, &key), Rig::attributeDone);
  EXPECT_FALSE(present);
  EXPECT_EQ(collection->attributeOp(258, 6, &count, nullptr), Rig::attributeNotAllowed);
  EXPECT_EQ(collection->attributeOp(258, 8, &count, nullptr), Rig::attributeNotAllowed);

  Rig::Ptr<RigCairn::CollectionControl> control;
  EXPECT_EQ(collection->attributeOp(259, 0, &control, nullptr), Rig::attributeDone);
  EXPECT_EQ(control, collection->tableControl());
  auto other = Rig::make<RigCairn::CollectionControl>(collection->table());
  EXPECT_EQ(collection->attributeOp(259, 1, none, &other), Rig::attributeDone);
  EXPECT_EQ(collection->tableControl(), other);
  EXPECT_EQ(collection->attributeOp(259, 2, none, nullptr), Rig::attributeNotAllowed);
  EXPECT_EQ(collection->attributeOp(260, 0, none, nullptr), Rig::attributeUnknown);
  EXPECT_EQ(collection->attributeOp(130, 0, none, nullptr), Rig::attributeUnknown);
}

TYPED_TEST(CollectionSuite, AWriteToAReaderCollectionIsRefusedAndNotifiesNobody) {
  using T = typename TestFixture::T;
  auto collection = this->placed("reader");
  collection->tableControl()->mount(descriptor(Cairn::CairnType::reader));
  auto observer = observe(*collection);
  const CounterDeltas deltas;
  try {
    collection->tableIs(T::entry(1));
    FAIL() << "a reader took a write";
  } catch (const Basalt::NoPermissionException & exception) {
    EXPECT_STREQ(exception.what(), "write to read-only Cairn table");
  }
  try {
    collection->tableDel(T::key(1));
    FAIL() << "a reader took a removal";
  } catch (const Basalt::NoPermissionException & exception) {
    EXPECT_STREQ(exception.what(), "remove to read-only Cairn table");
  }
  EXPECT_EQ(deltas.tableIs(), 1u);
  EXPECT_EQ(deltas.tableDel(), 1u);
  EXPECT_EQ(deltas.tableNotify(), 0u);
  EXPECT_TRUE(observer->attributes.empty());
  collection->tableControl()->unmount();
}

TYPED_TEST(CollectionSuite, ItsTypeAndClassAreItsOwn) {
  auto collection = this->placed("typed");
  const std::string expected = Rig::demangleStdString(typeid(TypeParam));
  EXPECT_EQ(expected.rfind("TesselHwLib::", 0), 0u);
  EXPECT_EQ(collection->table().classType(), expected);
  EXPECT_STREQ(collection->fwkType()->name, expected.c_str());
  EXPECT_TRUE(collection->fwkType()->isDerived(&Rig::Entity::_rigType));
  EXPECT_TRUE(collection->hasNotificationActive());
  EXPECT_EQ(collection->notifieeList().kind, 1u);
}

// ---- One table type for what only it has ----

TEST(L3TunnelCollection, AKeyThatFailsValidationIsRefusedWithItsMessageAndChangesNothing) {
  ScopedShmRoot shmRoot;
  auto collection = Table<L3TunnelTH3Config>::make("tunnels");
  auto observer = observe(*collection);
  auto entry = Table<L3TunnelTH3Config>::entry(1);
  L3TunnelTH3Key key = entry.key();
  key.etherTypeMaskIs(0x00FF);
  entry.keyIs(key);
  const CounterDeltas deltas;
  try {
    collection->tableIs(entry);
    FAIL() << "an invalid key was written";
  } catch (const Basalt::InvalidArgumentException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "TesselHwLib::L3TunnelTH3Config::tableIs() table:tunnels/table key:" + valueToStrep(key) +
                  " Invalid hdr.ethernet.ether_type_mask.");
  }
  EXPECT_EQ(deltas.tableIs(), 0u);
  EXPECT_EQ(deltas.tableNotify(), 0u);
  EXPECT_TRUE(observer->attributes.empty());
  EXPECT_EQ(collection->table().backend()->members(), 0u);
}

TEST(L3IifCollection, ClassTypeIsTheDemangledClassWithItsNamespace) {
  ScopedShmRoot shmRoot;
  auto collection = l3IifTH3ConfigFactory(Rig::Name("iif"));
  EXPECT_EQ(collection->table().classType(), "TesselHwLib::L3IifTH3Config");
}

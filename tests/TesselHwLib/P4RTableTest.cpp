// The three P4R table objects, as one typed suite: their two references, the
// notifications of configIs and statusIs, the factories, and the references'
// part in the collections' own zero-references logic.

#include <gtest/gtest.h>

#include <tuple>

#include "TesselHwLib/CollectionTesting.h"

using namespace CollectionTest;

namespace {

// A P4R type, its factory and the factories of its two collections.
template <typename P, typename C, typename S>
struct P4RCase {
  using Object = P;
  using Config = C;
  using Status = S;
};

template <typename Case>
class P4RTableSuite : public ::testing::Test {
 protected:
  using Object = typename Case::Object;
  using Config = typename Case::Config;
  using Status = typename Case::Status;

  static Rig::Ptr<Object> make(const char * name) { return Rig::make<Object>(Rig::Name(name)); }

  ScopedShmRoot shmRoot_;
};

using Cases = ::testing::Types<P4RCase<P4RL3IifTableTH3, L3IifTH3Config, L3IifTH3Status>,
                               P4RCase<P4RL3TunnelTableTH3, L3TunnelTH3Config, L3TunnelTH3Status>,
                               P4RCase<P4RMyStationTcamTableTH3, MyStationTcamTH3Config, MyStationTcamTH3Status>>;
TYPED_TEST_SUITE(P4RTableSuite, Cases);

// A P4R object announces its attributes with no key.
using NoKey = int;

}  // namespace

TYPED_TEST(P4RTableSuite, StartsWithBothReferencesNull) {
  auto object = this->make("p4r");
  EXPECT_FALSE(object->config());
  EXPECT_FALSE(object->status());
  EXPECT_EQ(object->name(), "p4r");
}

TYPED_TEST(P4RTableSuite, ConfigIsWithThePointerAlreadyHeldSendsNoNotification) {
  using Config = typename TestFixture::Config;
  auto object = this->make("p4r");
  auto observer = observeWith<NoKey>(*object);
  const Rig::Ptr<const Config> config = Table<Config>::make("config");
  object->configIs(config);
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{258}));
  object->configIs(Rig::Ptr<const Config>(config));
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{258}));
  EXPECT_EQ(object->config(), config);
}

TYPED_TEST(P4RTableSuite, StatusIsWithNullClearsAndNotifies) {
  using Status = typename TestFixture::Status;
  auto object = this->make("p4r");
  auto status = Table<Status>::make("status");
  object->statusIs(status);
  auto observer = observeWith<NoKey>(*object);
  object->statusIs(nullptr);
  EXPECT_FALSE(object->status());
  EXPECT_EQ(observer->attributes, (std::vector<uint32_t>{259}));
}

TYPED_TEST(P4RTableSuite, AFactorysObjectHasNotificationActive) {
  EXPECT_TRUE(this->make("p4r")->hasNotificationActive());
  EXPECT_TRUE(p4RL3IifTableTH3Factory(Rig::Name("a"))->hasNotificationActive());
  EXPECT_TRUE(p4RL3TunnelTableTH3Factory(Rig::Name("b"))->hasNotificationActive());
  EXPECT_TRUE(p4RMyStationTcamTableTH3Factory(Rig::Name("c"))->hasNotificationActive());
}

TYPED_TEST(P4RTableSuite, TwoObjectsMayReferToTheSameCollections) {
  using Config = typename TestFixture::Config;
  using Status = typename TestFixture::Status;
  auto config = Table<Config>::make("config");
  auto status = Table<Status>::make("status");
  auto one = this->make("one");
  auto two = this->make("two");
  for (auto * object : {one.ptr(), two.ptr()}) {
    object->configIs(config);
    object->statusIs(status);
  }
  EXPECT_EQ(config->references(), 3u);
  EXPECT_EQ(status->references(), 3u);
  one = nullptr;
  EXPECT_EQ(config->references(), 2u);
  EXPECT_EQ(two->config(), config);
}

TYPED_TEST(P4RTableSuite, LettingGoOfTheLastReferenceEndsAnUnmountedCollection) {
  using Config = typename TestFixture::Config;
  Table<Config>::make("probe");
  const auto * track = Rig::AllocTrackTypeInfo::record(typeid(Config));
  const uint64_t liveBefore = track->liveObjects();
  auto object = this->make("p4r");
  object->configIs(Table<Config>::make("config"));
  EXPECT_EQ(track->liveObjects(), liveBefore + 1);
  object->configIs(nullptr);
  EXPECT_EQ(track->liveObjects(), liveBefore);
}

TYPED_TEST(P4RTableSuite, LettingGoOfTheLastReferenceHandsAMountedCollectionToItsControl) {
  using Status = typename TestFixture::Status;
  auto object = this->make("p4r");
  auto status = Table<Status>::make("status");
  status->tableControl()->mount(descriptor(Cairn::CairnType::writer, true, 64));
  status->tableIs(Table<Status>::entry(1));
  Rig::Ptr<RigCairn::CollectionControl> control = status->tableControl();
  object->statusIs(status);
  status = nullptr;
  object->statusIs(nullptr);
  ASSERT_TRUE(control->entityRef());
  auto * kept = dynamic_cast<Status *>(control->entityRef().ptr());
  ASSERT_NE(kept, nullptr);
  bool found = false;
  kept->table().safeLookup(Table<Status>::key(1), found);
  EXPECT_TRUE(found);
  control->unmount();
  EXPECT_FALSE(control->entityRef());
}

TYPED_TEST(P4RTableSuite, AttributeOperations) {
  using Config = typename TestFixture::Config;
  using Status = typename TestFixture::Status;
  auto object = this->make("p4r");
  const Rig::Ptr<const Config> config = Table<Config>::make("config");
  const Rig::Ptr<Status> status = Table<Status>::make("status");
  void * none = nullptr;
  EXPECT_EQ(object->attributeOp(258, 1, none, &config), Rig::attributeDone);
  EXPECT_EQ(object->attributeOp(259, 1, none, &status), Rig::attributeDone);
  Rig::Ptr<const Config> readConfig;
  Rig::Ptr<Status> readStatus;
  EXPECT_EQ(object->attributeOp(258, 0, &readConfig, nullptr), Rig::attributeDone);
  EXPECT_EQ(object->attributeOp(259, 0, &readStatus, nullptr), Rig::attributeDone);
  EXPECT_EQ(readConfig, config);
  EXPECT_EQ(readStatus, status);
  EXPECT_EQ(object->attributeOp(258, 2, none, nullptr), Rig::attributeNotAllowed);
  EXPECT_EQ(object->attributeOp(259, 5, none, nullptr), Rig::attributeNotAllowed);
  EXPECT_EQ(object->attributeOp(257, 0, none, nullptr), Rig::attributeUnknown);
}

TYPED_TEST(P4RTableSuite, ItsTypeRecordIsItsOwn) {
  auto object = this->make("p4r");
  EXPECT_EQ(std::string(object->fwkType()->name), Rig::demangleStdString(typeid(typename TestFixture::Object)));
  EXPECT_EQ(object->notifieeList().kind, 1u);
}

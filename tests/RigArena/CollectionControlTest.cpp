#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "Rig/Entity.h"
#include "Rig/Factory.h"
#include "Rig/NotifieeList.h"
#include "RigArena/CollectionControl.h"

namespace {

using Events = std::vector<std::string>;

// A control whose mount the test drives, and which logs its own end.
class TestControl : public RigArena::CollectionControl {
 public:
  explicit TestControl(Events * events = nullptr) : events_(events) {}
  ~TestControl() override {
    if (events_ != nullptr) {
      events_->push_back("control gone");
    }
  }
  using CollectionControl::mountedIs;

 private:
  Events * events_;
};

// An entity that logs its end.
class Table : public Rig::Entity {
 public:
  explicit Table(Events * events) : Entity(Rig::Name("table")), events_(events) {}
  ~Table() override { events_->push_back("table gone"); }

 private:
  Events * events_;
};

// The shape of a collection: at its last outside reference its own notifiee
// hands it to its control, drops the collection's link to the control, and
// leaves the list; it fires once.
class Collection : public Rig::Entity {
 public:
  class ZeroReferencesNotifiee : public Rig::PtrInterface::NotifieeConst {
   public:
    explicit ZeroReferencesNotifiee(Collection * collection) : collection_(collection) {}
    void onZeroReferences() override {
      Collection * collection = collection_;
      {
        const Rig::Ptr<Rig::Entity> reference(collection);
        collection->control_->entityRefIs(reference);
      }
      collection->control_ = nullptr;
      collection->notifieeList().deleteMember(this);
    }

   private:
    Collection * collection_;
  };

  Collection(Events * events, Rig::Ptr<TestControl> control)
      : Entity(Rig::Name("collection")), events_(events), control_(std::move(control)) {
    notifiee_ = Rig::make<ZeroReferencesNotifiee>(this);
    list_.newMember(this, notifiee_);
  }
  ~Collection() override {
    list_.deleteAll();
    events_->push_back("collection gone");
  }

  Rig::NotifieeListPtr notifieeList() const override { return {1, &list_}; }
  const Rig::Ptr<TestControl> & control() const { return control_; }

 private:
  Events * events_;
  Rig::Ptr<TestControl> control_;
  Rig::Ptr<ZeroReferencesNotifiee> notifiee_;
  mutable Rig::NotifieeList list_;
};

uint64_t liveObjects(const std::type_info & type) {
  const Rig::AllocTrackTypeInfo * record = Rig::AllocTrackTypeInfo::record(type);
  return record == nullptr ? 0 : record->liveObjects();
}

}  // namespace

TEST(RigArenaCollectionControl, StartsUnmountedWithNothingKept) {
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>();
  EXPECT_FALSE(control->mounted());
  EXPECT_EQ(control->mountStatus(), 0u);
  EXPECT_FALSE(control->entityRef());
  EXPECT_EQ(control->references(), 1u);
}

TEST(RigArenaCollectionControl, RecordsTheMountStatus) {
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>();
  control->mountStatusIs(3);
  EXPECT_EQ(control->mountStatus(), 3u);
  control->mountStatusIs(0);
  EXPECT_EQ(control->mountStatus(), 0u);
}

// Life rule 1.

TEST(RigArenaCollectionControl, AMountedControlHoldsItself) {
  Events events;
  Rig::Ptr<TestControl> held = Rig::make<TestControl>(&events);
  TestControl * control = held.ptr();
  control->mountedIs(true);
  EXPECT_TRUE(control->mounted());
  EXPECT_EQ(control->references(), 2u);
  control->mountedIs(true);
  EXPECT_EQ(control->references(), 2u);
  held = nullptr;
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(control->references(), 1u);
  control->mountedIs(false);
  EXPECT_EQ(events, (Events{"control gone"}));
}

TEST(RigArenaCollectionControl, UnmountingAnUnmountedControlDoesNothing) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  control->mountedIs(false);
  EXPECT_FALSE(control->mounted());
  EXPECT_EQ(control->references(), 1u);
  EXPECT_TRUE(events.empty());
}

// Life rule 2.

TEST(RigArenaCollectionControl, AnUnmountedControlKeepsNoEntity) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  {
    const Rig::Ptr<Rig::Entity> table = Rig::make<Table>(&events);
    control->entityRefIs(table);
    EXPECT_FALSE(control->entityRef());
    EXPECT_EQ(table->references(), 1u);
  }
  EXPECT_EQ(events, (Events{"table gone"}));
  control->entityRefIs(nullptr);
  EXPECT_FALSE(control->entityRef());
}

TEST(RigArenaCollectionControl, AMountedControlKeepsTheEntityItIsHanded) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  control->mountedIs(true);
  Rig::Entity * kept = nullptr;
  {
    const Rig::Ptr<Rig::Entity> table = Rig::make<Table>(&events);
    kept = table.ptr();
    control->entityRefIs(table);
    EXPECT_EQ(table->references(), 2u);
  }
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(control->entityRef().ptr(), kept);
  // Another entity replaces it; null clears.
  control->entityRefIs(Rig::make<Table>(&events));
  EXPECT_EQ(events, (Events{"table gone"}));
  control->entityRefIs(nullptr);
  EXPECT_EQ(events, (Events{"table gone", "table gone"}));
  EXPECT_FALSE(control->entityRef());
  control->mountedIs(false);
}

// Life rule 3.

TEST(RigArenaCollectionControl, UnmountingLetsGoOfTheEntityThenOfItself) {
  Events events;
  TestControl * control = nullptr;
  {
    const Rig::Ptr<TestControl> held = Rig::make<TestControl>(&events);
    control = held.ptr();
    control->mountedIs(true);
    control->entityRefIs(Rig::make<Table>(&events));
  }
  EXPECT_TRUE(events.empty());
  control->mountedIs(false);
  EXPECT_EQ(events, (Events{"table gone", "control gone"}));
}

TEST(RigArenaCollectionControl, AnEntityHeldOnlyByTheControlDiesAtUnmount) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  control->mountedIs(true);
  control->entityRefIs(Rig::make<Table>(&events));
  EXPECT_EQ(liveObjects(typeid(Table)), 1u);
  control->mountedIs(false);
  EXPECT_EQ(events, (Events{"table gone"}));
  EXPECT_FALSE(control->entityRef());
  EXPECT_EQ(control->references(), 1u);
  EXPECT_EQ(liveObjects(typeid(Table)), 0u);
}

TEST(RigArenaCollectionControl, AnEntityHeldElsewhereOutlivesTheUnmount) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  const Rig::Ptr<Rig::Entity> table = Rig::make<Table>(&events);
  control->mountedIs(true);
  control->entityRefIs(table);
  control->mountedIs(false);
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(table->references(), 1u);
}

TEST(RigArenaCollectionControl, AControlMountsAgainAfterAnUnmount) {
  Events events;
  const Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  control->mountedIs(true);
  control->mountedIs(false);
  control->mountedIs(true);
  control->entityRefIs(Rig::make<Table>(&events));
  EXPECT_TRUE(control->entityRef());
  EXPECT_EQ(control->references(), 2u);
  control->mountedIs(false);
  EXPECT_EQ(events, (Events{"table gone"}));
  EXPECT_EQ(control->references(), 1u);
}

// The whole life of a collection that hands itself to its control.

TEST(RigArenaCollectionControl, AMountedCollectionLivesOnAfterItsLastReference) {
  Events events;
  {
    Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
    Rig::Ptr<Collection> collection = Rig::make<Collection>(&events, control);
    control->mountedIs(true);
    TestControl * rawControl = control.ptr();
    control = nullptr;
    collection = nullptr;
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(liveObjects(typeid(Collection)), 1u);
    EXPECT_EQ(liveObjects(typeid(TestControl)), 1u);
    // The control keeps the collection; the collection no longer keeps the control.
    auto * kept = static_cast<Collection *>(rawControl->entityRef().ptr());
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_FALSE(kept->control());
    EXPECT_EQ(kept->notifieeList().list->members(), 0u);
    rawControl->mountedIs(false);
  }
  EXPECT_EQ(events, (Events{"collection gone", "control gone"}));
  EXPECT_EQ(liveObjects(typeid(Collection)), 0u);
  EXPECT_EQ(liveObjects(typeid(TestControl)), 0u);
  EXPECT_EQ(liveObjects(typeid(Collection::ZeroReferencesNotifiee)), 0u);
}

TEST(RigArenaCollectionControl, AnUnmountedCollectionDiesAtItsLastReference) {
  Events events;
  {
    Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
    Rig::Ptr<Collection> collection = Rig::make<Collection>(&events, control);
    control = nullptr;
    collection = nullptr;
  }
  EXPECT_EQ(events, (Events{"control gone", "collection gone"}));
  EXPECT_EQ(liveObjects(typeid(Collection)), 0u);
  EXPECT_EQ(liveObjects(typeid(TestControl)), 0u);
  EXPECT_EQ(liveObjects(typeid(Collection::ZeroReferencesNotifiee)), 0u);
}

TEST(RigArenaCollectionControl, ACollectionHeldAgainAfterTheHandOffDiesAtUnmountOnlyWhenLetGo) {
  Events events;
  Rig::Ptr<TestControl> control = Rig::make<TestControl>(&events);
  Rig::Ptr<Collection> collection = Rig::make<Collection>(&events, control);
  control->mountedIs(true);
  collection = nullptr;
  // Someone takes the kept collection again, as a lookup by name would.
  Rig::Ptr<Rig::Entity> again = control->entityRef();
  control->mountedIs(false);
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(again->references(), 1u);
  again = nullptr;
  EXPECT_EQ(events, (Events{"collection gone"}));
  control = nullptr;
  EXPECT_EQ(events, (Events{"collection gone", "control gone"}));
}

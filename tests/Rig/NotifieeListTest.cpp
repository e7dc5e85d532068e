#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CountedTesting.h"
#include "Rig/NotifieeList.h"

namespace {

using RigTesting::Observed;
using RigTesting::Recorder;
using Strings = std::vector<std::string>;

// An owner with a list, and the log its recorders write to.
class NotifieeListTest : public ::testing::Test {
 protected:
  // A new recorder on the owner's list.
  Rig::Ptr<Recorder> join(const std::string & label, int * deaths = nullptr) {
    Rig::Ptr<Recorder> recorder(new Recorder(label, &log_, deaths));
    list().newMember(owner_.ptr(), recorder);
    return recorder;
  }
  Rig::NotifieeList & list() { return owner_->list(); }

  Rig::Ptr<Observed> owner_{new Observed()};
  Strings log_;
};

constexpr uint32_t attribute = 258;

}  // namespace

// Invariant 1: the list counts its members.

TEST_F(NotifieeListTest, AMemberIsCountedAndKnowsItsNotifier) {
  const Rig::Ptr<Recorder> member = join("a");
  EXPECT_EQ(member->references(), 2u);
  EXPECT_EQ(member->notifier(), owner_.ptr());
  EXPECT_TRUE(list().isMember(member.ptr()));
  EXPECT_EQ(list().members(), 1u);
}

TEST_F(NotifieeListTest, TheListKeepsAMemberNobodyElseHolds) {
  int deaths = 0;
  Recorder * member = join("a", &deaths).ptr();
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(member->references(), 1u);
  list().deleteMember(member);
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(list().members(), 0u);
}

TEST_F(NotifieeListTest, AMemberAddedAgainStaysInItsPlace) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  list().newMember(owner_.ptr(), first);
  EXPECT_EQ(list().members(), 2u);
  EXPECT_EQ(first->references(), 2u);
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258"}));
}

TEST_F(NotifieeListTest, ANullMemberIsIgnored) {
  list().newMember(owner_.ptr(), nullptr);
  EXPECT_EQ(list().members(), 0u);
  list().visit(attribute, nullptr);
  EXPECT_TRUE(log_.empty());
}

TEST_F(NotifieeListTest, DeleteMemberLetsGoAndClearsTheNotifier) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  list().deleteMember(first.ptr());
  EXPECT_EQ(first->references(), 1u);
  EXPECT_EQ(first->notifier(), nullptr);
  EXPECT_FALSE(list().isMember(first.ptr()));
  EXPECT_EQ(second->notifier(), owner_.ptr());
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"b 258"}));
}

TEST_F(NotifieeListTest, DeletingANonMemberChangesNothing) {
  const Rig::Ptr<Recorder> member = join("a");
  const Rig::Ptr<Recorder> stranger(new Recorder("stranger", &log_));
  list().deleteMember(stranger.ptr());
  list().deleteMember(nullptr);
  EXPECT_EQ(list().members(), 1u);
  EXPECT_EQ(member->notifier(), owner_.ptr());
  EXPECT_EQ(stranger->references(), 1u);
}

TEST_F(NotifieeListTest, DeleteAllLetsGoOfEveryMember) {
  int deaths = 0;
  const Rig::Ptr<Recorder> kept = join("a");
  join("b", &deaths);
  join("c", &deaths);
  list().deleteAll();
  EXPECT_EQ(list().members(), 0u);
  EXPECT_EQ(deaths, 2);
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_EQ(kept->notifier(), nullptr);
  list().visit(attribute, nullptr);
  EXPECT_TRUE(log_.empty());
}

TEST_F(NotifieeListTest, TheListsEndLetsGoOfEveryMember) {
  int deaths = 0;
  const Rig::Ptr<Recorder> kept = join("a");
  join("b", &deaths);
  owner_ = nullptr;
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_EQ(kept->notifier(), nullptr);
}

// Invariant 2: who is called, in which order.

TEST_F(NotifieeListTest, VisitCallsMembersInTheOrderAddedWithTheAttributeAndKey) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  const Rig::Ptr<Recorder> third = join("c");
  const uint64_t key = 42;
  list().visit(attribute, &key);
  list().visit(259, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258", "c 258", "a 259", "b 259", "c 259"}));
  EXPECT_EQ(first->lastKey(), nullptr);
  list().visit(attribute, &key);
  EXPECT_EQ(first->lastKey(), &key);
  EXPECT_EQ(third->lastKey(), &key);
}

TEST_F(NotifieeListTest, AnEmptyListVisitsNobody) {
  list().visit(attribute, nullptr);
  list().visitZeroReferences();
  EXPECT_TRUE(log_.empty());
}

TEST_F(NotifieeListTest, VisitZeroReferencesCallsMembersInOrder) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  list().visitZeroReferences();
  EXPECT_EQ(log_, (Strings{"a zero", "b zero"}));
}

TEST_F(NotifieeListTest, AMemberMayRemoveItselfDuringItsCall) {
  int deaths = 0;
  const Rig::Ptr<Recorder> first = join("a");
  Recorder * leaving = join("b", &deaths).ptr();
  const Rig::Ptr<Recorder> third = join("c");
  int deathsInCall = 99;
  leaving->attributeAction = [&](Recorder & self) {
    list().deleteMember(&self);
    deathsInCall = deaths;  // the visit still holds it
  };
  list().visit(attribute, nullptr);
  EXPECT_EQ(deathsInCall, 0);
  EXPECT_EQ(deaths, 1);
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258", "c 258", "a 258", "c 258"}));
}

TEST_F(NotifieeListTest, AMemberRemovedByAnEarlierOneIsNotCalled) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  const Rig::Ptr<Recorder> third = join("c");
  first->attributeAction = [&](Recorder &) { list().deleteMember(third.ptr()); };
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258"}));
}

TEST_F(NotifieeListTest, RemovingAnEarlierMemberDoesNotDisturbTheRest) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  const Rig::Ptr<Recorder> third = join("c");
  second->attributeAction = [&](Recorder &) { list().deleteMember(first.ptr()); };
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258", "c 258"}));
}

TEST_F(NotifieeListTest, AMemberAddedDuringAVisitIsCalledFromTheNextOne) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  Rig::Ptr<Recorder> late;
  first->attributeAction = [&](Recorder &) {
    if (!late) {
      late = join("late");
    }
  };
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258"}));
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "b 258", "a 258", "b 258", "late 258"}));
}

TEST_F(NotifieeListTest, DeleteAllDuringAVisitEndsIt) {
  int deaths = 0;
  const Rig::Ptr<Recorder> first = join("a");
  join("b", &deaths);
  first->attributeAction = [&](Recorder &) { list().deleteAll(); };
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258"}));
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(list().members(), 0u);
}

TEST_F(NotifieeListTest, AVisitInsideAVisitFollowsTheSameRule) {
  const Rig::Ptr<Recorder> first = join("a");
  const Rig::Ptr<Recorder> second = join("b");
  first->attributeAction = [&](Recorder &) {
    if (log_.size() == 1) {
      list().visit(259, nullptr);
    }
  };
  list().visit(attribute, nullptr);
  EXPECT_EQ(log_, (Strings{"a 258", "a 259", "b 259", "b 258"}));
}

// Invariant 3: one list at a time.

TEST_F(NotifieeListTest, AMemberMovedToAnotherListLeavesTheFirst) {
  const Rig::Ptr<Observed> other(new Observed());
  const Rig::Ptr<Recorder> member = join("a");
  other->list().newMember(other.ptr(), member);
  EXPECT_EQ(member->notifier(), other.ptr());
  EXPECT_TRUE(other->list().isMember(member.ptr()));
  EXPECT_FALSE(list().isMember(member.ptr()));
  EXPECT_EQ(member->references(), 2u);
  list().visit(attribute, nullptr);
  EXPECT_TRUE(log_.empty());
}

// Rig::pointerIs: a settable counted attribute announced on the list.

namespace {

class PointerIsTest : public NotifieeListTest {
 protected:
  void SetUp() override { watcher_ = join("watcher"); }
  void set(const Rig::Ptr<Observed> & value) { Rig::pointerIs(member_, value, list(), attribute); }

  Rig::Ptr<Recorder> watcher_;
  Rig::Ptr<Observed> member_;
  int deaths_ = 0;
};

}  // namespace

TEST_F(PointerIsTest, ANewValueIsCountedStoredAndAnnouncedWithoutKey) {
  const Rig::Ptr<Observed> value(new Observed(&deaths_));
  const uint64_t staleKey = 1;
  list().visit(attribute, &staleKey);
  log_.clear();
  set(value);
  EXPECT_EQ(member_, value);
  EXPECT_EQ(value->references(), 2u);
  EXPECT_EQ(log_, (Strings{"watcher 258"}));
  EXPECT_EQ(watcher_->lastKey(), nullptr);
}

TEST_F(PointerIsTest, TheSamePointerChangesNothingAndTellsNobody) {
  const Rig::Ptr<Observed> value(new Observed(&deaths_));
  set(value);
  log_.clear();
  const Rig::Ptr<Observed> sameObject(value);
  set(sameObject);
  EXPECT_TRUE(log_.empty());
  EXPECT_EQ(value->references(), 3u);
  set(nullptr);
  log_.clear();
  set(nullptr);
  EXPECT_TRUE(log_.empty());
}

TEST_F(PointerIsTest, TheMemberGivenAsItselfOnlyNotifies) {
  const Rig::Ptr<Observed> value(new Observed(&deaths_));
  set(value);
  log_.clear();
  set(member_);
  EXPECT_EQ(log_, (Strings{"watcher 258"}));
  EXPECT_EQ(member_, value);
  EXPECT_EQ(value->references(), 2u);
}

TEST_F(PointerIsTest, NullClearsAndNotifies) {
  const Rig::Ptr<Observed> value(new Observed(&deaths_));
  set(value);
  log_.clear();
  set(nullptr);
  EXPECT_FALSE(member_);
  EXPECT_EQ(value->references(), 1u);
  EXPECT_EQ(log_, (Strings{"watcher 258"}));
}

TEST_F(PointerIsTest, TheOldObjectsLastReferenceDestroysItBeforeTheObserversHear) {
  set(Rig::Ptr<Observed>(new Observed(&deaths_)));
  log_.clear();
  const Rig::Ptr<Observed> replacement(new Observed());
  int deathsHeard = 99;
  Observed * memberHeard = nullptr;
  watcher_->attributeAction = [&](Recorder &) {
    deathsHeard = deaths_;
    memberHeard = member_.ptr();
  };
  set(replacement);
  EXPECT_EQ(deaths_, 1);
  EXPECT_EQ(deathsHeard, 1);
  EXPECT_EQ(memberHeard, replacement.ptr());
  EXPECT_EQ(replacement->references(), 2u);
}

TEST_F(PointerIsTest, TheOldObjectsZeroReferencesNotifieesAreCalled) {
  Observed * old = new Observed(&deaths_);
  old->hasNotificationActiveIs(true);
  const Rig::Ptr<Recorder> last(new Recorder("old", &log_));
  old->zeroReferencesIs(last.ptr(), true);
  set(Rig::Ptr<Observed>(old));
  log_.clear();
  set(nullptr);
  EXPECT_EQ(log_, (Strings{"old zero", "watcher 258"}));
  EXPECT_EQ(deaths_, 1);
}

TEST_F(PointerIsTest, WorksForAConstPointee) {
  Rig::Ptr<const Observed> constant;
  const Rig::Ptr<const Observed> value(new Observed(&deaths_));
  Rig::pointerIs(constant, value, list(), 259);
  Rig::pointerIs(constant, value, list(), 259);
  EXPECT_EQ(log_, (Strings{"watcher 259"}));
  EXPECT_EQ(constant, value);
}

TEST(RigNotifieeListPtr, DeleteMemberOnAnEmptyDescriptorDoesNothing) {
  const Rig::NotifieeListPtr none;
  EXPECT_EQ(none.kind, 0u);
  EXPECT_EQ(none.list, nullptr);
  EXPECT_EQ(none.reserved0, 0u);
  EXPECT_EQ(none.reserved1, 0u);
  none.deleteMember(nullptr);
}

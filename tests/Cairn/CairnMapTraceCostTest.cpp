// Hot paths that must not allocate: with every trace level off, a loop of
// lookups through a map (no trace text is built when its level is off), and
// the visit of a notifiee list that a collection makes at every write.

#include <cstdlib>
#include <new>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"
#include "Rig/NotifieeList.h"

namespace {

// Counts the allocations of this test program while counting is on.
bool counting = false;
uint64_t allocations = 0;

}  // namespace

// The replacements pair malloc with free; g++ cannot see that through the
// inlined sized delete and warns of a mismatch that is not there.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void * operator new(std::size_t size) {
  if (counting) {
    ++allocations;
  }
  if (void * block = std::malloc(size == 0 ? 1 : size)) {
    return block;
  }
  throw std::bad_alloc();
}

void operator delete(void * block) noexcept { std::free(block); }
void operator delete(void * block, std::size_t) noexcept { std::free(block); }

using namespace MapFrontTest;

TEST(CairnMapTraceCost, LookupsWithTracesOffAllocateNothing) {
  CairnTest::ScopedShmRoot root;
  Map map("maps/traceCost");
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 100;
  map.init(descriptor);
  for (uint64_t number = 0; number < 50; ++number) {
    map.safeWrite(Value(number, 1), true);
  }
  map.debugHandler().maskIs(0);
  Value out;
  bool found = false;
  counting = true;
  for (uint64_t round = 0; round < 10000; ++round) {
    map.safeLookup(Key{round % 100}, found, &out);  // half of them miss
  }
  counting = false;
  EXPECT_EQ(allocations, 0u);
}

namespace {

// An observer that counts its calls and, when told to, leaves the list from
// inside its call, as a collection's observers may.
class CountingNotifiee : public Rig::PtrInterface::NotifieeConst {
 public:
  void onAttribute(uint32_t /*attributeId*/, const void * /*key*/) override {
    ++calls;
    if (leaveOnCall && list != nullptr) {
      list->deleteMember(this);
    }
  }
  uint64_t calls = 0;
  bool leaveOnCall = false;
  Rig::NotifieeList * list = nullptr;
};

class Owner : public Rig::PtrInterface {
 public:
  Rig::NotifieeListPtr notifieeList() const override { return {1, &list_}; }
  Rig::NotifieeList & list() const { return list_; }

 private:
  mutable Rig::NotifieeList list_;
};

}  // namespace

TEST(NotifieeListVisitCost, VisitsAllocateNothingEvenWhenAMemberLeavesDuringOne) {
  const Rig::Ptr<Owner> owner(new Owner());
  std::vector<Rig::Ptr<CountingNotifiee>> members;
  for (int index = 0; index < 4; ++index) {
    members.emplace_back(new CountingNotifiee());
    owner->list().newMember(owner.ptr(), members.back());
  }
  members[1]->leaveOnCall = true;
  members[1]->list = &owner->list();
  const uint64_t key = 7;
  counting = true;
  for (uint64_t round = 0; round < 10000; ++round) {
    owner->list().visit(258, &key);
  }
  counting = false;
  EXPECT_EQ(allocations, 0u);
  EXPECT_EQ(owner->list().members(), 3u);
  EXPECT_EQ(members[0]->calls, 10000u);
  EXPECT_EQ(members[1]->calls, 1u);
  EXPECT_EQ(members[3]->calls, 10000u);
}

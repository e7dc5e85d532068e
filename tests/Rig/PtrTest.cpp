#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <thread>
#include <vector>

#include "CountedTesting.h"
#include "Rig/Factory.h"
#include "Rig/Ptr.h"

namespace {

using RigTesting::Observed;
using RigTesting::Recorder;
using RigTesting::ThreadSafePointers;
using Strings = std::vector<std::string>;

// An observed object whose notification is on, as a factory would leave it.
Observed * activeObserved(int * deaths) {
  auto * object = new Observed(deaths);
  object->hasNotificationActiveIs(true);
  return object;
}

// Puts a new recorder on the zero-references list of `object`.
Rig::Ptr<Recorder> watchZero(Observed * object, const std::string & label, Strings * log) {
  Rig::Ptr<Recorder> recorder(new Recorder(label, log));
  object->zeroReferencesIs(recorder.ptr(), true);
  return recorder;
}

// A node of a chain, to let go of an object from inside another's death.
struct Node : Rig::PtrInterface {
  Node(int * deaths, Rig::Ptr<Node> next) : deaths(deaths), next(std::move(next)) {}
  ~Node() override { ++*deaths; }
  int * deaths;
  Rig::Ptr<Node> next;
};

}  // namespace

// Contract 1: a count is the number of Ptr that hold the object.

TEST(RigPtr, ANewObjectHasNoReferences) {
  int deaths = 0;
  auto * object = new Observed(&deaths);
  EXPECT_EQ(object->references(), 0u);
  const Rig::Ptr<Observed> held(object);
  EXPECT_EQ(object->references(), 1u);
}

TEST(RigPtr, EachHoldingPtrCountsOne) {
  int deaths = 0;
  auto * object = new Observed(&deaths);
  Rig::Ptr<Observed> first(object);
  Rig::Ptr<Observed> second(first);
  EXPECT_EQ(object->references(), 2u);
  Rig::Ptr<Rig::PtrInterface> base(first);
  Rig::Ptr<const Observed> constant(first);
  EXPECT_EQ(object->references(), 4u);
  Rig::Ptr<Observed> third;
  third = second;
  EXPECT_EQ(object->references(), 5u);
  base = nullptr;
  constant = Rig::Ptr<const Observed>();
  EXPECT_EQ(object->references(), 3u);
  EXPECT_EQ(deaths, 0);
}

TEST(RigPtr, AMoveTransfersTheReference) {
  int deaths = 0;
  auto * object = new Observed(&deaths);
  Rig::Ptr<Observed> source(object);
  Rig::Ptr<Observed> moved(std::move(source));
  EXPECT_EQ(object->references(), 1u);
  EXPECT_FALSE(source);  // NOLINT: a moved-from Ptr is null by contract
  Rig::Ptr<Observed> assigned;
  assigned = std::move(moved);
  EXPECT_EQ(object->references(), 1u);
  EXPECT_EQ(assigned.ptr(), object);
  EXPECT_FALSE(moved);  // NOLINT
}

TEST(RigPtr, TheLastPtrDestroysTheObjectOnce) {
  int deaths = 0;
  {
    Rig::Ptr<Observed> first(new Observed(&deaths));
    Rig::Ptr<Observed> second(first);
    first = nullptr;
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtr, SelfAssignmentKeepsTheObject) {
  int deaths = 0;
  Rig::Ptr<Observed> held(new Observed(&deaths));
  Rig::Ptr<Observed> & alias = held;
  held = alias;
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(held->references(), 1u);
}

TEST(RigPtr, AssignmentTakesTheNewObjectBeforeLettingTheOldGo) {
  // The old object holds the only other reference to the new one.
  int deaths = 0;
  Rig::Ptr<Node> head(new Node(&deaths, Rig::Ptr<Node>(new Node(&deaths, nullptr))));
  Node * second = head->next.ptr();
  head = head->next;
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(head.ptr(), second);
  EXPECT_EQ(second->references(), 1u);
}

TEST(RigPtr, ComparesAndTestsByAddress) {
  Rig::Ptr<Observed> object(new Observed());
  Rig::Ptr<Observed> same(object);
  Rig::Ptr<Observed> other(new Observed());
  EXPECT_TRUE(object == same);
  EXPECT_FALSE(object == other);
  EXPECT_TRUE(object == object.ptr());
  EXPECT_TRUE(Rig::Ptr<Observed>() == nullptr);
  EXPECT_TRUE(object);
  EXPECT_FALSE(Rig::Ptr<Observed>());
  EXPECT_EQ(&*object, object.ptr());
}

// Contract 4.
TEST(RigPtr, TheCountIsTheWordWithoutTheRuntimeFlags) {
  EXPECT_EQ(Rig::PtrInterface::CountMask, 0x5fffffffu);
  EXPECT_EQ(Rig::PtrInterface::CountMask & ((1u << 29) | (1u << 31)), 0u);
}

TEST(RigPtr, ACopyIsANewObjectWithoutReferences) {
  struct Copyable : Rig::PtrInterface {
    int value = 0;
  };
  Rig::Ptr<Copyable> original(new Copyable);
  original->hasNotificationActiveIs(true);
  original->value = 5;
  Rig::Ptr<Copyable> copy(new Copyable(*original));
  EXPECT_EQ(copy->value, 5);
  EXPECT_EQ(copy->references(), 1u);
  EXPECT_FALSE(copy->hasNotificationActive());
  const Rig::Ptr<Copyable> second(copy);
  *copy = *original;
  EXPECT_EQ(copy->references(), 2u);
  EXPECT_EQ(original->references(), 1u);
}

// Contract 2: the last reference gone.

TEST(RigPtrZeroReferences, NotifieesHearOfTheLastReferenceThenTheObjectDies) {
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  const Rig::Ptr<Recorder> first = watchZero(object, "first", &log);
  const Rig::Ptr<Recorder> second = watchZero(object, "second", &log);
  uint32_t countSeen = 99;
  int deathsSeen = 99;
  first->zeroAction = [&](Recorder &) {
    countSeen = object->references();
    deathsSeen = deaths;
  };
  held = nullptr;
  EXPECT_EQ(log, (Strings{"first zero", "second zero"}));
  EXPECT_EQ(countSeen, 0u);
  EXPECT_EQ(deathsSeen, 0);
  EXPECT_EQ(deaths, 1);
  // The dead object's list let go of its members.
  EXPECT_EQ(first->notifier(), nullptr);
  EXPECT_EQ(first->references(), 1u);
}

TEST(RigPtrZeroReferences, ANotifieeThatTakesAReferenceKeepsTheObject) {
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  Rig::Ptr<Observed> rescued;
  const Rig::Ptr<Recorder> rescuer = watchZero(object, "rescuer", &log);
  rescuer->zeroAction = [&](Recorder &) {
    if (log.size() == 1) {
      rescued = object;  // only the first time
    }
  };
  held = nullptr;
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(object->references(), 1u);
  EXPECT_EQ(log, (Strings{"rescuer zero"}));
  // Its next last reference is a new round.
  rescued = nullptr;
  EXPECT_EQ(log, (Strings{"rescuer zero", "rescuer zero"}));
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, ATemporaryReferenceTakenAndDroppedDoesNotRecurseOrDestroyTwice) {
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  const Rig::Ptr<Recorder> visitor = watchZero(object, "visitor", &log);
  int deathsAfterTemporary = 99;
  visitor->zeroAction = [&](Recorder &) {
    { const Rig::Ptr<Observed> temporary(object); }
    deathsAfterTemporary = deaths;
  };
  held = nullptr;
  EXPECT_EQ(log, (Strings{"visitor zero"}));
  EXPECT_EQ(deathsAfterTemporary, 0);
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, EveryNotifieeIsCalledWhenAnEarlierOneRescues) {
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  Rig::Ptr<Observed> rescued;
  const Rig::Ptr<Recorder> rescuer = watchZero(object, "rescuer", &log);
  const Rig::Ptr<Recorder> visitor = watchZero(object, "visitor", &log);
  rescuer->zeroAction = [&](Recorder &) { rescued = object; };
  visitor->zeroAction = [&](Recorder &) { const Rig::Ptr<Observed> temporary(object); };
  held = nullptr;
  EXPECT_EQ(log, (Strings{"rescuer zero", "visitor zero"}));
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(object->references(), 1u);
  rescuer->zeroAction = nullptr;
  rescued = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, ANotifieeThatLeavesTheListFiresOnce) {
  // The shape of a collection's own notifiee: hand the object on, then go.
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  Rig::Ptr<Observed> keeper;
  const Rig::Ptr<Recorder> once = watchZero(object, "once", &log);
  once->zeroAction = [&](Recorder & self) {
    const Rig::Ptr<Observed> temporary(object);
    keeper = temporary;
    object->notifieeList().deleteMember(&self);
  };
  held = nullptr;
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(object->list().members(), 0u);
  keeper = nullptr;
  EXPECT_EQ(log, (Strings{"once zero"}));
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, NoNotifieeIsCalledWhileNotificationIsOff) {
  int deaths = 0;
  Strings log;
  Observed * object = activeObserved(&deaths);
  Rig::Ptr<Observed> held(object);
  const Rig::Ptr<Recorder> recorder = watchZero(object, "recorder", &log);
  object->hasNotificationActiveIs(false);
  EXPECT_FALSE(object->hasNotificationActive());
  held = nullptr;
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, AnObjectWithoutAListJustDies) {
  int deaths = 0;
  Strings log;
  struct Plain : Rig::PtrInterface {
    explicit Plain(int * deaths) : deaths(deaths) {}
    ~Plain() override { ++*deaths; }
    int * deaths;
  };
  auto * plain = new Plain(&deaths);
  plain->hasNotificationActiveIs(true);
  EXPECT_EQ(plain->notifieeList().list, nullptr);
  EXPECT_EQ(plain->notifieeList().kind, 0u);
  const Rig::Ptr<Recorder> recorder(new Recorder("recorder", &log));
  plain->zeroReferencesIs(recorder.ptr(), true);  // nowhere to put it: ignored
  EXPECT_EQ(recorder->notifier(), nullptr);
  { const Rig::Ptr<Plain> held(plain); }
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrZeroReferences, ZeroReferencesIsAddsAndRemovesANotifiee) {
  Strings log;
  Rig::Ptr<Observed> object(activeObserved(nullptr));
  const Rig::Ptr<Recorder> recorder(new Recorder("recorder", &log));
  object->zeroReferencesIs(recorder.ptr(), true);
  EXPECT_TRUE(object->list().isMember(recorder.ptr()));
  EXPECT_EQ(recorder->notifier(), object.ptr());
  EXPECT_EQ(recorder->references(), 2u);
  object->zeroReferencesIs(recorder.ptr(), false);
  EXPECT_FALSE(object->list().isMember(recorder.ptr()));
  EXPECT_EQ(recorder->notifier(), nullptr);
  EXPECT_EQ(recorder->references(), 1u);
  object = nullptr;
  EXPECT_TRUE(log.empty());
}

// Contract 3: counts shared between threads.

TEST(RigPtrThreadSafe, CountsAreExactAfterManyThreadsTakeAndDrop) {
  const ThreadSafePointers threadSafe(true);
  constexpr int threadCount = 4;
  constexpr int rounds = 20000;
  constexpr int kept = 100;
  int deaths = 0;
  Rig::Ptr<Observed> shared(new Observed(&deaths));
  std::vector<std::vector<Rig::Ptr<Observed>>> keptByThread(threadCount);
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&shared, &keptByThread, t] {
      for (int i = 0; i < rounds; ++i) {
        Rig::Ptr<Observed> copy(shared);
        Rig::Ptr<Rig::PtrInterface> base(copy);
        if (i % (rounds / kept) == 0) {
          keptByThread[t].push_back(std::move(copy));
        }
      }
    });
  }
  for (auto & thread : threads) {
    thread.join();
  }
  EXPECT_EQ(shared->references(), 1u + threadCount * kept);
  keptByThread.clear();
  EXPECT_EQ(shared->references(), 1u);
  EXPECT_EQ(deaths, 0);
  shared = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(RigPtrThreadSafe, ThreadsDroppingTheLastReferencesTogetherDestroyOnce) {
  const ThreadSafePointers threadSafe(true);
  constexpr int threadCount = 4;
  for (int round = 0; round < 200; ++round) {
    int deaths = 0;
    std::vector<Rig::Ptr<Observed>> holders(threadCount, Rig::Ptr<Observed>(new Observed(&deaths)));
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
      threads.emplace_back([&holders, t] { holders[t] = nullptr; });
    }
    for (auto & thread : threads) {
      thread.join();
    }
    ASSERT_EQ(deaths, 1) << "round " << round;
  }
}

TEST(RigPtrThreadSafe, TheSwitchIsOffByDefault) {
  EXPECT_FALSE(Rig::VFPtrInterface::threadSafePointers_);
}

// Contract 5 and Rig::make.

namespace {

struct Made : Rig::PtrInterface {
  explicit Made(int value, bool * sawNotification = nullptr) : value(value) {
    if (sawNotification != nullptr) {
      *sawNotification = hasNotificationActive();
    }
  }
  int value;
  char payload[40] = {};
};

struct Refused : Rig::PtrInterface {
  explicit Refused(bool raise) {
    if (raise) {
      throw std::runtime_error("Refused::Refused() refused");
    }
  }
};

// PtrInterface is not the first base, so the object starts before it.
struct Mixin {
  virtual ~Mixin() = default;
  uint64_t words[3] = {1, 2, 3};
};
struct MixedIn : Mixin, Rig::PtrInterface {
  explicit MixedIn(int * deaths) : deaths(deaths) {}
  ~MixedIn() override { ++*deaths; }
  int * deaths;
};

struct NeverMade : Rig::PtrInterface {};

uint64_t liveObjects(const std::type_info & type) {
  const Rig::AllocTrackTypeInfo * record = Rig::AllocTrackTypeInfo::record(type);
  return record == nullptr ? 0 : record->liveObjects();
}

// True when Rig::make accepts T.
template <typename T>
concept Makeable = requires { Rig::make<T>(); };

struct alignas(64) CacheLineAligned : Rig::PtrInterface {};

}  // namespace

TEST(RigMake, GivesAHeldObjectWithNotificationOn) {
  bool sawNotification = true;
  const Rig::Ptr<Made> made = Rig::make<Made>(7, &sawNotification);
  EXPECT_EQ(made->value, 7);
  EXPECT_EQ(made->references(), 1u);
  EXPECT_FALSE(sawNotification);
  EXPECT_TRUE(made->hasNotificationActive());
}

TEST(RigMake, CountsLiveObjectsOfTheTypeBackToZero) {
  EXPECT_EQ(Rig::AllocTrackTypeInfo::record(typeid(NeverMade)), nullptr);
  std::vector<Rig::Ptr<Made>> made;
  for (int i = 0; i < 5; ++i) {
    made.push_back(Rig::make<Made>(i));
  }
  const Rig::AllocTrackTypeInfo * record = Rig::AllocTrackTypeInfo::record(typeid(Made));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->liveObjects(), 5u);
  EXPECT_EQ(record->liveBytes(), 5 * sizeof(Made));
  const uint64_t allocations = record->allocations();
  EXPECT_GE(allocations, 5u);
  made.erase(made.begin(), made.begin() + 2);
  EXPECT_EQ(record->liveObjects(), 3u);
  made.clear();
  EXPECT_EQ(record->liveObjects(), 0u);
  EXPECT_EQ(record->liveBytes(), 0u);
  EXPECT_EQ(record->allocations(), allocations);
  // A record, once made, stays where it is.
  const Rig::Ptr<Made> again = Rig::make<Made>(1);
  EXPECT_EQ(Rig::AllocTrackTypeInfo::record(typeid(Made)), record);
  EXPECT_EQ(record->liveObjects(), 1u);
}

TEST(RigMake, AConstructorThatRaisesGivesTheAllocationBack) {
  const Rig::Ptr<Refused> kept = Rig::make<Refused>(false);
  const Rig::AllocTrackTypeInfo * record = Rig::AllocTrackTypeInfo::record(typeid(Refused));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->liveObjects(), 1u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(Rig::make<Refused>(true), std::runtime_error);
  }
  EXPECT_EQ(record->liveObjects(), 1u);
  EXPECT_EQ(record->liveBytes(), sizeof(Refused));
}

TEST(RigMake, DestroysAnObjectWhoseCountedBaseIsNotFirst) {
  int deaths = 0;
  {
    const Rig::Ptr<MixedIn> made = Rig::make<MixedIn>(&deaths);
    const Rig::Ptr<Rig::PtrInterface> base(made);
    EXPECT_NE(static_cast<void *>(base.ptr()), static_cast<void *>(made.ptr()));
    EXPECT_EQ(liveObjects(typeid(MixedIn)), 1u);
  }
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(liveObjects(typeid(MixedIn)), 0u);
}

TEST(RigMake, ARescuedObjectStaysCountedUntilItDies) {
  Strings log;
  Rig::Ptr<Observed> held = Rig::make<Observed>(nullptr);
  Observed * object = held.ptr();
  Rig::Ptr<Observed> rescued;
  const Rig::Ptr<Recorder> rescuer = watchZero(object, "rescuer", &log);
  rescuer->zeroAction = [&](Recorder & self) {
    rescued = object;
    object->zeroReferencesIs(&self, false);
  };
  held = nullptr;
  EXPECT_EQ(liveObjects(typeid(Observed)), 1u);
  rescued = nullptr;
  EXPECT_EQ(liveObjects(typeid(Observed)), 0u);
  EXPECT_EQ(log, (Strings{"rescuer zero"}));
}

TEST(RigMake, RefusesTypesAlignedBeyondTheAllocator) {
  static_assert(Makeable<Made>);
  static_assert(!Makeable<CacheLineAligned>);
}

TEST(RigMemAlloc, GivesWritableMemoryBack) {
  void * memory = Rig::PtrInterface::rigMemAlloc(100);
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % __STDCPP_DEFAULT_NEW_ALIGNMENT__, 0u);
  std::fill_n(static_cast<char *>(memory), 100, 'x');
  Rig::PtrInterface::rigMemFree(memory, 100);
}

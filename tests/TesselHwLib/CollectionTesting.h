#pragma once
// What the tests of the six collections share: a distinct, valid key and a
// distinct entry of each type for each number, an observer that records
// what a collection's notifiee list tells it, descriptors, a base directory
// of the test's own, and the counter deltas of Beacon::writer().

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Beacon/Writer.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/RootPath.h"
#include "Rig/Factory.h"
#include "Support/TempDir.h"
#include "TesselHwLib/TesselHwLibTypesTH3.h"
#include "Wirekit/IpGenAddr.h"

namespace CollectionTest {

using namespace TesselHwLib;

inline L3IifTH3Key keyOf(uint64_t number, const L3IifTH3Key *) { return L3IifTH3Key(number); }

inline MyStationTcamTH3Key keyOf(uint64_t number, const MyStationTcamTH3Key *) {
  MyStationTcamTH3Key key;
  key.vlanIdIs(static_cast<uint16_t>(number));
  key.priorityIs(static_cast<uint32_t>(number >> 16));
  return key;
}

// An IPv4 key that passes validateEntryKey: exact masks, IPv6 fields unset.
inline L3TunnelTH3Key keyOf(uint64_t number, const L3TunnelTH3Key *) {
  const auto address = [](const char * text) {
    Wirekit::IpGenAddr result;
    result.handleInitialized(text);
    return result;
  };
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.sipIs(address("10.0.0.1"));
  key.sipMaskIs(address("255.255.255.255"));
  key.dipIs(address("10.0.0.2"));
  key.dipMaskIs(address("255.255.255.255"));
  key.priorityIs(static_cast<uint32_t>(number));
  return key;
}

// The key, entry and factory of a collection type C.
template <typename C>
struct Table {
  using Entry = typename C::EntryType;
  using Key = typename C::Key;

  static Key key(uint64_t number) { return keyOf(number, static_cast<const Key *>(nullptr)); }
  // The entry of `number`, told apart from other versions by `version`.
  static Entry entry(uint64_t number, uint64_t version = 1) {
    Entry value(key(number));
    value.genIdIs(number * 1000 + version);
    return value;
  }
  static Rig::Ptr<C> make(const std::string & name) { return Rig::make<C>(Rig::Name(name)); }
};

// Records each attribute a collection announces, with its key when it has
// one.
template <typename Key>
class Observer : public Rig::PtrInterface::NotifieeConst {
 public:
  void onAttribute(uint32_t attributeId, const void * key) override {
    attributes.push_back(attributeId);
    if (key != nullptr) {
      keys.push_back(*static_cast<const Key *>(key));
    }
  }
  std::vector<uint32_t> attributes;
  std::vector<Key> keys;
};

// An observer on the notifiee list of `owner`, reading keys as Key.
template <typename Key, typename Owner>
Rig::Ptr<Observer<Key>> observeWith(Owner & owner) {
  auto observer = Rig::make<Observer<Key>>();
  owner.notifieeList().list->newMember(&owner, observer);
  return observer;
}

template <typename C>
Rig::Ptr<Observer<typename C::Key>> observe(C & collection) {
  return observeWith<typename C::Key>(collection);
}

inline Cairn::MapDescriptor descriptor(Cairn::CairnType mode, bool localMem = false, uint32_t maxSlots = 1000) {
  Cairn::MapDescriptor result;
  result.mode = mode;
  result.localMem = localMem;
  result.maxSlots = maxSlots;
  return result;
}

// The tables of a test live under a directory of its own.
class ScopedShmRoot {
 public:
  ScopedShmRoot() { setenv(Cairn::RootPath::baseVariable, dir_.path().c_str(), 1); }
  ~ScopedShmRoot() { unsetenv(Cairn::RootPath::baseVariable); }
  ScopedShmRoot(const ScopedShmRoot &) = delete;
  ScopedShmRoot & operator=(const ScopedShmRoot &) = delete;

 private:
  TestSupport::TempDir dir_;
};

// How much each collection counter moved since construction.
class CounterDeltas {
 public:
  CounterDeltas() : tableIs_(now("tableIs")), tableDel_(now("tableDel")), tableNotify_(now("tableNotify")) {}
  uint64_t tableIs() const { return now("tableIs") - tableIs_; }
  uint64_t tableDel() const { return now("tableDel") - tableDel_; }
  uint64_t tableNotify() const { return now("tableNotify") - tableNotify_; }

 private:
  static uint64_t now(const char * name) { return Beacon::writer().value(name); }
  uint64_t tableIs_;
  uint64_t tableDel_;
  uint64_t tableNotify_;
};

using Collections = ::testing::Types<L3IifTH3Config, L3IifTH3Status, L3TunnelTH3Config, L3TunnelTH3Status,
                                     MyStationTcamTH3Config, MyStationTcamTH3Status>;

}  // namespace CollectionTest

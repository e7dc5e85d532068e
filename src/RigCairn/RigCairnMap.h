#pragma once
// RigCairn::RigCairnMap<C, V, K, Ops>: a CairnMap bound to one collection C
// of the object runtime. It names the map after the collection's place in
// the tree, routes the map's five callbacks to the collection, and decides
// when the collection has become an orphan.
//
// Life (state, parented, backend; reached by):
//   created      false  local writer, provisional path    entity
//   placed       true   fresh local writer, full path     handleParent with a parent
//   initialised  true   as the descriptor tells           init (the control layer)
//   orphan       as was dummy, or strict dummy            handleParent without a parent
//
// Rules:
// 1. Entries written before the collection is placed in the tree do not
//    survive its placing: the map starts again on a fresh local writer.
// 2. A collection is placed once: a second parent is
//    Basalt::InvalidInitializeException "Entity <name> already initialized".
// 3. An orphan serves from a dummy; one whose descriptor asked for
//    assertOnOrphanAccess serves from a strict dummy that fails every
//    operation, and refuses a further init.
// 4. The callbacks read the collection through the map at every call, so
//    they stay valid for the map's life. A collection does not tell a change
//    from a removal: its observers get the key, and look the entry up.

#include <functional>
#include <string>
#include <typeinfo>

#include <fmt/format.h>

#include "Basalt/DebugHandlerRegistry.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnMap.h"
#include "Cairn/IterHint.h"
#include "Rig/RigType.h"
#include "Rig/String.h"
#include "RigArena/Util.h"

namespace RigCairn {

template <typename C, typename V, typename K, typename Ops>
class RigCairnMap : public Cairn::CairnMap<K, V, Ops> {
  using Base = Cairn::CairnMap<K, V, Ops>;

 public:
  using KeyNotify = void (C::*)(K);
  using MountStatusNotify = void (C::*)();
  using QuiescedNotify = void (C::*)(bool);

  class IteratorConst;

  // Binds the map to `collection`: called once, at the end of the
  // collection's constructor, with the name "table". From here the map
  // serves from a private local writer.
  void entity(const Rig::String & name, C * collection, KeyNotify keyNotify, MountStatusNotify mountStatusNotify,
              QuiescedNotify quiescedNotify) {
    collection_ = collection;
    this->shortNameIs(name);
    this->handler_ = Basalt::Platform::getDebugHandler(Cairn::CairnMapBase::TempHandlerName);
    this->pathIs(collection_->name() + "/" + name);
    this->callbacksIs(typename Base::Callbacks(std::bind_front(&RigCairnMap::forwardValue, this, keyNotify),
                                               std::bind_front(&RigCairnMap::forwardKey, this, keyNotify),
                                               std::bind_front(&RigCairnMap::forwardKey, this, keyNotify),
                                               std::bind_front(&RigCairnMap::forwardMountStatus, this, mountStatusNotify),
                                               std::bind_front(&RigCairnMap::forwardQuiesced, this, quiescedNotify)));
    BASALT_TRACE(*this->handler_, 5, "RigCairnMap::entity() creating local CairnWriter {}", this->path());
    this->backendIs(this->createDefaultLocalWriter(*this->handler_));
  }

  // Follows the collection's place in the tree (rules 1 to 3).
  void handleParent() {
    const std::string old = this->path();
    const bool hasParent = collection_->parent() != nullptr;
    const std::string owner = hasParent ? RigArena::Util::fullName(collection_) : std::string(collection_->name());
    this->pathIs(owner + "/" + this->shortName());
    if (hasParent) {
      if (parented_) {
        throw Basalt::InvalidInitializeException(
            fmt::format("Entity {} already initialized", std::string(collection_->name())));
      }
      parented_ = true;
      BASALT_TRACE(*this->handler_, 5, "RigCairnMap::handleParent(): old: {} new: {}", old, this->path());
      this->resetToDefaultLocalWriter();
      return;
    }
    BASALT_TRACE(*this->handler_, 5, "RigCairnMap::handleParent(): {} is now an orphan", this->path());
    this->orphanAssertIs(this->descriptor().assertOnOrphanAccess);
    this->controlDetach();
  }

  using Base::validateFiles;
  // What CairnMap::validateFiles does; the arguments are not used.
  bool validateFiles(const std::string & /*path*/, uint32_t /*flags*/) {
    BASALT_TRACE(*this->handler_, 5, "RigCairnMap::validateFiles() delegating to CairnMap::validateFiles");
    return Base::validateFiles();
  }

  // The collection's class, demangled with its namespace; std::bad_typeid
  // before the map is bound.
  std::string classType() const override {
    if (collection_ == nullptr) {
      throw std::bad_typeid();
    }
    return Rig::demangleStdString(typeid(*collection_));
  }

  C * collection() const { return collection_; }
  bool parented() const { return parented_; }

 private:
  // The callbacks, bound to this map by member function rather than by a
  // closure that captures it: g++ 12's vptr check takes an access through
  // such a closure for an access to a map at the closure's address.
  void forwardValue(KeyNotify notify, const V & value) { (collection_->*notify)(value.fwkKey()); }
  void forwardKey(KeyNotify notify, const K & key) { (collection_->*notify)(key); }
  void forwardMountStatus(MountStatusNotify notify) { (collection_->*notify)(); }
  void forwardQuiesced(QuiescedNotify notify, bool quiesced) { (collection_->*notify)(quiesced); }

  C * collection_ = nullptr;
  bool parented_ = false;
};

// A read-only cursor over a map, for generic walks. It is given the old key
// at each step, not a position, so it survives the removal of its current
// key. Corruption met on the way is reported by doCorruptionDetected and
// ends the walk.
template <typename C, typename V, typename K, typename Ops>
class RigCairnMap<C, V, K, Ops>::IteratorConst {
 public:
  // At the first entry of `map`; at the end at once for a null map.
  explicit IteratorConst(const RigCairnMap * map) : map_(map) {
    if (map_ != nullptr) {
      step([&] { return map_->backend()->first(value_, hint_); });
    }
  }

  bool nonnull() const { return hasValue_; }
  const V & value() const { return *current_; }
  const K & key() const { return current_->fwkKey(); }

  void advance() {
    if (!hasValue_) {
      return;
    }
    const K key = value_.fwkKey();
    step([&] { return map_->backend()->next(key, value_, hint_); });
  }

 private:
  template <typename Step>
  void step(Step && call) {
    try {
      hasValue_ = call();
    } catch (const Basalt::CorruptionDetectedException & exception) {
      map_->doCorruptionDetected(exception.what());
      hasValue_ = false;
    }
    current_ = &value_;
  }

  const RigCairnMap * map_;
  Cairn::IterHint hint_;
  V value_;
  const V * current_ = &value_;
  bool hasValue_ = false;
};

}  // namespace RigCairn

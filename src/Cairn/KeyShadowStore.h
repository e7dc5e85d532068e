#pragma once
// Cairn::KeyShadowStore<K, V, Ops>: the shadow store that keeps keys alone
// (mode keyshadow). Its local slots hold the table's keys at the shared
// slots' indices, in the same index as a value store; values stay in the
// writer's table and are read at each access (Cairn/ShadowStore.h). A
// process that must know which keys exist and hear of each change, but reads
// few values, pays for a key per slot instead of a value per slot; its
// callback is the key callback.
//
// The store keeps the table's epoch file mapped from initialize to disable,
// and reports the mapping's size in the reader counters.

#include <string>

#include "Arena/ArenaFilesWrapper.h"
#include "ArenaFiles/EpochFile.h"
#include "Cairn/ShadowStore.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class KeyShadowStore : public ShadowStore<K, V, Ops, KeyShadowSlot<K>> {
  using Base = ShadowStore<K, V, Ops, KeyShadowSlot<K>>;

 public:
  KeyShadowStore(Basalt::Platform::DebugHandler & handler, typename Base::Reader & reader,
                 Ripple::RippleReader * rippleReader, const typename Base::Callbacks & callbacks, bool notifyOnFlush)
      : Base(handler, reader, rippleReader, callbacks, notifyOnFlush),
        epoch_(handler, reader.rootPath().directory(), ArenaFiles::EpochFile::EPOCH_NAME, false) {}

  bool initialize() override {
    if (epoch_.attach(sizeof(ArenaFiles::EpochFile::Record), Arena::ArenaFilesWrapper::Mode::ReadOnly) ==
        nullptr) {
      BASALT_TRACE(this->debugHandler(), 0, "KeyShadowStore::initialize() failed to map epoch: {}",
                   epoch_.getFilename());
      return false;
    }
    return Base::initialize();
  }

  void disable() override {
    BASALT_TRACE(this->debugHandler(), 5, "KeyShadowStore::disable()");
    epoch_.detach();
    Base::disable();
  }

  uint64_t epochMappedSize() const override { return epoch_.attached() ? epoch_.memSize() : 0; }

 private:
  Arena::ArenaFilesWrapper epoch_;
};

}  // namespace Cairn

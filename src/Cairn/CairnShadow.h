#pragma once
// Cairn::CairnShadow<K, V, Ops>: the backend of a map in mode shadow or
// keyshadow. It ties a private CairnReader on the writer's files, a store in
// local memory (a ShadowStore of values, or a KeyShadowStore of keys, by
// flag bit 0) and the machinery of CairnShadowBase that follows the writer
// through walks and the notification queue.
//
// Mount status: 3 while a flush runs (flushing_); else 0 before initialize
// and after detach; 2 once the first walk completed (connected_); else 1.
//
// Life (state: event -> action, next state):
//   0  initialize ok          reader, store, queue; first walk begins     1
//   0  initialize fails       (the map discards the shadow)               0
//   1  syncComplete           key callbacks on, mount-status callback     2
//   1,2 initialize again      maybeConnect only                           same
//   1,2 handleDisconnect      the map's sentry is poked                   same
//   2  resync, syncComplete   differences reach the callbacks             2
//   1,2 detach(false)         asynchronous flush                          3
//   1,2 detach(true)          flush inside the call, store disabled       0
//   3  flushComplete          store disabled, dummy installed, sentry
//                             poked, mount-status callback                0
//   3  detach(true)           forceSyncCompletion                         0
//   3  detach(false)          assertion
//   0  detach                 level 5 trace                               0
//
// Reads: lookup, first and next come from the store in every state, so a
// process reads its copy while the first walk runs (what has arrived so
// far), during a resync, and until a flush has taken the copy out. Writes
// are refused as on every read-only backend.
//
// One thread: the process's event loop, which runs the socket, the queue,
// the walks, the callbacks and the process's own reads.

#include <memory>
#include <string>

#include <fmt/format.h>

#include "Arena/Notify.h"
#include "Basalt/DebugHandlerRegistry.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnInterface.h"
#include "Cairn/CairnMapBase.h"
#include "Cairn/CairnReader.h"
#include "Cairn/CairnShadowBase.h"
#include "Cairn/KeyShadowStore.h"
#include "Cairn/ShadowStore.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class CairnShadow : public CairnShadowBase, public CairnInterface<K, V> {
 public:
  using Reader = CairnReader<K, V, Ops>;
  using Store = ShadowStoreInterface<K, V>;
  using ValueStore = ShadowStore<K, V, Ops, ValueShadowSlot<V>>;
  using KeyStore = KeyShadowStore<K, V, Ops>;
  using Callbacks = Arena::Notify<K, V>;

  static constexpr const char * SourceName = "Cairn/CairnShadow";
  static constexpr const char * NotifierName = "Cairn-DummyShadowNotifier";

  // `map` is the owner; `callbacks` are its Arena::Notify part.
  CairnShadow(Basalt::Platform::DebugHandler & handler, const std::string & path, const Ops & ops, unsigned flags,
              CairnMapBase & map, Callbacks & callbacks)
      : CairnShadowBase(handler, path, flags),
        reader_(handler, path, ops, &counters()),
        notifierHandler_(Basalt::Platform::getDebugHandler(NotifierName)),
        notifier_(*notifierHandler_),
        map_(&map),
        callbacks_(&callbacks) {}

  ~CairnShadow() override {
    store_.reset();
    reader_.detach(true);
  }

  // ---- Life ----

  bool initialize(const std::string & name) override {
    try {
      if (this->initialized()) {
        maybeConnect();
        return true;
      }
      if (!reader_.initialize(name)) {
        BASALT_TRACE(handler(), 0, "CairnShadow::doInitialize() cairn.initialize() Failed");
        return false;
      }
      store_ = makeStore();
      if (!store_->initialize() || !initializeRipple()) {
        return false;
      }
      this->initializedIs(true);
      return true;
    } catch (const Basalt::CorruptionDetectedException & exception) {
      BASALT_TRACE(handler(), 0, "CairnShadow::initialize() corruption detected: {}", exception.what());
      corruptionDetected(exception.what());
      return false;
    }
  }

  void detach(bool force) override {
    if (!this->initialized()) {
      BASALT_TRACE(handler(), 5, "CairnShadow::detach() already detached");
      if (mountStatus() == 3) {
        BASALT_ASSERT(syncer.mode() == SyncerMode::flush, SourceName,
                      "CairnShadow::detach() expected Syncer in flush mode during asynchronous flush");
        BASALT_ASSERT(force, SourceName,
                      "CairnShadow::detach() expected only forced detach during asynchronous flush");
        syncer.forceSyncCompletion();
      }
      return;
    }
    detachRipple();
    reader_.detach(true);
    flushing_ = true;
    syncer.sync(store_->numSlots(), SyncerMode::flush, !force);
    this->initializedIs(false);
    BASALT_TRACE(handler(), 2, "CairnShadow::detach() detached");
  }

  // ---- What the walks and the queue call ----

  bool doSlot(unsigned slotIndex, uint64_t sequence, bool compare) override {
    const bool done = store_->doSlot(slotIndex, sequence, compare);
    if (!done) {
      ++counters().doSlotFailures;
    }
    return done;
  }
  void doFlushSlot(unsigned slotIndex) override { store_->doFlushSlot(slotIndex); }
  void prefetchSlot(uint32_t slotIndex) const override { store_->prefetch(slotIndex); }

  void syncComplete() override {
    counters().sequence = syncSequence();
    counters().lastSyncSequence = syncSequence();
    BASALT_TRACE(handler(), 1, "CairnShadow::syncComplete() Synchronization complete, seq:{}", syncSequence());
    if (!connected_) {
      connected_ = true;
      callbacks_->restoreKeyNotifications();
      callbacks_->mountStatusCallback()();
    }
    maybeEnableRipple();
    handleQuiesced(quiesced());
  }

  void flushComplete() override {
    BASALT_TRACE(handler(), 1, "CairnShadow::flushComplete() Flush complete");
    store_->disable();
    flushing_ = false;
    if (this->initialized()) {
      return;  // the flush ran inside detach, whose map installs the dummy
    }
    // The end of an asynchronous flush. From installDummy on, this shadow is
    // the dummy's previous backend: nothing here touches it after.
    CairnMapBase * map = map_;
    Callbacks * callbacks = callbacks_;
    map->installDummy();
    if (map->mounter() != nullptr) {
      map->mounter()->attachedIs(true);
      map->mounter()->poke("CairnMap::flushComplete()", 0);
    }
    callbacks->mountStatusCallback()();
  }

  void handleQuiesced(bool isQuiesced) override { callbacks_->quiescedCallback()(isQuiesced); }

  void corruptionDetected(const std::string & message) override {
    if (mountStatus() != 3) {
      map_->doCorruptionDetected(message);
    }
  }

  void handleDisconnect() override {
    if (!nudgeProcessing()) {
      BASALT_TRACE(handler(), 1,
                   "CairnShadow::handleDisconnect() disconnected while nudge processing is disabled, syncer "
                   "mode:{} done:{}",
                   toString(syncer.mode()), syncer.done());
    }
    if (mountStatus() == 3) {
      return;
    }
    map_->handleDisconnect();
  }

  uint32_t localCapacity() const override { return store_ == nullptr ? 0 : store_->numSlots(); }
  bool resize() const override { return reader_.doResize(); }

  // ---- Settings ----

  void yieldTimeIs(double yieldTime) override { CairnShadowBase::yieldTimeIs(yieldTime); }
  void sampleIs(uint32_t sample) override { CairnShadowBase::sampleIs(sample); }
  void notifyingIs(bool on) override {
    BASALT_TRACE(handler(), 5, "CairnShadow()::notifyingIs() notifying: {}", on);
    CairnShadowBase::notifyingIs(on);
  }

  // ---- State ----

  uint32_t mountStatus() const override {
    if (flushing_) {
      return 3;
    }
    const uint32_t status = !this->initialized() ? 0 : connected_ ? 2 : 1;
    BASALT_TRACE(handler(), 5, "CairnShadow::mountStatus(): {}", status);
    return status;
  }
  bool quiesced() const override { return rippleReader.quiesced(); }
  bool connected() const override { return nudge.connected(); }
  uint32_t capacity() const override { return reader_.capacity(); }
  uint64_t sequence() const override { return counters().sequence; }
  // The shadow's entries, which may differ from the writer's while it is behind.
  uint32_t members() const override { return counters().occupied; }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override { return reader_.maxSize(); }
  CairnType type() const override { return CairnType::shadow; }
  RootPath rootPath() const override { return reader_.rootPath(); }
  std::string cairnName() const override { return reader_.cairnName(); }
  ArenaFiles::EpochId epochId() const override { return reader_.epochId(); }
  Cairn::Reader::Counters readerCounters() const override {
    Cairn::Reader::Counters & record = const_cast<Cairn::Reader::Counters &>(counters());
    record.shadowMappedSize = store_ == nullptr ? 0 : store_->shadowMappedSize();
    record.epochMappedSize = store_ == nullptr ? 0 : store_->epochMappedSize();
    record.primaryMappedSize = rippleReader.primaryMappedSize();
    record.secondaryMappedSize = rippleReader.secondaryMappedSize();
    record.slotMappedSize = reader_.slotTable().wrapper().memSize();
    record.bucketMappedSize = reader_.buckets().wrapper().memSize();
    return record;
  }
  std::string dumpHeaders() const { return reader_.dumpHeaders() + rippleReader.headersToString(); }
  bool runtime() const { return this->initialized(); }
  const Reader & reader() const { return reader_; }

  // ---- Reads, from the store ----

  const V * lookup(const K & key, bool & found, V * out) const override {
    return readyStore().lookup(key, found, out);
  }
  const V * directLookup(const K & key, bool & found, V * out) const override {
    return readyStore().directLookup(key, found, out);
  }
  bool first(V & out, IterHint & hint) const override { return readyStore().first(0, out, hint); }
  bool next(const K & key, V & out, IterHint & hint) const override { return readyStore().next(key, out, hint); }
  void validateVersionAnchor() const override { readyStore().validateVersionAnchor(); }
  Arena::CacheVersionAnchor getCacheVersionAnchor() const override {
    return store_ == nullptr ? Arena::CacheVersionAnchor() : store_->getCacheVersionAnchor();
  }

 private:
  Basalt::Platform::DebugHandler & handler() const { return CairnShadowBase::debugHandler(); }

  std::unique_ptr<Store> makeStore() {
    const bool notifyOnFlush = (flags() & NotifyOnFlushFlag) != 0;
    if (flags() & KeyShadowFlag) {
      return std::make_unique<KeyStore>(handler(), reader_, &rippleReader, *callbacks_, notifyOnFlush);
    }
    return std::make_unique<ValueStore>(handler(), reader_, &rippleReader, *callbacks_, notifyOnFlush);
  }

  // The store, which exists from a successful initialize on; a read before
  // that is a programming error of the map, which serves from a dummy then.
  const Store & readyStore() const {
    BASALT_ASSERT(store_ != nullptr, SourceName, "CairnShadow read before initialize " + reader_.cairnName());
    return *store_;
  }

  Reader reader_;
  std::shared_ptr<Basalt::Platform::DebugHandler> notifierHandler_;
  Basalt::Debuggable notifier_;
  CairnMapBase * map_;
  Callbacks * callbacks_;
  std::unique_ptr<Store> store_;
  bool flushing_ = false;
};

}  // namespace Cairn

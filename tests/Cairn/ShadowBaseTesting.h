#pragma once
// What the tests of Cairn::Syncer and CairnShadowBase share: two small
// shadows built on the base. RecordingShadow has no copy and no files: it
// records what the Syncer calls. MapShadow keeps a real copy of a table, one
// optional value per slot, read through a private CairnReader from the
// writer's files, as the real shadow store does, and records every call the
// base makes into it.

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Cairn/CairnReader.h"
#include "Cairn/CairnShadowBase.h"
#include "Cairn/WriterTestTypes.h"
#include "Loop/EventLoop.h"

namespace ShadowTest {

// Runs the process's loop until `done` holds; false if it didn't within a
// long bound (a hung test, not a timing check).
inline bool within(const std::function<bool()> & done) {
  return Loop::processLoop().runUntil(done, std::chrono::seconds(20));
}

// Runs the loop until everything deferred before this call has run: the
// marker is deferred last, and deferred calls run in order.
inline void settle() {
  bool ran = false;
  Loop::Registration marker = Loop::processLoop().runSoon([&] { ran = true; });
  within([&] { return ran; });
}

// The calls a shadow received, for the tests to compare.
struct Call {
  enum Kind { slot, flushSlot, syncComplete, flushComplete };
  Kind kind;
  unsigned slotIndex = 0;
  uint64_t sequence = 0;
  bool compare = false;
  bool operator==(const Call &) const = default;
};

inline std::string toString(const Call & call) {
  static const char * const names[] = {"slot", "flushSlot", "syncComplete", "flushComplete"};
  return fmt::format("{}({}, {:x}, {})", names[call.kind], call.slotIndex, call.sequence, call.compare);
}

// A shadow with no copy: every slot call is recorded, and `onSlot`, when
// set, runs inside doSlot (for calls back into the Syncer).
class RecordingShadow : public Cairn::CairnShadowBase {
 public:
  explicit RecordingShadow(Basalt::Platform::DebugHandler & handler)
      : Cairn::CairnShadowBase(handler, "test/recording", 0) {}

  bool doSlot(unsigned slotIndex, uint64_t sequence, bool compare) override {
    calls.push_back({Call::slot, slotIndex, sequence, compare});
    if (onSlot) {
      onSlot(slotIndex);
    }
    return true;
  }
  void doFlushSlot(unsigned slotIndex) override {
    calls.push_back({Call::flushSlot, slotIndex});
    if (onSlot) {
      onSlot(slotIndex);
    }
  }
  void syncComplete() override { calls.push_back({Call::syncComplete}); }
  void flushComplete() override { calls.push_back({Call::flushComplete}); }
  void handleQuiesced(bool) override {}
  void corruptionDetected(const std::string &) override {}
  void handleDisconnect() override {}
  uint32_t localCapacity() const override { return 0; }
  bool resize() const override { return false; }
  uint32_t capacity() const override { return 0; }
  bool quiesced() const override { return false; }

  std::size_t count(Call::Kind kind) const {
    std::size_t found = 0;
    for (const Call & call : calls) {
      found += call.kind == kind ? 1 : 0;
    }
    return found;
  }

  std::vector<Call> calls;
  std::function<void(unsigned)> onSlot;
};

using Value = CairnTest::IifSizedValue;
using Key = CairnTest::NumberKey;
using Ops = CairnTest::OpsFor<Value>;
using Reader = Cairn::CairnReader<Key, Value, Ops>;
// What a table holds, by key number.
using Model = std::map<uint64_t, Value>;

// A shadow whose copy is one optional value per slot index, like the real
// store's slot array, brought up to date slot by slot from the shared table.
class MapShadow : public Cairn::CairnShadowBase {
 public:
  MapShadow(Basalt::Platform::DebugHandler & handler, const std::string & name, unsigned flags = 0)
      : Cairn::CairnShadowBase(handler, name, flags), reader(handler, name, Ops(), &counters()) {}

  // The shadow's initialize: the reader, then the queue and the first walk.
  bool initialize(bool async = true) { return reader.initialize("test") && initializeRipple(async); }

  bool doSlot(unsigned slotIndex, uint64_t sequence, bool compare) override {
    const bool live = sequence != Cairn::Syncer::NoSequence;
    if (live && !entryFault.empty()) {
      throw Basalt::CorruptionDetectedException(entryFault);
    }
    if (slotIndex >= slots.size()) {
      reader.doResize();
      if (slotIndex >= reader.capacity()) {
        return true;  // a slot the shared table no longer has
      }
      slots.resize(reader.capacity());
    }
    Value value;
    const bool found = reader.safeValue(slotIndex, value, nullptr);
    std::optional<Value> & local = slots[slotIndex];
    const bool otherKey = local && (!found || !(local->key == value.key));
    // A value of another key, or none, may come from a stale entry.
    if (otherKey && live && !rippleReader.validateNotif()) {
      ++failures;
      return false;
    }
    if (live) {
      counters().sequence = sequence;
    }
    slotCalls.push_back({Call::slot, slotIndex, sequence, compare});
    if (live && onLiveSlot) {
      onLiveSlot();
    }
    if (otherKey) {
      deleted.push_back(local->key.number);
      local.reset();
    }
    if (found && !(compare && local && *local == value)) {
      local = value;
      updated.push_back(value.key.number);
    }
    return true;
  }
  void doFlushSlot(unsigned slotIndex) override {
    flushed.push_back(slotIndex);
    if (slotIndex < slots.size()) {
      slots[slotIndex].reset();
    }
  }
  void syncComplete() override {
    counters().sequence = syncSequence();
    completed.push_back(syncer.mode());
    connected_ = true;
    maybeEnableRipple();
    handleQuiesced(quiesced());
  }
  void flushComplete() override { ++flushCompletes; }
  void handleQuiesced(bool caughtUp) override { quiescedCalls.push_back(caughtUp); }
  void corruptionDetected(const std::string & message) override { corruptions.push_back(message); }
  void handleDisconnect() override { ++disconnects; }
  uint32_t localCapacity() const override { return static_cast<uint32_t>(slots.size()); }
  bool resize() const override { return reader.doResize(); }
  uint32_t capacity() const override { return reader.capacity(); }
  bool quiesced() const override { return rippleReader.quiesced(); }

  bool firstWalkDone() const { return connected_; }
  // The copy by key number; throws if a key lies in two slots.
  Model copy() const {
    Model byKey;
    for (const auto & slot : slots) {
      if (slot && !byKey.emplace(slot->key.number, *slot).second) {
        throw std::runtime_error("MapShadow::copy() a key in two slots");
      }
    }
    return byKey;
  }
  // The slot calls that carried a queue entry's sequence.
  std::vector<Call> entryCalls() const {
    std::vector<Call> entries;
    for (const Call & call : slotCalls) {
      if (call.sequence != Cairn::Syncer::NoSequence) {
        entries.push_back(call);
      }
    }
    return entries;
  }
  void clearRecords() {
    slotCalls.clear();
    updated.clear();
    deleted.clear();
    quiescedCalls.clear();
  }

  Reader reader;
  std::vector<std::optional<Value>> slots;
  std::vector<Call> slotCalls;
  std::vector<uint64_t> updated;
  std::vector<uint64_t> deleted;
  std::vector<unsigned> flushed;
  std::vector<Cairn::SyncerMode> completed;
  std::vector<bool> quiescedCalls;
  std::vector<std::string> corruptions;
  unsigned flushCompletes = 0;
  unsigned disconnects = 0;
  unsigned failures = 0;
  std::string entryFault;  // when set, a queue entry raises corruption with this text
  std::function<void()> onLiveSlot;  // when set, runs as a queue entry is applied
};

}  // namespace ShadowTest

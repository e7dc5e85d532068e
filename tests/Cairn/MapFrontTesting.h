#pragma once
// What the tests of the map front share: a map over the test table, backends
// of the tests' own (one that reports corruption, one that stands for a
// reader or shadow attached to a writer's files), a log of the map's
// callbacks in their order, and handler masks set for the life of a test.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ArenaFiles/EpochFile.h"
#include "Basalt/DebugHandlerRegistry.h"
#include "Cairn/CairnMap.h"
#include "Cairn/WriterTestTypes.h"

namespace MapFrontTest {

using Value = CairnTest::IifSizedValue;
using Key = CairnTest::NumberKey;
using Ops = CairnTest::OpsFor<Value>;
using Map = Cairn::CairnMap<Key, Value, Ops>;
using Interface = Cairn::CairnInterface<Key, Value>;
using Dummy = Cairn::CairnDummy<Key, Value, Ops>;
using StrictDummy = Cairn::CairnStrictDummy<Key, Value, Ops>;
using Writer = Cairn::CairnWriter<Key, Value, Ops>;
using TmpWriter = Cairn::Tmp<Key, Value, Ops>;

// The callbacks a map made, as "value:<n>", "key:<n>", "delete:<n>",
// "mountStatus" and "quiesced:<true|false>", in their order.
struct CallbackLog {
  std::vector<std::string> calls;

  Map::Callbacks callbacks() {
    return Map::Callbacks([this](const Value & value) { calls.push_back("value:" + std::to_string(value.key.number)); },
                          [this](const Key & key) { calls.push_back("key:" + std::to_string(key.number)); },
                          [this](const Key & key) { calls.push_back("delete:" + std::to_string(key.number)); },
                          [this] { calls.push_back("mountStatus"); },
                          [this](bool quiesced) { calls.push_back(quiesced ? "quiesced:true" : "quiesced:false"); });
  }
};

// A backend whose every data operation finds the files corrupt.
class CorruptBackend : public Dummy {
 public:
  using Dummy::Dummy;
  static constexpr const char * Message = "SlotReader::Slots::operator[] out-of-range index:77 numSlots:8";

  const Value * lookup(const Key &, bool & found, Value *) const override {
    found = true;  // what the backend left is what the caller sees
    throw Basalt::CorruptionDetectedException(Message);
  }
  const Value * write(const Value &, bool) override { throw Basalt::CorruptionDetectedException(Message); }
  bool remove(const Key &, Value &) override { throw Basalt::CorruptionDetectedException(Message); }
  void directCommit() override { throw Basalt::CorruptionDetectedException(Message); }
};

// Stands for a reader (or a shadow) on a writer's files: initialize takes the
// generation of the epoch file, and succeeds when there is one. It records
// what a map hands it.
class FakeReader : public Dummy {
 public:
  FakeReader(Basalt::Platform::DebugHandler & handler, const std::string & name, const Ops & ops,
             Cairn::CairnType type = Cairn::CairnType::reader)
      : Dummy(handler, name, ops, nullptr, false), type_(type) {}

  bool initialize(const std::string & event) override {
    events.push_back(event);
    epochId_ = ArenaFiles::EpochFile(this->debugHandler(), this->rootPath_.directory(), false).read();
    return succeeds && !epochId_.none();
  }
  void detach(bool) override {
    ++detaches;
    epochId_ = ArenaFiles::EpochId();
  }
  uint32_t mountStatus() const override { return flushPending ? 3 : epochId_.none() ? 0 : mounted; }
  Cairn::CairnType type() const override { return type_; }
  ArenaFiles::EpochId epochId() const override { return epochId_; }
  bool connected() const override { return isConnected; }
  void sampleIs(uint32_t value) override { sample = value; }
  void yieldTimeIs(double value) override { yieldTime = value; }
  void notifyingIs(bool value) override { notifying = value; }

  std::vector<std::string> events;
  int detaches = 0;
  bool succeeds = true;
  uint32_t mounted = 1;  // the status while attached
  bool flushPending = false;  // a shadow whose asynchronous flush runs: status 3 whatever else
  bool isConnected = false;
  uint32_t sample = 0;
  double yieldTime = 0;
  bool notifying = false;

 private:
  Cairn::CairnType type_;
  ArenaFiles::EpochId epochId_;
};

// A map whose attach makes a backend of the test's choosing, and whose
// backend a test can replace.
class TestMap : public Map {
 public:
  using Map::Map;
  using Factory = std::function<Interface *(TestMap &)>;

  void backendIs(Interface * backend) { Map::backendIs(backend); }
  void attachFactoryIs(Factory factory) { factory_ = std::move(factory); }

  // The fake reader attach made last, while it is the backend.
  FakeReader * fakeReader() const { return dynamic_cast<FakeReader *>(backend()); }

  // Makes FakeReaders of the map's mode from here on.
  void attachFakeReaders(uint32_t mounted = 1) {
    attachFactoryIs([mounted](TestMap & map) {
      auto * reader = new FakeReader(map.debugHandler(), map.path(), map.ops(), map.mode());
      reader->mounted = mounted;
      return reader;
    });
  }

 protected:
  Interface * makeAttachBackend() override { return factory_ ? factory_(*this) : nullptr; }

 private:
  Factory factory_;
};

// Sets the mask of a named handler for the life of the object.
class ScopedMask {
 public:
  ScopedMask(const std::string & name, uint32_t mask)
      : handler_(Basalt::Platform::getDebugHandler(name)), saved_(handler_->mask()) {
    handler_->maskIs(mask);
  }
  ~ScopedMask() { handler_->maskIs(saved_); }

 private:
  std::shared_ptr<Basalt::Platform::DebugHandler> handler_;
  uint32_t saved_;
};

constexpr uint32_t Levels0125 = 0x27;

// The message of the exception E that `action` raises.
template <typename E>
std::string messageOf(const std::function<void()> & action) {
  try {
    action();
  } catch (const E & exception) {
    return exception.what();
  }
  ADD_FAILURE() << "no exception of the expected type";
  return {};
}

// The text of the Basalt::AssertException that `operation` raises.
inline std::string assertionText(const std::function<void()> & operation) {
  try {
    operation();
  } catch (const Basalt::AssertException & exception) {
    return exception.what();
  }
  return "no assertion";
}

// A descriptor of a shared table.
inline Cairn::MapDescriptor descriptorOf(Cairn::CairnType mode, uint32_t maxSlots = 64) {
  Cairn::MapDescriptor descriptor;
  descriptor.mode = mode;
  descriptor.maxSlots = maxSlots;
  return descriptor;
}

// Runs the process loop until `done`, failing the test after 10 seconds.
inline bool runUntil(const std::function<bool()> & done) {
  const bool reached = Loop::processLoop().runUntil(done, std::chrono::seconds(10));
  EXPECT_TRUE(reached) << "the loop did not get there in 10 s";
  return reached;
}

template <typename T>
bool isA(const Interface * backend) {
  return dynamic_cast<const T *>(backend) != nullptr;
}

}  // namespace MapFrontTest

#pragma once
// Writers used by the writer tests: the L3Iif Config table, and a made-up
// table whose values are as large as an L3Tunnel Config entry.

#include <functional>
#include <memory>
#include <string>

#include "Cairn/CairnWriter.h"
#include "Cairn/SlotTestTypes.h"
#include "Rig/Hash.h"

namespace CairnTest {

// A key of one number, hashed as the L3Iif key is.
struct NumberKey {
  uint64_t number = 0;
  bool operator==(const NumberKey &) const = default;
  bool operator<(const NumberKey & other) const { return number < other.number; }
  uint32_t hash(uint32_t seed) const { return Rig::hashSingleAttr(seed, number); }
};

inline std::string valueToStrep(const NumberKey & key) { return std::to_string(key.number); }

// A value of Size bytes: its key, a version and a checksum-like fill, so that
// a test can tell one write of a key from another.
template <std::size_t Size>
struct NumberValue {
  NumberKey key;
  uint64_t version = 0;
  unsigned char fill[Size - 16] = {};

  NumberValue() = default;
  explicit NumberValue(const NumberKey & k) : key(k) {}
  NumberValue(uint64_t number, uint64_t v) : key{number}, version(v) {
    for (std::size_t i = 0; i < sizeof(fill); ++i) {
      fill[i] = static_cast<unsigned char>(number * 31 + v * 7 + i);
    }
  }
  const NumberKey & fwkKey() const { return key; }
  bool operator==(const NumberValue & other) const {
    return key == other.key && version == other.version &&
           std::equal(std::begin(fill), std::end(fill), std::begin(other.fill));
  }
  static std::string_view typeName() { return "CairnTest::NumberValue"; }
};

template <std::size_t Size>
std::string valueToStrep(const NumberValue<Size> & value) {
  return std::to_string(value.key.number) + "/v" + std::to_string(value.version);
}

using TunnelSizedValue = NumberValue<224>;
using IifSizedValue = NumberValue<48>;

template <typename Value>
using WriterFor = Cairn::CairnWriter<typename OpsFor<Value>::Key, Value, OpsFor<Value>>;

inline Cairn::MapDescriptor sharedDescriptor(uint32_t maxSlots) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = maxSlots;
  return descriptor;
}

// A writer on a table under a temporary base directory, initialized.
template <typename Value, typename Writer = WriterFor<Value>>
struct WriterHarness {
  explicit WriterHarness(const Cairn::MapDescriptor & descriptor, std::string name = "test/writer")
      : writer(std::make_unique<Writer>(handler, name, descriptor, OpsFor<Value>(), "TestClass",
                                        [this](bool quiesced) { quiescedCalls.push_back(quiesced); })) {
    writer->initialize(name);
  }

  ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"writer-test"};
  std::vector<bool> quiescedCalls;
  std::unique_ptr<Writer> writer;
};

}  // namespace CairnTest

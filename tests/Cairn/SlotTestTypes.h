#pragma once
// Tables used by the slot tests: the L3Iif Config and Status entries, and
// made-up values of chosen sizes (a 224-byte value, and one so large that a
// page holds only the header).

#include <cstdlib>
#include <string>
#include <string_view>

#include "Cairn/Operations.h"
#include "Cairn/SlotWriter.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "Support/TempDir.h"
#include "TesselHwLib/L3IifTH3.h"

namespace CairnTest {

using ConfigValue = RigCairn::ValueWrapperOf<TesselHwLib::L3IifTH3ConfigEntry>;
using StatusValue = RigCairn::ValueWrapperOf<TesselHwLib::L3IifTH3StatusEntry>;

// A value of Size bytes whose key is its first word; its type name has
// NameLength characters.
template <std::size_t Size, std::size_t NameLength = 20>
struct SizedValue {
  uint64_t key = 0;
  unsigned char rest[Size - 8] = {};
  const uint64_t & fwkKey() const { return key; }
  bool operator==(const SizedValue & other) const { return key == other.key; }
  static std::string_view typeName() {
    static const std::string name(NameLength, 'v');
    return name;
  }
};

template <std::size_t Size, std::size_t NameLength>
std::string valueToStrep(const SizedValue<Size, NameLength> & value) {
  return std::to_string(value.key);
}

template <typename Value>
using OpsFor = Cairn::Ops<typename std::remove_cvref_t<decltype(std::declval<Value>().fwkKey())>, Value>;

template <typename Value>
using WriterTableFor =
    Cairn::SlotWriterTable<typename OpsFor<Value>::Key, Value, OpsFor<Value>>;

// Points the tables' base directory at a fresh temporary directory while it lives.
class ScopedShmRoot {
 public:
  ScopedShmRoot() { setenv(Cairn::RootPath::baseVariable, dir_.path().c_str(), 1); }
  ~ScopedShmRoot() { unsetenv(Cairn::RootPath::baseVariable); }
  const std::string & path() const { return dir_.path(); }

 private:
  TestSupport::TempDir dir_;
};

// One slot writer table with everything it needs.
template <typename Value>
struct WriterFixture {
  using Table = WriterTableFor<Value>;
  using Config = typename Table::Config;

  explicit WriterFixture(const Config & config, std::string name = "test/table")
      : rootPath(handler, name, !config.localMem),
        table(std::make_unique<Table>(handler, rootPath, ops, counters, config)) {}

  // A fresh table object on the same files, as a restarted writer has.
  void restart(const Config & config) {
    table.reset();
    table = std::make_unique<Table>(handler, rootPath, ops, counters, config);
  }

  Basalt::Platform::DebugHandler handler{"slot-test"};
  Cairn::RootPath rootPath;
  OpsFor<Value> ops;
  Cairn::Writer::Counters counters;
  std::unique_ptr<Table> table;
};

}  // namespace CairnTest

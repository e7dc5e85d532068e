// tessel: the project's command-line tool.
//
//   tessel demo   creates an L3Iif Config slot file under a temporary base
//                 directory, fills it, re-attaches it as the next writer of the
//                 same generation would, and prints the header and the entries.
//   tessel types  lists every type the library registered, with its
//                 attributes, from the runtime's registry alone.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <fmt/format.h>

#include "Cairn/Operations.h"
#include "Cairn/SlotWriter.h"
#include "Rig/TypeRegistry.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "TesselHwLib/L3IifTH3.h"

namespace {

using Entry = TesselHwLib::L3IifTH3ConfigEntry;
using Value = RigCairn::ValueWrapperOf<Entry>;
using Ops = Cairn::Ops<TesselHwLib::L3IifTH3Key, Value>;
using Table = Cairn::SlotWriterTable<TesselHwLib::L3IifTH3Key, Value, Ops>;

Entry demoEntry(uint64_t index) {
  Entry entry(TesselHwLib::L3IifTH3Key(100 + index));
  entry.genIdIs(1);
  entry.entryHandleIs(index);
  entry.validIs(true);
  entry.vrfIs(static_cast<uint16_t>(index % 4));
  entry.classIdIs(static_cast<uint16_t>(10 * index));
  return entry;
}

void fill(Table & table, uint64_t count) {
  for (uint64_t index = 0; index < count; ++index) {
    const Value value(demoEntry(index));
    const uint32_t slotIndex = table.alloc(value.fwkKey().hash(0));
    auto * slot = table.slots()[slotIndex];
    Cairn::Marshall<Value>::toSlot(&slot->value, value);
    Arena::Atomics::publish32(slot->flags, Cairn::OCCUPIED);
  }
}

void print(const Table & table) {
  fmt::print("{}\n", table.header()->toString());
  for (uint32_t index = 0; index < table.capacity(); ++index) {
    const auto * slot = table.slots()[index];
    if (slot->flags & Cairn::OCCUPIED) {
      Value value;
      Cairn::Marshall<Value>::fromSlot(value, &slot->value);
      fmt::print("slot {:3}: {}\n", index, valueToStrep(value));
    }
  }
}

int demo() {
  std::string base = (std::filesystem::temp_directory_path() / "tessel-demo-XXXXXX").string();
  if (mkdtemp(base.data()) == nullptr) {
    fmt::print(stderr, "tessel demo: cannot make a temporary directory\n");
    return 1;
  }
  setenv(Cairn::RootPath::baseVariable, base.c_str(), 1);
  Basalt::Platform::DebugHandler handler("demo");
  Cairn::RootPath rootPath(handler, "demo/l3IifConfig", true);
  Ops ops;
  Cairn::Writer::Counters counters;
  Table::Config config{.tableSize = 64, .classType = "L3IifTH3Config"};
  const auto epoch = ArenaFiles::EpochId::of(0, static_cast<uint16_t>(getpid()));

  int result;
  {
    Table first(handler, rootPath, ops, counters, config);
    result = first.attach(epoch);
    fmt::print("first writer: attach result {} (1 new) at {}\n", result, first.fileName());
    fill(first, 40);
  }
  Table second(handler, rootPath, ops, counters, config);
  result = second.attach(epoch);
  fmt::print("second writer, same generation: attach result {} (2 kept)\n", result);
  print(second);
  std::filesystem::remove_all(base);
  return 0;
}

int types() {
  for (const Rig::RigType * type : Rig::typeNodes()) {
    fmt::print("{}", Rig::describe(*type));
  }
  return 0;
}

}  // namespace

int main(int argc, char ** argv) {
  const std::string command = argc > 1 ? argv[1] : "demo";
  if (command == "demo") {
    return demo();
  }
  if (command == "types") {
    return types();
  }
  fmt::print(stderr, "usage: tessel demo | tessel types\n");
  return 2;
}

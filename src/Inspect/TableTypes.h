#pragma once
// Inspect::TableTypes: the one place that ties a table's files to the record
// type they hold. A slot file names its value type in its header; a command
// that works on entries is written once, as a visitor, and called here with
// the entry type the name stands for. No command names a table type.

#include <string_view>

#include "Cairn/Operations.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "TesselHwLib/L3IifTH3.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TesselHwLib/MyStationTcamTH3.h"

namespace Inspect {

// The engine's types for a table of `Entry` records.
template <typename E>
struct TableType {
  using Entry = E;
  using Key = typename Entry::KeyType;
  using Value = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Value>;
};

template <typename... Entries>
struct TableTypeList {
  // Calls visit(TableType<Entry>{}) for the entry type whose name is
  // `valueType`; false, having called nothing, when no table holds it.
  template <typename Visit>
  static bool dispatch(std::string_view valueType, Visit && visit) {
    return ((valueType == TableType<Entries>::Value::typeName() ? (visit(TableType<Entries>{}), true) : false) ||
            ...);
  }
};

using TableTypes = TableTypeList<TesselHwLib::L3IifTH3ConfigEntry, TesselHwLib::L3IifTH3StatusEntry,
                                 TesselHwLib::L3TunnelTH3ConfigEntry, TesselHwLib::L3TunnelTH3StatusEntry,
                                 TesselHwLib::MyStationTcamTH3ConfigEntry, TesselHwLib::MyStationTcamTH3StatusEntry>;

}  // namespace Inspect

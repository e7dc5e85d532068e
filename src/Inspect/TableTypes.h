#pragma once
// Inspect::TableTypes: the one place that ties a table's files to the record
// type they hold. A slot file names its value type in its header; a command
// that works on entries is written once, as a visitor, and called here with
// the collection and entry type the name stands for. No command names a
// table type.

#include <string>
#include <string_view>
#include <typeinfo>

#include "Cairn/Operations.h"
#include "Rig/RigType.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "TesselHwLib/TesselHwLibTypesTH3.h"

namespace Inspect {

// The engine's types for a table of collection C.
template <typename C>
struct TableType {
  using Collection = C;
  using Entry = typename C::EntryType;
  using Key = typename Entry::KeyType;
  using Value = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Value>;

  // The class name a collection's writer records in the slot file's header.
  static std::string classType() { return Rig::demangleStdString(typeid(C)); }
};

template <typename... Collections>
struct TableTypeList {
  // Calls visit(TableType<C>{}) for the collection whose entries' type name
  // is `valueType`; false, having called nothing, when no table holds it.
  template <typename Visit>
  static bool dispatch(std::string_view valueType, Visit && visit) {
    return ((valueType == TableType<Collections>::Value::typeName() ? (visit(TableType<Collections>{}), true)
                                                                    : false) ||
            ...);
  }
};

using TableTypes = TableTypeList<TesselHwLib::L3IifTH3Config, TesselHwLib::L3IifTH3Status,
                                 TesselHwLib::L3TunnelTH3Config, TesselHwLib::L3TunnelTH3Status,
                                 TesselHwLib::MyStationTcamTH3Config, TesselHwLib::MyStationTcamTH3Status>;

}  // namespace Inspect

#pragma once
// The table objects of the TH3 chip family: six collections, one Config and
// one Status per table, three P4R table objects that pair them, and the
// nine factories through which they are made. Each is an instance of one
// generic design (TesselHwLib/Collection.h, TesselHwLib/P4RTable.h); a class
// here adds only its name and its type record.
//
//   Collection               Key                   Entry
//   L3IifTH3Config           L3IifTH3Key           L3IifTH3ConfigEntry
//   L3IifTH3Status           L3IifTH3Key           L3IifTH3StatusEntry
//   L3TunnelTH3Config        L3TunnelTH3Key        L3TunnelTH3ConfigEntry
//   L3TunnelTH3Status        L3TunnelTH3Key        L3TunnelTH3StatusEntry
//   MyStationTcamTH3Config   MyStationTcamTH3Key   MyStationTcamTH3ConfigEntry
//   MyStationTcamTH3Status   MyStationTcamTH3Key   MyStationTcamTH3StatusEntry

#include "Rig/Ptr.h"
#include "Rig/RigType.h"
#include "Rig/String.h"
#include "TesselHwLib/Collection.h"
#include "TesselHwLib/L3IifTH3.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TesselHwLib/MyStationTcamTH3.h"
#include "TesselHwLib/P4RTable.h"

// class Name, an instance of Design<Name, Arguments...> with its type record
// (defined with all the library's records, TesselHwLibTypesTH3Reflection.cpp).
#define TESSEL_TABLE_OBJECT(Name, Design, ...)          \
  class Name final : public Design<Name, __VA_ARGS__> { \
   public:                                              \
    using Design<Name, __VA_ARGS__>::Design;            \
    static const Rig::RigType _rigType;                 \
  };

namespace TesselHwLib {

TESSEL_TABLE_OBJECT(L3IifTH3Config, Collection, L3IifTH3ConfigEntry)
TESSEL_TABLE_OBJECT(L3IifTH3Status, Collection, L3IifTH3StatusEntry)
TESSEL_TABLE_OBJECT(L3TunnelTH3Config, Collection, L3TunnelTH3ConfigEntry)
TESSEL_TABLE_OBJECT(L3TunnelTH3Status, Collection, L3TunnelTH3StatusEntry)
TESSEL_TABLE_OBJECT(MyStationTcamTH3Config, Collection, MyStationTcamTH3ConfigEntry)
TESSEL_TABLE_OBJECT(MyStationTcamTH3Status, Collection, MyStationTcamTH3StatusEntry)

TESSEL_TABLE_OBJECT(P4RL3IifTableTH3, P4RTable, L3IifTH3Config, L3IifTH3Status)
TESSEL_TABLE_OBJECT(P4RL3TunnelTableTH3, P4RTable, L3TunnelTH3Config, L3TunnelTH3Status)
TESSEL_TABLE_OBJECT(P4RMyStationTcamTableTH3, P4RTable, MyStationTcamTH3Config, MyStationTcamTH3Status)

using L3IifTH3ConfigZeroReferencesNotifiee = L3IifTH3Config::ZeroReferencesNotifiee;
using L3IifTH3StatusZeroReferencesNotifiee = L3IifTH3Status::ZeroReferencesNotifiee;
using L3TunnelTH3ConfigZeroReferencesNotifiee = L3TunnelTH3Config::ZeroReferencesNotifiee;
using L3TunnelTH3StatusZeroReferencesNotifiee = L3TunnelTH3Status::ZeroReferencesNotifiee;
using MyStationTcamTH3ConfigZeroReferencesNotifiee = MyStationTcamTH3Config::ZeroReferencesNotifiee;
using MyStationTcamTH3StatusZeroReferencesNotifiee = MyStationTcamTH3Status::ZeroReferencesNotifiee;

// Each makes its object through Rig::make: counted, tracked, notification
// active before the caller gets it.
Rig::Ptr<L3IifTH3Config> l3IifTH3ConfigFactory(Rig::Name name);
Rig::Ptr<L3IifTH3Status> l3IifTH3StatusFactory(Rig::Name name);
Rig::Ptr<L3TunnelTH3Config> l3TunnelTH3ConfigFactory(Rig::Name name);
Rig::Ptr<L3TunnelTH3Status> l3TunnelTH3StatusFactory(Rig::Name name);
Rig::Ptr<MyStationTcamTH3Config> myStationTcamTH3ConfigFactory(Rig::Name name);
Rig::Ptr<MyStationTcamTH3Status> myStationTcamTH3StatusFactory(Rig::Name name);
Rig::Ptr<P4RL3IifTableTH3> p4RL3IifTableTH3Factory(Rig::Name name);
Rig::Ptr<P4RL3TunnelTableTH3> p4RL3TunnelTableTH3Factory(Rig::Name name);
Rig::Ptr<P4RMyStationTcamTableTH3> p4RMyStationTcamTableTH3Factory(Rig::Name name);

}  // namespace TesselHwLib

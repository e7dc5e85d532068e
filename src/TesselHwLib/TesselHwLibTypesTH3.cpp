#include "TesselHwLib/TesselHwLibTypesTH3.h"

#include "Rig/Factory.h"

namespace TesselHwLib {

Rig::Ptr<L3IifTH3Config> l3IifTH3ConfigFactory(Rig::Name name) { return Rig::make<L3IifTH3Config>(name); }
Rig::Ptr<L3IifTH3Status> l3IifTH3StatusFactory(Rig::Name name) { return Rig::make<L3IifTH3Status>(name); }
Rig::Ptr<L3TunnelTH3Config> l3TunnelTH3ConfigFactory(Rig::Name name) { return Rig::make<L3TunnelTH3Config>(name); }
Rig::Ptr<L3TunnelTH3Status> l3TunnelTH3StatusFactory(Rig::Name name) { return Rig::make<L3TunnelTH3Status>(name); }
Rig::Ptr<MyStationTcamTH3Config> myStationTcamTH3ConfigFactory(Rig::Name name) {
  return Rig::make<MyStationTcamTH3Config>(name);
}
Rig::Ptr<MyStationTcamTH3Status> myStationTcamTH3StatusFactory(Rig::Name name) {
  return Rig::make<MyStationTcamTH3Status>(name);
}
Rig::Ptr<P4RL3IifTableTH3> p4RL3IifTableTH3Factory(Rig::Name name) { return Rig::make<P4RL3IifTableTH3>(name); }
Rig::Ptr<P4RL3TunnelTableTH3> p4RL3TunnelTableTH3Factory(Rig::Name name) {
  return Rig::make<P4RL3TunnelTableTH3>(name);
}
Rig::Ptr<P4RMyStationTcamTableTH3> p4RMyStationTcamTableTH3Factory(Rig::Name name) {
  return Rig::make<P4RMyStationTcamTableTH3>(name);
}

}  // namespace TesselHwLib

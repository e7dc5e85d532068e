// A program from outside the project, built against the installed package:
// it writes an entry into an L3Iif Config table in local memory through its
// collection and reads it back, and counts the registered types.

#include <fmt/format.h>

#include "Cairn/MapDescriptor.h"
#include "Rig/Directory.h"
#include "Rig/TypeRegistry.h"
#include "TesselHwLib/TesselHwLibTypesTH3.h"

int main() {
  auto agent = Rig::make<Rig::Directory>(Rig::Name("agent"));
  auto config = TesselHwLib::l3IifTH3ConfigFactory(Rig::Name("l3Iif"));
  agent->entityIs(config);
  config->tableControl()->mount(Cairn::MapDescriptor(64));
  TesselHwLib::L3IifTH3ConfigEntry entry(TesselHwLib::L3IifTH3Key(7));
  entry.vrfIs(3);
  config->tableIs(entry);
  bool found = false;
  const auto * value = config->table().safeLookup(entry.key(), found);
  const unsigned vrf = value->value.vrf();
  config->tableControl()->unmount();
  fmt::print("consumer: {} types, key 7 found {} vrf {}\n", Rig::typeNodes().size(), found, vrf);
  return found && vrf == 3 ? 0 : 1;
}

#pragma once
// Rig::RigType: the runtime's record of a registered type: its full name and
// its base's record. Reflection adds the type's attributes and operations to
// the records it registers; an entity answers fwkType() with its own.

#include <string>
#include <typeinfo>

namespace Rig {

struct RigType {
  const char * name = nullptr;
  const RigType * base = nullptr;

  // True when `base` is this type or one of its bases.
  bool isDerived(const RigType * base) const;
};

// The readable name of a compiled type ("TesselHwLib::L3IifTH3Config").
std::string demangleStdString(const std::type_info & type);

}  // namespace Rig

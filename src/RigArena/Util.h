#pragma once
// The tree path of an entity: the names of its chain of parents from the
// root down to the entity itself, joined by "/" ("agent/l3/config"). A map's
// table path is made from it, so two entities of one name under different
// parents have different tables.

#include <string>

#include "Rig/Entity.h"

namespace RigArena::Util {

std::string fullName(const Rig::Entity * entity);

}  // namespace RigArena::Util

#pragma once
// What the generic walk of the registered types needs from typed code: live
// content for a collection it made by name. Its declarations name no table
// type, so that the walk itself knows none.

#include <cstdint>

#include "Rig/Entity.h"

namespace ReflectionTest {

// Writes `count` distinct, valid entries into `collection`, one of the
// library's collections reached as an entity; false for any other entity.
bool fill(Rig::Entity & collection, uint64_t count);

}  // namespace ReflectionTest

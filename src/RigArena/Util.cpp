#include "RigArena/Util.h"

namespace RigArena::Util {

std::string fullName(const Rig::Entity * entity) {
  std::string path = entity->name();
  for (const Rig::Entity * parent = entity->parent(); parent != nullptr; parent = parent->parent()) {
    path = parent->name() + "/" + path;
  }
  return path;
}

}  // namespace RigArena::Util

#include "Rig/Directory.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Rig {

Directory::~Directory() {
  while (!children_.empty()) {
    entityDel(children_.begin()->first);
  }
}

void Directory::entityIs(const Ptr<Entity> & child) {
  const Name childName = child->name();
  if (children_.contains(childName)) {
    throw Basalt::InvalidInitializeException(
        fmt::format("Directory::entityIs() {} already has an entity named {}", name(), childName));
  }
  if (child->parent() != nullptr) {
    throw Basalt::InvalidInitializeException(
        fmt::format("Directory::entityIs() entity {} already has a parent {}", childName, child->parent()->name()));
  }
  children_.emplace(childName, child);
  try {
    child->parentIs(this);
  } catch (...) {
    // Refused by the child: the directory stays as it was.
    children_.erase(childName);
    throw;
  }
}

void Directory::entityDel(const Name & childName) {
  const auto found = children_.find(childName);
  if (found == children_.end()) {
    return;
  }
  // Out of the map first: the child's handleParent may look at the tree.
  const Ptr<Entity> child = std::move(found->second);
  children_.erase(found);
  child->parentIs(nullptr);
}

Ptr<Entity> Directory::entity(const Name & childName) const {
  const auto found = children_.find(childName);
  return found == children_.end() ? Ptr<Entity>() : found->second;
}

}  // namespace Rig

#include "RigArena/CollectionControl.h"

#include <utility>

namespace RigArena {

void CollectionControl::entityRefIs(const Rig::Ptr<Rig::Entity> & entity) {
  if (mounted_ || !entity) {
    entityRef_ = entity;
  }
}

void CollectionControl::mountedIs(bool mounted) {
  if (mounted == mounted_) {
    return;
  }
  mounted_ = mounted;
  if (mounted) {
    selfRef_ = this;
    return;
  }
  // Moved out first: each release may destroy the collection, then this
  // control (life rule 3).
  Rig::Ptr<Rig::Entity> entity = std::move(entityRef_);
  Rig::Ptr<CollectionControl> self = std::move(selfRef_);
  entity = nullptr;
  self = nullptr;
}

}  // namespace RigArena

#include "Rig/Entity.h"

namespace Rig {

void Entity::parentIs(Entity * parent) {
  Entity * const previous = parent_;
  parent_ = parent;
  if (parent == nullptr) {
    handleParent(nullptr);
    return;
  }
  // handleParent takes a counted pointer, yet the link is not counted
  // (contract 1): a parent that nobody holds yet, one that places children
  // from its own constructor, comes out of the call as it went in, alive at
  // zero references, instead of being destroyed by the call's last Ptr. The
  // count goes back down also when handleParent refuses the parent by an
  // exception, and the entity then keeps the parent it had.
  struct Uncounted {
    Entity * entity;
    ~Uncounted() { entity->delRef(); }
  };
  parent->newRef();
  const Uncounted uncounted{parent};
  try {
    handleParent(Ptr<Entity>(parent));
  } catch (...) {
    parent_ = previous;
    throw;
  }
}

}  // namespace Rig

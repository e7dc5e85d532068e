#include "Rig/Entity.h"

namespace Rig {

void Entity::parentIs(Entity * parent) {
  parent_ = parent;
  if (parent == nullptr) {
    handleParent(nullptr);
    return;
  }
  // handleParent takes a counted pointer, yet the link is not counted
  // (contract 1): a parent that nobody holds yet, one that places children
  // from its own constructor, comes out of the call as it went in, alive at
  // zero references, instead of being destroyed by the call's last Ptr.
  parent->newRef();
  handleParent(Ptr<Entity>(parent));
  parent->delRef();
}

}  // namespace Rig

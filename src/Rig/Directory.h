#pragma once
// Rig::Directory: an entity that holds named children, the inner node of
// the runtime's tree. Placing a child makes the directory its parent;
// removing it, or the directory's end, makes it an orphan (parent null).
//
// Invariants:
// 1. The directory holds one counted reference to each child, under the
//    child's name; names are unique among its children.
// 2. A child's parent() is the directory exactly while it is a child.

#include <map>

#include "Rig/Entity.h"

namespace Rig {

class Directory : public Entity {
 public:
  using Entity::Entity;
  ~Directory() override;

  // Places `child` under its name; Basalt::InvalidInitializeException if a
  // child of that name is there already or `child` has another parent.
  void entityIs(const Ptr<Entity> & child);
  // Takes the child of `name` out of the tree; no child of that name is not
  // an error.
  void entityDel(const Name & name);
  Ptr<Entity> entity(const Name & name) const;
  size_t entities() const { return children_.size(); }

 private:
  std::map<Name, Ptr<Entity>> children_;
};

}  // namespace Rig

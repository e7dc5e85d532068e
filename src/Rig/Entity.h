#pragma once
// Rig::Entity: a named, counted object of the runtime's tree. An entity has
// at most one parent at a time; its place in the tree is its chain of
// parents, and its full name is the chain's names (RigArena/Util.h).
//
// Contract:
// 1. The parent link is not counted: a parent holds its children (see
//    Rig::Directory), and a child only points back. A parent that goes
//    takes its children out of the tree first.
// 2. parentIs sets the link, then calls handleParent with the new parent
//    (null when the entity leaves the tree), so that an entity that binds
//    resources to its place can follow it. The default does nothing. An
//    entity may refuse a parent by raising from handleParent: it then keeps
//    the parent it had, and a Directory that was placing it does not hold it.

#include "Rig/NotifieeList.h"
#include "Rig/Ptr.h"
#include "Rig/RigType.h"
#include "Rig/String.h"

namespace Rig {

class Entity : public PtrInterface {
 public:
  // The record of the base of every entity type, with the attributes every
  // entity has (Rig/GenericIf.h).
  static const RigType _rigType;

  explicit Entity(Name name) : name_(std::move(name)) {}

  // The name given at construction.
  virtual Name name() const { return name_; }
  Entity * parent() const { return parent_; }
  void parentIs(Entity * parent);
  virtual void handleParent(Ptr<Entity> /*parent*/) {}
  // The record of the entity's registered type; null for a type with none.
  virtual const RigType * fwkType() const { return nullptr; }

 private:
  Name name_;
  Entity * parent_ = nullptr;
};

}  // namespace Rig

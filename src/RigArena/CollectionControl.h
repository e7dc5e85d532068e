#pragma once
// RigArena::CollectionControl: the control object of one collection, the
// part that does not depend on the kind of store. It records what the
// collection reports (its mount status) and keeps the collection alive while
// the control layer has it mounted.
//
// Life of a mounted collection:
// 1. The control layer mounts it (mountedIs(true)). From then on the control
//    holds a reference to itself, so that it lives while mounted even when
//    nobody else holds it.
// 2. When the collection's last outside reference goes, the collection hands
//    a reference to itself to entityRefIs. While mounted the control keeps
//    it: the collection does not die with its table mounted. While not
//    mounted the control takes nothing, and the collection dies.
// 3. When the control layer unmounts it (mountedIs(false)), the control lets
//    go of the collection it kept and of itself, in that order; either may
//    be destroyed by that, so nothing touches the control after.

#include <cstdint>

#include "Rig/Entity.h"
#include "Rig/Ptr.h"

namespace RigArena {

class CollectionControl : public Rig::PtrInterface {
 public:
  uint32_t mountStatus() const { return mountStatus_; }
  void mountStatusIs(uint32_t status) { mountStatus_ = status; }

  // Life rule 2.
  void entityRefIs(const Rig::Ptr<Rig::Entity> & entity);
  const Rig::Ptr<Rig::Entity> & entityRef() const { return entityRef_; }

  bool mounted() const { return mounted_; }

 protected:
  // Life rules 1 and 3.
  void mountedIs(bool mounted);

 private:
  uint32_t mountStatus_ = 0;
  bool mounted_ = false;
  Rig::Ptr<Rig::Entity> entityRef_;
  Rig::Ptr<CollectionControl> selfRef_;
};

}  // namespace RigArena

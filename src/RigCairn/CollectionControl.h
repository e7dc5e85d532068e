#pragma once
// RigCairn::CollectionControl: the control object through which an agent
// mounts a collection's table and takes it down, and which hears the
// table's quiesced and mount-status reports. The table is reached as a
// Cairn::ControlBase, its map.
//
// Contract:
// 1. mount(descriptor) initialises the table as the descriptor tells (the
//    mode is a field of the descriptor: the same collection class is a
//    writer in one process and a reader in another), and then holds the
//    collection alive while it is mounted (RigArena/CollectionControl.h).
// 2. unmount() and cleanupAndUnmount() take the table off its files (the
//    second erases them first), then let the collection go: if nobody else
//    holds it, the collection, and with it the control, is destroyed.
// 3. A collection that dies while not mounted tells its control, which then
//    refuses to mount with Basalt::InvalidInitializeException.

#include "Cairn/ControlBase.h"
#include "Cairn/MapDescriptor.h"
#include "RigArena/CollectionControl.h"

namespace RigCairn {

class CollectionControl : public RigArena::CollectionControl {
 public:
  explicit CollectionControl(Cairn::ControlBase & table) : table_(&table) {}

  void mount(const Cairn::MapDescriptor & descriptor);
  void unmount();
  void cleanupAndUnmount();

  bool quiesced() const { return quiesced_; }
  void quiescedIs(bool quiesced) { quiesced_ = quiesced; }

  // The table, or null once its collection is gone (contract 3).
  Cairn::ControlBase * table() const { return table_; }
  void tableIs(Cairn::ControlBase * table) { table_ = table; }

 private:
  Cairn::ControlBase & mountedTable() const;

  Cairn::ControlBase * table_;
  bool quiesced_ = false;
};

}  // namespace RigCairn

#include "RigCairn/CollectionControl.h"

#include "Basalt/Exception.h"

namespace RigCairn {

Cairn::ControlBase & CollectionControl::mountedTable() const {
  if (table_ == nullptr) {
    throw Basalt::InvalidInitializeException("CollectionControl::mount() the collection of this control is gone");
  }
  return *table_;
}

void CollectionControl::mount(const Cairn::MapDescriptor & descriptor) {
  mountedTable().init(descriptor);
  mountedIs(true);
}

void CollectionControl::unmount() {
  if (table_ != nullptr) {
    table_->controlDetach();
  }
  // Last: this may destroy the collection and this control (contract 2).
  mountedIs(false);
}

void CollectionControl::cleanupAndUnmount() {
  if (table_ != nullptr) {
    table_->cleanupAndDetach();
  }
  mountedIs(false);
}

}  // namespace RigCairn

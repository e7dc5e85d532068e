#pragma once
// Cairn::ControlBase: what a collection's control layer needs of a table to
// mount it and take it down again, whatever the table's key and value. A
// map (Cairn/CairnMap.h) is its own ControlBase.
//
// All of it runs on the thread of the table's owner.

#include <cstdint>

#include "Arena/CollectionDescriptor.h"

namespace Cairn {

class ControlBase {
 public:
  virtual ~ControlBase() = default;

  // Mounts the table as the descriptor tells: writer, reader, shadow or
  // keyshadow, shared or local.
  virtual void init(const Arena::CollectionDescriptor & descriptor) = 0;
  // Takes the table off its files; it can be mounted again.
  virtual void controlDetach() = 0;
  // Erases the table's files, then controlDetach.
  virtual void cleanupAndDetach() = 0;
  // 0 not mounted, 1 initialised, 2 connected, 3 flush pending.
  virtual uint32_t mountStatus() const = 0;
};

}  // namespace Cairn

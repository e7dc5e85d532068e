#pragma once
// The one entry by which a generic tool reaches an object's attributes:
// attributeOp(attributeId, operation, result, argument) on the object, with
// the attribute's id and an operation number, answering with a status. The
// typed meaning of `result` and `argument` is fixed by the attribute and the
// operation, as each type documents at its attributeOp.
//
// A bad operation or attribute is a status, never an exception; the
// exceptions that pass through are those of the operations themselves.

#include <cstdint>

#include "Rig/Ptr.h"

namespace Rig {

enum AttributeStatus : uint32_t {
  attributeDone = 0,
  attributeNotAllowed = 1,  // the operation is not one of this attribute's
  attributeUnknown = 2,     // the type has no attribute of that id
};

// Operations of a settable pointer attribute: 0 reads it into a Ptr<T> at
// `result`; 1 sets it from the Ptr<T> at `argument` through `set`.
template <typename T, typename Setter>
uint32_t pointerAttributeOp(const Ptr<T> & member, uint32_t operation, void * result, const void * argument,
                            Setter && set) {
  switch (operation) {
    case 0:
      *static_cast<Ptr<T> *>(result) = member;
      return attributeDone;
    case 1:
      set(*static_cast<const Ptr<T> *>(argument));
      return attributeDone;
    default:
      return attributeNotAllowed;
  }
}

}  // namespace Rig

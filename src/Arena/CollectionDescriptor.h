#pragma once
// Arena::CollectionDescriptor: what a collection's control layer hands to a
// table when it initialises it. Each kind of table derives its own
// descriptor, with the fields that configure it, and takes the one it was
// given back by dynamic_cast: a descriptor of another kind is the language's
// std::bad_cast, a programming error of the control layer.

#include <string>

namespace Arena {

class CollectionDescriptor {
 public:
  virtual ~CollectionDescriptor() = default;

  // Every field, for messages that compare two descriptors.
  virtual std::string toString() const { return "CollectionDescriptor()"; }
  bool operator==(const CollectionDescriptor &) const = default;
};

}  // namespace Arena

#pragma once
// RigCairnMapValueWrapper: the value type that the engine stores for a table
// entry. It holds a copy of the entry and nothing else, so its size is the
// entry's and it lies in a slot as the entry does; the key lives inside it
// and fwkKey() reaches it through the entry's key accessor.

#include <string_view>

#include "Rig/Record.h"
#include "Rig/String.h"

namespace RigCairn {

template <typename E, typename K, const K & (E::*KeyAccessor)() const, bool ContainsKey = true>
class RigCairnMapValueWrapper {
  static_assert(ContainsKey, "the engine stores only values that contain their key");

 public:
  using Entry = E;
  using Key = K;

  RigCairnMapValueWrapper() = default;
  explicit RigCairnMapValueWrapper(const E & entry) : value(entry) {}
  // The default entry with `key`.
  explicit RigCairnMapValueWrapper(const K & key) : value(key) {}

  const K & fwkKey() const { return (value.*KeyAccessor)(); }
  bool operator==(const RigCairnMapValueWrapper & other) const { return value == other.value; }
  // The name the slot file's header records for this value type.
  static std::string_view typeName() { return Rig::Record::Layout<E>::typeName; }

  E value;
};

template <typename E, typename K, const K & (E::*KeyAccessor)() const, bool ContainsKey>
Rig::String valueToStrep(const RigCairnMapValueWrapper<E, K, KeyAccessor, ContainsKey> & wrapper) {
  return valueToStrep(wrapper.value);
}

// The wrapper of an entry type with the usual key accessor.
template <typename E>
using ValueWrapperOf = RigCairnMapValueWrapper<E, typename E::KeyType, &E::key>;

}  // namespace RigCairn

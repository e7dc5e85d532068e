#pragma once
// The local slots of a shadow: one per shared slot, with the same index, in
// one private array. Occupied slots are linked into the chains of the
// shadow's ShadowHashMap; the links are in the slot, so an entry costs no
// allocation.
//
// Fields, in order (both kinds):
//   next   the next slot of the bucket chain, null at the chain's end;
//   prev   the address of the cell that points at this slot: the bucket cell
//          of a chain's head, else the predecessor's `next`; null while the
//          slot is out of the chains;
//   rhash  the key hash with its bits reversed, written by ShadowHashMap::write;
// then the entry:
//   ValueShadowSlot  `value`, the whole value, which holds its key;
//   KeyShadowSlot    `key`, the key alone; the value stays in the shared table.
//
// `next` is the first field, so a predecessor's `next` cell has the
// predecessor's own address. A slot is dead when both links are null; nothing
// may take meaning from a dead slot's contents.
//
// What ShadowHashMap needs of a slot kind, so that it is written once for
// both: slotKey(), the key the slot is entered under; reset(ops), which takes
// a slot out for good (default entry, null links); and
// changedFrom(old), the result of a write that moves a key from slot `old`
// to this one: whether the caller has a change to tell.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Cairn/Operations.h"

namespace Cairn {

template <typename V>
struct ValueShadowSlot {
  using Key = std::remove_cvref_t<decltype(std::declval<const V &>().fwkKey())>;
  using Value = V;

  ValueShadowSlot() = default;
  explicit ValueShadowSlot(const V & initial) : value(initial) {}

  const Key & slotKey() const { return KeyRetrieval<Key, V>::key(value); }
  bool dead() const { return next == nullptr && prev == nullptr; }

  template <typename Ops>
  void reset(const Ops & ops) {
    next = nullptr;
    prev = nullptr;
    value = ops.defaultValue;
  }

  // The entry moved slots: a change only if the value did too.
  bool changedFrom(const ValueShadowSlot & old) const {
    return !ValueOps<Key, V>::equal(value, old.value);
  }

  ValueShadowSlot * next = nullptr;
  ValueShadowSlot ** prev = nullptr;
  uint32_t rhash = 0;
  V value{};
};

template <typename K>
struct KeyShadowSlot {
  using Key = K;

  KeyShadowSlot() = default;
  explicit KeyShadowSlot(const K & initial) : key(initial) {}

  const Key & slotKey() const { return key; }
  bool dead() const { return next == nullptr && prev == nullptr; }

  template <typename Ops>
  void reset(const Ops & ops) {
    next = nullptr;
    prev = nullptr;
    key = ops.defaultKey;
  }

  // The entry moved slots. The value lies in the shared table, out of sight
  // here, so a move is always a change to tell.
  bool changedFrom(const KeyShadowSlot &) const { return true; }

  KeyShadowSlot * next = nullptr;
  KeyShadowSlot ** prev = nullptr;
  uint32_t rhash = 0;
  K key{};
};

}  // namespace Cairn

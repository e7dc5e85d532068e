#pragma once
// Cairn::Ops: all that the engine knows of a key and a value. Every piece is
// fixed by the table's types and costs nothing at run time; an Ops object
// holds only the table's hash seed and the default key and value.
//
// What the engine needs of a table's types:
//   Key    fixed-size, pointer-free, ==, <, and hash(seed) -> 32 bits
//   Value  fixed-size, pointer-free, trivially copyable, a multiple of 8
//          bytes, ==, fwkKey() giving the key it contains, and a type name
//          (Value::typeName()) for the slot file's header, and a constructor
//          from a key giving the default value with that key
// Texts of both come from valueToStrep found in their namespaces.

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "Arena/Atomics.h"
#include "Basalt/Exception.h"
#include "Basalt/Util.h"

namespace Cairn {

// Gets the key from a value.
template <typename K, typename V>
struct KeyRetrieval {
  static const K & key(const V & value) { return value.fwkKey(); }
};

// The key hash the engine uses: seed 0 whatever the table's seed.
template <typename K>
struct Hash {
  static uint32_t hash(const K & key) { return key.hash(0); }
};

template <typename T>
struct ToString {
  std::string operator()(const T & value) const { return valueToStrep(value); }
};

// A plain copy of a fixed-size value to and from its slot, qword by qword with
// single-copy atomic accesses (the slot may be read by other processes).
template <typename V>
struct Marshall {
  static_assert(std::is_trivially_copyable_v<V>, "values are copied byte for byte into slots");
  static_assert(sizeof(V) % 8 == 0, "values fill whole qwords so slots stay 8-aligned");
  static_assert(alignof(V) <= 8, "a slot aligns its value to 8 bytes");

  static void toSlot(void * slotValue, const V & value) {
    Arena::Atomics::copyQuietIn(slotValue, &value, sizeof(V));
  }
  static void fromSlot(V & value, const void * slotValue) {
    Arena::Atomics::copyQuietOut(&value, slotValue, sizeof(V));
  }
};

template <typename K, typename V>
struct KeyOps {
  using Retrieval = KeyRetrieval<K, V>;

  static const K & key(const V & value) { return Retrieval::key(value); }
  static uint32_t hash(const K & key) { return Hash<K>::hash(key); }
  // The key's place in split order: its hash with the bits reversed.
  static uint32_t rhash(const K & key) { return Basalt::Util::reverse(hash(key)); }
  static bool less(const K & a, const K & b) { return a < b; }
  // Split order of (rhash, key) pairs, the order of every chain: rhash first,
  // then the key's operator<. Negative, 0 or positive as `a` stands before,
  // with or after `b`.
  static int splitOrder(uint32_t rhashA, const K & a, uint32_t rhashB, const K & b) {
    if (rhashA != rhashB) {
      return rhashA < rhashB ? -1 : 1;
    }
    if (less(a, b)) {
      return -1;
    }
    return less(b, a) ? 1 : 0;
  }
  static bool equal(const K & a, const K & b) { return a == b; }
  static std::string toString(const K & key) { return ToString<K>()(key); }
};

template <typename K, typename V>
struct ValueOps {
  using Marshalling = Marshall<V>;

  static bool equal(const V & a, const V & b) { return a == b; }
  static std::string toString(const V & value) { return ToString<V>()(value); }
  static std::string_view typeName() { return V::typeName(); }
  // The default value that carries `key`.
  static V withKey(const K & key) { return V(key); }
};

// How a slot is filled. This store copies whole values through Marshall; the
// allocator interface's hook for writing a value into a slot by itself is not
// part of it.
template <typename K, typename V>
struct SlotAllocator {
  struct Writer {
    [[noreturn]] static void setSlotValue(void *, const V &) {
      Basalt::debugAndThrowAssertException("Cairn/Operations", __func__, __LINE__, "Not implemented");
    }
  };
};

template <typename K, typename V>
class Ops {
 public:
  using Key = K;
  using Value = V;
  using KeyOperations = KeyOps<K, V>;
  using ValueOperations = ValueOps<K, V>;
  using Allocator = SlotAllocator<K, V>;

  // Copied from the slot file's header at every attach. The key hash of this
  // system's key types is taken with seed 0, so the seed places no key.
  uint32_t hashSeed = 0;
  K defaultKey{};
  V defaultValue{};
};

}  // namespace Cairn

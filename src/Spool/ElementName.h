#pragma once
// The name of an element type of a Spool, as its debug name shows it:
// Spool::Local<bool> is "Spool::Local<bool>". Only the types a Spool holds
// here have one; another type fails to compile until it is named.

#include <cstdint>

namespace Spool {

template <typename T>
struct ElementName;

template <>
struct ElementName<bool> {
  static constexpr const char * value = "bool";
};
template <>
struct ElementName<uint8_t> {
  static constexpr const char * value = "U8";
};
template <>
struct ElementName<uint16_t> {
  static constexpr const char * value = "U16";
};
template <>
struct ElementName<uint32_t> {
  static constexpr const char * value = "U32";
};
template <>
struct ElementName<uint64_t> {
  static constexpr const char * value = "U64";
};

}  // namespace Spool

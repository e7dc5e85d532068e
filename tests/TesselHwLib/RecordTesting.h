#pragma once
// Helpers for tests of the table records: random and maximal field values of
// every field type, and raw reads of a record's bytes at a given offset.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <random>
#include <type_traits>

#include "P4Runtime/ErrorCode.h"
#include "Rig/String.h"
#include "Wirekit/AddrTesting.h"

namespace TesselTesting {

inline uint64_t random64(std::mt19937 & random) {
  uint64_t high = random();
  return high << 32 | random();
}

// Texts that need every escape of the quoted form, and random bytes.
inline Rig::String randomText(std::mt19937 & random) {
  static const char * const fixed[] = {"", "it's", "back\\slash", "tab\tnew\nline\r", "'"};
  if (random() % 2 == 0) {
    return fixed[random() % std::size(fixed)];
  }
  Rig::String text(random() % 40, '\0');
  for (char & c : text) {
    c = static_cast<char>(random());
  }
  return text;
}

// A random value of a field type: numbers of their whole range, zero and the
// maximum among them; addresses of every form.
template <typename T>
T randomField(std::mt19937 & random) {
  if constexpr (std::is_same_v<T, bool>) {
    return random() & 1;
  } else if constexpr (std::is_same_v<T, Wirekit::EthAddr>) {
    return WirekitTesting::randomEthAddr(random);
  } else if constexpr (std::is_same_v<T, Wirekit::IpGenAddr>) {
    return WirekitTesting::randomIpGenAddr(random);
  } else if constexpr (std::is_same_v<T, Rig::String>) {
    return randomText(random);
  } else if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(randomField<std::underlying_type_t<T>>(random));
  } else {
    switch (random() % 4) {
      case 0: return 0;
      case 1: return std::numeric_limits<T>::max();
      default: return static_cast<T>(random64(random));
    }
  }
}

// The largest value of a field type: all ones, true, the all-ones address of
// the widest form.
template <typename T>
T maximumField() {
  if constexpr (std::is_same_v<T, bool>) {
    return true;
  } else if constexpr (std::is_same_v<T, Wirekit::EthAddr>) {
    return Wirekit::EthAddr(WirekitTesting::filled<6>(0xff));
  } else if constexpr (std::is_same_v<T, Wirekit::IpGenAddr>) {
    return Wirekit::IpGenAddr(Wirekit::Ip6Addr(WirekitTesting::filled<16>(0xff)));
  } else if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(std::numeric_limits<std::underlying_type_t<T>>::max());
  } else {
    return std::numeric_limits<T>::max();
  }
}

// The `width` bytes of `record` at `offset`, as a little-endian number.
template <typename R>
uint64_t rawAt(const R & record, std::size_t offset, std::size_t width) {
  uint64_t value = 0;
  std::memcpy(&value, reinterpret_cast<const unsigned char *>(&record) + offset, width);
  return value;
}

// The bytes of `record` at `offset` as a T.
template <typename T, typename R>
T rawAs(const R & record, std::size_t offset) {
  static_assert(std::is_trivially_copyable_v<T>);
  T value;
  std::memcpy(&value, reinterpret_cast<const unsigned char *>(&record) + offset, sizeof(T));
  return value;
}

}  // namespace TesselTesting

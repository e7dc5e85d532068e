#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Basalt::Util {

// The 32 bits of `value` in reverse order (bit 0 to bit 31, bit 1 to bit 30, ...):
// neighbouring bits swapped, then neighbouring pairs, then nibbles, then the
// four bytes reversed. A key's place in its chain is the reversal of its hash.
constexpr uint32_t reverse(uint32_t value) {
  value = ((value >> 1) & 0x55555555u) | ((value & 0x55555555u) << 1);
  value = ((value >> 2) & 0x33333333u) | ((value & 0x33333333u) << 2);
  value = ((value >> 4) & 0x0F0F0F0Fu) | ((value & 0x0F0F0F0Fu) << 4);
  return __builtin_bswap32(value);
}

}  // namespace Basalt::Util

namespace Basalt {

// Bytes as lower-case hex pairs separated by blanks ("01 ff 00"); the form in
// which corruption messages print keys.
std::string dumpHex(const void * data, std::size_t length);

}  // namespace Basalt

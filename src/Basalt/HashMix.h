#pragma once
// FNV-1a over 32 bits: the checksum of file headers. Writer, readers and the
// validator must agree on it byte for byte, so it is fixed here and nowhere
// else: state starts at the offset basis 0x811c9dc5, and each byte b does
// state = (state ^ b) * 0x01000193. Multi-byte numbers enter little-endian.

#include <cstddef>
#include <cstdint>

namespace Basalt::Impl {

template <typename State>
class HashMix;

template <>
class HashMix<unsigned int> {
 public:
  static constexpr unsigned int offsetBasis = 0x811c9dc5u;
  static constexpr unsigned int prime = 0x01000193u;

  explicit constexpr HashMix(unsigned int state = offsetBasis) : state_(state) {}

  constexpr void mixByte(uint8_t byte) { state_ = (state_ ^ byte) * prime; }

  void mixBytes(const void * data, std::size_t length) {
    const auto * bytes = static_cast<const uint8_t *>(data);
    for (std::size_t i = 0; i < length; ++i) {
      mixByte(bytes[i]);
    }
  }

  // The low N bytes of `value`, least significant first.
  template <unsigned N>
  constexpr void mixFixedLen(uint64_t value) {
    static_assert(N >= 1 && N <= 8, "HashMix mixes one to eight bytes of a number");
    for (unsigned i = 0; i < N; ++i) {
      mixByte(static_cast<uint8_t>(value >> (8 * i)));
    }
  }

  constexpr unsigned int result() const { return state_; }

 private:
  unsigned int state_;
};

}  // namespace Basalt::Impl

#pragma once
// The key hash. It decides where a key lives in shared memory, so it is one
// fixed function in every process and every build:
//
//   hash = XXH32(bytes, seed)
//
// where `bytes` are the inputs of hashMix<N> in call order, each number as its
// low N bytes, least significant first. Inputs beyond 64 bytes are folded:
// the 64 bytes gathered so far are hashed with the running seed, and that
// result becomes the seed of what follows. hashSingleAttr(seed, v) is
// Hash(seed).hashMix<8>(v).result().

#include <cstdint>

namespace Rig {

class Hash {
 public:
  explicit Hash(uint32_t seed = 0) : seed_(seed) {}

  template <unsigned N>
  void hashMix(uint64_t value) {
    static_assert(N == 1 || N == 2 || N == 4 || N == 8, "hashMix takes 1, 2, 4 or 8 bytes");
    for (unsigned i = 0; i < N; ++i) {
      if (length_ == sizeof(buffer_)) {
        fold();
      }
      buffer_[length_++] = static_cast<uint8_t>(value >> (8 * i));
    }
  }

  uint32_t result() const;

 private:
  void fold();

  uint32_t seed_;
  uint32_t length_ = 0;
  uint8_t buffer_[64] = {};
};

uint32_t hashSingleAttr(uint32_t seed, uint64_t value);

}  // namespace Rig

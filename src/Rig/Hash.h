#pragma once
// The key hash. It decides where a key lives in shared memory, so it is one
// fixed function in every process and every build: fixed constants, no
// per-process seed, nothing from the standard library's hashes.
//
// Its input is a byte stream: the inputs of hashMix<N> in call order, each
// number as its low N bytes, least significant first. The stream is taken
// eight bytes at a time as little-endian words w1 .. wk, the last one
// completed with zero bytes, and
//
//   h0     = start(seed)
//   h(i)   = absorb(h(i-1), wi)
//   result = low 32 bits of finish(h(k) ^ (length * lengthFactor))
//
// with the functions below. Because only the byte stream counts, a caller may
// feed the same bytes in wider pieces (two hashMix<8> for sixteen bytes rather
// than sixteen hashMix<1>) and get the same hash. Everything is inline: for a
// record of fixed fields the word boundaries are known at compile time, and a
// key's whole hash compiles to a few multiplies in its caller.
// hashSingleAttr(seed, v) is Hash(seed).hashMix<8>(v).result().

#include <bit>
#include <cstdint>
#include <cstring>

namespace Rig {

class Hash {
 public:
  constexpr explicit Hash(uint32_t seed = 0) : state_(start(seed)) {}

  template <unsigned N>
  constexpr void hashMix(uint64_t value) {
    static_assert(N == 1 || N == 2 || N == 4 || N == 8, "hashMix takes 1, 2, 4 or 8 bytes");
    uint64_t input = value;
    if constexpr (N < 8) {
      input &= (uint64_t{1} << (8 * N)) - 1;
    }
    pending_ |= input << (8 * used_);
    if (used_ + N < 8) {
      used_ += N;
    } else {
      state_ = absorb(state_, pending_);
      // The bytes of `input` that did not fit begin the next word.
      pending_ = used_ == 0 ? 0 : input >> (8 * (8 - used_));
      used_ = used_ + N - 8;
    }
    length_ += N;
  }

  constexpr uint32_t result() const {
    const uint64_t last = used_ == 0 ? state_ : absorb(state_, pending_);
    return static_cast<uint32_t>(finish(last ^ (length_ * lengthFactor)));
  }

 private:
  // Odd constants with well-spread bits (the golden ratio, the 64-bit
  // finaliser constants of MurmurHash3 and a multiplier of the same family).
  // They are part of the file format.
  static constexpr uint64_t seedOffset = 0x9E3779B97F4A7C15ull;
  static constexpr uint64_t wordFactor = 0xFF51AFD7ED558CCDull;
  static constexpr uint64_t finishFactor = 0xC4CEB9FE1A85EC53ull;
  static constexpr uint64_t lengthFactor = 0xD6E8FEB86659FD93ull;

  static constexpr uint64_t start(uint32_t seed) { return (seed ^ seedOffset) * wordFactor; }

  // A bijection of the state for each word, so that two streams that differ
  // in one word never meet again before the finish.
  static constexpr uint64_t absorb(uint64_t state, uint64_t word) {
    const uint64_t mixed = (state ^ word) * wordFactor;
    return mixed ^ (mixed >> 32);
  }

  // MurmurHash3's 64-bit finaliser: every input bit reaches every output bit.
  static constexpr uint64_t finish(uint64_t state) {
    state ^= state >> 33;
    state *= wordFactor;
    state ^= state >> 33;
    state *= finishFactor;
    return state ^ (state >> 33);
  }

  uint64_t state_;
  uint64_t pending_ = 0;  // the bytes of the word being filled, low first
  uint32_t used_ = 0;     // how many bytes of it are filled: 0 .. 7
  uint32_t length_ = 0;   // bytes taken so far
};

inline uint32_t hashSingleAttr(uint32_t seed, uint64_t value) {
  Hash hash(seed);
  hash.hashMix<8>(value);
  return hash.result();
}

// The little-endian word that `bytes` .. `bytes + 7` make: the hash's reading
// of eight stream bytes, for types that feed their bytes a word at a time.
inline uint64_t littleEndianWord(const uint8_t * bytes) {
  static_assert(std::endian::native == std::endian::little,
                "the hash's words are little-endian; shared files stay on x86-64");
  uint64_t word;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

}  // namespace Rig

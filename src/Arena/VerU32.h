#pragma once
// Arena::VerU32: a 32-bit version and a 32-bit value that always move as one
// aligned 64-bit word, so that a lock-free reader sees a version and the value
// stored with it, never half of one store and half of another.
//
// Layout: version at byte 0, value at byte 4 (little-endian, so the word is
// version | value << 32). Writers store it only with store(); readers load it
// only with load().

#include <cstdint>
#include <string>

#include "Arena/Atomics.h"

namespace Arena {

struct alignas(8) VerU32 {
  uint32_t version = 0;
  uint32_t value = 0;

  static constexpr uint64_t pack(uint32_t version, uint32_t value) {
    return static_cast<uint64_t>(version) | (static_cast<uint64_t>(value) << 32);
  }
  static constexpr VerU32 unpack(uint64_t word) {
    return VerU32{static_cast<uint32_t>(word), static_cast<uint32_t>(word >> 32)};
  }

  // One 64-bit load, acquire.
  VerU32 load() const { return unpack(Atomics::observe64(*reinterpret_cast<const uint64_t *>(this))); }
  // One 64-bit store, release: everything stored before is visible first.
  void store(uint32_t newVersion, uint32_t newValue) {
    Atomics::publish64(*reinterpret_cast<uint64_t *>(this), pack(newVersion, newValue));
  }
  // The version word alone, as a reader re-checks it.
  uint32_t loadVersion() const { return Atomics::observe32(version); }

  bool operator==(const VerU32 &) const = default;
  std::string toString() const;
};

static_assert(sizeof(VerU32) == 8, "VerU32 is one 64-bit word in shared files");
static_assert(alignof(VerU32) == 8, "VerU32 must be 8-aligned to be stored in one access");

}  // namespace Arena

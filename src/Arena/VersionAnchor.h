#pragma once
// Arena::VersionAnchor: names the `flags` word of the slot whose value was
// last handed out (its version, its byte offset from the mapping's start and
// the mapping's base), so that a later check can tell, at the cost of one
// load, whether that value is still current: the word changes with every
// rewrite and removal of the slot. An offset rather than a pointer is kept so
// that an anchor moves to a new mapping by changing `base` alone.
//
// The default anchor (offset 0xFFFFFFFE) stands on nothing: validating it is
// a programming error. An invalidated anchor (offset 0xFFFFFFFF) always
// compares as changed, without a memory access.

#include <cstdint>

#include "Arena/Atomics.h"
#include "Arena/Exception.h"

namespace Arena {

struct VersionAnchor {
  static constexpr uint32_t emptyOffset = 0xFFFFFFFEu;
  static constexpr uint32_t invalidOffset = 0xFFFFFFFFu;

  uint32_t version = 0;
  uint32_t offset = emptyOffset;
  uint64_t base = 0;

  bool empty() const { return offset == emptyOffset; }
  void reset() { *this = VersionAnchor(); }
  void invalidate() { offset = invalidOffset; }
  bool operator==(const VersionAnchor &) const = default;

  // Returns if the anchored word still holds `version`; raises
  // VersionMismatchException if it does not or the anchor was invalidated,
  // and Basalt::AssertException on a default-constructed anchor.
  void validate() const {
    if (offset == emptyOffset) {
      Basalt::debugAndThrowAssertException("VersionAnchor", "validate", __LINE__,
                                           "should not be called on a default-constructed VersionAnchor");
    }
    if (offset != invalidOffset &&
        Atomics::observe32(*reinterpret_cast<const uint32_t *>(base + offset)) == version) {
      return;
    }
    throw VersionMismatchException("");
  }
};

}  // namespace Arena

namespace Arena {

// The reader-side half of an anchor: the flags version and offset of the
// value last read, which a map compares with another anchor.
struct CacheVersionAnchor {
  uint32_t version = 0;
  uint32_t offset = VersionAnchor::emptyOffset;

  // The 64-bit form kept in a caller's cache: `version` in the low half,
  // `offset` in the high half.
  uint64_t packed() const { return (uint64_t{offset} << 32) | version; }
  bool operator==(const CacheVersionAnchor &) const = default;
};

}  // namespace Arena

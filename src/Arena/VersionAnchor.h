#pragma once
// Arena::VersionAnchor: names the `flags` word of the slot whose value was
// last handed out (its version, its byte offset from the mapping's start and
// the mapping's base), so that a later check can tell whether that value is
// still current. The empty anchor is version 0, offset 0xFFFFFFFE, base 0.

#include <cstdint>

namespace Arena {

struct VersionAnchor {
  static constexpr uint32_t emptyOffset = 0xFFFFFFFEu;

  uint32_t version = 0;
  uint32_t offset = emptyOffset;
  uint64_t base = 0;

  bool empty() const { return offset == emptyOffset; }
  void reset() { *this = VersionAnchor(); }
  bool operator==(const VersionAnchor &) const = default;
};

}  // namespace Arena

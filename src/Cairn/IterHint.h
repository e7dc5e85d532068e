#pragma once

#include <cstdint>
#include <string>

namespace Cairn {

// The whole state of an iteration beside its last key: the slot's `flags`
// word as it was when the entry was handed out, the slot's index and its
// bucket. When the slot's flags are still the same, the iteration goes on
// from the slot's link without looking the key up again.
struct IterHint {
  uint32_t flags = 0;
  uint32_t slot = 0xFFFFFFFFu;
  uint32_t bucket = 0xFFFFFFFFu;
};

// "IterHint(flags:<f> slot:<s> bucket:<b>)", as traces print a hint.
std::string toString(const IterHint & hint);

}  // namespace Cairn

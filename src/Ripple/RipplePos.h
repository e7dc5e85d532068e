#pragma once
// RipplePos: the writer's record, per slot index, of where the slot's one live
// entry lies in the current table (invariant 3 of Ripple/RippleFormat.h), and
// PositionArray, the private array of them. Writer thread only; nothing here
// is shared with another process.

#include <cstdint>

#include "Arena/Local.h"
#include "Basalt/DebugHandler.h"
#include "Ripple/RippleFormat.h"

namespace Ripple {

struct RipplePos {
  // The position plus 1, so that zeroed memory reads as "no entry": pages of
  // the array that hold no notified slot stay untouched and cost nothing.
  uint32_t biased = 0;

  // The entry's position, or RIPPLE_TOMBSTONED (0 - 1) if the slot has none.
  constexpr uint32_t position() const { return biased - 1; }
  constexpr void positionIs(uint32_t position) { biased = position + 1; }
};

static_assert(RipplePos{}.position() == RIPPLE_TOMBSTONED, "a zeroed record says: no entry");

// Indexed by slot, grown as slot indices grow, in private memory that is
// reserved lazily (MAP_NORESERVE): a sparse set of large slot indices costs
// only the pages it touches.
class PositionArray {
 public:
  explicit PositionArray(Basalt::Platform::DebugHandler & handler);

  // The slot's position, or RIPPLE_TOMBSTONED (also for a slot beyond the array).
  uint32_t at(uint32_t slot) const { return slot < count_ ? records_[slot].position() : RIPPLE_TOMBSTONED; }
  // Records `position` for `slot`, growing the array to cover it; throws
  // Basalt::MemoryResourceException if the memory can't be had.
  void set(uint32_t slot, uint32_t position);
  void clear();
  // Gives back the memory of the records from `slot` on, which must all say
  // "no entry": their pages read as zeros again, which is just that.
  void releaseFrom(uint32_t slot);
  // The records the array holds; slots at or above it have no entry.
  uint32_t count() const { return count_; }
  // The slots that have an entry: what the validator compares with the live
  // entries, without a walk over a sparse array.
  uint32_t pointing() const { return pointing_; }

 private:
  void grow(uint32_t slot);

  Arena::Local memory_;
  RipplePos * records_ = nullptr;
  uint32_t count_ = 0;
  uint32_t pointing_ = 0;
};

}  // namespace Ripple

namespace Cairn {

// The name under which the engine knows the writer's per-slot record.
using RipplePos = Ripple::RipplePos;

}  // namespace Cairn

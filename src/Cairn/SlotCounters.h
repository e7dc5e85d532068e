#pragma once
// Cairn::SlotCounters: how many occupied slots of a shadow lie in each range
// of slot indices, so that the shadow knows, without a scan, the smallest slot
// count that still holds every occupied slot.
//
// The ranges are the sizes a growing writer table passes through. Such a
// table starts at the largest power of two that fits the first page of its
// slot file, `minSlots`, and doubles from there (SlotWriterTable::grow; a
// shrink goes back to a power of two, shrinkThreshold). With `shift` the
// base-2 logarithm of `minSlots`:
//   bin 0 holds indices [0, minSlots),
//   bin b holds indices [minSlots << (b - 1), minSlots << b),
// that is, bin 0 if (index >> shift) is 0, else the bit length of
// (index >> shift). Every bin ends at a size of the writer's table, so the
// count largestOccupied() gives is one the shared table can have and a shadow
// that shrinks to it can stand level with the table.
//
// Invariants, kept by the shadow's hash map, which changes the public fields
// (through add and drop):
//  1. bins[b] is the number of occupied slots whose index falls into bin b;
//  2. bit b of occupiedBins is set if and only if bins[b] is not 0.
// One thread, that of the shadow; no locks.

#include <cstddef>
#include <cstdint>

#include "Basalt/Debuggable.h"

namespace Cairn {

class SlotCounters : public Basalt::Debuggable {
 public:
  static constexpr unsigned NumBins = 32;

  // `firstPageSlots` is the number of slots that fit the first page of the
  // slot file beside its header, 0 if none (firstPageSlotsFor).
  SlotCounters(Basalt::Platform::DebugHandler & handler, unsigned int firstPageSlots);

  // (pageSize - header) / slotSize in whole numbers, or 0 when the page is no
  // larger than the slot file's header.
  static unsigned int firstPageSlotsFor(std::size_t pageSize, std::size_t slotSize);

  unsigned binOf(uint32_t slotIndex) const;
  // One more, one fewer occupied slot at `slotIndex`.
  void add(uint32_t slotIndex);
  void drop(uint32_t slotIndex);

  // A slot count above every occupied slot index: the end of the highest
  // occupied bin, a size of the writer's table; 0 when no slot is occupied.
  // The top bin, which can reach the last 32-bit index, ends at 0xFFFFFFFF.
  uint32_t largestOccupied() const;

  uint32_t shift = 0;
  uint32_t bins[NumBins] = {};
  uint32_t occupiedBins = 0;
};

}  // namespace Cairn

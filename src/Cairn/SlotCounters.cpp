#include "Cairn/SlotCounters.h"

#include <bit>
#include <limits>

#include <fmt/format.h>

#include "Cairn/SlotFormat.h"

namespace Cairn {

// minSlots is the largest power of two not above firstPageSlots, or 1 (the
// rule of minSlotsFor); its logarithm is one less than the bit length.
SlotCounters::SlotCounters(Basalt::Platform::DebugHandler & handler, unsigned int firstPageSlots)
    : Basalt::Debuggable(handler),
      shift(firstPageSlots == 0 ? 0 : static_cast<uint32_t>(std::bit_width(firstPageSlots)) - 1) {
  BASALT_TRACE(debugHandler(), 5, "SlotCounters() firstPageSlots:{} shift:{}", firstPageSlots, shift);
}

unsigned int SlotCounters::firstPageSlotsFor(std::size_t pageSize, std::size_t slotSize) {
  const std::size_t header = slotHeaderSize(slotSize);
  return pageSize <= header ? 0 : static_cast<unsigned int>((pageSize - header) / slotSize);
}

// Only with shift 0 can the bit length reach 32; such indices share the top bin.
unsigned SlotCounters::binOf(uint32_t slotIndex) const {
  const uint32_t scaled = slotIndex >> shift;
  const unsigned bin = static_cast<unsigned>(std::bit_width(scaled));
  return bin < NumBins ? bin : NumBins - 1;
}

void SlotCounters::add(uint32_t slotIndex) {
  const unsigned bin = binOf(slotIndex);
  ++bins[bin];
  occupiedBins |= 1u << bin;
}

void SlotCounters::drop(uint32_t slotIndex) {
  const unsigned bin = binOf(slotIndex);
  if (--bins[bin] == 0) {
    occupiedBins &= ~(1u << bin);
  }
}

uint32_t SlotCounters::largestOccupied() const {
  if (occupiedBins == 0) {
    return 0;
  }
  const unsigned top = static_cast<unsigned>(std::bit_width(occupiedBins)) - 1;
  const unsigned exponent = shift + top;
  if (top == NumBins - 1 || exponent >= 32) {
    return std::numeric_limits<uint32_t>::max();
  }
  return uint32_t{1} << exponent;
}

}  // namespace Cairn

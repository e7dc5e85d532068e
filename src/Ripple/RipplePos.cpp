#include "Ripple/RipplePos.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>

#include "Arena/Memory.h"
#include "Basalt/Exception.h"

namespace Ripple {

PositionArray::PositionArray(Basalt::Platform::DebugHandler & handler)
    : memory_(handler, false, MAP_NORESERVE) {}

void PositionArray::set(uint32_t slot, uint32_t position) {
  const uint32_t old = at(slot);
  if (old == position) {
    return;
  }
  if (slot >= count_) {
    grow(slot);  // only for a position: beyond the array every slot has no entry already
  }
  records_[slot].positionIs(position);
  if (old == RIPPLE_TOMBSTONED) {
    ++pointing_;
  } else if (position == RIPPLE_TOMBSTONED) {
    --pointing_;
  }
}

void PositionArray::clear() {
  memory_.detach();
  records_ = nullptr;
  count_ = 0;
  pointing_ = 0;
}

void PositionArray::releaseFrom(uint32_t slot) {
  if (slot >= count_ || memory_.useHeap()) {
    return;
  }
  const auto begin = reinterpret_cast<std::uintptr_t>(records_ + slot);
  const auto end = reinterpret_cast<std::uintptr_t>(records_ + count_);
  const std::uintptr_t first = (begin + Arena::pageSize_ - 1) / Arena::pageSize_ * Arena::pageSize_;
  if (first < end) {
    // Private anonymous memory: the pages come back zero-filled when touched.
    madvise(reinterpret_cast<void *>(first), end - first, MADV_DONTNEED);
  }
}

// Doubles the array until it covers `slot`: new records are zeroed pages,
// that is "no entry". Slots stay below SlotLimit (2^31), so the count fits
// 32 bits.
void PositionArray::grow(uint32_t slot) {
  const uint64_t needed = static_cast<uint64_t>(slot) + 1;
  uint64_t records = std::max<uint64_t>(count_, Arena::pageSize_ / sizeof(RipplePos));
  while (records < needed) {
    records *= 2;
  }
  const std::size_t bytes = Arena::multiplyOverflowCheck(records, sizeof(RipplePos));
  void * base = records_ == nullptr ? memory_.attach(bytes) : memory_.resize(bytes);
  if (base == nullptr) {
    records_ = nullptr;
    count_ = 0;
    pointing_ = 0;
    throw Basalt::MemoryResourceException(fmt::format(
        "PositionArray::grow() no memory for {} records, slot:{}: {}", records, slot, memory_.reason()));
  }
  records_ = static_cast<RipplePos *>(base);
  count_ = static_cast<uint32_t>(memory_.memSize() / sizeof(RipplePos));
}

}  // namespace Ripple

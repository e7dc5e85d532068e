#pragma once
// Cairn::Reader::Counters: what the reader side of one table (reader, shadow
// store and shadow hash map) has done. Plain counters raised without a lock
// on the reader's thread; copied whole when read out. The notification
// queue's reader raises the fields of its base record in place, `sequence`
// (the last notification applied) among them.

#include <cstdint>

#include "Ripple/RippleCounters.h"

namespace Cairn::Reader {

struct Counters : Ripple::Reader::Counters {
  uint32_t lookasideReads = 0;    // values read from the LookasideSlot
  uint64_t bucketMappedSize = 0;  // bytes mapped of the bucket file
  uint32_t slotResizes = 0;       // remaps of the slot file
  uint32_t bucketResizes = 0;     // remaps of the bucket file
  uint64_t slotMappedSize = 0;    // bytes mapped of the slot file
  uint32_t chainRetries = 0;      // walks started over because a link version moved
  uint32_t slotRemaps = 0;        // remaps that moved the base address
  uint32_t iterHintMisses = 0;    // next() left the fast path
};

}  // namespace Cairn::Reader

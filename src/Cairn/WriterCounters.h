#pragma once
// Cairn::Writer::Counters: what one table's writer has done since it attached.
// Plain counters, raised on the writer's thread without a lock; read out as a
// copy by writerCounters(). The notification queue raises the fields of its
// own base record in place.

#include <cstdint>

#include "Ripple/RippleCounters.h"

namespace Cairn::Writer {

struct Counters : Ripple::Writer::Counters {
  uint64_t slotsAllocated = 0;   // SlotWriterTable::alloc
  uint64_t slotsRemoved = 0;     // remove
  uint64_t slotRemaps = 0;       // a slot file resize moved the mapping
  uint64_t bucketRemaps = 0;     // a bucket file resize moved the mapping
  uint64_t slotGrows = 0;        // SlotWriterTable::grow
  uint64_t slotShrinks = 0;      // a finished shrink
  uint64_t slotMoves = 0;        // slots moved by shrinks
  uint64_t directWrites = 0;     // directWrite and directUpdate
  uint64_t directCommits = 0;    // directCommit
  uint64_t nextSlowPaths = 0;    // iterations that had to look their key up again
  uint64_t pendingNotifications = 0;
  // Refreshed by writerCounters(): the wake-up socket and the mapped sizes.
  uint64_t nudges = 0;
  uint64_t readers = 0;
  uint64_t sleepingReaders = 0;
  uint64_t slotMappedSize = 0;
  uint64_t bucketMappedSize = 0;
  uint64_t primaryMappedSize = 0;
  uint64_t secondaryMappedSize = 0;
};

}  // namespace Cairn::Writer

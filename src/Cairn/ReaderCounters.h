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
  // The shadow store and its hash map.
  uint32_t shadowWrites = 0;       // ShadowHashMap::write calls
  uint32_t shadowRekeys = 0;       // entries that moved to another slot
  uint32_t occupied = 0;           // entries in the shadow's hash map
  uint32_t bucketGrows = 0;        // doublings of the shadow's bucket array
  uint32_t bucketShrinks = 0;      // halvings of the shadow's bucket array
  uint32_t shadowPatches = 0;      // pointer fixes after the slot array moved
  uint32_t shadowGrows = 0;        // finished grows of the shadow's slot array
  uint32_t shadowShrinks = 0;      // finished shrinks of the shadow's slot array
  uint32_t notifiedHits = 0;       // lookups of the key being notified
  uint32_t notifiedMisses = 0;     // lookups of another key during a notification
  uint32_t keyMismatches = 0;      // shared slots that no longer held a key-only shadow's key
  uint32_t doSlotFailures = 0;     // notifications found tombstoned when applied
  uint64_t lastSyncSequence = 0;   // the sequence a finished sync or resync walk stands at
  uint64_t shadowMappedSize = 0;   // bytes mapped of the shadow's slots and buckets
  uint64_t epochMappedSize = 0;    // bytes mapped of the epoch file by a key-only shadow
  uint64_t primaryMappedSize = 0;    // bytes mapped of the queue's primary table
  uint64_t secondaryMappedSize = 0;  // bytes mapped of the queue's secondary table
};

}  // namespace Cairn::Reader

#pragma once
// The queue's counters: plain counters of one thread, raised without a lock,
// read out as copies. The engine's own records derive from them
// (Cairn::Writer::Counters from Ripple::Writer::Counters, Cairn::Reader::Counters
// from Ripple::Reader::Counters), so that the queue raises its fields in place.

#include <cstdint>

namespace Ripple::Writer {

struct Counters {
  uint64_t sequence = 0;        // the last sequence handed out; what sequence() reports
  uint64_t notifications = 0;   // notify calls
  uint64_t tombstones = 0;      // entries tombstoned: by notify, tombstone or a corral release
  uint64_t swaps = 0;           // compactions, each ending in a swap of the tables
  uint64_t droppedEntries = 0;  // entries that compactions left behind: tombstones, and given-back slots' entries
  uint64_t gaps = 0;            // compactions that left out given-back slots' entries, each ending in a gap
  uint64_t grows = 0;           // table files made larger
  uint64_t corrals = 0;         // slot shrinks marked by markShrinkStart
  uint64_t corralReleases = 0;  // corrals whose entries became ordinary entries
};

}  // namespace Ripple::Writer

namespace Ripple::Reader {

struct Counters {
  // The sequence of the last entry this reader has applied. The consumer
  // records each live entry it applied (ShadowStore::doSlot); the reader
  // records each tombstone it passes, since a tombstone needs no work. After
  // a swap the reader resumes at the first entry above it.
  uint64_t sequence = 0;
  uint64_t notificationsRead = 0;  // live entries handed out by nextEntry
  uint64_t tombstonesPassed = 0;   // tombstoned entries passed over
  uint64_t swapsSeen = 0;          // times this reader took up the other table
  uint64_t remaps = 0;             // mappings extended to a grown table file
};

}  // namespace Ripple::Reader

#pragma once
// The notification queue's files: which slots of a table have changed, in the
// order they changed. Values never travel through the queue; a consumer reads
// the slot when it handles the entry. Shared by the queue's one writer
// (Ripple::RippleWriter), any number of lock-free readers in other processes
// (Ripple::RippleReader) and the validators. Every number here is the format
// they all agree on (host byte order; the files never leave the machine).
//
// A queue is three files in its table's directory:
//
//   "ripple-control"    the control block, 64 bytes
//   "ripple-primary"    table 0
//   "ripple-secondary"  table 1
//
// Both tables have one format. The current one is table (swapCount & 1); the
// writer appends to it, and when it is full either grows it in place or
// copies its live entries into the other table and swaps (RippleWriter.h).
//
//   control block                          table file
//   0   magic "RIPPLCTL"   8                0   epochId    4  (reserved to the table)
//   8   version (2)        4                4   capacity   4  entries it has room for
//   12  epochId            4                8   size       4  entries written
//   16  entrySize (12)     4                12  entries       12 bytes each, no padding
//   20  hash               4
//   24  reserved           8                entry: Notification, 12 bytes, 4-aligned
//   32  swapCount          4                0   sequence   8  rises from entry to entry
//   36  reserved           4                8   slot       4  slot index,
//   40  corralStart        8                                  RIPPLE_TOMBSTONED or
//                                                             RIPPLE_GAP
//   48  corralEnd          8
//   56  reserved           8
//
// Who may do what:
//   - Writer only (RippleWriter, on the one thread of the table's one writer
//     process): every store into these files.
//   - Safe in any reader process, without a lock: loads of swapCount,
//     corralStart, corralEnd, a table's size and capacity, and of an entry
//     below size; each through Arena/Atomics.h, except an entry's sequence
//     (below).
//
// Invariants between two writer operations:
//  1. In the current table the entries' sequences rise strictly with their
//     position, and the last entry holds the writer's latest sequence. A table
//     has size 0 only while it has held no notification since it was
//     formatted; its entry 0 is then all zeros (sequence 0).
//  2. size <= capacity, and the file holds at least tableFileSize(capacity)
//     bytes. An entry below size is complete: while its table is current its
//     sequence never changes, and its slot word changes at most once, from a
//     slot index to RIPPLE_TOMBSTONED.
//  3. One live entry per slot: outside the corral, a slot index names at most
//     one entry of the current table, and the writer's RipplePos for the slot
//     holds that entry's position (RIPPLE_TOMBSTONED when there is none).
//     At most one gap entry is live, the latest.
//  4. The corral: corralStart is 0, or the first sequence of a slot shrink's
//     notifications; corralEnd is 0 while that shrink runs and its last
//     sequence once it ended. An entry whose sequence lies in the corral is
//     never tombstoned and no RipplePos points at it, so that every reader
//     meets a shrink's notifications in the order it made them (a moved
//     entry's new slot before its old one) until the writer releases it.
//  5. Generations: a table's content is reused only after swapCount changed.
//     The writer fills the non-current table only after the swapCount store
//     that made it non-current, and formatting changes swapCount before it
//     touches either table. So a reader that loads an entry and then finds
//     swapCount still equal to the value under which it took its table up has
//     read what the writer published, never a table being reused.
//  6. Every file carries the EpochId it was formatted under; the control
//     block's magic, version, entrySize and hash tell its content from garbage.
//  7. Gaps: a compaction made while no corral stands may leave out the live
//     entries of slots at or above the table's slot count (slots a shrink
//     gave back, whose last change was their emptying). It then appends a
//     gap entry (slot RIPPLE_GAP) right after its swap. A consumer that meets
//     a gap can no longer complete its copy from the queue alone: it walks
//     the table again. Every entry that was left out lies below the gap.
//
// Publication, on x86-64 store order with no fence and no locked instruction:
// an entry's words, then its table's size (publish32); a compacted table's
// entries, capacity and size, then swapCount (publish32); a grown file, then
// its capacity. The reader's loads pair with those stores (RippleReader.h).
//
// The sequence is 8 bytes at a 4-byte boundary (every second entry is not
// 8-aligned, and some straddle a cache line), so it is moved by an 8-byte
// memcpy, one load or store where the compiler can, never through a
// reference to a misaligned uint64_t. It is not single-copy atomic. By
// invariant 2 it is written only where no reader trusts it yet: past size, or
// in a table that swapCount has already taken away from every reader. A torn
// value is therefore always followed by a changed swapCount, and every use of
// a sequence is checked against swapCount afterwards.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Arena/Atomics.h"
#include "ArenaFiles/EpochId.h"

namespace Ripple {

constexpr const char * ControlFileName = "ripple-control";
constexpr const char * PrimaryFileName = "ripple-primary";
constexpr const char * SecondaryFileName = "ripple-secondary";

constexpr uint64_t ControlMagic = 0x4C54434C50504952ull;  // "RIPPLCTL" read little-endian
// 2: gap entries (invariant 7), which a consumer of version 1 would not know.
constexpr uint32_t ControlVersion = 2;
constexpr std::size_t ControlBlockSize = 64;
constexpr std::size_t TableHeaderSize = 12;
constexpr std::size_t NotificationSize = 12;

// A new table fills one 4 KiB page: (4096 - 12) / 12 entries.
constexpr uint32_t InitialCapacity = 340;
// Positions stay far below RIPPLE_TOMBSTONED, and a table file below 3 GiB.
constexpr uint32_t MaxCapacity = 1u << 28;
// Slot indices of the engine stay below 2^31; a larger payload is no slot.
constexpr uint32_t SlotLimit = 0x80000000u;

// One queue entry. The sequence is kept as two 32-bit words so that the
// record is 12 bytes with 4-byte alignment, exactly as it lies in the file;
// it is only ever moved whole, by sequence() and sequenceIs().
struct Notification {
  // Never a slot index (those stay below SlotLimit) and never a position in
  // a table (those stay below MaxCapacity).
  static constexpr uint32_t RIPPLE_TOMBSTONED = 0xFFFFFFFFu;
  // The slot word of a gap entry (invariant 7); neither a slot index nor a
  // position either.
  static constexpr uint32_t RIPPLE_GAP = 0xFFFFFFFEu;

  uint32_t sequenceWords[2];  // the 64-bit sequence, low word first
  uint32_t slot;

  static Notification of(uint64_t sequence, uint32_t slot) {
    Notification notification{{0, 0}, slot};
    notification.sequenceIs(sequence);
    return notification;
  }

  // One 8-byte load (see the note on torn sequences above).
  uint64_t sequence() const {
    uint64_t value;
    std::memcpy(&value, sequenceWords, sizeof(value));
    return value;
  }
  // Writer only, on an entry that no reader trusts yet (invariant 2).
  void sequenceIs(uint64_t value) { std::memcpy(sequenceWords, &value, sizeof(value)); }

  uint32_t loadSlot() const { return Arena::Atomics::observe32(slot); }
  void publishSlot(uint32_t value) { Arena::Atomics::publish32(slot, value); }
  bool tombstoned() const { return loadSlot() == RIPPLE_TOMBSTONED; }
};

constexpr uint32_t RIPPLE_TOMBSTONED = Notification::RIPPLE_TOMBSTONED;
constexpr uint32_t RIPPLE_GAP = Notification::RIPPLE_GAP;

static_assert(std::is_trivially_copyable_v<Notification> && std::is_standard_layout_v<Notification>,
              "an entry lies byte for byte in a shared file: no pointers, no hidden members");
static_assert(sizeof(Notification) == NotificationSize,
              "entries lie 12 bytes apart in a table file, with no padding");
static_assert(alignof(Notification) == 4, "entry i starts at 12 + 12 i: only 4-byte alignment is guaranteed");
static_assert(offsetof(Notification, slot) == 8, "the slot word follows the 8-byte sequence");

// The first 12 bytes of a table file; the entries follow.
struct TableHeader {
  ArenaFiles::EpochId epochId;  // reserved to the table: the generation it was formatted under
  uint32_t capacity;
  uint32_t size;

  Notification * entries() {
    return reinterpret_cast<Notification *>(reinterpret_cast<char *>(this) + TableHeaderSize);
  }
  const Notification * entries() const {
    return reinterpret_cast<const Notification *>(reinterpret_cast<const char *>(this) + TableHeaderSize);
  }

  // True if the header is sound for a file of `fileSize` bytes of generation
  // `wanted`; otherwise false, with the reason in errorOut.
  bool validate(std::size_t fileSize, ArenaFiles::EpochId wanted, std::string & errorOut) const;
  std::string toString() const;
};

static_assert(std::is_trivially_copyable_v<TableHeader> && std::is_standard_layout_v<TableHeader>,
              "the table header lies byte for byte in a shared file");
static_assert(sizeof(TableHeader) == TableHeaderSize, "entries start at byte 12 of a table file");
static_assert(offsetof(TableHeader, capacity) == 4 && offsetof(TableHeader, size) == 8,
              "capacity at 4 and size at 8: readers and the validator load them there");

// The shared control block. The writer alone stores into it.
struct ControlBlock {
  uint64_t magic;
  uint32_t version;
  ArenaFiles::EpochId epochId;
  uint32_t entrySize;
  uint32_t hash;
  uint64_t reserved0;
  uint32_t swapCount;
  uint32_t reserved1;
  uint64_t corralStart;
  uint64_t corralEnd;
  uint64_t reserved2;

  // The checksum of the fields before offset 24, which never change while the
  // queue lives.
  uint32_t doHash() const;
  // True if the block is this format, sound for a file of `fileSize` bytes
  // and, unless `wanted` is none, of that generation; else the reason in
  // errorOut.
  bool validate(std::size_t fileSize, ArenaFiles::EpochId wanted, std::string & errorOut) const;
  std::string toString() const;
};

static_assert(std::is_trivially_copyable_v<ControlBlock> && std::is_standard_layout_v<ControlBlock>,
              "the control block lies byte for byte in a shared file");
static_assert(sizeof(ControlBlock) == ControlBlockSize, "the control block file is 64 bytes");
static_assert(offsetof(ControlBlock, epochId) == 12 && offsetof(ControlBlock, entrySize) == 16 &&
                  offsetof(ControlBlock, hash) == 20,
              "the control block's identity fields lie before offset 24");
static_assert(offsetof(ControlBlock, swapCount) == 32,
              "swapCount is the aligned 32-bit word at 32 that readers compare");
static_assert(offsetof(ControlBlock, corralStart) == 40 && offsetof(ControlBlock, corralEnd) == 48,
              "corralStart and corralEnd are aligned 64-bit words at 40 and 48, each stored in one write");

constexpr std::size_t tableFileSize(uint32_t capacity) {
  return TableHeaderSize + static_cast<std::size_t>(capacity) * NotificationSize;
}

// The entries a mapping of `bytes` bytes of a table file holds.
constexpr uint32_t entriesIn(std::size_t bytes) {
  return bytes < TableHeaderSize ? 0 : static_cast<uint32_t>((bytes - TableHeaderSize) / NotificationSize);
}

static_assert(tableFileSize(InitialCapacity) <= 4096, "a new table fits one 4 KiB page");
static_assert(MaxCapacity < RIPPLE_GAP && SlotLimit <= RIPPLE_GAP && RIPPLE_GAP < RIPPLE_TOMBSTONED,
              "RIPPLE_TOMBSTONED and RIPPLE_GAP are neither positions nor slot indices");

}  // namespace Ripple

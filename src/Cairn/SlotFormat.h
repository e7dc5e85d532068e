#pragma once
// The slot file: one table's entries, shared by its one writer and any number
// of lock-free readers, the validator and the shadow. Every number here is the
// on-disk and in-memory format they all must agree on (host byte order; the
// file never leaves the machine). docs/FILES.md draws the same layout.
//
//   file  = header (SlotHeaderSize = 192 + slotSize bytes), then numSlots slots
//   slot i starts at SlotHeaderSize + i * slotSize; slotSize = valueSize + 16
//
//   header                          slot
//   0   magic "CAIRNSLT"  8         0  link version  4  (+4 per store)
//   8   version (18)      4         4  link value    4  slot index, next bucket
//   12  epochId           4                              (top bit), or EndOfTable
//   16  platform (2)      4         8  flags         4  OCCUPIED | LOOKASIDE |
//   20  valueType        64                              version << 2
//   84  classType        64         12 rhash         4  key hash, bits reversed
//   148 valueSize         4         16 value   valueSize
//   152 slotSize          4
//   156 maxSlots          4
//   160 constFlags        2   bit 1 HasRippleTable
//   162 runtimeFlags      2   bit 0 WriteInProgress
//   164 hash              4   FNV-1a of the constant fields
//   168 occupiedSlots     4
//   172 freeSlots         4   head of the free list (an index, not a count)
//   176 mostSlots         4
//   180 hashSeed          4
//   184 numSlots          8   Arena::VerU32: version at 184, count at 188
//   192 LookasideSlot  slotSize
//
// Invariants between two writer operations (what the validator walks):
//  1. Every slot is on exactly one list: the free list (OCCUPIED clear) or one
//     bucket chain (OCCUPIED set, LOOKASIDE clear), and a link serves that list.
//  2. occupiedSlots + length of the free list == the numSlots count; no index
//     on the free list repeats or reaches the count.
//  3. An occupied slot's rhash is the reversal of its key's hash, and each
//     chain stands in split order.
//  4. The numSlots count only changes together with its version (one 64-bit
//     store), and every link store raises the link version by 4.
//
// Publication rules (x86-64 store order, no fence, no locked instruction):
// links and numSlots are one aligned 64-bit store each; flags and freeSlots
// one aligned 32-bit store; a value is copied between the two flags stores.
// All of them go through Arena/Atomics.h, which keeps them in program order.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Arena/VerU32.h"
#include "ArenaFiles/EpochId.h"
#include "Basalt/DebugHandler.h"

namespace Cairn {

constexpr uint64_t SlotMagic = 0x544C534E52494143ull;  // "CAIRNSLT" read little-endian
// Version 18: keys placed by the inline word-at-a-time key hash (Rig/Hash.h)
// and keys with zeroed padding. A file of version 17 placed its keys by
// XXH32; its chains are not in this build's split order, so it is refused
// (readers) or formatted afresh (the writer), never read.
constexpr uint32_t SlotVersion = 18;
constexpr std::size_t SlotHeaderFixedSize = 192;
constexpr std::size_t SlotPrefixSize = 16;
constexpr std::size_t TypeNameSize = 64;

constexpr uint16_t HasRippleTable = 2;   // constFlags
constexpr uint16_t WriteInProgress = 1;  // runtimeFlags

constexpr uint32_t OCCUPIED = 1;
constexpr uint32_t LOOKASIDE = 2;
constexpr uint32_t FlagsVersionStep = 4;

constexpr uint32_t EndOfTable = 0xFFFFFFFFu;
constexpr uint32_t NextBucketBit = 0x80000000u;
constexpr uint32_t NoFreeSlot = 0xFFFFFFFFu;
constexpr uint32_t LinkVersionStep = 4;

constexpr std::size_t slotSizeFor(std::size_t valueSize) { return valueSize + SlotPrefixSize; }
constexpr std::size_t slotHeaderSize(std::size_t slotSize) { return SlotHeaderFixedSize + slotSize; }

// A link word: the next slot of a chain or of the free list. Stored only by
// one 64-bit store of (version + 4, new value); see the table in docs/FILES.md.
struct SlotLink {
  Arena::VerU32 word;

  static constexpr bool isNextBucket(uint32_t link) {
    return (link & NextBucketBit) != 0 && link != EndOfTable;
  }
  static constexpr uint32_t nextBucketLink(uint32_t bucket) { return bucket | NextBucketBit; }
  static constexpr uint32_t bucketOf(uint32_t link) { return link & ~NextBucketBit; }

  Arena::VerU32 load() const { return word.load(); }
  uint32_t value() const { return word.load().value; }
  // Writer only. Publishes `link` with the version raised by 4.
  void storeNext(uint32_t link) { word.store(word.load().version + LinkVersionStep, link); }
  // Writer only, at format time: version 0 and `link`.
  void reset(uint32_t link) { word.store(0, link); }
};

// The first 16 bytes of every slot; the value follows.
struct SlotPrefix {
  SlotLink link;
  uint32_t flags;
  uint32_t rhash;
};

static_assert(sizeof(SlotPrefix) == SlotPrefixSize, "a slot's value starts at byte 16");
static_assert(offsetof(SlotPrefix, flags) == 8 && offsetof(SlotPrefix, rhash) == 12,
              "flags at 8 and rhash at 12 of a slot");

// The fixed 192 bytes of the slot file's header. Non-generic: the validator
// and readers read it without knowing the value type.
struct SlotTableHeader {
  uint64_t magic;
  uint32_t version;
  ArenaFiles::EpochId epochId;
  uint32_t platform;
  char valueType[TypeNameSize];
  char classType[TypeNameSize];
  uint32_t valueSize;
  uint32_t slotSize;
  uint32_t maxSlots;
  uint16_t constFlags;
  uint16_t runtimeFlags;
  uint32_t hash;
  uint32_t occupiedSlots;
  uint32_t freeSlots;
  uint32_t mostSlots;
  uint32_t hashSeed;
  Arena::VerU32 numSlots;

  // The checksum of the fields that never change while the table lives.
  uint32_t doHash() const;
  // True if the header is sound for a file (or mapping) of `fileSize` bytes
  // and, when `wanted` is not none, of that generation. On false `errorOut`
  // holds the message, which also goes out at level 0 if that level is on.
  bool validate(Basalt::Platform::DebugHandler & handler, unsigned long fileSize,
                ArenaFiles::EpochId wanted, std::string & errorOut) const;
  std::string toString() const;

  std::size_t headerSize() const { return slotHeaderSize(slotSize); }
  // The name as stored, up to its NUL.
  static std::string name(const char (&field)[TypeNameSize]);
};

static_assert(sizeof(SlotTableHeader) == SlotHeaderFixedSize,
              "the LookasideSlot starts at byte 192 of the slot file");
static_assert(offsetof(SlotTableHeader, version) == 8 && offsetof(SlotTableHeader, epochId) == 12 &&
                  offsetof(SlotTableHeader, platform) == 16 &&
                  offsetof(SlotTableHeader, valueType) == 20 &&
                  offsetof(SlotTableHeader, classType) == 84 &&
                  offsetof(SlotTableHeader, valueSize) == 148 &&
                  offsetof(SlotTableHeader, slotSize) == 152 &&
                  offsetof(SlotTableHeader, maxSlots) == 156 &&
                  offsetof(SlotTableHeader, constFlags) == 160 &&
                  offsetof(SlotTableHeader, runtimeFlags) == 162 &&
                  offsetof(SlotTableHeader, hash) == 164 &&
                  offsetof(SlotTableHeader, occupiedSlots) == 168 &&
                  offsetof(SlotTableHeader, freeSlots) == 172 &&
                  offsetof(SlotTableHeader, mostSlots) == 176 &&
                  offsetof(SlotTableHeader, hashSeed) == 180,
              "slot file header fields at their file-format offsets");
static_assert(offsetof(SlotTableHeader, numSlots) == 184,
              "numSlots is one aligned 64-bit word at 184, stored in one write");

// The initial slot count of a growing table: the largest power of two not
// above (pageSize - header) / slotSize, so that a new file fits one page; 1
// when the page is not larger than the header or the quotient is 0.
uint32_t minSlotsFor(std::size_t pageSize, std::size_t slotSize);

}  // namespace Cairn

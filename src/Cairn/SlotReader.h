#pragma once
// SlotReaderTable: a reader process's view of a table's slot file
// (Cairn/SlotFormat.h). A read-only mapping that follows the writer's growing
// and shrinking, a bound-checked index of slots, and getValue, the one routine
// that copies a value out of a slot the writer may be changing this moment.
//
// Safe in any reader process; one object belongs to one thread. It never
// writes a byte of the file: it changes only its own mapping, its copy of the
// numSlots pair and its anchors. getKey is getValue for the words of the
// value that hold its key alone: a lookup reads the keys of a chain with it,
// and copies a whole value only for the slot whose key it wants.
//
// What a reader relies on, and checks:
//  1. numSlots is one 64-bit word; its version moves with every resize, so a
//     reader tells a current view from a stale one with one 32-bit load.
//  2. The writer extends the file before it raises numSlots, and never cuts
//     the file under a reader; a stale, larger mapping stays readable.
//  3. A value copied between two equal loads of its slot's flags, with
//     LOOKASIDE clear, is whole; with LOOKASIDE set the LookasideSlot holds
//     the whole value being installed. The loads are ordered flags, value,
//     flags by the primitives of Arena/Atomics.h.

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "Arena/Memory.h"
#include "Basalt/Exception.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/SlotTable.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class SlotReaderTable final : public SlotTable<Value> {
  using Base = SlotTable<Value>;

 public:
  using typename Base::Header;
  using typename Base::Slot;
  using Base::SlotHeaderSize;
  using Base::slotSize;
  using Marshalling = typename Ops::ValueOperations::Marshalling;

  // Slot access by index, bounded by the local count: a stale, torn or
  // corrupt link can never lead a reader out of its mapping.
  struct Slots {
    const Slot * base = nullptr;
    uint32_t count = 0;

    // Inline on every read; the throw is out of line, so that the bound
    // check costs a compare and a branch.
    const Slot * operator[](uint32_t index) const {
      if (index >= count) [[unlikely]] {
        outOfRange(index, count);
      }
      return base + index;
    }
    [[noreturn, gnu::noinline, gnu::cold]] static void outOfRange(uint32_t index, uint32_t count) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("SlotReader::Slots::operator[] out-of-range index:{} numSlots:{}", index, count));
    }
  };

  SlotReaderTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath, Ops & ops,
                  Reader::Counters & counters)
      : Base(handler, rootPath, false), ops_(&ops), counters_(&counters), keyWords_(keyWordsOf(ops.defaultValue)) {}
  ~SlotReaderTable() override { SlotReaderTable::detach(); }

  // Maps the header alone, read-only. Nothing is validated here.
  bool attach() {
    if (this->wrapper_.memSize() == 0) {
      BASALT_TRACE(this->debugHandler(), 0, "SlotReader::attach() no shared memory region");
      return false;
    }
    this->header_ = static_cast<Header *>(
        this->wrapper_.attach(SlotHeaderSize, Arena::ArenaFilesWrapper::Mode::ReadOnly));
    if (this->header_ == nullptr) {
      BASALT_TRACE(this->debugHandler(), 0, "SlotReader::attach() cannot attach to shmem size:{}", SlotHeaderSize);
      return false;
    }
    const Header copy = stableHeader();
    BASALT_TRACE(this->debugHandler(), 3, "{}", copy.toString());
    // No header version is 0xFFFFFFFF in practice: the first doResize maps
    // the whole table.
    numSlots_ = Arena::VerU32{0xFFFFFFFFu, 0};
    slots_ = Slots{};
    ops_->hashSeed = copy.hashSeed;
    return true;
  }

  // Brings the mapping and the local pair up to the header's numSlots. True
  // if it did anything. Taken after every lookup, so the test stays inline:
  // one load and one compare; the remap is out of line.
  bool doResize() {
    if (this->header_ == nullptr || this->header_->numSlots.loadVersion() == numSlots_.version) [[likely]] {
      return false;
    }
    return remap();
  }

  // Copies the value of a slot, whole: old or new, never a mixture. Returns
  // flags in the low half and rhash in the high half; the caller tests
  // OCCUPIED. Leaves the version anchor on the slot's flags word.
  uint64_t getValue(uint32_t slotIndex, Value & value, const void * /*unused*/) const {
    return copyUnderFlags(slotIndex, [&](const Slot * source, bool fromLookaside) {
      if (fromLookaside) [[unlikely]] {
        ++counters_->lookasideReads;
      }
      Marshalling::fromSlot(value, &source->value);
    });
  }

  // The same for the key alone: copies into `value` the words that hold its
  // key, whole, of the same state as the flags and rhash it returns; the rest
  // of `value` is left as it was. lookasideReads counts values, not keys.
  uint64_t getKey(uint32_t slotIndex, Value & value) const {
    return copyUnderFlags(slotIndex, [&](const Slot * source, bool /*fromLookaside*/) {
      Arena::Atomics::copyQuietOut(reinterpret_cast<uint64_t *>(&value) + keyWords_.first,
                                   reinterpret_cast<const uint64_t *>(&source->value) + keyWords_.first,
                                   8 * keyWords_.count);
    });
  }

  // Touches the first bytes of slot `slotIndex` (flags, rhash and the start
  // of the value) ahead of a read of it; nothing past the mapping.
  void prefetch(uint32_t slotIndex) const {
    if (slotIndex < slots_.count) {
      __builtin_prefetch(slots_.base + slotIndex);
    }
  }

  // The slot's rhash as it stands, for choosing which copy to make; never
  // trusted: every conclusion comes from a copy under the flags protocol. (A
  // slot being rewritten may show a passing rhash; a wrong guess costs a
  // copy, never an answer.)
  uint32_t peekRhash(uint32_t slotIndex) const { return Arena::Atomics::observe32(slots_[slotIndex]->rhash); }

  void detach() override {
    BASALT_TRACE(this->debugHandler(), 5, "SlotReader::detach() delegating to SlotTable::detach()");
    Base::detach();
    numSlots_ = Arena::VerU32{};
    slots_ = Slots{};
  }

  uint32_t capacity() const override { return slots_.count; }
  const Slots & slots() const { return slots_; }
  const Arena::VerU32 & localNumSlots() const { return numSlots_; }
  Arena::VersionAnchor & spareAnchor() { return spareAnchor_; }
  const Arena::VersionAnchor & cacheVersionAnchor() const { return this->versionAnchor_; }
  void resetAnchor() const { this->versionAnchor_.reset(); }

  // A copy of the header that is consistent with one numSlots version: copied
  // qword by qword between two loads of that version, again until they agree.
  Header stableHeader() const {
    std::array<uint64_t, SlotHeaderFixedSize / 8> words;
    const auto * shared = reinterpret_cast<const uint64_t *>(this->header_);
    while (true) {
      const uint32_t before = this->header_->numSlots.loadVersion();
      Arena::Atomics::loadFence();
      for (std::size_t i = 0; i < words.size(); ++i) {
        words[i] = Arena::Atomics::loadQuiet64(shared[i]);
      }
      Arena::Atomics::loadFence();  // the copy stays before the second version load
      if (this->header_->numSlots.loadVersion() == before) {
        Header copy;
        std::memcpy(static_cast<void *>(&copy), words.data(), sizeof(copy));
        return copy;
      }
    }
  }

 private:
  // The slow half of doResize(): maps the count now in the header.
  [[gnu::noinline]] bool remap() {
    Header copy;
    std::size_t needed;
    while (true) {
      copy = stableHeader();
      needed = SlotHeaderSize + Arena::multiplyOverflowCheck(copy.numSlots.value, slotSize);
      const std::size_t size = this->wrapper_.fileSize();
      if (size >= needed) {
        break;
      }
      // The writer extends the file before it publishes a larger count, so a
      // shortfall is real only if the count is still the one copied.
      if (this->header_->numSlots.loadVersion() == copy.numSlots.version) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "SlotReader::doResize() requesting to map {} {} slots. Requested file resize to {} but real file "
            "size is {}",
            this->wrapper_.getFilename(), copy.numSlots.value, needed, size));
      }
    }
    BASALT_TRACE(this->debugHandler(), 2, "SlotReader::doResize() {} from {} slots to {}",
                 this->rootPath_.cairnName(), numSlots_.toString(), copy.numSlots.value);
    const void * oldBase = this->header_;
    this->header_ = static_cast<Header *>(this->wrapper_.resize(needed));
    if (this->header_ == nullptr) {
      throw Basalt::MemoryResourceException(fmt::format(
          "SlotReader::doResize() failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
          this->wrapper_.getFilename(), numSlots_.toString(), copy.numSlots.value, needed, this->wrapper_.reason()));
    }
    if (this->header_ != oldBase) {
      BASALT_TRACE(this->debugHandler(), 5, "SlotReader::doResize() changed base address mapping from {} to {}",
                   oldBase, static_cast<const void *>(this->header_));
      ++counters_->slotRemaps;
    }
    followMapping(spareAnchor_);
    ++counters_->slotResizes;
    BASALT_TRACE(this->debugHandler(), 3, "onResize {}", copy.toString());
    numSlots_ = copy.numSlots;
    slots_ = Slots{reinterpret_cast<const Slot *>(reinterpret_cast<const char *>(this->header_) + SlotHeaderSize),
                   copy.numSlots.value};
    BASALT_TRACE(this->debugHandler(), 5, "SlotReader::doResize() successful");
    return true;
  }

  // The qwords of a value that hold its key.
  struct KeyWords {
    std::size_t first;
    std::size_t count;
  };

  // Found from where the key lies in a value; the whole value for a value
  // whose key does not lie inside it.
  static KeyWords keyWordsOf(const Value & value) {
    const auto * base = reinterpret_cast<const char *>(&value);
    const auto * key = reinterpret_cast<const char *>(&Ops::KeyOperations::key(value));
    if (key < base || key + sizeof(Key) > base + sizeof(Value)) {
      return KeyWords{0, sizeof(Value) / 8};
    }
    const auto offset = static_cast<std::size_t>(key - base);
    return KeyWords{offset / 8, (offset + sizeof(Key) + 7) / 8 - offset / 8};
  }

  // The reader's copy protocol: `copy(source, fromLookaside)` between two
  // loads of the slot's flags, again until they agree.
  template <typename Copy>
  uint64_t copyUnderFlags(uint32_t slotIndex, Copy && copy) const {
    const Slot * slot = slots_[slotIndex];
    const Slot * lookaside = this->lookasideSlot();
    uint32_t flags = Arena::Atomics::observe32(slot->flags);
    uint32_t rhash;
    while (true) {
      // With LOOKASIDE set the slot's own bytes are in flux; the LookasideSlot
      // holds the whole value being installed, with its rhash.
      const bool fromLookaside = (flags & LOOKASIDE) != 0;
      const Slot * source = fromLookaside ? lookaside : slot;
      rhash = Arena::Atomics::observe32(source->rhash);
      copy(source, fromLookaside);
      Arena::Atomics::loadFence();  // the copy stays before the second flags load
      // Detects a writer that crossed one of the two flags stores of a
      // rewrite (or removed and reused the slot) during the copy.
      const uint32_t again = Arena::Atomics::observe32(slot->flags);
      if (again == flags) {
        break;
      }
      flags = again;
    }
    this->anchorOn(slots_[slotIndex], flags);
    return (static_cast<uint64_t>(rhash) << 32) | flags;
  }

  // Keeps the spare anchor on its word across a remap, or invalidates it when
  // its word is no longer mapped.
  void followMapping(Arena::VersionAnchor & anchor) {
    if (anchor.offset == Arena::VersionAnchor::invalidOffset || anchor.empty()) {
      return;
    }
    if (anchor.offset + sizeof(uint32_t) <= this->wrapper_.memSize()) {
      anchor.base = reinterpret_cast<uint64_t>(this->header_);
    } else {
      anchor.invalidate();
    }
  }

  Ops * ops_;
  Reader::Counters * counters_;
  KeyWords keyWords_;
  Arena::VerU32 numSlots_;
  Slots slots_;
  Arena::VersionAnchor spareAnchor_;
};

}  // namespace Cairn

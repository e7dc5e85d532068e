#pragma once
// SlotWriterTable: the writer's side of the slot file. It creates, re-formats
// or re-attaches the file, hands out and takes back slots, grows the file and
// gives range-checked access to slots. It knows nothing of keys and chains.
//
// Writer thread only. What readers in other processes can observe of it:
//   - link words, stored only by SlotLink::storeNext (one 64-bit store);
//   - numSlots, stored only as one VerU32 (count with version + 1);
//   - freeSlots, one 32-bit store.
// grow() publishes in this order: new slots formatted and threaded first, then
// numSlots, then freeSlots; so a reader that sees the new count finds the new
// slots formatted, and a slot is never handed out before its count is visible.
// shrink() is the reverse: the entries above the new count have been moved
// below it (move()) and their old slots marked unoccupied before the smaller
// numSlots is published; only then does the writer's mapping shrink. The file
// keeps its length, so a reader's older, larger mapping stays readable until
// it follows the count down; the tail's memory goes back to the system as a
// hole, which reads as zeros.
//
// Between attach() and detach(), numSlots_, slots_ and shrinkThreshold_ mirror
// the header, except inside grow() and a shrink.

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "Arena/Memory.h"
#include "Basalt/Exception.h"
#include "Basalt/Util.h"
#include "Cairn/AttachResult.h"
#include "Cairn/Compatibility.h"
#include "Cairn/Exception.h"
#include "Cairn/SlotTable.h"
#include "Cairn/WriterCounters.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class SlotWriterTable : public SlotTable<Value> {
  using Base = SlotTable<Value>;

 public:
  using typename Base::Header;
  using typename Base::Slot;
  using Base::SlotHeaderSize;
  using Base::slotSize;
  using Marshalling = typename Ops::ValueOperations::Marshalling;

  // Slot access by index, range-checked: every access of the writer goes
  // through it, so a damaged link is reported, never followed out of the file.
  struct Slots {
    Slot * base = nullptr;
    uint32_t maxIndex = 0;

    // Inline on every access; the throw is out of line, so that the bound
    // check costs a compare and a branch.
    Slot * operator[](uint32_t index) const {
      if (base == nullptr || index > maxIndex) [[unlikely]] {
        outOfRange(index, maxIndex);
      }
      return base + index;
    }
    [[noreturn, gnu::noinline, gnu::cold]] static void outOfRange(uint32_t index, uint32_t maxIndex) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("SlotWriter::Slots::operator[] out-of-range index: {} max:{}", index, maxIndex));
    }
  };

  struct Config {
    uint32_t tableSize = 0;      // the descriptor's maximum size
    bool fixedSize = false;      // the table never grows
    bool shrinkEnabled = false;  // the table may shrink
    std::string classType;       // goes into the header's classType
    bool localMem = false;       // private memory instead of a file
  };

  SlotWriterTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath, Ops & ops,
                  Writer::Counters & counters, const Config & config)
      : Base(handler, rootPath, config.localMem),
        tableSize_(config.tableSize),
        ops_(&ops),
        minSlots_(config.fixedSize ? config.tableSize : minSlotsFor(Arena::pageSize_, slotSize)),
        counters_(&counters),
        classType_(config.classType),
        fixedSize_(config.fixedSize),
        shrinkEnabled_(config.shrinkEnabled) {
    if (fixedSize_ && tableSize_ == 0) {
      throw Basalt::InvalidInitializeException(fmt::format(
          "SlotWriter() fixed-size table {} needs a size above 0", rootPath.cairnName()));
    }
  }
  ~SlotWriterTable() override { SlotWriterTable::detach(); }

  // Returns AttachedNew, AttachedExisting or AttachedReformatted; throws on failure.
  int attach(ArenaFiles::EpochId epochId) {
    detach();
    const std::size_t present = this->wrapper_.memSize();
    const std::size_t wanted = bytesFor(minSlots_);
    mapAtLeast(wanted);
    const bool existed = present != 0;
    const uint32_t count = this->header_->numSlots.load().value;
    const bool capacityChanged = fixedSize_ && minSlots_ != count;
    if (capacityChanged) {
      BASALT_TRACE(this->debugHandler(), 1,
                   "SlotWriter::attach() wanted capacity:{} for fixed-size table, but existing file "
                   "has capacity:{}",
                   minSlots_, this->header_->numSlots.load().toString());
    }
    int result;
    if (existed && this->header_->epochId == epochId && !capacityChanged &&
        headerIsSound(epochId)) {
      keepExisting(count);
      result = AttachedExisting;
    } else {
      if (existed) {
        remapTo(present);
        remapTo(wanted);
      }
      format(epochId);
      result = existed ? AttachedReformatted : AttachedNew;
      if (existed) {
        BASALT_TRACE(this->debugHandler(), 1, "SlotWriter::attach() re-formatted {}", fileName());
      } else {
        BASALT_TRACE(this->debugHandler(), 2, "SlotWriter::attach() to new file {}", fileName());
      }
    }
    BASALT_TRACE(this->debugHandler(), 3, "{}", this->header_->toString());
    return result;
  }

  // Takes a slot from the head of the free list, growing the table if the
  // list is empty, and stores the key's reversed hash in it. OCCUPIED is not
  // set here. May move the mapping: callers rebase their pointers.
  uint32_t alloc(uint32_t hash) {
    Header & header = *this->header_;
    uint32_t head = Arena::Atomics::observe32(header.freeSlots);
    if (head == NoFreeSlot) {
      if (!grow()) {
        auto message = fmt::format("SlotWriter::alloc() Cairn table full (occupancy:{} tableSize:{}) {}",
                                   this->header_->occupiedSlots, tableSize_,
                                   this->rootPath_.toString());
        BASALT_TRACE(this->debugHandler(), 0, "{}", message);
        throw TableFullException(message);
      }
      head = Arena::Atomics::observe32(this->header_->freeSlots);
    }
    Slot * slot = slots_[head];
    // The slot is off every chain; a reader that still stands on it notices by
    // its link version, which the chain insert raises.
    Arena::Atomics::publish32(slot->rhash, Basalt::Util::reverse(hash));
    const uint32_t next = slot->link.value();
    Arena::Atomics::publish32(this->header_->occupiedSlots, this->header_->occupiedSlots + 1);
    Arena::Atomics::publish32(this->header_->freeSlots, next);
    ++counters_->slotsAllocated;
    return head;
  }

  // Makes a full table larger: doubling up to tableSize, landing exactly on
  // it, and by a tenth at a time past it. False for a fixed-size table.
  bool grow() {
    const Arena::VerU32 before = this->header_->numSlots.load();
    if (this->header_->occupiedSlots != before.value) {
      throw Basalt::CorruptionDetectedException(fmt::format(
          "SlotWriter::grow() the slot table is full but numSlots: {} and occupiedSlots: {} are not "
          "equal",
          before.toString(), this->header_->occupiedSlots));
    }
    if (fixedSize_) {
      return false;
    }
    const uint32_t oldSlots = numSlots_;
    const uint32_t newSlots = grownCount(oldSlots);
    resize(newSlots);
    for (uint32_t index = oldSlots; index < newSlots; ++index) {
      formatSlot(reinterpret_cast<Slot *>(slotAddress(index)));
    }
    slots_ = Slots{slotAddress(0), newSlots - 1};
    const uint32_t head = addFreeSlots(oldSlots, newSlots);
    Header & header = *this->header_;
    if (newSlots > header.mostSlots) {
      header.mostSlots = newSlots;
    }
    // Publishes the new count: the new slots are formatted and threaded, so a
    // reader that sees this count may walk every slot below it.
    header.numSlots.store(before.version + 1, newSlots);
    // Publishes the new free list only now: no slot above the old count is
    // handed out before the count that covers it is visible.
    Arena::Atomics::publish32(header.freeSlots, head);
    BASALT_TRACE(this->debugHandler(), 2, "SlotWriter::grow() {} from {} slots to {}",
                 this->rootPath_.toString(), before.toString(), header.numSlots.load().toString());
    numSlots_ = newSlots;
    shrinkThreshold();
    ++counters_->slotGrows;
    return true;
  }

  // Copies the entry of `fromSlotId` into the slot at the head of the free
  // list, which lies below it, and returns that slot's index. The copy is
  // whole before anything links to it: rhash, value, OCCUPIED, and the same
  // successor as `fromSlotId`. `fromSlotId` itself is left untouched, still
  // occupied and linked onward for a reader that stands on it; linking the
  // copy in and retiring the original are the caller's.
  uint32_t move(uint32_t fromSlotId) {
    Header & header = *this->header_;
    const uint32_t toSlotId = Arena::Atomics::observe32(header.freeSlots);
    BASALT_ASSERT(fromSlotId > toSlotId, "Cairn/SlotWriter",
                  fmt::format("SlotWriter::move() should always move entries to lower section fromSlotId:{} "
                              "toSlotId:{}",
                              fromSlotId, toSlotId));
    BASALT_ASSERT(toSlotId != NoFreeSlot, "Cairn/SlotWriter",
                  fmt::format("SlotWriter::move() not valid toSlotId:{}", toSlotId));
    Slot * from = slots_[fromSlotId];
    Slot * to = slots_[toSlotId];
    // `to` is on no chain: no link leads a reader to it until the caller's.
    Arena::Atomics::publish32(to->rhash, from->rhash);
    Arena::Atomics::publish32(header.freeSlots, to->link.value());
    Value value;
    Marshalling::fromSlot(value, &from->value);
    Marshalling::toSlot(&to->value, value);
    const uint32_t flags = to->flags;
    // Marks `to` occupied in one store, behind its whole value: a reader that
    // copied the value while it changed sees the flags it began with, which
    // say unoccupied, and hands nothing out.
    Arena::Atomics::publish32(to->flags, (flags & OCCUPIED) ? flags + FlagsVersionStep : (flags + FlagsVersionStep) | OCCUPIED);
    // Gives `to` the successor of `from`: the copy is complete and linked onward.
    to->link.storeNext(from->link.value());
    BASALT_TRACE(this->debugHandler(), 7, "SlotWriter::move() fromSlotId:{} toSlotId:{}", fromSlotId, toSlotId);
    return toSlotId;
  }

  // Gives back the slots at and above `newSlots`. They hold no entry and lie
  // on no list: every entry there has been moved below, every old place
  // marked unoccupied, and the free list purged of them.
  void shrink(uint32_t newSlots) {
    BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::shrink() newNumSlots:{}", newSlots);
    Header & header = *this->header_;
    const Arena::VerU32 before = header.numSlots.load();
    // Publishes the smaller count (guard word: numSlots, whose version a
    // reader compares): no link below the new count leads above it any more.
    header.numSlots.store(before.version + 1, newSlots);
    resize(newSlots);
    // Only once the count is out: a reader that hasn't followed it yet reads
    // zeros in the tail, which its flags and link checks refuse.
    this->wrapper_.releaseTail(bytesFor(newSlots));
    numSlots_ = newSlots;
    slots_ = Slots{slotAddress(0), newSlots - 1};
    shrinkThreshold();
    ++counters_->slotShrinks;
    BASALT_TRACE(this->debugHandler(), 2, "SlotWriter::shrink() {} from {} slots to {}", this->rootPath_.toString(),
                 before.toString(), this->header_->numSlots.load().toString());
  }

  // Changes the file and the mapping only; the header's count and this
  // object's copies are the caller's to update.
  void resize(uint32_t newSlots) {
    BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::resize() {} from {} to {} slots",
                 this->rootPath_.toString(), numSlots_, newSlots);
    if (newSlots > tableSize_) {
      BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::resize() overflowing by {} slots",
                   newSlots - tableSize_);
    }
    const void * oldBase = this->header_;
    const std::size_t bytes = bytesFor(newSlots);
    this->header_ = static_cast<Header *>(this->wrapper_.resize(bytes));
    if (this->header_ == nullptr) {
      throw Basalt::MemoryResourceException(fmt::format(
          "SlotWriter::resize() failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
          fileName(), numSlots_, newSlots, bytes, this->wrapper_.reason()));
    }
    if (this->header_ != oldBase) {
      BASALT_TRACE(this->debugHandler(), 5,
                   "SlotWriter::resize() remap base address changed from {} to {}", oldBase,
                   static_cast<const void *>(this->header_));
      ++counters_->slotRemaps;
    }
    followMapping();
    BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::resize() to {} successfully", newSlots);
  }

  // Threads slots [start, end) into an ascending list and returns its head;
  // the caller stores the head in freeSlots.
  uint32_t addFreeSlots(uint32_t start, uint32_t end) {
    BASALT_ASSERT(start < end, "Cairn/SlotWriter",
                  fmt::format("SlotWriterTable::addFreeSlots() bad index range, start: {} end: {}",
                              start, end));
    BASALT_ASSERT(this->header_->freeSlots == NoFreeSlot, "Cairn/SlotWriter",
                  "SlotWriterTable::addFreeSlots() free-list is not empty");
    uint32_t next = EndOfTable;
    for (uint32_t index = end; index-- > start;) {
      slots_[index]->link.storeNext(next);
      next = index;
    }
    return start;
  }

  // Takes every slot at or above `threshold` off the free list, and audits the
  // whole list on the way: its length and occupiedSlots must add up to numSlots.
  void purgeFreeSlots(uint32_t threshold) {
    BASALT_ASSERT(threshold < numSlots_, "Cairn/SlotWriter",
                  fmt::format("SlotWriter::purgeFreeSlots() bad threshold: {} numSlots:{}", threshold,
                              numSlots_));
    Header & header = *this->header_;
    BASALT_ASSERT(header.freeSlots != NoFreeSlot, "Cairn/SlotWriter",
                  "SlotWriterTable::purgeFreeSlots() free-list is empty");
    uint64_t visited = 0;
    Slot * lastKept = nullptr;
    for (uint32_t index = header.freeSlots; index != EndOfTable;) {
      ++visited;
      Slot * slot = slots_[index];
      const uint32_t next = slot->link.value();
      if (index >= threshold) {
        BASALT_TRACE(this->debugHandler(), 7,
                     "SlotWriter::purgeFreeSlots() removing slot id {} from free-list", index);
        if (lastKept == nullptr) {
          Arena::Atomics::publish32(header.freeSlots, next);
        } else {
          lastKept->link.storeNext(next);
        }
      } else {
        lastKept = slot;
      }
      index = next;
      if (visited > numSlots_) {
        break;  // a cycle: the count check below reports it
      }
    }
    const Arena::VerU32 count = header.numSlots.load();
    if (header.occupiedSlots + visited != count.value) {
      throw Basalt::CorruptionDetectedException(fmt::format(
          "SlotWriter::purgeFreeSlots() numSlots mismatch, length of freeList: {}, occupiedSlots: {} "
          "do not add up to numSlots: {}",
          visited, header.occupiedSlots, count.toString()));
    }
  }

  // The largest power of two strictly below numSlots, if this table may
  // shrink and is above its first size; else 0.
  void shrinkThreshold() {
    shrinkThreshold_ = 0;
    if (shrinkEnabled_ && !fixedSize_ && numSlots_ > minSlots_) {
      uint32_t power = 1;
      while (power * 2 < numSlots_) {
        power *= 2;
      }
      shrinkThreshold_ = power;
    }
    BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::shrinkThreshold(): shrinkThreshold_:{}",
                 shrinkThreshold_);
  }

  void detach() override {
    BASALT_TRACE(this->debugHandler(), 5, "SlotWriter::detach()");
    numSlots_ = 0;
    slots_ = Slots{};
    Base::detach();
  }

  uint32_t capacity() const override { return numSlots_; }

  const Slots & slots() const { return slots_; }
  uint32_t tableSize() const { return tableSize_; }
  uint32_t minSlots() const { return minSlots_; }
  uint32_t shrinkThresholdValue() const { return shrinkThreshold_; }
  bool fixedSize() const { return fixedSize_; }
  const std::string & fileName() const { return this->wrapper_.getFilename(); }

 private:
  std::size_t bytesFor(uint32_t slots) const {
    return SlotHeaderSize + Arena::multiplyOverflowCheck(slots, slotSize);
  }

  // Keeps the version anchor on its word across a remap, or invalidates it
  // when a shrink took its word out of the mapping: validating it then
  // reports a change, and never reads memory that is gone.
  void followMapping() const {
    Arena::VersionAnchor & anchor = this->versionAnchor_;
    if (anchor.empty() || anchor.offset == Arena::VersionAnchor::invalidOffset) {
      return;
    }
    if (anchor.offset + sizeof(uint32_t) <= this->wrapper_.memSize()) {
      anchor.base = reinterpret_cast<uint64_t>(this->header_);
    } else {
      anchor.invalidate();
    }
  }

  Slot * slotAddress(uint32_t index) const {
    return reinterpret_cast<Slot *>(reinterpret_cast<char *>(this->header_) + SlotHeaderSize) + index;
  }

  uint32_t grownCount(uint32_t oldSlots) const {
    uint64_t grown;
    if (oldSlots < tableSize_) {
      const uint32_t doubled = oldSlots * 2;
      grown = std::min(static_cast<uint32_t>(static_cast<float>(doubled)), tableSize_);
    } else {
      grown = static_cast<uint64_t>(std::ceil(static_cast<float>(oldSlots) * 1.1f));
    }
    if (grown > NextBucketBit) {
      throw Basalt::MemoryResourceException(fmt::format(
          "SlotWriter::grow() {} cannot grow past {} slots: slot indices stay below 2^31",
          this->rootPath_.toString(), oldSlots));
    }
    return static_cast<uint32_t>(grown);
  }

  void mapAtLeast(std::size_t wanted) {
    this->header_ = static_cast<Header *>(this->wrapper_.attach(wanted));
    if (this->header_ == nullptr) {
      throw Basalt::InvalidInitializeException(
          fmt::format("SlotWriter::attach() cannot attach to shmem {} size:{}: {}", fileName(),
                      wanted, this->wrapper_.reason()));
    }
  }

  void remapTo(std::size_t bytes) {
    this->header_ = static_cast<Header *>(this->wrapper_.resize(bytes));
    if (this->header_ == nullptr) {
      throw Basalt::MemoryResourceException(
          fmt::format("SlotWriter::attach() failed to resize {} to size {} : {}", fileName(), bytes,
                      this->wrapper_.reason()));
    }
  }

  bool headerIsSound(ArenaFiles::EpochId epochId) const {
    std::string error;
    return this->header_->validate(this->debugHandler(), this->wrapper_.memSize(), epochId, error);
  }

  void keepExisting(uint32_t count) {
    ops_->hashSeed = this->header_->hashSeed;
    remapTo(bytesFor(count));
    numSlots_ = count;
    slots_ = Slots{slotAddress(0), count == 0 ? 0 : count - 1};
    shrinkThreshold();
    BASALT_TRACE(this->debugHandler(), 2, "SlotWriter::attach() to existing {}", fileName());
  }

  void format(ArenaFiles::EpochId epochId) {
    const std::string valueType(Ops::ValueOperations::typeName());
    checkTypeName(valueType, "SlotTable::Header() value typename {} exceeds 64 characters");
    checkTypeName(classType_, "SlotTable::Header() class typename: {} exceeds 64 characters");
    Header & header = *this->header_;
    const uint32_t hashSeed = static_cast<uint32_t>(std::rand());
    ops_->hashSeed = hashSeed;
    header.magic = SlotMagic;
    header.version = SlotVersion;
    header.epochId = epochId;
    header.platform = Compatibility::platform;
    copyName(header.valueType, valueType);
    copyName(header.classType, classType_);
    header.valueSize = sizeof(Value);
    header.slotSize = slotSize;
    header.maxSlots = tableSize_;
    header.constFlags = HasRippleTable;
    header.occupiedSlots = 0;
    Arena::Atomics::publish32(header.freeSlots, NoFreeSlot);
    header.mostSlots = minSlots_;
    header.hashSeed = hashSeed;
    header.numSlots.store(0, minSlots_);
    header.hash = header.doHash();
    formatSlot(this->lookasideSlot());
    for (uint32_t index = 0; index < minSlots_; ++index) {
      formatSlot(slotAddress(index));
    }
    numSlots_ = minSlots_;
    slots_ = Slots{slotAddress(0), minSlots_ - 1};
    shrinkThreshold();
    Arena::Atomics::publish32(header.freeSlots, addFreeSlots(0, minSlots_));
  }

  // A slot as formatted: link version 0 to EndOfTable, no flags, no hash, the
  // default value.
  void formatSlot(Slot * slot) const {
    slot->link.reset(EndOfTable);
    Arena::Atomics::publish32(slot->flags, 0);
    Arena::Atomics::publish32(slot->rhash, 0);
    Marshalling::toSlot(&slot->value, ops_->defaultValue);
  }

  void checkTypeName(const std::string & name, fmt::format_string<const std::string &> text) const {
    if (name.size() >= TypeNameSize) {
      auto message = fmt::format(text, name);
      BASALT_TRACE(this->debugHandler(), 0, "{}", message);
      throw Basalt::InvalidInitializeException(message);
    }
  }

  static void copyName(char (&field)[TypeNameSize], const std::string & name) {
    std::memset(field, 0, TypeNameSize);
    std::memcpy(field, name.data(), name.size());
  }

  uint32_t numSlots_ = 0;
  uint32_t tableSize_;
  Ops * ops_;
  uint32_t minSlots_;
  Slots slots_;
  Writer::Counters * counters_;
  std::string classType_;
  bool fixedSize_;
  bool shrinkEnabled_;
  uint32_t shrinkThreshold_ = 0;
};

}  // namespace Cairn

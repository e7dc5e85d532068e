#pragma once
// Cairn::Validator: proves, once at a writer's start, that the files of a
// table it found can be carried over: that the slot file, the bucket file and
// the notification queue agree with one another.
//
// It runs on the writer's thread, before any reader is told of the writer,
// and reads the table through the writer's own view: while a run lasts it is
// hung on the WriterHashMap, whose first() and next() then check each slot's
// rhash and report each slot they hand out to markOccupied(). All its marks
// live in private memory; it writes nothing to the table.
//
// What a passed run proves:
//  1. The three headers are sound for this generation.
//  2. Every occupied slot is reachable exactly once from the buckets, in split
//     order and table order, with the right bucket and rhash, and with no
//     rewrite left unfinished (no LOOKASIDE bit).
//  3. The free list is finite, in range and holds no occupied slot.
//  4. The two lists cover all slots, with no overlap, and occupiedSlots is right.
//  5. The queue's position array and its entries point at each other for
//     every live entry; no tombstone is marked live; no occupied slot has
//     lost its only notification to a deletion entry.
// It does not prove that a value is the one last written.

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Cairn/IterHint.h"
#include "Cairn/OccupiedMarks.h"
#include "Ripple/RippleFormat.h"
#include "Spool/Local.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class CairnWriter;

template <typename Key, typename Value, typename Ops>
class Validator : public Basalt::Debuggable, public OccupiedMarks {
 public:
  using Writer = CairnWriter<Key, Value, Ops>;

  explicit Validator(Writer & writer)
      : Basalt::Debuggable(writer.debugHandler()),
        writer_(&writer),
        occupiedMarks_(writer.capacity(), false, writer.debugHandler()),
        freeMarks_(writer.capacity(), false, writer.debugHandler()),
        notificationMarks_(0, false, writer.debugHandler()) {}

  // Runs the whole check; false with the reason in errorText() on any failure.
  bool validate(ArenaFiles::EpochId epochId) {
    bool passed = false;
    try {
      passed = doValidate(epochId);
    } catch (const Basalt::CorruptionDetectedException & exception) {
      caught(exception);
    } catch (const Basalt::MemoryResourceException & exception) {
      caught(exception);
    }
    if (!passed) {
      BASALT_TRACE(debugHandler(), 0, "Validator::validate() Cairn {} validation failed: {}",
                   writer_->cairnName(), errorText_);
    }
    return passed;
  }

  bool doValidate(ArenaFiles::EpochId epochId) {
    if (!headersAreSound(epochId)) {
      return false;
    }
    const auto & ripple = writer_->ripple();
    notificationMarks_.capacityIs(ripple.capacity());
    if (!walkOccupiedSlots() || !walkFreeSlots()) {
      return false;
    }
    const uint32_t capacity = writer_->capacity();
    if (occupiedCount_ + freeCount_ != capacity) {
      return fail(fmt::format("Validator::doValidate() bad slotCount:{} occupiedSlots:{} freeSlots:{} capacity:{}",
                              occupiedCount_ + freeCount_, occupiedCount_, freeCount_, capacity));
    }
    return queueIsConsistent();
  }

  bool walkOccupiedSlots() {
    BASALT_TRACE(debugHandler(), 5, "Validator::walkOccupiedSlots() starting");
    Value value;
    IterHint hint;
    if (writer_->map().first(0, value, hint)) {
      const auto & progress = writer_->validationProgress();
      uint32_t walked = 1;
      bool more = true;
      while (more && walked <= occupiedSlots()) {
        more = writer_->next(Ops::KeyOperations::key(value), value, hint);
        walked += more ? 1 : 0;
        if (progress && walked % ProgressStep == 0) {
          progress(walked, occupiedSlots());
        }
      }
      if (more) {
        return fail(fmt::format("Validator::walkOccupiedSlots() walkedSlots:{} is greater than "
                                "header->occupiedSlots:{}",
                                walked, occupiedSlots()));
      }
    }
    if (writer_->validationProgress()) {
      writer_->validationProgress()(occupiedCount_, occupiedSlots());
    }
    BASALT_TRACE(debugHandler(), 5, "Validator::walkOccupiedSlots() marked {} slots", occupiedCount_);
    if (occupiedSlots() != occupiedCount_) {
      return fail(fmt::format("Validator::walkOccupiedSlots() mismatch header->occupiedSlots:{} count:{}",
                              occupiedSlots(), occupiedCount_));
    }
    return true;
  }

  // Called from the writer's walk for each slot it hands out. The marks are
  // set only once every test has passed: the walk's fast path, refused,
  // retries by its slow path and hands out the same slot again, which must
  // then be refused for the same reason, not as a slot seen twice.
  void markOccupied(uint32_t slotIndex) override {
    BASALT_TRACE(debugHandler(), 9, "Validator::markOccupied() slotIndex: {}", slotIndex);
    if (occupiedMarks_.get(slotIndex)) {
      corrupt(fmt::format("Validator::markOccupied() duplicate slot: {}", slotIndex));
    }
    const uint32_t flags = writer_->slotTable().slots()[slotIndex]->flags;
    if (!(flags & OCCUPIED)) {
      corrupt(fmt::format("Validator::markOccupied() missing OCCUPIED bit: 0x{:x}", flags));
    }
    if (flags & LOOKASIDE) {
      corrupt(fmt::format("Validator::markOccupied() stuck LOOKASIDE bit: 0x{:x}", flags));
    }
    const auto & ripple = writer_->ripple();
    const uint32_t position = ripple.positionOf(slotIndex);
    if (position == Ripple::RIPPLE_TOMBSTONED) {
      BASALT_TRACE(debugHandler(), 9,
                   "Validator::markOccupied() no notification in ripple queue for occupied slotId:{}",
                   slotIndex);
    } else {
      if (position >= ripple.size()) {
        corrupt(fmt::format("Validator::markOccupied() slot:{} bad ripple index:{} size:{}", slotIndex, position,
                            ripple.size()));
      }
      const uint32_t named = ripple.entry(position).slot;
      if (named != slotIndex) {
        corrupt(fmt::format("Validator::markOccupied() slot:{} bad notification:{} slot:{}", slotIndex, position,
                            named));
      }
      if (notificationMarks_.get(position)) {
        corrupt(fmt::format("Validator::markOccupied() slot:{} duplicate ripple position:{}", slotIndex, position));
      }
      notificationMarks_.write(position, true);
      ++notifiedCount_;
    }
    occupiedMarks_.write(slotIndex, true);
    ++occupiedCount_;
  }

  bool walkFreeSlots() {
    BASALT_TRACE(debugHandler(), 5, "Validator::walkFreeSlots() starting");
    const auto & slots = writer_->slotTable();
    const auto & ripple = writer_->ripple();
    const uint32_t count = slots.header()->numSlots.load().value;
    for (uint32_t index = slots.header()->freeSlots; index != NoFreeSlot;) {
      BASALT_TRACE(debugHandler(), 9, "Validator::walkFreeSlots() walking slotIndex: {}", index);
      if (index > count) {
        return fail(fmt::format(
            "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: {}", index));
      }
      if (index < freeMarks_.members() && freeMarks_.get(index)) {
        return fail(fmt::format("Validator::walkFreeSlots() duplicate freeSlot detected: {}", index));
      }
      const auto * slot = slots.slots()[index];  // an index equal to the count stops here
      freeMarks_.write(index, true);
      ++freeCount_;
      const uint32_t position = ripple.positionOf(index);
      if (position != Ripple::RIPPLE_TOMBSTONED) {
        if (position >= ripple.size()) {
          return fail(fmt::format("Validator::walkFreeSlots() slot index:{} has out of range ripple slot: {}",
                                  index, position));
        }
        const uint32_t named = ripple.entry(position).slot;
        if (named != index) {
          return fail(fmt::format("Validator::walkFreeSlots() slot index:{} has slot:{} with wrong ripple slot:{}",
                                  index, named, position));
        }
      }
      // Empty is neither OCCUPIED nor LOOKASIDE: no writer leaves LOOKASIDE on
      // a free slot, and the insert that takes the slot counts on it clear.
      if (slot->flags & (OCCUPIED | LOOKASIDE)) {
        return fail(fmt::format("Validator::walkFreeSlots() corrupted free slot not marked as empty: {}", index));
      }
      index = slot->link.value();
    }
    BASALT_TRACE(debugHandler(), 5, "Validator::walkFreeSlots() marked {} free slots", freeCount_);
    return true;
  }

  const std::string & errorText() const { return errorText_; }
  uint32_t occupiedCount() const { return occupiedCount_; }
  uint32_t freeCount() const { return freeCount_; }
  uint32_t notifiedCount() const { return notifiedCount_; }

 private:
  // How many slots of the walk go by between two progress reports.
  static constexpr uint32_t ProgressStep = 1u << 16;

  uint32_t occupiedSlots() const { return writer_->slotTable().header()->occupiedSlots; }

  // All three checks run whatever the others say; the last failure's text stays.
  bool headersAreSound(ArenaFiles::EpochId epochId) {
    const auto & slots = writer_->slotTable();
    const bool buckets = writer_->map().buckets().validate(epochId, errorText_);
    const bool header =
        slots.header()->validate(debugHandler(), slots.wrapper().memSize(), epochId, errorText_);
    const bool queue = writer_->ripple().validate(epochId, slots.header()->mostSlots, errorText_);
    return buckets && header && queue;
  }

  // The queue pass: every entry of the current table against the marks.
  bool queueIsConsistent() {
    const auto & ripple = writer_->ripple();
    const uint64_t corralStart = ripple.corralStart();
    const uint64_t corralEnd = ripple.corralEnd();
    const uint32_t size = ripple.size();
    const uint32_t capacity = writer_->capacity();
    for (uint32_t position = 0; position < size; ++position) {
      const auto entry = ripple.entry(position);
      const uint64_t sequence = entry.sequence();
      const uint32_t slot = entry.slot;
      const uint32_t pointed = ripple.positionOf(slot);
      if (corralStart != 0 && sequence >= corralStart && (corralEnd == 0 || sequence <= corralEnd)) {
        if (position == pointed) {
          return fail(fmt::format("Validator::doValidate() corral pos:{} seq:{} slot:{} ripplePos:{}", position,
                                  sequence, slot, position));
        }
        continue;
      }
      if (slot == Ripple::RIPPLE_TOMBSTONED) {
        if (notificationMarks_.get(position)) {
          return fail(fmt::format("Validator::doValidate() active tombstone pos:{}", position));
        }
        continue;
      }
      if (slot == Ripple::RIPPLE_GAP) {
        if (notificationMarks_.get(position)) {
          return fail(fmt::format("Validator::doValidate() a slot's ripplePos on the gap pos:{}", position));
        }
        continue;
      }
      if (!notificationMarks_.get(position)) {
        if (slot < capacity && (writer_->slotTable().slots()[slot]->flags & OCCUPIED)) {
          return fail(fmt::format("Validator::doValidate() occupied slot:{} on deleted notification:{}", slot,
                                  position));
        }
        if (position != pointed) {
          return fail(fmt::format("Validator::doValidate() ripple pos:{} has slot:{} seq:{} with wrong rippleSlot:{}",
                                  position, slot, sequence, pointed));
        }
      }
    }
    return true;
  }

  bool fail(std::string text) {
    errorText_ = std::move(text);
    BASALT_TRACE(debugHandler(), 0, "{}", errorText_);
    return false;
  }

  [[noreturn]] void corrupt(const std::string & text) { throw Basalt::CorruptionDetectedException(text); }

  void caught(const Basalt::Exception & exception) {
    errorText_ = exception.what();
    BASALT_TRACE(debugHandler(), 0, "Validator::validate caught: {}", errorText_);
  }

  Writer * writer_;
  uint32_t occupiedCount_ = 0;
  uint32_t freeCount_ = 0;
  uint32_t notifiedCount_ = 0;
  Spool::Local<bool> occupiedMarks_;
  Spool::Local<bool> freeMarks_;
  Spool::Local<bool> notificationMarks_;
  std::string errorText_;
};

}  // namespace Cairn

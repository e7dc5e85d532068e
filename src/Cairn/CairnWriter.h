#pragma once
// CairnWriter: the backend of a map in writer mode, the one object in the
// system that changes a table. It owns the slot table, the hash map with its
// bucket table, and the notification queue.
//
// Writer thread only; exactly one writer process per table. Readers in other
// processes see every store as it happens, so the order of stores in each
// operation below is the protocol (see Cairn/SlotFormat.h and
// Cairn/WriterHashMap.h for what each store guarantees):
//  1. A new entry's slot is complete (link, rhash, value, OCCUPIED) before the
//     one 64-bit link store that makes it reachable.
//  2. A rewrite never shows a half-written value: the LookasideSlot holds the
//     finished new value while the slot's LOOKASIDE bit is set, and is not
//     touched while any LOOKASIDE bit is set.
//  3. A removed slot keeps its link until it is put on the free list, so a
//     reader standing on it still leaves it into the chain, and is then told
//     by the changed flags and link versions to start over.
//  4. A notification always comes after the change it reports; it carries
//     only the slot index.
//  5. A shrink moves each entry above the new end into a free slot below it,
//     whole before it is linked, and lowers numSlots only once every entry
//     has moved (doMaybeShrinkSlots, moveDown).
// The runtimeFlags bit WriteInProgress is set while an operation changes the
// file and stays set when one leaves by an exception: a mark of a writer that
// stopped inside a change. The next writer then mends what such a stop can
// leave half made (Cairn/Repair.h) before it validates the table.

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include <fmt/format.h>

#include <filesystem>

#include "Arena/Atomics.h"
#include "Arena/WriterLock.h"
#include "ArenaFiles/DoorbellInfo.h"
#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Util.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnInterface.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/Operations.h"
#include "Cairn/Repair.h"
#include "Cairn/SlotWriter.h"
#include "Cairn/Util.h"
#include "Cairn/Validator.h"
#include "Cairn/Toggle.h"
#include "Cairn/WriterHashMap.h"
#include "Loop/EventLoop.h"
#include "Nudge/DoorbellAcceptSm.h"
#include "Nudge/WriterNudgeSm.h"
#include "Ripple/RippleWriter.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class CairnWriter : public CairnInterface<Key, Value>,
                    public Basalt::Debuggable,
                    public Ripple::RippleWriterNotifiee {
 public:
  using QuiescedCallback = std::function<void(bool)>;
  using SlotWriter = SlotWriterTable<Key, Value, Ops>;
  using Slot = typename SlotWriter::Slot;
  using Map = WriterHashMap<Key, Value, Ops>;
  using KeyOperations = typename Ops::KeyOperations;
  using ValueOperations = typename Ops::ValueOperations;
  using Marshalling = typename ValueOperations::Marshalling;

  static constexpr uint32_t NoDirectSlot = 0xFFFFFFFFu;

  CairnWriter(Basalt::Platform::DebugHandler & handler, const std::string & name,
              const MapDescriptor & descriptor, const Ops & ops, const std::string & classType,
              QuiescedCallback quiesced)
      : Basalt::Debuggable(handler),
        ops_(ops),
        localMem_(descriptor.localMem),
        rootPath_(handler, name, !descriptor.localMem),
        quiesced_(std::move(quiesced)),
        slots_(handler, rootPath_, ops_, counters_, slotConfig(descriptor, classType)),
        map_(handler, rootPath_, counters_, ops_, slots_, descriptor.shrinkBuckets, localMem_),
        ripple_(handler, rootPath_.directory(), counters_, localMem_,
                descriptor.synchronous ? Ripple::PruneMode::Synchronous : Ripple::PruneMode::Balanced,
                this),
        nudge_(handler, Loop::processLoop()) {}

  // Detaches; the files stay for the next writer. An open direct operation on
  // a new key cannot be reported from here: it is traced and dropped.
  ~CairnWriter() override {
    try {
      detach(false);
    } catch (const Basalt::AssertException & exception) {
      BASALT_TRACE(debugHandler(), 0, "CairnWriter::~CairnWriter() {}", exception.what());
      detachPieces();
    }
  }

  // ---- Data operations ----

  const Value * write(const Value & value, bool publish) override {
    const Key & key = KeyOperations::key(value);
    checkNoDirectOperation([&] {
      return fmt::format("CairnWriter::write() unbalanced directSlot:{} containing value:{} when writing "
                         "value:{} - Make sure the DirectIs/Commit are properly paired!",
                         directSlot_, openValueText(), ValueOperations::toString(value));
    });
    writeInProgressIs(true);
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = map_.bucketOf(hash);
    SlotLink * prev;
    SlotLink * curr;
    Slot * slot;
    if (map_.find(key, bucket, &prev, &curr, hash)) {
      slot = asSlot(curr);
      BASALT_TRACE(debugHandler(), 9, "CairnWriter::write() existing {} bucket:{} slot:{} next:{}",
                   KeyOperations::toString(key), bucket, indexOf(slot), slot->link.value());
      if (!publish) {
        writeInProgressIs(false);
        return &slot->value;
      }
      rewrite(slot, value);
    } else {
      slot = insert(key, value, bucket, hash, prev);
    }
    ripple_.notify(indexOf(slot));
    writeInProgressIs(false);
    return &slot->value;
  }

  bool remove(const Key & key, Value & removed) override {
    checkNoDirectOperation([&] {
      return fmt::format("CairnWriter::remove() unbalanced directSlot:{} containing value:{} when removing "
                         "key:{} - Make sure the DirectIs/Commit are properly paired!",
                         directSlot_, openValueText(), KeyOperations::toString(key));
    });
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = map_.bucketOf(hash);
    SlotLink * prev;
    SlotLink * curr;
    if (!map_.find(key, bucket, &prev, &curr, hash)) {
      BASALT_TRACE(debugHandler(), 9, "CairnWriter::remove() {} bucket:{} not found",
                   KeyOperations::toString(key), bucket);
      return false;
    }
    writeInProgressIs(true);
    Slot * slot = asSlot(curr);
    const uint32_t index = indexOf(slot);
    Marshalling::fromSlot(removed, &slot->value);
    // Unlinks the entry: no bucket reaches it from here on. The slot keeps
    // its own link, so a reader standing on it still gets out into the chain.
    prev->storeNext(slot->link.value());
    // OCCUPIED clear with the version unchanged: a reader's flags comparison
    // fails on bit 0.
    Arena::Atomics::publish32(slot->flags, slot->flags & ~OCCUPIED);
    pushFree(slot, index);
    ++counters_.slotsRemoved;
    const uint32_t threshold = shrinkArgument();
    ripple_.notify(index);
    BASALT_TRACE(debugHandler(), 9, "CairnWriter::remove() {} bucket:{} slot:{}",
                 KeyOperations::toString(key), bucket, index);
    doMaybeShrinkSlots(threshold);  // may move the mapping: slot and prev are stale from here
    map_.maybeShrinkBuckets();
    writeInProgressIs(false);
    return true;
  }

  const Value * lookup(const Key & key, bool & found, Value * out) const override {
    const Value * address = map_.lookup(key, found);
    if (found) {
      if (out != nullptr) {
        Marshalling::fromSlot(*out, address);
      }
      return address;
    }
    slots_.resetAnchor();
    if (out != nullptr) {
      *out = ops_.defaultValue;
    }
    return &ops_.defaultValue;
  }

  bool first(Value & value, IterHint & hint) const override { return map_.first(0, value, hint); }

  bool next(const Key & key, Value & value, IterHint & hint) const override {
    return map_.next(key, value, hint);
  }

  // Opens a direct operation: the caller fills the returned value in place
  // and closes with directCommit(). An existing entry is filled in the
  // LookasideSlot, so readers keep seeing the old value until the commit; a
  // new one in its own slot, which nothing links to until the commit.
  Value * directWrite(const Key & key) override {
    checkNoDirectOperation([&] { return directMisuse("directWrite", key); });
    writeInProgressIs(true);  // stays set until directCommit
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = map_.bucketOf(hash);
    SlotLink * curr;
    const bool found = map_.find(key, bucket, &directPrev_, &curr, hash);
    Slot * slot = found ? asSlot(curr) : allocRebasing(hash, directPrev_);
    ++counters_.directWrites;
    Value * address = found ? &slots_.lookasideSlot()->value : &slot->value;
    Marshalling::toSlot(address, ValueOperations::withKey(key));
    // The kind of key carries its own blanks: "CairnWriter::directWrite()  new 7 bucket:...".
    BASALT_TRACE(debugHandler(), 9, "CairnWriter::directWrite() {}{} bucket:{} slot:{} next:{}",
                 found ? " existing " : " new ", KeyOperations::toString(key), bucket, indexOf(slot),
                 slot->link.value());
    directSlot_ = indexOf(slot);
    directNew_ = !found;
    return address;
  }

  // Opens a direct operation on an existing entry; null if the key is absent.
  // The returned LookasideSlot value holds what the last rewrite left there:
  // the caller fills every field it wants to survive.
  Value * directUpdate(const Key & key) override {
    checkNoDirectOperation([&] { return directMisuse("directUpdate", key); });
    writeInProgressIs(true);
    const uint32_t hash = KeyOperations::hash(key);
    const uint32_t bucket = map_.bucketOf(hash);
    SlotLink * curr;
    if (!map_.find(key, bucket, &directPrev_, &curr, hash)) {
      writeInProgressIs(false);
      return nullptr;
    }
    Slot * slot = asSlot(curr);
    ++counters_.directWrites;
    directSlot_ = indexOf(slot);
    directNew_ = false;
    writeInProgressIs(false);
    return (slot->flags & OCCUPIED) ? &slots_.lookasideSlot()->value : &slot->value;
  }

  void directCommit() override {
    BASALT_TRACE(debugHandler(), 9, "CairnWriter::directCommit() slot: {}", directSlot_);
    BASALT_ASSERT(directSlot_ != NoDirectSlot, "Cairn/CairnWriter",
                  "CairnWriter::directCommit() not in direct mode! Make sure the DirectIs/Commit are "
                  "properly paired!");
    writeInProgressIs(true);  // directUpdate cleared it
    const uint32_t index = directSlot_;
    Slot * slot = slots_.slots()[index];
    if (directNew_) {
      slot->link.storeNext(directPrev_->value());
    }
    ++counters_.directCommits;
    const uint32_t flags = slot->flags;
    if (flags & OCCUPIED) {
      copyThroughLookaside(slot);
    } else {
      // The new value was filled in place; this store sets OCCUPIED after it.
      Arena::Atomics::publish32(slot->flags, (flags + 4) | OCCUPIED);
    }
    directSlot_ = NoDirectSlot;
    if (directNew_) {
      beforePublish(index);
      // Publishes the new entry: the slot is complete and linked onward.
      directPrev_->storeNext(index);
      directNew_ = false;
    }
    map_.maybeGrowBuckets();
    ripple_.notify(index);
    writeInProgressIs(false);
  }

  // ---- State ----

  uint32_t members() const override { return slots_.header()->occupiedSlots; }
  uint32_t capacity() const override { return slots_.capacity(); }
  uint32_t maxSize() const override { return slots_.tableSize(); }
  uint32_t minSize() const override { return slots_.minSlots(); }
  CairnType type() const override { return CairnType::writer; }
  RootPath rootPath() const override { return rootPath_; }
  std::string cairnName() const override { return rootPath_.cairnName(); }
  uint32_t mountStatus() const override {
    const uint32_t status = this->initialized() ? 1 : 0;
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::mountStatus: {}", status);
    return status;
  }
  ArenaFiles::EpochId epochId() const override { return epochId_; }
  uint64_t sequence() const override { return ripple_.sequence(); }
  bool quiesced() const override { return ripple_.quiesced(); }
  bool clientQuiesced(const std::string & readerName) const override {
    return !readerName.empty() && ripple_.clientQuiesced(readerName);
  }
  void handleQuiesced(bool quiesced) override { quiesced_(quiesced); }
  // Slots at or above the count were given back: their last entries in the
  // queue may be left out behind a gap.
  uint32_t slotCount() const override { return slots_.capacity(); }
  // Looks at the table afresh: the queue calls it when it released a shrink's
  // corral, as a shrink asked for meanwhile was ignored.
  void shrink() override {
    if (directSlot_ != NoDirectSlot || directNew_) {
      return;  // an open direct operation holds a slot; the next remove asks again
    }
    const uint32_t threshold = shrinkArgument();
    if (threshold == 0) {
      return;
    }
    writeInProgressIs(true);
    doMaybeShrinkSlots(threshold);
    writeInProgressIs(false);
  }

  // Gives the top of the slot file back when the table has emptied to below
  // half of `shrinkThreshold` (0: nothing to do). Every entry above the new
  // end moves to a free slot below it while readers walk the chains; see
  // moveDown() for the order of stores that keeps them safe. Ignored while
  // the queue still works through an earlier shrink (its corral is open).
  void doMaybeShrinkSlots(uint32_t shrinkThreshold) {
    if (shrinkThreshold == 0) {
      return;
    }
    if (ripple_.corralStart() != 0) {
      BASALT_TRACE(debugHandler(), 5,
                   "CairnWriter::doMaybeShrinkSlots() shrink started, ignoring shrinkThreshold:{}", shrinkThreshold);
      return;
    }
    const uint32_t target = shrinkTarget();
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::doMaybeShrinkSlots() threshold:{} shrinkThreshold:{}{}", target,
                 shrinkThreshold, shrinkThreshold > target ? " SUPER SHRINK!" : "");
    // From here the free list holds only slots below the target: one for
    // every entry above it, as the target is more than twice the entries.
    slots_.purgeFreeSlots(target);
    ripple_.markShrinkStart();
    const uint32_t oldSlots = slots_.capacity();
    uint64_t moves = 0;
    for (uint32_t from = target; from < oldSlots; ++from) {
      if (!(slots_.slots()[from]->flags & OCCUPIED)) {
        BASALT_TRACE(debugHandler(), 9, "CairnWriter::doMaybeShrinkSlots skipping not occupied slot:{}", from);
        continue;
      }
      moveDown(from);
      ++moves;
    }
    ripple_.markShrinkEnd();
    // The moved entries' old places lie beyond the new count: neither the
    // free list nor occupiedSlots counts them.
    slots_.shrink(target);
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::doMaybeShrinkSlots() at threshold:{} done", target);
    counters_.slotMoves += moves;
  }

  Writer::Counters writerCounters() const override {
    Writer::Counters counters = counters_;
    counters.nudges = nudge_.nudges();
    counters.readers = nudge_.readers();
    counters.sleepingReaders = nudge_.sleepingReaders();
    counters.slotMappedSize = slots_.wrapper().memSize();
    counters.bucketMappedSize = map_.buckets().wrapper().memSize();
    counters.primaryMappedSize = ripple_.primaryMappedSize();
    counters.secondaryMappedSize = ripple_.secondaryMappedSize();
    return counters;
  }

  void validateVersionAnchor() const override {
    const Arena::VersionAnchor anchor = slots_.versionAnchor();
    if (versionAnchorHook_ != nullptr) {
      versionAnchorHook_(anchor);
    }
    anchor.validate();
  }
  void validateVersionAnchorHookIs(VersionAnchorHook hook) override { versionAnchorHook_ = hook; }

  // Told, during the walk of the occupied slots that validates a table at
  // attach (and validate()), how many slots it has walked of how many the
  // header counts: every 65,536 slots and once at the end. For a tool's
  // progress line; unset, nothing is told.
  using ValidationProgress = std::function<void(uint32_t walked, uint32_t occupied)>;
  void validationProgressIs(ValidationProgress progress) { validationProgress_ = std::move(progress); }
  const ValidationProgress & validationProgress() const { return validationProgress_; }

  std::string dumpHeaders() const {
    std::string text = fmt::format("Cairn table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.cairnName(),
                                   map_.buckets().toString(), slots_.header()->toString());
    if (slots_.header()->constFlags & HasRippleTable) {
      text += ripple_.headersToString();
    }
    return text;
  }

  // ---- Life ----

  bool initialize(const std::string &) override {
    if (!localMem_ && !Arena::Atomics::checkCpuSupport()) {
      BASALT_TRACE(debugHandler(), 0, "Hardware does not support Atomics");
      throw Basalt::InvalidInitializeException("Hardware does not support Atomics");
    }
    if (!this->initialized()) {
      attach();
      this->initializedIs(true);
    }
    return true;
  }

  // Makes this process the table's one writer and attaches its files: kept,
  // with the same generation, if they prove sound; else formatted afresh
  // under the next generation. Throws if neither can be had.
  void attach() {
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::attach() localMem_: {} rootPath:{}", localMem_,
                 rootPath_.toString());
    ArenaFiles::EpochFile epochFile(debugHandler(), directory(), localMem_);
    ArenaFiles::OwnerFile ownerFile(debugHandler(), directory(), localMem_);
    ownerFile.lock();  // held to the end of this function
    ArenaFiles::DoorbellInfo doorbellInfo;
    if (localMem_) {
      epochId_ = ArenaFiles::EpochId::of(0, static_cast<uint16_t>(getpid()));
    } else {
      doorbellInfo = ownDoorbell();
      epochId_ = epochFile.read();
      if (epochId_.none()) {
        epochId_ = newEpochId();
      }
    }
    const bool reformat = !ownerFile.validate();
    if (reformat) {
      BASALT_TRACE(debugHandler(), 1,
                   "CairnWriter::attach() owner file validation failed, dumping owner file string: {}",
                   ownerFile.headerToString());
    }
    if (!attachAndValidate(reformat, ownerFile, doorbellInfo)) {
      BASALT_ASSERT(!reformat, "Cairn/CairnWriter",
                    "CairnWriter::attach() failed to attach to and validate new files");
      attachAndValidate(true, ownerFile, doorbellInfo);
    }
    if (!localMem_) {
      Cairn::Util::removeCorruptionFile(debugHandler(), directory());
      enableNudges(ownerFile, doorbellInfo);
      // The generation is recorded only now, once the table is sound and owned.
      epochFile.write(epochId_);
      BASALT_TRACE(debugHandler(), 1, "CairnWriter::attach() success {} capacity:{} epochId:{} mtime:{} doorbellInfo:{}",
                   rootPath_.cairnName(), capacity(), epochId_.toString(), epochFile.mtime(),
                   ownerFile.doorbellInfo().toString());
    }
  }

  // One pass of attach: true if the three pieces are attached, consistent,
  // validated and owned. With `reformat` every piece is formatted afresh.
  bool attachAndValidate(bool reformat, ArenaFiles::OwnerFile & ownerFile,
                         const ArenaFiles::DoorbellInfo & doorbellInfo) {
    if (reformat) {
      BASALT_TRACE(debugHandler(), 1, "CairnWriter::attachAndValidate() all entries from {} will be lost",
                   rootPath_.cairnName());
      epochId_ = epochId_.reformatted();
    }
    counters_ = Writer::Counters();
    // Slots, buckets, then the queue: one statement each, as the operands of
    // `|` would be attached in no defined order.
    const int slotResult = slots_.attach(epochId_);
    const int bucketResult = map_.attach(epochId_);
    const int joined = slotResult | bucketResult | ripple_.attach(epochId_);
    const bool consistent = joined == AttachedNew || joined == AttachedExisting;
    if (!consistent && !reformat) {
      BASALT_TRACE(debugHandler(), 0, "CairnWriter::attachAndValidate() failed to attach to existing files{}owner file: {}",
                   dumpHeaders(), ownerFile.headerToString());
      return false;
    }
    const bool interrupted = !reformat && (slots_.header()->runtimeFlags & WriteInProgress);
    if (interrupted) {
      Repair<Key, Value, Ops>(debugHandler(), rootPath_.cairnName(), slots_, map_, ripple_).run();
    }
    Validator<Key, Value, Ops> validator(*this);
    if (!runValidator(validator, [&] { return validator.validate(epochId_); })) {
      failedValidation(reformat, ownerFile);
      return false;
    }
    if (interrupted) {
      writeInProgressIs(false);  // what the stopped operation left is mended, or was whole
    }
    if (localMem_) {
      return true;
    }
    ownerFile.doorbellInfoIs(doorbellInfo);
    std::string error;
    BASALT_ASSERT(ownerFile.validate(error), "Cairn/CairnWriter",
                  "CairnWriter::validateAndAttach() wrote to owner file but validation failed: " + error);
    owner_ = true;
    if (reformat) {
      BASALT_TRACE(debugHandler(), 1, "CairnWriter::attachAndValidate(): re-formatted successfully");
    }
    return true;
  }

  // Proves the attached table sound, as at a start, and its owner file too.
  bool validate() override {
    Validator<Key, Value, Ops> validator(*this);
    bool sound = runValidator(validator, [&] { return validator.validate(epochId_); });
    sound = ArenaFiles::OwnerFile(debugHandler(), directory(), localMem_).validate() && sound;
    if (!sound) {
      BASALT_TRACE(debugHandler(), 0, "{}", dumpHeaders());
    }
    return sound;
  }

  // Checks the files on disk against this writer's generation; throws what
  // the first failing check raises. A sound check removes the corruption marker.
  bool validateFiles() override {
    if (localMem_) {
      return true;
    }
    map_.buckets().validateFile(epochId_);
    Cairn::Util::validateFile(debugHandler(), slots_.fileName(),
                              SlotWriter::SlotHeaderSize + std::size_t{capacity()} * SlotWriter::slotSize);
    ripple_.validateFile();
    ArenaFiles::EpochFile(debugHandler(), directory(), localMem_).validate(epochId_);
    ArenaFiles::OwnerFile(debugHandler(), directory(), localMem_).validateFile();
    Cairn::Util::removeCorruptionFile(debugHandler(), directory());
    return true;
  }

  // Lets go of the files, which stay for the next writer.
  void detach(bool) override {
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::detach() owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
                 rootPath_.toString());
    if (directNew_) {
      const Slot * slot = slots_.slots()[directSlot_];
      slots_.anchorOn(slot, slot->flags);
      Basalt::debugAndThrowAssertException(
          "Cairn/CairnWriter", __func__, __LINE__,
          fmt::format("CairnWriter::detach() unbalanced directSlot:{} containing value:{} - Make sure "
                      "the DirectIs/Commit are properly paired!",
                      directSlot_, openValueText()));
    }
    disableNudges();
    if (owner_) {
      clearOwnDoorbell();
      owner_ = false;
    }
    detachPieces();
    this->initializedIs(false);
  }

  // Removes the table's files; works on a writer that is not attached.
  void cleanup() override {
    BASALT_TRACE(debugHandler(), 5, "CairnWriter::cleanup() owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
                 rootPath_.toString());
    if (localMem_) {
      detachPieces();
      return;
    }
    ArenaFiles::OwnerFile ownerFile(debugHandler(), directory(), false);
    ownerFile.lock();  // held to the end of this function
    Arena::WriterLock::acquireWriterLock(debugHandler(), directory());
    owner_ = ownerFile.validate();
    if (!owner_) {
      BASALT_TRACE(debugHandler(), 1,
                   "CairnWriter::cleanup() owner file corruption detected but continuing with cleanup, dumped "
                   "owner file: {}",
                   ownerFile.headerToString());
    }
    removeFiles(ownerFile);
    owner_ = false;
  }

  const SlotWriter & slotTable() const { return slots_; }
  const Map & map() const { return map_; }
  Map & map() { return map_; }
  const Ripple::RippleWriter & ripple() const { return ripple_; }

 protected:
  // Called right before the store that publishes a new entry in `slot`, or
  // the new place of an entry that a shrink moves; the slot is complete at
  // this point. A seam for tests that inspect the file between the two.
  virtual void beforePublish(uint32_t /*slot*/) {}

 private:
  static typename SlotWriter::Config slotConfig(const MapDescriptor & descriptor,
                                                const std::string & classType) {
    return {descriptor.maxSlots, descriptor.fixedSize, descriptor.shrinkSlots, classType,
            descriptor.localMem};
  }

  // A new generation: this process's id in the low half, a counter of the
  // ids this writer type made in the high half (0 for local memory).
  ArenaFiles::EpochId newEpochId() const {
    static uint16_t made = 0;
    const auto pid = static_cast<uint16_t>(getpid());
    return ArenaFiles::EpochId::of(localMem_ ? 0 : made++, pid);
  }

  // The write guard: set when an operation begins to change the file, cleared
  // when it ends normally; an operation that leaves by an exception leaves it set.
  void writeInProgressIs(bool on) {
    auto & header = *slots_.header();
    const uint16_t flags = on ? (header.runtimeFlags | WriteInProgress)
                              : (header.runtimeFlags & ~WriteInProgress);
    Arena::Atomics::publish16(header.runtimeFlags, flags);
  }

  Slot * asSlot(SlotLink * link) const { return reinterpret_cast<Slot *>(link); }
  uint32_t indexOf(const Slot * slot) const {
    return static_cast<uint32_t>(slot - slots_.slots().base);
  }

  // Rewrites an existing entry behind the LOOKASIDE bit.
  void rewrite(Slot * slot, const Value & value) {
    Slot * lookaside = slots_.lookasideSlot();
    Arena::Atomics::publish32(lookaside->rhash, slot->rhash);
    Marshalling::toSlot(&lookaside->value, value);
    const uint32_t flags = slot->flags;
    // Sets LOOKASIDE: the LookasideSlot is complete, readers take the value
    // from there until the next store.
    Arena::Atomics::publish32(slot->flags, flags + 2);
    Arena::Atomics::storeFence();  // the slot's value stores stay behind the flags store
    Marshalling::toSlot(&slot->value, value);
    // Clears LOOKASIDE and raises the version: the slot holds the new value whole.
    Arena::Atomics::publish32(slot->flags, (flags + 4) | OCCUPIED);
  }

  // directCommit's rewrite: the new value is already in the LookasideSlot.
  void copyThroughLookaside(Slot * slot) {
    Slot * lookaside = slots_.lookasideSlot();
    Arena::Atomics::publish32(lookaside->rhash, slot->rhash);
    const uint32_t flags = slot->flags;
    // Sets LOOKASIDE: readers take the LookasideSlot's value, filled in place.
    Arena::Atomics::publish32(slot->flags, flags + 2);
    Arena::Atomics::storeFence();
    Value value;
    Marshalling::fromSlot(value, &lookaside->value);
    Marshalling::toSlot(&slot->value, value);
    // Clears LOOKASIDE and raises the version.
    Arena::Atomics::publish32(slot->flags, flags + 4);
  }

  Slot * insert(const Key & key, const Value & value, uint32_t bucket, uint32_t hash, SlotLink *& prev) {
    Slot * slot = allocRebasing(hash, prev);
    const uint32_t index = indexOf(slot);
    // Links the new slot onward, taking over prev's link (terminator included).
    // The slot is not reachable yet.
    slot->link.storeNext(prev->value());
    const uint32_t flags = slot->flags;
    Arena::Atomics::publish32(slot->flags, flags + 2);
    Arena::Atomics::storeFence();
    Marshalling::toSlot(&slot->value, value);
    // Sets OCCUPIED after the value: the slot is complete.
    Arena::Atomics::publish32(slot->flags, (flags + 4) | OCCUPIED);
    beforePublish(index);
    // Publishes the entry: one 64-bit store of the link before it.
    prev->storeNext(index);
    BASALT_TRACE(debugHandler(), 9, "CairnWriter::write() new {} bucket:{} slot:{} next:{}",
                 KeyOperations::toString(key), bucket, index, slot->link.value());
    map_.maybeGrowBuckets();
    return slot;
  }

  // Takes a slot for `hash`. Growing the slot file may move the mapping, so
  // a `prev` that lies inside it is kept as an offset and turned back into an
  // address from the new base, whether alloc returns or throws.
  Slot * allocRebasing(uint32_t hash, SlotLink *& prev) {
    char * oldBase = reinterpret_cast<char *>(slots_.header());
    const std::size_t mapped = slots_.wrapper().memSize();
    char * at = reinterpret_cast<char *>(prev);
    const bool inSlotFile = at >= oldBase && at < oldBase + mapped;
    const std::ptrdiff_t offset = at - oldBase;
    auto rebase = [&] {
      if (inSlotFile) {
        prev = reinterpret_cast<SlotLink *>(reinterpret_cast<char *>(slots_.header()) + offset);
      }
    };
    uint32_t index;
    try {
      index = slots_.alloc(hash);
    } catch (...) {
      rebase();
      throw;
    }
    rebase();
    return slots_.slots()[index];
  }

  // The argument of a shrink, as remove and the queue ask for one:
  // shrinkThreshold_ once the table holds fewer entries than half of it.
  uint32_t shrinkArgument() const {
    const uint32_t threshold = slots_.shrinkThresholdValue();
    return slots_.header()->occupiedSlots < threshold / 2 ? threshold : 0;
  }

  // The slot count a shrink goes down to: four times the largest power of
  // two not above the entries (0 for none), and never below minSlots.
  uint32_t shrinkTarget() const {
    const uint32_t occupied = slots_.header()->occupiedSlots;
    uint32_t base = 0;
    if (occupied != 0) {
      base = 1;
      while (base <= occupied / 2) {
        base *= 2;
      }
      base *= 4;
    }
    return std::max(base, slots_.minSlots());
  }

  // Moves the entry of slot `from` down into the free list's head, `to`,
  // while readers may stand anywhere on its chain. The entry is in both
  // slots from the copy until `from` is cleared, and the chain never loses it:
  //  1. `to` is made whole (value, rhash, OCCUPIED, from's successor) while
  //     nothing links to it (SlotWriterTable::move).
  //  2. One store of the link that led to `from` swings the chain to `to`; a
  //     reader past it goes on through `from` to the same successor.
  //  3. `to` is notified before `from`, so a consumer of the queue meets the
  //     entry at its new place before the old place goes.
  //  4. `from` loses OCCUPIED: a reader copying it fails its flags comparison.
  //  5. `from`'s link is stored again, same successor, version + 4. A reader
  //     that came to `from` through the old link and walks on from it checks
  //     that link's version at its next step; the moves of the slots behind
  //     it don't touch that link, so without this store a reader that had
  //     entered a run of moved slots could meet one of them unoccupied under
  //     a link at rest, and take that for a damaged chain.
  void moveDown(uint32_t from) {
    const Slot * slot = slots_.slots()[from];
    slots_.anchorOn(slot, slot->flags);
    const Key & key = KeyOperations::key(slot->value);
    const uint32_t hash = KeyOperations::hash(key);
    SlotLink * prev = nullptr;
    SlotLink * curr;
    const bool found = map_.find(key, map_.bucketOf(hash), &prev, &curr, hash);
    BASALT_ASSERT(found, "Cairn/CairnWriter",
                  fmt::format("CairnWriter::doMaybeShrinkSlots() fromSlot:{} key not found", from));
    BASALT_ASSERT(prev != nullptr, "Cairn/CairnWriter",
                  fmt::format("CairnWriter::doMaybeShrinkSlots() fromSlot:{} not referenced", from));
    const uint32_t to = slots_.move(from);
    BASALT_TRACE(debugHandler(), 9, "CairnWriter::doMaybeShrinkSlots() moving fromSlot:{} toSlot:{}", from, to);
    beforePublish(to);
    // Publishes the move (guard word: prev's link version): the chain now runs through `to`.
    prev->storeNext(to);
    ripple_.notify(to);
    if (ripple_.tombstone(from) && counters_.pendingNotifications != 0) {
      --counters_.pendingNotifications;
    }
    Slot * old = slots_.slots()[from];
    // Retires `from` (guard word: its flags): OCCUPIED clear, version unchanged.
    Arena::Atomics::publish32(old->flags, old->flags & ~OCCUPIED);
    // Tells a reader that walks on from `from` that it left the chain (guard word: from's link version).
    old->link.storeNext(old->link.value());
    ripple_.notify(from);
  }

  // Puts a removed slot at the head of the free list.
  void pushFree(Slot * slot, uint32_t index) {
    auto & header = *slots_.header();
    const uint32_t head = header.freeSlots;
    Arena::Atomics::publish32(header.freeSlots, index);
    slot->link.storeNext(head);
    Arena::Atomics::publish32(header.occupiedSlots, header.occupiedSlots - 1);
  }

  template <typename MessageBuilder>
  void checkNoDirectOperation(MessageBuilder && message) const {
    if (directSlot_ == NoDirectSlot && !directNew_) {
      return;
    }
    const Slot * slot = slots_.slots()[directSlot_];
    slots_.anchorOn(slot, slot->flags);
    Basalt::debugAndThrowAssertException("Cairn/CairnWriter", __func__, __LINE__, message());
  }

  std::string directMisuse(const char * function, const Key & key) const {
    return fmt::format("CairnWriter::{}() unbalanced directSlot:{} containing value:{} when modifying key:{} - "
                       "Make sure the DirectIs/Commit are properly paired!",
                       function, directSlot_, openValueText(), KeyOperations::toString(key));
  }

  std::string openValueText() const {
    return ValueOperations::toString(slots_.slots()[directSlot_]->value);
  }

  const std::string & directory() const { return rootPath_.directory(); }

  // Takes the writer role of the table and names the socket readers reach it
  // by: this table's own, or the process's one doorbell when that is on.
  ArenaFiles::DoorbellInfo ownDoorbell() {
    std::string socketName = Arena::WriterLock::acquireWriterLock(debugHandler(), directory());
    if (toggleOneSocketNudgeEnabled()) {
      socketName = Nudge::doorbellAcceptSm().socketName();
    }
    return ArenaFiles::DoorbellInfo(socketName, nudge_.tableId());
  }

  // Readers' connections: each notification wakes sleeping readers, and what
  // readers report of their progress tells the queue when they are quiesced.
  // A socket name that another process has taken is given up for a fresh
  // one, which the owner file then publishes instead.
  void enableNudges(ArenaFiles::OwnerFile & ownerFile, ArenaFiles::DoorbellInfo & doorbellInfo) {
    nudge_.progressHookIs([this](const std::string & reader, uint64_t sequence) {
      ripple_.clientProgressIs(reader, sequence);
    });
    nudge_.goneHookIs([this](const std::string & reader) { ripple_.clientDel(reader); });
    ripple_.nudgeHookIs([this](uint64_t sequence) { nudge_.notify(sequence); });
    nudge_.doEnableListen(doorbellInfo.socketName(),
                          [this] { return Arena::WriterLock::renewSocketName(debugHandler(), directory()); });
    if (nudge_.socketName() != doorbellInfo.socketName()) {
      doorbellInfo.socketNameIs(nudge_.socketName());
      ownerFile.doorbellInfoIs(doorbellInfo);
    }
    // A reader that connects behind the queue's present end is woken at once.
    nudge_.notify(ripple_.sequence());
  }

  void disableNudges() {
    ripple_.nudgeHookIs({});
    nudge_.onDetach();
  }

  // Runs `run` with the validator hung on the map, taking it off again
  // whatever the run does.
  template <typename Run>
  bool runValidator(Validator<Key, Value, Ops> & validator, Run && run) {
    map_.validatorIs(&validator);
    try {
      const bool passed = run();
      map_.validatorIs(nullptr);
      return passed;
    } catch (...) {
      map_.validatorIs(nullptr);
      throw;
    }
  }

  // What a failed validation leads to: with fresh files, nothing can mend
  // them; on a strict system the evidence goes into a core and the process
  // stops; otherwise attach formats the table afresh.
  void failedValidation(bool reformat, ArenaFiles::OwnerFile & ownerFile) {
    if (reformat) {
      const std::string message = "CairnWriter::attachAndValidate() failed validation";
      BASALT_TRACE(debugHandler(), 0, "{}", message);
      throw Basalt::InvalidInitializeException(message);
    }
    if (Cairn::Util::runningOnPhysicalDut() && Cairn::Util::strictValidation()) {
      std::error_code ignored;
      std::filesystem::remove(ArenaFiles::EpochFile(debugHandler(), directory(), localMem_).path(), ignored);
      slots_.dumpToCoreIs(true);
      map_.buckets().dumpToCoreIs(true);
      ripple_.dumpToCoreIs(true);
      Basalt::Util::includeShmemInCore();
      const std::string message = fmt::format(
          "CairnWriter::attachAndValidate() failed initial validation of {} after re-attaching", rootPath_.cairnName());
      BASALT_TRACE(debugHandler(), 0, "{}", message);
      throw Basalt::InvalidInitializeException(message);
    }
    BASALT_TRACE(debugHandler(), 0, "CairnWriter::attachAndValidate() failed to validate existing files{}owner file: {}",
                 dumpHeaders(), ownerFile.headerToString());
  }

  // Empties the owner file's doorbell if it still names this process.
  void clearOwnDoorbell() {
    try {
      ArenaFiles::OwnerFile ownerFile(debugHandler(), directory(), false);
      if (Arena::WriterLock::ownerIsMe(debugHandler(), ownerFile.doorbellInfo().socketName())) {
        BASALT_TRACE(debugHandler(), 5, "CairnWriter::detach() clearing doorbellInfo");
        ownerFile.doorbellInfoIs(ArenaFiles::DoorbellInfo());
      }
    } catch (const Basalt::CorruptionDetectedException & exception) {
      BASALT_TRACE(debugHandler(), 0, "CairnWriter::detach() ignoring owner file corruption:{}", exception.what());
    }
  }

  void removeFiles(ArenaFiles::OwnerFile & ownerFile) {
    BASALT_TRACE(debugHandler(), 1, "CairnWriter::removeFiles() removing Cairn files in {}", directory());
    Cairn::Util::removeCorruptionFile(debugHandler(), directory());
    ripple_.cleanup();
    map_.buckets().cleanup();
    BASALT_TRACE(debugHandler(), 3, "SlotWriter::cleanup() removing file: {}", slots_.fileName());
    slots_.removeFile();
    std::error_code ignored;
    std::filesystem::remove(ArenaFiles::EpochFile(debugHandler(), directory(), false).path(), ignored);
    ownerFile.remove();
    Arena::WriterLock::releaseWriterLock(debugHandler(), directory());
    std::filesystem::remove(directory(), ignored);  // only if nothing else is left in it
  }

  void detachPieces() {
    slots_.detach();
    map_.buckets().detach();
    ripple_.detach();
  }

  Ops ops_;
  bool localMem_;
  RootPath rootPath_;
  ArenaFiles::EpochId epochId_;
  uint32_t directSlot_ = NoDirectSlot;
  SlotLink * directPrev_ = nullptr;
  bool directNew_ = false;
  Writer::Counters counters_;
  QuiescedCallback quiesced_;
  ValidationProgress validationProgress_;
  SlotWriter slots_;
  Map map_;
  Ripple::RippleWriter ripple_;
  // Wakes the table's sleeping readers; one per table, listening once attached.
  Nudge::WriterNudgeSm nudge_;
  VersionAnchorHook versionAnchorHook_ = nullptr;
  bool owner_ = false;
};

}  // namespace Cairn

#include "Ripple/RippleWriter.h"

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "Basalt/Exception.h"

namespace Ripple {

using Arena::Atomics::observe32;
using Arena::Atomics::observe64;
using Arena::Atomics::publish32;
using Arena::Atomics::publish64;

namespace {

constexpr const char * SourceName = "Ripple/RippleWriter";

// The results of attach, bit for bit those of Cairn::AttachResult, so that
// the table's writer can OR them with those of its other files.
constexpr int AttachedNew = 1;
constexpr int AttachedExisting = 2;
constexpr int AttachedReformatted = 4;

// Maps file `name` afresh, read-only, and checks its header for generation
// `wanted`: the reason it is not sound, or "" if it is.
template <typename Header>
std::string fileError(Basalt::Platform::DebugHandler & quiet, const std::string & directory,
                      const char * name, std::size_t headerBytes, ArenaFiles::EpochId wanted) {
  Arena::ArenaFilesWrapper file(quiet, directory, name, false);
  const auto * header =
      static_cast<const Header *>(file.attach(headerBytes, Arena::ArenaFilesWrapper::Mode::ReadOnly));
  if (header == nullptr) {
    return fmt::format("cannot map {}: {}", file.getFilename(), file.reason());
  }
  std::string error;
  if (!header->validate(file.memSize(), wanted, error)) {
    return fmt::format("{}: {}", file.getFilename(), error);
  }
  return {};
}

}  // namespace

RippleWriter::RippleWriter(Basalt::Platform::DebugHandler & handler, std::string directory,
                           Writer::Counters & counters, bool localMem, PruneMode pruneMode,
                           RippleWriterNotifiee * notifiee)
    : RippleTable(handler, std::move(directory), localMem),
      counters_(&counters),
      pruneMode_(pruneMode),
      notifiee_(notifiee),
      positions_(handler) {}

RippleWriter::~RippleWriter() {
  RippleWriter::detach();
}

// ---------------------------------------------------------------- attach

int RippleWriter::attach(ArenaFiles::EpochId epochId) {
  detach();
  epochId_ = epochId;
  const bool existed = controlFile_.memSize() != 0 || tableFiles_[Primary].memSize() != 0 ||
                       tableFiles_[Secondary].memSize() != 0;
  std::string reason;
  if (!mapFiles(Arena::ArenaFilesWrapper::Mode::ReadWrite, tableFileSize(InitialCapacity), reason)) {
    auto message = fmt::format("RippleWriter::attach() cannot attach to {}: {}", directory_, reason);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    throw Basalt::InvalidInitializeException(message);
  }
  int result;
  if (existed && keepExisting(reason)) {
    result = AttachedExisting;
    BASALT_TRACE(debugHandler(), 2, "RippleWriter::attach() to existing {} sequence:{}", directory_,
                 sequence_);
  } else {
    if (existed) {
      BASALT_TRACE(debugHandler(), 1, "RippleWriter::attach() re-formatting {}: {}", directory_, reason);
    } else {
      BASALT_TRACE(debugHandler(), 2, "RippleWriter::attach() to new files in {}", directory_);
    }
    format();
    result = existed ? AttachedReformatted : AttachedNew;
  }
  counters_->sequence = sequence_;
  BASALT_TRACE(debugHandler(), 3, "{}", headersToString());
  return result;
}

// Keeps files of this generation with sound headers and a well-ordered
// current table, and rebuilds the writer's state from them.
bool RippleWriter::keepExisting(std::string & reason) {
  if (!headersAreSound(epochId_, reason)) {
    return false;
  }
  for (unsigned index : {Primary, Secondary}) {
    mapTable(index, observe32(tables_[index]->capacity));
  }
  current_ = observe32(control_->swapCount) & 1u;
  if (!recover(reason)) {
    return false;
  }
  if (corralStart() != 0) {
    // A corral of the writer that died: no client of this writer waits for it.
    releaseCorral();
  }
  return true;
}

bool RippleWriter::headersAreSound(ArenaFiles::EpochId wanted, std::string & errorOut) const {
  std::string error;
  if (!control_->validate(controlFile_.memSize(), wanted, error)) {
    errorOut = fmt::format("{}: {}", controlFile_.getFilename(), error);
    return false;
  }
  const ArenaFiles::EpochId epoch(observe32(control_->epochId.value));
  for (unsigned index : {Primary, Secondary}) {
    if (!tables_[index]->validate(tableFiles_[index].memSize(), epoch, error)) {
      errorOut = fmt::format("{}: {}", tableFiles_[index].getFilename(), error);
      return false;
    }
  }
  return true;
}

// The sequence continues from the last entry (invariant 1), and each slot's
// live entry outside the corral is found again (invariant 3). Refuses a table
// whose sequences don't rise or that names no slot index: the writer could
// neither continue it nor index its positions.
bool RippleWriter::recover(std::string & reason) {
  const TableHeader & table = current();
  const uint32_t size = observe32(table.size);
  uint64_t previous = 0;
  for (uint32_t position = 0; position < size; ++position) {
    const Notification & entry = table.entries()[position];
    const uint64_t sequence = entry.sequence();
    const uint32_t slot = entry.loadSlot();
    if (sequence <= previous) {
      reason = fmt::format("RippleWriter::attach() pos:{} sequence:{} not above previous:{}", position,
                           sequence, previous);
      return false;
    }
    previous = sequence;
    if (slot == RIPPLE_TOMBSTONED) {
      continue;
    }
    ++liveEntries_;
    if (slot == RIPPLE_GAP) {
      if (gapPosition_ != RIPPLE_TOMBSTONED) {
        // The writer died inside appendGap, between the new gap and the
        // tombstone of the older one: finish it.
        BASALT_TRACE(debugHandler(), 1, "RippleWriter::attach() {} tombstoning the older gap at pos:{}",
                     directory_, gapPosition_);
        tombstoneAt(gapPosition_);
      }
      gapPosition_ = position;
      continue;
    }
    if (slot >= SlotLimit) {
      reason =
          fmt::format("RippleWriter::attach() pos:{} holds slot:{}, which is no slot index", position, slot);
      return false;
    }
    if (inCorral(sequence)) {
      continue;
    }
    const uint32_t older = positions_.at(slot);
    if (older != RIPPLE_TOMBSTONED && position + 1 == size) {
      // The writer died inside notify, after publishing this entry and
      // before tombstoning the slot's older one: finish that notify.
      BASALT_TRACE(debugHandler(), 1, "RippleWriter::attach() {} tombstoning pos:{} of slot:{}", directory_,
                   older, slot);
      tombstoneAt(older);
    }
    positions_.set(slot, position);
  }
  sequence_ = previous;
  return true;
}

void RippleWriter::format() {
  // Invariant 5: a reader that holds a view of these files learns that it is
  // void before either table is overwritten. The new count is even (the
  // primary becomes current) and differs from the old one.
  publish32(control_->swapCount, (observe32(control_->swapCount) | 1u) + 1u);
  formatTable(Primary);
  formatTable(Secondary);
  publish64(control_->corralEnd, 0);
  publish64(control_->corralStart, 0);
  publish64(control_->magic, ControlMagic);
  publish32(control_->version, ControlVersion);
  publish32(control_->epochId.value, epochId_.value);
  publish32(control_->entrySize, static_cast<uint32_t>(NotificationSize));
  publish64(control_->reserved0, 0);
  publish32(control_->reserved1, 0);
  publish64(control_->reserved2, 0);
  // Stored last: the block passes validation only once everything it covers is in place.
  publish32(control_->hash, control_->doHash());
  current_ = Primary;
  sequence_ = 0;
  liveEntries_ = 0;
  gapPosition_ = RIPPLE_TOMBSTONED;
  positions_.clear();
}

// No reader trusts this table's content now: swapCount changed before (format).
void RippleWriter::formatTable(unsigned index) {
  mapTable(index, InitialCapacity);
  TableHeader & table = *tables_[index];
  publish32(table.epochId.value, epochId_.value);
  publish32(table.capacity, InitialCapacity);
  publish32(table.size, 0);
  // What RippleReader::quiesced compares with while the table is empty:
  // sequence 0, "nothing notified yet" (invariant 1).
  table.entries()[0].sequenceIs(0);
  table.entries()[0].publishSlot(0);
}

void RippleWriter::detach() {
  RippleTable::detach();
  current_ = Primary;
  sequence_ = 0;
  liveEntries_ = 0;
  gapPosition_ = RIPPLE_TOMBSTONED;
  positions_.clear();
  clients_.clear();
  reportedQuiesced_ = true;
}

void RippleWriter::cleanup() {
  BASALT_TRACE(debugHandler(), 3, "RippleWriter::cleanup() removing files in {}", directory_);
  detach();
  controlFile_.remove();
  tableFiles_[Primary].remove();
  tableFiles_[Secondary].remove();
}

// ---------------------------------------------------------------- notifications

void RippleWriter::notify(uint32_t slot) {
  BASALT_ASSERT(attached(), SourceName,
                fmt::format("RippleWriter::notify() {} is not attached, slot:{}", directory_, slot));
  BASALT_ASSERT(slot < SlotLimit, SourceName,
                fmt::format("RippleWriter::notify() slot:{} is not a slot index", slot));
  if (observe32(current().size) == observe32(current().capacity)) {
    makeRoom();
  }
  const uint32_t position = append(slot);
  const uint32_t older = positions_.at(slot);
  if (older != RIPPLE_TOMBSTONED) {
    // Only now that the new entry is published: a writer that dies in
    // between leaves the slot two live entries, which attach resolves, and
    // never none.
    tombstoneAt(older);
  }
  positions_.set(slot, inCorral(sequence_) ? RIPPLE_TOMBSTONED : position);
  ++counters_->notifications;
  counters_->sequence = sequence_;
  BASALT_TRACE(debugHandler(), 7, "RippleWriter::notify() slot:{} sequence:{} pos:{}", slot, sequence_,
               position);
  if (nudgeHook_) {
    nudgeHook_(sequence_);
  }
}

bool RippleWriter::tombstone(uint32_t slot) {
  const uint32_t position = positions_.at(slot);
  if (position == RIPPLE_TOMBSTONED) {
    BASALT_TRACE(debugHandler(), 7, "RippleWriter::tombstone() slot:{} has no live entry", slot);
    return false;
  }
  tombstoneAt(position);
  positions_.set(slot, RIPPLE_TOMBSTONED);
  BASALT_TRACE(debugHandler(), 7, "RippleWriter::tombstone() slot:{} pos:{}", slot, position);
  return true;
}

uint32_t RippleWriter::append(uint32_t slot) {
  TableHeader & table = current();
  const uint32_t position = observe32(table.size);
  Notification & entry = table.entries()[position];
  ++sequence_;
  entry.sequenceIs(sequence_);  // past size: no reader trusts this entry yet
  entry.publishSlot(slot);
  // Publishes the entry (invariant 2): a reader that loads the new size
  // finds its sequence and slot complete.
  publish32(table.size, position + 1);
  ++liveEntries_;
  return position;
}

void RippleWriter::tombstoneAt(uint32_t position) {
  // The one change an entry below size ever sees (invariant 2). A reader that
  // loads the word after this store passes the entry over; one that loaded it
  // before learns through validateNotif, which loads it again, that it is gone.
  current().entries()[position].publishSlot(RIPPLE_TOMBSTONED);
  --liveEntries_;
  ++counters_->tombstones;
}

// ---------------------------------------------------------------- making room

// Only while no corral stands (a gap never lies in one) and with a notifiee
// to tell the slot count; only when the given-back slots hold at least half
// of the live entries, so that a gap, and the walk it costs every consumer,
// comes once per large shrink, not at every compaction.
RippleWriter::LeaveOut RippleWriter::leaveOut() const {
  if (notifiee_ == nullptr || corralStart() != 0) {
    return {};
  }
  const uint32_t from = notifiee_->slotCount();
  uint32_t entries = 0;
  for (uint32_t slot = from; slot < positions_.count(); ++slot) {
    if (positions_.at(slot) != RIPPLE_TOMBSTONED) {
      ++entries;
    }
  }
  if (entries == 0 || uint64_t{entries} * 2 < liveEntries_) {
    return {};
  }
  return {from, entries};
}

void RippleWriter::makeRoom() {
  const LeaveOut out = leaveOut();
  const uint32_t capacity = observe32(current().capacity);
  const bool mostlyLive = static_cast<uint64_t>(liveEntries_ - out.entries) * 2 > capacity;
  if (pruneMode_ == PruneMode::Balanced && mostlyLive) {
    growCurrent();
  } else {
    compact(out);
  }
}

void RippleWriter::compact(LeaveOut out) {
  const TableHeader & from = current();
  const unsigned target = 1 - current_;
  const uint32_t size = observe32(from.size);
  const uint32_t last = size - 1;  // at least one entry: a full table, or one with given-back slots' entries
  const auto leftOut = [&](uint32_t slot) { return slot != RIPPLE_TOMBSTONED && slot != RIPPLE_GAP && slot >= out.from; };
  // The live entries kept, the last one (for its sequence) and the gap, if
  // any, fill at most half of the target.
  const uint32_t lastSlot = from.entries()[last].loadSlot();
  const uint64_t kept = liveEntries_ - out.entries + (lastSlot == RIPPLE_TOMBSTONED || leftOut(lastSlot) ? 1u : 0u) +
                        (out.entries > 0 ? 1u : 0u);
  const uint32_t fromCapacity = observe32(from.capacity);
  uint32_t capacity = fromCapacity;
  while (2 * kept > capacity) {
    capacity = doubled(capacity);
  }
  // The target's content is reused only now, after the swapCount store that
  // made it non-current (invariant 5); a reader still on it sees that count.
  mapTable(target, capacity);
  TableHeader & to = *tables_[target];
  uint32_t copied = 0;
  for (uint32_t position = 0; position < size; ++position) {
    const Notification & entry = from.entries()[position];
    uint32_t slot = entry.loadSlot();
    if (leftOut(slot)) {
      // A given-back slot's last change, left out (invariant 7): the gap
      // appended after the swap stands for it.
      positions_.set(slot, RIPPLE_TOMBSTONED);
      --liveEntries_;
      slot = RIPPLE_TOMBSTONED;
    }
    if (slot == RIPPLE_TOMBSTONED && position != last) {
      continue;
    }
    Notification & copy = to.entries()[copied];
    copy.sequenceIs(entry.sequence());
    copy.publishSlot(slot);
    if (slot == RIPPLE_GAP) {
      gapPosition_ = copied;
    } else if (slot != RIPPLE_TOMBSTONED && positions_.at(slot) == position) {
      positions_.set(slot, copied);  // corral entries have no RipplePos and keep none
    }
    ++copied;
  }
  publish32(to.capacity, capacity);
  // Completes the target before swapCount names it: its entries, then its size.
  publish32(to.size, copied);
  // The swap. Pairs with the reader's load of swapCount: a reader that sees
  // the new count finds the target complete. From here the old table is
  // non-current and nothing is stored into it before the next swap's count.
  publish32(control_->swapCount, observe32(control_->swapCount) + 1);
  current_ = target;
  ++counters_->swaps;
  counters_->droppedEntries += size - copied;
  if (capacity > fromCapacity) {
    ++counters_->grows;
  }
  if (out.entries > 0) {
    appendGap();
    positions_.releaseFrom(out.from);  // no given-back slot has an entry now
  }
  releaseUnusedPages();
  BASALT_TRACE(debugHandler(), 2, "RippleWriter::compact() {} swapCount:{} kept:{} of {} entries capacity:{}",
               directory_, observe32(control_->swapCount), copied, size, capacity);
}

// Behind the swap that left the entries out, so that every reader meets the
// gap in the table it takes up; the older gap goes only once the new one is
// published, as a slot's older entry does in notify.
void RippleWriter::appendGap() {
  const uint32_t older = gapPosition_;
  gapPosition_ = append(RIPPLE_GAP);
  if (older != RIPPLE_TOMBSTONED) {
    tombstoneAt(older);
  }
  counters_->sequence = sequence_;
  ++counters_->gaps;
  BASALT_TRACE(debugHandler(), 2, "RippleWriter::appendGap() {} sequence:{} pos:{}", directory_, sequence_,
               gapPosition_);
}

// After a shrink: the given-back slots' entries go now, not at the next fill.
// The gap is news for sleeping readers: they are woken to it.
void RippleWriter::compactIfGivenBack() {
  const LeaveOut out = leaveOut();
  if (out.entries == 0) {
    return;
  }
  compact(out);
  if (nudgeHook_) {
    nudgeHook_(sequence_);
  }
}

// After a swap, in both tables, the pages past room for twice the entries
// the current table holds go back to the system (see the header), when that
// room is at most half its capacity: a queue in steady use, whose
// compactions fill the same pages again at once, keeps them (giving them
// back cost a page fault and a zeroed page each, every compaction). A
// refusal (traced by the wrapper) costs memory only.
void RippleWriter::releaseUnusedPages() {
  const uint64_t room = uint64_t{2} * observe32(current().size);
  if (2 * room > observe32(current().capacity)) {
    return;
  }
  for (unsigned index : {0u, 1u}) {
    tableFiles_[index].releaseTail(tableFileSize(static_cast<uint32_t>(room)));
  }
}

void RippleWriter::growCurrent() {
  const uint32_t capacity = doubled(observe32(current().capacity));
  mapTable(current_, capacity);
  // The file is long enough before the capacity that announces it
  // (invariant 2); readers that pass their mapping extend it to the file.
  publish32(current().capacity, capacity);
  ++counters_->grows;
  BASALT_TRACE(debugHandler(), 2, "RippleWriter::growCurrent() {} table:{} to capacity:{}", directory_,
               current_, capacity);
}

uint32_t RippleWriter::doubled(uint32_t capacity) const {
  if (capacity > MaxCapacity / 2) {
    auto message =
        fmt::format("RippleWriter::makeRoom() {} cannot grow past {} entries", directory_, capacity);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    throw Basalt::MemoryResourceException(message);
  }
  return capacity * 2;
}

// A writer that can't map a table can't go on: it detaches before it throws.
void RippleWriter::mapTable(unsigned index, uint32_t capacity) {
  const std::size_t bytes = tableFileSize(capacity);
  std::string reason;
  if (!remapTable(index, bytes, reason)) {
    auto message = fmt::format("RippleWriter::mapTable() failed to resize {} to {} bytes for capacity:{}: {}",
                               tableFiles_[index].getFilename(), bytes, capacity, reason);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    detach();
    throw Basalt::MemoryResourceException(message);
  }
}

// ---------------------------------------------------------------- the corral

void RippleWriter::markShrinkStart() {
  BASALT_ASSERT(attached(), SourceName,
                fmt::format("RippleWriter::markShrinkStart() {} is not attached", directory_));
  BASALT_ASSERT(
      corralStart() == 0, SourceName,
      fmt::format("RippleWriter::markShrinkStart() {} corral already set corralStart:{} corralEnd:{}",
                  directory_, corralStart(), corralEnd()));
  // Opens the corral (invariant 4), corralEnd being 0: the next notification is the shrink's first.
  publish64(control_->corralStart, sequence_ + 1);
  ++counters_->corrals;
  BASALT_TRACE(debugHandler(), 5, "RippleWriter::markShrinkStart() {} corralStart:{}", directory_,
               sequence_ + 1);
}

void RippleWriter::markShrinkEnd() {
  const uint64_t start = corralStart();
  BASALT_ASSERT(start != 0 && corralEnd() == 0, SourceName,
                fmt::format("RippleWriter::markShrinkEnd() {} no open corral corralStart:{} corralEnd:{}",
                            directory_, start, corralEnd()));
  if (sequence_ < start) {
    BASALT_TRACE(debugHandler(), 5, "RippleWriter::markShrinkEnd() {} the shrink notified nothing",
                 directory_);
    clearCorral();
    compactIfGivenBack();
    return;
  }
  // Closes the corral on the shrink's last notification (invariant 4).
  publish64(control_->corralEnd, sequence_);
  BASALT_TRACE(debugHandler(), 5, "RippleWriter::markShrinkEnd() {} corralStart:{} corralEnd:{}", directory_,
               start, sequence_);
  if (clientsPast(sequence_)) {
    releaseCorral();  // no client known to the queue waits for it
    compactIfGivenBack();
  }
}

bool RippleWriter::inCorral(uint64_t sequence) const {
  const uint64_t start = corralStart();
  const uint64_t end = corralEnd();
  return start != 0 && sequence >= start && (end == 0 || sequence <= end);
}

// The corral's entries become ordinary ones (invariant 3 holds again for
// every slot): the latest entry of a slot stays live and RipplePos points at
// it; an earlier one is tombstoned.
void RippleWriter::releaseCorral() {
  const TableHeader & table = current();
  const uint32_t size = observe32(table.size);
  for (uint32_t position = 0; position < size; ++position) {
    const Notification & entry = table.entries()[position];
    if (entry.tombstoned() || !inCorral(entry.sequence())) {
      continue;
    }
    const uint32_t slot = entry.loadSlot();
    const uint32_t other = positions_.at(slot);
    if (other != RIPPLE_TOMBSTONED && other > position) {
      tombstoneAt(position);  // a later entry of the slot stands for this one
      continue;
    }
    if (other != RIPPLE_TOMBSTONED) {
      tombstoneAt(other);
    }
    positions_.set(slot, position);
  }
  clearCorral();
  ++counters_->corralReleases;
  BASALT_TRACE(debugHandler(), 5, "RippleWriter::releaseCorral() {} released", directory_);
}

void RippleWriter::clearCorral() {
  // corralEnd first: a writer that dies between the two stores leaves an
  // open corral, which the next attach releases, never an end without a start.
  publish64(control_->corralEnd, 0);
  publish64(control_->corralStart, 0);
}

uint64_t RippleWriter::corralStart() const {
  return control_ == nullptr ? 0 : observe64(control_->corralStart);
}

uint64_t RippleWriter::corralEnd() const {
  return control_ == nullptr ? 0 : observe64(control_->corralEnd);
}

// ---------------------------------------------------------------- clients

void RippleWriter::clientProgressIs(const std::string & name, uint64_t sequence) {
  clients_[name] = sequence;
  BASALT_TRACE(debugHandler(), 7, "RippleWriter::clientProgressIs() {} client:{} sequence:{}", directory_,
               name, sequence);
  afterClientChange();
}

void RippleWriter::clientDel(const std::string & name) {
  if (clients_.erase(name) != 0) {
    afterClientChange();
  }
}

bool RippleWriter::clientsPast(uint64_t sequence) const {
  for (const auto & [name, applied] : clients_) {
    if (applied < sequence) {
      return false;
    }
  }
  return true;
}

bool RippleWriter::quiesced() const {
  for (const auto & [name, applied] : clients_) {
    if (applied != sequence_) {
      return false;
    }
  }
  return true;
}

bool RippleWriter::clientQuiesced(const std::string & name) const {
  const auto client = clients_.find(name);
  return client != clients_.end() && client->second == sequence_;
}

// Runs outside any write, on the path that brings news of the clients: the
// one place where the queue calls back into its owner.
void RippleWriter::afterClientChange() {
  const uint64_t end = corralEnd();
  if (end != 0 && clientsPast(end)) {
    releaseCorral();
    compactIfGivenBack();
    if (notifiee_ != nullptr) {
      notifiee_->shrink();
    }
  }
  const bool now = quiesced();
  if (now != reportedQuiesced_) {
    reportedQuiesced_ = now;
    if (notifiee_ != nullptr) {
      notifiee_->handleQuiesced(now);
    }
  }
}

// ---------------------------------------------------------------- validation

bool RippleWriter::validate(ArenaFiles::EpochId wanted, uint32_t mostSlots, std::string & errorText) const {
  std::string error;
  bool sound;
  if (!attached()) {
    error = fmt::format("RippleWriter::validate() {} is not attached", directory_);
    sound = false;
  } else if (!headersAreSound(wanted, error)) {
    error = fmt::format("RippleWriter::validate() {}", error);
    sound = false;
  } else {
    sound = validateEntries(mostSlots, error);
  }
  if (!sound) {
    errorText = error;
    BASALT_TRACE(debugHandler(), 0, "{}", error);
  }
  return sound;
}

// Invariants 1, 2 and 4, and of invariant 3 what the queue can judge alone:
// every position RipplePos holds is that of a live entry of its slot. Two
// breaches of invariant 3 are left to the table's validator, which alone
// sees the slots and reports them in its own words: a live entry outside the
// corral that RipplePos doesn't point at (the deletion of an occupied slot,
// or a second live entry of one slot), and RipplePos pointing into the corral.
bool RippleWriter::validateEntries(uint32_t mostSlots, std::string & errorText) const {
  const TableHeader & table = current();
  const uint32_t size = observe32(table.size);
  uint64_t previous = 0;
  uint32_t pointed = 0;
  for (uint32_t position = 0; position < size; ++position) {
    const Notification & entry = table.entries()[position];
    const uint64_t sequence = entry.sequence();
    const uint32_t slot = entry.loadSlot();
    if (sequence <= previous) {
      errorText = fmt::format("RippleWriter::validate() pos:{} sequence:{} not above previous:{}", position,
                              sequence, previous);
      return false;
    }
    previous = sequence;
    if (slot == RIPPLE_TOMBSTONED) {
      continue;
    }
    if (slot == RIPPLE_GAP) {
      if (position != gapPosition_) {
        errorText = fmt::format("RippleWriter::validate() pos:{} seq:{} is a gap, but the live gap is at pos:{}",
                                position, sequence, gapPosition_);
        return false;
      }
      continue;
    }
    if (slot >= mostSlots) {
      errorText = fmt::format("RippleWriter::validate() pos:{} slot:{} seq:{} beyond mostSlots:{}", position,
                              slot, sequence, mostSlots);
      return false;
    }
    if (positions_.at(slot) == position) {
      ++pointed;
    }
  }
  if (positions_.pointing() != pointed) {
    errorText = fmt::format("RippleWriter::validate() ripplePos holds {} positions for {} live entries",
                            positions_.pointing(), pointed);
    return false;
  }
  if (previous != sequence_) {
    errorText =
        fmt::format("RippleWriter::validate() last sequence:{} but writer sequence:{}", previous, sequence_);
    return false;
  }
  if (corralEnd() > sequence_) {
    errorText =
        fmt::format("RippleWriter::validate() corralEnd:{} beyond sequence:{}", corralEnd(), sequence_);
    return false;
  }
  return true;
}

void RippleWriter::validateFile() const {
  if (localMem()) {
    return;
  }
  Basalt::Platform::DebugHandler quiet("ripple-file-check");
  quiet.maskIs(0);  // the message below says what failed
  std::string error = fileError<ControlBlock>(quiet, directory_, ControlFileName, ControlBlockSize, epochId_);
  for (const char * name : {PrimaryFileName, SecondaryFileName}) {
    if (error.empty()) {
      error = fileError<TableHeader>(quiet, directory_, name, TableHeaderSize, epochId_);
    }
  }
  if (!error.empty()) {
    auto message = fmt::format("RippleWriter::validateFile() {}", error);
    BASALT_TRACE(debugHandler(), 0, "{}", message);
    throw Basalt::CorruptionDetectedException(message);
  }
}

// ---------------------------------------------------------------- what the validator reads

uint32_t RippleWriter::size() const {
  return attached() ? observe32(current().size) : 0;
}

uint32_t RippleWriter::capacity() const {
  return attached() ? observe32(current().capacity) : 0;
}

Notification RippleWriter::entry(uint32_t position) const {
  if (position >= size()) {
    throw Basalt::CorruptionDetectedException(
        fmt::format("RippleWriter::entry() {} out-of-range pos:{} size:{}", directory_, position, size()));
  }
  const Notification & shared = current().entries()[position];
  return Notification::of(shared.sequence(), shared.loadSlot());
}

}  // namespace Ripple

#pragma once
// CairnReader: the backend of a map in reader mode, and the private reader of
// every shadow. It maps a table's files read-only and looks up and walks the
// table while the one writer, in another process, changes it: no lock, no
// fence, no wait, no system call and no write to shared memory.
//
// One object belongs to one thread. Its guarantees:
//  1. A value it returns was, as a whole, the value of that key at some
//     moment (the flags protocol of getValue, Cairn/SlotReader.h).
//  2. It never takes a key's absence from a half-changed chain: a conclusion
//     drawn from a slot counts only once the link that led there is seen
//     unchanged (the step rule), and a not-found answer only from a bucket
//     count that is the file's (checkResize).
//  3. It tells corruption from the overlap of reading and writing: an absurd
//     reading raises Basalt::CorruptionDetectedException, and the operation
//     wrapper remaps and asks again; only when the view is current does the
//     exception leave the reader.
//
// The step rule, for each slot of a walk: (1) read what the link names, whole;
// (2) draw a conclusion, and for walking on load the slot's own link; (3) load
// the version word of the link that led here (`prev`) and compare it with
// the version loaded with the link. Changed: the chain moved under the
// reader, nothing from (2) counts, start again at the bucket. The writer moves
// a link before it changes or reuses the slot it named, so a slot that has
// become something else is always caught at (3). Every link is one 64-bit
// acquire load; the loads of one step stay in order through Arena/Atomics.h.

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "Arena/Atomics.h"
#include "ArenaFiles/EpochFile.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Basalt/Util.h"
#include "Cairn/BucketReader.h"
#include "Cairn/CairnInterface.h"
#include "Cairn/IterHint.h"
#include "Cairn/SlotReader.h"
#include "Cairn/Util.h"

namespace Cairn {

template <typename Key, typename Value, typename Ops>
class CairnReader final : public CairnInterface<Key, Value>, public Basalt::Debuggable {
 public:
  using SlotReader = SlotReaderTable<Key, Value, Ops>;
  using Slot = typename SlotReader::Slot;
  using KeyOperations = typename Ops::KeyOperations;
  using ValueOperations = typename Ops::ValueOperations;

  static constexpr uint32_t SpoiledBucket = 0xFFFFFFFFu;

  // Touches no file. Without `counters` the reader keeps its own record.
  CairnReader(Basalt::Platform::DebugHandler & handler, const std::string & name, const Ops & ops,
              Reader::Counters * counters = nullptr)
      : Basalt::Debuggable(handler),
        ops_(ops),
        defaultValue_(ops.defaultValue),
        rootPath_(handler, name, true),
        ownCounters_(counters == nullptr ? std::make_unique<Reader::Counters>() : nullptr),
        counters_(counters == nullptr ? ownCounters_.get() : counters),
        buckets_(handler, rootPath_, *counters_),
        slotTable_(handler, rootPath_, ops_, *counters_) {}

  ~CairnReader() override { CairnReader::detach(false); }

  // ---- Operations: each a private walk inside the retry wrapper ----

  const Value * lookup(const Key & key, bool & found, Value * out) const override {
    return lookupHashed(key, KeyOperations::hash(key), found, out);
  }

  // Looks up every key of `keys`, each answered exactly as lookup() answers
  // it and with every check of its own: found[i] and out[i] are keys[i]'s.
  // A lookup is a chain of dependent loads (bucket word, slot, value); here,
  // BatchWidth keys at a time are hashed, then all their bucket words are
  // touched, then the first slot of each chain, so that their cache misses
  // overlap instead of following one another. Returns how many were found.
  std::size_t lookupBatch(std::span<const Key> keys, std::span<Value> out, std::span<bool> found) const {
    if (out.size() < keys.size() || found.size() < keys.size()) {
      throw std::invalid_argument(fmt::format("CairnReader::lookupBatch() {}: {} keys, room for {} values and {} answers",
                                              rootPath_.cairnName(), keys.size(), out.size(), found.size()));
    }
    std::size_t hits = 0;
    for (std::size_t first = 0; first < keys.size(); first += BatchWidth) {
      const std::size_t count = std::min(BatchWidth, keys.size() - first);
      uint32_t hashes[BatchWidth];
      touchChains(keys.data() + first, hashes, count);
      for (std::size_t i = 0; i < count; ++i) {
        bool hit = false;
        lookupHashed(keys[first + i], hashes[i], hit, &out[first + i]);
        found[first + i] = hit;
        hits += hit ? 1 : 0;
      }
    }
    return hits;
  }

  static constexpr std::size_t BatchWidth = 16;

  // lookup() for a key whose hash is known.
  const Value * lookupHashed(const Key & key, uint32_t hash, bool & found, Value * out) const {
    while (true) {
      const Value * result;
      try {
        result = doLookup(key, hash, found, out);
      } catch (const Basalt::CorruptionDetectedException &) {
        if (doResize()) {
          continue;  // the view was stale: ask again
        }
        throw;  // the view is current: the file is at fault
      }
      if (doResize()) {
        continue;  // read while a remap was due: not handed out
      }
      if (!found) {
        slotTable_.resetAnchor();
        if (out != nullptr) {
          *out = defaultValue_;
        }
      }
      return result;
    }
  }

  bool first(Value & value, IterHint & hint) const override {
    while (true) {
      bool more;
      try {
        more = first(0, value, hint);
      } catch (const Basalt::CorruptionDetectedException &) {
        if (doResize()) {
          continue;
        }
        throw;
      }
      if (!more) {
        value = defaultValue_;
      }
      if (doResize()) {
        continue;
      }
      if (!more) {
        slotTable_.resetAnchor();
      }
      return more;
    }
  }

  bool next(const Key & lastKey, Value & value, IterHint & hint) const override {
    // Callers pass the key inside `value`, which every attempt overwrites.
    const Key key = lastKey;
    while (true) {
      bool more;
      try {
        more = doNext(key, value, hint);
      } catch (const Basalt::CorruptionDetectedException &) {
        if (doResize()) {
          hint.bucket = SpoiledBucket;  // the retry goes by key
          continue;
        }
        throw;
      }
      if (doResize()) {
        hint.bucket = SpoiledBucket;
        continue;
      }
      if (!more) {
        slotTable_.resetAnchor();
      }
      return more;
    }
  }

  // One slot by index, for a caller that compares the key itself (the
  // shadow). Never throws CorruptionDetectedException: a slot it can't read
  // is "not found".
  bool safeValue(uint32_t slotIndex, Value & value, Value * defaultOut) const {
    const auto * header = slotTable_.header();
    const uint32_t shared = header == nullptr ? 0 : header->numSlots.load().value;
    if (slotIndex >= shared) {
      BASALT_TRACE(debugHandler(), 5, "CairnReader::safeValue() slotIndex:{} shmemCapacity:{}, returning not found",
                   slotIndex, shared);
      slotTable_.resetAnchor();
      return false;
    }
    uint32_t flags = 0;
    while (true) {
      try {
        flags = slotIndex < capacity() ? static_cast<uint32_t>(slotTable_.getValue(slotIndex, value, nullptr)) : 0;
        if (!doResize()) {
          break;
        }
      } catch (const Basalt::CorruptionDetectedException &) {
        bool moved = false;
        try {
          moved = doResize();
        } catch (const Basalt::CorruptionDetectedException &) {
        }
        if (!moved) {
          BASALT_TRACE(debugHandler(), 5, "CairnReader::safeValue() unable to retrieve slotIndex:{}, returning not found",
                       slotIndex);
          slotTable_.resetAnchor();
          return false;
        }
      }
    }
    if (flags & OCCUPIED) {
      return true;
    }
    slotTable_.resetAnchor();
    if (defaultOut != nullptr) {
      *defaultOut = defaultValue_;
    }
    return false;
  }

  // Brings both mappings up to the files' counts; true if either moved.
  bool doResize() const {
    const bool slotsMoved = slotTable_.doResize();
    if (buckets_.mapped() && buckets_.versionMoved()) {
      buckets_.doResize();
      return true;
    }
    return slotsMoved;
  }

  // ---- Life ----

  bool initialize(const std::string & event) override {
    if (!Arena::Atomics::checkCpuSupport()) {
      BASALT_TRACE(debugHandler(), 0, "Hardware does not support Atomics");
      throw Basalt::InvalidInitializeException("Hardware does not support Atomics");
    }
    if (this->initialized()) {
      return true;
    }
    if (!buckets_.attach()) {
      BASALT_TRACE(debugHandler(), 0, "CairnReader::initialize() failed to attach to buckets");
      return false;
    }
    if (!slotTable_.attach()) {
      BASALT_TRACE(debugHandler(), 0, "CairnReader::initialize() failed to attach to slots");
      return false;
    }
    ArenaFiles::EpochFile epochFile(debugHandler(), rootPath_.directory(), false);
    epochId_ = epochFile.read();
    const int64_t mtime = epochFile.mtime();
    if (epochId_.none()) {
      BASALT_TRACE(debugHandler(), 0, "CairnReader::initialize() failed to read epoch file");
      BASALT_TRACE(debugHandler(), 0, "{}", dumpHeaders());
      return false;
    }
    std::string errorText;
    if (!buckets_.validate(epochId_, errorText)) {
      BASALT_TRACE(debugHandler(), 0, "CairnReader::initialize() failed to validate buckets");
      return refuseFiles(errorText);
    }
    const auto header = slotTable_.stableHeader();
    if (!header.validate(debugHandler(), slotTable_.wrapper().fileSize(), epochId_, errorText)) {
      BASALT_TRACE(debugHandler(), 0, "CairnReader::initialize() failed to validate slots");
      return refuseFiles(errorText);
    }
    this->initializedIs(true);
    BASALT_TRACE(debugHandler(), 1, "CairnReader::initialize() success {} capacity:{} epochId:{} mtime:{} delay:{} event:{}",
                 rootPath_.cairnName(), capacity(), epochId_.toString(), mtime,
                 static_cast<int64_t>(std::time(nullptr)) - mtime, event);
    return true;
  }

  void detach(bool) override {
    if (!this->initialized()) {
      BASALT_TRACE(debugHandler(), 5, "CairnReader::detach() already detached");
      return;
    }
    buckets_.detach();
    slotTable_.detach();
    this->initializedIs(false);
    BASALT_TRACE(debugHandler(), 1, "CairnReader::detach() {} detached", rootPath_.cairnName());
  }

  std::string dumpHeaders() const {
    return fmt::format("Cairn table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.cairnName(), buckets_.toString(),
                       slotTable_.header() == nullptr ? std::string("SlotTable::Header() detached")
                                                      : slotTable_.stableHeader().toString());
  }

  // ---- State ----

  uint32_t members() const override {
    const auto * header = slotTable_.header();
    return header == nullptr ? 0 : Arena::Atomics::observe32(header->occupiedSlots);
  }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override {
    const auto * header = slotTable_.header();
    return header == nullptr ? 0 : header->maxSlots;
  }
  uint32_t capacity() const override { return slotTable_.capacity(); }
  CairnType type() const override { return CairnType::reader; }
  bool quiesced() const override { return this->initialized(); }
  Reader::Counters readerCounters() const override {
    counters_->bucketMappedSize = buckets_.wrapper().memSize();
    counters_->slotMappedSize = slotTable_.wrapper().memSize();
    return *counters_;
  }
  RootPath rootPath() const override { return rootPath_; }
  std::string cairnName() const override { return rootPath_.cairnName(); }
  uint32_t mountStatus() const override { return this->initialized() ? 1 : 0; }
  ArenaFiles::EpochId epochId() const override { return epochId_; }
  void validateVersionAnchor() const override { slotTable_.cacheVersionAnchor().validate(); }
  Arena::CacheVersionAnchor getCacheVersionAnchor() const override {
    const auto & anchor = slotTable_.cacheVersionAnchor();
    return Arena::CacheVersionAnchor{anchor.version, anchor.offset};
  }

  const SlotReader & slotTable() const { return slotTable_; }
  SlotReader & slotTable() { return slotTable_; }
  const BucketReaderTable & buckets() const { return buckets_; }
  Reader::Counters & counters() const { return *counters_; }
  // The default key and value, and the seed copied from the slot file.
  const Ops & ops() const { return ops_; }

 private:
  // ---- The private walks ----

  // Outcome of one pass over a chain.
  enum class Pass { Found, NotFound, Restart };

  const Value * doLookup(const Key & key, uint32_t hash, bool & found, Value * out) const {
    found = false;
    if (buckets_.numBuckets() == 0) {
      BASALT_TRACE(debugHandler(), 5, "CairnReader::doLookup() bucket table detached");
      return &defaultValue_;
    }
    const uint32_t bucketIndex = hash & (buckets_.numBuckets() - 1);
    const uint32_t wanted = Basalt::Util::reverse(hash);
    Value * dest = out != nullptr ? out : &lookupValue_;
    Pass pass;
    while ((pass = lookupPass(key, bucketIndex, wanted, *dest)) == Pass::Restart) {
      ++counters_->chainRetries;
    }
    if (pass == Pass::Found) {
      found = true;
      return dest;
    }
    // A not-found answer is given only from the file's own bucket count.
    buckets_.checkResize();
    return &defaultValue_;
  }

  Pass lookupPass(const Key & key, uint32_t bucketIndex, uint32_t wanted, Value & dest) const {
    const SlotLink * prev = buckets_[bucketIndex];
    Arena::VerU32 link = prev->load();
    uint32_t count = 0;
    while (!(link.value & NextBucketBit)) {
      if (++count > capacity()) {
        throw Basalt::CorruptionDetectedException(fmt::format(
            "CairnReader::doLookup() hash chain cycle detected, slotCount:{} capacity:{}", count, capacity()));
      }
      // Whole under the flags protocol: the key alone, or the whole value
      // where the slot's rhash is the wanted one, so that a hit is copied
      // once. Either copy is judged by itself below.
      const bool wholeValue = slotTable_.peekRhash(link.value) == wanted;
      const uint64_t read =
          wholeValue ? slotTable_.getValue(link.value, dest, nullptr) : slotTable_.getKey(link.value, dest);
      const uint32_t flags = static_cast<uint32_t>(read);
      const uint32_t rhash = static_cast<uint32_t>(read >> 32);
      const Key & slotKey = KeyOperations::key(dest);
      if (!(flags & OCCUPIED)) {
        // Detects a removed slot; corruption only if the link to it is at rest.
        if (moved(prev, link)) {
          return Pass::Restart;
        }
        throw Basalt::CorruptionDetectedException(
            fmt::format("CairnReader::doLookup() slot:{} not marked as occupied key:{}", link.value, hex(slotKey)));
      }
      if (wanted == rhash && KeyOperations::equal(key, slotKey)) {
        if (!wholeValue) {
          return copyFound(key, prev, link, wanted, dest);
        }
        // Occupied, the wanted rhash and key, all of one copy: it counts once
        // the link that led here is seen unchanged.
        return moved(prev, link) ? Pass::Restart : Pass::Found;
      }
      if (wanted < rhash || (wanted == rhash && KeyOperations::less(key, slotKey))) {
        // Passed the key's place in split order: not on this chain.
        if (moved(prev, link)) {
          return Pass::Restart;
        }
        checkBucket(slotKey, bucketIndex, "CairnReader::doLookup() corrupt key detected. key:{} bucketIndex:{}");
        return Pass::NotFound;
      }
      const Slot * slot = slotTable_.slots()[link.value];
      const Arena::VerU32 onward = slot->link.load();
      if (moved(prev, link)) {
        return Pass::Restart;
      }
      checkBucket(slotKey, bucketIndex, "CairnReader::doLookup() corrupt key detected. key:{} bucketIndex:{}");
      prev = &slot->link;
      link = onward;
    }
    if (link.value != EndOfTable) {
      buckets_[SlotLink::bucketOf(link.value)];  // the bound check alone
    }
    return Pass::NotFound;
  }

  // Hashes `count` keys into `hashes` and touches, for each, its bucket word
  // and then the first bytes of its chain's head slot (its prefix and as many
  // as a key takes): the lookups that follow find them in the cache. Only
  // addresses inside the mappings are touched; nothing read here is trusted
  // (each lookup loads it again).
  void touchChains(const Key * keys, uint32_t * hashes, std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
      hashes[i] = KeyOperations::hash(keys[i]);
    }
    const uint32_t buckets = buckets_.numBuckets();
    if (buckets == 0) {
      return;  // not mapped yet: the lookups map it
    }
    const SlotLink * heads[BatchWidth];
    for (std::size_t i = 0; i < count; ++i) {
      heads[i] = buckets_[hashes[i] & (buckets - 1)];
      __builtin_prefetch(heads[i]);
    }
    const auto & slots = slotTable_.slots();
    constexpr std::size_t keyEnd = SlotPrefixSize + sizeof(Key);
    for (std::size_t i = 0; i < count; ++i) {
      const uint32_t link = heads[i]->load().value;
      if ((link & NextBucketBit) || link >= slots.count) {
        continue;
      }
      const char * slot = reinterpret_cast<const char *>(slots.base + link);
      for (std::size_t offset = 0; offset < keyEnd; offset += 64) {
        __builtin_prefetch(slot + offset);
      }
    }
  }

  // The slot of the wanted key: its whole value, copied once. The copy is
  // judged by itself, as if the key had never been read before: occupied,
  // the wanted rhash and key, and on this chain when the link was unchanged.
  // A slot rewritten or reused since its key was read fails one of these,
  // and the pass starts over.
  Pass copyFound(const Key & key, const SlotLink * prev, Arena::VerU32 link, uint32_t wanted, Value & dest) const {
    const uint64_t read = slotTable_.getValue(link.value, dest, nullptr);
    const uint32_t flags = static_cast<uint32_t>(read);
    const uint32_t rhash = static_cast<uint32_t>(read >> 32);
    const bool same = (flags & OCCUPIED) && rhash == wanted && KeyOperations::equal(key, KeyOperations::key(dest));
    return same && !moved(prev, link) ? Pass::Found : Pass::Restart;
  }

  bool first(uint32_t bucket, Value & value, IterHint & hint) const {
    const SlotLink * prev = buckets_[bucket];
    uint32_t current = bucket;
    uint32_t hops = 0;
    while (true) {
      Arena::VerU32 link = prev->load();
      while (SlotLink::isNextBucket(link.value)) {
        if (++hops >= buckets_.numBuckets()) {
          throw Basalt::CorruptionDetectedException(
              fmt::format("CairnReader::first() has bucket cycle detected, bucketCount: {} numBuckets: {}", hops,
                          buckets_.numBuckets()));
        }
        const uint32_t next = SlotLink::bucketOf(link.value);
        verifyNextBucket(current, next);
        prev = buckets_[next];
        current = next;
        link = prev->load();
      }
      if (link.value == EndOfTable) {
        verifyNextBucket(current, 0);  // holds only at the last bucket in table order
        BASALT_TRACE(debugHandler(), 8, "CairnReader::first() none found!");
        return false;
      }
      const uint64_t read = slotTable_.getValue(link.value, value, nullptr);
      if (moved(prev, link)) {
        ++counters_->chainRetries;
        continue;  // read again at this same bucket
      }
      const uint32_t flags = static_cast<uint32_t>(read);
      const Key & slotKey = KeyOperations::key(value);
      if (!(flags & OCCUPIED)) {
        throw Basalt::CorruptionDetectedException(
            fmt::format("CairnReader::first() slot:{} not marked as occupied key:{}", link.value, hex(slotKey)));
      }
      checkBucket(slotKey, current, "CairnReader::first() corrupt key detected, key:{} bucket:{}");
      hint = IterHint{flags, link.value, current};
      BASALT_TRACE(debugHandler(), 9, "CairnReader::first() {} found at bucket {}, saving {}",
                   ValueOperations::toString(value), current, toString(hint));
      return true;
    }
  }

  // Every entry it returns lies after `key` in split order, by the entry's
  // own hash. So a walk returns each key at most once, and ends however the
  // file is damaged: the file holds only so many keys. On a sound table this
  // holds by itself; only a link that leads back (a slot linked to itself, a
  // short cycle, a next-bucket link that wraps to bucket 0) breaks it.
  bool doNext(const Key & key, Value & value, IterHint & hint) const {
    const uint32_t hash = KeyOperations::hash(key);
    if (hint.slot < capacity() && hint.bucket < buckets_.numBuckets()) {
      const Slot * slot = slotTable_.slots()[hint.slot];
      const SlotLink * prev = &slot->link;
      const Arena::VerU32 link = prev->load();  // before the flags comparison
      if (hint.flags == Arena::Atomics::observe32(slot->flags)) {
        if (auto answer = nextFast(key, Basalt::Util::reverse(hash), value, hint, prev, link)) {
          return *answer;
        }
      }
    }
    return nextSlow(key, hash, value, hint);
  }

  // The hint's slot is unchanged, so its link leads to the successor. An
  // empty answer sends the caller to the slow path.
  //
  // hint.bucket is the slot's bucket under the count of the moment the hint
  // was made. The reader may have remapped since, across more than one
  // doubling or halving (a lookup between two calls of next), and then the
  // bucket checks against it fail on a sound table: that is the hint failing,
  // not the file. So these checks send the walk to the slow path, which runs
  // the same checks on the bucket of the key under the current count, and
  // reports a real fault with the same text. An answer that doesn't lie
  // after `key` in split order goes the same way: the slow path walks by key
  // and stops a chain that loops at its step count.
  std::optional<bool> nextFast(const Key & key, uint32_t wanted, Value & value, IterHint & hint,
                               const SlotLink * prev, Arena::VerU32 link) const {
    if (SlotLink::isNextBucket(link.value)) {
      const uint32_t nextBucket = SlotLink::bucketOf(link.value);
      if (!followsInTableOrder(hint.bucket, nextBucket)) {
        return std::nullopt;
      }
      BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} next bucket {} using {}", keyText(key), nextBucket,
                   toString(hint));
      const bool more = first(nextBucket, value, hint);
      if (more && !comesAfter(KeyOperations::key(value), wanted, key)) {
        return std::nullopt;
      }
      return more;
    }
    if (link.value == EndOfTable) {
      if (!followsInTableOrder(hint.bucket, 0)) {
        return std::nullopt;
      }
      BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} failed", keyText(key));
      return false;
    }
    const uint64_t read = slotTable_.getValue(link.value, value, nullptr);
    const uint32_t flags = static_cast<uint32_t>(read);
    if (!(flags & OCCUPIED)) {
      if (moved(prev, link)) {
        return std::nullopt;
      }
      throw Basalt::CorruptionDetectedException(fmt::format("CairnReader::doNext() slot:{} not marked as occupied key:{}",
                                                            link.value, hex(KeyOperations::key(value))));
    }
    if (moved(prev, link)) {
      return std::nullopt;
    }
    const Key & nextKey = KeyOperations::key(value);
    const uint32_t nextHash = KeyOperations::hash(nextKey);
    if (!fitsBucket(nextHash, hint.bucket) || !comesAfter(nextHash, nextKey, wanted, key)) {
      return std::nullopt;
    }
    const IterHint used = hint;
    hint.slot = link.value;
    hint.flags = flags;
    BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} success {} using {}, saving new slot hint {}", keyText(key),
                 ValueOperations::toString(value), toString(used), link.value);
    return true;
  }

  // By key alone: the first pair above (rhash, key), so that an iteration
  // survives the removal of its entry and the resizing of both tables.
  bool nextSlow(const Key & key, uint32_t hash, Value & value, IterHint & hint) const {
    ++counters_->iterHintMisses;
    const uint32_t bucketIndex = hash & (buckets_.numBuckets() - 1);
    const uint32_t wanted = Basalt::Util::reverse(hash);
    while (true) {  // restart point
      const SlotLink * prev = buckets_[bucketIndex];
      Arena::VerU32 link = prev->load();
      uint32_t count = 0;
      bool restart = false;
      while (!restart) {
        if (SlotLink::isNextBucket(link.value)) {
          const uint32_t nextBucket = SlotLink::bucketOf(link.value);
          verifyNextBucket(bucketIndex, nextBucket);
          BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} next bucket {}", keyText(key), nextBucket);
          const bool more = first(nextBucket, value, hint);
          if (more) {
            checkAfter(KeyOperations::key(value), wanted, key, nextBucket);
          }
          return more;
        }
        if (link.value == EndOfTable) {
          verifyNextBucket(bucketIndex, 0);
          BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} failed", keyText(key));
          return false;
        }
        if (++count > capacity()) {
          throw Basalt::CorruptionDetectedException(fmt::format(
              "CairnReader::doNext() hash chain cycle detected, slotCount:{} capacity:{}", count, capacity()));
        }
        const uint64_t read = slotTable_.getValue(link.value, value, nullptr);
        const uint32_t flags = static_cast<uint32_t>(read);
        const uint32_t rhash = static_cast<uint32_t>(read >> 32);
        const Key & slotKey = KeyOperations::key(value);
        BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} comparing slot {} {}", keyText(key), link.value,
                     keyText(slotKey));
        if (!(flags & OCCUPIED)) {
          if (!moved(prev, link)) {
            throw Basalt::CorruptionDetectedException(
                fmt::format("CairnReader::doNext() slow-path slot:{} not marked as occupied key:{} slotCount:{}",
                            link.value, hex(slotKey), count));
          }
          restart = true;
          continue;
        }
        if (wanted < rhash || (wanted == rhash && KeyOperations::less(key, slotKey))) {
          if (moved(prev, link)) {
            restart = true;
            continue;
          }
          checkBucket(slotKey, bucketIndex, "CairnReader::doNext() corrupt key detected. key:{} bucketIndex {}");
          checkAfter(slotKey, wanted, key, bucketIndex);
          hint = IterHint{flags, link.value, bucketIndex};
          BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} success {}, saving {}", keyText(key),
                       ValueOperations::toString(value), toString(hint));
          return true;
        }
        const Slot * slot = slotTable_.slots()[link.value];
        const Arena::VerU32 onward = slot->link.load();
        if (moved(prev, link)) {
          restart = true;
          continue;
        }
        BASALT_TRACE(debugHandler(), 9, "CairnReader::doNext() {} next slot {} success ", keyText(key), link.value);
        prev = &slot->link;
        link = onward;
      }
      ++counters_->chainRetries;
    }
  }

  // ---- Checks ----

  // The step rule's closing check: detects a link that moved while the slot
  // it named was being read, which voids what was concluded from that slot.
  static bool moved(const SlotLink * prev, Arena::VerU32 link) {
    return prev->word.loadVersion() != link.version;
  }

  // Accepts a slot's key for `bucket` under the local count, or a count one
  // halving or one doubling away (the writer publishes its count between the
  // two passes of a doubling). Detects a key that a bit flip changed, or a
  // reader on a mapping of another file.
  void checkBucket(const Key & slotKey, uint32_t bucket, fmt::format_string<std::string, uint32_t> message) const {
    if (!fitsBucket(slotKey, bucket)) {
      throw Basalt::CorruptionDetectedException(fmt::format(message, hex(slotKey), uint32_t{bucket}));
    }
  }

  bool fitsBucket(const Key & slotKey, uint32_t bucket) const {
    return fitsBucket(KeyOperations::hash(slotKey), bucket);
  }

  bool fitsBucket(uint32_t hash, uint32_t bucket) const {
    const uint32_t count = buckets_.numBuckets();
    return (hash & (count - 1)) == bucket || (count > 1 && (hash & ((count >> 1) - 1)) == bucket) ||
           (hash & ((count << 1) - 1)) == bucket;
  }

  // Whether the entry of `candidate`, whose hash is `candidateHash`, lies
  // after (wanted, key) in split order. The order is taken from the key's own
  // hash and not from the slot's stored rhash, so that a damaged rhash can't
  // lead a walk back to an entry it has returned.
  static bool comesAfter(uint32_t candidateHash, const Key & candidate, uint32_t wanted, const Key & key) {
    const uint32_t rhash = Basalt::Util::reverse(candidateHash);
    return wanted < rhash || (wanted == rhash && KeyOperations::less(key, candidate));
  }

  static bool comesAfter(const Key & candidate, uint32_t wanted, const Key & key) {
    return comesAfter(KeyOperations::hash(candidate), candidate, wanted, key);
  }

  // An answer of the slow path that doesn't lie after `key` was reached by a
  // link that leads back, read with its version at rest: the file is at
  // fault (or the view is stale, which the wrapper's remap settles).
  void checkAfter(const Key & candidate, uint32_t wanted, const Key & key, uint32_t bucket) const {
    if (!comesAfter(candidate, wanted, key)) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("CairnReader::doNext() out-of-order key:{} after key:{} bucket:{}", hex(candidate), hex(key),
                      bucket));
    }
  }

  // `next` must be `bucket`'s successor in table order with the local bit
  // count, one less or one more (a writer one halving or doubling away); 0
  // stands for the end of the table, where the successor wraps.
  void verifyNextBucket(uint32_t bucket, uint32_t next) const {
    if (!followsInTableOrder(bucket, next)) {
      throw Basalt::CorruptionDetectedException(
          fmt::format("CairnReader::verifyNextBucket() has bucket: {} with next bucket: {} and numBuckets: {}", bucket,
                      next, buckets_.numBuckets()));
    }
  }

  bool followsInTableOrder(uint32_t bucket, uint32_t next) const {
    const uint32_t bits = buckets_.numBucketBits();
    // The successor among 2^width buckets, modulo 2^width; a bucket index
    // wider than `width` loses its top bits.
    auto successorWith = [&](uint32_t width) {
      return width >= 32 ? bucket + 1 : bucketSuccessor(bucket, width) & ((1u << width) - 1);
    };
    return next == successorWith(bits) || (bits > 0 && next == successorWith(bits - 1)) ||
           next == successorWith(bits + 1);
  }

  bool refuseFiles(const std::string & errorText) {
    BASALT_TRACE(debugHandler(), 0, "{}", dumpHeaders());
    Cairn::Util::writeCorruptionFile(debugHandler(), rootPath_.directory(), errorText);
    return false;
  }

  // A key in a corruption message: its bytes as read from the slot.
  static std::string hex(const Key & key) { return Basalt::dumpHex(&key, sizeof(Key)); }
  static std::string keyText(const Key & key) { return KeyOperations::toString(key); }

  Ops ops_;
  Value defaultValue_;
  mutable Value lookupValue_;
  RootPath rootPath_;
  std::unique_ptr<Reader::Counters> ownCounters_;
  Reader::Counters * counters_;
  mutable BucketReaderTable buckets_;
  mutable SlotReader slotTable_;
  ArenaFiles::EpochId epochId_;
};

}  // namespace Cairn

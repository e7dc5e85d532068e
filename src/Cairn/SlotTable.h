#pragma once
// SlotTable<Value>: the mapping of one table's slot file and its header; the
// common ground of SlotWriterTable (the one writer) and the reader's table.
// The format is in Cairn/SlotFormat.h.
//
// Not thread-safe: one object belongs to one thread. Any number of processes
// may map the same file.

#include <cstddef>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/VersionAnchor.h"
#include "Basalt/Debuggable.h"
#include "Cairn/RootPath.h"
#include "Cairn/SlotFormat.h"
#include "Rig/Record.h"

namespace Cairn {

constexpr const char * SlotFileName = "slots";

template <typename Value>
class SlotTable : public Basalt::Debuggable {
 public:
  using Header = SlotTableHeader;

  // A slot as it lies in the file: the 16-byte prefix, then the value.
  struct Slot {
    SlotLink link;
    uint32_t flags;
    uint32_t rhash;
    Value value;
  };

  static constexpr std::size_t valueSize = sizeof(Value);
  static constexpr std::size_t slotSize = slotSizeFor(valueSize);
  static constexpr std::size_t SlotHeaderSize = slotHeaderSize(slotSize);

  static_assert(sizeof(Slot) == slotSize, "a slot is its 16-byte prefix and the value, nothing more");
  RIG_OFFSET_CHECKS_BEGIN
  static_assert(offsetof(Slot, value) == SlotPrefixSize, "a slot's value starts at byte 16");
  RIG_OFFSET_CHECKS_END

  SlotTable(Basalt::Platform::DebugHandler & handler, const RootPath & rootPath, bool localMem)
      : Basalt::Debuggable(handler),
        rootPath_(rootPath),
        wrapper_(handler, rootPath.directory(), SlotFileName, localMem) {}
  virtual ~SlotTable() = default;

  virtual void detach() {
    BASALT_TRACE(debugHandler(), 5, "SlotTable::detach()");
    wrapper_.detach();
    header_ = nullptr;
  }
  virtual uint32_t capacity() const = 0;

  Header * header() const { return header_; }
  // The slot embedded at the end of the header.
  Slot * lookasideSlot() const {
    return reinterpret_cast<Slot *>(reinterpret_cast<char *>(header_) + SlotHeaderFixedSize);
  }
  const RootPath & rootPath() const { return rootPath_; }
  const Arena::ArenaFilesWrapper & wrapper() const { return wrapper_; }
  const Arena::VersionAnchor & versionAnchor() const { return versionAnchor_; }
  // Puts the mapping into core dumps, so that a table refused at start can be
  // examined afterwards.
  void dumpToCoreIs(bool on) { wrapper_.dumpToCoreIs(on); }
  // Unmaps and unlinks the file; the writer's cleanup alone calls it.
  void removeFile() {
    detach();
    wrapper_.remove();
  }

  // Points the version anchor at `slot`'s flags word as it is now.
  void anchorOn(const Slot * slot, uint32_t flags) const {
    versionAnchor_.version = flags;
    versionAnchor_.offset = static_cast<uint32_t>(reinterpret_cast<const char *>(&slot->flags) -
                                                  reinterpret_cast<const char *>(header_));
    versionAnchor_.base = reinterpret_cast<uint64_t>(header_);
  }
  void resetAnchor() const { versionAnchor_.reset(); }
  // Puts back an anchor saved before a read that is not to move it (a
  // shadow's compare of a value it already holds).
  void restoreAnchor(const Arena::VersionAnchor & anchor) const { versionAnchor_ = anchor; }

 protected:
  const RootPath & rootPath_;
  Arena::ArenaFilesWrapper wrapper_;
  Header * header_ = nullptr;
  // Follows the value last handed out; lookups are const operations of the
  // table, and the anchor is their only side effect.
  mutable Arena::VersionAnchor versionAnchor_;
};

}  // namespace Cairn

#pragma once
// Cairn::MapDescriptor: all that configures one table, handed to a map's init.

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Arena/CollectionDescriptor.h"

namespace Cairn {

// The mode of a map.
enum class CairnType : uint32_t { writer = 0, shadow = 1, reader = 2, keyshadow = 3 };

// "writer", "shadow", "reader", "keyshadow", or "unknown(<n>)".
std::string toString(CairnType type);
// The mode's name as above; a value outside the four writes nothing.
std::ostream & operator<<(std::ostream & stream, CairnType type);

// A table's descriptor, which a map's init takes from the control layer as
// an Arena::CollectionDescriptor.
struct MapDescriptor : Arena::CollectionDescriptor {
  uint32_t maxSlots = 0;  // the table's maximum size; 0 is refused in writer mode
  CairnType mode = CairnType::writer;
  bool localMem = false;           // the table lives in this process's private memory
  bool reservedOption = false;     // read by nobody
  bool fixedSize = false;          // the table never grows
  bool shrinkSlots = false;        // the slot table may shrink
  bool shrinkBuckets = false;      // the bucket table may halve
  bool synchronous = false;        // a shadow keeps key notifications on
  bool shadowOptionBit2 = false;   // passed to a shadow as flag value 4
  bool useHeap = false;            // allocate from the heap; local tables only
  bool heapCheck = false;          // check the heap block on resizes
  bool cleanupBeforeInit = false;  // init first cleans the current backend up
  bool shadowOptionBit1 = false;   // passed to a shadow as flag value 2
  bool assertOnOrphanAccess = false;  // an orphan's backend is a strict dummy

  MapDescriptor() = default;
  // A local table of `maxSlots` slots in writer mode.
  explicit MapDescriptor(uint32_t maxSlots) : maxSlots(maxSlots), localMem(true) {}

  bool operator==(const MapDescriptor &) const = default;
  // Every field, as "MapDescriptor(maxSlots:<n> mode:<mode> localMem:<b> ...)".
  std::string toString() const override;
};

}  // namespace Cairn

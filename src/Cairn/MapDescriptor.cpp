#include "Cairn/MapDescriptor.h"

#include <ostream>

#include <fmt/format.h>

namespace Cairn {

std::string toString(CairnType type) {
  switch (type) {
    case CairnType::writer: return "writer";
    case CairnType::shadow: return "shadow";
    case CairnType::reader: return "reader";
    case CairnType::keyshadow: return "keyshadow";
  }
  return fmt::format("unknown({})", static_cast<uint32_t>(type));
}

std::ostream & operator<<(std::ostream & stream, CairnType type) {
  switch (type) {
    case CairnType::writer:
    case CairnType::shadow:
    case CairnType::reader:
    case CairnType::keyshadow:
      return stream << toString(type);
  }
  return stream;
}

std::string MapDescriptor::toString() const {
  return fmt::format(
      "MapDescriptor(maxSlots:{} mode:{} localMem:{} reservedOption:{} fixedSize:{} shrinkSlots:{} "
      "shrinkBuckets:{} synchronous:{} shadowOptionBit2:{} useHeap:{} heapCheck:{} "
      "cleanupBeforeInit:{} shadowOptionBit1:{} assertOnOrphanAccess:{})",
      maxSlots, Cairn::toString(mode), localMem, reservedOption, fixedSize, shrinkSlots, shrinkBuckets,
      synchronous, shadowOptionBit2, useHeap, heapCheck, cleanupBeforeInit, shadowOptionBit1,
      assertOnOrphanAccess);
}

}  // namespace Cairn

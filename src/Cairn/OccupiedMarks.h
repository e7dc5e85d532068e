#pragma once

#include <cstdint>

namespace Cairn {

// What a table walk reports to a validation that runs beside it: each slot it
// found on a chain. The validator implements it; the walks call it only while
// a validation is hung on the map.
class OccupiedMarks {
 public:
  virtual ~OccupiedMarks() = default;
  virtual void markOccupied(uint32_t slot) = 0;
};

}  // namespace Cairn

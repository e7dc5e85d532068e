#include "Cairn/IterHint.h"

#include <fmt/format.h>

namespace Cairn {

std::string toString(const IterHint & hint) {
  return fmt::format("IterHint(flags:{} slot:{} bucket:{})", hint.flags, hint.slot, hint.bucket);
}

}  // namespace Cairn

#include "Arena/VerU32.h"

#include <fmt/format.h>

namespace Arena {

std::string VerU32::toString() const { return fmt::format("{} (version {})", value, version); }

}  // namespace Arena

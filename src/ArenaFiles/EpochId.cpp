#include "ArenaFiles/EpochId.h"

#include <fmt/format.h>

namespace ArenaFiles {

std::string EpochId::toString() const { return fmt::format("0x{:08x}", value); }

}  // namespace ArenaFiles

#include "Cairn/Compatibility.h"

#include <fmt/format.h>

namespace Cairn::Compatibility {

std::string platformType(uint32_t code) {
  switch (code) {
    case 1: return "i386-linux";
    case 2: return "x86_64-linux";
    case 3: return "aarch64-linux";
    default: return fmt::format("unknown({})", code);
  }
}

}  // namespace Cairn::Compatibility

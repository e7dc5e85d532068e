#include "Basalt/Util.h"

#include <fmt/format.h>

namespace Basalt {

std::string dumpHex(const void * data, std::size_t length) {
  const auto * bytes = static_cast<const uint8_t *>(data);
  std::string text;
  text.reserve(length * 3);
  for (std::size_t i = 0; i < length; ++i) {
    if (i != 0) {
      text += ' ';
    }
    fmt::format_to(std::back_inserter(text), "{:02x}", bytes[i]);
  }
  return text;
}

}  // namespace Basalt

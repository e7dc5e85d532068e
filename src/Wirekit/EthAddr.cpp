#include "Wirekit/EthAddr.h"

#include <charconv>

#include <fmt/format.h>

#include "Wirekit/AddrImpl.h"

namespace Wirekit {

namespace {

// "xx:" for each byte but the last.
constexpr std::size_t textLength = 3 * std::tuple_size_v<EthAddr::Bytes> - 1;

// Two hex digits at `text`, either case, and nothing else (no sign, no prefix).
std::optional<uint8_t> hexByte(const char * text) {
  uint8_t byte = 0;
  auto [next, error] = std::from_chars(text, text + 2, byte, 16);
  if (error != std::errc() || next != text + 2) {
    return std::nullopt;
  }
  return byte;
}

}  // namespace

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
  if (text.size() != textLength) {
    return std::nullopt;
  }
  Bytes bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::size_t at = 3 * i;
    std::optional<uint8_t> byte = hexByte(text.data() + at);
    bool separated = i + 1 == bytes.size() || text[at + 2] == ':';
    if (!byte || !separated) {
      return std::nullopt;
    }
    bytes[i] = *byte;
  }
  return EthAddr(bytes);
}

Rig::String valueToStrep(const EthAddr & addr) {
  const EthAddr::Bytes & b = addr.bytes();
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4],
                     b[5]);
}

EthAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                        EthAddr *) {
  return Impl::takeAddress<EthAddr>(cursor, end, attributeName, "a MAC address");
}

std::ostream & operator<<(std::ostream & stream, const EthAddr & addr) {
  return stream << valueToStrep(addr);
}

}  // namespace Wirekit

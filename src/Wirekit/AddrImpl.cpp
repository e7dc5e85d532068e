#include "Wirekit/AddrImpl.h"

#include <arpa/inet.h>

#include <algorithm>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Wirekit::Impl {

namespace {

constexpr std::string_view sourceName = "Wirekit/AddrImpl";

// At most this much of a bad text goes into a message: more than the longest
// address text ("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", 45).
constexpr std::size_t shownLength = 48;

// The characters that end an address token: the separators of a record's text.
bool endsToken(char c) { return c == ',' || c == '}' || c == ')'; }

// The inet family whose addresses are `size` bytes long. Only Wirekit's own
// types call in here, with 4 or 16.
int inetFamily(std::size_t size) {
  BASALT_ASSERT(size == 4 || size == 16, std::string(sourceName),
                fmt::format("an inet address has 4 or 16 bytes, not {}", size));
  return size == 4 ? AF_INET : AF_INET6;
}

}  // namespace

std::string_view addressToken(Rig::Cursor cursor, Rig::Cursor end) {
  return std::string_view(cursor, std::find_if(cursor, end, endsToken));
}

Rig::ParseException badAddressText(std::string_view where, std::string_view expected,
                                   std::string_view text) {
  return Rig::ParseException(
      fmt::format("{} expected {}, found \"{}\"", where, expected, text.substr(0, shownLength)));
}

Rig::ParseException badAttributeText(std::string_view attributeName, std::string_view expected,
                                     std::string_view text) {
  return badAddressText(fmt::format("Wirekit::sequenceToValue() attribute '{}':", attributeName),
                        expected, text);
}

bool inetParse(std::string_view text, std::span<uint8_t> bytes) {
  // inet_pton reads up to a NUL: a text with a NUL inside would be cut short
  // there and its tail ignored, so it is refused here.
  char terminated[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof(terminated) || text.find('\0') != std::string_view::npos) {
    return false;
  }
  text.copy(terminated, text.size());
  terminated[text.size()] = '\0';
  return inet_pton(inetFamily(bytes.size()), terminated, bytes.data()) == 1;
}

Rig::String inetFormat(std::span<const uint8_t> bytes) {
  char text[INET6_ADDRSTRLEN];
  const char * written = inet_ntop(inetFamily(bytes.size()), bytes.data(), text, sizeof(text));
  BASALT_ASSERT(written != nullptr, std::string(sourceName),
                "inet_ntop fails only for an unknown family or a short buffer");
  return Rig::String(written);
}

}  // namespace Wirekit::Impl

#pragma once
// Text and hash helpers shared by the address types of Wirekit. Internal to
// Wirekit: callers use the types' own valueToStrep, sequenceToValue and hash.
//
// An address in a record's text is one token: it runs from the cursor to the
// first ',', '}' or ')', or to the end of the text. A parser takes the token
// whole or not at all, so "1.2.3.4x" is refused rather than read as 1.2.3.4
// followed by junk, and the cursor moves only when the whole token parsed.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "Rig/ValueText.h"

namespace Wirekit::Impl {

// The address token at the cursor (possibly empty).
std::string_view addressToken(Rig::Cursor cursor, Rig::Cursor end);

// A ParseException "<where> expected <expected>, found \"<text>\"". The text
// is clipped, but long enough to show any address text whole.
Rig::ParseException badAddressText(std::string_view where, std::string_view expected,
                                   std::string_view text);

// The same, where is "Wirekit::sequenceToValue() attribute '<attributeName>':".
Rig::ParseException badAttributeText(std::string_view attributeName, std::string_view expected,
                                     std::string_view text);

// Reads the token at the cursor with T::parse as the value of attribute
// `attributeName` and moves the cursor behind it. `expected` names the form
// in the message of a bad token ("a MAC address").
template <typename T>
T takeAddress(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
              std::string_view expected) {
  std::string_view token = addressToken(cursor, end);
  std::optional<T> value = T::parse(token);
  if (!value) {
    throw badAttributeText(attributeName, expected, token);
  }
  cursor += static_cast<std::ptrdiff_t>(token.size());
  return *value;
}

// The system's inet_pton over the whole of `text` (which need not end in a
// NUL): true, with `bytes` filled, when the text is an address of the family
// that the size of `bytes` names (4 bytes IPv4, 16 bytes IPv6).
bool inetParse(std::string_view text, std::span<uint8_t> bytes);

// The system's inet_ntop: an IPv4 address as a dotted quad, an IPv6 address
// in its canonical form (lower-case hex, the longest run of zero groups
// shortened to "::", mapped IPv4 addresses as "::ffff:1.2.3.4").
Rig::String inetFormat(std::span<const uint8_t> bytes);

// An address type of Wirekit whose text the system's inet functions handle.
template <typename T>
std::optional<T> parseInet(std::string_view text) {
  typename T::Bytes bytes;
  if (!inetParse(text, bytes)) {
    return std::nullopt;
  }
  return T(bytes);
}

}  // namespace Wirekit::Impl

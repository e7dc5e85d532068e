#pragma once
// Wirekit::IpAddr: an IPv4 address, four bytes in network order.
//
// Text form: the dotted quad of the system's inet functions ("192.0.2.1"),
// read as one address token (see Wirekit/AddrImpl.h). Leading zeros, fewer
// than four parts and numbers above 255 are refused.

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Rig/String.h"
#include "Rig/ValueText.h"

namespace Wirekit {

class IpAddr {
 public:
  using Bytes = std::array<uint8_t, 4>;

  // 0.0.0.0, the any address.
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(const Bytes & bytes) : bytes_(bytes) {}

  constexpr const Bytes & bytes() const { return bytes_; }

  constexpr bool isAny() const { return *this == IpAddr(); }

  // The whole of `text` as a dotted quad; nothing if it is not one.
  static std::optional<IpAddr> parse(std::string_view text);

  // Equal when all four bytes are; ordered as the 32-bit number they make.
  friend bool operator==(const IpAddr &, const IpAddr &) = default;
  friend std::strong_ordering operator<=>(const IpAddr &, const IpAddr &) = default;

 private:
  Bytes bytes_ = {};
};

static_assert(sizeof(IpAddr) == 4 && std::is_trivially_copyable_v<IpAddr>,
              "IpAddr is the four bytes of the address and nothing else");

Rig::String valueToStrep(const IpAddr & addr);

// Reads one dotted quad at the cursor as the value of `attributeName`; a bad
// token raises Rig::ParseException naming the attribute and the text.
IpAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                       IpAddr *);

std::ostream & operator<<(std::ostream & stream, const IpAddr & addr);

}  // namespace Wirekit

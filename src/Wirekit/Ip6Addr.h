#pragma once
// Wirekit::Ip6Addr: an IPv6 address, sixteen bytes in network order.
//
// Text form: the canonical text of the system's inet functions: lower-case
// hex groups without leading zeros, the longest run of two or more zero
// groups (the first of equal runs) written "::", and IPv4-mapped addresses
// as "::ffff:192.0.2.1". The parser takes every text the system's inet_pton
// takes (upper-case hex, uncompressed zeros, embedded IPv4), as one address
// token (see Wirekit/AddrImpl.h).

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Rig/Hash.h"
#include "Rig/String.h"
#include "Rig/ValueText.h"

namespace Wirekit {

class Ip6Addr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  // ::, the unspecified address.
  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Bytes & bytes) : bytes_(bytes) {}

  constexpr const Bytes & bytes() const { return bytes_; }

  constexpr bool isUnspecified() const { return *this == Ip6Addr(); }

  // Rig::Hash with seed 0 over the sixteen bytes in order, taken as two
  // words. Keys with addresses of either family hash their address bytes
  // through it, so it never changes.
  uint32_t hash() const {
    Rig::Hash hash(0);
    hash.hashMix<8>(Rig::littleEndianWord(bytes_.data()));
    hash.hashMix<8>(Rig::littleEndianWord(bytes_.data() + 8));
    return hash.result();
  }

  // The whole of `text` as an IPv6 address; nothing if it is not one.
  static std::optional<Ip6Addr> parse(std::string_view text);

  // Equal when all sixteen bytes are; ordered by the bytes, first byte first.
  friend bool operator==(const Ip6Addr &, const Ip6Addr &) = default;
  friend std::strong_ordering operator<=>(const Ip6Addr &, const Ip6Addr &) = default;

 private:
  Bytes bytes_ = {};
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1 &&
                  std::is_trivially_copyable_v<Ip6Addr> && std::is_standard_layout_v<Ip6Addr>,
              "Ip6Addr is the sixteen bytes of the address and nothing else: it lies at "
              "offset 4 of an IpGenAddr in shared files");

Rig::String valueToStrep(const Ip6Addr & addr);

// Reads one IPv6 address at the cursor as the value of `attributeName`; a
// bad token raises Rig::ParseException naming the attribute and the text.
Ip6Addr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                        Ip6Addr *);

std::ostream & operator<<(std::ostream & stream, const Ip6Addr & addr);

}  // namespace Wirekit

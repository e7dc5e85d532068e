#pragma once
// Wirekit::IpGenAddr: an address of either IP family, or none.
//
// It lies byte for byte in shared table files (the tunnel keys hold eight),
// so its layout is part of the file format:
//
//   offset  size  field
//   0       4     family: 0 unset, 1 IPv4, 2 IPv6 (little-endian)
//   4       16    address bytes in network order; IPv4 uses the first four
//
// Invariant: the address bytes its family does not use are zero (all sixteen
// when unset). Every constructor and parser here keeps it. Equality and order
// look at all sixteen bytes and keys hash all sixteen, so equal addresses
// hash alike.
//
// Text form, one address token (see Wirekit/AddrImpl.h):
//   IPv4   dotted quad, as Wirekit::IpAddr      "192.0.2.1"
//   IPv6   canonical text, as Wirekit::Ip6Addr  "2001:db8::1", "::ffff:192.0.2.1"
//   unset  the word "unset"
// A text with a ':' is IPv6, any other address text IPv4. A family other
// than these three can only come from foreign bytes; it prints as
// "unknown-family-<n>", which no parser takes.

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Rig/Hash.h"
#include "Rig/String.h"
#include "Rig/ValueText.h"
#include "Wirekit/Ip6Addr.h"
#include "Wirekit/IpAddr.h"

namespace Wirekit {

class IpGenAddr {
 public:
  enum class Family : uint32_t { unset = 0, ipv4 = 1, ipv6 = 2 };

  // Unset: family 0, all bytes zero.
  constexpr IpGenAddr() = default;
  constexpr explicit IpGenAddr(const IpAddr & addr) : family_(Family::ipv4) {
    std::copy(addr.bytes().begin(), addr.bytes().end(), bytes_.begin());
  }
  constexpr explicit IpGenAddr(const Ip6Addr & addr)
      : family_(Family::ipv6), bytes_(addr.bytes()) {}

  constexpr Family family() const { return family_; }

  // Views of the address bytes that do not look at the family: the first
  // four, and all sixteen.
  IpAddr ipAddr() const;
  constexpr Ip6Addr ip6Addr() const { return Ip6Addr(bytes_); }

  // True for the IPv4 any address, the IPv6 unspecified address, and an
  // address of any other family (unset included).
  bool isAddrZero() const;

  // Sets the address from its text (the text form above). A bad text raises
  // Rig::ParseException and leaves the address as it was.
  void handleInitialized(std::string_view text);

  // The whole of `text` as an address of the text form; nothing if it is not one.
  static std::optional<IpGenAddr> parse(std::string_view text);

  // Equal when family and bytes are; ordered by family, then by the bytes.
  friend bool operator==(const IpGenAddr &, const IpGenAddr &) = default;
  friend std::strong_ordering operator<=>(const IpGenAddr &, const IpGenAddr &) = default;

 private:
  friend struct IpGenAddrLayout;

  Family family_ = Family::unset;
  Ip6Addr::Bytes bytes_ = {};
};

// The layout above, which every process that maps a tunnel table relies on.
struct IpGenAddrLayout {
  static_assert(sizeof(IpGenAddr) == 20, "IpGenAddr is 20 bytes in the shared tunnel keys");
  static_assert(alignof(IpGenAddr) == 4, "the family is an aligned 32-bit word");
  static_assert(offsetof(IpGenAddr, family_) == 0, "the family is the first word");
  static_assert(offsetof(IpGenAddr, bytes_) == 4, "the address bytes follow the family");
  static_assert(sizeof(IpGenAddr::Family) == 4, "the family is a 32-bit word");
  static_assert(std::is_trivially_copyable_v<IpGenAddr> && std::is_standard_layout_v<IpGenAddr>,
                "IpGenAddr is copied byte for byte into and out of shared files");
};

Rig::String valueToStrep(const IpGenAddr & addr);

// Reads one address token at the cursor as the value of `attributeName`; a
// bad token raises Rig::ParseException naming the attribute and the text.
IpGenAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                          IpGenAddr *);

std::ostream & operator<<(std::ostream & stream, const IpGenAddr & addr);

// How an address enters the hash of a key that holds it: Ip6Addr::hash() of
// its sixteen bytes, as four bytes (hashMix<4>). The family stays out, so an
// IPv4 and an IPv6 address with the same bytes hash alike (and compare unequal).
inline void hashInto(Rig::Hash & hash, const IpGenAddr & addr) {
  hash.hashMix<4>(addr.ip6Addr().hash());
}

}  // namespace Wirekit

#pragma once
// Wirekit::EthAddr: a six-byte MAC address.
//
// It lies byte for byte in shared table files (the my-station keys hold two),
// so its layout is part of the file format: the six bytes in the order they
// are sent on the wire, nothing else, no alignment.
//
// Text form: six lower-case two-digit hex bytes joined by ':'
// ("00:1a:2b:3c:4d:5e"). The parser takes exactly that form, with upper-case
// hex digits too, as one address token (see Wirekit/AddrImpl.h).

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

class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;

  // All zero.
  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes & bytes) : bytes_(bytes) {}

  constexpr const Bytes & bytes() const { return bytes_; }

  // Rig::Hash with seed 0 over the six bytes in order. A key's place in a
  // shared table depends on it, so it never changes.
  uint32_t hash() const {
    Rig::Hash hash(0);
    hash.hashMix<4>(uint32_t{bytes_[0]} | uint32_t{bytes_[1]} << 8 | uint32_t{bytes_[2]} << 16 |
                    uint32_t{bytes_[3]} << 24);
    hash.hashMix<2>(uint32_t{bytes_[4]} | uint32_t{bytes_[5]} << 8);
    return hash.result();
  }

  // The whole of `text` as an address of the text form; nothing if it is not one.
  static std::optional<EthAddr> parse(std::string_view text);

  // Equal when all six bytes are; ordered by the bytes, first byte first.
  friend bool operator==(const EthAddr &, const EthAddr &) = default;
  friend std::strong_ordering operator<=>(const EthAddr &, const EthAddr &) = default;

 private:
  Bytes bytes_ = {};
};

static_assert(sizeof(EthAddr) == 6, "EthAddr is six bytes in the shared key layouts");
static_assert(alignof(EthAddr) == 1, "EthAddr sits at any offset of a shared key (offset 6, 10)");
static_assert(std::is_trivially_copyable_v<EthAddr> && std::is_standard_layout_v<EthAddr>,
              "EthAddr is copied byte for byte into and out of shared files");

Rig::String valueToStrep(const EthAddr & addr);

// Reads one address at the cursor as the value of `attributeName`; a bad
// token raises Rig::ParseException naming the attribute and the text.
EthAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                        EthAddr *);

std::ostream & operator<<(std::ostream & stream, const EthAddr & addr);

// How an address enters the hash of a key that holds it: its hash(), as four
// bytes (hashMix<4>).
inline void hashInto(Rig::Hash & hash, const EthAddr & addr) { hash.hashMix<4>(addr.hash()); }

}  // namespace Wirekit

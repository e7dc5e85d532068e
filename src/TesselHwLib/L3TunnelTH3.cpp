#include "TesselHwLib/L3TunnelTH3.h"

#include <array>
#include <string_view>
#include <utility>

namespace TesselHwLib {

RIG_RECORD_DEFINE(L3TunnelTH3KeyStatus)
RIG_RECORD_DEFINE(L3TunnelTH3Key)
RIG_KEY_DEFINE(L3TunnelTH3Key)
RIG_RECORD_DEFINE(L3TunnelTH3ConfigEntry)
RIG_RECORD_DEFINE(L3TunnelTH3StatusEntry)

namespace {

constexpr uint16_t etherTypeIpv4 = 0x0800;
constexpr uint16_t etherTypeIpv6 = 0x86DD;
constexpr uint16_t etherTypeMaskExact = 0xFFFF;
constexpr std::string_view etherTypeP4Name = "hdr.ethernet.ether_type";

using AddressField = const Wirekit::IpGenAddr & (L3TunnelTH3Key::*)() const;

// What a key of one etherType must hold: its family's two masks exact (all
// ones), and every address field of the other family zero.
struct FamilyRule {
  Wirekit::IpGenAddr exactMask;
  // A mask that is not exact adds its message, with no separator. The
  // wording is settled and quoted to users as it is: the IPv4 messages open
  // with a blank and the IPv6 ones do not.
  std::array<std::pair<AddressField, std::string_view>, 2> masks;
  // A field of the other family that is not zero adds an incompatibility
  // with the etherType, through createErrorMessage, under its P4 name.
  std::array<std::pair<AddressField, std::string_view>, 4> foreignFields;
};

// An address from its text, set on a zeroed (unset) address.
Wirekit::IpGenAddr addressOf(std::string_view text) {
  Wirekit::IpGenAddr addr;
  addr.handleInitialized(text);
  return addr;
}

const FamilyRule & ipv4Rule() {
  static const FamilyRule rule{
      addressOf("255.255.255.255"),
      {{{&L3TunnelTH3Key::dipMask, " hdr.ipv4_base.dst_addr_mask has wildcard matches."},
        {&L3TunnelTH3Key::sipMask, " hdr.ipv4_base.src_addr_mask has wildcard matches."}}},
      {{{&L3TunnelTH3Key::sipv6, "hdr.ipv6_base.src_addr"},
        {&L3TunnelTH3Key::sipv6Mask, "hdr.ipv6_base.src_addr_mask"},
        {&L3TunnelTH3Key::dipv6, "hdr.ipv6_base.dst_addr"},
        {&L3TunnelTH3Key::dipv6Mask, "hdr.ipv6_base.dst_addr_mask"}}},
  };
  return rule;
}

const FamilyRule & ipv6Rule() {
  static const FamilyRule rule{
      addressOf("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"),
      {{{&L3TunnelTH3Key::dipv6Mask, "hdr.ipv6_base.dst_addr_mask has wildcard matches."},
        {&L3TunnelTH3Key::sipv6Mask, "hdr.ipv6_base.src_addr_mask has wildcard matches."}}},
      {{{&L3TunnelTH3Key::sip, "hdr.ipv4_base.src_addr"},
        {&L3TunnelTH3Key::sipMask, "hdr.ipv4_base.src_addr_mask"},
        {&L3TunnelTH3Key::dip, "hdr.ipv4_base.dst_addr"},
        {&L3TunnelTH3Key::dipMask, "hdr.ipv4_base.dst_addr_mask"}}},
  };
  return rule;
}

}  // namespace

void createErrorMessage(const Rig::String & field, const Rig::String & otherField,
                        Rig::String & message) {
  if (!message.empty()) {
    message += ". ";
  }
  message += "Field " + field + " is incompatible with field " + otherField;
}

// An unknown etherType or an inexact etherType mask ends validation at once;
// past them every rule of the etherType's family is tested, and each broken
// one adds to the message.
L3TunnelTH3KeyStatus L3TunnelTH3Key::validateEntryKey() const {
  if (etherType_ != etherTypeIpv4 && etherType_ != etherTypeIpv6) {
    return {P4Runtime::ErrorCode::invalidEntryKey, "Invalid hdr.ethernet.ether_type."};
  }
  if (etherTypeMask_ != etherTypeMaskExact) {
    return {P4Runtime::ErrorCode::invalidEntryKey, "Invalid hdr.ethernet.ether_type_mask."};
  }
  const FamilyRule & rule = etherType_ == etherTypeIpv4 ? ipv4Rule() : ipv6Rule();
  Rig::String message;
  for (const auto & [mask, wildcardMessage] : rule.masks) {
    if ((this->*mask)() != rule.exactMask) {
      message += wildcardMessage;
    }
  }
  for (const auto & [field, p4Name] : rule.foreignFields) {
    if (!(this->*field)().isAddrZero()) {
      createErrorMessage(Rig::String(p4Name), Rig::String(etherTypeP4Name), message);
    }
  }
  // Every finding adds text, so an empty message is a key without one.
  return {message.empty() ? P4Runtime::ErrorCode::success : P4Runtime::ErrorCode::invalidEntryKey,
          message};
}

}  // namespace TesselHwLib

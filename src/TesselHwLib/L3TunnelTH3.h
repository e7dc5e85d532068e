#pragma once
// L3 tunnel termination records. They lie byte for byte in the slot files,
// so their layout is a file format: each field list below gives (type, name,
// attribute id, byte offset), and every offset and size is asserted at
// compile time.
//
// L3TunnelTH3Key (176 bytes, the last three explicit zero padding): a TCAM key over the
// outer headers of a tunnel packet, IPv4 or IPv6. It has address fields for
// both families, of which one key may use only those of its etherType;
// validateEntryKey() tells, in the P4 program's field names, what breaks
// that rule. Its hash takes, in this order, etherType (2 bytes),
// etherTypeMask (2), each of the eight addresses as the hash of its sixteen
// bytes (4 each, family left out), l4DestPort (2), l4SrcPort (2), priority
// (4) and ipV6ProtoEntry (1): the field order below, which therefore must
// not change.
// L3TunnelTH3ConfigEntry (224 bytes): TableConfigEntryBase, key at 24, then
// the fields below; the one entry whose key can change after construction
// (keyIs). L3TunnelTH3StatusEntry (200 bytes): TableStatusEntryBase, key at 24.
// L3TunnelTH3KeyStatus: the result of validateEntryKey(), never stored in a
// map; it holds a string and so is no file format.

#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "P4Runtime/ErrorCode.h"
#include "P4Runtime/TableEntryBase.h"
#include "Rig/String.h"
#include "TesselHwLib/Record.h"
#include "Wirekit/IpGenAddr.h"

#define TESSEL_L3TUNNEL_KEY_FIELDS(FIELD)              \
  FIELD(uint16_t, etherType, 2, 0)                     \
  FIELD(uint16_t, etherTypeMask, 3, 2)                 \
  FIELD(::Wirekit::IpGenAddr, sip, 4, 4)               \
  FIELD(::Wirekit::IpGenAddr, sipMask, 5, 24)          \
  FIELD(::Wirekit::IpGenAddr, sipv6, 6, 44)            \
  FIELD(::Wirekit::IpGenAddr, sipv6Mask, 7, 64)        \
  FIELD(::Wirekit::IpGenAddr, dip, 8, 84)              \
  FIELD(::Wirekit::IpGenAddr, dipMask, 9, 104)         \
  FIELD(::Wirekit::IpGenAddr, dipv6, 10, 124)          \
  FIELD(::Wirekit::IpGenAddr, dipv6Mask, 11, 144)      \
  FIELD(uint16_t, l4DestPort, 12, 164)                 \
  FIELD(uint16_t, l4SrcPort, 13, 166)                  \
  FIELD(uint32_t, priority, 14, 168)                   \
  FIELD(bool, ipV6ProtoEntry, 15, 172)

#define TESSEL_L3TUNNEL_CONFIG_FIELDS(FIELD)            \
  FIELD(uint8_t, protocol, 131, 200)                    \
  FIELD(uint8_t, allowedPortBitmapProfilePtr, 132, 201) \
  FIELD(bool, bfdEnable, 133, 202)                      \
  FIELD(bool, doNotChangeInnerHdrDscp, 134, 203)        \
  FIELD(bool, grePayloadIpv4, 135, 204)                 \
  FIELD(bool, grePayloadIpv6, 136, 205)                 \
  FIELD(uint16_t, l3Iif, 137, 206)                      \
  FIELD(bool, payloadIpv4, 138, 208)                    \
  FIELD(bool, payloadIpv6, 139, 209)                    \
  FIELD(uint8_t, subTunnelType, 140, 210)               \
  FIELD(uint16_t, tunnelClassId, 141, 212)              \
  FIELD(bool, tunnelType, 142, 214)                     \
  FIELD(bool, useOuterHdrDscp, 143, 215)                \
  FIELD(bool, useOuterHdrTtl, 144, 216)

// The validation verdict lies in no file: its fields have no byte offset.
#define TESSEL_L3TUNNEL_KEY_STATUS_FIELDS(FIELD)         \
  FIELD(::P4Runtime::ErrorCode, errorCode, 2, noOffset)  \
  FIELD(::Rig::String, errorMsg, 3, noOffset)

namespace TesselHwLib {

// The verdict of L3TunnelTH3Key::validateEntryKey(): success (0) with an
// empty message, or invalidEntryKey (17) with a message to be quoted to the
// user as it is. Both fields are read-only: a verdict is made whole.
class L3TunnelTH3KeyStatus {
 public:
  L3TunnelTH3KeyStatus() = default;
  L3TunnelTH3KeyStatus(P4Runtime::ErrorCode errorCode, Rig::String errorMsg)
      : errorCode_(errorCode), errorMsg_(std::move(errorMsg)) {}
  P4Runtime::ErrorCode errorCode() const { return errorCode_; }
  const Rig::String & errorMsg() const { return errorMsg_; }
  RIG_RECORD_DECLARE(L3TunnelTH3KeyStatus);

 private:
  TESSEL_L3TUNNEL_KEY_STATUS_FIELDS(RIG_FIELD_MEMBER)
};

TESSEL_KEY_CLASS(L3TunnelTH3Key, TESSEL_L3TUNNEL_KEY_FIELDS,
                 // The key's findings against the one-family rule; raises nothing.
                 L3TunnelTH3KeyStatus validateEntryKey() const;)
TESSEL_ENTRY_CLASS(L3TunnelTH3ConfigEntry, P4Runtime::TableConfigEntryBase, L3TunnelTH3Key,
                   TESSEL_L3TUNNEL_CONFIG_FIELDS,
                   // Overwrites the whole key.
                   void keyIs(const L3TunnelTH3Key & newKey) { key_ = newKey; })
TESSEL_ENTRY_CLASS(L3TunnelTH3StatusEntry, P4Runtime::TableStatusEntryBase, L3TunnelTH3Key,
                   TESSEL_NO_FIELDS)

// Appends to `message` "Field <field> is incompatible with field
// <otherField>", after ". " if `message` already holds a finding.
void createErrorMessage(const Rig::String & field, const Rig::String & otherField,
                        Rig::String & message);

}  // namespace TesselHwLib

template <>
struct Rig::Record::Layout<TesselHwLib::L3TunnelTH3KeyStatus> {
  using Self = TesselHwLib::L3TunnelTH3KeyStatus;
  static constexpr std::string_view typeName = "TesselHwLib::L3TunnelTH3KeyStatus";
  // A verdict is made whole: its fields are read-only by attribute.
  static constexpr std::tuple fields{TESSEL_L3TUNNEL_KEY_STATUS_FIELDS(RIG_READ_ONLY_FIELD_DESCRIPTOR)};
};
RIG_RECORD_INLINE(TesselHwLib::L3TunnelTH3KeyStatus)

TESSEL_KEY_LAYOUT(L3TunnelTH3Key, TESSEL_L3TUNNEL_KEY_FIELDS, 176);
TESSEL_ENTRY_LAYOUT(L3TunnelTH3ConfigEntry, P4Runtime::TableConfigEntryBase,
                    TESSEL_L3TUNNEL_CONFIG_FIELDS, 224);
TESSEL_ENTRY_LAYOUT(L3TunnelTH3StatusEntry, P4Runtime::TableStatusEntryBase, TESSEL_NO_FIELDS,
                    200);

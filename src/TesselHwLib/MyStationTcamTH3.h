#pragma once
// My-station TCAM records: which frames are addressed to this switch, and
// which kinds of packet it may terminate. They lie byte for byte in the slot
// files, so their layout is a file format: each field list below gives
// (type, name, attribute id, byte offset), and every offset and size is
// asserted at compile time.
//
// MyStationTcamTH3Key (24 bytes): a value and a mask for each matched field,
// then the TCAM priority. Its hash takes, in this order, the MAC address's
// own hash (4 bytes), vlanId (2), portNum (1), t (1), the mask's hash (4),
// vlanIdMask (2), portNumMask (1), tMask (1) and priority (4): the field
// order below, which therefore must not change.
// MyStationTcamTH3ConfigEntry (56 bytes): TableConfigEntryBase, key at 24,
// then the termination flags below. MyStationTcamTH3StatusEntry (48 bytes):
// TableStatusEntryBase, key at 24.

#include <cstdint>

#include "P4Runtime/TableEntryBase.h"
#include "TesselHwLib/Record.h"
#include "Wirekit/EthAddr.h"

#define TESSEL_MY_STATION_TCAM_KEY_FIELDS(FIELD)    \
  FIELD(::Wirekit::EthAddr, macAddr, 2, 0)          \
  FIELD(uint16_t, vlanId, 3, 6)                     \
  FIELD(uint8_t, portNum, 4, 8)                     \
  FIELD(bool, t, 5, 9)                              \
  FIELD(::Wirekit::EthAddr, macAddrMask, 6, 10)     \
  FIELD(uint16_t, vlanIdMask, 7, 16)                \
  FIELD(uint8_t, portNumMask, 8, 18)                \
  FIELD(bool, tMask, 9, 19)                         \
  FIELD(uint32_t, priority, 10, 20)

#define TESSEL_MY_STATION_TCAM_CONFIG_FIELDS(FIELD)          \
  FIELD(bool, arpRarpTerminationAllowed, 131, 48)            \
  FIELD(bool, copyToCpu, 132, 49)                            \
  FIELD(bool, discard, 133, 50)                              \
  FIELD(bool, ipv4MulticastTerminationAllowed, 134, 51)      \
  FIELD(bool, ipv4TerminationAllowed, 135, 52)               \
  FIELD(bool, ipv6MulticastTerminationAllowed, 136, 53)      \
  FIELD(bool, ipv6TerminationAllowed, 137, 54)               \
  FIELD(bool, mplsTerminationAllowed, 138, 55)

namespace TesselHwLib {

TESSEL_KEY_CLASS(MyStationTcamTH3Key, TESSEL_MY_STATION_TCAM_KEY_FIELDS)
TESSEL_ENTRY_CLASS(MyStationTcamTH3ConfigEntry, P4Runtime::TableConfigEntryBase,
                   MyStationTcamTH3Key, TESSEL_MY_STATION_TCAM_CONFIG_FIELDS)
TESSEL_ENTRY_CLASS(MyStationTcamTH3StatusEntry, P4Runtime::TableStatusEntryBase,
                   MyStationTcamTH3Key, TESSEL_NO_FIELDS)

}  // namespace TesselHwLib

TESSEL_KEY_LAYOUT(MyStationTcamTH3Key, TESSEL_MY_STATION_TCAM_KEY_FIELDS, 24);
TESSEL_ENTRY_LAYOUT(MyStationTcamTH3ConfigEntry, P4Runtime::TableConfigEntryBase,
                    TESSEL_MY_STATION_TCAM_CONFIG_FIELDS, 56);
TESSEL_ENTRY_LAYOUT(MyStationTcamTH3StatusEntry, P4Runtime::TableStatusEntryBase,
                    TESSEL_NO_FIELDS, 48);

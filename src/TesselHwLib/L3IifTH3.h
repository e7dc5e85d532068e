#pragma once
// L3 ingress interface table records. They lie byte for byte in the slot
// files, so their layout is a file format: each field list below gives
// (type, name, attribute id, byte offset), and every offset and size is
// asserted at compile time.
//
// L3IifTH3Key is one 64-bit number and its text is that number alone.
// L3IifTH3ConfigEntry (48 bytes): TableConfigEntryBase, key at 24, then the
// fields below. L3IifTH3StatusEntry (32 bytes): TableStatusEntryBase, key at 24.

#include <cstdint>

#include "P4Runtime/TableEntryBase.h"
#include "TesselHwLib/Record.h"

#define TESSEL_L3IIF_KEY_FIELDS(FIELD) FIELD(uint64_t, l3Iif, 2, 0)

#define TESSEL_L3IIF_CONFIG_FIELDS(FIELD)          \
  FIELD(uint16_t, classId, 131, 32)                \
  FIELD(uint8_t, ecnDecapMappingPtr, 132, 34)      \
  FIELD(uint16_t, flexCtrBaseCounterIdx, 133, 36)  \
  FIELD(uint8_t, flexCtrOffsetMode, 134, 38)       \
  FIELD(uint8_t, flexCtrPoolNumber, 135, 39)       \
  FIELD(bool, intEnable, 136, 40)                  \
  FIELD(uint16_t, ipmcL3Iif, 137, 42)              \
  FIELD(uint8_t, ipOptionProfileIndex, 138, 44)    \
  FIELD(uint8_t, l3IifProfileIndex, 139, 45)       \
  FIELD(uint16_t, vrf, 140, 46)

namespace TesselHwLib {

class L3IifTH3Key {
 public:
  L3IifTH3Key() = default;
  explicit L3IifTH3Key(uint64_t l3Iif) : l3Iif_(l3Iif) {}
  TESSEL_L3IIF_KEY_FIELDS(RIG_FIELD_ACCESSORS)
  RIG_RECORD_DECLARE(L3IifTH3Key);
  RIG_KEY_DECLARE(L3IifTH3Key);

 private:
  TESSEL_L3IIF_KEY_FIELDS(RIG_FIELD_MEMBER)
};

TESSEL_ENTRY_CLASS(L3IifTH3ConfigEntry, P4Runtime::TableConfigEntryBase, L3IifTH3Key,
                   TESSEL_L3IIF_CONFIG_FIELDS)
TESSEL_ENTRY_CLASS(L3IifTH3StatusEntry, P4Runtime::TableStatusEntryBase, L3IifTH3Key,
                   TESSEL_NO_FIELDS)

}  // namespace TesselHwLib

template <>
struct Rig::Record::Layout<TesselHwLib::L3IifTH3Key> {
  using Self = TesselHwLib::L3IifTH3Key;
  static constexpr std::string_view typeName = "TesselHwLib::L3IifTH3Key";
  static constexpr bool bare = true;
  static constexpr std::tuple fields{TESSEL_L3IIF_KEY_FIELDS(RIG_FIELD_DESCRIPTOR)};
  static_assert(sizeof(Self) == 8, "L3IifTH3Key is one 64-bit word in slot files");
  TESSEL_L3IIF_KEY_FIELDS(RIG_FIELD_OFFSET_CHECK)
};
RIG_RECORD_INLINE(TesselHwLib::L3IifTH3Key)
RIG_KEY_INLINE(TesselHwLib::L3IifTH3Key)
static_assert(Rig::Record::hasUniqueBytes<TesselHwLib::L3IifTH3Key>(), "L3IifTH3Key keys compare by bytes");

TESSEL_ENTRY_LAYOUT(L3IifTH3ConfigEntry, P4Runtime::TableConfigEntryBase, TESSEL_L3IIF_CONFIG_FIELDS, 48);
TESSEL_ENTRY_LAYOUT(L3IifTH3StatusEntry, P4Runtime::TableStatusEntryBase, TESSEL_NO_FIELDS, 32);

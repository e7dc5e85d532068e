#pragma once
// Self-checking records for the concurrency tests: every field of a value is
// a function of its key number and a version, so that a reader can prove a
// value it read is whole (one write of one key) by rebuilding it from those
// two numbers. A torn value, or one mixed from two writes, fails the check.

#include <cstdint>

#include "Cairn/Operations.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "TesselHwLib/L3IifTH3.h"
#include "TesselHwLib/L3TunnelTH3.h"

namespace CairnTest {

// splitmix64: a different 64-bit pattern for every (number, version).
inline uint64_t fieldPattern(uint64_t number, uint64_t version) {
  uint64_t z = number * 0x9E3779B97F4A7C15ull + version + 0x632BE59BD9B4E019ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

struct IifRecords {
  using Entry = TesselHwLib::L3IifTH3ConfigEntry;
  using Key = TesselHwLib::L3IifTH3Key;
  using Value = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Value>;
  static constexpr const char * name = "L3IifConfig";

  static Key key(uint64_t number) { return Key(number); }
  static Value make(uint64_t number, uint64_t version) {
    const uint64_t m = fieldPattern(number, version);
    Entry entry{key(number)};
    entry.genIdIs(version);
    entry.entryHandleIs(m);
    entry.validIs(m & 1);
    entry.entryIdIs(static_cast<uint32_t>(m >> 3));
    entry.classIdIs(static_cast<uint16_t>(m >> 11));
    entry.ecnDecapMappingPtrIs(static_cast<uint8_t>(m >> 17));
    entry.flexCtrBaseCounterIdxIs(static_cast<uint16_t>(m >> 23));
    entry.flexCtrOffsetModeIs(static_cast<uint8_t>(m >> 29));
    entry.flexCtrPoolNumberIs(static_cast<uint8_t>(m >> 31));
    entry.intEnableIs((m >> 37) & 1);
    entry.ipmcL3IifIs(static_cast<uint16_t>(m >> 39));
    entry.ipOptionProfileIndexIs(static_cast<uint8_t>(m >> 43));
    entry.l3IifProfileIndexIs(static_cast<uint8_t>(m >> 47));
    entry.vrfIs(static_cast<uint16_t>(m >> 48));
    return Value(entry);
  }
  static uint64_t number(const Value & value) { return value.value.key().l3Iif(); }
  static uint64_t version(const Value & value) { return value.value.genId(); }
  static bool whole(const Value & value) { return value == make(number(value), version(value)); }
};

struct TunnelRecords {
  using Entry = TesselHwLib::L3TunnelTH3ConfigEntry;
  using Key = TesselHwLib::L3TunnelTH3Key;
  using Value = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Value>;
  static constexpr const char * name = "L3TunnelConfig";

  static Key key(uint64_t number) {
    Key key;
    key.etherTypeIs(0x0800);
    key.etherTypeMaskIs(0xFFFF);
    key.priorityIs(static_cast<uint32_t>(number));
    key.l4DestPortIs(static_cast<uint16_t>(number >> 32));
    key.l4SrcPortIs(static_cast<uint16_t>(number * 7));
    return key;
  }
  static uint64_t numberOf(const Key & key) {
    return key.priority() | (static_cast<uint64_t>(key.l4DestPort()) << 32);
  }
  static Value make(uint64_t number, uint64_t version) {
    const uint64_t m = fieldPattern(number, version);
    Entry entry{key(number)};
    entry.genIdIs(version);
    entry.entryHandleIs(m);
    entry.entryIdIs(static_cast<uint32_t>(m >> 5));
    entry.protocolIs(static_cast<uint8_t>(m >> 13));
    entry.allowedPortBitmapProfilePtrIs(static_cast<uint8_t>(m >> 21));
    entry.bfdEnableIs((m >> 29) & 1);
    entry.grePayloadIpv4Is((m >> 30) & 1);
    entry.l3IifIs(static_cast<uint16_t>(m >> 33));
    entry.subTunnelTypeIs(static_cast<uint8_t>(m >> 41));
    entry.tunnelClassIdIs(static_cast<uint16_t>(m >> 47));
    entry.useOuterHdrTtlIs((m >> 63) & 1);
    return Value(entry);
  }
  static uint64_t number(const Value & value) { return numberOf(value.value.key()); }
  static uint64_t version(const Value & value) { return value.value.genId(); }
  static bool whole(const Value & value) { return value == make(number(value), version(value)); }
};

}  // namespace CairnTest

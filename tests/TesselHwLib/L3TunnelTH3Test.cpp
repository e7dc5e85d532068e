#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RigCairn/RigCairnMapValueWrapper.h"
#include "Support/TextTesting.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TesselHwLib/RecordTesting.h"

using namespace TesselHwLib;
using P4Runtime::ErrorCode;
using RigTesting::messageOf;
using TesselTesting::maximumField;
using TesselTesting::randomField;
using TesselTesting::rawAs;
using TesselTesting::rawAt;
using Wirekit::IpGenAddr;

namespace {

IpGenAddr addr(std::string_view text) {
  IpGenAddr address;
  address.handleInitialized(text);
  return address;
}

const std::string keyText =
    "Value('TesselHwLib::L3TunnelTH3Key', ** {'etherType': 2048, 'etherTypeMask': 65535, "
    "'sip': 10.0.0.1, 'sipMask': 255.255.255.255, 'sipv6': ::, 'sipv6Mask': unset, "
    "'dip': 192.0.2.1, 'dipMask': 255.255.255.0, 'dipv6': 2001:db8::1, "
    "'dipv6Mask': ffff:ffff:ffff:ffff::, 'l4DestPort': 4789, 'l4SrcPort': 0, 'priority': 100, "
    "'ipV6ProtoEntry': True})";

const std::string configText =
    "Value('TesselHwLib::L3TunnelTH3ConfigEntry', ** {'genId': 1, 'entryHandle': 2, "
    "'valid': True, 'entryId': 3, 'key': " +
    keyText +
    ", 'protocol': 47, 'allowedPortBitmapProfilePtr': 3, 'bfdEnable': True, "
    "'doNotChangeInnerHdrDscp': False, 'grePayloadIpv4': True, 'grePayloadIpv6': False, "
    "'l3Iif': 513, 'payloadIpv4': True, 'payloadIpv6': False, 'subTunnelType': 2, "
    "'tunnelClassId': 4000, 'tunnelType': True, 'useOuterHdrDscp': False, "
    "'useOuterHdrTtl': True})";

const std::string statusText =
    "Value('TesselHwLib::L3TunnelTH3StatusEntry', ** {'genId': 4, 'entryHandle': 5, "
    "'errorCode': invalidEntryKey, 'deleted': True, 'key': " +
    keyText + "})";

L3TunnelTH3Key sampleKey() {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.sipIs(addr("10.0.0.1"));
  key.sipMaskIs(addr("255.255.255.255"));
  key.sipv6Is(addr("::"));
  key.dipIs(addr("192.0.2.1"));
  key.dipMaskIs(addr("255.255.255.0"));
  key.dipv6Is(addr("2001:db8::1"));
  key.dipv6MaskIs(addr("ffff:ffff:ffff:ffff::"));
  key.l4DestPortIs(4789);
  key.l4SrcPortIs(0);
  key.priorityIs(100);
  key.ipV6ProtoEntryIs(true);
  return key;
}

L3TunnelTH3ConfigEntry sampleConfig() {
  L3TunnelTH3ConfigEntry entry(sampleKey());
  entry.genIdIs(1);
  entry.entryHandleIs(2);
  entry.validIs(true);
  entry.entryIdIs(3);
  entry.protocolIs(47);
  entry.allowedPortBitmapProfilePtrIs(3);
  entry.bfdEnableIs(true);
  entry.doNotChangeInnerHdrDscpIs(false);
  entry.grePayloadIpv4Is(true);
  entry.grePayloadIpv6Is(false);
  entry.l3IifIs(513);
  entry.payloadIpv4Is(true);
  entry.payloadIpv6Is(false);
  entry.subTunnelTypeIs(2);
  entry.tunnelClassIdIs(4000);
  entry.tunnelTypeIs(true);
  entry.useOuterHdrDscpIs(false);
  entry.useOuterHdrTtlIs(true);
  return entry;
}

L3TunnelTH3StatusEntry sampleStatus() {
  L3TunnelTH3StatusEntry entry(sampleKey());
  entry.genIdIs(4);
  entry.entryHandleIs(5);
  entry.errorCodeIs(ErrorCode::invalidEntryKey);
  entry.deletedIs(true);
  return entry;
}

#define RANDOMIZE(type, name, id, offset) record.name##Is(randomField<type>(random));
#define MAXIMIZE(type, name, id, offset) record.name##Is(maximumField<type>());

L3TunnelTH3Key randomKey(std::mt19937 & random) {
  L3TunnelTH3Key record;
  TESSEL_L3TUNNEL_KEY_FIELDS(RANDOMIZE)
  return record;
}

L3TunnelTH3ConfigEntry randomConfig(std::mt19937 & random) {
  L3TunnelTH3ConfigEntry record(randomKey(random));
  P4RUNTIME_CONFIG_BASE_FIELDS(RANDOMIZE)
  TESSEL_L3TUNNEL_CONFIG_FIELDS(RANDOMIZE)
  return record;
}

L3TunnelTH3StatusEntry randomStatus(std::mt19937 & random) {
  L3TunnelTH3StatusEntry record(randomKey(random));
  P4RUNTIME_STATUS_BASE_FIELDS(RANDOMIZE)
  return record;
}

L3TunnelTH3Key maximalKey() {
  L3TunnelTH3Key record;
  TESSEL_L3TUNNEL_KEY_FIELDS(MAXIMIZE)
  return record;
}

L3TunnelTH3ConfigEntry maximalConfig() {
  L3TunnelTH3ConfigEntry record(maximalKey());
  P4RUNTIME_CONFIG_BASE_FIELDS(MAXIMIZE)
  TESSEL_L3TUNNEL_CONFIG_FIELDS(MAXIMIZE)
  return record;
}

L3TunnelTH3StatusEntry maximalStatus() {
  L3TunnelTH3StatusEntry record(maximalKey());
  P4RUNTIME_STATUS_BASE_FIELDS(MAXIMIZE)
  return record;
}

#undef RANDOMIZE
#undef MAXIMIZE

// An address's part of the key hash: its sixteen bytes, one at a time, with
// seed 0; its family stays out.
uint32_t addressHash(const IpGenAddr & address) {
  Rig::Hash hash(0);
  const Wirekit::Ip6Addr sixteen = address.ip6Addr();
  for (uint8_t byte : sixteen.bytes()) {
    hash.hashMix<1>(byte);
  }
  return hash.result();
}

// The key hash, input by input, written out apart from the field list.
uint32_t expectedHash(const L3TunnelTH3Key & key, uint32_t seed) {
  Rig::Hash hash(seed);
  hash.hashMix<2>(key.etherType());
  hash.hashMix<2>(key.etherTypeMask());
  for (const IpGenAddr * address : {&key.sip(), &key.sipMask(), &key.sipv6(), &key.sipv6Mask(),
                                    &key.dip(), &key.dipMask(), &key.dipv6(), &key.dipv6Mask()}) {
    hash.hashMix<4>(addressHash(*address));
  }
  hash.hashMix<2>(key.l4DestPort());
  hash.hashMix<2>(key.l4SrcPort());
  hash.hashMix<4>(key.priority());
  hash.hashMix<1>(key.ipV6ProtoEntry());
  return hash.result();
}

// `text` with its first `from` replaced by `to`.
std::string replaced(std::string text, const std::string & from, const std::string & to) {
  auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

template <typename E, typename T>
std::string parseMessage(const std::string & text) {
  return messageOf<E>([&] { Rig::strepToValue<T>(text); });
}

// --- Keys for validation -------------------------------------------------

// The finding of an address field of the wrong family, as the validation words it.
std::string incompatible(const std::string & p4Field) {
  return "Field " + p4Field + " is incompatible with field hdr.ethernet.ether_type";
}

// An IPv4 key that passes: exact masks, the IPv6 fields unset.
L3TunnelTH3Key ipv4Key() {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.sipIs(addr("10.0.0.1"));
  key.sipMaskIs(addr("255.255.255.255"));
  key.dipIs(addr("10.0.0.2"));
  key.dipMaskIs(addr("255.255.255.255"));
  return key;
}

// An IPv6 key that passes: exact masks, the IPv4 fields unset.
L3TunnelTH3Key ipv6Key() {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x86DD);
  key.etherTypeMaskIs(0xFFFF);
  key.sipv6Is(addr("2001:db8::1"));
  key.sipv6MaskIs(addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
  key.dipv6Is(addr("2001:db8::2"));
  key.dipv6MaskIs(addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
  return key;
}

::testing::AssertionResult rejects(const L3TunnelTH3Key & key, const std::string & message) {
  auto status = key.validateEntryKey();
  if (status.errorCode() != ErrorCode::invalidEntryKey || status.errorMsg() != message ||
      !(status == L3TunnelTH3KeyStatus(ErrorCode::invalidEntryKey, message))) {
    return ::testing::AssertionFailure()
           << "got " << status << "\nwanted message '" << message << "'";
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult accepts(const L3TunnelTH3Key & key) {
  auto status = key.validateEntryKey();
  if (status.errorCode() != ErrorCode::success || !status.errorMsg().empty() || !(!status)) {
    return ::testing::AssertionFailure() << "got " << status;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

// --- Key: equality, order, hash ---------------------------------------------

TEST(L3TunnelTH3Key, DefaultIsZeroWithUnsetAddresses) {
  L3TunnelTH3Key key;
  EXPECT_EQ(key.etherType(), 0u);
  EXPECT_EQ(key.priority(), 0u);
  EXPECT_FALSE(key.ipV6ProtoEntry());
  for (const IpGenAddr * address : {&key.sip(), &key.sipMask(), &key.sipv6(), &key.sipv6Mask(),
                                    &key.dip(), &key.dipMask(), &key.dipv6(), &key.dipv6Mask()}) {
    EXPECT_EQ(address->family(), IpGenAddr::Family::unset);
  }
  EXPECT_TRUE(!key);
  EXPECT_FALSE(!sampleKey());
}

TEST(L3TunnelTH3Key, EqualBytesOfDifferentFamiliesAreUnequalAndHashAlike) {
  auto ipv4 = L3TunnelTH3Key();
  ipv4.sipIs(addr("10.0.0.1"));
  auto ipv6 = L3TunnelTH3Key();
  ipv6.sipIs(IpGenAddr(Wirekit::Ip6Addr(Wirekit::Ip6Addr::Bytes{10, 0, 0, 1})));
  EXPECT_EQ(ipv6.sip().family(), IpGenAddr::Family::ipv6);
  EXPECT_FALSE(ipv4 == ipv6);
  EXPECT_TRUE(ipv4 < ipv6);
  EXPECT_EQ(ipv4.hash(0), ipv6.hash(0));

  // The same for an unset address and the unspecified IPv6 address "::".
  auto unset = L3TunnelTH3Key();
  auto unspecified = L3TunnelTH3Key();
  unspecified.dipv6MaskIs(addr("::"));
  EXPECT_FALSE(unset == unspecified);
  EXPECT_TRUE(unset < unspecified);
  EXPECT_EQ(unset.hash(0), unspecified.hash(0));
  EXPECT_EQ(unset.hash(5), unspecified.hash(5));
}

TEST(L3TunnelTH3Key, HashTakesItsInputsInTheSettledOrder) {
  for (uint32_t seed : {0u, 1u, 0x9e3779b9u}) {
    EXPECT_EQ(sampleKey().hash(seed), expectedHash(sampleKey(), seed));
    EXPECT_EQ(L3TunnelTH3Key().hash(seed), expectedHash(L3TunnelTH3Key(), seed));
    EXPECT_EQ(maximalKey().hash(seed), expectedHash(maximalKey(), seed));
  }
  std::mt19937 random(11);
  for (int i = 0; i < 1000; ++i) {
    auto key = randomKey(random);
    ASSERT_EQ(key.hash(0), expectedHash(key, 0)) << key;
  }
  EXPECT_NE(sampleKey().hash(0), sampleKey().hash(1));
}

TEST(L3TunnelTH3Key, EveryFieldTakesPartInEqualityAndHash) {
  auto key = sampleKey();
  std::vector<L3TunnelTH3Key> changed(14, key);
  changed[0].etherTypeIs(0x86DD);
  changed[1].etherTypeMaskIs(0xFF00);
  changed[2].sipIs(addr("10.0.0.9"));
  changed[3].sipMaskIs(addr("255.255.0.0"));
  changed[4].sipv6Is(addr("::1"));
  changed[5].sipv6MaskIs(addr("ffff::"));
  changed[6].dipIs(addr("192.0.2.9"));
  changed[7].dipMaskIs(addr("255.0.0.0"));
  changed[8].dipv6Is(addr("2001:db8::9"));
  changed[9].dipv6MaskIs(addr("ffff::"));
  changed[10].l4DestPortIs(4790);
  changed[11].l4SrcPortIs(1);
  changed[12].priorityIs(101);
  changed[13].ipV6ProtoEntryIs(false);
  for (const auto & other : changed) {
    EXPECT_FALSE(other == key) << other;
    EXPECT_NE(other.hash(0), key.hash(0)) << other;
  }
}

// The key's last three bytes are explicit padding, zero however the key was
// made, so equal keys have equal bytes (keys compare by their bytes).
TEST(L3TunnelTH3Key, EqualKeysMadeInDifferentWaysHaveEqualBytes) {
  const L3TunnelTH3Key bySetters = sampleKey();
  Rig::Cursor cursor = keyText.begin();
  const L3TunnelTH3Key byText(cursor, keyText.end());
  const L3TunnelTH3Key fromEntry = L3TunnelTH3ConfigEntry(sampleKey()).key();
  // Made over storage full of stray bytes, its fields set in another order.
  alignas(L3TunnelTH3Key) unsigned char storage[sizeof(L3TunnelTH3Key)];
  std::memset(storage, 0xA5, sizeof(storage));
  auto * overStray = new (storage) L3TunnelTH3Key();
  overStray->ipV6ProtoEntryIs(true);
  overStray->priorityIs(100);
  overStray->dipv6MaskIs(addr("ffff:ffff:ffff:ffff::"));
  overStray->dipv6Is(addr("2001:db8::1"));
  overStray->dipMaskIs(addr("255.255.255.0"));
  overStray->dipIs(addr("192.0.2.1"));
  overStray->sipv6Is(addr("::"));
  overStray->sipMaskIs(addr("255.255.255.255"));
  overStray->sipIs(addr("10.0.0.1"));
  overStray->l4DestPortIs(4789);
  overStray->etherTypeMaskIs(0xFFFF);
  overStray->etherTypeIs(0x0800);
  L3TunnelTH3Key assigned;
  assigned = *overStray;
  for (const L3TunnelTH3Key * key : std::vector<const L3TunnelTH3Key *>{&byText, &fromEntry, overStray, &assigned}) {
    EXPECT_EQ(*key, bySetters);
    EXPECT_EQ(std::memcmp(key, &bySetters, sizeof(L3TunnelTH3Key)), 0) << *key;
    const auto * bytes = reinterpret_cast<const unsigned char *>(key);
    EXPECT_EQ(bytes[173] | bytes[174] | bytes[175], 0);
  }
  static_assert(Rig::Record::hasUniqueBytes<L3TunnelTH3Key>());
  static_assert(Rig::Record::Layout<L3TunnelTH3Key>::padding == 3);
}

TEST(L3TunnelTH3Key, FirstDifferenceInFieldOrderDecides) {
  auto smaller = sampleKey();
  auto larger = sampleKey();
  smaller.etherTypeIs(0x07FF);
  larger.etherTypeMaskIs(0);
  larger.priorityIs(0);
  EXPECT_TRUE(smaller < larger);
  EXPECT_FALSE(larger < smaller);

  // Addresses order by family first (unset, IPv4, IPv6), then by bytes.
  auto unsetSip = sampleKey();
  unsetSip.sipIs(IpGenAddr());
  unsetSip.dipIs(addr("255.255.255.255"));
  EXPECT_TRUE(unsetSip < sampleKey());
  auto ipv6Sip = sampleKey();
  ipv6Sip.sipIs(addr("::"));
  EXPECT_TRUE(sampleKey() < ipv6Sip);
  auto lowerSip = sampleKey();
  lowerSip.sipIs(addr("9.255.255.255"));
  EXPECT_TRUE(lowerSip < sampleKey());

  // A later address decides only when all earlier fields are equal.
  auto byDipv6Mask = sampleKey();
  byDipv6Mask.dipv6MaskIs(addr("ffff:ffff:ffff::"));
  byDipv6Mask.l4DestPortIs(65535);
  EXPECT_TRUE(byDipv6Mask < sampleKey());

  auto byPorts = sampleKey();
  byPorts.l4SrcPortIs(1);
  byPorts.priorityIs(0);
  EXPECT_TRUE(sampleKey() < byPorts);

  auto byProto = sampleKey();
  byProto.ipV6ProtoEntryIs(false);
  EXPECT_TRUE(byProto < sampleKey());
  EXPECT_FALSE(sampleKey() < sampleKey());
}

// --- validateEntryKey ---------------------------------------------------------

TEST(L3TunnelTH3KeyValidation, ExactIpv4KeyPasses) {
  EXPECT_TRUE(accepts(ipv4Key()));
  EXPECT_TRUE(accepts(ipv6Key()));
}

TEST(L3TunnelTH3KeyValidation, UnknownEtherTypeEndsValidation) {
  auto key = ipv4Key();
  key.etherTypeIs(0x0806);
  key.etherTypeMaskIs(0);  // not looked at
  key.sipMaskIs(IpGenAddr());
  key.sipv6Is(addr("2001:db8::1"));
  EXPECT_TRUE(rejects(key, "Invalid hdr.ethernet.ether_type."));
  EXPECT_TRUE(rejects(L3TunnelTH3Key(), "Invalid hdr.ethernet.ether_type."));
}

TEST(L3TunnelTH3KeyValidation, InexactEtherTypeMaskEndsValidation) {
  auto key = ipv4Key();
  key.etherTypeMaskIs(0xFF00);
  EXPECT_TRUE(rejects(key, "Invalid hdr.ethernet.ether_type_mask."));
  key.dipMaskIs(IpGenAddr());  // not looked at
  EXPECT_TRUE(rejects(key, "Invalid hdr.ethernet.ether_type_mask."));
  auto ipv6 = ipv6Key();
  ipv6.etherTypeMaskIs(0);
  EXPECT_TRUE(rejects(ipv6, "Invalid hdr.ethernet.ether_type_mask."));
}

TEST(L3TunnelTH3KeyValidation, Ipv4WildcardDestinationMask) {
  auto key = ipv4Key();
  key.dipMaskIs(addr("255.255.255.0"));
  EXPECT_TRUE(rejects(key, " hdr.ipv4_base.dst_addr_mask has wildcard matches."));
}

TEST(L3TunnelTH3KeyValidation, Ipv4WildcardSourceMask) {
  auto key = ipv4Key();
  key.sipMaskIs(addr("0.0.0.0"));
  EXPECT_TRUE(rejects(key, " hdr.ipv4_base.src_addr_mask has wildcard matches."));
}

TEST(L3TunnelTH3KeyValidation, Ipv4BothMasksUnsetRunTogether) {
  auto key = ipv4Key();
  key.sipMaskIs(IpGenAddr());
  key.dipMaskIs(IpGenAddr());
  EXPECT_TRUE(rejects(key,
                      " hdr.ipv4_base.dst_addr_mask has wildcard matches. "
                      "hdr.ipv4_base.src_addr_mask has wildcard matches."));
}

TEST(L3TunnelTH3KeyValidation, MaskOfTheOtherFamilyIsAWildcard) {
  auto ipv4 = ipv4Key();
  ipv4.dipMaskIs(addr("::ffff:255.255.255.255"));
  EXPECT_TRUE(rejects(ipv4, " hdr.ipv4_base.dst_addr_mask has wildcard matches."));
  auto ipv6 = ipv6Key();
  ipv6.sipv6MaskIs(addr("255.255.255.255"));
  EXPECT_TRUE(rejects(ipv6, "hdr.ipv6_base.src_addr_mask has wildcard matches."));
}

TEST(L3TunnelTH3KeyValidation, Ipv6KeyWithIpv4Source) {
  auto key = ipv6Key();
  key.sipIs(addr("10.0.0.1"));
  EXPECT_TRUE(rejects(key, incompatible("hdr.ipv4_base.src_addr")));
}

TEST(L3TunnelTH3KeyValidation, Ipv4WildcardsThenIpv6Fields) {
  auto key = ipv4Key();
  key.sipMaskIs(IpGenAddr());
  key.dipMaskIs(addr("255.255.0.0"));
  key.sipv6Is(addr("2001:db8::1"));
  key.dipv6MaskIs(addr("ffff::"));
  // Written out whole: the wildcard messages run together, and the first
  // field message after them still gets ". ".
  EXPECT_TRUE(rejects(key,
                      " hdr.ipv4_base.dst_addr_mask has wildcard matches. "
                      "hdr.ipv4_base.src_addr_mask has wildcard matches.. "
                      "Field hdr.ipv6_base.src_addr is incompatible with field "
                      "hdr.ethernet.ether_type. "
                      "Field hdr.ipv6_base.dst_addr_mask is incompatible with field "
                      "hdr.ethernet.ether_type"));
}

TEST(L3TunnelTH3KeyValidation, Ipv4KeyWithEveryIpv6Field) {
  auto key = ipv4Key();
  key.sipv6Is(addr("2001:db8::1"));
  key.sipv6MaskIs(addr("ffff::"));
  key.dipv6Is(addr("::1"));
  key.dipv6MaskIs(addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
  EXPECT_TRUE(rejects(key, incompatible("hdr.ipv6_base.src_addr") + ". " +
                               incompatible("hdr.ipv6_base.src_addr_mask") + ". " +
                               incompatible("hdr.ipv6_base.dst_addr") + ". " +
                               incompatible("hdr.ipv6_base.dst_addr_mask")));
}

TEST(L3TunnelTH3KeyValidation, Ipv6WildcardsRunTogetherWithoutBlank) {
  auto key = ipv6Key();
  key.sipv6MaskIs(IpGenAddr());
  key.dipv6MaskIs(addr("ffff:ffff:ffff:ffff::"));
  EXPECT_TRUE(rejects(key,
                      "hdr.ipv6_base.dst_addr_mask has wildcard matches."
                      "hdr.ipv6_base.src_addr_mask has wildcard matches."));
}

TEST(L3TunnelTH3KeyValidation, Ipv6WildcardThenEveryIpv4Field) {
  auto key = ipv6Key();
  key.sipv6MaskIs(addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe"));
  key.sipIs(addr("10.0.0.1"));
  key.sipMaskIs(addr("255.255.255.255"));
  key.dipIs(addr("10.0.0.2"));
  key.dipMaskIs(addr("255.0.0.0"));
  EXPECT_TRUE(rejects(key, "hdr.ipv6_base.src_addr_mask has wildcard matches.. " +
                               incompatible("hdr.ipv4_base.src_addr") + ". " +
                               incompatible("hdr.ipv4_base.src_addr_mask") + ". " +
                               incompatible("hdr.ipv4_base.dst_addr") + ". " +
                               incompatible("hdr.ipv4_base.dst_addr_mask")));
}

TEST(L3TunnelTH3KeyValidation, ZeroAddressesOfEitherFamilyAreNotFindings) {
  auto ipv4 = ipv4Key();
  ipv4.sipv6Is(addr("::"));
  ipv4.sipv6MaskIs(addr("0.0.0.0"));
  EXPECT_TRUE(accepts(ipv4));
  // An IPv4 address in an IPv6 field counts by its own family's zero.
  ipv4.dipv6Is(addr("0.0.0.1"));
  EXPECT_TRUE(rejects(ipv4, incompatible("hdr.ipv6_base.dst_addr")));

  auto ipv6 = ipv6Key();
  ipv6.sipIs(addr("0.0.0.0"));
  ipv6.dipMaskIs(addr("::"));
  EXPECT_TRUE(accepts(ipv6));
  ipv6.dipIs(addr("::1"));
  EXPECT_TRUE(rejects(ipv6, incompatible("hdr.ipv4_base.dst_addr")));
}

TEST(L3TunnelTH3KeyValidation, CreateErrorMessageSeparatesFindings) {
  Rig::String message;
  createErrorMessage("a.b", "c.d", message);
  EXPECT_EQ(message, "Field a.b is incompatible with field c.d");
  createErrorMessage("e", "f", message);
  EXPECT_EQ(message,
            "Field a.b is incompatible with field c.d. Field e is incompatible with field f");
  Rig::String afterWildcard = "x has wildcard matches.";
  createErrorMessage("e", "f", afterWildcard);
  EXPECT_EQ(afterWildcard, "x has wildcard matches.. Field e is incompatible with field f");
}

// --- L3TunnelTH3KeyStatus -----------------------------------------------------

TEST(L3TunnelTH3KeyStatus, DefaultIsSuccessWithEmptyMessage) {
  L3TunnelTH3KeyStatus status;
  EXPECT_EQ(status.errorCode(), ErrorCode::success);
  EXPECT_EQ(status.errorMsg(), "");
  EXPECT_TRUE(!status);
  EXPECT_FALSE(!L3TunnelTH3KeyStatus(ErrorCode::success, "x"));
  EXPECT_FALSE(!L3TunnelTH3KeyStatus(ErrorCode::invalidEntryKey, ""));
  EXPECT_EQ(
      valueToStrep(status),
      "Value('TesselHwLib::L3TunnelTH3KeyStatus', ** {'errorCode': success, 'errorMsg': ''})");
}

TEST(L3TunnelTH3KeyStatus, EqualityIsCodeThenMessageText) {
  L3TunnelTH3KeyStatus status(ErrorCode::invalidEntryKey, "Invalid hdr.ethernet.ether_type.");
  EXPECT_EQ(status, L3TunnelTH3KeyStatus(ErrorCode::invalidEntryKey,
                                         std::string("Invalid hdr.ethernet.") + "ether_type."));
  EXPECT_FALSE(status == L3TunnelTH3KeyStatus(ErrorCode::invalidArgument,
                                              "Invalid hdr.ethernet.ether_type."));
  EXPECT_FALSE(status == L3TunnelTH3KeyStatus(ErrorCode::invalidEntryKey,
                                              "Invalid hdr.ethernet.ether_type_mask."));
}

TEST(L3TunnelTH3KeyStatus, TextFormFollowsTheTemplate) {
  L3TunnelTH3KeyStatus status(ErrorCode::invalidEntryKey,
                              " hdr.ipv4_base.dst_addr_mask has wildcard matches.");
  const std::string text =
      "Value('TesselHwLib::L3TunnelTH3KeyStatus', ** {'errorCode': invalidEntryKey, "
      "'errorMsg': ' hdr.ipv4_base.dst_addr_mask has wildcard matches.'})";
  EXPECT_EQ(valueToStrep(status), text);
  std::ostringstream stream;
  stream << status;
  EXPECT_EQ(stream.str(), text);
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3KeyStatus>(text), status);

  L3TunnelTH3KeyStatus quoted(ErrorCode::invalidEntryKey, "it's a\\b\n");
  const std::string quotedText =
      "Value('TesselHwLib::L3TunnelTH3KeyStatus', ** {'errorCode': invalidEntryKey, "
      "'errorMsg': 'it\\'s a\\\\b\\n'})";
  EXPECT_EQ(valueToStrep(quoted), quotedText);
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3KeyStatus>(quotedText), quoted);
}

TEST(L3TunnelTH3KeyStatus, RandomStatusesRoundTrip) {
  for (uint32_t seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    L3TunnelTH3KeyStatus status(randomField<ErrorCode>(random), randomField<Rig::String>(random));
    ASSERT_EQ(Rig::strepToValue<L3TunnelTH3KeyStatus>(valueToStrep(status)), status) << seed;
  }
}

TEST(L3TunnelTH3KeyStatus, BadTextsFailNamingTheField) {
  const std::string text =
      "Value('TesselHwLib::L3TunnelTH3KeyStatus', ** {'errorCode': invalidEntryKey, "
      "'errorMsg': 'Invalid hdr.ethernet.ether_type.'})";
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3KeyStatus>(
                replaced(text, "'Invalid hdr.ethernet.ether_type.'", "Invalid"))),
            "Rig::deserializeAttr() attribute 'errorMsg': expected a quoted string, found "
            "\"Invalid})\"");
  EXPECT_EQ(
      (parseMessage<Rig::ParseException, L3TunnelTH3KeyStatus>(replaced(text, ".'})", ".})"))),
      "Rig::deserializeAttr() attribute 'errorMsg': unterminated string, found "
      "\"'Invalid hdr.ethernet.et\"");
  EXPECT_EQ((parseMessage<Rig::RangeException, L3TunnelTH3KeyStatus>(
                replaced(text, "invalidEntryKey", "4294967296"))),
            "Rig::deserializeAttr() attribute 'errorCode': value 4294967296 out of range, maximum "
            "4294967295 in attribute 'errorCode'");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3KeyStatus>(replaced(
                text, "'errorCode': invalidEntryKey, 'errorMsg'", "'errorMsg': 'x', 'errorCode'"))),
            "Rig::needString() expected \"'errorCode': \" but found \"'errorMsg': 'x', 'errorC\"");
}

// The string parser takes raw bytes that print escaped, escapes of
// characters that print as themselves and upper-case hex; the verdict's text
// takes its message only as it prints, so that every text it takes prints back.
TEST(L3TunnelTH3KeyStatus, MessagesWrittenOtherwiseThanTheyPrintAreRefused) {
  const std::string text =
      "Value('TesselHwLib::L3TunnelTH3KeyStatus', ** {'errorCode': invalidEntryKey, "
      "'errorMsg': 'a\\nb'})";
  auto message = [&](const std::string & written) {
    return parseMessage<Rig::ParseException, L3TunnelTH3KeyStatus>(
        replaced(text, "'a\\nb'", written));
  };
  EXPECT_EQ(message("'a\nb'"),
            "Rig::needCanonicalText() attribute 'errorMsg': expected \"'a\\nb'\", found "
            "\"'a\nb'\"");
  EXPECT_EQ(message("'a\\x0ab'"),
            "Rig::needCanonicalText() attribute 'errorMsg': expected \"'a\\nb'\", found "
            "\"'a\\x0ab'\"");
  EXPECT_EQ(message("'\\x41'"),
            "Rig::needCanonicalText() attribute 'errorMsg': expected \"'A'\", found \"'\\x41'\"");
  EXPECT_EQ(message("'\\x1F'"),
            "Rig::needCanonicalText() attribute 'errorMsg': expected \"'\\x1f'\", found "
            "\"'\\x1F'\"");
  EXPECT_THROW(Rig::strepToValue<L3TunnelTH3KeyStatus>(replaced(text, "'a\\nb'", "'\xbf'")),
               Rig::ParseException);
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3KeyStatus>(
                replaced(text, "invalidEntryKey", "17"))),
            "Rig::needCanonicalText() attribute 'errorCode': expected \"invalidEntryKey\", found "
            "\"17\"");
}

// --- Entries ---------------------------------------------------------------

TEST(L3TunnelTH3ConfigEntry, KeyIsReplacesTheWholeKey) {
  auto entry = sampleConfig();
  entry.keyIs(maximalKey());
  EXPECT_EQ(entry.key(), maximalKey());
  // It equals an entry constructed with that key and the same other fields.
  L3TunnelTH3ConfigEntry constructed(maximalKey());
  auto fields = sampleConfig();
#define COPY(type, name, id, offset) constructed.name##Is(fields.name());
  P4RUNTIME_CONFIG_BASE_FIELDS(COPY)
  TESSEL_L3TUNNEL_CONFIG_FIELDS(COPY)
#undef COPY
  EXPECT_EQ(entry, constructed);
  EXPECT_FALSE(entry == sampleConfig());

  entry.keyIs(L3TunnelTH3Key());
  EXPECT_EQ(entry.key(), L3TunnelTH3Key());
  L3TunnelTH3ConfigEntry cleared;
  cleared.keyIs(sampleKey());
  EXPECT_EQ(cleared, L3TunnelTH3ConfigEntry(sampleKey()));
}

TEST(L3TunnelTH3ConfigEntry, OperatorNotIsTrueOnlyForTheDefault) {
  EXPECT_TRUE(!L3TunnelTH3ConfigEntry());
  EXPECT_FALSE(!L3TunnelTH3ConfigEntry(sampleKey()));
  L3TunnelTH3ConfigEntry ttl;
  ttl.useOuterHdrTtlIs(true);
  EXPECT_FALSE(!ttl);
  EXPECT_TRUE(!L3TunnelTH3StatusEntry());
  EXPECT_FALSE(!L3TunnelTH3StatusEntry(sampleKey()));
}

TEST(L3TunnelTH3ConfigEntry, EqualityIsBaseKeyThenEachField) {
  EXPECT_EQ(sampleConfig(), sampleConfig());
  auto other = sampleConfig();
  other.tunnelTypeIs(false);
  EXPECT_FALSE(other == sampleConfig());
  auto otherKey = sampleConfig();
  otherKey.keyIs(ipv4Key());
  EXPECT_FALSE(otherKey == sampleConfig());
  auto otherBase = sampleConfig();
  otherBase.genIdIs(9);
  EXPECT_FALSE(otherBase == sampleConfig());
  auto status = sampleStatus();
  status.deletedIs(false);
  EXPECT_FALSE(status == sampleStatus());
  EXPECT_EQ(sampleStatus(), sampleStatus());
}

TEST(L3TunnelTH3ConfigEntry, PaddingTakesNoPartInEquality) {
  auto a = sampleConfig();
  auto b = sampleConfig();
  auto * bytes = reinterpret_cast<unsigned char *>(&b);
  for (std::size_t gap : {17u, 211u, 217u, 223u}) {
    bytes[gap] = 0x5A;
  }
  EXPECT_NE(std::memcmp(&a, &b, sizeof(a)), 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.key().hash(0), b.key().hash(0));
}

TEST(L3TunnelTH3ConfigEntry, IsTheValueOfItsMap) {
  using Wrapper = RigCairn::ValueWrapperOf<L3TunnelTH3ConfigEntry>;
  static_assert(sizeof(Wrapper) == 224);
  static_assert(sizeof(RigCairn::ValueWrapperOf<L3TunnelTH3StatusEntry>) == 200);
  Wrapper wrapper(sampleConfig());
  EXPECT_EQ(wrapper.fwkKey(), sampleKey());
  EXPECT_EQ(Wrapper::typeName(), "TesselHwLib::L3TunnelTH3ConfigEntry");
}

// --- Text forms ------------------------------------------------------------

TEST(L3TunnelTH3Records, TextFormsFollowTheTemplates) {
  EXPECT_EQ(valueToStrep(sampleKey()), keyText);
  EXPECT_EQ(valueToStrep(sampleConfig()), configText);
  EXPECT_EQ(valueToStrep(sampleStatus()), statusText);
  std::ostringstream stream;
  stream << sampleKey() << "|" << sampleStatus();
  EXPECT_EQ(stream.str(), keyText + "|" + statusText);

  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3Key>(keyText), sampleKey());
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3ConfigEntry>(configText), sampleConfig());
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3StatusEntry>(statusText), sampleStatus());
}

TEST(L3TunnelTH3Records, DefaultKeyTextHasUnsetAddresses) {
  EXPECT_EQ(valueToStrep(L3TunnelTH3Key()),
            "Value('TesselHwLib::L3TunnelTH3Key', ** {'etherType': 0, 'etherTypeMask': 0, "
            "'sip': unset, 'sipMask': unset, 'sipv6': unset, 'sipv6Mask': unset, 'dip': unset, "
            "'dipMask': unset, 'dipv6': unset, 'dipv6Mask': unset, 'l4DestPort': 0, "
            "'l4SrcPort': 0, 'priority': 0, 'ipV6ProtoEntry': False})");
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3Key>(valueToStrep(L3TunnelTH3Key())), L3TunnelTH3Key());
}

TEST(L3TunnelTH3Records, AddressesOfEveryFormRoundTrip) {
  const char * const texts[] = {"unset",
                                "0.0.0.0",
                                "255.255.255.255",
                                "::",
                                "::1",
                                "::ffff:192.0.2.1",
                                "::192.0.2.1",
                                "2001:db8::1",
                                "2001:db8:0:1:0:0:0:1",
                                "1:2:3:4:5:6:7:8",
                                "1::8",
                                "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"};
  for (const char * text : texts) {
    auto key = sampleKey();
    key.sipv6Is(addr(text));
    key.dipIs(addr(text));
    auto parsed = Rig::strepToValue<L3TunnelTH3Key>(valueToStrep(key));
    EXPECT_EQ(parsed, key) << text;
    EXPECT_EQ(parsed.dip().family(), key.dip().family()) << text;
  }
  auto key = sampleKey();
  key.dipIs(addr("2001:db8:0:1:0:0:0:1"));
  EXPECT_NE(valueToStrep(key).find("'dip': 2001:db8:0:1::1, "), std::string::npos);
}

TEST(L3TunnelTH3Records, EveryFieldAtItsMaximumRoundTrips) {
#define ONES "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"
  const std::string maximalKeyText =
      "Value('TesselHwLib::L3TunnelTH3Key', ** {'etherType': 65535, 'etherTypeMask': 65535, "
      "'sip': " ONES ", 'sipMask': " ONES ", 'sipv6': " ONES ", 'sipv6Mask': " ONES ", 'dip': " ONES
      ", 'dipMask': " ONES ", 'dipv6': " ONES ", 'dipv6Mask': " ONES ", "
      "'l4DestPort': 65535, 'l4SrcPort': 65535, 'priority': 4294967295, 'ipV6ProtoEntry': True})";
#undef ONES
  EXPECT_EQ(valueToStrep(maximalKey()), maximalKeyText);
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3Key>(maximalKeyText), maximalKey());
  auto configText = valueToStrep(maximalConfig());
  EXPECT_NE(configText.find("'l3Iif': 65535, 'payloadIpv4': True, 'payloadIpv6': True, "
                            "'subTunnelType': 255, 'tunnelClassId': 65535"),
            std::string::npos);
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3ConfigEntry>(configText), maximalConfig());
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3StatusEntry>(valueToStrep(maximalStatus())),
            maximalStatus());

  // The largest IPv4 addresses, too.
  auto ipv4 = maximalKey();
  ipv4.sipIs(addr("255.255.255.255"));
  ipv4.dipMaskIs(addr("255.255.255.255"));
  EXPECT_EQ(Rig::strepToValue<L3TunnelTH3Key>(valueToStrep(ipv4)), ipv4);
}

TEST(L3TunnelTH3Records, RandomRecordsRoundTrip) {
  for (uint32_t seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    auto key = randomKey(random);
    ASSERT_EQ(Rig::strepToValue<L3TunnelTH3Key>(valueToStrep(key)), key) << seed;
    auto config = randomConfig(random);
    auto configText = valueToStrep(config);
    auto parsedConfig = Rig::strepToValue<L3TunnelTH3ConfigEntry>(configText);
    ASSERT_EQ(parsedConfig, config) << seed;
    ASSERT_EQ(valueToStrep(parsedConfig), configText) << seed;
    auto status = randomStatus(random);
    ASSERT_EQ(Rig::strepToValue<L3TunnelTH3StatusEntry>(valueToStrep(status)), status) << seed;
  }
}

// --- Parser rejection --------------------------------------------------------

TEST(L3TunnelTH3Key, SwappedFieldsFail) {
  auto swapped = replaced(keyText, "'sip': 10.0.0.1, 'sipMask': 255.255.255.255",
                          "'sipMask': 255.255.255.255, 'sip': 10.0.0.1");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(swapped)),
            "Rig::needString() expected \", 'sip': \" but found \", 'sipMask': 255.255.255\"");
}

TEST(L3TunnelTH3Key, MissingFieldFails) {
  EXPECT_EQ(
      (parseMessage<Rig::ParseException, L3TunnelTH3Key>(
          replaced(keyText, ", 'l4SrcPort': 0", ""))),
      "Rig::needString() expected \", 'l4SrcPort': \" but found \", 'priority': 100, 'ipV6\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(
                replaced(keyText, ", 'ipV6ProtoEntry': True", ""))),
            "Rig::needString() expected \", 'ipV6ProtoEntry': \" but found \"})\"");
}

TEST(L3TunnelTH3Key, ExtraBlanksFail) {
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(
                replaced(keyText, "'etherType': 2048", "'etherType':  2048"))),
            "Rig::deserializeAttr() attribute 'etherType': expected an unsigned number, found "
            "\" 2048, 'etherTypeMask': \"");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(
                replaced(keyText, "'sip': 10.0.0.1", "'sip':  10.0.0.1"))),
            "Wirekit::sequenceToValue() attribute 'sip': expected an IPv4 or IPv6 address, found "
            "\" 10.0.0.1\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(
                replaced(keyText, "'priority': 100, ", "'priority': 100 , "))),
            "Rig::needString() expected \", 'ipV6ProtoEntry': \" but found "
            "\" , 'ipV6ProtoEntry': Tru\"");
}

TEST(L3TunnelTH3Key, MalformedAddressesFailNamingTheField) {
  auto expectBad = [](const std::string & from, const std::string & to, const std::string & field) {
    EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3Key>(replaced(keyText, from, to))),
              "Wirekit::sequenceToValue() attribute '" + field +
                  "': expected an IPv4 or IPv6 address, found \"" + to + "\"");
  };
  expectBad("10.0.0.1", "10.0.0", "sip");
  expectBad("255.255.255.255", "255.255.255.256", "sipMask");
  expectBad("192.0.2.1", "192.0.2.01", "dip");
  expectBad("255.255.255.0", "255.255.255.0.0", "dipMask");
  expectBad("2001:db8::1", "2001:db8:::1", "dipv6");
  expectBad("unset", "none", "sipv6Mask");
}

// inet_pton reads upper-case hex, leading zeros in groups and zero groups
// written out, all of which print otherwise; a key's text takes an address
// only as it prints, so that every text it takes prints back as it was.
TEST(L3TunnelTH3Key, AddressesWrittenOtherwiseThanTheyPrintAreRefused) {
  auto message = [](const std::string & from, const std::string & to) {
    return parseMessage<Rig::ParseException, L3TunnelTH3Key>(replaced(keyText, from, to));
  };
  EXPECT_EQ(message("'dipv6': 2001:db8::1", "'dipv6': 2001:DB8::1"),
            "Rig::needCanonicalText() attribute 'dipv6': expected \"2001:db8::1\", found "
            "\"2001:DB8::1\"");
  EXPECT_EQ(message("'dipv6': 2001:db8::1", "'dipv6': 2001:0db8:0:0:0:0:0:1"),
            "Rig::needCanonicalText() attribute 'dipv6': expected \"2001:db8::1\", found "
            "\"2001:0db8:0:0:0:0:0:1\"");
  EXPECT_EQ(message("'sipv6': ::", "'sipv6': 0::0"),
            "Rig::needCanonicalText() attribute 'sipv6': expected \"::\", found \"0::0\"");
  EXPECT_EQ(message("'dipv6Mask': ffff:ffff:ffff:ffff::", "'dipv6Mask': ffff:ffff:ffff:ffff:0:0:0:0"),
            "Rig::needCanonicalText() attribute 'dipv6Mask': expected \"ffff:ffff:ffff:ffff::\", "
            "found \"ffff:ffff:ffff:ffff:0:0:0:0\"");
  EXPECT_EQ(message("'etherType': 2048", "'etherType': 02048"),
            "Rig::needCanonicalText() attribute 'etherType': expected \"2048\", found \"02048\"");
}

TEST(L3TunnelTH3Records, OutOfRangeNumbersFailNamingTheField) {
  EXPECT_EQ(
      (parseMessage<Rig::RangeException, L3TunnelTH3Key>(
          replaced(keyText, "'etherType': 2048", "'etherType': 65536"))),
      "Rig::deserializeAttr() attribute 'etherType': value 65536 out of range, maximum 65535");
  EXPECT_EQ((parseMessage<Rig::RangeException, L3TunnelTH3ConfigEntry>(
                replaced(configText, "'l4DestPort': 4789", "'l4DestPort': 65536"))),
            "Rig::deserializeAttr() attribute 'l4DestPort': value 65536 out of range, maximum "
            "65535 in attribute 'key'");
  EXPECT_EQ((parseMessage<Rig::RangeException, L3TunnelTH3ConfigEntry>(
                replaced(configText, "'protocol': 47", "'protocol': 256"))),
            "Rig::deserializeAttr() attribute 'protocol': value 256 out of range, maximum 255");
  EXPECT_EQ((parseMessage<Rig::RangeException, L3TunnelTH3ConfigEntry>(
                replaced(configText, "'tunnelClassId': 4000", "'tunnelClassId': 99999999999"))),
            "Rig::deserializeAttr() attribute 'tunnelClassId': value 99999999999 out of range, "
            "maximum 65535");
}

TEST(L3TunnelTH3Records, EntryTextsAreStrict) {
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3ConfigEntry>(
                replaced(configText, "'tunnelType': True", "'tunnelType': 1"))),
            "Rig::deserializeAttr() attribute 'tunnelType': expected True or False, found \"1, "
            "'useOuterHdrDscp': Fa\"");
  EXPECT_EQ(
      (parseMessage<Rig::ParseException, L3TunnelTH3ConfigEntry>(
          replaced(configText, "'payloadIpv4': True, 'payloadIpv6': False",
                   "'payloadIpv6': False, 'payloadIpv4': True"))),
      "Rig::needString() expected \", 'payloadIpv4': \" but found \", 'payloadIpv6': False, \"");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3StatusEntry>(statusText + " ")),
            "Rig::strepToValueEnd() unexpected text after value: \" \"");
  EXPECT_EQ((parseMessage<Rig::ParseException, L3TunnelTH3StatusEntry>(
                replaced(statusText, "L3TunnelTH3StatusEntry", "L3TunnelTH3ConfigEntry"))),
            "Rig::needString() expected \"Value('TesselHwLib::L3TunnelTH3StatusEntry', ** {\" but "
            "found \"Value('TesselHwLib::L3Tu\"");
}

// --- Layout ------------------------------------------------------------------

namespace {

// A key whose every field holds a value no other field holds.
L3TunnelTH3Key distinctKey() {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x86DD);
  key.etherTypeMaskIs(0xFF0F);
  key.sipIs(addr("10.0.0.1"));
  key.sipMaskIs(addr("10.0.0.2"));
  key.sipv6Is(addr("2001:db8::3"));
  key.sipv6MaskIs(addr("2001:db8::4"));
  key.dipIs(addr("10.0.0.5"));
  key.dipMaskIs(addr("10.0.0.6"));
  key.dipv6Is(addr("2001:db8::7"));
  key.dipv6MaskIs(addr("2001:db8::8"));
  key.l4DestPortIs(0x1234);
  key.l4SrcPortIs(0x5678);
  key.priorityIs(0x9abcdef0);
  key.ipV6ProtoEntryIs(true);
  return key;
}

}  // namespace

TEST(L3TunnelTH3Records, KeyLayoutByRawBytes) {
  auto key = distinctKey();
  EXPECT_EQ(sizeof(L3TunnelTH3Key), 176u);
  EXPECT_EQ(rawAt(key, 0, 2), 0x86DDu);
  EXPECT_EQ(rawAt(key, 2, 2), 0xFF0Fu);
  EXPECT_EQ(rawAs<IpGenAddr>(key, 4), addr("10.0.0.1"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 24), addr("10.0.0.2"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 44), addr("2001:db8::3"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 64), addr("2001:db8::4"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 84), addr("10.0.0.5"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 104), addr("10.0.0.6"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 124), addr("2001:db8::7"));
  EXPECT_EQ(rawAs<IpGenAddr>(key, 144), addr("2001:db8::8"));
  // An address is its family word, then its bytes in network order.
  EXPECT_EQ(rawAt(key, 4, 4), 1u);
  EXPECT_EQ(rawAt(key, 8, 4), 0x0100000Au);
  EXPECT_EQ(rawAt(key, 44, 4), 2u);
  EXPECT_EQ(rawAt(key, 48, 4), 0xb80d0120u);  // 20 01 0d b8
  EXPECT_EQ(rawAt(key, 63, 1), 3u);
  EXPECT_EQ(rawAt(key, 164, 2), 0x1234u);
  EXPECT_EQ(rawAt(key, 166, 2), 0x5678u);
  EXPECT_EQ(rawAt(key, 168, 4), 0x9abcdef0u);
  EXPECT_EQ(rawAt(key, 172, 1), 1u);
}

TEST(L3TunnelTH3Records, EntryLayoutsByRawBytes) {
  auto config = sampleConfig();
  config.keyIs(distinctKey());
  EXPECT_EQ(sizeof(L3TunnelTH3ConfigEntry), 224u);
  EXPECT_EQ(rawAt(config, 0, 8), 1u);
  EXPECT_EQ(rawAt(config, 8, 8), 2u);
  EXPECT_EQ(rawAt(config, 16, 1), 1u);
  EXPECT_EQ(rawAt(config, 20, 4), 3u);
  EXPECT_EQ(rawAs<L3TunnelTH3Key>(config, 24), distinctKey());
  EXPECT_EQ(rawAt(config, 24 + 168, 4), 0x9abcdef0u);
  EXPECT_EQ(rawAt(config, 200, 1), 47u);
  EXPECT_EQ(rawAt(config, 201, 1), 3u);
  EXPECT_EQ(rawAt(config, 206, 2), 513u);
  EXPECT_EQ(rawAt(config, 210, 1), 2u);
  EXPECT_EQ(rawAt(config, 212, 2), 4000u);

  auto status = sampleStatus();
  EXPECT_EQ(sizeof(L3TunnelTH3StatusEntry), 200u);
  EXPECT_EQ(rawAt(status, 0, 8), 4u);
  EXPECT_EQ(rawAt(status, 8, 8), 5u);
  EXPECT_EQ(rawAt(status, 16, 4), 17u);
  EXPECT_EQ(rawAt(status, 20, 1), 1u);
  EXPECT_EQ(rawAs<L3TunnelTH3Key>(status, 24), sampleKey());
}

TEST(L3TunnelTH3Records, EachFlagLiesAtItsOwnByte) {
  // One flag set at a time, so that two flags swapped in the layout show.
  using Setter = void (L3TunnelTH3ConfigEntry::*)(const bool &);
  const std::pair<Setter, std::size_t> flags[] = {
      {&L3TunnelTH3ConfigEntry::bfdEnableIs, 202},
      {&L3TunnelTH3ConfigEntry::doNotChangeInnerHdrDscpIs, 203},
      {&L3TunnelTH3ConfigEntry::grePayloadIpv4Is, 204},
      {&L3TunnelTH3ConfigEntry::grePayloadIpv6Is, 205},
      {&L3TunnelTH3ConfigEntry::payloadIpv4Is, 208},
      {&L3TunnelTH3ConfigEntry::payloadIpv6Is, 209},
      {&L3TunnelTH3ConfigEntry::tunnelTypeIs, 214},
      {&L3TunnelTH3ConfigEntry::useOuterHdrDscpIs, 215},
      {&L3TunnelTH3ConfigEntry::useOuterHdrTtlIs, 216},
  };
  for (const auto & [setter, offset] : flags) {
    L3TunnelTH3ConfigEntry entry;
    (entry.*setter)(true);
    for (std::size_t byte = 200; byte < 217; ++byte) {
      EXPECT_EQ(rawAt(entry, byte, 1), byte == offset ? 1u : 0u) << offset << " " << byte;
    }
  }
}

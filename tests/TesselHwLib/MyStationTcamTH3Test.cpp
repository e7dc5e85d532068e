#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "RigCairn/RigCairnMapValueWrapper.h"
#include "Support/TextTesting.h"
#include "TesselHwLib/MyStationTcamTH3.h"
#include "TesselHwLib/RecordTesting.h"

using namespace TesselHwLib;
using RigTesting::messageOf;
using TesselTesting::maximumField;
using TesselTesting::randomField;
using TesselTesting::rawAs;
using TesselTesting::rawAt;
using Wirekit::EthAddr;

namespace {

const EthAddr stationMac(EthAddr::Bytes{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e});
const EthAddr allOnesMac(EthAddr::Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff});

const std::string keyText =
    "Value('TesselHwLib::MyStationTcamTH3Key', ** {'macAddr': 00:1a:2b:3c:4d:5e, 'vlanId': 100, "
    "'portNum': 7, 't': True, 'macAddrMask': ff:ff:ff:ff:ff:ff, 'vlanIdMask': 4095, "
    "'portNumMask': 255, 'tMask': False, 'priority': 10})";

const std::string configText =
    "Value('TesselHwLib::MyStationTcamTH3ConfigEntry', ** {'genId': 1, 'entryHandle': 2, "
    "'valid': True, 'entryId': 3, 'key': " +
    keyText +
    ", 'arpRarpTerminationAllowed': True, 'copyToCpu': False, 'discard': True, "
    "'ipv4MulticastTerminationAllowed': False, 'ipv4TerminationAllowed': True, "
    "'ipv6MulticastTerminationAllowed': False, 'ipv6TerminationAllowed': True, "
    "'mplsTerminationAllowed': False})";

const std::string statusText =
    "Value('TesselHwLib::MyStationTcamTH3StatusEntry', ** {'genId': 4, 'entryHandle': 5, "
    "'errorCode': invalidEntryKey, 'deleted': True, 'key': " +
    keyText + "})";

MyStationTcamTH3Key sampleKey() {
  MyStationTcamTH3Key key;
  key.macAddrIs(stationMac);
  key.vlanIdIs(100);
  key.portNumIs(7);
  key.tIs(true);
  key.macAddrMaskIs(allOnesMac);
  key.vlanIdMaskIs(4095);
  key.portNumMaskIs(255);
  key.tMaskIs(false);
  key.priorityIs(10);
  return key;
}

MyStationTcamTH3ConfigEntry sampleConfig() {
  MyStationTcamTH3ConfigEntry entry(sampleKey());
  entry.genIdIs(1);
  entry.entryHandleIs(2);
  entry.validIs(true);
  entry.entryIdIs(3);
  entry.arpRarpTerminationAllowedIs(true);
  entry.copyToCpuIs(false);
  entry.discardIs(true);
  entry.ipv4MulticastTerminationAllowedIs(false);
  entry.ipv4TerminationAllowedIs(true);
  entry.ipv6MulticastTerminationAllowedIs(false);
  entry.ipv6TerminationAllowedIs(true);
  entry.mplsTerminationAllowedIs(false);
  return entry;
}

MyStationTcamTH3StatusEntry sampleStatus() {
  MyStationTcamTH3StatusEntry entry(sampleKey());
  entry.genIdIs(4);
  entry.entryHandleIs(5);
  entry.errorCodeIs(P4Runtime::ErrorCode::invalidEntryKey);
  entry.deletedIs(true);
  return entry;
}

#define RANDOMIZE(type, name, id, offset) record.name##Is(randomField<type>(random));
#define MAXIMIZE(type, name, id, offset) record.name##Is(maximumField<type>());

MyStationTcamTH3Key randomKey(std::mt19937 & random) {
  MyStationTcamTH3Key record;
  TESSEL_MY_STATION_TCAM_KEY_FIELDS(RANDOMIZE)
  return record;
}

MyStationTcamTH3ConfigEntry randomConfig(std::mt19937 & random) {
  MyStationTcamTH3ConfigEntry record(randomKey(random));
  P4RUNTIME_CONFIG_BASE_FIELDS(RANDOMIZE)
  TESSEL_MY_STATION_TCAM_CONFIG_FIELDS(RANDOMIZE)
  return record;
}

MyStationTcamTH3StatusEntry randomStatus(std::mt19937 & random) {
  MyStationTcamTH3StatusEntry record(randomKey(random));
  P4RUNTIME_STATUS_BASE_FIELDS(RANDOMIZE)
  return record;
}

MyStationTcamTH3Key maximalKey() {
  MyStationTcamTH3Key record;
  TESSEL_MY_STATION_TCAM_KEY_FIELDS(MAXIMIZE)
  return record;
}

MyStationTcamTH3ConfigEntry maximalConfig() {
  MyStationTcamTH3ConfigEntry record(maximalKey());
  P4RUNTIME_CONFIG_BASE_FIELDS(MAXIMIZE)
  TESSEL_MY_STATION_TCAM_CONFIG_FIELDS(MAXIMIZE)
  return record;
}

MyStationTcamTH3StatusEntry maximalStatus() {
  MyStationTcamTH3StatusEntry record(maximalKey());
  P4RUNTIME_STATUS_BASE_FIELDS(MAXIMIZE)
  return record;
}

#undef RANDOMIZE
#undef MAXIMIZE

// The key hash, input by input, written out apart from the field list.
uint32_t expectedHash(const MyStationTcamTH3Key & key, uint32_t seed) {
  Rig::Hash hash(seed);
  hash.hashMix<4>(key.macAddr().hash());
  hash.hashMix<2>(key.vlanId());
  hash.hashMix<1>(key.portNum());
  hash.hashMix<1>(key.t());
  hash.hashMix<4>(key.macAddrMask().hash());
  hash.hashMix<2>(key.vlanIdMask());
  hash.hashMix<1>(key.portNumMask());
  hash.hashMix<1>(key.tMask());
  hash.hashMix<4>(key.priority());
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

}  // namespace

// --- Key: equality, order, hash ---------------------------------------------

TEST(MyStationTcamTH3Key, DefaultIsAllZero) {
  MyStationTcamTH3Key key;
  EXPECT_EQ(key.macAddr(), EthAddr());
  EXPECT_EQ(key.macAddrMask(), EthAddr());
  EXPECT_EQ(key.vlanId(), 0u);
  EXPECT_FALSE(key.t());
  EXPECT_EQ(key.priority(), 0u);
  EXPECT_TRUE(!key);
  EXPECT_FALSE(!sampleKey());
}

TEST(MyStationTcamTH3Key, KeysDifferingOnlyInPriority) {
  auto low = sampleKey();
  auto high = sampleKey();
  high.priorityIs(11);
  EXPECT_FALSE(low == high);
  EXPECT_NE(low.hash(0), high.hash(0));
  EXPECT_TRUE(low < high);
  EXPECT_FALSE(high < low);
}

TEST(MyStationTcamTH3Key, FalseTSortsBeforeTrue) {
  auto falseT = sampleKey();
  falseT.tIs(false);
  auto trueT = sampleKey();
  trueT.tIs(true);
  EXPECT_TRUE(falseT < trueT);
  EXPECT_FALSE(trueT < falseT);
  EXPECT_FALSE(falseT == trueT);
}

TEST(MyStationTcamTH3Key, FirstDifferenceInFieldOrderDecides) {
  // In each pair, later fields point the other way: the earliest difference
  // must decide.
  auto smaller = sampleKey();
  auto larger = sampleKey();
  smaller.macAddrIs(EthAddr(EthAddr::Bytes{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5d}));
  larger.vlanIdIs(0);
  larger.priorityIs(0);
  EXPECT_TRUE(smaller < larger);
  EXPECT_FALSE(larger < smaller);

  // macAddr compares byte by byte, first byte first.
  auto first = sampleKey();
  auto second = sampleKey();
  first.macAddrIs(EthAddr(EthAddr::Bytes{0x01, 0xff, 0xff, 0xff, 0xff, 0xff}));
  second.macAddrIs(EthAddr(EthAddr::Bytes{0x02, 0x00, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_TRUE(first < second);

  auto byMask = sampleKey();
  byMask.macAddrMaskIs(stationMac);
  byMask.vlanIdMaskIs(65535);
  EXPECT_TRUE(byMask < sampleKey());

  auto byPortMask = sampleKey();
  byPortMask.portNumMaskIs(0);
  byPortMask.tMaskIs(true);
  EXPECT_TRUE(byPortMask < sampleKey());

  auto byVlan = sampleKey();
  byVlan.vlanIdIs(99);
  byVlan.portNumIs(255);
  EXPECT_TRUE(byVlan < sampleKey());

  auto byPort = sampleKey();
  byPort.portNumIs(6);
  byPort.tMaskIs(true);
  byPort.priorityIs(1000);
  EXPECT_TRUE(byPort < sampleKey());

  EXPECT_FALSE(sampleKey() < sampleKey());
}

TEST(MyStationTcamTH3Key, HashTakesItsInputsInTheSettledOrder) {
  for (uint32_t seed : {0u, 1u, 0x9e3779b9u}) {
    EXPECT_EQ(sampleKey().hash(seed), expectedHash(sampleKey(), seed));
    EXPECT_EQ(MyStationTcamTH3Key().hash(seed), expectedHash(MyStationTcamTH3Key(), seed));
    EXPECT_EQ(maximalKey().hash(seed), expectedHash(maximalKey(), seed));
  }
  std::mt19937 random(7);
  for (int i = 0; i < 1000; ++i) {
    auto key = randomKey(random);
    ASSERT_EQ(key.hash(0), expectedHash(key, 0)) << key;
  }
  EXPECT_NE(sampleKey().hash(0), sampleKey().hash(1));
}

TEST(MyStationTcamTH3Key, EveryFieldTakesPartInEqualityAndHash) {
  auto key = sampleKey();
  std::vector<MyStationTcamTH3Key> changed(9, key);
  changed[0].macAddrIs(allOnesMac);
  changed[1].vlanIdIs(101);
  changed[2].portNumIs(8);
  changed[3].tIs(false);
  changed[4].macAddrMaskIs(stationMac);
  changed[5].vlanIdMaskIs(4094);
  changed[6].portNumMaskIs(254);
  changed[7].tMaskIs(true);
  changed[8].priorityIs(9);
  for (const auto & other : changed) {
    EXPECT_FALSE(other == key) << other;
    EXPECT_NE(other.hash(0), key.hash(0)) << other;
  }
}

// --- Entries ---------------------------------------------------------------

TEST(MyStationTcamTH3ConfigEntry, OperatorNotIsTrueOnlyForTheDefault) {
  EXPECT_TRUE(!MyStationTcamTH3ConfigEntry());
  MyStationTcamTH3ConfigEntry discarding;
  discarding.discardIs(true);
  EXPECT_FALSE(!discarding);
  EXPECT_FALSE(!MyStationTcamTH3ConfigEntry(sampleKey()));
  EXPECT_TRUE(!MyStationTcamTH3StatusEntry());
  EXPECT_FALSE(!MyStationTcamTH3StatusEntry(sampleKey()));
  MyStationTcamTH3StatusEntry deleted;
  deleted.deletedIs(true);
  EXPECT_FALSE(!deleted);
}

TEST(MyStationTcamTH3ConfigEntry, DefaultHoldsTheDefaultKey) {
  MyStationTcamTH3ConfigEntry entry;
  EXPECT_EQ(entry.key(), MyStationTcamTH3Key());
  EXPECT_FALSE(entry.discard());
  EXPECT_EQ(MyStationTcamTH3ConfigEntry(sampleKey()).key(), sampleKey());
}

TEST(MyStationTcamTH3ConfigEntry, EqualityIsBaseKeyThenEachField) {
  auto other = sampleConfig();
  other.mplsTerminationAllowedIs(true);
  EXPECT_FALSE(other == sampleConfig());
  auto otherKey = MyStationTcamTH3ConfigEntry(maximalKey());
  EXPECT_FALSE(otherKey == MyStationTcamTH3ConfigEntry(sampleKey()));
  auto otherBase = sampleConfig();
  otherBase.entryIdIs(4);
  EXPECT_FALSE(otherBase == sampleConfig());
  EXPECT_EQ(sampleConfig(), sampleConfig());

  auto status = sampleStatus();
  status.errorCodeIs(P4Runtime::ErrorCode::success);
  EXPECT_FALSE(status == sampleStatus());
  EXPECT_EQ(sampleStatus(), sampleStatus());
}

TEST(MyStationTcamTH3ConfigEntry, GapBytesTakeNoPartInEquality) {
  auto a = sampleConfig();
  auto b = sampleConfig();
  auto * bytes = reinterpret_cast<unsigned char *>(&b);
  bytes[17] = 0xAA;  // between valid (16) and entryId (20)
  EXPECT_NE(std::memcmp(&a, &b, sizeof(a)), 0);
  EXPECT_EQ(a, b);
}

TEST(MyStationTcamTH3ConfigEntry, IsTheValueOfItsMap) {
  using Wrapper = RigCairn::ValueWrapperOf<MyStationTcamTH3ConfigEntry>;
  static_assert(sizeof(Wrapper) == sizeof(MyStationTcamTH3ConfigEntry));
  static_assert(sizeof(RigCairn::ValueWrapperOf<MyStationTcamTH3StatusEntry>) == 48);
  Wrapper wrapper(sampleConfig());
  EXPECT_EQ(wrapper.fwkKey(), sampleKey());
  EXPECT_EQ(Wrapper::typeName(), "TesselHwLib::MyStationTcamTH3ConfigEntry");
}

// --- Text forms ------------------------------------------------------------

TEST(MyStationTcamTH3Records, TextFormsFollowTheTemplates) {
  EXPECT_EQ(valueToStrep(sampleKey()), keyText);
  EXPECT_EQ(valueToStrep(sampleConfig()), configText);
  EXPECT_EQ(valueToStrep(sampleStatus()), statusText);
  std::ostringstream stream;
  stream << sampleKey() << "|" << sampleConfig();
  EXPECT_EQ(stream.str(), keyText + "|" + configText);

  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3Key>(keyText), sampleKey());
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3ConfigEntry>(configText), sampleConfig());
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3StatusEntry>(statusText), sampleStatus());
}

TEST(MyStationTcamTH3Records, DefaultTexts) {
  const std::string defaultKey =
      "Value('TesselHwLib::MyStationTcamTH3Key', ** {'macAddr': 00:00:00:00:00:00, 'vlanId': 0, "
      "'portNum': 0, 't': False, 'macAddrMask': 00:00:00:00:00:00, 'vlanIdMask': 0, "
      "'portNumMask': 0, 'tMask': False, 'priority': 0})";
  EXPECT_EQ(valueToStrep(MyStationTcamTH3Key()), defaultKey);
  EXPECT_EQ(valueToStrep(MyStationTcamTH3StatusEntry()),
            "Value('TesselHwLib::MyStationTcamTH3StatusEntry', ** {'genId': 0, 'entryHandle': 0, "
            "'errorCode': success, 'deleted': False, 'key': " +
                defaultKey + "})");
}

TEST(MyStationTcamTH3Key, AllOnesAddressAndMaskRoundTrip) {
  MyStationTcamTH3Key key;
  key.macAddrIs(allOnesMac);
  key.macAddrMaskIs(allOnesMac);
  auto text = valueToStrep(key);
  EXPECT_EQ(text,
            "Value('TesselHwLib::MyStationTcamTH3Key', ** {'macAddr': ff:ff:ff:ff:ff:ff, "
            "'vlanId': 0, 'portNum': 0, 't': False, 'macAddrMask': ff:ff:ff:ff:ff:ff, "
            "'vlanIdMask': 0, 'portNumMask': 0, 'tMask': False, 'priority': 0})");
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3Key>(text), key);
}

TEST(MyStationTcamTH3Records, EveryFieldAtItsMaximumRoundTrips) {
  const std::string maximalKeyText =
      "Value('TesselHwLib::MyStationTcamTH3Key', ** {'macAddr': ff:ff:ff:ff:ff:ff, "
      "'vlanId': 65535, 'portNum': 255, 't': True, 'macAddrMask': ff:ff:ff:ff:ff:ff, "
      "'vlanIdMask': 65535, 'portNumMask': 255, 'tMask': True, 'priority': 4294967295})";
  EXPECT_EQ(valueToStrep(maximalKey()), maximalKeyText);
  EXPECT_EQ(valueToStrep(maximalStatus()),
            "Value('TesselHwLib::MyStationTcamTH3StatusEntry', ** {'genId': 18446744073709551615, "
            "'entryHandle': 18446744073709551615, 'errorCode': 4294967295, 'deleted': True, "
            "'key': " +
                maximalKeyText + "})");
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3Key>(valueToStrep(maximalKey())), maximalKey());
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3ConfigEntry>(valueToStrep(maximalConfig())),
            maximalConfig());
  EXPECT_EQ(Rig::strepToValue<MyStationTcamTH3StatusEntry>(valueToStrep(maximalStatus())),
            maximalStatus());
}

TEST(MyStationTcamTH3Records, RandomRecordsRoundTrip) {
  for (uint32_t seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    auto key = randomKey(random);
    ASSERT_EQ(Rig::strepToValue<MyStationTcamTH3Key>(valueToStrep(key)), key) << seed;
    auto config = randomConfig(random);
    auto configText = valueToStrep(config);
    auto parsedConfig = Rig::strepToValue<MyStationTcamTH3ConfigEntry>(configText);
    ASSERT_EQ(parsedConfig, config) << seed;
    ASSERT_EQ(valueToStrep(parsedConfig), configText) << seed;
    auto status = randomStatus(random);
    ASSERT_EQ(Rig::strepToValue<MyStationTcamTH3StatusEntry>(valueToStrep(status)), status) << seed;
  }
}

// --- Parser rejection --------------------------------------------------------

TEST(MyStationTcamTH3Key, SwappedFieldsFail) {
  auto swapped = replaced(keyText, "'vlanId': 100, 'portNum': 7", "'portNum': 7, 'vlanId': 100");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(swapped)),
            "Rig::needString() expected \", 'vlanId': \" but found \", 'portNum': 7, 'vlanId'\"");
}

TEST(MyStationTcamTH3Key, MissingFieldFails) {
  auto missing = replaced(keyText, ", 'tMask': False", "");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(missing)),
            "Rig::needString() expected \", 'tMask': \" but found \", 'priority': 10})\"");
}

TEST(MyStationTcamTH3Key, ExtraBlanksFail) {
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "'vlanId': 100", "'vlanId':  100"))),
            "Rig::deserializeAttr() attribute 'vlanId': expected an unsigned number, found "
            "\" 100, 'portNum': 7, 't':\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "'portNum': 7, 't'", "'portNum': 7 , 't'"))),
            "Rig::needString() expected \", 't': \" but found \" , 't': True, 'macAddrMa\"");
  // An address runs up to the next separator, so a blank behind one is part
  // of its text.
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, ", 'vlanId'", " , 'vlanId'"))),
            "Wirekit::sequenceToValue() attribute 'macAddr': expected a MAC address, found "
            "\"00:1a:2b:3c:4d:5e \"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "'macAddr': 00:1a", "'macAddr': 00: 1a"))),
            "Wirekit::sequenceToValue() attribute 'macAddr': expected a MAC address, found "
            "\"00: 1a:2b:3c:4d:5e\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(" " + keyText)),
            "Rig::needString() expected \"Value('TesselHwLib::MyStationTcamTH3Key', ** {\" but "
            "found \" Value('TesselHwLib::MyS\"");
}

TEST(MyStationTcamTH3Key, MalformedAddressFailsNamingTheField) {
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d"))),
            "Wirekit::sequenceToValue() attribute 'macAddr': expected a MAC address, found "
            "\"00:1a:2b:3c:4d\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:fg"))),
            "Wirekit::sequenceToValue() attribute 'macAddrMask': expected a MAC address, found "
            "\"ff:ff:ff:ff:ff:fg\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "'t': True", "'t': true"))),
            "Rig::deserializeAttr() attribute 't': expected True or False, found \"true, "
            "'macAddrMask': ff:\"");
}

TEST(MyStationTcamTH3Records, OutOfRangeNumbersFailNamingTheField) {
  EXPECT_EQ((parseMessage<Rig::RangeException, MyStationTcamTH3Key>(
                replaced(keyText, "'vlanId': 100", "'vlanId': 65536"))),
            "Rig::deserializeAttr() attribute 'vlanId': value 65536 out of range, maximum 65535");
  EXPECT_EQ((parseMessage<Rig::RangeException, MyStationTcamTH3Key>(
                replaced(keyText, "'portNumMask': 255", "'portNumMask': 256"))),
            "Rig::deserializeAttr() attribute 'portNumMask': value 256 out of range, maximum 255");
  // Inside an entry, the key's failure also names the entry's field.
  EXPECT_EQ((parseMessage<Rig::RangeException, MyStationTcamTH3ConfigEntry>(
                replaced(configText, "'priority': 10", "'priority': 4294967296"))),
            "Rig::deserializeAttr() attribute 'priority': value 4294967296 out of range, maximum "
            "4294967295 in attribute 'key'");
  EXPECT_EQ((parseMessage<Rig::RangeException, MyStationTcamTH3ConfigEntry>(
                replaced(configText, "'entryId': 3", "'entryId': 4294967296"))),
            "Rig::deserializeAttr() attribute 'entryId': value 4294967296 out of range, maximum "
            "4294967295");
}

// The value parsers read "0870" as 870 and "00:1A:..." as 00:1a:...; a
// record's text takes each value only as it prints, so that every text it
// takes prints back as it was.
TEST(MyStationTcamTH3Records, FieldsWrittenOtherwiseThanTheyPrintAreRefused) {
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "'vlanId': 100", "'vlanId': 0100"))),
            "Rig::needCanonicalText() attribute 'vlanId': expected \"100\", found \"0100\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3Key>(
                replaced(keyText, "00:1a:2b:3c:4d:5e", "00:1A:2b:3c:4d:5e"))),
            "Rig::needCanonicalText() attribute 'macAddr': expected \"00:1a:2b:3c:4d:5e\", found "
            "\"00:1A:2b:3c:4d:5e\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3StatusEntry>(
                replaced(statusText, "invalidEntryKey", "17"))),
            "Rig::needCanonicalText() attribute 'errorCode': expected \"invalidEntryKey\", found "
            "\"17\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3ConfigEntry>(
                replaced(configText, "'entryId': 3", "'entryId': 03"))),
            "Rig::needCanonicalText() attribute 'entryId': expected \"3\", found \"03\"");
}

TEST(MyStationTcamTH3Records, EntryTextsAreStrict) {
  auto swapped = replaced(configText, "'copyToCpu': False, 'discard': True",
                          "'discard': True, 'copyToCpu': False");
  EXPECT_EQ(
      (parseMessage<Rig::ParseException, MyStationTcamTH3ConfigEntry>(swapped)),
      "Rig::needString() expected \", 'copyToCpu': \" but found \", 'discard': True, 'copy\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3ConfigEntry>(
                replaced(configText, "'discard': True", "'discard':True"))),
            "Rig::needString() expected \", 'discard': \" but found \", 'discard':True, 'ipv4M\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3StatusEntry>(
                replaced(statusText, ", 'deleted': True", ""))),
            "Rig::needString() expected \", 'deleted': \" but found \", 'key': Value('TesselHw\"");
  EXPECT_EQ((parseMessage<Rig::ParseException, MyStationTcamTH3StatusEntry>(statusText + "x")),
            "Rig::strepToValueEnd() unexpected text after value: \"x\"");
  EXPECT_EQ(
      (parseMessage<Rig::ParseException, MyStationTcamTH3StatusEntry>(
          replaced(statusText, "invalidEntryKey", "invalidKey"))),
      "P4Runtime::sequenceToValue() attribute 'errorCode': unknown error code \"invalidKey\"");
}

// --- Layout ------------------------------------------------------------------

TEST(MyStationTcamTH3Records, KeyLayoutByRawBytes) {
  auto key = sampleKey();
  EXPECT_EQ(sizeof(MyStationTcamTH3Key), 24u);
  EXPECT_EQ(rawAs<EthAddr>(key, 0), stationMac);
  EXPECT_EQ(rawAt(key, 0, 1), 0x00u);
  EXPECT_EQ(rawAt(key, 5, 1), 0x5eu);
  EXPECT_EQ(rawAt(key, 6, 2), 100u);
  EXPECT_EQ(rawAt(key, 8, 1), 7u);
  EXPECT_EQ(rawAt(key, 9, 1), 1u);
  EXPECT_EQ(rawAs<EthAddr>(key, 10), allOnesMac);
  EXPECT_EQ(rawAt(key, 16, 2), 4095u);
  EXPECT_EQ(rawAt(key, 18, 1), 255u);
  EXPECT_EQ(rawAt(key, 19, 1), 0u);
  EXPECT_EQ(rawAt(key, 20, 4), 10u);
}

TEST(MyStationTcamTH3Records, EntryLayoutsByRawBytes) {
  auto config = sampleConfig();
  EXPECT_EQ(sizeof(MyStationTcamTH3ConfigEntry), 56u);
  EXPECT_EQ(rawAt(config, 0, 8), 1u);
  EXPECT_EQ(rawAt(config, 8, 8), 2u);
  EXPECT_EQ(rawAt(config, 16, 1), 1u);
  EXPECT_EQ(rawAt(config, 20, 4), 3u);
  EXPECT_EQ(rawAs<MyStationTcamTH3Key>(config, 24), sampleKey());
  EXPECT_EQ(rawAt(config, 24 + 6, 2), 100u);
  EXPECT_EQ(rawAt(config, 24 + 20, 4), 10u);
  // The eight flags, one byte each from 48: True, False, True, False, ...
  for (std::size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(rawAt(config, 48 + i, 1), i % 2 == 0 ? 1u : 0u) << i;
  }

  auto status = sampleStatus();
  EXPECT_EQ(sizeof(MyStationTcamTH3StatusEntry), 48u);
  EXPECT_EQ(rawAt(status, 0, 8), 4u);
  EXPECT_EQ(rawAt(status, 8, 8), 5u);
  EXPECT_EQ(rawAt(status, 16, 4), 17u);
  EXPECT_EQ(rawAt(status, 20, 1), 1u);
  EXPECT_EQ(rawAs<MyStationTcamTH3Key>(status, 24), sampleKey());
}

TEST(MyStationTcamTH3Records, EachFlagLiesAtItsOwnByte) {
  // One flag set at a time, so that two flags swapped in the layout show.
  using Setter = void (MyStationTcamTH3ConfigEntry::*)(const bool &);
  const Setter setters[] = {
      &MyStationTcamTH3ConfigEntry::arpRarpTerminationAllowedIs,
      &MyStationTcamTH3ConfigEntry::copyToCpuIs,
      &MyStationTcamTH3ConfigEntry::discardIs,
      &MyStationTcamTH3ConfigEntry::ipv4MulticastTerminationAllowedIs,
      &MyStationTcamTH3ConfigEntry::ipv4TerminationAllowedIs,
      &MyStationTcamTH3ConfigEntry::ipv6MulticastTerminationAllowedIs,
      &MyStationTcamTH3ConfigEntry::ipv6TerminationAllowedIs,
      &MyStationTcamTH3ConfigEntry::mplsTerminationAllowedIs,
  };
  for (std::size_t i = 0; i < std::size(setters); ++i) {
    MyStationTcamTH3ConfigEntry entry;
    (entry.*setters[i])(true);
    EXPECT_EQ(rawAt(entry, 48, 8), uint64_t{1} << (8 * i)) << i;
  }
}

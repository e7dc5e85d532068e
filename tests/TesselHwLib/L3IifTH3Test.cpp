#include <cstring>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "Support/TextTesting.h"
#include "TesselHwLib/L3IifTH3.h"

using namespace TesselHwLib;

namespace {

const char * configTemplate =
    "Value('TesselHwLib::L3IifTH3ConfigEntry', ** {'genId': 1, 'entryHandle': 2, 'valid': True, "
    "'entryId': 3, 'key': 4, 'classId': 5, 'ecnDecapMappingPtr': 6, 'flexCtrBaseCounterIdx': 7, "
    "'flexCtrOffsetMode': 8, 'flexCtrPoolNumber': 9, 'intEnable': False, 'ipmcL3Iif': 10, "
    "'ipOptionProfileIndex': 11, 'l3IifProfileIndex': 12, 'vrf': 13})";

L3IifTH3ConfigEntry sampleConfig() {
  L3IifTH3ConfigEntry entry(L3IifTH3Key(4));
  entry.genIdIs(1);
  entry.entryHandleIs(2);
  entry.validIs(true);
  entry.entryIdIs(3);
  entry.classIdIs(5);
  entry.ecnDecapMappingPtrIs(6);
  entry.flexCtrBaseCounterIdxIs(7);
  entry.flexCtrOffsetModeIs(8);
  entry.flexCtrPoolNumberIs(9);
  entry.intEnableIs(false);
  entry.ipmcL3IifIs(10);
  entry.ipOptionProfileIndexIs(11);
  entry.l3IifProfileIndexIs(12);
  entry.vrfIs(13);
  return entry;
}

template <typename T>
T randomField(std::mt19937_64 & random) {
  if constexpr (std::is_same_v<T, bool>) {
    return random() & 1;
  } else if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(static_cast<uint32_t>(random()));
  } else {
    return static_cast<T>(random());
  }
}

L3IifTH3ConfigEntry randomConfig(std::mt19937_64 & random) {
  L3IifTH3ConfigEntry entry{L3IifTH3Key(random())};
#define RANDOMIZE(type, name, id, offset) entry.name##Is(randomField<type>(random));
  P4RUNTIME_CONFIG_BASE_FIELDS(RANDOMIZE)
  TESSEL_L3IIF_CONFIG_FIELDS(RANDOMIZE)
  return entry;
}

L3IifTH3StatusEntry randomStatus(std::mt19937_64 & random) {
  L3IifTH3StatusEntry entry{L3IifTH3Key(random())};
  P4RUNTIME_STATUS_BASE_FIELDS(RANDOMIZE)
#undef RANDOMIZE
  return entry;
}

}  // namespace

TEST(L3IifTH3Key, TextIsTheBareNumberAndParsesBack) {
  EXPECT_EQ(valueToStrep(L3IifTH3Key(0)), "0");
  EXPECT_EQ(Rig::strepToValue<L3IifTH3Key>("0"), L3IifTH3Key(0));
  EXPECT_EQ(valueToStrep(L3IifTH3Key(18446744073709551615ull)), "18446744073709551615");
  EXPECT_EQ(Rig::strepToValue<L3IifTH3Key>("18446744073709551615"),
            L3IifTH3Key(18446744073709551615ull));
}

TEST(L3IifTH3Key, OutOfRangeNamesTheField) {
  try {
    Rig::strepToValue<L3IifTH3Key>("18446744073709551616");
    FAIL() << "no exception";
  } catch (const Rig::RangeException & exception) {
    EXPECT_NE(std::string(exception.what()).find("'l3Iif'"), std::string::npos) << exception.what();
  }
}

// The number parser reads "043" as 43, which prints "43": a key's text takes
// each number only as it prints, so that every text it takes prints back.
TEST(L3IifTH3Key, LeadingZerosAreRefused) {
  using RigTesting::messageOf;
  EXPECT_EQ(messageOf<Rig::ParseException>([] { Rig::strepToValue<L3IifTH3Key>("043"); }),
            "Rig::needCanonicalText() attribute 'l3Iif': expected \"43\", found \"043\"");
  EXPECT_EQ(messageOf<Rig::ParseException>([] { Rig::strepToValue<L3IifTH3Key>("00"); }),
            "Rig::needCanonicalText() attribute 'l3Iif': expected \"0\", found \"00\"");
}

TEST(L3IifTH3StatusEntry, KeyWithLeadingZerosIsRefused) {
  const std::string text =
      "Value('TesselHwLib::L3IifTH3StatusEntry', ** {'genId': 357257325660623161, "
      "'entryHandle': 16913106386742493832, 'errorCode': success, 'deleted': False, "
      "'key': 00621180210016061072})";
  EXPECT_EQ(RigTesting::messageOf<Rig::ParseException>(
                [&] { Rig::strepToValue<L3IifTH3StatusEntry>(text); }),
            "Rig::needCanonicalText() attribute 'l3Iif': expected \"621180210016061072\", found "
            "\"00621180210016061072\"");
}

TEST(L3IifTH3Key, OrderEqualityAndHash) {
  EXPECT_TRUE(L3IifTH3Key(1) < L3IifTH3Key(2));
  EXPECT_FALSE(L3IifTH3Key(2) < L3IifTH3Key(2));
  EXPECT_EQ(L3IifTH3Key(7), L3IifTH3Key(7));
  EXPECT_EQ(L3IifTH3Key(7).hash(0), Rig::hashSingleAttr(0, 7));
  EXPECT_NE(L3IifTH3Key(7).hash(0), L3IifTH3Key(8).hash(0));
  EXPECT_NE(L3IifTH3Key(7).hash(0), L3IifTH3Key(7).hash(1));
  EXPECT_TRUE(!L3IifTH3Key());
  EXPECT_FALSE(!L3IifTH3Key(1));
}

TEST(L3IifTH3ConfigEntry, TextFormFollowsTheTemplate) {
  EXPECT_EQ(valueToStrep(sampleConfig()), configTemplate);
  std::ostringstream stream;
  stream << sampleConfig();
  EXPECT_EQ(stream.str(), configTemplate);
  EXPECT_EQ(Rig::strepToValue<L3IifTH3ConfigEntry>(configTemplate), sampleConfig());
}

TEST(L3IifTH3StatusEntry, TextFormFollowsTheTemplate) {
  L3IifTH3StatusEntry entry(L3IifTH3Key(9));
  entry.genIdIs(1);
  entry.entryHandleIs(2);
  entry.errorCodeIs(P4Runtime::ErrorCode::invalidEntryKey);
  entry.deletedIs(true);
  const char * text =
      "Value('TesselHwLib::L3IifTH3StatusEntry', ** {'genId': 1, 'entryHandle': 2, "
      "'errorCode': invalidEntryKey, 'deleted': True, 'key': 9})";
  EXPECT_EQ(valueToStrep(entry), text);
  EXPECT_EQ(Rig::strepToValue<L3IifTH3StatusEntry>(text), entry);
}

TEST(L3IifTH3ConfigEntry, OneFieldChangedIsUnequal) {
  auto other = sampleConfig();
  other.vrfIs(14);
  EXPECT_FALSE(other == sampleConfig());
  EXPECT_TRUE(other != sampleConfig());
}

TEST(L3IifTH3ConfigEntry, GapBytesTakeNoPartInEquality) {
  auto a = sampleConfig();
  auto b = sampleConfig();
  auto * bytes = reinterpret_cast<unsigned char *>(&b);
  bytes[17] = 0xAA;  // between valid (16) and entryId (20)
  bytes[35] = 0x55;  // between ecnDecapMappingPtr (34) and flexCtrBaseCounterIdx (36)
  bytes[41] = 0x77;  // between intEnable (40) and ipmcL3Iif (42)
  EXPECT_NE(std::memcmp(&a, &b, sizeof(a)), 0);
  EXPECT_EQ(a, b);
}

TEST(L3IifTH3ConfigEntry, OperatorNotIsTrueOnlyForTheDefault) {
  EXPECT_TRUE(!L3IifTH3ConfigEntry());
  EXPECT_FALSE(!L3IifTH3ConfigEntry(L3IifTH3Key(1)));
  EXPECT_TRUE(!L3IifTH3StatusEntry());
  EXPECT_FALSE(!L3IifTH3StatusEntry(L3IifTH3Key(1)));
}

TEST(L3IifTH3ConfigEntry, EveryFieldAtItsMaximumRoundTrips) {
  L3IifTH3ConfigEntry entry(L3IifTH3Key(~0ull));
#define MAXIMIZE(type, name, id, offset) entry.name##Is(static_cast<type>(~0ull));
  P4RUNTIME_CONFIG_BASE_FIELDS(MAXIMIZE)
  TESSEL_L3IIF_CONFIG_FIELDS(MAXIMIZE)
#undef MAXIMIZE
  entry.validIs(true);
  entry.intEnableIs(true);
  auto text = valueToStrep(entry);
  EXPECT_NE(text.find("'classId': 65535"), std::string::npos);
  EXPECT_EQ(Rig::strepToValue<L3IifTH3ConfigEntry>(text), entry);
}

TEST(L3IifTH3Records, RandomRecordsRoundTrip) {
  for (uint64_t seed = 0; seed < 10000; ++seed) {
    std::mt19937_64 random(seed);
    auto config = randomConfig(random);
    ASSERT_EQ(Rig::strepToValue<L3IifTH3ConfigEntry>(valueToStrep(config)), config) << seed;
    auto status = randomStatus(random);
    ASSERT_EQ(Rig::strepToValue<L3IifTH3StatusEntry>(valueToStrep(status)), status) << seed;
  }
}

TEST(L3IifTH3ConfigEntry, SwappedFieldsFail) {
  std::string text = configTemplate;
  auto classId = text.find("'classId': 5");
  auto ecn = text.find("'ecnDecapMappingPtr': 6");
  std::string swapped = text.substr(0, classId) + "'ecnDecapMappingPtr': 6, 'classId': 5" +
                        text.substr(ecn + std::strlen("'ecnDecapMappingPtr': 6"));
  try {
    Rig::strepToValue<L3IifTH3ConfigEntry>(swapped);
    FAIL() << "no exception";
  } catch (const Rig::ParseException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              "Rig::needString() expected \", 'classId': \" but found \", 'ecnDecapMappingPtr': \"");
  }
}

TEST(L3IifTH3ConfigEntry, BadTextsRaiseNamingTheField) {
  auto expectFailure = [](std::string text, const std::string & fragment) {
    try {
      Rig::strepToValue<L3IifTH3ConfigEntry>(text);
      ADD_FAILURE() << "no exception for " << text;
    } catch (const Basalt::Exception & exception) {
      EXPECT_NE(std::string(exception.what()).find(fragment), std::string::npos)
          << exception.what();
    }
  };
  std::string text = configTemplate;
  auto replace = [&](const std::string & from, const std::string & to) {
    std::string copy = text;
    copy.replace(copy.find(from), from.size(), to);
    return copy;
  };
  expectFailure(replace("'classId': 5", "'classId': 65536"), "attribute 'classId'");
  expectFailure(replace("'vrf': 13", "'vrf': x"), "attribute 'vrf'");
  expectFailure(replace("'valid': True", "'valid': true"), "attribute 'valid'");
  expectFailure(replace("'key': 4", "'key': 18446744073709551616"), "in attribute 'key'");
  expectFailure(replace(", 'vrf': 13", ""), "'vrf': ");
  expectFailure(replace("'vrf': 13", "'vrf':  13"), "attribute 'vrf'");
  expectFailure(text + " ", "unexpected text after value");
  expectFailure(replace("'genId': 1", "'genId': 1, 'extra': 1"), "'entryHandle': ");
}

TEST(L3IifTH3Records, LayoutByRawBytes) {
  auto entry = sampleConfig();
  const auto * bytes = reinterpret_cast<const unsigned char *>(&entry);
  auto at = [&](std::size_t offset, std::size_t width) {
    uint64_t value = 0;
    std::memcpy(&value, bytes + offset, width);
    return value;
  };
  EXPECT_EQ(at(0, 8), 1u);
  EXPECT_EQ(at(8, 8), 2u);
  EXPECT_EQ(at(16, 1), 1u);
  EXPECT_EQ(at(20, 4), 3u);
  EXPECT_EQ(at(24, 8), 4u);
  EXPECT_EQ(at(32, 2), 5u);
  EXPECT_EQ(at(34, 1), 6u);
  EXPECT_EQ(at(36, 2), 7u);
  EXPECT_EQ(at(38, 1), 8u);
  EXPECT_EQ(at(39, 1), 9u);
  EXPECT_EQ(at(40, 1), 0u);
  EXPECT_EQ(at(42, 2), 10u);
  EXPECT_EQ(at(44, 1), 11u);
  EXPECT_EQ(at(45, 1), 12u);
  EXPECT_EQ(at(46, 2), 13u);
  EXPECT_EQ(sizeof(L3IifTH3ConfigEntry), 48u);
  EXPECT_EQ(sizeof(L3IifTH3StatusEntry), 32u);
}

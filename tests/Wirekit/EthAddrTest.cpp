#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "Support/TextTesting.h"
#include "Wirekit/EthAddr.h"
#include "Wirekit/AddrTesting.h"

using RigTesting::messageOf;
using RigTesting::parseAttr;
using Wirekit::EthAddr;
using WirekitTesting::filled;

namespace {

const EthAddr example(EthAddr::Bytes{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e});

std::string macMessage(std::string_view found) {
  return "Wirekit::sequenceToValue() attribute 'macAddr': expected a MAC address, found \"" +
         std::string(found) + "\"";
}

}  // namespace

TEST(WirekitEthAddr, DefaultIsAllZero) {
  EXPECT_EQ(EthAddr().bytes(), filled<6>(0));
  EXPECT_EQ(Wirekit::valueToStrep(EthAddr()), "00:00:00:00:00:00");
}

TEST(WirekitEthAddr, TextIsLowerCaseHexPairs) {
  EXPECT_EQ(Wirekit::valueToStrep(example), "00:1a:2b:3c:4d:5e");
  EXPECT_EQ(Wirekit::valueToStrep(EthAddr(filled<6>(0xff))), "ff:ff:ff:ff:ff:ff");
}

TEST(WirekitEthAddr, ParsesEitherCase) {
  EXPECT_EQ(Rig::strepToValue<EthAddr>("00:1A:2B:3C:4D:5E"), example);
  EXPECT_EQ(Rig::strepToValue<EthAddr>("00:1a:2B:3c:4D:5e"), example);
  EXPECT_EQ(Rig::strepToValue<EthAddr>("FF:FF:FF:FF:FF:FF"), EthAddr(filled<6>(0xff)));
}

TEST(WirekitEthAddr, RandomAddressesRoundTrip) {
  for (unsigned seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    ASSERT_TRUE(WirekitTesting::roundTrips(WirekitTesting::randomEthAddr(random)))
        << "seed " << seed;
  }
  EXPECT_TRUE(WirekitTesting::roundTrips(EthAddr()));
  EXPECT_TRUE(WirekitTesting::roundTrips(EthAddr(filled<6>(0xff))));
}

TEST(WirekitEthAddr, ReadStopsAtTheSeparator) {
  std::string rest;
  EXPECT_EQ(parseAttr<EthAddr>("00:1a:2b:3c:4d:5e, 'vlanId': 3", "macAddr", &rest), example);
  EXPECT_EQ(rest, ", 'vlanId': 3");
  EXPECT_EQ(parseAttr<EthAddr>("00:1a:2b:3c:4d:5e})", "macAddrMask", &rest), example);
  EXPECT_EQ(rest, "})");
}

TEST(WirekitEthAddr, BadTextsAreRefusedNamingTheAttribute) {
  for (const std::string & bad :
       std::vector<std::string>{"00:11:22:33:44",        // five groups
                                "00:11:22:33:44:55:66",  // seven groups
                                "00:11:22:33:44:zz",     // bad hex
                                "00:11:22:33:44:5",      // short group
                                "0:11:22:33:44:55:",     // groups out of place
                                "00-11-22-33-44-55",     // other separator
                                "00:11:22:33:44:55x",    // trailing junk inside the token
                                "00:11:22:33:44:55 ",    // trailing blank
                                " 00:11:22:33:44:55",    // leading blank
                                "+0:11:22:33:44:55",     // a sign
                                "00:11:22:33:44:-5",     // a sign
                                "001122334455",          // no separators
                                ""}) {
    EXPECT_EQ(messageOf<Rig::ParseException>([&] { parseAttr<EthAddr>(bad, "macAddr"); }),
              macMessage(bad));
  }
  EXPECT_EQ(messageOf<Rig::ParseException>(
                [] { parseAttr<EthAddr>("00:11:22:33:44, 'vlanId': 3", "macAddr"); }),
            macMessage("00:11:22:33:44"));
}

TEST(WirekitEthAddr, FailedReadLeavesTheCursor) {
  Rig::String text("00:11:22:33:44:gg, 'x'");
  Rig::Cursor cursor = text.begin();
  EXPECT_THROW(Wirekit::sequenceToValue(cursor, text.end(), "macAddr", (EthAddr *)nullptr),
               Rig::ParseException);
  EXPECT_EQ(cursor, text.begin());
}

TEST(WirekitEthAddr, StrepToValueRejectsTextBehindTheToken) {
  EXPECT_THROW(Rig::strepToValue<EthAddr>("00:1a:2b:3c:4d:5e,"), Rig::ParseException);
}

TEST(WirekitEthAddr, OrderIsByBytesFirstByteFirst) {
  EthAddr low(EthAddr::Bytes{0x00, 0xff, 0xff, 0xff, 0xff, 0xff});
  EthAddr high(EthAddr::Bytes{0x01, 0x00, 0x00, 0x00, 0x00, 0x00});
  EXPECT_LT(low, high);
  EXPECT_FALSE(high < low);
  EXPECT_FALSE(low < low);
  EXPECT_LT(EthAddr(), EthAddr(EthAddr::Bytes{0, 0, 0, 0, 0, 1}));
  EXPECT_NE(low, high);
  EXPECT_EQ(low, EthAddr(low.bytes()));

  std::mt19937 random(1);
  std::vector<EthAddr> addrs;
  for (int i = 0; i < 200; ++i) {
    addrs.push_back(EthAddr(WirekitTesting::randomBytes<6>(random)));
  }
  std::sort(addrs.begin(), addrs.end());
  EXPECT_TRUE(std::is_sorted(addrs.begin(), addrs.end(), [](const EthAddr & a, const EthAddr & b) {
    return std::memcmp(a.bytes().data(), b.bytes().data(), 6) < 0;
  }));
}

// A key's place in a shared table depends on this hash: these values must
// never change.
TEST(WirekitEthAddr, HashIsAFixedFunction) {
  EXPECT_EQ(EthAddr().hash(), 0xeaeaa30du);
  EXPECT_EQ(EthAddr(filled<6>(0xff)).hash(), 0x60c73750u);
  EXPECT_EQ(example.hash(), 0x0e9d190bu);
  Rig::Hash byteByByte(0);
  for (uint8_t byte : example.bytes()) {
    byteByByte.hashMix<1>(byte);
  }
  EXPECT_EQ(example.hash(), byteByByte.result());
  EXPECT_NE(EthAddr(EthAddr::Bytes{1, 0, 0, 0, 0, 0}).hash(),
            EthAddr(EthAddr::Bytes{0, 0, 0, 0, 0, 1}).hash());
}

TEST(WirekitEthAddr, LiesInMemoryAsItsSixBytes) {
  unsigned char raw[6];
  std::memcpy(raw, &example, sizeof(raw));
  EXPECT_EQ(std::vector<unsigned char>(raw, raw + 6),
            (std::vector<unsigned char>{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}));
  std::array<unsigned char, 6> bytes{0xde, 0xad, 0xbe, 0xef, 0x00, 0x01};
  EXPECT_EQ(Wirekit::valueToStrep(std::bit_cast<EthAddr>(bytes)), "de:ad:be:ef:00:01");
}

TEST(WirekitEthAddr, EntersAKeyHashAsItsHash) {
  Rig::Hash viaAddr(3);
  hashInto(viaAddr, example);
  Rig::Hash viaNumber(3);
  viaNumber.hashMix<4>(example.hash());
  EXPECT_EQ(viaAddr.result(), viaNumber.result());
}

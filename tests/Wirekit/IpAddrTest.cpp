#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "Support/TextTesting.h"
#include "Wirekit/AddrTesting.h"
#include "Wirekit/Ip6Addr.h"
#include "Wirekit/IpAddr.h"

using RigTesting::messageOf;
using RigTesting::parseAttr;
using Wirekit::Ip6Addr;
using Wirekit::IpAddr;
using WirekitTesting::filled;
using WirekitTesting::fromGroups;

namespace {

std::string badMessage(std::string_view attribute, std::string_view expected,
                       std::string_view found) {
  return "Wirekit::sequenceToValue() attribute '" + std::string(attribute) + "': expected " +
         std::string(expected) + ", found \"" + std::string(found) + "\"";
}

}  // namespace

TEST(WirekitIpAddr, DefaultIsTheAnyAddress) {
  EXPECT_TRUE(IpAddr().isAny());
  EXPECT_EQ(IpAddr().bytes(), filled<4>(0));
  EXPECT_EQ(Wirekit::valueToStrep(IpAddr()), "0.0.0.0");
  EXPECT_FALSE(IpAddr(IpAddr::Bytes{0, 0, 0, 1}).isAny());
  EXPECT_FALSE(IpAddr(IpAddr::Bytes{128, 0, 0, 0}).isAny());
}

TEST(WirekitIpAddr, TextIsTheDottedQuadInNetworkOrder) {
  EXPECT_EQ(Wirekit::valueToStrep(IpAddr(IpAddr::Bytes{192, 0, 2, 1})), "192.0.2.1");
  EXPECT_EQ(Wirekit::valueToStrep(IpAddr(filled<4>(0xff))), "255.255.255.255");
  EXPECT_EQ(Rig::strepToValue<IpAddr>("10.20.30.40"), IpAddr(IpAddr::Bytes{10, 20, 30, 40}));
}

TEST(WirekitIpAddr, RandomAddressesRoundTrip) {
  for (unsigned seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    ASSERT_TRUE(WirekitTesting::roundTrips(WirekitTesting::randomIpAddr(random)))
        << "seed " << seed;
  }
  EXPECT_TRUE(WirekitTesting::roundTrips(IpAddr()));
  EXPECT_TRUE(WirekitTesting::roundTrips(IpAddr(filled<4>(0xff))));
}

TEST(WirekitIpAddr, BadTextsAreRefusedNamingTheAttribute) {
  for (const std::string & bad : std::vector<std::string>{
           "1.2.3", "1.2.3.4.5", "256.0.0.1", "01.2.3.4", "0x1.2.3.4", "1..2.3", "1.2.3.-4",
           "1.2.3.4x", " 1.2.3.4", "1.2.3.4 ", "::1", "one", ""}) {
    EXPECT_EQ(messageOf<Rig::ParseException>([&] { parseAttr<IpAddr>(bad, "dip"); }),
              badMessage("dip", "an IPv4 address", bad));
  }
  // The system's parser would stop at a NUL and take "1.2.3.4"; the token is
  // refused whole.
  EXPECT_THROW(parseAttr<IpAddr>(std::string("1.2.3.4\0.5", 10), "dip"), Rig::ParseException);
}

TEST(WirekitIpAddr, OrderIsNumeric) {
  EXPECT_LT(IpAddr(IpAddr::Bytes{9, 255, 255, 255}), IpAddr(IpAddr::Bytes{10, 0, 0, 0}));
  EXPECT_LT(IpAddr(IpAddr::Bytes{10, 0, 0, 1}), IpAddr(IpAddr::Bytes{10, 0, 1, 0}));
  EXPECT_FALSE(IpAddr() < IpAddr());
}

TEST(WirekitIp6Addr, DefaultIsTheUnspecifiedAddress) {
  EXPECT_TRUE(Ip6Addr().isUnspecified());
  EXPECT_EQ(Ip6Addr().bytes(), filled<16>(0));
  EXPECT_EQ(Wirekit::valueToStrep(Ip6Addr()), "::");
  EXPECT_FALSE(fromGroups({0, 0, 0, 0, 0, 0, 0, 1}).isUnspecified());
  EXPECT_FALSE(fromGroups({0x8000, 0, 0, 0, 0, 0, 0, 0}).isUnspecified());
}

TEST(WirekitIp6Addr, CanonicalTextsAreStable) {
  for (const std::string & text : std::vector<std::string>{
           "::", "::1", "1::", "::ffff:1.2.3.4", "::ffff:0.0.0.0", "::1.2.3.4", "1:2:3:4:5:6:7:8",
           "2001:db8::1", "1:0:3:4:5:6:7:8", "1::8", "1:2::7:8", "1:0:0:4::8", "1::4:0:0:7:8",
           "fe80::1:0:0:1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "1:2:3:4:5:6:7:0",
           "0:1:2:3:4:5:6:7"}) {
    EXPECT_EQ(Wirekit::valueToStrep(Rig::strepToValue<Ip6Addr>(text)), text);
  }
}

TEST(WirekitIp6Addr, OtherSpellingsPrintCanonically) {
  auto canonical = [](const char * text) {
    return Wirekit::valueToStrep(Rig::strepToValue<Ip6Addr>(text));
  };
  EXPECT_EQ(canonical("0:0:0:0:0:0:0:1"), "::1");
  EXPECT_EQ(canonical("2001:DB8::1"), "2001:db8::1");
  EXPECT_EQ(canonical("0001:0002::"), "1:2::");
  EXPECT_EQ(canonical("::FFFF:1.2.3.4"), "::ffff:1.2.3.4");
  EXPECT_EQ(canonical("::ffff:102:304"), "::ffff:1.2.3.4");
  EXPECT_EQ(canonical("1:0:0:0:0:0:0:0"), "1::");
  EXPECT_EQ(canonical("1:2:3:4:5:6:1.2.3.4"), "1:2:3:4:5:6:102:304");
}

TEST(WirekitIp6Addr, TextIsInNetworkOrder) {
  Ip6Addr::Bytes bytes{};
  bytes[0] = 0x20;
  bytes[1] = 0x01;
  bytes[15] = 0x01;
  EXPECT_EQ(Wirekit::valueToStrep(Ip6Addr(bytes)), "2001::1");
  EXPECT_EQ(fromGroups({0x2001, 0, 0, 0, 0, 0, 0, 1}), Ip6Addr(bytes));
}

TEST(WirekitIp6Addr, RandomAddressesRoundTrip) {
  for (unsigned seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    ASSERT_TRUE(WirekitTesting::roundTrips(WirekitTesting::randomIp6Addr(random)))
        << "seed " << seed;
  }
}

TEST(WirekitIp6Addr, BadTextsAreRefusedNamingTheAttribute) {
  for (const std::string & bad : std::vector<std::string>{
           "gggg::", "1:2:3:4:5:6:7:8:9", "1::2::3", "12345::", ":::", "1:2:3:4:5:6:7",
           "::ffff:1.2.3", "::1x", "::1 ", " ::1", "[::1]", "::1%eth0", "1.2.3.4", "",
           "1111:2222:3333:4444:5555:6666:7777:8888:9999:aaaa:bbbb:cccc"}) {
    EXPECT_EQ(messageOf<Rig::ParseException>([&] { parseAttr<Ip6Addr>(bad, "dipv6"); }),
              badMessage("dipv6", "an IPv6 address", bad.substr(0, 48)));
  }
}

TEST(WirekitIp6Addr, OrderIsByBytesFirstByteFirst) {
  EXPECT_LT(fromGroups({0, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff}),
            fromGroups({1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_LT(fromGroups({0x00ff, 0, 0, 0, 0, 0, 0, 0}), fromGroups({0x0100, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_LT(Ip6Addr(), fromGroups({0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_FALSE(Ip6Addr() < Ip6Addr());
}

// Keys with addresses hash the sixteen bytes through this: these values must
// never change.
TEST(WirekitIp6Addr, HashIsAFixedFunction) {
  EXPECT_EQ(Ip6Addr().hash(), 0x48c0a5beu);
  EXPECT_EQ(fromGroups({0, 0, 0, 0, 0, 0, 0, 1}).hash(), 0x84773edcu);
  Ip6Addr any = fromGroups({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1});
  Rig::Hash byteByByte(0);
  for (uint8_t byte : any.bytes()) {
    byteByByte.hashMix<1>(byte);
  }
  EXPECT_EQ(any.hash(), byteByByte.result());
  EXPECT_NE(fromGroups({1, 0, 0, 0, 0, 0, 0, 0}).hash(),
            fromGroups({0, 0, 0, 0, 0, 0, 0, 1}).hash());
}

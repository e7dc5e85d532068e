#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Support/TextTesting.h"
#include "Wirekit/AddrTesting.h"
#include "Wirekit/IpGenAddr.h"

using RigTesting::messageOf;
using RigTesting::parseAttr;
using Wirekit::Ip6Addr;
using Wirekit::IpAddr;
using Wirekit::IpGenAddr;
using WirekitTesting::filled;
using WirekitTesting::fromGroups;

namespace {

using Raw = std::array<uint8_t, 20>;

Raw rawOf(const IpGenAddr & addr) {
  Raw raw;
  std::memcpy(raw.data(), &addr, raw.size());
  return raw;
}

IpGenAddr fromText(std::string_view text) {
  IpGenAddr addr;
  addr.handleInitialized(text);
  return addr;
}

std::string badMessage(std::string_view attribute, std::string_view found) {
  return "Wirekit::sequenceToValue() attribute '" + std::string(attribute) +
         "': expected an IPv4 or IPv6 address, found \"" + std::string(found) + "\"";
}

const IpGenAddr v4(IpAddr(IpAddr::Bytes{1, 2, 3, 4}));
const IpGenAddr v6(fromGroups({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}));

}  // namespace

TEST(WirekitIpGenAddr, DefaultIsUnsetAndZero) {
  IpGenAddr addr;
  EXPECT_EQ(addr.family(), IpGenAddr::Family::unset);
  EXPECT_EQ(rawOf(addr), Raw{});
  EXPECT_TRUE(addr.isAddrZero());
  EXPECT_EQ(Wirekit::valueToStrep(addr), "unset");
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("unset"), addr);
}

TEST(WirekitIpGenAddr, LayoutIsFamilyWordThenSixteenAddressBytes) {
  EXPECT_EQ(rawOf(v4), (Raw{1, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(rawOf(v6),
            (Raw{2, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(rawOf(fromText("255.255.255.255")),
            (Raw{1, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  Raw raw{2, 0, 0, 0};
  std::fill(raw.begin() + 4, raw.end(), 0xff);
  EXPECT_EQ(std::bit_cast<IpGenAddr>(raw), fromText("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
}

TEST(WirekitIpGenAddr, ViewsShowTheBytesWhateverTheFamily) {
  EXPECT_EQ(v4.family(), IpGenAddr::Family::ipv4);
  EXPECT_EQ(v4.ipAddr(), IpAddr(IpAddr::Bytes{1, 2, 3, 4}));
  EXPECT_EQ(v4.ip6Addr(), fromGroups({0x0102, 0x0304, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(v6.family(), IpGenAddr::Family::ipv6);
  EXPECT_EQ(v6.ip6Addr(), fromGroups({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(v6.ipAddr(), IpAddr(IpAddr::Bytes{0x20, 0x01, 0x0d, 0xb8}));
}

TEST(WirekitIpGenAddr, IsAddrZeroForEachFamily) {
  EXPECT_TRUE(IpGenAddr(IpAddr()).isAddrZero());
  EXPECT_FALSE(fromText("0.0.0.1").isAddrZero());
  EXPECT_FALSE(fromText("128.0.0.0").isAddrZero());
  EXPECT_TRUE(IpGenAddr(Ip6Addr()).isAddrZero());
  EXPECT_TRUE(fromText("::").isAddrZero());
  EXPECT_FALSE(fromText("::1").isAddrZero());
  EXPECT_FALSE(fromText("8000::").isAddrZero());
  EXPECT_TRUE(IpGenAddr().isAddrZero());
  // Foreign bytes: a family this code never writes counts as zero whatever
  // its bytes, and prints as a text that no parser takes.
  Raw raw{7, 0, 0, 0, 1, 2, 3, 4};
  IpGenAddr foreign = std::bit_cast<IpGenAddr>(raw);
  EXPECT_TRUE(foreign.isAddrZero());
  EXPECT_EQ(Wirekit::valueToStrep(foreign), "unknown-family-7");
  EXPECT_THROW(Rig::strepToValue<IpGenAddr>("unknown-family-7"), Rig::ParseException);
}

TEST(WirekitIpGenAddr, FamiliesWithEqualBytesAreUnequalButHashAlike) {
  IpGenAddr asV6(v4.ip6Addr());
  EXPECT_EQ(rawOf(asV6)[4], 1);
  EXPECT_NE(v4, asV6);
  EXPECT_EQ(v4.ip6Addr().hash(), asV6.ip6Addr().hash());
  EXPECT_NE(IpGenAddr(), IpGenAddr(IpAddr()));
  EXPECT_NE(IpGenAddr(IpAddr()), IpGenAddr(Ip6Addr()));
  EXPECT_NE(IpGenAddr(), IpGenAddr(Ip6Addr()));
  EXPECT_EQ(IpGenAddr().ip6Addr().hash(), IpGenAddr(IpAddr()).ip6Addr().hash());
  EXPECT_EQ(IpGenAddr(IpAddr()).ip6Addr().hash(), IpGenAddr(Ip6Addr()).ip6Addr().hash());
  EXPECT_EQ(v4, fromText("1.2.3.4"));
  EXPECT_EQ(v6, fromText("2001:DB8:0:0::1"));
}

TEST(WirekitIpGenAddr, OrderIsFamilyFirstThenBytes) {
  std::vector<IpGenAddr> sorted = {
      IpGenAddr(),
      fromText("0.0.0.0"),
      fromText("1.2.3.4"),
      fromText("255.255.255.254"),
      fromText("255.255.255.255"),
      fromText("::"),
      fromText("::1"),
      fromText("::ffff:1.2.3.4"),
      fromText("1::"),
      fromText("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"),
  };
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) {
      EXPECT_EQ(sorted[i] < sorted[j], i < j) << i << " " << j;
      EXPECT_EQ(sorted[i] == sorted[j], i == j) << i << " " << j;
    }
  }
}

TEST(WirekitIpGenAddr, TextTellsTheFamily) {
  EXPECT_EQ(Wirekit::valueToStrep(v4), "1.2.3.4");
  EXPECT_EQ(Wirekit::valueToStrep(v6), "2001:db8::1");
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("1.2.3.4").family(), IpGenAddr::Family::ipv4);
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("::1.2.3.4").family(), IpGenAddr::Family::ipv6);
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("::ffff:1.2.3.4").family(), IpGenAddr::Family::ipv6);
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("::").family(), IpGenAddr::Family::ipv6);
  EXPECT_EQ(Rig::strepToValue<IpGenAddr>("0.0.0.0").family(), IpGenAddr::Family::ipv4);
  EXPECT_EQ(Wirekit::valueToStrep(fromText("0.0.0.0")), "0.0.0.0");
  EXPECT_EQ(Wirekit::valueToStrep(fromText("255.255.255.255")), "255.255.255.255");
  EXPECT_EQ(Wirekit::valueToStrep(fromText("::ffff:1.2.3.4")), "::ffff:1.2.3.4");
}

TEST(WirekitIpGenAddr, RandomAddressesRoundTrip) {
  for (unsigned seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    IpGenAddr addr = WirekitTesting::randomIpGenAddr(random);
    ASSERT_TRUE(WirekitTesting::roundTrips(addr)) << "seed " << seed;
    ASSERT_EQ(fromText(Wirekit::valueToStrep(addr)), addr) << "seed " << seed;
  }
}

TEST(WirekitIpGenAddr, FieldsOfARecordReadOneTokenEach) {
  Rig::String text("{'sip': 10.0.0.1, 'sipv6': fe80::1}, 'dip': unset)");
  Rig::Cursor cursor = text.begin();
  Rig::needString(cursor, text.end(), "{'sip': ");
  EXPECT_EQ(Rig::deserializeAttr<IpGenAddr>(cursor, text.end(), "sip"), fromText("10.0.0.1"));
  Rig::needString(cursor, text.end(), ", 'sipv6': ");
  EXPECT_EQ(Rig::deserializeAttr<IpGenAddr>(cursor, text.end(), "sipv6"), fromText("fe80::1"));
  Rig::needString(cursor, text.end(), "}, 'dip': ");
  EXPECT_EQ(Rig::deserializeAttr<IpGenAddr>(cursor, text.end(), "dip"), IpGenAddr());
  Rig::needString(cursor, text.end(), ")");
  EXPECT_EQ(cursor, text.end());
}

TEST(WirekitIpGenAddr, BadTextsAreRefusedNamingTheField) {
  for (const std::string & bad : std::vector<std::string>{
           "1.2.3", "gggg::", "1:2:3:4:5:6:7:8:9", "1.2.3.4x", "::1x", "1.2.3.4 ", "::1 ",
           "256.1.1.1", "1::2::3", "unsetx", "Unset", "", "-", "1.2.3.4/24", "::1%lo"}) {
    EXPECT_EQ(messageOf<Rig::ParseException>([&] { parseAttr<IpGenAddr>(bad, "sipv6Mask"); }),
              badMessage("sipv6Mask", bad));
  }
  EXPECT_EQ(messageOf<Rig::ParseException>(
                [] { parseAttr<IpGenAddr>("1.2.3, 'dipMask': 1.2.3.4", "dip"); }),
            badMessage("dip", "1.2.3"));
}

TEST(WirekitIpGenAddr, LongBadTextsAreClippedInTheMessage) {
  std::string bad = "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255:ffff:ffff:ffff";
  EXPECT_EQ(messageOf<Rig::ParseException>([&] { parseAttr<IpGenAddr>(bad, "dip"); }),
            badMessage("dip", bad.substr(0, 48)));
  // The longest address text fits whole.
  EXPECT_EQ(Wirekit::valueToStrep(fromText("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255")),
            "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(WirekitIpGenAddr, FailedReadLeavesTheCursor) {
  Rig::String text("1.2.3, 'x'");
  Rig::Cursor cursor = text.begin();
  EXPECT_THROW(Wirekit::sequenceToValue(cursor, text.end(), "sip", (IpGenAddr *)nullptr),
               Rig::ParseException);
  EXPECT_EQ(cursor, text.begin());
}

TEST(WirekitIpGenAddr, HandleInitializedSetsTheAddressFromText) {
  IpGenAddr addr = v6;
  addr.handleInitialized("255.255.255.255");
  EXPECT_EQ(addr, IpGenAddr(IpAddr(filled<4>(0xff))));
  EXPECT_EQ(rawOf(addr)[8], 0);  // the IPv6 bytes are gone, not left behind
  addr.handleInitialized("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
  EXPECT_EQ(addr, IpGenAddr(Ip6Addr(filled<16>(0xff))));
  addr.handleInitialized("unset");
  EXPECT_EQ(addr, IpGenAddr());
}

TEST(WirekitIpGenAddr, HandleInitializedRefusesBadTextAndKeepsTheAddress) {
  IpGenAddr addr = v4;
  EXPECT_EQ(messageOf<Rig::ParseException>([&] { addr.handleInitialized("1.2.3"); }),
            "Wirekit::IpGenAddr::handleInitialized() expected an IPv4 or IPv6 address, found "
            "\"1.2.3\"");
  EXPECT_THROW(addr.handleInitialized("1.2.3.4, 5.6.7.8"), Rig::ParseException);
  EXPECT_EQ(addr, v4);
}

TEST(WirekitIpGenAddr, EntersAKeyHashAsTheHashOfItsBytesWithoutTheFamily) {
  auto keyHash = [](const IpGenAddr & addr) {
    Rig::Hash hash(0);
    hashInto(hash, addr);
    return hash.result();
  };
  Rig::Hash expected(0);
  expected.hashMix<4>(v6.ip6Addr().hash());
  EXPECT_EQ(keyHash(v6), expected.result());
  EXPECT_EQ(keyHash(v4), keyHash(IpGenAddr(v4.ip6Addr())));
  EXPECT_EQ(keyHash(IpGenAddr()), keyHash(IpGenAddr(IpAddr())));
  EXPECT_NE(keyHash(v4), keyHash(v6));
}

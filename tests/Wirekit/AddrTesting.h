#pragma once
// Random addresses of every form, and the round-trip check of a text form.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>

#include "Rig/ValueText.h"
#include "Wirekit/EthAddr.h"
#include "Wirekit/Ip6Addr.h"
#include "Wirekit/IpAddr.h"
#include "Wirekit/IpGenAddr.h"

namespace WirekitTesting {

template <std::size_t N>
std::array<uint8_t, N> filled(uint8_t byte) {
  std::array<uint8_t, N> bytes;
  bytes.fill(byte);
  return bytes;
}

template <std::size_t N>
std::array<uint8_t, N> randomBytes(std::mt19937 & random) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::array<uint8_t, N> bytes;
  for (uint8_t & b : bytes) {
    b = static_cast<uint8_t>(byte(random));
  }
  return bytes;
}

// All zero, all ones, or random.
inline Wirekit::EthAddr randomEthAddr(std::mt19937 & random) {
  switch (random() % 4) {
    case 0: return Wirekit::EthAddr();
    case 1: return Wirekit::EthAddr(filled<6>(0xff));
    default: return Wirekit::EthAddr(randomBytes<6>(random));
  }
}

// 0.0.0.0, 255.255.255.255, or random.
inline Wirekit::IpAddr randomIpAddr(std::mt19937 & random) {
  switch (random() % 4) {
    case 0: return Wirekit::IpAddr();
    case 1: return Wirekit::IpAddr(filled<4>(0xff));
    default: return Wirekit::IpAddr(randomBytes<4>(random));
  }
}

// The eight 16-bit groups of an IPv6 address, as its text shows them.
inline Wirekit::Ip6Addr fromGroups(const std::array<uint16_t, 8> & groups) {
  Wirekit::Ip6Addr::Bytes bytes;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    bytes[2 * i] = static_cast<uint8_t>(groups[i] >> 8);
    bytes[2 * i + 1] = static_cast<uint8_t>(groups[i]);
  }
  return Wirekit::Ip6Addr(bytes);
}

// Every form the canonical text distinguishes: ::, ::1, IPv4-mapped and
// IPv4-compatible addresses, eight non-zero groups, one or two zero runs of
// any length in any place, all ones, and plain random bytes.
inline Wirekit::Ip6Addr randomIp6Addr(std::mt19937 & random) {
  std::uniform_int_distribution<int> group(1, 0xffff);
  std::uniform_int_distribution<int> place(0, 7);
  std::array<uint16_t, 8> groups;
  for (uint16_t & g : groups) {
    g = static_cast<uint16_t>(group(random));
  }
  auto zeroRun = [&] {
    int start = place(random);
    int length = std::uniform_int_distribution<int>(1, 8 - start)(random);
    std::fill_n(groups.begin() + start, length, uint16_t{0});
  };
  switch (random() % 9) {
    case 0: return Wirekit::Ip6Addr();
    case 1: return fromGroups({0, 0, 0, 0, 0, 0, 0, 1});
    case 2: return fromGroups({0, 0, 0, 0, 0, 0xffff, groups[6], groups[7]});
    case 3: return fromGroups({0, 0, 0, 0, 0, 0, groups[6], groups[7]});
    case 4: return fromGroups(groups);
    case 5: zeroRun(); return fromGroups(groups);
    case 6:
      zeroRun();
      zeroRun();
      return fromGroups(groups);
    case 7: return Wirekit::Ip6Addr(filled<16>(0xff));
    default: return Wirekit::Ip6Addr(randomBytes<16>(random));
  }
}

// Unset, IPv4 or IPv6, each of all its forms.
inline Wirekit::IpGenAddr randomIpGenAddr(std::mt19937 & random) {
  switch (random() % 3) {
    case 0: return Wirekit::IpGenAddr();
    case 1: return Wirekit::IpGenAddr(randomIpAddr(random));
    default: return Wirekit::IpGenAddr(randomIp6Addr(random));
  }
}

// value -> text -> value gives an equal value, text -> value -> text the same
// text, and the text read inside a record stops at the separator behind it.
template <typename T>
::testing::AssertionResult roundTrips(const T & value) {
  Rig::String text = valueToStrep(value);
  T parsed = Rig::strepToValue<T>(text);
  if (!(parsed == value)) {
    return ::testing::AssertionFailure() << text << " parses to " << parsed;
  }
  if (valueToStrep(parsed) != text) {
    return ::testing::AssertionFailure() << text << " prints again as " << valueToStrep(parsed);
  }
  Rig::String record = text + ", 'next': 1})";
  Rig::Cursor cursor = record.begin();
  if (!(Rig::deserializeAttr<T>(cursor, record.end(), "field") == value) ||
      std::string(cursor, record.cend()) != ", 'next': 1})") {
    return ::testing::AssertionFailure() << text << " is not read whole inside a record";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace WirekitTesting

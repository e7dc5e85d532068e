#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "Support/TextTesting.h"
#include "Rig/ValueText.h"

namespace {

using Rig::Cursor;
using RigTesting::messageOf;
using RigTesting::parseAttr;

// A string of random bytes, rich in the characters that the text form escapes.
Rig::String randomString(std::mt19937 & random) {
  static constexpr char special[] = {'\'', '\\', '\n', '\r', '\t', 'x', '0', '\0', ',', '}'};
  std::uniform_int_distribution<int> length(0, 40);
  std::uniform_int_distribution<int> kind(0, 2);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<std::size_t> pick(0, sizeof(special) - 1);
  Rig::String text;
  for (int i = length(random); i > 0; --i) {
    text += kind(random) == 0 ? special[pick(random)] : static_cast<char>(byte(random));
  }
  return text;
}

}  // namespace

TEST(RigValueText, NumbersPrintAsDecimalDigits) {
  EXPECT_EQ(Rig::valueToStrep(0ULL), "0");
  EXPECT_EQ(Rig::valueToStrep(4095ULL), "4095");
  EXPECT_EQ(Rig::valueToStrep(std::numeric_limits<unsigned long long>::max()),
            "18446744073709551615");
}

TEST(RigValueText, BoolsPrintAsTrueAndFalse) {
  EXPECT_EQ(Rig::valueToStrep(true), "True");
  EXPECT_EQ(Rig::valueToStrep(false), "False");
}

TEST(RigValueText, BoolsParseBackAndNothingElseDoes) {
  std::string rest;
  EXPECT_TRUE(parseAttr<bool>("True, 'x'", "t", &rest));
  EXPECT_EQ(rest, ", 'x'");
  EXPECT_FALSE(parseAttr<bool>("False", "t"));
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<bool>("true", "tMask"); }),
            "Rig::deserializeAttr() attribute 'tMask': expected True or False, found \"true\"");
  EXPECT_THROW(parseAttr<bool>("1", "t"), Rig::ParseException);
  EXPECT_THROW(parseAttr<bool>("", "t"), Rig::ParseException);
}

TEST(RigValueText, StringsAreQuotedWithEscapes) {
  EXPECT_EQ(Rig::valueToStrep(Rig::String("")), "''");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("plain text")), "'plain text'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("it's")), "'it\\'s'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("a\\b")), "'a\\\\b'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("\n\r\t")), "'\\n\\r\\t'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String(std::string("\x00\x01\x1f", 3))), "'\\x00\\x01\\x1f'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("\x7f\x80\xff")), "'\\x7f\\x80\\xff'");
  EXPECT_EQ(Rig::valueToStrep(Rig::String("\"")), "'\"'");
}

TEST(RigValueText, RandomStringsRoundTrip) {
  for (unsigned seed = 0; seed < 10000; ++seed) {
    std::mt19937 random(seed);
    Rig::String value = randomString(random);
    Rig::String text = Rig::valueToStrep(value);
    for (unsigned char c : text) {
      ASSERT_TRUE(c >= 0x20 && c < 0x7f) << "seed " << seed << ": unescaped byte " << int(c);
    }
    std::string rest;
    ASSERT_EQ(parseAttr<Rig::String>(text + ", 'next': 1", "errorMsg", &rest), value)
        << "seed " << seed << " text " << text;
    ASSERT_EQ(rest, ", 'next': 1") << "seed " << seed;
    ASSERT_EQ(Rig::strepToValue<Rig::String>(text), value) << "seed " << seed;
  }
}

TEST(RigValueText, EveryByteRoundTrips) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  EXPECT_EQ(Rig::strepToValue<Rig::String>(Rig::valueToStrep(Rig::String(all))), all);
}

// Texts are constructible from an iterator range, like records from a
// cursor; they must parse as quoted strings all the same.
TEST(RigValueText, TextsParseAsQuotedStringsNotAsRecords) {
  EXPECT_EQ(Rig::strepToValue<Rig::String>("'a\\'b'"), "a'b");
  std::string rest;
  EXPECT_EQ(parseAttr<Rig::Name>("'table', 'x'", "name", &rest), Rig::Name("table"));
  EXPECT_EQ(rest, ", 'x'");
  EXPECT_EQ(Rig::strepToValue<Rig::Name>(Rig::valueToStrep(Rig::Name("it's"))), Rig::Name("it's"));
}

TEST(RigValueText, StringEscapesParseInEitherCase) {
  EXPECT_EQ(parseAttr<Rig::String>("'\\xAb\\x0A'", "errorMsg"), "\xab\n");
}

TEST(RigValueText, BadStringsNameTheAttribute) {
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<Rig::String>("abc", "errorMsg"); }),
            "Rig::deserializeAttr() attribute 'errorMsg': expected a quoted string, found \"abc\"");
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<Rig::String>("'abc", "errorMsg"); }),
            "Rig::deserializeAttr() attribute 'errorMsg': unterminated string, found \"'abc\"");
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<Rig::String>("'a\\qb'", "errorMsg"); }),
            "Rig::deserializeAttr() attribute 'errorMsg': unknown escape, found \"\\qb'\"");
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<Rig::String>("'\\x4g'", "errorMsg"); }),
            "Rig::deserializeAttr() attribute 'errorMsg': bad \\x escape, found \"4g'\"");
  EXPECT_THROW(parseAttr<Rig::String>("'ends in a backslash\\", "errorMsg"), Rig::ParseException);
  EXPECT_THROW(parseAttr<Rig::String>("", "errorMsg"), Rig::ParseException);
}

// The same checks for every unsigned width: the maximum parses, one more is
// out of range, a non-digit is not a number.
template <typename T>
class RigUnsignedText : public ::testing::Test {};

using UnsignedTypes = ::testing::Types<uint8_t, uint16_t, uint32_t, uint64_t>;
TYPED_TEST_SUITE(RigUnsignedText, UnsignedTypes);

TYPED_TEST(RigUnsignedText, MaximumParses) {
  auto maximum = std::numeric_limits<TypeParam>::max();
  std::string text = Rig::valueToStrep(static_cast<unsigned long long>(maximum));
  std::string rest;
  EXPECT_EQ(parseAttr<TypeParam>(text + ", 'x'", "field", &rest), maximum);
  EXPECT_EQ(rest, ", 'x'");
  EXPECT_EQ(parseAttr<TypeParam>("0", "field"), 0u);
  EXPECT_EQ(Rig::strepToValue<TypeParam>(text), maximum);
}

TYPED_TEST(RigUnsignedText, MaximumPlusOneIsOutOfRange) {
  auto maximum = static_cast<unsigned long long>(std::numeric_limits<TypeParam>::max());
  // One more than the maximum, as text: the maximum's digits, last one raised
  // (every maximum is 2^n - 1, which ends in 1, 3, 5 or 7, never 9).
  std::string above = Rig::valueToStrep(maximum);
  ++above.back();
  std::string expected = "Rig::deserializeAttr() attribute 'vlanId': value " + above +
                         " out of range, maximum " + Rig::valueToStrep(maximum);
  EXPECT_EQ(messageOf<Rig::RangeException>([&] { parseAttr<TypeParam>(above, "vlanId"); }),
            expected);
}

TYPED_TEST(RigUnsignedText, NonDigitIsNotANumber) {
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<TypeParam>("x12", "portNum"); }),
            "Rig::deserializeAttr() attribute 'portNum': expected an unsigned number, found "
            "\"x12\"");
  EXPECT_THROW(parseAttr<TypeParam>("-1", "portNum"), Rig::ParseException);
  EXPECT_THROW(parseAttr<TypeParam>(" 1", "portNum"), Rig::ParseException);
  EXPECT_THROW(parseAttr<TypeParam>("", "portNum"), Rig::ParseException);
}

TEST(RigValueText, NumbersStopAtTheFirstNonDigit) {
  std::string rest;
  EXPECT_EQ(parseAttr<uint16_t>("80})", "l4DestPort", &rest), 80u);
  EXPECT_EQ(rest, "})");
}

TEST(RigValueText, LongMessagesShowTheStartOfTheText) {
  EXPECT_EQ(messageOf<Rig::ParseException>(
                [] { parseAttr<uint8_t>("abcdefghijklmnopqrstuvwxyz0123456789", "portNum"); }),
            "Rig::deserializeAttr() attribute 'portNum': expected an unsigned number, found "
            "\"abcdefghijklmnopqrstuvwx\"");
}

TEST(RigValueText, NeedStringNamesTheExpectedLiteral) {
  Rig::String text("'vlan': 3");
  Cursor cursor = text.begin();
  EXPECT_EQ(
      messageOf<Rig::ParseException>([&] { Rig::needString(cursor, text.end(), "'vlanId': "); }),
      "Rig::needString() expected \"'vlanId': \" but found \"'vlan': 3\"");
  EXPECT_EQ(cursor, text.begin());
  EXPECT_THROW(Rig::needString(cursor, text.begin() + 3, "'vlan'"), Rig::ParseException);
}

TEST(RigValueText, NeedStringMovesPastTheLiteral) {
  Rig::String text("'vlanId': 3");
  Cursor cursor = text.begin();
  Rig::needString(cursor, text.end(), "'vlanId': ");
  EXPECT_EQ(std::string(cursor, text.cend()), "3");
  Rig::needString(cursor, text.end(), "");
  EXPECT_EQ(std::string(cursor, text.cend()), "3");
}

TEST(RigValueText, StrepToValueEndRejectsTrailingText) {
  Rig::String text("12 ");
  EXPECT_NO_THROW(Rig::strepToValueEnd(text, text.end()));
  EXPECT_EQ(messageOf<Rig::ParseException>([&] { Rig::strepToValueEnd(text, text.begin() + 2); }),
            "Rig::strepToValueEnd() unexpected text after value: \" \"");
  EXPECT_EQ(messageOf<Rig::ParseException>([] { Rig::strepToValue<uint16_t>("12 "); }),
            "Rig::strepToValueEnd() unexpected text after value: \" \"");
  EXPECT_THROW(Rig::strepToValue<Rig::String>("'a''b'"), Rig::ParseException);
}

TEST(RigValueText, RethrowAddsTheAttributeName) {
  EXPECT_EQ(messageOf<Rig::RangeException>(
                [] { Rig::rethrowFromDeserializeAttr(Rig::RangeException("too big"), "genId"); }),
            "too big in attribute 'genId'");
}

namespace RigTextProbe {

// A record with a text constructor: it reads one number, then demands "!".
struct Record {
  Record(Cursor & cursor, Cursor end)
      : number(Rig::deserializeAttr<uint8_t>(cursor, end, "number")) {
    Rig::needString(cursor, end, "!");
  }
  uint8_t number;
};

// A value parsed by a free sequenceToValue beside it, as addresses and
// enumerations are: "<n>" for n up to 9, anything bigger out of range.
struct Digit {
  unsigned value;
};

Digit sequenceToValue(Cursor & cursor, Cursor end, std::string_view attributeName, Digit *) {
  unsigned value = Rig::deserializeAttr<uint8_t>(cursor, end, attributeName);
  if (value > 9) {
    throw Rig::RangeException("RigTextProbe::sequenceToValue() digit " + std::to_string(value));
  }
  return Digit{value};
}

}  // namespace RigTextProbe

TEST(RigValueText, RecordsReRaiseRangeFailuresWithTheAttributeName) {
  std::string rest;
  EXPECT_EQ(parseAttr<RigTextProbe::Record>("7!,", "key", &rest).number, 7u);
  EXPECT_EQ(rest, ",");
  EXPECT_EQ(messageOf<Rig::RangeException>([] { parseAttr<RigTextProbe::Record>("300!", "key"); }),
            "Rig::deserializeAttr() attribute 'number': value 300 out of range, maximum 255 in "
            "attribute 'key'");
  // Failures of shape pass unchanged.
  EXPECT_EQ(messageOf<Rig::ParseException>([] { parseAttr<RigTextProbe::Record>("7?", "key"); }),
            "Rig::needString() expected \"!\" but found \"?\"");
}

TEST(RigValueText, OtherTypesParseThroughTheirSequenceToValue) {
  EXPECT_EQ(parseAttr<RigTextProbe::Digit>("4", "digit").value, 4u);
  EXPECT_EQ(Rig::strepToValue<RigTextProbe::Digit>("4").value, 4u);
  EXPECT_EQ(messageOf<Rig::RangeException>([] { parseAttr<RigTextProbe::Digit>("12", "digit"); }),
            "RigTextProbe::sequenceToValue() digit 12 in attribute 'digit'");
}

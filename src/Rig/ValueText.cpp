#include "Rig/ValueText.h"

#include <algorithm>

#include <fmt/format.h>

namespace Rig {

namespace {

// At most this much of the remaining text goes into a parse message.
constexpr std::size_t contextLength = 24;

std::string_view upcoming(Cursor cursor, Cursor end) {
  auto length = std::min<std::ptrdiff_t>(contextLength, end - cursor);
  return std::string_view(cursor, cursor + length);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

String valueToStrep(unsigned long long value) { return fmt::format("{}", value); }

String valueToStrep(bool value) { return value ? "True" : "False"; }

String valueToStrep(const String & value) {
  std::string text = "'";
  for (unsigned char c : value) {
    switch (c) {
      case '\\': text += "\\\\"; break;
      case '\'': text += "\\'"; break;
      case '\n': text += "\\n"; break;
      case '\r': text += "\\r"; break;
      case '\t': text += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          fmt::format_to(std::back_inserter(text), "\\x{:02x}", c);
        } else {
          text += static_cast<char>(c);
        }
    }
  }
  text += '\'';
  return text;
}

void needString(Cursor & cursor, Cursor end, std::string_view literal) {
  auto remaining = static_cast<std::size_t>(end - cursor);
  if (remaining < literal.size() || !std::equal(literal.begin(), literal.end(), cursor)) {
    throw ParseException(fmt::format("Rig::needString() expected \"{}\" but found \"{}\"",
                                     literal, upcoming(cursor, end)));
  }
  cursor += static_cast<std::ptrdiff_t>(literal.size());
}

void needCanonicalText(std::string_view attributeName, std::string_view found,
                       std::string_view canonical) {
  if (found != canonical) {
    throw ParseException(
        fmt::format("Rig::needCanonicalText() attribute '{}': expected \"{}\", found \"{}\"",
                    attributeName, canonical, found));
  }
}

void strepToValueEnd(const String & text, Cursor cursor) {
  if (cursor != text.end()) {
    throw ParseException(fmt::format("Rig::strepToValueEnd() unexpected text after value: \"{}\"",
                                     upcoming(cursor, text.end())));
  }
}

void rethrowFromDeserializeAttr(const RangeException & exception, std::string_view attributeName) {
  throw RangeException(fmt::format("{} in attribute '{}'", exception.what(), attributeName));
}

namespace Impl {

uint64_t parseUnsigned(Cursor & cursor, Cursor end, std::string_view attributeName,
                       uint64_t maximum) {
  if (cursor == end || !isDigit(*cursor)) {
    throw ParseException(
        fmt::format("Rig::deserializeAttr() attribute '{}': expected an unsigned number, found \"{}\"",
                    attributeName, upcoming(cursor, end)));
  }
  Cursor start = cursor;
  uint64_t value = 0;
  bool overflow = false;
  for (; cursor != end && isDigit(*cursor); ++cursor) {
    auto digit = static_cast<uint64_t>(*cursor - '0');
    if (value > (maximum - digit) / 10) {
      overflow = true;
    } else {
      value = value * 10 + digit;
    }
  }
  if (overflow) {
    throw RangeException(
        fmt::format("Rig::deserializeAttr() attribute '{}': value {} out of range, maximum {}",
                    attributeName, std::string_view(start, cursor),
                    maximum));
  }
  return value;
}

bool parseBool(Cursor & cursor, Cursor end, std::string_view attributeName) {
  for (bool candidate : {true, false}) {
    std::string_view word = candidate ? "True" : "False";
    auto remaining = static_cast<std::size_t>(end - cursor);
    if (remaining >= word.size() && std::equal(word.begin(), word.end(), cursor)) {
      cursor += static_cast<std::ptrdiff_t>(word.size());
      return candidate;
    }
  }
  throw ParseException(
      fmt::format("Rig::deserializeAttr() attribute '{}': expected True or False, found \"{}\"",
                  attributeName, upcoming(cursor, end)));
}

String parseQuoted(Cursor & cursor, Cursor end, std::string_view attributeName) {
  auto fail = [&](std::string_view what) -> ParseException {
    return ParseException(fmt::format("Rig::deserializeAttr() attribute '{}': {}, found \"{}\"",
                                      attributeName, what, upcoming(cursor, end)));
  };
  if (cursor == end || *cursor != '\'') {
    throw fail("expected a quoted string");
  }
  Cursor start = cursor;
  ++cursor;
  std::string text;
  while (cursor != end && *cursor != '\'') {
    char c = *cursor++;
    if (c != '\\') {
      text += c;
      continue;
    }
    if (cursor == end) {
      break;
    }
    char escape = *cursor++;
    switch (escape) {
      case '\\': text += '\\'; break;
      case '\'': text += '\''; break;
      case 'n': text += '\n'; break;
      case 'r': text += '\r'; break;
      case 't': text += '\t'; break;
      case 'x': {
        int high = cursor != end ? hexDigit(*cursor) : -1;
        int low = (high >= 0 && cursor + 1 != end) ? hexDigit(*(cursor + 1)) : -1;
        if (low < 0) {
          throw fail("bad \\x escape");
        }
        text += static_cast<char>(high * 16 + low);
        cursor += 2;
        break;
      }
      default:
        cursor -= 2;
        throw fail("unknown escape");
    }
  }
  if (cursor == end) {
    cursor = start;
    throw fail("unterminated string");
  }
  ++cursor;
  return text;
}

}  // namespace Impl

}  // namespace Rig

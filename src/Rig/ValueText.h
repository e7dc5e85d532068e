#pragma once
// Text forms of the runtime's basic values, and the strict cursor-based
// parsers that every record's text constructor is made of.
//
//   unsigned numbers  decimal digits, no sign, no blanks          "4095"
//   bools             "True" / "False"
//   strings           single-quoted; \\ \' \n \r \t and \xHH escapes   "'a\'b'"
//
// Parsers take a cursor by reference and the end, consume exactly one value
// and leave the cursor behind it. deserializeAttr<T> names the attribute it
// parses in every message it raises.

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

#include "Rig/Exception.h"
#include "Rig/String.h"

namespace Rig {

using Cursor = String::IteratorConst;

String valueToStrep(unsigned long long value);
String valueToStrep(bool value);
String valueToStrep(const String & value);

// Demands `literal` at the cursor and moves past it; raises ParseException
// naming what was expected and what was found.
void needString(Cursor & cursor, Cursor end, std::string_view literal);

// Demands that `found`, the text a value of attribute `attributeName` was
// parsed from, be `canonical`, the text that value prints as. The value
// parsers also take other spellings of a value (leading zeros, upper-case
// hex, escapes of characters that need none, a number for a named code);
// a record's text takes none of them. Raises ParseException naming both.
void needCanonicalText(std::string_view attributeName, std::string_view found,
                       std::string_view canonical);

// Rejects anything left in `text` behind the cursor.
void strepToValueEnd(const String & text, Cursor cursor);

// Raises `exception` again with "in attribute '<name>'" added to its message.
[[noreturn]] void rethrowFromDeserializeAttr(const RangeException & exception,
                                             std::string_view attributeName);

namespace Impl {
uint64_t parseUnsigned(Cursor & cursor, Cursor end, std::string_view attributeName,
                       uint64_t maximum);
bool parseBool(Cursor & cursor, Cursor end, std::string_view attributeName);
String parseQuoted(Cursor & cursor, Cursor end, std::string_view attributeName);
}  // namespace Impl

// The runtime's texts (String, Name): quoted strings. std::string's
// iterator-range constructor makes them constructible from (cursor, end) too,
// so they are told apart from records by type, not by that constructor.
template <typename T>
concept TextType = std::derived_from<T, String>;

// A record type parses itself: it has a constructor from (cursor, end).
template <typename T>
concept TextConstructible =
    std::is_class_v<T> && !TextType<T> && std::constructible_from<T, Cursor &, Cursor>;

// Parses one value of T at the cursor as the value of attribute `attributeName`.
//   - unsigned integers of every width and bool: parsed here; out of range
//     raises RangeException naming the attribute;
//   - String and Name: the quoted form above;
//   - records: their text constructor, with RangeException re-raised through
//     rethrowFromDeserializeAttr;
//   - other types (addresses, enumerations): `sequenceToValue(cursor, end,
//     attributeName, (T*)nullptr)` found in T's namespace.
template <typename T>
T deserializeAttr(Cursor & cursor, Cursor end, std::string_view attributeName) {
  if constexpr (std::is_same_v<T, bool>) {
    return Impl::parseBool(cursor, end, attributeName);
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    return static_cast<T>(
        Impl::parseUnsigned(cursor, end, attributeName, std::numeric_limits<T>::max()));
  } else if constexpr (TextType<T>) {
    return T(Impl::parseQuoted(cursor, end, attributeName));
  } else if constexpr (TextConstructible<T>) {
    try {
      return T(cursor, end);
    } catch (const RangeException & exception) {
      rethrowFromDeserializeAttr(exception, attributeName);
    }
  } else {
    try {
      return sequenceToValue(cursor, end, attributeName, static_cast<T *>(nullptr));
    } catch (const RangeException & exception) {
      rethrowFromDeserializeAttr(exception, attributeName);
    }
  }
}

// Parses `text` whole as one value of T.
template <typename T>
T strepToValue(const String & text, T * = nullptr) {
  Cursor cursor = text.begin();
  T value = [&] {
    if constexpr (TextConstructible<T>) {
      return T(cursor, text.end());
    } else {
      return deserializeAttr<T>(cursor, text.end(), "value");
    }
  }();
  strepToValueEnd(text, cursor);
  return value;
}

}  // namespace Rig

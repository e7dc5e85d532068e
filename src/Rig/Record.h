#pragma once
// Records: fixed-size, pointer-free value types described once by a field
// list, from which their text form, strict parser, equality, order and hash
// are all derived. A new record type is a field list and a type name; it
// never needs code of its own for any of these.
//
// A record type T opts in by
//   - declaring RIG_RECORD_DECLARE(T) (and RIG_KEY_DECLARE(T) for a key) in
//     its class, and RIG_RECORD_DEFINE(T) / RIG_KEY_DEFINE(T) in one source;
//   - specialising Rig::Record::Layout<T> with
//       static constexpr std::string_view typeName;   e.g. "TesselHwLib::X"
//       static constexpr auto fields = std::tuple{Field{...}, ...};
//     and optionally `static constexpr bool bare = true` for a record of one
//     field whose text is that field's text alone.
//
// Text form:  Value('<typeName>', ** {'<field>': <text>, '<field>': <text>})
// Parsing demands exactly that: every literal in order, no other blanks, no
// missing, extra or reordered fields; each value is read by
// Rig::deserializeAttr with the field's name, so a failure names the field,
// and must be written as its value prints (Rig::needCanonicalText), so that a
// record has one text and every text a record takes prints back as it was.
//
// Field texts: bools and unsigned numbers by Rig::valueToStrep (numbers
// widened to 64 bits); any other type by a valueToStrep found in its own
// namespace. Field hashes: unsigned numbers and bools enter Rig::Hash as
// their own width (hashMix<sizeof>); any other type by a hashInto(Rig::Hash&,
// value) found in its namespace. Equality and order go field by field, in
// list order, and never over raw bytes, so padding takes no part.

#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Rig/Hash.h"
#include "Rig/RigType.h"
#include "Rig/ValueText.h"

namespace Rig::Record {

// One field of a record: its name, its attribute id and its member. A
// read-only field can be read by attribute but not written (an entry's key,
// set when the entry is made).
template <typename Owner, typename T>
struct Field {
  std::string_view name;
  unsigned attributeId;
  T Owner::*member;
  bool readOnly = false;
};

// Deduces a Field's types from its member, for compilers without deduction of
// aggregates' template arguments (clang before 17).
template <typename Owner, typename T>
Field(std::string_view, unsigned, T Owner::*, bool = false) -> Field<Owner, T>;

template <typename T>
struct Layout;

template <typename T>
concept Described = requires {
  Layout<T>::typeName;
  Layout<T>::fields;
};

template <typename T>
constexpr bool isBare() {
  if constexpr (requires { Layout<T>::bare; }) {
    return Layout<T>::bare;
  } else {
    return false;
  }
}

template <Described T, typename Visitor>
void forEachField(Visitor && visit) {
  std::apply([&](const auto &... field) { (visit(field), ...); }, Layout<T>::fields);
}

template <typename T>
Rig::String fieldText(const T & value) {
  if constexpr (std::is_same_v<T, bool>) {
    return Rig::valueToStrep(value);
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    return Rig::valueToStrep(static_cast<unsigned long long>(value));
  } else {
    return valueToStrep(value);
  }
}

template <typename T>
void hashField(Rig::Hash & hash, const T & value) {
  if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    hash.template hashMix<sizeof(T)>(value);
  } else {
    hashInto(hash, value);
  }
}

template <Described T>
Rig::String toStrep(const T & value) {
  std::string text;
  if constexpr (isBare<T>()) {
    forEachField<T>([&](const auto & field) { text = fieldText(value.*field.member); });
    return text;
  }
  text.reserve(256);
  text += "Value('";
  text += Layout<T>::typeName;
  text += "', ** {";
  bool first = true;
  forEachField<T>([&](const auto & field) {
    text += first ? "'" : ", '";
    first = false;
    text += field.name;
    text += "': ";
    text += fieldText(value.*field.member);
  });
  text += "})";
  return text;
}

// Parses into `value`, which the caller has default-constructed. Raises on the
// first mismatch; the caller never sees a partly parsed record.
template <Described T>
void parse(T & value, Cursor & cursor, Cursor end) {
  auto readField = [&](const auto & field) {
    using FieldType = std::remove_cvref_t<decltype(value.*field.member)>;
    Cursor start = cursor;
    value.*field.member = Rig::deserializeAttr<FieldType>(cursor, end, field.name);
    // A record inside a record is held to this by its own parse.
    if constexpr (!Described<FieldType>) {
      needCanonicalText(field.name, std::string_view(start, cursor),
                        fieldText(value.*field.member));
    }
  };
  if constexpr (isBare<T>()) {
    forEachField<T>(readField);
    return;
  }
  std::string literal = "Value('";
  literal += Layout<T>::typeName;
  literal += "', ** {";
  needString(cursor, end, literal);
  bool first = true;
  forEachField<T>([&](const auto & field) {
    literal = first ? "'" : ", '";
    first = false;
    literal += field.name;
    literal += "': ";
    needString(cursor, end, literal);
    readField(field);
  });
  needString(cursor, end, "})");
}

template <Described T>
bool equal(const T & a, const T & b) {
  bool same = true;
  forEachField<T>([&](const auto & field) { same = same && a.*field.member == b.*field.member; });
  return same;
}

// Lexicographic in field order: the first field that differs decides.
template <Described T>
bool less(const T & a, const T & b) {
  int decided = 0;  // -1 a first, 1 b first, 0 equal so far
  forEachField<T>([&](const auto & field) {
    if (decided == 0) {
      if (a.*field.member < b.*field.member) {
        decided = -1;
      } else if (b.*field.member < a.*field.member) {
        decided = 1;
      }
    }
  });
  return decided < 0;
}

template <Described T>
bool isDefault(const T & value) {
  return equal(value, T());
}

template <Described T>
uint32_t hash(const T & value, uint32_t seed) {
  Rig::Hash state(seed);
  forEachField<T>([&](const auto & field) { hashField(state, value.*field.member); });
  return state.result();
}

}  // namespace Rig::Record

// Declares, inside record class T, the operations every record has: the text
// constructor, equality and operator! (equal to a default-constructed T),
// and its type record for reflection (Rig/GenericIf.h), which the library
// that registers T defines.
#define RIG_RECORD_DECLARE(T)                               \
  friend struct ::Rig::Record::Layout<T>;                   \
                                                            \
 public:                                                   \
  static const ::Rig::RigType _rigType;                     \
  T(::Rig::Cursor & cursor, ::Rig::Cursor end);             \
  bool operator==(const T & other) const;                   \
  bool operator!() const

// Declares what a key has beyond that: its order and its 32-bit hash.
#define RIG_KEY_DECLARE(T)                  \
  bool operator<(const T & other) const;    \
  uint32_t hash(uint32_t seed) const

// Define in one source, after the Layout specialisation.
#define RIG_RECORD_DEFINE(T)                                                                  \
  T::T(::Rig::Cursor & cursor, ::Rig::Cursor end) : T() {                                     \
    ::Rig::Record::parse(*this, cursor, end);                                                 \
  }                                                                                           \
  bool T::operator==(const T & other) const { return ::Rig::Record::equal(*this, other); }    \
  bool T::operator!() const { return ::Rig::Record::isDefault(*this); }

#define RIG_KEY_DEFINE(T)                                                                     \
  bool T::operator<(const T & other) const { return ::Rig::Record::less(*this, other); }      \
  uint32_t T::hash(uint32_t seed) const { return ::Rig::Record::hash(*this, seed); }

// Field-list helpers. A record's fields are one X-macro list of
// FIELD(type, name, attributeId, offset); these expand it into members,
// accessors (getter `name()`, setter `nameIs()`), Layout descriptors and a
// check of each field's byte offset (the last two inside a Layout
// specialisation that names its record type `Self`).
#define RIG_FIELD_MEMBER(type, name, id, offset) type name##_{};
#define RIG_FIELD_ACCESSORS(type, name, id, offset)    \
  const type & name() const { return name##_; }        \
  void name##Is(const type & value) { name##_ = value; }
#define RIG_FIELD_DESCRIPTOR(type, name, id, offset) ::Rig::Record::Field{#name, id, &Self::name##_},
#define RIG_READ_ONLY_FIELD_DESCRIPTOR(type, name, id, offset) ::Rig::Record::Field{#name, id, &Self::name##_, true},
#define RIG_FIELD_OFFSET_CHECK(type, name, id, offset) \
  static_assert(offsetof(Self, name##_) == (offset), "'" #name "' lies at byte " #offset " of the record");

// Records that derive from a base are not standard-layout; g++ lays out such
// single-inheritance records predictably and computes offsetof for them,
// which is what the offset checks of file formats rely on.
#define RIG_OFFSET_CHECKS_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define RIG_OFFSET_CHECKS_END _Pragma("GCC diagnostic pop")

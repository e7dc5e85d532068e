#pragma once
// Records: fixed-size, pointer-free value types described once by a field
// list, from which their text form, strict parser, equality, order and hash
// are all derived. A new record type is a field list and a type name; it
// never needs code of its own for any of these.
//
// A record type T opts in by
//   - declaring RIG_RECORD_DECLARE(T) (and RIG_KEY_DECLARE(T) for a key) in
//     its class, RIG_RECORD_INLINE(T) (and RIG_KEY_INLINE(T)) in its header
//     after its Layout, and RIG_RECORD_DEFINE(T) / RIG_KEY_DEFINE(T) in one
//     source;
//   - specialising Rig::Record::Layout<T> with
//       static constexpr std::string_view typeName;   e.g. "TesselHwLib::X"
//       static constexpr auto fields = std::tuple{Field{...}, ...};
//     and optionally `static constexpr bool bare = true` for a record of one
//     field whose text is that field's text alone, and `static constexpr
//     std::size_t padding` for a record with a Padding member of that length.
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
// value) found in its namespace. Order goes field by field, in list order.
// Equality compares bytes where a record's bytes are a function of its value
// (hasUniqueBytes below: no byte outside a field but explicit, zeroed
// Padding), and goes field by field otherwise, so that stray padding never
// takes part.
//
// Equality and the hash are inline (RIG_RECORD_INLINE, RIG_KEY_INLINE after
// the Layout specialisation), so that a table's lookup compares and hashes a
// key without a call; text and parsing live in one source.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
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

// A record's explicit tail padding: named bytes, zero from construction on,
// so that a record that lies in shared files has no byte whose value the
// compiler may leave undefined, and two equal records have equal images.
// Padding<0> is empty and, declared [[no_unique_address]], takes no byte.
template <std::size_t N>
struct Padding {
  static constexpr std::size_t length = N;
  std::array<uint8_t, N> bytes{};
};

template <>
struct Padding<0> {
  static constexpr std::size_t length = 0;
};

// Where a field lies in its record, from a field list's byte offsets.
struct Extent {
  std::size_t offset;
  std::size_t size;
  std::size_t align;
};

// The bytes from the end of the last field to the end of the record, whose
// size is a multiple of its strictest field alignment.
constexpr std::size_t tailPadding(std::initializer_list<Extent> extents) {
  std::size_t end = 0;
  std::size_t align = 1;
  for (const Extent & extent : extents) {
    end = std::max(end, extent.offset + extent.size);
    align = std::max(align, extent.align);
  }
  return (end + align - 1) / align * align - end;
}

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
constexpr void forEachField(Visitor && visit) {
  std::apply([&](const auto &... field) { (visit(field), ...); }, Layout<T>::fields);
}

template <typename T>
constexpr std::size_t paddingOf() {
  if constexpr (requires { Layout<T>::padding; }) {
    return Layout<T>::padding;
  } else {
    return 0;
  }
}

// Whether a record's bytes are a function of its value: its fields and its
// explicit Padding cover all of it (no byte of the compiler's padding), and
// every field's type has one object representation per value.
template <Described T>
constexpr bool hasUniqueBytes() {
  std::size_t covered = paddingOf<T>();
  bool unique = true;
  forEachField<T>([&](const auto & field) {
    using FieldType = std::remove_cvref_t<decltype(std::declval<const T &>().*field.member)>;
    covered += sizeof(FieldType);
    unique = unique && std::has_unique_object_representations_v<FieldType>;
  });
  return unique && covered == sizeof(T);
}

// Byte equality of two objects of N bytes, a word at a time without an early
// exit (the compiler turns it into a few vector compares, not a call).
template <std::size_t N>
bool sameBytes(const void * a, const void * b) {
  const auto * x = static_cast<const unsigned char *>(a);
  const auto * y = static_cast<const unsigned char *>(b);
  uint64_t differ = 0;
  std::size_t at = 0;
  for (; at + 8 <= N; at += 8) {
    uint64_t left;
    uint64_t right;
    std::memcpy(&left, x + at, 8);
    std::memcpy(&right, y + at, 8);
    differ |= left ^ right;
  }
  for (; at < N; ++at) {
    differ |= x[at] ^ y[at];
  }
  return differ == 0;
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
  if constexpr (hasUniqueBytes<T>()) {
    return sameBytes<sizeof(T)>(&a, &b);
  } else {
    bool same = true;
    forEachField<T>([&](const auto & field) { same = same && a.*field.member == b.*field.member; });
    return same;
  }
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

// Define in the header, right after the Layout specialisation, at global
// scope with T fully qualified: what a lookup needs, inline.
#define RIG_RECORD_INLINE(T) \
  inline bool T::operator==(const T & other) const { return ::Rig::Record::equal(*this, other); }

#define RIG_KEY_INLINE(T) \
  inline uint32_t T::hash(uint32_t seed) const { return ::Rig::Record::hash(*this, seed); }

// Define in one source, after the Layout specialisation.
#define RIG_RECORD_DEFINE(T)                                              \
  T::T(::Rig::Cursor & cursor, ::Rig::Cursor end) : T() {                 \
    ::Rig::Record::parse(*this, cursor, end);                             \
  }                                                                       \
  bool T::operator!() const { return ::Rig::Record::isDefault(*this); }

#define RIG_KEY_DEFINE(T) \
  bool T::operator<(const T & other) const { return ::Rig::Record::less(*this, other); }

// Field-list helpers. A record's fields are one X-macro list of
// FIELD(type, name, attributeId, offset); these expand it into members,
// accessors (getter `name()`, setter `nameIs()`), Layout descriptors, the
// field's extent (for Padding) and a check of each field's byte offset (the last two inside a Layout
// specialisation that names its record type `Self`).
#define RIG_FIELD_MEMBER(type, name, id, offset) type name##_{};
#define RIG_FIELD_ACCESSORS(type, name, id, offset)    \
  const type & name() const { return name##_; }        \
  void name##Is(const type & value) { name##_ = value; }
#define RIG_FIELD_DESCRIPTOR(type, name, id, offset) ::Rig::Record::Field{#name, id, &Self::name##_},
#define RIG_READ_ONLY_FIELD_DESCRIPTOR(type, name, id, offset) ::Rig::Record::Field{#name, id, &Self::name##_, true},
#define RIG_FIELD_EXTENT(type, name, id, offset) ::Rig::Record::Extent{offset, sizeof(type), alignof(type)},
#define RIG_FIELD_OFFSET_CHECK(type, name, id, offset) \
  static_assert(offsetof(Self, name##_) == (offset), "'" #name "' lies at byte " #offset " of the record");

// Records that derive from a base are not standard-layout; g++ lays out such
// single-inheritance records predictably and computes offsetof for them,
// which is what the offset checks of file formats rely on.
#define RIG_OFFSET_CHECKS_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define RIG_OFFSET_CHECKS_END _Pragma("GCC diagnostic pop")

#pragma once
// The table layer's records: every key and entry type of this library is a
// field list over Rig/Record.h. An entry is a P4Runtime base, then its key
// (attribute 130, read-only by attribute: set at construction), then its own
// fields. TESSEL_ENTRY_CLASS and TESSEL_ENTRY_LAYOUT expand one field list
// into the class and its Layout, and TESSEL_KEY_CLASS and TESSEL_KEY_LAYOUT
// do the same for a key of several fields, so that a new table type is a
// field list.

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <tuple>
#include <type_traits>

#include "Rig/Record.h"

// The field list of a record that adds no fields of its own.
#define TESSEL_NO_FIELDS(FIELD)

namespace TesselHwLib {

// The text form of every record of this library.
template <Rig::Record::Described T>
Rig::String valueToStrep(const T & value) {
  return Rig::Record::toStrep(value);
}

template <Rig::Record::Described T>
std::ostream & operator<<(std::ostream & stream, const T & value) {
  return stream << valueToStrep(value);
}

}  // namespace TesselHwLib

// class Name { FIELDS... } for a key of a TCAM table: the default constructor
// (all zero, addresses unset), accessors of every field, the text
// constructor, equality, operator!, order and hash. Further public
// declarations of the one key that needs them (its validation, say) follow as
// extra arguments. The bytes behind the last field, up to the key's
// alignment, are explicit zero Padding: every constructor zeroes them and
// every copy carries them, so a key's image is a function of its fields and
// keys compare by their bytes.
#define TESSEL_KEY_CLASS(Name, FIELDS, ...)                                                 \
  class Name {                                                                              \
   public:                                                                                  \
    Name() = default;                                                                       \
    FIELDS(RIG_FIELD_ACCESSORS)                                                             \
    __VA_ARGS__                                                                             \
    RIG_RECORD_DECLARE(Name);                                                               \
    RIG_KEY_DECLARE(Name);                                                                  \
                                                                                            \
   private:                                                                                 \
    FIELDS(RIG_FIELD_MEMBER)                                                                \
    [[no_unique_address]] ::Rig::Record::Padding<::Rig::Record::tailPadding(                \
        {FIELDS(RIG_FIELD_EXTENT)})> padding_;                                              \
  };

// Layout<Name> of a key made by TESSEL_KEY_CLASS, its inline equality and
// hash, and the checks that keep it fit to lie in a shared file inside its
// entries: its size (padding included), each field's offset, that it copies
// byte for byte, and that its bytes are a function of its value (no gap
// between fields; equality compares bytes).
#define TESSEL_KEY_LAYOUT(Name, FIELDS, size)                                               \
  template <>                                                                               \
  struct Rig::Record::Layout<TesselHwLib::Name> {                                           \
    using Self = TesselHwLib::Name;                                                         \
    static constexpr std::string_view typeName = "TesselHwLib::" #Name;                     \
    static constexpr std::tuple fields{FIELDS(RIG_FIELD_DESCRIPTOR)};                       \
    static constexpr std::size_t padding = decltype(Self::padding_)::length;                \
    static_assert(sizeof(Self) == (size), #Name " is " #size " bytes in slot files");       \
    static_assert(std::is_trivially_copyable_v<Self>,                                       \
                  #Name " is copied byte for byte into shared files");                      \
    FIELDS(RIG_FIELD_OFFSET_CHECK)                                                          \
  };                                                                                        \
  RIG_RECORD_INLINE(TesselHwLib::Name)                                                      \
  RIG_KEY_INLINE(TesselHwLib::Name)                                                         \
  static_assert(::Rig::Record::hasUniqueBytes<TesselHwLib::Name>(),                         \
                #Name " has no padding but its explicit Padding: keys compare by bytes")

// class Name : public Base { key, FIELDS... } with constructors default (all
// zero), from a key, copy and from text. Further public declarations of the
// one type that needs them (a key setter, say) follow as extra arguments.
#define TESSEL_ENTRY_CLASS(Name, Base, Key, FIELDS, ...)  \
  class Name : public Base {                              \
   public:                                                \
    using BaseType = Base;                                \
    using KeyType = Key;                                  \
    Name() = default;                                     \
    explicit Name(const Key & key) : key_(key) {}         \
    const Key & key() const { return key_; }              \
    FIELDS(RIG_FIELD_ACCESSORS)                           \
    __VA_ARGS__                                           \
    RIG_RECORD_DECLARE(Name);                             \
                                                          \
   private:                                               \
    Key key_;                                             \
    FIELDS(RIG_FIELD_MEMBER)                              \
  };

// Layout<Name>: the base's fields, the key, then FIELDS, in that order, its
// inline equality, and the checks that keep the record fit to lie in a shared file: its size, each
// field's offset, and that it copies byte for byte.
#define TESSEL_ENTRY_LAYOUT(Name, Base, FIELDS, size)                                         \
  template <>                                                                                 \
  struct Rig::Record::Layout<TesselHwLib::Name> {                                             \
    using Self = TesselHwLib::Name;                                                           \
    static constexpr std::string_view typeName = "TesselHwLib::" #Name;                       \
    static constexpr auto fields =                                                            \
        std::tuple_cat(Layout<Base>::fields, std::tuple{Field{"key", 130, &Self::key_, true}},     \
                       std::tuple{FIELDS(RIG_FIELD_DESCRIPTOR)});                             \
    static_assert(sizeof(Self) == (size), #Name " is " #size " bytes in slot files");         \
    RIG_OFFSET_CHECKS_BEGIN                                                                   \
    static_assert(offsetof(Self, key_) == 24, #Name " keeps its key at byte 24");             \
    FIELDS(RIG_FIELD_OFFSET_CHECK)                                                            \
    RIG_OFFSET_CHECKS_END                                                                     \
  };                                                                                          \
  RIG_RECORD_INLINE(TesselHwLib::Name)                                                        \
  static_assert(std::is_trivially_copyable_v<TesselHwLib::Name>,                              \
                #Name " is copied byte for byte into shared files")

#pragma once
// Type records derived from a record type's field list (Rig/Record.h), so
// that no type's reflection is written by hand: its attributes, their ids
// and kinds, its constructor arguments, its value methods and its one
// attribute entry point all follow from Rig::Record::Layout<T>::fields and
// from the operations the type has.
//
// The attributes of a record type T, in order:
//   - each field of the list, under its own attribute id; the owner is the
//     class that declares the member (a base, for inherited fields); a field
//     marked read-only in its descriptor takes only operation 0;
//   - then the operations T has, each under the next id after the last
//     field's: validateEntryKey (its status record), hash (32 bits, seed 0),
//     keyIs (one argument, "newKey"). Only operation 8 calls them.
//
// Constructor arguments: a key (a type with a hash) takes none; an entry (a
// type with a KeyType it can be made from) takes "key"; a record that can be
// made from all its fields takes them, under their names.
//
// Every record is constant data: records refer to each other by address
// only, so all of them are constant-initialised, whatever the order of
// definition.

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Rig/AttributeOp.h"
#include "Rig/Entity.h"
#include "Rig/Hash.h"
#include "Rig/Record.h"
#include "Rig/RigType.h"
#include "Rig/String.h"
#include "Rig/TypeRegistry.h"
#include "Rig/ValueText.h"

namespace Rig::GenericIfImpl {

// The name of a type without a record of its own (T::_rigType). The runtime
// names its basic types; a library names the others that its records use.
template <typename T>
struct TypeName;

template <>
struct TypeName<bool> {
  static constexpr const char * value = "bool";
};
template <>
struct TypeName<uint8_t> {
  static constexpr const char * value = "U8";
};
template <>
struct TypeName<uint16_t> {
  static constexpr const char * value = "U16";
};
template <>
struct TypeName<uint32_t> {
  static constexpr const char * value = "U32";
};
template <>
struct TypeName<uint64_t> {
  static constexpr const char * value = "U64";
};
template <>
struct TypeName<String> {
  static constexpr const char * value = "Rig::String";
};
template <>
struct TypeName<Name> {
  static constexpr const char * value = "Rig::Name";
};

template <typename T>
struct TypeRecord {
  static const RigType record_;
};

// The record of T: its own T::_rigType, or one derived here.
template <typename T>
constexpr const RigType * rigTypeOf() {
  if constexpr (std::is_void_v<T>) {
    return nullptr;
  } else if constexpr (requires { { &T::_rigType } -> std::same_as<const RigType *>; }) {
    return &T::_rigType;
  } else {
    return &TypeRecord<T>::record_;
  }
}

// Pointer conversion of every type (RigType.h, genericIfVoidPtrIs).
void * voidPtrIs(void * pointer, const RigType * from, const RigType * to);
[[noreturn]] void throwNoTextForm(const RigType * type);

// ---- value methods

template <typename T>
concept HasText = std::is_arithmetic_v<T> || requires(const T & value) { valueToStrep(value); };

template <typename T>
concept KeyHashed = requires(const T & value) {
  { value.hash(uint32_t{0}) } -> std::same_as<uint32_t>;
};

template <typename T>
struct ValueMethods {
  static void construct(void * target, const void * source) {
    if (source != nullptr) {
      new (target) T(*static_cast<const T *>(source));
    } else {
      new (target) T();
    }
  }
  static void destruct(void * target) { std::destroy_at(static_cast<T *>(target)); }
  static void strepToValue(void * target, const String & text, const RigType * /*type*/) {
    *static_cast<T *>(target) = Rig::strepToValue<T>(text);
  }
  static String strRep(const void * value, const RigType * /*type*/) {
    return Record::fieldText(*static_cast<const T *>(value));
  }
  static uint32_t hash(const void * value, const RigType * type) {
    if constexpr (KeyHashed<T>) {
      return static_cast<const T *>(value)->hash(0);
    } else if constexpr (std::is_integral_v<T>) {
      return hashSingleAttr(0, static_cast<uint64_t>(*static_cast<const T *>(value)));
    } else {
      throwUnhashableException(type);
    }
  }
  static constexpr GenericIfMethods table_{&construct, &destruct, &strepToValue, &strRep, &hash, &voidPtrIs};
};

// The value methods of an entity, held as a Rig::Ptr: copies count, the text
// is the entity's name ("None" for null), the hash is the object's identity.
template <typename T>
struct GenericIfPtrInterfaceMethods {
  static void construct(void * target, const void * source) {
    new (target) Ptr<T>(source != nullptr ? *static_cast<const Ptr<T> *>(source) : Ptr<T>());
  }
  static void destruct(void * target) { std::destroy_at(static_cast<Ptr<T> *>(target)); }
  static void strepToValue(void * /*target*/, const String & /*text*/, const RigType * type) {
    throwNoTextForm(type);
  }
  static String strRep(const void * value, const RigType * /*type*/) {
    const Ptr<T> & object = *static_cast<const Ptr<T> *>(value);
    return object ? String(object->name()) : String("None");
  }
  static uint32_t hash(const void * value, const RigType * /*type*/) {
    return hashSingleAttr(0, reinterpret_cast<uintptr_t>(static_cast<const Ptr<T> *>(value)->ptr()));
  }
  static constexpr GenericIfMethods vtable_{&construct, &destruct, &strepToValue, &strRep, &hash, &voidPtrIs};
};

// ---- operations of records

template <typename T>
inline constexpr RigArgument keyIsArguments[] = {{"newKey", rigTypeOf<typename T::KeyType>()}, {}};

struct ValidateEntryKeyOperation {
  static constexpr const char * name = "validateEntryKey";
  template <typename T>
  static constexpr bool applies = requires(const T & value) { value.validateEntryKey(); };
  template <typename T>
  static constexpr const RigType * result() {
    return rigTypeOf<decltype(std::declval<const T &>().validateEntryKey())>();
  }
  static constexpr bool takesArgument = false;
  template <typename T>
  static constexpr const RigArgument * arguments() {
    return nullptr;
  }
  template <typename T>
  static void call(T & value, void * result, const void * /*argument*/) {
    using Result = decltype(value.validateEntryKey());
    *static_cast<Result *>(result) = value.validateEntryKey();
  }
};

struct HashOperation {
  static constexpr const char * name = "hash";
  template <typename T>
  static constexpr bool applies = KeyHashed<T>;
  template <typename T>
  static constexpr const RigType * result() {
    return rigTypeOf<uint32_t>();
  }
  static constexpr bool takesArgument = false;
  template <typename T>
  static constexpr const RigArgument * arguments() {
    return nullptr;
  }
  template <typename T>
  static void call(T & value, void * result, const void * /*argument*/) {
    *static_cast<uint32_t *>(result) = value.hash(0);
  }
};

struct KeyIsOperation {
  static constexpr const char * name = "keyIs";
  // T::KeyType is named inside the requirement, where a T without one makes
  // the requirement false; named among its parameters, clang rejects such a T
  // outright.
  template <typename T>
  static constexpr bool applies =
      requires(T & value) { value.keyIs(std::declval<const typename T::KeyType &>()); };
  template <typename T>
  static constexpr const RigType * result() {
    return nullptr;
  }
  static constexpr bool takesArgument = true;
  template <typename T>
  static constexpr const RigArgument * arguments() {
    return keyIsArguments<T>;
  }
  template <typename T>
  static void call(T & value, void * /*result*/, const void * argument) {
    value.keyIs(*static_cast<const typename T::KeyType *>(argument));
  }
};

// In the order of their ids.
using Operations = std::tuple<ValidateEntryKeyOperation, HashOperation, KeyIsOperation>;

// Calls visit.template operator()<Op>() for each operation that T has.
template <typename T, typename Visitor>
constexpr void forEachOperation(Visitor && visit) {
  [&]<typename... Op>(std::tuple<Op...> *) {
    (
        [&] {
          if constexpr (Op::template applies<T>) {
            visit.template operator()<Op>();
          }
        }(),
        ...);
  }(static_cast<Operations *>(nullptr));
}

template <typename T>
constexpr size_t operationCount() {
  size_t count = 0;
  forEachOperation<T>([&]<typename Op>() { ++count; });
  return count;
}

// ---- attributes of records

template <typename T>
constexpr auto fieldsOf() {
  if constexpr (Record::Described<T>) {
    return Record::Layout<T>::fields;
  } else {
    return std::tuple<>{};
  }
}

template <typename T, typename Visitor>
constexpr void forEachFieldOf(Visitor && visit) {
  std::apply([&](const auto &... field) { (visit(field), ...); }, fieldsOf<T>());
}

// The id after which T's operations are numbered: its last field's, or 1
// for a type without fields (the first id of a type is 2).
template <typename T>
constexpr uint32_t lastFieldId() {
  uint32_t last = 1;
  forEachFieldOf<T>([&](const auto & field) { last = field.attributeId > last ? field.attributeId : last; });
  return last;
}

template <typename Owner, typename F>
constexpr RigAttribute fieldAttribute(const Record::Field<Owner, F> & field) {
  return {field.name.data(), rigTypeOf<Owner>(), rigTypeOf<F>(), nullptr, nullptr, nullptr, field.attributeId,
          field.readOnly ? AttributeFlags::readOnlyField : AttributeFlags::plainField};
}

template <typename T>
constexpr auto makeAttributes() {
  constexpr size_t count = std::tuple_size_v<decltype(fieldsOf<T>())> + operationCount<T>();
  std::array<RigAttribute, count> attributes{};
  size_t index = 0;
  forEachFieldOf<T>([&](const auto & field) { attributes[index++] = fieldAttribute(field); });
  uint32_t id = lastFieldId<T>();
  forEachOperation<T>([&]<typename Op>() {
    // takesArgument, not a comparison of the argument table's address with
    // null: the sanitizers' instrumentation keeps such a comparison from
    // being a constant expression.
    attributes[index++] = {Op::name, rigTypeOf<T>(), Op::template result<T>(), nullptr, nullptr,
                           Op::template arguments<T>(), ++id,
                           Op::takesArgument ? AttributeFlags::operationWithArgument : AttributeFlags::operation};
  });
  return attributes;
}

template <typename T>
inline constexpr auto attributesOf = makeAttributes<T>();

// ---- the attribute entry point of records

template <typename F>
uint32_t fieldOp(F & member, bool readOnly, uint32_t operation, void * result, const void * argument2) {
  if (operation == 0) {
    *static_cast<F *>(result) = member;
    return attributeDone;
  }
  if (operation == 1 && !readOnly) {
    member = *static_cast<const F *>(argument2);
    return attributeDone;
  }
  return attributeNotAllowed;
}

// Operations 9, 10 and 11, on the whole value, for a type that has the
// comparison they need.
template <typename T>
uint32_t wholeValueOp(const T & value, uint32_t operation, void * result, const void * argument1) {
  const auto answer = [&](bool outcome) {
    *static_cast<bool *>(result) = outcome;
    return attributeDone;
  };
  if constexpr (requires { value == value; }) {
    if (operation == 9) {
      if constexpr (requires { !value; }) {
        return answer(!value);
      } else {
        return answer(value == T());
      }
    }
    if (operation == 10) {
      return answer(value == *static_cast<const T *>(argument1));
    }
  }
  if constexpr (requires { value < value; }) {
    if (operation == 11) {
      return answer(value < *static_cast<const T *>(argument1));
    }
  }
  return attributeNotAllowed;
}

// Operation 8 of the operation of `id`; attributeUnknown if T has none.
template <typename T>
uint32_t operationOp(T & value, uint32_t id, uint32_t operation, void * result, const void * argument1) {
  uint32_t status = attributeUnknown;
  uint32_t next = lastFieldId<T>();
  forEachOperation<T>([&]<typename Op>() {
    if (++next == id) {
      status = attributeNotAllowed;
      if (operation == 8) {
        Op::call(value, result, argument1);
        status = attributeDone;
      }
    }
  });
  return status;
}

template <typename T>
uint32_t genericIfAttributeOp(void * result, void * object, const RigAttribute * attribute, uint32_t operation,
                              const void * argument1, const void * argument2) {
  T & value = *static_cast<T *>(object);
  if (attribute == nullptr) {
    return wholeValueOp(value, operation, result, argument1);
  }
  uint32_t status = attributeUnknown;
  forEachFieldOf<T>([&](const auto & field) {
    if (field.attributeId == attribute->id) {
      status = fieldOp(value.*field.member, field.readOnly, operation, result, argument2);
    }
  });
  return status != attributeUnknown ? status : operationOp(value, attribute->id, operation, result, argument1);
}

// ---- constructor arguments

template <typename T>
concept EntryRecord = requires { typename T::KeyType; } && std::is_constructible_v<T, const typename T::KeyType &>;

// The type of field `index` of T's list.
template <typename T, size_t index>
using FieldType = std::remove_cvref_t<decltype(std::declval<T &>().*std::get<index>(Record::Layout<T>::fields).member)>;

template <typename T>
constexpr bool madeFromFields() {
  if constexpr (Record::Described<T>) {
    return std::apply(
        [](const auto &... field) {
          return std::is_constructible_v<T, const std::remove_cvref_t<decltype(std::declval<T &>().*field.member)> &...>;
        },
        Record::Layout<T>::fields);
  } else {
    return false;
  }
}

template <typename T>
constexpr auto makeCtorArguments() {
  if constexpr (KeyHashed<T>) {
    return std::array<RigArgument, 0>{};
  } else if constexpr (EntryRecord<T>) {
    return std::array<RigArgument, 2>{{{"key", rigTypeOf<typename T::KeyType>()}, {}}};
  } else if constexpr (madeFromFields<T>()) {
    constexpr size_t count = std::tuple_size_v<decltype(Record::Layout<T>::fields)>;
    std::array<RigArgument, count + 1> arguments{};
    size_t index = 0;
    forEachFieldOf<T>([&](const auto & field) {
      arguments[index++] = {field.name.data(), fieldAttribute(field).valueType};
    });
    return arguments;
  } else {
    return std::array<RigArgument, 0>{};
  }
}

template <typename T>
inline constexpr auto ctorArgumentsOf = makeCtorArguments<T>();

template <typename T>
void genericIfConstructFromCtorArgs(void * target, const void * const * arguments) {
  if constexpr (KeyHashed<T>) {
    new (target) T();
  } else if constexpr (EntryRecord<T>) {
    new (target) T(*static_cast<const typename T::KeyType *>(arguments[0]));
  } else if constexpr (madeFromFields<T>()) {
    constexpr size_t count = std::tuple_size_v<decltype(Record::Layout<T>::fields)>;
    [&]<size_t... Index>(std::index_sequence<Index...>) {
      new (target) T(*static_cast<const FieldType<T, Index> *>(arguments[Index])...);
    }(std::make_index_sequence<count>{});
  } else {
    new (target) T();
  }
}

// ---- the record of a value type

template <typename T>
constexpr const RigType * baseOf() {
  if constexpr (requires { typename T::BaseType; }) {
    return rigTypeOf<typename T::BaseType>();
  } else {
    return nullptr;
  }
}

template <typename T>
constexpr RigType valueTypeRecord(const char * name) {
  const auto & attributes = attributesOf<T>;
  const auto & arguments = ctorArgumentsOf<T>;
  RigType type;
  type.name = name;
  type.base = baseOf<T>();
  type.attributes = attributes.empty() ? nullptr : attributes.data();
  type.ctorArgs = arguments.empty() ? nullptr : arguments.data();
  if constexpr (HasText<T>) {
    type.methods = &ValueMethods<T>::table_;
  }
  if constexpr (std::is_default_constructible_v<T>) {
    type.genericIfConstructFromCtorArgs = &genericIfConstructFromCtorArgs<T>;
  }
  type.genericIfAttributeOp = &genericIfAttributeOp<T>;
  type.size = sizeof(T);
  type.attributeCount = static_cast<uint32_t>(attributes.size());
  // A polymorphic type (a control object a pointer attribute refers to, say)
  // has its table pointer first, as an entity does.
  type.flags = std::is_polymorphic_v<T> ? TypeFlags::entity : TypeFlags::value;
  return type;
}

template <typename T>
constinit const RigType TypeRecord<T>::record_ = valueTypeRecord<T>(TypeName<T>::value);

// ---- the attributes of every entity

}  // namespace Rig::GenericIfImpl

namespace Rig::EntityAttributeId {
inline constexpr uint32_t name = 130;
inline constexpr uint32_t parent = 138;
inline constexpr uint32_t parentAttrName = 139;
inline constexpr uint32_t fullName = 141;
inline constexpr uint32_t entity = 143;
}  // namespace Rig::EntityAttributeId

namespace Rig::GenericIfImpl {

inline constexpr RigArgument entityArguments[] = {{"name", rigTypeOf<Name>()}, {}};

// name, fullName, parent, parentAttrName, entity: the first attributes of
// every entity type, owned by Rig::Entity.
inline constexpr std::array<RigAttribute, 5> entityAttributes{{
    {"name", &Entity::_rigType, rigTypeOf<Name>(), nullptr, nullptr, nullptr, EntityAttributeId::name,
     AttributeFlags::readOnlyField},
    {"fullName", &Entity::_rigType, rigTypeOf<String>(), nullptr, nullptr, nullptr, EntityAttributeId::fullName,
     AttributeFlags::computed},
    {"parent", &Entity::_rigType, &Entity::_rigType, nullptr, nullptr, nullptr, EntityAttributeId::parent,
     AttributeFlags::entityParent},
    {"parentAttrName", &Entity::_rigType, rigTypeOf<String>(), nullptr, nullptr, nullptr,
     EntityAttributeId::parentAttrName, AttributeFlags::computed},
    {"entity", &Entity::_rigType, &Entity::_rigType, nullptr, nullptr, entityArguments, EntityAttributeId::entity,
     AttributeFlags::entityOperation},
}};

}  // namespace Rig::GenericIfImpl

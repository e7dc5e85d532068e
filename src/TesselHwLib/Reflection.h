#pragma once
// Type records of the table layer's entities, derived from their two generic
// designs (TesselHwLib/Collection.h, TesselHwLib/P4RTable.h) as the records
// of values are derived from their field lists (Rig/GenericIf.h). A record
// here is a function of the class and its factory alone.
//
// Attributes of an entity type, in order: the five of every entity (name,
// fullName, parent, parentAttrName, entity), then
//   a collection   258 table (entry values, indexed by the key, "key")
//                  259 tableControl (a Rig::Ptr<RigCairn::CollectionControl>)
//   a P4R table    258 config (a Rig::Ptr to the const Config collection)
//                  259 status (a Rig::Ptr to the Status collection)
// 258 and 259 go to the design's own attributeOp. Operation 1 hands it
// argument2, every other operation argument1.
//
// Entity base attributes: 130 name (0, a Rig::Name), 141 fullName (0, a
// Rig::String, the tree path), 138 parent (0, a Rig::Ptr<Rig::Entity>; an
// entity is placed by its directory, never by this attribute), 139
// parentAttrName (0, "entity" under a parent, else empty), 143 entity (8, the
// child of the Rig::Name at argument1 when the entity is a directory, else
// null).
//
// A collection walks its table by genericIfIterator on attribute 258 (any
// other attribute gives null), over a RigCairnMap::IteratorConst, and makes a
// new collection by newEntityForDir, which takes only a name.

#include <array>
#include <cstdint>
#include <new>
#include <type_traits>

#include "P4Runtime/ErrorCode.h"
#include "P4Runtime/TableEntryBase.h"
#include "Rig/GenericIf.h"
#include "Rig/RigType.h"
#include "Rig/TypeRegistry.h"
#include "RigCairn/CollectionControl.h"
#include "Wirekit/EthAddr.h"
#include "Wirekit/IpGenAddr.h"

// Names of the platform's types that the table layer's records hold.
#define TESSEL_TYPE_NAME(Type)                                      \
  template <>                                                       \
  struct Rig::GenericIfImpl::TypeName<Type> {                       \
    static constexpr const char * value = #Type;                    \
  };

TESSEL_TYPE_NAME(P4Runtime::ErrorCode)
TESSEL_TYPE_NAME(P4Runtime::TableConfigEntryBase)
TESSEL_TYPE_NAME(P4Runtime::TableStatusEntryBase)
TESSEL_TYPE_NAME(Wirekit::EthAddr)
TESSEL_TYPE_NAME(Wirekit::IpGenAddr)
TESSEL_TYPE_NAME(RigCairn::CollectionControl)

namespace TesselHwLib::Reflection {

// Operation `operation` on one of the five attributes of every entity.
uint32_t entityAttributeOp(Rig::Entity & entity, uint32_t attributeId, uint32_t operation, void * result,
                           const void * argument1);

template <typename T>
concept CollectionType = requires { typename T::EntryType; };

// The class a Rig::Ptr getter refers to.
template <typename P>
struct PointeeOf;
template <typename T>
struct PointeeOf<Rig::Ptr<T>> {
  using type = std::remove_const_t<T>;
};
template <typename Getter>
using Pointee = typename PointeeOf<std::remove_cvref_t<Getter>>::type;

template <typename T>
constexpr std::array<Rig::RigAttribute, 2> ownAttributes() {
  using namespace Rig::AttributeFlags;
  using Rig::GenericIfImpl::rigTypeOf;
  if constexpr (CollectionType<T>) {
    return {{
        {"table", &T::_rigType, rigTypeOf<typename T::EntryType>(), rigTypeOf<typename T::Key>(), "key", nullptr,
         T::TableAttribute, collection},
        {"tableControl", &T::_rigType, rigTypeOf<typename T::Control>(), nullptr, nullptr, nullptr,
         T::TableControlAttribute, pointer},
    }};
  } else {
    return {{
        {"config", &T::_rigType, rigTypeOf<Pointee<decltype(std::declval<T>().config())>>(), nullptr, nullptr,
         nullptr, T::ConfigAttribute, pointerToConst},
        {"status", &T::_rigType, rigTypeOf<Pointee<decltype(std::declval<T>().status())>>(), nullptr, nullptr,
         nullptr, T::StatusAttribute, pointer},
    }};
  }
}

template <typename T>
constexpr auto makeEntityAttributes() {
  const auto & base = Rig::GenericIfImpl::entityAttributes;
  const auto own = ownAttributes<T>();
  std::array<Rig::RigAttribute, base.size() + own.size()> attributes{};
  size_t index = 0;
  for (const Rig::RigAttribute & attribute : base) {
    attributes[index++] = attribute;
  }
  for (const Rig::RigAttribute & attribute : own) {
    attributes[index++] = attribute;
  }
  return attributes;
}

template <typename T>
inline constexpr auto entityAttributesOf = makeEntityAttributes<T>();

template <typename T>
uint32_t genericIfAttributeOp(void * result, void * object, const Rig::RigAttribute * attribute, uint32_t operation,
                              const void * argument1, const void * argument2) {
  if (attribute == nullptr) {
    return Rig::attributeNotAllowed;  // an entity is no value to compare
  }
  T & entity = *static_cast<T *>(object);
  if (attribute->owner == &Rig::Entity::_rigType) {
    return entityAttributeOp(entity, attribute->id, operation, result, argument1);
  }
  return entity.attributeOp(attribute->id, operation, result, operation == 1 ? argument2 : argument1);
}

// The one argument, the name, into the storage of a Rig::Ptr<Rig::Entity>.
template <typename T, auto factory>
void genericIfConstructFromCtorArgs(void * target, const void * const * arguments) {
  new (target) Rig::Ptr<Rig::Entity>(factory(*static_cast<const Rig::Name *>(arguments[0])));
}

template <typename T, auto factory>
Rig::Ptr<Rig::Entity> newEntityForDir(const Rig::Name & name, const void * const * arguments) {
  if (arguments != nullptr) {
    Rig::throwNewEntityArgsException(&T::_rigType, name);
  }
  return factory(name);
}

template <typename C>
struct CollectionIteration {
  using Iterator = typename C::Table::IteratorConst;

  static const Iterator & of(const void * iterator) { return *static_cast<const Iterator *>(iterator); }
  static void iterKey(const Rig::RigAttribute *, const void * iterator, void * target) {
    *static_cast<typename C::Key *>(target) = of(iterator).key();
  }
  static void iterObj(const Rig::RigAttribute *, const void * iterator, void * target) {
    *static_cast<typename C::EntryType *>(target) = of(iterator).value().value;
  }
  static bool iterNonnull(const Rig::RigAttribute *, const void * iterator) { return of(iterator).nonnull(); }
  static void iterInc(const Rig::RigAttribute *, void * iterator) { static_cast<Iterator *>(iterator)->advance(); }
  static void iterDel(const Rig::RigAttribute *, void * iterator) { delete static_cast<Iterator *>(iterator); }

  static constexpr Rig::GenericIfRaw::Iterator::IteratorVTable table_{&iterKey, &iterObj, &iterNonnull, &iterInc,
                                                                      &iterDel};

  static void * genericIfIterator(void * object, const Rig::RigAttribute * attribute,
                                  const Rig::GenericIfRaw::Iterator::IteratorVTable ** iteratorTable) {
    if (attribute == nullptr || attribute->id != C::TableAttribute) {
      return nullptr;
    }
    *iteratorTable = &table_;
    return new Iterator(&static_cast<C *>(object)->table());
  }
};

// The record of entity type T, made by `factory` from a Rig::Name.
template <typename T, auto factory>
constexpr Rig::RigType entityTypeRecord(const char * name) {
  const auto & attributes = entityAttributesOf<T>;
  Rig::RigType type;
  type.name = name;
  type.base = &Rig::Entity::_rigType;
  type.attributes = attributes.data();
  type.ctorArgs = Rig::GenericIfImpl::entityArguments;
  type.methods = &Rig::GenericIfImpl::GenericIfPtrInterfaceMethods<Rig::Entity>::vtable_;
  type.genericIfConstructFromCtorArgs = &genericIfConstructFromCtorArgs<T, factory>;
  type.genericIfAttributeOp = &genericIfAttributeOp<T>;
  if constexpr (CollectionType<T>) {
    type.newEntityForDir = &newEntityForDir<T, factory>;
    type.genericIfIterator = &CollectionIteration<T>::genericIfIterator;
  }
  type.size = sizeof(T);
  type.attributeCount = attributes.size();
  type.flags = Rig::TypeFlags::entity;
  return type;
}

}  // namespace TesselHwLib::Reflection

// Registers the library's 19 type records (again, harmlessly). The library's
// static initialiser calls it at load; every program that links the library
// holds it, and so the records and that initialiser (src/CMakeLists.txt).
extern "C" void tesselHwLibTypesTH3Register();

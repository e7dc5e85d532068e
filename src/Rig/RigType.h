#pragma once
// Rig::RigType: the runtime's record of a type, by which a generic tool
// reaches any registered record or entity without compile-time knowledge of
// it: it lists the type's attributes, reads and sets them, iterates a
// collection, converts a value to and from text and makes a new object.
//
// Records are plain constant data (every field a name, an address or a
// number), so a library defines its records constant-initialised and they
// are whole before any code runs; the registry (Rig/TypeRegistry.h) only
// collects their addresses. Rig/GenericIf.h derives records from a record
// type's field list.
//
// Conventions of the function pointers:
//   - an object (value or entity) is reached by a pointer to it; an entity
//     that is an argument or a result (a pointer attribute's value, a new
//     entity) is held as a Rig::Ptr to it, never by value;
//   - genericIfAttributeOp answers with a Rig::AttributeStatus (done, not
//     allowed on this attribute, unknown attribute), never an exception for
//     a bad operation or attribute; exceptions that pass are those of the
//     operations themselves.
//
// Attribute operations (`operation` of genericIfAttributeOp):
//   with an attribute    0 read into result         1 write from argument2
//                        2 remove the key at argument1 (a collection)
//                        3 member count (a collection; uint32_t)
//                        4 0 (a collection; uint32_t)
//                        5 key at argument1 present (a collection; bool)
//                        8 call the operation, its argument at argument1
//   without attribute    9 equals a default value (bool)
//                        10 equals the value at argument1 (bool)
//                        11 less than the value at argument1 (bool; keys only)
// A read-only attribute takes only 0, an operation only 8.

#include <cstdint>
#include <string>
#include <string_view>
#include <typeinfo>

#include "Rig/Ptr.h"
#include "Rig/String.h"

namespace Rig {

class Entity;
struct RigType;
struct RigAttribute;

// Flags words of attribute records, by kind of attribute.
namespace AttributeFlags {
inline constexpr uint32_t plainField = 0x38000002;
inline constexpr uint32_t readOnlyField = 0x58000002;        // key, name
inline constexpr uint32_t operation = 0x10100000;            // hash, validateEntryKey
inline constexpr uint32_t operationWithArgument = 0x10110000;  // keyIs
inline constexpr uint32_t entityParent = 0x38200002;
inline constexpr uint32_t computed = 0x10000000;             // fullName, parentAttrName
inline constexpr uint32_t entityOperation = 0x10210000;      // entity
inline constexpr uint32_t collection = 0xB8010002;           // table
inline constexpr uint32_t pointer = 0xB8200002;              // tableControl, status
inline constexpr uint32_t pointerToConst = 0xB8200022;       // config
// The bits that tell the kinds apart where a tool needs to.
inline constexpr uint32_t writableBit = 0x20000000;    // plain fields and pointers
inline constexpr uint32_t readOnlyBit = 0x40000000;
inline constexpr uint32_t operationBit = 0x00100000;   // hash, keyIs
inline constexpr uint32_t argumentBit = 0x00010000;    // keyIs, entity, table (its key)
}  // namespace AttributeFlags

// Flags words of type records.
namespace TypeFlags {
inline constexpr uint32_t entity = 0x0102FFFF;
inline constexpr uint32_t value = 0x0001FFFF;
// Set for a type with a table of virtual functions, the entities.
inline constexpr uint32_t polymorphicBit = 0x01000000;
}  // namespace TypeFlags

// An argument of a constructor or an operation. An array of them ends with a
// record whose name is null.
struct RigArgument {
  const char * name = nullptr;
  const RigType * type = nullptr;
};

// One attribute of a type. A type's attribute records lie one after the
// other in one array.
struct RigAttribute {
  const char * name = nullptr;
  const RigType * owner = nullptr;      // the type that declares it (a base, for inherited ones)
  const RigType * valueType = nullptr;  // null for an operation without a result
  const RigType * keyType = nullptr;    // a collection's key
  const char * keyName = nullptr;       // a collection's key's name ("key")
  const RigArgument * arguments = nullptr;  // an operation's arguments, or null
  uint32_t id = 0;
  uint32_t flags = 0;

  bool readOnly() const { return (flags & AttributeFlags::readOnlyBit) != 0; }
  bool isOperation() const { return (flags & AttributeFlags::operationBit) != 0; }
};

// The value methods of a type. `type` is the record of the value's type,
// for the messages of the exceptions they may raise.
struct GenericIfMethods {
  // Copy-constructs at `target` from `source`, or default-constructs when
  // `source` is null.
  void (*genericIfConstruct)(void * target, const void * source);
  void (*genericIfDestruct)(void * target);
  // The constructed value at `target` becomes the value of `text`.
  void (*genericIfStrepToValue)(void * target, const String & text, const RigType * type);
  String (*genericIfStrRep)(const void * value, const RigType * type);
  // A key's hash with seed 0; an unhashable type raises.
  uint32_t (*genericIfHash)(const void * value, const RigType * type);
  // `pointer`, to an object of type `from`, as a pointer to its part of
  // type `to`; Rig::TypeException when `to` is neither `from` nor a base.
  void * (*genericIfVoidPtrIs)(void * pointer, const RigType * from, const RigType * to);
};

namespace GenericIfRaw {
// A cursor over a collection attribute, made by genericIfIterator. Each
// operation takes the attribute and the cursor.
struct Iterator {
  struct IteratorVTable {
    void (*iterKey)(const RigAttribute * attribute, const void * iterator, void * target);
    void (*iterObj)(const RigAttribute * attribute, const void * iterator, void * target);
    bool (*iterNonnull)(const RigAttribute * attribute, const void * iterator);
    void (*iterInc)(const RigAttribute * attribute, void * iterator);
    void (*iterDel)(const RigAttribute * attribute, void * iterator);
  };
};
}  // namespace GenericIfRaw

// A collection's child of `name`, made as its factory makes it; a collection
// takes only its name, and non-null `arguments` raise.
using NewEntityForDir = Ptr<Entity> (*)(const Name & name, const void * const * arguments);
// Constructs an object at `target` from the argument pointers, one per
// constructor argument record: a value into its own storage, an entity into
// the storage of a Rig::Ptr to it.
using GenericIfConstructFromCtorArgs = void (*)(void * target, const void * const * arguments);
using GenericIfAttributeOp = uint32_t (*)(void * result, void * object, const RigAttribute * attribute,
                                          uint32_t operation, const void * argument1, const void * argument2);
// A cursor over the collection `attribute` of `object`, and its operations
// into `iteratorTable`; null for an attribute that is no collection.
using GenericIfIterator = void * (*)(void * object, const RigAttribute * attribute,
                                     const GenericIfRaw::Iterator::IteratorVTable ** iteratorTable);

struct RigType {
  const char * name = nullptr;
  const RigType * base = nullptr;
  const RigAttribute * attributes = nullptr;
  const RigArgument * ctorArgs = nullptr;
  NewEntityForDir newEntityForDir = nullptr;
  const GenericIfMethods * methods = nullptr;
  GenericIfConstructFromCtorArgs genericIfConstructFromCtorArgs = nullptr;
  GenericIfAttributeOp genericIfAttributeOp = nullptr;
  GenericIfIterator genericIfIterator = nullptr;
  uint32_t size = 0;
  uint32_t attributeCount = 0;
  uint32_t flags = 0;

  // True when `base` is this type or one of its bases.
  bool isDerived(const RigType * base) const;
  bool isPolymorphic() const { return (flags & TypeFlags::polymorphicBit) != 0; }
  bool isEntity() const { return flags == TypeFlags::entity; }
  // The attribute of that id or name; null if the type has none.
  const RigAttribute * attribute(uint32_t id) const;
  const RigAttribute * attribute(std::string_view name) const;
};

// The readable name of a compiled type ("TesselHwLib::L3IifTH3Config").
std::string demangleStdString(const std::type_info & type);

}  // namespace Rig

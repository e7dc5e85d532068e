// The registry of type records, the conversions of pointers between a type
// and its bases, and the records that Rig/GenericIf.h derives from a field
// list.

#include <gtest/gtest.h>

#include <string>

#include "Basalt/Exception.h"
#include "Rig/Exception.h"
#include "Rig/GenericIf.h"
#include "Rig/TypeRegistry.h"

namespace TypeRegistryTest {

// A key of two fields, described by its field list alone.
class Pair {
 public:
  Pair() = default;
  Pair(uint32_t first, bool second) : first_(first), second_(second) {}
  uint32_t first() const { return first_; }
  bool second() const { return second_; }
  RIG_RECORD_DECLARE(Pair);
  RIG_KEY_DECLARE(Pair);

 private:
  uint32_t first_ = 0;
  bool second_ = false;
};

}  // namespace TypeRegistryTest

template <>
struct Rig::Record::Layout<TypeRegistryTest::Pair> {
  using Self = TypeRegistryTest::Pair;
  static constexpr std::string_view typeName = "TypeRegistryTest::Pair";
  static constexpr std::tuple fields{Field{"first", 2, &Self::first_}, Field{"second", 3, &Self::second_, true}};
};
RIG_RECORD_INLINE(TypeRegistryTest::Pair)
RIG_KEY_INLINE(TypeRegistryTest::Pair)

namespace TypeRegistryTest {

RIG_RECORD_DEFINE(Pair)
RIG_KEY_DEFINE(Pair)

Rig::String valueToStrep(const Pair & pair) { return Rig::Record::toStrep(pair); }

constinit const Rig::RigType Pair::_rigType = Rig::GenericIfImpl::valueTypeRecord<Pair>("TypeRegistryTest::Pair");

}  // namespace TypeRegistryTest

using TypeRegistryTest::Pair;

TEST(RigTypeRegistry, RegistersOnceFindsByNameAndListsInOrder) {
  static const Rig::RigType first{"RigTypeRegistryTest::First"};
  static const Rig::RigType second{"RigTypeRegistryTest::Second"};
  const size_t before = Rig::typeNodes().size();
  Rig::typeNodeIs(&first);
  Rig::typeNodeIs(&second);
  Rig::typeNodeIs(&first);
  ASSERT_EQ(Rig::typeNodes().size(), before + 2);
  EXPECT_EQ(Rig::typeNodes()[before], &first);
  EXPECT_EQ(Rig::typeNodes()[before + 1], &second);
  EXPECT_EQ(Rig::typeNode("RigTypeRegistryTest::Second"), &second);
  EXPECT_EQ(Rig::typeNode("RigTypeRegistryTest::Third"), nullptr);
  static const Rig::RigType impostor{"RigTypeRegistryTest::First"};
  try {
    Rig::typeNodeIs(&impostor);
    FAIL() << "two records of one name";
  } catch (const Basalt::InvalidInitializeException & exception) {
    EXPECT_STREQ(exception.what(), "Rig::typeNodeIs() a type named RigTypeRegistryTest::First is registered already");
  }
}

TEST(RigTypeRegistry, TheExceptionsNameTheirTypes) {
  const Rig::RigType type{"Test::Type"};
  const Rig::RigType other{"Test::Other"};
  EXPECT_THROW(
      {
        try {
          Rig::GenericIfImpl::throwUnhashableException(&type);
        } catch (const Rig::TypeException & exception) {
          EXPECT_STREQ(exception.what(), "unhashable type: 'Test::Type'");
          throw;
        }
      },
      Rig::TypeException);
  try {
    Rig::GenericIfImpl::throwTypeException(&type, &other);
  } catch (const Rig::TypeException & exception) {
    EXPECT_STREQ(exception.what(), "type 'Test::Type' is not 'Test::Other' nor derived from it");
  }
  try {
    Rig::throwNewEntityArgsException(&type, Rig::Name("child"));
  } catch (const Rig::NewEntityArgsException & exception) {
    EXPECT_STREQ(exception.what(), "Test::Type: newEntityForDir() of 'child' takes a name and no other argument");
  }
}

TEST(RigTypeRegistry, PointersMovePastTheTablePointerOnlyToANonPolymorphicBase) {
  Rig::RigType base{"Test::PlainBase", nullptr};
  base.flags = Rig::TypeFlags::value;
  Rig::RigType polymorphic{"Test::Polymorphic", &base};
  polymorphic.flags = Rig::TypeFlags::entity;
  Rig::RigType entity{"Test::Entity", &polymorphic};
  entity.flags = Rig::TypeFlags::entity;
  char object[32];
  EXPECT_EQ(Rig::GenericIfImpl::voidPtrIs(object, &entity, &entity), object);
  EXPECT_EQ(Rig::GenericIfImpl::voidPtrIs(object, &entity, &polymorphic), object);
  EXPECT_EQ(Rig::GenericIfImpl::voidPtrIs(object, &entity, &base), object + 8);
  EXPECT_THROW(Rig::GenericIfImpl::voidPtrIs(object, &base, &entity), Rig::TypeException);
  // A value type with a polymorphic base is no layout of a compiled type.
  Rig::RigType impossible{"Test::Impossible", &polymorphic};
  impossible.flags = Rig::TypeFlags::value;
  try {
    Rig::GenericIfImpl::voidPtrIs(object, &impossible, &polymorphic);
    FAIL() << "converted";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_STREQ(exception.what(), "type->isPolymorphic()");
  }
}

TEST(RigGenericIf, FieldsAndOperationsOfARecordAreNumberedFromTwo) {
  const Rig::RigType & type = Pair::_rigType;
  ASSERT_EQ(type.attributeCount, 3u);
  EXPECT_STREQ(type.attributes[0].name, "first");
  EXPECT_EQ(type.attributes[0].id, 2u);
  EXPECT_EQ(type.attributes[0].flags, Rig::AttributeFlags::plainField);
  EXPECT_STREQ(type.attributes[0].valueType->name, "U32");
  EXPECT_EQ(type.attributes[0].owner, &type);
  EXPECT_EQ(type.attributes[1].flags, Rig::AttributeFlags::readOnlyField);
  EXPECT_STREQ(type.attributes[1].valueType->name, "bool");
  EXPECT_STREQ(type.attributes[2].name, "hash");
  EXPECT_EQ(type.attributes[2].id, 4u);
  EXPECT_EQ(type.attributes[2].flags, Rig::AttributeFlags::operation);
  EXPECT_EQ(type.ctorArgs, nullptr) << "a key is made default";
  EXPECT_EQ(type.size, sizeof(Pair));
  EXPECT_EQ(type.flags, Rig::TypeFlags::value);
  EXPECT_EQ(type.attribute("second"), &type.attributes[1]);
  EXPECT_EQ(type.attribute(9), nullptr);
}

TEST(RigGenericIf, TheEntryPointReadsWritesRefusesAndCallsByAttribute) {
  const Rig::RigType & type = Pair::_rigType;
  Pair pair(5, true);
  uint32_t number = 0;
  EXPECT_EQ(type.genericIfAttributeOp(&number, &pair, type.attribute(2), 0, nullptr, nullptr), Rig::attributeDone);
  EXPECT_EQ(number, 5u);
  const uint32_t seven = 7;
  EXPECT_EQ(type.genericIfAttributeOp(nullptr, &pair, type.attribute(2), 1, nullptr, &seven), Rig::attributeDone);
  EXPECT_EQ(pair.first(), 7u);
  const bool no = false;
  EXPECT_EQ(type.genericIfAttributeOp(nullptr, &pair, type.attribute(3), 1, nullptr, &no), Rig::attributeNotAllowed);
  EXPECT_TRUE(pair.second());
  uint32_t hash = 0;
  EXPECT_EQ(type.genericIfAttributeOp(&hash, &pair, type.attribute(4), 8, nullptr, nullptr), Rig::attributeDone);
  EXPECT_EQ(hash, pair.hash(0));
  EXPECT_EQ(hash, type.methods->genericIfHash(&pair, &type));
  const Rig::RigAttribute unknown{"unknown", &type, nullptr, nullptr, nullptr, nullptr, 5, 0};
  EXPECT_EQ(type.genericIfAttributeOp(&hash, &pair, &unknown, 0, nullptr, nullptr), Rig::attributeUnknown);
  bool isDefault = true;
  EXPECT_EQ(type.genericIfAttributeOp(&isDefault, &pair, nullptr, 9, nullptr, nullptr), Rig::attributeDone);
  EXPECT_FALSE(isDefault);
  EXPECT_EQ(type.methods->genericIfStrRep(&pair, &type), "Value('TypeRegistryTest::Pair', ** {'first': 7, 'second': True})");
}

TEST(RigGenericIf, BasicTypesHaveRecordsWithTextAndHash) {
  const Rig::RigType & type = *Rig::GenericIfImpl::rigTypeOf<uint64_t>();
  EXPECT_STREQ(type.name, "U64");
  EXPECT_EQ(type.attributeCount, 0u);
  const uint64_t value = 42;
  EXPECT_EQ(type.methods->genericIfStrRep(&value, &type), "42");
  EXPECT_EQ(type.methods->genericIfHash(&value, &type), Rig::hashSingleAttr(0, 42));
  uint64_t parsed = 0;
  type.methods->genericIfStrepToValue(&parsed, "4095", &type);
  EXPECT_EQ(parsed, 4095u);
  const Rig::RigType & text = *Rig::GenericIfImpl::rigTypeOf<Rig::String>();
  const Rig::String hello = "hello";
  EXPECT_THROW(text.methods->genericIfHash(&hello, &text), Rig::TypeException);
}

TEST(RigGenericIf, EveryEntityHasFiveAttributesOwnedByRigEntity) {
  const Rig::RigType & entity = Rig::Entity::_rigType;
  EXPECT_STREQ(entity.name, "Rig::Entity");
  EXPECT_EQ(entity.base, nullptr);
  ASSERT_EQ(entity.attributeCount, 5u);
  const char * names[] = {"name", "fullName", "parent", "parentAttrName", "entity"};
  const uint32_t ids[] = {130, 141, 138, 139, 143};
  const uint32_t flags[] = {0x58000002, 0x10000000, 0x38200002, 0x10000000, 0x10210000};
  for (uint32_t index = 0; index < 5; ++index) {
    EXPECT_STREQ(entity.attributes[index].name, names[index]);
    EXPECT_EQ(entity.attributes[index].id, ids[index]);
    EXPECT_EQ(entity.attributes[index].flags, flags[index]);
    EXPECT_EQ(entity.attributes[index].owner, &entity);
  }
  EXPECT_STREQ(entity.attributes[4].arguments[0].name, "name");
  EXPECT_TRUE(entity.isPolymorphic());
}

TEST(RigTypeRegistry, DescribeListsTheTypeAndEachAttribute) {
  EXPECT_EQ(Rig::describe(Pair::_rigType),
            "TypeRegistryTest::Pair (8 bytes, base none, flags 0x0001ffff)\n"
            "    2 first: U32 flags 0x38000002\n"
            "    3 second: bool flags 0x58000002\n"
            "    4 hash: U32 flags 0x10100000\n");
}

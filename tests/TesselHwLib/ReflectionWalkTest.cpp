// A generic program over the registry: it lists every registered type with
// its attributes, makes every collection by its type's name, places it in a
// tree and walks it, knowing no table type. Keys and entries are held in
// storage of the sizes the records give, made, compared, printed and
// destroyed by the records' own methods.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Cairn/RootPath.h"
#include "Rig/AttributeOp.h"
#include "Rig/Directory.h"
#include "Rig/Factory.h"
#include "Rig/RigType.h"
#include "Rig/TypeRegistry.h"
#include "Support/TempDir.h"
#include "TesselHwLib/ReflectionTesting.h"

namespace {

constexpr uint64_t entriesPerTable = 50;

// One value of a type known only by its record.
class Value {
 public:
  explicit Value(const Rig::RigType * type)
      : type_(type), storage_(new std::max_align_t[type->size / sizeof(std::max_align_t) + 1]) {
    type_->methods->genericIfConstruct(data(), nullptr);
  }
  ~Value() { type_->methods->genericIfDestruct(data()); }
  Value(const Value &) = delete;
  Value & operator=(const Value &) = delete;

  void * data() const { return storage_.get(); }
  std::string text() const { return type_->methods->genericIfStrRep(data(), type_); }
  bool operator==(const Value & other) const {
    bool equal = false;
    EXPECT_EQ(type_->genericIfAttributeOp(&equal, data(), nullptr, 10, other.data(), nullptr), Rig::attributeDone);
    return equal;
  }

 private:
  const Rig::RigType * type_;
  std::unique_ptr<std::max_align_t[]> storage_;
};

uint32_t op(const Rig::RigType & type, void * object, const Rig::RigAttribute * attribute, uint32_t operation,
            void * result, const void * argument1 = nullptr) {
  return type.genericIfAttributeOp(result, object, attribute, operation, argument1, nullptr);
}

// Walks the collection attribute `table` of `object`: the text of each key,
// after checking that each entry holds its own key and is present by it.
std::vector<std::string> walk(const Rig::RigType & type, void * object, const Rig::RigAttribute * table) {
  const Rig::RigType * entryType = table->valueType;
  const Rig::RigAttribute * entryKey = entryType->attribute(table->keyName);
  const Rig::GenericIfRaw::Iterator::IteratorVTable * vtable = nullptr;
  void * iterator = type.genericIfIterator(object, table, &vtable);
  EXPECT_NE(iterator, nullptr);
  std::vector<std::string> keys;
  for (; vtable->iterNonnull(table, iterator); vtable->iterInc(table, iterator)) {
    Value key(table->keyType);
    Value entry(entryType);
    Value held(table->keyType);
    vtable->iterKey(table, iterator, key.data());
    vtable->iterObj(table, iterator, entry.data());
    EXPECT_EQ(op(*entryType, entry.data(), entryKey, 0, held.data()), Rig::attributeDone);
    EXPECT_TRUE(held == key) << key.text();
    bool present = false;
    EXPECT_EQ(op(type, object, table, 5, &present, key.data()), Rig::attributeDone);
    EXPECT_TRUE(present) << key.text();
    keys.push_back(key.text());
  }
  vtable->iterDel(table, iterator);
  return keys;
}

}  // namespace

TEST(ReflectionWalk, ListsEveryTypeAndWalksEveryCollectionOfLiveTablesByReflectionAlone) {
  TestSupport::TempDir shmRoot;
  setenv(Cairn::RootPath::baseVariable, shmRoot.path().c_str(), 1);
  auto agent = Rig::make<Rig::Directory>(Rig::Name("agent"));
  size_t collections = 0;
  for (const Rig::RigType * type : Rig::typeNodes()) {
    fmt::print("{}", Rig::describe(*type));
    if (type->newEntityForDir == nullptr) {
      continue;
    }
    SCOPED_TRACE(type->name);
    const Rig::Ptr<Rig::Entity> entity = type->newEntityForDir(Rig::Name(fmt::format("t{}", collections)), nullptr);
    ASSERT_EQ(entity->fwkType(), type);
    agent->entityIs(entity);
    ASSERT_TRUE(ReflectionTest::fill(*entity, entriesPerTable));
    // An entity's record reaches it at the address of its Rig::Entity: the
    // entity types derive from it alone, first.
    void * object = entity.ptr();
    for (uint32_t index = 0; index < type->attributeCount; ++index) {
      const Rig::RigAttribute * attribute = &type->attributes[index];
      if (attribute->keyType == nullptr) {
        const Rig::GenericIfRaw::Iterator::IteratorVTable * vtable = nullptr;
        EXPECT_EQ(type->genericIfIterator(object, attribute, &vtable), nullptr) << attribute->name;
        continue;
      }
      const std::vector<std::string> keys = walk(*type, object, attribute);
      uint32_t members = 0;
      EXPECT_EQ(op(*type, object, attribute, 3, &members), Rig::attributeDone);
      EXPECT_EQ(keys.size(), entriesPerTable);
      EXPECT_EQ(members, entriesPerTable);
      EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size()) << "a key seen twice";
      fmt::print("  walked {} keys of {}, first {}\n", keys.size(), attribute->name, keys.front());
    }
    ++collections;
  }
  EXPECT_EQ(collections, 6u);
  agent = nullptr;
  unsetenv(Cairn::RootPath::baseVariable);
}

#include "TesselHwLib/ReflectionTesting.h"

#include <gtest/gtest.h>

#include "TesselHwLib/CollectionTesting.h"

namespace ReflectionTest {

namespace {

template <typename C>
bool fillAs(Rig::Entity & entity, uint64_t count) {
  auto * collection = dynamic_cast<C *>(&entity);
  if (collection == nullptr) {
    return false;
  }
  for (uint64_t number = 0; number < count; ++number) {
    collection->tableIs(CollectionTest::Table<C>::entry(number));
  }
  return true;
}

template <typename... C>
bool fillAny(Rig::Entity & entity, uint64_t count, ::testing::Types<C...> *) {
  return (fillAs<C>(entity, count) || ...);
}

}  // namespace

bool fill(Rig::Entity & collection, uint64_t count) {
  return fillAny(collection, count, static_cast<CollectionTest::Collections *>(nullptr));
}

}  // namespace ReflectionTest

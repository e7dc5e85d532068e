// With every trace level off, a loop of lookups through a map allocates
// nothing: no trace text is built when its level is off.

#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"

namespace {

// Counts the allocations of this test program while counting is on.
bool counting = false;
uint64_t allocations = 0;

}  // namespace

// The replacements pair malloc with free; g++ cannot see that through the
// inlined sized delete and warns of a mismatch that is not there.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void * operator new(std::size_t size) {
  if (counting) {
    ++allocations;
  }
  if (void * block = std::malloc(size == 0 ? 1 : size)) {
    return block;
  }
  throw std::bad_alloc();
}

void operator delete(void * block) noexcept { std::free(block); }
void operator delete(void * block, std::size_t) noexcept { std::free(block); }

using namespace MapFrontTest;

TEST(CairnMapTraceCost, LookupsWithTracesOffAllocateNothing) {
  CairnTest::ScopedShmRoot root;
  Map map("maps/traceCost");
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 100;
  map.init(descriptor);
  for (uint64_t number = 0; number < 50; ++number) {
    map.safeWrite(Value(number, 1), true);
  }
  map.debugHandler().maskIs(0);
  Value out;
  bool found = false;
  counting = true;
  for (uint64_t round = 0; round < 10000; ++round) {
    map.safeLookup(Key{round % 100}, found, &out);  // half of them miss
  }
  counting = false;
  EXPECT_EQ(allocations, 0u);
}

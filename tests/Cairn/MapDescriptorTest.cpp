#include <gtest/gtest.h>

#include <sstream>

#include "Cairn/MapDescriptor.h"

namespace {

using Cairn::CairnType;
using Cairn::MapDescriptor;

std::string textOf(CairnType type) {
  std::ostringstream stream;
  stream << type;
  return stream.str();
}

TEST(CairnType, TextOfEachMode) {
  EXPECT_EQ(textOf(CairnType::writer), "writer");
  EXPECT_EQ(textOf(CairnType::shadow), "shadow");
  EXPECT_EQ(textOf(CairnType::reader), "reader");
  EXPECT_EQ(textOf(CairnType::keyshadow), "keyshadow");
  EXPECT_EQ(static_cast<uint32_t>(CairnType::reader), 2u);
}

TEST(CairnType, ValueOutsideTheTableWritesNothing) {
  EXPECT_EQ(textOf(static_cast<CairnType>(4)), "");
  EXPECT_EQ(Cairn::toString(static_cast<CairnType>(4)), "unknown(4)");
}

TEST(MapDescriptor, IsACollectionDescriptor) {
  MapDescriptor descriptor(10);
  const Arena::CollectionDescriptor & base = descriptor;
  EXPECT_EQ(&dynamic_cast<const MapDescriptor &>(base), &descriptor);
  EXPECT_EQ(base.toString(), descriptor.toString()) << "the text form is the map descriptor's";
}

TEST(MapDescriptor, SizeConstructorMakesALocalWriter) {
  MapDescriptor descriptor(100);
  EXPECT_EQ(descriptor.maxSlots, 100u);
  EXPECT_EQ(descriptor.mode, CairnType::writer);
  EXPECT_TRUE(descriptor.localMem);
  EXPECT_FALSE(descriptor.useHeap);
}

TEST(MapDescriptor, EqualityAndTextSeeEveryField) {
  const MapDescriptor base;
  std::vector<MapDescriptor> changed(14, base);
  changed[0].maxSlots = 1;
  changed[1].mode = CairnType::keyshadow;
  changed[2].localMem = true;
  changed[3].reservedOption = true;
  changed[4].fixedSize = true;
  changed[5].shrinkSlots = true;
  changed[6].shrinkBuckets = true;
  changed[7].synchronous = true;
  changed[8].shadowOptionBit2 = true;
  changed[9].useHeap = true;
  changed[10].heapCheck = true;
  changed[11].cleanupBeforeInit = true;
  changed[12].shadowOptionBit1 = true;
  changed[13].assertOnOrphanAccess = true;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    EXPECT_FALSE(changed[i] == base) << i;
    EXPECT_NE(changed[i].toString(), base.toString()) << i;
  }
  EXPECT_TRUE(MapDescriptor() == base);
  EXPECT_EQ(base.toString(),
            "MapDescriptor(maxSlots:0 mode:writer localMem:false reservedOption:false fixedSize:false "
            "shrinkSlots:false shrinkBuckets:false synchronous:false shadowOptionBit2:false useHeap:false "
            "heapCheck:false cleanupBeforeInit:false shadowOptionBit1:false assertOnOrphanAccess:false)");
}

}  // namespace

// The three key types of the library in a real CairnWriter table: write,
// look up, walk and remove work alike for each, so the engine is generic over
// them.

#include <cstdlib>
#include <set>

#include <gtest/gtest.h>

#include "Cairn/CairnWriter.h"
#include "Cairn/Operations.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "Support/TempDir.h"
#include "TesselHwLib/L3IifTH3.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TesselHwLib/MyStationTcamTH3.h"

using namespace TesselHwLib;

namespace {

// A distinct key of each type for each number.
L3IifTH3Key keyOf(uint64_t number, L3IifTH3Key *) { return L3IifTH3Key(number); }

MyStationTcamTH3Key keyOf(uint64_t number, MyStationTcamTH3Key *) {
  MyStationTcamTH3Key key;
  key.vlanIdIs(static_cast<uint16_t>(number));
  key.priorityIs(static_cast<uint32_t>(number >> 16));
  return key;
}

L3TunnelTH3Key keyOf(uint64_t number, L3TunnelTH3Key *) {
  L3TunnelTH3Key key;
  key.etherTypeIs(0x0800);
  key.etherTypeMaskIs(0xFFFF);
  key.priorityIs(static_cast<uint32_t>(number));
  return key;
}

template <typename Entry>
class TablesInTheEngine : public ::testing::Test {
 protected:
  using Key = typename Entry::KeyType;
  using Value = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Value>;
  using Writer = Cairn::CairnWriter<Key, Value, Ops>;

  TablesInTheEngine() {
    setenv(Cairn::RootPath::baseVariable, dir_.path().c_str(), 1);
    Cairn::MapDescriptor descriptor;
    descriptor.maxSlots = 64;
    writer_ = std::make_unique<Writer>(handler_, "generic/table", descriptor, Ops(), "Generic", [](bool) {});
    writer_->initialize("test");
  }
  ~TablesInTheEngine() override {
    writer_.reset();
    unsetenv(Cairn::RootPath::baseVariable);
  }

  static Key key(uint64_t number) { return keyOf(number, static_cast<Key *>(nullptr)); }
  static Value value(uint64_t number) {
    Entry entry{key(number)};
    entry.genIdIs(number + 1);
    return Value(entry);
  }

  TestSupport::TempDir dir_;
  Basalt::Platform::DebugHandler handler_{"generic"};
  std::unique_ptr<Writer> writer_;
};

using Entries = ::testing::Types<L3IifTH3ConfigEntry, MyStationTcamTH3ConfigEntry, L3TunnelTH3ConfigEntry>;
TYPED_TEST_SUITE(TablesInTheEngine, Entries);

}  // namespace

TYPED_TEST(TablesInTheEngine, WriteLookUpWalkAndRemove) {
  using Value = typename TestFixture::Value;
  auto & writer = *this->writer_;
  const uint64_t count = 200;  // past the first file and several bucket doublings
  for (uint64_t number = 0; number < count; ++number) {
    writer.write(TestFixture::value(number), true);
  }
  EXPECT_EQ(writer.members(), count);
  for (uint64_t number = 0; number < count; ++number) {
    bool found = false;
    Value out;
    writer.lookup(TestFixture::key(number), found, &out);
    ASSERT_TRUE(found) << number;
    EXPECT_EQ(out, TestFixture::value(number));
  }
  std::set<uint64_t> seen;
  Value value;
  Cairn::IterHint hint;
  for (bool more = writer.first(value, hint); more; more = writer.next(value.fwkKey(), value, hint)) {
    EXPECT_TRUE(seen.insert(value.value.genId() - 1).second);
  }
  EXPECT_EQ(seen.size(), count);
  for (uint64_t number = 0; number < count; number += 2) {
    Value removed;
    ASSERT_TRUE(writer.remove(TestFixture::key(number), removed));
    EXPECT_EQ(removed, TestFixture::value(number));
  }
  EXPECT_EQ(writer.members(), count / 2);
  bool found = true;
  Value out;
  writer.lookup(TestFixture::key(0), found, &out);
  EXPECT_FALSE(found);
  EXPECT_TRUE(writer.validate());
}

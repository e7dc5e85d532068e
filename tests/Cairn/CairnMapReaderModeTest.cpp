// A map in reader mode on the files of a real writer: its sentry sees the
// writer's table, installs a CairnReader, and the map reads the writer's
// entries; when the writer's files go, the sentry takes the reader off again.

#include <chrono>

#include <gtest/gtest.h>

#include "Cairn/MapFrontTesting.h"
#include "Loop/EventLoop.h"

using namespace MapFrontTest;

namespace {

Cairn::MapDescriptor descriptorFor(Cairn::CairnType mode) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = 100;
  descriptor.mode = mode;
  return descriptor;
}

bool within(const std::function<bool()> & done) {
  return Loop::processLoop().runUntil(done, std::chrono::seconds(20));
}

}  // namespace

TEST(CairnMapReaderMode, AttachesThroughItsSentryAndReadsTheWritersEntries) {
  CairnTest::ScopedShmRoot root;
  Map writerMap("maps/readerMode");
  writerMap.init(descriptorFor(Cairn::CairnType::writer));
  for (uint64_t number = 0; number < 50; ++number) {
    writerMap.safeWrite(Value(number, number + 1), true);
  }

  Map readerMap("maps/readerMode");
  readerMap.init(descriptorFor(Cairn::CairnType::reader));
  ASSERT_TRUE(within([&] { return readerMap.mountStatus() == 1; }));
  using Reader = Cairn::CairnReader<Key, Value, Ops>;
  EXPECT_NE(dynamic_cast<const Reader *>(readerMap.backend()), nullptr);
  for (uint64_t number = 0; number < 50; ++number) {
    bool found = false;
    Value out;
    readerMap.safeLookup(Key{number}, found, &out);
    ASSERT_TRUE(found) << number;
    EXPECT_EQ(out, Value(number, number + 1));
  }
  // Writes after the attach are seen too: the reader reads the live files.
  writerMap.safeWrite(Value(7, 99), true);
  bool found = false;
  Value out;
  readerMap.safeLookup(Key{7}, found, &out);
  EXPECT_EQ(out, Value(7, 99));

  writerMap.cleanupAndDetach();
  EXPECT_TRUE(within([&] { return readerMap.mountStatus() == 0; }));
  readerMap.safeLookup(Key{7}, found, &out);
  EXPECT_FALSE(found);
}

#include <gtest/gtest.h>

#include "Cairn/CairnReader.h"
#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Value = IifSizedValue;
using Reader = Cairn::CairnReader<NumberKey, Value, OpsFor<Value>>;

namespace {

class CairnReaderTest : public ::testing::Test {
 protected:
  CairnReaderTest() : harness(sharedDescriptor(1000)) {}

  std::unique_ptr<Reader> attachedReader() {
    auto reader = std::make_unique<Reader>(readerHandler, "test/writer", OpsFor<Value>());
    EXPECT_TRUE(reader->initialize("test"));
    return reader;
  }

  WriterFor<Value> & writer() { return *harness.writer; }

  WriterHarness<Value> harness;
  Basalt::Platform::DebugHandler readerHandler{"reader-test"};
};

}  // namespace

TEST_F(CairnReaderTest, LooksUpWhatTheWriterWrote) {
  for (uint64_t number = 0; number < 100; ++number) {
    writer().write(Value(number, number + 1), true);
  }
  auto reader = attachedReader();
  for (uint64_t number = 0; number < 100; ++number) {
    bool found = false;
    Value out;
    reader->lookup(NumberKey{number}, found, &out);
    ASSERT_TRUE(found) << number;
    EXPECT_EQ(out, Value(number, number + 1));
  }
  bool found = true;
  Value out(1, 1);
  reader->lookup(NumberKey{1000}, found, &out);
  EXPECT_FALSE(found);
  EXPECT_EQ(out, Value());
}

TEST_F(CairnReaderTest, FollowsTheWriterThroughGrowthAndWalksEveryEntry) {
  auto reader = attachedReader();
  for (uint64_t number = 0; number < 5000; ++number) {
    writer().write(Value(number, 7), true);
  }
  std::set<uint64_t> seen;
  Value value;
  Cairn::IterHint hint;
  for (bool more = reader->first(value, hint); more; more = reader->next(value.key, value, hint)) {
    EXPECT_TRUE(seen.insert(value.key.number).second);
  }
  EXPECT_EQ(seen.size(), 5000u);
  EXPECT_GT(reader->counters().slotResizes, 0u);
}

#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

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

// A batch answers each key as lookup() does, across more keys than one
// batch's width, hits and misses mixed.
TEST_F(CairnReaderTest, LookupBatchAnswersEachKeyAsLookupDoes) {
  for (uint64_t number = 0; number < 100; number += 2) {
    writer().write(Value(number, number + 7), true);
  }
  auto reader = attachedReader();
  std::vector<NumberKey> keys;
  for (uint64_t number = 0; number < 3 * Reader::BatchWidth + 5; ++number) {
    keys.push_back(NumberKey{(number * 37) % 110});
  }
  std::vector<Value> out(keys.size(), Value(999, 999));
  std::unique_ptr<bool[]> found(new bool[keys.size()]);
  const std::size_t hits = reader->lookupBatch(keys, out, std::span<bool>(found.get(), keys.size()));
  std::size_t expectedHits = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    bool single = false;
    Value value;
    reader->lookup(keys[i], single, &value);
    EXPECT_EQ(found[i], single) << keys[i].number;
    EXPECT_EQ(out[i], value) << keys[i].number;
    EXPECT_EQ(found[i], keys[i].number % 2 == 0 && keys[i].number < 100) << keys[i].number;
    expectedHits += single ? 1 : 0;
  }
  EXPECT_EQ(hits, expectedHits);
}

TEST_F(CairnReaderTest, LookupBatchWithoutRoomForEveryAnswerIsRefused) {
  auto reader = attachedReader();
  std::vector<NumberKey> keys(3);
  std::vector<Value> out(2);
  bool found[3];
  try {
    reader->lookupBatch(keys, out, found);
    FAIL() << "a batch with room for 2 values of 3 keys was taken";
  } catch (const std::invalid_argument & exception) {
    EXPECT_STREQ(exception.what(), "CairnReader::lookupBatch() test/writer: 3 keys, room for 2 values and 3 answers");
  }
}

// The reader: quiesced and validateNotif with their traces and texts, passing
// tombstones, following growths and swaps, and catching up from far behind.

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <set>

#include "Basalt/Exception.h"
#include "Ripple/RippleTesting.h"
#include "Support/TraceCapture.h"

using namespace RippleTest;
using Ripple::PruneMode;
using Ripple::RIPPLE_TOMBSTONED;

namespace {

class RippleReaderTest : public QueueTest {};

// Installs a trace sink that also runs `onLine` for each line, for as long as
// it lives.
class TraceHook {
 public:
  explicit TraceHook(std::function<void(std::string_view)> onLine) {
    Basalt::Platform::DebugHandler::sinkIs(
        [this, onLine](const Basalt::Platform::DebugHandler &, unsigned level, std::string_view text) {
          lines.push_back(fmt::format("L{} {}", level, text));
          onLine(text);
        });
  }
  ~TraceHook() { Basalt::Platform::DebugHandler::sinkIs({}); }

  std::vector<std::string> lines;
};

// Notifies `slot` until the writer has swapped its tables once more.
void notifyUntilSwap(WriterFixture & fixture, uint32_t slot) {
  const uint64_t swaps = fixture.counters.swaps;
  while (fixture.counters.swaps == swaps) {
    fixture.writer.notify(slot);
  }
}

}  // namespace

// ---------------------------------------------------------------- quiesced

TEST_F(RippleReaderTest, QuiescedOnAnUnattachedReaderIsFalse) {
  ReaderFixture fixture(directory);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(fixture.reader.quiesced());
  EXPECT_EQ(traces.lines(), (std::vector<std::string>{"L5 RippleReader::quiesced() not attached"}));
}

TEST_F(RippleReaderTest, AnEmptyQueueComparesEntryZero) {
  WriterFixture writer(directory);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  TestSupport::TraceCapture traces;
  EXPECT_TRUE(fixture.reader.quiesced());
  fixture.counters.sequence = 1;
  EXPECT_FALSE(fixture.reader.quiesced());
  EXPECT_EQ(traces.lines(),
            (std::vector<std::string>{"L5 RippleReader::quiesced() writerSeq:0 shadowSeq:0",
                                      "L5 RippleReader::quiesced() writerSeq:0 shadowSeq:1"}));
}

TEST_F(RippleReaderTest, OneBehindIsNotQuiescedEqualIs) {
  WriterFixture writer(directory);
  for (uint32_t slot : {1, 2, 3}) {
    writer.writer.notify(slot);
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  TestSupport::TraceCapture traces;
  fixture.counters.sequence = 2;
  EXPECT_FALSE(fixture.reader.quiesced());
  fixture.counters.sequence = 3;
  EXPECT_TRUE(fixture.reader.quiesced());
  EXPECT_EQ(traces.lines(),
            (std::vector<std::string>{"L5 RippleReader::quiesced() writerSeq:3 shadowSeq:2",
                                      "L5 RippleReader::quiesced() writerSeq:3 shadowSeq:3"}));
}

TEST_F(RippleReaderTest, ASwapDuringTheComparisonMakesQuiescedFalse) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  writer.writer.notify(1);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_EQ(drain(fixture.reader), (std::vector<uint32_t>{1}));
  ASSERT_TRUE(fixture.reader.quiesced());
  // Between reading the writer's sequence and the second look at swapCount,
  // the writer swaps: the trace line of step 4 is where it happens.
  bool swapped = false;
  TraceHook hook([&](std::string_view text) {
    if (!swapped && text.find("writerSeq:") != std::string_view::npos) {
      swapped = true;
      notifyUntilSwap(writer, 2);
    }
  });
  EXPECT_FALSE(fixture.reader.quiesced());
  EXPECT_TRUE(swapped);
  EXPECT_EQ(hook.lines, (std::vector<std::string>{"L5 RippleReader::quiesced() writerSeq:1 shadowSeq:1"}));
}

TEST_F(RippleReaderTest, ASwapBeforeTheComparisonIsTraced) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  notifyUntilSwap(writer, 2);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(fixture.reader.quiesced());
  EXPECT_EQ(traces.lines(), (std::vector<std::string>{"L5 RippleReader::quiesced() ripple swapped"}));
}

TEST_F(RippleReaderTest, QuiescedTurnsTrueExactlyWhenTheLastEntryIsApplied) {
  WriterFixture writer(directory);
  for (uint32_t slot = 0; slot < 10; ++slot) {
    writer.writer.notify(slot % 4);
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  Ripple::Notification entry{};
  int applied = 0;
  while (fixture.reader.nextEntry(entry)) {
    EXPECT_FALSE(fixture.reader.quiesced()) << "before applying sequence " << entry.sequence();
    fixture.counters.sequence = entry.sequence();
    ++applied;
    EXPECT_EQ(fixture.reader.quiesced(), entry.sequence() == 10u) << "after applying " << entry.sequence();
  }
  EXPECT_EQ(applied, 4);  // slots 0 to 3, each once: their older entries are tombstones
  EXPECT_TRUE(fixture.reader.quiesced());
  writer.writer.notify(7);
  EXPECT_FALSE(fixture.reader.quiesced());
}

TEST_F(RippleReaderTest, AReaderFollowsATableGrownInPlace) {
  WriterFixture writer(directory, PruneMode::Balanced);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  ASSERT_EQ(fixture.reader.notifications(Ripple::RippleTable::Primary).limit, Ripple::InitialCapacity);
  for (uint32_t slot = 0; slot < 400; ++slot) {
    writer.writer.notify(slot);
  }
  ASSERT_EQ(writer.counters.grows, 1u);
  fixture.counters.sequence = 400;
  {
    TestSupport::TraceCapture traces;
    EXPECT_FALSE(fixture.reader.quiesced());
    EXPECT_EQ(traces.lines(),
              (std::vector<std::string>{"L5 RippleReader::quiesced() latest notification out-of-range"}));
  }
  fixture.counters.sequence = 0;
  const auto slots = drain(fixture.reader);
  ASSERT_EQ(slots.size(), 400u);
  EXPECT_EQ(slots.back(), 399u);
  EXPECT_EQ(fixture.counters.remaps, 1u);
  EXPECT_EQ(fixture.counters.swapsSeen, 0u);
  EXPECT_TRUE(fixture.reader.quiesced());
}

// ---------------------------------------------------------------- slotAhead

TEST_F(RippleReaderTest, SlotAheadNamesTheSlotOfALaterEntryAndNothingPastTheMapping) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  ReaderFixture fixture(directory);
  EXPECT_EQ(fixture.reader.slotAhead(0), RIPPLE_TOMBSTONED);  // not attached
  for (uint32_t slot : {10u, 11u, 12u, 13u}) {
    writer.writer.notify(slot);
  }
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_EQ(fixture.reader.slotAhead(0), 10u);  // the entry nextEntry hands out next
  EXPECT_EQ(fixture.reader.slotAhead(3), 13u);
  Ripple::Notification entry{};
  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_EQ(fixture.reader.slotAhead(0), 11u);
  EXPECT_EQ(fixture.reader.slotAhead(2), 13u);
  EXPECT_EQ(fixture.reader.slotAhead(3), 0u);  // not yet published: a hint, not an entry
  writer.writer.notify(11);                    // tombstones entry 1: the hint shows it
  EXPECT_EQ(fixture.reader.slotAhead(0), RIPPLE_TOMBSTONED);
  const uint32_t limit = fixture.reader.notifications(fixture.reader.tableIndex()).limit;
  EXPECT_EQ(fixture.reader.slotAhead(limit - 2), 0u);  // the mapping's last entry
  EXPECT_EQ(fixture.reader.slotAhead(limit - 1), RIPPLE_TOMBSTONED);
  EXPECT_EQ(fixture.reader.slotAhead(0xFFFFFFFFu), RIPPLE_TOMBSTONED);
  ASSERT_TRUE(fixture.reader.nextEntry(entry));  // and nextEntry is unmoved by any of it
  EXPECT_EQ(entry.slot, 12u);
}

TEST_F(RippleReaderTest, HasNewsWhileAnEntryOrASwapIsUntakenAndNotOnceTaken) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  ReaderFixture fixture(directory);
  EXPECT_FALSE(fixture.reader.hasNews());  // not attached
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_FALSE(fixture.reader.hasNews());
  writer.writer.notify(5);
  EXPECT_TRUE(fixture.reader.hasNews());
  Ripple::Notification entry{};
  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_FALSE(fixture.reader.hasNews());
  writer.writer.notify(5);  // tombstones the entry taken, appends one
  EXPECT_TRUE(fixture.reader.hasNews());
  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_FALSE(fixture.reader.nextEntry(entry));
  EXPECT_FALSE(fixture.reader.hasNews());
  notifyUntilSwap(writer, 6);
  EXPECT_TRUE(fixture.reader.hasNews());
  while (fixture.reader.nextEntry(entry)) {
  }
  EXPECT_FALSE(fixture.reader.hasNews());
}

// ---------------------------------------------------------------- validateNotif

TEST_F(RippleReaderTest, ValidateNotifIsFalseOnATombstoneAndAfterASwap) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  writer.writer.notify(3);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  Ripple::Notification entry{};
  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_EQ(entry.slot, 3u);
  EXPECT_EQ(fixture.reader.position(), 0u);
  EXPECT_TRUE(fixture.reader.validateNotif());
  writer.writer.notify(3);  // tombstones entry 0
  EXPECT_FALSE(fixture.reader.validateNotif());

  ASSERT_TRUE(fixture.reader.nextEntry(entry));
  EXPECT_EQ(fixture.reader.position(), 1u);
  EXPECT_TRUE(fixture.reader.validateNotif());
  notifyUntilSwap(writer, 4);
  // The old table still holds slot 3 at position 1, live: the swap alone decides.
  EXPECT_EQ(at<uint32_t>(readFile(file("ripple-primary")), 12 + 12 + 8), 3u);
  EXPECT_FALSE(fixture.reader.validateNotif());
}

TEST_F(RippleReaderTest, ValidateNotifWithPositionAtTheLimitThrows) {
  WriterFixture writer(directory);
  writer.writer.notify(3);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  const uint32_t limit = fixture.reader.notifications(fixture.reader.tableIndex()).limit;
  ASSERT_EQ(limit, Ripple::InitialCapacity);
  fixture.reader.positionIs(limit - 1);
  EXPECT_NO_THROW(fixture.reader.validateNotif());  // past size, yet inside the mapping
  fixture.reader.positionIs(limit);
  try {
    fixture.reader.validateNotif();
    ADD_FAILURE() << "validateNotif read past the mapping";
  } catch (const Basalt::CorruptionDetectedException & exception) {
    EXPECT_EQ(exception.message(),
              "RippleReader::RippleNotifications::operator[]() out-of-range index:340 max:340");
  }
}

// ---------------------------------------------------------------- reading

TEST_F(RippleReaderTest, TombstonedEntriesArePassedOver) {
  WriterFixture writer(directory);
  for (uint32_t slot : {1, 2, 1, 3, 2}) {
    writer.writer.notify(slot);
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_EQ(drain(fixture.reader), (std::vector<uint32_t>{1, 3, 2}));
  EXPECT_EQ(fixture.counters.tombstonesPassed, 2u);
  EXPECT_EQ(fixture.counters.notificationsRead, 3u);
  EXPECT_EQ(fixture.reader.position(), 4u);
  Ripple::Notification entry{};
  EXPECT_FALSE(fixture.reader.nextEntry(entry));
}

TEST_F(RippleReaderTest, PassingATrailingTombstoneCountsAsApplyingIt) {
  WriterFixture writer(directory);
  writer.writer.notify(1);
  writer.writer.notify(2);
  writer.writer.tombstone(2);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  EXPECT_EQ(drain(fixture.reader), (std::vector<uint32_t>{1}));
  EXPECT_EQ(fixture.counters.sequence, 2u);
  EXPECT_TRUE(fixture.reader.quiesced());
}

TEST_F(RippleReaderTest, AfterASwapTheReaderResumesAboveWhatItApplied) {
  WriterFixture writer(directory, PruneMode::Synchronous);
  for (uint32_t slot = 0; slot < 100; ++slot) {
    writer.writer.notify(slot);
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  Ripple::Notification entry{};
  for (int read = 0; read < 50; ++read) {
    ASSERT_TRUE(fixture.reader.nextEntry(entry));
    fixture.counters.sequence = entry.sequence();
  }
  notifyUntilSwap(writer, 500);
  std::vector<uint32_t> expected;
  for (uint32_t slot = 50; slot < 100; ++slot) {
    expected.push_back(slot);
  }
  expected.push_back(500);
  EXPECT_EQ(drain(fixture.reader), expected);
  EXPECT_EQ(fixture.counters.swapsSeen, 1u);
  EXPECT_TRUE(fixture.reader.quiesced());
}

class RippleCatchUpTest : public QueueTest, public ::testing::WithParamInterface<PruneMode> {};

TEST_P(RippleCatchUpTest, AReaderFarBehindMeetsEveryChangedSlotOnce) {
  WriterFixture writer(directory, GetParam());
  for (uint32_t slot = 0; slot < 10; ++slot) {
    writer.writer.notify(slot);
  }
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach(epochA));
  ASSERT_EQ(drain(fixture.reader).size(), 10u);

  // Five tables' worth of changes while the reader sleeps.
  std::mt19937 random(99);
  std::set<uint32_t> changed;
  for (uint32_t round = 0; round < 5 * Ripple::InitialCapacity; ++round) {
    const uint32_t slot = random() % 200;
    writer.writer.notify(slot);
    changed.insert(slot);
  }
  ASSERT_GE(writer.counters.swaps, 1u);

  const auto seen = drain(fixture.reader);
  const std::set<uint32_t> distinct(seen.begin(), seen.end());
  EXPECT_EQ(seen.size(), distinct.size()) << "a slot was met twice";
  EXPECT_EQ(distinct, changed);
  EXPECT_GE(fixture.counters.swapsSeen, 1u);
  EXPECT_TRUE(fixture.reader.quiesced());
}

INSTANTIATE_TEST_SUITE_P(Modes, RippleCatchUpTest,
                         ::testing::Values(PruneMode::Synchronous, PruneMode::Balanced),
                         [](const ::testing::TestParamInfo<PruneMode> & info) {
                           return std::string(info.param == PruneMode::Synchronous ? "Synchronous"
                                                                                   : "Balanced");
                         });

// ---------------------------------------------------------------- attach

TEST_F(RippleReaderTest, AttachWithoutFilesFails) {
  ReaderFixture fixture(directory);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(fixture.reader.attach());
  EXPECT_FALSE(fixture.reader.attached());
  EXPECT_TRUE(traces.contains("L0 RippleReader::attach() cannot open " + file("ripple-control")));
  Ripple::Notification entry{};
  EXPECT_FALSE(fixture.reader.nextEntry(entry));
}

TEST_F(RippleReaderTest, AttachRefusesAnotherGeneration) {
  WriterFixture writer(directory);
  ReaderFixture fixture(directory);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(fixture.reader.attach(epochB));
  EXPECT_TRUE(traces.contains("L0 RippleReader::attach() " + file("ripple-control") +
                              ": RippleTable::Control::validate() bad epoch:0x000010e1 wanted:0x000110e1"));
  EXPECT_TRUE(fixture.reader.attach());  // any generation
  EXPECT_EQ(fixture.reader.primaryMappedSize(), 4092u);
}

TEST_F(RippleReaderTest, AttachRefusesGarbage) {
  { WriterFixture writer(directory); }
  patchValue<uint32_t>(file("ripple-control"), 16, 0xDEADBEEF);
  ReaderFixture fixture(directory);
  TestSupport::TraceCapture traces;
  EXPECT_FALSE(fixture.reader.attach());
  EXPECT_TRUE(traces.contains("bad entrySize: 3735928559"));
}

TEST_F(RippleReaderTest, DetachForgetsThePlace) {
  WriterFixture writer(directory);
  writer.writer.notify(1);
  ReaderFixture fixture(directory);
  ASSERT_TRUE(fixture.reader.attach());
  drain(fixture.reader);
  fixture.reader.detach();
  EXPECT_FALSE(fixture.reader.attached());
  EXPECT_EQ(fixture.reader.position(), 0u);
  EXPECT_EQ(fixture.reader.primaryMappedSize(), 0u);
  EXPECT_FALSE(fixture.reader.quiesced());
}

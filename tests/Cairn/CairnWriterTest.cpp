#include <gtest/gtest.h>

#include "Cairn/WriterTestTypes.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Value = IifSizedValue;

namespace {

class CairnWriterTest : public ::testing::Test {
 protected:
  CairnWriterTest() : harness(sharedDescriptor(1000)) {}

  WriterFor<Value> & writer() { return *harness.writer; }
  const Cairn::SlotTableHeader & header() { return *writer().slotTable().header(); }
  uint32_t slotOf(uint64_t number) {
    bool found = false;
    const auto * address = writer().lookup(NumberKey{number}, found, nullptr);
    EXPECT_TRUE(found);
    const auto * base = reinterpret_cast<const char *>(writer().slotTable().slots().base);
    return static_cast<uint32_t>((reinterpret_cast<const char *>(address) - 16 - base) /
                                 WriterFor<Value>::SlotWriter::slotSize);
  }
  uint32_t flagsOf(uint64_t number) { return writer().slotTable().slots()[slotOf(number)]->flags; }

  WriterHarness<Value> harness;
};

std::string assertionText(const std::function<void()> & operation) {
  try {
    operation();
  } catch (const Basalt::AssertException & exception) {
    return exception.what();
  }
  return "no assertion";
}

}  // namespace

TEST_F(CairnWriterTest, WriteLookupAndRemove) {
  writer().write(Value(7, 1), true);
  bool found = false;
  Value out;
  writer().lookup(NumberKey{7}, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, Value(7, 1));
  EXPECT_EQ(writer().members(), 1u);
  Value removed;
  EXPECT_TRUE(writer().remove(NumberKey{7}, removed));
  EXPECT_EQ(removed, Value(7, 1));
  writer().lookup(NumberKey{7}, found, &out);
  EXPECT_FALSE(found);
  EXPECT_EQ(writer().members(), 0u);
  EXPECT_EQ(header().runtimeFlags, 0u);
}

TEST_F(CairnWriterTest, WriteWithoutPublishLeavesAnExistingEntryAlone) {
  writer().write(Value(7, 1), true);
  const uint32_t flags = flagsOf(7);
  const uint64_t sequence = writer().sequence();
  const Value * address = writer().write(Value(7, 2), false);
  EXPECT_EQ(*address, Value(7, 1));
  EXPECT_EQ(writer().sequence(), sequence);
  EXPECT_EQ(flagsOf(7), flags);
  EXPECT_EQ(header().runtimeFlags, 0u);
}

TEST_F(CairnWriterTest, WriteWithoutPublishOfANewKeyStillInserts) {
  const uint64_t sequence = writer().sequence();
  writer().write(Value(8, 1), false);
  bool found = false;
  writer().lookup(NumberKey{8}, found, nullptr);
  EXPECT_TRUE(found);
  EXPECT_EQ(writer().sequence(), sequence + 1);
}

TEST_F(CairnWriterTest, UnchangedValueIsStillRewrittenAndNotified) {
  writer().write(Value(7, 1), true);
  const uint32_t flags = flagsOf(7);
  const uint64_t sequence = writer().sequence();
  writer().write(Value(7, 1), true);
  EXPECT_EQ(flagsOf(7), flags + Cairn::FlagsVersionStep);
  EXPECT_EQ(writer().sequence(), sequence + 1);
  // The LookasideSlot holds the finished copy of the last rewrite.
  EXPECT_EQ(writer().slotTable().lookasideSlot()->value, Value(7, 1));
  EXPECT_EQ(writer().slotTable().lookasideSlot()->rhash, Basalt::Util::reverse(NumberKey{7}.hash(0)));
}

TEST_F(CairnWriterTest, RemoveOfAnAbsentKeySendsNothing) {
  const uint64_t sequence = writer().sequence();
  Value removed;
  EXPECT_FALSE(writer().remove(NumberKey{99}, removed));
  EXPECT_EQ(writer().sequence(), sequence);
  EXPECT_EQ(header().runtimeFlags, 0u);
}

TEST_F(CairnWriterTest, FreedSlotIsTheNextOneAllocated) {
  for (uint64_t number = 0; number < 10; ++number) {
    writer().write(Value(number, 1), true);
  }
  const uint32_t freed = slotOf(4);
  Value removed;
  writer().remove(NumberKey{4}, removed);
  EXPECT_EQ(header().freeSlots, freed);
  writer().write(Value(100, 1), true);
  EXPECT_EQ(slotOf(100), freed);
}

TEST_F(CairnWriterTest, LookupOfAMissingKeyGivesTheDefaultValue) {
  writer().write(Value(1, 1), true);
  bool found = true;
  Value out(5, 5);
  const Value * address = writer().lookup(NumberKey{2}, found, &out);
  EXPECT_FALSE(found);
  EXPECT_EQ(*address, Value());
  EXPECT_EQ(out, Value());
  EXPECT_TRUE(writer().slotTable().versionAnchor().empty());
}

TEST_F(CairnWriterTest, GrowingTheFileWithThePreviousLinkInsideItStillLinks) {
  // Fill far past the first file size so that alloc grows (and remaps) the
  // file while the previous link is a slot of it.
  for (uint64_t number = 0; number < 3000; ++number) {
    writer().write(Value(number, number), true);
  }
  EXPECT_GT(writer().writerCounters().slotGrows, 3u);
  for (uint64_t number = 0; number < 3000; ++number) {
    bool found = false;
    Value out;
    writer().lookup(NumberKey{number}, found, &out);
    ASSERT_TRUE(found) << number;
    ASSERT_EQ(out, Value(number, number));
  }
}

TEST_F(CairnWriterTest, DirectWriteOfANewKeyAppearsAtTheCommit) {
  Value * address = writer().directWrite(NumberKey{42});
  ASSERT_NE(address, nullptr);
  EXPECT_EQ(*address, Value(NumberKey{42}));  // reset to the default with the key
  *address = Value(42, 3);
  EXPECT_EQ(writer().members(), 1u);  // counted from the directWrite
  bool found = true;
  writer().lookup(NumberKey{42}, found, nullptr);
  EXPECT_FALSE(found);  // not linked yet
  EXPECT_EQ(header().runtimeFlags, Cairn::WriteInProgress);
  const uint64_t sequence = writer().sequence();
  writer().directCommit();
  Value out;
  writer().lookup(NumberKey{42}, found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out, Value(42, 3));
  EXPECT_EQ(writer().sequence(), sequence + 1);
  EXPECT_EQ(header().runtimeFlags, 0u);
  EXPECT_EQ(writer().writerCounters().directWrites, 1u);
  EXPECT_EQ(writer().writerCounters().directCommits, 1u);
}

TEST_F(CairnWriterTest, DirectWriteOfAnExistingKeyFillsTheLookaside) {
  writer().write(Value(5, 1), true);
  Value * address = writer().directWrite(NumberKey{5});
  EXPECT_EQ(address, &writer().slotTable().lookasideSlot()->value);
  *address = Value(5, 2);
  bool found = false;
  Value out;
  writer().lookup(NumberKey{5}, found, &out);
  EXPECT_EQ(out, Value(5, 1));  // readers still see the old value
  writer().directCommit();
  writer().lookup(NumberKey{5}, found, &out);
  EXPECT_EQ(out, Value(5, 2));
}

// The level 9 text: the method's name with its blank, the kind of key with
// blanks on both sides, then the key.
TEST_F(CairnWriterTest, DirectWriteTraceNamesTheKindOfKeyThenTheKey) {
  writer().write(Value(5, 1), true);
  harness.handler.maskIs(levels({9}));
  TestSupport::TraceCapture traces;
  writer().directWrite(NumberKey{7});
  writer().directCommit();
  writer().directWrite(NumberKey{5});
  writer().directCommit();
  harness.handler.maskIs(0);
  std::vector<std::string> texts;
  for (const auto & line : tracesAt(traces, 9)) {
    if (line.rfind("CairnWriter::directWrite() ", 0) == 0) {
      texts.push_back(line.substr(0, line.find(" bucket:")));
    }
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"CairnWriter::directWrite()  new 7", "CairnWriter::directWrite()  existing 5"}));
}

TEST_F(CairnWriterTest, DirectUpdateOfAnAbsentKeyOpensNothing) {
  EXPECT_EQ(writer().directUpdate(NumberKey{5}), nullptr);
  EXPECT_EQ(header().runtimeFlags, 0u);
  writer().write(Value(5, 1), true);  // no assertion: nothing is open
}

TEST_F(CairnWriterTest, DirectUpdateRewritesThroughTheLookaside) {
  writer().write(Value(5, 1), true);
  Value * address = writer().directUpdate(NumberKey{5});
  ASSERT_EQ(address, &writer().slotTable().lookasideSlot()->value);
  EXPECT_EQ(header().runtimeFlags, 0u);  // cleared on the way out
  *address = Value(5, 9);
  writer().directCommit();
  bool found = false;
  Value out;
  writer().lookup(NumberKey{5}, found, &out);
  EXPECT_EQ(out, Value(5, 9));
}

TEST_F(CairnWriterTest, WriteDuringADirectOperationAsserts) {
  writer().write(Value(1, 1), true);
  writer().directWrite(NumberKey{2});
  const uint32_t slot = header().occupiedSlots - 1;
  EXPECT_EQ(assertionText([&] { writer().write(Value(3, 1), true); }),
            fmt::format("CairnWriter::write() unbalanced directSlot:{} containing value:2/v0 when writing "
                        "value:3/v1 - Make sure the DirectIs/Commit are properly paired!",
                        slot));
  Value removed;
  EXPECT_EQ(assertionText([&] { writer().remove(NumberKey{1}, removed); }),
            fmt::format("CairnWriter::remove() unbalanced directSlot:{} containing value:2/v0 when removing "
                        "key:1 - Make sure the DirectIs/Commit are properly paired!",
                        slot));
  EXPECT_EQ(assertionText([&] { writer().directWrite(NumberKey{4}); }),
            fmt::format("CairnWriter::directWrite() unbalanced directSlot:{} containing value:2/v0 when "
                        "modifying key:4 - Make sure the DirectIs/Commit are properly paired!",
                        slot));
  EXPECT_EQ(assertionText([&] { writer().directUpdate(NumberKey{1}); }),
            fmt::format("CairnWriter::directUpdate() unbalanced directSlot:{} containing value:2/v0 when "
                        "modifying key:1 - Make sure the DirectIs/Commit are properly paired!",
                        slot));
  // The anchor was set on the open slot.
  EXPECT_FALSE(writer().slotTable().versionAnchor().empty());
  EXPECT_EQ(assertionText([&] { writer().detach(false); }),
            fmt::format("CairnWriter::detach() unbalanced directSlot:{} containing value:2/v0 - Make sure "
                        "the DirectIs/Commit are properly paired!",
                        slot));
  writer().directCommit();
}

TEST_F(CairnWriterTest, DetachAfterADirectOperationOnAnExistingKeyPasses) {
  writer().write(Value(1, 1), true);
  writer().directUpdate(NumberKey{1});
  EXPECT_NO_THROW(writer().detach(false));
}

TEST_F(CairnWriterTest, DetachAfterADirectWriteOnAnExistingKeyPasses) {
  writer().write(Value(1, 1), true);
  writer().directWrite(NumberKey{1});
  EXPECT_NO_THROW(writer().detach(false));
}

TEST_F(CairnWriterTest, CommitWithNothingOpenAsserts) {
  EXPECT_EQ(assertionText([&] { writer().directCommit(); }),
            "CairnWriter::directCommit() not in direct mode! Make sure the DirectIs/Commit are properly "
            "paired!");
}

TEST_F(CairnWriterTest, FullFixedTableLeavesTheWriteGuardSet) {
  auto descriptor = sharedDescriptor(2);
  descriptor.fixedSize = true;
  WriterHarness<Value> fixed(descriptor, "test/fixed");
  fixed.writer->write(Value(1, 1), true);
  fixed.writer->write(Value(2, 1), true);
  EXPECT_THROW(fixed.writer->write(Value(3, 1), true), Cairn::TableFullException);
  EXPECT_EQ(fixed.writer->slotTable().header()->runtimeFlags, Cairn::WriteInProgress);
  EXPECT_EQ(fixed.writer->members(), 2u);
}

TEST_F(CairnWriterTest, StateAnswers) {
  EXPECT_EQ(writer().type(), Cairn::CairnType::writer);
  EXPECT_EQ(writer().maxSize(), 1000u);
  EXPECT_EQ(writer().minSize(), 32u);
  EXPECT_EQ(writer().capacity(), 32u);
  EXPECT_EQ(writer().mountStatus(), 1u);
  EXPECT_EQ(writer().cairnName(), "test/writer");
  EXPECT_FALSE(writer().clientQuiesced(""));
  EXPECT_FALSE(writer().epochId().none());
  EXPECT_EQ(writer().epochId(), ArenaFiles::EpochId(writer().slotTable().header()->epochId));
}

TEST_F(CairnWriterTest, VersionAnchorFollowsTheValueHandedOut) {
  writer().write(Value(1, 1), true);
  bool found = false;
  writer().lookup(NumberKey{1}, found, nullptr);
  EXPECT_NO_THROW(writer().validateVersionAnchor());
  static int hookCalls = 0;
  hookCalls = 0;
  writer().validateVersionAnchorHookIs([](const Arena::VersionAnchor &) { ++hookCalls; });
  writer().write(Value(1, 2), true);
  EXPECT_THROW(writer().validateVersionAnchor(), Arena::VersionMismatchException);
  EXPECT_EQ(hookCalls, 1);
}

TEST_F(CairnWriterTest, HandleQuiescedCallsTheCallback) {
  writer().handleQuiesced(true);
  writer().handleQuiesced(false);
  EXPECT_EQ(harness.quiescedCalls, (std::vector<bool>{true, false}));
}

TEST_F(CairnWriterTest, DumpHeadersShowsEveryPiece) {
  const std::string text = writer().dumpHeaders();
  EXPECT_EQ(text.rfind("Cairn table \"test/writer\"\n\n\nBucketTable::Header()", 0), 0u) << text;
  EXPECT_NE(text.find("\n\nSlotTable::Header() magic:0x544c534e52494143"), std::string::npos);
  EXPECT_NE(text.find(writer().ripple().headersToString()), std::string::npos);
}

// The publishing order: when the store that links a new entry is about to
// happen, the slot is already complete (link onward, rhash, value, OCCUPIED)
// and nothing reaches it yet.
namespace {

class ObservedWriter : public WriterFor<Value> {
 public:
  using WriterFor<Value>::WriterFor;
  std::vector<std::string> problems;
  int publishes = 0;

 protected:
  void beforePublish(uint32_t index) override {
    ++publishes;
    const auto & table = slotTable();
    const auto * slot = table.slots()[index];
    if (!(slot->flags & Cairn::OCCUPIED) || (slot->flags & Cairn::LOOKASIDE)) {
      problems.push_back(fmt::format("slot {} flags {}", index, slot->flags));
    }
    const NumberKey & key = slot->value.key;
    if (slot->rhash != Basalt::Util::reverse(key.hash(0))) {
      problems.push_back(fmt::format("slot {} rhash", index));
    }
    bool found = true;
    lookup(key, found, nullptr);
    if (found) {
      problems.push_back(fmt::format("slot {} reachable before its publishing store", index));
    }
  }
};

}  // namespace

TEST(CairnWriterPublishOrder, NewSlotIsCompleteBeforeTheLinkThatPublishesIt) {
  WriterHarness<Value, ObservedWriter> harness(sharedDescriptor(1000));
  for (uint64_t number = 0; number < 500; ++number) {
    harness.writer->write(Value(number, 1), true);
  }
  Value * address = harness.writer->directWrite(NumberKey{1000});
  *address = Value(1000, 1);
  harness.writer->directCommit();
  EXPECT_EQ(harness.writer->publishes, 501);
  EXPECT_TRUE(harness.writer->problems.empty()) << harness.writer->problems.front();
}

TEST(CairnWriterGeneric, RealEntriesOfTheL3IifTable) {
  using Entry = TesselHwLib::L3IifTH3ConfigEntry;
  using Wrapped = RigCairn::ValueWrapperOf<Entry>;
  WriterHarness<Wrapped> harness(sharedDescriptor(100), "test/l3iif");
  Entry entry{TesselHwLib::L3IifTH3Key(12)};
  entry.vrfIs(3);
  harness.writer->write(Wrapped(entry), true);
  bool found = false;
  Wrapped out;
  harness.writer->lookup(TesselHwLib::L3IifTH3Key(12), found, &out);
  EXPECT_TRUE(found);
  EXPECT_EQ(out.value, entry);
  Cairn::IterHint hint;
  Wrapped first;
  EXPECT_TRUE(harness.writer->first(first, hint));
  EXPECT_EQ(first.value, entry);
  EXPECT_FALSE(harness.writer->next(first.fwkKey(), first, hint));
  Wrapped removed;
  EXPECT_TRUE(harness.writer->remove(TesselHwLib::L3IifTH3Key(12), removed));
  EXPECT_EQ(removed.value, entry);
}

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "Arena/Memory.h"
#include "Basalt/Exception.h"
#include "Spool/Local.h"
#include "Support/TraceCapture.h"

namespace {

// Traces at level 0 only, whatever TESSEL_DEBUG says.
class SpoolLocalTest : public ::testing::Test {
 protected:
  SpoolLocalTest() { handler_.maskIs(1); }
  Basalt::Platform::DebugHandler handler_{"SpoolLocalTest"};
};

TEST_F(SpoolLocalTest, NewArrayIsEmptyWithRoomForAPage) {
  Spool::Local<bool> marks(handler_);
  EXPECT_EQ(marks.members(), 0u);
  // doResize(1) asks for one byte; the block is a whole page.
  EXPECT_EQ(marks.capacity(), Arena::pageSize_);
  EXPECT_NE(marks.data(), nullptr);
  EXPECT_EQ(marks.rootPath(), "Local");
  EXPECT_EQ(marks.mode(), 0u);
}

TEST_F(SpoolLocalTest, DebugNameNamesTheElementType) {
  EXPECT_EQ(Spool::Local<bool>::debugName(), "Spool::Local<bool>");
  EXPECT_EQ(Spool::Local<uint32_t>::debugName(), "Spool::Local<U32>");
}

TEST_F(SpoolLocalTest, CapacityIsOnAnEmptyArrayGivesThatManyFalseElements) {
  Spool::Local<bool> marks(handler_);
  const uint64_t count = 3 * Arena::pageSize_ + 5;
  marks.capacityIs(count);
  ASSERT_EQ(marks.members(), count);
  // Rounded up to whole pages: at least what was asked.
  EXPECT_EQ(marks.capacity(), 4 * Arena::pageSize_);
  for (uint64_t i = 0; i < count; ++i) {
    ASSERT_FALSE(marks.get(i)) << i;
  }
}

TEST_F(SpoolLocalTest, CapacityIsSmallerThenLargerClearsTheElementsBetween) {
  Spool::Local<bool> marks(handler_);
  marks.capacityIs(100);
  for (uint64_t i = 0; i < 100; ++i) {
    marks.write(i, true);
  }
  const uint64_t roomBefore = marks.capacity();
  marks.capacityIs(40);
  EXPECT_EQ(marks.members(), 40u);
  EXPECT_EQ(marks.capacity(), roomBefore) << "a smaller size keeps the block";
  marks.capacityIs(100);
  for (uint64_t i = 0; i < 40; ++i) {
    EXPECT_TRUE(marks.get(i)) << i;
  }
  for (uint64_t i = 40; i < 100; ++i) {
    EXPECT_FALSE(marks.get(i)) << i;
  }
}

TEST_F(SpoolLocalTest, WriteAtSizeFailsAndTheMessageShowsBothNumbers) {
  Spool::Local<bool> marks(handler_);
  marks.capacityIs(7);
  try {
    marks.write(7, true);
    FAIL() << "write(size) must fail";
  } catch (const Basalt::AssertException & error) {
    EXPECT_EQ(error.message(), "Spool::Local::write() out-of-range index:7 size_:7");
    EXPECT_EQ(error.sourceName(), "Spool/Local");
  }
  EXPECT_THROW(marks.write(1000, true), Basalt::AssertException);
  marks.write(6, true);
  EXPECT_TRUE(marks.get(6));
}

TEST_F(SpoolLocalTest, PushPastCapacityKeepsAllEarlierElements) {
  Spool::Local<uint32_t> values(handler_);
  const uint64_t room = values.capacity();
  ASSERT_EQ(room, Arena::pageSize_ / sizeof(uint32_t));
  for (uint64_t i = 0; i < 2 * room + 1; ++i) {
    ASSERT_EQ(values.push(static_cast<uint32_t>(i * 3 + 1)), i) << "push returns the old size";
  }
  EXPECT_EQ(values.members(), 2 * room + 1);
  EXPECT_EQ(values.capacity(), 4 * room) << "doubled twice";
  for (uint64_t i = 0; i < 2 * room + 1; ++i) {
    ASSERT_EQ(values.get(i), i * 3 + 1) << i;
  }
}

TEST_F(SpoolLocalTest, PopLowersTheSize) {
  Spool::Local<uint32_t> values(handler_);
  values.push(5);
  values.push(6);
  values.pop();
  EXPECT_EQ(values.members(), 1u);
  EXPECT_EQ(values.push(7), 1u);
  EXPECT_EQ(values.get(1), 7u);
}

TEST_F(SpoolLocalTest, CountConstructorFillsEveryElement) {
  Spool::Local<uint32_t> values(1500, 0xABCDu, handler_);
  ASSERT_EQ(values.members(), 1500u);
  EXPECT_GE(values.capacity(), 1500u);
  for (uint64_t i = 0; i < 1500; ++i) {
    ASSERT_EQ(values.get(i), 0xABCDu) << i;
  }
  values.capacityIs(1600);
  EXPECT_EQ(values.get(1499), 0xABCDu);
  EXPECT_EQ(values.get(1500), 0u) << "capacityIs fills with zero, not with the constructor's value";
}

TEST_F(SpoolLocalTest, EmptyCountConstructorHoldsNoBlockAndStillGrows) {
  Spool::Local<bool> marks(0, true, handler_);
  EXPECT_EQ(marks.members(), 0u);
  EXPECT_EQ(marks.capacity(), 0u);
  EXPECT_EQ(marks.data(), nullptr);
  EXPECT_EQ(marks.push(true), 0u);
  EXPECT_TRUE(marks.get(0));
  EXPECT_EQ(marks.capacity(), Arena::pageSize_);
}

TEST_F(SpoolLocalTest, GetGivesAWritableReference) {
  Spool::Local<uint32_t> values(3, 0u, handler_);
  values.get(uint64_t{1}) = 9;
  const Spool::Local<uint32_t> & reading = values;
  EXPECT_EQ(reading.get(1), 9u);
  EXPECT_EQ(reading.data()[1], 9u);
}

TEST_F(SpoolLocalTest, ResizeThatCannotBeMappedRaisesWithTheCount) {
  Spool::Local<bool> marks(handler_);
  TestSupport::TraceCapture capture;
  const uint64_t huge = uint64_t{1} << 62;  // 4 EiB: no address space holds it
  try {
    marks.capacityIs(huge);
    FAIL() << "the growth must fail";
  } catch (const Basalt::MemoryResourceException & error) {
    EXPECT_EQ(error.message(), "Spool::Local::doResize( n=4611686018427387904 ) unable to resize");
  }
  EXPECT_TRUE(capture.contains("L0 Spool::Local::doResize( n=4611686018427387904 ) unable to resize"));
  EXPECT_EQ(marks.capacity(), 0u);
}

TEST_F(SpoolLocalTest, ResizeWhoseByteCountOverflowsRaises) {
  Spool::Local<uint64_t> values(handler_);
  const uint64_t count = uint64_t{1} << 62;
  try {
    values.capacityIs(count);
    FAIL() << "the byte count overflows";
  } catch (const Basalt::MemoryResourceException & error) {
    EXPECT_EQ(error.message(), "Arena::multiplyOverflowCheck() 4611686018427387904 * 8 overflows");
  }
}

TEST_F(SpoolLocalTest, InterfaceDefaultsRefuseWithTheirTexts) {
  // A read-only implementation that overrides nothing it needn't.
  class ReadOnly : public Spool::Interface<bool> {
   public:
    const bool * data() const override { return &value_; }
    using Spool::Interface<bool>::data;
    std::string rootPath() const override { return "ReadOnly"; }
    uint32_t mode() const override { return 1; }
    uint64_t push(bool) override { return 0; }
    void pop() override {}
    bool get(uint64_t) const override { return value_; }
    using Spool::Interface<bool>::get;
    uint64_t members() const override { return 1; }
    void capacityIs(uint64_t) override {}

   private:
    bool value_ = true;
  };
  ReadOnly spool;
  Spool::Interface<bool> & array = spool;
  auto expectRefusal = [](auto && operation, const std::string & text) {
    try {
      operation();
      FAIL() << "must refuse: " << text;
    } catch (const Basalt::NoPermissionException & error) {
      EXPECT_EQ(error.message(), text);
    }
  };
  expectRefusal([&] { array.data(); }, "read-only Spool");
  expectRefusal([&] { array.get(uint64_t{0}); }, "read-only Spool");
  expectRefusal([&] { array.write(0, false); }, "read-only Spool");
  expectRefusal([&] { array.cleanup(); }, "cleanup() invoked on read-only Spool");
  const Spool::Interface<bool> & constArray = spool;
  EXPECT_TRUE(constArray.get(0));
  EXPECT_TRUE(*constArray.data());
}

}  // namespace

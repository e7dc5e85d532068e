#include <cstdlib>

#include <gtest/gtest.h>

#include "Basalt/DebugHandler.h"
#include "Basalt/Exception.h"
#include "Support/TraceCapture.h"

using Basalt::Platform::DebugHandler;

namespace {

// Counts how often its text is built.
struct Costly {
  int * builds;
};

}  // namespace

template <>
struct fmt::formatter<Costly> : fmt::formatter<std::string_view> {
  auto format(const Costly & costly, fmt::format_context & context) const {
    ++*costly.builds;
    return fmt::formatter<std::string_view>::format("costly", context);
  }
};

TEST(DebugHandler, LevelZeroAloneIsOnByDefault) {
  unsetenv("TESSEL_DEBUG");
  DebugHandler handler("t");
  EXPECT_EQ(handler.mask(), 1u);
  EXPECT_TRUE(handler.enabled(0));
  EXPECT_FALSE(handler.enabled(1));
  EXPECT_FALSE(handler.enabled(32));
}

TEST(DebugHandler, MaskFromTheEnvironment) {
  setenv("TESSEL_DEBUG", "0x2f", 1);
  EXPECT_EQ(DebugHandler("t").mask(), 0x2fu);
  setenv("TESSEL_DEBUG", "12", 1);
  EXPECT_EQ(DebugHandler("t").mask(), 12u);
  setenv("TESSEL_DEBUG", "junk", 1);
  EXPECT_EQ(DebugHandler("t").mask(), 1u);
  unsetenv("TESSEL_DEBUG");
}

TEST(DebugHandler, ADisabledTraceBuildsNoText) {
  DebugHandler handler("t");
  handler.maskIs(0);
  int builds = 0;
  TestSupport::TraceCapture traces;
  BASALT_TRACE(handler, 5, "value {}", Costly{&builds});
  EXPECT_EQ(builds, 0);
  EXPECT_TRUE(traces.lines().empty());
  handler.levelIs(5, true);
  BASALT_TRACE(handler, 5, "value {}", Costly{&builds});
  EXPECT_EQ(builds, 1);
  EXPECT_EQ(traces.lines(), std::vector<std::string>{"L5 value costly"});
}

TEST(DebugHandler, AssertionCarriesWhereItHappened) {
  TestSupport::TraceCapture traces;
  try {
    BASALT_ASSERT(1 + 1 == 3, "Basalt/Test", "arithmetic broke");
    FAIL() << "no exception";
  } catch (const Basalt::AssertException & exception) {
    EXPECT_EQ(std::string(exception.what()), "arithmetic broke");
    EXPECT_EQ(exception.sourceName(), "Basalt/Test");
    EXPECT_EQ(exception.function(), "TestBody");
    EXPECT_GT(exception.line(), 0u);
  }
  EXPECT_TRUE(traces.contains("L0 ASSERT Basalt/Test:"));
}

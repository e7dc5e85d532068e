#include "Cairn/Toggle.h"

#include <fstream>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/DebugHandler.h"
#include "Cairn/ScopedEnvironment.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using CairnTesting::ScopedEnvironment;

// Each test has a configuration directory of its own, and the kept
// OneSocketNudge answer is forgotten before and after it.
class ToggleTest : public ::testing::Test {
 protected:
  ToggleTest() { Cairn::resetToggleOneSocketNudgeForTesting(); }
  ~ToggleTest() override { Cairn::resetToggleOneSocketNudgeForTesting(); }

  void writeFile(const std::string & name, const std::string & text) {
    std::ofstream(temp_.path() + "/" + name) << text;
  }
  std::string path(const std::string & name) const { return temp_.path() + "/" + name; }

  // The level 0 text of a malformed file, before the parser's own account.
  std::string malformed(const std::string & file, const std::string & name, int defaultValue) const {
    return fmt::format("L0 Cairn::getToggleState() {} malformed, {} takes its default {}: ", path(file), name,
                       defaultValue);
  }

  TestSupport::TempDir temp_;
  ScopedEnvironment directory_{"TESSEL_CONFIG_DIR", temp_.path()};
};

TEST_F(ToggleTest, DirectoryIsTheVariableOrEtcTessel) {
  EXPECT_EQ(Cairn::toggleDirectory(), temp_.path());
  {
    ScopedEnvironment unset("TESSEL_CONFIG_DIR", std::nullopt);
    EXPECT_EQ(Cairn::toggleDirectory(), "/etc/tessel");
  }
  ScopedEnvironment empty("TESSEL_CONFIG_DIR", "");
  EXPECT_EQ(Cairn::toggleDirectory(), "/etc/tessel");
}

TEST_F(ToggleTest, PresentTogglesGiveTheirValues) {
  writeFile("ArenaFiles.json", R"({"OneSocketNudge": false, "On": true, "Zero": 0, "One": 1})");
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 1), 0);
  EXPECT_EQ(Cairn::getToggleState("On", "ArenaFiles.json", 0), 1);
  EXPECT_EQ(Cairn::getToggleState("Zero", "ArenaFiles.json", 1), 0);
  EXPECT_EQ(Cairn::getToggleState("One", "ArenaFiles.json", 0), 1);
}

TEST_F(ToggleTest, AbsentFileOrEntryGivesTheDefaultQuietly) {
  TestSupport::TraceCapture capture;
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 1), 1);
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 0), 0);
  writeFile("ArenaFiles.json", R"({"Other": true})");
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 1), 1);
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 0), 0);
  for (const auto & line : capture.lines()) {
    EXPECT_NE(line.rfind("L0 ", 0), 0u) << line;
  }
}

TEST_F(ToggleTest, MalformedFileGivesTheDefaultWithALevelZeroTrace) {
  writeFile("ArenaFiles.json", R"({"OneSocketNudge": tru)");
  TestSupport::TraceCapture capture;
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 1), 1);
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 0), 0);
  ASSERT_EQ(capture.lines().size(), 2u);
  EXPECT_EQ(capture.lines()[0].rfind(malformed("ArenaFiles.json", "OneSocketNudge", 1), 0), 0u)
      << capture.lines()[0];
  EXPECT_NE(capture.lines()[0].find("parse error"), std::string::npos) << capture.lines()[0];
  EXPECT_EQ(capture.lines()[1].rfind(malformed("ArenaFiles.json", "OneSocketNudge", 0), 0), 0u);
}

TEST_F(ToggleTest, FileThatIsNotAnObjectIsMalformed) {
  writeFile("ArenaFiles.json", R"([true])");
  TestSupport::TraceCapture capture;
  EXPECT_EQ(Cairn::getToggleState("OneSocketNudge", "ArenaFiles.json", 1), 1);
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], malformed("ArenaFiles.json", "OneSocketNudge", 1) + "not an object");
}

TEST_F(ToggleTest, ValueThatIsNeitherBoolNorZeroOrOneIsMalformed) {
  writeFile("ArenaFiles.json", R"({"Text": "yes", "Two": 2, "Half": 0.5, "Minus": -1})");
  TestSupport::TraceCapture capture;
  EXPECT_EQ(Cairn::getToggleState("Text", "ArenaFiles.json", 1), 1);
  EXPECT_EQ(Cairn::getToggleState("Two", "ArenaFiles.json", 0), 0);
  EXPECT_EQ(Cairn::getToggleState("Half", "ArenaFiles.json", 1), 1);
  EXPECT_EQ(Cairn::getToggleState("Minus", "ArenaFiles.json", 0), 0);
  ASSERT_EQ(capture.lines().size(), 4u);
  EXPECT_EQ(capture.lines()[0],
            malformed("ArenaFiles.json", "Text", 1) + R"(Text is neither a bool nor 0 or 1: "yes")");
  EXPECT_EQ(capture.lines()[1], malformed("ArenaFiles.json", "Two", 0) + "Two is neither a bool nor 0 or 1: 2");
  EXPECT_EQ(capture.lines()[2],
            malformed("ArenaFiles.json", "Half", 1) + "Half is neither a bool nor 0 or 1: 0.5");
  EXPECT_EQ(capture.lines()[3],
            malformed("ArenaFiles.json", "Minus", 0) + "Minus is neither a bool nor 0 or 1: -1");
}

TEST_F(ToggleTest, OneSocketNudgeIsOnByDefault) {
  EXPECT_TRUE(Cairn::toggleOneSocketNudgeEnabled());
}

TEST_F(ToggleTest, OneSocketNudgeFollowsTheFile) {
  writeFile("ArenaFiles.json", R"({"OneSocketNudge": false})");
  EXPECT_FALSE(Cairn::toggleOneSocketNudgeEnabled());
}

TEST_F(ToggleTest, OneSocketNudgeIsAskedOnceEvenIfTheFileChanges) {
  writeFile("ArenaFiles.json", R"({"OneSocketNudge": 0})");
  auto & handler = Basalt::Platform::processDebugHandler();
  const uint32_t savedMask = handler.mask();
  handler.levelIs(5, true);
  TestSupport::TraceCapture capture;
  EXPECT_FALSE(Cairn::toggleOneSocketNudgeEnabled());
  const std::size_t asked = capture.lines().size();
  EXPECT_EQ(asked, 1u) << "the one read of the file, at level 5";
  writeFile("ArenaFiles.json", R"({"OneSocketNudge": 1})");
  EXPECT_FALSE(Cairn::toggleOneSocketNudgeEnabled());
  EXPECT_EQ(capture.lines().size(), asked) << "the second call doesn't reach getToggleState";
  handler.maskIs(savedMask);

  Cairn::resetToggleOneSocketNudgeForTesting();
  EXPECT_TRUE(Cairn::toggleOneSocketNudgeEnabled()) << "asked again after the reset";
}

}  // namespace

#include "Cairn/Util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/Exception.h"
#include "Cairn/ScopedEnvironment.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using CairnTesting::ScopedEnvironment;

std::string contents(const std::string & path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class CairnUtilTest : public ::testing::Test {
 protected:
  CairnUtilTest() { handler_.maskIs(1); }

  void expectCorruption(const std::string & file, std::size_t size, const std::string & message) {
    TestSupport::TraceCapture capture;
    try {
      Cairn::Util::validateFile(handler_, file, size);
      ADD_FAILURE() << "must refuse: " << message;
    } catch (const Basalt::CorruptionDetectedException & error) {
      EXPECT_EQ(error.message(), message);
    }
    EXPECT_TRUE(capture.contains("L0 " + message));
  }

  std::string marker() const { return temp_.path() + "/" + Cairn::Util::CORRUPTION_FILENAME; }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"CairnUtilTest"};
};

TEST_F(CairnUtilTest, SwitchesAreOffByDefaultAndOnOnlyForOne) {
  {
    ScopedEnvironment dut("TESSEL_PHYSICAL_DUT", std::nullopt);
    ScopedEnvironment strict("TESSEL_STRICT_VALIDATION", std::nullopt);
    EXPECT_FALSE(Cairn::Util::runningOnPhysicalDut());
    EXPECT_FALSE(Cairn::Util::strictValidation());
  }
  {
    ScopedEnvironment dut("TESSEL_PHYSICAL_DUT", "1");
    ScopedEnvironment strict("TESSEL_STRICT_VALIDATION", "1");
    EXPECT_TRUE(Cairn::Util::runningOnPhysicalDut());
    EXPECT_TRUE(Cairn::Util::strictValidation());
  }
  for (const char * value : {"", "0", "yes", "true", "11", " 1"}) {
    ScopedEnvironment dut("TESSEL_PHYSICAL_DUT", value);
    ScopedEnvironment strict("TESSEL_STRICT_VALIDATION", value);
    EXPECT_FALSE(Cairn::Util::runningOnPhysicalDut()) << "'" << value << "'";
    EXPECT_FALSE(Cairn::Util::strictValidation()) << "'" << value << "'";
  }
}

TEST_F(CairnUtilTest, SwitchesAreIndependent) {
  ScopedEnvironment dut("TESSEL_PHYSICAL_DUT", "1");
  ScopedEnvironment strict("TESSEL_STRICT_VALIDATION", std::nullopt);
  EXPECT_TRUE(Cairn::Util::runningOnPhysicalDut());
  EXPECT_FALSE(Cairn::Util::strictValidation());
}

TEST_F(CairnUtilTest, ValidateFileAcceptsAFileOfAtLeastTheExpectedSize) {
  const std::string file = temp_.path() + "/slots";
  std::ofstream(file) << std::string(100, 'x');
  Cairn::Util::validateFile(handler_, file, 100);
  Cairn::Util::validateFile(handler_, file, 99);
  Cairn::Util::validateFile(handler_, file, 0);
}

TEST_F(CairnUtilTest, ValidateFileRefusesAShortFile) {
  const std::string file = temp_.path() + "/slots";
  std::ofstream(file) << std::string(100, 'x');
  expectCorruption(file, 101, fmt::format("Cairn::Util::validateFile() {} size:100 expected:101", file));
}

TEST_F(CairnUtilTest, ValidateFileRefusesAMissingFile) {
  const std::string file = temp_.path() + "/slots";
  expectCorruption(file, 1,
                   fmt::format("Cairn::Util::validateFile() {} missing: No such file or directory", file));
}

TEST_F(CairnUtilTest, CorruptionFileHoldsTheMessageAndIsReplacedWhole) {
  EXPECT_STREQ(Cairn::Util::CORRUPTION_FILENAME, "corruption-detected");
  ASSERT_TRUE(Cairn::Util::writeCorruptionFile(handler_, temp_.path(), "SlotTable::validate() bad epoch:x"));
  EXPECT_EQ(contents(marker()), "SlotTable::validate() bad epoch:x\n");
  ASSERT_TRUE(Cairn::Util::writeCorruptionFile(handler_, temp_.path(), "second"));
  EXPECT_EQ(contents(marker()), "second\n");
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto & entry : std::filesystem::directory_iterator(temp_.path())) {
    ++entries;
  }
  EXPECT_EQ(entries, 1u) << "no temporary file left behind";
}

TEST_F(CairnUtilTest, RemoveCorruptionFileRemovesItAndAcceptsItsAbsence) {
  ASSERT_TRUE(Cairn::Util::writeCorruptionFile(handler_, temp_.path(), "bad"));
  EXPECT_TRUE(Cairn::Util::removeCorruptionFile(handler_, temp_.path()));
  EXPECT_NE(access(marker().c_str(), F_OK), 0);
  EXPECT_TRUE(Cairn::Util::removeCorruptionFile(handler_, temp_.path()));
}

TEST_F(CairnUtilTest, CorruptionFileInAMissingDirectoryIsTracedNotRaised) {
  const std::string missing = temp_.path() + "/gone";
  TestSupport::TraceCapture capture;
  EXPECT_FALSE(Cairn::Util::writeCorruptionFile(handler_, missing, "bad"));
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0],
            fmt::format("L0 Cairn::Util::writeCorruptionFile() cannot create {}/corruption-detected.tmp.{}: "
                        "No such file or directory",
                        missing, getpid()));
  EXPECT_NE(access(missing.c_str(), F_OK), 0) << "a reader creates no directory";
}

TEST_F(CairnUtilTest, RemoveCorruptionFileThatCannotBeRemovedSaysSo) {
  // A directory in the marker's place: unlink refuses it.
  std::filesystem::create_directory(marker());
  TestSupport::TraceCapture capture;
  EXPECT_FALSE(Cairn::Util::removeCorruptionFile(handler_, temp_.path()));
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].rfind(
                fmt::format("L0 Cairn::Util::removeCorruptionFile() cannot remove {}: ", marker()), 0),
            0u)
      << capture.lines()[0];
}

}  // namespace

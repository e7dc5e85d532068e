#include "ArenaFiles/EpochFile.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <cstring>
#include <cstddef>
#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ArenaFiles/FileTesting.h"
#include "Basalt/Exception.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using ArenaFiles::EpochFile;
using ArenaFiles::EpochId;

class EpochFileTest : public ::testing::Test {
 protected:
  EpochFileTest() { handler_.maskIs(1); }

  std::string path() const { return directory_ + "/" + EpochFile::EPOCH_NAME; }
  EpochFile file() { return EpochFile(handler_, directory_, false); }

  // Expects validate(expected) to refuse with exactly `message`.
  void expectRefused(EpochId expected, const std::string & message) {
    try {
      file().validate(expected);
      ADD_FAILURE() << "validate must refuse: " << message;
    } catch (const Basalt::CorruptionDetectedException & error) {
      EXPECT_EQ(error.message(), message);
    }
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"EpochFileTest"};
  std::string directory_ = temp_.path() + "/agent/table";
};

TEST_F(EpochFileTest, NameIsEpoch) { EXPECT_STREQ(EpochFile::EPOCH_NAME, "epoch"); }

TEST_F(EpochFileTest, AbsentFileReadsAsNone) {
  EXPECT_EQ(file().read(), EpochId());
  EXPECT_EQ(file().mtime(), 0);
}

TEST_F(EpochFileTest, WriteCreatesTheDirectoryAndReadGivesTheIdBack) {
  const EpochId id = EpochId::of(3, 4242);
  file().write(id);
  EXPECT_EQ(file().read(), id);
  EXPECT_EQ(FileTesting::contents(path()).size(), sizeof(EpochFile::Record));
  file().validate(id);
}

TEST_F(EpochFileTest, RewriteReplacesTheStampAndLeavesNoTemporaryFile) {
  file().write(EpochId::of(0, 7));
  file().write(EpochId::of(1, 7));
  EXPECT_EQ(file().read(), EpochId::of(1, 7));
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto & entry : std::filesystem::directory_iterator(directory_)) {
    ++entries;
  }
  EXPECT_EQ(entries, 1u) << "only the epoch file itself";
}

TEST_F(EpochFileTest, LayoutIsTheDocumentedOne) {
  file().write(EpochId(0x00020001));
  const std::string bytes = FileTesting::contents(path());
  ASSERT_EQ(bytes.size(), 24u);
  EXPECT_EQ(bytes.substr(0, 8), "TSLEPOCH");
  EXPECT_EQ(std::string(bytes.data() + 8, 4), std::string("\x01\0\0\0", 4)) << "version 1";
  EXPECT_EQ(std::string(bytes.data() + 12, 4), std::string("\x01\0\x02\0", 4)) << "epochId, little-endian";
  EXPECT_EQ(std::string(bytes.data() + 20, 4), std::string(4, '\0')) << "reserved";
}

TEST_F(EpochFileTest, MtimeIsTheTimeOfTheWrite) {
  file().write(EpochId::of(0, 1));
  struct utimbuf times = {1'000'000'000, 1'000'000'000};
  ASSERT_EQ(utime(path().c_str(), &times), 0);
  EXPECT_EQ(file().mtime(), 1'000'000'000);
  file().write(EpochId::of(0, 2));
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  EXPECT_GE(file().mtime(), now - 60);
  EXPECT_LE(file().mtime(), now + 60);
}

TEST_F(EpochFileTest, ValidateRefusesAnotherGenerationAndAnAbsentFile) {
  expectRefused(EpochId(5), fmt::format("EpochFile::validate() {} absent, expected:0x00000005", path()));
  file().write(EpochId(0x00010005));
  expectRefused(EpochId(5),
                fmt::format("EpochFile::validate() {} epochId:0x00010005 expected:0x00000005", path()));
}

// Every byte of the record matters: flipping any one of them is told.
TEST_F(EpochFileTest, EveryDamagedByteIsRefused) {
  const EpochId id = EpochId::of(9, 1234);
  for (std::size_t offset = 0; offset < sizeof(EpochFile::Record); ++offset) {
    file().write(id);
    FileTesting::flipByte(path(), offset);
    TestSupport::TraceCapture capture;
    EXPECT_EQ(file().read(), EpochId()) << "offset " << offset;
    ASSERT_EQ(capture.lines().size(), 1u) << "offset " << offset;
    EXPECT_EQ(capture.lines()[0].rfind(fmt::format("L0 EpochFile::read() {} ", path()), 0), 0u)
        << capture.lines()[0];
    EXPECT_THROW(file().validate(id), Basalt::CorruptionDetectedException) << "offset " << offset;
  }
}

TEST_F(EpochFileTest, DamageMessagesNameWhatIsWrong) {
  const EpochId id = EpochId::of(1, 2);
  file().write(id);
  FileTesting::flipByte(path(), 0);
  expectRefused(id, fmt::format("EpochFile::validate() {} bad magic:0x48434f50454c53ab", path()));

  file().write(id);
  FileTesting::flipByte(path(), 8);
  expectRefused(id, fmt::format("EpochFile::validate() {} bad version:254", path()));

  file().write(id);
  std::string bytes = FileTesting::contents(path());
  bytes[12] = 3;  // another id under the old checksum
  FileTesting::overwrite(path(), bytes);
  EpochFile::Record record;
  std::memcpy(&record, bytes.data(), sizeof(record));
  expectRefused(id, fmt::format("EpochFile::validate() {} checksum fail: 0x{:x} != 0x{:x}", path(),
                                record.doChecksum(), record.checksum));
}

TEST_F(EpochFileTest, GarbageOfAnotherSizeIsNoStamp) {
  std::filesystem::create_directories(directory_);
  FileTesting::overwrite(path(), "");
  EXPECT_EQ(file().read(), EpochId());
  expectRefused(EpochId(1), fmt::format("EpochFile::validate() {} bad size:0 expected:24", path()));

  FileTesting::overwrite(path(), "TSLEPOCH");
  expectRefused(EpochId(1), fmt::format("EpochFile::validate() {} bad size:8 expected:24", path()));

  FileTesting::overwrite(path(), std::string(100, 'x'));
  EXPECT_EQ(file().read(), EpochId());
  expectRefused(EpochId(1), fmt::format("EpochFile::validate() {} bad size: more than 24 bytes", path()));
}

TEST_F(EpochFileTest, RecordOfIdZeroIsNoStamp) {
  EpochFile::Record record{EpochFile::Magic, EpochFile::Version, EpochId(), 0, 0};
  record.checksum = record.doChecksum();
  std::filesystem::create_directories(directory_);
  FileTesting::overwrite(path(), std::string(reinterpret_cast<const char *>(&record), sizeof(record)));
  EXPECT_EQ(file().read(), EpochId());
  expectRefused(EpochId(1), fmt::format("EpochFile::validate() {} bad epochId:0x00000000", path()));
}

TEST_F(EpochFileTest, WritingIdZeroIsAnAssertion) {
  EXPECT_THROW(file().write(EpochId()), Basalt::AssertException);
  EXPECT_FALSE(FileTesting::exists(path()));
}

TEST_F(EpochFileTest, WriteThatCannotCreateTheFileRaises) {
  std::filesystem::create_directories(temp_.path());
  FileTesting::overwrite(temp_.path() + "/plain", "a file, not a directory");
  EpochFile blocked(handler_, temp_.path() + "/plain", false);
  try {
    blocked.write(EpochId(1));
    FAIL() << "no directory can be made under a plain file";
  } catch (const Basalt::InvalidInitializeException & error) {
    EXPECT_EQ(error.message(),
              fmt::format("EpochFile::write() {0}/plain/epoch epochId:0x00000001 cannot create "
                          "{0}/plain/epoch.tmp.{1}: Not a directory",
                          temp_.path(), getpid()));
  }
}

TEST_F(EpochFileTest, LocalTableTouchesNoFile) {
  EpochFile local(handler_, directory_, true);
  local.write(EpochId(1));
  EXPECT_FALSE(FileTesting::exists(directory_));
  EXPECT_EQ(local.read(), EpochId());
  EXPECT_EQ(local.mtime(), 0);
  local.validate(EpochId(77));
}

}  // namespace

// The writer sentry: it has the writer check its files when they are
// touched through the file system.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "Cairn/SentryTesting.h"
#include "Support/TraceCapture.h"

using namespace SentryTest;
using namespace MapFrontTest;
using Cairn::CairnType;

namespace {

// Counts the checks; raises what the test asks for.
class Checked : public Arena::WriterSentryNotifiee {
 public:
  ArenaFiles::EpochId epochId() const override { return ArenaFiles::EpochId(0x30001); }
  bool validateFiles() override {
    ++checks;
    if (corrupt) {
      throw Basalt::CorruptionDetectedException("Cairn::Util::validateFile() slots missing: No such file");
    }
    if (onCheck) {
      onCheck();
    }
    return true;
  }

  int checks = 0;
  bool corrupt = false;
  std::function<void()> onCheck;
};

class WriterSentryTest : public ::testing::Test {
 protected:
  WriterSentryTest() {
    table.formatted(0x30001);
    std::ofstream(table.file("slots")) << "slots";
    sentry = std::make_unique<Arena::WriterSentry>(table.handler, writer, table.directory());
  }
  void touch() { truncate(table.file("slots").c_str(), 1); }

  TableFiles table;
  Checked writer;
  std::unique_ptr<Arena::WriterSentry> sentry;
};

TEST_F(WriterSentryTest, TouchedFilesAreChecked) {
  touch();
  ASSERT_TRUE(runUntil([&] { return writer.checks == 1; }));
  std::filesystem::remove(table.file("slots"));
  ASSERT_TRUE(runUntil([&] { return writer.checks == 2; }));
  chmod(table.file(ArenaFiles::EpochFile::EPOCH_NAME).c_str(), 0600);
  ASSERT_TRUE(runUntil([&] { return writer.checks == 3; }));
}

TEST_F(WriterSentryTest, PokeChecksOnlyWhatIsQueued) {
  sentry->poke("CairnMap::init()");
  EXPECT_EQ(writer.checks, 0);
  touch();
  touch();
  sentry->poke("now");
  EXPECT_EQ(writer.checks, 1) << "one check for all the changes queued";
}

TEST_F(WriterSentryTest, PurgeDropsTheQueuedChanges) {
  touch();
  sentry->purgeInotifyRecord();
  sentry->poke("now");
  EXPECT_EQ(writer.checks, 0);
}

TEST_F(WriterSentryTest, HeldBackSentryDropsChanges) {
  TestSupport::TraceCapture traces;
  table.handler.maskIs(0x21);
  sentry->attachedIs(false);
  touch();
  ASSERT_TRUE(runUntil([&] { return traces.contains("WriterSentry::check() " + table.directory() +
                                                    " reason:inotify held back"); }));
  EXPECT_EQ(writer.checks, 0);
}

TEST_F(WriterSentryTest, FailedCheckIsReportedAndTheSentryWatchesOn) {
  TestSupport::TraceCapture traces;
  writer.corrupt = true;
  touch();
  ASSERT_TRUE(runUntil([&] { return writer.checks == 1; }));
  EXPECT_TRUE(traces.contains("L0 WriterSentry::check() " + table.directory() +
                              " epochId:0x00030001 files failed validation: Cairn::Util::validateFile() slots "
                              "missing: No such file"));
  touch();
  ASSERT_TRUE(runUntil([&] { return writer.checks == 2; }));
}

TEST_F(WriterSentryTest, NotifieeMayDestroyTheSentryInsideTheCheck) {
  writer.onCheck = [&] { sentry.reset(); };
  touch();
  ASSERT_TRUE(runUntil([&] { return sentry == nullptr; }));
}

// ---- A writer map and its sentry ----

class WriterMapSentryTest : public ::testing::Test {
 protected:
  WriterMapSentryTest() : map("test/map") { map.init(descriptorOf(CairnType::writer)); }
  std::string file(const std::string & name) const { return root.path() + "/test/map/" + name; }

  CairnTest::ScopedShmRoot root;
  TestMap map;
};

TEST_F(WriterMapSentryTest, MarkerOfAReaderMakesTheWriterCheckAndRemoveIt) {
  Cairn::Util::writeCorruptionFile(map.debugHandler(), root.path() + "/test/map", "seen by a reader");
  ASSERT_TRUE(runUntil([&] { return !std::filesystem::exists(file(Cairn::Util::CORRUPTION_FILENAME)); }));
}

TEST_F(WriterMapSentryTest, FileRemovedFromOutsideIsReported) {
  TestSupport::TraceCapture traces;
  std::filesystem::remove(file("slots"));
  ASSERT_TRUE(runUntil([&] { return traces.contains("files failed validation: Cairn::Util::validateFile() " +
                                                    file("slots") + " missing"); }));
}

TEST_F(WriterMapSentryTest, WritersOwnDetachIsNotCheckedAfterwards) {
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  map.detach(false);  // writes the owner file, then purges
  map.mounter()->poke("after detach");
  EXPECT_FALSE(traces.contains("WriterSentry::check()"));
}

}  // namespace

// Damage on disk: one byte of a table's files changed while no writer runs,
// then a writer starts on them. Whatever the byte, the start must end in a
// sound table: the entries kept, if the files still prove sound, or a table
// formatted afresh; never a crash, a hang or a failed attach.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "Cairn/WriterTestTypes.h"
#include "Support/TraceCapture.h"

using namespace CairnTest;
using Value = IifSizedValue;
using Writer = WriterFor<Value>;

namespace {

// TESSEL_DAMAGES sets the number of damages per part of the files (default 50).
int damagesPerPart() {
  const char * text = std::getenv("TESSEL_DAMAGES");
  return text != nullptr ? std::atoi(text) : 50;
}

// Where a damage may land: byte ranges of one or more of the table's files.
struct Part {
  const char * name;
  std::vector<std::string> files;
  std::size_t from;  // first byte that may be damaged, in each file
  std::size_t to;    // the byte after the last, or 0 for the end of the file
  uint32_t seed;
};

class CairnWriterDamageTest : public ::testing::Test {
 protected:
  CairnWriterDamageTest() : table(descriptor(), "test/damage") {
    Writer & writer = table.start();
    for (uint64_t number = 0; number < 150; ++number) {
      writer.write(Value(number, 1), true);
    }
    for (uint64_t number = 0; number < 150; number += 4) {
      writer.write(Value(number, 2), true);
    }
    for (uint64_t number = 1; number < 150; number += 5) {
      Value removed;
      writer.remove(NumberKey{number}, removed);
    }
    *writer.directWrite(NumberKey{500}) = Value(500, 3);
    writer.directCommit();
    members = writer.members();
    epoch = writer.epochId();
    table.stop();
    for (const char * file : pieces()) {
      pristine[file] = FileBytes(table.file(file)).contents();
    }
  }

  static Cairn::MapDescriptor descriptor() {
    auto descriptor = sharedDescriptor(1000);
    descriptor.shrinkBuckets = true;
    return descriptor;
  }

  static std::vector<const char *> pieces() {
    return {"slots", "buckets", Ripple::ControlFileName, Ripple::PrimaryFileName, Ripple::SecondaryFileName,
            ArenaFiles::EpochFile::EPOCH_NAME, ArenaFiles::OwnerFile::FILENAME};
  }

  // The files as the writer left them, whatever the last start did to them.
  void restore() {
    for (const auto & [file, contents] : pristine) {
      FileBytes(table.file(file)).contentsIs(contents);
    }
    std::filesystem::remove(table.file(Cairn::Util::CORRUPTION_FILENAME));
  }

  // Damages random bytes of `part`, one at a time, and starts a writer on
  // each damaged table.
  void damage(const Part & part) {
    std::mt19937 random(part.seed);
    const int count = damagesPerPart();
    int kept = 0;
    for (int round = 0; round < count; ++round) {
      restore();
      const std::string & file = part.files[random() % part.files.size()];
      const FileBytes bytes(table.file(file));
      const std::size_t end = part.to != 0 ? part.to : bytes.size();
      const std::size_t offset = part.from + random() % (end - part.from);
      const auto mask = static_cast<unsigned char>(1 + random() % 255);
      bytes.flip(offset, mask);
      const std::string where = fmt::format("{} byte {} ^ 0x{:02x}", file, offset, mask);
      Writer * writer = nullptr;
      {
        TestSupport::TraceCapture failures;  // what a re-format says at level 0 isn't the point here
        ASSERT_NO_THROW(writer = &table.start()) << where;
      }
      EXPECT_TRUE(writer->validate()) << where;
      if (writer->epochId() == epoch) {
        ++kept;
        EXPECT_EQ(writer->members(), members) << where;
      } else {
        EXPECT_EQ(writer->epochId(), epoch.reformatted()) << where;
        EXPECT_EQ(writer->members(), 0u) << where;
      }
      // Whichever it was, the table goes on working.
      for (uint64_t number = 1000; number < 1100; ++number) {
        writer->write(Value(number, 1), true);
      }
      for (uint64_t number = 1000; number < 1100; number += 2) {
        Value removed;
        EXPECT_TRUE(writer->remove(NumberKey{number}, removed)) << where;
      }
      EXPECT_TRUE(writer->validate()) << where;
      table.stop();
      ASSERT_FALSE(HasFailure()) << where;
    }
    std::cout << "[ DAMAGES  ] " << count << " bytes of the " << part.name << ": " << kept << " tables kept, "
              << count - kept << " re-formatted" << std::endl;
  }

  TableHarness<Value> table;
  uint32_t members = 0;
  ArenaFiles::EpochId epoch;
  std::map<std::string, std::string> pristine;
};

}  // namespace

TEST_F(CairnWriterDamageTest, SlotFileHeader) {
  damage({"slot file's header", {"slots"}, 0, Cairn::SlotHeaderFixedSize, 11});
}

TEST_F(CairnWriterDamageTest, SlotFileSlots) {
  // The LookasideSlot first, then the slots.
  damage({"slot file's slots", {"slots"}, Cairn::SlotHeaderFixedSize, 0, 12});
}

TEST_F(CairnWriterDamageTest, BucketFile) {
  damage({"bucket file", {"buckets"}, 0, 0, 13});
}

TEST_F(CairnWriterDamageTest, QueueFiles) {
  damage({"queue files", {Ripple::ControlFileName, Ripple::PrimaryFileName, Ripple::SecondaryFileName}, 0, 0, 14});
}

// The operator tool's commands against real tables: a writer collection of
// each table type fills a table, and every command reads it back from its
// files alone, with the writer alive in another process or gone.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Inspect/Commands.h"
#include "Inspect/TableFiles.h"
#include "Rig/Directory.h"
#include "TesselHwLib/CollectionTesting.h"

namespace {

using namespace CollectionTest;

constexpr uint64_t Entries = 40;

std::string fileBytes(const std::string & path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Writes `bytes` over the file at `offset`.
void damage(const std::string & path, off_t offset, const std::string & bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

template <typename C>
class InspectCommands : public ::testing::Test {
 protected:
  using T = Table<C>;
  static constexpr const char * TableName = "agent/table-object/table";

  // A writer collection of the table, mounted and filled with Entries
  // entries, of which every fifth is then removed.
  Rig::Ptr<C> writer() {
    Rig::Ptr<C> collection = T::make("table-object");
    root_->entityIs(collection);
    collection->tableControl()->mount(descriptor(Cairn::CairnType::writer, false, 256));
    mounted_.push_back(collection);
    for (uint64_t number = 0; number < Entries; ++number) {
      collection->tableIs(T::entry(number));
    }
    for (uint64_t number = 0; number < Entries; number += 5) {
      collection->tableDel(T::key(number));
    }
    return collection;
  }

  // The text forms of the writer's entries, in its table order.
  static std::string writerText(C & collection) {
    std::string text;
    typename C::Table::IteratorConst iterator(&collection.table());
    for (; iterator.nonnull(); iterator.advance()) {
      text += std::string(valueToStrep(iterator.value().value)) + "\n";
    }
    return text;
  }

  std::string file(const char * name) const { return Inspect::TableFiles(TableName).directory() + "/" + name; }

  // A mounted collection is kept alive by its control: each is unmounted
  // here, so that none outlives the test.
  ~InspectCommands() override {
    for (const auto & collection : mounted_) {
      collection->tableControl()->unmount();
    }
  }

  std::vector<Rig::Ptr<C>> mounted_;
  ScopedShmRoot shmRoot_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("agent"));
};

TYPED_TEST_SUITE(InspectCommands, Collections);

TYPED_TEST(InspectCommands, DumpGivesTheWritersEntriesInTableOrderAndTheEntryUnderAKey) {
  using T = typename TestFixture::T;
  auto collection = this->writer();
  const std::string expected = this->writerText(*collection);
  EXPECT_EQ(Inspect::dump(this->TableName, false, std::nullopt), expected);
  const std::string keyText = valueToStrep(T::key(7));
  EXPECT_EQ(Inspect::dump(this->TableName, false, keyText), std::string(valueToStrep(T::entry(7))) + "\n");
  try {
    Inspect::dump(this->TableName, false, std::string(valueToStrep(T::key(5))));
    FAIL() << "a removed key was found";
  } catch (const Inspect::Error & error) {
    EXPECT_EQ(error.status(), 1);
    EXPECT_EQ(std::string(error.what()),
              "table agent/table-object/table: no entry with key " + std::string(valueToStrep(T::key(5))));
  }
}

TYPED_TEST(InspectCommands, DumpAsJsonParsesAndHasOneObjectPerEntryWithEveryField) {
  using T = typename TestFixture::T;
  auto collection = this->writer();
  const auto entries = nlohmann::json::parse(Inspect::dump(this->TableName, true, std::nullopt));
  ASSERT_TRUE(entries.is_array());
  EXPECT_EQ(entries.size(), Entries - Entries / 5);
  size_t fields = 0;
  Rig::Record::forEachField<typename T::Entry>([&](const auto & field) {
    ++fields;
    EXPECT_TRUE(entries[0].contains(std::string(field.name))) << field.name;
  });
  EXPECT_EQ(entries[0].size(), fields);
}

TYPED_TEST(InspectCommands, HeadersAreTheEnginesDumpTexts) {
  auto collection = this->writer();
  const std::string text = Inspect::headers(this->TableName);
  const Inspect::TableFiles files(this->TableName);
  EXPECT_NE(text.find(files.slotHeader().toString()), std::string::npos) << text;
  EXPECT_NE(text.find(files.bucketHeader().toString()), std::string::npos) << text;
  EXPECT_NE(text.find(files.queueHeaders()->control.toString()), std::string::npos) << text;
  EXPECT_EQ(text.rfind("Cairn table \"agent/table-object/table\"", 0), 0u) << text;
}

TYPED_TEST(InspectCommands, LsAndStatTellTheTableItsFillAndItsLiveWriter) {
  auto collection = this->writer();
  const auto rows = nlohmann::json::parse(Inspect::ls(true));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["table"], this->TableName);
  EXPECT_EQ(rows[0]["entries"], Entries - Entries / 5);
  EXPECT_EQ(rows[0]["type"], std::string(Rig::Record::Layout<typename TestFixture::T::Entry>::typeName));
  EXPECT_EQ(rows[0]["writerPid"], getpid());
  EXPECT_EQ(rows[0]["writerAlive"], true);
  const auto stat = nlohmann::json::parse(Inspect::stat(this->TableName, true));
  EXPECT_EQ(stat["entries"], Entries - Entries / 5);
  EXPECT_EQ(stat["maxSlots"], 256u);
  EXPECT_GE(stat["capacity"].template get<uint32_t>(), stat["entries"].template get<uint32_t>());
  EXPECT_GE(stat["buckets"].template get<uint32_t>(), 2u);
  EXPECT_EQ(stat["writeInProgress"], false);
  EXPECT_TRUE(stat["corruptionMarker"].is_null());
  EXPECT_GT(stat["queue"]["depth"].template get<uint32_t>(), 0u);
  EXPECT_NE(Inspect::stat(this->TableName, false).find("entries"), std::string::npos);
}

TYPED_TEST(InspectCommands, CheckPassesASoundTableAndChangesNoByteOfIt) {
  auto collection = this->writer();
  const std::string slotsBefore = fileBytes(this->file("slots"));
  const std::string bucketsBefore = fileBytes(this->file("buckets"));
  const Inspect::CheckResult result = Inspect::check(this->TableName);
  EXPECT_TRUE(result.sound) << result.text;
  EXPECT_EQ(result.text.rfind("table agent/table-object/table: sound, 32 entries, generation 0x", 0), 0u)
      << result.text;
  EXPECT_EQ(fileBytes(this->file("slots")), slotsBefore);
  EXPECT_EQ(fileBytes(this->file("buckets")), bucketsBefore);
  // The writer goes on, undisturbed.
  collection->tableIs(TestFixture::T::entry(100));
  EXPECT_EQ(nlohmann::json::parse(Inspect::stat(this->TableName, true))["entries"], Entries - Entries / 5 + 1);
}

TYPED_TEST(InspectCommands, CheckTellsItsProgressThroughTheWalkAndStatWhenTheTableWasLastValidated) {
  auto collection = this->writer();
  std::vector<std::pair<uint32_t, uint32_t>> reports;
  const Inspect::CheckResult result =
      Inspect::check(this->TableName, [&](uint32_t walked, uint32_t occupied) { reports.emplace_back(walked, occupied); });
  EXPECT_TRUE(result.sound) << result.text;
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back(), std::make_pair(uint32_t{32}, uint32_t{32}));
  const auto stat = nlohmann::json::parse(Inspect::stat(this->TableName, true));
  const std::string validated = stat["lastValidation"];
  EXPECT_EQ(validated.size(), std::string("2026-11-25T08:00:00Z").size()) << validated;
  EXPECT_EQ(validated.back(), 'Z') << validated;
}

TYPED_TEST(InspectCommands, CheckReportsAWrongEntryCountAsTheValidatorDoes) {
  auto collection = this->writer();
  collection->tableControl()->unmount();
  collection = nullptr;
  // occupiedSlots, at byte 168 of the slot file's header.
  damage(this->file("slots"), 168, std::string("\x07\x00\x00\x00", 4));
  const Inspect::CheckResult result = Inspect::check(this->TableName);
  EXPECT_FALSE(result.sound);
  EXPECT_EQ(result.text.rfind("table agent/table-object/table: corrupt, the next writer would format it afresh: ", 0),
            0u)
      << result.text;
  EXPECT_NE(result.text.find("Validator"), std::string::npos) << result.text;
}

TYPED_TEST(InspectCommands, ReadOnlyCommandsWorkWithNoWriterRunning) {
  std::string expected;
  {
    auto collection = this->writer();
    expected = this->writerText(*collection);
    collection->tableControl()->unmount();
  }
  EXPECT_EQ(Inspect::dump(this->TableName, false, std::nullopt), expected);
  const auto rows = nlohmann::json::parse(Inspect::ls(true));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["entries"], Entries - Entries / 5);
  EXPECT_TRUE(Inspect::check(this->TableName).sound);
}

TEST(InspectErrors, ABadNameOrAMissingTableIsStatusTwoNamingIt) {
  ScopedShmRoot root;
  for (const std::string name : {"a/../b", "", "agent//x"}) {
    try {
      Inspect::dump(name, false, std::nullopt);
      FAIL() << "accepted " << name;
    } catch (const Inspect::Error & error) {
      EXPECT_EQ(error.status(), 2);
      EXPECT_NE(std::string(error.what()).find("name"), std::string::npos) << error.what();
    }
  }
  try {
    Inspect::stat("agent/none", false);
    FAIL() << "a missing table was found";
  } catch (const Inspect::Error & error) {
    EXPECT_EQ(error.status(), 2);
    EXPECT_EQ(std::string(error.what()).rfind("table agent/none: no table at ", 0), 0u) << error.what();
  }
  EXPECT_EQ(Inspect::ls(false).find('\n'), Inspect::ls(false).size() - 1) << "only the heading on an empty base";
  EXPECT_EQ(nlohmann::json::parse(Inspect::ls(true)).size(), 0u);
}

}  // namespace

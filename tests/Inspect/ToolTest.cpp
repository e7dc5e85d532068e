// The tessel program itself: exit statuses, where its texts go, and that a
// command's output is the Inspect command's text.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Inspect/Commands.h"
#include "Rig/Directory.h"
#include "Support/TempDir.h"
#include "TesselHwLib/CollectionTesting.h"

namespace {

using namespace CollectionTest;

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

std::string contents(const std::string & path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Runs tessel with `arguments` (the base directory from the environment).
ToolRun tessel(const std::string & arguments) {
  const TestSupport::TempDir output;
  const std::string out = output.path() + "/out";
  const std::string err = output.path() + "/err";
  const int status = std::system(fmt::format("{} {} >{} 2>{} </dev/null", TESSEL_TOOL, arguments, out, err).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(out), contents(err)};
}

TEST(TesselTool, HelpIsStatusZeroAndAMissingOrUnknownCommandIsTwo) {
  const ToolRun help = tessel("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("dump"), std::string::npos);
  EXPECT_EQ(tessel("dump --help").status, 0);
  EXPECT_EQ(tessel("").status, 2);
  EXPECT_EQ(tessel("bogus").status, 2);
  EXPECT_EQ(tessel("dump").status, 2);  // no table
}

TEST(TesselTool, ABadNameOrAMissingTableIsStatusTwoWithOneLineNamingIt) {
  const ScopedShmRoot root;
  const ToolRun bad = tessel("dump 'a/../b'");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_EQ(bad.err, "tessel dump: Cairn::RootPath() bad table name: 'a/../b'\n");
  const ToolRun missing = tessel("stat agent/none");
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err, fmt::format("tessel stat: table agent/none: no table at {}/agent/none\n",
                                     std::getenv(Cairn::RootPath::baseVariable)));
}

TEST(TesselTool, DumpPrintsTheCommandsTextAndCheckSaysSoundOrCorruptByStatus) {
  using T = Table<L3TunnelTH3Config>;
  const ScopedShmRoot root;
  {
    auto directory = Rig::make<Rig::Directory>(Rig::Name("agent"));
    auto collection = T::make("tunnels");
    directory->entityIs(collection);
    collection->tableControl()->mount(descriptor(Cairn::CairnType::writer, false, 64));
    for (uint64_t number = 0; number < 20; ++number) {
      collection->tableIs(T::entry(number));
    }
    collection->tableControl()->unmount();
  }
  const std::string table = "agent/tunnels/table";
  const ToolRun dump = tessel("dump " + table);
  EXPECT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.out, Inspect::dump(table, false, std::nullopt));
  const ToolRun sound = tessel("check " + table);
  EXPECT_EQ(sound.status, 0) << sound.err;
  EXPECT_EQ(sound.out.rfind("table agent/tunnels/table: sound, 20 entries", 0), 0u) << sound.out;
  // A slot file cut to its header: the next writer would format afresh.
  const std::string slots = fmt::format("{}/{}/slots", std::getenv(Cairn::RootPath::baseVariable), table);
  ASSERT_EQ(::truncate(slots.c_str(), 400), 0);
  const ToolRun corrupt = tessel("check " + table);
  EXPECT_EQ(corrupt.status, 1);
  EXPECT_EQ(corrupt.out.rfind("table agent/tunnels/table: corrupt, the next writer would format it afresh: ", 0), 0u)
      << corrupt.out;
}

TEST(TesselTool, TheDemoRunsItsThreeAgentsAndFindsEveryTableConsistent) {
  const ToolRun demo = tessel("demo --keys 200 --bursts 5 --burst-size 100");
  EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
  EXPECT_NE(demo.out.find("every Status table matches its Config table"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("500 config operations"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("status/myStationTcam/table"), std::string::npos) << demo.out;
  EXPECT_EQ(demo.out.find("tessel demo: 200 keys"), demo.out.rfind("tessel demo: 200 keys")) << "printed once";
  EXPECT_EQ(tessel("demo --keys 0").status, 2);
}

}  // namespace

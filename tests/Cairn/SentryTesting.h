#pragma once
// What the sentry tests share: a table's files made by hand (an epoch file
// and an owner file naming a live or a dead writer), and notifiees that
// record what a sentry calls.

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Arena/ReaderSentry.h"
#include "Arena/WriterSentry.h"
#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Cairn/MapFrontTesting.h"
#include "Cairn/Sentry.h"

namespace SentryTest {

// A process id above any the system hands out: its writer is dead.
constexpr pid_t DeadPid = 2147483000;

// The files of one table under a temporary base directory.
struct TableFiles {
  explicit TableFiles(std::string name = "test/sentry") : name(std::move(name)) {}

  std::string directory() const { return root.path() + "/" + name; }
  std::string file(const std::string & fileName) const { return directory() + "/" + fileName; }

  // What a writer leaves when it has formatted the table: its generation,
  // and the owner file naming the writer process `pid`.
  void formatted(uint32_t epochId, pid_t pid = getpid()) {
    ownedBy(pid);
    ArenaFiles::EpochFile(handler, directory(), false).write(ArenaFiles::EpochId(epochId));
  }
  void ownedBy(pid_t pid) {
    std::filesystem::create_directories(directory());
    ArenaFiles::OwnerFile(handler, directory(), false)
        .doorbellInfoIs(ArenaFiles::DoorbellInfo("tessel-test-" + std::to_string(pid), 1));
  }
  // What a writer's cleanup leaves: nothing.
  void removed() { std::filesystem::remove_all(directory()); }

  CairnTest::ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"sentry-test"};
  std::string name;
};

// A reader-side notifiee that mounts what the epoch file says.
class Reader : public Arena::ReaderSentryNotifiee {
 public:
  Reader(Basalt::Platform::DebugHandler & handler, std::string directory)
      : handler_(handler), directory_(std::move(directory)) {}

  bool readerFullyAttached() const override { return !mounted.none() && fullyAttached; }
  bool notifying() const override { return true; }
  bool localMem() const override { return local; }
  ArenaFiles::EpochId epochId() const override { return mounted; }
  std::string modeStr() const override { return "reader"; }
  void detach(bool) override {
    calls.push_back("detach");
    mounted = ArenaFiles::EpochId();
    if (onDetach) {
      onDetach();
    }
  }
  void attach(const std::string & name) override {
    calls.push_back("attach:" + name);
    if (mounts) {
      mounted = ArenaFiles::EpochFile(handler_, directory_, false).read();
    }
    if (onAttach) {
      onAttach();
    }
  }
  bool disconnectedActiveReader() const override { return disconnected; }

  std::vector<std::string> calls;
  ArenaFiles::EpochId mounted;
  bool mounts = true;  // false: every attach fails
  bool fullyAttached = true;
  bool disconnected = false;
  bool local = false;
  std::function<void()> onAttach;
  std::function<void()> onDetach;

 private:
  Basalt::Platform::DebugHandler & handler_;
  std::string directory_;
};

inline Arena::ReaderSentry::Probe probe(Basalt::Platform::DebugHandler & handler) {
  return [&handler](const std::string & directory) { return Cairn::probeTable(handler, directory); };
}

}  // namespace SentryTest

// The same collection class is a writer in one process and a reader in
// another, by its descriptor alone: for each of the six collections, a
// writer made by its factory runs phases of writes, rewrites and removals,
// and after each phase a reader collection in a forked process checks its
// lookups and its full walk against a model of what the writer did. The
// writer's observers see attribute 258 with each key it wrote or removed.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <typeinfo>

#include <fmt/format.h>

#include "Loop/EventLoop.h"
#include "Rig/Directory.h"
#include "TesselHwLib/CollectionTesting.h"

using namespace CollectionTest;

namespace {

constexpr uint32_t Phases = 5;
constexpr uint32_t Done = 0;
// The numbers any phase may touch; a reader looks up every one.
constexpr uint64_t Numbers = 520;

// What happens to the table in each phase. Both processes replay it: the
// writer against its collection, the reader against its model.
template <typename Write, typename Remove, typename RemoveAll>
void replay(uint32_t phase, Write && write, Remove && remove, RemoveAll && removeAll) {
  switch (phase) {
    case 1:  // fill, past several bucket doublings
      for (uint64_t number = 0; number < 200; ++number) {
        write(number, 1);
      }
      break;
    case 2:  // rewrite half, remove a quarter
      for (uint64_t number = 0; number < 200; number += 2) {
        write(number, 2);
      }
      for (uint64_t number = 150; number < 200; ++number) {
        remove(number);
      }
      break;
    case 3:  // remove what is not there, add a few
      for (uint64_t number = 500; number < 510; ++number) {
        remove(number);
      }
      for (uint64_t number = 300; number < 310; ++number) {
        write(number, 1);
      }
      break;
    case 4:
      removeAll();
      break;
    case 5:  // the table is used again after it was emptied
      for (uint64_t number = 0; number < 10; ++number) {
        write(number, 3);
      }
      break;
    default:
      break;
  }
}

template <typename C>
using Model = std::map<uint64_t, typename Table<C>::Entry>;

template <typename C>
void replayOnModel(uint32_t phase, Model<C> & model) {
  replay(
      phase, [&](uint64_t number, uint64_t version) { model[number] = Table<C>::entry(number, version); },
      [&](uint64_t number) { model.erase(number); }, [&] { model.clear(); });
}

// One end of the conversation between the two processes: the writer sends
// a phase number (0 ends it); the reader answers with a text, "ok" or what
// it found wrong.
class Channel {
 public:
  Channel(int in, int out) : in_(in), out_(out) {}

  void sendPhase(uint32_t phase) const { writeAll(&phase, sizeof phase); }
  uint32_t receivePhase() const {
    uint32_t phase = Done;
    return readAll(&phase, sizeof phase) ? phase : Done;
  }
  void sendText(const std::string & text) const {
    const auto size = static_cast<uint32_t>(text.size());
    writeAll(&size, sizeof size);
    writeAll(text.data(), size);
  }
  std::string receiveText() const {
    uint32_t size = 0;
    if (!readAll(&size, sizeof size)) {
      return "reader gone";
    }
    std::string text(size, '\0');
    return readAll(text.data(), size) ? text : "reader gone";
  }

 private:
  void writeAll(const void * data, size_t size) const {
    if (write(out_, data, size) != static_cast<ssize_t>(size)) {
      throw std::runtime_error("pipe write failed");
    }
  }
  bool readAll(void * data, size_t size) const {
    auto * bytes = static_cast<char *>(data);
    while (size > 0) {
      const ssize_t got = read(in_, bytes, size);
      if (got <= 0) {
        return false;
      }
      bytes += got;
      size -= static_cast<size_t>(got);
    }
    return true;
  }

  int in_;
  int out_;
};

// The collection as it lies in the tree of either process.
template <typename C>
struct Placed {
  Rig::Ptr<Rig::Directory> root = Rig::make<Rig::Directory>(Rig::Name("agent"));
  Rig::Ptr<C> collection = Table<C>::make("l3");
  Placed() { root->entityIs(collection); }
};

// What a reader collection finds wrong against the model; empty if nothing.
template <typename C>
std::string differences(const C & collection, const Model<C> & model) {
  using T = Table<C>;
  for (uint64_t number = 0; number < Numbers; ++number) {
    bool found = false;
    typename C::Wrapper value;
    collection.table().safeLookup(T::key(number), found, &value);
    const auto expected = model.find(number);
    if (found != (expected != model.end())) {
      return fmt::format("lookup of {}: found {}", number, found);
    }
    if (found && !(value.value == expected->second)) {
      return fmt::format("lookup of {}: {}", number, std::string(valueToStrep(value.value)));
    }
  }
  Model<C> walked;
  for (typename C::Table::IteratorConst iterator(&collection.table()); iterator.nonnull(); iterator.advance()) {
    const auto & entry = iterator.value().value;
    const auto number = entry.genId() / 1000;
    if (!walked.emplace(number, entry).second) {
      return fmt::format("walk gave {} twice", number);
    }
  }
  return walked == model ? "" : fmt::format("walk gave {} entries, expected {}", walked.size(), model.size());
}

template <typename C>
int runReader(const Channel & channel) {
  Placed<C> placed;
  placed.collection->tableControl()->mount(descriptor(Cairn::CairnType::reader));
  const bool mounted = Loop::processLoop().runUntil(
      [&] { return placed.collection->table().mountStatus() == 1; }, std::chrono::seconds(20));
  channel.sendText(mounted ? "ready" : "reader did not mount");
  Model<C> model;
  for (uint32_t phase = channel.receivePhase(); phase != Done; phase = channel.receivePhase()) {
    replayOnModel<C>(phase, model);
    const std::string found = differences(*placed.collection, model);
    channel.sendText(found.empty() ? "ok" : fmt::format("phase {}: {}", phase, found));
  }
  placed.collection->tableControl()->unmount();
  return 0;
}

// The reader runs in a process of its own, this test program started again
// with only the reader's test selected: a fresh process, whose event loop,
// sentries and mappings are its own. It learns its collection type and the
// two pipe ends from this variable.
constexpr const char * ReaderVariable = "TESSEL_COLLECTION_READER";

template <typename... C>
std::map<std::string, int (*)(const Channel &)> readerEntries() {
  return {{Rig::demangleStdString(typeid(C)), &runReader<C>}...};
}

int runReaderOf(const std::string & collection, const Channel & channel) {
  static const auto readers = readerEntries<L3IifTH3Config, L3IifTH3Status, L3TunnelTH3Config, L3TunnelTH3Status,
                                            MyStationTcamTH3Config, MyStationTcamTH3Status>();
  const auto found = readers.find(collection);
  return found == readers.end() ? 3 : found->second(channel);
}

// Starts the reader of collection C; the writer's end of the conversation.
template <typename C>
pid_t startReader(int (&toReader)[2], int (&toWriter)[2]) {
  const pid_t child = fork();
  if (child == 0) {
    // Only the reader's ends stay open in it, so that it sees the end of
    // the conversation if the writer dies.
    close(toReader[1]);
    close(toWriter[0]);
    const std::string role =
        fmt::format("{} {} {}", Rig::demangleStdString(typeid(C)), toReader[0], toWriter[1]);
    setenv(ReaderVariable, role.c_str(), 1);
    execl("/proc/self/exe", "CollectionReader", "--gtest_filter=CollectionReaderProcess.Run", nullptr);
    _exit(127);
  }
  close(toReader[0]);
  close(toWriter[1]);
  return child;
}

template <typename C>
class CollectionMultiProcess : public ::testing::Test {
 protected:
  ScopedShmRoot shmRoot_;
};

TYPED_TEST_SUITE(CollectionMultiProcess, Collections);

}  // namespace

TYPED_TEST(CollectionMultiProcess, AReaderInAnotherProcessSeesEveryWriteAndRemoval) {
  using C = TypeParam;
  using T = Table<C>;
  using Key = typename T::Key;
  Placed<C> placed;
  C & writer = *placed.collection;
  writer.tableControl()->mount(descriptor(Cairn::CairnType::writer));
  auto observer = observe(writer);

  int toReader[2];
  int toWriter[2];
  ASSERT_EQ(pipe(toReader), 0);
  ASSERT_EQ(pipe(toWriter), 0);
  const pid_t child = startReader<C>(toReader, toWriter);
  ASSERT_GT(child, 0);
  const Channel channel(toWriter[0], toReader[1]);
  ASSERT_EQ(channel.receiveText(), "ready");

  Model<C> model;
  for (uint32_t phase = 1; phase <= Phases; ++phase) {
    observer->keys.clear();
    std::vector<Key> expected;
    replay(
        phase,
        [&](uint64_t number, uint64_t version) {
          writer.tableIs(T::entry(number, version));
          model[number] = T::entry(number, version);
          expected.push_back(T::key(number));
        },
        [&](uint64_t number) {
          const auto removed = writer.tableDel(T::key(number));
          if (model.contains(number)) {
            EXPECT_EQ(removed, model.at(number));
            model.erase(number);
            expected.push_back(T::key(number));
          } else {
            EXPECT_TRUE(!removed);
          }
        },
        [&] {
          writer.tableDelAll();
          for (const auto & [number, entry] : model) {
            expected.push_back(T::key(number));
          }
          model.clear();
        });
    auto seen = observer->keys;
    std::sort(seen.begin(), seen.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(seen == expected) << "phase " << phase << ": " << seen.size() << " keys notified, expected "
                                  << expected.size();
    EXPECT_TRUE(std::all_of(observer->attributes.begin(), observer->attributes.end(),
                            [](uint32_t attribute) { return attribute == 258; }));
    EXPECT_EQ(differences(writer, model), "") << "the writer's own view, phase " << phase;
    channel.sendPhase(phase);
    EXPECT_EQ(channel.receiveText(), "ok");
  }
  channel.sendPhase(Done);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader status " << status;
  close(toWriter[0]);
  close(toReader[1]);
  writer.tableControl()->cleanupAndUnmount();
}

// The reader's side of the test above, when this program was started as its
// reader; skipped otherwise.
TEST(CollectionReaderProcess, Run) {
  const char * role = std::getenv(ReaderVariable);
  if (role == nullptr) {
    GTEST_SKIP() << "runs only as the reader process of CollectionMultiProcess";
  }
  char collection[128] = {};
  int in = -1;
  int out = -1;
  if (std::sscanf(role, "%127s %d %d", collection, &in, &out) != 3) {
    _exit(4);
  }
  _exit(runReaderOf(collection, Channel(in, out)));
}

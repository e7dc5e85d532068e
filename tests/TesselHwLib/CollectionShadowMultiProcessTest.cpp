// A collection mounted as a shadow, and as a key shadow, in other processes
// sees each key its writer changed through its own notifiee list: the map's
// callbacks reach Collection::tableNotify, which announces attribute 258
// with the key. For each of the six collections a writer made by its factory
// runs phases of writes, rewrites and removals; after each phase both shadow
// processes follow the writer's queue to its sequence, then check that the
// keys their observers saw are exactly the keys whose entries changed, and
// that their lookups and walks give the writer's table.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <vector>

#include <fmt/format.h>

#include "Loop/EventLoop.h"
#include "Rig/Directory.h"
#include "TesselHwLib/CollectionTesting.h"

using namespace CollectionTest;

namespace {

constexpr uint32_t Phases = 5;
// A process that waits longer than this is hung; nothing measures time.
constexpr auto Patience = std::chrono::seconds(30);

// What each phase does. Every operation changes its key's entry, so the
// keys a shadow must be told of are exactly the keys a phase touched.
template <typename Write, typename Remove, typename RemoveAll>
void replay(uint32_t phase, Write && write, Remove && remove, RemoveAll && removeAll) {
  switch (phase) {
    case 1:  // fill, past several bucket doublings and slot growths
      for (uint64_t number = 0; number < 300; ++number) {
        write(number, 1);
      }
      break;
    case 2:  // rewrite half, then remove a sixth, some of them just rewritten
      for (uint64_t number = 0; number < 300; number += 2) {
        write(number, 2);
      }
      for (uint64_t number = 250; number < 300; ++number) {
        remove(number);
      }
      break;
    case 3:  // new keys, and removals of old ones
      for (uint64_t number = 400; number < 420; ++number) {
        write(number, 1);
      }
      for (uint64_t number = 0; number < 20; ++number) {
        remove(number);
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

// The version of each number present.
using Model = std::map<uint64_t, uint64_t>;

void replayOnModel(uint32_t phase, Model & model) {
  replay(
      phase, [&](uint64_t number, uint64_t version) { model[number] = version; },
      [&](uint64_t number) { model.erase(number); }, [&] { model.clear(); });
}

// One phase as the writer announces it: what it did, and its sequence after.
struct PhaseDone {
  uint32_t phase = 0;
  uint64_t sequence = 0;
};

// Both ends of a pipe pair. The loop's watch makes a descriptor
// non-blocking, so reads wait for the rest of a message themselves.
class Channel {
 public:
  Channel(int in, int out) : in_(in), out_(out) {}

  void sendPhase(const PhaseDone & done) const { writeAll(&done, sizeof done); }
  std::optional<PhaseDone> receivePhase() const {
    PhaseDone done;
    return readAll(&done, sizeof done) ? std::optional<PhaseDone>(done) : std::nullopt;
  }
  void sendText(const std::string & text) const {
    const auto size = static_cast<uint32_t>(text.size());
    writeAll(&size, sizeof size);
    writeAll(text.data(), size);
  }
  std::string receiveText() const {
    uint32_t size = 0;
    if (!readAll(&size, sizeof size)) {
      return "the shadow process has gone";
    }
    std::string text(size, '\0');
    return readAll(text.data(), size) ? text : "the shadow process has gone";
  }
  // Runs the process's loop until the other end has written something or
  // gone: the writer serves its readers' sockets meanwhile, a shadow
  // follows its writer.
  void awaitReadable() const {
    bool readable = false;
    Loop::Registration watch = Loop::processLoop().watchReadable(in_, [&] { readable = true; });
    while (!readable) {
      Loop::processLoop().runUntil([&] { return readable; }, Patience);
    }
  }
  int in() const { return in_; }
  int out() const { return out_; }

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
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        pollfd readable{in_, POLLIN, 0};
        poll(&readable, 1, -1);
        continue;
      }
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

template <typename C>
std::vector<typename C::Key> sortedKeys(std::vector<typename C::Key> keys) {
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

// What a shadow collection finds wrong after a phase: the keys its observer
// saw against the keys whose entries changed, then its content against the
// model; empty if nothing.
template <typename C>
std::string differences(const C & collection, const std::vector<typename C::Key> & seen, const Model & before,
                        const Model & after) {
  using T = Table<C>;
  std::vector<typename C::Key> changed;
  for (const Model * source : {&before, &after}) {
    for (const auto & [number, version] : *source) {
      const auto was = before.find(number);
      const auto now = after.find(number);
      if (was == before.end() || now == after.end() || was->second != now->second) {
        changed.push_back(T::key(number));
      }
    }
  }
  if (sortedKeys<C>(seen) != sortedKeys<C>(changed)) {
    return fmt::format("{} keys notified, {} changed", sortedKeys<C>(seen).size(), sortedKeys<C>(changed).size());
  }
  for (uint64_t number = 0; number < 450; ++number) {
    bool found = false;
    typename C::Wrapper out;
    // A value shadow answers with its own copy and leaves `out` alone.
    const auto * value = collection.table().safeLookup(T::key(number), found, &out);
    const auto expected = after.find(number);
    if (found != (expected != after.end())) {
      return fmt::format("lookup of {}: found {}", number, found);
    }
    if (found && !(value->value == T::entry(number, expected->second))) {
      return fmt::format("lookup of {}: {}", number, std::string(valueToStrep(value->value)));
    }
  }
  Model walked;
  for (typename C::Table::IteratorConst iterator(&collection.table()); iterator.nonnull(); iterator.advance()) {
    const auto & entry = iterator.value().value;
    if (!walked.emplace(entry.genId() / 1000, entry.genId() % 1000).second) {
      return fmt::format("walk gave {} twice", entry.genId() / 1000);
    }
  }
  return walked == after ? "" : fmt::format("walk gave {} entries, expected {}", walked.size(), after.size());
}

template <typename C>
int runShadow(Cairn::CairnType mode, const Channel & channel) {
  Placed<C> placed;
  C & shadow = *placed.collection;
  shadow.tableControl()->mount(descriptor(mode));
  auto observer = observe(shadow);
  const bool mounted =
      Loop::processLoop().runUntil([&] { return shadow.table().mountStatus() == 2; }, Patience);
  channel.sendText(mounted ? "ready" : "the shadow did not mount");
  Model model;
  for (;;) {
    channel.awaitReadable();
    const std::optional<PhaseDone> done = channel.receivePhase();
    if (!done) {
      break;
    }
    const bool caughtUp = Loop::processLoop().runUntil(
        [&] { return shadow.table().sequence() == done->sequence && shadow.table().quiesced(); }, Patience);
    const Model before = model;
    replayOnModel(done->phase, model);
    const std::string found = caughtUp ? differences(shadow, observer->keys, before, model)
                                       : fmt::format("stayed at sequence {} of {}", shadow.table().sequence(),
                                                     done->sequence);
    observer->keys.clear();
    const bool announcedTable = std::all_of(observer->attributes.begin(), observer->attributes.end(),
                                            [](uint32_t attribute) { return attribute == 258; });
    observer->attributes.clear();
    channel.sendText(!found.empty()         ? fmt::format("phase {}: {}", done->phase, found)
                     : !announcedTable ? fmt::format("phase {}: an attribute other than 258", done->phase)
                                       : "ok");
  }
  shadow.tableControl()->unmount();
  return 0;
}

// A shadow runs in a process of its own: this test program started again
// with only the shadow's test selected. It learns its collection type, its
// mode and its two pipe ends from this variable.
constexpr const char * ShadowVariable = "TESSEL_COLLECTION_SHADOW";

template <typename... C>
std::map<std::string, int (*)(Cairn::CairnType, const Channel &)> shadowEntries() {
  return {{Rig::demangleStdString(typeid(C)), &runShadow<C>}...};
}

int runShadowOf(const std::string & collection, Cairn::CairnType mode, const Channel & channel) {
  static const auto shadows = shadowEntries<L3IifTH3Config, L3IifTH3Status, L3TunnelTH3Config, L3TunnelTH3Status,
                                            MyStationTcamTH3Config, MyStationTcamTH3Status>();
  const auto found = shadows.find(collection);
  return found == shadows.end() ? 3 : found->second(mode, channel);
}

// A shadow process of collection C, and the writer's end of the
// conversation with it.
class ShadowProcess {
 public:
  ShadowProcess(const std::string & collection, Cairn::CairnType mode) {
    int toShadow[2];
    int toWriter[2];
    if (pipe2(toShadow, O_CLOEXEC) != 0 || pipe2(toWriter, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe failed");
    }
    pid_ = fork();
    if (pid_ == 0) {
      // Only its own ends stay open in it, so that it sees the end of the
      // conversation if the writer dies.
      fcntl(toShadow[0], F_SETFD, 0);
      fcntl(toWriter[1], F_SETFD, 0);
      const std::string role =
          fmt::format("{} {} {} {}", collection, static_cast<uint32_t>(mode), toShadow[0], toWriter[1]);
      setenv(ShadowVariable, role.c_str(), 1);
      execl("/proc/self/exe", "CollectionShadow", "--gtest_filter=CollectionShadowProcess.Run", nullptr);
      _exit(127);
    }
    close(toShadow[0]);
    close(toWriter[1]);
    channel_ = std::make_unique<Channel>(toWriter[0], toShadow[1]);
  }
  ~ShadowProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    closeOutput();
    close(channel_->in());
  }

  const Channel & channel() const { return *channel_; }
  // The shadow's answer, with the writer's loop running meanwhile.
  std::string answer() const {
    channel_->awaitReadable();
    return channel_->receiveText();
  }
  // Closes its input, which ends it; true if it exited with 0.
  bool end() {
    closeOutput();
    int status = 0;
    const bool clean = waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    pid_ = -1;
    return clean;
  }

 private:
  void closeOutput() {
    if (out_) {
      close(channel_->out());
      out_ = false;
    }
  }

  pid_t pid_ = -1;
  std::unique_ptr<Channel> channel_;
  bool out_ = true;
};

template <typename C>
class CollectionShadowMultiProcess : public ::testing::Test {
 protected:
  ScopedShmRoot shmRoot_;
};

TYPED_TEST_SUITE(CollectionShadowMultiProcess, Collections);

}  // namespace

TYPED_TEST(CollectionShadowMultiProcess, ShadowsInOtherProcessesAreToldOfEveryKeyTheWriterChanged) {
  using C = TypeParam;
  using T = Table<C>;
  Placed<C> placed;
  C & writer = *placed.collection;
  writer.tableControl()->mount(descriptor(Cairn::CairnType::writer));

  const std::string collection = Rig::demangleStdString(typeid(C));
  std::vector<std::unique_ptr<ShadowProcess>> shadows;
  for (Cairn::CairnType mode : {Cairn::CairnType::shadow, Cairn::CairnType::keyshadow}) {
    shadows.push_back(std::make_unique<ShadowProcess>(collection, mode));
  }
  for (const auto & shadow : shadows) {
    ASSERT_EQ(shadow->answer(), "ready");
  }
  for (uint32_t phase = 1; phase <= Phases; ++phase) {
    replay(
        phase, [&](uint64_t number, uint64_t version) { writer.tableIs(T::entry(number, version)); },
        [&](uint64_t number) { writer.tableDel(T::key(number)); }, [&] { writer.tableDelAll(); });
    const PhaseDone done{phase, writer.table().sequence()};
    for (const auto & shadow : shadows) {
      shadow->channel().sendPhase(done);
    }
    EXPECT_EQ(shadows[0]->answer(), "ok") << "shadow";
    EXPECT_EQ(shadows[1]->answer(), "ok") << "keyshadow";
  }
  for (const auto & shadow : shadows) {
    EXPECT_TRUE(shadow->end());
  }
  writer.tableControl()->cleanupAndUnmount();
}

// The shadows' side of the test above, when this program was started as one
// of them; skipped otherwise.
TEST(CollectionShadowProcess, Run) {
  const char * role = std::getenv(ShadowVariable);
  if (role == nullptr) {
    GTEST_SKIP() << "runs only as a shadow process of CollectionShadowMultiProcess";
  }
  char collection[128] = {};
  uint32_t mode = 0;
  int in = -1;
  int out = -1;
  if (std::sscanf(role, "%127s %u %d %d", collection, &mode, &in, &out) != 4) {
    _exit(4);
  }
  _exit(runShadowOf(collection, static_cast<Cairn::CairnType>(mode), Channel(in, out)));
}

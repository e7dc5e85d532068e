// How a reader, shadow or keyshadow map comes to serve from a real backend:
// its sentry's attach and detach, tryAttach, and the system log line of a
// mount. The backend attach makes is the test's FakeReader.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Cairn/MapFrontTesting.h"
#include "Support/TraceCapture.h"

using namespace MapFrontTest;
using Cairn::CairnType;

namespace {

class CairnMapAttachTest : public ::testing::Test {
 protected:
  CairnMapAttachTest() : reader("test/map", log.callbacks()) {}

  std::string directory() const { return root.path() + "/test/map"; }
  // A writer map on the same table, in this process: its owner is alive.
  TestMap & startWriter() {
    writer = std::make_unique<TestMap>("test/map");
    writer->init(descriptorOf(CairnType::writer));
    return *writer;
  }

  CairnTest::ScopedShmRoot root;
  CallbackLog log;
  TestMap reader;
  std::unique_ptr<TestMap> writer;
};

// ---- The sentry's attach and detach ----

TEST_F(CairnMapAttachTest, ReaderAttachesWhenItsWriterComesAndDetachesWhenTheTableGoes) {
  reader.attachFakeReaders();
  reader.init(descriptorOf(CairnType::reader));
  EXPECT_TRUE(isA<Dummy>(reader.backend()));
  startWriter();
  ASSERT_TRUE(runUntil([&] { return reader.mountStatus() == 1; }));
  ASSERT_NE(reader.fakeReader(), nullptr);
  EXPECT_EQ(reader.fakeReader()->events, (std::vector<std::string>{"inotify"}));
  EXPECT_EQ(reader.epochId(), writer->epochId());
  EXPECT_TRUE(reader.readerFullyAttached());
  EXPECT_FALSE(reader.disconnectedActiveReader());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:true", "mountStatus"}));
  log.calls.clear();
  writer->cleanupAndDetach();
  ASSERT_TRUE(runUntil([&] { return reader.fakeReader() == nullptr; }));
  EXPECT_TRUE(isA<Dummy>(reader.backend()));
  EXPECT_EQ(reader.mountStatus(), 0u);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  EXPECT_TRUE(reader.initialized());
  EXPECT_NE(reader.mounter(), nullptr);
}

TEST_F(CairnMapAttachTest, InitPokesTheSentrySoAnExistingTableIsMountedAtOnce) {
  startWriter();
  reader.attachFakeReaders();
  reader.init(descriptorOf(CairnType::reader));
  EXPECT_EQ(reader.mountStatus(), 1u);
  ASSERT_NE(reader.fakeReader(), nullptr);
  EXPECT_EQ(reader.fakeReader()->events, (std::vector<std::string>{"CairnMap::init()"}));
}

TEST_F(CairnMapAttachTest, ReaderAttachCallsQuiescedThenMountStatus) {
  startWriter();
  reader.init(descriptorOf(CairnType::reader));
  reader.attachFakeReaders();
  log.calls.clear();
  reader.attach("none");
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:true", "mountStatus"}));
}

TEST_F(CairnMapAttachTest, ShadowAttachCallsOnlyMountStatus) {
  startWriter();
  reader.init(descriptorOf(CairnType::shadow));
  reader.attachFakeReaders(2);
  reader.attach("none");
  EXPECT_EQ(log.calls, (std::vector<std::string>{"mountStatus"}));
  EXPECT_TRUE(reader.readerFullyAttached());
  reader.fakeReader()->mounted = 1;
  EXPECT_FALSE(reader.readerFullyAttached());
  EXPECT_TRUE(reader.disconnectedActiveReader());
  reader.fakeReader()->isConnected = true;
  EXPECT_FALSE(reader.disconnectedActiveReader());
}

TEST_F(CairnMapAttachTest, AttachInWriterModeIsAnAssertion) {
  startWriter();
  EXPECT_EQ(assertionText([&] { writer->attach("none"); }), "CairnMap::attach() invoked for a writer");
}

TEST_F(CairnMapAttachTest, FailedInitializeLeavesTheDummyAndCallsNothing) {
  reader.init(descriptorOf(CairnType::reader));
  Interface * dummy = reader.backend();
  reader.attachFakeReaders();  // no writer: the fake finds no generation
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  reader.attach("none");
  EXPECT_EQ(reader.backend(), dummy);
  EXPECT_TRUE(log.calls.empty());
  EXPECT_TRUE(traces.contains("L2 CairnMap::attach() attempting to attach " + directory() + " as reader"));
  EXPECT_TRUE(traces.contains("L1 CairnMap::attach() initialize failed for " + directory()));
}

TEST_F(CairnMapAttachTest, FailedInitializeWithAFlushPendingKeepsTheNewBackend) {
  reader.init(descriptorOf(CairnType::shadow));
  reader.attachFactoryIs([](TestMap & map) {
    auto * shadow = new FakeReader(map.debugHandler(), map.path(), map.ops(), CairnType::shadow);
    shadow->flushPending = true;
    return shadow;
  });
  TestSupport::TraceCapture traces;
  reader.attach("none");
  EXPECT_NE(reader.fakeReader(), nullptr);
  EXPECT_EQ(reader.mountStatus(), 3u);
  EXPECT_TRUE(traces.contains("L0 CairnMap::attach() not deleting Cairn, waiting for flush to complete"));
}

TEST_F(CairnMapAttachTest, InitializeThatRaisesLeavesTheOldBackend) {
  reader.init(descriptorOf(CairnType::reader));
  Interface * dummy = reader.backend();
  struct Raising : FakeReader {
    using FakeReader::FakeReader;
    bool initialize(const std::string &) override {
      throw Basalt::InvalidInitializeException("Hardware does not support Atomics");
    }
  };
  reader.attachFactoryIs([](TestMap & map) { return new Raising(map.debugHandler(), map.path(), map.ops()); });
  EXPECT_THROW(reader.attach("none"), Basalt::InvalidInitializeException);
  EXPECT_EQ(reader.backend(), dummy);
}

TEST_F(CairnMapAttachTest, WithoutABackendToMakeAttachChangesNothing) {
  startWriter();
  reader.init(descriptorOf(CairnType::reader));
  Interface * dummy = reader.backend();
  reader.attach("none");
  EXPECT_EQ(reader.backend(), dummy);
  EXPECT_TRUE(log.calls.empty());
}

// ---- tryAttach ----

TEST_F(CairnMapAttachTest, TryAttachOnAWriterDoesNothing) {
  startWriter();
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_FALSE(writer->tryAttach());
  EXPECT_TRUE(traces.contains("L5 CairnMap::tryAttach() " + directory()));
  EXPECT_FALSE(traces.contains("poke()"));
}

TEST_F(CairnMapAttachTest, TryAttachOnAMountedTableTracesAndDoesNotPoke) {
  startWriter();
  reader.attachFakeReaders();
  reader.init(descriptorOf(CairnType::reader));
  ASSERT_EQ(reader.mountStatus(), 1u);
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_FALSE(reader.tryAttach());
  EXPECT_TRUE(traces.contains("L5 CairnMap::tryAttach() " + directory() + " is already mounted, mountStatus:1"));
  EXPECT_FALSE(traces.contains("ReaderSentry::poke()"));
}

TEST_F(CairnMapAttachTest, TryAttachThatFindsNothingReportsNothing) {
  reader.attachFakeReaders();
  reader.init(descriptorOf(CairnType::reader));
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_FALSE(reader.tryAttach());
  EXPECT_TRUE(traces.contains("ReaderSentry::poke() " + directory() + " reason:tryAttach"));
  EXPECT_FALSE(traces.contains("CANARY"));
}

// The system log's socket, bound by the test where no logger runs. Tests of
// both build directories may run at once: a lock file takes turns.
class SystemLogSocket {
 public:
  static constexpr const char * Path = "/dev/log";

  SystemLogSocket() {
    lockFd_ = open("/tmp/tessel-system-log-test.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    flock(lockFd_, LOCK_EX);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bound_ = bind() || (errno == EADDRINUSE && stale() && unlink(Path) == 0 && bind());
  }
  ~SystemLogSocket() {
    if (bound_) {
      unlink(Path);
    }
    close(fd_);
    close(lockFd_);
  }

  bool bound() const { return bound_; }
  // The next message, or "" after 10 s.
  std::string receive() const {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, 10000) != 1) {
      return "";
    }
    char buffer[1024];
    const ssize_t length = recv(fd_, buffer, sizeof(buffer), 0);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
  }

 private:
  static sockaddr_un address() {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::strcpy(result.sun_path, Path);
    return result;
  }
  bool bind() const {
    const sockaddr_un at = address();
    return ::bind(fd_, reinterpret_cast<const sockaddr *>(&at), sizeof(at)) == 0;
  }
  // A socket file that nobody receives on, left by an earlier run.
  static bool stale() {
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un at = address();
    const bool refused = connect(probe, reinterpret_cast<const sockaddr *>(&at), sizeof(at)) != 0 &&
                         errno == ECONNREFUSED;
    close(probe);
    return refused;
  }

  int lockFd_ = -1;
  int fd_ = -1;
  bool bound_ = false;
};

TEST_F(CairnMapAttachTest, TryAttachThatMountsWritesTheSystemLogLine) {
  SystemLogSocket systemLog;
  if (!systemLog.bound()) {
    GTEST_SKIP() << "a system logger owns " << SystemLogSocket::Path;
  }
  reader.attachFakeReaders();
  reader.init(descriptorOf(CairnType::reader));
  reader.mounter()->attachedIs(false);  // the writer's files come, but the sentry keeps still
  startWriter();
  reader.mounter()->attachedIs(true);
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_TRUE(reader.tryAttach());
  const std::string text = "CANARY: mounted " + directory() + " mountStatus:1";
  const std::string line = systemLog.receive();
  // <facility LOG_LOCAL5 (21) * 8 + priority LOG_DEBUG (7)>, then the time, the identity and [pid].
  EXPECT_EQ(line.rfind("<175>", 0), 0u) << line;
  EXPECT_NE(line.find("[" + std::to_string(getpid()) + "]: " + text), std::string::npos) << line;
  EXPECT_TRUE(traces.contains("L1 CairnMap::tryAttach() " + text));
}

}  // namespace

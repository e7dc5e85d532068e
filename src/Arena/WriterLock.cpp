#include "Arena/WriterLock.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Basalt/HashMix.h"
#include "Basalt/Util.h"

namespace Arena {

namespace {

constexpr std::size_t MaxBaseInName = 32;

struct Held {
  int fd;
  std::string socketName;
};

// The tables this process is the writer of, by directory. Guarded by
// `mutex`; see invariants 3 and 4 of the header.
struct Registry {
  std::mutex mutex;
  std::map<std::string, Held> held;
};

// A child of fork() has copies of the parent's lock descriptors; it must not
// keep the parent's tables locked (invariant 4). Only close() runs here, which
// is safe in a child of a threaded parent; the entries are dropped on the
// child's first use of the registry.
Registry & registry();

void lockBeforeFork() { registry().mutex.lock(); }
void unlockAfterFork() { registry().mutex.unlock(); }
void forgetInChild() {
  for (auto & [directory, held] : registry().held) {
    close(held.fd);
    held.fd = -1;
  }
  registry().mutex.unlock();
}

Registry & registry() {
  static Registry * instance = [] {
    auto * made = new Registry;  // never destroyed: locks live until the process ends
    pthread_atfork(lockBeforeFork, unlockAfterFork, forgetInChild);
    return made;
  }();
  return *instance;
}

// The entries that a fork left closed (fd -1) are not held.
void dropClosed(Registry & reg) {
  std::erase_if(reg.held, [](const auto & entry) { return entry.second.fd < 0; });
}

std::string lockPath(const std::string & directory) { return directory + "/" + WriterLock::LOCK_NAME; }

[[noreturn]] void refuse(Basalt::Platform::DebugHandler & handler, const std::string & message) {
  BASALT_TRACE(handler, 0, "{}", message);
  throw Basalt::InvalidInitializeException(message);
}

std::string commandName(pid_t pid) {
  std::ifstream file(fmt::format("/proc/{}/comm", pid));
  std::string name;
  if (!std::getline(file, name) || name.empty()) {
    return fmt::format("pid{}", pid);
  }
  return name;
}

}  // namespace

std::string WriterLock::acquireWriterLock(Basalt::Platform::DebugHandler & handler,
                                          const std::string & directory) {
  Registry & reg = registry();
  std::lock_guard guard(reg.mutex);
  dropClosed(reg);
  if (auto found = reg.held.find(directory); found != reg.held.end()) {
    BASALT_TRACE(handler, 5, "WriterLock::acquireWriterLock() table:{} already held by this process",
                 directory);
    return found->second.socketName;
  }
  const std::string path = lockPath(directory);
  int fd = -1;
  std::string error;
  switch (Basalt::Util::lockFile(path, std::chrono::milliseconds(0), fd, error)) {
    case Basalt::Util::LockOutcome::Failed:
      refuse(handler, fmt::format("WriterLock::acquireWriterLock() table:{} {}", directory, error));
    case Basalt::Util::LockOutcome::Busy: {
      pid_t owner = Basalt::Util::lockHolder(fd);
      close(fd);
      refuse(handler, fmt::format("WriterLock::acquireWriterLock() table:{} owned by live writer pid:{}",
                                  directory, owner));
    }
    case Basalt::Util::LockOutcome::Locked:
      break;
  }
  const pid_t previous = Basalt::Util::lockHolder(fd);
  const pid_t me = getpid();
  if (!Basalt::Util::lockHolderIs(fd, me)) {
    error = std::strerror(errno);
    close(fd);
    refuse(handler, fmt::format("WriterLock::acquireWriterLock() table:{} cannot record pid in {}: {}",
                                directory, path, error));
  }
  std::string socketName = socketNameFor(directory, me);
  reg.held.emplace(directory, Held{fd, socketName});
  if (previous != 0 && previous != me) {
    BASALT_TRACE(handler, 1, "WriterLock::acquireWriterLock() table:{} taken over from dead writer pid:{}",
                 directory, previous);
  }
  BASALT_TRACE(handler, 1, "WriterLock::acquireWriterLock() table:{} writer pid:{} socket:{}", directory, me,
               socketName);
  return socketName;
}

// The file goes before the lock (invariant 1): a process that locks the old
// file in between finds it unlinked and locks the new one instead.
bool WriterLock::releaseWriterLock(Basalt::Platform::DebugHandler & handler, const std::string & directory) {
  Registry & reg = registry();
  std::lock_guard guard(reg.mutex);
  dropClosed(reg);
  auto found = reg.held.find(directory);
  if (found == reg.held.end()) {
    BASALT_TRACE(handler, 5, "WriterLock::releaseWriterLock() table:{} not held by this process", directory);
    return false;
  }
  const std::string path = lockPath(directory);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    BASALT_TRACE(handler, 0, "WriterLock::releaseWriterLock() cannot unlink {}: {}", path,
                 std::strerror(errno));
  }
  close(found->second.fd);
  reg.held.erase(found);
  BASALT_TRACE(handler, 1, "WriterLock::releaseWriterLock() table:{} released", directory);
  return true;
}

bool WriterLock::holdsWriterLock(const std::string & directory) {
  Registry & reg = registry();
  std::lock_guard guard(reg.mutex);
  dropClosed(reg);
  return reg.held.contains(directory);
}

bool WriterLock::ownerIsMe(Basalt::Platform::DebugHandler & handler, const std::string & socketName) {
  const bool mine = pidOfSocketName(socketName) == getpid();
  BASALT_TRACE(handler, 5, "WriterLock::ownerIsMe() socketName:{} mine:{}", socketName, mine);
  return mine;
}

// kill with signal 0 sends nothing: it asks whether the process exists. EPERM
// says it exists under another user.
bool WriterLock::ownerIsAlive(Basalt::Platform::DebugHandler & handler, const std::string & socketName,
                              std::string & ownerText) {
  const pid_t pid = pidOfSocketName(socketName);
  bool alive = false;
  if (socketName.empty()) {
    ownerText = "none";
  } else if (pid == 0) {
    ownerText = "unknown";
  } else if (kill(pid, 0) == 0 || errno == EPERM) {
    alive = true;
    ownerText = commandName(pid);
  } else {
    ownerText = "dead";
  }
  BASALT_TRACE(handler, 5, "WriterLock::ownerIsAlive() socketName:{} alive:{} owner:{}", socketName, alive,
               ownerText);
  return alive;
}

std::string WriterLock::socketNameFor(const std::string & directory, pid_t pid) {
  std::string_view base = directory;
  while (base.size() > 1 && base.back() == '/') {
    base.remove_suffix(1);
  }
  if (std::size_t slash = base.rfind('/'); slash != std::string_view::npos) {
    base.remove_prefix(slash + 1);
  }
  Basalt::Impl::HashMix<unsigned int> hash;
  hash.mixBytes(directory.data(), directory.size());
  return fmt::format("tessel-{}-{:08x}-{}-{}", base.substr(0, MaxBaseInName), hash.result(),
                     Basalt::Util::randomToken(), pid);
}

std::string WriterLock::renewSocketName(Basalt::Platform::DebugHandler & handler, const std::string & directory) {
  Registry & reg = registry();
  std::lock_guard guard(reg.mutex);
  dropClosed(reg);
  auto found = reg.held.find(directory);
  BASALT_ASSERT(found != reg.held.end(), "Arena/WriterLock",
                fmt::format("WriterLock::renewSocketName() table:{} not held by this process", directory));
  found->second.socketName = socketNameFor(directory, getpid());
  BASALT_TRACE(handler, 1, "WriterLock::renewSocketName() table:{} socket:{}", directory,
               found->second.socketName);
  return found->second.socketName;
}

pid_t WriterLock::pidOfSocketName(const std::string & socketName) {
  std::size_t dash = socketName.rfind('-');
  if (dash == std::string::npos || dash + 1 == socketName.size()) {
    return 0;
  }
  const char * first = socketName.data() + dash + 1;
  const char * last = socketName.data() + socketName.size();
  long pid = 0;
  auto [end, error] = std::from_chars(first, last, pid);
  if (error != std::errc() || end != last || pid <= 0 || pid > INT_MAX) {
    return 0;
  }
  return static_cast<pid_t>(pid);
}

}  // namespace Arena

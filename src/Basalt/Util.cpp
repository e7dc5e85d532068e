#include "Basalt/Util.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Basalt/DebugHandler.h"

namespace Basalt {

std::string dumpHex(const void * data, std::size_t length) {
  const auto * bytes = static_cast<const uint8_t *>(data);
  std::string text;
  text.reserve(length * 3);
  for (std::size_t i = 0; i < length; ++i) {
    if (i != 0) {
      text += ' ';
    }
    fmt::format_to(std::back_inserter(text), "{:02x}", bytes[i]);
  }
  return text;
}

}  // namespace Basalt

namespace Basalt::Util {

namespace {

constexpr const char * CoreDumpFilter = "/proc/self/coredump_filter";

std::string errorText() { return std::strerror(errno); }

std::string directoryOf(const std::string & path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

constexpr std::size_t MaxPidText = 16;
// A busy lock is tried again after this pause, doubled each time up to the
// longest: a holder that lets go is noticed soon, and a long wait costs few
// system calls.
constexpr std::chrono::microseconds FirstLockPause{100};
constexpr std::chrono::microseconds LongestLockPause{20000};

// True when `fd` and `path` name the same inode: the file `fd` opened is the
// one linked at the path now.
bool stillLinked(int fd, const std::string & path) {
  struct stat opened;
  struct stat linked;
  return fstat(fd, &opened) == 0 && lstat(path.c_str(), &linked) == 0 && opened.st_dev == linked.st_dev &&
         opened.st_ino == linked.st_ino;
}

// True when only this user can open the file behind `fd`.
bool privateFile(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 077) == 0;
}

// Takes the flock of `fd`, trying until `deadline`: 0 when it is ours,
// EWOULDBLOCK when another still holds it then, or the errno of a failure.
int takeLock(int fd, std::chrono::steady_clock::time_point deadline) {
  std::chrono::microseconds pause = FirstLockPause;
  while (true) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
      return 0;
    }
    if (errno == EINTR) {
      continue;
    }
    if (errno != EWOULDBLOCK) {
      return errno;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      return EWOULDBLOCK;
    }
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(pause, deadline - now));
    pause = std::min(pause * 2, LongestLockPause);
  }
}

bool trustedOwner(uid_t uid) { return uid == 0 || uid == geteuid(); }

// The rule of makeDirectories for one directory; `last` is the one in which
// files are made.
bool checkDirectory(const std::string & path, const struct stat & status, bool last, std::string & error) {
  if (!trustedOwner(status.st_uid)) {
    error = fmt::format("directory {} is owned by uid:{}, neither this user (uid:{}) nor root", path,
                        status.st_uid, geteuid());
    return false;
  }
  const bool othersWrite = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (othersWrite && (last || (status.st_mode & S_ISVTX) == 0)) {
    error = fmt::format("directory {} is writable by group or others (mode 0{:o}){}", path,
                        status.st_mode & 07777, last ? "" : " and not sticky");
    return false;
  }
  return true;
}

std::vector<std::string> componentsOf(const std::string & path) {
  std::vector<std::string> components;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t slash = path.find('/', start);
    if (slash == std::string::npos) {
      slash = path.size();
    }
    if (slash > start) {
      components.push_back(path.substr(start, slash - start));
    }
    start = slash + 1;
  }
  return components;
}

// Walks the absolute `path` from "/", making each missing directory when
// `create`, and checks each one (makeDirectories); `endsAtTarget`: the last
// component is the directory in which files are made. A trusted link is
// replaced by its real path, which is walked in turn (it holds no links).
bool walkDirectories(const std::string & path, bool create, bool endsAtTarget, std::string & error) {
  const std::vector<std::string> components = componentsOf(path);
  struct stat status;
  if (lstat("/", &status) != 0) {
    error = fmt::format("cannot stat /: {}", errorText());
    return false;
  }
  if (!checkDirectory("/", status, endsAtTarget && components.empty(), error)) {
    return false;
  }
  std::string reached;
  for (std::size_t i = 0; i < components.size(); ++i) {
    const bool last = endsAtTarget && i + 1 == components.size();
    const std::string next = reached + "/" + components[i];
    if (create && mkdir(next.c_str(), 0755) != 0 && errno != EEXIST) {
      error = fmt::format("cannot create directory {}: {}", next, errorText());
      return false;
    }
    if (lstat(next.c_str(), &status) != 0) {
      error = fmt::format("cannot stat {}: {}", next, errorText());
      return false;
    }
    reached = next;
    if (S_ISLNK(status.st_mode)) {
      if (!trustedOwner(status.st_uid)) {
        error = fmt::format("symbolic link {} is owned by uid:{}, neither this user (uid:{}) nor root", next,
                            status.st_uid, geteuid());
        return false;
      }
      char real[PATH_MAX];
      if (realpath(next.c_str(), real) == nullptr) {
        error = fmt::format("cannot resolve {}: {}", next, errorText());
        return false;
      }
      reached = std::string(real) == "/" ? std::string() : std::string(real);
      if (!walkDirectories(real, false, last, error)) {
        return false;
      }
    } else if (S_ISDIR(status.st_mode) && !checkDirectory(next, status, last, error)) {
      return false;
    }
  }
  return true;
}

}  // namespace

// The filter reads as hexadecimal digits; the kernel parses what is written
// with base prefix detection, so the new value goes back with "0x".
bool includeShmemInCore() {
  auto & handler = Platform::processDebugHandler();
  std::FILE * file = std::fopen(CoreDumpFilter, "r+");
  if (file == nullptr) {
    BASALT_TRACE(handler, 0, "Basalt::Util::includeShmemInCore() cannot open {}: {}", CoreDumpFilter,
                 errorText());
    return false;
  }
  unsigned long filter = 0;
  bool done = std::fscanf(file, "%lx", &filter) == 1;
  const unsigned long wanted = filter | CoreDumpSharedBits;
  done = done && std::fseek(file, 0, SEEK_SET) == 0 && std::fprintf(file, "0x%lx", wanted) > 0;
  done = std::fclose(file) == 0 && done;
  if (!done) {
    BASALT_TRACE(handler, 0, "Basalt::Util::includeShmemInCore() cannot set {} to 0x{:x}", CoreDumpFilter,
                 wanted);
    return false;
  }
  BASALT_TRACE(handler, 2, "Basalt::Util::includeShmemInCore() coredump_filter 0x{:x} -> 0x{:x}", filter,
               wanted);
  return true;
}

bool makeDirectories(const std::string & directory, std::string & error) {
  if (!directory.empty() && directory.front() == '/') {
    return walkDirectories(directory, true, true, error);
  }
  char here[PATH_MAX];
  if (getcwd(here, sizeof(here)) == nullptr) {
    error = fmt::format("cannot tell the directory {} is relative to: {}", directory, errorText());
    return false;
  }
  return walkDirectories(std::string(here) + "/" + directory, true, true, error);
}

LockOutcome lockFile(const std::string & path, std::chrono::milliseconds wait, int & fd, std::string & error) {
  fd = -1;
  if (!makeDirectories(directoryOf(path), error)) {
    return LockOutcome::Failed;
  }
  const auto deadline = std::chrono::steady_clock::now() + wait;
  bool replaced = false;
  while (true) {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
      error = fmt::format("cannot open {}: {}", path, errorText());
      return LockOutcome::Failed;
    }
    if (int failure = takeLock(fd, deadline); failure != 0) {
      if (failure == EWOULDBLOCK) {
        return LockOutcome::Busy;
      }
      error = fmt::format("cannot lock {}: {}", path, std::strerror(failure));
      close(fd);
      fd = -1;
      return LockOutcome::Failed;
    }
    if (!stillLinked(fd, path)) {
      // The holder we waited for removed the file: this lock guards nothing.
      close(fd);
      continue;
    }
    if (!replaced && !privateFile(fd)) {
      // Others could open this file and hold its lock: now that the lock is
      // ours, it goes, and a private one takes its place (once: a file
      // system without modes would never give one).
      unlink(path.c_str());
      close(fd);
      replaced = true;
      continue;
    }
    return LockOutcome::Locked;
  }
}

bool lockHolderIs(int fd, pid_t pid) {
  std::string text = fmt::format("{}\n", pid);
  return pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
         ftruncate(fd, static_cast<off_t>(text.size())) == 0;
}

pid_t lockHolder(int fd) {
  char text[MaxPidText] = {};
  ssize_t length = pread(fd, text, sizeof(text) - 1, 0);
  pid_t pid = 0;
  if (length > 0) {
    std::from_chars(text, text + length, pid);
  }
  return pid;
}

namespace {

struct TokenSource {
  std::mutex mutex;
  std::function<std::string()> replacement;
};

TokenSource & tokenSource() {
  static TokenSource source;
  return source;
}

uint64_t randomWord() {
  uint64_t word = 0;
  if (getrandom(&word, sizeof(word), 0) == static_cast<ssize_t>(sizeof(word))) {
    return word;
  }
  std::random_device device;  // the same kernel source, through another door
  return (static_cast<uint64_t>(device()) << 32) | device();
}

}  // namespace

std::string randomToken() {
  TokenSource & source = tokenSource();
  {
    std::lock_guard guard(source.mutex);
    if (source.replacement) {
      return source.replacement();
    }
  }
  return fmt::format("{:016x}", randomWord());
}

void randomTokenSourceIs(std::function<std::string()> replacement) {
  TokenSource & source = tokenSource();
  std::lock_guard guard(source.mutex);
  source.replacement = std::move(replacement);
}

}  // namespace Basalt::Util

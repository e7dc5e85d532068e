#include "Basalt/Util.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

// True when `fd` and `path` name the same inode: the file `fd` opened is the
// one linked at the path now.
bool stillLinked(int fd, const std::string & path) {
  struct stat opened;
  struct stat linked;
  return fstat(fd, &opened) == 0 && stat(path.c_str(), &linked) == 0 && opened.st_dev == linked.st_dev &&
         opened.st_ino == linked.st_ino;
}

// flock, waited for or not; EINTR (a signal while waiting) tries again.
int takeLock(int fd, bool wait) {
  int result;
  do {
    result = flock(fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result;
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
  for (std::size_t end = directory.find('/', 1);; end = directory.find('/', end + 1)) {
    std::string prefix = directory.substr(0, end);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      error = fmt::format("cannot create directory {}: {}", prefix, errorText());
      return false;
    }
    if (end == std::string::npos) {
      return true;
    }
  }
}

LockOutcome lockFile(const std::string & path, bool wait, int & fd, std::string & error) {
  fd = -1;
  if (!makeDirectories(directoryOf(path), error)) {
    return LockOutcome::Failed;
  }
  while (true) {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      error = fmt::format("cannot open {}: {}", path, errorText());
      return LockOutcome::Failed;
    }
    if (takeLock(fd, wait) != 0) {
      if (errno == EWOULDBLOCK) {
        return LockOutcome::Busy;
      }
      error = fmt::format("cannot lock {}: {}", path, errorText());
      close(fd);
      fd = -1;
      return LockOutcome::Failed;
    }
    if (stillLinked(fd, path)) {
      return LockOutcome::Locked;
    }
    // The holder we waited for removed the file: this lock guards nothing.
    close(fd);
  }
}

}  // namespace Basalt::Util

#include "ArenaFiles/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

namespace ArenaFiles::SmallFile {

namespace {

std::string errorText() { return std::strerror(errno); }

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Contents read(const std::string & path, std::size_t limit) {
  Contents contents;
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) {
      contents.status = Status::Failed;
      contents.error = fmt::format("cannot open {}: {}", path, errorText());
    }
    return contents;
  }
  contents.bytes.resize(limit + 1);
  std::size_t total = 0;
  while (total < contents.bytes.size()) {
    ssize_t got = ::read(fd, contents.bytes.data() + total, contents.bytes.size() - total);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      contents.status = Status::Failed;
      contents.error = fmt::format("cannot read {}: {}", path, errorText());
      close(fd);
      return contents;
    }
    if (got == 0) {
      break;
    }
    total += static_cast<std::size_t>(got);
  }
  close(fd);
  contents.bytes.resize(total);
  contents.status = Status::Read;
  return contents;
}

bool replace(const std::string & path, std::string_view bytes, std::string & error) {
  const std::string temporary = fmt::format("{}.tmp.{}", path, getpid());
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = fmt::format("cannot create {}: {}", temporary, errorText());
    return false;
  }
  bool done = writeAll(fd, bytes) && fsync(fd) == 0;
  if (!done) {
    error = fmt::format("cannot write {}: {}", temporary, errorText());
  }
  close(fd);
  if (done && std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = fmt::format("cannot rename {} to {}: {}", temporary, path, errorText());
    done = false;
  }
  if (!done) {
    unlink(temporary.c_str());
  }
  return done;
}

}  // namespace ArenaFiles::SmallFile

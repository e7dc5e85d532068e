#include "Arena/DirectoryWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Arena {

namespace {

// What an ancestor is watched for: the next component of the path appearing
// in it, or the ancestor itself going away.
constexpr uint32_t AncestorEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
// What the directory is watched for beyond its owner's events: its own end.
constexpr uint32_t SelfEvents = IN_DELETE_SELF | IN_MOVE_SELF;

std::string parentOf(const std::string & path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// `path`, or the deepest of its ancestors that exists.
std::string deepestExisting(std::string path) {
  struct stat status;
  while (stat(path.c_str(), &status) != 0 && path != "/" && path != ".") {
    path = parentOf(path);
  }
  return path;
}

}  // namespace

DirectoryWatch::DirectoryWatch(Basalt::Platform::DebugHandler & handler, std::string directory, uint32_t events,
                               Loop::EventLoop & loop, std::function<void()> onChange)
    : handler_(handler), directory_(std::move(directory)), events_(events), onChange_(std::move(onChange)) {
  while (directory_.size() > 1 && directory_.back() == '/') {
    directory_.pop_back();
  }
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) {
    fail("inotify_init1()", errno);
  }
  try {
    arm();
    registration_ = loop.watchReadable(fd_, [this] {
      if (drain()) {
        onChange_();  // may destroy this object: nothing follows
      }
    });
  } catch (...) {
    close(fd_);
    throw;
  }
}

DirectoryWatch::~DirectoryWatch() {
  registration_.cancel();  // before the close, so that a reused number is never watched
  close(fd_);
}

bool DirectoryWatch::drain() {
  alignas(struct inotify_event) char buffer[4096];
  bool queued = false;
  while (true) {
    const ssize_t length = read(fd_, buffer, sizeof(buffer));
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length <= 0) {
      break;  // EAGAIN: the queue is empty
    }
    queued = true;
    for (ssize_t at = 0; at < length;) {
      const auto * event = reinterpret_cast<const struct inotify_event *>(buffer + at);
      BASALT_TRACE(handler_, 7, "DirectoryWatch::drain() {} watched:{} mask:0x{:x} name:{}", directory_, watched_,
                   event->mask, event->len > 0 ? event->name : "");
      if (event->wd == wd_ && (event->mask & IN_IGNORED)) {
        wd_ = -1;  // the watched directory is gone; inotify has dropped its watch
      }
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
    }
  }
  if (queued) {
    arm();
  }
  return queued;
}

void DirectoryWatch::arm() {
  while (true) {
    const std::string target = deepestExisting(directory_);
    if (target == watched_ && wd_ >= 0) {
      return;
    }
    if (wd_ >= 0) {
      inotify_rm_watch(fd_, wd_);
      wd_ = -1;
    }
    const uint32_t mask = (target == directory_ ? events_ | SelfEvents : AncestorEvents) | IN_ONLYDIR;
    wd_ = inotify_add_watch(fd_, target.c_str(), mask);
    if (wd_ < 0) {
      if (errno == ENOENT) {
        continue;  // removed between the look and the watch: look again
      }
      fail(fmt::format("inotify_add_watch({})", target), errno);
    }
    watched_ = target;
    BASALT_TRACE(handler_, 5, "DirectoryWatch::arm() {} watching {}", directory_, watched_);
    // A component made between the look and the watch made no event here.
    if (deepestExisting(directory_) == target) {
      return;
    }
  }
}

void DirectoryWatch::fail(const std::string & what, int error) const {
  const std::string message =
      fmt::format("DirectoryWatch::arm() {} cannot be watched, {}: {}", directory_, what, std::strerror(error));
  BASALT_TRACE(handler_, 0, "{}", message);
  throw Basalt::InvalidInitializeException(message);
}

}  // namespace Arena

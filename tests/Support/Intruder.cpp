#include "Support/Intruder.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace TestSupport {

namespace {

constexpr const char * UserAdd = "/usr/sbin/useradd";
constexpr unsigned ChildSeconds = 60;

std::optional<IntruderIds> lookUp() {
  const passwd * entry = getpwnam(IntruderName);
  if (entry == nullptr) {
    return std::nullopt;
  }
  return IntruderIds{entry->pw_uid, entry->pw_gid};
}

// useradd, run directly (no shell); its exit status. Two test programs that
// make the user at once: one of them fails, and finds the other's user.
int addUser() {
  const pid_t child = fork();
  if (child == 0) {
    execl(UserAdd, UserAdd, "--system", "--no-create-home", "--shell", "/usr/sbin/nologin", IntruderName,
          static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In the child: the intruder's ids for good, or false.
bool becomeIntruder(const IntruderIds & ids) {
  return setgroups(0, nullptr) == 0 && setgid(ids.gid) == 0 && setuid(ids.uid) == 0 && geteuid() == ids.uid;
}

}  // namespace

std::optional<IntruderIds> intruderIds(std::string & why) {
  if (geteuid() != 0) {
    why = "the test runs as uid " + std::to_string(geteuid()) + ", not root, so it can't make or become one";
    return std::nullopt;
  }
  if (std::optional<IntruderIds> found = lookUp()) {
    return found;
  }
  if (access(UserAdd, X_OK) != 0) {
    why = std::string(UserAdd) + " is not available to make user " + IntruderName;
    return std::nullopt;
  }
  const int status = addUser();
  if (std::optional<IntruderIds> found = lookUp()) {
    return found;
  }
  why = std::string(UserAdd) + " could not make user " + IntruderName + " (exit status " +
        std::to_string(status) + ")";
  return std::nullopt;
}

IntruderProcess::IntruderProcess(const IntruderIds & ids, const std::function<char()> & body) {
  int fds[2];
  if (pipe(fds) != 0) {
    return;
  }
  pid_ = fork();
  if (pid_ == 0) {
    alarm(ChildSeconds);
    close(fds[0]);
    const char report = becomeIntruder(ids) ? body() : '!';
    (void)!write(fds[1], &report, 1);
    while (true) {
      pause();
    }
  }
  close(fds[1]);
  if (pid_ > 0 && read(fds[0], &report_, 1) != 1) {
    report_ = '?';
  }
  close(fds[0]);
}

void IntruderProcess::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

char runAsIntruder(const IntruderIds & ids, const std::function<char()> & body) {
  IntruderProcess intruder(ids, body);
  return intruder.report();
}

char lockEveryFile(const std::string & directory) {
  int locked = 0;
  std::error_code ignored;
  for (const auto & entry : std::filesystem::directory_iterator(directory, ignored)) {
    const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
      ++locked;  // and the descriptor stays open, holding the lock
    } else {
      close(fd);
    }
  }
  return static_cast<char>('0' + std::min(locked, 9));
}

void openToEveryone(const std::string & path) {
  for (std::string at = path; !at.empty() && at != "/"; at = at.substr(0, at.rfind('/'))) {
    struct stat status;
    if (stat(at.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      chmod(at.c_str(), (status.st_mode & 07777) | 0555);
    }
  }
}

}  // namespace TestSupport

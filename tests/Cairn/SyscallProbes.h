#pragma once
// Child processes under a seccomp filter, for the tests that must see what a
// reader does at the level of system calls: one in which a chosen fstat runs
// the test's own code first, and one that dies at its first system call.
// Each gives the child's exit code: 0 passed, 1 failed, 2 seccomp is not
// available here (the test skips), 128 plus the signal that killed it.

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace CairnTest {

// Installs a seccomp filter on this process by the system calls alone, so
// that no library's wrapper around them makes a system call of its own after
// the filter is on.
inline bool installFilter(sock_fprog & program) {
  return syscall(SYS_prctl, PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

// In a child process, every fstat of chosen descriptors first runs `onStat`,
// is then answered as usual, and then runs `afterStat` before the caller goes
// on: a seccomp filter traps the call, and the SIGSYS handler does all three,
// the answer from a duplicate descriptor.
struct StatTrap {
  static inline int spare = -1;  // a duplicate descriptor of the file, whose fstat is not trapped
  static inline void (*onStat)() = nullptr;
  static inline void (*afterStat)() = nullptr;

  static void handler(int, siginfo_t * info, void * context) {
    auto * registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    auto * buffer = reinterpret_cast<struct stat *>(info->si_syscall == SYS_newfstatat ? registers[REG_RDX]
                                                                                        : registers[REG_RSI]);
    if (onStat != nullptr) {
      onStat();
    }
    registers[REG_RAX] = syscall(SYS_fstat, spare, buffer);
    if (afterStat != nullptr) {
      afterStat();
    }
  }

  // Traps fstat and newfstatat on each of `descriptors`.
  static bool install(const std::vector<int> & descriptors) {
    spare = dup(descriptors.front());
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSYS, &action, nullptr);
    std::vector<sock_filter> filter{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstat, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_newfstatat, 0, static_cast<uint8_t>(descriptors.size() + 1)),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
    };
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
      // Jumps to the trap, which follows the last comparison.
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(descriptors[i]),
                                static_cast<uint8_t>(descriptors.size() - i), 0));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    return installFilter(program);
  }
};

// The descriptors of this process that have `path` open.
inline std::vector<int> descriptorsOf(const std::string & path) {
  std::vector<int> descriptors;
  for (const auto & entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry.path(), error) == std::filesystem::path(path)) {
      descriptors.push_back(std::stoi(entry.path().filename().string()));
    }
  }
  return descriptors;
}

// Ends a child process at once, by the system call alone: no exit handler
// and no sanitizer's leak check runs in it. Not declared noreturn: the
// address sanitizer prepares a call of a noreturn function with a system
// call of its own.
inline void endChild(int code) { syscall(SYS_exit_group, code); }

// Runs `body` in a child process after `setup`; 2 if the setup failed.
template <typename Setup, typename Body>
int inChild(Setup setup, Body body) {
  const pid_t child = fork();
  if (child == 0) {
    endChild(!setup() ? 2 : body() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `body` in a child process in which every fstat of the file at `path`
// runs `onStat` first. It lets a test act at the one moment between a
// reader's copy of a header and its look at the file's size.
template <typename Body>
int inTrappedChild(const std::string & path, void (*onStat)(), Body body) {
  return inChild(
      [&] {
        const std::vector<int> descriptors = descriptorsOf(path);
        StatTrap::onStat = onStat;
        return !descriptors.empty() && StatTrap::install(descriptors);
      },
      body);
}

// Runs `body` in a child process that is killed by its first system call.
template <typename Body>
int inSyscallFreeChild(Body body) {
  return inChild(
      [] {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 1, 0),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog program = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
        return installFilter(program);
      },
      body);
}

}  // namespace CairnTest

// What another local user can do to a process's doorbell by taking its name
// first in the abstract namespace, where no permission is checked: nothing
// that stops the doorbell. The test runs as root and plays the other user in
// a child (TestSupport::IntruderProcess); the doorbell is made in a forked
// child of its own, which forgets the copy of this process's doorbell.

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Basalt/Util.h"
#include "Nudge/DoorbellAcceptSm.h"
#include "Nudge/Socket.h"
#include "Support/Intruder.h"

namespace {

// A process that, when told to go, runs `prepare` and makes its doorbell.
// It ends with 0 when the doorbell listens on a name that `expected` accepts
// and a reader can connect to it, 1 when the doorbell could not be made, 2
// otherwise.
class DoorbellProcess {
 public:
  DoorbellProcess(const std::function<void()> & prepare, const std::function<bool(const std::string &)> & expected) {
    if (pipe(go_) != 0) {
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      alarm(30);
      close(go_[1]);
      char signal;
      if (read(go_[0], &signal, 1) != 1) {
        _exit(3);
      }
      prepare();
      Nudge::forgetDoorbellAcceptSmInChild();
      try {
        const std::string name = Nudge::doorbellAcceptSm().socketName();
        std::string error;
        _exit(expected(name) && Nudge::connectTo(name, error) ? 0 : 2);
      } catch (...) {
        _exit(1);
      }
    }
    close(go_[0]);
  }
  ~DoorbellProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  pid_t pid() const { return pid_; }
  // Lets it make its doorbell; its exit status, or -1.
  int go() {
    (void)!write(go_[1], "g", 1);
    close(go_[1]);
    int status = 0;
    const bool ended = waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int go_[2] = {-1, -1};
};

// The other user binds `names`, and keeps them for its life: 'B' when it
// could bind them all.
char squat(const std::vector<std::string> & names) {
  for (const std::string & name : names) {
    std::string error;
    if (!(new Nudge::Listener)->listenOn(name, error)) {  // kept for the child's life
      return 'F';
    }
  }
  return 'B';
}

TEST(DoorbellName, HasARandomPartAndTheProcessId) {
  const std::string name = Nudge::doorbellName();
  const std::string prefix = "tessel-doorbell-";
  const std::string suffix = fmt::format("-{}", ::getpid());
  ASSERT_EQ(name.size(), prefix.size() + 16 + suffix.size()) << name;
  EXPECT_EQ(name.substr(0, prefix.size()), prefix);
  EXPECT_EQ(name.substr(prefix.size() + 16), suffix);
  EXPECT_EQ(name.find_first_not_of("0123456789abcdef", prefix.size()), prefix.size() + 16) << name;
  EXPECT_NE(name, Nudge::doorbellName()) << "a fresh random part each time";
}

// Every name that the other user can tell from the process id alone is
// taken before the doorbell starts.
TEST(DoorbellTwoUserTest, NameTakenFromThePidCannotStopTheDoorbell) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  DoorbellProcess writer([] {}, [](const std::string & name) { return name != fmt::format("tessel-doorbell-{}", getpid()); });
  const std::string predicted = fmt::format("tessel-doorbell-{}", writer.pid());
  TestSupport::IntruderProcess squatter(intruder, [&] { return squat({predicted}); });
  ASSERT_EQ(squatter.report(), 'B');
  EXPECT_EQ(writer.go(), 0) << "the doorbell could not listen";
}

// The random part is steered so that the first name is one that the other
// user took: the doorbell starts on the next.
TEST(DoorbellTwoUserTest, TakenNameIsGivenUpForAFreshOne) {
  TESSEL_SKIP_WITHOUT_INTRUDER(intruder);
  auto tokens = [] {
    static int next = 0;
    Basalt::Util::randomTokenSourceIs([] { return fmt::format("{:016x}", ++next); });
  };
  DoorbellProcess writer(tokens, [](const std::string & name) {
    return name == fmt::format("tessel-doorbell-{:016x}-{}", 3, getpid());
  });
  const std::string first = fmt::format("tessel-doorbell-{:016x}-{}", 1, writer.pid());
  const std::string second = fmt::format("tessel-doorbell-{:016x}-{}", 2, writer.pid());
  TestSupport::IntruderProcess squatter(intruder, [&] { return squat({first, second}); });
  ASSERT_EQ(squatter.report(), 'B');
  EXPECT_EQ(writer.go(), 0) << "the doorbell gave up after two taken names";
}

}  // namespace

#pragma once
// A second local user for the tests of what one user can do to another's
// tables: the system user "tessel-intruder", made on first use, and a child
// process that runs as that user.
//
// Only root can make a user and become it: a test that needs one asks
// intruderIds() first and skips, with the reason it gives, when there is
// none (TESSEL_SKIP_WITHOUT_INTRUDER does both).

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace TestSupport {

struct IntruderIds {
  uid_t uid;
  gid_t gid;
};

constexpr const char * IntruderName = "tessel-intruder";

// The ids of the user IntruderName, made with useradd (a system user without
// a home) when absent. Nothing, with `why`, when this process isn't root or
// the user can't be made.
std::optional<IntruderIds> intruderIds(std::string & why);

// A forked child that becomes the intruder (groups, gid, uid: for good, as a
// real attacker would be), runs `body`, reports the character it returns on
// a pipe, and then stays alive, holding whatever `body` opened, until the
// object goes (SIGKILL). A child that can't drop its privileges reports '!';
// one that ends before it reports gives '?'. alarm() bounds its life, so a
// failed test never leaves it behind.
class IntruderProcess {
 public:
  IntruderProcess(const IntruderIds & ids, const std::function<char()> & body);
  ~IntruderProcess() { kill(); }
  IntruderProcess(const IntruderProcess &) = delete;
  IntruderProcess & operator=(const IntruderProcess &) = delete;

  char report() const { return report_; }
  pid_t pid() const { return pid_; }
  void kill();

 private:
  pid_t pid_ = -1;
  char report_ = '?';
};

// Runs `body` as the intruder in a child, waits for its end and returns what
// it returned ('!' or '?' as above).
char runAsIntruder(const IntruderIds & ids, const std::function<char()> & body);

// The attack on a table's locks: an exclusive flock on every file in
// `directory` that this process can open read-only, kept (the descriptors
// stay open for the rest of the process). The number of files locked, as the
// digit a report carries ('0' to '9').
char lockEveryFile(const std::string & directory);

// Makes `path` and every directory above it enterable (and readable) by
// everyone, as the directories of a switch's tables are: the test's
// temporary directories are private to root.
void openToEveryone(const std::string & path);

}  // namespace TestSupport

// Declares `ids`, the intruder's, or skips the test saying why it can't have one.
#define TESSEL_SKIP_WITHOUT_INTRUDER(ids)                                                     \
  std::string ids##Why;                                                                       \
  const std::optional<TestSupport::IntruderIds> ids##Found = TestSupport::intruderIds(ids##Why); \
  if (!ids##Found) {                                                                          \
    GTEST_SKIP() << "needs a second local user: " << ids##Why;                                \
  }                                                                                           \
  const TestSupport::IntruderIds ids = *ids##Found

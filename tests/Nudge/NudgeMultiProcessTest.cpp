// Writer and reader in two processes, as on a switch: a reader in a child
// is woken by the writer in the parent, and a reader in the parent sees the
// connection go when the writer's process is killed.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

#include <gtest/gtest.h>

#include "Nudge/ReaderNudgeSm.h"
#include "Nudge/WriterNudgeSm.h"
#include "NudgeTesting.h"

namespace {

using NudgeTesting::Deadline;
using NudgeTesting::exitStatus;
using NudgeTesting::forkChild;
using NudgeTesting::NudgeTest;

class NudgeMultiProcessTest : public NudgeTest {};

TEST_F(NudgeMultiProcessTest, AReaderInAChildIsWokenByTheWriterInTheParent) {
  Nudge::WriterNudgeSm writer(handler_, loop_);
  const std::string path = socketPath("nudge");
  writer.doEnableListen(path);
  const uint32_t tableId = writer.tableId();

  const pid_t child = forkChild([&] {
    Basalt::Platform::DebugHandler handler("child");
    Loop::UvEventLoop loop;
    Nudge::ReaderNudgeSm reader(handler, loop);
    uint64_t woken = 0;
    reader.wakeHookIs([&](uint64_t sequence) { woken = sequence; });
    if (!reader.connect(path, tableId)) {
      return 1;
    }
    reader.appliedIs(6);
    if (!loop.runUntil([&] { return woken != 0; }, Deadline)) {
      return 2;
    }
    return woken == 7 ? 0 : 3;
  });
  ASSERT_GT(child, 0);
  ASSERT_TRUE(runUntil([&] { return writer.sleepingReaders() == 1; }));
  writer.notify(7);
  EXPECT_EQ(writer.nudges(), 1u);
  // The child leaves once woken, and its connection closes with it.
  ASSERT_TRUE(runUntil([&] { return writer.readers() == 0; }));
  EXPECT_EQ(exitStatus(child), 0);
}

TEST_F(NudgeMultiProcessTest, AReaderSeesTheConnectionGoWhenTheWritersProcessIsKilled) {
  const std::string path = socketPath("nudge");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = forkChild([&] {
    Basalt::Platform::DebugHandler handler("child");
    Loop::UvEventLoop loop;
    Nudge::WriterNudgeSm writer(handler, loop);
    writer.doEnableListen(path);
    const uint32_t tableId = writer.tableId();
    if (::write(ready[1], &tableId, sizeof(tableId)) != sizeof(tableId)) {
      return 1;
    }
    loop.run();  // serves until killed
    return 2;
  });
  ASSERT_GT(child, 0);
  ::close(ready[1]);

  // The child's table id, read on the loop when the child has it listening.
  uint32_t tableId = 0;
  {
    Loop::Registration watch = loop_.watchReadable(ready[0], [&] {
      ASSERT_EQ(::read(ready[0], &tableId, sizeof(tableId)), static_cast<ssize_t>(sizeof(tableId)));
    });
    ASSERT_TRUE(runUntil([&] { return tableId != 0; }));
  }
  ::close(ready[0]);

  Nudge::ReaderNudgeSm reader(handler_, loop_);
  int disconnects = 0;
  reader.disconnectHookIs([&] { ++disconnects; });
  ASSERT_TRUE(reader.connect(path, tableId));
  reader.appliedIs(0);
  ASSERT_EQ(::kill(child, SIGKILL), 0);
  ASSERT_TRUE(runUntil([&] { return disconnects == 1; }));
  EXPECT_FALSE(reader.connected());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);

  // The killed writer left its socket file; the next writer takes it over
  // and the reader comes back when asked.
  Nudge::WriterNudgeSm next(handler_, loop_);
  next.doEnableListen(path);
  ASSERT_TRUE(reader.connect(path, next.tableId()));
  ASSERT_TRUE(runUntil([&] { return next.readers() == 1; }));
}

}  // namespace

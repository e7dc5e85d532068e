// Two processes, one file: what one stores through its own mapping the other
// sees through its own. The child reports by its exit status (0 when all it
// checked held, else the number of the first check that failed) and leaves by
// _exit, so that nothing of the parent's test runs twice.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/Atomics.h"
#include "Arena/Memory.h"
#include "Support/TempDir.h"

namespace {

using Mode = Arena::ArenaFilesWrapper::Mode;

constexpr std::size_t kWords = 64;

// The word the writer stores at index i: distinct per index and per round.
uint64_t pattern(std::size_t i, uint64_t round) { return (round << 32) | (i * 0x9E3779B1u + 1); }

uint64_t * words(void * base) { return static_cast<uint64_t *>(base); }
const uint64_t * words(const void * base) { return static_cast<const uint64_t *>(base); }

// Runs `child` in a forked process and returns its exit status, or -1 if it
// did not exit normally.
int runChild(const std::function<int()> & child) {
  pid_t pid = fork();
  if (pid == 0) {
    _exit(child());
  }
  if (pid < 0) {
    return -1;
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

class ArenaFilesWrapperMultiProcessTest : public ::testing::Test {
 protected:
  ArenaFilesWrapperMultiProcessTest() { handler_.maskIs(1); }

  Arena::ArenaFilesWrapper wrapper() {
    return Arena::ArenaFilesWrapper(handler_, directory_, "slots", false);
  }

  const std::size_t page_ = Arena::pageSize_;
  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"MultiProcessTest"};
  std::string directory_ = temp_.path() + "/table";
};

TEST_F(ArenaFilesWrapperMultiProcessTest, AChildReaderSeesWhatTheParentPublished) {
  auto writer = wrapper();
  void * base = writer.attach(2 * page_);
  ASSERT_NE(base, nullptr) << writer.reason();
  uint64_t * shared = words(base);
  for (std::size_t i = 0; i < kWords; ++i) {
    Arena::Atomics::publish64(shared[i], pattern(i, 1));
  }
  // One word in the second page, so that the reader's mapping of the whole
  // file is exercised beyond the size it asks for.
  Arena::Atomics::publish64(shared[page_ / 8 + 3], pattern(99, 1));

  int status = runChild([this] {
    auto reader = wrapper();
    const void * read = reader.attach(page_, Mode::ReadOnly);
    if (read == nullptr) {
      return 1;
    }
    if (reader.memSize() != 2 * page_) {
      return 2;
    }
    for (std::size_t i = 0; i < kWords; ++i) {
      if (Arena::Atomics::observe64(words(read)[i]) != pattern(i, 1)) {
        return 3;
      }
    }
    return Arena::Atomics::observe64(words(read)[page_ / 8 + 3]) == pattern(99, 1) ? 0 : 4;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(ArenaFilesWrapperMultiProcessTest, TheParentSeesWhatAChildWroteAfterItMapped) {
  auto creator = wrapper();
  ASSERT_NE(creator.attach(page_), nullptr) << creator.reason();
  creator.detach();
  auto reader = wrapper();
  const void * read = reader.attach(page_, Mode::ReadOnly);
  ASSERT_NE(read, nullptr) << reader.reason();
  EXPECT_EQ(Arena::Atomics::observe64(words(read)[0]), 0u);

  int status = runChild([this] {
    auto writer = wrapper();
    void * base = writer.attach(page_);
    if (base == nullptr) {
      return 1;
    }
    for (std::size_t i = 0; i < kWords; ++i) {
      Arena::Atomics::publish64(words(base)[i], pattern(i, 2));
    }
    return 0;
  });
  ASSERT_EQ(status, 0);

  for (std::size_t i = 0; i < kWords; ++i) {
    EXPECT_EQ(Arena::Atomics::observe64(words(read)[i]), pattern(i, 2)) << "word " << i;
  }
}

TEST_F(ArenaFilesWrapperMultiProcessTest, TheParentFollowsAChildThatGrewTheFile) {
  auto creator = wrapper();
  ASSERT_NE(creator.attach(page_), nullptr) << creator.reason();
  creator.detach();
  auto reader = wrapper();
  ASSERT_NE(reader.attach(page_, Mode::ReadOnly), nullptr) << reader.reason();

  const std::size_t last = 3 * page_ / 8 - 1;  // the last word of the grown file
  int status = runChild([this, last] {
    auto writer = wrapper();
    if (writer.attach(page_) == nullptr) {
      return 1;
    }
    void * base = writer.resize(3 * page_);
    if (base == nullptr) {
      return 2;
    }
    Arena::Atomics::publish64(words(base)[last], pattern(last, 3));
    Arena::Atomics::publish64(words(base)[0], pattern(0, 3));
    return 0;
  });
  ASSERT_EQ(status, 0);

  // The old mapping shows the first page's change at once; the grown part
  // needs a resize, which the file's new length now allows.
  EXPECT_EQ(Arena::Atomics::observe64(words(reader.base())[0]), pattern(0, 3));
  EXPECT_EQ(reader.memSize(), page_);
  EXPECT_EQ(reader.fileSize(), 3 * page_);
  const void * read = reader.resize(3 * page_);
  ASSERT_NE(read, nullptr) << reader.reason();
  EXPECT_EQ(Arena::Atomics::observe64(words(read)[last]), pattern(last, 3));
}

}  // namespace

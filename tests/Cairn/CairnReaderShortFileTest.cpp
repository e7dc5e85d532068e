// A slot or bucket file cut short under a reader, by a process that may write
// it (the library itself never cuts a file that readers map). A reader checks
// the file's size against what it is about to map whenever it maps or remaps,
// so it reports the short file with Basalt::CorruptionDetectedException, or
// refuses to attach, and is never killed by SIGBUS for touching a page past
// the end. Each case runs in a child process whose end the test inspects: a
// SIGBUS there fails the test instead of ending the test program.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"

using namespace CairnTest;

namespace {

// Runs `body` in a child process; how the child ended: "exit <code>: <text>",
// with the text that `body` returned, or "signal <number> (<name>)".
std::string inChild(const std::function<std::string()> & body) {
  int fds[2];
  if (pipe(fds) != 0) {
    return "pipe failed";
  }
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    std::string text;
    int code = 0;
    try {
      text = body();
    } catch (const std::exception & exception) {
      text = std::string("exception: ") + exception.what();
      code = 1;
    }
    const ssize_t wrote = write(fds[1], text.data(), text.size());
    _exit(wrote == static_cast<ssize_t>(text.size()) ? code : 2);
  }
  close(fds[1]);
  std::string text;
  char buffer[512];
  for (ssize_t got; (got = read(fds[0], buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  close(fds[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    return "fork or wait failed";
  }
  if (WIFSIGNALED(status)) {
    return fmt::format("signal {} ({})", WTERMSIG(status), strsignal(WTERMSIG(status)));
  }
  return fmt::format("exit {}: {}", WEXITSTATUS(status), text);
}

// The message of the corruption a reader's lookup of `key` reports, or ""
// if the lookup ends normally.
std::string lookupCorruption(const HashedReader & reader, const HashedKey & key) {
  try {
    bool found = false;
    HashedValue out;
    reader.lookup(key, found, &out);
  } catch (const Basalt::CorruptionDetectedException & exception) {
    return exception.what();
  }
  return {};
}

class CairnReaderShortFileTest : public ::testing::Test {
 protected:
  CairnReaderShortFileTest() {
    for (uint32_t id = 0; id < 5; ++id) {
      table.write(spread(id), id);
    }
  }

  static uint32_t spread(uint32_t id) { return id * 0x9E3779B9u; }

  // Enough keys for both tables to grow: more slots and more buckets.
  void grow() {
    for (uint32_t id = 5; id < 200; ++id) {
      table.write(spread(id), id);
    }
  }

  std::string slotShortfall(uint32_t count, std::size_t size) {
    return fmt::format(
        "SlotReader::doResize() requesting to map {} {} slots. Requested file resize to {} but real file size is {}",
        table.slotFile().path(), count, ReaderTable::slotOffset(count), size);
  }

  ReaderTable table;
};

}  // namespace

TEST_F(CairnReaderShortFileTest, SlotFileCutBeforeTheFirstMappingIsReported) {
  table.stopWriter();
  const std::string outcome = inChild([&] {
    auto reader = table.reader();  // the header alone is in use yet
    const uint32_t count = reader->slotTable().stableHeader().numSlots.value;
    const std::size_t cut = ReaderTable::slotOffset(count / 2);
    table.slotFile().truncate(cut);
    const std::string message = lookupCorruption(*reader, HashedKey{spread(1), 1});
    return message == slotShortfall(count, cut) ? std::string("reported") : message;
  });
  EXPECT_EQ(outcome, "exit 0: reported");
}

TEST_F(CairnReaderShortFileTest, SlotFileCutUnderAMappedReaderIsReportedAtTheRemap) {
  const std::string outcome = inChild([&] {
    auto reader = table.reader();
    if (!lookupCorruption(*reader, HashedKey{spread(1), 1}).empty()) {  // maps the table whole
      return std::string("the first lookup failed");
    }
    const std::size_t mapped = reader->slotTable().wrapper().memSize();
    grow();
    const uint32_t count = table.header().numSlots.load().value;
    if (ReaderTable::slotOffset(count) <= mapped) {
      return std::string("the slot table didn't grow");
    }
    // Back to what the reader maps: its mapping stays whole, the file is
    // shorter than the header now says.
    table.slotFile().truncate(mapped);
    const std::string message = lookupCorruption(*reader, HashedKey{spread(1), 1});
    return message == slotShortfall(count, mapped) ? std::string("reported") : message;
  });
  EXPECT_EQ(outcome, "exit 0: reported");
}

TEST_F(CairnReaderShortFileTest, BucketFileCutUnderAMappedReaderIsReportedAtTheRemap) {
  const std::string outcome = inChild([&] {
    auto reader = table.reader();
    if (!lookupCorruption(*reader, HashedKey{spread(1), 1}).empty()) {
      return std::string("the first lookup failed");
    }
    const uint32_t before = reader->buckets().numBuckets();
    const std::size_t mapped = Cairn::bucketFileSize(before);
    grow();
    const uint32_t count = table.numBuckets();
    if (count <= before) {
      return std::string("the bucket table didn't grow");
    }
    table.bucketFile().truncate(mapped);
    const std::string message = lookupCorruption(*reader, HashedKey{spread(1), 1});
    const std::string expected = fmt::format(
        "BucketReader::doResize() requesting to map {} {} buckets. Requested file resize to {} but real file size is "
        "{}",
        table.bucketFile().path(), count, Cairn::bucketFileSize(count), mapped);
    return message == expected ? std::string("reported") : message;
  });
  EXPECT_EQ(outcome, "exit 0: reported");
}

// Cut inside the header: nothing past the end is ever mapped, so the attach
// fails and says so.
TEST_F(CairnReaderShortFileTest, FilesCutInsideTheHeaderAreRefusedAtAttach) {
  table.stopWriter();
  const std::string outcome = inChild([&] {
    table.slotFile().truncate(ReaderTable::slotHeaderSize - 8);
    auto reader = table.makeReader();
    const bool slotsCut = reader->initialize("test");
    table.slotFile().truncate(ReaderTable::slotOffset(64));
    table.bucketFile().truncate(Cairn::BucketHeaderSize - 8);
    auto second = table.makeReader();
    const bool bucketsCut = second->initialize("test");
    return fmt::format("attached {} {}", slotsCut, bucketsCut);
  });
  EXPECT_EQ(outcome, "exit 0: attached false false");
}

// Both cuts of a file under one mapped reader, as two users of the reader
// would meet them in turn: the reader goes on reporting, it doesn't die.
TEST_F(CairnReaderShortFileTest, AReaderThatReportedAShortFileStaysAlive) {
  const std::string outcome = inChild([&] {
    auto reader = table.reader();
    if (!lookupCorruption(*reader, HashedKey{spread(1), 1}).empty()) {
      return std::string("the first lookup failed");
    }
    const std::size_t mapped = reader->slotTable().wrapper().memSize();
    grow();
    table.slotFile().truncate(mapped);
    unsigned reported = 0;
    for (uint32_t id = 0; id < 10; ++id) {
      reported += lookupCorruption(*reader, HashedKey{spread(id), id}).empty() ? 0 : 1;
    }
    return fmt::format("reported {}", reported);
  });
  EXPECT_EQ(outcome, "exit 0: reported 10");
}

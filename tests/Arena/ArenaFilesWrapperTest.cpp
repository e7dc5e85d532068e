#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Arena/ArenaFilesWrapper.h"
#include "Arena/Atomics.h"
#include "Arena/Memory.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using Mode = Arena::ArenaFilesWrapper::Mode;

bool exists(const std::string & path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

std::size_t lengthOf(const std::string & path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

// Bytes of this process's address space mapped from `path`, by the kernel's
// own account.
std::size_t bytesMappedFrom(const std::string & path) {
  std::ifstream maps("/proc/self/maps");
  std::size_t total = 0;
  for (std::string line; std::getline(maps, line);) {
    if (!line.ends_with(" " + path)) {
      continue;
    }
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
    char dash;
    std::istringstream(line) >> std::hex >> start >> dash >> end;
    total += end - start;
  }
  return total;
}

// Descriptors of this process open on `path`.
int descriptorsOn(const std::string & path) {
  int count = 0;
  DIR * fds = opendir("/proc/self/fd");
  for (dirent * entry; fds != nullptr && (entry = readdir(fds)) != nullptr;) {
    char target[4096];
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    ssize_t length = readlink(link.c_str(), target, sizeof(target) - 1);
    if (length > 0 && std::string(target, static_cast<std::size_t>(length)) == path) {
      ++count;
    }
  }
  if (fds != nullptr) {
    closedir(fds);
  }
  return count;
}

void writeFile(const std::string & path, std::size_t bytes, unsigned char seed) {
  std::vector<unsigned char> data(bytes);
  for (std::size_t i = 0; i < bytes; ++i) {
    data[i] = static_cast<unsigned char>(seed + i);
  }
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(data.data()),
                                              static_cast<std::streamsize>(bytes));
}

uint64_t & wordAt(void * base, std::size_t offset) {
  return *reinterpret_cast<uint64_t *>(static_cast<char *>(base) + offset);
}

const uint64_t & wordAt(const void * base, std::size_t offset) {
  return *reinterpret_cast<const uint64_t *>(static_cast<const char *>(base) + offset);
}

class ArenaFilesWrapperTest : public ::testing::Test {
 protected:
  ArenaFilesWrapperTest() { handler_.maskIs(1); }

  Arena::ArenaFilesWrapper wrapper(bool localMem = false, bool useHeap = false) {
    return Arena::ArenaFilesWrapper(handler_, directory_, "slots", localMem, useHeap);
  }

  const std::size_t page_ = Arena::pageSize_;
  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"ArenaFilesWrapperTest"};
  std::string directory_ = temp_.path() + "/tables/L3Iif";
  std::string path_ = directory_ + "/slots";
};

TEST_F(ArenaFilesWrapperTest, AttachCreatesTheDirectoryAndAFileOfTheAskedSize) {
  Arena::ArenaFilesWrapper files(handler_, directory_, "slots", false);
  EXPECT_EQ(files.getFilename(), path_);
  EXPECT_FALSE(files.attached());

  void * base = files.attach(1000);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_TRUE(files.attached());
  EXPECT_EQ(files.base(), base);
  EXPECT_EQ(files.mode(), Mode::ReadWrite);
  EXPECT_EQ(files.reason(), "");
  EXPECT_EQ(lengthOf(path_), 1000u);
  EXPECT_EQ(files.memSize(), 1000u);
  EXPECT_EQ(files.fileSize(), 1000u);
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  ASSERT_EQ(stat(directory_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));

  const auto * bytes = static_cast<const unsigned char *>(base);
  for (std::size_t i = 0; i < 1000; ++i) {
    ASSERT_EQ(bytes[i], 0) << "at " << i;
  }
}

TEST_F(ArenaFilesWrapperTest, AttachOfALongerFileMapsItWhole) {
  ASSERT_EQ(mkdir((temp_.path() + "/tables").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(directory_.c_str(), 0755), 0);
  writeFile(path_, 3 * page_ + 8, 5);

  auto files = wrapper();
  void * base = files.attach(100);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_EQ(files.memSize(), 3 * page_ + 8);
  EXPECT_EQ(lengthOf(path_), 3 * page_ + 8) << "an attach never shortens a file";
  const auto * bytes = static_cast<const unsigned char *>(base);
  EXPECT_EQ(bytes[0], 5);
  EXPECT_EQ(bytes[3 * page_ + 7], static_cast<unsigned char>(5 + 3 * page_ + 7));
}

TEST_F(ArenaFilesWrapperTest, MemSizeWhileDetachedIsTheFileSize) {
  auto files = wrapper();
  EXPECT_EQ(files.memSize(), 0u);
  EXPECT_EQ(files.fileSize(), 0u);

  ASSERT_NE(files.attach(2 * page_), nullptr);
  files.detach();
  EXPECT_FALSE(files.attached());
  EXPECT_EQ(files.memSize(), 2 * page_);
  EXPECT_EQ(files.fileSize(), 2 * page_);
  EXPECT_EQ(wrapper().memSize(), 2 * page_) << "a fresh wrapper sees the file too";
}

TEST_F(ArenaFilesWrapperTest, ResizeUpExtendsTheFileAndKeepsContents) {
  auto files = wrapper();
  void * base = files.attach(page_);
  ASSERT_NE(base, nullptr);
  Arena::Atomics::publish64(wordAt(base, 0), 0x1111);
  Arena::Atomics::publish64(wordAt(base, page_ - 8), 0x2222);

  base = files.resize(4 * page_ + 16);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_EQ(files.memSize(), 4 * page_ + 16);
  EXPECT_EQ(lengthOf(path_), 4 * page_ + 16);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 0)), 0x1111u);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, page_ - 8)), 0x2222u);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 4 * page_ + 8)), 0u) << "the file grows with zeros";
  Arena::Atomics::publish64(wordAt(base, 4 * page_ + 8), 0x3333);  // the new tail is writable
  EXPECT_EQ(bytesMappedFrom(path_), 5 * page_);
}

TEST_F(ArenaFilesWrapperTest, ResizeDownRemapsSmallerButTheFileKeepsItsLength) {
  auto files = wrapper();
  void * base = files.attach(4 * page_);
  ASSERT_NE(base, nullptr);
  Arena::Atomics::publish64(wordAt(base, 8), 0xABCD);
  Arena::Atomics::publish64(wordAt(base, 3 * page_), 0xEF01);

  base = files.resize(page_);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_EQ(files.memSize(), page_);
  EXPECT_EQ(bytesMappedFrom(path_), page_);
  EXPECT_EQ(files.fileSize(), 4 * page_);
  EXPECT_EQ(lengthOf(path_), 4 * page_);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 8)), 0xABCDu);

  // The tail stayed in the file: growing again finds it as it was.
  base = files.resize(4 * page_);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 3 * page_)), 0xEF01u);
}

TEST_F(ArenaFilesWrapperTest, ReadOnlyAttachOfAMissingFileFailsNamingThePath) {
  TestSupport::TraceCapture traces;
  auto files = wrapper();
  EXPECT_EQ(files.attach(page_, Mode::ReadOnly), nullptr);
  EXPECT_FALSE(files.attached());
  EXPECT_EQ(files.mode(), Mode::ReadOnly);
  const std::string expected = fmt::format("cannot open {}: No such file or directory", path_);
  EXPECT_EQ(files.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 ArenaFilesWrapper::attach() " + expected));
  EXPECT_FALSE(exists(directory_)) << "a reader creates nothing";
}

TEST_F(ArenaFilesWrapperTest, ReadOnlyAttachSeesWhatAWriterWrote) {
  auto writer = wrapper();
  void * written = writer.attach(2 * page_);
  ASSERT_NE(written, nullptr);
  Arena::Atomics::publish64(wordAt(written, 0), 0xC0FFEE);
  Arena::Atomics::publish64(wordAt(written, page_ + 8), 0xBEEF);

  auto reader = wrapper();
  const void * read = reader.attach(page_, Mode::ReadOnly);
  ASSERT_NE(read, nullptr) << reader.reason();
  EXPECT_NE(read, written) << "a mapping of its own";
  EXPECT_EQ(reader.memSize(), 2 * page_) << "the whole file, more than asked";
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(read, 0)), 0xC0FFEEu);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(read, page_ + 8)), 0xBEEFu);

  Arena::Atomics::publish64(wordAt(written, 16), 0x5EED);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(read, 16)), 0x5EEDu) << "later stores show through";
}

TEST_F(ArenaFilesWrapperTest, ReadOnlyAttachOfAShortFileFails) {
  auto writer = wrapper();
  ASSERT_NE(writer.attach(page_), nullptr);

  TestSupport::TraceCapture traces;
  auto reader = wrapper();
  EXPECT_EQ(reader.attach(2 * page_, Mode::ReadOnly), nullptr);
  const std::string expected =
      fmt::format("{} is {} bytes long, shorter than the {} bytes asked", path_, page_, 2 * page_);
  EXPECT_EQ(reader.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 ArenaFilesWrapper::attach() " + expected));
  EXPECT_EQ(lengthOf(path_), page_) << "a reader never extends the file";
  EXPECT_EQ(bytesMappedFrom(path_), page_) << "the writer's mapping alone";
}

TEST_F(ArenaFilesWrapperTest, ReadOnlyResizeBeyondTheFileFailsAndUnmaps) {
  auto writer = wrapper();
  ASSERT_NE(writer.attach(page_), nullptr);
  writer.detach();

  TestSupport::TraceCapture traces;
  auto reader = wrapper();
  ASSERT_NE(reader.attach(page_, Mode::ReadOnly), nullptr);
  EXPECT_EQ(reader.resize(3 * page_), nullptr);
  const std::string expected =
      fmt::format("{} is {} bytes long, shorter than the {} bytes asked", path_, page_, 3 * page_);
  EXPECT_EQ(reader.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 ArenaFilesWrapper::resize() " + expected));
  EXPECT_FALSE(reader.attached());
  EXPECT_EQ(bytesMappedFrom(path_), 0u) << "nothing stays mapped after a failed resize";
  EXPECT_EQ(descriptorsOn(path_), 0);
  EXPECT_EQ(lengthOf(path_), page_);
}

TEST_F(ArenaFilesWrapperTest, ReadOnlyResizeFollowsTheWritersGrowth) {
  auto writer = wrapper();
  ASSERT_NE(writer.attach(page_), nullptr);
  auto reader = wrapper();
  ASSERT_NE(reader.attach(page_, Mode::ReadOnly), nullptr);

  void * written = writer.resize(3 * page_);
  ASSERT_NE(written, nullptr);
  Arena::Atomics::publish64(wordAt(written, 2 * page_ + 8), 0x77);

  EXPECT_EQ(reader.memSize(), page_) << "still the reader's old mapping";
  EXPECT_EQ(reader.fileSize(), 3 * page_) << "the file as it is now";
  const void * read = reader.resize(3 * page_);
  ASSERT_NE(read, nullptr) << reader.reason();
  EXPECT_EQ(reader.memSize(), 3 * page_);
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(read, 2 * page_ + 8)), 0x77u);
}

TEST_F(ArenaFilesWrapperTest, RemoveUnlinksTheFileDetachingFirst) {
  auto files = wrapper();
  ASSERT_NE(files.attach(page_), nullptr);
  EXPECT_TRUE(files.remove());
  EXPECT_FALSE(exists(path_));
  EXPECT_FALSE(files.attached());
  EXPECT_EQ(bytesMappedFrom(path_) + bytesMappedFrom(path_ + " (deleted)"), 0u);
  EXPECT_EQ(files.memSize(), 0u);
  EXPECT_TRUE(files.remove()) << "no file left is what remove() promises";
  EXPECT_EQ(files.reason(), "");
}

TEST_F(ArenaFilesWrapperTest, RemoveThatCannotUnlinkFailsWithAReason) {
  // A directory in the file's place can't be unlinked.
  ASSERT_EQ(mkdir((temp_.path() + "/tables").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(directory_.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
  TestSupport::TraceCapture traces;
  auto files = wrapper();
  EXPECT_FALSE(files.remove());
  const std::string expected = fmt::format("cannot unlink {}: Is a directory", path_);
  EXPECT_EQ(files.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 ArenaFilesWrapper::remove() " + expected));
}

TEST_F(ArenaFilesWrapperTest, LocalModeNeverCreatesAFile) {
  auto files = wrapper(true);
  EXPECT_TRUE(files.localMem());
  EXPECT_EQ(files.getFilename(), path_);
  void * base = files.attach(100);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_GE(files.memSize(), 100u);
  EXPECT_EQ(files.fileSize(), files.memSize());
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 0)), 0u);
  Arena::Atomics::publish64(wordAt(base, 0), 9);

  base = files.resize(3 * page_);
  ASSERT_NE(base, nullptr) << files.reason();
  EXPECT_EQ(Arena::Atomics::observe64(wordAt(base, 0)), 9u);
  EXPECT_EQ(files.fileSize(), files.memSize());
  EXPECT_TRUE(files.remove());
  EXPECT_FALSE(files.attached());
  EXPECT_FALSE(exists(directory_));
  EXPECT_FALSE(exists(temp_.path() + "/tables"));
}

TEST_F(ArenaFilesWrapperTest, LocalModeOnTheHeapHoldsExactlyTheBytesAsked) {
  auto heap = wrapper(true, true);
  ASSERT_NE(heap.attach(100), nullptr) << heap.reason();
  EXPECT_EQ(heap.memSize(), 100u);
  auto anonymous = wrapper(true, false);
  ASSERT_NE(anonymous.attach(100), nullptr) << anonymous.reason();
  EXPECT_EQ(anonymous.memSize(), page_);
  EXPECT_FALSE(exists(directory_));
}

TEST_F(ArenaFilesWrapperTest, LocalModeAttachOfZeroBytesFails) {
  auto files = wrapper(true);
  EXPECT_EQ(files.attach(0), nullptr);
  EXPECT_EQ(files.reason(), fmt::format("cannot get private memory for {}: 0 bytes asked", path_));
}

TEST_F(ArenaFilesWrapperTest, AttachFailsWhenTheDirectoryCannotBeMade) {
  // A regular file where a directory should be.
  writeFile(temp_.path() + "/tables", 1, 0);
  TestSupport::TraceCapture traces;
  auto files = wrapper();
  EXPECT_EQ(files.attach(page_), nullptr);
  const std::string expected = fmt::format("cannot create directory {}: Not a directory", directory_);
  EXPECT_EQ(files.reason(), expected);
  EXPECT_TRUE(traces.contains("L0 ArenaFilesWrapper::attach() " + expected));
}

TEST_F(ArenaFilesWrapperTest, AttachOfZeroBytesMapsAnExistingFileAndFailsOnAnEmptyOne) {
  auto files = wrapper();
  EXPECT_EQ(files.attach(0), nullptr);
  EXPECT_EQ(files.reason(), fmt::format("{} is empty: nothing to map", path_));
  EXPECT_EQ(lengthOf(path_), 0u);

  auto writer = wrapper();
  ASSERT_NE(writer.attach(page_), nullptr);
  EXPECT_NE(files.attach(0, Mode::ReadOnly), nullptr) << files.reason();
  EXPECT_EQ(files.memSize(), page_);
  EXPECT_EQ(files.reason(), "") << "a success clears the last failure";
}

TEST_F(ArenaFilesWrapperTest, AttachTooLargeFailsCleanly) {
  auto files = wrapper();
  const std::size_t huge = std::size_t{1} << 62;
  EXPECT_EQ(files.attach(huge), nullptr);
  // The file system decides whether the extension or the mapping refuses.
  const std::string extend = fmt::format("cannot extend {} from 0 to {} bytes: ", path_, huge);
  const std::string map = fmt::format("cannot map {} bytes of {}: ", huge, path_);
  EXPECT_TRUE(files.reason().starts_with(extend) || files.reason().starts_with(map)) << files.reason();
  EXPECT_FALSE(files.attached());
  EXPECT_EQ(descriptorsOn(path_), 0);
}

TEST_F(ArenaFilesWrapperTest, ResizeOfAWrapperNotMappedFails) {
  auto files = wrapper();
  EXPECT_EQ(files.resize(page_), nullptr);
  EXPECT_EQ(files.reason(), fmt::format("{} is not mapped", path_));
  auto local = wrapper(true);
  EXPECT_EQ(local.resize(page_), nullptr);
  EXPECT_EQ(local.reason(), fmt::format("{} is not mapped", path_));
}

TEST_F(ArenaFilesWrapperTest, ResizeToZeroReleasesTheMappingAndKeepsTheFile) {
  auto files = wrapper();
  ASSERT_NE(files.attach(page_), nullptr);
  EXPECT_EQ(files.resize(0), nullptr);
  EXPECT_EQ(files.reason(), "");
  EXPECT_FALSE(files.attached());
  EXPECT_EQ(bytesMappedFrom(path_), 0u);
  EXPECT_EQ(lengthOf(path_), page_);
}

TEST_F(ArenaFilesWrapperTest, DetachAndTheDestructorReleaseMappingAndDescriptor) {
  {
    auto files = wrapper();
    ASSERT_NE(files.attach(page_), nullptr);
    EXPECT_EQ(bytesMappedFrom(path_), page_);
    EXPECT_EQ(descriptorsOn(path_), 1);
    files.detach();
    EXPECT_EQ(bytesMappedFrom(path_), 0u);
    EXPECT_EQ(descriptorsOn(path_), 0);
    ASSERT_NE(files.attach(page_), nullptr);
  }
  EXPECT_EQ(bytesMappedFrom(path_), 0u);
  EXPECT_EQ(descriptorsOn(path_), 0);
}

TEST_F(ArenaFilesWrapperTest, AttachWhileAttachedReplacesTheMapping) {
  auto files = wrapper();
  ASSERT_NE(files.attach(page_), nullptr);
  ASSERT_NE(files.attach(page_, Mode::ReadOnly), nullptr);
  EXPECT_EQ(files.mode(), Mode::ReadOnly);
  EXPECT_EQ(bytesMappedFrom(path_), page_);
  EXPECT_EQ(descriptorsOn(path_), 1);
}

TEST_F(ArenaFilesWrapperTest, FileNameJoinsTheDirectoryOnce) {
  EXPECT_EQ(Arena::ArenaFilesWrapper(handler_, "/a/b/", "slots", true).getFilename(), "/a/b/slots");
  EXPECT_EQ(Arena::ArenaFilesWrapper(handler_, "/a/b", "slots", true).getFilename(), "/a/b/slots");
  EXPECT_EQ(Arena::ArenaFilesWrapper(handler_, "", "slots", true).getFilename(), "slots");
}

// A link planted at a table file's path is never followed: neither a writer
// nor a reader touches the file it names.
TEST_F(ArenaFilesWrapperTest, LinkAtTheFilesPathIsNotFollowed) {
  const std::string victim = temp_.path() + "/victim";
  std::ofstream(victim) << "precious";
  ASSERT_EQ(mkdir((temp_.path() + "/tables").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(directory_.c_str(), 0755), 0);
  ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
  for (Mode mode : {Mode::ReadWrite, Mode::ReadOnly}) {
    Arena::ArenaFilesWrapper files = wrapper();
    EXPECT_EQ(files.attach(4, mode), nullptr);
    EXPECT_EQ(files.reason(), fmt::format("cannot open {}: Too many levels of symbolic links", path_));
  }
  EXPECT_EQ(lengthOf(victim), 8u) << "the file the link names is untouched";
}

// The directory of a writer's files must be this user's alone to change.
TEST_F(ArenaFilesWrapperTest, WriterRefusesADirectoryThatOthersCanWrite) {
  ASSERT_EQ(mkdir((temp_.path() + "/tables").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(directory_.c_str(), 0755), 0);
  ASSERT_EQ(chmod(directory_.c_str(), 0777), 0);
  Arena::ArenaFilesWrapper files = wrapper();
  EXPECT_EQ(files.attach(4), nullptr);
  EXPECT_EQ(files.reason(), fmt::format("directory {} is writable by group or others (mode 0777)", directory_));
  EXPECT_FALSE(exists(path_));
}

using ArenaFilesWrapperDeathTest = ArenaFilesWrapperTest;

TEST_F(ArenaFilesWrapperDeathTest, AReadOnlyMappingCannotBeWritten) {
  auto writer = wrapper();
  ASSERT_NE(writer.attach(page_), nullptr);
  auto reader = wrapper();
  void * read = reader.attach(page_, Mode::ReadOnly);
  ASSERT_NE(read, nullptr);
  EXPECT_DEATH(Arena::Atomics::publish64(wordAt(read, 0), 1), "");
}

}  // namespace

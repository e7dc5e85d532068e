#include "ArenaFiles/OwnerFile.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ArenaFiles/FileTesting.h"
#include "Basalt/Exception.h"
#include "Support/TempDir.h"
#include "Support/TraceCapture.h"

namespace {

using ArenaFiles::DoorbellInfo;
using ArenaFiles::OwnerFile;

class OwnerFileTest : public ::testing::Test {
 protected:
  OwnerFileTest() { handler_.maskIs(1); }

  std::string path() const { return directory_ + "/" + OwnerFile::FILENAME; }

  void writeRecord(const OwnerFile::Record & record) {
    std::filesystem::create_directories(directory_);
    FileTesting::overwrite(path(), std::string(reinterpret_cast<const char *>(&record), sizeof(record)));
  }

  // A record as doorbellInfoIs writes it, for `name`.
  static OwnerFile::Record soundRecord(const std::string & name, uint32_t tableId) {
    OwnerFile::Record record{};
    record.magic = OwnerFile::Magic;
    record.version = OwnerFile::Version;
    record.tableId = tableId;
    record.nameLength = static_cast<uint32_t>(name.size());
    std::memcpy(record.socketName, name.data(), name.size());
    record.checksum = record.doChecksum();
    return record;
  }

  // Expects the file to be refused by all three checks, with `why` after the
  // method and path.
  void expectUnsound(const std::string & why) {
    OwnerFile owner(handler_, directory_, false);
    std::string error;
    EXPECT_FALSE(owner.validate(error));
    EXPECT_EQ(error, fmt::format("OwnerFile::validate() {} {}", path(), why));
    EXPECT_FALSE(owner.validate());
    expectCorruption([&] { owner.validateFile(); }, fmt::format("OwnerFile::validateFile() {} {}", path(), why));
    expectCorruption([&] { owner.doorbellInfo(); }, fmt::format("OwnerFile::doorbellInfo() {} {}", path(), why));
  }

  template <typename Operation>
  static void expectCorruption(Operation operation, const std::string & message) {
    try {
      operation();
      ADD_FAILURE() << "must raise: " << message;
    } catch (const Basalt::CorruptionDetectedException & error) {
      EXPECT_EQ(error.message(), message);
    }
  }

  TestSupport::TempDir temp_;
  Basalt::Platform::DebugHandler handler_{"OwnerFileTest"};
  std::string directory_ = temp_.path() + "/agent/table";
  const DoorbellInfo info_{"tessel-table-0badcafe-4321", 17};
};

TEST_F(OwnerFileTest, NameIsOwner) { EXPECT_STREQ(OwnerFile::FILENAME, "owner"); }

TEST_F(OwnerFileTest, AbsentFileIsValidButHoldsNoOwner) {
  OwnerFile owner(handler_, directory_, false);
  EXPECT_TRUE(owner.validate());
  EXPECT_TRUE(owner.doorbellInfo().empty());
  expectCorruption([&] { owner.validateFile(); }, fmt::format("OwnerFile::validateFile() {} absent", path()));
  EXPECT_EQ(owner.headerToString(), fmt::format("OwnerFile::Header() {} absent", path()));
}

TEST_F(OwnerFileTest, LockMakesAPrivateLockFileAndNoRecord) {
  OwnerFile owner(handler_, directory_, false);
  owner.lock();
  EXPECT_TRUE(owner.locked());
  EXPECT_EQ(owner.lockPath(), directory_ + "/owner.lock");
  struct stat status;
  ASSERT_EQ(lstat(owner.lockPath().c_str(), &status), 0) << "lock() creates the lock file and its directory";
  EXPECT_EQ(status.st_mode & 0777, 0600u) << "only the writer's user can open it";
  EXPECT_EQ(FileTesting::contents(owner.lockPath()), fmt::format("{}\n", getpid())) << "the holder's pid";
  EXPECT_FALSE(FileTesting::exists(path())) << "the record waits for the first doorbellInfoIs";
  EXPECT_TRUE(owner.validate());
}

// An empty record, as an older release's lock() left it, has not yet been
// written: as valid as an absent one, and it names no owner.
TEST_F(OwnerFileTest, EmptyRecordIsValidButHoldsNoOwner) {
  std::filesystem::create_directories(directory_);
  FileTesting::overwrite(path(), "");
  OwnerFile owner(handler_, directory_, false);
  std::string error;
  EXPECT_TRUE(owner.validate(error));
  EXPECT_EQ(error, "");
  EXPECT_TRUE(owner.doorbellInfo().empty());
  expectCorruption([&] { owner.validateFile(); },
                   fmt::format("OwnerFile::validateFile() {} holds no owner record", path()));
  EXPECT_EQ(owner.headerToString(), fmt::format("OwnerFile::Header() {} empty", path()));
}

TEST_F(OwnerFileTest, DoorbellInfoRoundTrips) {
  OwnerFile owner(handler_, directory_, false);
  owner.lock();
  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  std::string error;
  EXPECT_TRUE(owner.validate(error)) << error;
  owner.validateFile();
  EXPECT_EQ(OwnerFile(handler_, directory_, false).doorbellInfo(), info_);
  EXPECT_EQ(owner.doorbellInfo().toString(), "socketName:tessel-table-0badcafe-4321 tableId:17");
}

TEST_F(OwnerFileTest, EmptyInfoSaysNoWriterAndIsSound) {
  std::filesystem::create_directories(directory_);
  OwnerFile owner(handler_, directory_, false);
  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  ASSERT_TRUE(owner.doorbellInfoIs(DoorbellInfo()));
  EXPECT_TRUE(owner.doorbellInfo().empty());
  EXPECT_EQ(owner.doorbellInfo().tableId(), 0u);
  owner.validateFile();
  EXPECT_EQ(FileTesting::contents(path()).size(), sizeof(OwnerFile::Record));
}

TEST_F(OwnerFileTest, LayoutIsTheDocumentedOne) {
  std::filesystem::create_directories(directory_);
  OwnerFile owner(handler_, directory_, false);
  ASSERT_TRUE(owner.doorbellInfoIs(DoorbellInfo("ab", 0x01020304)));
  const std::string bytes = FileTesting::contents(path());
  ASSERT_EQ(bytes.size(), 136u);
  EXPECT_EQ(bytes.substr(0, 8), "TSLOWNER");
  EXPECT_EQ(bytes.substr(8, 4), std::string("\x01\0\0\0", 4)) << "version 1";
  EXPECT_EQ(bytes.substr(16, 4), "\x04\x03\x02\x01") << "tableId, little-endian";
  EXPECT_EQ(bytes.substr(20, 4), std::string("\x02\0\0\0", 4)) << "nameLength";
  EXPECT_EQ(bytes.substr(24, 2), "ab");
  EXPECT_EQ(bytes.substr(26), std::string(110, '\0')) << "NUL padding, then reserved 0";
}

TEST_F(OwnerFileTest, RewriteOfALongerDamagedFileCutsItToOneRecord) {
  std::filesystem::create_directories(directory_);
  FileTesting::overwrite(path(), std::string(1000, 'z'));
  OwnerFile owner(handler_, directory_, false);
  EXPECT_FALSE(owner.validate());
  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  EXPECT_EQ(FileTesting::contents(path()).size(), sizeof(OwnerFile::Record));
  EXPECT_EQ(owner.doorbellInfo(), info_);
}

// Every byte of the record matters: flipping any one of them is told.
TEST_F(OwnerFileTest, EveryDamagedByteIsRefused) {
  std::filesystem::create_directories(directory_);
  for (std::size_t offset = 0; offset < sizeof(OwnerFile::Record); ++offset) {
    OwnerFile owner(handler_, directory_, false);
    ASSERT_TRUE(owner.doorbellInfoIs(info_));
    FileTesting::flipByte(path(), offset);
    EXPECT_FALSE(owner.validate()) << "offset " << offset;
    EXPECT_THROW(owner.doorbellInfo(), Basalt::CorruptionDetectedException) << "offset " << offset;
    EXPECT_THROW(owner.validateFile(), Basalt::CorruptionDetectedException) << "offset " << offset;
  }
}

TEST_F(OwnerFileTest, DamageMessagesNameWhatIsWrong) {
  std::filesystem::create_directories(directory_);
  OwnerFile owner(handler_, directory_, false);
  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  FileTesting::flipByte(path(), 7);
  expectUnsound("bad magic:0xad454e574f4c5354");

  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  FileTesting::flipByte(path(), 9);
  expectUnsound("bad version:65281");

  ASSERT_TRUE(owner.doorbellInfoIs(info_));
  FileTesting::flipByte(path(), 16);
  std::string bytes = FileTesting::contents(path());
  OwnerFile::Record record;
  std::memcpy(&record, bytes.data(), sizeof(record));
  expectUnsound(fmt::format("checksum fail: 0x{:x} != 0x{:x}", record.doChecksum(), record.checksum));

  FileTesting::overwrite(path(), "hello");
  expectUnsound("bad size:5 expected:136");
  FileTesting::overwrite(path(), std::string(137, '\0'));
  expectUnsound("bad size: more than 136 bytes");
}

// Records that a checksum can't catch, as if written with a wrong length.
TEST_F(OwnerFileTest, InconsistentRecordsWithRightChecksumsAreRefused) {
  OwnerFile::Record record = soundRecord("abc", 1);
  record.nameLength = 2;
  record.checksum = record.doChecksum();
  writeRecord(record);
  expectUnsound("bad nameLength:2 for socket name:abc");

  record = soundRecord("abc", 1);
  record.nameLength = 200;
  record.checksum = record.doChecksum();
  writeRecord(record);
  expectUnsound("bad nameLength:200 for socket name:abc");

  record = soundRecord("abc", 1);
  record.socketName[50] = 'x';
  record.checksum = record.doChecksum();
  writeRecord(record);
  expectUnsound("bad socket name padding");

  record = soundRecord("abc", 1);
  record.reserved = 9;
  record.checksum = record.doChecksum();
  writeRecord(record);
  expectUnsound("bad reserved:9");
}

TEST_F(OwnerFileTest, HeaderToStringShowsTheRecordOrTheBytes) {
  std::filesystem::create_directories(directory_);
  OwnerFile owner(handler_, directory_, false);
  ASSERT_TRUE(owner.doorbellInfoIs(DoorbellInfo("bell-7", 3)));
  OwnerFile::Record record = soundRecord("bell-7", 3);
  EXPECT_EQ(owner.headerToString(),
            fmt::format("OwnerFile::Header() {} magic:0x52454e574f4c5354 version:1 checksum:0x{:x} "
                        "computed:0x{:x} tableId:3 nameLength:6 socketName:bell-7 reserved:0",
                        path(), record.checksum, record.checksum));

  record.socketName[1] = '\x01';
  writeRecord(record);
  EXPECT_NE(owner.headerToString().find("socketName:b\\x01ll-7 "), std::string::npos) << owner.headerToString();

  FileTesting::overwrite(path(), "hello");
  EXPECT_EQ(owner.headerToString(), fmt::format("OwnerFile::Header() {} size:5 bytes: 68 65 6c 6c 6f", path()));
  FileTesting::overwrite(path(), std::string(500, 'A'));
  EXPECT_EQ(owner.headerToString(),
            fmt::format("OwnerFile::Header() {} size:more than 136 bytes: {}", path(),
                        fmt::join(std::vector<std::string>(32, "41"), " ")));
}

TEST_F(OwnerFileTest, DoorbellInfoIsWithoutADirectoryFailsAndSaysSo) {
  OwnerFile owner(handler_, temp_.path() + "/missing", false);
  TestSupport::TraceCapture capture;
  EXPECT_FALSE(owner.doorbellInfoIs(info_));
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], fmt::format("L0 OwnerFile::doorbellInfoIs() cannot write {}/missing/owner: "
                                            "No such file or directory",
                                            temp_.path()));
}

TEST_F(OwnerFileTest, LockExcludesOtherOpenersUntilUnlockOrDestruction) {
  const std::string lockPath = directory_ + "/" + OwnerFile::LOCK_NAME;
  auto tryLockElsewhere = [&] {
    int fd = open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
    bool got = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return got;
  };
  {
    OwnerFile owner(handler_, directory_, false);
    owner.lock();
    owner.lock();  // a second lock() of the same object changes nothing
    EXPECT_FALSE(tryLockElsewhere());
    owner.unlock();
    EXPECT_TRUE(tryLockElsewhere());
    owner.lock();
    EXPECT_FALSE(tryLockElsewhere());
  }
  EXPECT_TRUE(tryLockElsewhere()) << "the lock ends with the object";
}

TEST_F(OwnerFileTest, LockThatCannotCreateTheFileRaises) {
  FileTesting::overwrite(temp_.path() + "/plain", "not a directory");
  OwnerFile owner(handler_, temp_.path() + "/plain", false);
  try {
    owner.lock();
    FAIL() << "no file can be made under a plain file";
  } catch (const Basalt::InvalidInitializeException & error) {
    EXPECT_EQ(error.message(),
              fmt::format("OwnerFile::lock() cannot open {}/plain/owner.lock: Not a directory", temp_.path()));
  }
  EXPECT_FALSE(owner.locked());
}

// True once process `pid` has the file at `path` open.
bool holdsOpen(pid_t pid, const std::string & path) {
  struct stat wanted;
  if (stat(path.c_str(), &wanted) != 0) {
    return false;
  }
  std::error_code ignored;
  for (const auto & entry : std::filesystem::directory_iterator(fmt::format("/proc/{}/fd", pid), ignored)) {
    struct stat status;
    if (stat(entry.path().c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
        status.st_ino == wanted.st_ino) {
      return true;
    }
  }
  return false;
}

// cleanup removes the lock file while it holds the lock. A process that
// waited for that lock, with the old file open, must come to hold the file
// now at the path, not the removed one: the file at the path is then locked.
TEST_F(OwnerFileTest, WaiterOfARemovedFileLocksTheNewOne) {
  OwnerFile cleaner(handler_, directory_, false);
  cleaner.lock();
  const std::string lockPath = cleaner.lockPath();
  int unlocked[2];
  ASSERT_EQ(pipe(unlocked), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);  // a lock that never comes ends the child, not the test run
    // The child's copy of the cleaner's descriptor shares its lock; closing
    // the copy leaves the parent's lock in place. Until it is closed, the
    // child holds the file open through it, so the parent waits for the
    // report before it looks for the waiter's own descriptor.
    cleaner.unlock();
    (void)!write(unlocked[1], "U", 1);
    OwnerFile waiter(handler_, directory_, false);
    waiter.lock();
    int fd = open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
    const bool pathLocked = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    _exit(pathLocked ? 0 : 1);
  }
  close(unlocked[1]);
  char report = '?';
  ASSERT_EQ(read(unlocked[0], &report, 1), 1);
  close(unlocked[0]);
  // The waiter opens the file before it tries its lock, and keeps it open
  // while it tries again.
  bool waiterHoldsIt = false;
  for (int i = 0; i < 5000 && !waiterHoldsIt; ++i) {
    waiterHoldsIt = holdsOpen(child, lockPath);
    if (!waiterHoldsIt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  EXPECT_TRUE(waiterHoldsIt);
  cleaner.remove();
  cleaner.unlock();
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the waiter holds the lock of the file at the path";
}

// An attach or cleanup that holds the lock too long (stopped, or stuck) costs
// the next one a bounded wait, then a refusal that names the table and the
// holder.
TEST_F(OwnerFileTest, LockHeldLongerThanTheWaitIsRefusedNamingTheHolder) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    alarm(20);
    OwnerFile owner(handler_, directory_, false);
    owner.lock();
    (void)!write(ready[1], "L", 1);
    while (true) {
      pause();
    }
  }
  close(ready[1]);
  char report = '?';
  ASSERT_EQ(read(ready[0], &report, 1), 1);
  close(ready[0]);
  const auto defaultWait = OwnerFile::lockWait();
  EXPECT_EQ(defaultWait, OwnerFile::DefaultLockWait);
  OwnerFile::lockWaitIs(std::chrono::milliseconds(50));
  OwnerFile owner(handler_, directory_, false);
  TestSupport::TraceCapture capture;
  try {
    owner.lock();
    ADD_FAILURE() << "the lock is held by the child";
  } catch (const Basalt::InvalidInitializeException & error) {
    EXPECT_EQ(error.message(),
              fmt::format("OwnerFile::lock() table:{} still locked by pid:{} after 50 ms", directory_, holder));
    EXPECT_TRUE(capture.contains("L0 " + error.message()));
  }
  EXPECT_FALSE(owner.locked());
  OwnerFile::lockWaitIs(defaultWait);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  owner.lock();
  EXPECT_TRUE(owner.locked()) << "the lock of a dead holder is free";
}

TEST_F(OwnerFileTest, LocalTableTouchesNoFile) {
  OwnerFile local(handler_, directory_, true);
  local.lock();
  EXPECT_FALSE(local.locked());
  EXPECT_TRUE(local.doorbellInfoIs(info_));
  EXPECT_FALSE(FileTesting::exists(directory_));
  EXPECT_TRUE(local.doorbellInfo().empty());
  EXPECT_TRUE(local.validate());
  local.validateFile();
  EXPECT_EQ(local.headerToString(), "OwnerFile::Header() local table, no file");
}

}  // namespace

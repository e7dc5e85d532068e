#pragma once
// Writers used by the writer tests: the L3Iif Config table, and a made-up
// table whose values are as large as an L3Tunnel Config entry. Then what the
// restart and validator tests share: a table's files with writers started and
// stopped on them, bytes of files changed in place, and a validator run.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Cairn/CairnWriter.h"
#include "Cairn/SlotTestTypes.h"
#include "Rig/Hash.h"
#include "Support/TraceCapture.h"

namespace CairnTest {

// A key of one number, hashed as the L3Iif key is.
struct NumberKey {
  uint64_t number = 0;
  bool operator==(const NumberKey &) const = default;
  bool operator<(const NumberKey & other) const { return number < other.number; }
  uint32_t hash(uint32_t seed) const { return Rig::hashSingleAttr(seed, number); }
};

inline std::string valueToStrep(const NumberKey & key) { return std::to_string(key.number); }

// A value of Size bytes: its key, a version and a checksum-like fill, so that
// a test can tell one write of a key from another.
template <std::size_t Size>
struct NumberValue {
  NumberKey key;
  uint64_t version = 0;
  unsigned char fill[Size - 16] = {};

  NumberValue() = default;
  explicit NumberValue(const NumberKey & k) : key(k) {}
  NumberValue(uint64_t number, uint64_t v) : key{number}, version(v) {
    for (std::size_t i = 0; i < sizeof(fill); ++i) {
      fill[i] = static_cast<unsigned char>(number * 31 + v * 7 + i);
    }
  }
  const NumberKey & fwkKey() const { return key; }
  bool operator==(const NumberValue & other) const {
    return key == other.key && version == other.version &&
           std::equal(std::begin(fill), std::end(fill), std::begin(other.fill));
  }
  static std::string_view typeName() { return "CairnTest::NumberValue"; }
};

template <std::size_t Size>
std::string valueToStrep(const NumberValue<Size> & value) {
  return std::to_string(value.key.number) + "/v" + std::to_string(value.version);
}

using TunnelSizedValue = NumberValue<224>;
using IifSizedValue = NumberValue<48>;

template <typename Value>
using WriterFor = Cairn::CairnWriter<typename OpsFor<Value>::Key, Value, OpsFor<Value>>;

inline Cairn::MapDescriptor sharedDescriptor(uint32_t maxSlots) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = maxSlots;
  return descriptor;
}

// A writer on a table under a temporary base directory, initialized.
template <typename Value, typename Writer = WriterFor<Value>>
struct WriterHarness {
  explicit WriterHarness(const Cairn::MapDescriptor & descriptor, std::string name = "test/writer")
      : writer(std::make_unique<Writer>(handler, name, descriptor, OpsFor<Value>(), "TestClass",
                                        [this](bool quiesced) { quiescedCalls.push_back(quiesced); })) {
    writer->initialize(name);
  }

  ScopedShmRoot root;
  Basalt::Platform::DebugHandler handler{"writer-test"};
  std::vector<bool> quiescedCalls;
  std::unique_ptr<Writer> writer;
};

// ---- Restarts, damage and validation ----

// The tables' base directory while it lives: a fresh directory, removed with
// everything in it at the end. It lies in /dev/shm when that can be written,
// as tables do in production: there the sync of the epoch file that ends
// every writer start costs nothing, where on a disk each start waits for it.
class ScopedTableRoot {
 public:
  ScopedTableRoot() {
    const std::filesystem::path parent =
        access("/dev/shm", W_OK) == 0 ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path();
    std::string pattern = (parent / "tessel-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("ScopedTableRoot: mkdtemp failed for " + pattern);
    }
    path_ = pattern;
    setenv(Cairn::RootPath::baseVariable, path_.c_str(), 1);
  }
  ~ScopedTableRoot() {
    unsetenv(Cairn::RootPath::baseVariable);
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScopedTableRoot(const ScopedTableRoot &) = delete;
  ScopedTableRoot & operator=(const ScopedTableRoot &) = delete;
  const std::string & path() const { return path_; }

 private:
  std::string path_;
};

// A table's files under a temporary base directory, and the writers that start
// and stop on them one after another, as successive writer processes would.
// A test sets the handler's mask before start() to see the traces it wants.
template <typename Value>
struct TableHarness {
  using Writer = WriterFor<Value>;

  explicit TableHarness(const Cairn::MapDescriptor & tableDescriptor, std::string tableName = "test/restart")
      : descriptor(tableDescriptor), name(std::move(tableName)) {}

  // A new writer object on the table, not yet initialized.
  Writer & make() {
    writer.reset();
    writer = std::make_unique<Writer>(handler, name, descriptor, OpsFor<Value>(), "TestClass", [](bool) {});
    return *writer;
  }
  // A writer process's start: a new writer, initialized.
  Writer & start() {
    make();
    writer->initialize(name);
    return *writer;
  }
  // A writer process's end: detaches and drops the writer; the files stay.
  void stop() { writer.reset(); }

  std::string directory() const { return root.path() + "/" + name; }
  std::string file(std::string_view fileName) const { return directory() + "/" + std::string(fileName); }

  // Declared first, so that the files' directory outlives every writer.
  ScopedTableRoot root;
  Basalt::Platform::DebugHandler handler{"restart-test"};
  Cairn::MapDescriptor descriptor;
  std::string name;
  std::unique_ptr<Writer> writer;
};

// Bytes of a file on disk, read and changed in place as damage would change
// them. A mapping of the file sees each change at once: both go through the
// one page cache. Every failure throws std::runtime_error.
class FileBytes {
 public:
  explicit FileBytes(std::string path) : path_(std::move(path)) {}

  std::size_t size() const {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
      fail("stat");
    }
    return static_cast<std::size_t>(status.st_size);
  }

  template <typename T>
  T read(std::size_t offset) const {
    T value;
    readAt(&value, sizeof(value), offset);
    return value;
  }

  template <typename T>
  void write(std::size_t offset, const T & value) const {
    writeAt(&value, sizeof(value), offset, 0);
  }

  // XORs the byte at `offset` with `mask`.
  void flip(std::size_t offset, unsigned char mask) const {
    write<unsigned char>(offset, static_cast<unsigned char>(read<unsigned char>(offset) ^ mask));
  }

  std::string contents() const {
    std::string bytes(size(), '\0');
    readAt(bytes.data(), bytes.size(), 0);
    return bytes;
  }

  // Replaces the contents in place, creating the file if need be: a file
  // keeps its inode, and so the locks on it.
  void contentsIs(std::string_view bytes) const { writeAt(bytes.data(), bytes.size(), 0, O_TRUNC); }

  void truncate(std::size_t length) const {
    if (::truncate(path_.c_str(), static_cast<off_t>(length)) != 0) {
      fail("truncate");
    }
  }

  const std::string & path() const { return path_; }

 private:
  void readAt(void * data, std::size_t bytes, std::size_t offset) const {
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t done = fd < 0 ? -1 : pread(fd, data, bytes, static_cast<off_t>(offset));
    finish(fd, done, bytes, "read");
  }

  void writeAt(const void * data, std::size_t bytes, std::size_t offset, int extraFlags) const {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | extraFlags, 0644);
    const ssize_t done = fd < 0 ? -1 : pwrite(fd, data, bytes, static_cast<off_t>(offset));
    finish(fd, done, bytes, "write");
  }

  void finish(int fd, ssize_t done, std::size_t bytes, const char * call) const {
    const int error = errno;
    if (fd >= 0) {
      close(fd);
    }
    if (done != static_cast<ssize_t>(bytes)) {
      errno = error;
      fail(call);
    }
  }

  [[noreturn]] void fail(const char * call) const {
    throw std::runtime_error(std::string("FileBytes ") + call + " " + path_ + ": " + std::strerror(errno));
  }

  std::string path_;
};

// The verdict of one validator run over a writer's table, with its counts.
struct ValidatorRun {
  bool passed = false;
  std::string errorText;
  uint32_t occupiedCount = 0;
  uint32_t freeCount = 0;
  uint32_t notifiedCount = 0;
};

// Runs a Validator over the writer's table as the writer's start does: hung on
// the map for the time of the run.
template <typename Value>
ValidatorRun runValidator(WriterFor<Value> & writer) {
  Cairn::Validator<typename OpsFor<Value>::Key, Value, OpsFor<Value>> validator(writer);
  writer.map().validatorIs(&validator);
  ValidatorRun run;
  try {
    run.passed = validator.validate(writer.epochId());
  } catch (...) {
    writer.map().validatorIs(nullptr);
    throw;
  }
  writer.map().validatorIs(nullptr);
  run.errorText = validator.errorText();
  run.occupiedCount = validator.occupiedCount();
  run.freeCount = validator.freeCount();
  run.notifiedCount = validator.notifiedCount();
  return run;
}

// The writer's queue, for the operations that only the writer's own slot
// shrink calls (the corral, tombstones) and for the queue's clients.
template <typename Writer>
Ripple::RippleWriter & queueOf(Writer & writer) {
  // The queue is a non-const member of the writer, which shows it const only.
  return const_cast<Ripple::RippleWriter &>(writer.ripple());
}

// The traces of one level, without their "L<level> " prefix.
inline std::vector<std::string> tracesAt(const TestSupport::TraceCapture & traces, unsigned level) {
  const std::string prefix = "L" + std::to_string(level) + " ";
  std::vector<std::string> lines;
  for (const auto & line : traces.lines()) {
    if (line.rfind(prefix, 0) == 0) {
      lines.push_back(line.substr(prefix.size()));
    }
  }
  return lines;
}

// The handler mask with the given levels on.
inline uint32_t levels(std::initializer_list<unsigned> on) {
  uint32_t mask = 0;
  for (unsigned level : on) {
    mask |= 1u << level;
  }
  return mask;
}

}  // namespace CairnTest

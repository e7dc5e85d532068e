// Damaged file images: real tables built by a writer, their slot, bucket and
// queue files then damaged at random (bytes, aligned words, links of slots,
// bucket entries and queue entries), and on each damaged table a reader's
// lookups and whole walk, then a writer's start and validation. Each case runs
// in a child process under a time limit, so that a crash or a hang is seen as
// such. What must hold, whatever the damage:
//  - no crash and no hang;
//  - a reader's operation ends normally or with
//    Basalt::CorruptionDetectedException, and its attach with a false result;
//  - a walk returns no key twice;
//  - a writer's start succeeds (the files kept, or formatted afresh) and its
//    table then validates.
//
// TESSEL_FUZZ_CASES sets the number of cases (default 3000, or 300 in a
// sanitizer build); TESSEL_FUZZ_FIRST_CASE the number of the first (default
// 1). A case is drawn from its number alone, so a failure names its number
// and "TESSEL_FUZZ_FIRST_CASE=<n> TESSEL_FUZZ_CASES=1" runs it again.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Cairn/ReaderTestTypes.h"

using namespace CairnTest;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned DefaultCases = 300;
#else
constexpr unsigned DefaultCases = 3000;
#endif

// A child still running after this is hung; generous, as sanitizer builds are slow.
constexpr unsigned CaseSeconds = 20;
// Failures reported in full before the run stops.
constexpr unsigned MostFailures = 5;

unsigned fromEnvironment(const char * name, unsigned otherwise) {
  const char * text = std::getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

constexpr std::size_t slotSize = ReaderTable::slotSize;
constexpr std::size_t slotHeaderSize = ReaderTable::slotHeaderSize;

// A table a writer built, as its files lay when the writer stopped, and the
// keys it held and some it didn't.
struct Image {
  std::string name;
  std::string directory;
  std::map<std::string, std::string> files;
  std::vector<HashedKey> present;
  std::vector<HashedKey> absent;
};

std::string file(const Image & image, const std::string & name) { return image.directory + "/" + name; }

// How the writer fills one table: keys with hashes under `hashMask` (few bits
// make long chains and equal hashes), every third rewritten, and of each
// `period` keys in a row the first `removed` removed again.
struct Shape {
  const char * name;
  uint32_t keys;
  uint32_t hashMask;
  uint32_t period;
  uint32_t removed;
  bool shrinkBuckets;
};

const std::vector<Shape> & shapes() {
  static const std::vector<Shape> all{
      {"spread", 40, 0xFFFFFFFFu, 4, 1, false},
      {"chains", 60, 0xF0000003u, 5, 1, false},
      {"shrunk", 300, 0xFFFFFFFFu, 8, 7, true},  // the bucket table halves on the way down
  };
  return all;
}

std::vector<std::string> pieces() {
  return {Cairn::SlotFileName,      Cairn::BucketFileName,       Ripple::ControlFileName,
          Ripple::PrimaryFileName,  Ripple::SecondaryFileName,   ArenaFiles::EpochFile::EPOCH_NAME,
          ArenaFiles::OwnerFile::FILENAME};
}

// The files damage lands in, with their weights.
const std::vector<std::pair<const char *, unsigned>> & targets() {
  static const std::vector<std::pair<const char *, unsigned>> all{
      {Cairn::SlotFileName, 5},     {Cairn::BucketFileName, 3},    {Ripple::ControlFileName, 1},
      {Ripple::PrimaryFileName, 2}, {Ripple::SecondaryFileName, 1},
  };
  return all;
}

// The keys of one shape: those written, and which of them are removed again.
Image plan(const Shape & shape, const std::string & base) {
  Image image{std::string("fuzz/") + shape.name, base + "/fuzz/" + shape.name, {}, {}, {}};
  std::mt19937 random(shape.keys);
  for (uint32_t id = 0; id < shape.keys; ++id) {
    const HashedKey key{static_cast<uint32_t>(random()) & shape.hashMask, id};
    (id % shape.period < shape.removed ? image.absent : image.present).push_back(key);
  }
  image.absent.push_back(HashedKey{0x12345678u & shape.hashMask, 100000});  // never written
  return image;
}

// A writer process's life on one shape's table: every key written (every
// third rewritten, which tombstones its first queue entry), then the planned
// ones removed. Its end leaves the files, and the table to the next writer.
void fill(const Shape & shape, const Image & image) {
  Basalt::Platform::DebugHandler handler("fuzz-build");
  handler.maskIs(0);
  auto descriptor = sharedDescriptor(1000);
  descriptor.shrinkBuckets = shape.shrinkBuckets;
  HashedWriter writer(handler, image.name, descriptor, HashedOps(), "Fuzz", [](bool) {});
  writer.initialize(image.name);
  std::vector<HashedKey> all = image.present;
  all.insert(all.end(), image.absent.begin(), image.absent.end() - 1);
  std::sort(all.begin(), all.end(), [](const HashedKey & a, const HashedKey & b) { return a.id < b.id; });
  for (const HashedKey & key : all) {
    writer.write(HashedValue(key, key.id), true);
    if (key.id % 3 == 0) {
      writer.write(HashedValue(key, key.id + 1000), true);
    }
  }
  for (auto removed = image.absent.begin(); removed + 1 != image.absent.end(); ++removed) {
    HashedValue value;
    writer.remove(*removed, value);
  }
}

class CairnFileFuzzTest : public ::testing::Test {
 protected:
  // The tables are built by a writer in a child process, as another writer
  // process would have left them: its end frees them for the cases' writers.
  static void SetUpTestSuite() {
    root_ = new ScopedTableRoot();
    images_ = new std::vector<Image>();
    for (const Shape & shape : shapes()) {
      images_->push_back(plan(shape, root_->path()));
    }
    std::cout.flush();
    const pid_t builder = fork();
    if (builder == 0) {
      for (std::size_t index = 0; index < shapes().size(); ++index) {
        fill(shapes()[index], (*images_)[index]);
      }
      _exit(0);
    }
    int status = -1;
    built_ = builder > 0 && waitpid(builder, &status, 0) == builder && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    for (Image & image : *images_) {
      for (const std::string & name : pieces()) {
        image.files[name] = built_ ? FileBytes(file(image, name)).contents() : std::string();
      }
    }
  }

  static void TearDownTestSuite() {
    delete images_;
    delete root_;
  }

  // The image's files as the writer left them.
  static void restore(const Image & image) {
    for (const auto & [name, contents] : image.files) {
      FileBytes(file(image, name)).contentsIs(contents);
    }
    std::filesystem::remove(file(image, Cairn::Util::CORRUPTION_FILENAME));
  }

  static inline ScopedTableRoot * root_ = nullptr;
  static inline bool built_ = false;
  static inline std::vector<Image> * images_ = nullptr;
};

// ---- Damage ----

class Damager {
 public:
  Damager(const Image & image, uint64_t caseNumber) : image_(image), random_(caseNumber) {}

  // Damages the image's files in place; says what it did.
  std::string damage() {
    std::string done;
    const unsigned count = 1 + pick(3);
    for (unsigned round = 0; round < count; ++round) {
      const std::string name = target();
      const FileBytes bytes(file(image_, name));
      done += (done.empty() ? "" : "; ") + damageOne(name, bytes);
    }
    return done;
  }

 private:
  uint32_t pick(uint32_t below) { return below == 0 ? 0 : static_cast<uint32_t>(random_() % below); }

  std::string target() {
    unsigned total = 0;
    for (const auto & [name, weight] : targets()) {
      total += weight;
    }
    unsigned at = pick(total);
    for (const auto & [name, weight] : targets()) {
      if (at < weight) {
        return name;
      }
      at -= weight;
    }
    return Cairn::SlotFileName;
  }

  std::string damageOne(const std::string & name, const FileBytes & bytes) {
    const std::size_t size = bytes.size();
    switch (pick(3)) {
      case 0: {
        const std::size_t offset = pick(static_cast<uint32_t>(size));
        const auto mask = static_cast<unsigned char>(1 + pick(255));
        bytes.flip(offset, mask);
        return fmt::format("{} byte {} ^ 0x{:02x}", name, offset, mask);
      }
      case 1: {
        const std::size_t offset = 4 * std::size_t{pick(static_cast<uint32_t>(size / 4))};
        const uint32_t word = wordFor(name);
        bytes.write(offset, word);
        return fmt::format("{} word {} = 0x{:x}", name, offset, word);
      }
      default: {
        const std::size_t offset = linkOffset(name, size);
        const uint32_t word = linkFor(name, offset);
        bytes.write(offset, word);
        return fmt::format("{} link at {} = 0x{:x}", name, offset, word);
      }
    }
  }

  // Where a link lies: a slot's link value, a bucket entry's, a queue entry's slot word.
  std::size_t linkOffset(const std::string & name, std::size_t size) {
    if (name == Cairn::SlotFileName) {
      return ReaderTable::linkValueOffset(pick(static_cast<uint32_t>((size - slotHeaderSize) / slotSize)));
    }
    if (name == Cairn::BucketFileName) {
      return ReaderTable::bucketValueOffset(pick(buckets()));
    }
    if (name == Ripple::ControlFileName) {
      return offsetof(Ripple::ControlBlock, corralStart) + 8 * pick(2);
    }
    const uint32_t entries = Ripple::entriesIn(size);
    return Ripple::TableHeaderSize + std::size_t{pick(entries)} * Ripple::NotificationSize +
           offsetof(Ripple::Notification, slot);
  }

  // A slot's link to itself, one time in four: the shortest cycle there is.
  uint32_t linkFor(const std::string & name, std::size_t offset) {
    if (name == Cairn::SlotFileName && pick(4) == 0) {
      return static_cast<uint32_t>((offset - slotHeaderSize) / slotSize);
    }
    return wordFor(name);
  }

  // Values a link or a word may take: the shapes of real links, near and far.
  uint32_t wordFor(const std::string & name) {
    const uint32_t slots = static_cast<uint32_t>((image_.files.at(Cairn::SlotFileName).size() - slotHeaderSize) / slotSize);
    if (name == Ripple::ControlFileName) {
      return pick(2) == 0 ? pick(400) : static_cast<uint32_t>(random_());
    }
    switch (pick(7)) {
      case 0:
        return static_cast<uint32_t>(random_());
      case 1:
        return 0;
      case 2:
        return Cairn::EndOfTable;
      case 3:
        return Cairn::SlotLink::nextBucketLink(pick(2 * buckets()));
      case 4:
        return slots + pick(4);  // just out of range
      case 5:
        return Ripple::RIPPLE_TOMBSTONED;
      default:
        return pick(slots);
    }
  }

  uint32_t buckets() const {
    const std::size_t size = image_.files.at(Cairn::BucketFileName).size();
    return static_cast<uint32_t>((size - Cairn::BucketHeaderSize) / sizeof(Cairn::SlotLink));
  }

  const Image & image_;
  std::mt19937_64 random_;
};

// ---- One case, in a child ----

// What a child reports through its pipe: "ok <reader> <writer>" or a failure.
class Report {
 public:
  explicit Report(int fd) : fd_(fd) {}
  [[noreturn]] void finish(int code, const std::string & text) const {
    std::size_t done = 0;
    while (done < text.size()) {
      const ssize_t wrote = write(fd_, text.data() + done, text.size() - done);
      if (wrote <= 0) {
        break;
      }
      done += static_cast<std::size_t>(wrote);
    }
    _exit(code);
  }

 private:
  int fd_;
};

constexpr int ChildPassed = 0;
constexpr int ChildFailed = 3;

// A reader's lookups and walk; its verdict: "refused", "corrupt" or "sound".
std::string readTable(const Image & image, const Report & report) {
  Basalt::Platform::DebugHandler handler("fuzz-reader");
  handler.maskIs(0);
  HashedReader reader(handler, image.name, HashedOps());
  if (!reader.initialize("fuzz")) {
    return "refused";
  }
  bool corrupt = false;
  std::vector<HashedKey> asked = image.present;
  asked.insert(asked.end(), image.absent.begin(), image.absent.end());
  for (const HashedKey & key : asked) {
    try {
      bool found = false;
      HashedValue out;
      reader.lookup(key, found, &out);
      if (found && !(out.key == key)) {
        report.finish(ChildFailed, fmt::format("lookup of {} found {}", valueToStrep(key), valueToStrep(out.key)));
      }
    } catch (const Basalt::CorruptionDetectedException &) {
      corrupt = true;
    }
  }
  try {
    std::set<std::pair<uint32_t, uint32_t>> seen;
    HashedValue value;
    Cairn::IterHint hint;
    for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
      if (!seen.insert({value.key.hashValue, value.key.id}).second) {
        report.finish(ChildFailed, fmt::format("the walk returned {} twice", valueToStrep(value.key)));
      }
    }
  } catch (const Basalt::CorruptionDetectedException &) {
    corrupt = true;
  }
  return corrupt ? "corrupt" : "sound";
}

// A writer's start on the files and a validation; its verdict: "kept" or "formatted".
std::string writeTable(const Image & image, const Report & report) {
  Basalt::Platform::DebugHandler handler("fuzz-writer");
  handler.maskIs(0);
  HashedWriter writer(handler, image.name, sharedDescriptor(1000), HashedOps(), "Fuzz", [](bool) {});
  const ArenaFiles::EpochId before = ArenaFiles::EpochFile(handler, image.directory, false).read();
  writer.initialize(image.name);
  if (!writer.validate()) {
    report.finish(ChildFailed, "the writer's table doesn't validate after its start");
  }
  return writer.epochId() == before ? "kept" : "formatted";
}

[[noreturn]] void runChild(const Image & image, int fd) {
  const Report report(fd);
  alarm(CaseSeconds);  // a hang ends here, killed by SIGALRM
  try {
    const std::string read = readTable(image, report);
    const std::string written = writeTable(image, report);
    report.finish(ChildPassed, read + " " + written);
  } catch (const std::exception & exception) {
    report.finish(ChildFailed, fmt::format("unexpected exception: {}", exception.what()));
  } catch (...) {
    report.finish(ChildFailed, "unexpected exception of no std type");
  }
}

}  // namespace

TEST_F(CairnFileFuzzTest, ReadersAndWritersSurviveDamagedFiles) {
  ASSERT_TRUE(built_) << "the writer that builds the tables failed";
  const unsigned cases = fromEnvironment("TESSEL_FUZZ_CASES", DefaultCases);
  const unsigned firstCase = fromEnvironment("TESSEL_FUZZ_FIRST_CASE", 1);
  std::map<std::string, unsigned> verdicts;
  unsigned failures = 0;
  for (unsigned number = firstCase; number < firstCase + cases && failures < MostFailures; ++number) {
    const Image & image = (*images_)[number % images_->size()];
    restore(image);
    const std::string damage = Damager(image, number).damage();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::cout.flush();
    std::cerr.flush();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(fds[0]);
      runChild(image, fds[1]);
    }
    close(fds[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = read(fds[0], buffer, sizeof(buffer))) > 0;) {
      text.append(buffer, static_cast<std::size_t>(got));
    }
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    std::string failure;
    if (WIFSIGNALED(status)) {
      failure = WTERMSIG(status) == SIGALRM ? fmt::format("hung for {} s", CaseSeconds)
                                            : fmt::format("crashed by signal {} ({})", WTERMSIG(status),
                                                          strsignal(WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != ChildPassed) {
      failure = fmt::format("exit {}: {}", WEXITSTATUS(status), text);
    } else {
      ++verdicts[image.name.substr(5) + " " + text];
    }
    if (!failure.empty()) {
      ++failures;
      ADD_FAILURE() << "case " << number << " on " << image.name << " (" << damage << "): " << failure
                    << "\n  again: TESSEL_FUZZ_FIRST_CASE=" << number << " TESSEL_FUZZ_CASES=1";
    }
  }
  std::cout << "[ FUZZ     ] cases " << firstCase << " to " << firstCase + cases - 1 << ":";
  for (const auto & [verdict, count] : verdicts) {
    std::cout << " " << verdict << ":" << count;
  }
  std::cout << std::endl;
}

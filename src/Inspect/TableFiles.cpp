#include "Inspect/TableFiles.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "Arena/WriterLock.h"
#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/DebugHandler.h"
#include "Basalt/Exception.h"
#include "Cairn/RootPath.h"
#include "Cairn/SlotTable.h"
#include "Cairn/Util.h"

namespace Inspect {

Basalt::Platform::DebugHandler & silentHandler() {
  static Basalt::Platform::DebugHandler handler = [] {
    Basalt::Platform::DebugHandler made("tessel");
    made.maskIs(0);
    return made;
  }();
  return handler;
}

namespace {

// Reads the first sizeof(T) bytes of `path` into a T.
template <typename T>
T readPrefix(const std::string & path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    throw Error(1, fmt::format("cannot open {}: {}", path, std::strerror(errno)));
  }
  T value;
  const ssize_t got = ::pread(fd, &value, sizeof(T), 0);
  const int readErrno = errno;
  ::close(fd);
  if (got < 0) {
    throw Error(1, fmt::format("cannot read {}: {}", path, std::strerror(readErrno)));
  }
  if (static_cast<size_t>(got) < sizeof(T)) {
    throw Error(1, fmt::format("{} is {} bytes, shorter than its {}-byte header", path, got, sizeof(T)));
  }
  return value;
}

std::string rootDirectory(const std::string & name) {
  try {
    return Cairn::RootPath(silentHandler(), name, true).directory();
  } catch (const Basalt::InvalidInitializeException & exception) {
    throw Error(2, exception.what());
  }
}

}  // namespace

TableFiles::TableFiles(const std::string & name) : name_(name), directory_(rootDirectory(name)) {
  if (!present()) {
    throw Error(2, fmt::format("table {}: no table at {}", name_, directory_));
  }
}

std::optional<TableFiles> TableFiles::find(const std::string & name) {
  TableFiles files(name, rootDirectory(name));
  return files.present() ? std::optional<TableFiles>(std::move(files)) : std::nullopt;
}

bool TableFiles::present() const {
  std::error_code error;
  return std::filesystem::is_regular_file(directory_ + "/" + Cairn::SlotFileName, error);
}

Cairn::SlotTableHeader TableFiles::slotHeader() const {
  return readPrefix<Cairn::SlotTableHeader>(directory_ + "/" + Cairn::SlotFileName);
}

Cairn::BucketTableHeader TableFiles::bucketHeader() const {
  return readPrefix<Cairn::BucketTableHeader>(directory_ + "/" + Cairn::BucketFileName);
}

std::optional<QueueHeaders> TableFiles::queueHeaders() const {
  const std::string control = directory_ + "/" + Ripple::ControlFileName;
  std::error_code error;
  if (!std::filesystem::exists(control, error)) {
    return std::nullopt;
  }
  QueueHeaders headers;
  headers.control = readPrefix<Ripple::ControlBlock>(control);
  headers.tables[0] = readPrefix<Ripple::TableHeader>(directory_ + "/" + Ripple::PrimaryFileName);
  headers.tables[1] = readPrefix<Ripple::TableHeader>(directory_ + "/" + Ripple::SecondaryFileName);
  return headers;
}

pid_t TableFiles::writerPid() const {
  const ArenaFiles::OwnerFile owner(silentHandler(), directory_, false);
  std::string why;
  if (!owner.validate(why)) {
    return 0;
  }
  const std::string socketName = owner.doorbellInfo().socketName();
  return socketName.empty() ? 0 : Arena::WriterLock::pidOfSocketName(socketName);
}

bool TableFiles::processAlive(pid_t pid) {
  return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

uint32_t TableFiles::epoch() const {
  try {
    return ArenaFiles::EpochFile(silentHandler(), directory_, false).read().value;
  } catch (const std::exception &) {
    return 0;
  }
}

int64_t TableFiles::lastValidation() const {
  try {
    return ArenaFiles::EpochFile(silentHandler(), directory_, false).mtime();
  } catch (const std::exception &) {
    return 0;
  }
}

std::optional<std::string> TableFiles::corruptionMarker() const {
  const std::string path = directory_ + "/" + Cairn::Util::CORRUPTION_FILENAME;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return std::nullopt;
  }
  std::string text(4096, '\0');
  const ssize_t got = ::pread(fd, text.data(), text.size(), 0);
  ::close(fd);
  text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return text;
}

std::string TableFiles::headersText() const {
  std::string text = fmt::format("Cairn table \"{}\"\n\n\n{}\n\n{}\n\n", name_, bucketHeader().toString(),
                                 slotHeader().toString());
  if (const auto queue = queueHeaders()) {
    text += fmt::format("{}\n{}\n{}\n", queue->control.toString(), queue->tables[0].toString(),
                        queue->tables[1].toString());
  }
  return text;
}

std::vector<std::string> TableFiles::list() {
  const std::filesystem::path base = Cairn::RootPath::base();
  std::vector<std::string> names;
  std::error_code error;
  auto walk = std::filesystem::recursive_directory_iterator(base, error);
  if (error) {
    return names;
  }
  for (auto entry = begin(walk); entry != end(walk); entry.increment(error)) {
    if (error) {
      break;
    }
    if (!entry->is_symlink(error) && entry->is_regular_file(error) &&
        entry->path().filename() == Cairn::SlotFileName) {
      names.push_back(entry->path().parent_path().lexically_relative(base).string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace Inspect

#include "Cairn/Util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "ArenaFiles/SmallFile.h"
#include "Basalt/Exception.h"

namespace Cairn::Util {

namespace {

bool switchedOn(const char * variable) {
  const char * value = std::getenv(variable);
  return value != nullptr && std::strcmp(value, "1") == 0;
}

std::string markerPath(const std::string & directory) { return directory + "/" + CORRUPTION_FILENAME; }

[[noreturn]] void corrupt(Basalt::Platform::DebugHandler & handler, const std::string & message) {
  BASALT_TRACE(handler, 0, "{}", message);
  throw Basalt::CorruptionDetectedException(message);
}

}  // namespace

bool runningOnPhysicalDut() { return switchedOn(PhysicalDutVariable); }

bool strictValidation() { return switchedOn(StrictValidationVariable); }

void validateFile(Basalt::Platform::DebugHandler & handler, const std::string & fileName,
                  std::size_t expectedSize) {
  struct stat status;
  if (stat(fileName.c_str(), &status) != 0) {
    corrupt(handler, fmt::format("Cairn::Util::validateFile() {} missing: {}", fileName, std::strerror(errno)));
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size < expectedSize) {
    corrupt(handler, fmt::format("Cairn::Util::validateFile() {} size:{} expected:{}", fileName, size,
                                 expectedSize));
  }
  BASALT_TRACE(handler, 5, "Cairn::Util::validateFile() {} size:{} expected:{}", fileName, size, expectedSize);
}

bool writeCorruptionFile(Basalt::Platform::DebugHandler & handler, const std::string & directory,
                         const std::string & message) {
  std::string error;
  if (!ArenaFiles::SmallFile::replace(markerPath(directory), message + "\n", error)) {
    BASALT_TRACE(handler, 0, "Cairn::Util::writeCorruptionFile() {}", error);
    return false;
  }
  BASALT_TRACE(handler, 1, "Cairn::Util::writeCorruptionFile() {}: {}", markerPath(directory), message);
  return true;
}

bool removeCorruptionFile(Basalt::Platform::DebugHandler & handler, const std::string & directory) {
  const std::string path = markerPath(directory);
  if (unlink(path.c_str()) == 0) {
    BASALT_TRACE(handler, 1, "Cairn::Util::removeCorruptionFile() {} removed", path);
    return true;
  }
  if (errno == ENOENT) {
    return true;
  }
  BASALT_TRACE(handler, 0, "Cairn::Util::removeCorruptionFile() cannot remove {}: {}", path,
               std::strerror(errno));
  return false;
}

}  // namespace Cairn::Util

#include "Cairn/RootPath.h"

#include <cstdlib>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Cairn {

namespace {

std::string_view withoutLeadingSlash(std::string_view name) {
  return (!name.empty() && name.front() == '/') ? name.substr(1) : name;
}

bool nameIsSound(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos) {
    return false;
  }
  std::size_t start = 0;
  while (true) {
    std::size_t slash = name.find('/', start);
    std::string_view component = name.substr(start, slash - start);
    if (component.empty() || component == "." || component == "..") {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    start = slash + 1;
  }
}

}  // namespace

RootPath::RootPath(Basalt::Platform::DebugHandler & handler, std::string_view name, bool shared)
    : name_(name), shared_(shared) {
  std::string_view relative = withoutLeadingSlash(name);
  if (!nameIsSound(relative)) {
    // A NUL would cut the text short; print it as \0.
    std::string printable;
    for (char c : name) {
      printable += c == '\0' ? std::string("\\0") : std::string(1, c);
    }
    auto message = fmt::format("Cairn::RootPath() bad table name: '{}'", printable);
    BASALT_TRACE(handler, 0, "{}", message);
    throw Basalt::InvalidInitializeException(message);
  }
  directory_ = base() + "/" + std::string(relative);
}

std::string RootPath::file(std::string_view fileName) const {
  return directory_ + "/" + std::string(fileName);
}

std::string RootPath::base() {
  const char * value = std::getenv(baseVariable);
  return (value != nullptr && *value != '\0') ? std::string(value) : std::string(defaultBase);
}

}  // namespace Cairn

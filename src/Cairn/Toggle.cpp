#include "Cairn/Toggle.h"

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Basalt/DebugHandler.h"

namespace Cairn {

namespace {

struct KeptToggle {
  std::mutex mutex;
  std::optional<bool> value;
};

KeptToggle & oneSocketNudge() {
  static KeptToggle kept;
  return kept;
}

// The toggle's value out of a parsed file, or the reason it has none.
std::optional<int> valueOf(const nlohmann::json & entry, std::string & what, std::string_view name) {
  if (entry.is_boolean()) {
    return entry.get<bool>() ? 1 : 0;
  }
  if (entry.is_number_integer() && (entry == 0 || entry == 1)) {
    return entry.get<int>();
  }
  what = fmt::format("{} is neither a bool nor 0 or 1: {}", name, entry.dump());
  return std::nullopt;
}

}  // namespace

std::string toggleDirectory() {
  const char * value = std::getenv(ToggleDirectoryVariable);
  return (value != nullptr && *value != '\0') ? std::string(value) : std::string(DefaultToggleDirectory);
}

int getToggleState(std::string_view name, std::string_view file, int defaultValue) {
  auto & handler = Basalt::Platform::processDebugHandler();
  const std::string path = fmt::format("{}/{}", toggleDirectory(), file);
  std::ifstream stream(path);
  if (!stream) {
    BASALT_TRACE(handler, 5, "Cairn::getToggleState() {} absent, {} is {}", path, name, defaultValue);
    return defaultValue;
  }
  const std::string key(name);
  std::string what;
  try {
    const nlohmann::json parsed = nlohmann::json::parse(stream);
    if (!parsed.is_object()) {
      what = "not an object";
    } else if (!parsed.contains(key)) {
      BASALT_TRACE(handler, 5, "Cairn::getToggleState() {} has no {}, {} is {}", path, name, name,
                   defaultValue);
      return defaultValue;
    } else if (std::optional<int> value = valueOf(parsed.at(key), what, name)) {
      BASALT_TRACE(handler, 5, "Cairn::getToggleState() {} {} is {}", path, name, *value);
      return *value;
    }
  } catch (const nlohmann::json::exception & error) {
    what = error.what();
  }
  BASALT_TRACE(handler, 0, "Cairn::getToggleState() {} malformed, {} takes its default {}: {}", path, name,
               defaultValue, what);
  return defaultValue;
}

bool toggleOneSocketNudgeEnabled() {
  KeptToggle & kept = oneSocketNudge();
  std::lock_guard guard(kept.mutex);
  if (!kept.value) {
    kept.value = (getToggleState("OneSocketNudge", "ArenaFiles.json", 1) & 1) != 0;
  }
  return *kept.value;
}

void resetToggleOneSocketNudgeForTesting() {
  KeptToggle & kept = oneSocketNudge();
  std::lock_guard guard(kept.mutex);
  kept.value.reset();
}

}  // namespace Cairn

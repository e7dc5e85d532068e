#include "Support/TraceCapture.h"

#include <fmt/format.h>

#include "Basalt/DebugHandler.h"

namespace TestSupport {

TraceCapture::TraceCapture() {
  Basalt::Platform::DebugHandler::sinkIs(
      [this](const Basalt::Platform::DebugHandler &, unsigned level, std::string_view text) {
        lines_.push_back(fmt::format("L{} {}", level, text));
      });
}

TraceCapture::~TraceCapture() { Basalt::Platform::DebugHandler::sinkIs({}); }

bool TraceCapture::contains(const std::string & fragment) const {
  for (const auto & line : lines_) {
    if (line.find(fragment) != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace TestSupport

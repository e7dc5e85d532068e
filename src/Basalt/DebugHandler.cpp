#include "Basalt/DebugHandler.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace Basalt::Platform {

namespace {

// The sink is process-wide configuration, set by tests and tools; traces are
// written from the agent's one thread, the lock only keeps a sink change safe.
std::mutex & sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

DebugHandler::Sink & sink() {
  static DebugHandler::Sink instance;
  return instance;
}

}  // namespace

DebugHandler::DebugHandler(std::string name) : name_(std::move(name)), mask_(defaultMask()) {}

void DebugHandler::levelIs(unsigned level, bool on) {
  if (level >= 32) {
    return;
  }
  if (on) {
    mask_ |= 1u << level;
  } else {
    mask_ &= ~(1u << level);
  }
}

void DebugHandler::write(unsigned level, std::string_view text) const {
  std::lock_guard lock(sinkMutex());
  if (sink()) {
    sink()(*this, level, text);
    return;
  }
  fmt::print(stderr, "{} L{}: {}\n", name_.empty() ? "tessel" : name_, level, text);
}

uint32_t DebugHandler::defaultMask() {
  const char * text = std::getenv("TESSEL_DEBUG");
  if (text == nullptr || *text == '\0') {
    return 1u;
  }
  char * end = nullptr;
  unsigned long value = std::strtoul(text, &end, 0);
  if (*end != '\0' || value > 0xFFFFFFFFul) {
    return 1u;
  }
  return static_cast<uint32_t>(value);
}

void DebugHandler::sinkIs(Sink newSink) {
  std::lock_guard lock(sinkMutex());
  sink() = std::move(newSink);
}

DebugHandler & processDebugHandler() {
  static DebugHandler handler("process");
  return handler;
}

}  // namespace Basalt::Platform

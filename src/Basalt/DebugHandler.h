#pragma once
// Traces. Each object holds a DebugHandler; a trace carries a level from 0 to
// 31 and is written only if bit `level` of the handler's mask is set.
//
// Cost contract: BASALT_TRACE tests the bit first, so a disabled trace costs
// one load and one test, and neither its arguments' texts nor the message is
// built. Levels: 0 failures, 1-2 events in a table's life, 3 header dumps,
// 5 flow of operations, 7 per-slot work, 8-9 each step of a chain.
//
// The mask of a new handler is level 0 alone, or the value of the environment
// variable TESSEL_DEBUG (decimal, or hexadecimal with 0x) when it is set.
// Output goes to stderr as "<name> L<level>: <text>", or to the sink that
// sinkIs installs for the whole process (tests use it to capture traces).

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Basalt::Platform {

class DebugHandler {
 public:
  using Sink = std::function<void(const DebugHandler &, unsigned level, std::string_view text)>;

  explicit DebugHandler(std::string name = "");

  bool enabled(unsigned level) const { return level < 32 && ((mask_ >> level) & 1u); }
  uint32_t mask() const { return mask_; }
  void maskIs(uint32_t mask) { mask_ = mask; }
  void levelIs(unsigned level, bool on);
  const std::string & name() const { return name_; }

  // Writes one finished line; call through BASALT_TRACE so that the text is
  // built only when the level is on.
  void write(unsigned level, std::string_view text) const;

  // The mask that new handlers take: TESSEL_DEBUG, or 1 (level 0).
  static uint32_t defaultMask();
  // Installs a sink for every handler of the process; an empty one restores stderr.
  static void sinkIs(Sink sink);

 private:
  std::string name_;
  uint32_t mask_;
};

// The handler of code that has no object of its own (assertions, free functions).
DebugHandler & processDebugHandler();

}  // namespace Basalt::Platform

#define BASALT_TRACE(handler, level, ...)                           \
  do {                                                              \
    const auto & basaltTraceHandler_ = (handler);                   \
    if (basaltTraceHandler_.enabled(level)) {                       \
      basaltTraceHandler_.write((level), fmt::format(__VA_ARGS__)); \
    }                                                               \
  } while (0)

#pragma once
// What a fuzz target does when a property fails: it tells on stderr what
// broke, with the texts involved in their quoted, escaped form, then aborts,
// which libFuzzer reports as a crash and saves the input for replay.

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <fmt/format.h>

#include "Rig/ValueText.h"

namespace TesselFuzz {

[[noreturn]] inline void propertyBroken(std::string_view property, std::string_view input,
                                        std::string_view other) {
  fmt::print(stderr, "property broken: {}\n  input: {}\n  other: {}\n", property,
             Rig::valueToStrep(Rig::String(input)), Rig::valueToStrep(Rig::String(other)));
  std::fflush(stderr);
  std::abort();
}

}  // namespace TesselFuzz

#pragma once
// Basalt::Fmt: the one way this system builds texts. Messages and traces are
// fmt format strings, checked at compile time.

#include <string>

#include <fmt/format.h>

namespace Basalt {

template <typename... Args>
std::string Fmt(fmt::format_string<Args...> format, Args &&... args) {
  return fmt::format(format, std::forward<Args>(args)...);
}

inline std::string vFmt(fmt::string_view format, fmt::format_args args) {
  return fmt::vformat(format, args);
}

}  // namespace Basalt

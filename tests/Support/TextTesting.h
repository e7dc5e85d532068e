#pragma once
// Helpers for tests of text forms: parse one attribute, catch one message.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "Rig/ValueText.h"

namespace RigTesting {

// Parses `text` with Rig::deserializeAttr<T> as attribute `name`; `rest`
// receives what the parser left behind its cursor.
template <typename T>
T parseAttr(const std::string & text, std::string_view name, std::string * rest = nullptr) {
  Rig::String owned(text);
  Rig::Cursor cursor = owned.begin();
  T value = Rig::deserializeAttr<T>(cursor, owned.end(), name);
  if (rest != nullptr) {
    *rest = std::string(cursor, owned.cend());
  }
  return value;
}

// The message of the exception E that `action` raises; fails the test if it
// raises nothing or something else.
template <typename E, typename Action>
std::string messageOf(Action action) {
  try {
    action();
  } catch (const E & exception) {
    return exception.what();
  }
  ADD_FAILURE() << "no exception of the expected type";
  return {};
}

}  // namespace RigTesting

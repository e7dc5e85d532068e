#include "P4Runtime/ErrorCode.h"

#include <array>

#include <fmt/format.h>

namespace P4Runtime {

namespace {

constexpr std::array<std::string_view, 18> names = {
    "success",         "cancelled",          "unknown",          "invalidArgument",
    "deadlineExceeded", "notFound",          "alreadyExists",    "permissionDenied",
    "resourceExhausted", "failedPrecondition", "aborted",         "outOfRange",
    "unimplemented",   "internal",           "unavailable",      "dataLoss",
    "unauthenticated", "invalidEntryKey",
};

bool isNameChar(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

std::string_view errorCodeName(ErrorCode code) {
  auto index = static_cast<uint32_t>(code);
  return index < names.size() ? names[index] : std::string_view();
}

Rig::String valueToStrep(ErrorCode code) {
  auto name = errorCodeName(code);
  if (!name.empty()) {
    return Rig::String(name);
  }
  return Rig::valueToStrep(static_cast<unsigned long long>(code));
}

ErrorCode sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                          ErrorCode *) {
  if (cursor != end && isNameChar(*cursor)) {
    Rig::Cursor wordEnd = cursor;
    while (wordEnd != end && isNameChar(*wordEnd)) {
      ++wordEnd;
    }
    std::string_view word(cursor, wordEnd);
    for (uint32_t i = 0; i < names.size(); ++i) {
      if (names[i] == word) {
        cursor = wordEnd;
        return static_cast<ErrorCode>(i);
      }
    }
    throw Rig::ParseException(fmt::format(
        "P4Runtime::sequenceToValue() attribute '{}': unknown error code \"{}\"", attributeName, word));
  }
  return static_cast<ErrorCode>(Rig::deserializeAttr<uint32_t>(cursor, end, attributeName));
}

}  // namespace P4Runtime

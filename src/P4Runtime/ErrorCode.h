#pragma once
// The result code of an operation on the hardware, as a P4Runtime status
// reports it. 0 is success; 17 is what key validation returns for a key the
// table can't take. Text form: the code's name, or its number when it has none.

#include <cstdint>
#include <string_view>

#include "Rig/ValueText.h"

namespace P4Runtime {

enum class ErrorCode : uint32_t {
  success = 0,
  cancelled = 1,
  unknown = 2,
  invalidArgument = 3,
  deadlineExceeded = 4,
  notFound = 5,
  alreadyExists = 6,
  permissionDenied = 7,
  resourceExhausted = 8,
  failedPrecondition = 9,
  aborted = 10,
  outOfRange = 11,
  unimplemented = 12,
  internal = 13,
  unavailable = 14,
  dataLoss = 15,
  unauthenticated = 16,
  invalidEntryKey = 17,
};

// The name of a code, or an empty view for a number without one.
std::string_view errorCodeName(ErrorCode code);

Rig::String valueToStrep(ErrorCode code);

// Parses a name, or a number up to 2^32 - 1.
ErrorCode sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                          ErrorCode *);

}  // namespace P4Runtime

#pragma once
// Cairn::Util: the platform tests and file checks around a table's attach.
//
// Environment switches, read at each call, on only when set to exactly "1":
//   runningOnPhysicalDut()  TESSEL_PHYSICAL_DUT       the process runs on a real
//                                                     switch (device under test),
//                                                     not in a simulation or a
//                                                     developer's build
//   strictValidation()      TESSEL_STRICT_VALIDATION  a writer whose files fail
//                                                     validation keeps them for a
//                                                     core dump and stops,
//                                                     instead of formatting anew
// Both are off by default: a writer then rebuilds a damaged table.
//
// The corruption marker: the file CORRUPTION_FILENAME in a table's
// directory, whose text is the message of the corruption that a reader
// detected, and a newline. It is a mark for operators; a successful writer
// attach, validateFiles and cleanup remove it.

#include <cstddef>
#include <string>

#include "Basalt/DebugHandler.h"

namespace Cairn::Util {

constexpr const char * PhysicalDutVariable = "TESSEL_PHYSICAL_DUT";
constexpr const char * StrictValidationVariable = "TESSEL_STRICT_VALIDATION";
constexpr const char * CORRUPTION_FILENAME = "corruption-detected";

bool runningOnPhysicalDut();
bool strictValidation();

// Returns if the file at `fileName` (a path) exists and holds at least
// `expectedSize` bytes; otherwise raises Basalt::CorruptionDetectedException,
// traced at level 0: "Cairn::Util::validateFile() <file> missing: <reason>" or
// "Cairn::Util::validateFile() <file> size:<size> expected:<expectedSize>".
void validateFile(Basalt::Platform::DebugHandler & handler, const std::string & fileName,
                  std::size_t expectedSize);

// Writes the marker into `directory` (which must exist: a reader doesn't
// create a table's directory), replacing any earlier one whole. False, traced
// at level 0, when it can't; the caller goes on, as the marker is advice.
bool writeCorruptionFile(Basalt::Platform::DebugHandler & handler, const std::string & directory,
                         const std::string & message);
// Removes the marker from `directory`. True when none is left, an absent one
// included; false, traced at level 0, when it can't be removed.
bool removeCorruptionFile(Basalt::Platform::DebugHandler & handler, const std::string & directory);

}  // namespace Cairn::Util

#pragma once
// The feature toggles of this library, and the service that reads them.
//
// getToggleState(name, file, default) reads the JSON file `file` in the
// configuration directory, TESSEL_CONFIG_DIR, or /etc/tessel when that is
// unset or empty. The file is one object whose members are toggles:
//
//     { "OneSocketNudge": true, "SomeOtherToggle": 0 }
//
// A toggle's value is true or false, or the number 1 or 0; the result is 1 or
// 0. The file is read afresh at each call, on the calling thread.
//   file or member absent  the default; traced at level 5
//   file malformed         the default; traced at level 0 on the process
//                          handler, "Cairn::getToggleState() <path> malformed,
//                          <name> takes its default <default>: <what>", where
//                          <what> is the parser's text, "not an object", or
//                          "<name> is neither a bool nor 0 or 1: <value>"
// A toggle is advice, never a reason to fail: nothing here raises.
//
// toggleOneSocketNudgeEnabled(): the toggle "OneSocketNudge" of
// "ArenaFiles.json", default 1. Asked on the first call alone; bit 0 of the
// answer is kept and returned ever after, also when the file changes. The
// first call may come from any thread; the answer is taken once under a lock.

#include <string>
#include <string_view>

namespace Cairn {

constexpr const char * ToggleDirectoryVariable = "TESSEL_CONFIG_DIR";
constexpr const char * DefaultToggleDirectory = "/etc/tessel";

// The directory in which toggle files are looked for now.
std::string toggleDirectory();
int getToggleState(std::string_view name, std::string_view file, int defaultValue);

bool toggleOneSocketNudgeEnabled();
// For tests alone: forgets the kept answer, so that the next call asks again.
void resetToggleOneSocketNudgeForTesting();

}  // namespace Cairn

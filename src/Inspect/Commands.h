#pragma once
// Inspect's commands: what `tessel` prints for each of its read-only
// commands, as text or JSON. Each returns the text to print and raises
// Inspect::Error (with the exit status: 1 for a table found unsound, 2 for a
// bad name or a missing table) for what it can't answer.
//
//   ls        every table under the base, one line each (or a JSON array)
//   headers   the slot, bucket and queue headers as the engine prints them
//   dump      the entries in table order, one text form a line (or JSON);
//             with a key, that entry alone
//   stat      capacity, fill, buckets, queue, generation, writer, marker
//   check     would the next writer keep this table? The engine's own
//             start-up validation, run on a private copy of the files
//
// Every command but check only reads the table's files (read-only opens and
// mappings); check reads them once, to copy them.

#include <optional>
#include <string>

namespace Inspect {

struct CheckResult {
  bool sound;
  std::string text;  // what to print; on an unsound table, the validator's message
};

std::string ls(bool json);
std::string headers(const std::string & table);
std::string dump(const std::string & table, bool json, const std::optional<std::string> & key);
std::string stat(const std::string & table, bool json);
CheckResult check(const std::string & table);

}  // namespace Inspect

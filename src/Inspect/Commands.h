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
//   stat      capacity, fill, buckets, queue, generation, last validation,
//             writer, corruption marker
//   check     would the next writer keep this table? The engine's own
//             start-up validation, run on a private copy of the files
//   load      becomes the table's writer and writes every entry of a dump
//             (its text or its JSON) into it
//   watch     follows the table as a shadow, one JSON line per changed key
//
// ls, headers, dump and stat only read the table's files (read-only opens and
// mappings); check reads them once, to copy them; watch maps them read-only
// and reads the writer's queue. load alone writes, as any writer would, and
// is refused while another writer lives.

#include <cstdint>
#include <functional>
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
// Told how many slots of how many the validation has walked (tessel check's
// progress line on large tables).
using CheckProgress = std::function<void(uint32_t walked, uint32_t occupied)>;

CheckResult check(const std::string & table, const CheckProgress & progress = {});

// Loads `dumpFile` into `table`: an existing table keeps its type and size;
// a new one takes the type its entries name (or `valueType`, for JSON) and
// room for `maxSlots` entries (0: twice the dump's, at least 1024). Returns
// a line saying how many entries were written.
std::string load(const std::string & table, const std::string & dumpFile, const std::string & valueType,
                 uint32_t maxSlots);

// Follows `table` as a shadow and calls `line` with one JSON line per changed
// key, until `count` lines were made (0: for ever): {"key":..., "value":...,
// "sequence":...}, or "deleted":true in place of the value. The table as it
// is when the shadow mounts gives no lines; `mounted`, when given, is called
// once then. A table with no writer is waited for.
void watch(const std::string & table, uint64_t count, const std::function<void(const std::string &)> & line,
           const std::function<void()> & mounted = {});

}  // namespace Inspect

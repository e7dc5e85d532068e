#pragma once
// Inspect::TableFiles: what an operator can learn of a table from its files
// alone, with no writer running and without disturbing one. Every file is
// opened read-only (O_NOFOLLOW, O_CLOEXEC) and read with pread: nothing is
// mapped writable, locked or written.
//
// A table is a directory below the base (Cairn::RootPath::base()) that holds
// a "slots" file; its name is its path below the base.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Basalt/DebugHandler.h"
#include "Cairn/BucketFormat.h"
#include "Cairn/SlotFormat.h"
#include "Ripple/RippleFormat.h"

namespace Inspect {

// Raised for what an operator asked that can't be answered: a bad table
// name, a table that is not there, a file that can't be read. `status` is
// the tool's exit status for it.
class Error : public std::runtime_error {
 public:
  Error(int status, const std::string & message) : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// The handler of the tool's own readers and files, with every level off:
// what the engine would trace reaches the operator as the command's error.
Basalt::Platform::DebugHandler & silentHandler();

struct QueueHeaders {
  Ripple::ControlBlock control;
  Ripple::TableHeader tables[2];
};

class TableFiles {
 public:
  // The table `name` under the base. Error 2 for a name the engine refuses
  // or a table whose slot file is not there.
  explicit TableFiles(const std::string & name);
  // The same, absent when the table is not there (Error 2 for a bad name).
  static std::optional<TableFiles> find(const std::string & name);

  const std::string & name() const { return name_; }
  const std::string & directory() const { return directory_; }

  // The fixed headers, read as they are now. Error 1 when a file is shorter
  // than its header or can't be read.
  Cairn::SlotTableHeader slotHeader() const;
  Cairn::BucketTableHeader bucketHeader() const;
  // Absent for a table without a queue (no "ripple-control").
  std::optional<QueueHeaders> queueHeaders() const;

  // The writer named by the owner file: its pid, 0 when none is recorded.
  pid_t writerPid() const;
  // True when a process with that pid exists.
  static bool processAlive(pid_t pid);
  // The generation recorded in the epoch file, 0 when it can't be read.
  uint32_t epoch() const;
  // When the epoch file was last written, in seconds since the epoch (0 when
  // it can't be read): a writer records its generation there once it has
  // proved the table sound at its start.
  int64_t lastValidation() const;
  // The text of the corruption marker, when a reader left one.
  std::optional<std::string> corruptionMarker() const;

  // The engine's own dump texts of the slot, bucket and queue headers.
  std::string headersText() const;

  // Every table below the base, by name, in name order.
  static std::vector<std::string> list();

 private:
  TableFiles(std::string name, std::string directory) : name_(std::move(name)), directory_(std::move(directory)) {}
  bool present() const;

  std::string name_;
  std::string directory_;
};

}  // namespace Inspect

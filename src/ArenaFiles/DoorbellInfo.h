#pragma once
// ArenaFiles::DoorbellInfo: how a reader reaches the writer of a table, the
// name of the writer's nudge socket and the id under which that socket knows
// the table. The owner file (ArenaFiles/OwnerFile.h) holds one. An empty info,
// with no socket name, says that no writer is there.

#include <cstddef>
#include <cstdint>
#include <string>

namespace ArenaFiles {

class DoorbellInfo {
 public:
  // sun_path holds 108 bytes, one of them the terminating NUL.
  static constexpr std::size_t MaxSocketName = 107;

  DoorbellInfo() = default;
  DoorbellInfo(std::string socketName, uint32_t tableId);

  const std::string & socketName() const { return socketName_; }
  // A name longer than MaxSocketName, or with a NUL in it, is a programming
  // error: the assertion "DoorbellInfo::socketNameIs() bad socket name:<name>".
  void socketNameIs(std::string socketName);
  uint32_t tableId() const { return tableId_; }
  void tableIdIs(uint32_t tableId) { tableId_ = tableId; }
  bool empty() const { return socketName_.empty(); }

  // "socketName:<name> tableId:<id>"
  std::string toString() const;
  bool operator==(const DoorbellInfo &) const = default;

 private:
  std::string socketName_;
  uint32_t tableId_ = 0;
};

}  // namespace ArenaFiles

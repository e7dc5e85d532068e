#pragma once
// ArenaFiles::DoorbellName: a doorbell socket name and the process id it
// carries. Every doorbell socket name ends in "-<decimal pid>" of the process
// that listens on it; a writer's own name is made by forTable. The rule is
// kept in Arena::WriterLock, which stands below this layer and needs it too.

#include <sys/types.h>

#include <string>

namespace ArenaFiles {

class DoorbellName {
 public:
  explicit DoorbellName(std::string name) : name_(std::move(name)) {}
  // A fresh name for the nudge socket of writer `pid` of the table in
  // `directory`; its random part differs with every call.
  static DoorbellName forTable(const std::string & directory, pid_t pid);

  const std::string & name() const { return name_; }
  // The process id the name ends in; 0 when it carries none.
  pid_t pid() const;

 private:
  std::string name_;
};

}  // namespace ArenaFiles

#include "ArenaFiles/DoorbellName.h"

#include "Arena/WriterLock.h"

namespace ArenaFiles {

DoorbellName DoorbellName::forTable(const std::string & directory, pid_t pid) {
  return DoorbellName(Arena::WriterLock::socketNameFor(directory, pid));
}

pid_t DoorbellName::pid() const { return Arena::WriterLock::pidOfSocketName(name_); }

}  // namespace ArenaFiles

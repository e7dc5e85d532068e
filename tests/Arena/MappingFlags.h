#pragma once
// The kernel's view of this process's mappings, for tests: the VmFlags line
// of /proc/self/smaps, where "dd" means "do not dump" and "hg" "advised for
// huge pages".

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace ArenaTest {

// The VmFlags of the mapping that holds `address`, with a blank on each side
// of every flag, or "" when no mapping holds it.
inline std::string vmFlagsAt(const void * address) {
  const auto wanted = reinterpret_cast<uintptr_t>(address);
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  bool inside = false;
  while (std::getline(smaps, line)) {
    uintptr_t start = 0;
    uintptr_t end = 0;
    char dash = 0;
    std::istringstream range(line);
    if (line.find("VmFlags:") == 0) {
      if (inside) {
        return line.substr(8) + " ";
      }
    } else if (range >> std::hex >> start >> dash >> end && dash == '-') {
      inside = start <= wanted && wanted < end;
    }
  }
  return "";
}

}  // namespace ArenaTest

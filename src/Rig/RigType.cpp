#include "Rig/RigType.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace Rig {

bool RigType::isDerived(const RigType * other) const {
  for (const RigType * type = this; type != nullptr; type = type->base) {
    if (type == other) {
      return true;
    }
  }
  return false;
}

std::string demangleStdString(const std::type_info & type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace Rig

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

const RigAttribute * RigType::attribute(uint32_t id) const {
  for (uint32_t index = 0; index < attributeCount; ++index) {
    if (attributes[index].id == id) {
      return &attributes[index];
    }
  }
  return nullptr;
}

const RigAttribute * RigType::attribute(std::string_view attributeName) const {
  for (uint32_t index = 0; index < attributeCount; ++index) {
    if (attributeName == attributes[index].name) {
      return &attributes[index];
    }
  }
  return nullptr;
}

std::string demangleStdString(const std::type_info & type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace Rig

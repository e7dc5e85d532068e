#include "Rig/TypeRegistry.h"

#include <map>
#include <string>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Rig/Exception.h"

namespace Rig {

namespace {

struct Registry {
  std::vector<const RigType *> types;
  std::map<std::string, const RigType *, std::less<>> byName;
};

// Made on first use: types register from static initialisers (contract 4).
Registry & registry() {
  static Registry instance;
  return instance;
}

}  // namespace

void typeNodeIs(const RigType * type) {
  Registry & types = registry();
  const auto [found, added] = types.byName.try_emplace(type->name, type);
  if (!added && found->second != type) {
    throw Basalt::InvalidInitializeException(
        fmt::format("Rig::typeNodeIs() a type named {} is registered already", type->name));
  }
  if (added) {
    types.types.push_back(type);
  }
}

const RigType * typeNode(std::string_view name) {
  const Registry & types = registry();
  const auto found = types.byName.find(name);
  return found == types.byName.end() ? nullptr : found->second;
}

const std::vector<const RigType *> & typeNodes() { return registry().types; }

std::string describe(const RigType & type) {
  std::string text = fmt::format("{} ({} bytes, base {}, flags {:#010x})\n", type.name, type.size,
                                 type.base != nullptr ? type.base->name : "none", type.flags);
  for (uint32_t index = 0; index < type.attributeCount; ++index) {
    const RigAttribute & attribute = type.attributes[index];
    const std::string key =
        attribute.keyType != nullptr ? fmt::format(" by {} '{}'", attribute.keyType->name, attribute.keyName) : "";
    text += fmt::format("  {:3} {}: {}{} flags {:#010x}\n", attribute.id, attribute.name,
                        attribute.valueType != nullptr ? attribute.valueType->name : "nothing", key, attribute.flags);
  }
  return text;
}

namespace GenericIfImpl {

void throwUnhashableException(const RigType * type) {
  throw TypeException(fmt::format("unhashable type: '{}'", type->name));
}

void throwTypeException(const RigType * type, const RigType * wanted) {
  throw TypeException(fmt::format("type '{}' is not '{}' nor derived from it", type->name, wanted->name));
}

}  // namespace GenericIfImpl

void throwNewEntityArgsException(const RigType * type, const Name & name) {
  throw NewEntityArgsException(
      fmt::format("{}: newEntityForDir() of '{}' takes a name and no other argument", type->name, name));
}

}  // namespace Rig

#pragma once
// The runtime's registry of types: a library registers the records of its
// types (Rig/RigType.h) when it is loaded, and a generic tool finds them by
// name or lists them all.
//
// Contract:
// 1. typeNodeIs keeps the address of a record that lives as long as the
//    process: records are constant data of the library that registers them.
// 2. Registering a record again changes nothing; a second record of a name
//    already registered is refused (Basalt::InvalidInitializeException), so
//    that a name means one type.
// 3. typeNodes lists the records in the order they were registered.
// 4. Registration runs in static initialisers of any translation unit, in
//    any order: the registry is made on first use.

#include <string>
#include <string_view>
#include <vector>

#include "Rig/RigType.h"

namespace Rig {

void typeNodeIs(const RigType * type);
// The record registered under `name`; null if there is none.
const RigType * typeNode(std::string_view name);
const std::vector<const RigType *> & typeNodes();

// The type and its attributes, one line each, for tools:
//   <name> (<size> bytes, base <base or none>, flags <flags>)
//     <id> <attribute>: <value type or nothing>[ by <key type> '<key name>'] flags <flags>
std::string describe(const RigType & type);

namespace GenericIfImpl {

// Rig::TypeException "unhashable type: '<type>'".
[[noreturn]] void throwUnhashableException(const RigType * type);
// Rig::TypeException "type '<type>' is not '<wanted>' nor derived from it".
[[noreturn]] void throwTypeException(const RigType * type, const RigType * wanted);

}  // namespace GenericIfImpl

// Rig::NewEntityArgsException "<type>: newEntityForDir() of '<name>' takes a
// name and no other argument".
[[noreturn]] void throwNewEntityArgsException(const RigType * type, const Name & name);

}  // namespace Rig

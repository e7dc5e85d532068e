#include "Rig/GenericIf.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Rig/Exception.h"

namespace Rig {

// Rig::Entity stands as the base of every entity type; it is never an
// object's own type, so it has no entry point of its own.
constinit const RigType Entity::_rigType = {
    "Rig::Entity",
    nullptr,
    GenericIfImpl::entityAttributes.data(),
    GenericIfImpl::entityArguments,
    nullptr,
    &GenericIfImpl::GenericIfPtrInterfaceMethods<Entity>::vtable_,
    nullptr,
    nullptr,
    nullptr,
    sizeof(Entity),
    GenericIfImpl::entityAttributes.size(),
    TypeFlags::entity,
};

namespace GenericIfImpl {

namespace {
constexpr const char * sourceName = "Rig/GenericIf";
// A polymorphic object's non-polymorphic base lies behind its table pointer.
constexpr std::ptrdiff_t tablePointerSize = sizeof(void *);
}  // namespace

void * voidPtrIs(void * pointer, const RigType * from, const RigType * to) {
  if (from == to) {
    return pointer;
  }
  if (!from->isDerived(to)) {
    throwTypeException(from, to);
  }
  if (from->isPolymorphic() == to->isPolymorphic()) {
    return pointer;
  }
  // Only a polymorphic type can have a base without a table pointer; the
  // other way round is no layout of a compiled type.
  const RigType * type = from;
  const RigType * t = to;
  BASALT_ASSERT(type->isPolymorphic(), sourceName, "type->isPolymorphic()");
  BASALT_ASSERT(!t->isPolymorphic(), sourceName, "!t->isPolymorphic()");
  return static_cast<char *>(pointer) + tablePointerSize;
}

void throwNoTextForm(const RigType * type) {
  throw TypeException(fmt::format("type '{}' has no text form", type->name));
}

}  // namespace GenericIfImpl

}  // namespace Rig

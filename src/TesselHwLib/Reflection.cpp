#include "TesselHwLib/Reflection.h"

#include "Rig/Directory.h"
#include "RigArena/Util.h"

namespace TesselHwLib::Reflection {

namespace {

// A directory holds its children in its `entity` attribute.
constexpr const char * childrenAttributeName = "entity";

template <typename T>
uint32_t readInto(void * result, uint32_t operation, T value) {
  if (operation != 0) {
    return Rig::attributeNotAllowed;
  }
  *static_cast<T *>(result) = std::move(value);
  return Rig::attributeDone;
}

Rig::Ptr<Rig::Entity> child(const Rig::Entity & entity, const Rig::Name & name) {
  const auto * directory = dynamic_cast<const Rig::Directory *>(&entity);
  return directory != nullptr ? directory->entity(name) : Rig::Ptr<Rig::Entity>();
}

}  // namespace

uint32_t entityAttributeOp(Rig::Entity & entity, uint32_t attributeId, uint32_t operation, void * result,
                           const void * argument1) {
  switch (attributeId) {
    case Rig::EntityAttributeId::name:
      return readInto(result, operation, entity.name());
    case Rig::EntityAttributeId::fullName:
      return readInto(result, operation, Rig::String(RigArena::Util::fullName(&entity)));
    case Rig::EntityAttributeId::parent:
      return readInto(result, operation, Rig::Ptr<Rig::Entity>(entity.parent()));
    case Rig::EntityAttributeId::parentAttrName:
      return readInto(result, operation, Rig::String(entity.parent() != nullptr ? childrenAttributeName : ""));
    case Rig::EntityAttributeId::entity:
      if (operation != 8) {
        return Rig::attributeNotAllowed;
      }
      *static_cast<Rig::Ptr<Rig::Entity> *>(result) = child(entity, *static_cast<const Rig::Name *>(argument1));
      return Rig::attributeDone;
    default:
      return Rig::attributeUnknown;
  }
}

}  // namespace TesselHwLib::Reflection

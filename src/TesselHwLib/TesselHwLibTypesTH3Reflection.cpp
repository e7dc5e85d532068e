// The 19 type records of the table layer and the library's one static
// initialiser, which registers them with the runtime when the library is
// loaded.
//
// Every record is derived: a value type's from its field list
// (Rig/GenericIf.h), an entity type's from its generic design and its
// factory (TesselHwLib/Reflection.h). The list below only names the types,
// in the order of registration, and the factory of each entity type.
//
// The names lie, as plain strings, in the read-only section ".rig.type" of
// their own, so that a tool lists them from the file without loading it
// (readelf -p .rig.type). The records point at those strings, which keeps
// the section in every program that holds the records.

#include <ios>
#include <string_view>

#include "Rig/GenericIf.h"
#include "Rig/TypeRegistry.h"
#include "TesselHwLib/Reflection.h"
#include "TesselHwLib/TesselHwLibTypesTH3.h"

// VALUE(Type) for a record, ENTITY(Type, factory) for an entity type; in the
// order of registration (nothing depends on it).
#define TESSEL_TH3_TYPES(VALUE, ENTITY)                               \
  VALUE(L3IifTH3Key)                                                  \
  ENTITY(MyStationTcamTH3Status, myStationTcamTH3StatusFactory)       \
  ENTITY(P4RMyStationTcamTableTH3, p4RMyStationTcamTableTH3Factory)   \
  VALUE(L3TunnelTH3Key)                                               \
  VALUE(L3IifTH3StatusEntry)                                          \
  ENTITY(L3IifTH3Config, l3IifTH3ConfigFactory)                       \
  VALUE(L3TunnelTH3StatusEntry)                                       \
  VALUE(MyStationTcamTH3Key)                                          \
  VALUE(MyStationTcamTH3StatusEntry)                                  \
  ENTITY(L3IifTH3Status, l3IifTH3StatusFactory)                       \
  ENTITY(P4RL3IifTableTH3, p4RL3IifTableTH3Factory)                   \
  ENTITY(L3TunnelTH3Config, l3TunnelTH3ConfigFactory)                 \
  VALUE(L3TunnelTH3KeyStatus)                                         \
  ENTITY(L3TunnelTH3Status, l3TunnelTH3StatusFactory)                 \
  VALUE(L3IifTH3ConfigEntry)                                          \
  ENTITY(MyStationTcamTH3Config, myStationTcamTH3ConfigFactory)       \
  VALUE(L3TunnelTH3ConfigEntry)                                       \
  ENTITY(P4RL3TunnelTableTH3, p4RL3TunnelTableTH3Factory)             \
  VALUE(MyStationTcamTH3ConfigEntry)

namespace TesselHwLib {

namespace {

namespace TypeNames {
#define TESSEL_TYPE_NAME_STRING(Type, ...) \
  [[gnu::section(".rig.type"), gnu::used]] constexpr char Type[] = "TesselHwLib::" #Type;
TESSEL_TH3_TYPES(TESSEL_TYPE_NAME_STRING, TESSEL_TYPE_NAME_STRING)
#undef TESSEL_TYPE_NAME_STRING
}  // namespace TypeNames

// A record's text form names its type too: the two names must agree.
#define TESSEL_CHECK_RECORD_NAME(Type) \
  static_assert(Rig::Record::Layout<Type>::typeName == std::string_view(TypeNames::Type));
#define TESSEL_NO_CHECK(Type, factory)
TESSEL_TH3_TYPES(TESSEL_CHECK_RECORD_NAME, TESSEL_NO_CHECK)
#undef TESSEL_CHECK_RECORD_NAME
#undef TESSEL_NO_CHECK

}  // namespace

#define TESSEL_VALUE_RECORD(Type) \
  constinit const Rig::RigType Type::_rigType = Rig::GenericIfImpl::valueTypeRecord<Type>(TypeNames::Type);
#define TESSEL_ENTITY_RECORD(Type, factory) \
  constinit const Rig::RigType Type::_rigType = Reflection::entityTypeRecord<Type, &factory>(TypeNames::Type);
TESSEL_TH3_TYPES(TESSEL_VALUE_RECORD, TESSEL_ENTITY_RECORD)
#undef TESSEL_VALUE_RECORD
#undef TESSEL_ENTITY_RECORD

}  // namespace TesselHwLib

extern "C" void tesselHwLibTypesTH3Register() {
  using namespace TesselHwLib;
#define TESSEL_REGISTER(Type, ...) Rig::typeNodeIs(&Type::_rigType);
  TESSEL_TH3_TYPES(TESSEL_REGISTER, TESSEL_REGISTER)
#undef TESSEL_REGISTER
}

namespace {

// The library's single static initialiser.
struct Registration {
  Registration() { tesselHwLibTypesTH3Register(); }
  std::ios_base::Init streams;  // the standard streams, before any type is used
};

const Registration registration;

}  // namespace

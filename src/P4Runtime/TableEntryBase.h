#pragma once
// The bases of every table entry: what a P4Runtime front end stores with each
// Config entry (the intent) and each Status entry (the hardware's answer).
// They lie byte for byte at the start of every entry in the slot files.
//
//   TableConfigEntryBase           TableStatusEntryBase
//   0  genId        64 bits  (2)   0  genId        64 bits  (2)
//   8  entryHandle  64 bits  (3)   8  entryHandle  64 bits  (3)
//   16 valid        bool     (4)   16 errorCode    32 bits  (4)
//   20 entryId      32 bits  (5)   20 deleted      bool     (5)
// (attribute ids in parentheses)

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "P4Runtime/ErrorCode.h"
#include "Rig/Record.h"

#define P4RUNTIME_CONFIG_BASE_FIELDS(FIELD) \
  FIELD(uint64_t, genId, 2, 0)              \
  FIELD(uint64_t, entryHandle, 3, 8)        \
  FIELD(bool, valid, 4, 16)                 \
  FIELD(uint32_t, entryId, 5, 20)

#define P4RUNTIME_STATUS_BASE_FIELDS(FIELD) \
  FIELD(uint64_t, genId, 2, 0)              \
  FIELD(uint64_t, entryHandle, 3, 8)        \
  FIELD(::P4Runtime::ErrorCode, errorCode, 4, 16) \
  FIELD(bool, deleted, 5, 20)

namespace P4Runtime {

class TableConfigEntryBase {
 public:
  P4RUNTIME_CONFIG_BASE_FIELDS(RIG_FIELD_ACCESSORS)

 private:
  friend struct ::Rig::Record::Layout<TableConfigEntryBase>;
  P4RUNTIME_CONFIG_BASE_FIELDS(RIG_FIELD_MEMBER)
};

class TableStatusEntryBase {
 public:
  P4RUNTIME_STATUS_BASE_FIELDS(RIG_FIELD_ACCESSORS)

 private:
  friend struct ::Rig::Record::Layout<TableStatusEntryBase>;
  P4RUNTIME_STATUS_BASE_FIELDS(RIG_FIELD_MEMBER)
};

static_assert(sizeof(TableConfigEntryBase) == 24, "entry fields start at byte 24 of a slot value");
static_assert(sizeof(TableStatusEntryBase) == 24, "entry fields start at byte 24 of a slot value");
static_assert(std::is_trivially_copyable_v<TableConfigEntryBase> &&
                  std::is_trivially_copyable_v<TableStatusEntryBase>,
              "entries are copied byte for byte into shared files");

}  // namespace P4Runtime

template <>
struct Rig::Record::Layout<P4Runtime::TableConfigEntryBase> {
  using Self = P4Runtime::TableConfigEntryBase;
  static constexpr std::tuple fields{P4RUNTIME_CONFIG_BASE_FIELDS(RIG_FIELD_DESCRIPTOR)};
  P4RUNTIME_CONFIG_BASE_FIELDS(RIG_FIELD_OFFSET_CHECK)
};

template <>
struct Rig::Record::Layout<P4Runtime::TableStatusEntryBase> {
  using Self = P4Runtime::TableStatusEntryBase;
  static constexpr std::tuple fields{P4RUNTIME_STATUS_BASE_FIELDS(RIG_FIELD_DESCRIPTOR)};
  P4RUNTIME_STATUS_BASE_FIELDS(RIG_FIELD_OFFSET_CHECK)
};

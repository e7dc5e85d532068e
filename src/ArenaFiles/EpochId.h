#pragma once
// ArenaFiles::EpochId: the generation of a table, 32 bits in two halves. A
// new table takes the writer's process id in the low half and a per-process
// counter in the high half; re-formatting raises the high half in place. 0 as
// a whole means "none". Every file of a table carries the id it was
// formatted under, so that a reader tells one generation from the next.

#include <cstdint>
#include <string>

namespace ArenaFiles {

struct EpochId {
  uint32_t value = 0;

  constexpr EpochId() = default;
  constexpr explicit EpochId(uint32_t raw) : value(raw) {}
  static constexpr EpochId of(uint16_t high, uint16_t low) {
    return EpochId((static_cast<uint32_t>(high) << 16) | low);
  }

  constexpr uint16_t high() const { return static_cast<uint16_t>(value >> 16); }
  constexpr uint16_t low() const { return static_cast<uint16_t>(value); }
  constexpr bool none() const { return value == 0; }
  // The next generation of the same table: the high half raised by 1.
  constexpr EpochId reformatted() const { return of(static_cast<uint16_t>(high() + 1), low()); }

  constexpr bool operator==(const EpochId &) const = default;
  // "0x<8 hex digits>", the form in which messages print an id.
  std::string toString() const;
};

static_assert(sizeof(EpochId) == 4, "EpochId is stored as 32 bits in file headers");

}  // namespace ArenaFiles

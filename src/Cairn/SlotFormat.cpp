#include "Cairn/SlotFormat.h"

#include <cstring>

#include <fmt/format.h>

#include "Basalt/HashMix.h"
#include "Cairn/Compatibility.h"

namespace Cairn {

uint32_t SlotTableHeader::doHash() const {
  Basalt::Impl::HashMix<unsigned int> mix;
  mix.mixBytes(valueType, sizeof(valueType));
  mix.mixBytes(classType, sizeof(classType));
  mix.mixFixedLen<4>(valueSize);
  mix.mixFixedLen<4>(slotSize);
  mix.mixFixedLen<4>(maxSlots);
  mix.mixFixedLen<2>(constFlags);
  mix.mixFixedLen<4>(hashSeed);
  return mix.result();
}

bool SlotTableHeader::validate(Basalt::Platform::DebugHandler & handler, unsigned long fileSize,
                               ArenaFiles::EpochId wanted, std::string & errorOut) const {
  const Arena::VerU32 slots = numSlots.load();
  const unsigned long needed = headerSize() + static_cast<unsigned long>(slots.value) * slotSize;
  const uint32_t computed = doHash();
  if (magic != SlotMagic) {
    errorOut = fmt::format("SlotTable::Header::validate() bad magic: {:x}", magic);
  } else if (version != SlotVersion) {
    errorOut = fmt::format("SlotTable::Header::validate() bad version: {}", version);
  } else if (!wanted.none() && !(wanted == epochId)) {
    errorOut = fmt::format("SlotTable::validate() bad epoch:{} wanted:{}", epochId.toString(),
                           wanted.toString());
  } else if (platform != Compatibility::platform) {
    errorOut = fmt::format("SlotTable::Header::validate() bad platform specification: {} expecting: {}",
                           Compatibility::platformType(platform),
                           Compatibility::platformType(Compatibility::platform));
  } else if (computed != hash) {
    errorOut = fmt::format("SlotTable::Header::validate() checksum fail: {:x} != {:x}", computed, hash);
  } else if (occupiedSlots > slots.value) {
    errorOut = fmt::format("SlotTable::Header::validate() bad occupiedSlots: {} num slots: {}",
                           occupiedSlots, slots.toString());
  } else if (freeSlots != NoFreeSlot && freeSlots >= slots.value) {
    errorOut = fmt::format("SlotTable::Header::validate() bad freeSlots: {} slots: {}", freeSlots,
                           slots.value);
  } else if (mostSlots < slots.value) {
    errorOut = fmt::format("SlotTable::Header::validate() bad mostSlots:{} numSlots:{}", mostSlots,
                           slots.value);
  } else if (fileSize < headerSize()) {
    errorOut = fmt::format("SlotTable::Header::validate() bad header file size: {} wanted:{}",
                           fileSize, headerSize());
  } else if (fileSize < needed) {
    errorOut = fmt::format("SlotTable::Header::validate() bad shmem size:{} wanted:{} for {} slots",
                           fileSize, needed, slots.value);
  } else {
    return true;
  }
  BASALT_TRACE(handler, 0, "{}", errorOut);
  return false;
}

std::string SlotTableHeader::name(const char (&field)[TypeNameSize]) {
  return std::string(field, strnlen(field, TypeNameSize));
}

std::string SlotTableHeader::toString() const {
  return fmt::format(
      "SlotTable::Header() magic:0x{:x} version:{} epoch:{} platform:{} valueType:\"{}\" "
      "classType:\"{}\" valueSize:{} slotSize:{} maxSlots:{} constFlags:0x{:x} "
      "runtimeFlags:0x{:x} hash:0x{:x} occupiedSlots:{} freeSlots:{} mostSlots:{} hashSeed:{} "
      "numSlots:{}",
      magic, version, epochId.toString(), platform, name(valueType), name(classType), valueSize,
      slotSize, maxSlots, constFlags, runtimeFlags, hash, occupiedSlots, freeSlots, mostSlots,
      hashSeed, numSlots.load().toString());
}

uint32_t minSlotsFor(std::size_t pageSize, std::size_t slotSize) {
  const std::size_t header = slotHeaderSize(slotSize);
  if (pageSize <= header) {
    return 1;
  }
  const std::size_t quotient = (pageSize - header) / slotSize;
  if (quotient == 0) {
    return 1;
  }
  std::size_t power = 1;
  while (power * 2 <= quotient) {
    power *= 2;
  }
  return static_cast<uint32_t>(power);
}

}  // namespace Cairn

#include "Ripple/RippleFormat.h"

#include <fmt/format.h>

#include "Basalt/HashMix.h"

namespace Ripple {

using Arena::Atomics::observe32;
using Arena::Atomics::observe64;

bool TableHeader::validate(std::size_t fileSize, ArenaFiles::EpochId wanted, std::string & errorOut) const {
  const ArenaFiles::EpochId epoch(observe32(epochId.value));
  const uint32_t entries = observe32(capacity);
  const uint32_t written = observe32(size);
  if (!(epoch == wanted)) {
    errorOut = fmt::format("RippleTable::Header::validate() bad epoch:{} wanted:{}", epoch.toString(),
                           wanted.toString());
  } else if (entries == 0 || entries > MaxCapacity) {
    errorOut = fmt::format("RippleTable::Header::validate() bad capacity:{} max:{}", entries, MaxCapacity);
  } else if (written > entries) {
    errorOut = fmt::format("RippleTable::Header::validate() bad size:{} capacity:{}", written, entries);
  } else if (fileSize < tableFileSize(entries)) {
    errorOut = fmt::format("RippleTable::Header::validate() bad shmem size:{} wanted:{} for capacity:{}",
                           fileSize, tableFileSize(entries), entries);
  } else {
    return true;
  }
  return false;
}

std::string TableHeader::toString() const {
  return fmt::format("epoch:{} capacity:{} size:{}", ArenaFiles::EpochId(observe32(epochId.value)).toString(),
                     observe32(capacity), observe32(size));
}

uint32_t ControlBlock::doHash() const {
  Basalt::Impl::HashMix<unsigned int> mix;
  mix.mixFixedLen<8>(observe64(magic));
  mix.mixFixedLen<4>(observe32(version));
  mix.mixFixedLen<4>(observe32(epochId.value));
  mix.mixFixedLen<4>(observe32(entrySize));
  return mix.result();
}

bool ControlBlock::validate(std::size_t fileSize, ArenaFiles::EpochId wanted, std::string & errorOut) const {
  if (fileSize < ControlBlockSize) {
    errorOut = fmt::format("RippleTable::Control::validate() bad file size:{} wanted:{}", fileSize,
                           ControlBlockSize);
    return false;
  }
  const ArenaFiles::EpochId epoch(observe32(epochId.value));
  const uint32_t stored = observe32(hash);
  const uint64_t start = observe64(corralStart);
  const uint64_t end = observe64(corralEnd);
  if (observe64(magic) != ControlMagic) {
    errorOut = fmt::format("RippleTable::Control::validate() bad magic: {:x}", observe64(magic));
  } else if (observe32(version) != ControlVersion) {
    errorOut = fmt::format("RippleTable::Control::validate() bad version: {}", observe32(version));
  } else if (!wanted.none() && !(wanted == epoch)) {
    errorOut = fmt::format("RippleTable::Control::validate() bad epoch:{} wanted:{}", epoch.toString(),
                           wanted.toString());
  } else if (observe32(entrySize) != NotificationSize) {
    errorOut = fmt::format("RippleTable::Control::validate() bad entrySize: {}", observe32(entrySize));
  } else if (doHash() != stored) {
    errorOut = fmt::format("RippleTable::Control::validate() checksum fail: {:x} != {:x}", doHash(), stored);
  } else if ((start == 0 && end != 0) || (end != 0 && end < start)) {
    errorOut =
        fmt::format("RippleTable::Control::validate() bad corral corralStart:{} corralEnd:{}", start, end);
  } else {
    return true;
  }
  return false;
}

std::string ControlBlock::toString() const {
  return fmt::format(
      "magic:0x{:x} version:{} epoch:{} entrySize:{} hash:0x{:x} swapCount:{} corralStart:{} "
      "corralEnd:{}",
      observe64(magic), observe32(version), ArenaFiles::EpochId(observe32(epochId.value)).toString(),
      observe32(entrySize), observe32(hash), observe32(swapCount), observe64(corralStart),
      observe64(corralEnd));
}

}  // namespace Ripple

// The fuzz target of one record type's strict text parser: built once per
// record type, named by TESSEL_FUZZ_RECORD (see fuzz/CMakeLists.txt).

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "SeedCorpus.h"
#include "TesselHwLib/L3IifTH3.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TesselHwLib/MyStationTcamTH3.h"
#include "TextRoundTrip.h"

#ifndef TESSEL_FUZZ_RECORD
#error "TESSEL_FUZZ_RECORD names the record type this target fuzzes"
#endif

using FuzzedRecord = TesselHwLib::TESSEL_FUZZ_RECORD;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  TesselFuzz::writeSeedsIfAsked(TesselFuzz::seedTexts<FuzzedRecord>());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, std::size_t size) {
  TesselFuzz::fuzzTextRoundTrip<FuzzedRecord>(
      std::string_view(reinterpret_cast<const char *>(data), size));
  return 0;
}

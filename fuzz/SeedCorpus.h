#pragma once
// Seed texts of a record type, made from the record itself so that they
// follow its field list as it changes: the default value, every field at its
// maximum, and random values over the whole range of every field (addresses
// of every form, texts that need every escape). A fuzz target writes them into
// the directory named by TESSEL_FUZZ_SEEDS when started with that variable
// set, and ends there; ./run fuzz starts each target so once before fuzzing.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

#include "TesselHwLib/Record.h"
#include "TesselHwLib/RecordTesting.h"

namespace TesselFuzz {

constexpr unsigned randomSeedCount = 16;

// Every field of `value` set by `fieldValue.template operator()<FieldType>()`,
// and every field that is itself a record filled the same way.
template <typename Record, typename FieldValue>
void fillFields(Record & value, FieldValue && fieldValue) {
  Rig::Record::forEachField<Record>([&](const auto & field) {
    auto & member = value.*field.member;
    using FieldType = std::remove_cvref_t<decltype(member)>;
    if constexpr (Rig::Record::Described<FieldType>) {
      fillFields(member, fieldValue);
    } else {
      member = fieldValue.template operator()<FieldType>();
    }
  });
}

template <typename Record>
std::vector<Rig::String> seedTexts() {
  std::vector<Rig::String> texts{TesselHwLib::valueToStrep(Record())};
  Record maximal;
  fillFields(maximal, []<typename T>() { return TesselTesting::maximumField<T>(); });
  texts.push_back(TesselHwLib::valueToStrep(maximal));
  std::mt19937 random(1);
  for (unsigned i = 0; i < randomSeedCount; ++i) {
    Record value;
    fillFields(value, [&]<typename T>() { return TesselTesting::randomField<T>(random); });
    texts.push_back(TesselHwLib::valueToStrep(value));
  }
  return texts;
}

inline void writeSeeds(const std::filesystem::path & directory,
                       const std::vector<Rig::String> & texts) {
  std::filesystem::create_directories(directory);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    std::ofstream(directory / fmt::format("seed-{:02}", i), std::ios::binary) << texts[i];
  }
}

// Writes `texts` and ends the program when TESSEL_FUZZ_SEEDS names a directory.
inline void writeSeedsIfAsked(const std::vector<Rig::String> & texts) {
  if (const char * directory = std::getenv("TESSEL_FUZZ_SEEDS")) {
    writeSeeds(directory, texts);
    std::exit(0);
  }
}

}  // namespace TesselFuzz

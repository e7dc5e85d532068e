#pragma once
// The property every record's strict text parser keeps, checked on one
// arbitrary text:
//   1. the parser either raises one of its documented exceptions
//      (Rig::ParseException for a text of the wrong shape, Rig::RangeException
//      for a number too big for its field) or returns a value;
//   2. a value it returns prints back to exactly the text it came from, so
//      that each value has one text and each accepted text one value;
//   3. that text parses again to an equal value.
// Any other exception leaves the fuzz target, and libFuzzer reports it as a
// crash, as it does a sanitizer's finding.

#include <optional>
#include <string_view>

#include "FuzzCheck.h"
#include "Rig/ValueText.h"
#include "TesselHwLib/Record.h"

namespace TesselFuzz {

// The value of `text`, or nothing when the parser refuses the text.
template <typename Record>
std::optional<Record> parsedOrRefused(const Rig::String & text) {
  try {
    return Rig::strepToValue<Record>(text);
  } catch (const Rig::ParseException &) {
  } catch (const Rig::RangeException &) {
  }
  return std::nullopt;
}

template <typename Record>
void fuzzTextRoundTrip(std::string_view input) {
  Rig::String text(input);
  std::optional<Record> value = parsedOrRefused<Record>(text);
  if (!value) {
    return;
  }
  Rig::String printed = TesselHwLib::valueToStrep(*value);
  if (printed != text) {
    propertyBroken("an accepted text prints back otherwise", text, printed);
  }
  if (!(Rig::strepToValue<Record>(printed) == *value)) {
    propertyBroken("a printed value parses to another value", text, printed);
  }
}

}  // namespace TesselFuzz

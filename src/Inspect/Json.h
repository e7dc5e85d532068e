#pragma once
// Inspect::toJson: a record as a JSON object, derived from its field list as
// its text form is: bools and unsigned numbers as JSON values, nested records
// as objects, every other field (addresses, strings) as its own text.

#include <string>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "Rig/Record.h"

namespace Inspect {

template <typename T>
nlohmann::json toJson(const T & value) {
  if constexpr (std::is_same_v<T, bool> || (std::is_integral_v<T> && std::is_unsigned_v<T>)) {
    return value;
  } else if constexpr (Rig::Record::Described<T> && !Rig::Record::isBare<T>()) {
    nlohmann::json object = nlohmann::json::object();
    Rig::Record::forEachField<T>(
        [&](const auto & field) { object[std::string(field.name)] = toJson(value.*field.member); });
    return object;
  } else if constexpr (Rig::Record::Described<T>) {
    nlohmann::json bare;
    Rig::Record::forEachField<T>([&](const auto & field) { bare = toJson(value.*field.member); });
    return bare;
  } else {
    return std::string(Rig::Record::fieldText(value));
  }
}

}  // namespace Inspect

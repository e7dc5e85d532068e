#pragma once
// Inspect::toJson / fromJson: a record as a JSON object, derived from its
// field list as its text form is: bools and unsigned numbers as JSON values,
// nested records as objects, every other field (addresses, strings) as its
// own text. fromJson is the inverse, and as strict as the text parser: every
// field present, no other, each value of its field's kind and range; a
// failure raises naming the field.

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Rig/Exception.h"
#include "Rig/Record.h"
#include "Rig/ValueText.h"

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

template <typename T>
T fromJson(const nlohmann::json & json, std::string_view name = "value") {
  if constexpr (std::is_same_v<T, bool>) {
    if (!json.is_boolean()) {
      throw Rig::ParseException(fmt::format("expected True or False in attribute '{}', found {}", name, json.dump()));
    }
    return json.get<bool>();
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    if (!json.is_number_unsigned() || json.get<uint64_t>() > std::numeric_limits<T>::max()) {
      throw Rig::ParseException(
          fmt::format("expected a number up to {} in attribute '{}', found {}", std::numeric_limits<T>::max(), name,
                      json.dump()));
    }
    return static_cast<T>(json.get<uint64_t>());
  } else if constexpr (Rig::Record::Described<T> && !Rig::Record::isBare<T>()) {
    if (!json.is_object()) {
      throw Rig::ParseException(fmt::format("expected an object in attribute '{}', found {}", name, json.dump()));
    }
    T value{};
    size_t fields = 0;
    Rig::Record::forEachField<T>([&](const auto & field) {
      using FieldType = std::remove_cvref_t<decltype(value.*field.member)>;
      const auto found = json.find(std::string(field.name));
      if (found == json.end()) {
        throw Rig::ParseException(fmt::format("missing attribute '{}' in {}", field.name, name));
      }
      value.*field.member = fromJson<FieldType>(*found, field.name);
      ++fields;
    });
    if (json.size() != fields) {
      throw Rig::ParseException(fmt::format("{} has attributes that {} has not", json.dump(), name));
    }
    return value;
  } else if constexpr (Rig::Record::Described<T>) {
    T value{};
    Rig::Record::forEachField<T>([&](const auto & field) {
      using FieldType = std::remove_cvref_t<decltype(value.*field.member)>;
      value.*field.member = fromJson<FieldType>(json, field.name);
    });
    return value;
  } else {
    if (!json.is_string()) {
      throw Rig::ParseException(fmt::format("expected a text in attribute '{}', found {}", name, json.dump()));
    }
    const Rig::String text(json.get<std::string>());
    Rig::Cursor cursor = text.begin();
    T value = Rig::deserializeAttr<T>(cursor, text.end(), name);
    Rig::strepToValueEnd(text, cursor);
    return value;
  }
}

}  // namespace Inspect

#pragma once

#include <string>
#include <string_view>

namespace Rig {

// The runtime's text type. Parsers walk it with an IteratorConst cursor that
// they advance past what they consumed.
class String : public std::string {
 public:
  using IteratorConst = std::string::const_iterator;
  using std::string::string;
  String() = default;
  String(std::string text) : std::string(std::move(text)) {}  // NOLINT: texts convert freely
  String(std::string_view text) : std::string(text) {}        // NOLINT
};

// The name of an object in the runtime's tree (a table's name, say).
class Name : public String {
 public:
  using String::String;
  Name() = default;
  Name(String text) : String(std::move(text)) {}  // NOLINT
};

}  // namespace Rig

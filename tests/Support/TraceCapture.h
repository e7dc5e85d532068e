#pragma once

#include <string>
#include <vector>

namespace TestSupport {

// Captures every trace line of the process while it lives, as "L<level> <text>".
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  const std::vector<std::string> & lines() const { return lines_; }
  bool contains(const std::string & fragment) const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace TestSupport

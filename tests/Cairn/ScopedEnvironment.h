#pragma once
// Sets (or unsets) an environment variable for the life of the object and
// puts back what was there before.

#include <cstdlib>
#include <optional>
#include <string>

namespace CairnTesting {

class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
    if (const char * old = std::getenv(name_.c_str())) {
      saved_ = old;
    }
    apply(value);
  }
  ~ScopedEnvironment() { apply(saved_); }
  ScopedEnvironment(const ScopedEnvironment &) = delete;
  ScopedEnvironment & operator=(const ScopedEnvironment &) = delete;

 private:
  void apply(const std::optional<std::string> & value) {
    if (value) {
      setenv(name_.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }

  std::string name_;
  std::optional<std::string> saved_;
};

}  // namespace CairnTesting

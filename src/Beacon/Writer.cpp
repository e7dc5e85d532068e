#include "Beacon/Writer.h"

namespace Beacon {

uint64_t * Writer::counter(const std::string & name) {
  const std::lock_guard lock(mutex_);
  auto [position, inserted] = byName_.try_emplace(name, nullptr);
  if (inserted) {
    position->second = &storage_.emplace_back(0);
  }
  return position->second;
}

uint64_t Writer::value(const std::string & name) const {
  const std::lock_guard lock(mutex_);
  const auto found = byName_.find(name);
  return found == byName_.end() ? 0 : *found->second;
}

std::vector<std::pair<std::string, uint64_t>> Writer::counters() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, uint64_t>> result;
  result.reserve(byName_.size());
  for (const auto & [name, counter] : byName_) {
    result.emplace_back(name, *counter);
  }
  return result;
}

Writer & writer() {
  static Writer theWriter;
  return theWriter;
}

}  // namespace Beacon

#pragma once
// Beacon::writer(): the process's liveness counters, a registry of named
// 64-bit counters. A component asks once for the counter of a name and
// keeps the pointer; it raises the counter with a plain increment on its
// own thread. A monitoring tool reads them by name.
//
// Invariants:
// 1. One counter per name in the process: every caller that asks for a name
//    gets the same address.
// 2. A counter's address never changes and stays valid for the life of the
//    process (counters are never freed).
// 3. Registration is thread-safe; the counters themselves are not locked:
//    a reader on another thread sees some recent value.

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Beacon {

class Writer {
 public:
  // The counter of `name`, made at zero on first use.
  uint64_t * counter(const std::string & name);
  // The value of `name`'s counter; 0 for a name never asked for.
  uint64_t value(const std::string & name) const;
  // Every name and its value, in name order.
  std::vector<std::pair<std::string, uint64_t>> counters() const;

 private:
  mutable std::mutex mutex_;
  std::deque<uint64_t> storage_;  // a deque never moves what it holds
  std::map<std::string, uint64_t *> byName_;
};

// The process's one writer.
Writer & writer();

}  // namespace Beacon

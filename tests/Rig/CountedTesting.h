#pragma once
// Counted objects for tests of the object runtime: an object with a list of
// observers that counts its own deaths, and an observer that logs every call
// it gets and may act from inside it.

#include <fmt/format.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Rig/NotifieeList.h"
#include "Rig/Ptr.h"

namespace RigTesting {

// A counted object with its own observers; `deaths`, when given, counts its
// destructions.
class Observed : public Rig::PtrInterface {
 public:
  explicit Observed(int * deaths = nullptr) : deaths_(deaths) {}
  ~Observed() override {
    if (deaths_ != nullptr) {
      ++*deaths_;
    }
  }

  Rig::NotifieeListPtr notifieeList() const override { return {1, &list_}; }
  Rig::NotifieeList & list() const { return list_; }

 private:
  int * deaths_;
  mutable Rig::NotifieeList list_;
};

// An observer that writes "<label> <attribute>" or "<label> zero" to `log`
// for each call, then runs the action the test gave for that kind of call.
class Recorder : public Rig::PtrInterface::NotifieeConst {
 public:
  using Action = std::function<void(Recorder &)>;

  Recorder(std::string label, std::vector<std::string> * log, int * deaths = nullptr)
      : label_(std::move(label)), log_(log), deaths_(deaths) {}
  ~Recorder() override {
    if (deaths_ != nullptr) {
      ++*deaths_;
    }
  }

  void onAttribute(uint32_t attributeId, const void * key) override {
    log_->push_back(fmt::format("{} {}", label_, attributeId));
    lastKey_ = key;
    if (attributeAction) {
      attributeAction(*this);
    }
  }
  void onZeroReferences() override {
    log_->push_back(fmt::format("{} zero", label_));
    if (zeroAction) {
      zeroAction(*this);
    }
  }

  const void * lastKey() const { return lastKey_; }

  Action attributeAction;
  Action zeroAction;

 private:
  std::string label_;
  std::vector<std::string> * log_;
  int * deaths_;
  const void * lastKey_ = nullptr;
};

// Sets the process's thread-safe-counts switch for the life of the guard.
class ThreadSafePointers {
 public:
  explicit ThreadSafePointers(bool on) : before_(Rig::VFPtrInterface::threadSafePointers_) {
    Rig::VFPtrInterface::threadSafePointers_ = on;
  }
  ~ThreadSafePointers() { Rig::VFPtrInterface::threadSafePointers_ = before_; }
  ThreadSafePointers(const ThreadSafePointers &) = delete;
  ThreadSafePointers & operator=(const ThreadSafePointers &) = delete;

 private:
  bool before_;
};

}  // namespace RigTesting

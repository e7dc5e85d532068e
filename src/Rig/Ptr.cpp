#include "Rig/Ptr.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "Rig/NotifieeList.h"

namespace Rig {

namespace {

// Records by type name; a record, once made, lives as long as the process.
struct TrackRegistry {
  std::mutex mutex;
  std::unordered_map<std::string, std::unique_ptr<AllocTrackTypeInfo>> records;
};

TrackRegistry & trackRegistry() {
  static TrackRegistry registry;
  return registry;
}

}  // namespace

AllocTrackTypeInfo & AllocTrackTypeInfo::trackAllocation(const std::type_info & type, size_t size) {
  TrackRegistry & registry = trackRegistry();
  const std::lock_guard lock(registry.mutex);
  auto & record = registry.records[type.name()];
  if (!record) {
    record = std::make_unique<AllocTrackTypeInfo>();
  }
  ++record->liveObjects_;
  ++record->allocations_;
  record->liveBytes_ += size;
  return *record;
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo & record, size_t size) {
  const std::lock_guard lock(trackRegistry().mutex);
  --record.liveObjects_;
  record.liveBytes_ -= size;
}

const AllocTrackTypeInfo * AllocTrackTypeInfo::record(const std::type_info & type) {
  TrackRegistry & registry = trackRegistry();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.records.find(type.name());
  return found == registry.records.end() ? nullptr : found->second.get();
}

void PtrInterface::newRef() const {
  if (VFPtrInterface::threadSafePointers_) {
    std::atomic_ref(count_).fetch_add(1, std::memory_order_relaxed);
  } else {
    ++count_;
  }
}

bool PtrInterface::delRef() const {
  uint32_t after;
  if (VFPtrInterface::threadSafePointers_) {
    // acq_rel: the thread that destroys the object sees every write of the
    // threads that let it go before.
    after = std::atomic_ref(count_).fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    after = --count_;
  }
  return (after & CountMask) == 0;
}

void PtrInterface::handleZeroRef() const {
  if (inZeroRefHandling_) {
    // A notifiee's temporary reference came and went (contract 2).
    return;
  }
  if (notificationActive_) {
    const NotifieeListPtr list = notifieeList();
    if (list.list != nullptr) {
      inZeroRefHandling_ = true;
      try {
        list.list->visitZeroReferences();
      } catch (...) {
        inZeroRefHandling_ = false;
        throw;
      }
      inZeroRefHandling_ = false;
    }
  }
  if (references() == 0) {
    destroy();
  }
}

NotifieeListPtr PtrInterface::notifieeList() const { return {}; }

void PtrInterface::zeroReferencesIs(NotifieeConst * notifiee, bool on) {
  const NotifieeListPtr list = notifieeList();
  if (list.list == nullptr) {
    return;
  }
  if (on) {
    list.list->newMember(this, notifiee);
  } else {
    list.list->deleteMember(notifiee);
  }
}

void * PtrInterface::rigMemAlloc(size_t size) { return ::operator new(size); }

void PtrInterface::rigMemFree(void * memory, size_t size) { ::operator delete(memory, size); }

void PtrInterface::destroy() const {
  AllocTrackTypeInfo * track = track_;
  const size_t size = size_;
  if (track == nullptr) {
    delete this;
    return;
  }
  // Made by a factory: destroyed in place, then its memory and its count
  // given back (contract 5).
  void * memory = dynamic_cast<void *>(const_cast<PtrInterface *>(this));
  this->~PtrInterface();
  rigMemFree(memory, size);
  AllocTrackTypeInfo::trackDeallocation(*track, size);
}

}  // namespace Rig

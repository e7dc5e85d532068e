#pragma once
// The object runtime's reference counting: Rig::PtrInterface, the base of
// every counted object, and Rig::Ptr<T>, the one way such an object is held.
//
// Contract:
// 1. An object's count is the number of Ptr that hold it. A Ptr counts up
//    when it takes an object and down when it lets go; the Ptr that brings
//    the count to zero calls handleZeroRef on the object.
// 2. handleZeroRef first gives each notifiee on the object's notifiee list
//    its onZeroReferences, while notification is active for the object. A
//    notifiee may take a new reference there (the object then lives on) and
//    may let a temporary one go: a count that reaches zero again during
//    those calls does not start a second round and does not destroy. When
//    the calls are done and the count is still zero, the object is destroyed.
// 3. Counts are plain increments unless VFPtrInterface::threadSafePointers_
//    is set for the process, then atomic read-modify-writes. Objects are
//    normally used by the one thread of their owner; the flag exists for a
//    process that shares pointers between threads. These counts are private
//    memory and never in a shared file.
// 4. The bits 29 and 31 of the count word are flags of the runtime: a count
//    is the word masked with 0x5fffffff.
// 5. An object made by a factory (Rig/Factory.h) was allocated with
//    rigMemAlloc and counted in its type's AllocTrackTypeInfo; its
//    destruction gives both back, so that the live count of each type falls
//    to zero when all its objects are gone.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <typeinfo>
#include <utility>

namespace Rig {

class PtrInterface;

// Process-wide switches of the reference counting.
struct VFPtrInterface {
  static inline bool threadSafePointers_ = false;
};

// Live objects and bytes of one type, for leak hunting. Records are made on
// first use and never freed, so their addresses are stable.
class AllocTrackTypeInfo {
 public:
  static AllocTrackTypeInfo & trackAllocation(const std::type_info & type, size_t size);
  static void trackDeallocation(AllocTrackTypeInfo & record, size_t size);
  // The record of `type`'s name as std::type_info::name() gives it; null if
  // none of that type was ever tracked.
  static const AllocTrackTypeInfo * record(const std::type_info & type);

  uint64_t liveObjects() const { return liveObjects_; }
  uint64_t liveBytes() const { return liveBytes_; }
  uint64_t allocations() const { return allocations_; }

 private:
  uint64_t liveObjects_ = 0;
  uint64_t liveBytes_ = 0;
  uint64_t allocations_ = 0;
};

// Something that wants to hear of an object: its changed attributes, and
// its last reference gone. Notifiees are counted objects themselves.
class NotifieeList;
struct NotifieeListPtr;

class PtrInterface {
 public:
  static constexpr uint32_t CountMask = 0x5fffffff;

  class NotifieeConst;

  PtrInterface() = default;
  // A copy is a new object: it starts with no references and no notifiees.
  PtrInterface(const PtrInterface &) : PtrInterface() {}
  PtrInterface & operator=(const PtrInterface &) { return *this; }
  virtual ~PtrInterface() = default;

  uint32_t references() const { return count_ & CountMask; }
  void newRef() const;
  // Counts down; true when that was the last reference.
  bool delRef() const;
  // Contract 2.
  void handleZeroRef() const;

  // The list of the object's observers; an object without one has an empty
  // descriptor.
  virtual NotifieeListPtr notifieeList() const;
  virtual void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
  bool hasNotificationActive() const { return notificationActive_; }
  // Adds (or, with false, removes) a notifiee to hear of the last reference.
  virtual void zeroReferencesIs(NotifieeConst * notifiee, bool on);

  // The runtime's allocator, under every object a factory makes.
  static void * rigMemAlloc(size_t size);
  static void rigMemFree(void * memory, size_t size);
  // Marks the object as made by a factory (contract 5).
  void allocationIs(AllocTrackTypeInfo * track, size_t size) {
    track_ = track;
    size_ = size;
  }

 private:
  void destroy() const;

  mutable uint32_t count_ = 0;
  mutable bool inZeroRefHandling_ = false;
  bool notificationActive_ = false;
  AllocTrackTypeInfo * track_ = nullptr;
  size_t size_ = 0;
};

// Holds a counted reference to a T, a PtrInterface.
template <typename T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}  // NOLINT: null converts freely
  Ptr(T * object) : object_(object) { take(); }  // NOLINT: a raw pointer converts freely
  Ptr(const Ptr & other) : object_(other.object_) { take(); }
  Ptr(Ptr && other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <typename U>
  Ptr(const Ptr<U> & other) : object_(other.ptr()) {  // NOLINT: derived to base converts freely
    take();
  }
  ~Ptr() { release(); }

  Ptr & operator=(const Ptr & other) {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr & operator=(Ptr && other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }

  T * ptr() const { return object_; }
  T * operator->() const { return object_; }
  T & operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }
  bool operator==(const Ptr & other) const { return object_ == other.object_; }
  bool operator==(const T * other) const { return object_ == other; }
  void swap(Ptr & other) noexcept { std::swap(object_, other.object_); }

 private:
  void take() const {
    if (object_ != nullptr) {
      object_->newRef();
    }
  }
  void release() {
    T * object = std::exchange(object_, nullptr);
    if (object != nullptr && object->delRef()) {
      object->handleZeroRef();
    }
  }

  T * object_ = nullptr;
};

// A notifiee: its notifier is the object whose list it is on. The runtime
// calls onAttribute for each change the notifier announces (attribute id
// and, for a collection's keyed attribute, a pointer to the key), and
// onZeroReferences when the notifier lost its last reference.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
  const PtrInterface * notifier() const { return notifier_; }
  void notifierIs(const PtrInterface * notifier) { notifier_ = notifier; }

  virtual void onAttribute(uint32_t /*attributeId*/, const void * /*key*/) {}
  virtual void onZeroReferences() {}

 private:
  const PtrInterface * notifier_ = nullptr;
};

}  // namespace Rig

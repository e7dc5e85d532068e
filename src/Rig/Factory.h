#pragma once
// Rig::make<T>(arguments...): how the runtime makes a counted object. The
// memory comes from PtrInterface::rigMemAlloc and is counted in T's
// AllocTrackTypeInfo; notification is active before the caller gets the
// object. A constructor that raises gives both back.
//
// rigMemAlloc aligns as plain operator new does, so a type that asks for a
// wider alignment is refused here rather than built misaligned.

#include <new>
#include <typeinfo>
#include <utility>

#include "Rig/Ptr.h"

namespace Rig {

template <typename T, typename... Arguments>
  requires(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__)
Ptr<T> make(Arguments &&... arguments) {
  AllocTrackTypeInfo & track = AllocTrackTypeInfo::trackAllocation(typeid(T), sizeof(T));
  void * memory = PtrInterface::rigMemAlloc(sizeof(T));
  T * object;
  try {
    object = new (memory) T(std::forward<Arguments>(arguments)...);
  } catch (...) {
    PtrInterface::rigMemFree(memory, sizeof(T));
    AllocTrackTypeInfo::trackDeallocation(track, sizeof(T));
    throw;
  }
  object->allocationIs(&track, sizeof(T));
  object->hasNotificationActiveIs(true);
  return Ptr<T>(object);
}

}  // namespace Rig

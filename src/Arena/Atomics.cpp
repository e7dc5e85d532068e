#include "Arena/Atomics.h"

#include <atomic>

namespace Arena::Atomics {

bool checkCpuSupport() {
#if defined(__x86_64__)
  // x86-64 guarantees single-copy atomicity of aligned 8-byte accesses and
  // keeps stores in order with stores and loads with loads.
  return std::atomic_ref<uint64_t>::is_always_lock_free &&
         std::atomic_ref<uint32_t>::is_always_lock_free;
#else
  return false;
#endif
}

}  // namespace Arena::Atomics

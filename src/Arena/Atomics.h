#pragma once
// Shared-memory access primitives.
//
// Contract: every load and store of a word that another process reads or
// writes without a lock goes through one of these functions; nothing else in
// the engine touches such a word directly. The names carry the protocol:
//
//   publish64 / publish32   a store that makes earlier stores visible first.
//                           Release order: no earlier load or store of this
//                           thread is moved behind it, by the compiler or the
//                           processor. On x86-64 it is a plain `mov`.
//   observe64 / observe32   a load that sees a word and everything published
//                           before it. Acquire order: no later load is moved
//                           in front of it. On x86-64 a plain `mov`.
//   storeQuiet / loadQuiet  a single-copy atomic access without ordering, for
//                           words that are only read under a version check
//                           (the bytes of a value between two `flags` loads).
//   storeFence / loadFence  the compile-order fences of the seqlock pattern: a
//                           storeFence after a guard store keeps the value stores
//                           that follow behind it; a loadFence before the second
//                           guard load keeps the value loads in front of it. On
//                           x86-64 neither emits an instruction (a release or
//                           acquire thread fence is a compiler barrier there).
//
// None of these emits a `lock` prefix or `mfence`: seq_cst is never used.
// All shared words are naturally aligned, so each access is single-copy atomic.

#include <cstddef>
#include <cstdint>
#include <cstring>

// How the primitives are built: GCC's __atomic builtins, each with its order as
// a literal. The order must be a constant where the builtin is expanded; when it
// arrives through a parameter (as std::atomic_ref::store passes it) a build
// without optimisation treats it as seq_cst and emits an `xchg` store and a
// locked `or` for a fence. always_inline puts the access into its caller at any
// optimisation level, so every build runs the plain `mov` the protocol is
// written for. tests/Arena/AtomicsCodegenTest.cpp disassembles them to prove it.
#define ARENA_ATOMICS_INLINE [[gnu::always_inline]] inline

namespace Arena::Atomics {

ARENA_ATOMICS_INLINE void publish64(uint64_t & word, uint64_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

ARENA_ATOMICS_INLINE void publish32(uint32_t & word, uint32_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

ARENA_ATOMICS_INLINE void publish16(uint16_t & word, uint16_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

ARENA_ATOMICS_INLINE uint64_t observe64(const uint64_t & word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

ARENA_ATOMICS_INLINE uint32_t observe32(const uint32_t & word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

ARENA_ATOMICS_INLINE uint16_t observe16(const uint16_t & word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// Relaxed: these words are trusted only after the guard word around them has
// been checked, so they need atomicity (no torn qword) but no order of their own.
ARENA_ATOMICS_INLINE void storeQuiet64(uint64_t & word, uint64_t value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

ARENA_ATOMICS_INLINE uint64_t loadQuiet64(const uint64_t & word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

ARENA_ATOMICS_INLINE void storeFence() { __atomic_thread_fence(__ATOMIC_RELEASE); }
ARENA_ATOMICS_INLINE void loadFence() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }

// Copies a value image into shared memory, qword by qword, each store single-copy
// atomic. `bytes` is a multiple of 8 and both addresses are 8-aligned: every
// record that lies in a shared file is (static_asserts at each record say so).
ARENA_ATOMICS_INLINE void copyQuietIn(void * shared, const void * local, std::size_t bytes) {
  auto * to = static_cast<uint64_t *>(shared);
  const auto * from = static_cast<const unsigned char *>(local);
  for (std::size_t i = 0; i < bytes / 8; ++i) {
    uint64_t word;
    std::memcpy(&word, from + 8 * i, 8);
    storeQuiet64(to[i], word);
  }
}

// The reverse of copyQuietIn: a reader's copy of a value it will check afterwards.
ARENA_ATOMICS_INLINE void copyQuietOut(void * local, const void * shared, std::size_t bytes) {
  const auto * from = static_cast<const uint64_t *>(shared);
  auto * to = static_cast<unsigned char *>(local);
  for (std::size_t i = 0; i < bytes / 8; ++i) {
    uint64_t word = loadQuiet64(from[i]);
    std::memcpy(to + 8 * i, &word, 8);
  }
}

// True if this processor gives what the lock-free protocol needs: aligned
// 64-bit loads and stores that are single-copy atomic and kept in program
// order (x86-64 with its total store order). False stops every backend from
// attaching to shared files.
bool checkCpuSupport();

}  // namespace Arena::Atomics

#undef ARENA_ATOMICS_INLINE

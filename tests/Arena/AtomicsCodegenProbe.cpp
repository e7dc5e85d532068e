#include "AtomicsCodegenProbe.h"

#include "Arena/Atomics.h"

using namespace Arena::Atomics;

extern "C" {

void probePublish64(uint64_t * word, uint64_t value) { publish64(*word, value); }
void probePublish32(uint32_t * word, uint32_t value) { publish32(*word, value); }
void probePublish16(uint16_t * word, uint16_t value) { publish16(*word, value); }
uint64_t probeObserve64(const uint64_t * word) { return observe64(*word); }
uint32_t probeObserve32(const uint32_t * word) { return observe32(*word); }
uint16_t probeObserve16(const uint16_t * word) { return observe16(*word); }
void probeStoreQuiet64(uint64_t * word, uint64_t value) { storeQuiet64(*word, value); }
uint64_t probeLoadQuiet64(const uint64_t * word) { return loadQuiet64(*word); }

uint64_t probeFences(uint64_t * guard, uint64_t * value, uint64_t newValue) {
  storeQuiet64(*guard, 1);
  storeFence();
  storeQuiet64(*value, newValue);
  uint64_t seen = loadQuiet64(*value);
  loadFence();
  return seen + loadQuiet64(*guard);
}

void probeCopyQuietIn(void * shared, const void * local, std::size_t bytes) {
  copyQuietIn(shared, local, bytes);
}

void probeCopyQuietOut(void * local, const void * shared, std::size_t bytes) {
  copyQuietOut(local, shared, bytes);
}

uint64_t probeSeqCstControl(uint64_t * word, uint64_t value) {
  __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
  return __atomic_fetch_add(word, 1, __ATOMIC_SEQ_CST);
}

}  // extern "C"

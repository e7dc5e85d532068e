#pragma once
// Functions that do nothing but call one shared-memory primitive each, with C
// names, so that the codegen test finds them in the test program's own
// disassembly and the functional test runs the very same code.

#include <cstddef>
#include <cstdint>

extern "C" {
void probePublish64(uint64_t * word, uint64_t value);
void probePublish32(uint32_t * word, uint32_t value);
void probePublish16(uint16_t * word, uint16_t value);
uint64_t probeObserve64(const uint64_t * word);
uint32_t probeObserve32(const uint32_t * word);
uint16_t probeObserve16(const uint16_t * word);
void probeStoreQuiet64(uint64_t * word, uint64_t value);
uint64_t probeLoadQuiet64(const uint64_t * word);
// A seqlock round in miniature: guard store of 1, storeFence, value store;
// then value load, loadFence, guard load. Returns the sum of the two loads.
uint64_t probeFences(uint64_t * guard, uint64_t * value, uint64_t newValue);
void probeCopyQuietIn(void * shared, const void * local, std::size_t bytes);
void probeCopyQuietOut(void * local, const void * shared, std::size_t bytes);

// Not a primitive: the negative control of the codegen test. A seq_cst store
// and a seq_cst read-modify-write, which must show as locked instructions, so
// that a scanner that finds nothing there is known to be broken.
uint64_t probeSeqCstControl(uint64_t * word, uint64_t value);
}

// The names above, for the disassembler.
inline constexpr const char * kAtomicsProbes[] = {
    "probePublish64",    "probePublish32",   "probePublish16", "probeObserve64",
    "probeObserve32",    "probeObserve16",   "probeStoreQuiet64", "probeLoadQuiet64",
    "probeFences",       "probeCopyQuietIn", "probeCopyQuietOut",
};

#include "Rig/Hash.h"

#include <xxhash.h>

namespace Rig {

// xxHash (Debian's libxxhash) rather than a hand-written mix: it is well
// studied, fast on short inputs and its output is fixed across versions.

uint32_t Hash::result() const { return XXH32(buffer_, length_, seed_); }

void Hash::fold() {
  seed_ = XXH32(buffer_, length_, seed_);
  length_ = 0;
}

uint32_t hashSingleAttr(uint32_t seed, uint64_t value) {
  Hash hash(seed);
  hash.hashMix<8>(value);
  return hash.result();
}

}  // namespace Rig

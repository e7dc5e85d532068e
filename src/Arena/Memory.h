#pragma once

#include <cstddef>

namespace Arena {

// The size of a memory page of this machine, read once at start.
extern const std::size_t pageSize_;

// a * b, or Basalt::MemoryResourceException naming both factors if the
// product does not fit a size_t.
std::size_t multiplyOverflowCheck(std::size_t a, std::size_t b);

}  // namespace Arena

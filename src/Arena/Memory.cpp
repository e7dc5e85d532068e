#include "Arena/Memory.h"

#include <unistd.h>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Arena {

const std::size_t pageSize_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

std::size_t multiplyOverflowCheck(std::size_t a, std::size_t b) {
  std::size_t product;
  if (__builtin_mul_overflow(a, b, &product)) {
    throw Basalt::MemoryResourceException(
        fmt::format("Arena::multiplyOverflowCheck() {} * {} overflows", a, b));
  }
  return product;
}

}  // namespace Arena

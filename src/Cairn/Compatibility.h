#pragma once
// Cairn::Compatibility: the platform code stored in every slot file, so that a
// file made on one kind of machine is never read as another's. This system
// runs on x86-64 Linux alone: code 2.

#include <cstdint>
#include <string>

namespace Cairn::Compatibility {

constexpr uint32_t platform = 2;

// The name of a platform code: 1 "i386-linux", 2 "x86_64-linux",
// 3 "aarch64-linux"; any other code "unknown(<code>)".
std::string platformType(uint32_t code);

}  // namespace Cairn::Compatibility

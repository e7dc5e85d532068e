#pragma once
// The name under which a table's objects trace: its path, made fit to name a
// debug handler (Basalt/DebugHandlerRegistry.h) and to head a trace line.

#include <cstdint>
#include <string>
#include <string_view>

namespace Basalt::Util {

// Keep only the last component of the path ("a/b/table" gives "table").
constexpr uint32_t TraceHandleLeaf = 1;

// Writes into `*name`, and returns, the trace name of `path`: its components
// joined by "." ("/a/b/table" gives "a.b.table"), empty components dropped,
// or only the last component with TraceHandleLeaf in `flags`. A path with no
// component gives "Cairn", the name of tables not yet named.
const std::string & traceHandleName(std::string_view path, std::string * name, uint32_t flags);

}  // namespace Basalt::Util

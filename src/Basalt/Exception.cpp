#include "Basalt/Exception.h"

#include "Basalt/DebugHandler.h"

namespace Basalt {

AssertException::AssertException(const std::string & message, std::string sourceName,
                                 std::string function, unsigned line)
    : Exception(message),
      sourceName_(std::move(sourceName)),
      function_(std::move(function)),
      line_(line) {}

void debugAndThrowAssertException(const std::string & sourceName, const std::string & function,
                                  unsigned line, const std::string & message) {
  auto & handler = Platform::processDebugHandler();
  BASALT_TRACE(handler, 0, "ASSERT {}:{} {}: {}", sourceName, line, function, message);
  throw AssertException(message, sourceName, function, line);
}

}  // namespace Basalt

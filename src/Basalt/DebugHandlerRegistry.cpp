#include "Basalt/DebugHandlerRegistry.h"

#include <map>
#include <mutex>

namespace Basalt::Platform {

std::shared_ptr<DebugHandler> getDebugHandler(const std::string & name) {
  // Handlers are few (one per table and a handful of process-wide ones), so
  // the registry keeps each for the life of the process.
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<DebugHandler>> handlers;
  std::lock_guard lock(mutex);
  auto & handler = handlers[name];
  if (!handler) {
    handler = std::make_shared<DebugHandler>(name);
  }
  return handler;
}

}  // namespace Basalt::Platform

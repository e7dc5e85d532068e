#pragma once

#include "Basalt/DebugHandler.h"

namespace Basalt {

// Base of every engine object: the handler its traces go through. The handler
// outlives the object; it belongs to the map that made the object.
class Debuggable {
 public:
  explicit Debuggable(Platform::DebugHandler & handler) : handler_(&handler) {}
  Platform::DebugHandler & debugHandler() const { return *handler_; }

 protected:
  Platform::DebugHandler * handler_;
};

}  // namespace Basalt

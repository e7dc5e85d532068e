#pragma once
// The process's named debug handlers. Every object that traces under one name
// shares one handler, so that a mask set on a name at run time reaches every
// object of that table, and stays set when the table's objects are made
// anew (a map re-initialised, a backend exchanged).
//
// Contract:
//   getDebugHandler(name)  the handler of `name`, made with the default mask
//                          (DebugHandler::defaultMask) on first use and kept
//                          for the life of the process: a handler is never
//                          destroyed while a caller may still hold a
//                          reference taken from it. Safe from any thread.

#include <memory>
#include <string>

#include "Basalt/DebugHandler.h"

namespace Basalt::Platform {

std::shared_ptr<DebugHandler> getDebugHandler(const std::string & name);

}  // namespace Basalt::Platform

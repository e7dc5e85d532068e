#pragma once

#include "Basalt/Exception.h"

namespace Arena {

// A value handed out earlier is no longer the current one: look it up again.
class VersionMismatchException : public Basalt::Exception {
  using Basalt::Exception::Exception;
};

}  // namespace Arena

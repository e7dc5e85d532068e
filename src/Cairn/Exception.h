#pragma once

#include "Basalt/Exception.h"

namespace Cairn {

// A fixed-size table has no free slot left.
class TableFullException : public Basalt::Exception {
  using Basalt::Exception::Exception;
};

}  // namespace Cairn

#pragma once

#include "Basalt/Exception.h"

namespace Rig {

// A parsed number does not fit its field. The message names the attribute.
class RangeException : public Basalt::Exception {
  using Basalt::Exception::Exception;
};

// A text does not have the shape of the value being parsed: a literal that
// is not there, a number or address that does not parse, text left over.
class ParseException : public Basalt::Exception {
  using Basalt::Exception::Exception;
};

}  // namespace Rig

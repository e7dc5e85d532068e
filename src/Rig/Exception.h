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

namespace Rig {

// A value used as a type it is not: a hash asked of an unhashable type, a
// pointer converted to a type that is not its own nor a base. The message
// names the types.
class TypeException : public Basalt::Exception {
  using Basalt::Exception::Exception;
};

// A new entity asked with arguments its type does not take.
class NewEntityArgsException : public Basalt::InvalidArgumentException {
  using Basalt::InvalidArgumentException::InvalidArgumentException;
};

}  // namespace Rig

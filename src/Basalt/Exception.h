#pragma once
// The failure channel of the whole system: every layer reports a failure by
// raising one of these, and each message begins with "Class::method() " and
// names the table and the offending value.

#include <stdexcept>
#include <string>

namespace Basalt {

class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string & message) : std::runtime_error(message) {}
  std::string message() const { return what(); }
};

// A table can't be set up as asked.
class InvalidInitializeException : public Exception {
  using Exception::Exception;
};

// A write reached a read-only backend.
class NoPermissionException : public Exception {
  using Exception::Exception;
};

// The files contradict themselves.
class CorruptionDetectedException : public Exception {
  using Exception::Exception;
};

// An operation was given a value it refuses: a key that fails its own
// validation, say. Nothing was changed.
class InvalidArgumentException : public Exception {
  using Exception::Exception;
};

// A mapping or a resize failed.
class MemoryResourceException : public Exception {
  using Exception::Exception;
};

// A broken invariant: a programming mistake, never bad input. Raised only
// through debugAndThrowAssertException, which records where it happened.
class AssertException : public Exception {
 public:
  AssertException(const std::string & message, std::string sourceName, std::string function,
                  unsigned line);
  const std::string & sourceName() const { return sourceName_; }
  const std::string & function() const { return function_; }
  unsigned line() const { return line_; }

 private:
  std::string sourceName_;
  std::string function_;
  unsigned line_;
};

// Writes the assertion to the level 0 trace of the process ("ASSERT <source>:<line>
// <function>: <message>") and raises AssertException whose what() is `message` alone.
[[noreturn]] void debugAndThrowAssertException(const std::string & sourceName,
                                               const std::string & function, unsigned line,
                                               const std::string & message);

}  // namespace Basalt

// Raises the assertion with the calling function and line filled in.
#define BASALT_ASSERT(cond, sourceName, message)                                         \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      ::Basalt::debugAndThrowAssertException((sourceName), __func__, __LINE__, (message)); \
    }                                                                                    \
  } while (0)

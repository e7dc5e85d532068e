#pragma once
// Spool::Interface: an array of trivially copyable elements, whatever memory
// holds it. Spool::Local (Spool/Local.h) keeps it in the process's private
// memory; an implementation over shared memory would share the interface.
// The operations that change the array have defaults that refuse, so that a
// read-only implementation overrides only what it can do.

#include <cstdint>
#include <string>
#include <type_traits>

#include "Basalt/Exception.h"

namespace Spool {

template <typename T>
class Interface {
  static_assert(std::is_trivially_copyable_v<T>, "a Spool holds plain bytes: T must be trivially copyable");

 public:
  virtual ~Interface() = default;
  virtual const T * data() const = 0;
  virtual T * data() { throw Basalt::NoPermissionException("read-only Spool"); }
  virtual void cleanup() { throw Basalt::NoPermissionException("cleanup() invoked on read-only Spool"); }
  virtual std::string rootPath() const = 0;
  virtual uint32_t mode() const = 0;
  // Appends `value`; returns its index.
  virtual uint64_t push(T value) = 0;
  virtual void pop() = 0;
  virtual T get(uint64_t index) const = 0;
  virtual T & get(uint64_t) { throw Basalt::NoPermissionException("read-only Spool"); }
  virtual void write(uint64_t, T) { throw Basalt::NoPermissionException("read-only Spool"); }
  // The elements in use.
  virtual uint64_t members() const = 0;
  virtual void capacityIs(uint64_t capacity) = 0;
};

}  // namespace Spool

#pragma once
// Spool::Local: a growable array in the private memory of one process (an
// Arena::Local block), the validator's per-slot marks. Belongs to one thread.
//
// Contract:
//   Local()              size 0, room for at least one element.
//   Local(count, value)  size `count`, every element `value`.
//   push(value)          appends; when full, grows the room first to
//                        ceil(size * 2.0), computed in 32-bit float (so a
//                        size beyond the float's 24 bits of precision is
//                        rounded), and never below one element.
//   capacityIs(count)    sets the size, not only the room: growing zeroes
//                        every element from the old size up; shrinking only
//                        lowers the size, and the block stays as it is.
//   write(index, value)  range-checked: an index not below the size is the
//                        assertion "Spool::Local::write() out-of-range
//                        index:<index> size_:<size>".
//   get(index), pop()    not checked.
// Invariants: size <= capacity; capacity is what the block actually holds
// (Arena::Local rounds up to whole pages), which may exceed what was asked;
// the block may move when it grows, so pointers from data() last until the
// next push or capacityIs.
//
// A failed growth raises Basalt::MemoryResourceException "Spool::Local::
// doResize( n=<count> ) unable to resize" (traced at level 0), or that of
// Arena::multiplyOverflowCheck when count * sizeof(T) overflows; the block is
// then gone and capacity() is 0.

#include <cmath>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Arena/Local.h"
#include "Arena/Memory.h"
#include "Basalt/Debuggable.h"
#include "Basalt/Exception.h"
#include "Spool/ElementName.h"
#include "Spool/Interface.h"

namespace Spool {

template <typename T>
class Local : public Interface<T>, public Basalt::Debuggable {
 public:
  explicit Local(Basalt::Platform::DebugHandler & handler = Basalt::Platform::processDebugHandler())
      : Basalt::Debuggable(handler), memory_(handler, false, Arena::Local::LOCAL_DEFAULT_FLAGS) {
    doResize(1);
  }

  Local(uint64_t count, T value,
        Basalt::Platform::DebugHandler & handler = Basalt::Platform::processDebugHandler())
      : Basalt::Debuggable(handler), memory_(handler, false, Arena::Local::LOCAL_DEFAULT_FLAGS) {
    resizeAndFill(count, value);
  }

  Local(const Local &) = delete;
  Local & operator=(const Local &) = delete;

  // "Spool::Local<bool>" and the like.
  static std::string debugName() { return fmt::format("Spool::Local<{}>", ElementName<T>::value); }

  const T * data() const override { return data_; }
  T * data() override { return data_; }
  std::string rootPath() const override { return "Local"; }
  uint32_t mode() const override { return 0; }

  uint64_t push(T value) override {
    if (size_ == capacity_) {
      const auto grown = static_cast<uint64_t>(std::ceil(static_cast<float>(size_) * growthFactor_));
      // Only an array emptied by Local(0, value) has nothing to double.
      doResize(grown == 0 ? 1 : grown);
    }
    data_[size_] = value;
    return size_++;
  }

  void pop() override { --size_; }
  T get(uint64_t index) const override { return data_[index]; }
  T & get(uint64_t index) override { return data_[index]; }

  void write(uint64_t index, T value) override {
    if (index >= size_) {
      Basalt::debugAndThrowAssertException(
          "Spool/Local", __func__, __LINE__,
          fmt::format("Spool::Local::write() out-of-range index:{} size_:{}", index, size_));
    }
    data_[index] = value;
  }

  uint64_t members() const override { return size_; }
  void capacityIs(uint64_t count) override { resizeAndFill(count, T{}); }

  // The elements that fit in the present block.
  uint64_t capacity() const { return capacity_; }

 private:
  // Sets the size to `count`; elements from the old size up to `count` are
  // set to `fill`, growing the block first if they don't fit.
  void resizeAndFill(uint64_t count, T fill) {
    if (count >= size_) {
      if (count > capacity_) {
        doResize(count);
      }
      for (uint64_t i = size_; i < count; ++i) {
        data_[i] = fill;
      }
    }
    size_ = count;
  }

  void doResize(uint64_t count) {
    const std::size_t bytes = Arena::multiplyOverflowCheck(count, sizeof(T));
    data_ = static_cast<T *>(memory_.base() == nullptr ? memory_.attach(bytes) : memory_.resize(bytes));
    if (data_ == nullptr) {
      capacity_ = 0;
      if (count != 0) {
        auto message = fmt::format("Spool::Local::doResize( n={} ) unable to resize", count);
        BASALT_TRACE(debugHandler(), 0, "{}", message);
        throw Basalt::MemoryResourceException(message);
      }
      return;
    }
    capacity_ = memory_.memSize() / sizeof(T);
  }

  uint64_t capacity_ = 0;
  uint64_t size_ = 0;
  Arena::Local memory_;
  T * data_ = nullptr;
  float growthFactor_ = 2.0f;
};

}  // namespace Spool

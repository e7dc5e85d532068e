#pragma once
// Arena::Local: a block of private memory of one process, that can grow and
// shrink and may move when it does. Backed by an anonymous private mapping
// (sizes rounded up to whole pages) or, when asked, by the heap.
//
// Contract: attach(bytes, mode) gives a zeroed block of at least `bytes`, or
// null with reason() set. resize(bytes) keeps the contents up to the smaller
// size, zeroes what is added, and returns the new base (which may differ from
// the old), or null with reason() set; after a null the old block is gone.
// memSize() is the usable size, which may be more than was asked for: whole
// pages for the anonymous mapping, exactly the bytes asked for on the heap.
//
// A size of 0 holds no memory: attach(0) and resize(0) release the block and
// return null with memSize() 0 and reason() empty. That null is not a failure;
// a failure is a null with reason() set.
//
// attachAs<T>(count, mode) is attach for an array of `count` T: it traces the
// count at level 5 ("size:<count> elements") and fails in
// multiplyOverflowCheck's way when the bytes don't fit a size_t.
//
// `mode` of attach: 0 is the one mode there is; any other fails with a reason.
// `flags` are added to the flags of the anonymous mapping (MAP_POPULATE,
// MAP_NORESERVE...); the heap ignores them.
// Failures are also traced at level 0, "Local::attach() " or "Local::resize() "
// and the reason.

#include <cstddef>
#include <optional>
#include <string>

#include "Arena/Memory.h"
#include "Basalt/DebugHandler.h"

namespace Arena {

class Local {
 public:
  static constexpr int LOCAL_DEFAULT_FLAGS = 0;
  static constexpr const char * HEAP = "heap";
  static constexpr const char * ANONYMOUS = "anonymous";

  Local(Basalt::Platform::DebugHandler & handler, bool useHeap = false,
        int flags = LOCAL_DEFAULT_FLAGS);
  ~Local();
  Local(const Local &) = delete;
  Local & operator=(const Local &) = delete;

  void * attach(std::size_t bytes, int mode = 0);
  void * resize(std::size_t bytes);
  template <typename T>
  T * attachAs(std::size_t count, int mode = 0) {
    BASALT_TRACE(handler_, 5, "size:{} elements", count);
    return static_cast<T *>(attach(multiplyOverflowCheck(count, sizeof(T)), mode));
  }
  void detach();

  void * base() const { return base_; }
  std::size_t memSize() const { return size_; }
  bool useHeap() const { return useHeap_; }
  const char * kind() const { return useHeap_ ? HEAP : ANONYMOUS; }
  const std::string & reason() const { return reason_; }

 private:
  // `bytes` up to whole pages; nothing when that does not fit a size_t.
  static std::optional<std::size_t> roundUp(std::size_t bytes);
  // What attach (from no block) and resize (from the present one) share;
  // `method` names the caller in the trace of a failure.
  void * change(const char * method, std::size_t bytes);
  void * changeHeap(const char * method, std::size_t bytes);
  void * changeAnonymous(const char * method, std::size_t bytes);
  // Releases the block, records `what` as the reason, traces it; returns null.
  void * fail(const char * method, std::string what);

  Basalt::Platform::DebugHandler & handler_;
  bool useHeap_;
  int flags_;
  void * base_ = nullptr;
  std::size_t size_ = 0;
  std::string reason_;
};

}  // namespace Arena

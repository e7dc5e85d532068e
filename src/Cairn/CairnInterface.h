#pragma once
// CairnInterface<K, V>: the one interface of every backend of a map (writer,
// reader, shadow, dummies). CairnInterfaceBase holds what is not generic: the
// initialized flag and the default answers of the operations a backend does
// not override. A read-only backend inherits the refusals of the writing
// operations (Basalt::NoPermissionException).

#include <cstdint>
#include <string>

#include "Arena/VersionAnchor.h"
#include "ArenaFiles/EpochId.h"
#include "Basalt/Exception.h"
#include "Cairn/IterHint.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/RootPath.h"
#include "Cairn/WriterCounters.h"

namespace Cairn {

// Called with the anchor of the value last handed out, before it is validated.
using VersionAnchorHook = void (*)(const Arena::VersionAnchor &);

class CairnInterfaceBase {
 public:
  virtual ~CairnInterfaceBase() = default;

  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // Defaults: a backend with no files to check, no queue, no counters.
  virtual bool validate() { return true; }
  virtual bool validateFiles() { return true; }
  virtual void cleanup() {}
  virtual bool quiesced() const { return true; }
  virtual bool connected() const { return false; }
  virtual Writer::Counters writerCounters() const { return Writer::Counters(); }
  virtual Reader::Counters readerCounters() const { return Reader::Counters(); }
  virtual void notifyingIs(bool) {}
  virtual void yieldTimeIs(double) {}
  virtual void sampleIs(uint32_t) {}
  virtual uint64_t sequence() const { return 0; }
  virtual bool clientQuiesced(const std::string &) const { return false; }
  virtual ArenaFiles::EpochId epochId() const { return ArenaFiles::EpochId(); }
  virtual void validateVersionAnchorHookIs(VersionAnchorHook) {}
  virtual Arena::CacheVersionAnchor getCacheVersionAnchor() const { return Arena::CacheVersionAnchor(); }

 protected:
  [[noreturn]] static void refuseWrite() {
    throw Basalt::NoPermissionException("write to read-only Cairn table");
  }
  [[noreturn]] static void refuseRemove() {
    throw Basalt::NoPermissionException("remove to read-only Cairn table");
  }

 private:
  bool initialized_ = false;
};

template <typename K, typename V>
class CairnInterface : public CairnInterfaceBase {
 public:
  virtual bool initialize(const std::string & name) = 0;
  virtual void detach(bool final) = 0;
  virtual uint32_t members() const = 0;
  virtual uint32_t minSize() const = 0;
  virtual uint32_t maxSize() const = 0;
  virtual uint32_t capacity() const = 0;
  virtual CairnType type() const = 0;
  virtual RootPath rootPath() const = 0;
  virtual std::string cairnName() const = 0;
  virtual uint32_t mountStatus() const = 0;
  virtual void validateVersionAnchor() const = 0;

  // The address of the value in its slot; the key is taken from the value.
  virtual const V * write(const V &, bool /*publish*/) { refuseWrite(); }
  // True, with the old value in `removed`, if the key was there.
  virtual bool remove(const K &, V & /*removed*/) { refuseRemove(); }
  // The value's address, or the default value's with `found` false; a value
  // is copied to `out` too when it is not null.
  virtual const V * lookup(const K & key, bool & found, V * out) const = 0;
  virtual bool first(V & value, IterHint & hint) const = 0;
  virtual bool next(const K & key, V & value, IterHint & hint) const = 0;
  // Direct mode: the address of a value to fill in place, closed by directCommit.
  virtual V * directWrite(const K &) { refuseWrite(); }
  virtual V * directUpdate(const K &) { refuseWrite(); }
  virtual void directCommit() { refuseWrite(); }
  virtual const V * directLookup(const K & key, bool & found, V * out) const {
    return lookup(key, found, out);
  }
};

}  // namespace Cairn

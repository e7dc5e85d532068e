#pragma once
// Cairn::CairnDummy<K, V, Ops>: the placeholder backend that answers every
// call as an empty, unmounted table: what a reader, shadow or keyshadow map
// serves from until its sentry attaches it, and what every map serves from
// after a detach. Each operation traces at level 5 "CairnDummy::<op>() "
// and the table's name.
//
//   initialize(event)   true (the trace adds " event:<event>")
//   members, minSize, maxSize, capacity, mountStatus   0
//   type                reader
//   readerCounters      a default record
//   lookup              not found, the default value; `out` is not written
//   first, next         false, with the default value in `out` (next goes
//                       through the virtual first, whatever the key)
//   validateVersionAnchor   an assertion: no lookup here can have succeeded,
//                       so there is no value whose version to check

#include <string>

#include "Cairn/DummyBackend.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class CairnDummy : public DummyBackend<K, V, Ops> {
  using Base = DummyBackend<K, V, Ops>;

 public:
  CairnDummy(Basalt::Platform::DebugHandler & handler, const std::string & name, const Ops & ops,
             CairnInterface<K, V> * previous, bool shared)
      : Base(handler, "CairnDummy", name, ops, previous, shared) {}

  bool initialize(const std::string & event) override {
    BASALT_TRACE(this->debugHandler(), 5, "CairnDummy::initialize() {} event:{}", this->name_, event);
    return true;
  }
  uint32_t members() const override { return zero("members"); }
  uint32_t minSize() const override { return zero("minSize"); }
  uint32_t maxSize() const override { return zero("maxSize"); }
  uint32_t capacity() const override { return zero("capacity"); }
  uint32_t mountStatus() const override { return zero("mountStatus"); }
  CairnType type() const override {
    this->trace("type");
    return CairnType::reader;
  }
  Reader::Counters readerCounters() const override {
    this->trace("readerCounters");
    return Reader::Counters();
  }

  const V * lookup(const K &, bool & found, V *) const override {
    this->trace("lookup");
    found = false;
    return &this->ops_.defaultValue;
  }
  bool first(V & out, IterHint &) const override {
    this->trace("first");
    out = this->ops_.defaultValue;
    return false;
  }
  bool next(const K &, V & out, IterHint & hint) const override {
    this->trace("next");
    return this->first(out, hint);
  }

  void validateVersionAnchor() const override {
    Basalt::debugAndThrowAssertException(
        "Cairn/CairnDummy", __func__, __LINE__,
        "CairnDummy::validateVersionAnchor() should never be called since it's impossible for a lookup to succeed");
  }

 private:
  uint32_t zero(const char * operation) const {
    this->trace(operation);
    return 0;
  }
};

}  // namespace Cairn

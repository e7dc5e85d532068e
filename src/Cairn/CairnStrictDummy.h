#pragma once
// Cairn::CairnStrictDummy<K, V, Ops>: the backend of an orphan, a collection
// that has lost its parent and whose descriptor asked that nobody touch it
// again (assertOnOrphanAccess). Everything that would read the table is an
// assertion, whose text is the operation's own, then the table's name,
// " rootpath:" and its root path, then what the operation adds (the key of
// lookup and next), then the dummy's message:
//
//   "CairnStrictDummy::<op>() invoked, name:<name> rootpath:<root>[ key:<key>]<message>"
//
// initialize alone puts it otherwise, with a capital P:
//
//   "CairnStrictDummy::initialize() <name> rootPath:<root> event:<event><message>"
//
// What a map does to any backend it lets go of still works quietly:
// detach, validate, validateFiles and cleanup (Cairn/DummyBackend.h), and
// mountStatus, which is 0 with no trace.

#include <string>

#include <fmt/format.h>

#include "Cairn/DummyBackend.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class CairnStrictDummy : public DummyBackend<K, V, Ops> {
  using Base = DummyBackend<K, V, Ops>;
  using KeyOperations = typename Ops::KeyOperations;

 public:
  CairnStrictDummy(Basalt::Platform::DebugHandler & handler, const std::string & name, const Ops & ops,
                   CairnInterface<K, V> * previous, bool shared, std::string message)
      : Base(handler, "CairnStrictDummy", name, ops, previous, shared), message_(std::move(message)) {}

  bool initialize(const std::string & event) override {
    Basalt::debugAndThrowAssertException(
        "Cairn/CairnStrictDummy", __func__, __LINE__,
        fmt::format("CairnStrictDummy::initialize() {} rootPath:{} event:{}{}", this->name_,
                    this->rootPath_.toString(), event, message_));
  }
  uint32_t members() const override { return invoked<uint32_t>(__func__, __LINE__); }
  uint32_t minSize() const override { return invoked<uint32_t>(__func__, __LINE__); }
  uint32_t maxSize() const override { return invoked<uint32_t>(__func__, __LINE__); }
  uint32_t capacity() const override { return invoked<uint32_t>(__func__, __LINE__); }
  CairnType type() const override { return invoked<CairnType>(__func__, __LINE__); }
  Reader::Counters readerCounters() const override { return invoked<Reader::Counters>(__func__, __LINE__); }
  uint32_t mountStatus() const override { return 0; }

  const V * lookup(const K & key, bool &, V *) const override { return invoked<const V *>(__func__, __LINE__, &key); }
  bool first(V &, IterHint &) const override { return invoked<bool>(__func__, __LINE__); }
  bool next(const K & key, V &, IterHint &) const override { return invoked<bool>(__func__, __LINE__, &key); }
  void validateVersionAnchor() const override { invoked<void>(__func__, __LINE__); }

  const std::string & message() const { return message_; }

 private:
  // Raises the assertion of `operation`; R is the operation's result, never given.
  template <typename R>
  [[noreturn]] R invoked(const char * operation, unsigned line, const K * key = nullptr) const {
    Basalt::debugAndThrowAssertException(
        "Cairn/CairnStrictDummy", operation, line,
        fmt::format("CairnStrictDummy::{}() invoked, name:{} rootpath:{}{}{}", operation, this->name_,
                     this->rootPath_.toString(), key ? " key:" + KeyOperations::toString(*key) : std::string(),
                    message_));
  }

  std::string message_;
};

}  // namespace Cairn

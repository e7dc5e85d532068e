#pragma once
// Cairn::DummyBackend<K, V, Ops>: what the two placeholder backends share. A
// dummy stands in a map when no writer, reader or shadow can serve
// (Cairn/CairnDummy.h, Cairn/CairnStrictDummy.h). It has no state of its
// own beyond the table's name, a root path made from it (which attaches to
// nothing), a copy of the table's Ops for its default value, and the backend
// it replaced, `previous`, which it owns: a backend taken off its files by a
// detach lives on in the dummy, so that a shadow whose flush has ended, and
// a writer whose files are still to be cleaned up, last until the dummy
// goes. `cleanup` reaches that backend.
//
// The operations that do not read the table (detach, validate,
// validateFiles, cleanup) work quietly in both dummies, with a level 5 trace
// "<Class>::<operation>() <name>". Writes are refused as on every read-only
// backend (Cairn/CairnInterface.h).

#include <string>

#include "Basalt/Debuggable.h"
#include "Cairn/CairnInterface.h"
#include "Cairn/RootPath.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class DummyBackend : public CairnInterface<K, V>, public Basalt::Debuggable {
 public:
  ~DummyBackend() override { delete previous_; }
  DummyBackend(const DummyBackend &) = delete;
  DummyBackend & operator=(const DummyBackend &) = delete;

  void detach(bool) override { trace("detach"); }
  bool validate() override {
    trace("validate");
    return true;
  }
  bool validateFiles() override {
    trace("validateFiles");
    return true;
  }
  void cleanup() override {
    trace("cleanup");
    if (previous_ != nullptr) {
      previous_->cleanup();
    }
  }
  RootPath rootPath() const override { return rootPath_; }
  std::string cairnName() const override { return rootPath_.cairnName(); }

  const std::string & name() const { return name_; }
  // The backend this dummy replaced, if any; owned by the dummy.
  CairnInterface<K, V> * previous() const { return previous_; }

 protected:
  // `shared` goes to the root path as it is given.
  DummyBackend(Basalt::Platform::DebugHandler & handler, const char * className, const std::string & name,
               const Ops & ops, CairnInterface<K, V> * previous, bool shared)
      : Basalt::Debuggable(handler),
        ops_(ops),
        className_(className),
        name_(name),
        rootPath_(handler, name, shared),
        previous_(previous) {}

  // "<Class>::<operation>() <name>" at level 5.
  void trace(const char * operation) const {
    BASALT_TRACE(debugHandler(), 5, "{}::{}() {}", className_, operation, name_);
  }

  Ops ops_;
  const char * className_;
  std::string name_;
  RootPath rootPath_;
  CairnInterface<K, V> * previous_;
};

}  // namespace Cairn

#pragma once
// Cairn::Tmp<K, V, Ops>: the default local writer, a CairnWriter in private
// memory, with no files and no sentry. A map serves from one from the moment
// it is named until its init, so that a collection works before the control
// layer has configured it; what is written there is thrown away when the
// collection is placed in the object tree and again at init. It reports
// itself as not mounted.

#include "Cairn/CairnWriter.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class Tmp : public CairnWriter<K, V, Ops> {
 public:
  using CairnWriter<K, V, Ops>::CairnWriter;
  ~Tmp() override = default;

  uint32_t mountStatus() const override { return 0; }
};

}  // namespace Cairn

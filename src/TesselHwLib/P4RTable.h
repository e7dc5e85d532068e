#pragma once
// TesselHwLib::P4RTable<Self, Config, Status>: the one design of the three
// P4R table objects (TesselHwLib/TesselHwLibTypesTH3.h). Such an object ties
// the two collections of one table together for a P4Runtime front end: it
// holds the Config collection read-only and the Status collection writable,
// the direction of the data (the front end reads what was asked and reports
// what was done). It stores no entries and does no work on them.
//
// Contract:
// 1. Both references start null; configIs and statusIs follow the rule of
//    every settable pointer attribute (Rig::pointerIs): the pointer already
//    held changes nothing and notifies nobody; anything else, null included,
//    is stored and announced on the notifiee list with its attribute id.
// 2. Its references count for the collections' own zero-references logic.
//    Two table objects may refer to the same collections.
//
// Attributes (Rig/AttributeOp.h): 258 config, 259 status; 0 reads into the
// Ptr at result, 1 sets from the Ptr at argument.

#include <cstdint>
#include <utility>

#include "Rig/AttributeOp.h"
#include "Rig/Entity.h"
#include "Rig/NotifieeList.h"

namespace TesselHwLib {

template <typename Self, typename Config, typename Status>
class P4RTable : public Rig::Entity {
 public:
  static constexpr uint32_t ConfigAttribute = 258;
  static constexpr uint32_t StatusAttribute = 259;

  explicit P4RTable(Rig::Name name) : Rig::Entity(std::move(name)) {}
  ~P4RTable() override { notifieeList_.deleteAll(); }

  Rig::NotifieeListPtr notifieeList() const override {
    return Rig::NotifieeListPtr{1, &notifieeList_, 0, 0};
  }
  const Rig::RigType * fwkType() const override { return &Self::_rigType; }

  const Rig::Ptr<const Config> & config() const { return config_; }
  void configIs(const Rig::Ptr<const Config> & config) {
    Rig::pointerIs(config_, config, notifieeList_, ConfigAttribute);
  }
  const Rig::Ptr<Status> & status() const { return status_; }
  void statusIs(const Rig::Ptr<Status> & status) { Rig::pointerIs(status_, status, notifieeList_, StatusAttribute); }

  uint32_t attributeOp(uint32_t attributeId, uint32_t operation, void * result, const void * argument) {
    switch (attributeId) {
      case ConfigAttribute:
        return Rig::pointerAttributeOp(config_, operation, result, argument,
                                       [this](const Rig::Ptr<const Config> & config) { configIs(config); });
      case StatusAttribute:
        return Rig::pointerAttributeOp(status_, operation, result, argument,
                                       [this](const Rig::Ptr<Status> & status) { statusIs(status); });
      default:
        return Rig::attributeUnknown;
    }
  }

 private:
  Rig::Ptr<const Config> config_;
  Rig::Ptr<Status> status_;
  mutable Rig::NotifieeList notifieeList_;
};

}  // namespace TesselHwLib

#pragma once
// TesselHwLib::Collection<Self, Entry>: the one design of the six table
// collections (TesselHwLib/TesselHwLibTypesTH3.h). A collection is the
// object through which a caller fills or reads one table of one direction.
// It adds four things to its map (RigCairn/RigCairnMap.h): three liveness
// counters, a notifiee list on which its observers see each changed key,
// the tableControl link to its control layer, and the self-keeping at zero
// references. All storage is the map's.
//
// Contract:
// 1. One thread: a collection, its map and its backend belong to the thread
//    of its owner. Counters are plain increments.
// 2. Every tableIs, every tableCommit, every tableDel that removed a key, and
//    every key that a reader or shadow learns of (tableNotify) visits the
//    notifiee list with attribute 258 and the key, then counts one
//    tableNotify. No value comparison is made: a rewrite of an equal value
//    notifies too.
// 3. tableIs and tableCommit count one tableIs, tableDel one tableDel,
//    whether or not the operation then fails.
// 4. A key that fails its own validation (validateEntryKey, for the key
//    types that have one) is refused with Basalt::InvalidArgumentException
//    naming the collection, the table, the key and the validation's message;
//    nothing is written, counted or notified.
// 5. Writes to a read-only backend raise Basalt::NoPermissionException
//    ("write to read-only Cairn table", "remove to read-only Cairn table")
//    and notify nobody; they are not caught here.
// 6. At zero references the collection hands itself to its control, which
//    keeps it alive while its table is mounted (RigArena/CollectionControl.h).
//
// Attributes, for generic tools (Rig/AttributeOp.h):
//   258 table         0 look up the Key at argument, the Entry into result
//                     1 tableIs of the Entry at argument
//                     2 tableDel of the Key at argument, the Entry into result
//                     3 member count into the uint32_t at result
//                     4 0 into the uint32_t at result
//                     5 look up the Key at argument, found into the bool at result
//   259 tableControl  0 read, 1 tableControlIs, of a Ptr<RigCairn::CollectionControl>

#include <cstdint>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Basalt/Exception.h"
#include "Beacon/Writer.h"
#include "Cairn/IterHint.h"
#include "Cairn/Operations.h"
#include "P4Runtime/ErrorCode.h"
#include "Rig/AttributeOp.h"
#include "Rig/Entity.h"
#include "Rig/Factory.h"
#include "Rig/NotifieeList.h"
#include "RigCairn/CollectionControl.h"
#include "RigCairn/RigCairnMap.h"
#include "RigCairn/RigCairnMapValueWrapper.h"
#include "TesselHwLib/Record.h"

namespace TesselHwLib {

template <typename Self, typename Entry>
class Collection : public Rig::Entity {
 public:
  using EntryType = Entry;
  using Key = typename Entry::KeyType;
  using Wrapper = RigCairn::ValueWrapperOf<Entry>;
  using Ops = Cairn::Ops<Key, Wrapper>;
  // The map is bound to this generic part, which exists from the start of
  // construction: binding it to Self would cast to a type not yet made.
  using Table = RigCairn::RigCairnMap<Collection, Wrapper, Key, Ops>;
  using Control = RigCairn::CollectionControl;

  static constexpr uint32_t TableAttribute = 258;
  static constexpr uint32_t TableControlAttribute = 259;

  // Fires once, when the collection has lost its last outside reference.
  class ZeroReferencesNotifiee : public Rig::PtrInterface::NotifieeConst {
   public:
    explicit ZeroReferencesNotifiee(Collection * collection) : collection_(collection) {}
    void onZeroReferences() override { collection_->handOverToControl(*this); }

   private:
    Collection * collection_;
  };

  explicit Collection(Rig::Name name)
      : Rig::Entity(std::move(name)),
        tableIsCounter_(Beacon::writer().counter("tableIs")),
        tableDelCounter_(Beacon::writer().counter("tableDel")),
        tableNotifyCounter_(Beacon::writer().counter("tableNotify")) {
    zeroReferencesNotifiee_ = Rig::make<ZeroReferencesNotifiee>(this);
    notifieeList_.newMember(this, zeroReferencesNotifiee_);
    tableControl_ = Rig::make<Control>(table_);
    control_ = tableControl_.ptr();
    table_.entity("table", this, &Collection::tableNotify, &Collection::tableNotifyMountStatus,
                  &Collection::tableNotifyQuiesced);
  }

  ~Collection() override {
    notifieeList_.deleteAll();
    if (control_ != nullptr) {
      // The control may outlive this collection in other hands: it must not
      // reach the map after this. control_ is alive here: it is either
      // tableControl_, or the control that kept this collection and is
      // letting it go.
      control_->tableIs(nullptr);
    }
  }

  Rig::NotifieeListPtr notifieeList() const override {
    return Rig::NotifieeListPtr{1, &notifieeList_, 0, 0};
  }
  const Rig::RigType * fwkType() const override { return &Self::_rigType; }
  void handleParent(Rig::Ptr<Rig::Entity> /*parent*/) override { table_.handleParent(); }

  Table & table() { return table_; }
  const Table & table() const { return table_; }
  const Rig::Ptr<Control> & tableControl() const { return tableControl_; }

  // Inserts or replaces the entry under its own key (contracts 2 to 5).
  void tableIs(const Entry & entry) {
    const Key key = entry.key();
    refuseInvalidKey(key);
    ++*tableIsCounter_;
    const Wrapper wrapper(entry);
    table_.safeWrite(wrapper, true);
    tableNotify(key);
  }

  // Removes the key: the removed entry, or a default entry when the key was
  // absent (then with no notification).
  Entry tableDel(const Key & key) {
    ++*tableDelCounter_;
    if (!table_.safeRemove(key, removed_)) {
      return Entry();
    }
    tableNotify(key);
    return removed_.value;
  }

  // Removes every entry through tableDel, so that each removal is counted and
  // notified. The walk restarts from each removed key; corruption met on the
  // way is reported and ends it.
  void tableDelAll() {
    Cairn::IterHint hint;
    Wrapper wrapper;
    try {
      bool more = table_.backend()->first(wrapper, hint);
      while (more) {
        const Key key = wrapper.fwkKey();
        tableDel(key);
        more = table_.backend()->next(key, wrapper, hint);
      }
    } catch (const Basalt::CorruptionDetectedException & exception) {
      table_.doCorruptionDetected(exception.what());
    }
  }

  // Publishes the value that a direct write (table().backend()->directWrite
  // or directUpdate) left in its slot; `entry` only names the key.
  void tableCommit(const Entry * entry) {
    ++*tableIsCounter_;
    const Key key = entry->key();
    table_.directCommit();
    tableNotify(key);
  }

  // Tells the observers that `key` changed, without touching the map.
  void tableNotify(Key key) {
    notifieeList_.visit(TableAttribute, &key);
    ++*tableNotifyCounter_;
  }

  void tableNotifyQuiesced(bool quiesced) {
    if (control_ != nullptr) {
      control_->quiescedIs(quiesced);
    }
  }
  void tableNotifyMountStatus() {
    if (control_ != nullptr) {
      control_->mountStatusIs(table_.mountStatus());
    }
  }

  void tableControlIs(const Rig::Ptr<Control> & control) {
    Rig::pointerIs(tableControl_, control, notifieeList_, TableControlAttribute);
    control_ = tableControl_.ptr();
  }

  uint32_t attributeOp(uint32_t attributeId, uint32_t operation, void * result, const void * argument) {
    switch (attributeId) {
      case TableAttribute:
        return tableOp(operation, result, argument);
      case TableControlAttribute:
        return Rig::pointerAttributeOp(tableControl_, operation, result, argument,
                                       [this](const Rig::Ptr<Control> & control) { tableControlIs(control); });
      default:
        return Rig::attributeUnknown;
    }
  }

 private:
  void refuseInvalidKey(const Key & key) const {
    if constexpr (requires { key.validateEntryKey(); }) {
      const auto status = key.validateEntryKey();
      if (status.errorCode() != P4Runtime::ErrorCode::success) {
        throw Basalt::InvalidArgumentException(fmt::format("{}::tableIs() table:{} key:{} {}", table_.classType(),
                                                           table_.path(), valueToStrep(key), status.errorMsg()));
      }
    }
  }

  uint32_t tableOp(uint32_t operation, void * result, const void * argument) {
    switch (operation) {
      case 0:
        *static_cast<Entry *>(result) = lookup(*static_cast<const Key *>(argument)).first;
        return Rig::attributeDone;
      case 1:
        tableIs(*static_cast<const Entry *>(argument));
        return Rig::attributeDone;
      case 2:
        *static_cast<Entry *>(result) = tableDel(*static_cast<const Key *>(argument));
        return Rig::attributeDone;
      case 3:
        *static_cast<uint32_t *>(result) = table_.backend()->members();
        return Rig::attributeDone;
      case 4:
        *static_cast<uint32_t *>(result) = 0;
        return Rig::attributeDone;
      case 5:
        *static_cast<bool *>(result) = lookup(*static_cast<const Key *>(argument)).second;
        return Rig::attributeDone;
      default:
        return Rig::attributeNotAllowed;
    }
  }

  std::pair<Entry, bool> lookup(const Key & key) const {
    bool found = false;
    const Wrapper * value = table_.safeLookup(key, found);
    return {value->value, found};
  }

  // The collection lost its last outside reference: the control keeps it
  // while mounted, and the two must not keep each other alive.
  void handOverToControl(ZeroReferencesNotifiee & notifiee) {
    Rig::Ptr<Control> control = tableControl_;
    {
      const Rig::Ptr<Rig::Entity> reference(this);
      if (control) {
        control->entityRefIs(reference);
      }
    }
    if (control && !control->entityRef()) {
      // Not kept: this collection dies when handleZeroRef returns, and the
      // control, which others may hold, must forget it first.
      control->tableIs(nullptr);
      control_ = nullptr;
    }
    tableControl_ = nullptr;
    notifieeList().deleteMember(&notifiee);
  }

  uint64_t * tableIsCounter_;
  uint64_t * tableDelCounter_;
  uint64_t * tableNotifyCounter_;
  Rig::Ptr<ZeroReferencesNotifiee> zeroReferencesNotifiee_;
  Table table_;
  Rig::Ptr<Control> tableControl_;
  Control * control_ = nullptr;  // the same control, uncounted, for the status callbacks
  mutable Rig::NotifieeList notifieeList_;
  Wrapper removed_;  // receives what tableDel removes
};

}  // namespace TesselHwLib

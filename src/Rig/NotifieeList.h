#pragma once
// Rig::NotifieeList: the observers of one object. An object that announces
// changes holds one and visits it with the changed attribute's id and, for
// a keyed attribute, the key.
//
// Invariants:
// 1. The list holds a counted reference to each member; deleteMember and
//    deleteAll let go of it.
// 2. visit calls each member that is on the list when the visit starts and
//    still on it when its turn comes, in the order they were added: a member
//    may remove itself or others, or add members, from inside its callback;
//    a member added during a visit is called from the next visit on. A
//    visit allocates nothing: a collection visits at every write.
// 3. A member is on at most one list at a time, and its notifier() is the
//    owner of that list while it is on it: newMember takes it off the list
//    of its previous notifier.

#include <cstdint>
#include <vector>

#include "Rig/Ptr.h"

namespace Rig {

class NotifieeList {
 public:
  using Notifiee = PtrInterface::NotifieeConst;

  NotifieeList() = default;
  NotifieeList(const NotifieeList &) = delete;
  NotifieeList & operator=(const NotifieeList &) = delete;
  ~NotifieeList() { deleteAll(); }

  // Adds `notifiee` to the list of `owner`; a member already on it stays
  // where it is.
  void newMember(const PtrInterface * owner, Ptr<Notifiee> notifiee);
  void deleteMember(const Notifiee * notifiee);
  void deleteAll();
  void visit(uint32_t attributeId, const void * key) const;
  // Calls onZeroReferences of each member, under the rule of visit.
  void visitZeroReferences() const;

  size_t members() const;
  bool isMember(const Notifiee * notifiee) const;

 private:
  template <typename Call>
  void forEachMember(Call && call) const;

  // Mutable: a const visit may compact the places its members left.
  mutable std::vector<Ptr<Notifiee>> members_;
  mutable uint32_t visiting_ = 0;  // visits under way, nested ones included
  mutable bool holes_ = false;     // a member left during a visit
};

// What an object's notifieeList() returns: a kind (1 for a list, 0 for an
// object without one), the list, and two words reserved for other kinds.
struct NotifieeListPtr {
  uint32_t kind = 0;
  NotifieeList * list = nullptr;
  uint64_t reserved0 = 0;
  uint64_t reserved1 = 0;

  void deleteMember(const PtrInterface::NotifieeConst * notifiee) const {
    if (list != nullptr) {
      list->deleteMember(notifiee);
    }
  }
};

// Sets a counted attribute that the owner announces on its list, as every
// settable pointer attribute of the runtime does: a value equal to the one
// held changes nothing and tells nobody; the member given as its own new
// value only tells the observers again; any other value is counted up and
// stored, the old one counted down (handleZeroRef on its last reference),
// and the observers hear of the attribute with no key.
template <typename T>
void pointerIs(Ptr<T> & member, const Ptr<T> & value, const NotifieeList & list, uint32_t attributeId) {
  if (&value != &member) {
    if (value == member) {
      return;
    }
    member = value;
  }
  list.visit(attributeId, nullptr);
}

}  // namespace Rig

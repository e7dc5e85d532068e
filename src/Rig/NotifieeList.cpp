#include "Rig/NotifieeList.h"

#include <algorithm>

namespace Rig {

void NotifieeList::newMember(const PtrInterface * owner, Ptr<Notifiee> notifiee) {
  if (!notifiee || isMember(notifiee.ptr())) {
    return;
  }
  // Invariant 3: a member of another object's list leaves that one first.
  const PtrInterface * previous = notifiee->notifier();
  if (previous != nullptr && previous != owner) {
    previous->notifieeList().deleteMember(notifiee.ptr());
  }
  notifiee->notifierIs(owner);
  members_.push_back(std::move(notifiee));
}

void NotifieeList::deleteMember(const Notifiee * notifiee) {
  const auto found = std::find(members_.begin(), members_.end(), notifiee);
  if (found == members_.end()) {
    return;
  }
  // Out of the list first: the last reference may go with it, and the
  // notifiee's destructor must find the list consistent.
  Ptr<Notifiee> leaving = std::move(*found);
  members_.erase(found);
  leaving->notifierIs(nullptr);
}

void NotifieeList::deleteAll() {
  std::vector<Ptr<Notifiee>> leaving;
  leaving.swap(members_);
  for (const auto & member : leaving) {
    member->notifierIs(nullptr);
  }
}

bool NotifieeList::isMember(const Notifiee * notifiee) const {
  return std::find(members_.begin(), members_.end(), notifiee) != members_.end();
}

template <typename Call>
void NotifieeList::forEachMember(Call && call) const {
  // A snapshot of counted references: a member that leaves the list during
  // the visit stays alive until its turn has passed (invariant 2).
  const std::vector<Ptr<Notifiee>> snapshot = members_;
  for (const auto & member : snapshot) {
    if (isMember(member.ptr())) {
      call(*member);
    }
  }
}

void NotifieeList::visit(uint32_t attributeId, const void * key) const {
  forEachMember([&](Notifiee & member) { member.onAttribute(attributeId, key); });
}

void NotifieeList::visitZeroReferences() const {
  forEachMember([](Notifiee & member) { member.onZeroReferences(); });
}

}  // namespace Rig

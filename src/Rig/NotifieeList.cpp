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
  // notifiee's destructor must find the list consistent. During a visit the
  // place stays, empty, so that the visit's indices hold (invariant 2).
  Ptr<Notifiee> leaving = std::move(*found);
  if (visiting_ > 0) {
    holes_ = true;
  } else {
    members_.erase(found);
  }
  leaving->notifierIs(nullptr);
}

void NotifieeList::deleteAll() {
  std::vector<Ptr<Notifiee>> leaving;
  if (visiting_ > 0) {
    for (auto & member : members_) {
      leaving.push_back(std::move(member));
    }
    holes_ = true;
  } else {
    leaving.swap(members_);
  }
  for (const auto & member : leaving) {
    if (member) {
      member->notifierIs(nullptr);
    }
  }
}

bool NotifieeList::isMember(const Notifiee * notifiee) const {
  return notifiee != nullptr && std::find(members_.begin(), members_.end(), notifiee) != members_.end();
}

size_t NotifieeList::members() const {
  return holes_ ? static_cast<size_t>(std::count_if(members_.begin(), members_.end(),
                                                    [](const Ptr<Notifiee> & member) { return bool(member); }))
                : members_.size();
}

template <typename Call>
void NotifieeList::forEachMember(Call && call) const {
  // No copy of the list: members are visited by index, up to the count at
  // the start (members added meanwhile come after it), and a member that
  // leaves leaves an empty place until the outermost visit ends. The member
  // whose turn it is is held by a counted reference, so that it outlives its
  // own callback even if it leaves the list in it.
  struct Visit {
    const NotifieeList & list;
    explicit Visit(const NotifieeList & visited) : list(visited) { ++list.visiting_; }
    ~Visit() {
      if (--list.visiting_ == 0 && list.holes_) {
        std::erase_if(list.members_, [](const Ptr<Notifiee> & member) { return !member; });
        list.holes_ = false;
      }
    }
  } const visit(*this);
  const size_t count = members_.size();
  for (size_t index = 0; index < count; ++index) {
    const Ptr<Notifiee> member = members_[index];
    if (member) {
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

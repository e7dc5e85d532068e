#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Rig/Directory.h"
#include "Rig/Factory.h"
#include "RigArena/Util.h"

namespace {

Rig::Ptr<Rig::Directory> directory(const std::string & name) {
  return Rig::make<Rig::Directory>(Rig::Name(name));
}

// An entity that computes its full name whenever it is placed or orphaned,
// as a collection does to name its table.
class PathWatcher : public Rig::Entity {
 public:
  using Entity::Entity;
  void handleParent(Rig::Ptr<Rig::Entity> /*parent*/) override { paths.push_back(RigArena::Util::fullName(this)); }
  std::vector<std::string> paths;
};

}  // namespace

TEST(RigArenaFullName, AnEntityWithoutParentIsItsName) {
  const Rig::Ptr<Rig::Entity> entity = Rig::make<Rig::Entity>(Rig::Name("config"));
  EXPECT_EQ(RigArena::Util::fullName(entity.ptr()), "config");
}

TEST(RigArenaFullName, NestedEntitiesJoinTheirNamesFromTheRoot) {
  const Rig::Ptr<Rig::Directory> a = directory("a");
  const Rig::Ptr<Rig::Directory> b = directory("b");
  const Rig::Ptr<Rig::Entity> c = Rig::make<Rig::Entity>(Rig::Name("c"));
  a->entityIs(b);
  b->entityIs(c);
  EXPECT_EQ(RigArena::Util::fullName(c.ptr()), "a/b/c");
  EXPECT_EQ(RigArena::Util::fullName(b.ptr()), "a/b");
  EXPECT_EQ(RigArena::Util::fullName(a.ptr()), "a");
}

TEST(RigArenaFullName, ChildrenOfOneNameUnderDifferentParentsDiffer) {
  const Rig::Ptr<Rig::Directory> agent = directory("agent");
  const Rig::Ptr<Rig::Directory> l3 = directory("l3");
  const Rig::Ptr<Rig::Directory> tunnel = directory("tunnel");
  agent->entityIs(l3);
  agent->entityIs(tunnel);
  const Rig::Ptr<Rig::Entity> first = Rig::make<Rig::Entity>(Rig::Name("config"));
  const Rig::Ptr<Rig::Entity> second = Rig::make<Rig::Entity>(Rig::Name("config"));
  l3->entityIs(first);
  tunnel->entityIs(second);
  EXPECT_EQ(RigArena::Util::fullName(first.ptr()), "agent/l3/config");
  EXPECT_EQ(RigArena::Util::fullName(second.ptr()), "agent/tunnel/config");
}

TEST(RigArenaFullName, FollowsTheEntityThroughTheTree) {
  const Rig::Ptr<Rig::Directory> agent = directory("agent");
  const Rig::Ptr<Rig::Directory> l3 = directory("l3");
  agent->entityIs(l3);
  const Rig::Ptr<PathWatcher> table = Rig::make<PathWatcher>(Rig::Name("table"));
  l3->entityIs(table);
  l3->entityDel(Rig::Name("table"));
  agent->entityIs(table);
  agent->entityDel(Rig::Name("table"));
  EXPECT_EQ(table->paths, (std::vector<std::string>{"agent/l3/table", "table", "agent/table", "table"}));
}

TEST(RigArenaFullName, AnOrphanedSubtreeStartsAtItsOwnRoot) {
  const Rig::Ptr<Rig::Directory> agent = directory("agent");
  const Rig::Ptr<Rig::Directory> l3 = directory("l3");
  const Rig::Ptr<Rig::Entity> table = Rig::make<Rig::Entity>(Rig::Name("table"));
  agent->entityIs(l3);
  l3->entityIs(table);
  agent->entityDel(Rig::Name("l3"));
  EXPECT_EQ(RigArena::Util::fullName(table.ptr()), "l3/table");
}

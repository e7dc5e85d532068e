#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "Basalt/Exception.h"
#include "Rig/Directory.h"
#include "Rig/Entity.h"
#include "Rig/Factory.h"
#include "Support/TextTesting.h"

namespace {

// An entity that logs each handleParent it gets ("<name> -> <parent>" or
// "<name> -> none"), with what its parent had under its name at that moment.
class Child : public Rig::Entity {
 public:
  Child(Rig::Name name, std::vector<std::string> * log, int * deaths = nullptr)
      : Entity(std::move(name)), log_(log), deaths_(deaths) {}
  ~Child() override {
    if (deaths_ != nullptr) {
      ++*deaths_;
    }
  }

  void handleParent(Rig::Ptr<Rig::Entity> parent) override {
    if (!parent) {
      log_->push_back(name() + " -> none");
      return;
    }
    EXPECT_EQ(parent.ptr(), this->parent());
    auto * directory = dynamic_cast<Rig::Directory *>(parent.ptr());
    const bool placed = directory != nullptr && directory->entity(name()).ptr() == this;
    log_->push_back(name() + " -> " + parent->name() + (placed ? "" : " (not yet placed)"));
  }

 private:
  std::vector<std::string> * log_;
  int * deaths_;
};

using Strings = std::vector<std::string>;

class DirectoryTest : public ::testing::Test {
 protected:
  Rig::Ptr<Child> child(const std::string & name, int * deaths = nullptr) {
    return Rig::make<Child>(Rig::Name(name), &log_, deaths);
  }

  Strings log_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("root"));
};

}  // namespace

// Rig::Entity.

TEST(RigEntity, KeepsItsNameAndStartsWithoutParent) {
  const Rig::Ptr<Rig::Entity> entity = Rig::make<Rig::Entity>(Rig::Name("table"));
  EXPECT_EQ(entity->name(), "table");
  EXPECT_EQ(entity->parent(), nullptr);
  EXPECT_EQ(entity->fwkType(), nullptr);
}

TEST(RigEntity, ParentIsSetsTheLinkThenCallsHandleParent) {
  Strings log;
  const Rig::Ptr<Rig::Entity> parent = Rig::make<Rig::Entity>(Rig::Name("up"));
  const Rig::Ptr<Child> child = Rig::make<Child>(Rig::Name("down"), &log);
  child->parentIs(parent.ptr());
  EXPECT_EQ(child->parent(), parent.ptr());
  child->parentIs(nullptr);
  EXPECT_EQ(child->parent(), nullptr);
  EXPECT_EQ(log, (Strings{"down -> up (not yet placed)", "down -> none"}));
}

TEST(RigEntity, TheParentLinkIsNotCounted) {
  Strings log;
  const Rig::Ptr<Rig::Entity> parent = Rig::make<Rig::Entity>(Rig::Name("up"));
  const Rig::Ptr<Child> child = Rig::make<Child>(Rig::Name("down"), &log);
  child->parentIs(parent.ptr());
  EXPECT_EQ(parent->references(), 1u);
  EXPECT_EQ(child->references(), 1u);
}

// Rig::RigType and the names of compiled types.

TEST(RigType, TheEntityRecordIsTheRoot) {
  EXPECT_STREQ(Rig::Entity::_rigType.name, "Rig::Entity");
  EXPECT_EQ(Rig::Entity::_rigType.base, nullptr);
}

TEST(RigType, IsDerivedFollowsTheChainOfBases) {
  const Rig::RigType middle{"Test::Middle", &Rig::Entity::_rigType};
  const Rig::RigType leaf{"Test::Leaf", &middle};
  const Rig::RigType other{"Test::Other", &Rig::Entity::_rigType};
  EXPECT_TRUE(leaf.isDerived(&leaf));
  EXPECT_TRUE(leaf.isDerived(&middle));
  EXPECT_TRUE(leaf.isDerived(&Rig::Entity::_rigType));
  EXPECT_FALSE(middle.isDerived(&leaf));
  EXPECT_FALSE(leaf.isDerived(&other));
  EXPECT_FALSE(leaf.isDerived(nullptr));
}

TEST(RigType, DemangleGivesTheReadableName) {
  EXPECT_EQ(Rig::demangleStdString(typeid(Rig::Directory)), "Rig::Directory");
  EXPECT_EQ(Rig::demangleStdString(typeid(int)), "int");
  EXPECT_EQ(Rig::demangleStdString(typeid(Rig::Ptr<Rig::Entity>)), "Rig::Ptr<Rig::Entity>");
}

// Rig::Directory.

TEST_F(DirectoryTest, PlacingAChildMakesTheDirectoryItsParent) {
  const Rig::Ptr<Child> table = child("table");
  root_->entityIs(table);
  EXPECT_EQ(table->parent(), root_.ptr());
  EXPECT_EQ(root_->entity(Rig::Name("table")), table);
  EXPECT_EQ(root_->entities(), 1u);
  EXPECT_EQ(table->references(), 2u);
  // Placed before it is told: handleParent may look at the tree.
  EXPECT_EQ(log_, (Strings{"table -> root"}));
}

TEST_F(DirectoryTest, AChildOnlyTheDirectoryHoldsLives) {
  int deaths = 0;
  Rig::Ptr<Child> held = child("table", &deaths);
  Child * table = held.ptr();
  root_->entityIs(held);
  held = nullptr;
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(table->references(), 1u);
  EXPECT_EQ(root_->entity(Rig::Name("table")).ptr(), table);
  // Letting go of it there is its end (and happens while `deaths` lives).
  root_->entityDel(Rig::Name("table"));
  EXPECT_EQ(deaths, 1);
}

TEST_F(DirectoryTest, AnAbsentNameFindsNothing) {
  EXPECT_FALSE(root_->entity(Rig::Name("absent")));
  root_->entityDel(Rig::Name("absent"));
  EXPECT_EQ(root_->entities(), 0u);
}

TEST_F(DirectoryTest, AChildThatRefusesItsParentLeavesTheDirectoryAndTheChildAsTheyWere) {
  class Refuser : public Rig::Entity {
   public:
    using Rig::Entity::Entity;
    void handleParent(Rig::Ptr<Rig::Entity> parent) override {
      if (parent) {
        throw Basalt::InvalidInitializeException("refused");
      }
    }
  };
  const Rig::Ptr<Refuser> refuser = Rig::make<Refuser>(Rig::Name("refuser"));
  EXPECT_THROW(root_->entityIs(refuser), Basalt::InvalidInitializeException);
  EXPECT_EQ(refuser->parent(), nullptr);
  EXPECT_FALSE(root_->entity(Rig::Name("refuser")));
  EXPECT_EQ(root_->entities(), 0u);
  EXPECT_EQ(refuser->references(), 1u);
  EXPECT_EQ(root_->references(), 1u) << "the count taken for handleParent was given back";
}

TEST_F(DirectoryTest, RemovingAChildOrphansItAndLetsGo) {
  int deaths = 0;
  const Rig::Ptr<Child> kept = child("kept");
  root_->entityIs(kept);
  root_->entityIs(child("dropped", &deaths));
  root_->entityDel(Rig::Name("kept"));
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_FALSE(root_->entity(Rig::Name("kept")));
  root_->entityDel(Rig::Name("dropped"));
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(root_->entities(), 0u);
  EXPECT_EQ(log_, (Strings{"kept -> root", "dropped -> root", "kept -> none", "dropped -> none"}));
}

TEST_F(DirectoryTest, AChildIsOutOfTheTreeWhenToldItIsOrphaned) {
  class Checker : public Rig::Entity {
   public:
    Checker(Rig::Directory * directory, bool * found)
        : Entity(Rig::Name("checker")), directory_(directory), found_(found) {}
    void handleParent(Rig::Ptr<Rig::Entity> parent) override {
      if (!parent) {
        *found_ = static_cast<bool>(directory_->entity(name()));
      }
    }

   private:
    Rig::Directory * directory_;
    bool * found_;
  };
  bool found = true;
  root_->entityIs(Rig::make<Checker>(root_.ptr(), &found));
  root_->entityDel(Rig::Name("checker"));
  EXPECT_FALSE(found);
}

TEST_F(DirectoryTest, ADuplicateNameIsRefused) {
  const Rig::Ptr<Child> first = child("table");
  const Rig::Ptr<Child> second = child("table");
  root_->entityIs(first);
  const std::string message =
      RigTesting::messageOf<Basalt::InvalidInitializeException>([&] { root_->entityIs(second); });
  EXPECT_EQ(message, "Directory::entityIs() root already has an entity named table");
  EXPECT_EQ(second->parent(), nullptr);
  EXPECT_EQ(second->references(), 1u);
  EXPECT_EQ(root_->entity(Rig::Name("table")), first);
  EXPECT_EQ(log_, (Strings{"table -> root"}));
}

TEST_F(DirectoryTest, AChildWithAnotherParentIsRefused) {
  const Rig::Ptr<Rig::Directory> other = Rig::make<Rig::Directory>(Rig::Name("other"));
  const Rig::Ptr<Child> table = child("table");
  other->entityIs(table);
  const std::string message =
      RigTesting::messageOf<Basalt::InvalidInitializeException>([&] { root_->entityIs(table); });
  EXPECT_EQ(message, "Directory::entityIs() entity table already has a parent other");
  EXPECT_EQ(table->parent(), other.ptr());
  EXPECT_EQ(root_->entities(), 0u);
  EXPECT_EQ(table->references(), 2u);
  EXPECT_THROW(other->entityIs(table), Basalt::InvalidInitializeException);
  EXPECT_EQ(log_, (Strings{"table -> other"}));
}

TEST_F(DirectoryTest, AChildMovesByRemovalThenPlacement) {
  const Rig::Ptr<Rig::Directory> other = Rig::make<Rig::Directory>(Rig::Name("other"));
  const Rig::Ptr<Child> table = child("table");
  root_->entityIs(table);
  root_->entityDel(Rig::Name("table"));
  other->entityIs(table);
  EXPECT_EQ(table->parent(), other.ptr());
  EXPECT_EQ(log_, (Strings{"table -> root", "table -> none", "table -> other"}));
}

TEST_F(DirectoryTest, TheDirectorysEndOrphansItsChildren) {
  int deaths = 0;
  const Rig::Ptr<Child> kept = child("a");
  root_->entityIs(kept);
  root_->entityIs(child("b", &deaths));
  root_ = nullptr;
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(log_, (Strings{"a -> root", "b -> root", "a -> none", "b -> none"}));
}

TEST_F(DirectoryTest, DirectoriesNest) {
  const Rig::Ptr<Rig::Directory> middle = Rig::make<Rig::Directory>(Rig::Name("middle"));
  const Rig::Ptr<Child> leaf = child("leaf");
  root_->entityIs(middle);
  middle->entityIs(leaf);
  EXPECT_EQ(leaf->parent()->parent(), root_.ptr());
  root_ = nullptr;
  EXPECT_EQ(middle->parent(), nullptr);
  EXPECT_EQ(leaf->parent(), middle.ptr());
}

TEST_F(DirectoryTest, ADirectoryMayPlaceChildrenWhileNobodyHoldsItYet) {
  // A subtree built by its root's constructor: the root has no reference
  // yet when its children are told of it.
  struct Subtree : Rig::Directory {
    Subtree(Strings * log, int * deaths) : Directory(Rig::Name("subtree")), deaths_(deaths) {
      entityIs(Rig::make<Child>(Rig::Name("leaf"), log));
    }
    ~Subtree() override { ++*deaths_; }
    int * deaths_;
  };
  int deaths = 0;
  {
    const Rig::Ptr<Subtree> subtree = Rig::make<Subtree>(&log_, &deaths);
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(subtree->references(), 1u);
    EXPECT_EQ(subtree->entity(Rig::Name("leaf"))->parent(), subtree.ptr());
  }
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(log_, (Strings{"leaf -> subtree", "leaf -> none"}));
}

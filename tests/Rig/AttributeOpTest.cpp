#include <gtest/gtest.h>

#include "CountedTesting.h"
#include "Rig/AttributeOp.h"

namespace {

using RigTesting::Observed;

}  // namespace

TEST(RigPointerAttributeOp, OperationZeroReadsTheMember) {
  const Rig::Ptr<Observed> member(new Observed());
  Rig::Ptr<Observed> result;
  int sets = 0;
  const uint32_t status =
      Rig::pointerAttributeOp(member, 0, &result, nullptr, [&](const Rig::Ptr<Observed> &) { ++sets; });
  EXPECT_EQ(status, Rig::attributeDone);
  EXPECT_EQ(result, member);
  EXPECT_EQ(member->references(), 2u);
  EXPECT_EQ(sets, 0);
}

TEST(RigPointerAttributeOp, OperationOneSetsThroughTheSetter) {
  Rig::Ptr<Observed> member;
  const Rig::Ptr<Observed> argument(new Observed());
  const uint32_t status = Rig::pointerAttributeOp(member, 1, nullptr, &argument,
                                                  [&](const Rig::Ptr<Observed> & value) { member = value; });
  EXPECT_EQ(status, Rig::attributeDone);
  EXPECT_EQ(member, argument);
}

TEST(RigPointerAttributeOp, AnyOtherOperationIsNotAllowedAndTouchesNothing) {
  const Rig::Ptr<Observed> member(new Observed());
  Rig::Ptr<Observed> result;
  int sets = 0;
  for (const uint32_t operation : {2u, 3u, 5u, 0xffffffffu}) {
    EXPECT_EQ(Rig::pointerAttributeOp(member, operation, &result, &member, [&](const Rig::Ptr<Observed> &) { ++sets; }),
              Rig::attributeNotAllowed)
        << operation;
  }
  EXPECT_FALSE(result);
  EXPECT_EQ(sets, 0);
}

TEST(RigAttributeStatus, HasItsFixedNumbers) {
  EXPECT_EQ(Rig::attributeDone, 0u);
  EXPECT_EQ(Rig::attributeNotAllowed, 1u);
  EXPECT_EQ(Rig::attributeUnknown, 2u);
}

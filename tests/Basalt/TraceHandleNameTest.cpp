#include <gtest/gtest.h>

#include "Basalt/TraceHandleName.h"

namespace {

using Basalt::Util::TraceHandleLeaf;
using Basalt::Util::traceHandleName;

TEST(TraceHandleName, JoinsTheComponentsWithDots) {
  std::string name;
  EXPECT_EQ(traceHandleName("/agent/l3/table", &name, 0), "agent.l3.table");
  EXPECT_EQ(name, "agent.l3.table");
  EXPECT_EQ(traceHandleName("agent/table", &name, 0), "agent.table");
}

TEST(TraceHandleName, DropsEmptyComponents) {
  std::string name;
  EXPECT_EQ(traceHandleName("//agent///table/", &name, 0), "agent.table");
}

TEST(TraceHandleName, LeafKeepsTheLastComponent) {
  std::string name;
  EXPECT_EQ(traceHandleName("/agent/l3/table", &name, TraceHandleLeaf), "table");
  EXPECT_EQ(traceHandleName("table/", &name, TraceHandleLeaf), "table");
}

TEST(TraceHandleName, PathWithoutComponentIsCairn) {
  std::string name = "left over";
  EXPECT_EQ(traceHandleName("", &name, 0), "Cairn");
  EXPECT_EQ(traceHandleName("///", &name, TraceHandleLeaf), "Cairn");
}

}  // namespace

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Basalt/DebugHandlerRegistry.h"

namespace {

using Basalt::Platform::getDebugHandler;

TEST(DebugHandlerRegistry, OneHandlerPerNameShared) {
  auto first = getDebugHandler("registry.test.a");
  auto second = getDebugHandler("registry.test.a");
  auto other = getDebugHandler("registry.test.b");
  EXPECT_EQ(first.get(), second.get());
  EXPECT_NE(first.get(), other.get());
  EXPECT_EQ(first->name(), "registry.test.a");
  EXPECT_EQ(other->name(), "registry.test.b");
}

TEST(DebugHandlerRegistry, NewHandlerTakesTheDefaultMask) {
  EXPECT_EQ(getDebugHandler("registry.test.fresh")->mask(), Basalt::Platform::DebugHandler::defaultMask());
}

TEST(DebugHandlerRegistry, MaskSetOnANameReachesEveryHolderAndOutlivesThem) {
  {
    auto holder = getDebugHandler("registry.test.mask");
    holder->levelIs(5, true);
  }
  // Every holder is gone, and the handler with its mask is still the name's.
  EXPECT_TRUE(getDebugHandler("registry.test.mask")->enabled(5));
}

TEST(DebugHandlerRegistry, ThreadsAskingForOneNameGetOneHandler) {
  std::vector<Basalt::Platform::DebugHandler *> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = getDebugHandler("registry.test.threads").get(); });
  }
  for (auto & thread : threads) {
    thread.join();
  }
  for (auto * handler : seen) {
    EXPECT_EQ(handler, seen.front());
  }
}

}  // namespace

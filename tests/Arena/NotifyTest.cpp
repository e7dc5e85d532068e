#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Arena/Notify.h"

namespace {

struct Key {
  int number = 0;
};
struct Value {
  int number = 0;
};
using Notify = Arena::Notify<Key, Value>;

struct Log {
  std::vector<std::string> calls;
  Notify notify() {
    return Notify([this](const Value & value) { calls.push_back("value:" + std::to_string(value.number)); },
                  [this](const Key & key) { calls.push_back("key:" + std::to_string(key.number)); },
                  [this](const Key & key) { calls.push_back("delete:" + std::to_string(key.number)); },
                  [this] { calls.push_back("mountStatus"); },
                  [this](bool quiesced) { calls.push_back(quiesced ? "quiesced" : "busy"); });
  }
  void callAll(const Notify & notify) {
    notify.valueCallback()(Value{1});
    notify.keyCallback()(Key{2});
    notify.deleteCallback()(Key{3});
    notify.mountStatusCallback()();
    notify.quiescedCallback()(true);
    notify.savedValueCallback()(Value{4});
    notify.savedKeyCallback()(Key{5});
    notify.savedDeleteCallback()(Key{6});
  }
};

TEST(Notify, DefaultCallbacksDoNothingAndKeyNotificationsAreOn) {
  Notify notify;
  Log log;
  log.callAll(notify);  // every one callable
  EXPECT_TRUE(log.calls.empty());
  EXPECT_TRUE(notify.keyNotifications());
}

TEST(Notify, EmptyFunctionObjectsGivenBecomeNoOps) {
  Notify notify{Notify::ValueCallback(), Notify::KeyCallback(), Notify::KeyCallback(),
                Notify::MountStatusCallback(), Notify::QuiescedCallback()};
  EXPECT_TRUE(static_cast<bool>(notify.valueCallback()));
  EXPECT_TRUE(static_cast<bool>(notify.quiescedCallback()));
  EXPECT_TRUE(static_cast<bool>(notify.savedKeyCallback()));
  Log().callAll(notify);
}

TEST(Notify, GivenCallbacksAreActiveAndTheSavedOnesSilent) {
  Log log;
  Notify notify = log.notify();
  log.callAll(notify);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"value:1", "key:2", "delete:3", "mountStatus", "quiesced"}));
}

TEST(Notify, SuppressMovesTheThreeEntryCallbacksAside) {
  Log log;
  Notify notify = log.notify();
  notify.suppressKeyNotifications();
  EXPECT_FALSE(notify.keyNotifications());
  log.callAll(notify);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"mountStatus", "quiesced", "value:4", "key:5", "delete:6"}));
}

TEST(Notify, SuppressTwiceChangesNothingTheSecondTime) {
  Log log;
  Notify notify = log.notify();
  notify.suppressKeyNotifications();
  notify.suppressKeyNotifications();
  EXPECT_FALSE(notify.keyNotifications());
  log.callAll(notify);
  // The saved places still hold the real callbacks, not the no-ops of the first suppression.
  EXPECT_EQ(log.calls, (std::vector<std::string>{"mountStatus", "quiesced", "value:4", "key:5", "delete:6"}));
}

}  // namespace

#include "tarnwell/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

class NotificationCenterTest : public testing::EnvironmentTest {
 protected:
  NotificationCenter& center() { return NotificationCenter::defaultCenter(); }
};

TEST_F(NotificationCenterTest, AnObserverWithoutQueueIsCalledOnThePostingThread) {
  std::thread::id called;
  auto token = center().addObserver("Test.ping", nullptr, [&](const Notification& n) {
    EXPECT_EQ(n.name, "Test.ping");
    called = std::this_thread::get_id();
  });
  std::thread::id poster;
  std::thread([&] {
    poster = std::this_thread::get_id();
    center().post("Test.ping");
  }).join();
  EXPECT_EQ(called, poster);
}

TEST_F(NotificationCenterTest, AnObserverWithAQueueIsCalledThereLater) {
  int calls = 0;
  auto token = center().addObserver("Test.ping", &DispatchQueue::main(), [&](const Notification& n) {
    EXPECT_EQ(std::any_cast<int>(n.userInfo.at("count")), 3);
    ++calls;
  });
  center().post(Notification{"Test.ping", {}, {{"count", 3}}});
  center().post("Test.other");
  EXPECT_EQ(calls, 0);
  env.pump();
  EXPECT_EQ(calls, 1);
}

TEST_F(NotificationCenterTest, ATokenThatGoesAwayUnregisters) {
  int calls = 0;
  {
    auto token = center().addObserver("Test.ping", nullptr, [&](const Notification&) { ++calls; });
    EXPECT_EQ(center().observerCount("Test.ping"), 1u);
    NotificationToken moved = std::move(token);
    center().post("Test.ping");
  }
  EXPECT_EQ(center().observerCount("Test.ping"), 0u);
  center().post("Test.ping");
  EXPECT_EQ(calls, 1);
}

TEST_F(NotificationCenterTest, RemovalWinsOverAQueuedDelivery) {
  int calls = 0;
  auto token = center().addObserver("Test.ping", &DispatchQueue::main(), [&](const Notification&) { ++calls; });
  center().post("Test.ping");
  token.invalidate();
  env.pump();
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace tarnwell

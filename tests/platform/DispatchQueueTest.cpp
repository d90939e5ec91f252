#include "tarnwell/platform/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Timer.h"

namespace tarnwell {
namespace {

using testing::EnvironmentTest;

class MainQueueTest : public EnvironmentTest {
 protected:
  DispatchQueue& main() { return DispatchQueue::main(); }
  std::vector<int> order;
};

TEST_F(MainQueueTest, NothingRunsUntilPumpedThenInOrder) {
  main().async([this] { order.push_back(1); });
  main().async([this] {
    order.push_back(2);
    main().async([this] { order.push_back(4); });  // enqueued while pumping: runs in the same pump
  });
  main().async([this] { order.push_back(3); });
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(env.pump(), 4u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(MainQueueTest, DeadlinesFollowTheManualClock) {
  main().asyncAfter(0.1, [this] { order.push_back(100); });
  main().asyncAfter(0.05, [this] { order.push_back(50); });
  EXPECT_EQ(env.pump(), 0u);
  env.clock().advance(0.0499);
  EXPECT_EQ(env.pump(), 0u);
  env.clock().advance(0.0001);
  EXPECT_EQ(env.pump(), 1u);
  EXPECT_EQ(main().nextDeadline(), testing::defaultTestNow() + 0.1);
  env.advance(1);
  EXPECT_EQ(order, (std::vector<int>{50, 100}));
  EXPECT_NEAR(env.clock().now() - testing::defaultTestNow(), 1.05, 1e-6);
}

TEST_F(MainQueueTest, RunUntilStopsTheClockAtEachDeadlineInTurn) {
  std::vector<Date> seen;
  for (double delay : {3.0, 1.0, 2.0}) main().asyncAfter(delay, [&] { seen.push_back(Date::now()); });
  env.advance(10);
  const Date start = testing::defaultTestNow();
  EXPECT_EQ(seen, (std::vector<Date>{start + 1.0, start + 2.0, start + 3.0}));
}

TEST_F(MainQueueTest, CancelledItemsAndInvalidatedTimersNeverRun) {
  auto item = std::make_shared<DispatchWorkItem>([this] { order.push_back(1); });
  main().async(item);
  item->cancel();
  auto timer = Timer::scheduled(0.5, [this] { order.push_back(2); });
  auto kept = Timer::scheduled(0.5, [this] { order.push_back(3); });
  EXPECT_TRUE(timer->isValid());
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  env.advance(1);
  EXPECT_EQ(order, std::vector<int>{3});
  EXPECT_FALSE(kept->isValid());
}

TEST_F(MainQueueTest, TheMainThreadIsOnTheMainQueue) {
  EXPECT_EQ(DispatchQueue::current(), &main());
  EXPECT_TRUE(env.environment().isMainThread());
  DispatchQueue background("test.background");
  std::atomic<bool> onMain{true};
  background.async([&] { onMain = Environment::current().isMainThread(); });
  background.sync([] {});
  EXPECT_FALSE(onMain);
  // Idle: like the platform's, the block may run on the caller's thread, as the background queue.
  EXPECT_EQ(background.sync([] { return DispatchQueue::current()->label(); }), "test.background");
}

TEST(DispatchQueueDeathTest, SyncOntoTheRunningQueueStopsTheProcess) {
  testing::TestEnvironment env;
  EXPECT_DEATH(DispatchQueue::main().sync([] {}), "would never return");
}

class BackgroundQueueTest : public EnvironmentTest {};

TEST_F(BackgroundQueueTest, SyncReturnsTheResultOrTheException) {
  DispatchQueue queue("test.queue");
  EXPECT_EQ(queue.sync([] { return 42; }), 42);
  EXPECT_EQ(queue.sync([] { return DispatchQueue::current()->label(); }), "test.queue");
  EXPECT_THROW(queue.sync([]() -> int { throw std::out_of_range("no"); }), std::out_of_range);
}

TEST_F(BackgroundQueueTest, SpecificValuesBelongToTheRunningQueue) {
  static const DispatchSpecificKey<std::string> key;
  DispatchQueue queue("test.specific");
  queue.setSpecific(key, std::string("test.specific"));
  EXPECT_EQ(queue.sync([] { return DispatchQueue::getSpecific(key); }), "test.specific");
  EXPECT_FALSE(DispatchQueue::getSpecific(key));
  DispatchQueue other("test.other");
  EXPECT_FALSE(other.sync([] { return DispatchQueue::getSpecific(key); }));
}

TEST_F(BackgroundQueueTest, TimedBlocksWaitForTheManualClock) {
  DispatchQueue queue("test.timed");
  std::atomic<int> ran{0};
  queue.asyncAfter(60.0, [&] { ++ran; });
  queue.sync([] {});
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(queue.pendingCount(), 1u);
  env.clock().advance(60);
  // The clock wakes the queue; a later block is behind the timed one.
  queue.sync([] {});
  EXPECT_EQ(ran, 1);
}

TEST_F(BackgroundQueueTest, ASerialQueueRunsOneBlockAtATime) {
  DispatchQueue queue("test.serial");
  int counter = 0;  // unguarded on purpose: only the queue touches it
  std::atomic<int> running{0}, overlaps{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        queue.async([&] {
          if (running.fetch_add(1) != 0) ++overlaps;
          ++counter;
          running.fetch_sub(1);
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  EXPECT_EQ(queue.sync([&] { return counter; }), 2000);
  EXPECT_EQ(overlaps, 0);
}

TEST_F(BackgroundQueueTest, BlocksDueAtDestructionStillRun) {
  std::atomic<int> ran{0};
  {
    DispatchQueue queue("test.closing");
    for (int i = 0; i < 100; ++i) queue.async([&] { ++ran; });
    queue.asyncAfter(3600.0, [&] { ran += 1000; });
  }
  EXPECT_EQ(ran, 100);
}

}  // namespace
}  // namespace tarnwell

#include "tarnwell/platform/Promise.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

class PromiseTest : public testing::EnvironmentTest {
 protected:
  std::string rejectionText(std::exception_ptr error) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      return e.what();
    }
  }
};

TEST_F(PromiseTest, HandlersRunOnTheMainQueueNeverOnTheSettlingStack) {
  auto [promise, resolver] = Promise<int>::pending();
  std::optional<std::string> seen;
  promise.map([](int value) { return std::to_string(value * 2); }).done([&](std::string text) { seen = text; });
  resolver.fulfill(21);
  EXPECT_FALSE(seen);
  env.pump();
  EXPECT_EQ(seen, "42");
}

TEST_F(PromiseTest, ThenWaitsForTheNextPromise) {
  auto [inner, innerResolver] = Promise<std::string>::pending();
  std::optional<std::size_t> length;
  Promise<int>::fulfilled(1).then([inner = inner](int) { return inner; }).done([&](std::string s) {
    length = s.size();
  });
  env.pump();
  EXPECT_FALSE(length);
  innerResolver.fulfill("four");
  env.pump();
  EXPECT_EQ(length, 4u);
}

TEST_F(PromiseTest, ARejectionSkipsToTheHandlerAndEnsureRunsEitherWay) {
  int mapped = 0, ensured = 0;
  std::string caught;
  Promise<int>::rejected(std::make_exception_ptr(std::runtime_error("denied")))
      .map([&](int v) { return ++mapped + v; })
      .ensure([&] { ++ensured; })
      .catchError([&](std::exception_ptr e) { caught = rejectionText(e); });
  env.pump();
  EXPECT_EQ(mapped, 0);
  EXPECT_EQ(ensured, 1);
  EXPECT_EQ(caught, "denied");
}

TEST_F(PromiseTest, AThrowInAStepRejectsTheRest) {
  std::string caught;
  Promise<void>::fulfilled()
      .map([]() -> int { throw std::invalid_argument("bad step"); })
      .catchError([&](std::exception_ptr e) { caught = rejectionText(e); });
  env.pump();
  EXPECT_EQ(caught, "bad step");
}

TEST_F(PromiseTest, RecoverReplacesARejection) {
  std::optional<int> value;
  Promise<int>::rejected(std::make_exception_ptr(std::runtime_error("x")))
      .recover([](std::exception_ptr) { return Promise<int>::fulfilled(7); })
      .done([&](int v) { value = v; });
  env.pump();
  EXPECT_EQ(value, 7);
}

TEST_F(PromiseTest, TheFirstSettlementWins) {
  auto [promise, resolver] = Promise<int>::pending();
  resolver.fulfill(1);
  resolver.reject(std::runtime_error("late"));
  resolver.fulfill(2);
  EXPECT_EQ(promise.value(), 1);
  EXPECT_FALSE(promise.error());
}

TEST_F(PromiseTest, APromiseMayStayPendingForGood) {
  auto [promise, resolver] = Promise<void>::pending();
  bool done = false;
  promise.done([&] { done = true; });
  env.advance(3600);
  EXPECT_TRUE(promise.isPending());
  EXPECT_FALSE(done);
}

TEST_F(PromiseTest, WhenFulfilledKeepsTheOrderOfItsPromises) {
  auto [first, firstResolver] = Promise<int>::pending();
  auto [second, secondResolver] = Promise<int>::pending();
  auto all = whenFulfilled(std::vector<Promise<int>>{first, second});
  secondResolver.fulfill(2);
  EXPECT_TRUE(all.isPending());
  firstResolver.fulfill(1);
  EXPECT_EQ(all.value(), (std::vector<int>{1, 2}));

  auto rejected = whenFulfilled(std::vector<Promise<void>>{
      Promise<void>::fulfilled(), Promise<void>::rejected(std::make_exception_ptr(std::runtime_error("one")))});
  EXPECT_TRUE(rejected.isRejected());
  EXPECT_TRUE(whenFulfilled(std::vector<Promise<int>>{}).isFulfilled());
}

TEST_F(PromiseTest, StepsRunOnTheQueueTheyAreGiven) {
  DispatchQueue queue("test.promise");
  auto label = Promise<int>::fulfilled(1).map(queue, [](int) { return DispatchQueue::current()->label(); });
  // Settled on another thread; wait through the queue itself, not by sleeping.
  queue.sync([] {});
  EXPECT_EQ(label.value(), "test.promise");
}

TEST_F(PromiseTest, GuaranteesChainWithoutFailure) {
  auto [guarantee, fulfil] = Guarantee<int>::pending();
  std::optional<int> seen;
  guarantee.map([](int v) { return v + 1; }).done([&](int v) { seen = v; });
  std::thread([fulfil = fulfil] { fulfil(41); }).join();
  env.pump();
  EXPECT_EQ(seen, 42);
}

}  // namespace
}  // namespace tarnwell

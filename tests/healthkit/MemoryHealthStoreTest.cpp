#include "tarnwell/healthkit/MemoryHealthStore.h"

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {
namespace {

using Code = HKError::Code;
constexpr auto kSleep = HKSampleType::sleepAnalysis;
constexpr auto kMindful = HKSampleType::mindfulSession;
constexpr auto kMood = HKSampleType::stateOfMind;

struct Outcome {
  bool called = false;
  bool success = false;
  std::optional<Code> error;  // absent: no error
};

std::optional<Code> codeOf(const std::exception_ptr& error) {
  if (!error) return std::nullopt;
  try {
    std::rethrow_exception(error);
  } catch (const HKError& failure) {
    return failure.code();
  }
}

Date at(double hours) { return testing::defaultTestNow() + hours * 3600; }

HKSample sleep(double fromHour, double toHour, HKMetadata metadata = nullptr) {
  return HKSample::category(kSleep, 1, at(fromHour), at(toHour), std::move(metadata));
}

class MemoryHealthStoreTest : public testing::EnvironmentTest {
 protected:
  Outcome run(const std::function<void(HKHealthStore::Completion)>& operation) {
    Outcome outcome;
    operation([&outcome](bool success, std::exception_ptr error) { outcome = {true, success, codeOf(error)}; });
    EXPECT_FALSE(outcome.called) << "a completion ran on the caller's stack";
    env.pump();
    EXPECT_TRUE(outcome.called);
    return outcome;
  }
  Outcome authorize(HKHealthStore& on, std::set<HKSampleType> share, std::set<HKSampleType> read = {}) {
    return run([&](auto done) { on.requestAuthorization(share, read, done); });
  }
  Outcome save(HKHealthStore& on, HKSample sample) {
    return run([&](auto done) { on.save(std::move(sample), done); });
  }
  Outcome remove(HKHealthStore& on, std::vector<HKSample> samples) {
    return run([&](auto done) { on.deleteObjects(std::move(samples), done); });
  }
  // The samples, or the error code as a failure.
  std::pair<std::optional<std::vector<HKSample>>, std::optional<Code>> query(
      HKHealthStore& on, HKSampleType type, std::optional<HKQueryPredicate> predicate = std::nullopt,
      std::size_t limit = HKSampleQuery::kNoLimit, std::vector<HKSortDescriptor> sort = {}) {
    std::pair<std::optional<std::vector<HKSample>>, std::optional<Code>> answer;
    bool called = false;
    on.execute(std::make_shared<HKSampleQuery>(type, std::move(predicate), limit, std::move(sort),
                                               [&](auto samples, std::exception_ptr error) {
                                                 answer = {std::move(samples), codeOf(error)};
                                                 called = true;
                                               }));
    env.pump();
    EXPECT_TRUE(called);
    return answer;
  }
  std::vector<double> startHours(const std::vector<HKSample>& samples) {
    std::vector<double> hours;
    for (const auto& sample : samples) hours.push_back((sample.startDate - at(0)) / 3600);
    return hours;
  }

  MemoryHealthStore store;
  std::shared_ptr<MemoryHealthStore> sleepApp = store.application({"Sleep App", "com.example.sleep"});
};

TEST_F(MemoryHealthStoreTest, AnswersChangeStatusesAsTheUserSaid) {
  EXPECT_EQ(store.authorizationStatus(kSleep), HKAuthorizationStatus::notDetermined);
  EXPECT_EQ(authorize(store, {kSleep}).success, true);
  EXPECT_EQ(store.authorizationStatus(kSleep), HKAuthorizationStatus::sharingAuthorized);

  store.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::silent);
  const Outcome silent = authorize(store, {kMindful});
  EXPECT_FALSE(silent.success);
  EXPECT_FALSE(silent.error);
  EXPECT_EQ(store.authorizationStatus(kMindful), HKAuthorizationStatus::notDetermined);

  store.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::error);
  EXPECT_EQ(authorize(store, {kMindful}).error, Code::databaseInaccessible);
  EXPECT_EQ(store.authorizationStatus(kMindful), HKAuthorizationStatus::notDetermined);

  store.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::deny);
  const Outcome denied = authorize(store, {kMindful});
  EXPECT_TRUE(denied.success);
  EXPECT_EQ(store.authorizationStatus(kMindful), HKAuthorizationStatus::sharingDenied);

  EXPECT_EQ(authorize(store, {}, {}).error, Code::invalidArgument);
  EXPECT_EQ(run([&](auto done) { store.requestAuthorization(std::nullopt, std::nullopt, done); }).error,
            Code::invalidArgument);
}

TEST_F(MemoryHealthStoreTest, MixedAnswersErrorBeatsSilenceWhichBeatsTheRest) {
  store.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::deny);
  EXPECT_TRUE(authorize(store, {kSleep, kMindful}).success);
  EXPECT_EQ(store.authorizationStatus(kSleep), HKAuthorizationStatus::sharingAuthorized);
  EXPECT_EQ(store.authorizationStatus(kMindful), HKAuthorizationStatus::sharingDenied);

  store.setAuthorizationAnswer(kSleep, HKAuthorizationAnswer::silent);
  store.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::grant);
  const Outcome silent = authorize(store, {kSleep, kMindful});
  EXPECT_FALSE(silent.success || silent.error);
  EXPECT_EQ(store.authorizationStatus(kMindful), HKAuthorizationStatus::sharingDenied) << "silence changes nothing";

  store.setAuthorizationAnswer(kMood, HKAuthorizationAnswer::error);
  EXPECT_EQ(authorize(store, {kSleep}, {kMood}).error, Code::databaseInaccessible);
}

TEST_F(MemoryHealthStoreTest, SavingNeedsSharingAndStampsUuidAndSource) {
  EXPECT_EQ(save(store, sleep(0, 1)).error, Code::authorizationNotDetermined);
  store.setAuthorizationAnswer(kSleep, HKAuthorizationAnswer::deny);
  authorize(store, {kSleep});
  EXPECT_EQ(save(store, sleep(0, 1)).error, Code::authorizationDenied);
  authorize(store, {}, {kSleep});  // reading is no licence to write
  EXPECT_EQ(save(store, sleep(0, 1)).error, Code::authorizationDenied);

  authorize(*sleepApp, {kSleep});
  EXPECT_TRUE(save(*sleepApp, sleep(0, 1)).success);
  EXPECT_EQ(save(*sleepApp, sleep(2, 1)).error, Code::invalidArgument) << "ends before it starts";
  HKSample wrongValue = sleep(0, 1);
  wrongValue.stateOfMind = HKStateOfMind{};
  EXPECT_EQ(save(*sleepApp, wrongValue).error, Code::invalidArgument);
  for (const std::int64_t undefined : {std::int64_t{-1}, std::int64_t{6}, std::int64_t{99}}) {
    EXPECT_EQ(save(*sleepApp, HKSample::category(kSleep, undefined, at(0), at(1))).error, Code::invalidArgument)
        << undefined;
  }

  const auto all = store.allSamples();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_TRUE(isUpperCaseUUIDString(all[0].uuid));
  EXPECT_EQ(all[0].source, (HKSource{"Sleep App", "com.example.sleep"}));
}

TEST_F(MemoryHealthStoreTest, OthersSamplesNeedReadingGranted) {
  authorize(*sleepApp, {kSleep});
  save(*sleepApp, sleep(0, 8));
  store.setAuthorizationAnswer(kSleep, HKAuthorizationAnswer::deny);
  authorize(store, {}, {kSleep});
  store.setAuthorizationAnswer(kSleep, HKAuthorizationAnswer::grant);
  authorize(store, {kSleep});
  save(store, sleep(1, 7));

  const auto denied = query(store, kSleep);
  EXPECT_FALSE(denied.second);
  EXPECT_EQ(startHours(*denied.first), (std::vector<double>{1})) << "only the own sample, and no error";

  authorize(store, {}, {kSleep});
  EXPECT_EQ(startHours(*query(store, kSleep).first), (std::vector<double>{0, 1}));
}

TEST_F(MemoryHealthStoreTest, PredicatesSortsAndLimits) {
  authorize(store, {kSleep});
  for (const auto& [from, to] : std::vector<std::pair<double, double>>{{4, 5}, {1, 2}, {3, 4}, {2, 3}, {1, 6}}) {
    save(store, sleep(from, to, {{"night", from}}));
  }
  // Ending exactly at the span's start overlaps it; starting exactly at its end does not.
  const auto span = HKQueryPredicate::forSamples(at(2), at(3));
  EXPECT_EQ(startHours(*query(store, kSleep, span).first), (std::vector<double>{1, 2, 1}));
  EXPECT_EQ(startHours(*query(store, kSleep, HKQueryPredicate::forSamples(std::nullopt, at(2))).first),
            (std::vector<double>{1, 1}));
  EXPECT_EQ(startHours(*query(store, kSleep, HKQueryPredicate::forSamples(at(5), std::nullopt)).first),
            (std::vector<double>{4, 1}));

  // Ties keep insertion order, reversed when the first key is descending.
  const std::vector<HKSortDescriptor> newestFirst{{HKSortKey::startDate, false}};
  const auto newest = *query(store, kSleep, std::nullopt, 0, newestFirst).first;
  EXPECT_EQ(startHours(newest), (std::vector<double>{4, 3, 2, 1, 1}));
  EXPECT_EQ(newest[3].endDate, at(6));
  EXPECT_EQ(query(store, kSleep, std::nullopt, 0, {{HKSortKey::startDate, true}}).first->at(0).endDate, at(2));
  const auto byEnd = *query(store, kSleep, std::nullopt, 3, {{HKSortKey::endDate, true}}).first;
  EXPECT_EQ(startHours(byEnd), (std::vector<double>{1, 2, 3}));
  EXPECT_EQ(byEnd[0].endDate, at(2));

  // Metadata values compare as JSON: the number 3 is not the text "3".
  EXPECT_EQ(startHours(*query(store, kSleep, HKQueryPredicate::forObjects("night", {3, 4.0})).first),
            (std::vector<double>{4, 3}));
  EXPECT_TRUE(query(store, kSleep, HKQueryPredicate::forObjects("night", {"3", true})).first->empty());
  EXPECT_TRUE(query(store, kSleep, HKQueryPredicate::forObjects("day", {3})).first->empty());
}

TEST_F(MemoryHealthStoreTest, DeletingIsOwnSamplesOnlyAndAllOrNothing) {
  authorize(store, {kSleep});
  authorize(*sleepApp, {kSleep});
  save(store, sleep(0, 1));
  save(*sleepApp, sleep(2, 3));
  const auto mine = *query(store, kSleep, HKQueryPredicate::forSamples(std::nullopt, at(1))).first;
  auto both = store.allSamples();

  EXPECT_EQ(remove(store, both).error, Code::authorizationDenied);
  EXPECT_EQ(store.allSamples().size(), 2u);
  EXPECT_TRUE(remove(store, {}).success);
  EXPECT_TRUE(remove(store, mine).success);
  EXPECT_TRUE(remove(store, mine).success) << "already gone is no error";
  EXPECT_EQ(store.allSamples().size(), 1u);
  store.setAuthorizationAnswer(kSleep, HKAuthorizationAnswer::deny);
  authorize(store, {kSleep});
  EXPECT_EQ(remove(store, mine).error, Code::authorizationDenied);
}

TEST_F(MemoryHealthStoreTest, ScriptedFailuresComeInOrderThenStop) {
  authorize(store, {kSleep, kMindful});
  store.failNext(HKOperation::save, kSleep, 2, true);
  store.failNext(HKOperation::save, kSleep, 1, false);
  EXPECT_EQ(save(store, sleep(0, 1)).error, Code::databaseInaccessible);
  EXPECT_EQ(save(store, sleep(0, 1)).error, Code::databaseInaccessible);
  const Outcome plain = save(store, sleep(0, 1));
  EXPECT_FALSE(plain.success || plain.error);
  EXPECT_TRUE(save(store, sleep(0, 1)).success);
  EXPECT_TRUE(save(store, HKSample::category(kMindful, 0, at(0), at(1))).success) << "other types are not scripted";

  store.failNext(HKOperation::query, kSleep, 1, false);
  store.failNext(HKOperation::query, kSleep, 1, true);
  const auto plainQuery = query(store, kSleep);
  EXPECT_FALSE(plainQuery.first || plainQuery.second);
  EXPECT_EQ(query(store, kSleep).second, Code::databaseInaccessible);

  store.failNext(HKOperation::deleteObjects, kSleep);
  EXPECT_EQ(remove(store, store.allSamples()).error, Code::databaseInaccessible);
  EXPECT_EQ(store.allSamples().size(), 2u);
}

TEST_F(MemoryHealthStoreTest, ObserversHearEveryApplicationUntilStopped) {
  int calls = 0;
  auto observer = std::make_shared<HKObserverQuery>(kSleep, std::nullopt, [&](auto&, auto, std::exception_ptr error) {
    EXPECT_FALSE(error);
    ++calls;  // never completes: later changes must come all the same
  });
  int mindfulCalls = 0;
  store.execute(observer);
  store.execute(std::make_shared<HKObserverQuery>(kMindful, std::nullopt, [&](auto&, auto done, auto) {
    ++mindfulCalls;
    done();
  }));
  EXPECT_EQ(calls, 0);
  env.pump();
  EXPECT_EQ(calls, 1);

  authorize(*sleepApp, {kSleep, kMindful});
  save(*sleepApp, sleep(0, 1));
  EXPECT_EQ(calls, 2);
  save(*sleepApp, HKSample::category(kMindful, 0, at(0), at(1)));
  EXPECT_EQ(calls, 2) << "another type";
  remove(*sleepApp, store.allSamples());
  EXPECT_EQ(calls, 3);
  remove(*sleepApp, {sleep(0, 1)});
  EXPECT_EQ(calls, 3) << "nothing was deleted";

  EXPECT_EQ(mindfulCalls, 3);

  sleepApp->save(sleep(3, 4), [&](bool, std::exception_ptr) { store.stop(observer); });
  env.pump();
  EXPECT_EQ(calls, 3) << "the call queued before stop is dropped";
  save(*sleepApp, sleep(4, 5));
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(mindfulCalls, 3);
}

TEST_F(MemoryHealthStoreTest, StateOfMindCanBeMissingFromThePlatform) {
  const auto mood =
      HKSample::stateOfMindSample(at(0), {HKStateOfMindKind::momentaryEmotion, 0.5, {}, {}}, {{"focus_id", "A"}});
  authorize(store, {kMood});
  EXPECT_TRUE(save(store, mood).success);
  EXPECT_EQ(query(store, kMood, HKQueryPredicate::forObjects("focus_id", {"A"})).first->at(0).stateOfMind,
            mood.stateOfMind);

  sleepApp->setStateOfMindAvailable(false);
  EXPECT_FALSE(store.isAvailable(kMood));
  EXPECT_EQ(save(store, mood).error, Code::invalidArgument);
  EXPECT_EQ(query(store, kMood).second, Code::invalidArgument);
  EXPECT_EQ(authorize(store, {kSleep, kMood}).error, Code::invalidArgument);
  std::optional<Code> observed;
  store.execute(std::make_shared<HKObserverQuery>(
      kMood, std::nullopt, [&](auto&, auto, std::exception_ptr error) { observed = codeOf(error); }));
  env.pump();
  EXPECT_EQ(observed, Code::invalidArgument);
}

TEST_F(MemoryHealthStoreTest, TheInstalledStoreIsTheEnvironmentsOwn) {
  HKHealthStore& made = HKHealthStore::installed();
  EXPECT_NE(dynamic_cast<MemoryHealthStore*>(&made), nullptr) << "no health folder in tests";
  EXPECT_EQ(&HKHealthStore::installed(), &made);
  env.relaunch();
  auto substitute = std::make_shared<MemoryHealthStore>(HKSource{"Test", "org.example.test"});
  HKHealthStore::install(substitute);
  EXPECT_EQ(HKHealthStore::installedPointer(), substitute);
}

}  // namespace
}  // namespace tarnwell

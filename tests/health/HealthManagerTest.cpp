#include "tarnwell/health/HealthManager.h"

#include <gtest/gtest.h>

#include "support/DayFixture.h"
#include "tarnwell/health/StateOfMind.h"
#include "tarnwell/healthkit/MemoryHealthStore.h"

namespace tarnwell::testing {
namespace {

const HKSource kOwn{"Tarnwell", "org.vostra.tarnwell"};
const HKSource kAutoSleep{"AutoSleep", "com.tantsissa.AutoSleep"};

SaveToHealthKitError failure(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (SaveToHealthKitError known) {
    return known;
  } catch (...) {
    ADD_FAILURE() << "not a SaveToHealthKitError: " << describeHealthError(error);
    return SaveToHealthKitError::tagIsNil;
  }
}

class HealthManagerTest : public DayFixture {
 protected:
  HealthManagerTest() : store(dynamic_cast<MemoryHealthStore&>(HKHealthStore::installed())) {}

  HealthManager& manager() { return HealthManager::shared(); }

  // Another application saves a sample under its own source.
  void write(const HKSource& source, HKSample sample) {
    auto writer = store.application(source);
    const std::set types{sample.sampleType};
    writer->requestAuthorization(types, types, [](bool, std::exception_ptr) {});
    env.pump();
    bool saved = false;
    writer->save(std::move(sample), [&saved](bool success, std::exception_ptr) { saved = success; });
    env.pump();
    ASSERT_TRUE(saved);
  }
  void writeSleep(const HKSource& source, const std::string& start, const std::string& end,
                  HKCategoryValueSleepAnalysis value = HKCategoryValueSleepAnalysis::asleepUnspecified) {
    write(source,
          HKSample::category(HKSampleType::sleepAnalysis, static_cast<std::int64_t>(value), at(start), at(end)));
  }

  template <class T>
  Promise<T> settled(Promise<T> promise) {
    env.pump();
    return promise;
  }

  std::vector<HKSample> samplesOf(HKSampleType type) {
    std::vector<HKSample> kept;
    for (auto& sample : store.allSamples()) {
      if (sample.sampleType == type) kept.push_back(std::move(sample));
    }
    return kept;
  }

  std::string mindfulTag() {
    return Database::addTag("Meditate", "🧘", Color::fromHex("#00ff00"), widgets::FocusType::defaultType(),
                            std::nullopt, std::nullopt, true, std::nullopt);
  }

  MemoryHealthStore& store;
};

// --- The authorization step ---

TEST_F(HealthManagerTest, AuthorizationAsksUnlessSharingIsAllASharedTypeNeeds) {
  store.setAuthorizationAnswer(HKSampleType::mindfulSession, HKAuthorizationAnswer::grant);
  EXPECT_TRUE(settled(manager().requestMindfulSessionAuthorization()).isFulfilled());
  EXPECT_EQ(manager().mindfulSessionAuthorizationStatus(), HKAuthorizationStatus::sharingAuthorized);

  // Authorized: a share request does not ask again, so a failing answer is never heard.
  store.setAuthorizationAnswer(HKSampleType::mindfulSession, HKAuthorizationAnswer::error);
  EXPECT_TRUE(manager().requestMindfulSessionAuthorization().isFulfilled());
  // Reading is never told, so share-and-read asks every time.
  EXPECT_TRUE(
      settled(manager().requestAuthorization(HKSampleType::mindfulSession, HealthManager::RequestType::shareAndRead))
          .isRejected());
}

TEST_F(HealthManagerTest, ADeniedShareRejectsWhileARead) {
  store.setAuthorizationAnswer(HKSampleType::sleepAnalysis, HKAuthorizationAnswer::deny);
  auto shared = settled(manager().requestSleepAnalysisAuthorization());
  ASSERT_TRUE(shared.isRejected());
  EXPECT_EQ(failure(shared.error()), SaveToHealthKitError::requestAuthorizationFailed);
  EXPECT_TRUE(settled(manager().requestAuthorization(HKSampleType::sleepAnalysis, HealthManager::RequestType::read))
                  .isFulfilled());
}

TEST_F(HealthManagerTest, ASilentAnswerLeavesThePromisePendingForGoodAndAnErrorRejectsWithIt) {
  store.setAuthorizationAnswer(HKSampleType::sleepAnalysis, HKAuthorizationAnswer::silent);
  auto silent = settled(manager().requestSleepAnalysisAuthorization());
  env.advance(3600);
  EXPECT_TRUE(silent.isPending());

  store.setAuthorizationAnswer(HKSampleType::sleepAnalysis, HKAuthorizationAnswer::error);
  auto failed = settled(manager().requestSleepAnalysisAuthorization());
  ASSERT_TRUE(failed.isRejected());
  EXPECT_THROW(std::rethrow_exception(failed.error()), HKError);
}

TEST(HealthManagerPlatformTest, APlatformWithoutStatesOfMindRejectsEachOfTheirOperations) {
  TestEnvironment env;
  auto old = std::make_shared<MemoryHealthStore>();
  old->setStateOfMindAvailable(false);
  HKHealthStore::install(old);
  auto& manager = HealthManager::shared();
  EXPECT_FALSE(manager.stateOfMindType());
  auto authorization = manager.requestStateOfMindAuthorization();
  auto save = manager.saveStateOfMindForFocus("F", Date::now(), 0.5, {}, {});
  auto fetch = manager.fetchSavedStateOfMind("F");
  env.pump();
  ASSERT_TRUE(authorization.isRejected() && save.isRejected() && fetch.isRejected());
  for (const auto& error : {authorization.error(), save.error(), fetch.error()}) {
    EXPECT_EQ(failure(error), SaveToHealthKitError::typeIsNil);
  }
}

// --- Sleep in ---

TEST_F(HealthManagerTest, SourcesAreListedByWeightWithTheCrossedPairAndUnknownsAsFound) {
  writeSleep({"Zeta", "com.example.zeta"}, "-22:00", "06:00", HKCategoryValueSleepAnalysis::inBed);
  writeSleep({"CoSleep", "com.xinchao.XinChaoBrainWave"}, "-22:10", "06:00");
  writeSleep({"Alpha", "com.example.alpha"}, "-22:20", "06:00");
  writeSleep({"Clock", "com.apple.mobiletimer"}, "-22:30", "06:00");
  writeSleep({"Snail", "com.seblong.app.IDream"}, "-22:40", "06:00");
  write({"Old", "com.example.old"},  // more than 7 days before now
        HKSample::category(HKSampleType::sleepAnalysis, 1, at("-01:00").addingDay(-8), at("-02:00").addingDay(-8)));
  env.clock().set(at("12:00"));

  const auto sources = settled(manager().getSleepSources());
  ASSERT_TRUE(sources.isFulfilled());
  const auto listed = *sources.value();
  std::vector<std::string> names;
  for (const auto& source : listed) names.push_back(source.name);
  // Row 11 (990) before row 10 (989); the clock (988) ahead of unknowns, which stay newest first.
  EXPECT_EQ(names, (std::vector<std::string>{"Tarnwell", "CoSleep", "Snail", "Clock", "Alpha", "Zeta"}));
  EXPECT_EQ(manager().sleepSources(), listed);
}

TEST_F(HealthManagerTest, WithoutSamplesTheOwnSourceIsTheOneSource) {
  const auto sources = settled(manager().getSleepSources());
  ASSERT_TRUE(sources.isFulfilled());
  EXPECT_EQ(*sources.value(), std::vector<SleepDataSource>{SleepDataSource::builtIn()});
}

TEST_F(HealthManagerTest, AReloadKeepsOnlyUnspecifiedAsleepGroupedBySourceAndRecomputesToday) {
  writeSleep(kAutoSleep, "-23:00", "06:30");
  writeSleep(kAutoSleep, "-22:30", "-23:00", HKCategoryValueSleepAnalysis::inBed);
  writeSleep({"Stages", "com.example.stages"}, "-23:00", "03:00", HKCategoryValueSleepAnalysis::asleepCore);
  writeSleep({"Stages", "com.example.stages"}, "03:00", "06:00", HKCategoryValueSleepAnalysis::asleepDeep);
  writeSleep({"AutoSleep Beta", kAutoSleep.bundleIdentifier}, "-23:30", "07:00");
  int reloads = 0;
  manager().setHooks({.sleepDatasDidReload = [&reloads] { ++reloads; }, .nightOfToday = {}});

  ASSERT_TRUE(settled(manager().reloadSleepDatas()).isFulfilled());
  const auto datas = manager().sleepDatas();
  ASSERT_EQ(datas.size(), 2u);  // the staged-only source has no sleep at all
  EXPECT_EQ(datas[0].dataSource.name, "AutoSleep Beta");
  EXPECT_EQ(datas[1].sleeps, std::vector<DateInterval>{DateInterval(at("-23:00"), at("06:30"))});
  EXPECT_EQ(reloads, 1);

  // Same identifier, another name: another source.
  EXPECT_FALSE(manager().getSleepData({"AutoSleep", "com.example.other"}, day()));
  EXPECT_TRUE(manager().getSleepData({"AutoSleep Beta", kAutoSleep.bundleIdentifier}, day()));
}

TEST_F(HealthManagerTest, AFailedReloadLeavesTheSamplesAsTheyWere) {
  writeSleep(kAutoSleep, "-23:00", "06:30");
  ASSERT_TRUE(settled(manager().reloadSleepDatas()).isFulfilled());
  writeSleep(kAutoSleep, "+23:00", "+23:30");
  store.failNext(HKOperation::query, HKSampleType::sleepAnalysis);
  EXPECT_TRUE(settled(manager().reloadSleepDatas()).isRejected());
  EXPECT_EQ(manager().sleepDatas().at(0).sleeps.size(), 1u);
}

TEST_F(HealthManagerTest, ChoosingASourceObservesItAndChoosingTheSystemStopsObserving) {
  manager().start();
  writeSleep(kAutoSleep, "-23:00", "06:30");
  EXPECT_TRUE(manager().sleepDatas().empty()) << "nothing is observed while sleep is inferred";

  Settings::setDefaultSleepDataSource(SleepDataSource{kAutoSleep.name, kAutoSleep.bundleIdentifier});
  env.pump();
  ASSERT_EQ(manager().sleepDatas().size(), 1u) << "the observer's first update reloads";
  EXPECT_TRUE(today().sleepSource());

  writeSleep(kAutoSleep, "+23:00", "+23:30");
  EXPECT_EQ(manager().sleepDatas().at(0).sleeps.size(), 2u) << "another application's write is heard";

  Settings::setDefaultSleepDataSource(std::nullopt);
  env.pump();
  writeSleep(kAutoSleep, "+23:40", "+23:50");
  EXPECT_EQ(manager().sleepDatas().at(0).sleeps.size(), 2u) << "kept, but no longer reloaded";
}

TEST_F(HealthManagerTest, TheNightWindowKeepsWholeSamplesThatTouchIt) {
  manager().setSleepDatas({{{kAutoSleep.name, kAutoSleep.bundleIdentifier},
                            {DateInterval(at("-18:00"), at("-20:00")),  // ends on the window's start
                             DateInterval(at("03:00"), at("03:00")),    // no length
                             DateInterval(at("-18:00"), at("02:00")),   // kept whole
                             DateInterval(at("10:00"), at("11:00")),    // starts on its end
                             DateInterval(at("10:00:01"), at("11:00"))}}});
  const auto night = manager().getSleepData({kAutoSleep.name, kAutoSleep.bundleIdentifier}, day());
  ASSERT_TRUE(night);
  EXPECT_EQ(night->sleeps, (std::vector<DateInterval>{DateInterval(at("-18:00"), at("02:00")),
                                                      DateInterval(at("10:00"), at("11:00"))}));
}

// --- Samples out ---

TEST_F(HealthManagerTest, AMindfulFocusLeavesOneSampleThroughEditsAndNoneOnceDeleted) {
  const std::string tag = mindfulTag();
  const std::string id = Database::addFocus(std::nullopt, at("09:00"), at("09:25"), tag, 1500, 1500, std::nullopt,
                                            std::nullopt, std::nullopt);
  env.pump();
  auto samples = samplesOf(HKSampleType::mindfulSession);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].metadata.at("id"), id);
  EXPECT_EQ(samples[0].metadata.at("tagId"), tag);
  EXPECT_EQ(samples[0].categoryValue, kHKCategoryValueNotApplicable);

  Database::editFocus(id, {.progress = 1200});
  env.pump();
  samples = samplesOf(HKSampleType::mindfulSession);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].endDate, at("09:20"));

  Database::deleteFocus(id);
  env.pump();
  EXPECT_TRUE(samplesOf(HKSampleType::mindfulSession).empty());
}

TEST_F(HealthManagerTest, OnlyATagThatAsksForMindfulTimeWritesAndADeletedFocusIsNoFocus) {
  const std::string plain = Database::addTag("Read", "📚", Color::fromHex("#0000ff"), widgets::FocusType::defaultType(),
                                             std::nullopt, std::nullopt, false, std::nullopt);
  const std::string id = Database::addFocus(std::nullopt, at("09:00"), at("09:25"), plain, 1500, 1500, std::nullopt,
                                            std::nullopt, std::nullopt);
  EXPECT_TRUE(settled(manager().syncFocusToHealthKit(id)).isFulfilled());
  EXPECT_TRUE(samplesOf(HKSampleType::mindfulSession).empty());

  Database::deleteFocus(id);
  auto deleted = manager().syncFocusToHealthKit(id);
  ASSERT_TRUE(deleted.isRejected());
  EXPECT_EQ(failure(deleted.error()), SaveToHealthKitError::focusIsNil);
}

TEST_F(HealthManagerTest, AFailedDeleteLeavesTwoSamplesAndTheNextSyncConverges) {
  const std::string id = Database::addFocus(std::nullopt, at("09:00"), at("09:25"), mindfulTag(), 1500, 1500,
                                            std::nullopt, std::nullopt, std::nullopt);
  env.pump();
  store.failNext(HKOperation::deleteObjects, HKSampleType::mindfulSession, 1, false);
  auto failed = settled(manager().syncFocusToHealthKit(id));
  ASSERT_TRUE(failed.isRejected());
  EXPECT_EQ(failure(failed.error()), SaveToHealthKitError::deleteSamplesFailed);
  EXPECT_EQ(samplesOf(HKSampleType::mindfulSession).size(), 2u) << "saved before the old one went";

  EXPECT_TRUE(settled(manager().syncFocusToHealthKit(id)).isFulfilled());
  EXPECT_EQ(samplesOf(HKSampleType::mindfulSession).size(), 1u);
}

TEST_F(HealthManagerTest, TheInferredNightIsOneOwnSampleThatFollowsTheNightAndSparesOthers) {
  env.clock().set(at("12:00"));
  manager().start();
  writeSleep(kAutoSleep, "-23:30", "06:30");
  pickup("-22:00", "-22:10");
  pickup("-23:00", "-23:05");
  pickup("07:00", "07:05");
  env.advance(1);

  auto own = [&] {
    std::vector<DateInterval> nights;
    for (const auto& sample : samplesOf(HKSampleType::sleepAnalysis)) {
      if (sample.source == kOwn) nights.emplace_back(sample.startDate, sample.endDate);
    }
    return nights;
  };
  EXPECT_EQ(own(), std::vector<DateInterval>{DateInterval(at("-23:05"), at("07:00"))});

  // A live pickup leaves a settled night alone; a reload that finds an earlier
  // first pickup moves it, and the sample is replaced, not added.
  pickup("06:40", "06:45");
  env.advance(1);
  EXPECT_EQ(own(), std::vector<DateInterval>{DateInterval(at("-23:05"), at("07:00"))});
  const auto refreshed = Database::refreshEventsOfToday();
  while (refreshed.isPending()) {
    Database::queue().safeSync([] {});
    env.pump();
  }
  env.advance(1);
  EXPECT_EQ(own(), std::vector<DateInterval>{DateInterval(at("-23:05"), at("06:40"))});
  EXPECT_EQ(samplesOf(HKSampleType::sleepAnalysis).size(), 2u) << "the other application's sample stays";
}

TEST_F(HealthManagerTest, TwinOwnNightsLeaveTheFirstAndAShiftedOneIsReplaced) {
  const auto save = [&](const std::string& start, const std::string& end) {
    store.setAuthorizationAnswer(HKSampleType::sleepAnalysis, HKAuthorizationAnswer::grant);
    settled(manager().requestSleepAnalysisAuthorization());
    store.save(HKSample::category(HKSampleType::sleepAnalysis, 1, at(start), at(end)), [](bool, std::exception_ptr) {});
    env.pump();
  };
  save("-23:00", "07:00");
  save("-23:00", "07:00");
  ASSERT_TRUE(settled(manager().syncSleepAnalysisToHealthKit(at("-23:00"), at("07:00"))).isFulfilled());
  EXPECT_EQ(samplesOf(HKSampleType::sleepAnalysis).size(), 1u);

  ASSERT_TRUE(settled(manager().syncSleepAnalysisToHealthKit(at("-23:00"), at("07:30"))).isFulfilled());
  const auto samples = samplesOf(HKSampleType::sleepAnalysis);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].endDate, at("07:30"));

  Settings::setSyncToHealthKitSleepAnalysis(false);
  ASSERT_TRUE(settled(manager().syncSleepAnalysisToHealthKit(at("-22:00"), at("07:30"))).isFulfilled());
  EXPECT_EQ(samplesOf(HKSampleType::sleepAnalysis).size(), 1u);
}

TEST_F(HealthManagerTest, AStateOfMindSavedTwiceIsOneSampleTheNewer) {
  const auto save = [&](double valence) {
    return settled(manager().saveStateOfMindForFocus("F1", Date::now(), valence, {HKStateOfMindLabel::calm},
                                                     {HKStateOfMindAssociation::work}));
  };
  ASSERT_TRUE(save(0.2).isFulfilled());
  ASSERT_TRUE(save(0.7).isFulfilled());
  const auto saved = samplesOf(HKSampleType::stateOfMind);
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved[0].stateOfMind->valence, 0.7);
  EXPECT_EQ(saved[0].metadata, (HKMetadata{{"focus_id", "F1"}}));

  std::optional<HKSample> heard;
  manager().fetchSavedStateOfMind("F1",
                                  [&heard](std::optional<HKSample> sample, std::exception_ptr) { heard = sample; });
  env.pump();
  ASSERT_TRUE(heard);
  EXPECT_EQ(heard->stateOfMind->labels, std::vector<HKStateOfMindLabel>{HKStateOfMindLabel::calm});
}

// --- The words ---

TEST(StateOfMindTest, TitlesAndTheDescriptionOfAList) {
  TestEnvironment env;
  EXPECT_EQ(title(HKStateOfMindLabel::overwhelmed), "Overwhelmed");
  EXPECT_EQ(title(static_cast<HKStateOfMindLabel>(39)), "Others");
  EXPECT_EQ(title(HKStateOfMindAssociation::currentEvents), "Current Events");
  EXPECT_EQ(title(static_cast<HKStateOfMindAssociation>(0)), "Others");
  EXPECT_EQ(associationsDescription({}), "");
  EXPECT_EQ(associationsDescription({HKStateOfMindAssociation::selfCare}), "Self Care");
  EXPECT_EQ(associationsDescription(
                {HKStateOfMindAssociation::work, HKStateOfMindAssociation::money, HKStateOfMindAssociation::travel}),
            "Work and 2 more");
  EXPECT_EQ(allLabels().size(), 38u);
  EXPECT_EQ(allLabels().back(), HKStateOfMindLabel::satisfied);
  std::size_t grouped = 0;
  for (const auto& group : allAssociations()) grouped += group.size();
  EXPECT_EQ(grouped, 18u);
}

}  // namespace
}  // namespace tarnwell::testing

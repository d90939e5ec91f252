// Shortcuts and widget settings: the family's one declaration, the handlers'
// resolutions and answers, the date-ranged options and the two tag sources.

#include <gtest/gtest.h>

#include <cmath>

#include "support/TestEnvironment.h"
#include "tarnwell/automation/IntentHandlers.h"
#include "tarnwell/widgets/WidgetDatabase.h"

namespace tarnwell {
namespace {

const Date t0 = testing::defaultTestNow();

class IntentsTest : public testing::EnvironmentTest {
 protected:
  void playPlatform(int version) {
    auto configuration = env.configuration();
    configuration.device.platformVersion = version;
    Environment::install(std::make_unique<Environment>(configuration));
  }
  // The lists the app publishes: intents without the default tag, widgets with it.
  static void publishTags() {
    const widgets::WidgetTag reading{"R", "Reading", "📚", std::nullopt, widgets::FocusType(), false};
    const widgets::WidgetTag none{"default", "No Tag", std::nullopt, std::nullopt, widgets::FocusType(), true};
    widgets::IntentDatabase::setTags({reading});
    widgets::WidgetDatabase::setTags({none, reading});
  }

  template <class Handler, class Intent>
  static INIntentResponse handled(const Intent& intent) {
    std::vector<INIntentResponse> answers;
    Handler().handle(intent, [&answers](const auto& response) { answers.push_back(response); });
    EXPECT_EQ(answers.size(), 1u) << "the completion runs once";
    return answers.front();
  }
  template <class Handler, class Intent>
  static INResolutionResult resolved(void (Handler::*method)(const Intent&, const ResolutionCompletion&) const,
                                     const Intent& intent) {
    INResolutionResult result;
    (Handler().*method)(intent, [&result](INResolutionResult r) { result = std::move(r); });
    return result;
  }
  template <class Handler, class Intent>
  static std::optional<INObjectCollection> provided(void (Handler::*method)(const Intent&, const CollectionCompletion&)
                                                        const,
                                                    const Intent& intent) {
    std::optional<INObjectCollection> options;
    (Handler().*method)(intent, [&options](std::optional<INObjectCollection> o, std::exception_ptr error) {
      EXPECT_FALSE(error);
      options = std::move(o);
    });
    return options;
  }
  static std::vector<std::string> ids(const std::vector<INObject>& options) {
    std::vector<std::string> all;
    for (const auto& option : options) all.push_back(option.identifier.value_or("<none>"));
    return all;
  }
  static AddFocusRecordIntent record(Date start, std::optional<Date> end, IntentRecordType type, double durating) {
    AddFocusRecordIntent intent;
    intent.setValue("tag", IntentTag(std::string("R"), "Reading"));
    intent.setValue("start", DateComponents::of(start));
    if (end) intent.setValue("end", DateComponents::of(*end));
    intent.setValue("recordType", std::int64_t{static_cast<int>(type)});
    intent.setValue("durating", durating);
    return intent;
  }
};

TEST_F(IntentsTest, TheOneDeclarationNamesEveryClassParameterAndEnumeration) {
  EXPECT_EQ(intentDefinitions().size(), 16u);
  EXPECT_EQ(intentDefinitions().front().className, "ViewFocusWidgetIntent");
  const auto* record = intentDefinition("AddFocusRecordIntent");
  ASSERT_NE(record, nullptr);
  std::vector<std::string_view> names;
  for (const auto& parameter : record->parameters) names.push_back(parameter.name);
  EXPECT_EQ(names, (std::vector<std::string_view>{"tag", "start", "end", "durating", "recordType"}));
  EXPECT_EQ(record->parameter("tag")->type, "IntentTag");
  EXPECT_TRUE(intentDefinition("LSLullTimeConfigurationIntent")->parameters.empty());

  const std::pair<const char*, std::size_t> counts[] = {
      {"IntentFocusType", 4},     {"IntentFocusMode", 3}, {"IntentWhiteNoise", 16},
      {"IntentRecordType", 3},    {"WidgetTheme", 4},     {"WidgetLightDarkTheme", 4},
      {"FocusSummaryContent", 4}, {"DateRange", 3},       {"RicherDateRange", 5}};
  for (const auto& [enumeration, count] : counts) {
    ASSERT_NE(enumerationDefinition(enumeration), nullptr) << enumeration;
    EXPECT_EQ(enumerationDefinition(enumeration)->cases.size(), count) << enumeration;
    EXPECT_EQ(enumerationDefinition(enumeration)->cases.front(), "unknown");
  }
  EXPECT_EQ(static_cast<int>(IntentRecordType::duration), 2);
  EXPECT_EQ(static_cast<int>(DateRange::monthly), 2);
  EXPECT_EQ(static_cast<int>(INIntentResponseCode::failureRequiringAppLaunch), 6);

  // Typed views read the backing store; a value of the wrong kind is a programming error.
  StartToFocusIntent intent;
  EXPECT_FALSE(intent.tag());
  EXPECT_EQ(intent.focusType(), IntentFocusType::unknown);
  intent.setValue("focusMode", std::int64_t{2});
  EXPECT_EQ(intent.focusMode(), IntentFocusMode::strict);
  EXPECT_DEATH(intent.setValue("duration", std::int64_t{5}), "another kind");
  EXPECT_DEATH(intent.setValue("durating", 5.0), "no parameter durating");
  EXPECT_DEATH(IntentTagResolutionResult::success(INObject{}), "Fatal error: .*IntentClasses.h");
}

TEST_F(IntentsTest, AShortcutWithNoParametersContinuesInTheAppWithNothingToSay) {
  const auto response = handled<StartToFocusIntentHandler>(StartToFocusIntent());
  EXPECT_EQ(response.code, INIntentResponseCode::continueInApp);
  ASSERT_TRUE(response.userActivity);
  EXPECT_EQ(response.userActivity->activityType, "org.vostra.tarnwell.startToFocus");
  EXPECT_TRUE(response.userActivity->userInfo.empty());

  StartToFocusIntent full;
  full.setValue("tag", IntentTag(std::string("R"), "Reading"));
  full.setValue("focusType", std::int64_t{2});
  full.setValue("focusMode", std::int64_t{1});
  full.setValue("whiteNoise", std::int64_t{15});
  full.setValue("duration", 0.0);
  EXPECT_EQ(toUserActivityInfo(full), (UserInfo{{"tagId", "R"},
                                                {"focusType", std::int64_t{2}},
                                                {"focusMode", std::int64_t{1}},
                                                {"whiteNoise", std::int64_t{15}}}))
      << "a duration of 0 is no duration";
  full.setValue("duration", 1500.0);
  EXPECT_EQ(toUserActivityInfo(full).at("duration"), UserInfoValue(1500.0));
  playPlatform(12);
  EXPECT_FALSE(toUserActivityInfo(full).contains("duration"));
}

TEST_F(IntentsTest, StartingResolvesEveryParameterAsOptional) {
  using H = StartToFocusIntentHandler;
  StartToFocusIntent intent;
  for (auto method :
       {&H::resolveTag, &H::resolveFocusType, &H::resolveFocusMode, &H::resolveDuration, &H::resolveWhiteNoise}) {
    EXPECT_EQ(resolved(method, intent).kind, INResolutionResult::Kind::notRequired);
  }
  intent.setValue("whiteNoise", std::int64_t{3});
  intent.setValue("duration", 600.0);
  EXPECT_EQ(resolved(&H::resolveWhiteNoise, intent),
            IntentWhiteNoiseResolutionResult::success(IntentWhiteNoise::ocean));
  EXPECT_EQ(resolved(&H::resolveDuration, intent), INResolutionResult::success(600.0));
}

TEST_F(IntentsTest, ARecordsStartIsCheckedAgainstTheClockAndItsEndAgainstItsStart) {
  using H = AddFocusRecordIntentHandler;
  AddFocusRecordIntent empty;
  for (auto method : {&H::resolveTag, &H::resolveStart, &H::resolveEnd, &H::resolveDurating, &H::resolveRecordType}) {
    EXPECT_EQ(resolved(method, empty).kind, INResolutionResult::Kind::needsValue);
  }
  EXPECT_EQ(resolved(&H::resolveStart, record(t0, std::nullopt, IntentRecordType::end, 0)).kind,
            INResolutionResult::Kind::success)
      << "the present instant itself";
  EXPECT_EQ(resolved(&H::resolveStart, record(t0 + 1, std::nullopt, IntentRecordType::end, 0)),
            INResolutionResult::unsupported(1));
  EXPECT_EQ(resolved(&H::resolveEnd, record(t0 - 60, t0 - 60, IntentRecordType::end, 0)),
            INResolutionResult::unsupported(1));
  EXPECT_EQ(resolved(&H::resolveEnd, record(t0 - 60, t0 - 59, IntentRecordType::end, 0)).kind,
            INResolutionResult::Kind::success);
  AddFocusRecordIntent endOnly;
  endOnly.setValue("end", DateComponents::of(t0));
  EXPECT_EQ(resolved(&H::resolveEnd, endOnly), INResolutionResult::unsupported(1)) << "no start to compare";
}

TEST_F(IntentsTest, ARecordOfADurationEndsThatManyWholeSecondsAfterItsStart) {
  const auto byDuration =
      handled<AddFocusRecordIntentHandler>(record(t0 - 3600, t0 - 3000, IntentRecordType::duration, 1500.9));
  ASSERT_EQ(byDuration.code, INIntentResponseCode::continueInApp);
  EXPECT_EQ(byDuration.userActivity->activityType, "org.vostra.tarnwell.addFocusRecord");
  EXPECT_EQ(byDuration.userActivity->userInfo,
            (UserInfo{{"tagId", "R"}, {"start", t0 - 3600}, {"end", t0 - 3600 + 1500}}))
      << "the given end is not read";
  EXPECT_EQ(toUserActivityInfo(record(t0 - 3600, t0 - 3000, IntentRecordType::end, 1500))->at("end"),
            UserInfoValue(t0 - 3000));

  const auto unknown = handled<AddFocusRecordIntentHandler>(record(t0, t0, IntentRecordType::unknown, 60));
  EXPECT_EQ(unknown.code, INIntentResponseCode::failure);
  EXPECT_FALSE(unknown.userActivity);
  EXPECT_FALSE(toUserActivityInfo(record(t0, std::nullopt, IntentRecordType::end, 60)));
  playPlatform(12);
  EXPECT_EQ(toUserActivityInfo(record(t0, std::nullopt, IntentRecordType::unknown, 0)), (UserInfo{{"tagId", "R"}}));
}

TEST_F(IntentsTest, RawValuesNamingNoCaseAndDurationsNamingNoFocusAreRefusedNotConverted) {
  EXPECT_EQ(fromRawValue<IntentRecordType>(2), IntentRecordType::duration);
  EXPECT_EQ(fromRawValue<RicherDateRange>(4), RicherDateRange::year);
  for (const std::int64_t raw : {std::int64_t{3}, std::int64_t{-1}, std::int64_t{1} << 40}) {
    EXPECT_FALSE(fromRawValue<IntentRecordType>(raw)) << raw;
  }
  EXPECT_FALSE(fromRawValue<IntentWhiteNoise>(16));

  using H = AddFocusRecordIntentHandler;
  // A record type of 3 once fell through to an end at the reference date.
  auto badType = record(t0 - 3600, t0 - 3000, IntentRecordType::end, 60);
  badType.setValue("recordType", std::int64_t{3});
  EXPECT_EQ(badType.recordType(), IntentRecordType::unknown);
  EXPECT_EQ(resolved(&H::resolveRecordType, badType), INResolutionResult::unsupported());
  EXPECT_FALSE(toUserActivityInfo(badType));
  EXPECT_EQ(handled<H>(badType).code, INIntentResponseCode::failure);
  // 1e300 was once an undefined conversion to whole seconds (found by fuzzing).
  for (const double durating : {1e300, -1e300, -1.0, std::nan(""), HUGE_VAL, kLongestIntentDuration + 1}) {
    const auto bad = record(t0 - 3600, std::nullopt, IntentRecordType::duration, durating);
    EXPECT_FALSE(toUserActivityInfo(bad)) << durating;
    EXPECT_EQ(resolved(&H::resolveDurating, bad), INResolutionResult::unsupported()) << durating;
    EXPECT_EQ(handled<H>(bad), AddFocusRecordIntentResponse(INIntentResponseCode::failure, std::nullopt)) << durating;
  }
  EXPECT_EQ(toUserActivityInfo(record(t0 - 3600, std::nullopt, IntentRecordType::duration, kLongestIntentDuration))
                ->at("end"),
            UserInfoValue(t0 - 3600 + kLongestIntentDuration));

  using S = StartToFocusIntentHandler;
  StartToFocusIntent start;
  start.setValue("whiteNoise", std::int64_t{99});
  EXPECT_EQ(start.whiteNoise(), IntentWhiteNoise::unknown);
  EXPECT_EQ(resolved(&S::resolveWhiteNoise, start), INResolutionResult::unsupported());
  EXPECT_EQ(handled<S>(start), StartToFocusIntentResponse(INIntentResponseCode::failure, std::nullopt));
  start.setValue("whiteNoise", std::int64_t{1});
  start.setValue("duration", 1e300);
  EXPECT_EQ(resolved(&S::resolveDuration, start), INResolutionResult::unsupported());
  EXPECT_EQ(handled<S>(start).code, INIntentResponseCode::failure);
  EXPECT_FALSE(toUserActivityInfo(start).contains("duration"));
  start.setValue("duration", 1500.0);
  EXPECT_EQ(handled<S>(start).code, INIntentResponseCode::continueInApp);
}

TEST_F(IntentsTest, EveryOtherHandlerOpensItsActivity) {
  FocusSummaryExtraLargeConfigurationIntent report;
  report.setValue("dateRange", std::int64_t{2});
  const std::vector<std::pair<INIntentResponse, std::string_view>> answers = {
      {handled<StopFocusingInetntHandler>(StopFocusingIntent()), "org.vostra.tarnwell.stopFocusing"},
      {handled<OpenFlipClockIntentHandler>(OpenFlipClockIntent()), "org.vostra.tarnwell.openFlipClock"},
      {handled<LullTimeInetntHandler>(LullTimeConfigurationIntent()), "org.vostra.tarnwell.lulltime"},
      {handled<IntentsDonaterHandler>(OpenTarnwellIntent()), "org.vostra.tarnwell.open"},
      {handled<IntentsDonaterHandler>(report), "org.vostra.tarnwell.viewFocusReportType"},
      {handled<ViewScreenTimeWidgetIntentHandler>(ViewScreenTimeLargerWidgetIntent()),
       "org.vostra.tarnwell.viewScreenTime"},
      {handled<ViewFocusWidgetIntentHandler>(FocusSummaryConfigurationIntent()), "org.vostra.tarnwell.todayFocus"},
  };
  for (const auto& [response, activity] : answers) {
    EXPECT_EQ(response.code, INIntentResponseCode::continueInApp);
    EXPECT_EQ(response.userActivity->activityType, activity);
  }
  EXPECT_EQ(answers[4].first.userActivity->userInfo, (UserInfo{{"dateRange", std::int64_t{2}}}));
  EXPECT_TRUE(answers[0].first.userActivity->userInfo.empty());
}

TEST_F(IntentsTest, DateRangedOptionsCarryTheirPeriodAroundTheOldIdAndName) {
  const auto monthly = withDateRange(FocusWidgetTag(std::string("total"), "All"), DateRange::monthly);
  EXPECT_EQ(monthly.identifier, "[M]total");
  EXPECT_EQ(monthly.displayString, "All (Month)");
  EXPECT_EQ(monthly.tagID(), "total");
  EXPECT_EQ(monthly.tagName(), "All");
  EXPECT_EQ(monthly.dateRange(), 2);
  const auto unknown = withDateRange(ScreenTimeWidgetDataType(std::string("pickups"), "Pickups"), DateRange::unknown);
  EXPECT_EQ(unknown.identifier, "[U]pickups");
  EXPECT_EQ(unknown.displayString, "PickupsUnknown");
  EXPECT_FALSE(withDateRange(FocusWidgetTag(std::nullopt, "X"), DateRange::weekly).identifier);
  EXPECT_DEATH(withDateRange(FocusWidgetTag(std::string("x"), "X"), static_cast<DateRange>(3)), "Unexpected");

  const auto weekly = withDateRange(ScreenTimeWidgetDataType(std::string("sleepTime"), "Sleep"), DateRange::weekly);
  EXPECT_EQ(dataType(weekly), ScreenTimeWidgetDataType(std::string("sleepTime"), "Sleep"));
  playPlatform(13);
  EXPECT_EQ(dataType(weekly).identifier, "[W]sleepTime") << "before 14 the option's own id";
  playPlatform(12);
  const auto old = withDateRange(FocusWidgetTag(std::string("R"), "Reading"), DateRange::weekly);
  EXPECT_EQ(old.identifier, "R");
  EXPECT_TRUE(old.properties.empty());
}

TEST_F(IntentsTest, ScreenTimeSheetsOfferMetricsTwiceAndDefaultAsRequired) {
  using H = ViewScreenTimeWidgetIntentHandler;
  EXPECT_EQ(ids({H::allItems().begin(), H::allItems().end()}),
            (std::vector<std::string>{"screenTime", "pickups", "checkingEvery", "walkingLife", "indoorLife",
                                      "bestBreak", "continuouslyUsage"}));
  EXPECT_EQ(H::getItem(ScreenTimeDataType::Case::indoorLife).displayString, "Stationary Life");
  EXPECT_EQ(H::dataType(ScreenTimeWidgetDataType(std::nullopt, "-")), std::nullopt);
  const auto larger = H().defaultMainItems(ViewScreenTimeLargerWidgetIntent());
  EXPECT_EQ(larger.size(), 8u) << "the long list, for a parameter named mainItems";
  EXPECT_EQ(H().defaultMainItems(ScreenTimeOfDaysConfigurationIntent()).size(), 2u);

  const ScreenTimeOfDaysConfigurationIntent days;
  const auto chart = provided(&H::provideChartItemsOptionsCollection, days);
  ASSERT_TRUE(chart);
  EXPECT_EQ(chart->allItems().size(), 14u);
  EXPECT_EQ(ids(chart->allItems())[0], "[W]screenTime");
  EXPECT_EQ(ids(chart->allItems())[1], "[M]screenTime");
  const auto chartDefaults = H().defaultChartItems(days);
  EXPECT_EQ(ids({chartDefaults.begin(), chartDefaults.end()}),
            (std::vector<std::string>{"[W]screenTime", "[W]pickups"}));

  // The first chart item's metric goes to the app, if it names one.
  const auto dataTypeOf = [](std::vector<INObject> items) {
    ScreenTimeOfDaysConfigurationIntent intent;
    intent.setValue("chartItems", std::move(items));
    return handled<H>(intent).userActivity->userInfo;
  };
  EXPECT_EQ(dataTypeOf({withDateRange(H::getItem(ScreenTimeDataType::Case::sleepTime), DateRange::monthly)}),
            (UserInfo{{"dataType", std::int64_t{9}}}));
  EXPECT_TRUE(dataTypeOf({}).empty());
  EXPECT_TRUE(
      dataTypeOf({withDateRange(ScreenTimeWidgetDataType(std::string("naps"), "Naps"), DateRange::weekly)}).empty());
  EXPECT_EQ(handled<H>(days).userActivity->activityType, "org.vostra.tarnwell.viewScreenWeeklyDataType");
}

TEST_F(IntentsTest, TagOptionsComeFromTheListsTheAppPublished) {
  using F = ViewFocusWidgetIntentHandler;
  using L = LockScreenIntentHandler;
  const FocusTimeOfDaysConfigurationIntent days;
  // Before the app published anything.
  EXPECT_FALSE(provided(&F::provideTagsOptionsCollection, ViewFocusWidgetIntent()));
  EXPECT_FALSE(F().defaultMainTags(days));
  const auto chartDefaults = F().defaultChartTags(days);
  EXPECT_EQ(ids({chartDefaults.begin(), chartDefaults.end()}), (std::vector<std::string>{"[W]total", "[M]total"}));
  std::optional<std::vector<IntentTag>> shortcutTags;
  StartToFocusIntentHandler().provideTagOptions(
      StartToFocusIntent(), [&](std::optional<std::vector<IntentTag>> tags, std::exception_ptr error) {
        EXPECT_FALSE(error);
        shortcutTags = std::move(tags);
      });
  ASSERT_TRUE(shortcutTags);
  EXPECT_TRUE(shortcutTags->empty());

  publishTags();
  EXPECT_EQ(ids(provided(&F::provideTagsOptionsCollection, ViewFocusWidgetIntent())->allItems()),
            (std::vector<std::string>{"R"}));
  EXPECT_EQ(ids(provided(&F::provideChartTagsOptionsCollection, days)->allItems()),
            (std::vector<std::string>{"[W]total", "[M]total", "[W]R", "[M]R"}));
  const auto shortcut = provided(&AddFocusRecordIntentHandler::provideTagOptionsCollection, AddFocusRecordIntent());
  EXPECT_EQ(shortcut->allItems().front().displayString, "Reading");
  EXPECT_EQ(shortcut->sections.size(), 1u);
  EXPECT_FALSE(shortcut->sections.front().title);

  // The lock screen reads the widget list and leaves its default tag out.
  const auto specific = provided<L, LSFocusSpecificTagConfigurationIntent>(&L::provideTagOptionsCollection,
                                                                           LSFocusSpecificTagConfigurationIntent());
  EXPECT_EQ(ids(specific->allItems()), (std::vector<std::string>{"R"}));
  const auto summary = provided<L, LSFocusSummaryConfigurationIntent>(&L::provideTagOptionsCollection,
                                                                      LSFocusSummaryConfigurationIntent());
  EXPECT_EQ(ids(summary->allItems()), (std::vector<std::string>{"LockScreen.AllFocusSummary", "R"}));
  EXPECT_FALSE(L().defaultTag(LSFocusSpecificTagConfigurationIntent()));
  EXPECT_EQ(L().defaultTag(LSFocusSummaryConfigurationIntent())->displayString, "All");
  EXPECT_EQ(provided(&L::provideDataTypeOptionsCollection, LSScreenTimeDataConfigurationIntent())->allItems().size(),
            10u);

  FocusTimeOfDaysConfigurationIntent chosen;
  chosen.setValue("chartTags", std::vector<INObject>{
                                   withDateRange(FocusWidgetTag(std::string("R"), "Reading"), DateRange::monthly)});
  EXPECT_EQ(handled<F>(chosen).userActivity->userInfo, (UserInfo{{"tagId", "[M]R"}})) << "prefix and all";
}

}  // namespace
}  // namespace tarnwell

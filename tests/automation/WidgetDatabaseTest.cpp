// What the app publishes for its widgets: the rule of 600 seconds in its kept
// sense, days of focus by tag, the year only for a widget that shows it, the
// two tag lists and their reloads, the focus under way, and the debounced
// calls from the store.

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/automation/WidgetDatabase.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/WidgetCenter.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

using widgets::Keys;

// 2026-11-22 is a Sunday; weeks start on Mondays.
Date at(const std::string& iso) { return *Date::parseISO8601(iso); }

class WidgetDatabaseTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override {
    WidgetDatabase::connectToDatabase();
    Database::start();
    settle();
  }

  // Lets Database.queue, the main queue and the debounced posts finish.
  void settle() {
    Database::queue().safeSync([] {});
    env.pump();
    env.advance(0.2);
  }
  std::string addTag(const std::string& title, std::optional<FocusGoal> goal = std::nullopt) {
    const auto id = Database::addTag(title, "📚", Color::fromHex("#336699"), widgets::FocusType::countdown(1500), goal,
                                     std::nullopt, false, std::nullopt);
    settle();
    return id;
  }
  void focus(const std::optional<std::string>& tag, Date start, double progress, double goal) {
    Database::addFocus(std::nullopt, start, start + progress, tag, goal, progress, std::nullopt, std::nullopt,
                       std::nullopt);
  }
  // The redraws of the focus widgets owed since the last call (requests of
  // one kind before a redraw are one redraw).
  std::size_t focusReloads() {
    std::size_t count = 0;
    for (const auto& reload : HomeScreen::shared().takeRequests()) count += reload.kind == widgets::WidgetKind::focus;
    return count;
  }
  static std::vector<std::string> ids(const std::vector<widgets::WidgetTag>& tags) {
    std::vector<std::string> all;
    for (const auto& tag : tags) all.push_back(tag.id);
    return all;
  }
};

TEST_F(WidgetDatabaseTest, TodayAndTheGoalsArePublishedOnEveryCallTheWeekAndMonthByTheKeptRule) {
  Settings::setDefaultPickupGoal(42);
  env.clock().set(at("2026-11-22T23:58:00Z"));
  Database::addPickup(at("2026-11-22T23:50:00Z"), at("2026-11-22T23:55:00Z"));
  settle();
  EXPECT_EQ(Keys::widgetPickupsGoal.get(), 42);
  EXPECT_EQ(Keys::widgetScreenTimeGoal.get(), Settings::defaultScreenTimeGoal());
  EXPECT_EQ(Keys::screenTimeToday.get(), Database::eventsOfToday().summary());
  EXPECT_EQ(Keys::screenTimeToday.get()->screenTime, 300.0);
  const auto week = Keys::screenTimeThisWeek.get();
  ASSERT_TRUE(week);
  ASSERT_EQ(week->days.size(), 7u);
  EXPECT_EQ(week->days.front().startOfDay, at("2026-11-16T00:00:00Z"));
  EXPECT_EQ(week->days.back().screenTime, 300.0);
  EXPECT_EQ(Keys::screenTimeThisMonth.get()->days.size(), 30u);
  ASSERT_TRUE(WidgetDatabase::recentWidgetScreenTimeDataRefreshDate());

  // Within 600 s and in the same week: rebuilt all the same.
  env.clock().set(at("2026-11-22T23:59:00Z"));
  WidgetDatabase::refreshScreenTimeToday();
  EXPECT_EQ(WidgetDatabase::recentWidgetScreenTimeDataRefreshDate(), at("2026-11-22T23:59:00Z"));

  // Within 600 s of a rebuild in the week before: only today and the goals.
  env.clock().set(at("2026-11-23T00:03:00Z"));
  Settings::setDefaultPickupGoal(50);
  WidgetDatabase::refreshScreenTimeToday();
  EXPECT_EQ(Keys::widgetPickupsGoal.get(), 50);
  EXPECT_EQ(WidgetDatabase::recentWidgetScreenTimeDataRefreshDate(), at("2026-11-22T23:59:00Z"));
  EXPECT_EQ(Keys::screenTimeThisWeek.get()->days.front().startOfDay, at("2026-11-16T00:00:00Z"));

  // 600 s after it: the new week.
  env.clock().set(at("2026-11-23T00:09:00Z"));
  WidgetDatabase::refreshScreenTimeToday();
  EXPECT_EQ(Keys::screenTimeThisWeek.get()->days.front().startOfDay, at("2026-11-23T00:00:00Z"));

  // A new process remembers nothing and rebuilds all.
  env.relaunch();
  EXPECT_FALSE(WidgetDatabase::recentWidgetScreenTimeDataRefreshDate());
}

TEST_F(WidgetDatabaseTest, ADayOfFocusHasALineForEveryTagAndCountsUntaggedSessionsOnlyInItsTotals) {
  const std::string reading = addTag("Reading", FocusGoal::moreThanOrEqualTo(3600));
  const Date morning = at("2026-11-22T08:00:00Z");
  focus(reading, morning, 1200, 1500);            // failed
  focus("working", morning + 3600, 900, 600);     // done
  focus(std::nullopt, morning + 7200, 300, 600);  // failed, no tag: the day's last
  settle();

  const auto today = Keys::focusTimeToday.get();
  ASSERT_TRUE(today);
  EXPECT_EQ(today->date, at("2026-11-22T00:00:00Z"));
  EXPECT_EQ(today->failedCount, 2);
  EXPECT_EQ(today->lastFocusTime, 300.0);
  EXPECT_EQ(today->totalTime(), 2100.0);
  std::map<std::string, widgets::FocusTimeOfTag> lines;
  for (const auto& line : today->tags) lines[line.id] = line;
  EXPECT_EQ(lines.size(), 4u);  // default, working, studying, reading
  EXPECT_EQ(lines["studying"].time, 0.0);
  EXPECT_EQ(lines["working"].time, 900.0);
  EXPECT_EQ(lines[reading].time, 1200.0);
  EXPECT_EQ(lines[reading].goal, 3600.0);
  EXPECT_EQ(lines[reading].colorHex, "#336699");
  EXPECT_EQ(lines[reading].emoji, "📚");
  EXPECT_EQ(lines["default"].title, "No Tag");
  EXPECT_EQ(Keys::focusTimeThisWeek.get().size(), 7u);
  EXPECT_EQ(Keys::focusTimeThisWeek.get().back(), *today);
  EXPECT_EQ(Keys::focusTimeThisMonth.get().size(), 30u);

  // A deleted tag's sessions go with it; an archived tag has no line.
  Database::archiveTag("studying", true);
  settle();
  const auto archived = Keys::focusTimeToday.get();
  for (const auto& line : archived->tags) EXPECT_NE(line.id, "studying");
}

TEST_F(WidgetDatabaseTest, TheYearIsBuiltOnlyWhenAWidgetShowsIt) {
  const std::vector<widgets::FocusTimeToday> former = {widgets::FocusTimeToday{at("2020-01-01T00:00:00Z"), {}, 1, 2}};
  Keys::focusTimeThisYear.set(former);
  WidgetDatabase::refreshFocusTimeToday();
  env.pump();
  EXPECT_EQ(Keys::focusTimeThisYear.get(), former);

  HomeScreen::shared().place(
      {std::string(widgets::WidgetKind::focus), WidgetFamily::systemMedium, "FocusSummaryConfigurationIntent"});
  WidgetDatabase::refreshFocusTimeToday();
  env.pump();
  EXPECT_EQ(Keys::focusTimeThisYear.get(), former);

  HomeScreen::shared().place({std::string(widgets::WidgetKind::focus), WidgetFamily::systemExtraLarge,
                              "FocusSummaryExtraLargeConfigurationIntent"});
  WidgetDatabase::refreshFocusTimeToday();
  EXPECT_EQ(Keys::focusTimeThisYear.get(), former) << "the widget centre answers later";
  env.pump();
  const auto year = Keys::focusTimeThisYear.get();
  ASSERT_EQ(year.size(), 365u);
  EXPECT_EQ(year.front().date, at("2026-01-01T00:00:00Z"));
}

TEST_F(WidgetDatabaseTest, FocusTimeOfDaysTakesIconAndGoalFromTheIntentList) {
  const std::string reading = addTag("Reading", FocusGoal::lessThanOrEqualTo(1800));
  const widgets::FocusTimeToday day{at("2026-11-22T00:00:00Z"),
                                    {{reading, "📚", "Reading", 600, 1800, "#336699"},
                                     {"gone", std::nullopt, "Gone", 300, std::nullopt, "#000000"},
                                     {reading, "📚", "Reading", 60, 1800, "#336699"}},
                                    0,
                                    60};

  const widgets::FocusTimeOfDays total(std::nullopt, {day});
  EXPECT_EQ(total.icon, widgets::WidgetImage::named("focus-total-tag"));
  EXPECT_FALSE(total.goal);
  EXPECT_EQ(total.days.front().time, 960.0);

  const widgets::FocusTimeOfDays one(reading, {day, day});
  EXPECT_EQ(one.days.size(), 2u);
  EXPECT_EQ(one.days.back().time, 660.0);
  EXPECT_EQ(one.icon, widgets::WidgetImage::emoji("📚"));
  EXPECT_EQ(one.goal, (widgets::WidgetFocusGoal{widgets::WidgetFocusGoal::Kind::lessThanOrEqualTo, 1800}));

  // A tag the intent list does not know: summed all the same, without icon or goal.
  const widgets::FocusTimeOfDays unknown("gone", {day});
  EXPECT_EQ(unknown.days.front().time, 300.0);
  EXPECT_FALSE(unknown.icon);
  EXPECT_FALSE(unknown.goal);
}

TEST_F(WidgetDatabaseTest, EachTagChangeReachesBothListsAndReloadsTheFocusWidgetsOnce) {
  focusReloads();
  const std::string a = addTag("A");
  EXPECT_EQ(focusReloads(), 1u);
  env.clock().advance(10);
  const std::string b = addTag("B");
  EXPECT_EQ(focusReloads(), 1u);
  // Intents: no default tag ("No Tag"), newest first. Widgets: every live tag, in the list's order.
  EXPECT_EQ(ids(*widgets::IntentDatabase::tags()), (std::vector<std::string>{b, a, "working", "studying"}));
  EXPECT_EQ(ids(widgets::WidgetDatabase::tags()), (std::vector<std::string>{"default", "working", "studying", a, b}));
  EXPECT_EQ(widgets::WidgetDatabase::tags().front().title, "No Tag");
  EXPECT_TRUE(widgets::WidgetDatabase::tags().front().isDefault);

  Database::moveTag(b, "working");
  settle();
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(ids(widgets::WidgetDatabase::tags()), (std::vector<std::string>{"default", b, "working", "studying", a}));

  Database::archiveTags({a}, true);
  settle();
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(ids(*widgets::IntentDatabase::tags()), (std::vector<std::string>{b, "working", "studying"}));

  Database::deleteTag(b, std::nullopt);
  settle();
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(ids(*widgets::IntentDatabase::tags()), (std::vector<std::string>{"working", "studying"}));
  EXPECT_EQ(ids(widgets::WidgetDatabase::tags()), (std::vector<std::string>{"default", "working", "studying"}));
}

TEST_F(WidgetDatabaseTest, TheFocusUnderWayRedrawsTheThreeControlsFromPlatform18) {
  HomeScreen::shared().takeRequests();
  const auto tag = Database::getTag("working")->threadSafeTag();
  WidgetDatabase::updateCurrentFocusState(tag, widgets::FocusType::pomodoro(1500),
                                          widgets::WidgetFocusState::State::focusing, true, 300, 1500);
  const auto state = widgets::WidgetDatabase::currentFocusState();
  ASSERT_TRUE(state);
  EXPECT_EQ(state->tag->id, "working");
  EXPECT_TRUE(state->isPaused);
  EXPECT_EQ(state->timeSpent, 300.0);
  std::vector<std::string> kinds;
  for (const auto& request : HomeScreen::shared().takeRequests()) {
    EXPECT_EQ(request.centre, ReloadRequest::Centre::controls);
    kinds.push_back(request.kind.value_or(""));
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{widgets::ControlKind::focus(widgets::AbstractFocusType::addTime),
                                             widgets::ControlKind::focus(widgets::AbstractFocusType::countdown),
                                             widgets::ControlKind::focus(widgets::AbstractFocusType::pomodoro)}));

  WidgetDatabase::updateCurrentFocusStateNoFocus();
  EXPECT_EQ(widgets::WidgetDatabase::currentFocusState(),
            widgets::WidgetFocusState(std::nullopt, widgets::FocusType::addTime(0, 0),
                                      widgets::WidgetFocusState::State::idle, false, 0, 0));

  auto configuration = env.configuration();
  configuration.device.platformVersion = 17;
  Environment::install(std::make_unique<Environment>(configuration));
  HomeScreen::shared().takeRequests();
  WidgetDatabase::updateCurrentFocusStateNoFocus();
  EXPECT_TRUE(HomeScreen::shared().takeRequests().empty());
}

TEST_F(WidgetDatabaseTest, ATenthOfASecondAfterTheLastWriteTheSummaryIsPublished) {
  const auto published = [] {
    const auto today = Keys::screenTimeToday.get();
    return today ? today->screenTime : std::nullopt;
  };
  const Date now = env.clock().now();
  Database::addPickup(now - 600, now - 300);
  Database::queue().safeSync([] {});
  env.pump();
  env.advance(0.05);
  Database::addPickup(now - 200, now - 100);
  env.pump();
  env.advance(0.09);
  EXPECT_EQ(published(), std::nullopt) << "the second write put the first one's publication off";
  env.advance(0.02);
  EXPECT_EQ(published(), 400.0);
}

class WidgetSummariesTest : public testing::EnvironmentTest {};

TEST_F(WidgetSummariesTest, EverySummaryReadsBackFromItsJSON) {
  using namespace widgets;
  const ScreenTimeToday full{at("2026-11-22T00:00:00Z"),
                             3600.5,
                             12,
                             900,
                             300,
                             120,
                             at("2026-11-22T07:00:00Z"),
                             at("2026-11-22T23:00:00Z"),
                             28800,
                             DateInterval(at("2026-11-22T10:00:00Z"), 5400),
                             DateInterval(at("2026-11-22T12:00:00Z"), 1800)};
  ScreenTimeToday empty;
  empty.startOfDay = at("2026-11-22T00:00:00Z");
  for (const auto& day : {full, empty}) {
    EXPECT_EQ(nlohmann::json(day).get<ScreenTimeToday>(), day);
    // Read as a day of the analytics and published again, it is the same day.
    const PublishedDay published(day);
    EXPECT_EQ(published.summary(), day);
    EXPECT_TRUE(published.getEventsOfHours()->empty());
  }
  EXPECT_FALSE(nlohmann::json(empty).contains("screenTime")) << "nothing is left out, not written as 0";

  const WidgetTag tag{
      "T",  "Reading", "📚", WidgetFocusGoal{WidgetFocusGoal::Kind::moreThanOrEqualTo, 60}, FocusType::countdown(900),
      false};
  const WidgetTag bare{"default", "No Tag", std::nullopt, std::nullopt, FocusType::defaultType(), true};
  for (const auto& each : {tag, bare}) EXPECT_EQ(nlohmann::json(each).get<WidgetTag>(), each);
  EXPECT_EQ(nlohmann::json(bare)["focusGoal"]["kind"], 2);
  EXPECT_EQ(nlohmann::json(tag)["focusGoal"]["kind"], 1);

  const WidgetFocusState state(tag, FocusType::pomodoro(1500), WidgetFocusState::State::shortBreak, false, 10, 20);
  EXPECT_EQ(decodeWidgetFocusState(nlohmann::json(state)), state);
  EXPECT_THROW(decodeWidgetFocusState(nlohmann::json{{"state", "dozing"}}), nlohmann::json::exception);
}

}  // namespace
}  // namespace tarnwell

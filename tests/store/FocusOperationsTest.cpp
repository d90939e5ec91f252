// Focus sessions in the store: reads by tag and start, edits, the copy
// clean-up, a tag's run of days and its progress, and the focus snapshot.

#include <gtest/gtest.h>

#include <cmath>

#include "support/TestEnvironment.h"
#include "tarnwell/charts/Focuses.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/modules/Settings.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {
namespace {

// Today is 2026-11-22 in UTC; it is 10:00.
const Date t0 = testing::defaultTestNow();
const Date today = t0.startOfDay();

class FocusOperationsTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }

  // A session `daysAgo` days before today at `hour`, of `progress` seconds.
  std::string focus(int daysAgo, double hour, double progress, const std::string& tagId = "working",
                    double goal = 1500) {
    const Date start = today.addingDay(-daysAgo) + hour * 3600;
    return Database::addFocus(std::nullopt, start, start + progress, tagId, goal, progress, std::nullopt, std::nullopt,
                              std::nullopt);
  }
  void setGoal(const std::optional<FocusGoal>& goal, const std::string& tagId = "working") {
    TagEdit edit;
    edit.focusGoal = goal;
    Database::editTag(tagId, edit);
  }
};

TEST_F(FocusOperationsTest, ReadsSelectByTagAndByStartOnly) {
  const std::string before = focus(1, 23.5, 3600);  // runs into today
  const std::string a = focus(0, 9, 600);
  const std::string b = focus(0, 8, 600, "studying");
  const std::string c = focus(0, 7, 600);
  const DateInterval day(today, today.endOfDay());
  EXPECT_EQ(Database::getFocuses(day), (std::vector<std::string>{a, b, c}));          // store order
  EXPECT_EQ(Database::getFocuses("working", day), (std::vector<std::string>{c, a}));  // by start
  EXPECT_EQ(Database::getFocuses("working"), (std::vector<std::string>{before, a, c}));
  // By start or end, for the day's own views.
  EXPECT_EQ(Database::getFocuses(day, {Settings::deviceId()}).size(), 4u);
  EXPECT_TRUE(Database::getFocuses(day, {"ANOTHER"}).empty());
  EXPECT_EQ(Database::getRecentFocus(t0)->id, a);
  EXPECT_EQ(Database::getFocus(today + 7 * 3600, Date::distantPast())->id, c);

  Database::deleteFocus(a);
  EXPECT_FALSE(Database::getFocus(a));
  EXPECT_EQ(Database::getRecentFocus(t0)->id, b);
}

TEST_F(FocusOperationsTest, AddingAnIdAgainReplacesTheSession) {
  const Date start = today + 3600;
  Database::addFocus("F1", start, start + 600, "working", 600, 600, std::nullopt, FocusMode::strict, std::nullopt);
  Database::addFocus("F1", start, start + 900, "studying", 900, 900, std::nullopt, std::nullopt, "Watch");
  EXPECT_EQ(Database::getFocuses().size(), 1u);
  EXPECT_EQ(Database::getFocus("F1")->tagId, "studying");
  EXPECT_EQ(Database::getFocus("F1")->watchName, "Watch");
}

TEST_F(FocusOperationsTest, AnEditOfProgressMovesTheEndAndLosesThePause) {
  const Date start = today + 3600;
  const std::string id = Database::addFocus(std::nullopt, start, start + 3000, "working", 1500, 1500, std::nullopt,
                                            FocusMode::easy, std::nullopt);
  Database::editFocus(id, {.progress = 1200});
  auto edited = Database::getFocus(id);
  EXPECT_EQ(*edited->end, start + 1200);
  EXPECT_EQ(edited->mode(), FocusMode::easy);  // untouched
  // A new start is applied first, so the end follows it.
  Database::editFocus(id, {.tagId = "studying",
                           .start = start + 60,
                           .progress = 600,
                           .type = widgets::AbstractFocusType::addTime,
                           .mode = FocusMode::strict});
  edited = Database::getFocus(id);
  EXPECT_EQ(*edited->end, start + 660);
  EXPECT_EQ(edited->tagId, "studying");
  EXPECT_EQ(edited->typeString, "addTime");
  EXPECT_EQ(edited->modeString, "strict");
  // Unknown and deleted ids are skipped.
  Database::editFocus("NOPE", {.progress = 1});
  Database::deleteFocus(id);
  Database::editFocus(id, {.progress = 1});
  EXPECT_EQ(store::Store::open().object<Focus>(id)->progress, 600);
}

TEST_F(FocusOperationsTest, ClearFocusesKeepsTheLaterEndingOfStartsUnderASecondApart) {
  const Date s = today + 3600;
  const auto add = [](const std::string& id, Date start, double length) {
    Database::addFocus(id, start, start + length, "working", length, length, std::nullopt, std::nullopt, std::nullopt);
  };
  add("A", s, 600);
  add("B", s + 0.5, 700);  // a copy of A that ran longer: replaces it
  add("C", s + 1.0, 800);  // one second after A: A's copy no more; B's, though
  add("D", s + 1.6, 100);  // a shorter copy of C
  add("E", s + 10.0, 50);
  Database::clearFocuses();
  EXPECT_EQ(Database::getFocuses(), (std::vector<std::string>{"C", "E"}));

  // Starts exactly 1.0 second apart stay.
  add("F", s + 7200, 60);
  add("G", s + 7201, 60);
  Database::clearFocuses();
  EXPECT_EQ(Database::getFocuses(), (std::vector<std::string>{"C", "E", "F", "G"}));
}

TEST_F(FocusOperationsTest, AStreakCountsFullDaysAndTodayDoesNotBreakIt) {
  setGoal(FocusGoal::moreThanOrEqualTo(3600));
  focus(1, 9, 3600);
  focus(2, 9, 2000);
  focus(2, 14, 2000);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(2));  // nothing today
  focus(0, 8, 3000);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(2));  // today below the goal
  focus(0, 9, 600);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(3));
  // Another tag's sessions count for nothing here.
  focus(3, 9, 7200, "studying");
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(3));
}

TEST_F(FocusOperationsTest, AMissedDayEndsTheStreakAndThenOnlyDaysWithSessionsCount) {
  setGoal(FocusGoal::moreThanOrEqualTo(3600));
  focus(1, 9, 1800);  // yesterday below the goal
  focus(2, 9, 4000);  // the day before above it
  focus(3, 9, 4000);
  focus(5, 9, 4000);  // after a day without sessions: not reached
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::focus(3));
}

TEST_F(FocusOperationsTest, ALimitMetExactlyIsNotAFailedDay) {
  setGoal(FocusGoal::lessThanOrEqualTo(1800));
  focus(1, 9, 1800);
  focus(2, 9, 1801);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::focus(2));
  focus(1, 12, 1);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::fail(2));
}

TEST_F(FocusOperationsTest, WithoutAGoalOnlyDaysWithSessionsCount) {
  EXPECT_EQ(Database::getFocusCombo("working", t0), std::nullopt);
  focus(0, 9, 60);
  focus(1, 9, 60);
  focus(3, 9, 60);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::focus(2));
  // The first day may be empty; an unknown tag still counts its sessions.
  focus(1, 9, 60, "ghost");
  focus(2, 9, 60, "ghost");
  EXPECT_EQ(Database::getFocusCombo("ghost", t0), FocusCombo::focus(2));
  EXPECT_EQ(Database::getGoalProgress("ghost", t0), std::nullopt);
}

TEST_F(FocusOperationsTest, AGoalOfNothingEndsAtTheFirstSession) {
  setGoal(FocusGoal::moreThanOrEqualTo(0));
  focus(3, 9, 60);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(4));
}

TEST_F(FocusOperationsTest, GoalProgressIsTheDaysFocusOverTheGoal) {
  EXPECT_EQ(Database::getGoalProgress("working", t0), std::nullopt);  // no goal
  setGoal(FocusGoal::moreThanOrEqualTo(3600));
  EXPECT_EQ(Database::getGoalProgress("working", t0), 0.0);
  focus(0, 8, 1800);
  focus(0, 9, 3600);
  focus(1, 9, 3600);  // yesterday's
  EXPECT_DOUBLE_EQ(*Database::getGoalProgress("working", t0), 1.5);
  setGoal(FocusGoal::moreThanOrEqualTo(0));
  EXPECT_TRUE(std::isinf(*Database::getGoalProgress("working", t0)));
  focus(-1, 9, 0, "studying");
  setGoal(FocusGoal::lessThanOrEqualTo(0), "studying");
  EXPECT_TRUE(std::isnan(*Database::getGoalProgress("studying", t0.addingDay(1))));
}

TEST_F(FocusOperationsTest, ChangesOfFocusesAndTagsGiveOneDebouncedPost) {
  int posts = 0;
  auto token = NotificationCenter::defaultCenter().addObserver(
      std::string(Database::NotificationName::focusesDidChange), nullptr, [&posts](const Notification&) { ++posts; });
  env.advance(1);  // the first deliveries after start
  EXPECT_EQ(posts, 1);
  focus(0, 8, 60);
  focus(0, 9, 60);
  Database::archiveTag("studying", true);
  env.advance(0.05);
  EXPECT_EQ(posts, 1);
  env.advance(1);
  EXPECT_EQ(posts, 2);
}

TEST_F(FocusOperationsTest, ASnapshotSelectsByStartAndCutsStrictlyAfterABucketsStart) {
  focus(1, 23.5, 3600);
  focus(0, 9, 1499, "working", 1500);
  const std::string inside = focus(0, 9.5, 1500, "working", 1500);
  focus(0, 10, 0, "studying", 0);  // no length

  const Focuses day = Focuses::days(t0, 1, std::nullopt);
  ASSERT_TRUE(day.focuses);
  ASSERT_EQ(day.focuses->size(), 3u);  // `early` began the day before
  EXPECT_EQ(day.failedTimes(), 1);
  EXPECT_EQ(day.totalTime(), 2999.0);
  EXPECT_EQ(Focuses::allTime("working").focuses->size(), 3u);
  // Both ends of a snapshot's interval are in it.
  EXPECT_EQ(Focuses::hours(today + 9 * 3600, 1, "studying").focuses->size(), 1u);

  // The session that starts at 09:00 sharp is in neither 08:00's nor 09:00's cut.
  const auto cut = [&day](double hour) {
    return Focuses::getFocusesStartsIn(today + hour * 3600, today + (hour + 1) * 3600, day.focuses);
  };
  EXPECT_TRUE(cut(8).focuses->empty());
  ASSERT_EQ(cut(9).focuses->size(), 1u);
  EXPECT_EQ(cut(9).focuses->front().id, inside);
  EXPECT_TRUE(cut(10).focuses->empty());  // the zero-length one
  EXPECT_EQ(cut(10).failedTimes(), std::nullopt);

  const Focuses none = Focuses::getFocusesStartsIn(today, today + 60, std::nullopt);
  EXPECT_FALSE(none.focuses);
  EXPECT_EQ(none.totalTime(), std::nullopt);
}

}  // namespace
}  // namespace tarnwell

// Focus sessions in the store: reads by tag and start, edits, the copy
// clean-up and a tag's progress of the day.

#include <gtest/gtest.h>

#include <cmath>

#include "support/FocusFixture.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {
namespace {

using testing::t0;
using testing::today;

class FocusOperationsTest : public testing::FocusFixture {};

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

}  // namespace
}  // namespace tarnwell

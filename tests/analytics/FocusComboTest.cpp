// A tag's run of days: goals reached, limits broken, or simply days with
// sessions, counted back from a day that is not over.

#include "tarnwell/analytics/FocusCombo.h"

#include <gtest/gtest.h>

#include "support/FocusFixture.h"

namespace tarnwell {
namespace {

using testing::t0;

class FocusComboTest : public testing::FocusFixture {};

TEST_F(FocusComboTest, AStreakCountsFullDaysAndTodayDoesNotBreakIt) {
  setGoal(FocusGoal::moreThanOrEqualTo(3600));
  focus(1, 9, 3600);
  focus(2, 9, 2000);
  focus(2, 14, 2000);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::streak(2));  // nothing today
  focus(0, 8, 3000);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::streak(2));  // today below the goal
  focus(0, 9, 600);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::streak(3));
  // Another tag's sessions count for nothing here.
  focus(3, 9, 7200, "studying");
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::streak(3));
}

TEST_F(FocusComboTest, AMissedDayEndsTheStreakAndThenOnlyDaysWithSessionsCount) {
  setGoal(FocusGoal::moreThanOrEqualTo(3600));
  focus(1, 9, 1800);  // yesterday below the goal
  focus(2, 9, 4000);  // the day before above it
  focus(3, 9, 4000);
  focus(5, 9, 4000);  // after a day without sessions: not reached
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::focus(3));
}

TEST_F(FocusComboTest, ALimitMetExactlyIsNotAFailedDay) {
  setGoal(FocusGoal::lessThanOrEqualTo(1800));
  focus(1, 9, 1800);
  focus(2, 9, 1801);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::focus(2));
  focus(1, 12, 1);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::fail(2));
}

TEST_F(FocusComboTest, WithoutAGoalOnlyDaysWithSessionsCount) {
  EXPECT_EQ(FocusCombo::of("working", t0), std::nullopt);
  focus(0, 9, 60);
  focus(1, 9, 60);
  focus(3, 9, 60);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::focus(2));
  // The first day may be empty; an unknown tag still counts its sessions.
  focus(1, 9, 60, "ghost");
  focus(2, 9, 60, "ghost");
  EXPECT_EQ(FocusCombo::of("ghost", t0), FocusCombo::focus(2));
  EXPECT_EQ(Database::getGoalProgress("ghost", t0), std::nullopt);
}

TEST_F(FocusComboTest, AGoalOfNothingEndsAtTheFirstSession) {
  setGoal(FocusGoal::moreThanOrEqualTo(0));
  focus(3, 9, 60);
  EXPECT_EQ(FocusCombo::of("working", t0), FocusCombo::streak(4));
}

// The facade answers with the same walk.
TEST_F(FocusComboTest, TheDatabaseAsksTheSameWalk) {
  setGoal(FocusGoal::moreThanOrEqualTo(60));
  focus(1, 9, 60);
  EXPECT_EQ(Database::getFocusCombo("working", t0), FocusCombo::streak(1));
}

}  // namespace
}  // namespace tarnwell

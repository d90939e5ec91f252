// Streaks of the daily goals: today can only break screen time and pickups,
// sleep counts last night, the walk back stops at a day without data or
// after 100 days, and is made once a day.

#include "tarnwell/analytics/EventsCombo.h"

#include <gtest/gtest.h>

#include "support/DayFixture.h"

namespace tarnwell {
namespace {

using ComboType = EventsCombo::ComboType;

class EventsComboTest : public testing::DayFixture {
 protected:
  // That wall time on the day `daysAgo` before now's.
  static Date on(int daysAgo, int hour, int minute) {
    return Date::now().startOfDay().addingDay(-daysAgo).startOfDay().getTime(hour, minute, 0);
  }
  // One pickup of `minutes` from that hour, 10:00 unless told.
  static void useOn(int daysAgo, int minutes, int hour = 10) {
    Database::addPickup(on(daysAgo, hour, 0), on(daysAgo, hour, 0) + minutes * 60.0);
  }
  // A night of nine hours that ends on the morning of the day `daysAgo`.
  static void nightBefore(int daysAgo) {
    Database::addPickup(on(daysAgo + 1, 21, 50), on(daysAgo + 1, 22, 0));
    Database::addPickup(on(daysAgo, 7, 0), on(daysAgo, 7, 10));
  }
};

TEST_F(EventsComboTest, NoDataNoStreaks) {
  const EventsCombo combo = EventsCombo::currentCombo();
  EXPECT_FALSE(combo.screenTimeCombo);
  EXPECT_FALSE(combo.pickupCombo);
  EXPECT_FALSE(combo.sleepTimeCombo);
  EXPECT_EQ(combo.date(), Date::now());
}

TEST_F(EventsComboTest, TodayCountsOnlyWhenItBreaksTheStreak) {
  for (int daysAgo = 1; daysAgo <= 8; ++daysAgo) useOn(daysAgo, 10);
  useOn(10, 10);  // beyond a day without data
  useOn(0, 10);
  EventsCombo combo = EventsCombo::currentCombo();
  EXPECT_EQ(combo.screenTimeCombo, ComboType::succeed(8));
  EXPECT_EQ(combo.pickupCombo, ComboType::succeed(8));
  // Exactly at the goal is kept.
  useOn(0, 290, 5);  // 300 minutes in all
  EXPECT_EQ(EventsCombo::currentCombo().screenTimeCombo, ComboType::succeed(8));
  useOn(0, 1, 12);
  combo = EventsCombo::currentCombo();
  EXPECT_EQ(combo.screenTimeCombo, ComboType::failed(1));
  EXPECT_EQ(combo.pickupCombo, ComboType::succeed(8));
}

TEST_F(EventsComboTest, MissedDaysAddUpWithAMissedToday) {
  Settings::setDefaultScreenTimeGoal(300);
  useOn(2, 1);
  useOn(1, 10);
  useOn(0, 10);
  const EventsCombo combo = EventsCombo::currentCombo();
  // Yesterday missed, the day before kept: the missed streak ends there.
  EXPECT_EQ(combo.screenTimeCombo, ComboType::failed(2));
  EXPECT_EQ(combo.pickupCombo, ComboType::succeed(2));
}

TEST_F(EventsComboTest, SleepCountsLastNight) {
  for (int daysAgo = 0; daysAgo <= 6; ++daysAgo) nightBefore(daysAgo);
  EXPECT_EQ(EventsCombo::currentCombo().sleepTimeCombo, ComboType::succeed(7));
}

TEST_F(EventsComboTest, WithoutLastNightThereIsNoSleepStreak) {
  Settings::setDefaultScreenTimeGoal(7200);
  for (int daysAgo = 1; daysAgo <= 5; ++daysAgo) nightBefore(daysAgo);
  // The evening of six days ago is the one day over the screen-time goal.
  Database::addPickup(on(6, 19, 0), on(6, 21, 50));
  const EventsCombo combo = EventsCombo::currentCombo();
  EXPECT_EQ(combo.screenTimeCombo, ComboType::succeed(5));
  EXPECT_FALSE(combo.sleepTimeCombo);
}

TEST_F(EventsComboTest, TheWalkBackStopsAfterOneHundredDays) {
  Settings::setDefaultScreenTimeGoal(60);
  for (int daysAgo = 0; daysAgo <= 105; ++daysAgo) useOn(daysAgo, 10);
  const EventsCombo combo = EventsCombo::currentCombo();
  EXPECT_EQ(combo.screenTimeCombo, ComboType::failed(101));
  EXPECT_EQ(combo.pickupCombo, ComboType::succeed(100));
}

TEST_F(EventsComboTest, TheHistoryIsWalkedOnceADay) {
  useOn(1, 10);
  EXPECT_EQ(EventsCombo::currentCombo().screenTimeCombo, ComboType::succeed(1));
  // Neither new data nor a new goal reaches the kept history the same day.
  useOn(2, 10);
  Settings::setDefaultScreenTimeGoal(60);
  EXPECT_EQ(EventsCombo::currentCombo().screenTimeCombo, ComboType::succeed(1));
  // Today's part is always fresh.
  useOn(0, 10);
  EXPECT_EQ(EventsCombo::currentCombo().screenTimeCombo, ComboType::failed(1));
  // The next day the walk starts again from the new yesterday.
  env.advance(86400);
  // The day timer's rebuild of today finishes before the store goes away.
  Database::queue().safeSync([] {});
  EXPECT_EQ(EventsCombo::currentCombo().screenTimeCombo, ComboType::failed(3));
}

}  // namespace
}  // namespace tarnwell

// Runs of days: sums that skip days without data, clock-time means, and the
// cache of runs built from the store.

#include "tarnwell/analytics/EventsOfDays.h"

#include <gtest/gtest.h>

#include "support/DayFixture.h"

namespace tarnwell {
namespace {

// A day that is only its numbers, as a stored summary would be.
struct SummaryDay : ItemLikeEventsOfDay {
  Date start;
  std::optional<double> screen, longest, checking, walking, sleep;
  std::optional<int> pickups;
  std::optional<Date> first, last;
  std::optional<DateInterval> bestBreakInterval, usage;

  Date startOfDay() const override { return start; }
  std::optional<double> screenTime() const override { return screen; }
  std::optional<int> pickupTimes() const override { return pickups; }
  std::optional<double> longestPickup() const override { return longest; }
  std::optional<double> checkingEvery() const override { return checking; }
  std::optional<double> walkingLife() const override { return walking; }
  std::optional<Date> firstPickupDate() const override { return first; }
  std::optional<Date> lastPickupDate() const override { return last; }
  std::optional<double> sleepTime() const override { return sleep; }
  std::optional<DateInterval> bestBreak() const override { return bestBreakInterval; }
  std::optional<DateInterval> continuouslyUsage() const override { return usage; }
  std::optional<std::vector<EventsOfHour>> getEventsOfHours() const override { return std::nullopt; }
};

class EventsOfDaysTest : public testing::DayFixture {
 protected:
  static EventsOfDays run(std::vector<SummaryDay> days) {
    std::vector<EventsOfDays::Day> held;
    for (auto& day : days) held.push_back(std::make_shared<const SummaryDay>(std::move(day)));
    return EventsOfDays(std::move(held));
  }
};

TEST_F(EventsOfDaysTest, AnEmptyRunIsAllZero) {
  const EventsOfDays days = run({});
  EXPECT_FALSE(days.start());
  EXPECT_FALSE(days.count());
  EXPECT_EQ(days.screenTime(), (EventsOfDays::Sum<double>{0.0, 0.0}));
  EXPECT_EQ(days.pickupTimes(), (EventsOfDays::Sum<int>{0, 0.0}));
  EXPECT_EQ(days.indoorLife(), (EventsOfDays::Sum<double>{0.0, 0.0}));
  EXPECT_FALSE(days.longestPickup());
  EXPECT_EQ(days.averageBestBreak(), 0.0);
  EXPECT_EQ(days.averageSleepTime(), 0.0);
  EXPECT_EQ(days.averageFirstPickup(), (DateComponents{0, 0, 0}));
}

TEST_F(EventsOfDaysTest, DaysWithoutDataAreLeftOutNotReadAsZero) {
  SummaryDay full, empty, zero;
  full.screen = 100.0;
  full.walking = 40.0;
  full.pickups = 3;
  full.longest = 50.0;
  full.sleep = 30000.0;
  full.bestBreakInterval = DateInterval(at("09:00"), 600.0);
  zero.screen = 0.0;
  zero.walking = 0.0;
  zero.pickups = 0;
  // A day of 0 counts in the divisor, a day of nothing does not.
  EXPECT_EQ(run({full, empty}).screenTime(), (EventsOfDays::Sum<double>{100.0, 100.0}));
  const EventsOfDays days = run({full, empty, zero});
  EXPECT_EQ(days.screenTime(), (EventsOfDays::Sum<double>{100.0, 50.0}));
  EXPECT_EQ(days.pickupTimes(), (EventsOfDays::Sum<int>{3, 1.5}));
  EXPECT_EQ(days.walkingLife(), (EventsOfDays::Sum<double>{40.0, 20.0}));
  EXPECT_EQ(days.indoorLife(), (EventsOfDays::Sum<double>{60.0, 30.0}));
  EXPECT_EQ(days.longestPickup(), 50.0);
  EXPECT_EQ(days.averageSleepTime(), 30000.0);
  EXPECT_EQ(days.averageBestBreak(), 600.0);
  EXPECT_EQ(days.averageContinuouslyUsage(), 0.0);
  EXPECT_EQ(days.averageCheckingEvery(), 0.0);
  // Screen time without walking life gives no indoor life.
  SummaryDay screenOnly;
  screenOnly.screen = 500.0;
  EXPECT_EQ(run({screenOnly}).indoorLife(), (EventsOfDays::Sum<double>{0.0, 0.0}));
}

TEST_F(EventsOfDaysTest, ClockTimesAverageWithoutAWrapAtMidnight) {
  SummaryDay late, early, none;
  late.last = at("-23:30");
  early.last = at("00:30");
  late.first = at("07:00:10");
  early.first = at("08:00:21");
  const EventsOfDays days = run({late, none, early});
  EXPECT_EQ(days.averageLastPickup(), (DateComponents{12, 0, 0}));
  // 07:30:15.5 truncates to whole seconds.
  EXPECT_EQ(days.averageFirstPickup(), (DateComponents{7, 30, 15}));
}

TEST_F(EventsOfDaysTest, ALiveRunReadsItsDaysFromTheStore) {
  pickup("09:00", "09:10");
  pickup("+09:00", "+09:30");
  const EventsOfDays days(at("12:00"), 3);
  EXPECT_EQ(days.start(), at("12:00"));
  EXPECT_EQ(days.count(), 3);
  ASSERT_EQ(days.eventsOfDays().size(), 3u);
  EXPECT_EQ(days.eventsOfDays()[1]->startOfDay(), at("+00:00"));
  EXPECT_EQ(days.screenTime(), (EventsOfDays::Sum<double>{2400.0, 1200.0}));
  EXPECT_EQ(days.longestPickup(), 1800.0);
  EXPECT_TRUE(EventsOfDays(at("12:00"), 0).eventsOfDays().empty());
}

TEST_F(EventsOfDaysTest, ARunIsCachedUntilTheCachesAreCleared) {
  pickup("09:00", "09:10");
  EXPECT_EQ(EventsOfDays(day(), 7).screenTime().total, 600.0);
  pickup("10:00", "10:10");
  // The same start and count answer with the old days, more than once.
  EXPECT_EQ(EventsOfDays(day(), 7).screenTime().total, 600.0);
  EXPECT_EQ(EventsOfDays(day(), 7).screenTime().total, 600.0);
  // Another count, or another instant of the same day, is another run.
  EXPECT_EQ(EventsOfDays(day(), 6).screenTime().total, 1200.0);
  EXPECT_EQ(EventsOfDays(at("12:00:01"), 7).screenTime().total, 1200.0);
  EventsOfDays::clearCaches();
  EXPECT_EQ(EventsOfDays(day(), 7).screenTime().total, 1200.0);
  // A new Environment starts with an empty cache.
  pickup("11:00", "11:10");
  env.relaunch();
  Database::start();
  EXPECT_EQ(EventsOfDays(day(), 7).screenTime().total, 1800.0);
}

}  // namespace
}  // namespace tarnwell

// The night that ended on a day, inferred from the gaps in phone use.

#include <gtest/gtest.h>

#include "support/DayFixture.h"

namespace tarnwell {
namespace {

class SleepInferenceTest : public testing::DayFixture {};

TEST_F(SleepInferenceTest, TheWorkedNight) {
  pickup("-23:00", "-23:30");  // asleep from 23:30
  const std::string night = pickup("03:00", "03:05");
  pickup("07:30", "07:40");
  pickup("12:00", "12:10");
  EventsOfDay day = today();
  // A gap of 4 h 25 min; the break from 03:05 to 07:30 equals it and does not replace it.
  EXPECT_EQ(day.lastPickupDate(), at("03:05"));
  EXPECT_EQ(day.firstPickupDate(), at("07:30"));
  EXPECT_EQ(day.sleepTime(), 4 * 3600 + 25 * 60.0);

  Database::editPickups(DateInterval(at("02:59"), at("03:06")), true, {Settings::deviceId()});
  day = today();
  EXPECT_EQ(day.lastPickupDate(), at("-23:30"));
  EXPECT_EQ(day.firstPickupDate(), at("07:30"));
  EXPECT_GT(*day.firstPickupDate() - *day.lastPickupDate(), 6 * 3600.0);
  // The ignored pickup is still use: the inferred sleep has it cut out of the night.
  EXPECT_EQ(day.sleeps(), (std::vector<DateInterval>{DateInterval(at("-23:30"), at("03:00")),
                                                     DateInterval(at("03:05"), at("07:30"))}));
  EXPECT_EQ(day.sleepTime(), 8 * 3600 - 5 * 60.0);
  EXPECT_EQ(day.asleepAt(), at("-23:30") + 4 * 3600);
  (void)night;
}

TEST_F(SleepInferenceTest, APickupThatJustEndedIsNoBedtimeYet) {
  pickup("-23:00", "-23:10");
  pickup("07:00", "07:05");
  env.clock().set(at("-23:10") + 59);
  EXPECT_FALSE(today().lastPickupDate());
  env.clock().set(at("-23:10") + 60);
  EXPECT_EQ(today().lastPickupDate(), at("-23:10"));
}

TEST_F(SleepInferenceTest, SixHoursSettleTheNight) {
  const std::string evening = pickup("-22:00", "-23:00");
  pickup("05:00", "05:01");  // exactly 21600 s after the evening's last pickup
  pickup("05:30", "05:35");
  pickup("12:00", "12:10");  // a longer break, 05:35 to 12:00, waits behind
  EventsOfDay day = today();
  EXPECT_EQ(day.lastPickupDate(), at("-23:00"));
  EXPECT_EQ(day.firstPickupDate(), at("05:00"));
  // 21599 s is no settled night: the longer break of the morning takes its place.
  Database::editPickup(evening, at("-23:00:01"));
  day = today();
  EXPECT_EQ(day.lastPickupDate(), at("05:35"));
  EXPECT_EQ(day.firstPickupDate(), at("12:00"));
}

TEST_F(SleepInferenceTest, WithoutALastPickupABreakMustBeLongerThanThreeHours) {
  pickup("04:30", "05:00");
  pickup("08:00", "08:10");  // break 05:00 to 08:00: exactly 10800 s
  EXPECT_EQ(today().lastPickupDate(), std::nullopt);
  EXPECT_EQ(today().firstPickupDate(), at("04:30"));
  Database::editPickup(Database::getPickups(DateInterval(at("04:30"), at("04:31")), {Settings::deviceId()})[0],
                       at("04:59:59"));
  EXPECT_EQ(today().lastPickupDate(), at("04:59:59"));
  EXPECT_EQ(today().firstPickupDate(), at("08:00"));
}

TEST_F(SleepInferenceTest, ABreakStartingAtEightIsNoNight) {
  const std::string morning = pickup("07:00", "08:00");
  pickup("12:00", "12:10");  // the break begins at 08:00:00 exactly
  EXPECT_FALSE(today().lastPickupDate());
  EXPECT_EQ(today().firstPickupDate(), at("07:00"));
  Database::editPickup(morning, at("07:59:59"));
  EXPECT_EQ(today().lastPickupDate(), at("07:59:59"));
  EXPECT_EQ(today().firstPickupDate(), at("12:00"));
}

TEST_F(SleepInferenceTest, ALateSleeperIsFoundByTheLongBreak) {
  pickup("04:30", "05:00");
  pickup("12:00", "12:30");
  pickup("13:00", "13:05");
  const EventsOfDay day = today();
  EXPECT_EQ(day.lastPickupDate(), at("05:00"));
  EXPECT_EQ(day.firstPickupDate(), at("12:00"));
  EXPECT_EQ(day.sleepTime(), 7 * 3600.0);
  EXPECT_TRUE(day.breaks().size() == 1);  // the night is no break of the day
}

TEST_F(SleepInferenceTest, OnePickupAcrossFourInTheMorningIsNoNight) {
  pickup("03:50", "04:10");
  const EventsOfDay day = today();
  EXPECT_EQ(day.lastPickupDate(), at("04:10"));
  EXPECT_FALSE(day.firstPickupDate());
  EXPECT_FALSE(day.sleepTime());
  EXPECT_EQ(day.asleepAt(), at("04:00"));
}

TEST_F(SleepInferenceTest, ALiveUpdateDoesNotReopenASettledNight) {
  pickup("-23:00", "-23:30");
  const std::string morning = pickup("07:30", "07:40");
  EventsOfDay day = today();
  ASSERT_TRUE(day.firstPickupDate() && day.lastPickupDate());
  Database::deletePickup(morning);
  day = day.appliedChange(EventsOfInterval::EventsChangeType::pickup(morning));
  EXPECT_EQ(day.firstPickupDate(), at("07:30"));
  EXPECT_FALSE(today().firstPickupDate());  // a new value sees the later truth
}

}  // namespace
}  // namespace tarnwell

// A day's metrics and the events behind them.

#include <gtest/gtest.h>

#include "support/DayFixture.h"
#include "tarnwell/health/HealthManager.h"

namespace tarnwell {
namespace {

using Change = EventsOfInterval::EventsChangeType;

class EventsOfDayTest : public testing::DayFixture {};

TEST_F(EventsOfDayTest, AnEmptyDayHasNoData) {
  const EventsOfDay day = today();
  EXPECT_FALSE(day.screenTime());
  EXPECT_FALSE(day.pickupTimes());
  EXPECT_FALSE(day.longestPickup());
  EXPECT_FALSE(day.checkingEvery());
  EXPECT_FALSE(day.walkingLife());
  EXPECT_FALSE(day.indoorLife());
  EXPECT_FALSE(day.sleepTime());
  EXPECT_TRUE(day.breaks().empty());
  EXPECT_TRUE(day.noDatas().empty());
  EXPECT_FALSE(day.bestBreak());
  EXPECT_EQ(day.asleepAt(), at("04:00"));
  EXPECT_EQ(day.sleepSourceDisplayName(), "Tarnwell");
  EXPECT_EQ(day.startOfDay(), at("00:00"));
}

TEST_F(EventsOfDayTest, MetricExamples) {
  pickup("09:00:00", "09:01:00");
  pickup("10:00:00", "10:01:01");
  pickup("11:00:00", "11:01:02");
  const EventsOfDay day = today();
  EXPECT_EQ(day.screenTime(), 183.0);
  EXPECT_EQ(day.pickupTimes(), 3);
  EXPECT_EQ(day.checkingEvery(), 61.0);
  EXPECT_EQ(day.longestPickup(), 62.0);
  EXPECT_EQ(day.continuouslyUsage(), DateInterval(at("11:00:00"), at("11:01:02")));
  EXPECT_EQ(day.walkingLife(), 0.0);  // pickups and no walk: zero, not nothing
  EXPECT_EQ(day.indoorLife(), 183.0);
}

TEST_F(EventsOfDayTest, RoundingIsPerPickupHalvesAwayFromZero) {
  pickup("09:00:00", "09:00:10");
  pickup("10:00:00", "10:00:11");
  EXPECT_EQ(today().checkingEvery(), 11.0);  // 10.5
  Database::addPickup(at("11:00:00"), at("11:00:00") + 0.4);
  const EventsOfDay day = today();
  EXPECT_EQ(day.pickupTimes(), 3);
  EXPECT_EQ(day.screenTime(), 21.0);
}

TEST_F(EventsOfDayTest, WalkingAndIndoorLife) {
  pickup("09:00:00", "09:01:40");
  walk("09:00:30", "09:01:00");
  const EventsOfDay day = today();
  EXPECT_EQ(day.walkingLife(), 30.0);
  EXPECT_EQ(day.indoorLife(), 70.0);
}

TEST_F(EventsOfDayTest, APickupAcrossMidnightCountsInBothDays) {
  pickup("23:50", "+00:10");
  EXPECT_EQ(today().pickups(), std::vector<DateInterval>{DateInterval(at("23:50"), at("+00:00"))});
  const EventsOfDay next(at("+12:00"), std::nullopt);
  EXPECT_EQ(next.screenTime(), 600.0);
  EXPECT_EQ(next.pickupTimes(), 1);
  // One that begins before the day and ends after it is absent from it.
  pickup("-23:00", "+01:00");
  EXPECT_EQ(today().pickupTimes(), 1);
}

TEST_F(EventsOfDayTest, FocusTimeIsNoScreenTime) {
  pickup("09:00", "09:30");
  focus("09:10", "09:20", 600);
  EventsOfDay day = today();
  EXPECT_EQ(day.pickupTimes(), 2);
  EXPECT_EQ(day.screenTime(), 1200.0);
  ASSERT_EQ(day.focuseDatas().size(), 1u);
  EXPECT_EQ(day.focuseDatas()[0].interval, DateInterval(at("09:10"), at("09:20")));
  EXPECT_FALSE(day.focuseDatas()[0].failed);
  EXPECT_EQ(day.breaks().size(), 0u);  // the focus session is no break
  Settings::setExcludeFocusTime(false);
  day = today();
  EXPECT_EQ(day.pickupTimes(), 1);
  EXPECT_EQ(day.screenTime(), 1800.0);
  EXPECT_TRUE(day.focuseDatas().empty());
}

TEST_F(EventsOfDayTest, TwoDevicesOverlappingBothCount) {
  pickup("09:00", "09:10");
  pickupOf("TABLET", "09:05", "09:15");
  EXPECT_EQ(today().screenTime(), 600.0);  // this device alone by default
  const EventsOfDay both(day(), std::vector<std::string>{Settings::deviceId(), "TABLET"});
  EXPECT_EQ(both.pickupTimes(), 2);
  EXPECT_EQ(both.screenTime(), 1200.0);
  store::Store::open().write([](auto& t) {
    auto device = *Database::getCurrentDevice();
    device.appendDeviceId("TABLET");
    t.add(device);
  });
  EXPECT_EQ(EventsOfDay::defaultDeviceIds(), (std::vector<std::string>{Settings::deviceId(), "TABLET"}));
  EXPECT_EQ(today().screenTime(), 1200.0);
}

TEST_F(EventsOfDayTest, NoDataNeedsTwoMinutesOfSilence) {
  alive("08:00:00", "08:01:00");
  alive("08:02:00", "09:00:00");
  EXPECT_TRUE(today().noDatas().empty());
  alive("09:02:00", "10:00:00");
  EXPECT_EQ(today().noDatas(), std::vector<DateInterval>{DateInterval(at("09:00"), at("09:02"))});
}

TEST_F(EventsOfDayTest, BreaksLieBetweenPickupsWithoutFocusOrMissingData) {
  pickup("09:00", "09:10");
  pickup("10:00", "10:05");
  pickup("12:00", "12:01");
  focus("10:30", "11:00");
  alive("08:00", "11:20");
  alive("11:40", "13:00");
  const EventsOfDay day = today();
  EXPECT_EQ(day.breaks(), (std::vector<DateInterval>{
                              DateInterval(at("09:10"), at("10:00")), DateInterval(at("10:05"), at("10:30")),
                              DateInterval(at("11:00"), at("11:20")), DateInterval(at("11:40"), at("12:00"))}));
  EXPECT_EQ(day.bestBreak(), DateInterval(at("09:10"), at("10:00")));
}

TEST_F(EventsOfDayTest, TheUsersStartOfDayShiftsTheSpanAndTheHours) {
  Settings::setStartOfDayScreenTime(14400);
  pickup("+03:00", "+03:10");
  EXPECT_EQ(today().pickupTimes(), 1);  // 03:00 of the next calendar day still belongs here
  EXPECT_FALSE(EventsOfDay(at("+12:00"), std::nullopt).pickupTimes());
  const auto hours = *today().getEventsOfHours();
  ASSERT_EQ(hours.size(), 24u);
  EXPECT_EQ(hours.front().interval.start(), at("04:00"));
  EXPECT_EQ(hours[23].screenTime(), 600.0);
}

TEST_F(EventsOfDayTest, AnyInstantOfTheDayGivesTheSameDay) {
  const EventsOfDay late(at("23:59:59"), std::nullopt), early(at("00:00"), std::nullopt);
  EXPECT_EQ(late.startOfDay(), early.startOfDay());
  EXPECT_EQ(late.eventsOfInterval().interval(), early.eventsOfInterval().interval());
  EXPECT_EQ(late.eventsOfInterval().interval().duration(), 86400);
}

TEST_F(EventsOfDayTest, HoursSplitAPickupAtTheirEdge) {
  pickup("10:30", "12:00");
  const auto hours = *today().getEventsOfHours();
  EXPECT_EQ(hours[10].screenTime(), 1800.0);
  EXPECT_EQ(hours[11].screenTime(), 3600.0);
  EXPECT_EQ(hours[10].pickupTimes(), 1);
  EXPECT_EQ(hours[11].pickupTimes(), 1);
  EXPECT_FALSE(hours[12].screenTime());
}

class DaylightSavingDayTest : public testing::DayFixture {
 protected:
  DaylightSavingDayTest() : DayFixture("America/New_York") {}
};

TEST_F(DaylightSavingDayTest, ADayOfTwentyThreeHours) {
  const Date spring = *Date::parseISO8601("2026-03-08T12:00:00");
  Database::addPickup(*Date::parseISO8601("2026-03-08T01:30:00"), *Date::parseISO8601("2026-03-08T03:30:00"));
  const EventsOfDay day(spring, std::nullopt);
  EXPECT_EQ(day.eventsOfInterval().interval().duration(), 23 * 3600);
  EXPECT_EQ(day.screenTime(), 3600.0);  // 01:30 to 03:30 is one real hour that day
  const auto hours = *day.getEventsOfHours();
  EXPECT_EQ(hours.size(), 24u);
  EXPECT_EQ(hours[1].screenTime(), 1800.0);
  EXPECT_EQ(hours[2].screenTime(), 1800.0);
}

TEST_F(EventsOfDayTest, ChangesRereadOnlyTheRecordsTheyName) {
  const std::string kept = pickup("09:00", "09:10");
  EventsOfDay day = today();
  const std::string moved = pickup("10:00", "10:10");
  day = day.appliedChange(Change::pickup(moved));
  EXPECT_EQ(day.pickupTimes(), 2);
  // A change that takes a record out of the day leaves its older entry.
  Database::editPickup(moved, at("+10:10"));
  store::Store::open().write([&](auto& t) { t.template updateObject<Pickup>(moved, {{"start", at("+10:00")}}); });
  EXPECT_EQ(day.appliedChange(Change::pickup(moved)).pickupTimes(), 2);
  // A deleted record goes.
  Database::deletePickup(kept);
  EXPECT_EQ(day.appliedChange(Change::pickup(kept)).pickupTimes(), 1);
}

TEST_F(EventsOfDayTest, TheLatestPickupFollowsItsEndWithoutARead) {
  EventsOfDay empty = today();
  EXPECT_FALSE(empty.appliedChange(Change::modifiedLatestPickup(at("09:00"))).pickupTimes());
  pickup("09:00", "09:10");
  pickup("08:00", "08:10");
  EventsOfDay day = today();
  day = day.appliedChange(Change::modifiedLatestPickup(at("09:30")));
  EXPECT_EQ(day.longestPickup(), 1800.0);
  // An end beyond the day is clipped to it.
  day = day.appliedChange(Change::modifiedLatestPickup(at("+01:00")));
  EXPECT_EQ(day.continuouslyUsage(), DateInterval(at("09:00"), at("+00:00")));
}

TEST_F(EventsOfDayTest, ASleepApplicationReplacesTheInference) {
  const SleepDataSource autoSleep{"AutoSleep", "com.tantsissa.AutoSleep"};
  Settings::setDefaultSleepDataSource(autoSleep);
  HealthManager::shared().setSleepDatas({{autoSleep, {DateInterval(at("-23:30"), at("07:00"))}}});
  pickup("06:00", "06:10");  // use during the sleep is no screen time
  pickup("06:50", "07:20");  // begins before the end of the sleep
  pickup("-22:00", "-22:30");
  const EventsOfDay day = today();
  EXPECT_EQ(day.sleepSource(), autoSleep);
  EXPECT_EQ(day.sleepSourceDisplayName(), "AutoSleep");
  EXPECT_EQ(day.sleepTime(), 7.5 * 3600);
  EXPECT_EQ(day.screenTime(), 1200.0);
  EXPECT_EQ(day.firstPickupDate(), at("07:00"));  // never before waking
  EXPECT_EQ(day.lastPickupDate(), at("-22:00"));  // where the evening's last pickup began
  EXPECT_EQ(day.asleepAt(), at("-22:00") + (at("07:00") - at("-22:00")) / 2);
  // Another source, or none of its data that night: the inference.
  HealthManager::shared().setSleepDatas({});
  EXPECT_FALSE(today().sleepSource());
}

TEST(HealthManagerTest, TheNightWindowOfASource) {
  testing::TestEnvironment env({.timeZone = "UTC"});
  const SleepDataSource pillow{"Pillow", "com.neybox.Pillow"};
  const Date day = *Date::parseISO8601("2026-11-22T12:00:00Z");
  const auto at = [](const char* text) { return *Date::parseISO8601(text); };
  HealthManager::shared().setSleepDatas({{pillow,
                                          {DateInterval(at("2026-11-21T18:00:00Z"), at("2026-11-21T20:00:00Z")),
                                           DateInterval(at("2026-11-22T01:00:00Z"), at("2026-11-22T01:00:00Z")),
                                           DateInterval(at("2026-11-22T02:00:00Z"), at("2026-11-22T05:00:00Z")),
                                           DateInterval(at("2026-11-22T04:00:00Z"), at("2026-11-22T06:00:00Z")),
                                           DateInterval(at("2026-11-22T10:00:01Z"), at("2026-11-22T11:00:00Z"))}}});
  const auto night = HealthManager::shared().getSleepData(pillow, day);
  ASSERT_TRUE(night);
  // Touching the window counts and is not clipped; zero lengths go; overlaps merge.
  EXPECT_EQ(night->sleeps,
            (std::vector<DateInterval>{DateInterval(at("2026-11-21T18:00:00Z"), at("2026-11-21T20:00:00Z")),
                                       DateInterval(at("2026-11-22T02:00:00Z"), at("2026-11-22T06:00:00Z"))}));
  EXPECT_FALSE(HealthManager::shared().getSleepData({"Pillow 2", "com.neybox.Pillow"}, day));
  EXPECT_FALSE(HealthManager::shared().getSleepData(pillow, day.addingDay(3)));
}

}  // namespace
}  // namespace tarnwell

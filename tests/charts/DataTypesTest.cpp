// The two kinds of chart metric: the usage metrics read from the days and
// hours, and the focus metrics cut from one snapshot.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/DayFixture.h"
#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/charts/FocusDataType.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/platform/Localization.h"

namespace tarnwell {
namespace {

using Case = ScreenTimeDataType::Case;
using Range = StatisticsDateRange;

std::vector<std::optional<double>> valuesOf(const std::vector<StatisticsDataPoint>& points) {
  std::vector<std::optional<double>> values;
  for (const auto& point : points) values.push_back(point.value);
  return values;
}

ScreenTimeDataType decoded(const nlohmann::json& json) {
  ScreenTimeDataType type(Case::screenTime);
  json.get_to(type);
  return type;
}

class ScreenTimeDataTypeTest : public testing::DayFixture {
 protected:
  static std::vector<StatisticsDataPoint> points(Case value, Date date, Range range) {
    return ScreenTimeDataType(value).getPoints(date, range);
  }
};

TEST_F(ScreenTimeDataTypeTest, IdentifiersAndRawValues) {
  ASSERT_EQ(ScreenTimeDataType::allCases().size(), 10u);
  for (int raw = 0; raw < 10; ++raw) {
    const ScreenTimeDataType type = ScreenTimeDataType::allCases()[static_cast<std::size_t>(raw)];
    EXPECT_EQ(type.rawValue(), raw);
    EXPECT_EQ(ScreenTimeDataType::fromIdentifier(type.identifier()), type);
    EXPECT_EQ(type.identifierForLog(), type.identifier());
    EXPECT_EQ(decoded(nlohmann::json(type)), type);
  }
  EXPECT_EQ(ScreenTimeDataType::fromIdentifier("walkingLife"), ScreenTimeDataType(Case::walkingLife));
  EXPECT_FALSE(ScreenTimeDataType::fromIdentifier("Pickups"));
  EXPECT_EQ(ScreenTimeDataType(Case::indoorLife).identifier(), "indoorLife");
  EXPECT_EQ(ScreenTimeDataType::fromRawValue(9), ScreenTimeDataType(Case::sleepTime));
  EXPECT_FALSE(ScreenTimeDataType::fromRawValue(10));
  EXPECT_FALSE(ScreenTimeDataType::fromRawValue(-1));
  EXPECT_EQ(nlohmann::json(ScreenTimeDataType(Case::bestBreak)), nlohmann::json(5));
  EXPECT_THROW(decoded(nlohmann::json(10)), nlohmann::json::exception);
  EXPECT_THROW(decoded(nlohmann::json("pickups")), nlohmann::json::exception);
  EXPECT_EQ(ScreenTimeDataType::defaultDataTypes(), ScreenTimeDataType::allCases());
}

TEST_F(ScreenTimeDataTypeTest, AnIPadHasNoSleepTime) {
  auto configuration = env.configuration();
  configuration.device.model = "iPad";
  Environment::install(std::make_unique<Environment>(std::move(configuration)));
  const auto& types = ScreenTimeDataType::defaultDataTypes();
  ASSERT_EQ(types.size(), 9u);
  EXPECT_EQ(types.back(), ScreenTimeDataType(Case::firstPickup));
}

TEST_F(ScreenTimeDataTypeTest, TextsAndBaselines) {
  const ScreenTimeDataType sleep(Case::sleepTime), screen(Case::screenTime), pickups(Case::pickups);
  EXPECT_EQ(ScreenTimeDataType(Case::indoorLife).title(), localized("ScreenTime.StationaryLife"));
  EXPECT_EQ(sleep.description(), localized("ScreenTime.SleepTime.About"));
  Settings::setDefaultSleepDataSource(SleepDataSource{"Pillow", "com.neybox.pillow"});
  EXPECT_EQ(sleep.description(), localized("ScreenTime.SleepTime.HealthKit.About"));
  EXPECT_NE(*sleep.description(), "ScreenTime.SleepTime.HealthKit.About");  // the text exists

  // The long end is the glad one for breaks and sleep alone.
  EXPECT_EQ(ScreenTimeDataType(Case::bestBreak).maximumDescription(), "😎" + localized("Timeline.TheLongest.Time"));
  EXPECT_EQ(ScreenTimeDataType(Case::continuouslyUsage).maximumDescription(),
            "😭" + localized("Timeline.TheLongest.Time"));
  EXPECT_EQ(sleep.minimumDescription(), "😭" + localized("Timeline.TheShortest.Day"));
  EXPECT_EQ(pickups.minimumDescription(), "😎" + localized("Timeline.TheLeast"));

  EXPECT_EQ(screen.yearlyBaseline(), 540000.0);
  EXPECT_EQ(pickups.yearlyBaseline(), 1800.0);
  Settings::setDefaultPickupGoal(40);
  EXPECT_EQ(pickups.dailyBaseline(), 40.0);
  EXPECT_FALSE(sleep.dailyBaseline());
  EXPECT_FALSE(ScreenTimeDataType(Case::walkingLife).yearlyBaseline());
}

TEST_F(ScreenTimeDataTypeTest, ADaysChartHasItsHours) {
  pickup("10:30", "12:00");
  walk("10:40", "10:50");
  const auto screen = points(Case::screenTime, day(), Range::day);
  ASSERT_EQ(screen.size(), 24u);
  EXPECT_EQ(screen[10].date, at("10:00"));
  // A pickup across the hour's edge counts in both hours.
  EXPECT_EQ(valuesOf(screen)[10], 1800.0);
  EXPECT_EQ(valuesOf(screen)[11], 3600.0);
  EXPECT_FALSE(screen[12].value);
  EXPECT_EQ(valuesOf(points(Case::pickups, day(), Range::day))[11], 1.0);
  EXPECT_EQ(valuesOf(points(Case::checkingEvery, day(), Range::day))[10], 1800.0);
  EXPECT_EQ(valuesOf(points(Case::walkingLife, day(), Range::day))[10], 600.0);
  EXPECT_EQ(valuesOf(points(Case::walkingLife, day(), Range::day))[11], 0.0);
  const auto indoor = points(Case::indoorLife, day(), Range::day);
  EXPECT_EQ(indoor[10].value, 1200.0);
  EXPECT_FALSE(indoor[9].value);
  // Without a daily chart a day is one point.
  const auto usage = points(Case::continuouslyUsage, day(), Range::day);
  ASSERT_EQ(usage.size(), 1u);
  EXPECT_EQ(usage[0].value, 5400.0);
  EXPECT_EQ(usage[0].data, DateInterval(at("10:30"), at("12:00")));
}

TEST_F(ScreenTimeDataTypeTest, TheHoursBeginAtTheUsersStartOfDay) {
  Settings::setStartOfDayScreenTime(14400);
  const auto hours = points(Case::screenTime, day(), Range::day);
  ASSERT_EQ(hours.size(), 24u);
  EXPECT_EQ(hours.front().date, at("04:00"));
  EXPECT_EQ(hours.back().date, at("+03:00"));
}

TEST_F(ScreenTimeDataTypeTest, PointsPerDayOfTheRange) {
  pickup("09:00", "09:10");
  const auto week = points(Case::screenTime, day(), Range::week);
  ASSERT_EQ(week.size(), 7u);
  for (std::size_t i = 0; i < week.size(); ++i) {
    EXPECT_EQ(week[i].date, day().startOfWeek().addingDay(static_cast<int>(i)).startOfDay());
    EXPECT_EQ(week[i].value, week[i].date == at("00:00") ? std::optional(600.0) : std::nullopt);
  }
  EXPECT_EQ(points(Case::pickups, day(), Range::month).size(), 30u);
  const auto leapYear = points(Case::sleepTime, *Date::parseISO8601("2028-06-01T12:00:00"), Range::year);
  ASSERT_EQ(leapYear.size(), 366u);
  EXPECT_EQ(leapYear.front().date, *Date::parseISO8601("2028-01-01"));
  EXPECT_EQ(leapYear.back().date, *Date::parseISO8601("2028-12-31"));
}

TEST_F(ScreenTimeDataTypeTest, ALastPickupAfterMidnightPlotsAboveTwentyFourHours) {
  pickup("-23:20", "-23:30");
  pickup("07:00", "07:05");
  EXPECT_EQ(valuesOf(points(Case::lastPickup, day(), Range::day)), (std::vector<std::optional<double>>{84600.0}));
  EXPECT_EQ(valuesOf(points(Case::firstPickup, day(), Range::day)), (std::vector<std::optional<double>>{25200.0}));
  // The cached day answers until the caches are cleared.
  pickup("00:20", "00:30");
  EXPECT_EQ(points(Case::lastPickup, day(), Range::day)[0].value, 84600.0);
  EventsOfDays::clearCaches();
  EXPECT_EQ(points(Case::lastPickup, day(), Range::day)[0].value, 88200.0);
}

class DaylightSavingChartTest : public testing::DayFixture {
 protected:
  DaylightSavingChartTest() : DayFixture("America/New_York") {}
};

TEST_F(DaylightSavingChartTest, ADayOfTwentyThreeHoursStillHasTwentyFourPoints) {
  const Date spring = *Date::parseISO8601("2026-03-08T12:00:00");
  const auto hours = ScreenTimeDataType(Case::screenTime).getPoints(spring, Range::day);
  ASSERT_EQ(hours.size(), 24u);
  EXPECT_EQ(hours.front().date, *Date::parseISO8601("2026-03-08T00:00:00"));
  // Hours of 3600 seconds run into the next calendar day.
  EXPECT_EQ(hours.back().date, *Date::parseISO8601("2026-03-09T00:00:00"));
}

class FocusDataTypeTest : public testing::DayFixture {
 protected:
  std::string addTag(const std::optional<FocusGoal>& goal) {
    return Database::addTag("Write", "✍️", Color::fromHex("#123456"), widgets::FocusType::countdown(1500), goal,
                            std::nullopt, false, std::nullopt);
  }
  void focusOf(const std::optional<std::string>& tagId, const std::string& start, const std::string& end, double goal,
               double progress) {
    const Focus record(std::nullopt, at(start), at(end), tagId, goal, progress, std::nullopt, std::nullopt,
                       std::nullopt);
    store::Store::open().write([&](auto& t) { t.add(record); });
  }
  static double totalOf(const std::vector<StatisticsDataPoint>& points) {
    double total = 0;
    for (const auto& point : points) total += point.value.value_or(0);
    return total;
  }
};

TEST_F(FocusDataTypeTest, TheDefaultTagAndATagWithALimit) {
  Database::getDefaultTag();
  const auto noTag = FocusDataType::tag("default");
  EXPECT_TRUE(noTag.isDefaultTag());
  EXPECT_EQ(noTag.title(), localized("Focus.NoTag"));
  EXPECT_FALSE(FocusDataType::focus().isDefaultTag());

  const std::string id = addTag(FocusGoal::lessThanOrEqualTo(3600));
  const auto type = FocusDataType::tag(id);
  EXPECT_FALSE(type.isDefaultTag());
  EXPECT_EQ(type.title(), "Write");
  EXPECT_EQ(type.identifier(), id);
  EXPECT_EQ(type.identifierForLog(), "tag");
  EXPECT_EQ(type.dailyBaseline(), 3600.0);
  EXPECT_EQ(type.baselineType(), StatisticsBaselineType::limit);
  EXPECT_FALSE(type.yearlyBaseline());
  EXPECT_EQ(FocusDataType::tag(addTag(std::nullopt)).baselineType(), StatisticsBaselineType::goal);
  EXPECT_FALSE(FocusDataType::tag(addTag(std::nullopt)).dailyBaseline());
}

TEST_F(FocusDataTypeTest, ADeletedTagShowsEveryFocus) {
  const std::string id = addTag(FocusGoal::moreThanOrEqualTo(1800));
  focusOf(id, "09:10", "09:40", 1800, 1800);
  focusOf(std::nullopt, "11:10", "11:20", 600, 600);
  const auto type = FocusDataType::tag(id);
  EXPECT_EQ(totalOf(type.getPoints(day(), Range::day)), 1800.0);
  store::Store::open().write([&](auto& t) { t.template updateObject<Tag>(id, {{"isDeleted", true}}); });
  EXPECT_FALSE(type.title());
  EXPECT_FALSE(type.dailyBaseline());
  EXPECT_EQ(totalOf(type.getPoints(day(), Range::day)), 2400.0);
}

TEST_F(FocusDataTypeTest, NoFailureIsZeroAndNoFocusIsNoValue) {
  focusOf(std::nullopt, "09:10", "09:40", 1800, 1800);
  focusOf(std::nullopt, "11:10", "11:20", 1500, 600);
  focusOf(std::nullopt, "13:00", "13:20", 1500, 600);  // at the hour's very start: in no bucket
  const auto failed = FocusDataType::failedTimes().getPoints(day(), Range::day);
  ASSERT_EQ(failed.size(), 24u);
  EXPECT_EQ(failed[9].value, 0.0);
  EXPECT_EQ(failed[11].value, 1.0);
  EXPECT_FALSE(failed[10].value);
  EXPECT_FALSE(failed[12].value);
  EXPECT_FALSE(failed[13].value);
  const auto time = FocusDataType::focus().getPoints(day(), Range::week);
  ASSERT_EQ(time.size(), 7u);
  EXPECT_EQ(totalOf(time), 3000.0);  // the day's bucket starts before them all
}

}  // namespace
}  // namespace tarnwell

// The chart model over a metric whose points are given by the test: axes,
// a year's months, sums, extremes and the captions, in UTC and en_US with
// the clock at Sunday 2026-11-22 10:00.

#include "tarnwell/charts/StatisticsData.h"

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

struct FakeMetric : StatisticsDataType {
  StatisticsValueType type = StatisticsValueType::timeInterval;
  std::optional<double> daily;
  std::optional<double> yearly;
  StatisticsBaselineType kind = StatisticsBaselineType::limit;
  bool total = true;
  bool intervals = false;
  bool excludeToday = false;
  std::vector<StatisticsDataPoint> points;

  std::string identifier() const override { return "fake"; }
  std::string identifierForLog() const override { return "fake"; }
  std::optional<std::string> title() const override { return std::nullopt; }
  std::optional<std::string> description() const override { return std::nullopt; }
  bool canEditSleepSource() const override { return false; }
  bool isEditable() const override { return true; }
  std::optional<double> dailyBaseline() const override { return daily; }
  std::optional<double> yearlyBaseline() const override { return yearly; }
  StatisticsBaselineType baselineType() const override { return kind; }
  StatisticsChartType chartType() const override { return StatisticsChartType::line; }
  bool showsDailyChart() const override { return true; }
  bool showsTotalValue() const override { return total; }
  bool showsDateInterval() const override { return intervals; }
  std::string minimumDescription() const override { return "min"; }
  bool minimumValueShouldExcludeToday() const override { return excludeToday; }
  std::string maximumDescription() const override { return "max"; }
  StatisticsValueType valueType() const override { return type; }
  std::vector<StatisticsDataPoint> getPoints(Date, StatisticsDateRange) const override { return points; }
};

class StatisticsDataTest : public ::testing::Test {
 protected:
  StatisticsDataTest() { Settings::setUsing24HoursFormat(true); }
  static Date at(const char* local) { return *Date::parseISO8601(local); }
  StatisticsData build(StatisticsDateRange range, const char* date = "2026-11-22T10:00:00") const {
    return StatisticsData(at(date), range, std::make_shared<FakeMetric>(metric));
  }
  // Points on the given days of November 2026.
  void values(std::initializer_list<std::pair<int, std::optional<double>>> days) {
    for (const auto& [day, value] : days) {
      metric.points.push_back({at("2026-11-01T00:00:00") + (day - 1) * 86400.0, value, std::nullopt});
    }
  }

  testing::TestEnvironment env;
  FakeMetric metric;
};

struct Axis {
  double granularity, minimum, maximum;
  int labels;
  friend bool operator==(const Axis&, const Axis&) = default;
};

Axis yAxis(StatisticsValueType type, std::vector<double> ys, std::optional<double> baseline = std::nullopt) {
  FakeMetric metric;
  metric.type = type;
  metric.daily = baseline;
  for (const double y : ys) metric.points.push_back({Date(), y, std::nullopt});
  const StatisticsData data(Date(), StatisticsDateRange::week, std::make_shared<FakeMetric>(metric));
  return {data.yAxisGranularity, data.yAxisMinimum, data.yAxisMaximum, data.yAxisLabelCount};
}

TEST_F(StatisticsDataTest, YAxisStepsByValueType) {
  using enum StatisticsValueType;
  EXPECT_EQ(yAxis(interger, {12, 37}), (Axis{10, 0, 40, 5}));
  EXPECT_EQ(yAxis(timeInterval, {7000}), (Axis{1800, 0, 7200, 5}));
  EXPECT_EQ(yAxis(timeInterval, {3000}, 18000), (Axis{5400, 0, 21600, 5}));  // a fifth above the baseline
  // No data: the empty range is widened by two steps.
  EXPECT_EQ(yAxis(interger, {}), (Axis{10, 0, 20, 3}));
  EXPECT_EQ(yAxis(timeInterval, {}), (Axis{300, 0, 600, 3}));
  // The step changes only above 600 and 1800.
  EXPECT_EQ(yAxis(timeInterval, {1800}), (Axis{600, 0, 1800, 4}));
  EXPECT_EQ(yAxis(timeInterval, {1800.5}), (Axis{1800, 0, 3600, 3}));
  EXPECT_EQ(yAxis(timeInterval, {600}), (Axis{300, 0, 600, 3}));
  // Times of day start at the earliest value, or a fifth below the baseline.
  EXPECT_EQ(yAxis(dateTime, {82800, 84600}), (Axis{1800, 82800, 84600, 2}));
  EXPECT_EQ(yAxis(dateTime, {82800, 84600}, 72000), (Axis{7200, 57600, 86400, 5}));
}

TEST_F(StatisticsDataTest, YearHalvesEachMonthUnlessItAddsUp) {
  values({{1, 10}, {2, 20}, {3, std::nullopt}, {4, 40}});
  metric.points.push_back({at("2026-12-05T00:00:00"), std::nullopt, std::nullopt});
  metric.points.push_back({at("2026-12-06T00:00:00"), 5, std::nullopt});
  metric.points.push_back({at("2026-12-07T00:00:00"), std::nullopt, std::nullopt});
  metric.total = false;
  StatisticsData year = build(StatisticsDateRange::year);
  ASSERT_EQ(year.entries.size(), 2u);
  EXPECT_EQ(year.entries[0].y, 27.5);  // (10 + 20) / 2 = 15, then (15 + 40) / 2
  EXPECT_EQ(year.entries[1].y, 5);
  EXPECT_EQ(year.entries[1].xAxisString, "Dec");
  EXPECT_EQ(year.entries[1].labelString, "Dec 5, Saturday");  // the month keeps its first day
  EXPECT_EQ(year.averageValue, 18.75);                        // over days, not months

  metric.total = true;
  year = build(StatisticsDateRange::year);
  EXPECT_EQ(year.entries[0].y, 70);
  EXPECT_EQ(year.totalValue, 75);

  // Months keep the order they first appear in, and a point outside the year
  // still makes a month of its own.
  metric.points.push_back({at("2026-11-30T00:00:00"), 2, std::nullopt});
  metric.points.insert(metric.points.begin(), {at("2025-12-31T12:00:00"), 3, std::nullopt});
  year = build(StatisticsDateRange::year);
  ASSERT_EQ(year.entries.size(), 3u);
  EXPECT_EQ(year.entries[0].labelString, "Dec 31, Wednesday");
  EXPECT_EQ(year.entries[0].y, 3);
  EXPECT_EQ(year.entries[1].y, 72);
  EXPECT_EQ(year.entries[2].xAxisString, "Dec");
}

TEST_F(StatisticsDataTest, EntriesAndTheirTexts) {
  metric.daily = 3600;
  values({{21, 5400}, {22, std::nullopt}});
  const StatisticsData week = build(StatisticsDateRange::week, "2026-11-21T12:00:00");
  ASSERT_EQ(week.entries.size(), 2u);
  EXPECT_EQ(week.entries[0],
            (StatisticsChartEntry{0, 5400, "Nov 21, Saturday", "Nov 21, Saturday · Limit 1h", "Sat\n21", "1h30m"}));
  EXPECT_EQ(week.entries[1], (StatisticsChartEntry{1, std::nullopt, "Nov 22, Sunday", "Nov 22, Sunday · Limit 1h",
                                                   "Today\n22", std::nullopt}));

  metric.points = {{at("2026-11-22T09:00:00"), 60, std::nullopt}};
  const StatisticsData day = build(StatisticsDateRange::day);
  EXPECT_EQ(day.entries[0].subtitleString, "09:00");  // a day has no baseline
  EXPECT_EQ(day.entries[0].xAxisString, "09:00");
}

TEST_F(StatisticsDataTest, SumsCountTheRealTodayAndOnlyValues) {
  values({{20, 10}, {21, std::nullopt}, {22, 20}});
  const StatisticsData lastWeek = build(StatisticsDateRange::week, "2026-11-16T12:00:00");
  EXPECT_EQ(lastWeek.todayValue, 20);
  EXPECT_EQ(lastWeek.totalValue, 30);
  EXPECT_EQ(lastWeek.averageLine, 15);
  EXPECT_EQ(build(StatisticsDateRange::day).averageLine, std::nullopt);

  metric.points = {{at("2026-11-22T00:00:00"), std::nullopt, std::nullopt}};
  const StatisticsData empty = build(StatisticsDateRange::week);
  EXPECT_EQ(empty.averageValue, 0);
  EXPECT_EQ(empty.maximumLabel, "-");
  EXPECT_EQ(empty.minimumLabel, "-");
}

TEST_F(StatisticsDataTest, TiesNameTheLaterMaximumAndTheEarlierMinimum) {
  values({{15, 5}, {16, 9}, {17, 2}, {18, 9}, {19, 2}, {20, 7}});
  const StatisticsData week = build(StatisticsDateRange::week, "2026-11-15T12:00:00");
  EXPECT_EQ(week.maximumLabel, "Nov 18, Wednesday");
  EXPECT_EQ(week.maximumValue, 9);
  EXPECT_EQ(week.minimumLabel, "Nov 17, Tuesday");
  EXPECT_EQ(week.minimumValue, 2);
}

TEST_F(StatisticsDataTest, MinimumLeavesTheRunningDayOut) {
  values({{20, 30}, {21, 40}, {22, 10}});
  EXPECT_EQ(build(StatisticsDateRange::month).minimumValue, 10);
  metric.excludeToday = true;
  StatisticsData month = build(StatisticsDateRange::month);
  EXPECT_EQ(month.minimumValue, 30);
  EXPECT_EQ(month.minimumLabel, "Nov 20, Friday");

  // What is left after today is gone may be all one value.
  metric.points.erase(metric.points.begin());
  month = build(StatisticsDateRange::month);
  EXPECT_EQ(month.minimumLabel, "-");

  // A single point is kept, and alone it is no minimum.
  metric.points = {metric.points.back()};
  month = build(StatisticsDateRange::month);
  EXPECT_EQ(month.minimumValue, 0);
  EXPECT_EQ(month.minimumLabel, "-");

  metric.excludeToday = false;
  metric.points.clear();
  values({{21, 10}, {22, 10}});
  month = build(StatisticsDateRange::month);
  EXPECT_EQ(month.minimumLabel, "-");  // all equal
  EXPECT_EQ(month.maximumLabel, "Nov 22, Sunday");
}

TEST_F(StatisticsDataTest, ExtremesOfIntervalsShowTheInterval) {
  metric.intervals = true;
  metric.points = {
      {at("2026-11-19T00:00:00"), 100, std::nullopt},
      {at("2026-11-20T00:00:00"), 200, DateInterval(at("2026-11-19T23:00:00"), at("2026-11-20T07:30:00"))}};
  const StatisticsData week = build(StatisticsDateRange::week, "2026-11-19T12:00:00");
  EXPECT_EQ(week.maximumValue, 30600);
  EXPECT_EQ(week.maximumLabel, "Nov 20, 23:00~07:30");
  EXPECT_EQ(week.minimumLabel, "Nov 19, Thursday");
  EXPECT_EQ(build(StatisticsDateRange::day).maximumLabel, "23:00~07:30");
}

TEST_F(StatisticsDataTest, SubtitleOfTheRunningPeriodAndOfThePast) {
  EXPECT_EQ(build(StatisticsDateRange::week).subtitle(), "No data today");
  values({{21, 600}, {22, 5400}});
  EXPECT_EQ(build(StatisticsDateRange::week).subtitle(), "Today · 1h30m");
  metric.daily = 7200;
  metric.kind = StatisticsBaselineType::goal;
  EXPECT_EQ(build(StatisticsDateRange::week).subtitle(), "Today 1h30m · Limit 2h");  // "Limit" for a goal too
  EXPECT_EQ(build(StatisticsDateRange::week).entries[1].subtitleString, "Nov 22, Sunday · Goal 2h");
  EXPECT_EQ(build(StatisticsDateRange::day, "2026-11-21T08:00:00").subtitle(), "Nov 21, Saturday · 1h40m");
  EXPECT_EQ(build(StatisticsDateRange::week, "2026-11-14T08:00:00").subtitle(), "Nov 9, Monday - Nov 15, Sunday");
  EXPECT_EQ(build(StatisticsDateRange::day).averageLabel(), "Hourly Average");
}

TEST_F(StatisticsDataTest, DefaultFormattersFollowTheValueType) {
  FakeMetric count;
  count.type = StatisticsValueType::interger;
  EXPECT_EQ(count.axisValueFormatter(37.9), "37");
  EXPECT_EQ(count.attributedValueFormatter(3, {"N", 20}, {"T", 12}, {}).text, "3Times");
  FakeMetric length;
  EXPECT_EQ(length.axisValueFormatter(5400), "1h30m");  // the axis's units are never translated
  EXPECT_EQ(length.attributedValueFormatter(0.4, {"N", 20}, {"T", 12}, {}).text, "-");
  EXPECT_EQ(length.attributedValueFormatter(5400, {"N", 20}, {"T", 12}, {}).text, "1H30M");
  FakeMetric clock;
  clock.type = StatisticsValueType::dateTime;
  EXPECT_EQ(clock.valueFormatter(82800), "23:00");
}

}  // namespace
}  // namespace tarnwell

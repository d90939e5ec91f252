// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → [charts] → modules → automation.
//
// The model behind every chart: a metric (StatisticsDataType) read for a
// date and a range becomes entries with their labels, both axes, the
// baseline and average lines, and today's value, total, average, minimum
// and maximum (StatisticsData). The model is a plain value; it is rebuilt
// whole when the date or the range changes and holds nothing of the store.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/extensions/Strings.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell {

enum class StatisticsDateRange { day, week, month, year };
// "day", "week", "month", "year".
std::string_view rawValue(StatisticsDateRange range);
std::optional<StatisticsDateRange> statisticsDateRangeFromRawValue(std::string_view text);

// The period a chart of `range` around `date` shows: the calendar day, week,
// month or year of `date` in the default region.
DateInterval periodOf(Date date, StatisticsDateRange range);

enum class StatisticsChartType { bar, line };

// A count (the spelling is the system's own), a duration in seconds, or a
// time of day in seconds from midnight.
enum class StatisticsValueType { interger, timeInterval, dateTime };

// Whether the baseline is an aim to reach or a limit to stay under.
enum class StatisticsBaselineType { goal, limit };

// One bucket of a metric: its start, its value (none means no data, which is
// not 0), and for metrics that measure an interval, that interval.
struct StatisticsDataPoint {
  Date date;
  std::optional<double> value;
  std::optional<DateInterval> data;

  friend bool operator==(const StatisticsDataPoint&, const StatisticsDataPoint&) = default;
};

// One mark on the chart.
struct StatisticsChartEntry {
  double x = 0;
  std::optional<double> y;
  std::string labelString;
  std::string subtitleString;
  std::string xAxisString;
  std::optional<std::string> yAxisString;

  friend bool operator==(const StatisticsChartEntry&, const StatisticsChartEntry&) = default;
};

// A metric a chart can show. The three formatters have defaults driven by
// valueType(); everything else is the metric's own.
class StatisticsDataType {
 public:
  virtual ~StatisticsDataType() = default;

  // Stable id of the metric, and the same without user data for logs.
  virtual std::string identifier() const = 0;
  virtual std::string identifierForLog() const = 0;
  virtual std::optional<std::string> title() const = 0;
  virtual std::optional<std::string> description() const = 0;
  // The screen offers the choice of sleep source.
  virtual bool canEditSleepSource() const = 0;
  // The metric's goal can be edited.
  virtual bool isEditable() const = 0;
  // Baseline of week and month charts, and of year charts.
  virtual std::optional<double> dailyBaseline() const = 0;
  virtual std::optional<double> yearlyBaseline() const = 0;
  virtual StatisticsBaselineType baselineType() const = 0;
  virtual StatisticsChartType chartType() const = 0;
  // A day's chart exists.
  virtual bool showsDailyChart() const = 0;
  // The metric adds up over time.
  virtual bool showsTotalValue() const = 0;
  // Points carry the interval they measure in `data`.
  virtual bool showsDateInterval() const = 0;
  virtual std::string minimumDescription() const = 0;
  // The running day is not a candidate for the minimum.
  virtual bool minimumValueShouldExcludeToday() const = 0;
  virtual std::string maximumDescription() const = 0;
  virtual StatisticsValueType valueType() const = 0;

  // y-axis text: "37", "1h30m", "8:20AM".
  virtual std::string axisValueFormatter(double value) const;
  // Value text: "37 times", the localized "1h30m", "8:20AM".
  virtual std::string valueFormatter(double value) const;
  virtual AttributedString attributedValueFormatter(double value, const Font& numberFont, const Font& textFont,
                                                    const Color& textColor) const;

  // The raw points of the period around `date`, in time order.
  virtual std::vector<StatisticsDataPoint> getPoints(Date date, StatisticsDateRange range) const = 0;
};

struct StatisticsData {
  std::shared_ptr<const StatisticsDataType> dataType;
  StatisticsChartType chartType = StatisticsChartType::bar;
  // The date the chart is about.
  Date date;
  StatisticsDateRange range = StatisticsDateRange::day;
  // The period shown.
  DateInterval interval;
  StatisticsBaselineType baselineType = StatisticsBaselineType::goal;
  std::optional<double> baseline;
  std::optional<double> averageLine;
  // One per point; a year's are its months.
  std::vector<StatisticsChartEntry> entries;
  double yAxisMaximum = 0;
  double yAxisMinimum = 0;
  int yAxisLabelCount = 0;
  double yAxisGranularity = 0;
  double xAxisMaximum = 0;
  double xAxisMinimum = 0;
  int xAxisLabelCount = 0;
  double xAxisGranularity = 0;
  // Over the raw points (a year's per day): the real today's, all, the mean.
  double todayValue = 0;
  double averageValue = 0;
  double totalValue = 0;
  std::optional<std::string> minimumLabel;
  std::optional<double> minimumValue;
  std::optional<std::string> maximumLabel;
  std::optional<double> maximumValue;
  bool isEditable = false;

  // Reads the metric's points for the period of `range` around `date`.
  StatisticsData(Date date, StatisticsDateRange range, std::shared_ptr<const StatisticsDataType> dataType);

  StatisticsData dateChanged(Date newDate) const { return StatisticsData(newDate, range, dataType); }
  StatisticsData rangeChanged(StatisticsDateRange newRange) const { return StatisticsData(date, newRange, dataType); }

  // "Today · 1h30m", "Today 1h30m · Limit 5h", or the period's dates.
  std::string subtitle() const;
  std::string averageLabel() const;
  std::string totalLabel() const;
  std::string minimumDescription() const { return dataType->minimumDescription(); }
  std::string maximumDescription() const { return dataType->maximumDescription(); }
};

}  // namespace tarnwell

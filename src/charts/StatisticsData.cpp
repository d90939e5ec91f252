#include "tarnwell/charts/StatisticsData.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {

std::string_view rawValue(StatisticsDateRange range) {
  switch (range) {
    case StatisticsDateRange::day:
      return "day";
    case StatisticsDateRange::week:
      return "week";
    case StatisticsDateRange::month:
      return "month";
    case StatisticsDateRange::year:
      return "year";
  }
  fatalError("StatisticsDateRange outside its cases");
}

std::optional<StatisticsDateRange> statisticsDateRangeFromRawValue(std::string_view text) {
  for (const auto range :
       {StatisticsDateRange::day, StatisticsDateRange::week, StatisticsDateRange::month, StatisticsDateRange::year}) {
    if (rawValue(range) == text) return range;
  }
  return std::nullopt;
}

// --- Default formatters ---

std::string StatisticsDataType::axisValueFormatter(double value) const {
  switch (valueType()) {
    case StatisticsValueType::interger:
      return std::to_string(duration::intValue(value));
    case StatisticsValueType::timeInterval:
      return getTimeIntervalString(value, false, false, std::nullopt);
    case StatisticsValueType::dateTime:
      return getDateTimeString(value);
  }
  fatalError("StatisticsValueType outside its cases");
}

std::string StatisticsDataType::valueFormatter(double value) const {
  switch (valueType()) {
    case StatisticsValueType::interger:
      return getTimesString(duration::intValue(value));
    case StatisticsValueType::timeInterval:
      return getTimeIntervalString(value, true, false, std::nullopt);
    case StatisticsValueType::dateTime:
      return getDateTimeString(value);
  }
  fatalError("StatisticsValueType outside its cases");
}

AttributedString StatisticsDataType::attributedValueFormatter(double value, const Font& numberFont,
                                                              const Font& textFont, const Color& textColor) const {
  switch (valueType()) {
    case StatisticsValueType::interger:
      return getAttributedTimesString(duration::intValue(value), numberFont, textFont, textColor);
    case StatisticsValueType::timeInterval:
      // Upper-cased, with "-" rather than "0s" for less than a second.
      return getAttributedTimeIntervalString(value, numberFont, textFont, textColor, true, "-");
    case StatisticsValueType::dateTime:
      return getAttributedDateTimeString(value, numberFont, textFont, textColor);
  }
  fatalError("StatisticsValueType outside its cases");
}

// --- The model ---

DateInterval periodOf(Date date, StatisticsDateRange range) {
  switch (range) {
    case StatisticsDateRange::day:
      return DateInterval(date.startOfDay(), date.endOfDay());
    case StatisticsDateRange::week:
      return DateInterval(date.startOfWeek(), date.endOfWeek());
    case StatisticsDateRange::month:
      return DateInterval(date.startOfMonth(), date.endOfMonth());
    case StatisticsDateRange::year:
      return DateInterval(date.startOfYear(), date.endOfYear());
  }
  fatalError("StatisticsDateRange outside its cases");
}

namespace {

// One point per month, in the order the months first appear. A metric that
// does not add up halves each month's running value with every new day, so
// later days weigh more than earlier ones. Users have always been shown this
// figure, so it is kept rather than replaced by the mean.
std::vector<StatisticsDataPoint> collapseIntoMonths(const std::vector<StatisticsDataPoint>& points,
                                                    bool showsTotalValue, const DateInterval& year) {
  // The year's months from one walk of the calendar. A point outside them
  // (no year's metric gives one) finds its own month.
  const std::vector<Date> starts = year.start().startsOfMonths(13);
  const auto spanOf = [&starts](Date date) -> std::pair<Date, Date> {
    const auto next = std::upper_bound(starts.begin(), starts.end(), date);
    if (next != starts.begin() && next != starts.end()) return {*(next - 1), *next};
    return {date.startOfMonth(), date.endOfMonth() + 1.0};
  };
  std::vector<StatisticsDataPoint> months;
  // Each month's span, from its start to the next month's.
  std::vector<std::pair<Date, Date>> spans;
  for (const auto& point : points) {
    const auto found = std::find_if(spans.begin(), spans.end(), [&point](const auto& span) {
      return span.first <= point.date && point.date < span.second;
    });
    if (found == spans.end()) {
      months.push_back(point);
      spans.push_back(spanOf(point.date));
      continue;
    }
    const auto month = months.begin() + (found - spans.begin());
    if (!point.value) continue;
    if (!month->value) {
      *month = {month->date, point.value, std::nullopt};
      continue;
    }
    const double sum = *month->value + *point.value;
    *month = {month->date, showsTotalValue ? sum : sum * 0.5, std::nullopt};
  }
  return months;
}

std::string entryTitle(Date date, StatisticsDateRange range) {
  switch (range) {
    case StatisticsDateRange::day:
      return getTimeString(date, Settings::using24HoursFormat());
    case StatisticsDateRange::week:
    case StatisticsDateRange::month:
      return getDateString(date);
    case StatisticsDateRange::year:
      return getMonthAbbreviationString(date);
  }
  fatalError("StatisticsDateRange outside its cases");
}

std::string baselineWord(StatisticsBaselineType type) {
  return localized(type == StatisticsBaselineType::limit ? "Statistics.Chart.Limit" : "Statistics.Chart.Goal");
}

double axisStep(StatisticsValueType type, double max) {
  switch (type) {
    case StatisticsValueType::interger:
      return 10;
    case StatisticsValueType::dateTime:
      return 1800;
    case StatisticsValueType::timeInterval:
      if (max > 1800) return 1800;
      if (max > 600) return 600;
      return 300;
  }
  fatalError("StatisticsValueType outside its cases");
}

// A point's value and caption: the interval it measures when the metric
// carries one, otherwise its own value and day.
void describe(const StatisticsDataPoint& point, bool showsDateInterval, StatisticsDateRange range,
              std::optional<double>& value, std::optional<std::string>& label) {
  if (showsDateInterval && point.data) {
    value = point.data->duration();
    label = getDateIntervalTimeString(*point.data, range != StatisticsDateRange::day);
  } else {
    value = point.value;
    label = getDateString(point.date);
  }
}

}  // namespace

StatisticsData::StatisticsData(Date chartDate, StatisticsDateRange chartRange,
                               std::shared_ptr<const StatisticsDataType> metric)
    : dataType(std::move(metric)), date(chartDate), range(chartRange) {
  const Date now = Date::now();
  const StatisticsDataType& type = *dataType;

  chartType = type.chartType();
  interval = periodOf(date, range);

  isEditable = type.isEditable();
  switch (range) {
    case StatisticsDateRange::day:
      break;
    case StatisticsDateRange::week:
    case StatisticsDateRange::month:
      baseline = type.dailyBaseline();
      break;
    case StatisticsDateRange::year:
      baseline = type.yearlyBaseline();
      break;
  }
  baselineType = type.baselineType();

  const std::vector<StatisticsDataPoint> points = type.getPoints(date, range);
  const std::vector<StatisticsDataPoint> working =
      range == StatisticsDateRange::year ? collapseIntoMonths(points, type.showsTotalValue(), interval) : points;

  std::string baselineSuffix;
  if (baseline) baselineSuffix = " · " + baselineWord(baselineType) + " " + type.valueFormatter(*baseline);
  entries.reserve(working.size());
  for (std::size_t i = 0; i < working.size(); ++i) {
    const StatisticsDataPoint& point = working[i];
    const std::string title = entryTitle(point.date, range);
    StatisticsChartEntry entry;
    entry.x = static_cast<double>(i);
    entry.y = point.value;
    entry.labelString = getDateString(point.date);
    entry.subtitleString = title + baselineSuffix;
    if (range == StatisticsDateRange::week || range == StatisticsDateRange::month) {
      entry.xAxisString = getWeekdayAbbreviationString(point.date) + "\n" + getDateInMonthString(point.date);
    } else {
      entry.xAxisString = title;
    }
    if (point.value) entry.yAxisString = type.valueFormatter(*point.value);
    entries.push_back(std::move(entry));
  }

  // Y axis: about five steps of a round size for the value type, always
  // reaching a fifth above the baseline so its line stays inside the chart.
  std::optional<double> largest;
  std::optional<double> smallest;
  for (const auto& entry : entries) {
    if (!entry.y) continue;
    if (!largest || *largest < *entry.y) largest = entry.y;
    if (!smallest || *entry.y < *smallest) smallest = entry.y;
  }
  const StatisticsValueType valueType = type.valueType();
  double max = largest.value_or(0);
  if (baseline && *baseline * 1.2 > max) max = *baseline * 1.2;
  double min = 0;
  if (valueType == StatisticsValueType::dateTime) {
    min = smallest.value_or(0);
    if (baseline && !(*baseline * 0.8 > min)) min = *baseline * 0.8;
  }
  const double step = axisStep(valueType, max);
  if (max == min) max = max + (step + step);
  const double g = max - min < 0 ? 0 : (max - min) / 5;
  yAxisGranularity = std::max(step * std::ceil(g / step), 1.0);
  yAxisMaximum = yAxisGranularity * std::ceil(max / yAxisGranularity);
  yAxisMinimum = yAxisGranularity * std::floor(min / yAxisGranularity);
  const std::int64_t steps = duration::intValue(std::ceil((yAxisMaximum - yAxisMinimum) / yAxisGranularity));
  if (steps >= std::numeric_limits<int>::max() || steps < std::numeric_limits<int>::min())
    fatalError("Statistics: y-axis label count overflows");
  yAxisLabelCount = static_cast<int>(steps) + 1;

  xAxisMaximum = static_cast<double>(entries.size()) - 1;
  xAxisMinimum = 0;
  xAxisLabelCount = range == StatisticsDateRange::day ? 5 : 7;
  xAxisGranularity = 1;

  // Sums over the raw points, so a year's average is one of days.
  std::vector<StatisticsDataPoint> withValue;
  for (const auto& point : points) {
    if (point.value) withValue.push_back(point);
  }
  totalValue = 0;
  todayValue = 0;
  // Today's instants, from its start to the next day's.
  const DateInterval today(now.startOfDay(), now.endOfDay() + 1.0);
  const auto isToday = [&today](const StatisticsDataPoint& point) {
    return today.start() <= point.date && point.date < today.end();
  };
  for (const auto& point : withValue) {
    totalValue += *point.value;
    if (isToday(point)) todayValue += *point.value;
  }
  averageValue = withValue.empty() ? 0 : totalValue / static_cast<double>(withValue.size());

  if (range != StatisticsDateRange::day) averageLine = averageValue;

  // Of equal values the maximum names the latest point, the minimum the
  // earliest.
  std::stable_sort(withValue.begin(), withValue.end(),
                   [](const StatisticsDataPoint& a, const StatisticsDataPoint& b) { return *a.value < *b.value; });
  if (withValue.empty()) {
    maximumValue = 0;
    maximumLabel = "-";
    minimumValue = 0;
    minimumLabel = "-";
    return;
  }
  describe(withValue.back(), type.showsDateInterval(), range, maximumValue, maximumLabel);

  // The running day is not over yet, so its low value would say nothing.
  // A single point is kept even then, and shows as no minimum below.
  if (type.minimumValueShouldExcludeToday() && withValue.size() >= 2) {
    std::erase_if(withValue, isToday);
  }
  if (withValue.empty() || *withValue.front().value == *withValue.back().value) {
    minimumValue = 0;
    minimumLabel = "-";
  } else {
    describe(withValue.front(), type.showsDateInterval(), range, minimumValue, minimumLabel);
  }
}

std::string StatisticsData::subtitle() const {
  if (interval.contains(Date::now())) {
    if (!baseline) {
      if (!(todayValue > 0)) return localized("DateTime.Today.NoData");
      return localized("DateTime.Today") + " · " + dataType->valueFormatter(todayValue);
    }
    // The limit's word even for a goal: this line has always read so.
    return localized("DateTime.Today") + " " + dataType->valueFormatter(todayValue) + " · " +
           localized("Statistics.Chart.Limit") + " " + dataType->valueFormatter(*baseline);
  }
  if (range == StatisticsDateRange::day) {
    return getDateString(interval.start()) + " · " + dataType->valueFormatter(totalValue);
  }
  return getDateString(interval.start()) + " - " + getDateString(interval.end());
}

std::string StatisticsData::averageLabel() const {
  return localized(range == StatisticsDateRange::day ? "Statistics.Hour.Average" : "Statistics.Day.Average");
}

std::string StatisticsData::totalLabel() const {
  switch (range) {
    case StatisticsDateRange::day:
      return localized("Statistics.Day.Total");
    case StatisticsDateRange::week:
      return localized("Statistics.Week.Total");
    case StatisticsDateRange::month:
      return localized("Statistics.Month.Total");
    case StatisticsDateRange::year:
      return localized("Statistics.Year.Total");
  }
  fatalError("StatisticsDateRange outside its cases");
}

}  // namespace tarnwell

// `tarnwell chart`, `streaks` and `summary`: the models behind the charts,
// the three streaks and the totals of a run of days.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <tuple>

#include "ChartDrawing.h"
#include "Cli.h"
#include "tarnwell/analytics/EventsCombo.h"
#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/charts/FocusDataType.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/extensions/Strings.h"

namespace tarnwell::cli {
namespace {

struct ChartArguments {
  std::string metric, range = "week";
  std::optional<std::string> date, from, svg, png;
  // Read as text, so that "-1" and "abc" are refused by the same reader.
  std::string count = "7";
};

// A metric by its identifier: a usage metric, "focus", "failedTimes" or "tag:ID".
std::shared_ptr<const StatisticsDataType> parseMetric(const std::string& text) {
  if (text == "focus") return std::make_shared<FocusDataType>(FocusDataType::focus());
  if (text == "failedTimes") return std::make_shared<FocusDataType>(FocusDataType::failedTimes());
  if (text.rfind("tag:", 0) == 0 && text.size() > 4) {
    return std::make_shared<FocusDataType>(FocusDataType::tag(text.substr(4)));
  }
  if (const auto type = ScreenTimeDataType::fromIdentifier(text)) return std::make_shared<ScreenTimeDataType>(*type);
  std::string known;
  for (const auto& type : ScreenTimeDataType::allCases()) known += type.identifier() + ", ";
  refuse("METRIC", text, formatString(errorWords("a metric (%@focus, failedTimes or tag:ID)"), {known}));
}

// "124.3" or "124,3": one decimal in the locale's digits and separator,
// a zero one kept so that the column reads alike from day to day.
std::string oneDecimal(double value) {
  const double rounded = std::round(value * 10) / 10;
  const std::string text = removeZerosFromEnd(rounded, 1).value_or("-");
  if (rounded != std::trunc(rounded)) return text;
  // The separator is what the locale writes between the digits of 0.5.
  const std::string zero = removeZerosFromEnd(0, 0).value_or("0"), five = removeZerosFromEnd(5, 0).value_or("5");
  const std::string half = removeZerosFromEnd(0.5, 1).value_or("0.5");
  return text + half.substr(zero.size(), half.size() - zero.size() - five.size()) + zero;
}

nlohmann::ordered_json chartJSON(const StatisticsData& chart) {
  nlohmann::ordered_json entries = nlohmann::ordered_json::array();
  for (const auto& entry : chart.entries) {
    entries.push_back({{"x", entry.x},
                       {"y", optionalJSON(entry.y)},
                       {"labelString", entry.labelString},
                       {"subtitleString", entry.subtitleString},
                       {"xAxisString", entry.xAxisString},
                       {"yAxisString", optionalJSON(entry.yAxisString)}});
  }
  return {{"dataType", chart.dataType->identifier()},
          {"title", optionalJSON(chart.dataType->title())},
          {"chartType", chart.chartType == StatisticsChartType::bar ? "bar" : "line"},
          {"date", chart.date.iso8601()},
          {"range", rawValue(chart.range)},
          {"interval", intervalJSON(chart.interval)},
          {"baselineType", chart.baselineType == StatisticsBaselineType::goal ? "goal" : "limit"},
          {"baseline", optionalJSON(chart.baseline)},
          {"averageLine", optionalJSON(chart.averageLine)},
          {"entries", entries},
          {"yAxisMaximum", chart.yAxisMaximum},
          {"yAxisMinimum", chart.yAxisMinimum},
          {"yAxisLabelCount", chart.yAxisLabelCount},
          {"yAxisGranularity", chart.yAxisGranularity},
          {"xAxisMaximum", chart.xAxisMaximum},
          {"xAxisMinimum", chart.xAxisMinimum},
          {"xAxisLabelCount", chart.xAxisLabelCount},
          {"xAxisGranularity", chart.xAxisGranularity},
          {"todayValue", chart.todayValue},
          {"averageValue", chart.averageValue},
          {"totalValue", chart.totalValue},
          {"minimumLabel", optionalJSON(chart.minimumLabel)},
          {"minimumValue", optionalJSON(chart.minimumValue)},
          {"maximumLabel", optionalJSON(chart.maximumLabel)},
          {"maximumValue", optionalJSON(chart.maximumValue)},
          {"isEditable", chart.isEditable},
          {"subtitle", chart.subtitle()},
          {"averageLabel", chart.averageLabel()},
          {"totalLabel", chart.totalLabel()},
          {"minimumDescription", chart.minimumDescription()},
          {"maximumDescription", chart.maximumDescription()}};
}

// The column of `value` on a bar of `width` between the axis's ends.
int column(double value, const StatisticsData& chart, int width) {
  const double span = chart.yAxisMaximum - chart.yAxisMinimum;
  if (span <= 0) return 0;
  return std::clamp(static_cast<int>(std::lround((value - chart.yAxisMinimum) / span * width)), 0, width);
}

// One row per entry: a bar (or, for a line chart, a dot) across the y axis,
// with the baseline marked "|" and the average line ":". The figures below
// are those the drawn chart shows.
std::string chartText(const StatisticsData& chart) {
  constexpr int kWidth = 40;
  std::string text = chartTitle(chart) + "\n" + chart.subtitle() + "\n";
  std::size_t labelWidth = 0;
  std::vector<std::string> labels;
  for (const auto& entry : chart.entries) {
    std::string label = entry.xAxisString;
    std::replace(label.begin(), label.end(), '\n', ' ');
    labelWidth = std::max(labelWidth, columnsOf(label));
    labels.push_back(std::move(label));
  }
  const auto mark = [&chart](const std::optional<double>& value) { return value ? column(*value, chart, kWidth) : -1; };
  const int baseline = mark(chart.baseline), average = mark(chart.averageLine);
  for (std::size_t i = 0; i < chart.entries.size(); ++i) {
    const auto& entry = chart.entries[i];
    std::string row(kWidth + 1, ' ');
    if (entry.y) {
      const int end = column(*entry.y, chart, kWidth);
      if (chart.chartType == StatisticsChartType::bar) {
        for (int c = 0; c < end; ++c) row[static_cast<std::size_t>(c)] = '#';
      } else {
        row[static_cast<std::size_t>(end)] = '*';
      }
    }
    if (average >= 0 && row[static_cast<std::size_t>(average)] == ' ') row[static_cast<std::size_t>(average)] = ':';
    if (baseline >= 0 && row[static_cast<std::size_t>(baseline)] == ' ') row[static_cast<std::size_t>(baseline)] = '|';
    text += "  " + padded(labels[i], labelWidth + 2) + row + "  " + entry.yAxisString.value_or("-") + "\n";
  }
  const auto& type = *chart.dataType;
  text += "  " + words(chart.yAxisLabelCount == 1 ? "Chart.Axis.One" : "Chart.Axis.Many",
                       {type.axisValueFormatter(chart.yAxisMinimum), type.axisValueFormatter(chart.yAxisMaximum),
                        type.axisValueFormatter(chart.yAxisGranularity), chart.yAxisLabelCount});
  // The baseline's word is the one the drawn chart writes beside its line.
  if (chart.baseline) {
    text += "; | " +
            localized(chart.baselineType == StatisticsBaselineType::goal ? "Statistics.Chart.Goal"
                                                                         : "Statistics.Chart.Limit") +
            " " + type.valueFormatter(*chart.baseline);
  }
  if (chart.averageLine) text += "; : " + words("Chart.AverageLine", {type.valueFormatter(*chart.averageLine)});
  for (const auto& [caption, value] : chartFigures(chart)) text += "\n" + caption + "  " + value;
  return text;
}

std::string comboText(const std::optional<EventsCombo::ComboType>& combo) {
  if (!combo) return "-";
  const bool kept = combo->kind() == EventsCombo::ComboType::Kind::succeed;
  const bool one = combo->count() == 1;
  return words(
      kept ? (one ? "Streaks.Kept.One" : "Streaks.Kept.Many") : (one ? "Streaks.Missed.One" : "Streaks.Missed.Many"),
      {combo->count()});
}

// A clock time of many days, read on the first of them; a day whose
// daylight-saving change skips that time gives way to the next.
std::string clockTimeOfDays(const DateComponents& time, Date firstDay) {
  Date at = firstDay.getTime(time.hour, time.minute, time.second);
  for (int day = 1; day < 3 && (at.hour() != time.hour || at.minute() != time.minute); ++day) {
    at = firstDay.addingDay(day).getTime(time.hour, time.minute, time.second);
  }
  return clockTime(at);
}

nlohmann::ordered_json comboJSON(const std::optional<EventsCombo::ComboType>& combo) {
  if (!combo) return nullptr;
  const bool kept = combo->kind() == EventsCombo::ComboType::Kind::succeed;
  return {{kept ? "succeed" : "failed", combo->count()}};
}

}  // namespace

View streaksView(const EventsCombo& combo) {
  return {{{"date", combo.date().iso8601()},
           {"screenTimeCombo", comboJSON(combo.screenTimeCombo)},
           {"pickupCombo", comboJSON(combo.pickupCombo)},
           {"sleepTimeCombo", comboJSON(combo.sleepTimeCombo)}},
          labeledRows({{words("Metric.ScreenTime"), comboText(combo.screenTimeCombo)},
                       {localized("ScreenTime.Pickups"), comboText(combo.pickupCombo)},
                       {localized("ScreenTime.SleepTime"), comboText(combo.sleepTimeCombo)}})};
}

View chartView(const StatisticsData& chart) { return {chartJSON(chart), chartText(chart)}; }

DaysSummary summarizeDays(Date from, int count) {
  const EventsOfDays days(from.startOfDay(), count);
  // The JSON keeps its fixed form for scripts; a person reads the locale's.
  const auto clock = [](const DateComponents& time) {
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", time.hour, time.minute, time.second);
    return std::string(text);
  };
  const auto duration = [](double seconds) { return getTimeIntervalString(seconds); };
  const auto perDay = [](const std::string& value) {
    return " (" + localizedFormat("Focus.CreateTag.goal.time.summary", {value}) + ")";
  };
  const auto [screenTotal, screenAverage] = days.screenTime();
  const auto [pickupTotal, pickupAverage] = days.pickupTimes();
  const auto [walkTotal, walkAverage] = days.walkingLife();
  const auto [indoorTotal, indoorAverage] = days.indoorLife();
  const auto longest = days.longestPickup();
  nlohmann::ordered_json json = {{"start", from.startOfDay().iso8601()},
                                 {"count", count},
                                 {"screenTime", {{"total", screenTotal}, {"average", screenAverage}}},
                                 {"pickupTimes", {{"total", pickupTotal}, {"average", pickupAverage}}},
                                 {"walkingLife", {{"total", walkTotal}, {"average", walkAverage}}},
                                 {"indoorLife", {{"total", indoorTotal}, {"average", indoorAverage}}},
                                 {"longestPickup", optionalJSON(longest)},
                                 {"averageCheckingEvery", days.averageCheckingEvery()},
                                 {"averageBestBreak", days.averageBestBreak()},
                                 {"averageContinuouslyUsage", days.averageContinuouslyUsage()},
                                 {"averageSleepTime", days.averageSleepTime()},
                                 {"averageFirstPickup", clock(days.averageFirstPickup())},
                                 {"averageLastPickup", clock(days.averageLastPickup())}};
  std::vector<std::pair<std::string, std::string>> rows{
      {words("Metric.ScreenTime"), duration(screenTotal) + perDay(duration(screenAverage))},
      {localized("ScreenTime.Pickups"), std::to_string(pickupTotal) + perDay(oneDecimal(pickupAverage))},
      {words("Metric.Walking"), duration(walkTotal) + perDay(duration(walkAverage))},
      {words("Metric.Indoor"), duration(indoorTotal) + perDay(duration(indoorAverage))},
      {words("Metric.LongestPickup"), longest ? duration(*longest) : "-"},
      {words("Metric.CheckingEvery"), duration(days.averageCheckingEvery())},
      {words("Metric.BestBreak"), duration(days.averageBestBreak())},
      {words("Metric.ContinuousUse"), duration(days.averageContinuouslyUsage())},
      {localized("ScreenTime.SleepTime"), duration(days.averageSleepTime())},
      {words("Metric.FirstPickup"), clockTimeOfDays(days.averageFirstPickup(), from.startOfDay())},
      {words("Metric.LastPickup"), clockTimeOfDays(days.averageLastPickup(), from.startOfDay())}};
  return {std::move(json), std::move(rows)};
}

View summaryView(Date from, int count) {
  const DaysSummary days = summarizeDays(from, count);
  return {days.json, labeledRows(days.rows, 20)};
}

void addChartCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto a = std::make_shared<ChartArguments>();
  auto* chart = app.add_subcommand("chart", "A metric's chart model for a day, week, month or year");
  chart
      ->add_option("METRIC", a->metric,
                   "screenTime, pickups, checkingEvery, walkingLife, indoorLife, bestBreak, continuouslyUsage, "
                   "lastPickup, firstPickup, sleepTime, focus, failedTimes or tag:ID")
      ->required();
  chart->add_option("--range", a->range, "day, week, month or year (default: week)");
  chart->add_option("--date", a->date, "ISO 8601 (default: now)");
  chart->add_option("--svg", a->svg, "Draw the chart into this SVG file");
  chart->add_option("--png", a->png, "Draw the chart into this PNG file");
  onRun(
      chart, action,
      [a] {
        const auto range = statisticsDateRangeFromRawValue(a->range);
        if (!range) refuse("--range", a->range, "day, week, month or year");
        const Date date = parseInstantOrNow(a->date);
        return std::tuple(date, *range, parseMetric(a->metric));
      },
      [&options, a](const auto& input) {
        const auto& [date, range, dataType] = input;
        // A tag's chart of an unknown id would be an empty chart, not an answer.
        if (a->metric.starts_with("tag:")) requireTag(a->metric.substr(4));
        const StatisticsData model(date, range, dataType);
        if (!a->svg && !a->png) return Output(options).print(chartJSON(model), chartText(model));
        nlohmann::ordered_json written = nlohmann::ordered_json::object();
        std::vector<std::string> paths;
        if (a->svg) {
          writeFileAtomically("--svg", *a->svg, drawChartSVG(model));
          written["svg"] = *a->svg;
          paths.push_back(*a->svg);
        }
        if (a->png) {
          writeFileAtomically("--png", *a->png, drawChartPNG(model));
          written["png"] = *a->png;
          paths.push_back(*a->png);
        }
        Output(options).print(written, joinLines(paths));
      });

  onRun(app.add_subcommand("streaks", "Days in a row the screen-time, pickup and sleep goals were kept or missed"),
        action, [&options] {
          const View view = streaksView(EventsCombo::currentCombo());
          Output(options).print(view.json, view.text);
        });

  auto* summary = app.add_subcommand("summary", "Totals and averages of a run of days");
  summary->add_option("--from", a->from, "ISO 8601 first day (default: 6 days ago)");
  summary->add_option("--count", a->count, "Number of days, 1 to 3660 (default: 7)");
  onRun(
      summary, action,
      [a] {
        // No days have no averages: a count of 0 would print made-up zeros.
        int count = 0;
        const auto [end, error] = std::from_chars(a->count.data(), a->count.data() + a->count.size(), count);
        if (error != std::errc() || end != a->count.data() + a->count.size() || count < 1 || count > 3660) {
          refuse("--count", a->count, "a number of days, 1 to 3660");
        }
        return std::pair(a->from ? parseInstant(*a->from) : Date::now().startOfDay().addingDay(-6), count);
      },
      [&options](std::pair<Date, int> input) {
        const View view = summaryView(input.first, input.second);
        Output(options).print(view.json, view.text);
      });
}

}  // namespace tarnwell::cli

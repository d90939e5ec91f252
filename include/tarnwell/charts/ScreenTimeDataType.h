// ScreenTimeDataType: the ten usage metrics as chart metrics.
//
// Each case tells the chart model its identity, texts, chart and value kind,
// baselines, and how to read its points from the days. Points come from
// EventsOfDays and share its cache, so a chart answers with the numbers of
// when its days were first built until EventsOfDays::clearCaches(). Reads the
// store on the calling thread; the value itself is a plain enumeration.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/charts/StatisticsData.h"

namespace tarnwell {

class ScreenTimeDataType final : public StatisticsDataType {
 public:
  // The raw values are 0 to 9 in this order; the identifier is the case's name.
  enum class Case {
    screenTime,
    pickups,
    checkingEvery,
    walkingLife,
    indoorLife,
    bestBreak,
    continuouslyUsage,
    lastPickup,
    firstPickup,
    sleepTime,
  };

  // Implicit, so that a case reads as the type.
  ScreenTimeDataType(Case value) : case_(value) {}

  // The case of that exact name ("walkingLife"); nothing for any other text.
  static std::optional<ScreenTimeDataType> fromIdentifier(std::string_view identifier);
  // Values 0 to 9; nothing for others.
  static std::optional<ScreenTimeDataType> fromRawValue(int rawValue);
  // The ten cases in raw order.
  static const std::vector<ScreenTimeDataType>& allCases();
  // allCases, without sleepTime on an iPad. Decided once per Environment.
  static const std::vector<ScreenTimeDataType>& defaultDataTypes();

  Case value() const { return case_; }
  int rawValue() const { return static_cast<int>(case_); }

  std::string identifier() const override;
  std::string identifierForLog() const override { return identifier(); }
  std::optional<std::string> title() const override;
  // For sleepTime the text depends on whether a sleep application is the source.
  std::optional<std::string> description() const override;
  bool canEditSleepSource() const override { return case_ == Case::sleepTime; }
  bool isEditable() const override { return false; }
  // The screen-time and pickup goals; nothing for the other cases.
  std::optional<double> dailyBaseline() const override;
  // The same goals for a month of 30 days.
  std::optional<double> yearlyBaseline() const override;
  StatisticsBaselineType baselineType() const override;
  StatisticsChartType chartType() const override;
  bool showsDailyChart() const override;
  bool showsTotalValue() const override;
  bool showsDateInterval() const override;
  std::string minimumDescription() const override;
  bool minimumValueShouldExcludeToday() const override;
  std::string maximumDescription() const override;
  StatisticsValueType valueType() const override;

  // A day's range of a case with a daily chart gives its 24 hours; any other
  // range, or a case without one, a point per day with no value for a day
  // without data. Clock times are seconds from midnight; a last pickup
  // after midnight plots above 24:00, so that a late night reads as late.
  std::vector<StatisticsDataPoint> getPoints(Date date, StatisticsDateRange range) const override;

  friend bool operator==(const ScreenTimeDataType& a, const ScreenTimeDataType& b) { return a.case_ == b.case_; }

 private:
  Case case_;
};

// The raw value as a number. Decoding throws nlohmann::json::exception for
// anything but a number from 0 to 9.
void to_json(nlohmann::json& json, const ScreenTimeDataType& type);
void from_json(const nlohmann::json& json, ScreenTimeDataType& type);

}  // namespace tarnwell

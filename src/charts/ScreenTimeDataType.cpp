#include "tarnwell/charts/ScreenTimeDataType.h"

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

using Case = ScreenTimeDataType::Case;
using Value = StatisticsValueType;
using Chart = StatisticsChartType;
using Baseline = StatisticsBaselineType;

constexpr std::string_view kGlad = "😎";
constexpr std::string_view kSad = "😭";

// A caption of an extreme: the face, then the text.
struct Caption {
  std::string_view face;
  std::string_view key;
};

struct Facts {
  std::string_view identifier;
  std::string_view titleKey;
  std::string_view descriptionKey;
  Value valueType;
  Chart chartType;
  Baseline baselineType;
  bool showsDailyChart;
  bool showsTotalValue;
  bool showsDateInterval;
  bool minimumValueShouldExcludeToday;
  Caption maximum;
  Caption minimum;
};

constexpr Caption kLongestDay{kSad, "Timeline.TheLongest.Day"}, kShortestDay{kGlad, "Timeline.TheShortest.Day"};

// By raw value. For a break and for sleep the long end has the glad face.
constexpr std::array<Facts, 10> kFacts{{
    {"screenTime", "ScreenTime.ScreenTime", "ScreenTime.ScreenTime.About", Value::timeInterval, Chart::bar,
     Baseline::limit, true, true, false, true, kLongestDay, kShortestDay},
    {"pickups",
     "ScreenTime.Pickups",
     "ScreenTime.Pickups.About",
     Value::interger,
     Chart::bar,
     Baseline::limit,
     true,
     true,
     false,
     true,
     {kSad, "Timeline.TheMost"},
     {kGlad, "Timeline.TheLeast"}},
    {"checkingEvery", "ScreenTime.CheckingEvery", "ScreenTime.CheckingEvery.About", Value::timeInterval, Chart::bar,
     Baseline::goal, true, false, false, true, kLongestDay, kShortestDay},
    {"walkingLife", "ScreenTime.WalkingLife", "ScreenTime.WalkingLife.About", Value::timeInterval, Chart::bar,
     Baseline::goal, true, true, false, true, kLongestDay, kShortestDay},
    {"indoorLife", "ScreenTime.StationaryLife", "ScreenTime.StationaryLife.About", Value::timeInterval, Chart::bar,
     Baseline::goal, true, true, false, true, kLongestDay, kShortestDay},
    {"bestBreak",
     "ScreenTime.BestDetox",
     "ScreenTime.BestDetox.About",
     Value::timeInterval,
     Chart::bar,
     Baseline::goal,
     false,
     false,
     true,
     true,
     {kGlad, "Timeline.TheLongest.Time"},
     {kSad, "Timeline.TheShortest.Time"}},
    {"continuouslyUsage",
     "ScreenTime.ContinuousUse",
     "ScreenTime.ContinuousUse.About",
     Value::timeInterval,
     Chart::bar,
     Baseline::goal,
     false,
     false,
     true,
     true,
     {kSad, "Timeline.TheLongest.Time"},
     {kGlad, "Timeline.TheShortest.Time"}},
    {"lastPickup",
     "ScreenTime.LastPickup",
     "ScreenTime.LastPickup.About",
     Value::dateTime,
     Chart::line,
     Baseline::goal,
     false,
     false,
     false,
     false,
     {kSad, "Timeline.TheLatest"},
     {kGlad, "Timeline.TheEarliest"}},
    {"firstPickup",
     "ScreenTime.FirstPickup",
     "ScreenTime.FirstPickup.About",
     Value::dateTime,
     Chart::line,
     Baseline::goal,
     false,
     false,
     false,
     false,
     {kSad, "Timeline.TheLatest"},
     {kGlad, "Timeline.TheEarliest"}},
    {"sleepTime",
     "ScreenTime.SleepTime",
     "ScreenTime.SleepTime.About",
     Value::timeInterval,
     Chart::bar,
     Baseline::goal,
     false,
     true,
     false,
     true,
     {kGlad, "Timeline.TheLongest.Day"},
     {kSad, "Timeline.TheShortest.Day"}},
}};

const Facts& facts(Case value) { return kFacts[static_cast<std::size_t>(value)]; }

std::string caption(const Caption& caption) { return std::string(caption.face) + localized(caption.key); }

// Decided once per Environment, as the device does not change under it.
struct DefaultDataTypes {
  std::vector<ScreenTimeDataType> types;

  explicit DefaultDataTypes(Environment& environment) : types(ScreenTimeDataType::allCases()) {
    if (environment.device().model.starts_with("iPad")) std::erase(types, ScreenTimeDataType(Case::sleepTime));
  }
};

std::optional<double> seconds(const std::optional<DateInterval>& interval) {
  if (!interval) return std::nullopt;
  return interval->duration();
}

std::optional<double> seconds(const std::optional<DateComponents>& components) {
  if (!components) return std::nullopt;
  return components->timeIntervalFromMidnight();
}

std::optional<double> asDouble(const std::optional<int>& count) {
  if (!count) return std::nullopt;
  return static_cast<double>(*count);
}

std::optional<double> hourValue(Case value, const EventsOfHour& hour) {
  switch (value) {
    case Case::screenTime:
      return hour.screenTime();
    case Case::pickups:
      return asDouble(hour.pickupTimes());
    case Case::checkingEvery:
      return hour.checkingEvery();
    case Case::walkingLife:
      return hour.walkingLife();
    case Case::indoorLife: {
      const auto screen = hour.screenTime(), walking = hour.walkingLife();
      if (!screen || !walking) return std::nullopt;
      return *screen - *walking;
    }
    // Cases without a daily chart have no hours.
    case Case::bestBreak:
    case Case::continuouslyUsage:
    case Case::lastPickup:
    case Case::firstPickup:
    case Case::sleepTime:
      return std::nullopt;
  }
  return std::nullopt;
}

StatisticsDataPoint dayPoint(Case value, const ItemLikeEventsOfDay& day) {
  StatisticsDataPoint point{day.startOfDay(), std::nullopt, std::nullopt};
  switch (value) {
    case Case::screenTime:
      point.value = day.screenTime();
      break;
    case Case::pickups:
      point.value = asDouble(day.pickupTimes());
      break;
    case Case::checkingEvery:
      point.value = day.checkingEvery();
      break;
    case Case::walkingLife:
      point.value = day.walkingLife();
      break;
    case Case::indoorLife:
      point.value = day.indoorLife();
      break;
    case Case::sleepTime:
      point.value = day.sleepTime();
      break;
    case Case::bestBreak:
      point.data = day.bestBreak();
      point.value = seconds(point.data);
      break;
    case Case::continuouslyUsage:
      point.data = day.continuouslyUsage();
      point.value = seconds(point.data);
      break;
    case Case::firstPickup:
      point.value = seconds(day.firstPickupDateComponents());
      break;
    case Case::lastPickup: {
      point.value = seconds(day.lastPickupDateComponents());
      // After midnight is above 24:00; the evening before stays below.
      const auto date = day.lastPickupDate();
      if (point.value && date && *date > day.startOfDay()) *point.value += 86400.0;
      break;
    }
  }
  return point;
}

}  // namespace

std::optional<ScreenTimeDataType> ScreenTimeDataType::fromIdentifier(std::string_view identifier) {
  for (std::size_t i = 0; i < kFacts.size(); ++i) {
    if (kFacts[i].identifier == identifier) return ScreenTimeDataType(static_cast<Case>(i));
  }
  return std::nullopt;
}

std::optional<ScreenTimeDataType> ScreenTimeDataType::fromRawValue(int rawValue) {
  if (rawValue < 0 || rawValue >= static_cast<int>(kFacts.size())) return std::nullopt;
  return ScreenTimeDataType(static_cast<Case>(rawValue));
}

const std::vector<ScreenTimeDataType>& ScreenTimeDataType::allCases() {
  static const std::vector<ScreenTimeDataType> cases = [] {
    std::vector<ScreenTimeDataType> all;
    for (std::size_t i = 0; i < kFacts.size(); ++i) all.emplace_back(static_cast<Case>(i));
    return all;
  }();
  return cases;
}

const std::vector<ScreenTimeDataType>& ScreenTimeDataType::defaultDataTypes() {
  return Environment::current().component<DefaultDataTypes>().types;
}

std::string ScreenTimeDataType::identifier() const { return std::string(facts(case_).identifier); }

std::optional<std::string> ScreenTimeDataType::title() const { return localized(facts(case_).titleKey); }

std::optional<std::string> ScreenTimeDataType::description() const {
  if (case_ == Case::sleepTime && !Settings::defaultSleepDataSource().isBuiltIn()) {
    return localized("ScreenTime.SleepTime.HealthKit.About");
  }
  return localized(facts(case_).descriptionKey);
}

std::optional<double> ScreenTimeDataType::dailyBaseline() const {
  if (case_ == Case::screenTime) return Settings::defaultScreenTimeGoal();
  if (case_ == Case::pickups) return static_cast<double>(Settings::defaultPickupGoal());
  return std::nullopt;
}

std::optional<double> ScreenTimeDataType::yearlyBaseline() const {
  const auto daily = dailyBaseline();
  if (!daily) return std::nullopt;
  return *daily * 30.0;
}

StatisticsBaselineType ScreenTimeDataType::baselineType() const { return facts(case_).baselineType; }
StatisticsChartType ScreenTimeDataType::chartType() const { return facts(case_).chartType; }
bool ScreenTimeDataType::showsDailyChart() const { return facts(case_).showsDailyChart; }
bool ScreenTimeDataType::showsTotalValue() const { return facts(case_).showsTotalValue; }
bool ScreenTimeDataType::showsDateInterval() const { return facts(case_).showsDateInterval; }
std::string ScreenTimeDataType::minimumDescription() const { return caption(facts(case_).minimum); }
bool ScreenTimeDataType::minimumValueShouldExcludeToday() const { return facts(case_).minimumValueShouldExcludeToday; }
std::string ScreenTimeDataType::maximumDescription() const { return caption(facts(case_).maximum); }
StatisticsValueType ScreenTimeDataType::valueType() const { return facts(case_).valueType; }

std::vector<StatisticsDataPoint> ScreenTimeDataType::getPoints(Date date, StatisticsDateRange range) const {
  Date start;
  int count = 0;
  switch (range) {
    case StatisticsDateRange::day:
      start = date.startOfDay();
      count = 1;
      break;
    case StatisticsDateRange::week:
      start = date.startOfWeek();
      count = date.daysOfWeek();
      break;
    case StatisticsDateRange::month:
      start = date.startOfMonth();
      count = date.daysOfMonth();
      break;
    case StatisticsDateRange::year:
      start = date.startOfYear();
      count = date.daysOfYear();
      break;
  }
  const EventsOfDays days(start, count);
  const auto& list = days.eventsOfDays();

  std::vector<StatisticsDataPoint> points;
  if (range == StatisticsDateRange::day && showsDailyChart() && !list.empty()) {
    if (const auto hours = list.front()->getEventsOfHours()) {
      points.reserve(hours->size());
      for (const auto& hour : *hours) points.push_back({hour.interval.start(), hourValue(case_, hour), std::nullopt});
      return points;
    }
  }
  points.reserve(list.size());
  for (const auto& day : list) points.push_back(dayPoint(case_, *day));
  return points;
}

void to_json(nlohmann::json& json, const ScreenTimeDataType& type) { json = type.rawValue(); }

void from_json(const nlohmann::json& json, ScreenTimeDataType& type) {
  if (!json.is_number_integer()) throw nlohmann::json::type_error::create(302, "type must be an integer", &json);
  const auto raw = json.get<std::int64_t>();
  const auto found = raw >= 0 && raw < 10 ? ScreenTimeDataType::fromRawValue(static_cast<int>(raw)) : std::nullopt;
  if (!found) throw nlohmann::json::out_of_range::create(403, "no screen-time data type of that raw value", &json);
  type = *found;
}

}  // namespace tarnwell

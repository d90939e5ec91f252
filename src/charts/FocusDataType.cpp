#include "tarnwell/charts/FocusDataType.h"

#include "tarnwell/charts/Focuses.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {
namespace {

std::vector<DateInterval> buckets(Date date, StatisticsDateRange range) {
  switch (range) {
    case StatisticsDateRange::day:
      return date.dateIntervalsByHourOfThisDay(true);
    case StatisticsDateRange::week:
      return date.dateIntervalsByDayOfThisWeek(true);
    case StatisticsDateRange::month:
      return date.dateIntervalsByDayOfThisMonth(true);
    case StatisticsDateRange::year:
      return date.dateIntervalsByDayOfThisYear(true);
  }
  return {};
}

// The one read behind all buckets. A day's reaches to the end of its year:
// the buckets cut it down, and only the read grows with it.
DateInterval period(Date date, StatisticsDateRange range) {
  if (range == StatisticsDateRange::day) return DateInterval(date.startOfDay(), date.endOfYear());
  return periodOf(date, range);
}

}  // namespace

std::optional<Tag> FocusDataType::tag() const {
  if (!tagId_) return std::nullopt;
  return store::orNoData([this] { return store::liveObject<Tag>(*tagId_); });
}

std::string FocusDataType::identifier() const {
  switch (kind_) {
    case Kind::tag:
      return *tagId_;
    case Kind::focus:
      return "focus";
    case Kind::failedTimes:
      return "failedTimes";
  }
  return {};
}

std::string FocusDataType::identifierForLog() const {
  switch (kind_) {
    case Kind::tag:
      return "tag";
    case Kind::focus:
      return "focus";
    case Kind::failedTimes:
      return "failedTimes";
  }
  return {};
}

std::optional<std::string> FocusDataType::title() const {
  switch (kind_) {
    case Kind::tag: {
      const auto found = tag();
      if (!found) return std::nullopt;
      if (found->isDefault) return localized("Focus.NoTag");
      return found->title;
    }
    case Kind::focus:
      return localized("Focus.Focus");
    case Kind::failedTimes:
      return localized("Focus.FailedTimes");
  }
  return std::nullopt;
}

std::optional<double> FocusDataType::dailyBaseline() const {
  const auto found = tag();
  if (!found) return std::nullopt;
  const auto goal = found->focusGoal();
  if (!goal) return std::nullopt;
  return goal->duration();
}

StatisticsBaselineType FocusDataType::baselineType() const {
  const auto found = tag();
  if (!found) return StatisticsBaselineType::goal;
  const auto goal = found->focusGoal();
  if (goal && goal->kind() == FocusGoal::Kind::lessThanOrEqualTo) return StatisticsBaselineType::limit;
  return StatisticsBaselineType::goal;
}

std::string FocusDataType::minimumDescription() const {
  if (kind_ == Kind::failedTimes) return "😎" + localized("Timeline.TheLeast");
  return "😭" + localized("Timeline.TheShortest.Time");
}

std::string FocusDataType::maximumDescription() const {
  if (kind_ == Kind::failedTimes) return "😭" + localized("Timeline.TheMost");
  return "😎" + localized("Timeline.TheLongest.Time");
}

StatisticsValueType FocusDataType::valueType() const {
  return kind_ == Kind::failedTimes ? StatisticsValueType::interger : StatisticsValueType::timeInterval;
}

std::vector<StatisticsDataPoint> FocusDataType::getPoints(Date date, StatisticsDateRange range) const {
  const auto intervals = buckets(date, range);
  // A deleted tag gives no filter, so its chart shows every focus instead of none.
  const auto found = tag();
  const Focuses snapshot(period(date, range), found ? found->id : std::nullopt);

  std::vector<StatisticsDataPoint> points;
  points.reserve(intervals.size());
  for (const auto& bucket : intervals) {
    const Focuses cut = Focuses::getFocusesStartsIn(bucket.start(), bucket.end(), snapshot.focuses);
    std::optional<double> value;
    if (kind_ == Kind::failedTimes) {
      if (const auto failed = cut.failedTimes()) value = static_cast<double>(*failed);
    } else {
      value = cut.totalTime();
    }
    points.push_back({bucket.start(), value, std::nullopt});
  }
  return points;
}

}  // namespace tarnwell

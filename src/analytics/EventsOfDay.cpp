#include "tarnwell/analytics/EventsOfDay.h"

#include <algorithm>

#include "tarnwell/analytics/Metrics.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {
namespace {

// The constants of the night.
constexpr double kSettledNight = 21600.0;  // a gap this long is the night at once
constexpr double kMinimumNight = 10800.0;  // a break must be longer to stand in for a night
constexpr double kStillAwake = 60.0;       // a last pickup this recent is no bedtime yet

// The span of a day: 24 hours from its calendar start, both ends shifted by
// the user's start of day.
DateInterval daySpan(Date date) {
  const double shift = Settings::startOfDayScreenTime();
  return DateInterval(date.startOfDay() + shift, date.addingDay(1).startOfDay() + shift);
}

// Of equal lengths the earlier in the list stays first.
std::vector<DateInterval> longestFirst(std::vector<DateInterval> intervals) {
  std::stable_sort(intervals.begin(), intervals.end(),
                   [](const DateInterval& a, const DateInterval& b) { return a.duration() > b.duration(); });
  return intervals;
}

// What longestFirst() puts first, without ordering the rest.
std::optional<DateInterval> longest(const std::vector<DateInterval>& intervals) {
  std::optional<DateInterval> found;
  for (const auto& interval : intervals) {
    if (!found || interval.duration() > found->duration()) found = interval;
  }
  return found;
}

// Drops the entries that overlap the night by more than an instant.
std::vector<DateInterval> outsideNight(std::vector<DateInterval> breaks, Date last, Date first) {
  const DateInterval night(last, first);
  std::erase_if(breaks, [&night](const DateInterval& gap) {
    const auto overlap = gap.intersection(night);
    return overlap && overlap->duration() > 0.0;
  });
  return breaks;
}

}  // namespace

std::vector<std::string> EventsOfDay::defaultDeviceIds() { return store::defaultDeviceIds(); }

EventsOfDay::EventsOfDay(Date date, const std::optional<std::vector<std::string>>& deviceIds)
    : EventsOfDay(date.startOfDay(), EventsOfInterval(daySpan(date), deviceIds), std::nullopt) {
  settle(Settings::defaultSleepDataSource());
}

std::vector<EventsOfDay> EventsOfDay::ofDays(const std::vector<Date>& dates,
                                             const std::vector<std::string>& deviceIds) {
  std::vector<DateInterval> spans;
  spans.reserve(dates.size());
  for (const Date date : dates) spans.push_back(daySpan(date));
  auto events = EventsOfInterval::ofSpans(spans, deviceIds);
  const SleepDataSource source = Settings::defaultSleepDataSource();
  std::vector<EventsOfDay> days;
  days.reserve(dates.size());
  for (std::size_t i = 0; i < dates.size(); ++i) {
    days.push_back(EventsOfDay(dates[i].startOfDay(), std::move(events[i]), std::nullopt));
    days.back().settle(source);
  }
  return days;
}

void EventsOfDay::settle(const SleepDataSource& source) {
  if (!source.isBuiltIn()) {
    sleepsWithSource_ = HealthManager::shared().getSleepData(source, eventsOfInterval_.interval().start());
  }
  resolveNight();
}

EventsOfDay::EventsOfDay(Date startOfDay, EventsOfInterval events, std::optional<SleepDataWithDataSource> sleeps)
    : startOfDay_(startOfDay), eventsOfInterval_(std::move(events)), sleepsWithSource_(std::move(sleeps)) {}

EventsOfDay EventsOfDay::appliedChange(const EventsOfInterval::EventsChangeType& change) const {
  return appliedChange(std::vector<EventsOfInterval::EventsChangeType>{change});
}

EventsOfDay EventsOfDay::appliedChange(const std::vector<EventsOfInterval::EventsChangeType>& changes) const {
  EventsOfDay changed = *this;
  changed.eventsOfInterval_.apply(changes);
  // A settled night is not reopened by a live update.
  if (!changed.firstPickupDate_ || !changed.lastPickupDate_) changed.resolveNight();
  return changed;
}

void EventsOfDay::resolveNight() {
  const Date day = startOfDay_;
  const Date fourAM = day.getTime(4, 0, 0);
  const auto& devices = eventsOfInterval_.deviceIds();

  auto [last, first] = store::orNoData([&] {
    return store::nightEdges(DateInterval::getDateIntervalForFindingLastPickup(day, fourAM),
                             DateInterval::getDateIntervalForFindingFirstPickup(day, fourAM), devices);
  });
  // A pickup that only just ended says nothing of the night.
  if (last && Date::now() - *last < kStillAwake) last.reset();
  // One pickup across the boundary is no night.
  if (last && first && *last > *first) first.reset();

  double threshold = kMinimumNight;
  bool settled = false;
  if (last && first && *last < *first) {
    const double gap = *first - *last;
    settled = gap >= kSettledNight;
    threshold = gap;
  }
  if (!settled) {
    std::optional<DateInterval> longest;
    for (const auto& gap : eventsOfInterval_.breaks()) {
      if (!longest || gap.duration() > longest->duration()) longest = gap;
    }
    if (longest && longest->duration() > threshold && longest->start() < day.getTime(8, 0, 0)) {
      lastPickupDate_ = longest->start();
      firstPickupDate_ = longest->end();
      return;
    }
  }
  lastPickupDate_ = last;
  firstPickupDate_ = first;
}

std::vector<DateInterval> EventsOfDay::pickups() const {
  if (sleepsWithSource_) return DateInterval::calculate(eventsOfInterval_.pickups(), sleepsWithSource_->sleeps);
  return eventsOfInterval_.pickups();
}

std::vector<DateInterval> EventsOfDay::breaks() const {
  if (!sleepsWithSource_) {
    auto gaps = eventsOfInterval_.breaks();
    if (lastPickupDate_ && firstPickupDate_ && *lastPickupDate_ < *firstPickupDate_) {
      return outsideNight(std::move(gaps), *lastPickupDate_, *firstPickupDate_);
    }
    return gaps;
  }
  const auto used = pickups();
  std::vector<DateInterval> gaps;
  if (!used.empty() && used.front().start() < used.back().end()) {
    gaps.emplace_back(used.front().start(), used.back().end());
  }
  gaps = DateInterval::calculate(std::move(gaps), used);
  gaps = DateInterval::calculate(std::move(gaps), eventsOfInterval_.excludedFocuses());
  gaps = DateInterval::calculate(std::move(gaps), noDatas());
  const auto last = healthLastPickupDate(), first = healthFirstPickupDate();
  if (last && first && *last < *first) return outsideNight(std::move(gaps), *last, *first);
  return gaps;
}

std::vector<DateInterval> EventsOfDay::sleeps() const {
  if (sleepsWithSource_) return sleepsWithSource_->sleeps;
  if (!lastPickupDate_ || !firstPickupDate_ || !(*lastPickupDate_ < *firstPickupDate_)) return {};
  return DateInterval::calculate({DateInterval(*lastPickupDate_, *firstPickupDate_)}, eventsOfInterval_.pickups());
}

std::vector<FocusData> EventsOfDay::focuseDatas() const {
  std::vector<FocusData> focuses;
  if (!eventsOfInterval_.excludesFocusTime()) return focuses;
  for (const auto& event : eventsOfInterval_.focusEvents()) {
    const auto focus = store::orNoData([&event] { return store::liveObject<Focus>(event.id); });
    if (focus) focuses.push_back(FocusData::of(*focus));
  }
  return focuses;
}

std::optional<double> EventsOfDay::screenTime() const { return metrics::screenTime(pickups()); }
std::optional<int> EventsOfDay::pickupTimes() const { return metrics::pickupTimes(pickups()); }

std::vector<DateInterval> EventsOfDay::pickupsByLength() const { return longestFirst(pickups()); }

std::optional<double> EventsOfDay::longestPickup() const {
  const auto found = continuouslyUsage();
  if (!found) return std::nullopt;
  return found->duration();
}

std::optional<DateInterval> EventsOfDay::continuouslyUsage() const { return longest(pickups()); }

std::optional<double> EventsOfDay::checkingEvery() const { return metrics::checkingEvery(pickups()); }
std::optional<double> EventsOfDay::walkingLife() const { return metrics::walkingLife(pickups(), walks()); }

std::optional<double> EventsOfDay::sleepTime() const {
  const auto night = sleeps();
  if (night.empty()) return std::nullopt;
  double seconds = 0;
  for (const auto& sleep : night) seconds += sleep.duration();
  return seconds;
}

std::optional<Date> EventsOfDay::healthFirstPickupDate() const {
  if (!sleepsWithSource_ || sleepsWithSource_->sleeps.empty()) return std::nullopt;
  Date wake = sleepsWithSource_->sleeps.front().end();
  for (const auto& sleep : sleepsWithSource_->sleeps) wake = std::max(wake, sleep.end());
  const auto pickup = store::orNoData([&] {
    return store::firstPickup(DateInterval::getDateIntervalForFindingFirstPickup(startOfDay_, wake),
                              eventsOfInterval_.deviceIds());
  });
  if (!pickup || !pickup->start) return wake;
  // Never before the end of the sleep.
  return std::max(*pickup->start, wake);
}

std::optional<Date> EventsOfDay::healthLastPickupDate() const {
  if (!sleepsWithSource_ || sleepsWithSource_->sleeps.empty()) return std::nullopt;
  Date asleep = sleepsWithSource_->sleeps.front().start();
  for (const auto& sleep : sleepsWithSource_->sleeps) asleep = std::min(asleep, sleep.start());
  const auto pickup = store::orNoData([&] {
    return store::lastPickup(DateInterval::getDateIntervalForFindingLastPickup(startOfDay_, asleep),
                             eventsOfInterval_.deviceIds());
  });
  if (!pickup || !pickup->start) return asleep;
  // With a sleep application the date marks where the last pickup began.
  return std::min(*pickup->start, asleep);
}

std::optional<Date> EventsOfDay::firstPickupDate() const {
  if (const auto date = healthFirstPickupDate()) return date;
  return firstPickupDate_;
}

std::optional<Date> EventsOfDay::lastPickupDate() const {
  if (const auto date = healthLastPickupDate()) return date;
  return lastPickupDate_;
}

Date EventsOfDay::asleepAt() const {
  const auto last = lastPickupDate(), first = firstPickupDate();
  if (last && first && *last < *first) return *last + (*first - *last) / 2;
  return startOfDay_.getTime(4, 0, 0);
}

std::optional<DateInterval> EventsOfDay::bestBreak() const { return longest(breaks()); }

widgets::ScreenTimeToday EventsOfDay::summary() const {
  const auto used = pickups();
  const auto longestUse = longest(used);
  return {startOfDay_,
          metrics::screenTime(used),
          metrics::pickupTimes(used),
          longestUse ? std::optional(longestUse->duration()) : std::nullopt,
          metrics::checkingEvery(used),
          metrics::walkingLife(used, walks()),
          firstPickupDate(),
          lastPickupDate(),
          sleepTime(),
          bestBreak(),
          longestUse};
}

std::optional<std::vector<EventsOfHour>> EventsOfDay::getEventsOfHours() const {
  return EventsOfHour::hours(eventsOfInterval_.interval().start(), pickups(), walks());
}

std::optional<SleepDataSource> EventsOfDay::sleepSource() const {
  if (!sleepsWithSource_) return std::nullopt;
  return sleepsWithSource_->dataSource;
}

std::string EventsOfDay::sleepSourceDisplayName() const {
  return sleepsWithSource_ ? sleepsWithSource_->dataSource.displayName() : "Tarnwell";
}

}  // namespace tarnwell

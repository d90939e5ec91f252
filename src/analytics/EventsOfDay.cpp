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
    : EventsOfDay(std::move(ofDays(std::span(&date, 1), deviceIds ? *deviceIds : defaultDeviceIds()).front())) {}

std::vector<EventsOfDay> EventsOfDay::ofDays(std::span<const Date> dates, const std::vector<std::string>& deviceIds) {
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
  readNight();
  resolveNight();
}

EventsOfDay::EventsOfDay(Date startOfDay, EventsOfInterval events, std::optional<SleepDataWithDataSource> sleeps)
    : startOfDay_(startOfDay), eventsOfInterval_(std::move(events)), sleepsWithSource_(std::move(sleeps)) {}

// The night's edges as the store gave them, the windows they were read in,
// and the file as the read saw it.
struct EventsOfDay::NightRead {
  DateInterval lastWindow;
  DateInterval firstWindow;
  store::NightEdges edges;
  store::Snapshot at;
  // False when the store failed: no edges, and nothing known of the file.
  bool read = false;

  // Whether the edges are those of the file at `snapshot`.
  bool isOf(const store::Snapshot& snapshot) const { return read && at.connection != 0 && at == snapshot; }

  // Whether the edges read stand after `changes`. The last edge is the
  // latest end of the pickups touching its window, the first the earliest
  // start in its own; a pickup's edit moves one only when the pickup was
  // that edge, or now lies in the window and beyond it. Other events are
  // not read for the night. An edit whose interval is not known may be anything.
  bool standsAfter(const std::vector<EventsOfInterval::EventsChangeType>& changes) const {
    using Kind = EventsOfInterval::EventsChangeType::Kind;
    const auto within = [](Date date, const DateInterval& window) {
      return window.start() <= date && date <= window.end();
    };
    return std::all_of(changes.begin(), changes.end(), [&](const auto& change) {
      if (change.kind() == Kind::modifiedLatestPickup) return false;
      if (change.kind() != Kind::pickup) return true;
      const auto& written = change.written();
      if (!written || change.id() == edges.lastId || change.id() == edges.firstId) return false;
      const bool movesLast = (within(written->start(), lastWindow) || within(written->end(), lastWindow)) &&
                             (!edges.lastEnd || written->end() > *edges.lastEnd);
      const bool movesFirst =
          within(written->start(), firstWindow) && (!edges.firstStart || written->start() < *edges.firstStart);
      return !movesLast && !movesFirst;
    });
  }
};

EventsOfDay EventsOfDay::appliedChange(const EventsOfInterval::EventsChangeType& change) const& {
  return appliedChange(std::vector<EventsOfInterval::EventsChangeType>{change});
}

EventsOfDay EventsOfDay::appliedChange(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                                       const std::optional<store::Commit>& commit) const& {
  return EventsOfDay(*this).appliedChange(changes, commit);
}

EventsOfDay EventsOfDay::appliedChange(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                                       const std::optional<store::Commit>& commit) && {
  eventsOfInterval_.apply(changes);
  // A settled night is not reopened by a live update.
  if (firstPickupDate_ && lastPickupDate_) return std::move(*this);
  if (commit && night_ && night_->isOf(commit->before) && night_->standsAfter(changes)) {
    auto night = std::make_shared<NightRead>(*night_);
    night->at = commit->after;
    night_ = std::move(night);
  } else {
    // Read after the commit, so the file holds at least what it left.
    readNight(commit ? commit->after : store::Snapshot{});
  }
  resolveNight();
  return std::move(*this);
}

void EventsOfDay::readNight(store::Snapshot at) {
  const Date fourAM = startOfDay_.getTime(4, 0, 0);
  auto night = std::make_shared<NightRead>(NightRead{
      .lastWindow = DateInterval::getDateIntervalForFindingLastPickup(startOfDay_, fourAM),
      .firstWindow = DateInterval::getDateIntervalForFindingFirstPickup(startOfDay_, fourAM),
      .edges = {},
      .at = at,
      .read = false,
  });
  night->edges = store::orNoData([&] {
    auto edges = store::nightEdges(night->lastWindow, night->firstWindow, eventsOfInterval_.deviceIds());
    night->read = true;
    return edges;
  });
  night_ = std::move(night);
}

void EventsOfDay::resolveNight() {
  const Date day = startOfDay_;
  std::optional<Date> last = night_->edges.lastEnd, first = night_->edges.firstStart;
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

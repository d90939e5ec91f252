#include "tarnwell/analytics/EventsOfDays.h"

#include <cmath>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tarnwell/analytics/RememberedDays.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"

namespace tarnwell {
namespace {

// Every run built from a start and a count, in the order of building; a hit
// is entered again. Lives with the Environment.
struct EventsOfDaysCache {
  std::vector<EventsOfDays> entries;
};

EventsOfDaysCache& cache() { return Environment::current().component<EventsOfDaysCache>(); }

template <class Value, class Read>
EventsOfDays::Sum<Value> sumOf(const std::vector<EventsOfDays::Day>& days, Read read) {
  EventsOfDays::Sum<Value> sum;
  int counted = 0;
  for (const auto& day : days) {
    const auto value = read(*day);
    if (!value) continue;
    if constexpr (std::is_integral_v<Value>) {
      if (__builtin_add_overflow(sum.total, *value, &sum.total)) fatalError("EventsOfDays: the sum overflows");
    } else {
      sum.total += *value;
    }
    ++counted;
  }
  if (counted > 0) sum.average = static_cast<double>(sum.total) / counted;
  return sum;
}

template <class Read>
double meanOf(const std::vector<EventsOfDays::Day>& days, Read read) {
  return sumOf<double>(days, read).average;
}

// The mean clock time, kept within one day's seconds.
template <class Read>
DateComponents meanClockTime(const std::vector<EventsOfDays::Day>& days, Read read) {
  const double mean = meanOf(days, [&read](const ItemLikeEventsOfDay& day) -> std::optional<double> {
    const auto components = read(day);
    if (!components) return std::nullopt;
    return components->timeIntervalFromMidnight();
  });
  std::int64_t seconds = std::isfinite(mean) ? duration::intValue(mean) : 0;
  seconds -= duration::days(mean) * 86400;
  return DateComponents{static_cast<int>(seconds / 3600), static_cast<int>(seconds % 3600 / 60),
                        static_cast<int>(seconds % 60)};
}

}  // namespace

EventsOfDays::EventsOfDays(std::vector<Day> eventsOfDays)
    : eventsOfDays_(std::make_shared<const std::vector<Day>>(std::move(eventsOfDays))) {}

EventsOfDays::EventsOfDays(Date start, int count) : start_(start), count_(count) {
  auto& entries = cache().entries;
  bool found = false;
  for (const auto& entry : entries) {
    if (entry.start_ == start && entry.count_ == count) {
      eventsOfDays_ = entry.eventsOfDays_;
      found = true;
      break;
    }
  }
  if (!found) {
    auto days = RememberedDays::days(start, count);
    eventsOfDays_ = std::make_shared<const std::vector<Day>>(std::make_move_iterator(days.begin()),
                                                             std::make_move_iterator(days.end()));
  }
  entries.push_back(*this);
}

void EventsOfDays::clearCaches() { cache().entries.clear(); }

EventsOfDays::Sum<double> EventsOfDays::screenTime() const {
  return sumOf<double>(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.screenTime(); });
}

EventsOfDays::Sum<int> EventsOfDays::pickupTimes() const {
  return sumOf<int>(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.pickupTimes(); });
}

EventsOfDays::Sum<double> EventsOfDays::walkingLife() const {
  return sumOf<double>(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.walkingLife(); });
}

EventsOfDays::Sum<double> EventsOfDays::indoorLife() const {
  return sumOf<double>(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.indoorLife(); });
}

std::optional<double> EventsOfDays::longestPickup() const {
  std::optional<double> longest;
  for (const auto& day : *eventsOfDays_) {
    const auto value = day->longestPickup();
    if (value && (!longest || *value > *longest)) longest = value;
  }
  return longest;
}

double EventsOfDays::averageCheckingEvery() const {
  return meanOf(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.checkingEvery(); });
}

double EventsOfDays::averageBestBreak() const {
  return meanOf(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) -> std::optional<double> {
    const auto interval = day.bestBreak();
    if (!interval) return std::nullopt;
    return interval->duration();
  });
}

double EventsOfDays::averageContinuouslyUsage() const {
  return meanOf(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) -> std::optional<double> {
    const auto interval = day.continuouslyUsage();
    if (!interval) return std::nullopt;
    return interval->duration();
  });
}

double EventsOfDays::averageSleepTime() const {
  return meanOf(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.sleepTime(); });
}

DateComponents EventsOfDays::averageFirstPickup() const {
  return meanClockTime(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.firstPickupDateComponents(); });
}

DateComponents EventsOfDays::averageLastPickup() const {
  return meanClockTime(*eventsOfDays_, [](const ItemLikeEventsOfDay& day) { return day.lastPickupDateComponents(); });
}

}  // namespace tarnwell

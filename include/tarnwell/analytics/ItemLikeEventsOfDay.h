// ItemLikeEventsOfDay: a day's metrics as everything but the day itself reads
// them.
//
// Ranges of days, streaks and charts go through this interface, so that a
// stored summary of a day can stand in for a live EventsOfDay. Every metric
// that is nothing means no data for that day, which is not 0.

#pragma once

#include <optional>
#include <vector>

#include "tarnwell/analytics/EventsOfHour.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DateComponents.h"
#include "tarnwell/widgets/Summaries.h"

namespace tarnwell {

class ItemLikeEventsOfDay {
 public:
  virtual ~ItemLikeEventsOfDay() = default;

  // The calendar day's first instant, without the start-of-day shift.
  virtual Date startOfDay() const = 0;
  virtual std::optional<double> screenTime() const = 0;
  virtual std::optional<int> pickupTimes() const = 0;
  virtual std::optional<double> longestPickup() const = 0;
  virtual std::optional<double> checkingEvery() const = 0;
  virtual std::optional<double> walkingLife() const = 0;
  virtual std::optional<Date> firstPickupDate() const = 0;
  virtual std::optional<Date> lastPickupDate() const = 0;
  virtual std::optional<double> sleepTime() const = 0;
  virtual std::optional<DateInterval> bestBreak() const = 0;
  virtual std::optional<DateInterval> continuouslyUsage() const = 0;
  // The 24 hours of the day; nothing when the kind of day keeps no events.
  virtual std::optional<std::vector<EventsOfHour>> getEventsOfHours() const = 0;

  // screenTime less walkingLife; nothing when either is nothing.
  std::optional<double> indoorLife() const {
    const auto screen = screenTime(), walking = walkingLife();
    if (!screen || !walking) return std::nullopt;
    return *screen - *walking;
  }
  // Every metric above as one value, the form a widget publishes. A kind of
  // day may give the same values with less work.
  virtual widgets::ScreenTimeToday summary() const {
    return {startOfDay(),      screenTime(),     pickupTimes(), longestPickup(), checkingEvery(),    walkingLife(),
            firstPickupDate(), lastPickupDate(), sleepTime(),   bestBreak(),     continuouslyUsage()};
  }
  // The clock times of the two dates in Date::defaultRegion().
  std::optional<DateComponents> firstPickupDateComponents() const { return components(firstPickupDate()); }
  std::optional<DateComponents> lastPickupDateComponents() const { return components(lastPickupDate()); }

 protected:
  ItemLikeEventsOfDay() = default;
  ItemLikeEventsOfDay(const ItemLikeEventsOfDay&) = default;
  ItemLikeEventsOfDay(ItemLikeEventsOfDay&&) = default;
  ItemLikeEventsOfDay& operator=(const ItemLikeEventsOfDay&) = default;
  ItemLikeEventsOfDay& operator=(ItemLikeEventsOfDay&&) = default;

 private:
  static std::optional<DateComponents> components(const std::optional<Date>& date) {
    if (!date) return std::nullopt;
    return DateComponents{date->hour(), date->minute(), date->second()};
  }
};

}  // namespace tarnwell

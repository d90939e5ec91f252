// EventsOfHour: one hour of a day, for the hour charts.
//
// The day's pickups and walks clipped to the hour; a pickup across an hour's
// edge counts in both hours.

#pragma once

#include <optional>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct EventsOfHour {
  DateInterval interval;
  std::vector<DateInterval> pickups;
  std::vector<DateInterval> walks;

  // As the day's metrics, over the hour's pieces: rounded per piece, nothing without pickups.
  std::optional<double> screenTime() const;
  std::optional<int> pickupTimes() const;
  std::optional<double> checkingEvery() const;
  std::optional<double> walkingLife() const;

  // The 24 hours from `start`, each exactly 3600 seconds, with the pieces of
  // `pickups` and `walks` of positive length inside each.
  static std::vector<EventsOfHour> hours(Date start, const std::vector<DateInterval>& pickups,
                                         const std::vector<DateInterval>& walks);
};

}  // namespace tarnwell

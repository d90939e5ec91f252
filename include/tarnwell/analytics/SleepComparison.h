// SleepComparison: how far the night inferred from phone use lies from the
// night a sleep application recorded.
//
// For each day, the inferred night runs from the last pickup before it to
// the first pickup after it; the recorded one from the first to the last
// moment the application counted as asleep (any asleep value, the staged
// ones too) within the night window of that day, 20:00 the evening before to
// 10:00. Nights with both are scored by the absolute differences of their
// two ends and of their lengths, in minutes. A baseline that says the same
// bed and wake time every night (the medians of the recorded nights) is
// scored the same way: an inference worth trusting beats it.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

struct NightComparison {
  // The start of the day the night ends in.
  Date day;
  std::optional<DateInterval> inferred;
  std::optional<DateInterval> recorded;
  // Seconds of the recorded night spent asleep (its intervals merged).
  double recordedAsleep = 0;
};

// Mean absolute differences, in minutes, over `nights` nights.
struct SleepErrors {
  int nights = 0;
  double asleepMinutes = 0;
  double awakeMinutes = 0;
  double durationMinutes = 0;
};

struct SleepComparison {
  std::vector<NightComparison> nights;
  SleepErrors inference;
  SleepErrors baseline;
  // Seconds from the start of the day: the median bed time (negative
  // before midnight) and wake time of the recorded nights.
  std::optional<double> medianAsleep;
  std::optional<double> medianAwake;

  // `days` in order; `recordedSleeps` the application's asleep samples,
  // which may overlap; `deviceIds` whose pickups count (nothing: the default).
  static SleepComparison compare(const std::vector<Date>& days, const std::vector<DateInterval>& recordedSleeps,
                                 const std::optional<std::vector<std::string>>& deviceIds = std::nullopt);
};

}  // namespace tarnwell

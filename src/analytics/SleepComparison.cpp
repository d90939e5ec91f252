#include "tarnwell/analytics/SleepComparison.h"

#include <algorithm>
#include <cmath>

#include "tarnwell/analytics/RememberedDays.h"

namespace tarnwell {

namespace {

std::optional<double> median(std::vector<double> values) {
  if (values.empty()) return std::nullopt;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Adds one night's differences; `errors` holds sums until `finish`.
void add(SleepErrors& errors, const DateInterval& guess, const DateInterval& truth) {
  ++errors.nights;
  errors.asleepMinutes += std::abs(guess.start() - truth.start()) / 60;
  errors.awakeMinutes += std::abs(guess.end() - truth.end()) / 60;
  errors.durationMinutes += std::abs(guess.duration() - truth.duration()) / 60;
}

void finish(SleepErrors& errors) {
  if (errors.nights == 0) return;
  errors.asleepMinutes /= errors.nights;
  errors.awakeMinutes /= errors.nights;
  errors.durationMinutes /= errors.nights;
}

}  // namespace

SleepComparison SleepComparison::compare(const std::vector<Date>& days, const std::vector<DateInterval>& recordedSleeps,
                                         const std::optional<std::vector<std::string>>& deviceIds) {
  SleepComparison comparison;
  std::vector<double> asleepOffsets, awakeOffsets;
  for (const Date date : days) {
    NightComparison night{.day = date.startOfDay(), .inferred = std::nullopt, .recorded = std::nullopt};
    const auto day = RememberedDays::day(date, deviceIds);
    const auto last = day->inferredLastPickupDate(), first = day->inferredFirstPickupDate();
    if (last && first && *last <= *first) night.inferred = DateInterval(*last, *first);

    const DateInterval window(date.addingDay(-1).getTime(20, 0, 0), date.getTime(10, 0, 0));
    std::vector<DateInterval> asleep;
    for (const auto& sleep : recordedSleeps) {
      if (sleep.intersects(window) && sleep.duration() > 0) asleep.push_back(sleep);
    }
    asleep = DateInterval::removeOverlaps(std::move(asleep));
    if (!asleep.empty()) {
      Date start = asleep.front().start(), end = asleep.front().end();
      for (const auto& sleep : asleep) {
        start = std::min(start, sleep.start());
        end = std::max(end, sleep.end());
        night.recordedAsleep += sleep.duration();
      }
      night.recorded = DateInterval(start, end);
      asleepOffsets.push_back(start - night.day);
      awakeOffsets.push_back(end - night.day);
    }
    if (night.inferred && night.recorded) add(comparison.inference, *night.inferred, *night.recorded);
    comparison.nights.push_back(night);
  }
  comparison.medianAsleep = median(asleepOffsets);
  comparison.medianAwake = median(awakeOffsets);
  if (comparison.medianAsleep && comparison.medianAwake && *comparison.medianAsleep <= *comparison.medianAwake) {
    for (const auto& night : comparison.nights) {
      if (!night.recorded || !night.inferred) continue;  // scored on the same nights as the inference
      add(comparison.baseline, DateInterval(night.day + *comparison.medianAsleep, night.day + *comparison.medianAwake),
          *night.recorded);
    }
  }
  finish(comparison.inference);
  finish(comparison.baseline);
  return comparison;
}

}  // namespace tarnwell

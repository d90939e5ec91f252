// The arithmetic every list of pickups shares, for a day, an hour or any span.
//
// Durations are rounded to whole seconds, halves away from zero, one by one
// before they are added, so a total equals the sum of the figures shown
// beside its parts. Nothing means no pickups, which is not 0.

#pragma once

#include <cmath>
#include <optional>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell::metrics {

inline double roundedSeconds(double seconds) { return std::round(seconds); }

std::optional<double> screenTime(const std::vector<DateInterval>& pickups);
std::optional<int> pickupTimes(const std::vector<DateInterval>& pickups);
// The mean length of a pickup, rounded.
std::optional<double> checkingEvery(const std::vector<DateInterval>& pickups);
// The rounded overlap of each walk with each pickup; 0 with pickups but no walks.
std::optional<double> walkingLife(const std::vector<DateInterval>& pickups, const std::vector<DateInterval>& walks);

}  // namespace tarnwell::metrics

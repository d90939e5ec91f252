#include "tarnwell/analytics/Metrics.h"

namespace tarnwell::metrics {

std::optional<double> screenTime(const std::vector<DateInterval>& pickups) {
  if (pickups.empty()) return std::nullopt;
  double seconds = 0;
  for (const auto& pickup : pickups) seconds += roundedSeconds(pickup.duration());
  return seconds;
}

std::optional<int> pickupTimes(const std::vector<DateInterval>& pickups) {
  if (pickups.empty()) return std::nullopt;
  return static_cast<int>(pickups.size());
}

std::optional<double> checkingEvery(const std::vector<DateInterval>& pickups) {
  const auto seconds = screenTime(pickups);
  if (!seconds) return std::nullopt;
  return roundedSeconds(*seconds / static_cast<double>(pickups.size()));
}

std::optional<double> walkingLife(const std::vector<DateInterval>& pickups, const std::vector<DateInterval>& walks) {
  if (pickups.empty()) return std::nullopt;
  double seconds = 0;
  for (const auto& walk : walks) {
    for (const auto& pickup : pickups) {
      if (const auto together = pickup.intersection(walk)) seconds += roundedSeconds(together->duration());
    }
  }
  return seconds;
}

}  // namespace tarnwell::metrics

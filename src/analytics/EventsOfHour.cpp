#include "tarnwell/analytics/EventsOfHour.h"

#include "tarnwell/analytics/EventsOfInterval.h"

namespace tarnwell {
namespace {

std::vector<DateInterval> piecesWithin(const DateInterval& hour, const std::vector<DateInterval>& intervals) {
  std::vector<DateInterval> pieces;
  for (const auto& interval : intervals) {
    if (const auto piece = interval.intersection(hour); piece && piece->duration() > 0.0) pieces.push_back(*piece);
  }
  return pieces;
}

}  // namespace

std::optional<double> EventsOfHour::screenTime() const {
  if (pickups.empty()) return std::nullopt;
  double seconds = 0;
  for (const auto& pickup : pickups) seconds += roundedSeconds(pickup.duration());
  return seconds;
}

std::optional<int> EventsOfHour::pickupTimes() const {
  if (pickups.empty()) return std::nullopt;
  return static_cast<int>(pickups.size());
}

std::optional<double> EventsOfHour::checkingEvery() const {
  const auto seconds = screenTime();
  if (!seconds) return std::nullopt;
  return roundedSeconds(*seconds / static_cast<double>(pickups.size()));
}

std::optional<double> EventsOfHour::walkingLife() const {
  if (pickups.empty()) return std::nullopt;
  double seconds = 0;
  for (const auto& walk : walks) {
    for (const auto& pickup : pickups) {
      if (const auto together = pickup.intersection(walk)) seconds += roundedSeconds(together->duration());
    }
  }
  return seconds;
}

std::vector<EventsOfHour> EventsOfHour::hours(Date start, const std::vector<DateInterval>& pickups,
                                              const std::vector<DateInterval>& walks) {
  std::vector<EventsOfHour> hours;
  hours.reserve(24);
  for (int i = 0; i < 24; ++i) {
    const DateInterval hour(start + i * 3600.0, 3600.0);
    hours.push_back({hour, piecesWithin(hour, pickups), piecesWithin(hour, walks)});
  }
  return hours;
}

}  // namespace tarnwell

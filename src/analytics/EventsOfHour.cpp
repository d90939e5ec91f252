#include "tarnwell/analytics/EventsOfHour.h"

#include "tarnwell/analytics/Metrics.h"

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

std::optional<double> EventsOfHour::screenTime() const { return metrics::screenTime(pickups); }
std::optional<int> EventsOfHour::pickupTimes() const { return metrics::pickupTimes(pickups); }
std::optional<double> EventsOfHour::checkingEvery() const { return metrics::checkingEvery(pickups); }
std::optional<double> EventsOfHour::walkingLife() const { return metrics::walkingLife(pickups, walks); }

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

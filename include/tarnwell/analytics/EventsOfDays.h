// EventsOfDays: a run of days with their totals and averages.
//
// Sums and means skip the days without data: a day whose metric is nothing
// is left out of the divisor, a day of 0 is not. Runs built from a start and
// a count are kept in a process-wide cache (one per Environment) that is
// never invalidated on its own: whoever changes data or settings that move
// the numbers calls clearCaches(). The cache has no lock; build runs and
// clear it from one thread at a time. The value itself is immutable and may
// cross threads.

#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "tarnwell/analytics/ItemLikeEventsOfDay.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell {

class EventsOfDays {
 public:
  using Day = std::shared_ptr<const ItemLikeEventsOfDay>;

  template <class T>
  struct Sum {
    T total{};
    double average = 0.0;
    friend bool operator==(const Sum&, const Sum&) = default;
  };

  // Days given by the caller; start and count stay nothing, and the cache is
  // not involved.
  explicit EventsOfDays(std::vector<Day> eventsOfDays);
  // `count` days from `start`'s day, each for the default devices. A run of
  // the same start and count already cached is taken as it is (and entered
  // once more). A negative count is a programming error.
  EventsOfDays(Date start, int count);

  // Forgets every cached run.
  static void clearCaches();

  const std::optional<Date>& start() const { return start_; }
  const std::optional<int>& count() const { return count_; }
  // By day, ascending.
  const std::vector<Day>& eventsOfDays() const { return *eventsOfDays_; }

  Sum<double> screenTime() const;
  Sum<int> pickupTimes() const;
  Sum<double> walkingLife() const;
  Sum<double> indoorLife() const;
  // The greatest of the days; nothing when no day has one.
  std::optional<double> longestPickup() const;
  // Means over the days that have a value; 0 when none has.
  double averageCheckingEvery() const;
  double averageBestBreak() const;
  double averageContinuouslyUsage() const;
  double averageSleepTime() const;
  // Means of clock times taken as plain seconds from midnight, without a
  // wrap at midnight: 23:30 and 00:30 average to 12:00:00. 0:00:00 when no
  // day has one.
  DateComponents averageFirstPickup() const;
  DateComponents averageLastPickup() const;

 private:
  std::optional<Date> start_;
  std::optional<int> count_;
  // Shared by the copies of a run, the cache's among them.
  std::shared_ptr<const std::vector<Day>> eventsOfDays_;
};

}  // namespace tarnwell

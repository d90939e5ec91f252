// RememberedDays: the metrics of past days, computed once and kept.
//
// A range of days, a streak or a report reads many past days, and a past day
// changes only when something that shapes it changes. So each past day's
// metrics, computed by EventsOfDay, are kept in the store's table
// "DayMetrics", keyed by everything else that shapes the day: its calendar
// start in the time zone, the start-of-day setting, the sleep source,
// whether focus time is excluded, and the devices merged into it. Each kept
// day notes the span of event times that can change it (the day itself and
// the hours its night is searched in); triggers on the event tables drop
// every kept day a write touches, in the write's own transaction, whoever
// writes. A sleep application's nights are compared with the ones the day
// was computed from. A dropped day is computed again when next read.
//
// Today, and any day the clock can still change (a night that ended within
// the last minute), is computed every time and never kept. The values are
// exactly those EventsOfDay gives; the hours of a day are computed when
// asked for. When the store cannot keep days, they are computed.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarnwell/analytics/ItemLikeEventsOfDay.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/widgets/Summaries.h"

namespace tarnwell {

class EventsOfDay;

// One day's metrics as plain values, however they were obtained.
class RememberedDay final : public ItemLikeEventsOfDay {
 public:
  // The metrics every day answers, as a widget publishes them, and the
  // night as the pickups alone give it.
  struct Metrics {
    widgets::ScreenTimeToday day;
    std::optional<Date> inferredFirstPickupDate;
    std::optional<Date> inferredLastPickupDate;
    friend bool operator==(const Metrics&, const Metrics&) = default;
  };

  // The metrics of `day`.
  static Metrics metricsOf(const EventsOfDay& day);

  // `live` is the day the metrics came from, when at hand; without it the
  // hours are computed from the store for `deviceIds`.
  RememberedDay(Metrics metrics, std::shared_ptr<const std::vector<std::string>> deviceIds,
                std::shared_ptr<const EventsOfDay> live = nullptr);

  const Metrics& metrics() const { return metrics_; }

  Date startOfDay() const override { return metrics_.day.startOfDay; }
  std::optional<double> screenTime() const override { return metrics_.day.screenTime; }
  std::optional<int> pickupTimes() const override { return metrics_.day.pickupTimes; }
  std::optional<double> longestPickup() const override { return metrics_.day.longestPickup; }
  std::optional<double> checkingEvery() const override { return metrics_.day.checkingEvery; }
  std::optional<double> walkingLife() const override { return metrics_.day.walkingLife; }
  std::optional<Date> firstPickupDate() const override { return metrics_.day.firstPickupDate; }
  std::optional<Date> lastPickupDate() const override { return metrics_.day.lastPickupDate; }
  std::optional<double> sleepTime() const override { return metrics_.day.sleepTime; }
  std::optional<DateInterval> bestBreak() const override { return metrics_.day.bestBreak; }
  std::optional<DateInterval> continuouslyUsage() const override { return metrics_.day.continuouslyUsage; }
  // The night's ends as the pickups alone give them (EventsOfDay's own).
  std::optional<Date> inferredFirstPickupDate() const { return metrics_.inferredFirstPickupDate; }
  std::optional<Date> inferredLastPickupDate() const { return metrics_.inferredLastPickupDate; }
  std::optional<std::vector<EventsOfHour>> getEventsOfHours() const override;

 private:
  Metrics metrics_;
  std::shared_ptr<const std::vector<std::string>> deviceIds_;
  std::shared_ptr<const EventsOfDay> live_;
};

class RememberedDays {
 public:
  using Day = std::shared_ptr<const RememberedDay>;

  // The kept days' table and the triggers that drop them, for the store's
  // configuration; the triggers name the event tables, made before it.
  static store::TableSchema tableSchema();

  // `count` days from `date`'s day, in order; nothing means the default
  // devices. A negative count is a programming error.
  static std::vector<Day> days(Date date, int count, const std::optional<std::vector<std::string>>& deviceIds = {});
  static Day day(Date date, const std::optional<std::vector<std::string>>& deviceIds = {});
};

}  // namespace tarnwell

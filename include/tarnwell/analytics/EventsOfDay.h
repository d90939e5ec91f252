// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → [analytics] → charts → modules → automation.
//
// EventsOfDay: the metrics of one day, for one list of devices.
//
// A day of this system lasts 24 hours from the calendar day's start plus the
// setting startOfDayScreenTime, so a pickup at 03:00 belongs to the day
// before when days start at 04:00. The value is built once from the store:
// its events, the night that ended on the day (inferred from the gaps in
// phone use, or the chosen sleep application's samples), and then answers
// every metric by computation. A metric that is nothing means no data, which
// is not 0: averages and streaks leave such a day out.
//
// A plain value: it may cross threads, and it goes stale unless changes are
// applied to it (appliedChange), which reread only the records they name.

#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tarnwell/analytics/EventsOfHour.h"
#include "tarnwell/analytics/EventsOfInterval.h"
#include "tarnwell/analytics/ItemLikeEventsOfDay.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/records/FocusData.h"
#include "tarnwell/settings/SleepDataSource.h"
#include "tarnwell/store/Snapshot.h"

namespace tarnwell {

class EventsOfDay : public ItemLikeEventsOfDay {
 public:
  // This device, then the devices its Device row merges with; this device
  // alone when the store cannot be read.
  static std::vector<std::string> defaultDeviceIds();

  // The day of `date`'s calendar day; nothing means the default devices.
  EventsOfDay(Date date, const std::optional<std::vector<std::string>>& deviceIds);
  // The days of `dates`, consecutive and in order, each as the constructor
  // makes it; their events come from one read. Memory grows with the run.
  static std::vector<EventsOfDay> ofDays(std::span<const Date> dates, const std::vector<std::string>& deviceIds);

  // A new value with the change applied. The night stands when both of its
  // ends are known; otherwise it is resolved again from the changed events.
  // `commit`, when given, is the write that made exactly these changes: if
  // the night was last read from the file as that write found it, and no
  // change is a pickup at the night's edges or in the windows they are
  // looked for in, the edges are known without reading them again.
  // On a value about to be dropped, the change is made in place, without a copy.
  EventsOfDay appliedChange(const EventsOfInterval::EventsChangeType& change) const&;
  EventsOfDay appliedChange(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                            const std::optional<store::Commit>& commit = std::nullopt) const&;
  EventsOfDay appliedChange(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                            const std::optional<store::Commit>& commit = std::nullopt) &&;

  // The calendar day's first instant, without the start-of-day shift.
  Date startOfDay() const override { return startOfDay_; }
  const EventsOfInterval& eventsOfInterval() const { return eventsOfInterval_; }
  // Within the day's span, both ends included.
  bool contains(Date date) const { return eventsOfInterval_.interval().contains(date); }

  // The pickups every pickup metric counts: without focus time (while it is
  // excluded) and without a sleep application's sleep.
  std::vector<DateInterval> pickups() const;
  std::vector<DateInterval> walks() const { return eventsOfInterval_.walks(); }
  std::vector<DateInterval> noDatas() const { return eventsOfInterval_.noDatas(); }
  // Without use, excluded focus time or missing data, and outside the night.
  std::vector<DateInterval> breaks() const;
  // The night's sleep: the chosen application's intervals, or the inferred
  // night with the day's pickups cut out.
  std::vector<DateInterval> sleeps() const;
  // The focus sessions taken out of screen time; none while focus time is not excluded.
  std::vector<FocusData> focuseDatas() const;

  // Seconds, each pickup rounded to a whole second before adding.
  std::optional<double> screenTime() const override;
  std::optional<int> pickupTimes() const override;
  // The longest pickup, unrounded; of equal ones the first.
  std::optional<double> longestPickup() const override;
  // The mean length of a pickup, rounded to a whole second.
  std::optional<double> checkingEvery() const override;
  // Seconds of pickups during walks, each piece rounded.
  std::optional<double> walkingLife() const override;
  std::optional<double> sleepTime() const override;

  // When use began after the night, and when it ended before it.
  std::optional<Date> firstPickupDate() const override;
  std::optional<Date> lastPickupDate() const override;
  // The night's ends as the pickups alone give them, whichever source of
  // sleep is chosen: what this application writes to the health store.
  std::optional<Date> inferredFirstPickupDate() const { return firstPickupDate_; }
  std::optional<Date> inferredLastPickupDate() const { return lastPickupDate_; }
  // The middle of the night, or 04:00 when the night is not known.
  Date asleepAt() const;
  std::optional<DateInterval> bestBreak() const override;
  // The pickup behind longestPickup.
  std::optional<DateInterval> continuouslyUsage() const override;

  // The 24 hours of the day from its shifted start, with the day's pickups
  // and walks clipped to each; never nothing for a live day.
  std::optional<std::vector<EventsOfHour>> getEventsOfHours() const override;
  // The metrics of the pickups from one list of them.
  widgets::ScreenTimeToday summary() const override;

  // The sleep application whose data this day uses, if any, and its nights
  // the day was computed from.
  std::optional<SleepDataSource> sleepSource() const;
  const std::optional<SleepDataWithDataSource>& sleepData() const { return sleepsWithSource_; }
  std::string sleepSourceDisplayName() const;

 private:
  EventsOfDay(Date startOfDay, EventsOfInterval events, std::optional<SleepDataWithDataSource> sleeps);

  struct NightRead;

  // Reads the nights of a sleep application other than the built-in one, then
  // resolves the night.
  void settle(const SleepDataSource& source);
  // Reads the pickups at the night's edges; `at` is the file the read sees
  // at least, which only a read right after a write knows.
  void readNight(store::Snapshot at = {});
  // Decides the night's two ends from the edges read and the day's breaks.
  void resolveNight();
  // The ends as the health-store path alone gives them.
  std::optional<Date> healthFirstPickupDate() const;
  std::optional<Date> healthLastPickupDate() const;
  // Pickups sorted longest first, stably.
  std::vector<DateInterval> pickupsByLength() const;

  Date startOfDay_;
  EventsOfInterval eventsOfInterval_;
  std::optional<SleepDataWithDataSource> sleepsWithSource_;
  std::optional<Date> firstPickupDate_;
  std::optional<Date> lastPickupDate_;
  // Shared by copies; replaced, never changed.
  std::shared_ptr<const NightRead> night_;
};

}  // namespace tarnwell

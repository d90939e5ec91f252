// The publishers: what the app writes for its widgets, and when.
//
// Widgets run in other processes and may not open the store, so the app
// publishes precomputed summaries into the shared preferences (see
// widgets/WidgetDatabase.h for the keys): today, this week and month of
// usage, focus by tag for the same spans (the year only when a widget that
// shows it is placed), the tag list and the focus under way.
//
// WidgetDatabase::connectToDatabase() makes the store's notifiers call these
// where the app does: 0.1 s after the last event write, and after the last
// focus or tag change. A host calls it once per Environment, before
// Database::start(). Store failures are dropped: a day that cannot be read
// is published in its empty form.

#pragma once

#include <optional>
#include <vector>

#include "tarnwell/analytics/ItemLikeEventsOfDay.h"
#include "tarnwell/records/FocusData.h"
#include "tarnwell/records/Tag.h"
#include "tarnwell/widgets/WidgetDatabase.h"

namespace tarnwell {

// A day of focus from its sessions: a line for every tag that is neither
// archived-away nor deleted (time 0 when unused), in the order of the tag
// list. A session without a tag, or of a deleted tag, counts in
// lastFocusTime and in no line.
widgets::FocusTimeToday makeFocusTimeToday(Date date, const std::vector<FocusData>& focuses, int failedCount);

// A published day read as a day of the analytics, so that ranges and charts
// take it like a computed one. It keeps no hours: getEventsOfHours is empty.
class PublishedDay : public ItemLikeEventsOfDay {
 public:
  explicit PublishedDay(widgets::ScreenTimeToday day) : day_(std::move(day)) {}

  widgets::ScreenTimeToday summary() const override { return day_; }

  Date startOfDay() const override { return day_.startOfDay; }
  std::optional<double> screenTime() const override { return day_.screenTime; }
  std::optional<int> pickupTimes() const override { return day_.pickupTimes; }
  std::optional<double> longestPickup() const override { return day_.longestPickup; }
  std::optional<double> checkingEvery() const override { return day_.checkingEvery; }
  std::optional<double> walkingLife() const override { return day_.walkingLife; }
  std::optional<Date> firstPickupDate() const override { return day_.firstPickupDate; }
  std::optional<Date> lastPickupDate() const override { return day_.lastPickupDate; }
  std::optional<double> sleepTime() const override { return day_.sleepTime; }
  std::optional<DateInterval> bestBreak() const override { return day_.bestBreak; }
  std::optional<DateInterval> continuouslyUsage() const override { return day_.continuouslyUsage; }
  std::optional<std::vector<EventsOfHour>> getEventsOfHours() const override { return std::vector<EventsOfHour>{}; }

 private:
  widgets::ScreenTimeToday day_;
};

class WidgetDatabase : public widgets::WidgetDatabase {
 public:
  // The goals, today, and (see below) this week and month of usage.
  //
  // The week and month are rebuilt on every call except one made less than
  // 600 seconds after the last rebuild and outside that rebuild's week: the
  // test reads that way on purpose, so in ordinary use they are rebuilt
  // each time and only the call just after a week has turned is held back.
  static void refreshScreenTimeToday();
  // Today, this week and month of focus by tag, under the same rule; and the
  // year, when the widget centre answers that a widget configured by
  // FocusSummaryExtraLargeConfigurationIntent is placed (later, on its own).
  static void refreshFocusTimeToday();
  // The tags for widgets, the default tag included, in the tag list's order.
  static void updateFocusTags();

  // The focus under way, as the app's timer reports it, and a redraw of the
  // three focus controls. A given tag must have an id.
  static void updateCurrentFocusState(const std::optional<ThreadSafeTag>& tag, const widgets::FocusType& focusType,
                                      widgets::WidgetFocusState::State state, bool isPaused, double timeSpent,
                                      double goal);
  // No focus: no tag, an add-time type of zeros, the first state, nothing spent.
  static void updateCurrentFocusStateNoFocus();

  static void connectToDatabase();
};

}  // namespace tarnwell

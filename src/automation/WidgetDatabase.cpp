#include "tarnwell/automation/WidgetDatabase.h"

#include <algorithm>

#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/charts/Focuses.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Color.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/WidgetCenter.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

using widgets::FocusTimeToday;
using widgets::Keys;
using widgets::ScreenTimeOfDays;
using widgets::WidgetTag;

constexpr std::string_view kYearConfiguration = "FocusSummaryExtraLargeConfigurationIntent";

// The week and month wait only when the last rebuild is less than 600
// seconds old and lies in another week than now.
bool holdsBackWeekAndMonth(Date now, const std::optional<Date>& recent) {
  return recent && now - *recent < 600 && !DateInterval(recent->startOfWeek(), recent->endOfWeek()).contains(now);
}

// The tag list of the store, empty when it cannot be read.
std::vector<std::string> tagIds() {
  try {
    return Database::getTags(false, false);
  } catch (const std::exception&) {
    return {};
  }
}

// Each tag of the list that can be read and is not soft-deleted, in the list's order.
std::vector<Tag> liveTags() {
  std::vector<Tag> tags;
  for (const auto& id : tagIds()) {
    try {
      if (auto tag = Database::getTag(id)) tags.push_back(std::move(*tag));
    } catch (const std::exception&) {
    }
  }
  return tags;
}

// A line per tag; the tags are read once for all the days of a publication.
FocusTimeToday focusTimeOfTags(Date date, const std::vector<FocusData>& focuses, int failedCount,
                               const std::vector<Tag>& tags) {
  FocusTimeToday day{date, {}, failedCount, focuses.empty() ? 0.0 : focuses.back().progress};
  for (const auto& tag : tags) {
    const std::string id = tag.id.value_or("");
    double time = 0;
    for (const auto& focus : focuses) {
      if (focus.tagId == id) time += focus.progress;
    }
    const auto goal = tag.focusGoal();
    day.tags.push_back({id, tag.emoji, tag.displayTitle(), time, goal ? std::optional(goal->duration()) : std::nullopt,
                        tag.color().hex(false)});
  }
  return day;
}

FocusTimeToday focusTimeOfDay(Date day, const std::vector<Tag>& tags) {
  const std::optional<std::string> everyTag;
  const Focuses focuses(DateInterval::getDateInterval(day, 1), everyTag);
  return focusTimeOfTags(day, focuses.focuses.value_or(std::vector<FocusData>{}), focuses.failedTimes().value_or(0),
                         tags);
}

std::vector<FocusTimeToday> focusTimeOfDays(Date start, int count) {
  const auto tags = liveTags();
  std::vector<FocusTimeToday> days;
  days.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int i = 0; i < count; ++i) days.push_back(focusTimeOfDay(start.addingDay(i), tags));
  return days;
}

ScreenTimeOfDays screenTimeOfDays(Date start, int count) {
  ScreenTimeOfDays published;
  const EventsOfDays days(start, count);
  for (const auto& day : days.eventsOfDays()) published.days.push_back(day->summary());
  return published;
}

}  // namespace

FocusTimeToday makeFocusTimeToday(Date date, const std::vector<FocusData>& focuses, int failedCount) {
  return focusTimeOfTags(date, focuses, failedCount, liveTags());
}

void WidgetDatabase::refreshScreenTimeToday() {
  Keys::widgetScreenTimeGoal.set(Settings::defaultScreenTimeGoal());
  Keys::widgetPickupsGoal.set(Settings::defaultPickupGoal());
  Keys::widgetSleepTimeGoal.set(Settings::defaultSleepTimeGoal());
  Keys::screenTimeToday.set(Database::eventsOfToday().summary());

  const Date now = Date::now();
  if (holdsBackWeekAndMonth(now, recentWidgetScreenTimeDataRefreshDate())) return;
  Keys::screenTimeThisWeek.set(screenTimeOfDays(now.startOfWeek(), 7));
  Keys::screenTimeThisMonth.set(screenTimeOfDays(now.startOfMonth(), now.daysOfMonth()));
  setRecentWidgetScreenTimeDataRefreshDate(now);
}

void WidgetDatabase::refreshFocusTimeToday() {
  const Date now = Date::now();
  Keys::focusTimeToday.set(focusTimeOfDay(now.startOfDay(), liveTags()));
  if (holdsBackWeekAndMonth(now, recentWidgetFocusDataRefreshDate())) return;
  Keys::focusTimeThisWeek.set(focusTimeOfDays(now.startOfWeek(), 7));
  Keys::focusTimeThisMonth.set(focusTimeOfDays(now.startOfMonth(), now.daysOfMonth()));
  if (Environment::platformVersion() >= 14) {
    WidgetCenter::shared().getCurrentConfigurations([now](std::vector<WidgetInfo> widgets, std::exception_ptr error) {
      if (error) return;
      const bool showsYear = std::any_of(widgets.begin(), widgets.end(), [](const WidgetInfo& widget) {
        return widget.configuration == kYearConfiguration;
      });
      // A year is a store read for each day: built only for a widget that shows it.
      if (showsYear) Keys::focusTimeThisYear.set(focusTimeOfDays(now.startOfYear(), now.daysOfYear()));
    });
  }
  setRecentWidgetFocusDataRefreshDate(now);
}

void WidgetDatabase::updateFocusTags() {
  std::vector<WidgetTag> tags;
  for (const auto& tag : liveTags()) tags.push_back(tag.widgetTag());
  setTags(tags);
}

void WidgetDatabase::updateCurrentFocusState(const std::optional<ThreadSafeTag>& tag,
                                             const widgets::FocusType& focusType,
                                             widgets::WidgetFocusState::State state, bool isPaused, double timeSpent,
                                             double goal) {
  std::optional<WidgetTag> widgetTag;
  if (tag) {
    if (!tag->id) fatalError("A focus tag without an id cannot be shown in a widget");
    widgetTag = tag->widgetTag();
  }
  setCurrentFocusState(widgets::WidgetFocusState(std::move(widgetTag), focusType, state, isPaused, timeSpent, goal));
  if (Environment::platformVersion() >= 18) {
    for (auto type = widgets::kAllAbstractFocusTypes.rbegin(); type != widgets::kAllAbstractFocusTypes.rend(); ++type) {
      ControlCenter::shared().reloadControls(widgets::ControlKind::focus(*type));
    }
  }
}

void WidgetDatabase::updateCurrentFocusStateNoFocus() {
  updateCurrentFocusState(std::nullopt, widgets::FocusType::addTime(0, 0), widgets::WidgetFocusState::State::idle,
                          false, 0, 0);
}

void WidgetDatabase::connectToDatabase() {
  Database::setPublishingHooks({
      .refreshScreenTimeToday = &WidgetDatabase::refreshScreenTimeToday,
      .refreshFocusTimeToday = &WidgetDatabase::refreshFocusTimeToday,
      .updateFocusTags = &WidgetDatabase::updateFocusTags,
  });
}

}  // namespace tarnwell

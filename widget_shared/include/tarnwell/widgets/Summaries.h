// The summaries the app publishes for its widgets: a day of usage, days of
// focus by tag, and the focus under way.
//
// They are plain values with a JSON form, so that a widget process reads
// them from the shared preferences without the store. Dates travel as
// seconds since 2001-01-01, an interval as {"start", "duration"}; a value
// that is absent is left out.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/widgets/WidgetTag.h"

namespace tarnwell::widgets {

// One day of usage, metric by metric; nothing means no data, not 0.
struct ScreenTimeToday {
  Date startOfDay;
  std::optional<double> screenTime;
  std::optional<int> pickupTimes;
  std::optional<double> longestPickup;
  std::optional<double> checkingEvery;
  std::optional<double> walkingLife;
  std::optional<Date> firstPickupDate;
  std::optional<Date> lastPickupDate;
  std::optional<double> sleepTime;
  std::optional<DateInterval> bestBreak;
  std::optional<DateInterval> continuouslyUsage;

  friend bool operator==(const ScreenTimeToday&, const ScreenTimeToday&) = default;
};

// Days of usage, one for each day, in order.
struct ScreenTimeOfDays {
  std::vector<ScreenTimeToday> days;

  friend bool operator==(const ScreenTimeOfDays&, const ScreenTimeOfDays&) = default;
};

// The line of one tag in a day.
struct FocusTimeOfTag {
  std::string id;
  std::optional<std::string> emoji;
  std::string title;
  // Seconds focused that day.
  double time = 0;
  // The duration of the tag's goal.
  std::optional<double> goal;
  // "#RRGGBB".
  std::string colorHex;

  friend bool operator==(const FocusTimeOfTag&, const FocusTimeOfTag&) = default;
};

// A day of focus: a line for every tag, focused or not.
struct FocusTimeToday {
  Date date;
  std::vector<FocusTimeOfTag> tags;
  // Sessions that missed their goal.
  int failedCount = 0;
  // The progress of the day's last session.
  double lastFocusTime = 0;

  // Seconds over the lines: a session without a tag is in none.
  double totalTime() const;

  friend bool operator==(const FocusTimeToday&, const FocusTimeToday&) = default;
};

// One tag's time (or the total) day by day, as a chart of days shows it.
struct FocusTimeOfDays {
  struct FocusTimeOfDay {
    Date date;
    double time = 0;
    friend bool operator==(const FocusTimeOfDay&, const FocusTimeOfDay&) = default;
  };

  std::optional<std::string> tagId;
  std::optional<WidgetImage> icon;
  std::optional<WidgetFocusGoal> goal;
  std::vector<FocusTimeOfDay> days;

  // Without a tag: each day's total, under the image "focus-total-tag". With
  // one: the time of its lines, and its icon and goal from the tags
  // published for intents (none when it is not among them).
  FocusTimeOfDays(const std::optional<std::string>& tagId, const std::vector<FocusTimeToday>& focusTimeOfDays);

  friend bool operator==(const FocusTimeOfDays&, const FocusTimeOfDays&) = default;
};

// The focus under way, as the app's timer reports it.
class WidgetFocusState {
 public:
  enum class State { idle, focusing, shortBreak, longBreak };

  WidgetFocusState(std::optional<WidgetTag> focusTag, FocusType type, State focusState, bool paused, double spent,
                   double aimedAt)
      : tag(std::move(focusTag)),
        focusType(type),
        state(focusState),
        isPaused(paused),
        timeSpent(spent),
        goal(aimedAt) {}

  std::optional<WidgetTag> tag;
  FocusType focusType;
  State state;
  bool isPaused;
  // Seconds.
  double timeSpent;
  double goal;

  friend bool operator==(const WidgetFocusState&, const WidgetFocusState&) = default;
};

// "idle", "focusing", "shortBreak", "longBreak".
std::string_view rawValue(WidgetFocusState::State state);
std::optional<WidgetFocusState::State> widgetFocusStateFromRawValue(std::string_view text);

// Decoding throws nlohmann::json::exception for a value of another shape.
void to_json(nlohmann::json& json, const ScreenTimeToday& day);
void from_json(const nlohmann::json& json, ScreenTimeToday& day);
void to_json(nlohmann::json& json, const ScreenTimeOfDays& days);
void from_json(const nlohmann::json& json, ScreenTimeOfDays& days);
void to_json(nlohmann::json& json, const FocusTimeOfTag& line);
void from_json(const nlohmann::json& json, FocusTimeOfTag& line);
void to_json(nlohmann::json& json, const FocusTimeToday& day);
void from_json(const nlohmann::json& json, FocusTimeToday& day);
void to_json(nlohmann::json& json, const WidgetFocusState& state);
// A state has no empty form to decode into: this reads one whole.
WidgetFocusState decodeWidgetFocusState(const nlohmann::json& json);

}  // namespace tarnwell::widgets

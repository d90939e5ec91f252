// WidgetDatabase and IntentDatabase: where the app leaves its summaries for
// the widget and intent processes, and the kinds of widget and control it
// asks to redraw.
//
// Everything lives in the app group's shared preferences as JSON, under the
// keys below, so another process of the installation reads it with no store.
// Widgets only read; what they show is as fresh as the last publication.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Defaults.h"
#include "tarnwell/widgets/Summaries.h"
#include "tarnwell/widgets/WidgetTag.h"

namespace tarnwell::widgets {

// The published keys, in the app-group suite.
struct Keys {
  template <class T>
  using Optional = defaults::OptionalKey<T>;
  using Days = defaults::Key<std::vector<FocusTimeToday>>;

  inline static const Optional<ScreenTimeToday> screenTimeToday{"screenTimeToday", &UserDefaults::appGroup};
  inline static const Optional<ScreenTimeOfDays> screenTimeThisWeek{"screenTimeThisWeek", &UserDefaults::appGroup};
  inline static const Optional<ScreenTimeOfDays> screenTimeThisMonth{"screenTimeThisMonth", &UserDefaults::appGroup};
  inline static const Optional<FocusTimeToday> focusTimeToday{"focusTimeToday", &UserDefaults::appGroup};
  inline static const Days focusTimeThisWeek{"focusTimeThisWeek", {}, &UserDefaults::appGroup};
  inline static const Days focusTimeThisMonth{"focusTimeThisMonth", {}, &UserDefaults::appGroup};
  inline static const Days focusTimeThisYear{"focusTimeThisYear", {}, &UserDefaults::appGroup};
  // Read whole with WidgetDatabase::currentFocusState(); nothing when none was written.
  static constexpr std::string_view currentFocusState = "currentFocusState";
  inline static const Optional<double> widgetScreenTimeGoal{"widgetScreenTimeGoal", &UserDefaults::appGroup};
  inline static const Optional<double> widgetSleepTimeGoal{"widgetSleepTimeGoal", &UserDefaults::appGroup};
  inline static const Optional<int> widgetPickupsGoal{"widgetPickupsGoal", &UserDefaults::appGroup};
};

class WidgetDatabase {
 public:
  WidgetDatabase() = delete;

  static constexpr std::string_view kTagsKey = "WidgetDatabase.tags";

  // The tags for widgets, the default tag included; empty until written.
  static std::vector<WidgetTag> tags();
  static void setTags(const std::vector<WidgetTag>& tags);

  // The running focus, as last written; nothing when none was.
  static std::optional<WidgetFocusState> currentFocusState();
  static void setCurrentFocusState(const WidgetFocusState& state);

  // When this process last rebuilt the week and month, in memory only.
  static std::optional<Date> recentWidgetScreenTimeDataRefreshDate();
  static void setRecentWidgetScreenTimeDataRefreshDate(Date date);
  static std::optional<Date> recentWidgetFocusDataRefreshDate();
  static void setRecentWidgetFocusDataRefreshDate(Date date);
};

class IntentDatabase {
 public:
  IntentDatabase() = delete;

  static constexpr std::string_view kTagsKey = "IntentDatabase.tags";

  // The tags shortcuts and widget settings offer (no default tag); nothing
  // until the app first wrote them.
  static std::optional<std::vector<WidgetTag>> tags();
  static void setTags(const std::vector<WidgetTag>& tags);
};

// The kinds of widget, each the timeline its widgets share, and the
// configuration intents that configure them.
struct WidgetKind {
  static constexpr std::string_view screenTime = "org.vostra.tarnwell.widget.screenTime";
  static constexpr std::string_view focus = "org.vostra.tarnwell.widget.focus";
  static constexpr std::string_view lullTime = "org.vostra.tarnwell.widget.lullTime";

  struct Configuration {
    std::string_view intent;
    std::string_view kind;
  };
  // Every configuration intent a placed widget may carry.
  static const std::vector<Configuration>& configurations();
  // The kind a configuration intent belongs to; nothing for an unknown one.
  static std::optional<std::string_view> ofConfiguration(std::string_view intent);
};

// The addition to the widget centre: redraw every focus widget, one request.
void refreshFocusWidget();

// The kinds of control the control centre shows.
struct ControlKind {
  // The control that starts a focus of this kind.
  static std::string focus(AbstractFocusType type);
};

}  // namespace tarnwell::widgets

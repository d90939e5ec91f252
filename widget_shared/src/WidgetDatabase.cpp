#include "tarnwell/widgets/WidgetDatabase.h"

#include <mutex>
#include <nlohmann/json.hpp>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/WidgetCenter.h"

namespace tarnwell::widgets {
namespace {

UserDefaults& suite() { return UserDefaults::appGroup(); }

// This process's memory of the last rebuilds: reset with the Environment.
// The app touches these from the main queue and the store's queue.
struct RefreshDates {
  std::mutex mutex;
  std::optional<Date> screenTime;
  std::optional<Date> focus;

  static std::optional<Date> get(std::optional<Date> RefreshDates::*date) {
    auto& dates = Environment::current().component<RefreshDates>();
    std::lock_guard lock(dates.mutex);
    return dates.*date;
  }
  static void set(std::optional<Date> RefreshDates::*date, Date value) {
    auto& dates = Environment::current().component<RefreshDates>();
    std::lock_guard lock(dates.mutex);
    dates.*date = value;
  }
};

std::vector<WidgetTag> decodeTags(const nlohmann::json& stored) {
  try {
    return stored.get<std::vector<WidgetTag>>();
  } catch (const nlohmann::json::exception&) {
    return {};
  }
}

}  // namespace

std::vector<WidgetTag> WidgetDatabase::tags() {
  const auto stored = suite().jsonForKey(kTagsKey);
  return stored ? decodeTags(*stored) : std::vector<WidgetTag>{};
}

void WidgetDatabase::setTags(const std::vector<WidgetTag>& tags) { suite().setJSON(kTagsKey, tags); }

std::optional<WidgetFocusState> WidgetDatabase::currentFocusState() {
  const auto json = suite().jsonForKey(Keys::currentFocusState);
  if (!json) return std::nullopt;
  try {
    return decodeWidgetFocusState(*json);
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

void WidgetDatabase::setCurrentFocusState(const WidgetFocusState& state) {
  suite().setJSON(Keys::currentFocusState, state);
}

std::optional<Date> WidgetDatabase::recentWidgetScreenTimeDataRefreshDate() {
  return RefreshDates::get(&RefreshDates::screenTime);
}
void WidgetDatabase::setRecentWidgetScreenTimeDataRefreshDate(Date date) {
  RefreshDates::set(&RefreshDates::screenTime, date);
}
std::optional<Date> WidgetDatabase::recentWidgetFocusDataRefreshDate() {
  return RefreshDates::get(&RefreshDates::focus);
}
void WidgetDatabase::setRecentWidgetFocusDataRefreshDate(Date date) { RefreshDates::set(&RefreshDates::focus, date); }

std::optional<std::vector<WidgetTag>> IntentDatabase::tags() {
  const auto json = suite().jsonForKey(kTagsKey);
  if (!json) return std::nullopt;
  return decodeTags(*json);
}

void IntentDatabase::setTags(const std::vector<WidgetTag>& tags) { suite().setJSON(kTagsKey, tags); }

const std::vector<WidgetKind::Configuration>& WidgetKind::configurations() {
  static const std::vector<Configuration> all = {
      {"ScreenTimeOfDaysConfigurationIntent", screenTime}, {"LSScreenTimeDataConfigurationIntent", screenTime},
      {"FocusSummaryConfigurationIntent", focus},          {"FocusSummaryExtraLargeConfigurationIntent", focus},
      {"FocusTimeOfDaysConfigurationIntent", focus},       {"LSFocusSummaryConfigurationIntent", focus},
      {"LSFocusSpecificTagConfigurationIntent", focus},    {"LullTimeConfigurationIntent", lullTime},
      {"LSLullTimeConfigurationIntent", lullTime},
  };
  return all;
}

std::optional<std::string_view> WidgetKind::ofConfiguration(std::string_view intent) {
  for (const auto& configuration : configurations()) {
    if (configuration.intent == intent) return configuration.kind;
  }
  return std::nullopt;
}

void refreshFocusWidget() { WidgetCenter::shared().reloadTimelines(WidgetKind::focus); }

std::string ControlKind::focus(AbstractFocusType type) {
  return "org.vostra.tarnwell.control.focus." + std::string(rawValue(type));
}

}  // namespace tarnwell::widgets

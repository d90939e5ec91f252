// Layers, bottom to top: platform → healthkit → cloudkit → widgets → [settings] → extensions → records → store → sync → health → analytics → charts → modules → automation.
//
// Settings: the user's preferences and a few pieces of shared state.
//
// Every setting is a static property backed by a preference store: most live
// in the app-group suite "group.org.vostra.tarnwell", which the widget and
// intent processes read too; a few stay in the app's standard store. Nothing
// is cached: each read goes to the store, so a value written by another
// process is seen at once. The exceptions are deviceId, computed once per
// Environment, and using24HoursFormat, derived once from the locale and then
// kept in the store.
//
// Setters of the goals, the day boundaries, the colour theme, cloud sync and
// the sleep source announce a change: when the new value differs from the
// old, Settings::NotificationName's member is posted on the main queue, later,
// never on the caller's stack. No setter validates its value.
//
// Reads and writes may be made from any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/settings/SleepDataSource.h"
#include "tarnwell/widgets/FocusType.h"

namespace tarnwell {

enum class ColorTheme { system, light, dark };

std::string_view rawValue(ColorTheme theme);
std::optional<ColorTheme> colorThemeFromRawValue(std::string_view text);

class Settings {
 public:
  Settings() = delete;

  // Names of the change announcements, each "Settings.NotificationName." plus the member.
  struct NotificationName {
    static constexpr std::string_view startOfDayScreenTimeChanged =
        "Settings.NotificationName.startOfDayScreenTimeChanged";
    static constexpr std::string_view defaultScreenTimeGoalChanged =
        "Settings.NotificationName.defaultScreenTimeGoalChanged";
    static constexpr std::string_view excludeFocusTimeChanged = "Settings.NotificationName.excludeFocusTimeChanged";
    static constexpr std::string_view defaultPickupGoalChanged = "Settings.NotificationName.defaultPickupGoalChanged";
    static constexpr std::string_view defaultTimeForBedChanged = "Settings.NotificationName.defaultTimeForBedChanged";
    static constexpr std::string_view defaultSleepTimeGoalChanged =
        "Settings.NotificationName.defaultSleepTimeGoalChanged";
    static constexpr std::string_view colorThemeChanged = "Settings.NotificationName.colorThemeChanged";
    static constexpr std::string_view syncToCloudKitChanged = "Settings.NotificationName.syncToCloudKitChanged";
    static constexpr std::string_view defaultSleepSourceDidChange =
        "Settings.NotificationName.defaultSleepSourceDidChange";
  };

  // The app-group store. The process ends when it cannot be opened.
  static UserDefaults& suite();

  // Seconds after local midnight at which a day of screen time begins. Default 0.
  static double startOfDayScreenTime();
  static void setStartOfDayScreenTime(double seconds);

  // Seconds of screen time aimed at; reads 18000 until written.
  static double defaultScreenTimeGoal();
  static void setDefaultScreenTimeGoal(double seconds);
  static bool dynamicScreenTimeGoal();
  static void setDynamicScreenTimeGoal(bool dynamic);
  static std::optional<Date> dayOfDynamicScreenTimeGoalUpdating();
  static void setDayOfDynamicScreenTimeGoalUpdating(std::optional<Date> day);

  // Whether focus sessions are taken out of screen time. Default true.
  static bool excludeFocusTime();
  static void setExcludeFocusTime(bool exclude);
  static bool excludeDialwickTime();
  static void setExcludeDialwickTime(bool exclude);

  // Pickups aimed at; reads 60 until written.
  static int defaultPickupGoal();
  static void setDefaultPickupGoal(int pickups);
  static bool dynamicPickupGoal();
  static void setDynamicPickupGoal(bool dynamic);
  static std::optional<Date> dayOfDynamicPickupGoalUpdating();
  static void setDayOfDynamicPickupGoalUpdating(std::optional<Date> day);

  // Seconds after midnight of the usual bedtime. Default 82800 (23:00).
  static double defaultTimeForBed();
  static void setDefaultTimeForBed(double seconds);
  // Seconds of sleep aimed at. Default 28800.
  static double defaultSleepTimeGoal();
  static void setDefaultSleepTimeGoal(double seconds);
  static bool sleepTimeScheduleEnabled();
  static void setSleepTimeScheduleEnabled(bool enabled);

  // For each kind, the parameters it last had while it was the default.
  static std::optional<widgets::FocusType> previousFocusTypePomodoro();
  static void setPreviousFocusTypePomodoro(const std::optional<widgets::FocusType>& type);
  static std::optional<widgets::FocusType> previousFocusTypeCountdown();
  static void setPreviousFocusTypeCountdown(const std::optional<widgets::FocusType>& type);
  static std::optional<widgets::FocusType> previousFocusTypeAddTime();
  static void setPreviousFocusTypeAddTime(const std::optional<widgets::FocusType>& type);

  // The timer a new focus starts with. A positive legacy single focus goal
  // (the old setting, 1500 seconds on a fresh install) is first turned into
  // a countdown of that length and then zeroed, so the first read on any
  // installation yields that countdown. Writing keeps the old default in the
  // previous-type slot of its kind.
  static widgets::FocusType defaultFocusType();
  static void setDefaultFocusType(const widgets::FocusType& type);

  static std::optional<std::string> defaultFocusTagId();
  static void setDefaultFocusTagId(const std::optional<std::string>& tagId);

  // The source of sleep; the built-in source (inference from phone use) until
  // written. Writing nothing removes the choice.
  static SleepDataSource defaultSleepDataSource();
  static void setDefaultSleepDataSource(const std::optional<SleepDataSource>& source);

  static bool syncToHealthKitSleepAnalysis();
  static void setSyncToHealthKitSleepAnalysis(bool sync);
  static bool syncToCloudKit();
  static void setSyncToCloudKit(bool sync);
  static std::optional<Date> cloudKitLastSyncDate();
  static void setCloudKitLastSyncDate(std::optional<Date> date);

  // The stable identifier of this installation, an upper-case UUID text.
  // Computed once per Environment: the suite's value, else the keychain's,
  // else the device's vendor identifier, else a random one; then written to
  // the suite and the keychain where they lack it. Assigning changes only
  // the value in memory.
  static std::string deviceId();
  static void setDeviceId(std::string deviceId);

  // The process ends at the read of a stored text that names no theme.
  static ColorTheme colorTheme();
  static void setColorTheme(ColorTheme theme);

  static bool weekStartsFromMonday();
  static void setWeekStartsFromMonday(bool monday);

  // Stored once derived: while unset, the locale's "j" pattern decides (a
  // pattern without "a" means a 24-hour clock; true when none is found), and
  // the answer is written so that later changes of locale do not move it.
  static bool using24HoursFormat();
  static void setUsing24HoursFormat(bool use24Hours);

  // Written by another component through the suite; this system only clears it.
  static std::optional<Date> dialwickInActiveTime();
  static void resetDialwickInActiveTime();

  // Writing also stamps "Tarnwell.focusStatus.timestamp" with the current
  // time in seconds since 1970, even when the status is removed.
  static std::optional<std::string> tarnwellFocusStatus();
  static void setTarnwellFocusStatus(const std::optional<std::string>& status);

  // Keys of the app's standard store that the store's start and the tag
  // operations use.
  static bool shouldCreateDefaultTags();
  static void setShouldCreateDefaultTags(bool create);
  static std::vector<std::string> doNotSyncTagIdToHealthKitMindfulness();

  // Copies the settings of versions before 3.4.1 from the standard store into
  // the suite, once. `lastVersion` is the last version that ran; versions
  // compare by their numbers ("3.10" is after "3.4.1").
  static void migrateDeprecatedValues(std::string_view lastVersion);
};

// Orders two texts as the platform's numeric comparison does: runs of
// digits compare by value, everything else character by character.
// Negative, zero or positive like strcmp.
int compareNumerically(std::string_view a, std::string_view b);

}  // namespace tarnwell

// A preference file as another process (or a damaged disk) may leave it: any
// stored value, of any of the store's types, under a setting's key, read by
// every getter of the settings. Every key is removed after each input.
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "FuzzSupport.h"
#include "tarnwell/settings/Settings.h"

namespace {

using namespace tarnwell;

// The stored names, as they stay from version to version.
constexpr std::array<std::string_view, 30> kKeys = {
    "SettingsModule.startOfDayScreenTime",
    "SettingsModule.defaultScreenTimeGoal",
    "SettingsModule.dynamicScreenTimeGoal",
    "SettingsModule.dayOfDynamicScreenTimeGoalUpdating",
    "SettingsModule.excludeFocusTime",
    "SettingsModule.defaultPickupGoal",
    "SettingsModule.dayOfDynamicPickupGoalUpdating",
    "SettingsModule.defaultTimeForBed",
    "SettingsModule.defaultSleepTimeGoal",
    "SettingsModule.defaultFocusGoal",
    "SettingsModule.previousFocusTypePomodoro.inSuite",
    "SettingsModule.previousFocusTypeCountdown.inSuite",
    "SettingsModule.previousFocusTypeAddTime.inSuite",
    "SettingsModule.defaultFocusType.inSuite",
    "SettingsModule.defaultFocusTag.inSuite",
    "SettingsModule.defaultSleepDataSource.inSuite",
    "SettingsModule.syncToCloudKit.inSuite",
    "SettingsModule.cloudKitLastSyncDate.inSuite",
    "SettingsModule.using24HoursFormat.inSuite",
    "SettingsModule.weekStartsFromMonday",
    "Dialwick.clockInActive",
    "Tarnwell.focusStatus",
    // The app's own store, which the migration reads.
    "SettingsModule.previousFocusTypePomodoro",
    "SettingsModule.defaultFocusType",
    "SettingsModule.defaultSleepDataSource",
    "SettingsModule.cloudKitLastSyncDate",
    "SettingsModule.using24HoursFormat",
    "SettingsModule.doNotSyncTagIdToHealthKitMindfulness",
    "SettingsModule.shouldCreateDefaultTags",
    "SettingsModule.migrateDeprecatedValueToSuite",
};

DefaultsValue valueOf(fuzzing::Input& input) {
  switch (input.byte() % 7) {
    case 0:
      return input.byte() % 2 == 1;
    case 1:
      return static_cast<std::int64_t>(input.integer());
    case 2:
      return input.number();
    case 3:
      return Date::fromTimeIntervalSinceReferenceDate(input.number());
    case 4: {
      const std::string bytes = input.text();
      return Data(bytes.begin(), bytes.end());
    }
    case 5: {
      std::vector<std::string> texts;
      for (std::uint8_t count = input.byte() % 4; count > 0; --count) texts.push_back(input.text(64));
      return texts;
    }
    default:
      // Text: plain, a number as text, or the JSON of a structured setting.
      return input.text();
  }
}

void readEverySetting() {
  (void)Settings::startOfDayScreenTime();
  (void)Settings::defaultScreenTimeGoal();
  (void)Settings::dynamicScreenTimeGoal();
  (void)Settings::dayOfDynamicScreenTimeGoalUpdating();
  (void)Settings::excludeFocusTime();
  (void)Settings::excludeDialwickTime();
  (void)Settings::defaultPickupGoal();
  (void)Settings::dynamicPickupGoal();
  (void)Settings::dayOfDynamicPickupGoalUpdating();
  (void)Settings::defaultTimeForBed();
  (void)Settings::defaultSleepTimeGoal();
  (void)Settings::sleepTimeScheduleEnabled();
  (void)Settings::previousFocusTypePomodoro();
  (void)Settings::previousFocusTypeCountdown();
  (void)Settings::previousFocusTypeAddTime();
  (void)Settings::defaultFocusType();
  (void)Settings::defaultFocusTagId();
  (void)Settings::defaultSleepDataSource().displayName();
  (void)Settings::syncToHealthKitSleepAnalysis();
  (void)Settings::syncToCloudKit();
  (void)Settings::cloudKitLastSyncDate();
  // colorTheme is left out: a stored text that names no theme ends the
  // process by design (see Settings.h).
  (void)Settings::weekStartsFromMonday();
  (void)Settings::using24HoursFormat();
  (void)Settings::dialwickInActiveTime();
  (void)Settings::tarnwellFocusStatus();
  (void)Settings::shouldCreateDefaultTags();
  (void)Settings::doNotSyncTagIdToHealthKitMindfulness();
}

void removeEveryKey(UserDefaults& store) {
  for (const auto& key : store.keys()) store.removeObject(key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzzing::environment();
  fuzzing::Input input(data, size);
  for (std::uint8_t count = input.byte() % 4 + 1; count > 0 && !input.empty(); --count) {
    const auto key = kKeys[input.byte() % kKeys.size()];
    // The last eight live in the app's own store.
    auto& store = &key >= &kKeys[kKeys.size() - 8] ? UserDefaults::standard() : UserDefaults::appGroup();
    // Text the store cannot keep (a list of texts that are not UTF-8) is
    // refused by the writer; what matters here is what reading makes of
    // what it holds.
    try {
      store.setObject(key, valueOf(input));
    } catch (const nlohmann::json::exception&) {
    }
  }
  readEverySetting();
  Settings::migrateDeprecatedValues(input.text(16));
  readEverySetting();
  removeEveryKey(UserDefaults::appGroup());
  removeEveryKey(UserDefaults::standard());
  return 0;
}

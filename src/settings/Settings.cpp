#include "tarnwell/settings/Settings.h"

#include <cctype>
#include <mutex>
#include <nlohmann/json.hpp>

#include "tarnwell/platform/CalendarPreferences.h"
#include "tarnwell/platform/Defaults.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Keychain.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {

using widgets::AbstractFocusType;
using widgets::FocusType;

namespace {

using defaults::Key;
using defaults::OptionalKey;

constexpr defaults::StoreAccessor kSuite = &UserDefaults::appGroup;
constexpr defaults::StoreAccessor kStandard = &UserDefaults::standard;

// The key objects, built once per process on first use.
struct Keys {
  Key<double> startOfDayScreenTime{"SettingsModule.startOfDayScreenTime", 0, kSuite};
  // The goals sit on optional keys on purpose: the property supplies the
  // default, so only a write stores anything.
  OptionalKey<double> defaultScreenTimeGoal{"SettingsModule.defaultScreenTimeGoal", kSuite};
  OptionalKey<bool> dynamicScreenTimeGoal{"SettingsModule.dynamicScreenTimeGoal", kSuite};
  OptionalKey<Date> dayOfDynamicScreenTimeGoalUpdating{"SettingsModule.dayOfDynamicScreenTimeGoalUpdating", kSuite};
  Key<bool> excludeFocusTime{"SettingsModule.excludeFocusTime", true, kSuite};
  Key<bool> excludeDialwickTime{"SettingsModule.excludeDialwickTime", true, kSuite};
  OptionalKey<int> defaultPickupGoal{"SettingsModule.defaultPickupGoal", kSuite};
  OptionalKey<bool> dynamicPickupGoal{"SettingsModule.dynamicPickupGoal", kSuite};
  OptionalKey<Date> dayOfDynamicPickupGoalUpdating{"SettingsModule.dayOfDynamicPickupGoalUpdating", kSuite};
  // The calendar reads this one and weekStartsFromMonday itself: their keys live with it.
  const Key<double>& defaultTimeForBed = calendar_preferences::defaultTimeForBed();
  Key<double> defaultSleepTimeGoal{"SettingsModule.defaultSleepTimeGoal", 28800, kSuite};
  Key<bool> sleepTimeScheduleEnabled{"SettingsModule.sleepTimeScheduleEnabled", false, kSuite};
  Key<double> legacyFocusGoal{"SettingsModule.defaultFocusGoal", 1500, kSuite};
  OptionalKey<FocusType> previousFocusTypePomodoro{"SettingsModule.previousFocusTypePomodoro.inSuite", kSuite};
  OptionalKey<FocusType> previousFocusTypeCountdown{"SettingsModule.previousFocusTypeCountdown.inSuite", kSuite};
  OptionalKey<FocusType> previousFocusTypeAddTime{"SettingsModule.previousFocusTypeAddTime.inSuite", kSuite};
  Key<FocusType> defaultFocusType{"SettingsModule.defaultFocusType.inSuite", FocusType::defaultType(), kSuite};
  OptionalKey<std::string> defaultFocusTagId{"SettingsModule.defaultFocusTag.inSuite", kSuite};
  OptionalKey<SleepDataSource> defaultSleepDataSource{"SettingsModule.defaultSleepDataSource.inSuite", kSuite};
  Key<bool> syncToHealthKitSleepAnalysis{"SettingsModule.syncToHealthKitSleepAnalysis.inSuite", true, kSuite};
  Key<bool> syncToCloudKit{"SettingsModule.syncToCloudKit.inSuite", true, kSuite};
  OptionalKey<Date> cloudKitLastSyncDate{"SettingsModule.cloudKitLastSyncDate.inSuite", kSuite};
  OptionalKey<std::string> deviceId{"SettingsModule.deviceId.inSuite", kSuite};
  Key<std::string> colorTheme{"SettingsModule.colorTheme", "system", kSuite};
  const Key<bool>& weekStartsFromMonday = calendar_preferences::weekStartsFromMonday();
  OptionalKey<bool> using24HoursFormat{"SettingsModule.using24HoursFormat.inSuite", kSuite};
  OptionalKey<Date> dialwickInActiveTime{"Dialwick.clockInActive", kSuite};
  OptionalKey<std::string> tarnwellFocusStatus{"Tarnwell.focusStatus", kSuite};
  Key<double> tarnwellFocusStatusTimestamp{"Tarnwell.focusStatus.timestamp", 0, kSuite};

  // Kept in the app's own store.
  Key<bool> migrateDeprecatedValueToSuite{"SettingsModule.migrateDeprecatedValueToSuite", false, kStandard};
  Key<bool> shouldCreateDefaultTags{"SettingsModule.shouldCreateDefaultTags", true, kStandard};
  Key<std::vector<std::string>> doNotSyncTagIdToHealthKitMindfulness{
      "SettingsModule.doNotSyncTagIdToHealthKitMindfulness", {}, kStandard};

  // Where versions before 3.4.1 kept what now lives in the suite.
  struct Deprecated {
    Key<double> defaultFocusGoal{"SettingsModule.defaultFocusGoal", 1500, kStandard};
    OptionalKey<FocusType> previousFocusTypePomodoro{"SettingsModule.previousFocusTypePomodoro", kStandard};
    OptionalKey<FocusType> previousFocusTypeCountdown{"SettingsModule.previousFocusTypeCountdown", kStandard};
    OptionalKey<FocusType> previousFocusTypeAddTime{"SettingsModule.previousFocusTypeAddTime", kStandard};
    Key<FocusType> defaultFocusType{"SettingsModule.defaultFocusType", FocusType::defaultType(), kStandard};
    OptionalKey<std::string> defaultFocusTag{"SettingsModule.defaultFocusTag", kStandard};
    OptionalKey<SleepDataSource> defaultSleepDataSource{"SettingsModule.defaultSleepDataSource", kStandard};
    Key<bool> syncToHealthKitSleepAnalysis{"SettingsModule.syncToHealthKitSleepAnalysis", true, kStandard};
    Key<bool> syncToCloudKit{"SettingsModule.syncToCloudKit", true, kStandard};
    OptionalKey<Date> cloudKitLastSyncDate{"SettingsModule.cloudKitLastSyncDate", kStandard};
    OptionalKey<std::string> deviceId{"SettingsModule.deviceId", kStandard};
    Key<bool> weekStartsFromMonday{"SettingsModule.weekStartsFromMonday", true, kStandard};
    OptionalKey<bool> using24HoursFormat{"SettingsModule.using24HoursFormat", kStandard};
  } deprecated;
};

const Keys& keys() {
  static const Keys all;
  return all;
}

// Posts `name` on the main queue, later, when the value changed.
template <class T>
void announceChange(const T& before, const T& after, std::string_view name) {
  if (before == after) return;
  DispatchQueue::main().async([name] { NotificationCenter::defaultCenter().post(name); });
}

// The once-computed identifier of the installation, per Environment.
struct DeviceIdentity {
  std::once_flag computed;
  std::mutex mutex;
  std::string value;
};

std::string computeDeviceId() {
  const auto& key = keys().deviceId;
  const std::optional<std::string> stored = key.get();
  std::optional<std::string> identifier = stored;
  if (!identifier) identifier = Keychain::get(Keychain::Key::deviceId);
  if (!identifier) {
    if (auto vendor = Environment::current().device().identifierForVendor) {
      for (char& c : *vendor) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      identifier = std::move(vendor);
    }
  }
  if (!identifier) {
    log.warning("identifierForVendor is nil, will use random UUID", {.tag = "Settings"});
    identifier = makeUUIDString();
  }
  if (!stored) key.set(identifier);
  if (!Keychain::get(Keychain::Key::deviceId)) Keychain::set(Keychain::Key::deviceId, identifier);
  return *identifier;
}

DeviceIdentity& deviceIdentity() {
  auto& identity = Environment::current().component<DeviceIdentity>();
  std::call_once(identity.computed, [&identity] {
    std::string value = computeDeviceId();
    std::lock_guard lock(identity.mutex);
    identity.value = std::move(value);
  });
  return identity;
}

}  // namespace

std::string_view rawValue(ColorTheme theme) {
  switch (theme) {
    case ColorTheme::system:
      return "system";
    case ColorTheme::light:
      return "light";
    case ColorTheme::dark:
      return "dark";
  }
  return {};
}

std::optional<ColorTheme> colorThemeFromRawValue(std::string_view text) {
  for (const auto theme : {ColorTheme::system, ColorTheme::light, ColorTheme::dark}) {
    if (rawValue(theme) == text) return theme;
  }
  return std::nullopt;
}

UserDefaults& Settings::suite() { return UserDefaults::appGroup(); }

double Settings::startOfDayScreenTime() { return keys().startOfDayScreenTime.get(); }
void Settings::setStartOfDayScreenTime(double seconds) {
  const double before = startOfDayScreenTime();
  keys().startOfDayScreenTime.set(seconds);
  announceChange(before, seconds, NotificationName::startOfDayScreenTimeChanged);
}

double Settings::defaultScreenTimeGoal() { return keys().defaultScreenTimeGoal.get().value_or(18000); }
void Settings::setDefaultScreenTimeGoal(double seconds) {
  const double before = defaultScreenTimeGoal();
  keys().defaultScreenTimeGoal.set(seconds);
  announceChange(before, seconds, NotificationName::defaultScreenTimeGoalChanged);
}

bool Settings::dynamicScreenTimeGoal() { return keys().dynamicScreenTimeGoal.get().value_or(false); }
void Settings::setDynamicScreenTimeGoal(bool dynamic) { keys().dynamicScreenTimeGoal.set(dynamic); }
std::optional<Date> Settings::dayOfDynamicScreenTimeGoalUpdating() {
  return keys().dayOfDynamicScreenTimeGoalUpdating.get();
}
void Settings::setDayOfDynamicScreenTimeGoalUpdating(std::optional<Date> day) {
  keys().dayOfDynamicScreenTimeGoalUpdating.set(day);
}

bool Settings::excludeFocusTime() { return keys().excludeFocusTime.get(); }
void Settings::setExcludeFocusTime(bool exclude) {
  const bool before = excludeFocusTime();
  keys().excludeFocusTime.set(exclude);
  announceChange(before, exclude, NotificationName::excludeFocusTimeChanged);
}
bool Settings::excludeDialwickTime() { return keys().excludeDialwickTime.get(); }
void Settings::setExcludeDialwickTime(bool exclude) { keys().excludeDialwickTime.set(exclude); }

int Settings::defaultPickupGoal() { return keys().defaultPickupGoal.get().value_or(60); }
void Settings::setDefaultPickupGoal(int pickups) {
  const int before = defaultPickupGoal();
  keys().defaultPickupGoal.set(pickups);
  announceChange(before, pickups, NotificationName::defaultPickupGoalChanged);
}
bool Settings::dynamicPickupGoal() { return keys().dynamicPickupGoal.get().value_or(false); }
void Settings::setDynamicPickupGoal(bool dynamic) { keys().dynamicPickupGoal.set(dynamic); }
std::optional<Date> Settings::dayOfDynamicPickupGoalUpdating() { return keys().dayOfDynamicPickupGoalUpdating.get(); }
void Settings::setDayOfDynamicPickupGoalUpdating(std::optional<Date> day) {
  keys().dayOfDynamicPickupGoalUpdating.set(day);
}

double Settings::defaultTimeForBed() { return keys().defaultTimeForBed.get(); }
void Settings::setDefaultTimeForBed(double seconds) {
  const double before = defaultTimeForBed();
  keys().defaultTimeForBed.set(seconds);
  announceChange(before, seconds, NotificationName::defaultTimeForBedChanged);
}

double Settings::defaultSleepTimeGoal() { return keys().defaultSleepTimeGoal.get(); }
void Settings::setDefaultSleepTimeGoal(double seconds) {
  const double before = defaultSleepTimeGoal();
  keys().defaultSleepTimeGoal.set(seconds);
  announceChange(before, seconds, NotificationName::defaultSleepTimeGoalChanged);
}

bool Settings::sleepTimeScheduleEnabled() { return keys().sleepTimeScheduleEnabled.get(); }
void Settings::setSleepTimeScheduleEnabled(bool enabled) { keys().sleepTimeScheduleEnabled.set(enabled); }

std::optional<FocusType> Settings::previousFocusTypePomodoro() { return keys().previousFocusTypePomodoro.get(); }
void Settings::setPreviousFocusTypePomodoro(const std::optional<FocusType>& type) {
  keys().previousFocusTypePomodoro.set(type);
}
std::optional<FocusType> Settings::previousFocusTypeCountdown() { return keys().previousFocusTypeCountdown.get(); }
void Settings::setPreviousFocusTypeCountdown(const std::optional<FocusType>& type) {
  keys().previousFocusTypeCountdown.set(type);
}
std::optional<FocusType> Settings::previousFocusTypeAddTime() { return keys().previousFocusTypeAddTime.get(); }
void Settings::setPreviousFocusTypeAddTime(const std::optional<FocusType>& type) {
  keys().previousFocusTypeAddTime.set(type);
}

FocusType Settings::defaultFocusType() {
  const auto& k = keys();
  // Installations from before focus types had one goal for every session:
  // it becomes a countdown once, and the legacy value is zeroed.
  if (const double legacyGoal = k.legacyFocusGoal.get(); legacyGoal > 0) {
    k.defaultFocusType.set(FocusType::countdown(legacyGoal));
    k.legacyFocusGoal.set(0);
  }
  return k.defaultFocusType.get();
}

void Settings::setDefaultFocusType(const FocusType& type) {
  const FocusType before = defaultFocusType();
  switch (before.abstractType()) {
    case AbstractFocusType::pomodoro:
      setPreviousFocusTypePomodoro(before);
      break;
    case AbstractFocusType::countdown:
      setPreviousFocusTypeCountdown(before);
      break;
    case AbstractFocusType::addTime:
      setPreviousFocusTypeAddTime(before);
      break;
  }
  keys().defaultFocusType.set(type);
}

std::optional<std::string> Settings::defaultFocusTagId() { return keys().defaultFocusTagId.get(); }
void Settings::setDefaultFocusTagId(const std::optional<std::string>& tagId) { keys().defaultFocusTagId.set(tagId); }

SleepDataSource Settings::defaultSleepDataSource() {
  return keys().defaultSleepDataSource.get().value_or(SleepDataSource::builtIn());
}
void Settings::setDefaultSleepDataSource(const std::optional<SleepDataSource>& source) {
  const SleepDataSource before = defaultSleepDataSource();
  keys().defaultSleepDataSource.set(source);
  announceChange(before, source.value_or(SleepDataSource::builtIn()), NotificationName::defaultSleepSourceDidChange);
}

bool Settings::syncToHealthKitSleepAnalysis() { return keys().syncToHealthKitSleepAnalysis.get(); }
void Settings::setSyncToHealthKitSleepAnalysis(bool sync) { keys().syncToHealthKitSleepAnalysis.set(sync); }

bool Settings::syncToCloudKit() { return keys().syncToCloudKit.get(); }
void Settings::setSyncToCloudKit(bool sync) {
  const bool before = syncToCloudKit();
  keys().syncToCloudKit.set(sync);
  announceChange(before, sync, NotificationName::syncToCloudKitChanged);
}

std::optional<Date> Settings::cloudKitLastSyncDate() { return keys().cloudKitLastSyncDate.get(); }
void Settings::setCloudKitLastSyncDate(std::optional<Date> date) { keys().cloudKitLastSyncDate.set(date); }

std::string Settings::deviceId() {
  auto& identity = deviceIdentity();
  std::lock_guard lock(identity.mutex);
  return identity.value;
}

void Settings::setDeviceId(std::string deviceId) {
  auto& identity = deviceIdentity();
  std::lock_guard lock(identity.mutex);
  identity.value = std::move(deviceId);
}

ColorTheme Settings::colorTheme() {
  const std::string raw = keys().colorTheme.get();
  const auto theme = colorThemeFromRawValue(raw);
  if (!theme) fatalError("The stored colour theme \"" + raw + "\" is none of system, light and dark");
  return *theme;
}

void Settings::setColorTheme(ColorTheme theme) {
  // Compared as stored texts, so a damaged value is replaced without reading it as a theme.
  const std::string before = keys().colorTheme.get();
  const std::string after(rawValue(theme));
  keys().colorTheme.set(after);
  announceChange(before, after, NotificationName::colorThemeChanged);
}

bool Settings::weekStartsFromMonday() { return keys().weekStartsFromMonday.get(); }
void Settings::setWeekStartsFromMonday(bool monday) { keys().weekStartsFromMonday.set(monday); }

bool Settings::using24HoursFormat() {
  const auto& key = keys().using24HoursFormat;
  if (const auto stored = key.get()) return *stored;
  const auto pattern = Region::current().dateFormat("j");
  const bool use24Hours = !pattern || pattern->find('a') == std::string::npos;
  key.set(use24Hours);
  return use24Hours;
}
void Settings::setUsing24HoursFormat(bool use24Hours) { keys().using24HoursFormat.set(use24Hours); }

std::optional<Date> Settings::dialwickInActiveTime() { return keys().dialwickInActiveTime.get(); }
void Settings::resetDialwickInActiveTime() { keys().dialwickInActiveTime.set(std::nullopt); }

std::optional<std::string> Settings::tarnwellFocusStatus() { return keys().tarnwellFocusStatus.get(); }
void Settings::setTarnwellFocusStatus(const std::optional<std::string>& status) {
  keys().tarnwellFocusStatus.set(status);
  keys().tarnwellFocusStatusTimestamp.set(Date::now().timeIntervalSince1970());
}

bool Settings::shouldCreateDefaultTags() { return keys().shouldCreateDefaultTags.get(); }
void Settings::setShouldCreateDefaultTags(bool create) { keys().shouldCreateDefaultTags.set(create); }
std::vector<std::string> Settings::doNotSyncTagIdToHealthKitMindfulness() {
  return keys().doNotSyncTagIdToHealthKitMindfulness.get();
}

void Settings::migrateDeprecatedValues(std::string_view lastVersion) {
  if (compareNumerically(lastVersion, "3.4.1") >= 0) return;
  const auto& k = keys();
  if (k.migrateDeprecatedValueToSuite.get()) return;
  const auto& old = k.deprecated;
  // Plain key writes: no announcement, and no conversion of the focus type.
  // An absent old value writes its default, or removes the suite's value.
  k.legacyFocusGoal.set(old.defaultFocusGoal.get());
  k.previousFocusTypePomodoro.set(old.previousFocusTypePomodoro.get());
  k.previousFocusTypeCountdown.set(old.previousFocusTypeCountdown.get());
  k.previousFocusTypeAddTime.set(old.previousFocusTypeAddTime.get());
  k.defaultFocusType.set(old.defaultFocusType.get());
  k.defaultFocusTagId.set(old.defaultFocusTag.get());
  k.defaultSleepDataSource.set(old.defaultSleepDataSource.get());
  k.syncToHealthKitSleepAnalysis.set(old.syncToHealthKitSleepAnalysis.get());
  k.syncToCloudKit.set(old.syncToCloudKit.get());
  k.cloudKitLastSyncDate.set(old.cloudKitLastSyncDate.get());
  k.deviceId.set(old.deviceId.get());
  k.weekStartsFromMonday.set(old.weekStartsFromMonday.get());
  k.using24HoursFormat.set(old.using24HoursFormat.get());
  k.migrateDeprecatedValueToSuite.set(true);
}

int compareNumerically(std::string_view a, std::string_view b) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      std::size_t endA = i, endB = j;
      while (endA < a.size() && isDigit(a[endA])) ++endA;
      while (endB < b.size() && isDigit(b[endB])) ++endB;
      std::string_view runA = a.substr(i, endA - i), runB = b.substr(j, endB - j);
      while (runA.size() > 1 && runA.front() == '0') runA.remove_prefix(1);
      while (runB.size() > 1 && runB.front() == '0') runB.remove_prefix(1);
      if (runA.size() != runB.size()) return runA.size() < runB.size() ? -1 : 1;
      if (const int order = runA.compare(runB); order != 0) return order < 0 ? -1 : 1;
      i = endA;
      j = endB;
      continue;
    }
    if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
    ++i;
    ++j;
  }
  if (i == a.size() && j == b.size()) return 0;
  return i == a.size() ? -1 : 1;
}

}  // namespace tarnwell

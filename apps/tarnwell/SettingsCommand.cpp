// `tarnwell settings list|get|set`: every setting by its property name.

#include <charconv>
#include <cmath>
#include <limits>

#include "Cli.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {
namespace {

using widgets::FocusType;

// One setting as the command sees it: its value as JSON, and a writer that
// checks the text it is given before anything is stored.
struct Entry {
  std::string name;
  std::function<nlohmann::json()> get;
  std::function<void(const std::string&)> set;  // empty for read-only settings
};

int parseInteger(const std::string& name, const std::string& text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) refuse(name, text, "a whole number");
  return value;
}

Date parseDate(const std::string& name, const std::string& text) {
  try {
    return parseInstant(text);
  } catch (const InputError&) {
    refuse(name, text, "an ISO 8601 date or time from 1970 to 2099");
  }
}

// The JSON form, or the identifier of a known sleep application. Another
// application than this one must have written sleep to the health store:
// the days would otherwise look for its nights, find none, and quietly keep
// the inferred ones.
SleepDataSource parseSleepSource(const std::string& name, const std::string& text) {
  constexpr const char* kAccepts = "a sleep source ({\"name\": ..., \"bundleIdentifier\": ...} or a known identifier)";
  SleepDataSource source;
  if (!text.empty() && text.front() == '{') {
    try {
      source = nlohmann::json::parse(text).get<SleepDataSource>();
    } catch (const nlohmann::json::exception&) {
      refuse(name, text, kAccepts);
    }
  } else {
    const KnownSleepApp app = knownSleepApp(text);
    if (app == KnownSleepApp::unknown || app == KnownSleepApp::clock) refuse(name, text, kAccepts);
    source = SleepDataSource{"", text};
    source.name = source.displayName();
  }
  if (!source.isBuiltIn() && !healthStoreHasSleepFrom(source.bundleIdentifier)) {
    refuse(name, text, "a source that has written sleep to the health store (see health samples --type sleep)");
  }
  return source;
}

template <class T, class Parse>
std::function<void(const std::string&)> optionalWriter(std::string name, Parse parse,
                                                       void (*set)(const std::optional<T>&)) {
  return [name, parse, set](const std::string& text) {
    if (text == "null") {
      set(std::nullopt);
    } else {
      set(parse(name, text));
    }
  };
}

nlohmann::json dateJSON(const std::optional<Date>& date) {
  return date ? nlohmann::json(date->iso8601()) : nlohmann::json(nullptr);
}

template <class T>
nlohmann::json nullableJSON(const std::optional<T>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

// A setting of a plain type: read as itself, written after `parse` accepts the text.
template <class T>
Entry plain(std::string name, T (*parse)(const std::string&, const std::string&), T (*get)(), void (*set)(T)) {
  return {name, [get] { return nlohmann::json(get()); },
          [name, parse, set](const std::string& text) { set(parse(name, text)); }};
}

// What a number means, beyond being one: the values the app's pickers can
// produce. Anything else would be stored and then read as nonsense (a day
// starting tomorrow, a goal that is always met).
struct Meaning {
  double low, high;
  bool includesHigh;
  const char* accepts;
};

constexpr Meaning kTimeOfDay{0, kOneDay, false, "a time of day in seconds from midnight (0 to less than 86400)"};
constexpr Meaning kDurationOfDay{0, kOneDay, true, "a number of seconds from 0 to 86400"};
constexpr Meaning kCount{0, std::numeric_limits<int>::max(), true, "a whole number, not negative"};

template <class T>
T checked(const std::string& name, const std::string& text, T value, const Meaning& meaning) {
  const double number = static_cast<double>(value);
  if (number < meaning.low || number > meaning.high || (!meaning.includesHigh && number == meaning.high)) {
    refuse(name, text, meaning.accepts);
  }
  return value;
}

// A number setting, checked for its type and then for its meaning.
template <class T>
Entry bounded(std::string name, T (*parse)(const std::string&, const std::string&), T (*get)(), void (*set)(T),
              const Meaning& meaning) {
  return {
      name, [get] { return nlohmann::json(get()); },
      [name, parse, set, meaning](const std::string& text) { set(checked(name, text, parse(name, text), meaning)); }};
}

Entry number(std::string name, double (*get)(), void (*set)(double), const Meaning& meaning) {
  return bounded(std::move(name), parseNumber, get, set, meaning);
}

Entry integer(std::string name, int (*get)(), void (*set)(int), const Meaning& meaning) {
  return bounded(std::move(name), parseInteger, get, set, meaning);
}

Entry boolean(std::string name, bool (*get)(), void (*set)(bool)) {
  return plain(std::move(name), parseBool, get, set);
}

Entry optionalDate(std::string name, std::optional<Date> (*get)(), void (*set)(std::optional<Date>)) {
  return {name, [get] { return dateJSON(get()); },
          [name, set](const std::string& text) {
            set(text == "null" ? std::nullopt : std::optional<Date>(parseDate(name, text)));
          }};
}

Entry optionalText(std::string name, std::optional<std::string> (*get)(),
                   void (*set)(const std::optional<std::string>&)) {
  return {name, [get] { return nullableJSON(get()); },
          optionalWriter<std::string>(
              name, [](const std::string&, const std::string& text) { return text; }, set)};
}

Entry optionalFocusType(std::string name, std::optional<FocusType> (*get)(),
                        void (*set)(const std::optional<FocusType>&)) {
  return {name, [get] { return nullableJSON(get()); }, optionalWriter<FocusType>(name, parseFocusType, set)};
}

const std::vector<Entry>& catalogue() {
  static const std::vector<Entry> entries = {
      number("startOfDayScreenTime", &Settings::startOfDayScreenTime, &Settings::setStartOfDayScreenTime, kTimeOfDay),
      number("defaultScreenTimeGoal", &Settings::defaultScreenTimeGoal, &Settings::setDefaultScreenTimeGoal,
             kDurationOfDay),
      boolean("dynamicScreenTimeGoal", &Settings::dynamicScreenTimeGoal, &Settings::setDynamicScreenTimeGoal),
      optionalDate("dayOfDynamicScreenTimeGoalUpdating", &Settings::dayOfDynamicScreenTimeGoalUpdating,
                   &Settings::setDayOfDynamicScreenTimeGoalUpdating),
      boolean("excludeFocusTime", &Settings::excludeFocusTime, &Settings::setExcludeFocusTime),
      boolean("excludeDialwickTime", &Settings::excludeDialwickTime, &Settings::setExcludeDialwickTime),
      integer("defaultPickupGoal", &Settings::defaultPickupGoal, &Settings::setDefaultPickupGoal, kCount),
      boolean("dynamicPickupGoal", &Settings::dynamicPickupGoal, &Settings::setDynamicPickupGoal),
      optionalDate("dayOfDynamicPickupGoalUpdating", &Settings::dayOfDynamicPickupGoalUpdating,
                   &Settings::setDayOfDynamicPickupGoalUpdating),
      number("defaultTimeForBed", &Settings::defaultTimeForBed, &Settings::setDefaultTimeForBed, kTimeOfDay),
      number("defaultSleepTimeGoal", &Settings::defaultSleepTimeGoal, &Settings::setDefaultSleepTimeGoal,
             kDurationOfDay),
      boolean("sleepTimeScheduleEnabled", &Settings::sleepTimeScheduleEnabled, &Settings::setSleepTimeScheduleEnabled),
      optionalFocusType("previousFocusTypePomodoro", &Settings::previousFocusTypePomodoro,
                        &Settings::setPreviousFocusTypePomodoro),
      optionalFocusType("previousFocusTypeCountdown", &Settings::previousFocusTypeCountdown,
                        &Settings::setPreviousFocusTypeCountdown),
      optionalFocusType("previousFocusTypeAddTime", &Settings::previousFocusTypeAddTime,
                        &Settings::setPreviousFocusTypeAddTime),
      {"defaultFocusType", [] { return nlohmann::json(Settings::defaultFocusType()); },
       [](const std::string& text) { Settings::setDefaultFocusType(parseFocusType("defaultFocusType", text)); }},
      optionalText("defaultFocusTagId", &Settings::defaultFocusTagId, &Settings::setDefaultFocusTagId),
      {"defaultSleepDataSource", [] { return nlohmann::json(Settings::defaultSleepDataSource()); },
       optionalWriter<SleepDataSource>("defaultSleepDataSource", parseSleepSource,
                                       &Settings::setDefaultSleepDataSource)},
      boolean("syncToHealthKitSleepAnalysis", &Settings::syncToHealthKitSleepAnalysis,
              &Settings::setSyncToHealthKitSleepAnalysis),
      boolean("syncToCloudKit", &Settings::syncToCloudKit, &Settings::setSyncToCloudKit),
      optionalDate("cloudKitLastSyncDate", &Settings::cloudKitLastSyncDate, &Settings::setCloudKitLastSyncDate),
      {"deviceId", [] { return nlohmann::json(Settings::deviceId()); }, {}},
      {"colorTheme", [] { return nlohmann::json(rawValue(Settings::colorTheme())); },
       [](const std::string& text) {
         const auto theme = colorThemeFromRawValue(text);
         if (!theme) refuse("colorTheme", text, "system, light or dark");
         Settings::setColorTheme(*theme);
       }},
      boolean("weekStartsFromMonday", &Settings::weekStartsFromMonday, &Settings::setWeekStartsFromMonday),
      boolean("using24HoursFormat", &Settings::using24HoursFormat, &Settings::setUsing24HoursFormat),
      {"dialwickInActiveTime", [] { return dateJSON(Settings::dialwickInActiveTime()); }, {}},
      optionalText("tarnwellFocusStatus", &Settings::tarnwellFocusStatus, &Settings::setTarnwellFocusStatus),
  };
  return entries;
}

const Entry& find(const std::string& name) {
  for (const auto& entry : catalogue()) {
    if (entry.name == name) return entry;
  }
  throw refusal("unknown setting \"%@\" (see tarnwell settings list)", {name});
}

nlohmann::ordered_json named(const Entry& entry) { return {{"name", entry.name}, {"value", entry.get()}}; }

}  // namespace

void addSettingsCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto* settings = app.add_subcommand("settings", "Read and change preferences by property name");
  settings->require_subcommand(1);

  auto* list = settings->add_subcommand("list", "Every setting with its value");
  onRunWithoutStore(list, action, [&options] {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    std::string text;
    for (const auto& entry : catalogue()) {
      all.push_back(named(entry));
      std::string name = entry.name;
      name.resize(36, ' ');
      text += name + plainText(all.back()["value"]) + "\n";
    }
    text.pop_back();
    Output(options).print(all, text);
  });

  auto getName = std::make_shared<std::string>();
  auto* get = settings->add_subcommand("get", "The value of one setting");
  get->add_option("NAME", *getName, "Property name, such as defaultScreenTimeGoal")->required();
  onRunWithoutStore(get, action, [&options, getName] {
    const auto value = named(find(*getName));
    Output(options).print(value, plainText(value["value"]));
  });

  auto setArguments = std::make_shared<std::pair<std::string, std::string>>();
  auto* set = settings->add_subcommand("set", "Change one setting; the value is checked against its type");
  set->add_option("NAME", setArguments->first, "Property name")->required();
  set->add_option("VALUE", setArguments->second, "New value; null clears an optional setting")->required();
  onRunWithoutStore(set, action, [&options, setArguments] {
    const Entry& entry = find(setArguments->first);
    if (!entry.set) throw refusal("%@ cannot be set", {entry.name});
    entry.set(setArguments->second);
    const auto value = named(entry);
    Output(options).print(value, plainText(value["value"]));
  });
}

}  // namespace tarnwell::cli

#include "Cli.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/settings/AppEnvironment.h"
#include "tarnwell/settings/AppInfo.h"
#include "tarnwell/settings/Logger.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {

void addInfoCommand(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto* info = app.add_subcommand("info", "Device id, build and the folders of this installation");
  onRunWithoutStore(info, action, [&options] {
    Environment& environment = Environment::current();
    const Region region = environment.region();
    const nlohmann::ordered_json facts = {
        {"deviceId", Settings::deviceId()},
        {"displayName", AppInfo::displayName()},
        {"version", AppInfo::versionString()},
        {"build", AppInfo::buildString()},
        {"environment", AppEnvironment::name(AppEnvironment::current())},
        {"appGroupContainer", environment.appGroupContainer().string()},
        {"privateFolder", environment.privateFolder().string()},
        {"keychain", environment.keychainFolder().value_or("").string()},
        {"logFile", Logger::logFileURL().string()},
        {"timeZone", region.timeZoneId()},
        {"locale", region.localeId()},
        {"calendar", region.calendarIdentifier()},
        {"preferredLanguages", environment.preferredLanguages()},
        {"now", Date::now().iso8601()},
    };
    if (options.json) {
      Output(options).print(facts, {});
      return;
    }
    const std::pair<const char*, const char*> rows[] = {
        {"Info.DeviceId", "deviceId"},
        {"Info.Version", "version"},
        {"Info.Build", "build"},
        {"Info.Environment", "environment"},
        {"Info.AppGroupContainer", "appGroupContainer"},
        {"Info.PrivateFolder", "privateFolder"},
        {"Info.Keychain", "keychain"},
        {"Info.LogFile", "logFile"},
        {"Info.TimeZone", "timeZone"},
        {"Info.Locale", "locale"},
        {"Info.Calendar", "calendar"},
        {"Info.Languages", "preferredLanguages"},
        {"Info.Now", "now"},
    };
    // The values start two columns after the longest label.
    std::size_t column = 0;
    for (const auto& [label, key] : rows) column = std::max(column, columnsOf(words(label)));
    std::string text;
    for (const auto& [label, key] : rows) text += padded(words(label), column + 2) + plainText(facts.at(key)) + "\n";
    text.pop_back();
    Output(options).print(facts, text);
  });
}

}  // namespace tarnwell::cli

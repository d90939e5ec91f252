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
        {"Device id", "deviceId"},
        {"Version", "version"},
        {"Build", "build"},
        {"Environment", "environment"},
        {"App-group container", "appGroupContainer"},
        {"Private folder", "privateFolder"},
        {"Keychain", "keychain"},
        {"Log file", "logFile"},
        {"Time zone", "timeZone"},
        {"Locale", "locale"},
        {"Calendar", "calendar"},
        {"Languages", "preferredLanguages"},
        {"Now", "now"},
    };
    std::string text;
    for (const auto& [label, key] : rows) {
      std::string line = label;
      line.resize(21, ' ');
      text += line + plainText(facts.at(key)) + "\n";
    }
    text.pop_back();
    Output(options).print(facts, text);
  });
}

}  // namespace tarnwell::cli

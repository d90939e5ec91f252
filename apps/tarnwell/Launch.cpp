// What every host of the commands shares: the Environment of an
// installation, the tree of commands and the sentence of a failure.

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Cli.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/settings/Logger.h"

namespace tarnwell::cli {
namespace {

// The installation's folders are made in the folder given, or in the
// nearest folder above it that is there: that one must be a folder this
// user can make folders in. A file, or a system folder such as /proc/1, is
// refused before anything is made.
void checkContainer(const std::string& container) {
  std::error_code error;
  std::filesystem::path existing = std::filesystem::absolute(container, error);
  if (error) throw refusal("--container: \"%1$@\" cannot be used: %2$@", {container, error.message()});
  while (!std::filesystem::exists(existing, error) && existing.has_relative_path()) existing = existing.parent_path();
  if (!std::filesystem::is_directory(existing, error)) {
    throw refusal("--container: \"%1$@\" cannot be used: %2$@ is not a folder", {container, existing.string()});
  }
  std::string probe = (existing / ".tarnwell-XXXXXX").string();
  if (!::mkdtemp(probe.data())) {
    const int why = errno;  // before copying the names can touch it
    throw refusal("--container: \"%1$@\" cannot be used: no folder can be made in %2$@ (%3$@)",
                  {container, existing.string(), std::strerror(why)});
  }
  ::rmdir(probe.c_str());
}

}  // namespace

std::unique_ptr<Environment> makeEnvironment(const GlobalOptions& options) {
  if (options.container) checkContainer(*options.container);
  auto configuration = Environment::Configuration::system(
      options.container ? std::optional<std::filesystem::path>(*options.container) : std::nullopt);
  const Region system = Region::system();
  try {
    configuration.region =
        Region(options.timeZone.value_or(system.timeZoneId()), options.locale.value_or(system.localeId()));
  } catch (const std::invalid_argument& error) {
    throw InputError(error.what());
  }
  if (options.now) {
    const auto now = Date::parseISO8601(*options.now, configuration.region->timeZoneId());
    if (!now) throw refusal("--now: \"%@\" is not an ISO 8601 date or time", {*options.now});
    try {
      checkInstant(*options.now, *now);
    } catch (const InputError& error) {
      throw refusal("--now: %@", {error.what()});
    }
    configuration.clock = std::make_shared<ManualClock>(*now);
  }
  // Like the main queue, the background queues run when the command lets
  // them: every asynchronous step of a run happens, in order, before it exits.
  configuration.backgroundQueueMode = DispatchQueue::Mode::pumped;
  return std::make_unique<Environment>(std::move(configuration));
}

void startApp(const GlobalOptions& options) {
  Environment::install(makeEnvironment(options));
  // The app stops for good when its container cannot be made; a path that
  // passed the checks above can still fail here ("missing/../file/x"), and
  // is refused as the folder it is.
  if (!Environment::current().containerURL(Environment::kAppGroupIdentifier)) {
    Environment::install(nullptr);
    throw refusal("--container: \"%@\" cannot be used: the installation's folders cannot be made there",
                  {options.container.value_or(".")});
  }
  Logger::start();
  HealthManager::shared().start();
}

void stopApp() {
  if (Environment::currentIfInstalled()) Logger::flush();
  Environment::install(nullptr);
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options) {
  app.add_option("--container", options.container,
                 "Folder of one installation (default: $XDG_DATA_HOME/tarnwell/container)");
  app.add_option("--now", options.now, "Pin the clock to this ISO 8601 instant");
  app.add_option("--tz", options.timeZone, "IANA time zone (default: the system's)");
  app.add_option("--locale", options.locale, "Locale such as en_US or de-DE (default: the system's)");
  app.add_flag("--json", options.json, "Machine-readable output");
}

void addCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  addInfoCommand(app, options, action);
  addSettingsCommands(app, options, action);
  addStoreCommands(app, options, action);
  addDayCommand(app, options, action);
  addImportCommand(app, options, action);
  addDemoCommand(app, options, action);
  addFocusCommands(app, options, action);
  addManageCommands(app, options, action);
  addFormatCommand(app, options, action);
  addChartCommands(app, options, action);
  addReportCommand(app, options, action);
  addHealthCommands(app, options, action);
  addCloudCommands(app, options, action);
  addSyncCommands(app, options, action);
  addWidgetCommands(app, options, action);
  addLinkCommands(app, options, action);
  addIntentCommands(app, options, action);
}

}  // namespace tarnwell::cli

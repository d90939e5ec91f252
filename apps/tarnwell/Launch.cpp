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
  const auto refused = [&container](const std::string& why) {
    return InputError("--container: \"" + container + "\" cannot be used: " + why);
  };
  std::error_code error;
  std::filesystem::path existing = std::filesystem::absolute(container, error);
  if (error) throw refused(error.message());
  while (!std::filesystem::exists(existing, error) && existing.has_relative_path()) existing = existing.parent_path();
  if (!std::filesystem::is_directory(existing, error)) throw refused(existing.string() + " is not a folder");
  std::string probe = (existing / ".tarnwell-XXXXXX").string();
  if (!::mkdtemp(probe.data())) {
    throw refused("no folder can be made in " + existing.string() + " (" + std::strerror(errno) + ")");
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
    if (!now) throw InputError("--now: \"" + *options.now + "\" is not an ISO 8601 date or time");
    try {
      checkInstant(*options.now, *now);
    } catch (const InputError& error) {
      throw InputError(std::string("--now: ") + error.what());
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
    throw InputError("--container: \"" + options.container.value_or(".") +
                     "\" cannot be used: the installation's folders cannot be made there");
  }
  Logger::start();
  HealthManager::shared().start();
}

void stopApp() {
  if (Environment::currentIfInstalled()) Logger::flush();
  Environment::install(nullptr);
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

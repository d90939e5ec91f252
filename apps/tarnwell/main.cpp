// tarnwell: the command-line host of TarnwellKit.
//
// It plays the part of the phone app: it installs an Environment for one
// installation folder, starts the log, runs one command and lets the main
// queue finish what the command left for it.

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "Cli.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/settings/Logger.h"

namespace {

using tarnwell::Environment;
using namespace tarnwell::cli;

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

std::unique_ptr<Environment> makeEnvironment(const GlobalOptions& options) {
  if (options.container) checkContainer(*options.container);
  auto configuration = Environment::Configuration::system(
      options.container ? std::optional<std::filesystem::path>(*options.container) : std::nullopt);
  const tarnwell::Region system = tarnwell::Region::system();
  try {
    configuration.region =
        tarnwell::Region(options.timeZone.value_or(system.timeZoneId()), options.locale.value_or(system.localeId()));
  } catch (const std::invalid_argument& error) {
    throw InputError(error.what());
  }
  if (options.now) {
    const auto now = tarnwell::Date::parseISO8601(*options.now, configuration.region->timeZoneId());
    if (!now) throw InputError("--now: \"" + *options.now + "\" is not an ISO 8601 date or time");
    try {
      checkInstant(*options.now, *now);
    } catch (const InputError& error) {
      throw InputError(std::string("--now: ") + error.what());
    }
    configuration.clock = std::make_shared<tarnwell::ManualClock>(*now);
  }
  // Like the main queue, the background queues run when the command lets
  // them: every asynchronous step of a run happens, in order, before it exits.
  configuration.backgroundQueueMode = tarnwell::DispatchQueue::Mode::pumped;
  return std::make_unique<Environment>(std::move(configuration));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"tarnwell: screen time, pickups, sleep and focus from the events of a phone's use"};
  app.name("tarnwell");
  app.require_subcommand(1);
  app.fallthrough();

  GlobalOptions options;
  app.add_option("--container", options.container,
                 "Folder of one installation (default: $XDG_DATA_HOME/tarnwell/container)");
  app.add_option("--now", options.now, "Pin the clock to this ISO 8601 instant");
  app.add_option("--tz", options.timeZone, "IANA time zone (default: the system's)");
  app.add_option("--locale", options.locale, "Locale such as en_US or de-DE (default: the system's)");
  app.add_flag("--json", options.json, "Machine-readable output");

  Action action;
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

  // Every text the store keeps is UTF-8, and one that is not would make the
  // next launch set the whole store aside: refused before anything runs.
  for (int i = 1; i < argc; ++i) {
    if (!g_utf8_validate(argv[i], -1, nullptr)) {
      std::cerr << "tarnwell: argument " << i << " is not valid UTF-8\n";
      return 1;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    std::cerr << "tarnwell: " << error.what() << " (see tarnwell --help)\n";
    return 2;
  }

  int status = 0;
  try {
    Environment::install(makeEnvironment(options));
    tarnwell::Logger::start();
    tarnwell::HealthManager::shared().start();
    action();
    // What the command left to the queues runs before exit: announcements,
    // the debounced ones included, the health store's writes and the cloud's.
    finishRun();
  } catch (const tarnwell::sqlite::Error& error) {
    // The store's own failures in a sentence: what holds it, never its SQL.
    std::cerr << "tarnwell: " << tarnwell::Database::describeFailure(error) << '\n';
    status = 1;
  } catch (const std::exception& error) {
    std::cerr << "tarnwell: " << error.what() << '\n';
    status = 1;
  }
  // An orderly end: the log's queue drains and every thread is joined before
  // static objects go away.
  if (Environment::currentIfInstalled()) tarnwell::Logger::flush();
  Environment::install(nullptr);
  return status;
}

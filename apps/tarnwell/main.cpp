// tarnwell: the command-line host of TarnwellKit.
//
// It plays the part of the phone app: it installs an Environment for one
// installation folder, starts the log, runs one command and lets the main
// queue finish what the command left for it.

#include <iostream>

#include "Cli.h"
#include "tarnwell/platform/Environment.h"

using namespace tarnwell::cli;

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
  // What `info` reads from the bundle, but without an installation: asking
  // for the version must not make or open one.
  const auto bundle = tarnwell::BundleInfo::current().infoDictionary;
  app.set_version_flag(
      "--version",
      "tarnwell " + bundle.at("CFBundleShortVersionString") + " (build " + bundle.at("CFBundleVersion") + ")",
      "Print the version and build, then exit");

  Action action;
  addCommands(app, options, action);

  // Refused before anything runs.
  if (const auto bad = firstNonUtf8(std::vector<std::string>(argv + 1, argv + argc))) {
    std::cerr << "tarnwell: argument " << *bad + 1 << " is not valid UTF-8\n";
    return 1;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    std::cerr << "tarnwell: " << error.what() << " (see tarnwell --help)\n";
    return 2;
  }

  int status = 0;
  try {
    startApp(options);
    action();
    // What the command left to the queues runs before exit: announcements,
    // the debounced ones included, the health store's writes and the cloud's.
    finishRun();
  } catch (const std::exception& error) {
    std::cerr << "tarnwell: " << describeFailure(error) << '\n';
    status = 1;
  }
  // An orderly end: the log's queue drains and every thread is joined before
  // static objects go away.
  stopApp();
  return status;
}

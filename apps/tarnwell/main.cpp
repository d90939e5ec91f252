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
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  // Help and the arguments' errors come before the installation, which
  // would give the language: they speak the --locale asked for.
  speakAs(arguments);
  CLI::App app{"tarnwell: screen time, pickups, sleep and focus from the events of a phone's use"};
  app.name("tarnwell");
  app.require_subcommand(1);
  app.fallthrough();

  GlobalOptions options;
  addGlobalOptions(app, options);
  // What `info` reads from the bundle, but without an installation: asking
  // for the version must not make or open one.
  const auto bundle = tarnwell::BundleInfo::current().infoDictionary;
  app.set_version_flag(
      "--version", words("Info.VersionLine", {bundle.at("CFBundleShortVersionString"), bundle.at("CFBundleVersion")}),
      "Print the version and build, then exit");

  Action action;
  addCommands(app, options, action);

  // Refused before anything runs.
  if (const auto bad = firstNonUtf8(arguments)) {
    std::cerr << "tarnwell: "
              << refusal("argument %lld is not valid UTF-8", {static_cast<std::int64_t>(*bad + 1)}).what() << '\n';
    return 1;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    // Translated only when shown: a command's run never reads the help.
    translateHelp(app);
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    translateHelp(app);
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    std::cerr << "tarnwell: " << refusal("%@ (see tarnwell --help)", {describeParseError(error)}).what() << '\n';
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

#include "Session.h"

#include "tarnwell/platform/Clock.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell::cli {

Session::Session(GlobalOptions options) : options_(std::move(options)) {
  options_.json = true;
  open();
}

void Session::end() {
  if (std::exchange(ended_, true)) return;
  close();
}

Session::~Session() {
  try {
    end();
  } catch (...) {
    // What the queues still had failed; the commands that asked for it
    // were answered, and a destructor has no one to tell.
  }
}

void Session::open() {
  try {
    startApp(options_);
    launch();
  } catch (...) {
    stopApp();
    throw;
  }
}

void Session::close() {
  try {
    finishRun();
  } catch (...) {
    leaveJoinedCloud();
    stopApp();
    throw;
  }
  leaveJoinedCloud();
  stopApp();
}

std::string Session::run(const std::vector<std::string>& arguments) {
  if (ended_) throw refusal("the installation was closed");
  if (const auto bad = firstNonUtf8(arguments)) {
    throw refusal("argument %lld is not valid UTF-8", {static_cast<std::int64_t>(*bad + 1)});
  }
  CLI::App app{"tarnwell"};
  app.name("tarnwell");
  app.require_subcommand(1);
  Action action;
  addCommands(app, options_, action);
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    throw refusal("help is printed by the command line alone (tarnwell --help)");
  } catch (const CLI::CallForAllHelp&) {
    throw refusal("help is printed by the command line alone (tarnwell --help)");
  } catch (const CLI::ParseError& error) {
    throw InputError(describeParseError(error));
  }
  CapturedOutput output;
  try {
    action();
  } catch (...) {
    // What the command set going before it failed still runs, as in the
    // rest of a process that reports a failure; its own failure would only
    // hide the first.
    try {
      settleOperations();
    } catch (...) {
    }
    throw;
  }
  settleOperations();
  // A launch joins the cloud it signed in to once: a new sign-in takes
  // effect as the app's next launch, which begins here.
  if (takeSignedInCloudChanged()) {
    close();
    open();
  }
  std::string text = output.text();
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void Session::setNow(Date now) {
  auto* clock = dynamic_cast<ManualClock*>(&Environment::current().clock());
  if (!clock) throw refusal("the clock of this installation was not pinned (open it with \"now\")");
  clock->set(now);
}

}  // namespace tarnwell::cli

// A launch of the app that lasts while a program hosting the library runs,
// not one process: the C interface's installations are sessions.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Cli.h"

namespace tarnwell {
class ManualClock;
}

namespace tarnwell::cli {

// Runs the host's commands, one after another, in one launch: the same
// checks, the same work and the same JSON as `tarnwell --json COMMAND`,
// without a process for each. A process holds one Session at a time, as it
// holds one Environment.
class Session {
 public:
  // Starts the app and launches it for `options` (its `json` is ignored:
  // a session always answers in JSON). Throws what a run would report:
  // InputError for bad options, a store that had to be set aside and such.
  explicit Session(GlobalOptions options);
  // Ends the launch as a process's exit does: what the commands left to the
  // queues runs first. Throws what failed there; the launch is over all the
  // same. Once only.
  void end();
  // Ends the launch unless end() did; a failure there goes unreported.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs one command line without the program's name, "day 2026-11-25"
  // as {"day", "2026-11-25"}, and returns what it printed, its last line
  // feed taken off. Throws what the command refused or failed with; what
  // was stored before stays.
  std::string run(const std::vector<std::string>& arguments);

  // Moves the pinned clock to `now`; InputError when the session's clock
  // was not pinned (the options gave no `now`).
  void setNow(Date now);

 private:
  void open();
  void close();

  GlobalOptions options_;
  bool ended_ = false;
};

}  // namespace tarnwell::cli

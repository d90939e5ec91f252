// The `tarnwell` command as a user runs it: one process per call, through
// the shell, with what it prints caught for the test.

#pragma once

#include <filesystem>
#include <string>

namespace tarnwell::testing {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

// The command under test, named by the environment variable TARNWELL_CLI
// that ctest sets; throws when it is missing.
std::string tarnwellBinary();

// Runs `command` with /bin/sh; its standard output and error go through
// files in `scratch`. A process that did not exit reads as status -1.
Outcome runShell(const std::string& command, const std::filesystem::path& scratch);

// A file's bytes, empty when it cannot be read.
std::string readFile(const std::filesystem::path& file);

}  // namespace tarnwell::testing

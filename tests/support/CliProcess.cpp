#include "support/CliProcess.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tarnwell::testing {

std::string tarnwellBinary() {
  const char* binary = std::getenv("TARNWELL_CLI");
  if (!binary) throw std::runtime_error("TARNWELL_CLI is not set");
  return binary;
}

Outcome runShell(const std::string& command, const std::filesystem::path& scratch) {
  const auto out = scratch / "out.txt", err = scratch / "err.txt";
  const std::string redirected = command + " >'" + out.string() + "' 2>'" + err.string() + "'";
  const int raw = std::system(redirected.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(out), readFile(err)};
}

std::string readFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace tarnwell::testing

#include "tarnwell/platform/FatalError.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tarnwell/platform/Log.h"

namespace tarnwell {

void fatalError(std::string_view message) {
  // A failure while logging the failure must still end the process.
  static thread_local bool failing = false;
  if (!failing) {
    failing = true;
    log.error("Fatal error: " + std::string(message));
    log.flush();
  }
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace tarnwell

// The PostgreSQL server the cloud's tests run against: the URL in
// TARNWELL_TEST_POSTGRES, as its superuser (the password comes from
// PGPASSFILE, read by libpq). Tests that need it skip when it is not set;
// scripts/test.sh starts a throw-away server and sets it.

#pragma once

#include <optional>
#include <string>

#include "tarnwell/cloudkit/CloudEmulator.h"

namespace tarnwell::testing {

// The server as its superuser, or nullopt when no server is configured.
std::optional<CloudServer> testServer();

// A cloud of its own for one test: the superuser with a schema nobody used,
// dropped when the object goes.
class ScratchCloud {
 public:
  ScratchCloud();
  ~ScratchCloud();
  ScratchCloud(const ScratchCloud&) = delete;
  ScratchCloud& operator=(const ScratchCloud&) = delete;

  const CloudServer& server() const { return server_; }

 private:
  CloudServer server_;
};

// Runs SQL on the server as its superuser (roles, grants, clean-up).
void runAsSuperuser(const std::string& sql);

}  // namespace tarnwell::testing

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

// A user of the server for one test: a role of its own with a password,
// allowed to make its schema there (through a group that holds CREATE on
// the database); dropped with that schema when the object goes.
class ScratchRole {
 public:
  // Named `prefix` and a random tail; the password is given or made up.
  explicit ScratchRole(const std::string& prefix, std::string password = {});
  ~ScratchRole();
  ScratchRole(const ScratchRole&) = delete;
  ScratchRole& operator=(const ScratchRole&) = delete;

  const std::string& name() const { return name_; }
  const std::string& password() const { return password_; }
  // The server as this role, with its password, in its own schema.
  CloudServer server() const;

 private:
  std::string name_;
  std::string password_;
};

// Runs SQL on the server as its superuser (roles, grants, clean-up).
void runAsSuperuser(const std::string& sql);

}  // namespace tarnwell::testing

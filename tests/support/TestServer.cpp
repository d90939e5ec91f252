#include "support/TestServer.h"

#include <pqxx/pqxx>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "tarnwell/platform/Uuid.h"

// libpqxx 6.4 leaves the error result of a statement on a connection the
// server dropped unfreed (the test of a lost connection meets it); nothing
// of ours owns that result, so the leak checker is told to look past it.
// These replace the host's own, so fontconfig's loss at its first use
// (see ChartDrawing.cpp) is named here too.
extern "C" const char* __lsan_default_suppressions() { return "leak:PQmakeEmptyPGresult\nleak:libfontconfig.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }

namespace tarnwell::testing {

std::optional<CloudServer> testServer() {
  const char* url = std::getenv("TARNWELL_TEST_POSTGRES");
  if (!url || !*url) return std::nullopt;
  auto server = CloudServer::parse(url);
  if (!server) throw std::runtime_error(std::string("TARNWELL_TEST_POSTGRES is not a postgresql:// URL: ") + url);
  return server;
}

void runAsSuperuser(const std::string& sql) {
  const auto server = testServer();
  if (!server) throw std::runtime_error("No test server (TARNWELL_TEST_POSTGRES)");
  pqxx::connection connection("host=" + server->host + " port=" + std::to_string(server->port) +
                              " dbname=" + server->database + " user=" + server->user);
  pqxx::nontransaction run(connection);
  run.exec(sql);
}

namespace {

// The group every test role joins, the one holder of CREATE on the
// database. A grant on the database rewrites its catalog row, and two tests
// granting at once (ctest -j) made one of them fail with "tuple
// concurrently updated": the group is made and granted once, by whichever
// test comes first, under a lock the server holds for all processes.
constexpr std::string_view kTestUsers = "tarnwell_test_users";

void makeTestUsersOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    runAsSuperuser(
        "BEGIN; SELECT pg_advisory_xact_lock(hashtext('tarnwell test roles')); "
        "DO $$ BEGIN IF NOT EXISTS (SELECT 1 FROM pg_roles WHERE rolname = '" +
        std::string(kTestUsers) + "') THEN CREATE ROLE " + std::string(kTestUsers) +
        " NOLOGIN; EXECUTE format('GRANT CREATE ON DATABASE %I TO " + std::string(kTestUsers) +
        "', current_database()); END IF; END $$; COMMIT");
  });
}

}  // namespace

ScratchRole::ScratchRole(const std::string& prefix, std::string password) : password_(std::move(password)) {
  std::string tail = makeUUIDString().substr(0, 8);
  // Unquoted names fold to lower case on the server.
  std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
  name_ = prefix + "_" + tail;
  if (password_.empty()) password_ = "pw-" + name_;
  makeTestUsersOnce();
  runAsSuperuser("CREATE ROLE " + name_ + " LOGIN PASSWORD '" + password_ + "' IN ROLE " + std::string(kTestUsers));
}

ScratchRole::~ScratchRole() {
  try {
    runAsSuperuser("DROP SCHEMA IF EXISTS " + name_ + " CASCADE");
    runAsSuperuser("DROP ROLE " + name_);
  } catch (const std::exception&) {
    // A role left behind is deleted with the throw-away server.
  }
}

CloudServer ScratchRole::server() const {
  CloudServer server = *testServer();
  server.user = name_;
  server.password = password_;
  server.schema.clear();
  return server;
}

ScratchCloud::ScratchCloud() {
  if (const auto server = testServer()) server_ = *server;
  std::string id = makeUUIDString();
  std::erase(id, '-');
  server_.schema = "test_" + id;
}

ScratchCloud::~ScratchCloud() {
  if (!testServer()) return;
  try {
    runAsSuperuser("DROP SCHEMA IF EXISTS " + server_.schema + " CASCADE");
  } catch (const std::exception&) {
    // A schema left behind is deleted with the throw-away server.
  }
}

}  // namespace tarnwell::testing

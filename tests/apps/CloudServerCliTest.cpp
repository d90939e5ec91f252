// Devices on two machines, as a user sets them up: two installations with
// keychains of their own, signed in to one user's cloud on a PostgreSQL
// server, one of them watching for pushes while the other writes.

#include <gtest/gtest.h>

#include <pqxx/pqxx>

#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"
#include "support/TestServer.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {
namespace {

using testing::Outcome;

class CloudServerCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto server = testing::testServer();
    if (!server) GTEST_SKIP() << "no test server";
    role.emplace("cli", password);
    user = role->name();
    url = role->server().url();
    // The password file escapes its separator and its escape character.
    std::string escaped;
    for (const char c : password) {
      if (c == ':' || c == '\\') escaped += '\\';
      escaped += c;
    }
    std::ofstream(folder.path() / "pgpass")
        << server->host << ":" << server->port << ":*:" << user << ":" << escaped << "\n";
    std::filesystem::permissions(folder.path() / "pgpass",
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }

  // The command line of tarnwell on one machine: its own keychain and installation.
  std::string on(const std::string& machine, const std::string& arguments) const {
    const auto home = folder.path() / machine;
    return "PGPASSFILE='" + (folder.path() / "pgpass").string() + "' XDG_DATA_HOME='" + (home / "xdg").string() +
           "' '" + testing::tarnwellBinary() + "' --container '" + (home / "app").string() + "' " + arguments;
  }
  Outcome run(const std::string& machine, const std::string& arguments) {
    return testing::runShell(on(machine, arguments), folder.path());
  }
  static nlohmann::json json(const Outcome& result) { return nlohmann::json::parse(result.out); }

  testing::TemporaryFolder folder;
  std::optional<testing::ScratchRole> role;
  std::string user;
  std::string url;
  const std::string password = "correct:horse\\" + makeUUIDString().substr(0, 6);
};

TEST_F(CloudServerCliTest, TwoMachinesSyncThroughTheServerAndAWatcherHearsEachWrite) {
  const Outcome first = run("home", "cloud sign-in " + url);
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(first.out, "Signed in to the cloud at " + url + "; it holds no cloud for " + user +
                           " yet: run `tarnwell cloud init-server`\n");
  const Outcome empty = run("home", "cloud records");
  EXPECT_EQ(empty.status, 1);
  EXPECT_EQ(empty.err, "tarnwell: There is no cloud of " + user + " at " + url + "\n");
  const Outcome made = run("home", "--json cloud init-server");
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(json(made)["made"], true);
  EXPECT_EQ(json(run("home", "--json cloud init-server"))["made"], false) << "a second init changes nothing";
  ASSERT_EQ(run("office", "cloud sign-in " + url).status, 0);

  // The office machine watches while the home one writes; the push reaches
  // it over the server's channel, and the sync it starts brings the pickup.
  const Outcome watched = testing::runShell(
      on("office", "sync watch --for 6") + " > '" + (folder.path() / "watch.out").string() + "' & sleep 1; " +
          on("home", "pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z") + " > /dev/null; wait",
      folder.path());
  ASSERT_EQ(watched.status, 0) << watched.err;
  const std::string heard = testing::readFile(folder.path() / "watch.out");
  EXPECT_NE(heard.find("Heard 1 push, fetched "), std::string::npos) << heard;
  EXPECT_NE(heard.find("Pickup 1)\n"), std::string::npos) << heard;
  EXPECT_EQ(json(run("office", "--json sync records --type Pickup")).size(), 1u);

  // Tokens expire on the server too, and a pull starts over.
  ASSERT_EQ(run("office", "cloud expire-tokens").status, 0);
  ASSERT_EQ(run("home", "walk add 2026-11-22T09:00:00Z 2026-11-22T09:30:00Z").status, 0);
  ASSERT_EQ(run("office", "sync pull").status, 0);
  EXPECT_EQ(json(run("office", "--json sync records --type Walk")).size(), 1u);

  // The server keeps faults as a folder does: one set on one machine fails
  // the other's push, which waits in its outbox until the fault is cleared.
  ASSERT_EQ(run("office", "cloud fault networkFailure --times 20 --on modify").status, 0);
  ASSERT_EQ(run("home", "walk add 2026-11-22T10:00:00Z 2026-11-22T10:30:00Z").status, 0);
  EXPECT_EQ(json(run("office", "--json cloud records --type Walk")).size(), 1u);
  ASSERT_EQ(run("office", "cloud fault clear").status, 0);
  ASSERT_EQ(run("home", "day").status, 0);
  EXPECT_EQ(json(run("office", "--json cloud records --type Walk")).size(), 2u);

  // The password is in each machine's keychain and nowhere in its installation.
  for (const char* machine : {"home", "office"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path() / machine / "app")) {
      if (entry.is_regular_file()) {
        EXPECT_EQ(testing::readFile(entry.path()).find(password), std::string::npos) << entry.path();
      }
    }
  }
  ASSERT_EQ(run("office", "cloud sign-out").status, 0);
  const auto keychain =
      folder.path() / "office" / "xdg" / "tarnwell" / "keychain" / "org.vostra.tarnwell.cloud.keychain";
  EXPECT_EQ(testing::readFile(keychain).find(url), std::string::npos) << "signing out forgets the password";
}

TEST_F(CloudServerCliTest, BadURLsAndPasswordsAreRefusedInOneLineAndKeepTheOldCloud) {
  ASSERT_EQ(run("home", "cloud sign-in " + url).status, 0);
  // The test server speaks no TLS: a URL that asks for it is heard, and fails.
  for (const std::string& bad : {"postgresql://" + user + ":pw@127.0.0.1/postgres", std::string("postgresql://@x/y"),
                                 std::string("postgresql://nobody_here@127.0.0.1:1/postgres"), url + "?sslmode=require",
                                 url + "?sslmode=sometimes", url + "?password=pw", url + "?keepalives=0",
                                 "postgresql://" + user + "@db.example/postgres?sslmode=prefer"}) {
    const Outcome refused = run("home", "cloud sign-in '" + bad + "'");
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  std::ofstream(folder.path() / "pgpass") << "*:*:*:" << user << ":wrong\n";
  const Outcome wrong = run("home", "cloud sign-in " + url);
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(wrong.err.find("password authentication failed"), std::string::npos) << wrong.err;
  EXPECT_EQ(json(run("home", "--json sync status"))["cloud"], url) << "a failed sign-in keeps the cloud signed in to";
}

// Another role lays a trap: a schema named after this user, open to all.
// Neither making the cloud nor signing in again accepts it.
TEST_F(CloudServerCliTest, ASchemaAnotherRoleMadeIsRefusedAtInitAndSignIn) {
  ASSERT_EQ(run("home", "cloud sign-in " + url).status, 0);
  const testing::ScratchRole mallory("mallory");
  {
    const CloudServer as = mallory.server();
    pqxx::connection connection("host=" + as.host + " port=" + std::to_string(as.port) + " dbname=" + as.database +
                                " user=" + as.user + " password=" + as.password);
    pqxx::nontransaction trap(connection);
    trap.exec("CREATE SCHEMA " + user + "; CREATE TABLE " + user + ".cloud (identity TEXT); GRANT USAGE ON SCHEMA " +
              user + " TO PUBLIC; GRANT ALL ON " + user + ".cloud TO PUBLIC");
  }
  const std::string refusal = "tarnwell: Refused: the schema " + user + " at " + url + " belongs to the role " +
                              mallory.name() + ", not to " + user +
                              "; a cloud is kept only in a schema its user owns\n";
  const Outcome made = run("home", "cloud init-server");
  EXPECT_EQ(made.status, 1);
  EXPECT_EQ(made.err, refusal);
  const Outcome signedIn = run("home", "cloud sign-in " + url);
  EXPECT_EQ(signedIn.status, 1);
  EXPECT_EQ(signedIn.err, refusal);
}

// A server that holds the user's tables locked (a long migration, a stuck
// session) delays no local write: the pickup is stored at once, and reaches
// the other machine at a sync after the lock is gone.
TEST_F(CloudServerCliTest, TablesLockedOnTheServerDelayNoLocalWrite) {
  ASSERT_EQ(run("home", "cloud sign-in " + url).status, 0);
  ASSERT_EQ(run("home", "cloud init-server").status, 0);
  ASSERT_EQ(run("office", "cloud sign-in " + url).status, 0);

  const CloudServer super = *testing::testServer();
  pqxx::connection connection("host=" + super.host + " port=" + std::to_string(super.port) +
                              " dbname=" + super.database + " user=" + super.user);
  // All of them, so that the run cannot even join the cloud; then only the
  // records, so that it joins and each step it takes meets the lock.
  const std::string everything = "quote_ident(tablename)";
  const std::string records = "CASE tablename WHEN 'records' THEN 'records' END";
  for (const std::string& which : {everything, records}) {
    pqxx::work locking(connection);
    const pqxx::result tables = locking.exec_params(
        "SELECT string_agg(quote_ident(schemaname) || '.' || " + which + ", ', ') FROM pg_tables WHERE schemaname = $1",
        user);
    locking.exec(std::string("LOCK TABLE ") + tables[0][0].c_str() + " IN ACCESS EXCLUSIVE MODE");
    // `timeout` ends a command that hangs, which then fails here.
    const std::string start = which == everything ? "08:00" : "09:00";
    const Outcome added = testing::runShell(
        "timeout 120 env " +
            on("home", "pickup add 2026-11-22T" + start + ":00Z 2026-11-22T" + start.substr(0, 3) + "05:00Z"),
        folder.path());
    EXPECT_EQ(added.status, 0) << added.err;
    // At most a line says that the cloud did not answer.
    EXPECT_LE(std::count(added.err.begin(), added.err.end(), '\n'), 1) << added.err;
  }

  EXPECT_EQ(json(run("home", "--json sync records --type Pickup")).size(), 2u);
  ASSERT_EQ(run("home", "sync push").status, 0);
  ASSERT_EQ(run("office", "sync pull").status, 0);
  EXPECT_EQ(json(run("office", "--json sync records --type Pickup")).size(), 2u);
}

}  // namespace
}  // namespace tarnwell

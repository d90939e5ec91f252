// The store under another process's lock, a damaged store, and the modes of
// an installation's files: what a user sees, and that nothing is lost.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

using testing::Outcome;
using testing::readFile;

class StoreSafetyTest : public ::testing::Test {
 protected:
  // Runs tarnwell on the test's installation with a short wait on locks,
  // under the umask most users have, as `prefix` (a command that wraps it).
  Outcome run(const std::string& arguments, const std::string& prefix = "") {
    return testing::runShell("umask 022; XDG_DATA_HOME='" + xdg().string() + "' TARNWELL_BUSY_TIMEOUT_MS=100 " +
                                 prefix + " '" + testing::tarnwellBinary() + "' --container '" + container().string() +
                                 "' " + arguments,
                             folder.path());
  }
  std::filesystem::path xdg() const { return folder.path() / "xdg"; }
  std::filesystem::path container() const { return folder.path() / "phone"; }
  std::filesystem::path realm() const { return container() / "group.org.vostra.tarnwell" / "Realm"; }
  std::filesystem::path store() const { return realm() / "default.realm"; }

  std::vector<std::string> backups() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(realm())) {
      if (entry.path().filename().string().starts_with("backup")) names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::int64_t pickups() {
    sqlite::Connection connection(store(), sqlite::Connection::OpenMode::readOnly);
    auto count = connection.prepare("SELECT count(*) FROM Pickup");
    count.step();
    return count.int64(0);
  }

  // A failure is one line, says `what`, and carries no SQL.
  static void expectOneLineRefusal(const Outcome& result, const std::string& what) {
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_NE(result.err.find(what), std::string::npos) << result.err;
    for (const char* sql : {"SELECT", "INSERT", "UPDATE", "BEGIN", "PRAGMA", "CREATE"}) {
      EXPECT_EQ(result.err.find(sql), std::string::npos) << result.err;
    }
  }

  void garble() { std::ofstream(store(), std::ios::trunc) << "this is not a database"; }

  testing::TemporaryFolder folder;
};

TEST_F(StoreSafetyTest, AStoreUnderAnotherWritersLockIsWaitedForOrRefusedAndKeptWhole) {
  for (const char* at : {"2026-11-22T08:00:00Z 2026-11-22T08:05:00Z", "2026-11-22T09:00:00Z 2026-11-22T09:05:00Z"}) {
    ASSERT_EQ(run(std::string("pickup add ") + at).status, 0);
  }
  {
    // Another process's long write, as an import's.
    sqlite::Connection other(store());
    other.execute("BEGIN IMMEDIATE");
    other.execute("UPDATE Pickup SET isIgnoredForSleepTime = isIgnoredForSleepTime");
    for (const char* command :
         {"day 2026-11-22", "widgets show", "pickup add 2026-11-22T10:00:00Z 2026-11-22T10:05:00Z"}) {
      const Outcome result = run(command);
      if (result.status != 0) {
        expectOneLineRefusal(result,
                             "the store is busy: another tarnwell process is writing to it; try again when it ends");
      }
    }
    other.execute("COMMIT");
  }
  EXPECT_EQ(pickups(), 2);  // the pickup added under the lock was refused
  EXPECT_TRUE(backups().empty());
  EXPECT_EQ(run("pickup add 2026-11-22T11:00:00Z 2026-11-22T11:05:00Z").status, 0);
  EXPECT_EQ(pickups(), 3);
}

TEST_F(StoreSafetyTest, GarbageIsSetAsideAsNumberedBackupsOnlyWhenNoOtherProcessHasItOpen) {
  ASSERT_EQ(run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  garble();
  {
    // Another tarnwell process using the store holds this lock shared.
    const int other = ::open((store().string() + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(other, 0);
    ASSERT_EQ(::flock(other, LOCK_SH), 0);
    expectOneLineRefusal(run("day 2026-11-22"), "it was NOT set aside");
    ::close(other);
  }
  EXPECT_TRUE(backups().empty());
  EXPECT_EQ(readFile(store()), "this is not a database");

  expectOneLineRefusal(run("day 2026-11-22"), "was set aside as backup.realm; the next run starts an empty store");
  ASSERT_EQ(run("day 2026-11-22").status, 0);
  garble();
  expectOneLineRefusal(run("day 2026-11-22"), "was set aside as backup-2.realm");
  EXPECT_EQ(backups(), (std::vector<std::string>{"backup-2.realm", "backup.realm"}));
  EXPECT_EQ(readFile(realm() / "backup.realm"), "this is not a database");
  EXPECT_EQ(readFile(realm() / "backup-2.realm"), "this is not a database");
}

TEST_F(StoreSafetyTest, AReadOnlySharedMemoryFileIsRefusedNotSetAside) {
  ASSERT_EQ(run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  const auto shm = store().string() + "-shm";
  std::ofstream(shm) << std::string(32768, '\0');
  std::string prefix;
  if (::geteuid() == 0) {
    // Root writes whatever the mode says: the command runs as another user,
    // who owns everything but the -shm file.
    std::filesystem::create_directories(xdg());
    ASSERT_EQ(testing::runShell("chown -R 65534:65534 '" + folder.path().string() + "' && chown 0:0 '" + shm + "'",
                                folder.path())
                  .status,
              0);
    prefix = "setpriv --reuid=65534 --regid=65534 --clear-groups";
  }
  ASSERT_EQ(::chmod(shm.c_str(), 0444), 0);
  const std::string refusal = "the store cannot be written: " + shm + " is read-only";
  // Reading needs no shared memory of its own; writing does.
  const Outcome day = run("day 2026-11-22", prefix);
  if (day.status != 0) expectOneLineRefusal(day, refusal);
  expectOneLineRefusal(run("pickup add 2026-11-22T09:00:00Z 2026-11-22T09:05:00Z", prefix), refusal);
  EXPECT_TRUE(backups().empty());
  EXPECT_EQ(pickups(), 1);
}

TEST_F(StoreSafetyTest, AnInstallationsFilesAreTheUsersAloneAndAnOlderOnesAreTightened) {
  const auto runAll = [this] {
    for (const char* command : {"pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z", "day 2026-11-22",
                                "settings set defaultPickupGoal 50", "widgets show"}) {
      const Outcome result = run(command);
      ASSERT_EQ(result.status, 0) << command << ": " << result.err;
    }
  };
  const auto expectPrivate = [](const std::filesystem::path& top, std::size_t atLeast) {
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      const auto mode = entry.status().permissions() & std::filesystem::perms::all;
      const auto expected = entry.is_directory()
                                ? std::filesystem::perms::owner_all
                                : std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
      EXPECT_EQ(mode, expected) << entry.path();
      files += entry.is_regular_file();
    }
    EXPECT_GE(files, atLeast) << top;
  };
  runAll();
  for (const auto& top : {container(), xdg()}) {
    EXPECT_EQ(std::filesystem::status(top).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_all)
        << top;
  }
  // The store, its lock, the health store, both preference stores, the widgets, the log.
  expectPrivate(container(), 7);
  expectPrivate(xdg(), 1);

  // As an older version left them: everything in the installation open to all.
  ASSERT_EQ(
      testing::runShell("find '" + container().string() + "' -mindepth 1 -exec chmod go+rX {} +", folder.path()).status,
      0);
  runAll();
  expectPrivate(container(), 7);
}

}  // namespace
}  // namespace tarnwell

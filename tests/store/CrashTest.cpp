// A writer killed with SIGKILL in the middle of its work leaves a store that
// opens, with every pickup whose id it had returned.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "support/TestEnvironment.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/settings/Settings.h"

extern char** environ;

namespace tarnwell {
namespace {

TEST(CrashTest, EveryReturnedIdSurvivesAKill) {
  testing::TestEnvironment env;
  std::string installation = (env.root() / "installation").string();
  std::string keychain = (env.root() / "keychain").string();
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipe[0]);
  std::string writer = TARNWELL_CRASH_WRITER, count = "10000";
  char* argv[] = {writer.data(), installation.data(), keychain.data(), count.data(), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, writer.c_str(), &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);

  // Kill it part-way: after a few thousand ids, while it is writing.
  std::string received;
  char buffer[4096];
  std::size_t lines = 0;
  bool killed = false;
  for (;;) {
    const ssize_t n = ::read(pipe[0], buffer, sizeof buffer);
    if (n <= 0) break;
    received.append(buffer, static_cast<std::size_t>(n));
    lines += static_cast<std::size_t>(std::count(buffer, buffer + n, '\n'));
    if (!killed && lines >= 3000) {
      ::kill(child, SIGKILL);
      killed = true;
    }
  }
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(killed);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer finished before the kill";

  std::set<std::string> ids;
  std::size_t begin = 0;
  for (std::size_t end; (end = received.find('\n', begin)) != std::string::npos; begin = end + 1) {
    ids.insert(received.substr(begin, end - begin));
  }
  ASSERT_GE(ids.size(), 3000u);
  ASSERT_LT(ids.size(), 10000u);

  Database::start();  // opens: no error, nothing set aside
  EXPECT_FALSE(std::filesystem::exists(Database::backupURL()));
  std::size_t missing = 0;
  for (const auto& id : ids) missing += !Database::getPickup(id);
  EXPECT_EQ(missing, 0u);
  const auto all =
      Database::getPickups(DateInterval(Date::distantPast(), Date::distantFuture()), {Settings::deviceId()});
  EXPECT_GE(all.size(), ids.size());
}

}  // namespace
}  // namespace tarnwell

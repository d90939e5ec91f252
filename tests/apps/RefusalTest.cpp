// Values of the right form but no meaning, and values that once stopped the
// process, given to `tarnwell` as a user or an attacker would: each is
// refused in one line with exit status 1, and the store stays as it was.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

using testing::Outcome;

class RefusalTest : public ::testing::Test {
 protected:
  Outcome run(const std::string& arguments) { return runIn(container(), arguments); }
  Outcome runIn(const std::filesystem::path& installation, const std::string& arguments) {
    return testing::runShell("XDG_DATA_HOME='" + (folder.path() / "xdg").string() + "' '" + testing::tarnwellBinary() +
                                 "' --container '" + installation.string() + "' " + arguments,
                             folder.path());
  }
  std::filesystem::path container() const { return folder.path() / "phone"; }
  std::string added(const std::string& arguments) {
    const Outcome result = run("--json " + arguments);
    EXPECT_EQ(result.status, 0) << arguments << ": " << result.err;
    return nlohmann::json::parse(result.out)["id"];
  }
  // Everything a refused command could have changed, as the commands read it.
  std::string state() {
    std::string all;
    for (const char* read : {"pickup list", "walk list", "alive list", "focus list", "tag list", "tag list --archived",
                             "settings list", "health samples"}) {
      all += run(std::string("--json ") + read).out;
    }
    return all;
  }
  static void expectRefused(const Outcome& result, const std::string& what) {
    EXPECT_EQ(result.status, 1) << what << ": " << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << what << ": " << result.err;
    EXPECT_TRUE(result.out.empty()) << what << ": " << result.out;
  }
  static std::string filled(std::string command, const std::map<std::string, std::string>& ids) {
    for (const auto& [name, id] : ids) {
      for (auto at = command.find(name); at != std::string::npos; at = command.find(name)) {
        command.replace(at, name.size(), id);
      }
    }
    return command;
  }

  testing::TemporaryFolder folder;
};

TEST_F(RefusalTest, MeaninglessAndCrashingValuesAreRefusedInOneLineAndChangeNothing) {
  const std::map<std::string, std::string> ids = {
      {"{pickup}", added("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:30:00Z")},
      {"{tag}", added("tag add Reading --goal '>=3600'")},
  };
  const std::map<std::string, std::string> withFocus = {
      {"{focus}", added(filled("focus add 2026-11-22T10:00:00Z 2026-11-22T11:00:00Z --tag {tag}", ids))}};
  ASSERT_EQ(run("health add-sleep 2026-11-21T23:00:00Z 2026-11-22T06:30:00Z --source-bundle com.tantsissa.AutoSleep "
                "--source-name AutoSleep")
                .status,
            0);
  const std::string before = state();
  const std::string file = (folder.path() / "a-file").string();
  std::ofstream(file) << "not a folder";

  for (
      const std::string& command : std::vector<std::string>{
          // Once stopped the process.
          "format size 1e30",
          "intent handle AddFocusRecordIntent --param tag=working --param start=2026-11-22T09:00:00Z "
          "--param recordType=3",
          "intent handle AddFocusRecordIntent --param tag=working --param start=2026-11-22T09:00:00Z "
          "--param recordType=2 --param durating=1e300",
          "intent resolve StartToFocusIntent duration --param duration=-5",
          // Numbers that are numbers but no duration, goal or size.
          "focus edit {focus} --progress 1e308",
          "focus edit {focus} --goal 86401",
          "focus add 2026-11-22T12:00:00Z 2026-11-22T12:30:00Z --progress nan",
          "focus add 2026-11-22T12:00:00Z 2026-11-22T12:30:00Z --goal inf",
          "focus add 2026-11-22T12:00:00Z 2026-11-22T12:30:00Z --progress -1",
          "focus add 2026-11-22T12:00:00Z 2026-11-22T12:30:00Z --progress 3600",
          "focus state --type countdown:60 --state focusing --spent 1e300 --goal 60",
          "tag add Huge --goal '>=1e300'",
          R"(tag add Huge --type '{"pomodoro":{"duration":60,"shortBreak":0,"longBreak":0,"longBreakInterval":1e300}}')",
          "tag edit {tag} --goal '<=86401'",
          "link shareFocus --progress 1e300 --goal 1",
          "format size -1",
          // Dates no clock gives, and spans no sensor or timer makes.
          "pickup add 0001-01-01T00:00:00Z 9999-12-31T00:00:00Z",
          "pickup add 2026-11-22T08:00:00Z 2026-11-24T08:00:00Z",
          "pickup edit {pickup} 2026-11-30T00:00:00Z",
          "pickup list --from 1969-12-31T00:00:00Z",
          "walk add 2026-11-01T00:00:00Z 2026-11-03T00:00:00Z",
          "alive add 2026-01-01T00:00:00Z 2026-03-01T00:00:00Z",
          "focus add 2026-11-20T00:00:00Z 2026-11-22T00:00:00Z",
          "focus edit {focus} --start 2026-11-20T00:00:00Z",
          "--now 9999-01-01T00:00:00Z day",
          "day 9999-12-31",
          "summary --from 9999-12-31",
          "settings set cloudKitLastSyncDate 2100-01-01T00:00:00Z",
          // No days have no averages; every count but 1 to 3660 is refused alike.
          "summary --count 0",
          "summary --count -1",
          "summary --count=-1",
          "summary --count abc",
          "summary --count 3661",
          // Tags that would orphan sessions, hide the fallback, or are not there.
          "tag delete {tag} --migrate-to {tag}",
          "tag archive default",
          "tag streak NOPE",
          "tag progress NOPE",
          "chart tag:NOPE",
          // Sleep this application did not write, and sources that never wrote any.
          "health add-sleep 2026-11-22T23:00:00Z 2026-11-23T06:00:00Z --source-bundle org.vostra.tarnwell "
          "--source-name Tarnwell",
          "health add-sleep 2026-11-22T23:00:00Z 2026-11-23T06:00:00Z --source-bundle '' --source-name Nobody",
          "health add-sleep 2026-11-22T23:00:00Z 2026-11-23T06:00:00Z --source-bundle com.neybox.Pillow "
          "--source-name Pillow --value 99",
          "health add-sleep 2026-11-01T23:00:00Z 2026-11-03T06:00:00Z --source-bundle com.neybox.Pillow "
          "--source-name Pillow",
          "settings set defaultSleepDataSource com.neybox.Pillow",
          R"(settings set defaultSleepDataSource '{"name": "Ghost", "bundleIdentifier": "org.example.ghost"}')",
          // Link values that would not read back as themselves.
          "link startFocus --tag 'T1&widget_name=Forged&widget_family=small'",
          "link viewFocus --tag 100%25",
          "link startFocus --tag 'a#b'",
          "link startFocus --tag 'a?b'",
          "link openFromWidget --widget-name 'W=1' --widget-family small",
      }) {
    const std::string line = filled(filled(command, ids), withFocus);
    expectRefused(run(line), line);
  }
  // Installations that cannot be: a file, and a folder of the system's.
  expectRefused(runIn(file, "day"), file);
  expectRefused(runIn(std::filesystem::path(file) / "phone", "day"), file + "/phone");
  expectRefused(runIn("/proc/1", "day"), "/proc/1");
  EXPECT_EQ(state(), before);
  EXPECT_EQ(testing::readFile(file), "not a folder");
}

TEST_F(RefusalTest, TheEdgesOfEachRangeAreTaken) {
  EXPECT_EQ(run("format size 1237940039285380274899124224").out, "1024.00 YB\n");
  EXPECT_EQ(run("tag add Day --goal '>=86400'").status, 0);
  EXPECT_EQ(run("pickup add 2026-11-22T00:00:00Z 2026-11-23T00:00:00Z").status, 0);
  EXPECT_EQ(run("alive add 2026-11-01T00:00:00Z 2026-12-02T00:00:00Z").status, 0);
  EXPECT_EQ(run("focus add 1970-01-01T00:00:00Z 1970-01-01T00:30:00Z --progress 1800").status, 0);
  EXPECT_EQ(run("--now 2099-12-31T23:59:59Z day").status, 0);
  const Outcome lastDay = run("--tz UTC day 2099-12-31");
  EXPECT_EQ(lastDay.out.substr(0, lastDay.out.find('\n')),
            "Day Dec 31, 2099, 12:00:00\u202fAM to Jan 1, 2100, 12:00:00\u202fAM");
  EXPECT_EQ(run("summary --count 1").status, 0);
  EXPECT_EQ(run("summary --count 3660").status, 0);
  EXPECT_EQ(run("health add-sleep 2026-11-22T23:00:00Z 2026-11-23T06:00:00Z --source-bundle com.neybox.Pillow "
                "--source-name Pillow --value 5")
                .status,
            0);
  EXPECT_EQ(run("settings set defaultSleepDataSource com.neybox.Pillow").status, 0);
  EXPECT_EQ(run("link startFocus --tag \"AZaz09-._~!\\$'()*+,;:@/\"").out,
            "tarnwell://x-callback-url/start-focus?tagId=AZaz09-._~!$'()*+,;:@/\n");
  // A folder that is not there yet is made, its parents too.
  EXPECT_EQ(runIn(folder.path() / "new" / "phone", "day").status, 0);
}

}  // namespace
}  // namespace tarnwell

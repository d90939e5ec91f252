// The `tarnwell` command, driven as a user drives it: one process per call.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/CliProcess.h"
#include "support/TestEnvironment.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {
namespace {

using testing::Outcome;
using testing::readFile;

class CliTest : public ::testing::Test {
 protected:
  // Runs tarnwell with a private XDG data home and, unless told otherwise, the test's installation.
  Outcome run(const std::string& arguments, bool withContainer = true) {
    return runIn(folder.path() / "xdg", withContainer ? std::optional(container()) : std::nullopt, arguments);
  }
  // Runs tarnwell as another device of the same user: its own keychain (so
  // its own device id) and its own installation.
  Outcome runOn(const std::string& device, const std::string& arguments) {
    return runIn(folder.path() / device / "xdg", folder.path() / device / "phone", arguments);
  }
  Outcome runIn(const std::filesystem::path& xdg, const std::optional<std::filesystem::path>& installation,
                const std::string& arguments) {
    return testing::runShell("XDG_DATA_HOME='" + xdg.string() + "' '" + testing::tarnwellBinary() + "' " +
                                 (installation ? "--container '" + installation->string() + "' " : "") + arguments,
                             folder.path());
  }
  std::filesystem::path container() const { return folder.path() / "phone"; }

  static nlohmann::json json(const Outcome& result) { return nlohmann::json::parse(result.out); }

  testing::TemporaryFolder folder;
};

TEST_F(CliTest, AFreshInstallationReadsTheDefaults) {
  const std::pair<const char*, nlohmann::json> expected[] = {
      {"defaultScreenTimeGoal", 18000.0}, {"defaultPickupGoal", 60},         {"excludeFocusTime", true},
      {"defaultTimeForBed", 82800.0},     {"defaultSleepTimeGoal", 28800.0}, {"startOfDayScreenTime", 0.0},
      {"weekStartsFromMonday", true},     {"colorTheme", "system"},
  };
  for (const auto& [name, value] : expected) {
    const Outcome result = run(std::string("--json settings get ") + name);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(json(result), (nlohmann::json{{"name", name}, {"value", value}}));
  }
  EXPECT_EQ(run("settings get defaultScreenTimeGoal").out, "18000.0\n");
  EXPECT_EQ(run("settings get colorTheme").out, "system\n");
}

TEST_F(CliTest, SetThenGetRoundTripsAcrossProcesses) {
  EXPECT_EQ(run("settings set defaultPickupGoal 45").status, 0);
  EXPECT_EQ(run("settings get defaultPickupGoal").out, "45\n");
  EXPECT_EQ(run("settings set colorTheme dark").status, 0);
  EXPECT_EQ(run("settings get colorTheme --json").out, "{\"name\":\"colorTheme\",\"value\":\"dark\"}\n");
  EXPECT_EQ(run("settings set defaultFocusType countdown:600").status, 0);
  EXPECT_EQ(json(run("--json settings get defaultFocusType"))["value"],
            nlohmann::json::parse(R"({"countdown":{"duration":600.0,"reminderInterval":0.0}})"));
  EXPECT_EQ(run("--tz Europe/Berlin settings set cloudKitLastSyncDate 2026-11-22T08:30:00").status, 0);
  EXPECT_EQ(run("--tz UTC settings get cloudKitLastSyncDate").out, "2026-11-22T07:30:00Z\n");
  EXPECT_EQ(run("settings set cloudKitLastSyncDate null").status, 0);
  EXPECT_EQ(run("settings get cloudKitLastSyncDate").out, "null\n");
}

TEST_F(CliTest, BadValuesAndNamesAreRefusedAndChangeNothing) {
  ASSERT_EQ(run("settings set defaultScreenTimeGoal 3600").status, 0);
  for (
      const char* bad :
      {"settings set defaultScreenTimeGoal 1h", "settings set defaultScreenTimeGoal nan",
       "settings set defaultPickupGoal 4.5", "settings set excludeFocusTime yes", "settings set colorTheme sepia",
       "settings set defaultFocusType sprint:10", "settings set cloudKitLastSyncDate yesterday",
       "settings set deviceId X", "settings get noSuchSetting", "settings set noSuchSetting 1",
       // Of the right type but meaningless: a goal below nothing, a day that starts tomorrow.
       "settings set defaultScreenTimeGoal -5", "settings set defaultSleepTimeGoal 86401",
       "settings set startOfDayScreenTime 999999", "settings set startOfDayScreenTime 86400",
       "settings set defaultTimeForBed -1", "settings set defaultPickupGoal -1",
       "settings set defaultFocusType countdown:0",
       R"(settings set defaultFocusType '{"pomodoro":{"duration":-1,"shortBreak":300,"longBreak":900,"longBreakInterval":4}}')",
       "--locale xx_INVALID settings set defaultScreenTimeGoal 60",
       "--tz Mars/Base settings set defaultScreenTimeGoal 60",
       // Bytes that are not UTF-8 once made the next launch set the store aside.
       R"x(tag add "$(printf '\377\376')")x", R"x(settings set tarnwellFocusStatus "$(printf 'a\377')")x"}) {
    const Outcome result = run(bad);
    EXPECT_NE(result.status, 0) << bad;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << bad << ": " << result.err;
    EXPECT_TRUE(result.out.empty()) << bad;
  }
  EXPECT_EQ(run("settings get defaultScreenTimeGoal").out, "3600.0\n");
  EXPECT_EQ(run("settings get excludeFocusTime").out, "true\n");
  EXPECT_EQ(json(run("--json tag list")).size(), 3u);
}

TEST_F(CliTest, TheDeviceIdSurvivesAReinstallThroughTheKeychain) {
  const std::string id = json(run("--json info"))["deviceId"];
  EXPECT_TRUE(isUpperCaseUUIDString(id)) << id;
  std::filesystem::remove_all(container());
  EXPECT_EQ(json(run("--json info"))["deviceId"], id);
  std::filesystem::remove_all(container());
  std::filesystem::remove_all(folder.path() / "xdg" / "tarnwell" / "keychain");
  const std::string fresh = json(run("--json info"))["deviceId"];
  EXPECT_TRUE(isUpperCaseUUIDString(fresh));
  EXPECT_NE(fresh, id);
}

TEST_F(CliTest, GlobalOptionsPinTheClockZoneAndLocale) {
  const auto facts = json(run("--now 2026-11-22T10:00:00Z --tz Asia/Kolkata --locale de-DE --json info"));
  EXPECT_EQ(facts["now"], "2026-11-22T15:30:00+05:30");
  EXPECT_EQ(facts["timeZone"], "Asia/Kolkata");
  EXPECT_EQ(facts["locale"], "de_DE");
  EXPECT_EQ(facts["appGroupContainer"], (container() / "group.org.vostra.tarnwell").string());
  EXPECT_TRUE(std::filesystem::exists(container() / "group.org.vostra.tarnwell" / "console.log"));
  for (const char* bad : {"--tz Mars/Base info", "--locale xx_INVALID info", "--locale en_QQ info",
                          "--now tomorrow info", "info --unknown", ""}) {
    const Outcome result = run(bad);
    EXPECT_NE(result.status, 0) << bad;
    EXPECT_FALSE(result.err.empty()) << bad;
  }
}

TEST_F(CliTest, TheVersionIsInfosAndOpensNoInstallation) {
  const Outcome version = run("--version");
  ASSERT_EQ(version.status, 0) << version.err;
  EXPECT_FALSE(std::filesystem::exists(container()));
  const auto info = json(run("--json info"));
  EXPECT_EQ(version.out,
            "tarnwell " + info["version"].get<std::string>() + " (build " + info["build"].get<std::string>() + ")\n");
  EXPECT_EQ(run("day --version").out, version.out);
}

TEST_F(CliTest, WithoutAContainerTheInstallationLivesUnderXDG) {
  const auto facts = json(run("--json info", false));
  EXPECT_EQ(facts["appGroupContainer"],
            (folder.path() / "xdg" / "tarnwell" / "container" / "group.org.vostra.tarnwell").string());
}

TEST_F(CliTest, AFreshStoreHasVersion13ThisDeviceAndTheInitialTags) {
  ASSERT_EQ(run("device list").status, 0);
  sqlite::Connection store(container() / "group.org.vostra.tarnwell" / "Realm" / "default.realm",
                           sqlite::Connection::OpenMode::readOnly);
  EXPECT_EQ(store.userVersion(), 13);
  auto devices = store.prepare("SELECT id FROM Device");
  ASSERT_TRUE(devices.step());
  EXPECT_EQ(devices.text(0), json(run("--json info"))["deviceId"]);
  EXPECT_FALSE(devices.step());
  auto tags = store.prepare("SELECT id FROM Tag ORDER BY isDefault DESC, sort");
  std::vector<std::string> ids;
  while (tags.step()) ids.push_back(tags.text(0));
  EXPECT_EQ(ids, (std::vector<std::string>{"default", "working", "studying"}));
}

TEST_F(CliTest, PickupsAreAddedMovedListedAndDeleted) {
  const Outcome added = run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z");
  ASSERT_EQ(added.status, 0) << added.err;
  const std::string id = added.out.substr(0, added.out.size() - 1);
  EXPECT_TRUE(isUpperCaseUUIDString(id)) << added.out;
  EXPECT_EQ(run("pickup edit " + id + " 2026-11-22T08:10:00Z").status, 0);

  const auto list = json(run("--tz Europe/Berlin --json pickup list --from 2026-11-22T09:00 --to 2026-11-22T09:05"));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["id"], id);
  EXPECT_EQ(list[0]["start"], "2026-11-22T09:00:00+01:00");
  EXPECT_EQ(list[0]["end"], "2026-11-22T09:10:00+01:00");
  EXPECT_EQ(list[0]["isIgnoredForSleepTime"], false);
  for (const char* key : {"deviceId", "isDeleted"}) EXPECT_TRUE(list[0].contains(key)) << key;
  EXPECT_EQ(run("screen-time").out, "600.0\n");

  EXPECT_EQ(json(run("--json pickup ignore-for-sleep 2026-11-22T07:00:00Z 2026-11-22T09:00:00Z")),
            nlohmann::json::array({id}));
  EXPECT_EQ(json(run("--json pickup list"))[0]["isIgnoredForSleepTime"], true);
  EXPECT_EQ(run("pickup delete " + id).status, 0);
  EXPECT_EQ(run("--json pickup list").out, "[]\n");
}

TEST_F(CliTest, BadSpansAreRefusedAndWriteNothing) {
  for (const char* bad :
       {"pickup add 2026-11-22T09:00:00Z 2026-11-22T08:00:00Z", "pickup add yesterday now",
        "walk add 2026-11-22T09:00:00Z 2026-11-22T08:00:00Z", "alive edit X 2026-11-22T09:00:00Z 2026-11-22T08:00:00Z",
        "pickup edit X soon", "pickup list --from 2026-11-23 --to 2026-11-22"}) {
    const Outcome result = run(bad);
    EXPECT_EQ(result.status, 1) << bad;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << bad << ": " << result.err;
  }
  EXPECT_EQ(run("--json pickup list").out, "[]\n");
  EXPECT_EQ(run("--json walk list").out, "[]\n");
}

TEST_F(CliTest, EditsOfUnknownIdsAreQuietSuccesses) {
  EXPECT_EQ(run("pickup edit NOPE 2026-11-22T08:00:00Z").out, "NOPE\n");
  EXPECT_EQ(run("pickup delete NOPE").status, 0);
  EXPECT_EQ(run("walk edit NOPE 2026-11-22T08:00:00Z 2026-11-22T08:01:00Z").status, 0);
}

TEST_F(CliTest, WalksAliveSpansAndRepair) {
  ASSERT_EQ(run("walk add 2026-11-22T07:00:00Z 2026-11-22T07:30:00Z").status, 0);
  ASSERT_EQ(run("alive add 2026-11-22T00:00:00Z 2026-11-22T23:00:00Z").status, 0);
  EXPECT_EQ(json(run("--json walk list")).size(), 1u);
  EXPECT_EQ(json(run("--json alive list --from 2026-11-22T22:00:00Z"))[0]["end"], "2026-11-22T23:00:00Z");
  // The alive span ends after "now": a clock error that repair removes.
  EXPECT_EQ(run("--now 2026-11-22T12:00:00Z store repair").status, 0);
  EXPECT_EQ(run("--json alive list").out, "[]\n");
  EXPECT_EQ(json(run("--json walk list")).size(), 1u);
  const auto devices = json(run("--json device list"));
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0]["deviceIds"], nlohmann::json::array());
}

// The daily row of the peer's expected features, by column name.
std::map<std::string, std::string> rapidsDailyRow() {
  std::ifstream in(std::string(TARNWELL_FIXTURES) + "/rapids-test01/expected_phone_screen.csv");
  std::string header, line;
  std::getline(in, header);
  const auto split = [](const std::string& text) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (const char c : text) {
      if (c == '"') {
        quoted = !quoted;
      } else if (c == ',' && !quoted) {
        fields.emplace_back();
      } else {
        fields.back() += c;
      }
    }
    return fields;
  };
  const auto names = split(header);
  while (std::getline(in, line)) {
    const auto fields = split(line);
    if (fields[1] != "daily") continue;
    std::map<std::string, std::string> row;
    for (std::size_t i = 0; i < names.size(); ++i) row[names[i]] = fields[i];
    return row;
  }
  return {};
}

TEST_F(CliTest, APeersScreenEventsGiveItsDailyFeatures) {
  const Outcome imported = run("--tz America/New_York import --format aware '" + std::string(TARNWELL_FIXTURES) +
                               "/rapids-test01/screen_raw.csv'");
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out, "Imported 7 pickups, 0 walks and 0 alive spans from 28 rows.\n");
  const auto day = json(run("--tz America/New_York --json day 2020-06-01"));
  const auto peer = rapidsDailyRow();
  ASSERT_FALSE(peer.empty());
  const auto minutes = [&peer](const char* column) { return std::stod(peer.at(column)) * 60.0; };
  // The peer counts episodes in one-minute chunks that end 1 ms early, so its
  // sums run about a millisecond a minute short; ours round each pickup.
  EXPECT_EQ(day["pickupTimes"], std::stoi(peer.at("phone_screen_rapids_countepisodeunlock")));
  EXPECT_NEAR(day["screenTime"].get<double>(), minutes("phone_screen_rapids_sumdurationunlock"), 7 * 0.5 + 0.2);
  EXPECT_NEAR(day["longestPickup"].get<double>(), minutes("phone_screen_rapids_maxdurationunlock"), 0.1);
  EXPECT_NEAR(day["checkingEvery"].get<double>(), minutes("phone_screen_rapids_avgdurationunlock"), 0.5 + 0.1);
  EXPECT_EQ(day["pickups"][0]["start"].get<std::string>().substr(11, 8), "02:50:30");
  EXPECT_DOUBLE_EQ(std::stod(peer.at("phone_screen_rapids_firstuseafter00unlock")), 170.5);
}

TEST_F(CliTest, ImportKeepsGoodRowsAndReportsBadOnes) {
  const auto file = folder.path() / "events.csv";
  std::ofstream(file) << "kind,start,end\n"
                         "pickup,2026-11-22T08:00:00Z,2026-11-22T08:05:00Z\n"
                         "pickup,2026-11-22T09:00:00Z,2026-11-22T08:05:00Z\n"
                         "walk,2026-11-22T10:00:00Z,2026-11-22T10:20:00Z\n"
                         "nap,2026-11-22T11:00:00Z,2026-11-22T12:00:00Z\n"
                         "alive,yesterday,2026-11-22T12:00:00Z\n"
                         "alive,2026-11-22T00:00:00Z,2026-11-22T12:00:00Z\n";
  const Outcome result = run("import '" + file.string() + "' --device TABLET --json");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("line 3: the end is before the start"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("line 5: unknown kind \"nap\""), std::string::npos);
  EXPECT_NE(result.err.find("line 6: a time is not ISO 8601"), std::string::npos);
  const auto summary = json(result);
  EXPECT_EQ(summary["pickups"], 1);
  EXPECT_EQ(summary["walks"], 1);
  EXPECT_EQ(summary["alives"], 1);
  EXPECT_EQ(summary["skipped"], 3);
  EXPECT_EQ(json(run("--json pickup list --device TABLET")).size(), 1u);
  EXPECT_EQ(run("--json pickup list").out, "[]\n");
  EXPECT_EQ(run("import '" + (folder.path() / "missing.csv").string() + "'").status, 1);
  // Piped, standard error holds the skipped rows and nothing else.
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 3) << result.err;
}

TEST_F(CliTest, AFileThatIsNoImportIsRefusedWithNothingStored) {
  // Bytes of no text format: many lines, every one of them bad.
  const auto binary = folder.path() / "photo.jpg";
  {
    std::ofstream out(binary, std::ios::binary);
    std::uint32_t state = 7;
    for (int i = 0; i < 200000; ++i) {
      state = state * 1664525u + 1013904223u;
      out.put(static_cast<char>(state >> 24));
    }
  }
  const auto refusedWhole = [this](const std::string& arguments) {
    const Outcome result = run("import " + arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_TRUE(result.out.empty()) << arguments;
    EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 101) << arguments;
    EXPECT_NE(result.err.find("after 100 bad rows"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("nothing was imported\n"), std::string::npos) << result.err;
  };
  refusedWhole("'" + binary.string() + "'");
  // Good rows before the hundredth bad one are not kept either.
  const auto mixed = folder.path() / "mixed.csv";
  {
    std::ofstream out(mixed);
    for (int i = 0; i < 5; ++i) out << "pickup,2026-11-22T08:00:00Z,2026-11-22T08:05:00Z\n";
    for (int i = 0; i < 100; ++i) out << "pickup,soon,later\n";
    out << "pickup,2026-11-22T09:00:00Z,2026-11-22T09:05:00Z\n";
  }
  refusedWhole("'" + mixed.string() + "'");
  EXPECT_EQ(run("--json pickup list").out, "[]\n");

  const auto refusedInOneLine = [this](const std::string& arguments, const std::string& error) {
    const Outcome result = run("import " + arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_EQ(result.err, "tarnwell: import: " + error + "\n");
  };
  refusedInOneLine("'" + folder.path().string() + "'", "\"" + folder.path().string() + "\" is a folder, not a file");
  const auto fifo = folder.path() / "events.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  refusedInOneLine("'" + fifo.string() + "'", "\"" + fifo.string() + "\" is not a regular file");
  std::ofstream(folder.path() / "plain.csv") << "1590994230688,a,3\n";
  refusedInOneLine("--format aware '" + (folder.path() / "plain.csv").string() + "'",
                   "line 1: an AWARE file starts with a header naming timestamp, device_id and screen_status; "
                   "nothing was imported");
}

TEST_F(CliTest, LongRunsShowTheirProgressOnATerminalOnly) {
  const auto file = folder.path() / "events.csv";
  {
    std::ofstream out(file);
    for (int i = 0; i < 2000; ++i) out << "pickup,2026-11-22T08:00:00Z,2026-11-22T08:00:0" << i % 10 << "Z\n";
    out << "nap,2026-11-22T11:00:00Z,2026-11-22T12:00:00Z\n";
  }
  // `script` gives the command a terminal of its own and copies what it shows.
  const auto onATerminal = [this](const std::filesystem::path& installation, const std::string& arguments) {
    const auto typescript = folder.path() / "typescript";
    const std::string command = "script -qec \"XDG_DATA_HOME='" + (folder.path() / "xdg").string() + "' '" +
                                testing::tarnwellBinary() + "' --container '" + installation.string() + "' " +
                                arguments + "\" '" + typescript.string() + "' >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << arguments;
    return readFile(typescript);
  };
  const std::string shown = onATerminal(container(), "import '" + file.string() + "'");
  EXPECT_NE(shown.find("\rimport " + file.string() + ": "), std::string::npos) << shown;
  EXPECT_NE(shown.find("%, "), std::string::npos) << shown;
  EXPECT_NE(shown.find("line 2001: unknown kind \"nap\""), std::string::npos) << shown;
  EXPECT_NE(shown.find("Imported 2000 pickups"), std::string::npos) << shown;
  EXPECT_NE(onATerminal(folder.path() / "demo", "demo --days 3").find("\rdemo: "), std::string::npos);
}

TEST_F(CliTest, AnotherApplicationsSleepIsSharedComparedAndChosen) {
  const std::string at = "--tz UTC --now 2026-11-23T12:00:00Z ";
  // The morning's pickup changes today, which sends the night out: pinned, or
  // the real date decides whether the pickup falls in today.
  run(at + "pickup add 2026-11-22T22:00:00Z 2026-11-22T22:30:00Z");
  run(at + "pickup add 2026-11-23T07:00:00Z 2026-11-23T07:10:00Z");
  const Outcome added = run(at +
                            "health add-sleep 2026-11-22T23:00:00Z 2026-11-23T06:30:00Z "
                            "--source-bundle com.tantsissa.AutoSleep --source-name AutoSleep");
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(json(run(at + "--json day"))["sleepTime"], 30600.0);  // still the inferred night
  run(at + "--json day");
  // The night went out once, however often the day is read, beside the other application's.
  const auto samples = json(run("--json health samples --type sleep"));
  ASSERT_EQ(samples.size(), 2u) << samples;
  EXPECT_EQ(samples[0]["sourceName"], "Tarnwell");
  EXPECT_EQ(samples[0]["end"], "2026-11-23T07:00:00Z");

  const auto compared = json(run(at + "--json sleep compare --from 2026-11-22 --source com.tantsissa.AutoSleep"));
  ASSERT_EQ(compared["nights"].size(), 2u);
  EXPECT_TRUE(compared["nights"][0]["inferred"].is_null());
  EXPECT_EQ(compared["nights"][1]["differenceMinutes"]["asleep"], -30.0);
  EXPECT_EQ(compared["inference"]["durationMinutes"], 60.0);
  EXPECT_EQ(run(at + "sleep compare").status, 1) << "no source named or chosen";
  EXPECT_EQ(run(at + "sleep compare --from 1970-01-02 --source x").err,
            "tarnwell: sleep compare: at most ten years at a time\n");

  ASSERT_EQ(run("settings set defaultSleepDataSource com.tantsissa.AutoSleep").status, 0);
  const auto chosen = json(run(at + "--json day"));
  EXPECT_EQ(chosen["sleepTime"], 27000.0);
  EXPECT_EQ(chosen["sleeps"][0]["start"], "2026-11-22T23:00:00Z");
}

TEST_F(CliTest, AHealthExportIsImportedWholeOrNotAtAll) {
  const auto good = folder.path() / "export.xml", bad = folder.path() / "bad.xml";
  std::ofstream(good)
      << "<?xml version=\"1.0\"?>\n<HealthData locale=\"en_US\">\n"
         " <Record type=\"HKQuantityTypeIdentifierStepCount\" sourceName=\"Phone\" "
         "startDate=\"2026-11-22 10:00:00 +0000\" endDate=\"2026-11-22 10:05:00 +0000\" value=\"120\"/>\n"
         " <Record type=\"HKCategoryTypeIdentifierSleepAnalysis\" sourceName=\"AutoSleep\" "
         "startDate=\"2026-11-21 23:00:00 +0000\" endDate=\"2026-11-22 06:00:00 +0000\" "
         "value=\"HKCategoryValueSleepAnalysisAsleepCore\"/>\n"
         " <Record type=\"HKCategoryTypeIdentifierMindfulSession\" sourceName=\"Breathe\" "
         "startDate=\"2026-11-22 12:00:00 +0000\" endDate=\"2026-11-22 12:05:00 +0000\" "
         "value=\"HKCategoryValueNotApplicable\"/>\n</HealthData>\n";
  std::ofstream(bad) << "<HealthData>\n <Record type=\"HKCategoryTypeIdentifierSleepAnalysis\" "
                        "sourceName=\"AutoSleep\" startDate=\"2026-11-21 23:00:00 +0000\" "
                        "endDate=\"2026-11-22 06:00:00 +0000\" value=\"3\"/>\n"
                        " <Record type=\"HKCategoryTypeIdentifierSleepAnalysis\" sourceName=\"AutoSleep\" "
                        "startDate=\"late\"/>\n</HealthData>\n";
  const Outcome imported = run("--json health import '" + good.string() + "'");
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(json(imported)["imported"], 2);
  const auto samples = json(run("--json health samples"));
  ASSERT_EQ(samples.size(), 2u) << samples;
  // A known sleep application keeps its identifier, so it can be chosen as the source.
  EXPECT_EQ(samples[0]["sourceBundle"], "com.tantsissa.AutoSleep");
  EXPECT_EQ(samples[1]["sourceBundle"], "export.Breathe");

  const Outcome refused = run("health import '" + bad.string() + "'");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("line 3: the startDate \"late\" is not a date; nothing was imported"), std::string::npos)
      << refused.err;
  EXPECT_EQ(json(run("--json health samples")).size(), 2u);
  EXPECT_EQ(run("health import '" + folder.path().string() + "'").err,
            "tarnwell: health import: cannot read \"" + folder.path().string() + "\"\n");
}

TEST_F(CliTest, TheCloudFolderIsSignedInToAndItsSwitchesRefuseBadInput) {
  const auto cloud = folder.path() / "cloud";
  EXPECT_EQ(run("cloud records").err,
            "tarnwell: cloud records: this installation is not signed in to a cloud (cloud sign-in DIR|URL)\n");
  const Outcome signedIn = run("--json cloud sign-in '" + cloud.string() + "'");
  ASSERT_EQ(signedIn.status, 0) << signedIn.err;
  EXPECT_EQ(json(signedIn)["folder"], cloud.string());
  EXPECT_EQ(run("--json cloud records").out, "[]\n");

  const Outcome fault = run("--json cloud fault zoneBusy --retry-after 2.5 --times 3 --on modify");
  ASSERT_EQ(fault.status, 0) << fault.err;
  EXPECT_EQ(json(fault)["code"], 23);
  for (const char* bad :
       {"cloud fault 23x", "cloud fault 23 --on nowhere", "cloud fault 23 --times 0", "cloud fault 23 --retry-after -1",
        "cloud account sleepy", "cloud delete-zone _defaultZone"}) {
    const Outcome refused = run(bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  EXPECT_EQ(run("cloud fault clear").status, 0);
  // A zone the user deletes takes its records with it.
  ASSERT_EQ(run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  EXPECT_EQ(json(run("--json cloud records --type Pickup")).size(), 1u);
  EXPECT_EQ(json(run("--json cloud delete-zone PickupsZone"))["deletedZone"], "PickupsZone");
  EXPECT_EQ(run("--json cloud records --type Pickup").out, "[]\n");
  EXPECT_EQ(run("cloud account restricted").status, 0);
  EXPECT_EQ(run("cloud expire-tokens").status, 0);
  EXPECT_EQ(run("cloud drop-pushes 2").status, 0);
  EXPECT_EQ(run("cloud drop-completions 1").status, 0);

  // A folder that holds something else is no cloud, and is left as it was.
  const auto other = folder.path() / "photos";
  std::filesystem::create_directories(other);
  std::ofstream(other / "a.jpg") << "jpeg";
  const Outcome refused = run("cloud sign-in '" + other.string() + "'");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(other), std::filesystem::directory_iterator()), 1);
  EXPECT_EQ(run("cloud sign-out").status, 0);
  EXPECT_EQ(run("cloud expire-tokens").status, 1);
}

TEST_F(CliTest, TwoDevicesSignedInToOneCloudSeeEachOthersDays) {
  const std::string cloud = "'" + (folder.path() / "cloud").string() + "'";
  EXPECT_EQ(
      run("sync pull").err,
      "tarnwell: sync pull: nothing synced: this installation is not signed in to a cloud (cloud sign-in DIR|URL)\n");
  ASSERT_EQ(runOn("phone", "cloud sign-in " + cloud).status, 0);
  ASSERT_EQ(runOn("tablet", "cloud sign-in " + cloud).status, 0);
  const std::string phone = json(runOn("phone", "--json info"))["deviceId"];
  ASSERT_EQ(runOn("phone", "pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  EXPECT_EQ(json(runOn("phone", "--json cloud records --type Pickup")).size(), 1u) << "a write reaches the cloud";

  const Outcome pulled = runOn("tablet", "--tz UTC --now 2026-11-23T09:00:00Z --json sync pull");
  ASSERT_EQ(pulled.status, 0) << pulled.err;
  EXPECT_EQ(json(pulled), (nlohmann::json{{"state", "success"}, {"date", "2026-11-23T09:00:00Z"}}));
  const std::string day = "--tz UTC --now 2026-11-23T12:00:00Z --json day 2026-11-22";
  EXPECT_EQ(json(runOn("tablet", day))["screenTime"], nullptr) << "the phone's events count once related";
  ASSERT_EQ(runOn("tablet", "device relate " + phone).status, 0);
  EXPECT_EQ(json(runOn("tablet", day))["screenTime"], 300.0);

  const auto status = json(runOn("tablet", "--tz UTC --now 2026-11-23T10:00:00Z --json sync status"));
  EXPECT_EQ(status["accountStatus"], "available");
  EXPECT_EQ(status["syncState"]["state"], "success") << "every launch pulls";
  EXPECT_EQ(status["lastSyncDate"], "2026-11-23T10:00:00Z");

  // Back the other way: the tablet's write reaches the phone by its push.
  ASSERT_EQ(runOn("tablet", "walk add 2026-11-22T09:00:00Z 2026-11-22T09:30:00Z").status, 0);
  ASSERT_EQ(
      runOn("phone", "device relate " + json(runOn("tablet", "--json info"))["deviceId"].get<std::string>()).status, 0);
  EXPECT_EQ(json(runOn("phone", "--json walk list")).size(), 1u);
}

// One pickup added on the tablet is two commits there (its launch saves its
// device record first), so the phone may hear two pushes: each line says
// what its push brought, and the count at the end adds them up.
TEST_F(CliTest, AWatcherSaysWhatEachPushBrought) {
  const std::string cloud = "'" + (folder.path() / "cloud").string() + "'";
  ASSERT_EQ(runOn("phone", "cloud sign-in " + cloud).status, 0);
  ASSERT_EQ(runOn("tablet", "cloud sign-in " + cloud).status, 0);
  const auto on = [this](const std::string& device, const std::string& arguments) {
    return "XDG_DATA_HOME='" + (folder.path() / device / "xdg").string() + "' '" + testing::tarnwellBinary() +
           "' --container '" + (folder.path() / device / "phone").string() + "' " + arguments;
  };
  const Outcome watched = testing::runShell(
      on("phone", "sync watch --for 6") + " > '" + (folder.path() / "watch.out").string() + "' & sleep 1; " +
          on("tablet", "pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z") + " > /dev/null; wait",
      folder.path());
  ASSERT_EQ(watched.status, 0) << watched.err;
  std::istringstream lines(readFile(folder.path() / "watch.out"));
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(line, "Watching for pushes");
  int heard = 0, pickups = 0;
  while (std::getline(lines, line) && line.starts_with("Heard ")) {
    heard += std::stoi(line.substr(6));
    EXPECT_NE(line.find(" push"), std::string::npos) << line;
    if (line.find("Pickup 1)") != std::string::npos) ++pickups;
  }
  EXPECT_EQ(pickups, 1) << "the pickup came by exactly one push";
  EXPECT_EQ(line, "Stopped watching: " + std::to_string(heard) + (heard == 1 ? " push" : " pushes") + " heard");
  EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(CliTest, TheBackgroundStretchOutlivesTheProcessAndItsEventsLeaveOnReturn) {
  ASSERT_EQ(run("cloud sign-in '" + (folder.path() / "cloud").string() + "'").status, 0);
  const auto pickups = [this] { return json(run("--json cloud records --type Pickup")).size(); };
  EXPECT_EQ(run("--tz UTC --now 2026-11-23T08:00:00Z lifecycle background").out,
            "in the background since 2026-11-23T08:00:00Z\n");
  ASSERT_EQ(run("--tz UTC --now 2026-11-23T08:10:00Z pickup add 2026-11-23T08:01:00Z 2026-11-23T08:02:00Z").status, 0);
  EXPECT_EQ(pickups(), 0u) << "paused in the background";
  EXPECT_EQ(json(run("--json sync status"))["syncState"]["state"], "background");

  const Outcome back = run("--tz UTC --now 2026-11-23T08:20:00Z --json lifecycle foreground");
  ASSERT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(json(back)["state"], "success");
  EXPECT_EQ(pickups(), 1u);
  const Outcome again = run("lifecycle foreground");
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "tarnwell: lifecycle foreground: the app is not in the background (lifecycle background)\n");

  // A retry the cloud asks for an hour later is waited for on the pinned
  // clock, so the write still reaches the cloud in the same process.
  ASSERT_EQ(run("cloud fault zoneBusy --retry-after 3600 --on modify").status, 0);
  ASSERT_EQ(run("--tz UTC --now 2026-11-23T09:00:00Z pickup add 2026-11-23T08:30:00Z 2026-11-23T08:31:00Z").status, 0);
  EXPECT_EQ(pickups(), 2u);
}

TEST_F(CliTest, TheDayInJSONCarriesEveryMetric) {
  run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z");
  const auto day = json(run("--tz UTC --now 2026-11-23T12:00:00Z --json day 2026-11-22"));
  for (const char* key : {"startOfDay", "screenTime", "pickupTimes", "longestPickup", "checkingEvery", "walkingLife",
                          "indoorLife", "bestBreak", "continuouslyUsage", "firstPickupDate", "lastPickupDate",
                          "sleepTime", "sleeps", "asleepAt", "breaks", "pickups", "walks", "noDatas", "hours"}) {
    EXPECT_TRUE(day.contains(key)) << key;
  }
  EXPECT_EQ(day["startOfDay"], "2026-11-22T00:00:00Z");
  EXPECT_EQ(day["screenTime"], 300.0);
  EXPECT_EQ(day["bestBreak"], nullptr);
  EXPECT_EQ(day["hours"].size(), 24u);
  EXPECT_EQ(day["hours"][8]["interval"]["start"], "2026-11-22T08:00:00Z");
  EXPECT_EQ(day["hours"][8]["pickupTimes"], 1);
  EXPECT_EQ(day["hours"][9]["screenTime"], nullptr);
  EXPECT_NE(run("--tz UTC day 2026-11-22").out.find("Screen time         0:05:00"), std::string::npos);
  EXPECT_EQ(run("day 2026-13-01").status, 1);
}

// The sleep row once ran the source's name into the night's pieces, or into
// "none" when there was no night; without a night it names no source. And
// without a night there is no asleep-at: the library's 04:00 then is a
// stand-in, once printed as if measured.
TEST_F(CliTest, TheDayAsTextPutsTheNightsPiecesOnLinesOfTheirOwn) {
  const std::string day = "--tz UTC --now 2026-11-23T12:00:00Z day 2026-11-22";
  const Outcome empty = run(day);
  ASSERT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(empty.out.substr(0, empty.out.find('\n')),
            "Day Nov 22, 2026, 12:00:00\u202fAM to Nov 23, 12:00:00\u202fAM");
  EXPECT_NE(empty.out.find("\nAsleep at           -\nSleep               -\nBreaks"), std::string::npos) << empty.out;
  EXPECT_EQ(json(run("--json " + day))["asleepAt"], nullptr);

  run("pickup add 2026-11-21T22:00:00Z 2026-11-21T22:10:00Z");
  run("pickup add 2026-11-22T07:00:00Z 2026-11-22T07:05:00Z");
  const Outcome night = run(day);
  EXPECT_NE(night.out.find("\nAsleep at           2:35:00\u202fAM\nSleep               8:50:00 by Tarnwell\n"
                           "    Nov 21, 10:10:00\u202fPM - 7:00:00\u202fAM (8:50:00)\nBreaks"),
            std::string::npos)
      << night.out;
  EXPECT_EQ(json(run("--json " + day))["asleepAt"], "2026-11-22T02:35:00Z");
}

TEST_F(CliTest, TheDemoIsDeterministicAndWantsAFreshInstallation) {
  const std::string demo = "--tz Europe/Berlin --now 2026-11-22T21:00:00 --json demo --days 5 --seed 7";
  const Outcome first = run(demo);
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(first.err.empty()) << "no progress line when standard error is not a terminal: " << first.err;
  EXPECT_GE(json(first)["day"]["pickupTimes"].get<int>(), 80);
  EXPECT_EQ(run(demo).status, 1);  // not a fresh installation any more
  std::filesystem::remove_all(container());
  EXPECT_EQ(run(demo).out, first.out);
  const auto devices = json(run("--json device list"));
  EXPECT_EQ(devices.size(), 2u);
}

// At five on a Monday morning today is empty and so is this week: the demo
// shows Sunday, whose week is whole.
TEST_F(CliTest, TheDemoShowsAWholeDayAndWeekAtAnyHour) {
  const auto shown = json(run("--tz Europe/Berlin --now 2026-11-23T05:00:00 --json demo --days 10"));
  EXPECT_EQ(shown["day"]["startOfDay"], "2026-11-22T00:00:00+01:00");
  EXPECT_GE(shown["day"]["pickupTimes"].get<int>(), 80);
  EXPECT_TRUE(shown["day"]["sleepTime"].is_number());
  EXPECT_EQ(shown["week"]["start"], "2026-11-16T00:00:00+01:00");
  EXPECT_GT(shown["week"]["pickupTimes"]["total"].get<int>(), 7 * 80);
  const auto& entries = shown["chart"]["entries"];
  ASSERT_EQ(entries.size(), 7u);
  for (const auto& entry : entries) EXPECT_GT(entry["y"].get<double>(), 3600) << entry;
  EXPECT_TRUE(shown["streaks"].contains("screenTimeCombo"));
  EXPECT_GT(shown["made"]["focuses"].get<int>(), 0);

  // On a Wednesday the week of yesterday is half in the future: the chart is
  // of the last whole week.
  std::filesystem::remove_all(container());
  const auto wednesday = json(run("--tz Europe/Berlin --now 2026-11-25T05:00:00 --json demo"));
  EXPECT_EQ(wednesday["day"]["startOfDay"], "2026-11-24T00:00:00+01:00");
  EXPECT_EQ(wednesday["chart"]["interval"]["start"], "2026-11-16T00:00:00+01:00");
  for (const auto& entry : wednesday["chart"]["entries"]) EXPECT_GT(entry["y"].get<double>(), 3600) << entry;
}

TEST_F(CliTest, TheDemosSuggestionsWorkAsPrinted) {
  const Outcome demo = run("--tz Europe/Berlin --now 2026-11-23T05:00:00 demo --days 3");
  ASSERT_EQ(demo.status, 0) << demo.err;
  const auto next = demo.out.find("Try next:");
  ASSERT_NE(next, std::string::npos) << demo.out;
  std::istringstream lines(demo.out.substr(next));
  int tried = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("  ", 0) != 0 || line.find("--container") == std::string::npos) continue;
    // As the person who ran the demo runs them: same keychain, in a folder of their own.
    const std::string command = "cd '" + folder.path().string() + "' && XDG_DATA_HOME='" +
                                (folder.path() / "xdg").string() + "'" + line + " >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << line;
    ++tried;
  }
  EXPECT_GE(tried, 5);
}

TEST_F(CliTest, FocusTimeLeavesScreenTimeInTheDay) {
  run("pickup add 2026-11-22T08:00:00Z 2026-11-22T09:00:00Z");
  const std::string day = "--tz UTC --now 2026-11-23T12:00:00Z --json day 2026-11-22";
  EXPECT_EQ(json(run(day))["screenTime"], 3600.0);
  const Outcome focus = run("--json focus add 2026-11-22T08:20:00Z 2026-11-22T08:40:00Z --tag working");
  ASSERT_EQ(focus.status, 0) << focus.err;
  EXPECT_EQ(json(focus)["progress"], 1200.0);
  const auto cut = json(run(day));
  EXPECT_EQ(cut["screenTime"], 2400.0);
  EXPECT_EQ(cut["pickupTimes"], 2);  // the session split the pickup in two
  EXPECT_EQ(run("settings set excludeFocusTime false").status, 0);
  EXPECT_EQ(json(run(day))["screenTime"], 3600.0);
}

TEST_F(CliTest, TagsAreMadeOrderedSummarisedAndRefusedWhenBad) {
  const Outcome added = run("--json tag add Reading --emoji 📚 --color '#336699' --goal '>=3600' --type countdown:1500");
  ASSERT_EQ(added.status, 0) << added.err;
  const std::string id = json(added)["id"];
  EXPECT_EQ(json(added)["focusGoal"], nlohmann::json::parse(R"({"moreThanOrEqualTo":3600.0})"));
  EXPECT_EQ(run("tag move " + id + " --after working").status, 0);
  const auto tags = json(run("--json tag list --no-default"));
  ASSERT_EQ(tags.size(), 3u);
  EXPECT_EQ(tags[0]["id"], id);
  EXPECT_EQ(run("--now 2026-11-22T20:00:00Z focus add 2026-11-22T10:00:00Z 2026-11-22T11:00:00Z --tag " + id).status,
            0);
  EXPECT_EQ(run("--now 2026-11-22T20:00:00Z tag progress " + id).out, "100%\n");
  EXPECT_EQ(run("--now 2026-11-23T20:00:00Z tag streak " + id).out, "streak 1 day\n");
  for (const char* bad : {"tag add X --goal 3600", "tag add X --color red", "tag add X --type sprint:60",
                          "tag edit NOPE --title Y", "tag delete default",
                          "focus add 2026-11-22T11:00:00Z "
                          "2026-11-22T10:00:00Z",
                          "focus add 2026-11-22T10:00:00Z 2026-11-22T11:00:00Z --tag NOPE"}) {
    const Outcome refused = run(bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  EXPECT_EQ(json(run("--json tag list")).size(), 4u);
  EXPECT_EQ(json(run("--json focus list")).size(), 1u);
}

TEST_F(CliTest, AFocusResetOfAllDevicesLeavesTheThreeInitialTagsNewlyMade) {
  run("--now 2026-11-20T10:00:00Z tag add Gone");
  run("--now 2026-11-20T10:00:00Z focus add 2026-11-20T08:00:00Z 2026-11-20T09:00:00Z --tag working");
  const Outcome reset = run("--now 2026-11-22T10:00:00Z reset focus");
  ASSERT_EQ(reset.status, 0) << reset.err;
  const auto tags = json(run("--json tag list"));
  ASSERT_EQ(tags.size(), 3u);
  const char* ids[] = {"default", "working", "studying"};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(tags[i]["id"], ids[i]);
    EXPECT_EQ(tags[i]["created"], "2026-11-22T10:00:00Z");
  }
  EXPECT_EQ(json(run("--json focus list")).size(), 0u);
}

TEST_F(CliTest, AnExportWritesSixFilesOfOneDate) {
  const auto out = folder.path() / "export";
  std::filesystem::create_directories(out);
  const Outcome result = run("--now 2026-11-22T10:00:00Z --json export csv --out '" + out.string() + "'");
  ASSERT_EQ(result.status, 0) << result.err;
  const auto files = json(result);
  ASSERT_EQ(files.size(), 6u);
  for (const auto& file : files) {
    EXPECT_EQ(std::filesystem::path(file.get<std::string>()).filename().string().rfind("2026-11-22 10:00:00 +0000-", 0),
              0u);
  }
  EXPECT_EQ(readFile(files[5].get<std::string>()), "id,deviceId,start,end");
  EXPECT_EQ(run("export csv --out '" + (folder.path() / "missing").string() + "'").status, 1);
}

TEST_F(CliTest, FormatShowsNumbersAsTheAppDoes) {
  EXPECT_EQ(run("format duration 86400").out, "24h\n");
  EXPECT_EQ(run("format duration 3599").out, "59m\n");
  EXPECT_EQ(run("format timer 90000").out, "25:00:00\n");
  EXPECT_EQ(run("format size 1025").out, "1.00 KB\n");
  EXPECT_EQ(run("--tz UTC --locale en_US --now 2026-11-22T10:00:00Z format time 52200").out, "2:30PM\n");
  EXPECT_EQ(run("format timer soon").status, 1);
}

TEST_F(CliTest, ChartsCarryTheWholeModelAndRefuseUnknownMetrics) {
  run("pickup add 2026-11-20T08:00:00Z 2026-11-20T09:00:00Z");
  run("pickup add 2026-11-21T08:00:00Z 2026-11-21T08:30:00Z");
  const std::string at = "--tz UTC --now 2026-11-22T12:00:00Z ";
  const Outcome week = run(at + "--json chart screenTime --range week");
  ASSERT_EQ(week.status, 0) << week.err;
  const auto chart = json(week);
  EXPECT_EQ(chart["dataType"], "screenTime");
  EXPECT_EQ(chart["range"], "week");
  ASSERT_EQ(chart["entries"].size(), 7u);
  EXPECT_EQ(chart["totalValue"], 5400.0);
  EXPECT_EQ(chart["averageValue"], 2700.0);
  EXPECT_EQ(chart["baseline"], 18000.0);
  EXPECT_EQ(chart["maximumValue"], 3600.0);
  for (const char* key : {"yAxisMaximum", "yAxisLabelCount", "xAxisLabelCount", "minimumLabel", "subtitle",
                          "averageLabel", "totalLabel", "averageLine", "isEditable"}) {
    EXPECT_TRUE(chart.contains(key)) << key;
  }
  EXPECT_EQ(json(run(at + "--json chart pickups --range year"))["entries"].size(), 12u);
  EXPECT_EQ(json(run(at + "--json chart screenTime --range day --date 2026-11-20"))["entries"].size(), 24u);
  EXPECT_EQ(run(at + "chart focus --range month").status, 0);
  EXPECT_EQ(run(at + "chart tag:working").status, 0);
  EXPECT_NE(run(at + "chart screenTime").out.find('#'), std::string::npos);
  for (const char* bad : {"chart Pickups", "chart screenTime --range decade", "chart screenTime --date soon"}) {
    const Outcome refused = run(at + bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
}

TEST_F(CliTest, StreaksAndSummariesOfDays) {
  run("pickup add 2026-11-20T08:00:00Z 2026-11-20T09:00:00Z");
  run("pickup add 2026-11-21T08:00:00Z 2026-11-21T08:30:00Z");
  const std::string at = "--tz UTC --now 2026-11-22T12:00:00Z ";
  const auto streaks = json(run(at + "--json streaks"));
  EXPECT_EQ(streaks["screenTimeCombo"], nlohmann::json::parse(R"({"succeed": 2})"));
  EXPECT_EQ(streaks["pickupCombo"], nlohmann::json::parse(R"({"succeed": 2})"));
  const auto summary = json(run(at + "--json summary --from 2026-11-19 --count 3"));
  EXPECT_EQ(summary["screenTime"]["total"], 5400.0);
  EXPECT_EQ(summary["screenTime"]["average"], 2700.0);  // the day without data does not count
  EXPECT_EQ(summary["pickupTimes"]["total"], 2);
  EXPECT_EQ(summary["averageFirstPickup"], "08:00:00");
  EXPECT_EQ(run(at + "summary --count -1").status, 1);
}

TEST_F(CliTest, WidgetsReadTodayAsTheDayCommandDoesAndTheWeekAndMonthOfNow) {
  const std::string now = "--tz UTC --now 2026-11-22T12:00:00Z ";
  ASSERT_EQ(run(now + "pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  ASSERT_EQ(run(now + "pickup add 2026-11-22T09:00:00Z 2026-11-22T09:20:00Z").status, 0);
  const auto shown = run("--tz UTC --json widgets show");
  ASSERT_EQ(shown.status, 0) << shown.err;
  const auto published = json(shown);
  const auto day = json(run(now + "--json day"));
  const auto& today = published["screenTimeToday"];
  for (const char* metric : {"startOfDay", "screenTime", "pickupTimes", "longestPickup", "checkingEvery", "walkingLife",
                             "firstPickupDate", "lastPickupDate", "sleepTime", "bestBreak", "continuouslyUsage"}) {
    EXPECT_EQ(today.value(metric, nlohmann::json()), day[metric]) << metric;
  }
  EXPECT_EQ(today["screenTime"], 1500.0);
  const auto& week = published["screenTimeThisWeek"]["days"];
  ASSERT_EQ(week.size(), 7u);
  EXPECT_EQ(week[0]["startOfDay"], "2026-11-16T00:00:00Z");
  EXPECT_EQ(week[6], today);
  EXPECT_EQ(published["screenTimeThisMonth"]["days"].size(), 30u);
  EXPECT_EQ(published["widgetScreenTimeGoal"], 18000.0);
  EXPECT_EQ(published["focusTimeToday"]["tags"].size(), 3u);
  EXPECT_EQ(published["focusTimeThisYear"], nullptr) << "no widget shows the year";

  ASSERT_EQ(run("widgets install FocusSummaryExtraLargeConfigurationIntent --family extra_large").status, 0);
  EXPECT_EQ(json(run("--json widgets installed"))[0]["family"], "extra_large");
  run(now + "tag list");
  EXPECT_EQ(json(run("--json widgets show"))["focusTimeThisYear"].size(), 365u);
  EXPECT_EQ(run("widgets install NoSuchIntent").status, 1);
  EXPECT_EQ(run("widgets uninstall FocusSummaryExtraLargeConfigurationIntent").status, 0);
  EXPECT_EQ(run("widgets uninstall FocusSummaryExtraLargeConfigurationIntent").status, 1);
}

TEST_F(CliTest, EachTagChangeReachesTheWidgetListsAndLeavesOneFocusReload) {
  const auto focusReloads = [this] {
    std::size_t count = 0;
    for (const auto& reload : json(run("--json widgets reloads"))) {
      count += reload["kind"] == "org.vostra.tarnwell.widget.focus";
    }
    return count;
  };
  const auto listed = [this](const char* key) {
    const auto shown = json(run("--json widgets show"));
    std::vector<std::string> ids;
    for (const auto& tag : shown[key]) ids.push_back(tag["id"]);
    return ids;
  };
  focusReloads();
  const std::string id = json(run("--json tag add Reading"))["id"];
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(listed("WidgetDatabase.tags"), (std::vector<std::string>{"default", "working", "studying", id}));
  // Newest first: the initial tags were made together, in an order of microseconds.
  const auto intents = listed("IntentDatabase.tags");
  ASSERT_EQ(intents.size(), 3u);
  EXPECT_EQ(intents.front(), id);

  run("tag move " + id + " --after working");
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(listed("WidgetDatabase.tags"), (std::vector<std::string>{"default", id, "working", "studying"}));
  run("tag archive " + id);
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(listed("IntentDatabase.tags").size(), 2u);
  run("tag unarchive " + id);
  focusReloads();
  run("tag delete " + id);
  EXPECT_EQ(focusReloads(), 1u);
  EXPECT_EQ(listed("WidgetDatabase.tags"), (std::vector<std::string>{"default", "working", "studying"}));
}

TEST_F(CliTest, TheFocusUnderWayIsPublishedWithItsControlReloads) {
  run("tag list");
  run("widgets reloads");
  const auto state =
      run("--json focus state --tag working --type countdown:1500 --state focusing --spent 60 --goal 1500");
  ASSERT_EQ(state.status, 0) << state.err;
  EXPECT_EQ(json(state)["tag"]["id"], "working");
  EXPECT_EQ(json(run("--json widgets show"))["currentFocusState"]["state"], "focusing");
  std::vector<std::string> controls;
  for (const auto& reload : json(run("--json widgets reloads"))) {
    if (reload["centre"] == "controls") controls.push_back(reload["kind"]);
  }
  EXPECT_EQ(controls.size(), 3u);
  EXPECT_EQ(json(run("--json focus state none"))["focusType"],
            nlohmann::json::parse(R"({"addTime":{"duration":0.0,"reminderInterval":0.0}})"));
  for (const char* bad : {"focus state --tag NOPE --type addTime --state idle --spent 0 --goal 0",
                          "focus state --type addTime --state dozing --spent 0 --goal 0",
                          "focus state --type addTime --state idle --spent -1 --goal 0", "focus state none --paused",
                          "focus state --type addTime"}) {
    const Outcome refused = run(bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
}

TEST_F(CliTest, LinksAreWrittenLetterForLetterAndReadBack) {
  EXPECT_EQ(run("link openFromWidget").out, "tarnwell://x-callback-url/open-from-widget\n");
  EXPECT_EQ(run("link viewFocus --tag all").out,
            "tarnwell://x-callback-url/view-focus-time?dateRange=week&tagId=All\n");
  EXPECT_EQ(run("link currentFocus --action skipBreak").out,
            "tarnwell://x-callback-url/current-focus?action=skipBreak\n");
  EXPECT_EQ(run("link shareFocus --progress 0.5 --goal 1800").out,
            "tarnwell://x-callback-url/share-focus?goal=1800.0&progress=0.5\n");
  EXPECT_EQ(run("link viewScreenTime --range month --widget-name Usage --widget-family corner").out,
            "tarnwell://x-callback-url/view-screen-time?widget_family=corner&widget_name=Usage\n");

  const auto parsed = json(
      run("--json link parse 'tarnwell://x-callback-url/start-focus?widget_family=corner&tagId=T1&widget_name=Usage'"));
  EXPECT_EQ(parsed["action"], "start-focus");
  EXPECT_EQ(parsed["parameters"]["tagId"], "T1");
  EXPECT_EQ(parsed["widgetContext"]["family"], "small") << "corner is written, never read back";
  EXPECT_EQ(parsed["readable"], true);

  for (const char* bad :
       {"link startFocus --tag 'my tag'", "link shareFocus --progress 1 --goal 2 --focus-id 'ä'", "link noSuchCase",
        "link currentFocus --action Pause", "link currentFocus --tag T1", "link viewFocus --range fortnight",
        "link openFromWidget --widget-family small", "link parse 'not a link'"}) {
    const Outcome refused = run(bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << bad << ": " << refused.err;
    EXPECT_TRUE(refused.out.empty()) << bad;
  }
}

TEST_F(CliTest, ShortcutsAnswerAsThePlatformAsksWithoutTouchingTheStore) {
  const auto started = json(run("--json intent handle StartToFocusIntent"));
  EXPECT_EQ(started["code"], 2);
  EXPECT_EQ(started["activityType"], "org.vostra.tarnwell.startToFocus");
  EXPECT_EQ(started["userInfo"], nlohmann::json::object());
  EXPECT_FALSE(std::filesystem::exists(container() / "group.org.vostra.tarnwell" / "Realm")) << "an extension";

  const std::string at = "--tz UTC --now 2026-11-22T10:00:00Z --json ";
  const auto recorded = json(run(at + "intent handle AddFocusRecordIntent --param tag=working "
                                      "--param start=2026-11-22T09:00:00Z --param recordType=2 --param durating=1500"));
  EXPECT_EQ(recorded["userInfo"]["end"], "2026-11-22T09:25:00Z");
  EXPECT_EQ(json(run(at + "intent handle AddFocusRecordIntent --param tag=working"))["code"], 5);
  EXPECT_EQ(json(run(at + "intent resolve AddFocusRecordIntent start --param start=2026-11-22T10:00:01Z")),
            (nlohmann::json{{"result", "unsupported"}, {"reason", 1}}));
  EXPECT_EQ(json(run(at + "intent resolve AddFocusRecordIntent end --param start=2026-11-22T09:00:00Z "
                          "--param end=2026-11-22T09:00:00Z"))["result"],
            "unsupported");
  EXPECT_EQ(json(run(at + "intent resolve StartToFocusIntent duration"))["result"], "notRequired");

  // Options come from the lists the app publishes: none yet, then the intent list.
  EXPECT_EQ(json(run("--json intent options StartToFocusIntent tag")), nlohmann::json::array());
  EXPECT_EQ(json(run("--json intent options ViewFocusWidgetIntent tags")), nullptr);
  EXPECT_EQ(json(run("--json intent default FocusTimeOfDaysConfigurationIntent chartTags"))[1]["identifier"],
            "[M]total");
  const std::string id = json(run("--json tag add Reading"))["id"];
  const auto offered = json(run("--json intent options StartToFocusIntent tag"));
  EXPECT_EQ(offered[0]["identifier"], id);
  EXPECT_EQ(offered.size(), 3u) << "no default tag";
  EXPECT_EQ(json(run("--json intent options LSFocusSummaryConfigurationIntent tag"))[0]["identifier"],
            "LockScreen.AllFocusSummary");
  const auto chart =
      json(run("--json intent handle ScreenTimeOfDaysConfigurationIntent --param 'chartItems=[M]pickups'"));
  EXPECT_EQ(chart["userInfo"]["dataType"], 1);

  for (const char* bad :
       {"intent handle NoSuchIntent", "intent handle StartToFocusIntent --param focusType=4",
        "intent handle StartToFocusIntent --param nope=1", "intent handle StartToFocusIntent --param duration=long",
        "intent handle AddFocusRecordIntent --param start=yesterday", "intent resolve StartToFocusIntent nope",
        "intent options StartToFocusIntent duration", "intent handle ViewFocusWidgetIntent"}) {
    const Outcome refused = run(bad);
    EXPECT_EQ(refused.status, 1) << bad;
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << bad << ": " << refused.err;
  }
}

TEST_F(CliTest, EveryIntentClassIsAnsweredOrRefusedInOneLine) {
  // The refusal of an unknown name lists every class the host knows.
  std::string names = run("intent handle NoSuchIntent").err;
  names = names.substr(names.find("is not ") + 7);
  std::size_t handled = 0;
  for (std::size_t start = 0; start < names.size();) {
    const auto end = names.find_first_of(",\n", start);
    const std::string name = names.substr(start, end - start);
    start = names.find_first_not_of(", \n", end);
    const Outcome result = run("--json intent handle " + name);
    if (result.status == 0) {
      ++handled;
      // A record with nothing given cannot be made: failure, as designed.
      EXPECT_EQ(json(result)["code"], name == "AddFocusRecordIntent" ? 5 : 2) << name;
    } else {
      EXPECT_EQ(result.status, 1) << name;
      EXPECT_NE(result.err.find("only configures a widget"), std::string::npos) << name << ": " << result.err;
    }
  }
  EXPECT_EQ(handled, 11u);
}

TEST_F(CliTest, TheSyncSwitchFlippedWhileTheAppRunsFailsWithItsTextThenPullsAndPushes) {
  ASSERT_EQ(run("cloud sign-in '" + (folder.path() / "cloud").string() + "'").status, 0);
  ASSERT_EQ(run("pickup add 2026-11-22T08:00:00Z 2026-11-22T08:05:00Z").status, 0);
  const auto off = json(run("--json sync off"));
  EXPECT_EQ(off, (nlohmann::json{{"state", "failed"}, {"reason", "Sync with the cloud is turned off."}}));
  EXPECT_EQ(json(run("--json sync status"))["syncState"]["state"], "idle") << "a launch with sync off";
  EXPECT_EQ(json(run("--json sync on"))["state"], "success");
  EXPECT_NE(run("cloud records --type Pickup").out.find("2026-11-22T08:05:00Z"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell

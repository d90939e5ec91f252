#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/records/App.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"

namespace tarnwell {
namespace {

using widgets::AbstractFocusType;
using widgets::FocusType;

const Date t0 = Date::fromTimeIntervalSinceReferenceDate(800000000);

class RecordsTest : public testing::EnvironmentTest {};

TEST_F(RecordsTest, ThreeIntervalRules) {
  EXPECT_EQ(Pickup(t0, t0).interval(), DateInterval(t0, t0));
  EXPECT_EQ(Alive(t0, t0).interval(), DateInterval(t0, t0));
  EXPECT_FALSE(Walk(t0, t0).interval());  // a walk must have length
  EXPECT_EQ(Walk(t0, t0 + 1).interval(), DateInterval(t0, t0 + 1));
  EXPECT_FALSE(Pickup(t0 + 1, t0).interval());
  EXPECT_FALSE(Alive(t0 + 1, t0).interval());

  Focus paused(std::nullopt, t0, t0 + 2000, std::nullopt, 1500, 1500, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(paused.interval().duration(), 2000);
  Focus unmoved = paused;
  unmoved.end = t0 + 1000;
  EXPECT_EQ(unmoved.interval(), DateInterval(t0, 1500.0));
  EXPECT_FALSE(paused.failed());
  paused.progress = 1499;
  EXPECT_TRUE(paused.failed());
}

TEST(RecordsDeathTest, AnIntervalWithoutBothDatesIsAProgrammingError) {
  testing::TestEnvironment env;
  Pickup pickup(t0, t0);
  pickup.end.reset();
  EXPECT_DEATH((void)pickup.interval(), "Pickup without a start or an end");
}

TEST_F(RecordsTest, NewRecordsDrawIdsAndStampThisDevice) {
  const Pickup a(t0, t0), b(t0, t0);
  EXPECT_TRUE(isUpperCaseUUIDString(*a.id));
  EXPECT_NE(a.id, b.id);
  EXPECT_EQ(a.deviceId, "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B");
  EXPECT_TRUE(Pickup().deviceId.empty());  // blank, for the store to fill
  const Focus kept(std::string("FOCUS-1"), t0, t0, std::nullopt, 0, 0, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(kept.id, "FOCUS-1");
}

TEST_F(RecordsTest, FocusKeepsKindsAsTexts) {
  Focus focus(std::nullopt, t0, t0 + 60, "working", 60, 60, FocusType::pomodoro(1500), FocusMode::strict, "Watch");
  EXPECT_EQ(focus.typeString, "pomodoro");
  EXPECT_EQ(focus.type(), AbstractFocusType::pomodoro);
  EXPECT_EQ(focus.mode(), FocusMode::strict);
  focus.typeString = "abc";
  EXPECT_FALSE(focus.type());
  EXPECT_EQ(focus.typeString, "abc");  // unknown text stays until written
  focus.setMode(std::nullopt);
  EXPECT_FALSE(focus.modeString);
  EXPECT_FALSE(focus.mode());
  focus.modeString = "EASY";
  EXPECT_FALSE(focus.mode());
}

TEST_F(RecordsTest, FocusTypesDescribeThemselvesWithTheirLength) {
  EXPECT_EQ(localizedDescription(FocusType::pomodoro(1500)), "Pomodoro, 25m");
  EXPECT_EQ(localizedDescription(FocusType::countdown(5400)), "Countdown, 1h30m");
  EXPECT_EQ(localizedDescription(FocusType::addTime(600)), "Add Time");
}

TEST_F(RecordsTest, FocusModeDecodingNeverFails) {
  EXPECT_EQ(nlohmann::json::parse("{}").get<FocusMode>(), FocusMode::easy);
  EXPECT_EQ(nlohmann::json::parse(R"({"type":"strict"})").get<FocusMode>(), FocusMode::strict);
  EXPECT_EQ(nlohmann::json::parse(R"({"type":"hard"})").get<FocusMode>(), FocusMode::easy);
  EXPECT_EQ(nlohmann::json::parse(R"({"type":3})").get<FocusMode>(), FocusMode::easy);
  EXPECT_EQ(nlohmann::json(FocusMode::strict).dump(), R"({"type":"strict"})");
}

TEST_F(RecordsTest, FocusJSONKeysAndRequiredFields) {
  Focus focus(std::string("F"), t0, t0 + 60, std::nullopt, 60, 30, FocusType::countdown(60), std::nullopt,
              std::nullopt);
  const nlohmann::ordered_json json = focus;
  EXPECT_EQ(json.dump(),
            R"({"id":"F","deviceId":"6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B","start":800000000.0,"end":800000060.0,)"
            R"("goal":60.0,"progress":30.0,"typeString":"countdown","isDeleted":false})");
  EXPECT_EQ(json.get<Focus>(), focus);
  for (const char* required : {"deviceId", "goal", "progress", "isDeleted"}) {
    auto missing = json;
    missing.erase(required);
    EXPECT_THROW(missing.get<Focus>(), nlohmann::json::out_of_range) << required;
  }
  auto wrongType = json;
  wrongType["tagId"] = 5;
  EXPECT_THROW(wrongType.get<Focus>(), nlohmann::json::type_error);
  const auto metadata = focus.metadata();
  ASSERT_TRUE(metadata);
  EXPECT_EQ(metadata->at("progress"), 30.0);
  EXPECT_FALSE(metadata->contains("tagId"));
}

TEST_F(RecordsTest, AppJSONRequiresCreatedAndIsDeleted) {
  const App app("414", "Pages", std::nullopt, "Productivity", std::nullopt);
  EXPECT_EQ(app.created, testing::defaultTestNow());
  const nlohmann::ordered_json json = app;
  EXPECT_EQ(json.dump(), R"({"trackId":"414","trackName":"Pages","primaryGenreName":"Productivity",)"
                         R"("created":817034400.0,"isDeleted":false})");
  EXPECT_EQ(json.get<App>(), app);
  auto missing = json;
  missing.erase("created");
  EXPECT_THROW(missing.get<App>(), nlohmann::json::out_of_range);
}

TEST_F(RecordsTest, AppStructureTellsSystemAppsApart) {
  AppStructure app{414, "com.example.pages", "Pages", std::nullopt, std::nullopt, std::nullopt, std::nullopt};
  EXPECT_EQ(app.trackId(), "414");
  EXPECT_EQ(app.subtitle(), "Unknown");
  app.trackIdInNumber = 0;
  EXPECT_EQ(app.trackId(), "com.example.pages");
  app.primaryGenreNameInEnglish = "Utilities";
  app.supportedDevices = std::vector<std::string>{"iPadPro", "iPadAir"};
  EXPECT_EQ(app.subtitle(), "Utilities (iPad)");
  app.supportedDevices->push_back("iPhone15");
  EXPECT_EQ(app.subtitle(), "Utilities");

  const AppStructure safari = AppStructure::make(AppStructure::SystemAppWithoutID::safari);
  EXPECT_EQ(safari.trackId(), "com.apple.mobilesafari");
  EXPECT_EQ(safari.trackName, "Safari");
  EXPECT_EQ(AppStructure::make(AppStructure::SystemAppWithoutID::health).urlScheme, "x-apple-health://");
  EXPECT_EQ(safari.withURLScheme("x://").urlScheme, "x://");

  const nlohmann::ordered_json json = app;
  EXPECT_EQ(json.get<AppStructure>(), app);
  EXPECT_EQ(json.at("trackId"), 0);
  EXPECT_EQ(json.at("primaryGenreName"), "Utilities");
  for (const char* required : {"trackId", "bundleId", "trackName"}) {
    auto missing = json;
    missing.erase(required);
    EXPECT_THROW(missing.get<AppStructure>(), nlohmann::json::out_of_range) << required;
  }
  EXPECT_EQ(AppStructure::systemAppIds().size(), 14u);
  EXPECT_EQ(AppStructure::recommendAppIds().size(), 22u);
  EXPECT_EQ(AppStructure::defaultAppIds().size(), 3u);
}

TEST_F(RecordsTest, CSVFormsWithTheirQuirks) {
  Pickup pickup(t0, t0 + 60);
  pickup.id = "P";
  pickup.deviceId = "D";
  EXPECT_EQ(Pickup::csvColumns, "id,deviceId,start,end, isIgnoredForSleepTime");
  EXPECT_EQ(pickup.csvRecord(), R"(P,D,"2026-05-09 06:13:20 +0000","2026-05-09 06:14:20 +0000",false)");
  pickup.end.reset();
  EXPECT_EQ(pickup.csvRecord(), "");

  Focus focus(std::string("F"), t0, t0 + 60, std::nullopt, 1500, 1500, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(focus.csvRecord(), "");  // a session without a tag leaves an empty line
  focus.tagId = "working";
  focus.deviceId = "D";
  EXPECT_EQ(focus.csvRecord(),
            R"(F,D,"working","2026-05-09 06:13:20 +0000","2026-05-09 06:14:20 +0000",1500.0,1500.0)");

  Tag tag("T", R"(Say "hi", now)", std::nullopt, "#000000", false, 0);
  EXPECT_EQ(tag.csvRecord(), R"(T,"2026-11-22 10:00:00 +0000","Say "hi", now","-",false)");
  Device device("D", "Phone");
  EXPECT_EQ(device.csvRecord(), R"(D,Phone,"2026-11-22 10:00:00 +0000")");
  const App app("1", "A, B", "http://x", "Games", std::nullopt);
  EXPECT_EQ(app.csvRecord(), R"(1,"A, B",http://x,"Games")");
}

TEST_F(RecordsTest, DevicesListEachRelatedDeviceOnce) {
  Device device("A", "Phone");
  device.appendDeviceId("B");
  device.appendDeviceId("B");
  device.appendDeviceId("C");
  EXPECT_EQ(device.deviceIds, (std::vector<std::string>{"B", "C"}));
}

}  // namespace
}  // namespace tarnwell

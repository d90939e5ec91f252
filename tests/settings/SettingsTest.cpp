#include "tarnwell/settings/Settings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Keychain.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/settings/Logger.h"

namespace tarnwell {
namespace {

using widgets::FocusType;

class SettingsTest : public testing::EnvironmentTest {
 protected:
  // Counts every announcement of Settings, by name, with the thread it came on.
  void listen() {
    for (std::string_view name :
         {Settings::NotificationName::startOfDayScreenTimeChanged,
          Settings::NotificationName::defaultScreenTimeGoalChanged, Settings::NotificationName::excludeFocusTimeChanged,
          Settings::NotificationName::defaultPickupGoalChanged, Settings::NotificationName::defaultTimeForBedChanged,
          Settings::NotificationName::defaultSleepTimeGoalChanged, Settings::NotificationName::colorThemeChanged,
          Settings::NotificationName::syncToCloudKitChanged, Settings::NotificationName::defaultSleepSourceDidChange}) {
      tokens.push_back(
          NotificationCenter::defaultCenter().addObserver(std::string(name), nullptr, [this](const Notification& n) {
            EXPECT_TRUE(Environment::current().isMainThread());
            EXPECT_EQ(DispatchQueue::current(), &DispatchQueue::main());
            ++posts[n.name];
          }));
    }
  }
  int total() const {
    int sum = 0;
    for (const auto& [name, count] : posts) sum += count;
    return sum;
  }

  std::vector<NotificationToken> tokens;
  std::map<std::string, int> posts;
};

TEST_F(SettingsTest, AFreshStoreReadsTheDefaults) {
  EXPECT_EQ(Settings::defaultScreenTimeGoal(), 18000);
  EXPECT_EQ(Settings::defaultPickupGoal(), 60);
  EXPECT_TRUE(Settings::excludeFocusTime());
  EXPECT_EQ(Settings::defaultTimeForBed(), 82800);
  EXPECT_EQ(Settings::defaultSleepTimeGoal(), 28800);
  EXPECT_EQ(Settings::startOfDayScreenTime(), 0);
  EXPECT_TRUE(Settings::weekStartsFromMonday());
  EXPECT_EQ(Settings::colorTheme(), ColorTheme::system);
  EXPECT_EQ(Settings::defaultSleepDataSource(), SleepDataSource::builtIn());
  EXPECT_TRUE(Settings::syncToCloudKit());
  EXPECT_FALSE(Settings::dynamicScreenTimeGoal());
  EXPECT_FALSE(Settings::cloudKitLastSyncDate());
  // Reading a default stores nothing.
  EXPECT_FALSE(Settings::suite().contains("SettingsModule.defaultScreenTimeGoal"));
}

TEST_F(SettingsTest, AChangeIsAnnouncedOnceLaterOnTheMainQueue) {
  listen();
  Settings::setDefaultScreenTimeGoal(3600);
  Settings::setColorTheme(ColorTheme::dark);
  EXPECT_EQ(total(), 0);  // never on the caller's stack
  env.pump();
  EXPECT_EQ(posts[std::string(Settings::NotificationName::defaultScreenTimeGoalChanged)], 1);
  EXPECT_EQ(posts[std::string(Settings::NotificationName::colorThemeChanged)], 1);
  EXPECT_EQ(total(), 2);
  EXPECT_EQ(Settings::defaultScreenTimeGoal(), 3600);
}

TEST_F(SettingsTest, AnEqualValueIsStoredButNotAnnounced) {
  listen();
  Settings::setDefaultScreenTimeGoal(18000);
  Settings::setExcludeFocusTime(true);
  Settings::setDefaultSleepDataSource(SleepDataSource::builtIn());
  Settings::setDefaultSleepDataSource(std::nullopt);
  Settings::setSyncToCloudKit(true);
  env.pump();
  EXPECT_EQ(total(), 0);
  EXPECT_EQ(Settings::suite().doubleForKey("SettingsModule.defaultScreenTimeGoal"), 18000);
  // Sources are equal only when both fields are.
  Settings::setDefaultSleepDataSource(SleepDataSource{"Tarnwell", "org.vostra.other"});
  env.pump();
  EXPECT_EQ(total(), 1);
}

TEST_F(SettingsTest, EveryAnnouncingSetterPostsItsOwnName) {
  listen();
  Settings::setStartOfDayScreenTime(3600);
  Settings::setDefaultScreenTimeGoal(1);
  Settings::setExcludeFocusTime(false);
  Settings::setDefaultPickupGoal(1);
  Settings::setDefaultTimeForBed(1);
  Settings::setDefaultSleepTimeGoal(1);
  Settings::setColorTheme(ColorTheme::light);
  Settings::setSyncToCloudKit(false);
  Settings::setDefaultSleepDataSource(SleepDataSource{"Pillow", "com.neybox.Pillow"});
  Settings::setWeekStartsFromMonday(false);  // silent by design
  env.pump();
  EXPECT_EQ(posts.size(), 9u);
  EXPECT_EQ(total(), 9);
}

TEST_F(SettingsTest, TheFirstReadOfTheFocusTypeConvertsTheLegacyGoal) {
  EXPECT_EQ(Settings::defaultFocusType(), FocusType::countdown(1500));
  EXPECT_EQ(Settings::suite().doubleForKey("SettingsModule.defaultFocusGoal"), 0);
  Settings::suite().set("SettingsModule.defaultFocusType.inSuite", "{}");  // undecodable: the default type
  EXPECT_EQ(Settings::defaultFocusType(), FocusType::defaultType());
  EXPECT_EQ(Settings::suite().doubleForKey("SettingsModule.defaultFocusGoal"), 0);
}

TEST_F(SettingsTest, ALegacyGoalOfItsOwnBecomesTheCountdown) {
  Settings::suite().set("SettingsModule.defaultFocusGoal", 2700.0);
  EXPECT_EQ(Settings::defaultFocusType(), FocusType::countdown(2700));
  Settings::setDefaultFocusType(FocusType::addTime());
  EXPECT_EQ(Settings::defaultFocusType(), FocusType::addTime());
}

TEST_F(SettingsTest, WritingTheFocusTypeKeepsTheOldOneInItsKindsSlot) {
  Settings::setDefaultFocusType(FocusType::pomodoro(1200, 300, 900, 4));
  EXPECT_EQ(Settings::previousFocusTypeCountdown(), FocusType::countdown(1500));
  EXPECT_FALSE(Settings::previousFocusTypePomodoro());
  EXPECT_FALSE(Settings::previousFocusTypeAddTime());
  Settings::setDefaultFocusType(FocusType::pomodoro(3000, 300, 900, 4));
  EXPECT_EQ(Settings::previousFocusTypePomodoro(), FocusType::pomodoro(1200, 300, 900, 4));
  EXPECT_EQ(Settings::previousFocusTypeCountdown(), FocusType::countdown(1500));
  EXPECT_EQ(Settings::defaultFocusType(), FocusType::pomodoro(3000, 300, 900, 4));
}

TEST_F(SettingsTest, DeprecatedValuesMoveOnceForVersionsBefore341) {
  auto& old = UserDefaults::standard();
  old.set("SettingsModule.defaultFocusGoal", 900.0);
  old.setJSON("SettingsModule.defaultFocusType", FocusType::addTime(60));
  old.set("SettingsModule.defaultFocusTag", "working");
  old.set("SettingsModule.syncToCloudKit", false);
  old.set("SettingsModule.weekStartsFromMonday", false);
  // A suite value whose old key is absent is overwritten by the absence.
  Settings::setCloudKitLastSyncDate(Date() + 1);

  for (const char* notBefore : {"3.10", "3.4.1", "4"}) {
    Settings::migrateDeprecatedValues(notBefore);
    EXPECT_TRUE(Settings::syncToCloudKit()) << notBefore;
  }
  Settings::migrateDeprecatedValues("3.4.0");
  EXPECT_EQ(Settings::suite().doubleForKey("SettingsModule.defaultFocusGoal"), 900);
  EXPECT_EQ(Settings::suite().jsonForKey("SettingsModule.defaultFocusType.inSuite")->get<FocusType>(),
            FocusType::addTime(60));
  EXPECT_EQ(Settings::defaultFocusTagId(), "working");
  EXPECT_FALSE(Settings::syncToCloudKit());
  EXPECT_FALSE(Settings::weekStartsFromMonday());
  EXPECT_FALSE(Settings::cloudKitLastSyncDate());
  EXPECT_TRUE(Settings::syncToHealthKitSleepAnalysis());
  EXPECT_TRUE(old.boolForKey("SettingsModule.migrateDeprecatedValueToSuite"));
  EXPECT_EQ(old.stringForKey("SettingsModule.defaultFocusTag"), "working");  // old values stay

  Settings::setSyncToCloudKit(true);
  Settings::migrateDeprecatedValues("3.4.0");
  EXPECT_TRUE(Settings::syncToCloudKit());
}

TEST(CompareNumericallyTest, RunsOfDigitsCompareByValue) {
  EXPECT_LT(compareNumerically("3.4.0", "3.4.1"), 0);
  EXPECT_GT(compareNumerically("3.10", "3.4.1"), 0);
  EXPECT_EQ(compareNumerically("3.4.1", "3.4.1"), 0);
  EXPECT_LT(compareNumerically("3.4", "3.4.1"), 0);
  EXPECT_EQ(compareNumerically("3.04.1", "3.4.1"), 0);
  EXPECT_LT(compareNumerically("2.99", "3"), 0);
  EXPECT_LT(compareNumerically("", "0"), 0);
  EXPECT_GT(compareNumerically("3.4.1b", "3.4.1a"), 0);
}

TEST(Using24HoursFormatTest, ATwelveHourLocaleReadsFalseAndKeepsIt) {
  testing::TestEnvironment env({.locale = "en_US"});
  EXPECT_FALSE(Settings::using24HoursFormat());
  Environment::current().setRegion(Region("UTC", "de_DE"));
  EXPECT_FALSE(Settings::using24HoursFormat());
  Settings::setUsing24HoursFormat(true);
  EXPECT_TRUE(Settings::using24HoursFormat());
}

TEST(Using24HoursFormatTest, ATwentyFourHourLocaleReadsTrue) {
  testing::TestEnvironment env({.locale = "en_GB"});
  EXPECT_TRUE(Settings::using24HoursFormat());
}

TEST_F(SettingsTest, TheFocusStatusIsStampedEvenWhenRemoved) {
  Settings::setTarnwellFocusStatus("focusing");
  EXPECT_EQ(Settings::tarnwellFocusStatus(), "focusing");
  EXPECT_EQ(Settings::suite().doubleForKey("Tarnwell.focusStatus.timestamp"),
            testing::defaultTestNow().timeIntervalSince1970());
  env.clock().advance(60);
  Settings::setTarnwellFocusStatus(std::nullopt);
  EXPECT_FALSE(Settings::tarnwellFocusStatus());
  EXPECT_EQ(Settings::suite().doubleForKey("Tarnwell.focusStatus.timestamp"),
            testing::defaultTestNow().timeIntervalSince1970() + 60);
}

TEST_F(SettingsTest, TheDialwickTimeIsOnlyCleared) {
  Settings::suite().set("Dialwick.clockInActive", Date() + 9);
  EXPECT_EQ(Settings::dialwickInActiveTime(), Date() + 9);
  Settings::resetDialwickInActiveTime();
  EXPECT_FALSE(Settings::dialwickInActiveTime());
}

TEST(ColorThemeDeathTest, AStoredTextThatNamesNoThemeEndsTheProcess) {
  testing::TestEnvironment env;
  Settings::suite().set("SettingsModule.colorTheme", "sepia");
  EXPECT_DEATH(Settings::colorTheme(), "sepia");
}

class DeviceIdTest : public SettingsTest {
 protected:
  std::optional<std::string> suiteValue() { return Settings::suite().stringForKey("SettingsModule.deviceId.inSuite"); }
};

TEST_F(DeviceIdTest, TheVendorIdentifierIsKeptInTheSuiteAndTheKeychain) {
  const std::string id = Settings::deviceId();
  EXPECT_EQ(id, "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B");
  EXPECT_EQ(suiteValue(), id);
  EXPECT_EQ(Keychain::get(Keychain::Key::deviceId), id);
}

TEST_F(DeviceIdTest, TheSuiteComesFirstThenTheKeychain) {
  Keychain::set(Keychain::Key::deviceId, "KEYCHAIN-ID");
  Settings::suite().set("SettingsModule.deviceId.inSuite", "SUITE-ID");
  EXPECT_EQ(Settings::deviceId(), "SUITE-ID");
  EXPECT_EQ(Keychain::get(Keychain::Key::deviceId), "KEYCHAIN-ID");  // present: left alone

  // A reinstall: the suite is gone, the keychain is not.
  std::filesystem::remove_all(env.root() / "installation");
  env.relaunch();
  EXPECT_EQ(Settings::deviceId(), "KEYCHAIN-ID");
  EXPECT_EQ(suiteValue(), "KEYCHAIN-ID");
}

TEST_F(DeviceIdTest, AssigningChangesOnlyTheMemory) {
  Settings::setDeviceId("IN-MEMORY");
  EXPECT_EQ(Settings::deviceId(), "IN-MEMORY");
  EXPECT_EQ(suiteValue(), "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B");
  // Computed once per Environment: a change in the store is not seen.
  Settings::suite().set("SettingsModule.deviceId.inSuite", "OTHER");
  EXPECT_EQ(Settings::deviceId(), "IN-MEMORY");
}

TEST(DeviceIdWithoutVendorTest, ARandomIdentifierIsTakenWithAWarning) {
  testing::TestEnvironment env;
  auto configuration = env.configuration();
  configuration.device.identifierForVendor.reset();
  Environment::install(std::make_unique<Environment>(std::move(configuration)));
  Logger::start();
  const std::string id = Settings::deviceId();
  EXPECT_TRUE(isUpperCaseUUIDString(id)) << id;
  EXPECT_NE(id, "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B");
  Logger::flush();
  std::ifstream log(Logger::logFileURL());
  const std::string text{std::istreambuf_iterator<char>(log), {}};
  EXPECT_NE(text.find("[Warning]"), std::string::npos);
  EXPECT_NE(text.find("[Settings] identifierForVendor is nil, will use random UUID"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell

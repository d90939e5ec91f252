#include "tarnwell/settings/SleepDataSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

class SleepDataSourceTest : public testing::EnvironmentTest {};

TEST_F(SleepDataSourceTest, KnownApplicationsHaveTheirOwnNamesAndLogos) {
  const SleepDataSource autoSleep{"AutoSleep Tracker", "com.tantsissa.AutoSleep"};
  EXPECT_EQ(autoSleep.displayName(), "AutoSleep");
  EXPECT_EQ(autoSleep.logoImageName(), "autoSleepLogo");
  EXPECT_EQ(autoSleep.sortWeight(), 996);
  EXPECT_TRUE(SleepDataSource::builtIn().isBuiltIn());
  EXPECT_EQ(SleepDataSource::builtIn().displayName(), "Tarnwell");
}

TEST_F(SleepDataSourceTest, TheClockAndUnknownAppsShowTheirOwnName) {
  const SleepDataSource clock{"Clock", "com.apple.mobiletimer"};
  const SleepDataSource unknown{"Dreams", "com.example.dreams"};
  EXPECT_EQ(clock.displayName(), "Clock");
  EXPECT_EQ(clock.logoImageName(), "clockLogo");
  EXPECT_EQ(unknown.displayName(), "Dreams");
  EXPECT_EQ(unknown.logoImageName(), "unkownSleepApp");
  EXPECT_EQ(unknown.sortWeight(), 0);
  // Behind every known application, ahead of the unknown ones.
  EXPECT_LT(clock.sortWeight(), SleepDataSource({"", "com.xinchao.XinChaoBrainWave"}).sortWeight());
  EXPECT_GT(clock.sortWeight(), unknown.sortWeight());
}

TEST_F(SleepDataSourceTest, CoSleepIsListedBeforeSnailSleep) {
  EXPECT_GT(info(KnownSleepApp::coSleep).sortWeight, info(KnownSleepApp::snailSleep).sortWeight);
  EXPECT_EQ(knownSleepApp("com.seblong.app.IDream"), KnownSleepApp::snailSleep);
  EXPECT_EQ(knownSleepApp("com.neybox.pillow"), KnownSleepApp::unknown);  // exact match only
}

TEST_F(SleepDataSourceTest, BothFieldsMakeTheIdentity) {
  const SleepDataSource a{"Pillow", "com.neybox.Pillow"}, b{"Pillow 2", "com.neybox.Pillow"};
  EXPECT_NE(a, b);
  std::unordered_set<SleepDataSource> set{a, b, a};
  EXPECT_EQ(set.size(), 2u);
  const nlohmann::json json = a;
  EXPECT_EQ(json.dump(), R"({"bundleIdentifier":"com.neybox.Pillow","name":"Pillow"})");
  EXPECT_EQ(json.get<SleepDataSource>(), a);
  EXPECT_THROW(nlohmann::json::parse(R"({"name":"x"})").get<SleepDataSource>(), nlohmann::json::exception);
}

}  // namespace
}  // namespace tarnwell

#include "tarnwell/platform/Environment.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/TestEnvironment.h"

namespace tarnwell {
namespace {

struct Counter {
  int value = 0;
};

TEST(EnvironmentTest, ComponentsLiveAndDieWithTheirEnvironment) {
  const auto before = Environment::generation();
  {
    testing::TestEnvironment env;
    EXPECT_GT(Environment::generation(), before);
    Environment::current().component<Counter>().value = 5;
    EXPECT_EQ(Environment::current().component<Counter>().value, 5);
    env.relaunch();
    EXPECT_EQ(Environment::current().component<Counter>().value, 0);
    auto substitute = std::make_shared<Counter>();
    substitute->value = 9;
    Environment::current().setComponent(substitute);
    EXPECT_EQ(&Environment::current().component<Counter>(), substitute.get());
  }
  EXPECT_EQ(Environment::currentIfInstalled(), nullptr);
}

// A host settles before it answers and finishes before it exits: only the
// second waits for work that is owed but due later than the horizon.
TEST(EnvironmentTest, FinishingWaitsForOwedWorkAndSettlingDoesNot) {
  testing::TestEnvironment env;
  auto& environment = Environment::current();
  const Date start = Date::now();
  std::vector<double> ran;
  DispatchQueue::main().asyncAfter(0.5, [&] { ran.push_back(Date::now() - start); });
  DispatchQueue::main().asyncAfter(600,
                                   [&, owed = environment.beginActivity()] { ran.push_back(Date::now() - start); });
  DispatchQueue::main().asyncAfter(86400, [&] { ran.push_back(Date::now() - start); });
  EXPECT_EQ(environment.activityCount(), 1u);

  environment.settle(1.0);
  EXPECT_EQ(ran, std::vector<double>{0.5});
  environment.finish(1.0);
  EXPECT_EQ(ran, (std::vector<double>{0.5, 600}));
  EXPECT_EQ(environment.activityCount(), 0u) << "the token went with its block";
  EXPECT_EQ(Date::now(), start + 600) << "nothing owed is left, so the day-long wait is not taken";
}

TEST(EnvironmentTest, OnlyTheAppGroupHasAContainer) {
  testing::TestEnvironment env;
  const auto container = Environment::current().containerURL("group.org.vostra.tarnwell");
  ASSERT_TRUE(container);
  EXPECT_TRUE(std::filesystem::is_directory(*container));
  EXPECT_FALSE(Environment::current().containerURL("group.org.example.other"));
  EXPECT_EQ(Environment::current().userDefaults("group.org.vostra.tarnwell")->file().parent_path(),
            *container / "Library" / "Preferences");
  EXPECT_TRUE(std::filesystem::is_directory(Environment::current().temporaryDirectory()));
}

TEST(EnvironmentTest, SystemConfigurationFollowsXDG) {
  testing::TemporaryFolder folder;
  ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
  const auto configuration = Environment::Configuration::system(folder.path() / "phone");
  ::unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(configuration.appGroupContainer, folder.path() / "phone" / "group.org.vostra.tarnwell");
  EXPECT_EQ(configuration.privateFolder, folder.path() / "phone" / "org.vostra.tarnwell");
  EXPECT_EQ(configuration.keychainFolder, folder.path() / "tarnwell" / "keychain");
  // The vendor identifier belongs to the installation: the same folder gives the same one.
  ASSERT_TRUE(configuration.device.identifierForVendor);
  EXPECT_EQ(DeviceInfo::host(configuration.privateFolder / "Library" / "identifierForVendor").identifierForVendor,
            configuration.device.identifierForVendor);
}

TEST(RegionTest, ZonesAndLocalesAreChecked) {
  EXPECT_THROW(Region("Mars/Olympus", "en_US"), std::invalid_argument);
  EXPECT_THROW(Region("UTC", ""), std::invalid_argument);
  // Only a name: no language or country ICU knows, so no calendar or texts of its own.
  EXPECT_THROW(Region("UTC", "xx_INVALID"), std::invalid_argument);
  EXPECT_THROW(Region("UTC", "zz"), std::invalid_argument);
  EXPECT_THROW(Region("UTC", "en_QQ"), std::invalid_argument);
  EXPECT_EQ(Region("UTC", "es-419").localeId(), "es_419");
  EXPECT_EQ(Region("UTC", "en_US_POSIX").localeId(), "en_US_POSIX");
  const Region region("Europe/Berlin", "de-DE");
  EXPECT_EQ(region.localeId(), "de_DE");
  EXPECT_EQ(region.languageCode(), "de");
  EXPECT_EQ(region.regionCode(), "DE");
}

TEST(RegionTest, LocalesDifferInClockAndWeek) {
  EXPECT_EQ(Region("UTC", "en_US").dateFormat("j"), "h\u202Fa");  // a narrow no-break space
  EXPECT_EQ(Region("UTC", "en_GB").dateFormat("j"), "HH");
  EXPECT_EQ(Region("UTC", "en_US").dateFormat("dMMM"), "MMM d");
  EXPECT_EQ(Region("UTC", "en_US").firstWeekday(), 1);
  EXPECT_EQ(Region("UTC", "de_DE").firstWeekday(), 2);
  EXPECT_EQ(Region("UTC", "ar_EG").firstWeekday(), 7);
}

}  // namespace
}  // namespace tarnwell

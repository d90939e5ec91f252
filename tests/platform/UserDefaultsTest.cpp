#include "tarnwell/platform/UserDefaults.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Defaults.h"

namespace tarnwell {
namespace {

class UserDefaultsTest : public ::testing::Test {
 protected:
  testing::TemporaryFolder folder;
  std::filesystem::path file = folder.path() / "Library" / "Preferences" / "test.sqlite";
  UserDefaults store{file};
};

TEST_F(UserDefaultsTest, EveryTypeReadsBackAsItself) {
  store.set("bool", true);
  store.set("integer", std::int64_t{1} << 40);
  store.set("double", 1500.5);
  store.set("string", "text");
  store.set("date", Date::fromTimeIntervalSinceReferenceDate(123.25));
  store.set("data", Data{0, 1, 255});
  store.set("array", std::vector<std::string>{"a", "", "c"});
  EXPECT_EQ(store.object("bool"), DefaultsValue(true));
  EXPECT_EQ(store.integerForKey("integer"), std::int64_t{1} << 40);
  EXPECT_EQ(store.doubleForKey("double"), 1500.5);
  EXPECT_EQ(store.stringForKey("string"), "text");
  EXPECT_EQ(store.dateForKey("date"), Date::fromTimeIntervalSinceReferenceDate(123.25));
  EXPECT_EQ(store.dataForKey("data"), (Data{0, 1, 255}));
  EXPECT_EQ(store.stringArrayForKey("array"), (std::vector<std::string>{"a", "", "c"}));
  EXPECT_EQ(store.keys(), (std::vector<std::string>{"array", "bool", "data", "date", "double", "integer", "string"}));
}

TEST_F(UserDefaultsTest, AbsentKeysReadAsZeroOrNothing) {
  EXPECT_FALSE(store.object("missing"));
  EXPECT_FALSE(store.boolForKey("missing"));
  EXPECT_EQ(store.integerForKey("missing"), 0);
  EXPECT_EQ(store.doubleForKey("missing"), 0.0);
  EXPECT_FALSE(store.stringForKey("missing"));
  store.set("gone", 1);
  store.removeObject("gone");
  EXPECT_FALSE(store.contains("gone"));
}

TEST_F(UserDefaultsTest, NumbersAndTextsConvertLikeThePlatform) {
  store.set("double", 2.9);
  EXPECT_EQ(store.integerForKey("double"), 2);
  EXPECT_TRUE(store.boolForKey("double"));
  EXPECT_EQ(store.stringForKey("double"), "2.9");
  store.set("yes", "YES");
  EXPECT_TRUE(store.boolForKey("yes"));
  store.set("number", " 42");
  EXPECT_EQ(store.integerForKey("number"), 42);
  EXPECT_EQ(store.doubleForKey("number"), 42.0);
  store.set("no", "false");
  EXPECT_FALSE(store.boolForKey("no"));
  // A double stays a double: nothing narrows it on the way in.
  store.set("ratio", 0.4);
  EXPECT_EQ(store.object("ratio"), DefaultsValue(0.4));
  EXPECT_FALSE(store.dateForKey("ratio"));
}

TEST_F(UserDefaultsTest, JSONValuesAndDamagedText) {
  store.setJSON("json", nlohmann::json{{"name", "Pillow"}});
  EXPECT_EQ(store.jsonForKey("json")->at("name"), "Pillow");
  store.set("broken", "{not json");
  EXPECT_FALSE(store.jsonForKey("broken"));
}

TEST_F(UserDefaultsTest, AWriteOfAnotherConnectionIsSeenByTheNextRead) {
  UserDefaults otherProcess(file);
  otherProcess.set("shared", 7);
  EXPECT_EQ(store.integerForKey("shared"), 7);
  std::thread([&] { otherProcess.set("shared", 8); }).join();
  EXPECT_EQ(store.integerForKey("shared"), 8);
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNothing) {
  UserDefaults second(file);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      UserDefaults& target = t % 2 == 0 ? store : second;
      for (int i = 0; i < 50; ++i) target.set("key." + std::to_string(t) + "." + std::to_string(i), i);
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(store.keys().size(), 200u);
}

class DefaultsKeyTest : public testing::EnvironmentTest {
 protected:
  static constexpr defaults::StoreAccessor kStore = &UserDefaults::standard;
};

TEST_F(DefaultsKeyTest, AKeyReadsItsDefaultUntilWrittenAndWhenUndecodable) {
  const defaults::Key<std::vector<int>> key("numbers", {1, 2}, kStore);
  EXPECT_EQ(key.get(), (std::vector<int>{1, 2}));
  EXPECT_FALSE(key.isStored());
  key.set({3});
  EXPECT_EQ(key.get(), std::vector<int>{3});
  UserDefaults::standard().set("numbers", "[\"x\"]");
  EXPECT_EQ(key.get(), (std::vector<int>{1, 2}));
}

TEST_F(DefaultsKeyTest, AnOptionalKeyIsRemovedByWritingNothing) {
  const defaults::OptionalKey<Date> key("date", kStore);
  EXPECT_FALSE(key.get());
  key.set(Date() + 5);
  EXPECT_EQ(key.get(), Date() + 5);
  key.set(std::nullopt);
  EXPECT_FALSE(UserDefaults::standard().contains("date"));
}

}  // namespace
}  // namespace tarnwell

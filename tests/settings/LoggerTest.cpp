#include "tarnwell/settings/Logger.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "support/TestEnvironment.h"
#include "tarnwell/settings/AppEnvironment.h"
#include "tarnwell/settings/AppInfo.h"

namespace tarnwell {
namespace {

std::string contents(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Installs an Environment whose bundle is changed by `edit`.
template <class Edit>
void reinstall(testing::TestEnvironment& env, Edit edit) {
  auto configuration = env.configuration();
  edit(configuration);
  Environment::install(std::make_unique<Environment>(std::move(configuration)));
}

class LoggerTest : public testing::EnvironmentTest {};

TEST_F(LoggerTest, StartWritesTheBuildAndTheDeviceHeader) {
  EXPECT_EQ(Logger::logFileURL(), env.root() / "installation" / "group.org.vostra.tarnwell" / "console.log");
  log.info("before start");  // no destination yet: dropped
  Logger::start();
  log.info("✍️ Add Pickup", {.function = "addPickup(start:end:)"});
  Logger::flush();
  const std::string text = contents(Logger::logFileURL());
  EXPECT_EQ(text.find("before start"), std::string::npos);
  EXPECT_NE(text.find("Tarnwell Version: 0.1.0 Build: 1 PID: "), std::string::npos);
  EXPECT_NE(text.find("configureLogger() > === Device Information ===\nName: Test Device\nSystem Name: Linux\n"
                      "System Version: 6.1\nModel: x86_64\nLocalized Model: x86_64\n"
                      "Identifier for Vender: 6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B\n"),
            std::string::npos);
  const std::regex line(
      R"(2026-11-22 10:00:00\.000 \[Info\] \[main\] \[LoggerTest\.cpp:\d+\] addPickup\(start:end:\) > ✍️ Add Pickup)");
  EXPECT_TRUE(std::regex_search(text, line)) << text;
}

TEST_F(LoggerTest, TimesAreLocalAndQueuesNameTheirThread) {
  Environment::current().setRegion(Region("Asia/Tokyo", "en_US"));
  Logger::start();
  DispatchQueue queue("org.vostra.tarnwell.database");
  queue.sync([] { log.warning("from a queue"); });
  Logger::flush();
  EXPECT_NE(contents(Logger::logFileURL())
                .find("2026-11-22 19:00:00.000 [Warning] [org.vostra.tarnwell.database] [LoggerTest.cpp:"),
            std::string::npos);
}

TEST_F(LoggerTest, LinesReachTheFileInHalfASecondWithoutAFlush) {
  Logger::start();
  Logger::flush();
  log.info("first");
  log.info("second");
  const auto written = [] {
    Logger::logQueue()->sync([] {});  // a drain that is due runs first
    return contents(Logger::logFileURL());
  };
  EXPECT_EQ(written().find("first"), std::string::npos);
  env.clock().advance(0.5);
  const std::string text = written();
  ASSERT_NE(text.find("first"), std::string::npos);
  EXPECT_LT(text.find("first"), text.find("second"));
}

TEST_F(LoggerTest, AnExistingLogIsAppendedToAfterAMarker) {
  Logger::start();
  Logger::flush();
  env.relaunch();
  Logger::start();
  Logger::flush();
  const std::string text = contents(Logger::logFileURL());
  EXPECT_NE(text.find("-- ** ** ** --\n"), std::string::npos);
  EXPECT_EQ(text.find("-- ** ** ** --"), text.rfind("-- ** ** ** --"));
}

TEST_F(LoggerTest, TheFileRotatesAt2MiBKeepingThreeArchives) {
  Logger::start();
  const std::string filler(1000, 'x');
  for (int i = 0; i < 9000; ++i) log.error(filler);  // about 9.3 MB
  Logger::flush();
  const auto files = Logger::getArchivedFileURLs();
  ASSERT_EQ(files.size(), 4u);
  const auto folder = Logger::logFileURL().parent_path();
  EXPECT_EQ(files[0], Logger::logFileURL());
  EXPECT_EQ(files[1], folder / "console.1.log");
  EXPECT_EQ(files[3], folder / "console.3.log");
  EXPECT_FALSE(std::filesystem::exists(folder / "console.4.log"));
  for (const auto& file : files) EXPECT_LE(std::filesystem::file_size(file), Logger::kMaxFileSize) << file;
  EXPECT_GT(std::filesystem::file_size(files[1]), Logger::kMaxFileSize - 1200);
}

TEST_F(LoggerTest, DebugLinesAreForBetaBuildsOnly) {
  Logger::start();
  log.debug("hidden detail");
  Logger::flush();
  EXPECT_EQ(contents(Logger::logFileURL()).find("hidden detail"), std::string::npos);

  reinstall(env, [](auto& c) { c.bundle.appStoreReceiptURL = "/receipts/sandboxReceipt"; });
  Logger::start();
  log.debug("beta detail");
  Logger::flush();
  EXPECT_NE(contents(Logger::logFileURL()).find("[Debug]"), std::string::npos);
}

TEST(AppEnvironmentTest, DecidedByBuildAndReceipt) {
  testing::TestEnvironment env;
  EXPECT_EQ(AppEnvironment::current(), AppEnvironment::release);
  reinstall(env, [](auto& c) { c.bundle.appStoreReceiptURL = "/receipts/receipt"; });
  EXPECT_EQ(AppEnvironment::current(), AppEnvironment::release);
  reinstall(env, [](auto& c) { c.bundle.appStoreReceiptURL = "/receipts/sandboxReceipt"; });
  EXPECT_TRUE(AppEnvironment::isTestFlight());
  reinstall(env, [](auto& c) {
    c.bundle.isDebugBuild = true;
    c.bundle.appStoreReceiptURL = "/receipts/sandboxReceipt";
  });
  EXPECT_EQ(AppEnvironment::current(), AppEnvironment::debug);
  EXPECT_TRUE(AppEnvironment::isTestFlightOrDebug());
}

TEST(AppInfoTest, RegionAndLanguageAreSeparateFacts) {
  testing::TestEnvironment env({.locale = "en_CN"});
  EXPECT_TRUE(AppInfo::isAtChina());
  EXPECT_FALSE(AppInfo::isChineseLanguage());
  EXPECT_FALSE(AppInfo::isSimplifiedChinese());
  reinstall(env, [](auto& c) {
    c.region = Region("Asia/Taipei", "zh_TW");
    c.preferredLanguages = {"zh-Hant-TW", "en-US"};
  });
  EXPECT_TRUE(AppInfo::isChineseLanguage());
  EXPECT_TRUE(AppInfo::isTriditionalChinese());
  EXPECT_NE(AppInfo::privacyPolicyURL(), AppInfo::appStoreURL());
}

TEST(AppInfoTest, BundleTextsFallBack) {
  testing::TestEnvironment env;
  EXPECT_EQ(AppInfo::versionString(), "0.1.0");
  EXPECT_EQ(AppInfo::displayName(), "Tarnwell");
  reinstall(env, [](auto& c) {
    c.bundle.infoDictionary.clear();
    c.bundle.localizedInfoDictionary = {{"CFBundleDisplayName", "Tarnwell (EN)"}};
  });
  EXPECT_EQ(AppInfo::versionString(), "Unknown version");
  EXPECT_EQ(AppInfo::buildString(), "Unknown Build");
  EXPECT_EQ(AppInfo::displayName(), "Tarnwell (EN)");
}

}  // namespace
}  // namespace tarnwell

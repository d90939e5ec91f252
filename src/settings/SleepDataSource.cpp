#include "tarnwell/settings/SleepDataSource.h"

#include <array>
#include <nlohmann/json.hpp>

#include "tarnwell/platform/Localization.h"

namespace tarnwell {
namespace {

// Snail Sleep and CoSleep carry their weights crossed, and the fallback logo
// is spelled "unkownSleepApp": both are the names the assets and lists use.
constexpr std::array<KnownSleepAppInfo, 14> kKnownSleepApps = {{
    {"org.vostra.tarnwell", "Sleep.App.Tarnwell", "tarnwellLogo", 1000},
    {"com.happiest.sleepiest", "Sleep.App.Sleepiest", "sleepiestLogo", 999},
    {"com.neybox.Pillow", "Sleep.App.Pillow", "pillowLogo", 998},
    {"com.developingperspective.SleepPlusPlus", "Sleep.App.Sleep++", "sleepPlusPlusLogo", 997},
    {"com.tantsissa.AutoSleep", "Sleep.App.AutoSleep", "autoSleepLogo", 996},
    {"com.lexwarelabs.goodmorning", "Sleep.App.SleepCycle", "sleepCycleLogo", 995},
    {"com.apalonapps.smartalarmfree", "Sleep.App.Sleepzy", "sleepzyLogo", 994},
    {"com.bendingspoonsapps.SleepHelp", "Sleep.App.SleepHelp", "sleepHelpLogo", 993},
    {"com.seekrtech.sleep", "Sleep.App.SleepTown", "sleepTownLogo", 992},
    {"com.moreless.tide", "Sleep.App.Tide", "tideLogo", 991},
    {"com.seblong.app.IDream", "Sleep.App.SnailSleep", "snailSleepLogo", 989},
    {"com.xinchao.XinChaoBrainWave", "Sleep.App.CoSleep", "coSleepLogo", 990},
    {"com.apple.mobiletimer", "", "clockLogo", 988},
    {"", "", "unkownSleepApp", 0},
}};

}  // namespace

const KnownSleepAppInfo& info(KnownSleepApp app) { return kKnownSleepApps[static_cast<std::size_t>(app)]; }

KnownSleepApp knownSleepApp(std::string_view bundleIdentifier) {
  for (std::size_t row = 0; row + 1 < kKnownSleepApps.size(); ++row) {
    if (kKnownSleepApps[row].bundleIdentifier == bundleIdentifier) return static_cast<KnownSleepApp>(row);
  }
  return KnownSleepApp::unknown;
}

SleepDataSource SleepDataSource::builtIn() { return {"Tarnwell", "org.vostra.tarnwell"}; }

std::string SleepDataSource::displayName() const {
  const auto key = info(knownApp()).displayNameKey;
  return key.empty() ? name : localized(key);
}

void to_json(nlohmann::json& json, const SleepDataSource& source) {
  json = nlohmann::json{{"name", source.name}, {"bundleIdentifier", source.bundleIdentifier}};
}

void from_json(const nlohmann::json& json, SleepDataSource& source) {
  source.name = json.at("name").get<std::string>();
  source.bundleIdentifier = json.at("bundleIdentifier").get<std::string>();
}

}  // namespace tarnwell

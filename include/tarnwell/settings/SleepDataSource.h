// SleepDataSource: an application that writes sleep to the health store.
//
// The system infers sleep from phone use by itself; the user may pick another
// application's sleep instead. A source is named as the health store names
// it; the applications the system knows have a display name, a logo and a
// weight that orders them in lists. The type lives with the settings, whose
// value it is; the samples themselves are the health manager's.

#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

// The sleep applications known by identifier, in table order. `unknown`
// stands for every other identifier.
enum class KnownSleepApp {
  tarnwell,
  sleepiest,
  pillow,
  sleepPlusPlus,
  autoSleep,
  sleepCycle,
  sleepzy,
  sleepHelp,
  sleepTown,
  tide,
  snailSleep,
  coSleep,
  clock,
  unknown,
};

struct KnownSleepAppInfo {
  // Empty for `unknown`.
  std::string_view bundleIdentifier;
  // Localization key of the display name; empty where the source's own name is shown.
  std::string_view displayNameKey;
  std::string_view logoImageName;
  // Higher first in lists of sources.
  int sortWeight;
};

const KnownSleepAppInfo& info(KnownSleepApp app);
// Exact match of the identifier; `unknown` for anything else.
KnownSleepApp knownSleepApp(std::string_view bundleIdentifier);

struct SleepDataSource {
  std::string name;
  std::string bundleIdentifier;

  // The system itself: "Tarnwell", "org.vostra.tarnwell". Selecting it means
  // sleep is inferred from phone use.
  static SleepDataSource builtIn();

  KnownSleepApp knownApp() const { return knownSleepApp(bundleIdentifier); }
  bool isBuiltIn() const { return knownApp() == KnownSleepApp::tarnwell; }
  // The localized name of a known application, otherwise `name`.
  std::string displayName() const;
  std::string_view logoImageName() const { return info(knownApp()).logoImageName; }
  int sortWeight() const { return info(knownApp()).sortWeight; }

  friend bool operator==(const SleepDataSource&, const SleepDataSource&) = default;
};

// A source with the asleep intervals it wrote.
struct SleepDataWithDataSource {
  SleepDataSource dataSource;
  std::vector<DateInterval> sleeps;
  friend bool operator==(const SleepDataWithDataSource&, const SleepDataWithDataSource&) = default;
};

// {"name": ..., "bundleIdentifier": ...}; both keys are required on decoding.
void to_json(nlohmann::json& json, const SleepDataSource& source);
void from_json(const nlohmann::json& json, SleepDataSource& source);

}  // namespace tarnwell

template <>
struct std::hash<tarnwell::SleepDataSource> {
  std::size_t operator()(const tarnwell::SleepDataSource& source) const noexcept {
    const std::size_t a = std::hash<std::string>{}(source.name);
    return a ^ (std::hash<std::string>{}(source.bundleIdentifier) + 0x9e3779b97f4a7c15ULL + (a << 6) + (a >> 2));
  }
};

// App and AppStructure: the apps the user allows.
//
// App is the stored row of an allowed app, keyed by `trackId` (the app
// store's numeric id as text, or a bundle identifier for a system app).
// AppStructure is the catalogue form of an app, as a store look-up returns
// it and the app picker shows it; it is not stored.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/records/Properties.h"

namespace tarnwell {

struct App {
  static constexpr std::string_view className = "App";
  static constexpr std::string_view csvColumns = "trackId,trackName,artworkUrl100,primaryGenreName";

  std::optional<std::string> trackId;
  std::optional<std::string> trackName;
  // A 100-pixel icon.
  std::optional<std::string> artworkUrl100;
  // The genre, in English.
  std::optional<std::string> primaryGenreName;
  // The scheme that opens the app.
  std::optional<std::string> urlScheme;
  // When it was added; the app list is in this order.
  Date created;
  bool isDeleted = false;

  App() = default;
  // `created` is now.
  App(std::string trackId, std::string trackName, std::optional<std::string> artworkUrl100,
      std::optional<std::string> primaryGenreName, std::optional<std::string> urlScheme);

  // trackId,"trackName",artworkUrl100,"primaryGenreName": empty when any is missing.
  std::string csvRecord() const;

  static constexpr auto properties() {
    return std::tuple{records::primaryKey("trackId", &App::trackId),
                      records::property("trackName", &App::trackName),
                      records::property("artworkUrl100", &App::artworkUrl100),
                      records::property("primaryGenreName", &App::primaryGenreName),
                      records::property("urlScheme", &App::urlScheme),
                      records::property("created", &App::created),
                      records::property("isDeleted", &App::isDeleted)};
  }
  friend bool operator==(const App&, const App&) = default;
};

// The five strings are optional both ways; "created" and "isDeleted" are
// required on decoding.
void to_json(nlohmann::ordered_json& json, const App& app);
void from_json(const nlohmann::ordered_json& json, App& app);

struct AppStructure {
  // 0 for a system app without a store id.
  std::int64_t trackIdInNumber = 0;
  std::string bundleId;
  std::string trackName;
  std::optional<std::string> artworkUrl100;
  std::optional<std::vector<std::string>> supportedDevices;
  std::optional<std::string> primaryGenreNameInEnglish;
  std::optional<std::string> urlScheme;

  // The store id as text when there is one, otherwise the bundle identifier.
  std::string trackId() const;
  // The genre, localized; nothing without one.
  std::optional<std::string> primaryGenreName() const;
  // The localized genre or "Unknown", with " (iPad)" for an app that names
  // iPad devices and no iPhone.
  std::optional<std::string> subtitle() const;
  // A copy with another scheme.
  AppStructure withURLScheme(std::optional<std::string> scheme) const;

  // The apps allowed on a new installation, offered for adding, and the
  // system's own, as trackId texts. The first two depend on AppInfo::isAtChina().
  static std::vector<std::string> defaultAppIds();
  static std::vector<std::string> recommendAppIds();
  static std::vector<std::string> systemAppIds();

  // The five system apps that have no store id.
  enum class SystemAppWithoutID { safari, message, health, photos, appStore };
  static std::string_view rawValue(SystemAppWithoutID app);
  static AppStructure make(SystemAppWithoutID app);

  friend bool operator==(const AppStructure&, const AppStructure&) = default;
};

// JSON keys "trackId" (the number), "bundleId", "trackName" (all required),
// "artworkUrl100", "supportedDevices", "primaryGenreName", "urlScheme"
// (written only when present).
void to_json(nlohmann::ordered_json& json, const AppStructure& app);
void from_json(const nlohmann::ordered_json& json, AppStructure& app);

}  // namespace tarnwell

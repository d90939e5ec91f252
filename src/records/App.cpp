#include "tarnwell/records/App.h"

#include <algorithm>

#include "tarnwell/platform/Localization.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/JSONCoding.h"
#include "tarnwell/settings/AppInfo.h"

namespace tarnwell {

using json_coding::getIfPresent;
using json_coding::getRequired;
using json_coding::putIfPresent;

App::App(std::string id, std::string name, std::optional<std::string> artwork, std::optional<std::string> genre,
         std::optional<std::string> scheme)
    : trackId(std::move(id)),
      trackName(std::move(name)),
      artworkUrl100(std::move(artwork)),
      primaryGenreName(std::move(genre)),
      urlScheme(std::move(scheme)),
      created(Date::now()) {}

std::string App::csvRecord() const {
  if (!trackId || !trackName || !artworkUrl100 || !primaryGenreName) return {};
  return *trackId + "," + records::quotedField(*trackName) + "," + *artworkUrl100 + "," +
         records::quotedField(*primaryGenreName);
}

void to_json(nlohmann::ordered_json& json, const App& app) {
  json = nlohmann::ordered_json::object();
  putIfPresent(json, "trackId", app.trackId);
  putIfPresent(json, "trackName", app.trackName);
  putIfPresent(json, "artworkUrl100", app.artworkUrl100);
  putIfPresent(json, "primaryGenreName", app.primaryGenreName);
  putIfPresent(json, "urlScheme", app.urlScheme);
  json["created"] = json_coding::encode(app.created);
  json["isDeleted"] = app.isDeleted;
}

void from_json(const nlohmann::ordered_json& json, App& app) {
  App decoded;
  getIfPresent(json, "trackId", decoded.trackId);
  getIfPresent(json, "trackName", decoded.trackName);
  getIfPresent(json, "artworkUrl100", decoded.artworkUrl100);
  getIfPresent(json, "primaryGenreName", decoded.primaryGenreName);
  getIfPresent(json, "urlScheme", decoded.urlScheme);
  getRequired(json, "created", decoded.created);
  getRequired(json, "isDeleted", decoded.isDeleted);
  app = std::move(decoded);
}

std::string AppStructure::trackId() const { return trackIdInNumber >= 1 ? std::to_string(trackIdInNumber) : bundleId; }

std::optional<std::string> AppStructure::primaryGenreName() const {
  if (!primaryGenreNameInEnglish) return std::nullopt;
  return localized(*primaryGenreNameInEnglish);
}

std::optional<std::string> AppStructure::subtitle() const {
  std::string text = primaryGenreName().value_or("Unknown");
  if (!supportedDevices || supportedDevices->empty()) return text;
  const auto beginsWith = [this](std::string_view prefix) {
    return std::any_of(supportedDevices->begin(), supportedDevices->end(),
                       [prefix](const std::string& device) { return device.starts_with(prefix); });
  };
  if (beginsWith("iPad") && !beginsWith("iPhone")) text += " (iPad)";
  return text;
}

AppStructure AppStructure::withURLScheme(std::optional<std::string> scheme) const {
  AppStructure copy = *this;
  copy.urlScheme = std::move(scheme);
  return copy;
}

std::vector<std::string> AppStructure::defaultAppIds() {
  // Store ids are catalogue configuration, like AppInfo's links; each
  // storefront has its own choice.
  if (AppInfo::isAtChina()) return {"1108187098", "915249334", "1110145103"};
  return {"1108187098", "915249334", "1110145091"};
}

std::vector<std::string> AppStructure::recommendAppIds() {
  std::vector<std::string> ids = {"361309726",  "361304891",  "361285480",  "377298193",  "408709785",  "364709193",
                                  "525463029",  "915249334",  "1212699939", "1110145103", "1110145091", "1108187841",
                                  "1110145109", "1069512134", "1069509450", "1232058109", "1208224953", "1514844618",
                                  "1383426740", "908519492",  "1146562112", "1108187390"};
  if (AppInfo::isAtChina()) ids.push_back("1108185179");
  return ids;
}

std::vector<std::string> AppStructure::systemAppIds() {
  return {"1108187098",
          std::string(rawValue(SystemAppWithoutID::safari)),
          "1110145103",
          std::string(rawValue(SystemAppWithoutID::message)),
          "1108187390",
          std::string(rawValue(SystemAppWithoutID::health)),
          "1110145091",
          "1108187841",
          std::string(rawValue(SystemAppWithoutID::photos)),
          "1110145109",
          "1069512134",
          std::string(rawValue(SystemAppWithoutID::appStore)),
          "1232058109",
          "1208224953"};
}

std::string_view AppStructure::rawValue(SystemAppWithoutID app) {
  switch (app) {
    case SystemAppWithoutID::safari:
      return "com.apple.mobilesafari";
    case SystemAppWithoutID::message:
      return "com.apple.MobileSMS";
    case SystemAppWithoutID::health:
      return "com.apple.Health";
    case SystemAppWithoutID::photos:
      return "com.apple.mobileslideshow";
    case SystemAppWithoutID::appStore:
      return "com.apple.AppStore";
  }
  return {};
}

AppStructure AppStructure::make(SystemAppWithoutID app) {
  struct Entry {
    const char* nameKey;
    const char* genre;
    const char* scheme;
  };
  Entry entry{};
  switch (app) {
    case SystemAppWithoutID::safari:
      // A page of ours that hands the user over to the browser.
      entry = {"Whitelist.App.Safari", "Utilities", "https://vostra.org/tarnwell/open-browser"};
      break;
    case SystemAppWithoutID::message:
      entry = {"Whitelist.App.Message", "Utilities", "sms://"};
      break;
    case SystemAppWithoutID::health:
      entry = {"Whitelist.App.Health", "Health & Fitness", "x-apple-health://"};
      break;
    case SystemAppWithoutID::photos:
      entry = {"Whitelist.App.Photos", "Photo & Video", "photos-redirect://"};
      break;
    case SystemAppWithoutID::appStore:
      entry = {"Whitelist.App.AppStore", "Utilities", "itms-apps://"};
      break;
  }
  return AppStructure{0,
                      std::string(rawValue(app)),
                      localized(entry.nameKey),
                      std::nullopt,
                      std::vector<std::string>{"iPhone", "iPad"},
                      entry.genre,
                      entry.scheme};
}

void to_json(nlohmann::ordered_json& json, const AppStructure& app) {
  json = nlohmann::ordered_json::object();
  json["trackId"] = app.trackIdInNumber;
  json["bundleId"] = app.bundleId;
  json["trackName"] = app.trackName;
  putIfPresent(json, "artworkUrl100", app.artworkUrl100);
  putIfPresent(json, "supportedDevices", app.supportedDevices);
  putIfPresent(json, "primaryGenreName", app.primaryGenreNameInEnglish);
  putIfPresent(json, "urlScheme", app.urlScheme);
}

void from_json(const nlohmann::ordered_json& json, AppStructure& app) {
  AppStructure decoded;
  getRequired(json, "trackId", decoded.trackIdInNumber);
  getRequired(json, "bundleId", decoded.bundleId);
  getRequired(json, "trackName", decoded.trackName);
  getIfPresent(json, "artworkUrl100", decoded.artworkUrl100);
  getIfPresent(json, "supportedDevices", decoded.supportedDevices);
  getIfPresent(json, "primaryGenreName", decoded.primaryGenreNameInEnglish);
  getIfPresent(json, "urlScheme", decoded.urlScheme);
  app = std::move(decoded);
}

}  // namespace tarnwell

// The pieces the commands of `tarnwell` share: options, output and errors.

#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnwell/platform/Base64.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/store/Schema.h"

namespace tarnwell {
class EventsOfDay;
}

namespace tarnwell::cli {

// Bad input from the user: printed as one line, exit status 1, nothing written.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct GlobalOptions {
  std::optional<std::string> container;
  std::optional<std::string> now;
  std::optional<std::string> timeZone;
  std::optional<std::string> locale;
  bool json = false;
};

// What the chosen subcommand does once the Environment is installed.
using Action = std::function<void()>;

class Output {
 public:
  explicit Output(const GlobalOptions& options) : options_(options) {}
  bool json() const { return options_.json; }
  // Prints `value` as JSON on one line, or `text` when JSON was not asked for.
  void print(const nlohmann::ordered_json& value, const std::string& text) const;

 private:
  const GlobalOptions& options_;
};

// A JSON value as a person reads it: text without quotes, numbers as JSON
// writes them (18000.0), "null" for nothing, structures as compact JSON.
std::string plainText(const nlohmann::ordered_json& value);

// An ISO 8601 instant in the current region's zone; InputError otherwise.
Date parseInstant(std::string_view text);

// A record as JSON with its property names as keys: dates in ISO 8601 with
// the zone's offset, nothing as null.
template <class Record>
nlohmann::ordered_json recordJSON(const Record& record);

// Starts the store as the app does at launch; a store that had to be set
// aside is reported as bad input in one line.
void startStore();

// Today's or any day's metrics, night and hours.
void printDay(const GlobalOptions& options, const EventsOfDay& day);

void addInfoCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addSettingsCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addStoreCommands(CLI::App& app, const GlobalOptions& options, Action& action);
void addDayCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addImportCommand(CLI::App& app, const GlobalOptions& options, Action& action);
void addDemoCommand(CLI::App& app, const GlobalOptions& options, Action& action);

namespace json_detail {
inline nlohmann::ordered_json value(const std::string& v) { return v; }
inline nlohmann::ordered_json value(Date v) { return v.iso8601(); }
inline nlohmann::ordered_json value(bool v) { return v; }
inline nlohmann::ordered_json value(std::int64_t v) { return v; }
inline nlohmann::ordered_json value(double v) { return v; }
inline nlohmann::ordered_json value(const Data& v) { return base64::encode(v); }
template <class T>
nlohmann::ordered_json value(const std::vector<T>& v) {
  return v;
}
template <class T>
nlohmann::ordered_json value(const std::optional<T>& v) {
  return v ? value(*v) : nlohmann::ordered_json(nullptr);
}
}  // namespace json_detail

template <class Record>
nlohmann::ordered_json recordJSON(const Record& record) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  store::forEachProperty<Record>(
      [&](const auto& p) { json[std::string(p.name)] = json_detail::value(record.*(p.member)); });
  return json;
}

}  // namespace tarnwell::cli

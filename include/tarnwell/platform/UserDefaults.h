// UserDefaults: a small typed key-value store in a SQLite file.
//
// There are two kinds: the standard store, private to the app, and suites
// shared by name with other processes of the same installation (widgets,
// intents). Nothing is cached in memory: every read goes to the file, so a
// value written by one process is seen by the next read of another.
//
// The typed getters read like the platform's: a missing key reads as false,
// 0, 0.0 or nothing; a number stored under one type is converted when read as
// another, and a string "true"/"YES"/a number is read as a bool or number.
// All members are thread-safe.

#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell {

namespace sqlite {
class Connection;
}

// One stored value. The alternatives are the types a store keeps apart.
using DefaultsValue = std::variant<bool, std::int64_t, double, std::string, Date, Data, std::vector<std::string>>;

class UserDefaults {
 public:
  // Opens or creates the store in `file` (folders included). Throws
  // sqlite::Error or std::filesystem::filesystem_error when it cannot.
  explicit UserDefaults(const std::filesystem::path& file);
  ~UserDefaults();

  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  // The installed Environment's standard store.
  static UserDefaults& standard();
  // The installed Environment's app-group suite, "group.org.vostra.tarnwell",
  // which the widget processes read too. The process ends when it cannot be opened.
  static UserDefaults& appGroup();

  std::optional<DefaultsValue> object(std::string_view key) const;
  bool contains(std::string_view key) const { return object(key).has_value(); }

  bool boolForKey(std::string_view key) const;
  std::int64_t integerForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  std::optional<std::string> stringForKey(std::string_view key) const;
  std::optional<Date> dateForKey(std::string_view key) const;
  std::optional<Data> dataForKey(std::string_view key) const;
  std::optional<std::vector<std::string>> stringArrayForKey(std::string_view key) const;

  // How the typed getters read a stored value of any type.
  static bool boolValue(const DefaultsValue& value);
  static std::int64_t integerValue(const DefaultsValue& value);
  static double doubleValue(const DefaultsValue& value);
  static std::optional<std::string> stringValue(const DefaultsValue& value);

  void setObject(std::string_view key, DefaultsValue value);
  // One overload per stored type, so that no argument converts silently into
  // another type (a double into an integer, a text into a bool).
  void set(std::string_view key, bool value) { setObject(key, value); }
  void set(std::string_view key, int value) { setObject(key, static_cast<std::int64_t>(value)); }
  void set(std::string_view key, std::int64_t value) { setObject(key, value); }
  void set(std::string_view key, double value) { setObject(key, value); }
  void set(std::string_view key, std::string value) { setObject(key, std::move(value)); }
  void set(std::string_view key, const char* text) { setObject(key, std::string(text)); }
  void set(std::string_view key, Date value) { setObject(key, value); }
  void set(std::string_view key, Data value) { setObject(key, std::move(value)); }
  void set(std::string_view key, std::vector<std::string> value) { setObject(key, std::move(value)); }
  void removeObject(std::string_view key);

  // Values kept as JSON text, for types that are neither numbers nor text.
  // Reading text that is not JSON gives nothing.
  std::optional<nlohmann::json> jsonForKey(std::string_view key) const;
  void setJSON(std::string_view key, const nlohmann::json& value);

  // Every key present, sorted.
  std::vector<std::string> keys() const;

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
  mutable std::mutex mutex_;
  std::unique_ptr<sqlite::Connection> connection_;
};

}  // namespace tarnwell

#include "tarnwell/platform/UserDefaults.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>

#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

// The kind column names the variant alternative, in the variant's order.
constexpr const char* kKinds[] = {"bool", "integer", "double", "string", "date", "data", "array"};
static_assert(std::size(kKinds) == std::variant_size_v<DefaultsValue>);

std::int64_t clampToInteger(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (value <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  return text;
}

}  // namespace

UserDefaults::UserDefaults(const std::filesystem::path& file) : file_(file) {
  makePrivateDatabaseFile(file);
  connection_ = std::make_unique<sqlite::Connection>(file);
  connection_->setBusyTimeout(storeBusyTimeout());
  connection_->execute("PRAGMA journal_mode = WAL");
  connection_->execute("PRAGMA synchronous = NORMAL");
  connection_->execute(
      "CREATE TABLE IF NOT EXISTS defaults ("
      "key TEXT PRIMARY KEY NOT NULL, kind TEXT NOT NULL, value) WITHOUT ROWID");
}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard() { return Environment::current().standardUserDefaults(); }

UserDefaults& UserDefaults::appGroup() {
  UserDefaults* suite = Environment::current().userDefaults(Environment::kAppGroupIdentifier);
  if (!suite) fatalError("The preferences of the app group group.org.vostra.tarnwell cannot be opened");
  return *suite;
}

std::optional<DefaultsValue> UserDefaults::object(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto& select = connection_->cached("SELECT kind, value FROM defaults WHERE key = ?1");
  select.bind(1, key);
  sqlite::Cursor rows(select);
  if (!rows.next()) return std::nullopt;
  const sqlite::Statement& query = *rows;
  const std::string kind = query.text(0);
  std::optional<DefaultsValue> value;
  if (kind == "bool") {
    value = query.int64(1) != 0;
  } else if (kind == "integer") {
    value = query.int64(1);
  } else if (kind == "double") {
    value = query.real(1);
  } else if (kind == "string") {
    value = query.text(1);
  } else if (kind == "date") {
    value = Date::fromTimeIntervalSinceReferenceDate(query.real(1));
  } else if (kind == "data") {
    value = query.blob(1);
  } else if (kind == "array") {
    const auto parsed = nlohmann::json::parse(query.text(1), nullptr, false);
    std::vector<std::string> strings;
    if (parsed.is_array()) {
      for (const auto& element : parsed) {
        if (element.is_string()) strings.push_back(element.get<std::string>());
      }
    }
    value = std::move(strings);
  }
  return value;
}

bool UserDefaults::boolValue(const DefaultsValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b;
  if (const auto* i = std::get_if<std::int64_t>(&value)) return *i != 0;
  if (const auto* d = std::get_if<double>(&value)) return *d != 0;
  if (const auto* s = std::get_if<std::string>(&value)) {
    const std::string_view text = trimmed(*s);
    if (text.empty()) return false;
    if (std::string_view("YyTt").find(text.front()) != std::string_view::npos) return true;
    return std::strtoll(std::string(text).c_str(), nullptr, 10) != 0;
  }
  return false;
}

std::int64_t UserDefaults::integerValue(const DefaultsValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b ? 1 : 0;
  if (const auto* i = std::get_if<std::int64_t>(&value)) return *i;
  if (const auto* d = std::get_if<double>(&value)) return clampToInteger(*d);
  if (const auto* s = std::get_if<std::string>(&value)) {
    return clampToInteger(std::strtod(std::string(trimmed(*s)).c_str(), nullptr));
  }
  return 0;
}

double UserDefaults::doubleValue(const DefaultsValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b ? 1 : 0;
  if (const auto* i = std::get_if<std::int64_t>(&value)) return static_cast<double>(*i);
  if (const auto* d = std::get_if<double>(&value)) return *d;
  if (const auto* s = std::get_if<std::string>(&value)) return std::strtod(std::string(trimmed(*s)).c_str(), nullptr);
  return 0;
}

std::optional<std::string> UserDefaults::stringValue(const DefaultsValue& value) {
  if (const auto* s = std::get_if<std::string>(&value)) return *s;
  if (const auto* b = std::get_if<bool>(&value)) return *b ? "1" : "0";
  if (const auto* i = std::get_if<std::int64_t>(&value)) return std::to_string(*i);
  if (const auto* d = std::get_if<double>(&value)) return formatDouble(*d);
  return std::nullopt;
}

bool UserDefaults::boolForKey(std::string_view key) const {
  const auto value = object(key);
  return value && boolValue(*value);
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
  const auto value = object(key);
  return value ? integerValue(*value) : 0;
}

double UserDefaults::doubleForKey(std::string_view key) const {
  const auto value = object(key);
  return value ? doubleValue(*value) : 0;
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
  const auto value = object(key);
  return value ? stringValue(*value) : std::nullopt;
}

std::optional<Date> UserDefaults::dateForKey(std::string_view key) const {
  const auto value = object(key);
  if (const auto* date = value ? std::get_if<Date>(&*value) : nullptr) return *date;
  return std::nullopt;
}

std::optional<Data> UserDefaults::dataForKey(std::string_view key) const {
  auto value = object(key);
  if (auto* data = value ? std::get_if<Data>(&*value) : nullptr) return std::move(*data);
  return std::nullopt;
}

std::optional<std::vector<std::string>> UserDefaults::stringArrayForKey(std::string_view key) const {
  auto value = object(key);
  if (auto* array = value ? std::get_if<std::vector<std::string>>(&*value) : nullptr) return std::move(*array);
  return std::nullopt;
}

void UserDefaults::setObject(std::string_view key, DefaultsValue value) {
  std::lock_guard lock(mutex_);
  auto& insert = connection_->cached("INSERT OR REPLACE INTO defaults (key, kind, value) VALUES (?1, ?2, ?3)");
  insert.bind(1, key).bind(2, kKinds[value.index()]);
  std::visit(
      [&insert](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, Date>) {
          insert.bind(3, v.timeIntervalSinceReferenceDate());
        } else if constexpr (std::is_same_v<T, Data>) {
          insert.bind(3, std::span<const std::uint8_t>(v));
        } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
          insert.bind(3, nlohmann::json(v).dump());
        } else {
          insert.bind(3, v);
        }
      },
      value);
  insert.execute();
}

void UserDefaults::removeObject(std::string_view key) {
  std::lock_guard lock(mutex_);
  connection_->cached("DELETE FROM defaults WHERE key = ?1").bind(1, key).execute();
}

std::optional<nlohmann::json> UserDefaults::jsonForKey(std::string_view key) const {
  const auto text = stringForKey(key);
  if (!text) return std::nullopt;
  auto parsed = nlohmann::json::parse(*text, nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

void UserDefaults::setJSON(std::string_view key, const nlohmann::json& value) { set(key, value.dump()); }

std::vector<std::string> UserDefaults::keys() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> keys;
  for (sqlite::Cursor rows(connection_->cached("SELECT key FROM defaults ORDER BY key")); rows.next();) {
    keys.push_back(rows->text(0));
  }
  return keys;
}

}  // namespace tarnwell

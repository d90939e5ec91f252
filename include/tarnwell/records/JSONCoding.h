// Helpers for the hand-written JSON forms of the records.
//
// Dates travel as numbers of seconds since 2001-01-01, as the platform's
// coders write them by default; bytes as base64 text.

#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "tarnwell/platform/Base64.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell::json_coding {

inline nlohmann::ordered_json encode(Date date) { return date.timeIntervalSinceReferenceDate(); }
inline nlohmann::ordered_json encode(const Data& bytes) { return base64::encode(bytes); }
template <class T>
nlohmann::ordered_json encode(const T& value) {
  return value;
}

inline void decode(const nlohmann::ordered_json& json, Date& date) {
  date = Date::fromTimeIntervalSinceReferenceDate(json.get<double>());
}
inline void decode(const nlohmann::ordered_json& json, Data& bytes) {
  auto decoded = base64::decode(json.get<std::string>());
  if (!decoded) throw nlohmann::json::type_error::create(302, "bytes are not base64 text", &json);
  bytes = std::move(*decoded);
}
template <class T>
void decode(const nlohmann::ordered_json& json, T& value) {
  value = json.get<T>();
}

// Writes `key` only when the value is present.
template <class T>
void putIfPresent(nlohmann::ordered_json& json, std::string_view key, const std::optional<T>& value) {
  if (value) json[std::string(key)] = encode(*value);
}

// Reads `key` when it is there; a missing key or null leaves nothing, a value
// of the wrong type throws.
template <class T>
void getIfPresent(const nlohmann::ordered_json& json, std::string_view key, std::optional<T>& value) {
  const auto found = json.find(key);
  if (found == json.end() || found->is_null()) {
    value.reset();
    return;
  }
  T decoded{};
  decode(*found, decoded);
  value = std::move(decoded);
}

// Reads a required `key`: a missing one throws the decoder's key-not-found error.
template <class T>
void getRequired(const nlohmann::ordered_json& json, std::string_view key, T& value) {
  decode(json.at(std::string(key)), value);
}

}  // namespace tarnwell::json_coding

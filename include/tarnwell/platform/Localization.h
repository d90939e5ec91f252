// Localized texts: every text a user reads is looked up by key.
//
// Tables are compiled into the library from resources/strings/<language>.json
// ({"<table>": {"<key>": "<text>"}}). A key is looked up in the language of
// the installed Environment's locale, then in English; a key found nowhere
// reads as itself, so a missing text is visible rather than empty.
// Formats follow printf with the platform's additions: "%@" takes a text,
// "%lld" an integer, and "%1$@" picks an argument by position.

#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace tarnwell {

class FormatArgument {
 public:
  FormatArgument(std::int64_t value) : value_(value) {}
  FormatArgument(int value) : value_(static_cast<std::int64_t>(value)) {}
  FormatArgument(double value) : value_(value) {}
  FormatArgument(std::string value) : value_(std::move(value)) {}
  FormatArgument(std::string_view value) : value_(std::string(value)) {}
  FormatArgument(const char* value) : value_(std::string(value)) {}

  const std::variant<std::int64_t, double, std::string>& value() const { return value_; }

 private:
  std::variant<std::int64_t, double, std::string> value_;
};

// The table of ordinary texts.
inline constexpr std::string_view kDefaultStringsTable = "Localizable";

std::string localized(std::string_view key, std::string_view tableName = kDefaultStringsTable);

// The text of `key` in `language` (an ISO 639 code such as "de"), then in
// English, then the key: for texts read while no Environment is installed.
std::string localizedIn(std::string_view language, std::string_view key,
                        std::string_view tableName = kDefaultStringsTable);

// The text of `key` used as a format for `arguments`.
std::string localizedFormat(std::string_view key, std::initializer_list<FormatArgument> arguments,
                            std::string_view tableName = kDefaultStringsTable);

// printf-style formatting with "%@" and positional arguments. A conversion
// without a matching argument is left as it stands.
std::string formatString(std::string_view format, std::span<const FormatArgument> arguments);
inline std::string formatString(std::string_view format, std::initializer_list<FormatArgument> arguments) {
  return formatString(format, std::span<const FormatArgument>(arguments.begin(), arguments.size()));
}

}  // namespace tarnwell

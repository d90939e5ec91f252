#include "tarnwell/platform/Localization.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/StringResources.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace {

// table -> key -> text, of one language
using Tables = std::map<std::string, std::map<std::string, std::string, std::less<>>, std::less<>>;

// A language's tables are read the first time one of its texts is asked
// for: a run reads its own language and English, not all six.
const Tables* tablesOf(std::string_view language) {
  struct Language {
    std::once_flag read;
    Tables tables;
  };
  const auto resources = stringResources();
  static const std::unique_ptr<Language[]> languages(new Language[resources.size()]);
  for (std::size_t i = 0; i < resources.size(); ++i) {
    if (resources[i].language != language) continue;
    std::call_once(languages[i].read, [&resource = resources[i], &tables = languages[i].tables] {
      const auto json = nlohmann::json::parse(resource.json);
      for (const auto& [table, entries] : json.items()) {
        for (const auto& [key, text] : entries.items()) tables[table][key] = text;
      }
    });
    return &languages[i].tables;
  }
  return nullptr;
}

const std::string* find(std::string_view language, std::string_view table, std::string_view key) {
  const auto* tables = tablesOf(language);
  if (!tables) return nullptr;
  const auto byTable = tables->find(table);
  if (byTable == tables->end()) return nullptr;
  const auto text = byTable->second.find(key);
  return text == byTable->second.end() ? nullptr : &text->second;
}

// Appends one printf conversion of `argument` with the flags, width and
// precision of `spec` (which ends in the conversion letter).
void appendConversion(std::string& out, std::string spec, char conversion, const FormatArgument& argument) {
  char buffer[512];
  const auto& value = argument.value();
  if (conversion == '@' || conversion == 's') {
    std::string text;
    if (const auto* s = std::get_if<std::string>(&value)) text = *s;
    if (const auto* i = std::get_if<std::int64_t>(&value)) text = std::to_string(*i);
    if (const auto* d = std::get_if<double>(&value)) text = formatDouble(*d);
    // A text of any length, whole: a path or a user's title is not cut.
    if (spec == "%@" || spec == "%s") {
      out += text;
      return;
    }
    spec.back() = 's';
    const int length = std::snprintf(nullptr, 0, spec.c_str(), text.c_str());
    std::string padded(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
    std::snprintf(padded.data(), padded.size(), spec.c_str(), text.c_str());
    padded.pop_back();
    out += padded;
    return;
  }
  if (std::string_view("dioxXuc").find(conversion) != std::string_view::npos) {
    long long integer = 0;
    if (const auto* i = std::get_if<std::int64_t>(&value)) integer = *i;
    if (const auto* d = std::get_if<double>(&value)) integer = static_cast<long long>(*d);
    spec.insert(spec.size() - 1, "ll");
    std::snprintf(buffer, sizeof buffer, spec.c_str(), integer);
  } else {
    double real = 0;
    if (const auto* i = std::get_if<std::int64_t>(&value)) real = static_cast<double>(*i);
    if (const auto* d = std::get_if<double>(&value)) real = *d;
    std::snprintf(buffer, sizeof buffer, spec.c_str(), real);
  }
  out += buffer;
}

}  // namespace

std::string localized(std::string_view key, std::string_view tableName) {
  return localizedIn(Environment::current().region().languageCode(), key, tableName);
}

std::string localizedIn(std::string_view language, std::string_view key, std::string_view tableName) {
  if (const auto* text = find(language, tableName, key)) return *text;
  if (const auto* text = find("en", tableName, key)) return *text;
  return std::string(key);
}

std::string localizedFormat(std::string_view key, std::initializer_list<FormatArgument> arguments,
                            std::string_view tableName) {
  return formatString(localized(key, tableName), arguments);
}

std::string formatString(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string out;
  std::size_t nextArgument = 0;
  std::size_t i = 0;
  while (i < format.size()) {
    const char c = format[i];
    if (c != '%') {
      out += c;
      ++i;
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      i += 2;
      continue;
    }
    // %[position$][flags][width][.precision][length]conversion
    std::size_t j = i + 1;
    std::size_t position = 0;
    std::size_t digitsEnd = j;
    while (digitsEnd < format.size() && std::isdigit(static_cast<unsigned char>(format[digitsEnd]))) ++digitsEnd;
    if (digitsEnd < format.size() && digitsEnd > j && format[digitsEnd] == '$') {
      position = std::stoul(std::string(format.substr(j, digitsEnd - j)));
      j = digitsEnd + 1;
    }
    std::string spec = "%";
    while (j < format.size() && std::string_view("-+ #0'").find(format[j]) != std::string_view::npos) {
      if (format[j] != '\'') spec += format[j];
      ++j;
    }
    while (j < format.size() && (std::isdigit(static_cast<unsigned char>(format[j])) || format[j] == '.')) {
      spec += format[j++];
    }
    while (j < format.size() && std::string_view("hlLqjzt").find(format[j]) != std::string_view::npos) ++j;
    if (j >= format.size() || std::string_view("@sdioxXucfFeEgGaA").find(format[j]) == std::string_view::npos) {
      out.append(format.substr(i, j - i));
      i = j;
      continue;
    }
    const char conversion = format[j];
    const std::size_t index = position > 0 ? position - 1 : nextArgument++;
    if (index < arguments.size()) {
      appendConversion(out, spec + conversion, conversion, arguments[index]);
    } else {
      out.append(format.substr(i, j + 1 - i));
    }
    i = j + 1;
  }
  return out;
}

}  // namespace tarnwell

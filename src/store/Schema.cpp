#include "tarnwell/store/Schema.h"

#include <nlohmann/json.hpp>

namespace tarnwell::store {
namespace {

template <class List>
List parseList(const sqlite::Statement& statement, int column) {
  List list;
  const auto json = nlohmann::json::parse(statement.text(column), nullptr, false);
  if (!json.is_array()) return list;
  for (const auto& element : json) {
    try {
      list.push_back(element.get<typename List::value_type>());
    } catch (const nlohmann::json::exception&) {
      // A damaged element is left out rather than failing the whole row.
    }
  }
  return list;
}

std::string hex(const Data& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const auto byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace

std::string quoteIdentifier(std::string_view name) {
  std::string text = "\"";
  for (const char c : name) {
    if (c == '"') text += '"';
    text += c;
  }
  return text + "\"";
}

void bindValue(sqlite::Statement& s, int i, const SyncAsset& value) { bindValue(s, i, value.uniqueFileName); }
void bindValue(sqlite::Statement& s, int i, const std::string& value) { s.bind(i, std::string_view(value)); }
void bindValue(sqlite::Statement& s, int i, Date value) { s.bind(i, value.timeIntervalSinceReferenceDate()); }
void bindValue(sqlite::Statement& s, int i, bool value) { s.bind(i, value); }
void bindValue(sqlite::Statement& s, int i, std::int64_t value) { s.bind(i, value); }
void bindValue(sqlite::Statement& s, int i, double value) { s.bind(i, value); }
void bindValue(sqlite::Statement& s, int i, const Data& value) { s.bind(i, std::span<const std::uint8_t>(value)); }
void bindValue(sqlite::Statement& s, int i, const std::vector<std::string>& value) {
  s.bind(i, std::string_view(nlohmann::json(value).dump()));
}
void bindValue(sqlite::Statement& s, int i, const std::vector<std::int64_t>& value) {
  s.bind(i, std::string_view(nlohmann::json(value).dump()));
}

void readValue(const sqlite::Statement& s, int c, SyncAsset& value) { value.uniqueFileName = s.text(c); }
void readValue(const sqlite::Statement& s, int c, std::string& value) { value = s.text(c); }
void readValue(const sqlite::Statement& s, int c, Date& value) {
  value = Date::fromTimeIntervalSinceReferenceDate(s.real(c));
}
void readValue(const sqlite::Statement& s, int c, bool& value) { value = s.int64(c) != 0; }
void readValue(const sqlite::Statement& s, int c, std::int64_t& value) { value = s.int64(c); }
void readValue(const sqlite::Statement& s, int c, double& value) { value = s.real(c); }
void readValue(const sqlite::Statement& s, int c, Data& value) { value = s.blob(c); }
void readValue(const sqlite::Statement& s, int c, std::vector<std::string>& value) {
  value = parseList<std::vector<std::string>>(s, c);
}
void readValue(const sqlite::Statement& s, int c, std::vector<std::int64_t>& value) {
  value = parseList<std::vector<std::int64_t>>(s, c);
}

std::string literal(const SyncAsset& value) { return literal(value.uniqueFileName); }
std::string literal(const std::string& value) {
  std::string text = "'";
  for (const char c : value) {
    if (c == '\'') text += '\'';
    text += c;
  }
  return text + "'";
}
std::string literal(Date value) { return formatDouble(value.timeIntervalSinceReferenceDate()); }
std::string literal(bool value) { return value ? "1" : "0"; }
std::string literal(std::int64_t value) { return std::to_string(value); }
std::string literal(double value) { return formatDouble(value); }
std::string literal(const Data& value) { return "X'" + hex(value) + "'"; }
std::string literal(const std::vector<std::string>& value) { return literal(nlohmann::json(value).dump()); }
std::string literal(const std::vector<std::int64_t>& value) { return literal(nlohmann::json(value).dump()); }

}  // namespace tarnwell::store

// The one declaration of a record's stored properties.
//
// Each record type lists its properties once, in order, as a tuple of
// Property values (name, member pointer, primary key and index flags); the
// type, optionality and list-ness follow from the member's C++ type. The SQL
// table, the column list, the row binding and reading, and later the cloud
// record's fields are all derived from that tuple:
//
//   static constexpr auto properties() {
//     return std::tuple{store::primaryKey("id", &Pickup::id), store::property("deviceId", &Pickup::deviceId), ...};
//   }
//
// Storage: text as TEXT, dates as REAL seconds since 2001-01-01, booleans
// and integers as INTEGER, doubles as REAL, bytes as BLOB, lists as JSON text.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell::store {

enum class PropertyType { integer, boolean, string, date, real, data };

// What a member's C++ type says about the stored property.
template <class T>
struct PropertyTraits;

template <>
struct PropertyTraits<std::string> {
  static constexpr PropertyType type = PropertyType::string;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<Date> {
  static constexpr PropertyType type = PropertyType::date;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<bool> {
  static constexpr PropertyType type = PropertyType::boolean;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<std::int64_t> {
  static constexpr PropertyType type = PropertyType::integer;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<double> {
  static constexpr PropertyType type = PropertyType::real;
  static constexpr bool optional = false, list = false;
};
template <>
struct PropertyTraits<Data> {
  static constexpr PropertyType type = PropertyType::data;
  static constexpr bool optional = false, list = false;
};
template <class T>
struct PropertyTraits<std::optional<T>> : PropertyTraits<T> {
  static constexpr bool optional = true;
};
template <class T>
struct PropertyTraits<std::vector<T>> : PropertyTraits<T> {
  static constexpr bool list = true;
};

template <class Record, class Member>
struct Property {
  using Traits = PropertyTraits<Member>;
  using Value = Member;

  std::string_view name;
  Member Record::*member;
  bool isPrimaryKey = false;
  bool isIndexed = false;
};

template <class Record, class Member>
constexpr Property<Record, Member> property(std::string_view name, Member Record::*member) {
  return {name, member, false, false};
}
template <class Record, class Member>
constexpr Property<Record, Member> primaryKey(std::string_view name, Member Record::*member) {
  return {name, member, true, false};
}
template <class Record, class Member>
constexpr Property<Record, Member> indexed(std::string_view name, Member Record::*member) {
  return {name, member, false, true};
}

// Calls f(property) for each property of Record, in declaration order.
template <class Record, class F>
constexpr void forEachProperty(F&& f) {
  std::apply([&f](const auto&... each) { (f(each), ...); }, Record::properties());
}

// The primary key's column name.
template <class Record>
std::string_view primaryKeyName() {
  std::string_view name;
  forEachProperty<Record>([&name](const auto& p) {
    if (p.isPrimaryKey) name = p.name;
  });
  return name;
}

// `"name"`, quoted so that words such as "end" are plain column names.
std::string quoteIdentifier(std::string_view name);

// Binding and reading of single values, by C++ type.
void bindValue(sqlite::Statement& statement, int index, const std::string& value);
void bindValue(sqlite::Statement& statement, int index, Date value);
void bindValue(sqlite::Statement& statement, int index, bool value);
void bindValue(sqlite::Statement& statement, int index, std::int64_t value);
void bindValue(sqlite::Statement& statement, int index, double value);
void bindValue(sqlite::Statement& statement, int index, const Data& value);
void bindValue(sqlite::Statement& statement, int index, const std::vector<std::string>& value);
void bindValue(sqlite::Statement& statement, int index, const std::vector<std::int64_t>& value);
template <class T>
void bindValue(sqlite::Statement& statement, int index, const std::optional<T>& value) {
  if (value) {
    bindValue(statement, index, *value);
  } else {
    statement.bindNull(index);
  }
}

void readValue(const sqlite::Statement& statement, int column, std::string& value);
void readValue(const sqlite::Statement& statement, int column, Date& value);
void readValue(const sqlite::Statement& statement, int column, bool& value);
void readValue(const sqlite::Statement& statement, int column, std::int64_t& value);
void readValue(const sqlite::Statement& statement, int column, double& value);
void readValue(const sqlite::Statement& statement, int column, Data& value);
void readValue(const sqlite::Statement& statement, int column, std::vector<std::string>& value);
void readValue(const sqlite::Statement& statement, int column, std::vector<std::int64_t>& value);
template <class T>
void readValue(const sqlite::Statement& statement, int column, std::optional<T>& value) {
  if (statement.isNull(column)) {
    value.reset();
  } else {
    value.emplace();
    readValue(statement, column, *value);
  }
}

// The SQL literal of a value, for column defaults.
std::string literal(const std::string& value);
std::string literal(Date value);
std::string literal(bool value);
std::string literal(std::int64_t value);
std::string literal(double value);
std::string literal(const Data& value);
std::string literal(const std::vector<std::string>& value);
std::string literal(const std::vector<std::int64_t>& value);
template <class T>
std::string literal(const std::optional<T>& value) {
  return value ? literal(*value) : "NULL";
}

// The column's declaration: type, NOT NULL and the default of a
// default-constructed record, so that a column added to an old table gets it.
template <class Record, class P>
std::string columnDefinition(const P& p) {
  using Traits = typename P::Traits;
  std::string sql = quoteIdentifier(p.name);
  if constexpr (Traits::list) {
    sql += " TEXT";
  } else if constexpr (Traits::type == PropertyType::string) {
    sql += " TEXT";
  } else if constexpr (Traits::type == PropertyType::data) {
    sql += " BLOB";
  } else if constexpr (Traits::type == PropertyType::date || Traits::type == PropertyType::real) {
    sql += " REAL";
  } else {
    sql += " INTEGER";
  }
  if (p.isPrimaryKey) return sql + " PRIMARY KEY";
  if constexpr (!Traits::optional) sql += " NOT NULL";
  return sql + " DEFAULT " + literal(Record{}.*(p.member));
}

// "id", "deviceId", ... quoted and joined by commas.
template <class Record>
std::string columnList() {
  std::string sql;
  forEachProperty<Record>([&sql](const auto& p) {
    if (!sql.empty()) sql += ", ";
    sql += quoteIdentifier(p.name);
  });
  return sql;
}

template <class Record>
std::string createTableSQL() {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + quoteIdentifier(Record::className) + " (";
  bool first = true;
  forEachProperty<Record>([&](const auto& p) {
    if (!first) sql += ", ";
    first = false;
    sql += columnDefinition<Record>(p);
  });
  sql += ")";
  return sql;
}

template <class Record>
std::vector<std::string> createIndexesSQL() {
  std::vector<std::string> statements;
  forEachProperty<Record>([&statements](const auto& p) {
    if (!p.isIndexed) return;
    statements.push_back("CREATE INDEX IF NOT EXISTS " +
                         quoteIdentifier(std::string(Record::className) + "_" + std::string(p.name)) + " ON " +
                         quoteIdentifier(Record::className) + " (" + quoteIdentifier(p.name) + ")");
  });
  return statements;
}

// Binds every property of `record` to parameters 1..n, in order.
template <class Record>
void bindRecord(sqlite::Statement& statement, const Record& record) {
  int index = 1;
  forEachProperty<Record>([&](const auto& p) { bindValue(statement, index++, record.*(p.member)); });
}

// Reads a record from columns first..first+n-1 of the current row.
template <class Record>
Record readRecord(const sqlite::Statement& statement, int first = 0) {
  Record record;
  int column = first;
  forEachProperty<Record>([&](const auto& p) { readValue(statement, column++, record.*(p.member)); });
  return record;
}

template <class Record>
constexpr int propertyCount() {
  return static_cast<int>(std::tuple_size_v<decltype(Record::properties())>);
}

}  // namespace tarnwell::store

// The SQL form of the records' one declaration (records/Properties.h).
//
// The table, its columns with their defaults, its indexes, the column list
// and the binding and reading of rows are all derived from a record's
// properties() tuple, so that adding a property to a record is the whole
// change. Storage: text as TEXT, dates as REAL seconds since 2001-01-01,
// booleans and integers as INTEGER, doubles as REAL, bytes as BLOB, lists as
// JSON text; a link as the TEXT of its target's key (NULL when absent), a
// list of links as the JSON text of their keys, an asset as the TEXT of its
// file name.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/records/Properties.h"

namespace tarnwell::store {

using records::forEachProperty;
using records::primaryKeyName;
using records::propertyCount;
using records::PropertyType;

// `"name"`, quoted so that words such as "end" are plain column names.
std::string quoteIdentifier(std::string_view name);

// Binding and reading of single values, by C++ type. Links and assets come
// first so that the templates below find them.
void bindValue(sqlite::Statement& statement, int index, const SyncAsset& value);
void bindValue(sqlite::Statement& statement, int index, const std::string& value);
void bindValue(sqlite::Statement& statement, int index, Date value);
void bindValue(sqlite::Statement& statement, int index, bool value);
void bindValue(sqlite::Statement& statement, int index, std::int64_t value);
void bindValue(sqlite::Statement& statement, int index, double value);
void bindValue(sqlite::Statement& statement, int index, const Data& value);
void bindValue(sqlite::Statement& statement, int index, const std::vector<std::string>& value);
void bindValue(sqlite::Statement& statement, int index, const std::vector<std::int64_t>& value);
template <class Target>
void bindValue(sqlite::Statement& statement, int index, const records::Ref<Target>& value) {
  bindValue(statement, index, value.key);
}
template <class Target>
void bindValue(sqlite::Statement& statement, int index, const std::vector<records::Ref<Target>>& value) {
  std::vector<std::string> keys;
  keys.reserve(value.size());
  for (const auto& link : value) keys.push_back(link.key);
  bindValue(statement, index, keys);
}
template <class T>
void bindValue(sqlite::Statement& statement, int index, const std::optional<T>& value) {
  if (value) {
    bindValue(statement, index, *value);
  } else {
    statement.bindNull(index);
  }
}

void readValue(const sqlite::Statement& statement, int column, SyncAsset& value);
void readValue(const sqlite::Statement& statement, int column, std::string& value);
void readValue(const sqlite::Statement& statement, int column, Date& value);
void readValue(const sqlite::Statement& statement, int column, bool& value);
void readValue(const sqlite::Statement& statement, int column, std::int64_t& value);
void readValue(const sqlite::Statement& statement, int column, double& value);
void readValue(const sqlite::Statement& statement, int column, Data& value);
void readValue(const sqlite::Statement& statement, int column, std::vector<std::string>& value);
void readValue(const sqlite::Statement& statement, int column, std::vector<std::int64_t>& value);
template <class Target>
void readValue(const sqlite::Statement& statement, int column, records::Ref<Target>& value) {
  readValue(statement, column, value.key);
}
template <class Target>
void readValue(const sqlite::Statement& statement, int column, std::vector<records::Ref<Target>>& value) {
  std::vector<std::string> keys;
  readValue(statement, column, keys);
  value.clear();
  value.reserve(keys.size());
  for (auto& key : keys) value.push_back(records::Ref<Target>{std::move(key)});
}
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
std::string literal(const SyncAsset& value);
std::string literal(const std::string& value);
std::string literal(Date value);
std::string literal(bool value);
std::string literal(std::int64_t value);
std::string literal(double value);
std::string literal(const Data& value);
std::string literal(const std::vector<std::string>& value);
std::string literal(const std::vector<std::int64_t>& value);
template <class Target>
std::string literal(const records::Ref<Target>& value) {
  return literal(value.key);
}
template <class Target>
std::string literal(const std::vector<records::Ref<Target>>& value) {
  std::vector<std::string> keys;
  for (const auto& link : value) keys.push_back(link.key);
  return literal(keys);
}
template <class T>
std::string literal(const std::optional<T>& value) {
  return value ? literal(*value) : "NULL";
}

// The column's declaration: type, NOT NULL and the default of a
// default-constructed record, so that a column added to an old table gets it.
// An integer primary key is declared INT, not INTEGER, so that it does not
// become the rowid: rows keep the order they were added in, as in every
// other table, and an absent key is not filled in behind the record's back.
template <class Record, class P>
std::string columnDefinition(const P& p) {
  using Traits = typename P::Traits;
  std::string sql = quoteIdentifier(p.name);
  if constexpr (Traits::list) {
    sql += " TEXT";
  } else if constexpr (Traits::type == PropertyType::integer) {
    sql += p.isPrimaryKey ? " INT" : " INTEGER";
  } else if constexpr (Traits::type == PropertyType::string || Traits::type == PropertyType::link ||
                       Traits::type == PropertyType::asset) {
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

// An index of two columns stands in for the index of its first column alone,
// which older stores have: it is dropped.
template <class Record>
std::vector<std::string> createIndexesSQL() {
  std::vector<std::string> statements;
  forEachProperty<Record>([&statements](const auto& p) {
    if (!p.isIndexed) return;
    std::string name = std::string(Record::className) + "_" + std::string(p.name);
    std::string columns = quoteIdentifier(p.name);
    if (!p.indexedWith.empty()) {
      statements.push_back("DROP INDEX IF EXISTS " + quoteIdentifier(name));
      name += "_" + std::string(p.indexedWith);
      columns += ", " + quoteIdentifier(p.indexedWith);
    }
    statements.push_back("CREATE INDEX IF NOT EXISTS " + quoteIdentifier(name) + " ON " +
                         quoteIdentifier(Record::className) + " (" + columns + ")");
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

}  // namespace tarnwell::store

// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → [store] → sync → health → analytics → charts → modules → automation.
//
// Store: the embedded object store, one SQLite file of records.
//
// A Store is a handle on the calling thread's connection to the file; every
// thread has its own, cached, so opening is cheap after the first time. The
// first open of a file in a process (per Environment) prepares it: tables
// are created from the records' declarations, an older file is widened and
// migrated to the configured schema version (kept in `PRAGMA user_version`),
// and a file with much free space is compacted. Reads outside a transaction
// see the latest commit of any thread or process.
//
// Writes run in a transaction (Store::write) that records which primary keys
// of which classes were inserted, modified or deleted. After the commit,
// observers of those classes are told on the main queue, except those whose
// tokens the write excluded. A local write of a class the configuration
// names for the outbox also leaves an entry there, in the same transaction
// (see Outbox.h); a write that came from elsewhere (the cloud) leaves none,
// which is what keeps it from going back out.
//
// Records leave the store as plain values. Failures throw sqlite::Error,
// which carries SQLite's result code.

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/store/Outbox.h"
#include "tarnwell/store/Schema.h"
#include "tarnwell/store/Snapshot.h"

namespace tarnwell::store {

// A value bound to a query parameter, in the column form of a property of
// that type (bytes as a blob, lists as the store keeps them).
using QueryValue = std::variant<std::nullptr_t, std::int64_t, double, std::string, Date, bool, Data,
                                std::vector<std::int64_t>, std::vector<std::string>>;

// The selection of a query: a SQL condition over the record's columns (empty
// for every row) with `?` parameters, and an order ("start ASC"). Rows of
// equal order keys keep the store's order, the order they were added in.
struct Query {
  std::string where;
  std::vector<QueryValue> arguments;
  std::string orderBy;
  std::optional<int> limit;

  // Adds "AND condition" with its arguments, which keeps text and arguments
  // in step however the conditions are put together.
  Query& filter(std::string_view condition, std::initializer_list<QueryValue> values = {});
  // Adds "AND column IN (?, ...)".
  Query& filterIn(std::string_view column, const std::vector<std::string>& values);
  Query& sorted(std::string order) {
    orderBy = std::move(order);
    return *this;
  }
  Query& limited(int count) {
    limit = count;
    return *this;
  }
};

// The keys one commit changed in one class.
struct ChangeSet {
  std::string className;
  std::vector<std::string> insertions;
  std::vector<std::string> modifications;
  std::vector<std::string> deletions;
  // The first delivery after an observer registers, with no keys.
  bool isInitial = false;

  bool empty() const { return insertions.empty() && modifications.empty() && deletions.empty(); }
};

class ObserverRegistry;

// Keeps an observation alive; move-only, unregisters when destroyed.
class ObserverToken {
 public:
  ObserverToken() = default;
  ObserverToken(ObserverToken&& other) noexcept;
  ObserverToken& operator=(ObserverToken&& other) noexcept;
  ObserverToken(const ObserverToken&) = delete;
  ObserverToken& operator=(const ObserverToken&) = delete;
  ~ObserverToken() { invalidate(); }

  void invalidate();
  std::uint64_t id() const { return id_; }

 private:
  friend class Store;
  ObserverToken(std::weak_ptr<ObserverRegistry> registry, std::uint64_t id) : registry_(std::move(registry)), id_(id) {}

  std::weak_ptr<ObserverRegistry> registry_;
  std::uint64_t id_ = 0;
};

// A record class as the store keeps it: the table and its columns.
struct TableSchema {
  std::string className;
  // The primary key's column; empty for the store's own tables.
  std::string primaryKey;
  std::string createSQL;
  // Column name and full definition, for columns an older file lacks.
  std::vector<std::pair<std::string, std::string>> columns;
  std::vector<std::string> indexesSQL;
};

template <class Record>
TableSchema tableSchema() {
  TableSchema schema{std::string(Record::className),
                     std::string(primaryKeyName<Record>()),
                     createTableSQL<Record>(),
                     {},
                     createIndexesSQL<Record>()};
  forEachProperty<Record>(
      [&schema](const auto& p) { schema.columns.emplace_back(std::string(p.name), columnDefinition<Record>(p)); });
  return schema;
}

struct StoreConfiguration {
  std::filesystem::path fileURL;
  std::uint64_t schemaVersion = 0;
  std::vector<TableSchema> tables;
  // Runs inside the preparing transaction when the file's version is older,
  // after missing tables and columns were added; given the file's version.
  std::function<void(sqlite::Connection&, std::uint64_t oldSchemaVersion)> migrationBlock;
  // Given the file's total and used bytes; true compacts the file.
  std::function<bool(std::uint64_t totalBytes, std::uint64_t usedBytes)> shouldCompactOnLaunch;
  // The classes whose local changes wait in the outbox until acknowledged;
  // each has a table above.
  std::vector<std::string> outboxClasses;
};

// Where the changes of a write come from.
enum class Origin {
  // Made here: changes of outbox classes are journaled.
  local,
  // Brought from elsewhere (the cloud): nothing is journaled.
  elsewhere,
};

enum class UpdatePolicy {
  // Adding a key that exists fails.
  error,
  // Adding a key that exists replaces all of its values, deleted or not.
  all,
};

class WriteTransaction;

class Store {
 public:
  // Opens the default configuration's store on this thread.
  static Store open();
  static Store open(const StoreConfiguration& configuration);

  // The configuration a plain open() uses, per Environment.
  static void setDefaultConfiguration(StoreConfiguration configuration);
  static const StoreConfiguration& defaultConfiguration();

  // Forgets every connection and preparation of `file`, on all threads, for
  // when the file is moved or replaced underneath.
  static void invalidate(const std::filesystem::path& file);

  // The row of that primary key, deleted or not.
  template <class Record>
  std::optional<Record> object(std::string_view primaryKey);

  template <class Record>
  std::vector<Record> objects(const Query& query = {});
  // The first record `query` selects, if any.
  template <class Record>
  std::optional<Record> first(Query query);

  // Every read of rows: `sql`, prepared once per connection, with `arguments`
  // bound to its parameters 1..n. The cursor resets the statement when it
  // goes, however the reading ends.
  sqlite::Cursor select(std::string_view sql, const std::vector<QueryValue>& arguments = {});
  // SELECT `columns` FROM the class's table with the query's condition and order.
  sqlite::Cursor select(std::string_view className, std::string_view columns, const Query& query) {
    return select(selectSQL(className, columns, query), query.arguments);
  }
  // Binds `arguments` to parameters 1..n of a statement.
  static void bind(sqlite::Statement& statement, const std::vector<QueryValue>& arguments, int first = 1);

  // Runs `body` in a write transaction: commits when it returns, rolls back
  // when it throws. Observers whose tokens are in `withoutNotifying` hear
  // nothing of this commit.
  template <class F>
  void write(F&& body, const std::vector<const ObserverToken*>& withoutNotifying = {}, Origin origin = Origin::local);
  // As write(), but no observer hears of this commit at all: for changes
  // that only complete what an earlier write from the same source began.
  template <class F>
  void writeNotifyingNobody(F&& body, Origin origin = Origin::local);

  // Registers `callback` for commits that change rows of Record's class; it
  // runs on the main queue, first once with an empty, initial change set.
  template <class Record>
  [[nodiscard]] ObserverToken observe(std::function<void(const ChangeSet&)> callback) {
    return observe(std::string(Record::className), std::move(callback));
  }
  [[nodiscard]] ObserverToken observe(std::string className, std::function<void(const ChangeSet&)> callback);

  sqlite::Connection& connection() { return *connection_; }
  const std::filesystem::path& file() const { return connection_->file(); }
  // The configuration's outbox classes with their keys.
  const std::vector<OutboxClass>& outboxClasses() const { return *outboxClasses_; }

  // SELECT `columns` FROM the class's table with the query's condition and order.
  static std::string selectSQL(std::string_view className, std::string_view columns, const Query& query);

 private:
  friend class WriteTransaction;
  friend class BatchWriter;
  explicit Store(sqlite::Connection& connection, std::shared_ptr<ObserverRegistry> observers,
                 std::shared_ptr<const std::vector<OutboxClass>> outboxClasses)
      : connection_(&connection), observers_(std::move(observers)), outboxClasses_(std::move(outboxClasses)) {}

  sqlite::Connection* connection_;
  std::shared_ptr<ObserverRegistry> observers_;
  std::shared_ptr<const std::vector<OutboxClass>> outboxClasses_;
};

// The operations of one write. Every change made through it is recorded for
// the observers; statements run on connection() directly are not.
class WriteTransaction {
 public:
  template <class Record>
  void add(const Record& record, UpdatePolicy policy = UpdatePolicy::all);

  // Sets columns on the rows `where` selects and returns their primary keys,
  // in store order.
  template <class Record>
  std::vector<std::string> update(const std::vector<std::pair<std::string_view, QueryValue>>& assignments,
                                  const Query& where);

  // Sets columns on the row of one primary key, if it also meets `onlyIf`
  // (a SQL condition without parameters); false when no row was changed.
  template <class Record>
  bool updateObject(std::string_view primaryKey,
                    const std::vector<std::pair<std::string_view, QueryValue>>& assignments,
                    std::string_view onlyIf = {}) {
    return updateRow(Record::className, primaryKeyName<Record>(), primaryKey, assignments, onlyIf);
  }

  // Removes the rows `where` selects for good; returns their primary keys.
  template <class Record>
  std::vector<std::string> remove(const Query& where);

  sqlite::Connection& connection() { return store_.connection(); }
  // The file as this transaction sees it now: taken before its first
  // statement, the state it found; after its last, the state it commits.
  Snapshot snapshot();

  // For a writer that inserts rows with statements of its own, which the
  // transaction does not see (a bulk import): the last rowid of the class
  // before, and then every row inserted after it told to the outbox as a
  // local insertion. Observers still hear nothing of those rows.
  std::int64_t lastRowid(std::string_view className);
  void noteInsertedAfter(std::string_view className, std::int64_t rowid);

 private:
  friend class Store;
  // Begins the transaction.
  friend class BatchWriter;
  // Begins the transaction, or, `nested` in one already open, a savepoint.
  explicit WriteTransaction(Store& store, Origin origin, bool nested = false);
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;
  // Runs `body` on this transaction: commits when it returns, rolls back when it throws.
  template <class F>
  void perform(F&& body);
  void commit();
  void rollback() noexcept;
  // After the commit: tells the observers that are not excluded.
  void deliver(const std::vector<const ObserverToken*>& withoutNotifying);

  // Notes the key of the row the last statement inserted or updated.
  void recordAdd(std::string_view className, std::string key);
  // The class's outbox, if it has one; and the same only if this write's
  // changes leave entries (local ones do).
  const OutboxClass* outboxClass(std::string_view className) const;
  const OutboxClass* journaled(std::string_view className) const;
  // Leaves outbox entries for local changes of outbox classes.
  void journal(std::string_view className, const std::vector<std::string>& keys);
  ChangeSet& changes(std::string_view className);
  std::vector<std::string> updateRows(std::string_view className, std::string_view key,
                                      const std::vector<std::pair<std::string_view, QueryValue>>& assignments,
                                      const Query& where);
  std::vector<std::string> removeRows(std::string_view className, std::string_view key, const Query& where);
  bool updateRow(std::string_view className, std::string_view key, std::string_view primaryKey,
                 const std::vector<std::pair<std::string_view, QueryValue>>& assignments, std::string_view onlyIf);

  Store& store_;
  Origin origin_;
  bool nested_;
  // Read once: no other connection commits while the transaction holds the file.
  std::optional<std::int64_t> dataVersion_;
  std::vector<ChangeSet> changes_;
};

// Many writes in one transaction, each told to the observers as if it had
// been committed alone: its own change sets, in order, skipping its own
// excluded tokens, once the whole is committed. For a writer that makes a
// long run of small writes (the records a cloud fetch brings, one at a
// time), whose observers must see the same as before but whose commits
// would cost far more than the writes. It writes through a connection of
// its own, so a transaction left open never catches a write of the thread
// that made it. Reads through store() see the open transaction. Its writes
// come from elsewhere (Origin::elsewhere): none leaves an outbox entry.
class BatchWriter {
 public:
  explicit BatchWriter(const StoreConfiguration& configuration);
  // Commits what is open.
  ~BatchWriter();
  BatchWriter(const BatchWriter&) = delete;
  BatchWriter& operator=(const BatchWriter&) = delete;

  Store& store() { return store_; }
  // Opens the transaction, if it is not open yet; write() does too. The
  // outbox is settled as it opens (see Outbox), and its marks moved past
  // the batch's own rows as it commits.
  void begin();
  template <class F>
  void write(F&& body, const std::vector<const ObserverToken*>& withoutNotifying = {});
  // Commits, then tells the observers write by write.
  void commit();
  bool isOpen() const { return open_; }

 private:
  struct Written {
    std::vector<ChangeSet> changes;
    std::vector<std::uint64_t> excluded;
  };
  static Store makeStore(sqlite::Connection& connection, const StoreConfiguration& configuration);
  void keep(WriteTransaction& transaction, const std::vector<const ObserverToken*>& withoutNotifying);

  std::unique_ptr<sqlite::Connection> connection_;
  Store store_;
  bool open_ = false;
  std::vector<Written> written_;
};

template <class Record>
std::optional<Record> Store::object(std::string_view primaryKey) {
  static const std::string sql = "SELECT " + columnList<Record>() + " FROM " + quoteIdentifier(Record::className) +
                                 " WHERE " + quoteIdentifier(primaryKeyName<Record>()) + " = ?1";
  auto& statement = connection_->cached(sql);
  statement.bind(1, primaryKey);
  sqlite::Cursor rows(statement);
  if (!rows.next()) return std::nullopt;
  return readRecord<Record>(*rows);
}

template <class Record>
std::vector<Record> Store::objects(const Query& query) {
  std::vector<Record> records;
  for (auto rows = select(Record::className, columnList<Record>(), query); rows.next();) {
    records.push_back(readRecord<Record>(*rows));
  }
  return records;
}

template <class Record>
std::optional<Record> Store::first(Query query) {
  auto rows = select(Record::className, columnList<Record>(), query.limited(1));
  if (!rows.next()) return std::nullopt;
  return readRecord<Record>(*rows);
}

template <class F>
void WriteTransaction::perform(F&& body) {
  try {
    body(*this);
    commit();
  } catch (...) {
    rollback();
    throw;
  }
}

template <class F>
void Store::write(F&& body, const std::vector<const ObserverToken*>& withoutNotifying, Origin origin) {
  WriteTransaction transaction(*this, origin);
  transaction.perform(std::forward<F>(body));
  transaction.deliver(withoutNotifying);
}

template <class F>
void Store::writeNotifyingNobody(F&& body, Origin origin) {
  WriteTransaction(*this, origin).perform(std::forward<F>(body));
}

template <class F>
void BatchWriter::write(F&& body, const std::vector<const ObserverToken*>& withoutNotifying) {
  begin();
  WriteTransaction transaction(store_, Origin::elsewhere, true);
  transaction.perform(std::forward<F>(body));
  keep(transaction, withoutNotifying);
}

template <class Record>
void WriteTransaction::add(const Record& record, UpdatePolicy policy) {
  static const std::string insert = [] {
    std::string placeholders;
    for (int i = 1; i <= propertyCount<Record>(); ++i) placeholders += (i > 1 ? ", ?" : "?") + std::to_string(i);
    return "INSERT INTO " + quoteIdentifier(Record::className) + " (" + columnList<Record>() + ") VALUES (" +
           placeholders + ")";
  }();
  static const std::string upsert = [] {
    std::string assignments;
    forEachProperty<Record>([&assignments](const auto& p) {
      if (p.isPrimaryKey) return;
      if (!assignments.empty()) assignments += ", ";
      assignments += quoteIdentifier(p.name) + " = excluded." + quoteIdentifier(p.name);
    });
    return insert + " ON CONFLICT(" + quoteIdentifier(primaryKeyName<Record>()) + ") DO UPDATE SET " + assignments;
  }();
  auto& statement = connection().cached(policy == UpdatePolicy::all ? upsert : insert);
  bindRecord(statement, record);
  statement.execute();
  recordAdd(Record::className, records::primaryKeyText(record).value_or(""));
}

template <class Record>
std::vector<std::string> WriteTransaction::update(
    const std::vector<std::pair<std::string_view, QueryValue>>& assignments, const Query& where) {
  return updateRows(Record::className, primaryKeyName<Record>(), assignments, where);
}

template <class Record>
std::vector<std::string> WriteTransaction::remove(const Query& where) {
  return removeRows(Record::className, primaryKeyName<Record>(), where);
}

}  // namespace tarnwell::store

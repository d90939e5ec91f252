#include "tarnwell/store/Store.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/store/Outbox.h"

namespace tarnwell::store {

// The observers of one store file.
class ObserverRegistry {
 public:
  std::uint64_t add(std::string className, std::function<void(const ChangeSet&)> callback) {
    std::lock_guard lock(mutex_);
    const std::uint64_t id = nextId_++;
    observers_.emplace(id, Observer{std::move(className), std::make_shared<Callback>(std::move(callback))});
    return id;
  }

  void remove(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    observers_.erase(id);
  }

  // Hands each change set to the observers of its class on the main queue,
  // skipping `excluded`. An observer removed before its turn hears nothing.
  void deliver(const std::vector<ChangeSet>& changes, const std::set<std::uint64_t>& excluded,
               const std::shared_ptr<ObserverRegistry>& self) {
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Callback>>> targets;
    std::vector<const ChangeSet*> sets;
    {
      std::lock_guard lock(mutex_);
      for (const auto& change : changes) {
        for (const auto& [id, observer] : observers_) {
          if (observer.className != change.className || excluded.contains(id)) continue;
          targets.emplace_back(id, observer.callback);
          sets.push_back(&change);
        }
      }
    }
    for (std::size_t i = 0; i < targets.size(); ++i) post(self, targets[i].first, targets[i].second, *sets[i]);
  }

  static void post(const std::shared_ptr<ObserverRegistry>& self, std::uint64_t id,
                   std::shared_ptr<std::function<void(const ChangeSet&)>> callback, ChangeSet change) {
    DispatchQueue::main().async([weak = std::weak_ptr(self), id, callback, change = std::move(change)] {
      const auto registry = weak.lock();
      if (!registry || !registry->contains(id)) return;
      (*callback)(change);
    });
  }

  std::shared_ptr<std::function<void(const ChangeSet&)>> callback(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    const auto found = observers_.find(id);
    return found == observers_.end() ? nullptr : found->second.callback;
  }

 private:
  using Callback = std::function<void(const ChangeSet&)>;
  struct Observer {
    std::string className;
    std::shared_ptr<Callback> callback;
  };

  bool contains(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    return observers_.contains(id);
  }

  std::mutex mutex_;
  std::uint64_t nextId_ = 1;
  std::map<std::uint64_t, Observer> observers_;
};

namespace {

// Whether the last row a statement of this thread wrote was an insertion.
thread_local bool lastRowWasInserted = false;

// The store files of one Environment.
struct StoreState {
  std::mutex mutex;
  std::optional<StoreConfiguration> defaultConfiguration;
  // Bumped when a file is moved or replaced; connections and preparation of
  // an older epoch are not used again.
  std::map<std::string, std::uint64_t> epochs;
  std::set<std::pair<std::string, std::uint64_t>> prepared;
  std::map<std::string, std::shared_ptr<ObserverRegistry>> observers;
  std::map<std::string, std::shared_ptr<const std::vector<OutboxClass>>> outboxClasses;

  std::uint64_t epoch(const std::string& file) {
    std::lock_guard lock(mutex);
    return epochs[file];
  }
};

// Connections of this thread, for the Environment of `generation`.
struct ThreadConnections {
  std::uint64_t generation = 0;
  std::map<std::pair<std::string, std::uint64_t>, std::unique_ptr<sqlite::Connection>> connections;
};
thread_local ThreadConnections threadConnections;

std::unique_ptr<sqlite::Connection> connect(const std::filesystem::path& file) {
  auto connection = std::make_unique<sqlite::Connection>(file);
  connection->setBusyTimeout(storeBusyTimeout());
  // A per-connection setting: without it a thread's connection syncs the
  // log to disk on every commit, which costs far more than the write.
  connection->execute("PRAGMA synchronous = NORMAL");
  connection->setRowHook([](bool inserted, std::string_view) { lastRowWasInserted = inserted; });
  return connection;
}

sqlite::Connection& threadConnection(const std::string& file, std::uint64_t epoch) {
  auto& cache = threadConnections;
  if (cache.generation != Environment::generation()) {
    cache.connections.clear();
    cache.generation = Environment::generation();
  }
  std::erase_if(cache.connections,
                [&](const auto& entry) { return entry.first.first == file && entry.first.second != epoch; });
  auto& slot = cache.connections[{file, epoch}];
  if (!slot) slot = connect(file);
  return *slot;
}

void forgetThreadConnection(const std::string& file, std::uint64_t epoch) {
  threadConnections.connections.erase({file, epoch});
}

// The outbox classes with the primary keys of their tables.
std::vector<OutboxClass> outboxClassesOf(const StoreConfiguration& configuration) {
  std::vector<OutboxClass> classes;
  for (const auto& className : configuration.outboxClasses) {
    const auto table = std::find_if(configuration.tables.begin(), configuration.tables.end(),
                                    [&](const TableSchema& each) { return each.className == className; });
    if (table == configuration.tables.end() || table->primaryKey.empty()) {
      throw std::invalid_argument("the outbox class " + className + " has no table with a primary key");
    }
    classes.push_back({className, table->primaryKey});
  }
  return classes;
}

void compactIfAsked(sqlite::Connection& connection, const StoreConfiguration& configuration) {
  if (!configuration.shouldCompactOnLaunch) return;
  const auto pageSize = static_cast<std::uint64_t>(connection.pageSize());
  const auto pages = static_cast<std::uint64_t>(connection.pageCount());
  const auto freePages = static_cast<std::uint64_t>(connection.freelistCount());
  if (!configuration.shouldCompactOnLaunch(pages * pageSize, (pages - freePages) * pageSize)) return;
  // VACUUM may number rows anew: the outbox writes down the inserts its
  // marks stand for first, and marks every row as written down after.
  const bool marked = connection.tableExists("OutboxMark");
  if (marked) {
    sqlite::Transaction transaction(connection, sqlite::Transaction::Behavior::immediate);
    Outbox(connection).settleAll(outboxClassesOf(configuration));
    transaction.commit();
  }
  connection.execute("VACUUM");
  if (marked) Outbox(connection).markAllSettled(outboxClassesOf(configuration));
  connection.execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

bool hasTables(sqlite::Connection& connection) {
  auto statement = connection.prepare("SELECT count(*) FROM sqlite_schema WHERE type = 'table'");
  statement.step();
  return statement.int64(0) > 0;
}

// The index or trigger a statement of the schema makes or drops, unquoted;
// `made` tells which.
std::optional<std::string> indexName(std::string_view sql, bool& made) {
  std::size_t begin = 0;
  for (const std::string_view prefix : {"CREATE INDEX IF NOT EXISTS \"", "CREATE TRIGGER IF NOT EXISTS \""}) {
    if (sql.starts_with(prefix)) begin = prefix.size(), made = true;
  }
  if (constexpr std::string_view drop = "DROP INDEX IF EXISTS \""; sql.starts_with(drop)) {
    begin = drop.size(), made = false;
  }
  if (begin == 0) return std::nullopt;
  std::string name;
  for (std::size_t i = begin; i < sql.size(); ++i) {
    if (sql[i] != '"') {
      name += sql[i];
    } else if (i + 1 < sql.size() && sql[i + 1] == '"') {
      name += '"';
      ++i;
    } else {
      return name;
    }
  }
  return std::nullopt;
}

// The configuration's tables, and the outbox's when it has outbox classes.
std::vector<TableSchema> allTables(const StoreConfiguration& configuration) {
  auto tables = configuration.tables;
  if (!configuration.outboxClasses.empty()) {
    tables.push_back(Outbox::tableSchema());
    tables.push_back(Outbox::markSchema());
  }
  return tables;
}

// Whether the file already has the configuration's version, tables, columns
// and indexes; read without the write lock, which another process (a long
// import) may hold for a good while.
bool isCurrent(sqlite::Connection& connection, const StoreConfiguration& configuration) {
  sqlite::Transaction read(connection, sqlite::Transaction::Behavior::deferred);
  if (static_cast<std::uint64_t>(connection.userVersion()) != configuration.schemaVersion) return false;
  auto index = connection.prepare("SELECT 1 FROM sqlite_schema WHERE type IN ('index', 'trigger') AND name = ?1");
  for (const auto& table : allTables(configuration)) {
    const auto existing = connection.columns(table.className);
    for (const auto& column : table.columns) {
      if (std::find(existing.begin(), existing.end(), column.first) == existing.end()) return false;
    }
    for (const auto& sql : table.indexesSQL) {
      bool made = true;
      const auto name = indexName(sql, made);
      if (!name) return false;
      index.reset();
      index.bind(1, std::string_view(*name));
      if (index.step() != made) return false;
    }
  }
  return configuration.outboxClasses.empty() || Outbox::hasMarks(connection, configuration.outboxClasses);
}

// Creates, widens and migrates the file to the configuration's schema.
void prepare(sqlite::Connection& connection, const StoreConfiguration& configuration) {
  // The first statement on a file that is not a database fails here.
  connection.execute("PRAGMA journal_mode = WAL");
  compactIfAsked(connection, configuration);
  if (isCurrent(connection, configuration)) return;

  sqlite::Transaction transaction(connection, sqlite::Transaction::Behavior::exclusive);
  const auto version = static_cast<std::uint64_t>(connection.userVersion());
  const bool fresh = version == 0 && !hasTables(connection);
  if (version > configuration.schemaVersion) {
    throw sqlite::Error(SQLITE_MISMATCH, "the store's schema version " + std::to_string(version) +
                                             " is newer than this version's " +
                                             std::to_string(configuration.schemaVersion));
  }
  for (const auto& table : allTables(configuration)) {
    if (!connection.tableExists(table.className)) {
      connection.execute(table.createSQL);
    } else {
      const auto existing = connection.columns(table.className);
      for (const auto& [name, definition] : table.columns) {
        if (std::find(existing.begin(), existing.end(), name) == existing.end()) {
          connection.execute("ALTER TABLE " + quoteIdentifier(table.className) + " ADD COLUMN " + definition);
        }
      }
    }
    for (const auto& index : table.indexesSQL) connection.execute(index);
  }
  Outbox::markExisting(connection, configuration.outboxClasses);
  if (!fresh && version < configuration.schemaVersion && configuration.migrationBlock) {
    configuration.migrationBlock(connection, version);
  }
  if (version != configuration.schemaVersion) connection.setUserVersion(static_cast<int>(configuration.schemaVersion));
  transaction.commit();
}

}  // namespace

Query& Query::filter(std::string_view condition, std::initializer_list<QueryValue> values) {
  if (!where.empty()) where += " AND ";
  where += condition;
  arguments.insert(arguments.end(), values);
  return *this;
}

Query& Query::filterIn(std::string_view column, const std::vector<std::string>& values) {
  std::string condition = quoteIdentifier(column) + " IN (";
  for (std::size_t i = 0; i < values.size(); ++i) condition += i == 0 ? "?" : ", ?";
  if (!where.empty()) where += " AND ";
  where += condition + ")";
  arguments.insert(arguments.end(), values.begin(), values.end());
  return *this;
}

ObserverToken::ObserverToken(ObserverToken&& other) noexcept : registry_(std::move(other.registry_)), id_(other.id_) {
  other.registry_.reset();
}

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
  if (this != &other) {
    invalidate();
    registry_ = std::move(other.registry_);
    id_ = other.id_;
    other.registry_.reset();
  }
  return *this;
}

void ObserverToken::invalidate() {
  if (auto registry = registry_.lock()) registry->remove(id_);
  registry_.reset();
}

Store Store::open() { return open(defaultConfiguration()); }

Store Store::open(const StoreConfiguration& configuration) {
  auto& state = Environment::current().component<StoreState>();
  const std::string file = configuration.fileURL.string();
  const std::uint64_t epoch = state.epoch(file);
  sqlite::Connection& connection = threadConnection(file, epoch);
  std::shared_ptr<ObserverRegistry> observers;
  std::shared_ptr<const std::vector<OutboxClass>> outboxClasses;
  {
    std::lock_guard lock(state.mutex);
    if (!state.prepared.contains({file, epoch})) {
      try {
        prepare(connection, configuration);
      } catch (...) {
        forgetThreadConnection(file, epoch);
        throw;
      }
      state.prepared.insert({file, epoch});
    }
    auto& registry = state.observers[file];
    if (!registry) registry = std::make_shared<ObserverRegistry>();
    observers = registry;
    auto& classes = state.outboxClasses[file];
    if (!classes || !std::ranges::equal(*classes, configuration.outboxClasses, {}, &OutboxClass::className)) {
      classes = std::make_shared<const std::vector<OutboxClass>>(outboxClassesOf(configuration));
    }
    outboxClasses = classes;
  }
  return Store(connection, std::move(observers), std::move(outboxClasses));
}

void Store::setDefaultConfiguration(StoreConfiguration configuration) {
  auto& state = Environment::current().component<StoreState>();
  std::lock_guard lock(state.mutex);
  state.defaultConfiguration = std::move(configuration);
}

const StoreConfiguration& Store::defaultConfiguration() {
  auto& state = Environment::current().component<StoreState>();
  std::lock_guard lock(state.mutex);
  if (!state.defaultConfiguration) fatalError("The store has no configuration: Database::start() sets it up");
  return *state.defaultConfiguration;
}

void Store::invalidate(const std::filesystem::path& file) {
  auto& state = Environment::current().component<StoreState>();
  std::lock_guard lock(state.mutex);
  const auto old = state.epochs[file.string()]++;
  state.prepared.erase({file.string(), old});
  forgetThreadConnection(file.string(), old);
}

void Store::bind(sqlite::Statement& statement, const std::vector<QueryValue>& arguments, int first) {
  int index = first;
  for (const auto& argument : arguments) {
    std::visit(
        [&](const auto& value) {
          using T = std::decay_t<decltype(value)>;
          if constexpr (std::is_same_v<T, std::nullptr_t>) {
            statement.bindNull(index);
          } else if constexpr (std::is_same_v<T, Date>) {
            statement.bind(index, value.timeIntervalSinceReferenceDate());
          } else if constexpr (std::is_same_v<T, std::string>) {
            statement.bind(index, std::string_view(value));
          } else if constexpr (std::is_same_v<T, Data> || std::is_same_v<T, std::vector<std::int64_t>> ||
                               std::is_same_v<T, std::vector<std::string>>) {
            bindValue(statement, index, value);
          } else {
            statement.bind(index, value);
          }
        },
        argument);
    ++index;
  }
}

sqlite::Cursor Store::select(std::string_view sql, const std::vector<QueryValue>& arguments) {
  auto& statement = connection_->cached(sql);
  bind(statement, arguments);
  return sqlite::Cursor(statement);
}

std::string Store::selectSQL(std::string_view className, std::string_view columns, const Query& query) {
  std::string sql = "SELECT ";
  sql += columns;
  sql += " FROM " + quoteIdentifier(className);
  if (!query.where.empty()) sql += " WHERE " + query.where;
  // Equal keys keep the order rows were added in, as the store's own order.
  sql += " ORDER BY ";
  if (!query.orderBy.empty()) sql += query.orderBy + ", ";
  sql += "rowid";
  if (query.limit) sql += " LIMIT " + std::to_string(*query.limit);
  return sql;
}

ObserverToken Store::observe(std::string className, std::function<void(const ChangeSet&)> callback) {
  ChangeSet initial{className, {}, {}, {}, true};
  const std::uint64_t id = observers_->add(std::move(className), std::move(callback));
  ObserverRegistry::post(observers_, id, observers_->callback(id), std::move(initial));
  return ObserverToken(observers_, id);
}

WriteTransaction::WriteTransaction(Store& store, Origin origin, bool nested)
    : store_(store), origin_(origin), nested_(nested) {
  store_.connection().cached(nested_ ? "SAVEPOINT write" : "BEGIN IMMEDIATE").execute();
}

Snapshot WriteTransaction::snapshot() {
  auto& connection = store_.connection();
  if (!dataVersion_) dataVersion_ = connection.dataVersion();
  return {connection.serial(), *dataVersion_, connection.totalChanges()};
}

void WriteTransaction::commit() { store_.connection().cached(nested_ ? "RELEASE write" : "COMMIT").execute(); }

void WriteTransaction::deliver(const std::vector<const ObserverToken*>& withoutNotifying) {
  std::erase_if(changes_, [](const ChangeSet& change) { return change.empty(); });
  if (changes_.empty()) return;
  std::set<std::uint64_t> excluded;
  for (const auto* token : withoutNotifying) {
    if (token) excluded.insert(token->id());
  }
  store_.observers_->deliver(changes_, excluded, store_.observers_);
}

void WriteTransaction::rollback() noexcept {
  // A failed rollback leaves SQLite to roll back when the connection closes.
  sqlite3_exec(store_.connection().handle(), nested_ ? "ROLLBACK TO write; RELEASE write" : "ROLLBACK", nullptr,
               nullptr, nullptr);
}

ChangeSet& WriteTransaction::changes(std::string_view className) {
  for (auto& change : changes_) {
    if (change.className == className) return change;
  }
  changes_.push_back(ChangeSet{std::string(className), {}, {}, {}, false});
  return changes_.back();
}

void WriteTransaction::recordAdd(std::string_view className, std::string key) {
  const bool inserted = lastRowWasInserted;
  // A batch settled the outbox when it began and moves the marks past all
  // its rows when it commits.
  if (const auto* journaled = outboxClass(className); journaled && !(nested_ && origin_ == Origin::elsewhere)) {
    Outbox outbox(connection());
    if (origin_ == Origin::elsewhere) {
      if (inserted) outbox.passInserted(*journaled, connection().lastInsertRowId());
    } else if (inserted) {
      outbox.noteInserted(className, key, connection().lastInsertRowId());
    } else {
      outbox.journal(*journaled, key);
    }
  }
  auto& change = changes(className);
  (inserted ? change.insertions : change.modifications).push_back(std::move(key));
}

const OutboxClass* WriteTransaction::outboxClass(std::string_view className) const {
  for (const auto& each : *store_.outboxClasses_) {
    if (each.className == className) return &each;
  }
  return nullptr;
}

const OutboxClass* WriteTransaction::journaled(std::string_view className) const {
  return origin_ == Origin::local ? outboxClass(className) : nullptr;
}

void WriteTransaction::journal(std::string_view className, const std::vector<std::string>& keys) {
  const auto* outboxClass = journaled(className);
  if (!outboxClass) return;
  Outbox outbox(connection());
  for (const auto& key : keys) outbox.journal(*outboxClass, key);
}

std::int64_t WriteTransaction::lastRowid(std::string_view className) {
  auto& statement = connection().cached("SELECT coalesce(max(rowid), 0) FROM " + quoteIdentifier(className));
  sqlite::Cursor rows(statement);
  return rows.next() ? rows->int64(0) : 0;
}

void WriteTransaction::noteInsertedAfter(std::string_view className, std::int64_t rowid) {
  if (const auto* outboxClass = journaled(className)) Outbox(connection()).noteInsertedAfter(*outboxClass, rowid);
}

namespace {

// The primary keys `where` selects, in store order.
std::vector<std::string> selectKeys(sqlite::Connection& connection, std::string_view className, std::string_view key,
                                    const Query& where) {
  auto& select = connection.cached(Store::selectSQL(className, quoteIdentifier(key), where));
  Store::bind(select, where.arguments);
  std::vector<std::string> keys;
  for (sqlite::Cursor rows(select); rows.next();) {
    if (!rows->isNull(0)) keys.push_back(rows->text(0));
  }
  return keys;
}

// Runs "UPDATE class SET a = ?, ... WHERE condition" with the assignments'
// values followed by the condition's.
void runUpdate(sqlite::Connection& connection, std::string_view className,
               const std::vector<std::pair<std::string_view, QueryValue>>& assignments, std::string_view condition,
               const std::vector<QueryValue>& conditionArguments) {
  std::string sql = "UPDATE " + quoteIdentifier(className) + " SET ";
  std::vector<QueryValue> arguments;
  for (std::size_t i = 0; i < assignments.size(); ++i) {
    sql += (i == 0 ? "" : ", ") + quoteIdentifier(assignments[i].first) + " = ?";
    arguments.push_back(assignments[i].second);
  }
  if (!condition.empty()) sql += " WHERE " + std::string(condition);
  arguments.insert(arguments.end(), conditionArguments.begin(), conditionArguments.end());
  auto& update = connection.cached(sql);
  Store::bind(update, arguments);
  update.execute();
}

}  // namespace

std::vector<std::string> WriteTransaction::updateRows(
    std::string_view className, std::string_view key,
    const std::vector<std::pair<std::string_view, QueryValue>>& assignments, const Query& where) {
  // The keys first, in store order; then one UPDATE over the same selection.
  auto keys = selectKeys(connection(), className, key, where);
  if (keys.empty()) return keys;
  runUpdate(connection(), className, assignments, where.where, where.arguments);
  journal(className, keys);
  auto& modified = changes(className).modifications;
  modified.insert(modified.end(), keys.begin(), keys.end());
  return keys;
}

bool WriteTransaction::updateRow(std::string_view className, std::string_view key, std::string_view primaryKey,
                                 const std::vector<std::pair<std::string_view, QueryValue>>& assignments,
                                 std::string_view onlyIf) {
  std::string condition = quoteIdentifier(key) + " = ?";
  if (!onlyIf.empty()) condition += " AND (" + std::string(onlyIf) + ")";
  runUpdate(connection(), className, assignments, condition, {std::string(primaryKey)});
  if (connection().changes() == 0) return false;
  if (const auto* outboxClass = journaled(className)) Outbox(connection()).journal(*outboxClass, primaryKey);
  changes(className).modifications.emplace_back(primaryKey);
  return true;
}

std::vector<std::string> WriteTransaction::removeRows(std::string_view className, std::string_view key,
                                                      const Query& where) {
  auto keys = selectKeys(connection(), className, key, where);
  // Before the rows go: an entry is known unless its row never left.
  journal(className, keys);
  std::string sql = "DELETE FROM " + quoteIdentifier(className);
  if (!where.where.empty()) sql += " WHERE " + where.where;
  auto& remove = connection().cached(sql);
  Store::bind(remove, where.arguments);
  remove.execute();
  auto& deleted = changes(className).deletions;
  deleted.insert(deleted.end(), keys.begin(), keys.end());
  return keys;
}

BatchWriter::BatchWriter(const StoreConfiguration& configuration)
    : connection_(connect(configuration.fileURL)), store_(makeStore(*connection_, configuration)) {}

Store BatchWriter::makeStore(sqlite::Connection& connection, const StoreConfiguration& configuration) {
  const Store opened = Store::open(configuration);
  return Store(connection, opened.observers_, opened.outboxClasses_);
}

BatchWriter::~BatchWriter() {
  try {
    commit();
  } catch (const sqlite::Error&) {
    // The connection rolls back what it cannot commit as it closes; the
    // records come again with the next fetch, whose token did not move.
  }
}

void BatchWriter::begin() {
  if (open_) return;
  store_.connection().cached("BEGIN IMMEDIATE").execute();
  open_ = true;
  // Local inserts are written down now, so that the marks can move past
  // the batch's own rows at once when it commits, not row by row.
  try {
    Outbox(store_.connection()).settleAll(*store_.outboxClasses_);
  } catch (...) {
    sqlite3_exec(store_.connection().handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    open_ = false;
    throw;
  }
}

void BatchWriter::keep(WriteTransaction& transaction, const std::vector<const ObserverToken*>& withoutNotifying) {
  Written written;
  std::erase_if(transaction.changes_, [](const ChangeSet& change) { return change.empty(); });
  written.changes = std::move(transaction.changes_);
  for (const auto* token : withoutNotifying) {
    if (token) written.excluded.push_back(token->id());
  }
  if (!written.changes.empty()) written_.push_back(std::move(written));
}

void BatchWriter::commit() {
  if (!open_) return;
  Outbox(store_.connection()).markAllSettled(*store_.outboxClasses_);
  store_.connection().cached("COMMIT").execute();
  open_ = false;
  auto written = std::move(written_);
  written_.clear();
  for (const auto& each : written) {
    store_.observers_->deliver(each.changes, std::set<std::uint64_t>(each.excluded.begin(), each.excluded.end()),
                               store_.observers_);
  }
}

}  // namespace tarnwell::store

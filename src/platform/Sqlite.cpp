#include "tarnwell/platform/Sqlite.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdlib>

#include "tarnwell/platform/BusyTimeout.h"

namespace tarnwell::sqlite {
namespace {

// SQLite's own sentence only: the statement may carry a user's text and
// means nothing to them.
[[noreturn]] void fail(sqlite3* database, int code) {
  throw Error(database ? sqlite3_extended_errcode(database) : code,
              database ? sqlite3_errmsg(database) : sqlite3_errstr(code));
}

std::atomic<int> busyTimeout{[] {
  if (const char* text = std::getenv("TARNWELL_BUSY_TIMEOUT_MS"); text && *text) {
    char* end = nullptr;
    const long milliseconds = std::strtol(text, &end, 10);
    if (*end == '\0' && milliseconds >= 0 && milliseconds <= 3600000) return static_cast<int>(milliseconds);
  }
  return 180000;
}()};

}  // namespace

Statement::Statement(Statement&& other) noexcept : database_(other.database_), statement_(other.statement_) {
  other.statement_ = nullptr;
}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(statement_);
    database_ = other.database_;
    statement_ = other.statement_;
    other.statement_ = nullptr;
  }
  return *this;
}

Statement::~Statement() { sqlite3_finalize(statement_); }

void Statement::check(int result) const {
  if (result != SQLITE_OK) fail(database_, result);
}

Statement& Statement::bindNull(int index) {
  check(sqlite3_bind_null(statement_, index));
  return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
  check(sqlite3_bind_int64(statement_, index, value));
  return *this;
}

Statement& Statement::bind(int index, double value) {
  check(sqlite3_bind_double(statement_, index, value));
  return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
  check(sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  return *this;
}

Statement& Statement::bind(int index, std::span<const std::uint8_t> blob) {
  // A zero-length blob is still a blob, not a NULL.
  static const std::uint8_t kEmpty = 0;
  check(sqlite3_bind_blob64(statement_, index, blob.empty() ? &kEmpty : blob.data(), blob.size(), SQLITE_TRANSIENT));
  return *this;
}

bool Statement::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  fail(database_, result);
}

void Statement::execute() {
  while (step()) {
  }
  reset();
}

void Statement::reset() noexcept { sqlite3_reset(statement_); }
void Statement::clearBindings() { sqlite3_clear_bindings(statement_); }

int Statement::columnCount() const { return sqlite3_column_count(statement_); }
bool Statement::isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
std::int64_t Statement::int64(int column) const { return sqlite3_column_int64(statement_, column); }
double Statement::real(int column) const { return sqlite3_column_double(statement_, column); }

std::string Statement::text(int column) const {
  const auto* text = sqlite3_column_text(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size)) : std::string();
}

std::vector<std::uint8_t> Statement::blob(int column) const {
  const auto bytes = blobView(column);
  return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
}

std::span<const std::uint8_t> Statement::blobView(int column) const {
  const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
  const int size = sqlite3_column_bytes(statement_, column);
  return data ? std::span<const std::uint8_t>(data, static_cast<std::size_t>(size)) : std::span<const std::uint8_t>();
}

std::string Statement::columnName(int column) const { return sqlite3_column_name(statement_, column); }

Connection::Connection(const std::filesystem::path& file, OpenMode mode) : file_(file) {
  static std::atomic<std::uint64_t> opened{0};
  serial_ = ++opened;
  int flags = SQLITE_OPEN_NOMUTEX;
  switch (mode) {
    case OpenMode::readWriteCreate:
      flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
      break;
    case OpenMode::readWrite:
      flags |= SQLITE_OPEN_READWRITE;
      break;
    case OpenMode::readOnly:
      flags |= SQLITE_OPEN_READONLY;
      break;
  }
  const int result = sqlite3_open_v2(file.c_str(), &database_, flags, nullptr);
  if (result != SQLITE_OK) {
    const std::string message =
        "cannot open " + file.string() + ": " + (database_ ? sqlite3_errmsg(database_) : sqlite3_errstr(result));
    const int code = database_ ? sqlite3_extended_errcode(database_) : result;
    sqlite3_close_v2(database_);
    database_ = nullptr;
    throw Error(code, message);
  }
  sqlite3_extended_result_codes(database_, 1);
}

Connection::Connection(Connection&& other) noexcept
    : file_(std::move(other.file_)),
      database_(other.database_),
      serial_(other.serial_),
      cache_(std::move(other.cache_)),
      rowHook_(std::move(other.rowHook_)) {
  other.database_ = nullptr;
}

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    cache_.clear();
    sqlite3_close_v2(database_);
    file_ = std::move(other.file_);
    database_ = other.database_;
    serial_ = other.serial_;
    cache_ = std::move(other.cache_);
    rowHook_ = std::move(other.rowHook_);
    other.database_ = nullptr;
  }
  return *this;
}

Connection::~Connection() {
  cache_.clear();  // statements first, so the close below really closes
  sqlite3_close_v2(database_);
}

void Connection::execute(std::string_view sql) {
  const std::string text(sql);
  char* error = nullptr;
  const int result = sqlite3_exec(database_, text.c_str(), nullptr, nullptr, &error);
  if (result != SQLITE_OK) {
    const std::string message = error ? error : sqlite3_errstr(result);
    sqlite3_free(error);
    throw Error(sqlite3_extended_errcode(database_), message);
  }
}

Statement Connection::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v3(database_, sql.data(), static_cast<int>(sql.size()), 0, &statement, nullptr);
  if (result != SQLITE_OK) fail(database_, result);
  return Statement(database_, statement);
}

Statement& Connection::cached(std::string_view sql) {
  auto found = cache_.find(sql);
  if (found == cache_.end()) {
    sqlite3_stmt* statement = nullptr;
    const int result = sqlite3_prepare_v3(database_, sql.data(), static_cast<int>(sql.size()),
                                          SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (result != SQLITE_OK) fail(database_, result);
    found = cache_.emplace(std::string(sql), std::unique_ptr<Statement>(new Statement(database_, statement))).first;
  } else {
    found->second->reset();
    found->second->clearBindings();
  }
  return *found->second;
}

std::int64_t Connection::lastInsertRowId() const { return sqlite3_last_insert_rowid(database_); }
int Connection::changes() const { return sqlite3_changes(database_); }
std::int64_t Connection::totalChanges() const { return sqlite3_total_changes64(database_); }

std::int64_t Connection::dataVersion() {
  Cursor rows(cached("PRAGMA data_version"));
  return rows.next() ? rows->int64(0) : -1;
}

int Connection::userVersion() {
  Statement statement = prepare("PRAGMA user_version");
  statement.step();
  return static_cast<int>(statement.int64(0));
}

void Connection::setUserVersion(int version) { execute("PRAGMA user_version = " + std::to_string(version)); }

void Connection::setBusyTimeout(int milliseconds) { sqlite3_busy_timeout(database_, milliseconds); }

}  // namespace tarnwell::sqlite

namespace tarnwell {

int storeBusyTimeout() { return sqlite::busyTimeout.load(); }
void setStoreBusyTimeout(int milliseconds) { sqlite::busyTimeout.store(milliseconds); }

}  // namespace tarnwell

namespace tarnwell::sqlite {

namespace {

std::int64_t pragmaNumber(Connection& connection, const char* pragma) {
  Statement statement = connection.prepare(std::string("PRAGMA ") + pragma);
  statement.step();
  return statement.int64(0);
}

}  // namespace

std::int64_t Connection::pageCount() { return pragmaNumber(*this, "page_count"); }
std::int64_t Connection::freelistCount() { return pragmaNumber(*this, "freelist_count"); }
std::int64_t Connection::pageSize() { return pragmaNumber(*this, "page_size"); }

bool Connection::tableExists(std::string_view table) {
  Statement statement = prepare("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?1");
  statement.bind(1, table);
  return statement.step();
}

std::vector<std::string> Connection::columns(std::string_view table) {
  Statement statement = prepare("SELECT name FROM pragma_table_info(?1)");
  statement.bind(1, table);
  std::vector<std::string> names;
  while (statement.step()) names.push_back(statement.text(0));
  return names;
}

void Connection::setRowHook(std::function<void(bool, std::string_view)> hook) {
  if (!hook) {
    sqlite3_update_hook(database_, nullptr, nullptr);
    rowHook_.reset();
    return;
  }
  rowHook_ = std::make_unique<std::function<void(bool, std::string_view)>>(std::move(hook));
  sqlite3_update_hook(
      database_,
      [](void* context, int operation, const char*, const char* table, sqlite3_int64) {
        if (operation == SQLITE_DELETE) return;
        (*static_cast<std::function<void(bool, std::string_view)>*>(context))(operation == SQLITE_INSERT, table);
      },
      rowHook_.get());
}

Transaction::Transaction(Connection& connection, Behavior behavior) : connection_(connection) {
  switch (behavior) {
    case Behavior::deferred:
      connection_.execute("BEGIN DEFERRED");
      break;
    case Behavior::immediate:
      connection_.execute("BEGIN IMMEDIATE");
      break;
    case Behavior::exclusive:
      connection_.execute("BEGIN EXCLUSIVE");
      break;
  }
}

Transaction::~Transaction() {
  if (!active_) return;
  // A failed rollback leaves nothing better to do; SQLite rolls back on close anyway.
  sqlite3_exec(connection_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  connection_.execute("COMMIT");
  active_ = false;
}

void Transaction::rollback() {
  active_ = false;
  connection_.execute("ROLLBACK");
}

Connection openSharedFile(const std::filesystem::path& file, const SharedFileKind& kind, bool create,
                          const std::function<void(Connection&)>& made) {
  Connection connection(file, create ? Connection::OpenMode::readWriteCreate : Connection::OpenMode::readWrite);
  connection.setBusyTimeout(storeBusyTimeout());
  // The first statement reads the header: a file that is no database fails here.
  connection.execute("PRAGMA journal_mode = WAL");
  connection.execute("PRAGMA synchronous = NORMAL");
  Transaction transaction(connection);
  auto applicationId = connection.prepare("PRAGMA application_id");
  applicationId.step();
  auto tables = connection.prepare("SELECT count(*) FROM sqlite_master");
  tables.step();
  if (tables.int64(0) == 0 && create) {
    connection.execute(kind.schema);
    if (made) made(connection);
    connection.execute("PRAGMA application_id = " + std::to_string(kind.applicationId));
    connection.setUserVersion(kind.schemaVersion);
  } else if (applicationId.int64(0) != kind.applicationId) {
    throw SharedFileError(SharedFileError::Problem::foreign, file.string() + " is another kind of file");
  } else if (connection.userVersion() > kind.schemaVersion) {
    throw SharedFileError(SharedFileError::Problem::newer, file.string() + " was written by a newer version");
  }
  transaction.commit();
  return connection;
}

}  // namespace tarnwell::sqlite

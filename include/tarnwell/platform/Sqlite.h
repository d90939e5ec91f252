// A thin RAII layer over SQLite: connections, prepared statements, transactions.
//
// A Connection belongs to one thread at a time. Failures throw sqlite::Error,
// which carries SQLite's result code. Nothing here throws from a destructor:
// a Transaction that is not committed rolls back quietly.

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tarnwell::sqlite {

class Error : public std::runtime_error {
 public:
  Error(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  // SQLite's (extended) result code, SQLITE_BUSY, SQLITE_CORRUPT and so on.
  int code() const { return code_; }
  // The primary code, the low byte of code().
  int primaryCode() const { return code_ & 0xff; }

 private:
  int code_;
};

class Statement {
 public:
  Statement(Statement&&) noexcept;
  Statement& operator=(Statement&&) noexcept;
  ~Statement();

  // Parameters count from 1, as in SQLite.
  Statement& bindNull(int index);
  Statement& bind(int index, std::int64_t value);
  Statement& bind(int index, int value) { return bind(index, static_cast<std::int64_t>(value)); }
  Statement& bind(int index, bool value) { return bind(index, static_cast<std::int64_t>(value)); }
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view text);
  Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  Statement& bind(int index, std::span<const std::uint8_t> blob);
  template <class T>
  Statement& bind(int index, const std::optional<T>& value) {
    return value ? bind(index, *value) : bindNull(index);
  }

  // Advances to the next row: true while there is one, false when done.
  bool step();
  // Runs a statement that returns no rows.
  void execute();
  // Ready to run again, and no longer reading; bindings are kept until
  // rebound or cleared.
  void reset() noexcept;
  void clearBindings();

  // Columns count from 0.
  int columnCount() const;
  bool isNull(int column) const;
  std::int64_t int64(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  std::vector<std::uint8_t> blob(int column) const;
  // The same bytes in place: valid until the statement steps, resets or is
  // read as another type.
  std::span<const std::uint8_t> blobView(int column) const;
  std::string columnName(int column) const;

  sqlite3_stmt* handle() const { return statement_; }

 private:
  friend class Connection;
  Statement(sqlite3* database, sqlite3_stmt* statement) : database_(database), statement_(statement) {}
  void check(int result) const;

  sqlite3* database_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

// The rows of a statement being read. The cursor resets the statement when
// it goes out of scope, so that a statement the connection keeps for reuse
// is ready for its next user and holds no read open, however the reading
// ended: after the last row, at an early return or at an exception. Move-only.
//
//   for (auto rows = Cursor(statement); rows.next();) ids.push_back(rows->text(0));
class Cursor {
 public:
  // `statement` is bound and not yet stepped.
  explicit Cursor(Statement& statement) : statement_(&statement) {}
  Cursor(Cursor&& other) noexcept : statement_(other.statement_) { other.statement_ = nullptr; }
  Cursor& operator=(Cursor&&) = delete;
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() {
    if (statement_) statement_->reset();
  }

  // Advances to the next row: true while there is one.
  bool next() { return statement_->step(); }
  // The current row's columns.
  const Statement& operator*() const { return *statement_; }
  const Statement* operator->() const { return statement_; }

 private:
  Statement* statement_;
};

class Connection {
 public:
  enum class OpenMode { readWriteCreate, readWrite, readOnly };

  // Opens (and with readWriteCreate, creates) the database file. Throws Error.
  explicit Connection(const std::filesystem::path& file, OpenMode mode = OpenMode::readWriteCreate);
  Connection(Connection&&) noexcept;
  Connection& operator=(Connection&&) noexcept;
  ~Connection();

  // Runs one or more statements that return no rows.
  void execute(std::string_view sql);
  // A new statement owned by the caller.
  Statement prepare(std::string_view sql);
  // A statement kept by the connection for reuse, reset and with bindings cleared.
  Statement& cached(std::string_view sql);

  std::int64_t lastInsertRowId() const;
  int changes() const;
  // Rows this connection has inserted, updated or deleted since it opened,
  // triggers included, whether or not their transactions committed.
  std::int64_t totalChanges() const;
  // Changes when another connection commits to the file; never for this one's own commits.
  std::int64_t dataVersion();
  // Unique among the connections of this process, for as long as it runs.
  std::uint64_t serial() const { return serial_; }

  int userVersion();
  void setUserVersion(int version);
  // Rows of the database, and of them the free ones, in pages of pageSize().
  std::int64_t pageCount();
  std::int64_t freelistCount();
  std::int64_t pageSize();
  bool tableExists(std::string_view table);
  // Column names of a table, in order; empty for a missing table.
  std::vector<std::string> columns(std::string_view table);

  // Called for every row a statement of this connection inserts (true) or
  // updates (false), with the table's name; replaces the previous hook.
  void setRowHook(std::function<void(bool inserted, std::string_view table)> hook);
  // Milliseconds a statement waits on another connection's lock before SQLITE_BUSY.
  void setBusyTimeout(int milliseconds);

  const std::filesystem::path& file() const { return file_; }
  sqlite3* handle() const { return database_; }

 private:
  std::filesystem::path file_;
  sqlite3* database_ = nullptr;
  std::uint64_t serial_ = 0;
  std::map<std::string, std::unique_ptr<Statement>, std::less<>> cache_;
  std::unique_ptr<std::function<void(bool, std::string_view)>> rowHook_;
};

// A write transaction that rolls back unless committed.
class Transaction {
 public:
  enum class Behavior { deferred, immediate, exclusive };

  explicit Transaction(Connection& connection, Behavior behavior = Behavior::immediate);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  void commit();
  void rollback();
  bool isActive() const { return active_; }

 private:
  Connection& connection_;
  bool active_ = true;
};

// A file that the processes of one machine share, marked as one kind's own
// by its application id and laid out by `schema` when new.
struct SharedFileKind {
  std::int64_t applicationId;
  int schemaVersion;
  std::string_view schema;
};

// Why a shared file could not be used as its kind.
class SharedFileError : public std::runtime_error {
 public:
  enum class Problem { foreign, newer };
  SharedFileError(Problem problem, const std::string& message) : std::runtime_error(message), problem_(problem) {}
  Problem problem() const { return problem_; }

 private:
  Problem problem_;
};

// Opens `file` in WAL mode with a busy timeout; with `create`, a file that
// is absent or empty is laid out, and `made` runs in the same transaction.
// Throws SharedFileError when the file is another kind's or of a newer
// version, and Error when it is no database at all.
Connection openSharedFile(const std::filesystem::path& file, const SharedFileKind& kind, bool create,
                          const std::function<void(Connection&)>& made = {});

}  // namespace tarnwell::sqlite

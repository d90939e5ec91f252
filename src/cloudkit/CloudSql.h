// The SQL the cloud's server speaks, over either database that keeps its
// state: SQLite (in memory, or the file a folder cloud's installations
// share) or a PostgreSQL server. CloudStore writes each statement once, in
// the dialect both share, with parameters written $1, $2, ...
//
// A session is one connection. Writing transactions of one cloud run one at
// a time on either backend: SQLite's BEGIN IMMEDIATE takes the file's write
// lock, and the server's transaction first locks the cloud's `databases`
// table against other writers, while readers go on. Change sequences are
// read and raised only under that lock, so sequence order is commit order.
// A reading transaction sees one snapshot, so the sequence it reads and the
// changes it pages agree.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarnwell::cloudkit {

// Bytes for a BLOB (bytea) column, as opposed to text.
struct SqlBytes {
  std::string_view bytes;
};

using SqlValue = std::variant<std::nullptr_t, std::int64_t, double, std::string_view, SqlBytes>;

// The rows a statement answered, read forward. Columns count from 0.
class SqlRows {
 public:
  virtual ~SqlRows() = default;
  virtual bool next() = 0;
  virtual bool isNull(int column) const = 0;
  virtual std::int64_t int64(int column) const = 0;
  virtual double real(int column) const = 0;
  virtual std::string text(int column) const = 0;
  // Valid until the next call of next().
  virtual std::string_view bytes(int column) const = 0;
};

class CloudSql {
 public:
  enum class Access { read, write };

  virtual ~CloudSql() = default;

  // Statements outside a transaction each commit on their own.
  virtual void begin(Access access) = 0;
  virtual void commit() = 0;
  virtual void rollback() = 0;

  virtual void execute(std::string_view sql, std::span<const SqlValue> parameters = {}) = 0;
  virtual std::unique_ptr<SqlRows> query(std::string_view sql, std::span<const SqlValue> parameters = {}) = 0;

  // Brings the planner's statistics of the records up to date, after a
  // write that grew them a lot.
  virtual void refreshStatistics() = 0;

  // Tells the cloud's other sessions, when this transaction commits, that
  // pushes wait; waitForAnnouncement() is where they hear it.
  virtual void announcePushes() = 0;
  // Waits up to `timeout` for a commit of another session that announced
  // pushes. A backend that cannot hear of one waits the whole time and says
  // true, so that its caller looks anyway.
  virtual bool waitForAnnouncement(std::chrono::milliseconds timeout) = 0;
};

// A transaction that rolls back unless committed.
class SqlTransaction {
 public:
  SqlTransaction(CloudSql& sql, CloudSql::Access access) : sql_(sql) { sql_.begin(access); }
  SqlTransaction(const SqlTransaction&) = delete;
  SqlTransaction& operator=(const SqlTransaction&) = delete;
  ~SqlTransaction() {
    if (!active_) return;
    try {
      sql_.rollback();
    } catch (...) {
      // A connection that broke has rolled back by itself.
    }
  }

  void commit() {
    sql_.commit();
    active_ = false;
  }

 private:
  CloudSql& sql_;
  bool active_ = true;
};

// A statement's parameters, converted from the types CloudStore holds.
class SqlParameters {
 public:
  template <class... Values>
  explicit SqlParameters(const Values&... values) {
    values_.reserve(sizeof...(values));
    (add(values), ...);
  }

  void add(std::nullptr_t) { values_.emplace_back(nullptr); }
  void add(std::int64_t value) { values_.emplace_back(value); }
  void add(int value) { values_.emplace_back(static_cast<std::int64_t>(value)); }
  void add(bool value) { values_.emplace_back(static_cast<std::int64_t>(value)); }
  void add(std::size_t value) { values_.emplace_back(static_cast<std::int64_t>(value)); }
  void add(double value) { values_.emplace_back(value); }
  void add(std::string_view text) { values_.emplace_back(text); }
  void add(const std::string& text) { values_.emplace_back(std::string_view(text)); }
  void add(const char* text) { values_.emplace_back(std::string_view(text)); }
  void add(SqlBytes bytes) { values_.emplace_back(bytes); }
  template <class T>
  void add(const std::optional<T>& value) {
    if (value) {
      add(*value);
    } else {
      add(nullptr);
    }
  }

  std::span<const SqlValue> span() const { return values_; }

 private:
  std::vector<SqlValue> values_;
};

// "$first, $first+1, ..., $first+count-1", a row of placeholders.
std::string sqlPlaceholders(int first, int count);

// The rows a new cloud starts with, the same on every backend: the
// switches, a sequence per database and each database's default zone.
inline constexpr std::string_view kCloudSeedRows = R"sql(
INSERT INTO settings (key, value) VALUES ('epoch', 0), ('dropCompletions', 0), ('dropPushes', 0);
INSERT INTO databases (scope, sequence) VALUES (1, 0), (2, 0), (3, 0);
INSERT INTO zones (scope, name, owner, state, incarnation, sequence, changed)
  VALUES (1, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0),
         (2, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0),
         (3, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0);
)sql";

// A cloud's session as its backend opened it, and the identity that names
// this cloud in its tokens.
struct OpenedCloud {
  std::unique_ptr<CloudSql> sql;
  std::string identity;
};

// SQLite: a cloud of its own in memory, or the cloud in a folder (see
// CloudEmulator::open; throws CloudFolderError).
OpenedCloud openMemoryCloud();
OpenedCloud openFolderCloud(const std::filesystem::path& folder, bool create);
bool isCloudFolder(const std::filesystem::path& folder);

}  // namespace tarnwell::cloudkit

namespace tarnwell {
struct CloudServer;
}

namespace tarnwell::cloudkit {

// PostgreSQL (CloudPostgres.cpp): the user's schema on a server; see
// CloudEmulator::connect.
OpenedCloud openServerCloud(const CloudServer& server, bool create);
bool serverHoldsCloud(const CloudServer& server);

}  // namespace tarnwell::cloudkit

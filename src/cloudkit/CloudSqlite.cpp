// The cloud's SQL over SQLite: a database in memory, private to one
// emulator, or the file in a folder that the installations of one user share.

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "cloudkit/CloudSql.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell::cloudkit {
namespace {

constexpr std::string_view kFileName = "cloud.sqlite";
// "TCLD" in the header's application id is what makes a folder a cloud.
constexpr std::int64_t kApplicationId = 0x54434C44;
constexpr int kSchemaVersion = 1;

// Sequences: `databases.sequence` counts the changes of zones (each changed
// zone of a commit takes its own value, so zones page by it one at a
// time); `zones.sequence` counts the record changes of a zone, each record
// keeping the value of its last one. A deleted record stays as a tombstone
// so that a fetch from before can hear of it; a deleted zone loses its
// records and, when made again, starts a new incarnation that the tokens of
// the old one do not reach. The server's schema (CloudPostgres.cpp) is the
// same in its own types.
constexpr std::string_view kSchema = R"sql(
CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID;
CREATE TABLE devices (device TEXT PRIMARY KEY NOT NULL, status INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE databases (scope INTEGER PRIMARY KEY, sequence INTEGER NOT NULL);
CREATE TABLE zones (
  id INTEGER PRIMARY KEY,
  scope INTEGER NOT NULL,
  name TEXT NOT NULL,
  owner TEXT NOT NULL,
  state INTEGER NOT NULL,
  incarnation INTEGER NOT NULL,
  sequence INTEGER NOT NULL,
  changed INTEGER NOT NULL,
  UNIQUE (scope, name, owner));
CREATE INDEX zonesByChange ON zones (scope, changed);
CREATE TABLE records (
  id INTEGER PRIMARY KEY,
  zone INTEGER NOT NULL,
  name TEXT NOT NULL,
  type TEXT NOT NULL,
  sequence INTEGER NOT NULL,
  born INTEGER NOT NULL,
  deleted INTEGER NOT NULL,
  assets INTEGER NOT NULL,
  created REAL NOT NULL,
  modified REAL NOT NULL,
  fields BLOB,
  UNIQUE (zone, name));
CREATE UNIQUE INDEX recordsByChange ON records (zone, sequence);
CREATE INDEX recordsByType ON records (zone, type, born);
CREATE TABLE assets (id INTEGER PRIMARY KEY AUTOINCREMENT, bytes BLOB NOT NULL);
CREATE TABLE subscriptions (
  scope INTEGER NOT NULL,
  id TEXT NOT NULL,
  body TEXT NOT NULL,
  PRIMARY KEY (scope, id)) WITHOUT ROWID;
CREATE TABLE pushes (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  scope INTEGER NOT NULL,
  subscription TEXT NOT NULL,
  userInfo TEXT NOT NULL,
  UNIQUE (device, scope, subscription));
CREATE TABLE longLived (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  operation TEXT NOT NULL,
  body BLOB NOT NULL,
  UNIQUE (device, operation));
CREATE TABLE faults (
  id INTEGER PRIMARY KEY,
  code INTEGER NOT NULL,
  retryAfter REAL,
  times INTEGER NOT NULL,
  kind TEXT);
CREATE TABLE requests (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  kind TEXT NOT NULL,
  scope INTEGER NOT NULL,
  saves INTEGER NOT NULL,
  deletions INTEGER NOT NULL,
  error INTEGER NOT NULL);
)sql";

class SqliteRows final : public SqlRows {
 public:
  explicit SqliteRows(sqlite::Statement& statement) : rows_(statement) {}

  bool next() override { return rows_.next(); }
  bool isNull(int column) const override { return rows_->isNull(column); }
  std::int64_t int64(int column) const override { return rows_->int64(column); }
  double real(int column) const override { return rows_->real(column); }
  std::string text(int column) const override { return rows_->text(column); }
  std::string_view bytes(int column) const override {
    const void* bytes = sqlite3_column_blob(rows_->handle(), column);
    const int size = sqlite3_column_bytes(rows_->handle(), column);
    return bytes ? std::string_view(static_cast<const char*>(bytes), static_cast<std::size_t>(size))
                 : std::string_view();
  }

 private:
  sqlite::Cursor rows_;
};

class SqliteSql final : public CloudSql {
 public:
  explicit SqliteSql(sqlite::Connection connection) : connection_(std::move(connection)) {}

  void begin(Access access) override { connection_.execute(access == Access::write ? "BEGIN IMMEDIATE" : "BEGIN"); }
  void commit() override { connection_.execute("COMMIT"); }
  void rollback() override { connection_.execute("ROLLBACK"); }

  void execute(std::string_view sql, std::span<const SqlValue> parameters) override {
    if (parameters.empty() && sql.find('$') == std::string_view::npos) return connection_.execute(sql);
    statement(sql, parameters).execute();
  }

  std::unique_ptr<SqlRows> query(std::string_view sql, std::span<const SqlValue> parameters) override {
    return std::make_unique<SqliteRows>(statement(sql, parameters));
  }

  // SQLite finds a record by its unique index whatever the table's size.
  void refreshStatistics() override {}

  // The folder's processes have no channel between them; the pushes wait in
  // the file for the next look.
  void announcePushes() override {}
  bool waitForAnnouncement(std::chrono::milliseconds timeout) override {
    std::this_thread::sleep_for(timeout);
    return true;
  }

 private:
  // SQLite numbers ?1 as the server numbers $1.
  sqlite::Statement& statement(std::string_view sql, std::span<const SqlValue> parameters) {
    std::string numbered(sql);
    std::replace(numbered.begin(), numbered.end(), '$', '?');
    auto& statement = connection_.cached(numbered);
    for (std::size_t index = 0; index < parameters.size(); ++index) {
      const int position = static_cast<int>(index) + 1;
      std::visit(
          [&](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::nullptr_t>) {
              statement.bindNull(position);
            } else if constexpr (std::is_same_v<T, SqlBytes>) {
              statement.bind(position,
                             std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(value.bytes.data()),
                                                           value.bytes.size()));
            } else {
              statement.bind(position, value);
            }
          },
          parameters[index]);
    }
    return statement;
  }

  sqlite::Connection connection_;
};

sqlite::Connection openCloudFile(const std::filesystem::path& file, bool create) {
  const std::string folder = file.parent_path().string();
  try {
    return sqlite::openSharedFile(
        file, {kApplicationId, kSchemaVersion, kSchema}, create, [](sqlite::Connection& made) {
          made.execute(kCloudSeedRows);
          made.cached("INSERT INTO settings (key, value) VALUES ('identity', ?1)").bind(1, makeUUIDString()).execute();
        });
  } catch (const sqlite::SharedFileError& error) {
    throw CloudFolderError(error.problem() == sqlite::SharedFileError::Problem::foreign
                               ? folder + " is not a cloud"
                               : folder + " holds a cloud of a newer version");
  } catch (const sqlite::Error& error) {
    throw CloudFolderError(folder + " is not a cloud: " + error.what());
  }
}

sqlite::Connection openFolder(const std::filesystem::path& folder, bool create) {
  std::error_code error;
  const std::filesystem::path file = folder / kFileName;
  if (!std::filesystem::is_directory(folder, error)) {
    if (!create) throw CloudFolderError("There is no cloud at " + folder.string());
    if (std::filesystem::exists(folder, error)) throw CloudFolderError(folder.string() + " is not a folder");
    std::filesystem::create_directories(folder, error);
    // The cloud holds every record of the user's: a folder the library
    // makes is the user's alone.
    if (!error) std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    if (error) throw CloudFolderError("Cannot make a cloud at " + folder.string() + ": " + error.message());
  }
  if (!std::filesystem::exists(file, error)) {
    if (!create) throw CloudFolderError(folder.string() + " is not a cloud");
    // A folder that holds something else is not made into a cloud.
    if (std::filesystem::directory_iterator(folder, error) != std::filesystem::directory_iterator()) {
      throw CloudFolderError(folder.string() + " is not a cloud and not empty");
    }
    // Made empty and the user's alone before SQLite opens it, which gives
    // its journal files the same mode. Another process may have made it
    // first; that one is created the same way.
    const int made = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (made >= 0) {
      ::close(made);
    } else if (errno != EEXIST) {
      throw CloudFolderError("Cannot make a cloud at " + folder.string() + ": " + std::strerror(errno));
    }
  }
  return openCloudFile(file, create);
}

}  // namespace

std::string sqlPlaceholders(int first, int count) {
  std::string row;
  for (int index = 0; index < count; ++index) {
    if (index > 0) row += ", ";
    row += '$' + std::to_string(first + index);
  }
  return row;
}

OpenedCloud openMemoryCloud() {
  sqlite::Connection connection(":memory:");
  connection.execute(kSchema);
  connection.execute(kCloudSeedRows);
  return {std::make_unique<SqliteSql>(std::move(connection)), makeUUIDString()};
}

OpenedCloud openFolderCloud(const std::filesystem::path& folder, bool create) {
  sqlite::Connection connection = openFolder(folder, create);
  std::string identity;
  {
    auto& select = connection.cached("SELECT value FROM settings WHERE key = 'identity'");
    sqlite::Cursor rows(select);
    if (rows.next()) identity = rows->text(0);
  }
  return {std::make_unique<SqliteSql>(std::move(connection)), std::move(identity)};
}

bool isCloudFolder(const std::filesystem::path& folder) {
  std::error_code error;
  const std::filesystem::path file = folder / kFileName;
  if (!std::filesystem::is_regular_file(file, error)) return false;
  try {
    sqlite::Connection connection(file, sqlite::Connection::OpenMode::readOnly);
    auto applicationId = connection.prepare("PRAGMA application_id");
    return applicationId.step() && applicationId.int64(0) == kApplicationId;
  } catch (const sqlite::Error&) {
    return false;
  }
}

}  // namespace tarnwell::cloudkit

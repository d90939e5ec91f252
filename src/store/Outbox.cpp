#include "tarnwell/store/Outbox.h"

#include <sqlite3.h>

#include <map>

#include "tarnwell/store/Schema.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::store {
namespace {

// Keyed by record, without a rowid: a change of one row touches one page
// of the outbox, which the commit writes along with the row's own.
constexpr std::string_view kCreate =
    "CREATE TABLE IF NOT EXISTS \"Outbox\" (\"className\" TEXT NOT NULL, \"recordKey\" TEXT NOT NULL, "
    "\"version\" INTEGER NOT NULL, \"known\" INTEGER NOT NULL DEFAULT 0, \"since\" REAL NOT NULL, "
    "\"sending\" INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (\"className\", \"recordKey\")) WITHOUT ROWID";

// A new entry's version is drawn at random from 62 bits, and each change of
// the row while a sender holds it adds one: an edit while a save is on its way always differs from
// the version sent, and an entry made again after one was forgotten (a
// deletion from the cloud while a save was on its way) cannot meet the old
// acknowledgement but by a chance of one in 2^62.
constexpr char kFreshVersion[] = "(random() & 4611686018427387903)";

// `known` of an entry that gives way to the cloud's copy, and of one that
// only remembers that the row's last change was made here and acknowledged
// (acknowledge, `keepAuthored`). A local change of the row makes either an
// ordinary known entry again.
constexpr std::int64_t kYielding = 2;
constexpr std::int64_t kAuthored = 3;
// The entries that still have something to send.
constexpr char kUnsent[] = "\"known\" != 3";

constexpr char kInsert[] = "INSERT INTO \"Outbox\" (\"className\", \"recordKey\", \"version\", \"known\", \"since\") ";
// A row changed again. The version moves on only when a sender holds it:
// until then the row is read when it is sent, and the change leaves with it
// at no cost, not even a page of the outbox. Any mark becomes an ordinary
// entry again.
constexpr char kChangedAgain[] =
    " ON CONFLICT DO UPDATE SET \"version\" = \"version\" + 1, \"known\" = min(\"known\", 1), \"sending\" = 0 "
    "WHERE \"sending\" != 0 OR \"known\" > 1";
// A row to send again: only an authored mark becomes an entry.
constexpr char kAuthoredSentAgain[] =
    " ON CONFLICT DO UPDATE SET \"known\" = 1, \"version\" = \"version\" + 1 WHERE \"known\" = 3";

// Per class, the last rowid whose insert the outbox accounts for, and when
// the first insert above it was made.
constexpr std::string_view kCreateMark =
    "CREATE TABLE IF NOT EXISTS \"OutboxMark\" (\"className\" TEXT NOT NULL PRIMARY KEY, "
    "\"absorbed\" INTEGER NOT NULL, \"since\" REAL) WITHOUT ROWID";
// The mark of class ?1, and 0 (every row a local insert) when it has none:
// a lost mark sends rows again rather than never.
constexpr char kMark[] = "coalesce((SELECT \"absorbed\" FROM \"OutboxMark\" WHERE \"className\" = ?1), 0)";

double now() { return Date::now().timeIntervalSinceReferenceDate(); }

// Entries, not known, dated `since`, for the rows of a class with a rowid
// in (after, before).
void writeDownRows(sqlite::Connection& connection, const OutboxClass& outboxClass, std::int64_t after,
                   std::int64_t before, double since) {
  const std::string key = quoteIdentifier(outboxClass.keyColumn);
  auto& statement =
      connection.cached(std::string(kInsert) + "SELECT ?1, " + key + ", " + kFreshVersion + ", 0, ?4 FROM " +
                        quoteIdentifier(outboxClass.className) + " WHERE rowid > ?2 AND rowid < ?3 AND " + key +
                        " IS NOT NULL ORDER BY rowid" + kChangedAgain);
  statement.bind(1, std::string_view(outboxClass.className)).bind(2, after).bind(3, before).bind(4, since);
  statement.execute();
}

// A class name as an SQL string literal.
std::string quotedLiteral(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return quoted + "'";
}

// No entry with something to send names the record: `className` and
// `keyExpression` are SQL expressions.
std::string hasNoEntry(std::string_view className, std::string_view keyExpression) {
  return "NOT EXISTS (SELECT 1 FROM \"Outbox\" WHERE \"className\" = " + std::string(className) +
         " AND \"recordKey\" = " + std::string(keyExpression) + " AND " + kUnsent + ")";
}

}  // namespace

std::optional<Outbox::Mark> Outbox::mark(std::string_view className) {
  auto& statement = connection_.cached("SELECT \"absorbed\", \"since\" FROM \"OutboxMark\" WHERE \"className\" = ?1");
  statement.bind(1, className);
  sqlite::Cursor rows(statement);
  if (!rows.next()) return std::nullopt;
  return Mark{rows->int64(0), rows->isNull(1) ? std::nullopt : std::optional<double>(rows->real(1))};
}

TableSchema Outbox::markSchema() {
  return TableSchema{"OutboxMark",
                     "",
                     std::string(kCreateMark),
                     {{"className", "\"className\" TEXT NOT NULL"},
                      {"absorbed", "\"absorbed\" INTEGER NOT NULL"},
                      {"since", "\"since\" REAL"}},
                     {}};
}

void Outbox::markExisting(sqlite::Connection& connection, const std::vector<std::string>& classNames) {
  for (const auto& className : classNames) {
    auto statement = connection.prepare(
        "INSERT OR IGNORE INTO \"OutboxMark\" (\"className\", \"absorbed\") SELECT ?1, "
        "coalesce(max(rowid), 0) FROM " +
        quoteIdentifier(className));
    statement.bind(1, std::string_view(className));
    statement.execute();
  }
}

bool Outbox::hasMarks(sqlite::Connection& connection, const std::vector<std::string>& classNames) {
  auto statement = connection.prepare("SELECT 1 FROM \"OutboxMark\" WHERE \"className\" = ?1");
  for (const auto& className : classNames) {
    statement.reset();
    statement.bind(1, std::string_view(className));
    if (!statement.step()) return false;
  }
  return true;
}

TableSchema Outbox::tableSchema() {
  return TableSchema{std::string(kTableName),
                     "",
                     std::string(kCreate),
                     {{"className", "\"className\" TEXT NOT NULL"},
                      {"recordKey", "\"recordKey\" TEXT NOT NULL"},
                      {"version", "\"version\" INTEGER NOT NULL"},
                      {"known", "\"known\" INTEGER NOT NULL DEFAULT 0"},
                      {"since", "\"since\" REAL NOT NULL"},
                      {"sending", "\"sending\" INTEGER NOT NULL DEFAULT 0"}},
                     {}};
}

void Outbox::noteInserted(std::string_view className, std::string_view recordKey, std::int64_t rowid) {
  const auto found = mark(className);
  if (!found) return;  // a lost mark: settle() takes every row
  if (rowid <= found->absorbed) {
    static const std::string sql =
        std::string(kInsert) + "VALUES (?1, ?2, " + kFreshVersion + ", 0, ?3)" + kChangedAgain;
    auto& statement = connection_.cached(sql);
    statement.bind(1, className).bind(2, recordKey).bind(3, now());
    statement.execute();
  } else if (!found->since) {
    auto& statement = connection_.cached("UPDATE \"OutboxMark\" SET \"since\" = ?2 WHERE \"className\" = ?1");
    statement.bind(1, className).bind(2, now());
    statement.execute();
  }
}

void Outbox::passInserted(const OutboxClass& outboxClass, std::int64_t rowid) {
  // Mostly the mark stands just below: a fetch inserts row after row.
  auto& next = connection_.cached(
      "UPDATE \"OutboxMark\" SET \"absorbed\" = ?2 WHERE \"className\" = ?1 AND \"absorbed\" = ?2 - 1");
  next.bind(1, std::string_view(outboxClass.className)).bind(2, rowid);
  next.execute();
  if (connection_.changes() == 0) absorb(outboxClass, rowid);
}

void Outbox::journal(const OutboxClass& outboxClass, std::string_view recordKey) {
  const auto& [className, keyColumn] = outboxClass;
  // Every edit comes here: its statement is made once per class and thread.
  thread_local std::map<OutboxClass, std::string> statements;
  auto found = statements.find(outboxClass);
  if (found == statements.end()) {
    found =
        statements
            .emplace(outboxClass,
                     std::string(kInsert) + "VALUES (?1, ?2, " + kFreshVersion + ", coalesce((SELECT rowid FROM " +
                         quoteIdentifier(className) + " WHERE " + quoteIdentifier(keyColumn) + " = ?2) <= " +
                         "(SELECT \"absorbed\" FROM \"OutboxMark\" WHERE \"className\" = ?1), 1), ?3)" + kChangedAgain)
            .first;
  }
  auto& statement = connection_.cached(found->second);
  statement.bind(1, std::string_view(className)).bind(2, recordKey).bind(3, now());
  statement.execute();
}

void Outbox::settle(const OutboxClass& outboxClass) { absorb(outboxClass, std::nullopt); }

void Outbox::absorb(const OutboxClass& outboxClass, std::optional<std::int64_t> fromElsewhere) {
  const std::string_view className = outboxClass.className;
  const auto found = mark(className);
  const std::int64_t absorbed = found ? found->absorbed : 0;
  writeDownRows(connection_, outboxClass, absorbed, fromElsewhere.value_or(INT64_MAX),
                found && found->since ? *found->since : now());
  // An upsert, so that a lost mark is made again; lowered too when the last
  // rows were removed, which keeps the next inserts above it.
  auto& statement = connection_.cached(
      "INSERT INTO \"OutboxMark\" (\"className\", \"absorbed\") VALUES (?1, coalesce(?2, (SELECT "
      "coalesce(max(rowid), 0) FROM " +
      quoteIdentifier(className) +
      "))) ON CONFLICT DO UPDATE SET \"absorbed\" = excluded.\"absorbed\", \"since\" = NULL WHERE \"absorbed\" != "
      "excluded.\"absorbed\" OR \"since\" IS NOT NULL");
  statement.bind(1, className);
  if (fromElsewhere) statement.bind(2, *fromElsewhere);
  statement.execute();
}

void Outbox::settleAll(const std::vector<OutboxClass>& classes) {
  for (const auto& outboxClass : classes) settle(outboxClass);
}

void Outbox::markAllSettled(const std::vector<OutboxClass>& classes) {
  for (const auto& outboxClass : classes) {
    auto& statement =
        connection_.cached("UPDATE \"OutboxMark\" SET \"absorbed\" = (SELECT coalesce(max(rowid), 0) FROM " +
                           quoteIdentifier(outboxClass.className) + "), \"since\" = NULL WHERE \"className\" = ?1");
    statement.bind(1, std::string_view(outboxClass.className));
    statement.execute();
  }
}

std::vector<OutboxEntry> Outbox::entries(std::string_view className, std::size_t limit) {
  auto& statement = connection_.cached(
      std::string("SELECT \"recordKey\", \"version\", \"known\" FROM \"Outbox\" WHERE \"className\" = ?1 AND ") +
      kUnsent + " ORDER BY \"recordKey\" LIMIT ?2");
  statement.bind(1, className).bind(2, static_cast<std::int64_t>(limit));
  std::vector<OutboxEntry> found;
  for (sqlite::Cursor rows(statement); rows.next();) {
    found.push_back({rows->text(0), rows->int64(1), rows->int64(2) != 0});
  }
  return found;
}

Outbox::Hold Outbox::hold(std::string_view className, std::string_view recordKey) {
  auto& statement =
      connection_.cached("SELECT \"known\" FROM \"Outbox\" WHERE \"className\" = ?1 AND \"recordKey\" = ?2");
  statement.bind(1, className).bind(2, recordKey);
  sqlite::Cursor rows(statement);
  if (!rows.next()) return Hold::none;
  switch (rows->int64(0)) {
    case kYielding:
      return Hold::yield;
    case kAuthored:
      return Hold::authored;
    default:
      return Hold::keep;
  }
}

void Outbox::markSending(std::string_view className, const std::vector<std::string>& recordKeys) {
  auto& statement = connection_.cached(
      "UPDATE \"Outbox\" SET \"sending\" = 1, \"known\" = max(\"known\", 1) WHERE \"className\" = ?1 AND "
      "\"recordKey\" = ?2");
  for (const auto& key : recordKeys) {
    statement.bind(1, className).bind(2, std::string_view(key));
    statement.execute();
  }
}

std::size_t Outbox::acknowledge(std::string_view className, const std::vector<SentVersion>& sent, bool keepAuthored) {
  auto& statement =
      connection_.cached(std::string(keepAuthored ? "UPDATE \"Outbox\" SET \"known\" = " + std::to_string(kAuthored)
                                                  : "DELETE FROM \"Outbox\"") +
                         " WHERE \"className\" = ?1 AND \"recordKey\" = ?2 AND \"version\" = ?3");
  std::size_t stayed = 0;
  for (const auto& [key, version] : sent) {
    statement.bind(1, className).bind(2, std::string_view(key)).bind(3, version);
    statement.execute();
    if (connection_.changes() == 0) ++stayed;
  }
  return stayed;
}

void Outbox::forget(std::string_view className, std::string_view recordKey) {
  auto& statement = connection_.cached("DELETE FROM \"Outbox\" WHERE \"className\" = ?1 AND \"recordKey\" = ?2");
  statement.bind(1, className).bind(2, recordKey);
  statement.execute();
}

void Outbox::noteInsertedAfter(const OutboxClass& outboxClass, std::int64_t rowid) {
  const auto found = mark(outboxClass.className);
  if (!found) return;  // a lost mark: settle() takes every row
  // Rows at or below the mark reuse rowids: written down at once.
  writeDownRows(connection_, outboxClass, rowid, found->absorbed + 1, now());
  auto& dated = connection_.cached(
      "UPDATE \"OutboxMark\" SET \"since\" = ?3 WHERE \"className\" = ?1 AND \"since\" IS NULL AND EXISTS "
      "(SELECT 1 FROM " +
      quoteIdentifier(outboxClass.className) + " WHERE rowid > max(\"absorbed\", ?2))");
  dated.bind(1, std::string_view(outboxClass.className)).bind(2, rowid).bind(3, now());
  dated.execute();
}

void Outbox::enqueueLive(std::string_view className, std::string_view keyColumn) {
  auto& statement =
      connection_.cached(std::string(kInsert) + "SELECT ?1, " + quoteIdentifier(keyColumn) + ", " + kFreshVersion +
                         ", 1, ?2 FROM " + quoteIdentifier(className) + " WHERE \"isDeleted\" = 0 AND " +
                         quoteIdentifier(keyColumn) + " IS NOT NULL ORDER BY rowid" + kAuthoredSentAgain);
  statement.bind(1, className).bind(2, Date::now().timeIntervalSinceReferenceDate());
  statement.execute();
}

void Outbox::enqueue(std::string_view className, std::string_view recordKey, bool yielding) {
  auto& statement =
      connection_.cached(std::string(kInsert) + "VALUES (?1, ?2, " + kFreshVersion + ", ?4, ?3)" + kAuthoredSentAgain);
  statement.bind(1, className).bind(2, recordKey).bind(3, Date::now().timeIntervalSinceReferenceDate());
  statement.bind(4, yielding ? kYielding : std::int64_t{1});
  statement.execute();
}

void Outbox::forgetUnsentDeletions(std::string_view className, std::string_view keyColumn) {
  auto& statement =
      connection_.cached(std::string("DELETE FROM \"Outbox\" WHERE \"className\" = ?1 AND (\"known\" = 0 OR NOT ") +
                         kUnsent + ") AND NOT EXISTS (SELECT 1 FROM " + quoteIdentifier(className) + " WHERE " +
                         quoteIdentifier(keyColumn) + " = \"Outbox\".\"recordKey\" AND \"isDeleted\" = 0)");
  statement.bind(1, className);
  statement.execute();
}

std::string Outbox::hasNoUnsentWork(std::string_view className, std::string_view keyExpression) {
  const std::string name = quotedLiteral(className);
  return "rowid <= coalesce((SELECT \"absorbed\" FROM \"OutboxMark\" WHERE \"className\" = " + name + "), 0) AND " +
         hasNoEntry(name, keyExpression);
}

OutboxSummary Outbox::summary(const std::vector<OutboxClass>& classes) {
  std::map<std::string, std::size_t> counts;
  std::optional<Date> oldest;
  const auto count = [&](const std::string& className, std::int64_t n, std::optional<double> since) {
    if (n == 0) return;
    counts[className] += static_cast<std::size_t>(n);
    if (!since) return;
    const Date date = Date::fromTimeIntervalSinceReferenceDate(*since);
    if (!oldest || date < *oldest) oldest = date;
  };
  auto& statement =
      connection_.cached(std::string("SELECT \"className\", count(*), min(\"since\") FROM \"Outbox\" WHERE ") +
                         kUnsent + " GROUP BY \"className\"");
  for (sqlite::Cursor rows(statement); rows.next();) count(rows->text(0), rows->int64(1), rows->real(2));
  // The local inserts not yet written down, less those an entry already
  // names (edited since).
  for (const auto& [className, keyColumn] : classes) {
    auto& inserts =
        connection_.cached("SELECT count(*), (SELECT \"since\" FROM \"OutboxMark\" WHERE \"className\" = ?1) FROM " +
                           quoteIdentifier(className) + " WHERE rowid > " + kMark + " AND " +
                           hasNoEntry("?1", quoteIdentifier(keyColumn)));
    inserts.bind(1, std::string_view(className));
    sqlite::Cursor rows(inserts);
    if (rows.next()) {
      count(className, rows->int64(0), rows->isNull(1) ? std::nullopt : std::optional<double>(rows->real(1)));
    }
  }
  OutboxSummary result;
  for (const auto& [className, n] : counts) {
    result.count += n;
    result.byClass.emplace_back(className, n);
  }
  result.oldest = oldest;
  return result;
}

}  // namespace tarnwell::store

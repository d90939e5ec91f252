#include "tarnwell/store/Outbox.h"

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

}  // namespace

TableSchema Outbox::tableSchema() {
  return TableSchema{std::string(kTableName),
                     std::string(kCreate),
                     {{"className", "\"className\" TEXT NOT NULL"},
                      {"recordKey", "\"recordKey\" TEXT NOT NULL"},
                      {"version", "\"version\" INTEGER NOT NULL"},
                      {"known", "\"known\" INTEGER NOT NULL DEFAULT 0"},
                      {"since", "\"since\" REAL NOT NULL"},
                      {"sending", "\"sending\" INTEGER NOT NULL DEFAULT 0"}},
                     {}};
}

void Outbox::journal(std::string_view className, std::string_view recordKey, bool inserted) {
  static const std::string sql =
      std::string(kInsert) + "VALUES (?1, ?2, " + kFreshVersion + ", ?3, ?4)" + kChangedAgain;
  auto& statement = connection_.cached(sql);
  statement.bind(1, className).bind(2, recordKey).bind(3, !inserted);
  statement.bind(4, Date::now().timeIntervalSinceReferenceDate());
  statement.execute();
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

void Outbox::journalInsertedAfter(std::string_view className, std::string_view keyColumn, std::int64_t rowid) {
  auto& statement =
      connection_.cached(std::string(kInsert) + "SELECT ?1, " + quoteIdentifier(keyColumn) + ", " + kFreshVersion +
                         ", 0, ?2 FROM " + quoteIdentifier(className) + " WHERE rowid > ?3 AND " +
                         quoteIdentifier(keyColumn) + " IS NOT NULL ORDER BY rowid" + kChangedAgain);
  statement.bind(1, className).bind(2, Date::now().timeIntervalSinceReferenceDate()).bind(3, rowid);
  statement.execute();
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
  std::string quoted;
  for (const char c : className) quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return "NOT EXISTS (SELECT 1 FROM \"Outbox\" WHERE \"className\" = '" + quoted +
         "' AND \"recordKey\" = " + std::string(keyExpression) + " AND " + std::string(kUnsent) + ")";
}

OutboxSummary Outbox::summary() {
  OutboxSummary result;
  auto& statement =
      connection_.cached(std::string("SELECT \"className\", count(*), min(\"since\") FROM \"Outbox\" WHERE ") +
                         kUnsent + " GROUP BY \"className\" ORDER BY \"className\"");
  for (sqlite::Cursor rows(statement); rows.next();) {
    const auto count = static_cast<std::size_t>(rows->int64(1));
    result.count += count;
    result.byClass.emplace_back(rows->text(0), count);
    const Date since = Date::fromTimeIntervalSinceReferenceDate(rows->real(2));
    if (!result.oldest || since < *result.oldest) result.oldest = since;
  }
  return result;
}

}  // namespace tarnwell::store

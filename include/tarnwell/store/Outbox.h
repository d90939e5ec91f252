// Outbox: the local changes the cloud has not acknowledged yet.
//
// A store configured with outbox classes keeps, for every row of those
// classes that a local write inserted, modified, marked deleted or removed,
// an entry, made in the same transaction as the change. So a change that a
// command committed is never only in memory: a process that dies, a pause, a
// failed request or an observer that was not listening leaves the entry
// where the next drain finds it. Writes that came from elsewhere
// (store::Origin::elsewhere, the cloud's own) leave none.
//
// An insert, the commonest change, costs the outbox nothing: a class's rows
// whose rowid is above its mark (table "OutboxMark") were inserted here and
// never taken by a sender. They are entries in all but name until settle()
// writes them into the table "Outbox", as a sender does before it reads.
// Writes from elsewhere move the mark past the rows they insert, and a
// rowid used again after the last rows were removed is written down at once.
//
// An entry names the row by class and primary key and carries a version.
// A sender marks the entries it takes, in the transaction that reads their
// rows, and remembers their versions; a change of a marked row moves the
// version on, and the entry leaves only when the version acknowledged is
// still the entry's, so an edit made while a save was on its way is sent
// again. Several changes of one row before a send are one entry, and only
// the first writes to the outbox. `known` says the cloud may hold the
// record: it is false for a row inserted here and never sent, whose
// deletion then costs nothing. (Stored as 0 and 1, and 2 for an entry that
// yields, see hold().)
//
// These functions work on the connection of a write (or, for reads, any)
// and never notify observers: the outbox is bookkeeping, not records.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell::store {

struct TableSchema;

// A class whose local changes wait in the outbox, and its primary key.
struct OutboxClass {
  std::string className;
  std::string keyColumn;
  auto operator<=>(const OutboxClass&) const = default;
};

struct OutboxEntry {
  std::string recordKey;
  std::int64_t version = 0;
  bool known = false;
};

// A record key and the outbox version a sender read with it.
using SentVersion = std::pair<std::string, std::int64_t>;

// What waits, for a status line.
struct OutboxSummary {
  std::size_t count = 0;
  // Class name and count, by class name.
  std::vector<std::pair<std::string, std::size_t>> byClass;
  // When the longest-waiting change was made.
  std::optional<Date> oldest;
};

class Outbox {
 public:
  static constexpr std::string_view kTableName = "Outbox";

  explicit Outbox(sqlite::Connection& connection) : connection_(connection) {}

  // The tables of entries and of marks, made with the store's own tables.
  static TableSchema tableSchema();
  static TableSchema markSchema();
  // Sets the marks of classes that have none past their last rows: rows a
  // store had before it had an outbox are not local changes.
  static void markExisting(sqlite::Connection& connection, const std::vector<std::string>& classNames);
  static bool hasMarks(sqlite::Connection& connection, const std::vector<std::string>& classNames);

  // Notes a local insert of the row `rowid`; nothing to write unless that
  // rowid was used before.
  void noteInserted(std::string_view className, std::string_view recordKey, std::int64_t rowid);
  // Notes an insert from elsewhere of the row `rowid`: the local inserts
  // before it are written down and the mark moves past it.
  void passInserted(const OutboxClass& outboxClass, std::int64_t rowid);
  // Notes a local change of a row that exists, before it is removed if it
  // is: `since` and `known` kept from an entry already there; a new entry is
  // known unless the row was inserted here and never taken.
  void journal(const OutboxClass& outboxClass, std::string_view recordKey);
  // Writes down the local inserts not yet written and moves the mark to the
  // class's last row: before a sender reads entries().
  void settle(const OutboxClass& outboxClass);
  // settle() for every class; and every mark to its class's last row, for
  // a writer that settled first and wrote nothing local since (a batch of
  // records from elsewhere), or after rowids were numbered anew (VACUUM).
  void settleAll(const std::vector<OutboxClass>& classes);
  void markAllSettled(const std::vector<OutboxClass>& classes);

  // The entries of a class, at most `limit`, in the order of their keys.
  std::vector<OutboxEntry> entries(std::string_view className, std::size_t limit);

  // What a copy of the record fetched from the cloud meets here: no entry;
  // unsent work, which the copy must not undo; a record only sent again
  // because the cloud lacked it (enqueue, `yielding`), which any copy the
  // cloud holds by now replaces; or a row whose last change was made here
  // and acknowledged (`authored`), which nothing is waiting to send.
  enum class Hold { none, keep, yield, authored };
  // Asked in a transaction that settled the class first, as a batch does.
  Hold hold(std::string_view className, std::string_view recordKey);

  // Marks the entries a sender took, as possibly held by the cloud too:
  // done in the transaction that reads their rows, before the request
  // leaves, whatever becomes of it.
  void markSending(std::string_view className, const std::vector<std::string>& recordKeys);
  // Removes the entries whose version is still the one sent, or with
  // `keepAuthored` keeps them as authored (see hold()); returns how many of
  // them changed meanwhile and stay. Authored entries are not sent, counted
  // or listed.
  std::size_t acknowledge(std::string_view className, const std::vector<SentVersion>& sent, bool keepAuthored = false);
  // Removes an entry whatever its version: a deletion from the cloud wins,
  // and a row never sent that is gone needs no send.
  void forget(std::string_view className, std::string_view recordKey);

  // noteInserted() for every row of the class after `rowid`: rows a bulk
  // writer inserted with statements of its own.
  void noteInsertedAfter(const OutboxClass& outboxClass, std::int64_t rowid);
  // An entry for every live row of the class that has none (or only an
  // authored one), known: a full send of the class. `keyColumn` is the
  // class's primary key.
  void enqueueLive(std::string_view className, std::string_view keyColumn);
  // An entry, known, for one row that has none (or an authored one): a
  // record the cloud lacks. A new `yielding` one gives way to any copy a
  // later fetch brings.
  void enqueue(std::string_view className, std::string_view recordKey, bool yielding = false);
  // Removes the entries of rows inserted here and never sent that are now
  // deleted or gone (nobody else ever saw them), and the authored marks of
  // rows deleted or gone.
  void forgetUnsentDeletions(std::string_view className, std::string_view keyColumn);

  OutboxSummary summary(const std::vector<OutboxClass>& classes);

  // An SQL condition on a row of `className` whose key is `keyExpression`
  // and whose rowid is in scope as `rowid`: nothing of it waits to be sent
  // (an authored mark aside).
  static std::string hasNoUnsentWork(std::string_view className, std::string_view keyExpression);

 private:
  struct Mark {
    std::int64_t absorbed = 0;
    // When the first local insert above it was made.
    std::optional<double> since;
  };
  std::optional<Mark> mark(std::string_view className);
  // Writes down the local inserts above the mark and moves the mark to the
  // class's last row, or to `fromElsewhere`, a row just inserted from
  // elsewhere, which is no local insert.
  void absorb(const OutboxClass& outboxClass, std::optional<std::int64_t> fromElsewhere);

  sqlite::Connection& connection_;
};

}  // namespace tarnwell::store

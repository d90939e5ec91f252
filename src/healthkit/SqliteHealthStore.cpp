#include "tarnwell/healthkit/SqliteHealthStore.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "healthkit/HealthStoreCore.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {
namespace {

constexpr std::string_view kFileName = "health.sqlite";
// Written after every commit. The log of a write-ahead database changes
// before the commit can be read, so a reader woken by the log itself might
// look too early and then hear nothing more; this file changes after.
constexpr std::string_view kSignalName = "health.sqlite-changed";
// "THKS" in the header's application id tells this store's files from any
// other SQLite file that might sit in their place.
constexpr std::int64_t kApplicationId = 0x54484B53;
constexpr int kSchemaVersion = 1;

// Dates are seconds since the reference date. `changes` holds one counter
// under "*", raised by every writing transaction, and per type the value it
// had after the last transaction that touched samples of that type: a reader
// that remembers the counter learns which types changed since. `extents`
// keeps the longest duration saved per type, which turns "ends after S" into
// a range of starts that the (type, startDate) index can serve.
constexpr std::string_view kSchema = R"sql(
CREATE TABLE samples (
  id INTEGER PRIMARY KEY,
  uuid TEXT NOT NULL UNIQUE,
  type TEXT NOT NULL,
  value INTEGER,
  startDate REAL NOT NULL,
  endDate REAL NOT NULL,
  sourceName TEXT NOT NULL,
  sourceBundle TEXT NOT NULL,
  metadata TEXT,
  moodKind INTEGER,
  valence REAL,
  labels TEXT,
  associations TEXT);
CREATE INDEX samplesByTypeAndStart ON samples (type, startDate);
CREATE TABLE authorizations (
  bundle TEXT NOT NULL,
  type TEXT NOT NULL,
  status INTEGER NOT NULL,
  readable INTEGER NOT NULL,
  PRIMARY KEY (bundle, type)) WITHOUT ROWID;
CREATE TABLE answers (
  bundle TEXT NOT NULL,
  type TEXT NOT NULL,
  answer TEXT NOT NULL,
  PRIMARY KEY (bundle, type)) WITHOUT ROWID;
CREATE TABLE changes (scope TEXT PRIMARY KEY NOT NULL, counter INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE extents (type TEXT PRIMARY KEY NOT NULL, longest REAL NOT NULL) WITHOUT ROWID;
INSERT INTO changes (scope, counter) VALUES ('*', 0);
)sql";

constexpr std::string_view kColumns =
    "uuid, type, value, startDate, endDate, sourceName, sourceBundle, metadata, moodKind, valence, labels, "
    "associations";

std::string_view answerName(HKAuthorizationAnswer answer) {
  switch (answer) {
    case HKAuthorizationAnswer::grant:
      return "grant";
    case HKAuthorizationAnswer::deny:
      return "deny";
    case HKAuthorizationAnswer::silent:
      return "silent";
    case HKAuthorizationAnswer::error:
      return "error";
  }
  return "grant";
}

std::optional<HKAuthorizationAnswer> answerNamed(std::string_view name) {
  for (const auto answer : {HKAuthorizationAnswer::grant, HKAuthorizationAnswer::deny, HKAuthorizationAnswer::silent,
                            HKAuthorizationAnswer::error}) {
    if (answerName(answer) == name) return answer;
  }
  return std::nullopt;
}

// A value this version does not know decides nothing.
HKAuthorizationStatus statusFromRaw(std::int64_t raw) {
  for (const auto status : {HKAuthorizationStatus::sharingDenied, HKAuthorizationStatus::sharingAuthorized}) {
    if (raw == static_cast<std::int64_t>(status)) return status;
  }
  return HKAuthorizationStatus::notDetermined;
}

template <class Enum>
std::string rawValues(const std::vector<Enum>& values) {
  nlohmann::json array = nlohmann::json::array();
  for (const Enum value : values) array.push_back(static_cast<std::int64_t>(value));
  return array.dump();
}

template <class Enum>
std::vector<Enum> valuesFromRaw(const std::string& text) {
  std::vector<Enum> values;
  const auto array = nlohmann::json::parse(text, nullptr, false);
  if (!array.is_array()) return values;
  for (const auto& element : array) {
    if (element.is_number_integer()) values.push_back(static_cast<Enum>(element.get<std::int64_t>()));
  }
  return values;
}

HKSample sampleFromRow(const sqlite::Statement& row) {
  HKSample sample;
  sample.uuid = row.text(0);
  // A type this version does not know cannot be asked for, so it never gets here.
  sample.sampleType = sampleTypeFromIdentifier(row.text(1)).value_or(HKSampleType::sleepAnalysis);
  if (!row.isNull(2)) sample.categoryValue = row.int64(2);
  sample.startDate = Date::fromTimeIntervalSinceReferenceDate(row.real(3));
  sample.endDate = Date::fromTimeIntervalSinceReferenceDate(row.real(4));
  sample.source = HKSource{row.text(5), row.text(6)};
  if (!row.isNull(7)) {
    auto metadata = nlohmann::json::parse(row.text(7), nullptr, false);
    if (metadata.is_object()) sample.metadata = std::move(metadata);
  }
  if (!row.isNull(8)) {
    sample.stateOfMind = HKStateOfMind{static_cast<HKStateOfMindKind>(row.int64(8)), row.real(9),
                                       valuesFromRaw<HKStateOfMindLabel>(row.text(10)),
                                       valuesFromRaw<HKStateOfMindAssociation>(row.text(11))};
  }
  return sample;
}

std::string orderBy(const std::vector<HKSortDescriptor>& descriptors) {
  // Ties as healthkit::precedes breaks them; the rowid is the insertion order.
  std::string clause = " ORDER BY ";
  for (const HKSortDescriptor& descriptor : descriptors) {
    clause += descriptor.key == HKSortKey::startDate ? "startDate" : "endDate";
    clause += descriptor.ascending ? " ASC, " : " DESC, ";
  }
  clause += !descriptors.empty() && !descriptors.front().ascending ? "id DESC" : "id ASC";
  return clause;
}

// The metadata predicate narrowed in SQL, when its key and values allow:
// a superset of the matches (a boolean reads as 0 or 1 there), which the
// predicate itself then decides on.
bool canNarrowInSql(const HKQueryPredicate::MetadataValues& values) {
  if (values.allowedValues.empty()) return false;
  if (values.key.find_first_of("\"\\") != std::string::npos) return false;
  return std::all_of(values.allowedValues.begin(), values.allowedValues.end(), [](const nlohmann::json& value) {
    return value.is_string() || value.is_number() || value.is_boolean();
  });
}

void bindJsonValue(sqlite::Statement& statement, int index, const nlohmann::json& value) {
  if (value.is_string()) {
    statement.bind(index, value.get_ref<const std::string&>());
  } else if (value.is_boolean()) {
    statement.bind(index, static_cast<std::int64_t>(value.get<bool>() ? 1 : 0));
  } else if (value.is_number_float()) {
    statement.bind(index, value.get<double>());
  } else if (value.is_number_unsigned()) {
    statement.bind(index, static_cast<double>(value.get<std::uint64_t>()));
  } else {
    statement.bind(index, value.get<std::int64_t>());
  }
}

// A large import rewrites the same index pages over and over; with the
// default cache of 2 MiB they go to the write-ahead log and back each time,
// which doubles its duration. A fixed 64 MiB for the import's length keeps
// them in memory, and memory stays independent of the number of samples.
class ImportCache {
 public:
  explicit ImportCache(sqlite::Connection& connection) : connection_(connection) {
    connection_.execute("PRAGMA cache_size = -16384");
  }
  ~ImportCache() {
    try {
      connection_.execute("PRAGMA cache_size = -2000");
    } catch (const sqlite::Error&) {
      // The larger cache stays: slower to give back, never wrong.
    }
  }
  ImportCache(const ImportCache&) = delete;
  ImportCache& operator=(const ImportCache&) = delete;

 private:
  sqlite::Connection& connection_;
};

// Calls `changed` on a thread of its own whenever the file `name` of the
// folder is written, made or replaced. A burst of events makes one call.
// Without inotify (or with too many watches) nothing is watched, and the
// store sees other processes' writes at its next operation.
class FolderWatcher {
 public:
  FolderWatcher(const std::filesystem::path& folder, std::string name, std::function<void()> changed)
      : name_(std::move(name)), changed_(std::move(changed)) {
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    constexpr std::uint32_t kEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_DELETE;
    if (inotify_ < 0 || wake_ < 0 || ::inotify_add_watch(inotify_, folder.c_str(), kEvents) < 0) {
      log.warning("The health store does not watch " + folder.string() + ": " + std::strerror(errno));
      return;
    }
    thread_ = std::thread([this] { run(); });
  }

  ~FolderWatcher() {
    if (thread_.joinable()) {
      const std::uint64_t one = 1;
      if (::write(wake_, &one, sizeof one) < 0) log.error("The health store's watcher cannot be woken");
      thread_.join();
    }
    if (inotify_ >= 0) ::close(inotify_);
    if (wake_ >= 0) ::close(wake_);
  }

  FolderWatcher(const FolderWatcher&) = delete;
  FolderWatcher& operator=(const FolderWatcher&) = delete;

 private:
  void run() {
    pthread_setname_np(pthread_self(), "HealthStore.fs");
    alignas(inotify_event) std::array<char, 8192> buffer;
    for (;;) {
      std::array<pollfd, 2> descriptors{{{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}}};
      if (::poll(descriptors.data(), descriptors.size(), -1) < 0) {
        if (errno == EINTR) continue;
        log.error(std::string("The health store's watcher stops: ") + std::strerror(errno));
        return;
      }
      if (descriptors[1].revents != 0) return;
      bool relevant = false;
      for (;;) {
        const ssize_t length = ::read(inotify_, buffer.data(), buffer.size());
        if (length <= 0) break;
        for (std::size_t offset = 0; offset < static_cast<std::size_t>(length);) {
          const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
          // A lost event may have been anyone's write.
          if ((event->mask & IN_Q_OVERFLOW) != 0) relevant = true;
          if (event->len > 0 && std::string_view(event->name) == name_) relevant = true;
          offset += sizeof(inotify_event) + event->len;
        }
      }
      if (relevant) changed_();
    }
  }

  std::string name_;
  std::function<void()> changed_;
  int inotify_ = -1;
  int wake_ = -1;
  std::thread thread_;
};

sqlite::Connection openHealthFile(const std::filesystem::path& file) {
  try {
    return sqlite::openSharedFile(file, {kApplicationId, kSchemaVersion, kSchema}, true);
  } catch (const sqlite::SharedFileError& error) {
    throw std::runtime_error(error.problem() == sqlite::SharedFileError::Problem::foreign
                                 ? file.string() + " is another application's database, not a health store"
                                 : file.string() + " was written by a newer version of the health store");
  }
}

// The file and what this process has seen of it. One connection, behind
// one lock: the store's queue, its watcher and synchronous callers share it.
class SqliteStorage final : public healthkit::HealthStorage {
 public:
  explicit SqliteStorage(const std::filesystem::path& folder) : connection_(open(folder)) {
    std::lock_guard lock(mutex_);
    seen_ = counter();
    signal_ = ::open((folder / kSignalName).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    tightenFile(folder / kSignalName);
    if (signal_ < 0) {
      log.warning("Other processes hear of this one's health writes late: " + std::string(std::strerror(errno)));
    }
  }

  ~SqliteStorage() override {
    stopWatching();
    if (signal_ >= 0) ::close(signal_);
  }

  SqliteStorage(const SqliteStorage&) = delete;
  SqliteStorage& operator=(const SqliteStorage&) = delete;

  void startWatching(const std::filesystem::path& folder) {
    watcher_ = std::make_unique<FolderWatcher>(folder, std::string(kSignalName), [this] {
      try {
        refresh();
      } catch (const std::exception& failure) {
        log.warning(std::string("The health store missed a change: ") + failure.what());
      }
    });
  }
  void stopWatching() { watcher_.reset(); }

  bool isAvailable(HKSampleType) const override { return true; }

  healthkit::Authorization authorization(const std::string& bundleIdentifier, HKSampleType type) override {
    std::lock_guard lock(mutex_);
    auto& select = connection_.cached("SELECT status, readable FROM authorizations WHERE bundle = ?1 AND type = ?2");
    select.bind(1, bundleIdentifier).bind(2, identifier(type));
    sqlite::Cursor rows(select);
    if (!rows.next()) return {};
    return {statusFromRaw(rows->int64(0)), rows->int64(1) != 0};
  }

  void applyAuthorizations(const std::string& bundleIdentifier,
                           const std::vector<healthkit::AuthorizationDecision>& decisions) override {
    std::lock_guard lock(mutex_);
    sqlite::Transaction transaction(connection_);
    for (const auto& decision : decisions) {
      auto& upsert = connection_.cached(
          "INSERT INTO authorizations (bundle, type, status, readable) "
          "VALUES (?1, ?2, coalesce(?3, 0), coalesce(?4, 0)) "
          "ON CONFLICT (bundle, type) DO UPDATE SET status = coalesce(?3, status), readable = coalesce(?4, readable)");
      upsert.bind(1, bundleIdentifier).bind(2, identifier(decision.type));
      if (decision.sharing) upsert.bind(3, static_cast<std::int64_t>(*decision.sharing));
      upsert.bind(4, decision.readable);
      upsert.execute();
    }
    noteWrite({}, {});
    transaction.commit();
    committed();
  }

  std::optional<HKAuthorizationAnswer> scriptedAnswer(const std::string& bundleIdentifier, HKSampleType type) override {
    std::lock_guard lock(mutex_);
    auto& select = connection_.cached("SELECT answer FROM answers WHERE bundle = ?1 AND type = ?2");
    select.bind(1, bundleIdentifier).bind(2, identifier(type));
    sqlite::Cursor rows(select);
    if (!rows.next()) return std::nullopt;
    return answerNamed(rows->text(0));
  }

  void setScriptedAnswer(const std::string& bundleIdentifier, HKSampleType type,
                         HKAuthorizationAnswer answer) override {
    std::lock_guard lock(mutex_);
    sqlite::Transaction transaction(connection_);
    auto& upsert = connection_.cached(
        "INSERT INTO answers (bundle, type, answer) VALUES (?1, ?2, ?3) "
        "ON CONFLICT (bundle, type) DO UPDATE SET answer = excluded.answer");
    upsert.bind(1, bundleIdentifier).bind(2, identifier(type)).bind(3, answerName(answer));
    upsert.execute();
    noteWrite({}, {});
    transaction.commit();
    committed();
  }

  void insert(const HKSample& sample) override {
    std::lock_guard lock(mutex_);
    sqlite::Transaction transaction(connection_);
    insertRow(sample);
    noteWrite({sample.sampleType}, {{sample.sampleType, sample.endDate - sample.startDate}});
    transaction.commit();
    committed();
  }

  healthkit::Removal remove(const std::string& bundleIdentifier, const std::vector<std::string>& uuids) override {
    std::lock_guard lock(mutex_);
    sqlite::Transaction transaction(connection_);
    healthkit::Removal removal;
    for (const std::string& uuid : uuids) {
      auto& select = connection_.cached("SELECT type, sourceBundle FROM samples WHERE uuid = ?1");
      select.bind(1, uuid);
      sqlite::Cursor rows(select);
      if (!rows.next()) continue;
      if (rows->text(1) != bundleIdentifier) return {true, {}};
      if (const auto type = sampleTypeFromIdentifier(rows->text(0))) removal.types.insert(*type);
    }
    for (const std::string& uuid : uuids) {
      connection_.cached("DELETE FROM samples WHERE uuid = ?1").bind(1, uuid).execute();
    }
    if (removal.types.empty()) return removal;
    noteWrite(removal.types, {});
    transaction.commit();
    committed();
    return removal;
  }

  std::vector<HKSample> select(const healthkit::SampleSelection& selection) override {
    const HKSampleQuery& query = selection.query;
    const auto* range =
        query.predicate ? std::get_if<HKQueryPredicate::DateRange>(&query.predicate->condition()) : nullptr;
    const auto* metadata =
        query.predicate ? std::get_if<HKQueryPredicate::MetadataValues>(&query.predicate->condition()) : nullptr;
    const bool narrowed = metadata && canNarrowInSql(*metadata);

    // ?1 type, ?2 end, ?3 start, ?4 bundle, ?5 limit, ?6 metadata path, ?7... its values.
    std::string sql = "SELECT " + std::string(kColumns) + " FROM samples WHERE type = ?1";
    if (range && range->end) sql += " AND startDate < ?2";
    if (range && range->start) {
      // A second of slack keeps rounding of the duration from losing a sample that ends right at the bound.
      sql +=
          " AND endDate >= ?3 AND startDate >= ?3 - 1.0 - coalesce((SELECT longest FROM extents WHERE type = ?1), 0)";
    }
    if (selection.onlyBundleIdentifier) sql += " AND sourceBundle = ?4";
    if (narrowed) {
      sql += " AND json_extract(metadata, ?6) IN (";
      for (std::size_t i = 0; i < metadata->allowedValues.size(); ++i) {
        sql += (i == 0 ? "?" : ", ?") + std::to_string(7 + i);
      }
      sql += ")";
    }
    sql += orderBy(query.sortDescriptors);
    const bool limitedInSql = query.limit != HKSampleQuery::kNoLimit && !metadata;
    if (limitedInSql) sql += " LIMIT ?5";

    std::lock_guard lock(mutex_);
    auto& statement = connection_.cached(sql);
    statement.bind(1, identifier(query.type));
    if (range && range->end) statement.bind(2, range->end->timeIntervalSinceReferenceDate());
    if (range && range->start) statement.bind(3, range->start->timeIntervalSinceReferenceDate());
    if (selection.onlyBundleIdentifier) statement.bind(4, *selection.onlyBundleIdentifier);
    if (limitedInSql) statement.bind(5, static_cast<std::int64_t>(query.limit));
    if (narrowed) {
      statement.bind(6, "$.\"" + metadata->key + "\"");
      for (std::size_t i = 0; i < metadata->allowedValues.size(); ++i) {
        bindJsonValue(statement, static_cast<int>(7 + i), metadata->allowedValues[i]);
      }
    }
    std::vector<HKSample> samples;
    for (sqlite::Cursor rows(statement); rows.next();) {
      HKSample sample = sampleFromRow(*rows);
      if (metadata && !query.predicate->evaluate(sample)) continue;
      samples.push_back(std::move(sample));
      if (samples.size() == query.limit) break;
    }
    return samples;
  }

  void refresh() override {
    std::lock_guard lock(mutex_);
    catchUp();
  }

  std::size_t importSamples(const std::function<bool(std::vector<HKSample>&)>& next, const HKSource& importer) {
    std::lock_guard lock(mutex_);
    const ImportCache cache(connection_);
    sqlite::Transaction transaction(connection_);
    std::set<HKSampleType> types;
    std::map<HKSampleType, double> longest;
    std::size_t saved = 0;
    std::vector<HKSample> batch;
    for (bool more = true; more;) {
      batch.clear();
      more = next(batch);
      for (HKSample& sample : batch) {
        if (const auto reason = healthkit::invalidity(sample)) throw std::invalid_argument(*reason);
        if (sample.uuid.empty()) sample.uuid = makeUUIDString();
        if (sample.source.bundleIdentifier.empty()) sample.source = importer;
        if (!insertRow(sample)) continue;
        ++saved;
        types.insert(sample.sampleType);
        double& duration = longest[sample.sampleType];
        duration = std::max(duration, sample.endDate - sample.startDate);
      }
    }
    if (saved == 0) return 0;
    noteWrite(types, longest);
    transaction.commit();
    committed();
    return saved;
  }

  std::vector<HKSample> everything() {
    std::lock_guard lock(mutex_);
    std::vector<HKSample> samples;
    auto& select = connection_.cached("SELECT " + std::string(kColumns) + " FROM samples ORDER BY startDate, id");
    for (sqlite::Cursor rows(select); rows.next();) samples.push_back(sampleFromRow(*rows));
    return samples;
  }

 private:
  static sqlite::Connection open(const std::filesystem::path& folder) {
    const std::filesystem::path file = folder / kFileName;
    try {
      makePrivateDatabaseFile(file);
      return openHealthFile(file);
    } catch (const sqlite::Error& failure) {
      if (failure.primaryCode() == SQLITE_NOTADB) throw std::runtime_error(file.string() + " is not a health store");
      throw std::runtime_error("The health store " + file.string() + " cannot be opened: " + failure.what());
    }
  }

  // Needs mutex_. False when a sample with its uuid is there already.
  bool insertRow(const HKSample& sample) {
    auto& insert = connection_.cached(
        "INSERT INTO samples (" + std::string(kColumns) +
        ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12) ON CONFLICT (uuid) DO NOTHING");
    insert.bind(1, sample.uuid)
        .bind(2, identifier(sample.sampleType))
        .bind(3, sample.categoryValue)
        .bind(4, sample.startDate.timeIntervalSinceReferenceDate())
        .bind(5, sample.endDate.timeIntervalSinceReferenceDate())
        .bind(6, sample.source.name)
        .bind(7, sample.source.bundleIdentifier);
    if (!sample.metadata.is_null()) {
      insert.bind(8, sample.metadata.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    }
    if (const auto& mood = sample.stateOfMind) {
      insert.bind(9, static_cast<std::int64_t>(mood->kind))
          .bind(10, mood->valence)
          .bind(11, rawValues(mood->labels))
          .bind(12, rawValues(mood->associations));
    }
    insert.execute();
    return connection_.changes() > 0;
  }

  // Needs mutex_ and an open transaction: raises the counter, marks the
  // types whose samples changed and widens their longest durations.
  void noteWrite(const std::set<HKSampleType>& types, const std::map<HKSampleType, double>& longest) {
    connection_.cached("UPDATE changes SET counter = counter + 1 WHERE scope = '*'").execute();
    const std::int64_t now = counter();
    for (const HKSampleType type : types) {
      connection_
          .cached(
              "INSERT INTO changes (scope, counter) VALUES (?1, ?2) "
              "ON CONFLICT (scope) DO UPDATE SET counter = excluded.counter")
          .bind(1, identifier(type))
          .bind(2, now)
          .execute();
    }
    for (const auto& [type, duration] : longest) {
      connection_
          .cached(
              "INSERT INTO extents (type, longest) VALUES (?1, ?2) "
              "ON CONFLICT (type) DO UPDATE SET longest = max(longest, excluded.longest)")
          .bind(1, identifier(type))
          .bind(2, duration)
          .execute();
    }
  }

  // Needs mutex_.
  std::int64_t counter() {
    auto& select = connection_.cached("SELECT counter FROM changes WHERE scope = '*'");
    sqlite::Cursor rows(select);
    return rows.next() ? rows->int64(0) : 0;
  }

  // Needs mutex_; after the commit of a writing transaction.
  void committed() {
    if (signal_ >= 0 && ::pwrite(signal_, "*", 1, 0) < 0) {
      log.warning("Other processes hear of this health write late: " + std::string(std::strerror(errno)));
    }
    // The write stands whatever happens here; the next operation catches up.
    try {
      catchUp();
    } catch (const sqlite::Error& failure) {
      log.warning(std::string("The health store could not tell of its own write: ") + failure.what());
    }
  }

  // Needs mutex_. Tells listeners about every type whose samples changed
  // since the counter was last seen, by this process or another. Own writes
  // call it right after their commit; the watcher and each operation call it
  // too, and the counter makes sure a change is told once.
  void catchUp() {
    std::int64_t latest = 0;
    std::map<HKSampleType, std::int64_t> counters;
    {
      auto& select = connection_.cached("SELECT scope, counter FROM changes");
      for (sqlite::Cursor rows(select); rows.next();) {
        const std::string scope = rows->text(0);
        if (scope == "*") {
          latest = rows->int64(1);
        } else if (const auto type = sampleTypeFromIdentifier(scope)) {
          counters[*type] = rows->int64(1);
        }
      }
    }
    if (latest == seen_) return;
    // A counter that went back belongs to a file made anew: all of it is news.
    const bool replaced = latest < seen_;
    std::set<HKSampleType> changed;
    for (const auto& [type, value] : counters) {
      if (replaced || value > seen_) changed.insert(type);
    }
    seen_ = latest;
    publish(changed);
  }

  std::mutex mutex_;
  sqlite::Connection connection_;
  std::int64_t seen_ = 0;
  int signal_ = -1;
  std::unique_ptr<FolderWatcher> watcher_;
};

}  // namespace

struct SqliteHealthStore::Impl {
  Impl(std::shared_ptr<SqliteStorage> opened, HKSource source) : storage(std::move(opened)), core(storage, source) {}

  std::shared_ptr<SqliteStorage> storage;
  healthkit::HealthStoreCore core;
};

SqliteHealthStore::SqliteHealthStore(const std::filesystem::path& folder, std::optional<HKSource> source)
    : impl_(std::make_shared<Impl>(std::make_shared<SqliteStorage>(folder),
                                   source ? std::move(*source) : healthkit::ownApplication())) {
  impl_->storage->startWatching(folder);
}

SqliteHealthStore::~SqliteHealthStore() {
  // Before anything goes: the watcher's thread reaches the storage.
  impl_->storage->stopWatching();
}

void SqliteHealthStore::setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer) {
  impl_->core.setAuthorizationAnswer(type, answer);
}

std::vector<HKSample> SqliteHealthStore::allSamples() const { return impl_->storage->everything(); }

std::size_t SqliteHealthStore::importSamples(const std::function<bool(std::vector<HKSample>& batch)>& next) {
  return impl_->storage->importSamples(next, impl_->core.source());
}

bool SqliteHealthStore::isAvailable(HKSampleType type) const { return impl_->core.isAvailable(type); }

HKAuthorizationStatus SqliteHealthStore::authorizationStatus(HKSampleType type) const {
  return impl_->core.authorizationStatus(type);
}

void SqliteHealthStore::requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                                             std::optional<std::set<HKSampleType>> typesToRead, Completion completion) {
  impl_->core.requestAuthorization(std::move(typesToShare), std::move(typesToRead), std::move(completion));
}

void SqliteHealthStore::execute(std::shared_ptr<HKSampleQuery> query) { impl_->core.execute(std::move(query)); }

void SqliteHealthStore::execute(std::shared_ptr<HKObserverQuery> query) { impl_->core.execute(std::move(query)); }

void SqliteHealthStore::stop(const std::shared_ptr<HKObserverQuery>& query) { impl_->core.stop(query); }

void SqliteHealthStore::save(HKSample sample, Completion completion) {
  impl_->core.save(std::move(sample), std::move(completion));
}

void SqliteHealthStore::deleteObjects(std::vector<HKSample> samples, Completion completion) {
  impl_->core.deleteObjects(std::move(samples), std::move(completion));
}

HKSource SqliteHealthStore::defaultSource() const { return impl_->core.source(); }

}  // namespace tarnwell

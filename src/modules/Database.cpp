#include "tarnwell/modules/Database.h"

#include "modules/DatabaseSupport.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/analytics/RememberedDays.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Timer.h"
#include "tarnwell/records/App.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Reads.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {

using store::Query;
using store::QueryValue;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

using namespace database_support;

namespace {

// SQLite's own side files travel with the main file, so that a journal never
// meets a file it does not belong to.
constexpr const char* kSideFileSuffixes[] = {"-wal", "-shm", "-journal"};

std::filesystem::path withSuffix(const std::filesystem::path& file, const char* suffix) {
  return file.string() + suffix;
}

bool existsWithSideFiles(const std::filesystem::path& file) {
  std::error_code error;
  if (std::filesystem::exists(std::filesystem::symlink_status(file, error))) return true;
  for (const char* suffix : kSideFileSuffixes) {
    if (std::filesystem::exists(std::filesystem::symlink_status(withSuffix(file, suffix), error))) return true;
  }
  return false;
}

// Moves the main file, then its side files. A side file that cannot follow
// is removed rather than left to meet the new store; false only when the
// main file did not move, and then nothing moved.
bool moveStoreFile(const std::filesystem::path& from, const std::filesystem::path& to, std::error_code& error) {
  std::filesystem::rename(from, to, error);
  if (error) return false;
  for (const char* suffix : kSideFileSuffixes) {
    std::error_code sideError;
    if (!std::filesystem::exists(withSuffix(from, suffix), sideError)) continue;
    std::filesystem::rename(withSuffix(from, suffix), withSuffix(to, suffix), sideError);
    if (sideError) {
      log.error("The side file " + withSuffix(from, suffix).string() +
                " cannot follow the store: " + sideError.message());
      std::filesystem::remove(withSuffix(from, suffix), sideError);
    }
  }
  return true;
}

// "backup.realm", then "backup-2.realm", "backup-3.realm" and so on.
std::filesystem::path numberedBackup(const std::filesystem::path& first, int number) {
  if (number == 1) return first;
  return first.parent_path() / (first.stem().string() + "-" + std::to_string(number) + first.extension().string());
}

// The first backup name that neither a backup nor a side file of one holds.
std::filesystem::path freeBackupName(const std::filesystem::path& first) {
  for (int number = 1;; ++number) {
    auto candidate = numberedBackup(first, number);
    if (!existsWithSideFiles(candidate)) return candidate;
  }
}

// Failures that say nothing about the file's contents: someone else holds
// it, it cannot be reached or written just now, or it is a newer version's.
bool isAboutAccess(const sqlite::Error& error) {
  switch (error.primaryCode()) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_NOMEM:
    case SQLITE_AUTH:
    case SQLITE_NOLFS:
    case SQLITE_MISMATCH:
      return true;
    default:
      return false;
  }
}

bool isDamage(const sqlite::Error& error) {
  return error.primaryCode() == SQLITE_NOTADB || error.primaryCode() == SQLITE_CORRUPT;
}

// Whether SQLite's quick check finds the file damaged. A check that cannot
// run for want of access proves nothing.
bool failsQuickCheck(const std::filesystem::path& file) {
  try {
    sqlite::Connection connection(file, sqlite::Connection::OpenMode::readOnly);
    connection.setBusyTimeout(storeBusyTimeout());
    auto check = connection.prepare("PRAGMA quick_check");
    return check.step() && check.text(0) != "ok";
  } catch (const sqlite::Error& failure) {
    return isDamage(failure);
  }
}

// The first of the store's files, or its folder, that this process cannot
// write, if any.
std::optional<std::filesystem::path> unwritableFile(const std::filesystem::path& file) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const auto each = withSuffix(file, suffix);
    if (::access(each.c_str(), F_OK) == 0 && ::access(each.c_str(), W_OK) != 0) return each;
  }
  if (::access(file.parent_path().c_str(), W_OK) != 0) return file.parent_path();
  return std::nullopt;
}

// Takes the shared lock on the lock file beside the store, once per
// Environment. Without it this process simply never sets the store aside.
void holdStoreLock(DatabaseState& s) {
  if (s.lockFile >= 0) return;
  const auto file = withSuffix(s.fileURL, ".lock");
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    log.warning("The store's lock file " + file.string() + " cannot be opened: " + std::strerror(errno));
    return;
  }
  tightenFile(file);
  // Blocks only while another process sets a damaged store aside, which is
  // quick; a process that merely uses the store holds it shared too.
  while (::flock(fd, LOCK_SH) != 0) {
    if (errno == EINTR) continue;
    log.warning("The store's lock file " + file.string() + " cannot be locked: " + std::strerror(errno));
    ::close(fd);
    return;
  }
  s.lockFile = fd;
}

template <class... Records>
std::vector<store::TableSchema> tables() {
  return {store::tableSchema<Records>()...};
}

}  // namespace

namespace database_support {

DatabaseState::DatabaseState(Environment& environment) : queue("org.vostra.tarnwell.database") {
  const auto container = environment.containerURL(Environment::kAppGroupIdentifier);
  if (!container) fatalError("The app group container group.org.vostra.tarnwell cannot be found");
  folder = *container / "Realm";
  fileURL = folder / "default.realm";
  firstBackupURL = folder / "backup.realm";
  backupURL = firstBackupURL;
  legacyURL = *container / "Library" / "Caches" / "default.realm";
  for (const char* extension : {"", ".lock", ".note", ".management"}) fileURLs.push_back(fileURL.string() + extension);
}

DatabaseState::~DatabaseState() {
  if (lockFile >= 0) ::close(lockFile);
}

DatabaseState& state() { return Environment::current().component<DatabaseState>(); }

void updateEventsOfToday(const std::vector<EventsOfInterval::EventsChangeType>& changes,
                         const std::optional<store::Commit>& commit) {
  Database::queue().safeSync([&] {
    auto& today = state().eventsOfToday;
    if (!today) today.emplace(Date::now(), std::nullopt);
    try {
      *today = std::move(*today).appliedChange(changes, commit);
    } catch (...) {
      today.reset();  // half changed: the next reader builds it anew
      throw;
    }
    Database::notifyEventsOfTodayChanged();
  });
}

void setEventsOfToday(EventsOfDay today) {
  state().eventsOfToday = std::move(today);
  Database::notifyEventsOfTodayChanged();
}

void debounce(std::shared_ptr<Timer> DatabaseState::*slot, std::function<void()> fire) {
  auto& s = state();
  {
    std::lock_guard lock(s.timersMutex);
    if (s.*slot) (s.*slot)->invalidate();
  }
  DispatchQueue::main().async([&s, slot, fire = std::move(fire)] {
    auto timer = Timer::scheduled(0.1, fire);
    std::lock_guard lock(s.timersMutex);
    // Two calls before the main queue ran either of these still give one post.
    if (s.*slot) (s.*slot)->invalidate();
    s.*slot = std::move(timer);
  });
}

}  // namespace database_support

SafeSyncQueue::SafeSyncQueue(std::string label)
    : label_(label), queue_(Environment::current().makeThreadQueue(std::move(label))) {
  queue_->setSpecific(queueKey_, label_);
}

Database::DatabaseError Database::DatabaseError::realm(int errorCode) {
  return DatabaseError(errorCode, "the store failed with error " + std::to_string(errorCode));
}

Database::DatabaseError Database::DatabaseError::refused(int errorCode, const std::string& sentence) {
  return DatabaseError(errorCode, sentence);
}

Database::DatabaseError Database::DatabaseError::setAside(int errorCode, const std::filesystem::path& backup) {
  DatabaseError error(errorCode, "the store was damaged and was set aside as " + backup.filename().string() +
                                     "; the next run starts an empty store");
  error.backup_ = backup;
  return error;
}

std::string Database::describeFailure(const sqlite::Error& error) {
  const auto& file = state().fileURL;
  switch (error.primaryCode()) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "the store is busy: another tarnwell process is writing to it; try again when it ends";
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
    case SQLITE_CANTOPEN:
      if (const auto blocked = unwritableFile(file))
        return "the store cannot be written: " + blocked->string() + " is read-only";
      return "the store cannot be opened: " + std::string(error.what());
    case SQLITE_FULL:
      return "the store cannot be written: the disk is full";
    case SQLITE_IOERR:
      return "the store cannot be read or written just now: " + std::string(error.what());
    case SQLITE_MISMATCH:
      return "the store was written by a newer version of tarnwell; this version leaves it as it is";
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return "the store " + file.string() + " is damaged";
    default:
      return "the store failed: " + std::string(error.what());
  }
}

const std::filesystem::path& Database::fileURL() { return state().fileURL; }
const std::filesystem::path& Database::backupURL() {
  auto& s = state();
  // The newest backup there is; the first name while there is none.
  s.backupURL = s.firstBackupURL;
  for (int number = 1; existsWithSideFiles(numberedBackup(s.firstBackupURL, number)); ++number)
    s.backupURL = numberedBackup(s.firstBackupURL, number);
  return s.backupURL;
}
const std::vector<std::filesystem::path>& Database::fileURLs() { return state().fileURLs; }
SafeSyncQueue& Database::queue() { return state().queue; }

void Database::start() {
  // The health manager sits below today; it reaches it through these.
  HealthManager::shared().setHooks({
      .sleepDatasDidReload =
          [] {
            EventsOfDays::clearCaches();
            refreshEventsOfToday();
          },
      .nightOfToday =
          [] {
            const EventsOfDay today = eventsOfToday();
            return std::pair(today.inferredLastPickupDate(), today.inferredFirstPickupDate());
          },
  });
  configureRealm();
  testRealm();
  CloudService::start();
  setupRealmData();
  queue().safeSync([] { clearRealmDatabase(); });
  setupRefreshEventsOfTodayTimer();
  observeFocusAndTagDataChanges();
  updateTagsDisplayInIntent();
}

void Database::setPublishingHooks(PublishingHooks hooks) { state().publishing = std::move(hooks); }

void Database::observeFocusAndTagDataChanges() {
  Store store = Store::open();
  auto& observers = state().observers;
  observers.clear();
  observers.push_back(store.observe<Focus>([](const store::ChangeSet&) { notifyFocusesChanged(); }));
  observers.push_back(store.observe<Tag>([](const store::ChangeSet&) {
    notifyFocusesChanged();
    DispatchQueue::main().async([] {
      try {
        updateTagsDisplayInIntent();
      } catch (const std::exception&) {
        // A publication that failed is made again at the next change.
      }
    });
  }));
}

EventsOfDay Database::eventsOfToday() {
  return queue().safeSync([] {
    auto& today = state().eventsOfToday;
    if (!today) today.emplace(Date::now(), std::nullopt);
    return *today;
  });
}

Promise<void> Database::refreshEventsOfToday() {
  return Promise<void>::fulfilled()
      .map(queue().queue(),
           [] {
             EventsOfDay today(Date::now(), std::nullopt);
             queue().safeSync([&today] { setEventsOfToday(std::move(today)); });
             const auto& publishing = state().publishing;
             if (publishing.refreshScreenTimeToday) publishing.refreshScreenTimeToday();
             if (publishing.refreshFocusTimeToday) publishing.refreshFocusTimeToday();
           })
      .map([] { NotificationCenter::defaultCenter().post(NotificationName::dateOfTodayDidChange); });
}

void Database::setupRefreshEventsOfTodayTimer() {
  const Date fire = Date::now().addingDay(1).startOfDay() + 1.0;
  auto timer = Timer::scheduled(fire, [] {
    refreshEventsOfToday();
    setupRefreshEventsOfTodayTimer();
  });
  auto& s = state();
  std::lock_guard lock(s.timersMutex);
  // The new timer takes the place of the old, which is left to fire as it will.
  s.dayTimer = std::move(timer);
}

void Database::notifyEventsOfTodayChanged() {
  debounce(&DatabaseState::eventsOfTodayPost, [] {
    NotificationCenter::defaultCenter().post(NotificationName::eventsOfTodayDidChange);
    const auto& publishing = state().publishing;
    if (publishing.refreshScreenTimeToday) publishing.refreshScreenTimeToday();
  });
}

void Database::notifyFocusesChanged() {
  debounce(&DatabaseState::focusesPost, [] {
    NotificationCenter::defaultCenter().post(NotificationName::focusesDidChange);
    const auto& publishing = state().publishing;
    if (publishing.refreshFocusTimeToday) publishing.refreshFocusTimeToday();
    if (publishing.updateFocusTags) publishing.updateFocusTags();
  });
}

bool Database::shouldCompactOnLaunch(std::uint64_t totalBytes, std::uint64_t usedBytes) {
  constexpr std::uint64_t kFiftyMegabytes = 50 * 1024 * 1024;
  return totalBytes > kFiftyMegabytes && static_cast<double>(usedBytes) / static_cast<double>(totalBytes) < 0.4;
}

void Database::configureRealm() {
  auto& s = state();
  makePrivateFolder(s.folder);
  holdStoreLock(s);
  if (std::filesystem::exists(s.legacyURL) && !std::filesystem::exists(s.fileURL)) {
    std::error_code error;
    if (!moveStoreFile(s.legacyURL, s.fileURL, error))
      throw std::filesystem::filesystem_error("cannot move", s.legacyURL, s.fileURL, error);
  }
  // Before SQLite makes it: its side files take the main file's mode.
  makePrivateDatabaseFile(s.fileURL);

  store::StoreConfiguration configuration;
  configuration.fileURL = s.fileURL;
  configuration.schemaVersion = kSchemaVersion;
  configuration.tables = tables<Alive, App, Device, Focus, Pickup, Tag, Walk>();
  // After the event tables, whose triggers drop the days they shape.
  configuration.tables.push_back(RememberedDays::tableSchema());
  // The classes the cloud service syncs: their local changes wait in the
  // outbox until the cloud has them, whether or not sync is on yet.
  configuration.outboxClasses = {std::string(Device::className), std::string(Tag::className),
                                 std::string(Focus::className), std::string(Pickup::className),
                                 std::string(Walk::className)};
  configuration.migrationBlock = &Database::migrate;
  configuration.shouldCompactOnLaunch = &Database::shouldCompactOnLaunch;
  Store::setDefaultConfiguration(std::move(configuration));
  log.info("🔧 Configure Realm at " + s.fileURL.string());
}

void Database::testRealm() {
  auto& s = state();
  int code = -1;
  try {
    Store::open();
    return;
  } catch (const sqlite::Error& failure) {
    log.error("The store cannot be opened: " + std::string(failure.what()) + " (" + std::to_string(failure.code()) +
              ")");
    code = failure.code();
    // Only a file shown to be damaged goes: a busy or locked store, or one
    // that cannot be written just now, keeps everything in it.
    if (!isDamage(failure) && (isAboutAccess(failure) || !failsQuickCheck(s.fileURL)))
      throw DatabaseError::refused(code, describeFailure(failure));
  } catch (const std::exception& failure) {
    log.error(std::string("The store cannot be opened: ") + failure.what());
    throw DatabaseError::realm(-1);
  }
  if (s.lockFile < 0 || ::flock(s.lockFile, LOCK_EX | LOCK_NB) != 0) {
    throw DatabaseError::refused(code, "the store " + s.fileURL.string() +
                                           " is damaged, but another tarnwell process has it open, so it was NOT "
                                           "set aside; try again when that process ends");
  }
  // The lock goes back to shared however this ends.
  const std::shared_ptr<void> shared(nullptr, [&s](void*) { ::flock(s.lockFile, LOCK_SH); });
  Store::invalidate(s.fileURL);
  const auto backup = freeBackupName(s.firstBackupURL);
  std::error_code error;
  if (!moveStoreFile(s.fileURL, backup, error)) {
    log.error("The store cannot be set aside as " + backup.string() + ": " + error.message());
    throw DatabaseError::refused(code, "the store " + s.fileURL.string() +
                                           " is damaged and could NOT be set aside as " + backup.filename().string() +
                                           " (" + error.message() + "); nothing was changed");
  }
  s.backupURL = backup;
  log.error("The store was set aside as " + backup.string());
  throw DatabaseError::setAside(code, backup);
}

void Database::setupRealmData() {
  {
    Store store = Store::open();
    const std::string deviceId = Settings::deviceId();
    if (!store.first<Device>(store::liveRows().filter("id = ?", {deviceId}))) {
      const Device device(deviceId, Environment::current().device().name);
      store.write([&device](WriteTransaction& t) { t.add(device, UpdatePolicy::all); });
    }
  }
  if (!getTags(false, false).empty() && !Settings::shouldCreateDefaultTags()) return;
  Settings::setShouldCreateDefaultTags(false);
  for (const auto type : DefaultTagTypes::initialTags) {
    // A tag that cannot be read counts as not found: it is built again.
    if (store::orNoData([type] { return store::liveObject<Tag>(info(type).id); })) continue;
    const Tag tag = makeDefaultTag(type);
    Store::open().write([&tag](WriteTransaction& t) { t.add(tag, UpdatePolicy::all); });
  }
}

void Database::migrate(sqlite::Connection& connection, std::uint64_t v) {
  const auto run = [&connection](const std::string& sql, const std::vector<QueryValue>& arguments = {}) {
    auto statement = connection.prepare(sql);
    Store::bind(statement, arguments);
    statement.execute();
  };
  if (v <= 1) {
    const std::string deviceId = Settings::deviceId();
    for (const char* table : {"Alive", "Pickup", "Walk", "Focus"}) {
      run("UPDATE " + store::quoteIdentifier(table) + " SET isDeleted = 0, deviceId = ?", {deviceId});
    }
  }
  // Only a file of exactly version 2 had this field to reset; an older one
  // gets the column's default.
  if (v == 2) run("UPDATE Pickup SET isIgnoredForSleepTime = 0");
  if (v <= 3) run("UPDATE Focus SET typeString = 'countdown', modeString = 'easy'");
  if (v <= 7) {
    Query kept;
    kept.filterIn("id", Settings::doNotSyncTagIdToHealthKitMindfulness());
    run("UPDATE Tag SET syncToMindfulness = 1 WHERE id IS NULL OR NOT (" + kept.where + ")", kept.arguments);
  }
  if (v <= 8) run("UPDATE Tag SET sort = ?", {Tag::kUnplacedSort});
  if (v <= 9) {
    const std::string type = nlohmann::json(Settings::defaultFocusType()).dump();
    const Data typeData(type.begin(), type.end());
    auto statement = connection.prepare("UPDATE Tag SET typeData = ?");
    statement.bind(1, std::span<const std::uint8_t>(typeData));
    statement.execute();
  }
  if (v <= 10) {
    // Colours came in at version 11: default tags get theirs, every other tag
    // the next colour of the palette, in store order.
    std::vector<std::pair<std::int64_t, std::string>> colors;
    auto select = connection.prepare("SELECT rowid, id FROM Tag ORDER BY rowid");
    std::size_t counter = 0;
    const auto& palette = TagColors::palette();
    while (select.step()) {
      const auto known = select.isNull(1) ? std::nullopt : defaultTagColorHex(select.text(1));
      colors.emplace_back(select.int64(0),
                          known ? std::string(*known) : std::string(palette[counter++ % palette.size()]));
    }
    for (const auto& [rowid, color] : colors) {
      run("UPDATE Tag SET colorHex = ?, focusGoalData = NULL WHERE rowid = ?", {color, rowid});
    }
  }
  if (v <= 11) run("UPDATE Focus SET watchName = NULL");
}

}  // namespace tarnwell

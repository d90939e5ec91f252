#include "tarnwell/modules/Database.h"

#include "modules/DatabaseSupport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
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
constexpr const char* kSideFileSuffixes[] = {"-wal", "-shm"};

std::filesystem::path withSuffix(const std::filesystem::path& file, const char* suffix) {
  return file.string() + suffix;
}

void moveStoreFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::filesystem::rename(from, to);
  for (const char* suffix : kSideFileSuffixes) {
    std::error_code error;
    std::filesystem::remove(withSuffix(to, suffix), error);
    if (std::filesystem::exists(withSuffix(from, suffix))) {
      std::filesystem::rename(withSuffix(from, suffix), withSuffix(to, suffix));
    }
  }
}

// Removes a file like the platform's file manager: a missing one is an error.
void removeItem(const std::filesystem::path& file) {
  if (!std::filesystem::exists(file)) {
    throw std::filesystem::filesystem_error("cannot remove", file,
                                            std::make_error_code(std::errc::no_such_file_or_directory));
  }
  std::filesystem::remove(file);
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
  backupURL = folder / "backup.realm";
  legacyURL = *container / "Library" / "Caches" / "default.realm";
  for (const char* extension : {"", ".lock", ".note", ".management"}) fileURLs.push_back(fileURL.string() + extension);
}

DatabaseState& state() { return Environment::current().component<DatabaseState>(); }

void updateEventsOfToday(const std::vector<EventsOfInterval::EventsChangeType>& changes) {
  EventsOfDay changed = Database::eventsOfToday().appliedChange(changes);
  Database::queue().safeSync([&changed] { setEventsOfToday(std::move(changed)); });
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

const std::filesystem::path& Database::fileURL() { return state().fileURL; }
const std::filesystem::path& Database::backupURL() { return state().backupURL; }
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
  // No protection attributes here: the file keeps the mode it was made with.
  if (!std::filesystem::exists(s.folder)) std::filesystem::create_directory(s.folder);
  if (std::filesystem::exists(s.legacyURL) && !std::filesystem::exists(s.fileURL))
    moveStoreFile(s.legacyURL, s.fileURL);

  store::StoreConfiguration configuration;
  configuration.fileURL = s.fileURL;
  configuration.schemaVersion = kSchemaVersion;
  configuration.tables = tables<Alive, App, Device, Focus, Pickup, Tag, Walk>();
  configuration.migrationBlock = &Database::migrate;
  configuration.shouldCompactOnLaunch = &Database::shouldCompactOnLaunch;
  Store::setDefaultConfiguration(std::move(configuration));
  log.info("🔧 Configure Realm at " + s.fileURL.string());
}

void Database::testRealm() {
  try {
    Store::open();
  } catch (const std::exception& failure) {
    log.error(failure.what());
    const auto* storeError = dynamic_cast<const sqlite::Error*>(&failure);
    if (!storeError) throw DatabaseError::realm(-1);
    auto& s = state();
    if (std::filesystem::exists(s.backupURL)) {
      std::filesystem::remove(s.backupURL);
      for (const char* suffix : kSideFileSuffixes) std::filesystem::remove(withSuffix(s.backupURL, suffix));
    }
    if (std::filesystem::exists(s.fileURL)) moveStoreFile(s.fileURL, s.backupURL);
    Store::invalidate(s.fileURL);
    // The first of these usually fails, the file having just moved, and that
    // error is what the caller sees; the other files then stay. Kept so.
    for (const auto& file : s.fileURLs) removeItem(file);
    throw DatabaseError::realm(storeError->code());
  }
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

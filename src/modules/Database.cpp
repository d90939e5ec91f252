#include "tarnwell/modules/Database.h"

#include "modules/DatabaseSupport.h"
#include "modules/EventQueries.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tarnwell/modules/Settings.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Timer.h"
#include "tarnwell/records/App.h"
#include "tarnwell/records/Focus.h"
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

using event_queries::live;
using event_queries::touching;

// Ids of the records touching the interval, by start, of positive length.
template <class Record>
std::vector<std::string> rangeQuery(DateInterval between, const std::vector<std::string>& deviceIds) {
  std::vector<std::string> ids;
  event_queries::forEachInSpan<Record>(between, deviceIds,
                                       [&ids](const std::string& id, const DateInterval&) { ids.push_back(id); });
  return ids;
}

// The record that ends last.
template <class Record>
std::optional<Record> latest(const std::vector<std::string>& deviceIds) {
  auto records = Store::open().objects<Record>(live(deviceIds).sorted("\"end\" DESC").limited(1));
  if (records.empty()) return std::nullopt;
  return std::move(records.front());
}

// Adds a new record of this device and logs "✍️ Add <Class>: id start end".
template <class Record>
std::string addEvent(Date start, Date end, std::string_view function) {
  Record record(start, end);
  Store::open().write([&record](WriteTransaction& t) { t.add(record, UpdatePolicy::all); });
  log.info("✍️ Add " + std::string(Record::className) + ": " + *record.id + " " + start.description() + " " +
               end.description(),
           {.function = function});
  return *record.id;
}

EventsOfInterval::EventsChangeType pickupChange(const std::string& id) {
  return EventsOfInterval::EventsChangeType::pickup(id);
}

// The id of the first or last pickup of a query, as `Query` orders it.
std::optional<std::string> firstId(const Query& query) {
  Store store = Store::open();
  auto& select = store.statement(Store::selectSQL(Pickup::className, "id", query));
  Store::bind(select, query.arguments);
  std::optional<std::string> id;
  if (select.step() && !select.isNull(0)) id = select.text(0);
  select.reset();
  return id;
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

std::vector<std::string> selectIds(std::string_view className, std::string_view column, const Query& query) {
  Store store = Store::open();
  auto& select = store.statement(Store::selectSQL(className, column, query));
  Store::bind(select, query.arguments);
  std::vector<std::string> ids;
  try {
    while (select.step()) {
      if (!select.isNull(0)) ids.push_back(select.text(0));
    }
  } catch (...) {
    select.reset();
    throw;
  }
  select.reset();
  return ids;
}

void updateEventsOfToday(const std::vector<EventsOfInterval::EventsChangeType>& changes) {
  EventsOfDay changed = Database::eventsOfToday().appliedChange(changes);
  Database::queue().safeSync([&changed] { setEventsOfToday(std::move(changed)); });
}

std::optional<Device> currentDeviceForEdit() {
  try {
    return Database::getCurrentDevice();
  } catch (const sqlite::Error&) {
    return std::nullopt;
  }
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

SafeSyncQueue::SafeSyncQueue(std::string label) : label_(label), queue_(std::move(label)) {
  queue_.setSpecific(queueKey_, label_);
}

Database::DatabaseError Database::DatabaseError::realm(int errorCode) {
  return DatabaseError(errorCode, "the store failed with error " + std::to_string(errorCode));
}

const std::filesystem::path& Database::fileURL() { return state().fileURL; }
const std::filesystem::path& Database::backupURL() { return state().backupURL; }
const std::vector<std::filesystem::path>& Database::fileURLs() { return state().fileURLs; }
SafeSyncQueue& Database::queue() { return state().queue; }

void Database::start() {
  configureRealm();
  testRealm();
  setupRealmData();
  queue().safeSync([] { clearRealmDatabase(); });
  setupRefreshEventsOfTodayTimer();
  observeFocusAndTagDataChanges();
}

void Database::observeFocusAndTagDataChanges() {
  Store store = Store::open();
  auto& observers = state().observers;
  observers.clear();
  observers.push_back(store.observe<Focus>([](const store::ChangeSet&) { notifyFocusesChanged(); }));
  observers.push_back(store.observe<Tag>([](const store::ChangeSet&) { notifyFocusesChanged(); }));
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
  debounce(&DatabaseState::eventsOfTodayPost,
           [] { NotificationCenter::defaultCenter().post(NotificationName::eventsOfTodayDidChange); });
}

void Database::notifyFocusesChanged() {
  debounce(&DatabaseState::focusesPost,
           [] { NotificationCenter::defaultCenter().post(NotificationName::focusesDidChange); });
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
    const auto devices = store.objects<Device>(Query().filter("isDeleted = 0 AND id = ?", {deviceId}).limited(1));
    if (devices.empty()) {
      const Device device(deviceId, Environment::current().device().name);
      store.write([&device](WriteTransaction& t) { t.add(device, UpdatePolicy::all); });
    }
  }
  if (!getTags(false, false).empty() && !Settings::shouldCreateDefaultTags()) return;
  Settings::setShouldCreateDefaultTags(false);
  for (const auto type : DefaultTagTypes::initialTags) {
    std::optional<Tag> existing;
    try {
      existing = Store::open().object<Tag>(info(type).id);
    } catch (const sqlite::Error&) {
      // Counts as not found: the tag is built again.
    }
    if (existing && !existing->isDeleted) continue;
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

std::optional<Device> Database::getCurrentDevice() { return liveObject<Device>(Settings::deviceId()); }

std::optional<std::string> Database::setCurrentDeviceLastSyncDate(Date date) {
  const auto device = currentDeviceForEdit();
  if (!device) return std::nullopt;
  log.info("✍️ Edit Device: " + *device->id + ", updated at " + date.description(),
           {.function = "setCurrentDeviceLastSyncDate(_:)"});
  Store::open().write([&](WriteTransaction& t) { t.updateObject<Device>(*device->id, {{"lastSyncDate", date}}); });
  return device->id;
}

std::vector<std::string> Database::getDevices() {
  Store store = Store::open();
  auto& select = store.statement("SELECT id FROM Device WHERE isDeleted = 0 AND id IS NOT NULL ORDER BY rowid");
  std::vector<std::string> ids;
  while (select.step()) ids.push_back(select.text(0));
  select.reset();
  return ids;
}

std::optional<Device> Database::getDevice(const std::string& id) { return liveObject<Device>(id); }

std::optional<std::vector<std::string>> Database::getDevicesRelatedToCurrentDevice() {
  const auto device = getCurrentDevice();
  if (!device) return std::nullopt;
  return device->deviceIds;
}

std::vector<std::string> Database::getPickups(DateInterval between, const std::vector<std::string>& deviceIds) {
  return rangeQuery<Pickup>(between, deviceIds);
}

std::optional<Pickup> Database::getPickup(const std::string& id) { return liveObject<Pickup>(id); }

std::optional<std::string> Database::getFirstPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  Query query;
  query.filter("isDeleted = 0 AND isIgnoredForSleepTime = 0").filterIn("deviceId", deviceIds);
  query.filter("start BETWEEN ? AND ?", {between.start(), between.end()}).sorted("start ASC").limited(1);
  return firstId(query);
}

std::optional<std::string> Database::getLastPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  Query query;
  query.filter("isDeleted = 0 AND isIgnoredForSleepTime = 0").filterIn("deviceId", deviceIds);
  // The last of the rows sorted by end ascending, ties in store order.
  touching(query, between).sorted("\"end\" DESC, rowid DESC").limited(1);
  return firstId(query);
}

std::optional<Pickup> Database::getPickup(Date start, Date end, const std::vector<std::string>& deviceIds) {
  auto pickups =
      Store::open().objects<Pickup>(live(deviceIds).filter("(start = ? OR \"end\" = ?)", {start, end}).limited(1));
  if (pickups.empty()) return std::nullopt;
  return std::move(pickups.front());
}

std::optional<Pickup> Database::getLatestPickup(const std::vector<std::string>& deviceIds) {
  return latest<Pickup>(deviceIds);
}

double Database::getScreenTime(const std::string& deviceId) {
  Store store = Store::open();
  auto& select =
      store.statement("SELECT start, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ? ORDER BY rowid");
  select.bind(1, std::string_view(deviceId));
  double seconds = 0;
  while (select.step()) {
    Pickup pickup;
    store::readValue(select, 0, pickup.start);
    store::readValue(select, 1, pickup.end);
    if (const auto interval = pickup.interval()) seconds += interval->duration();
  }
  select.reset();
  return seconds;
}

std::string Database::addPickup(Date start, Date end) {
  const std::string id = addEvent<Pickup>(start, end, "addPickup(start:end:)");
  updateEventsOfToday({pickupChange(id)});
  return id;
}

std::string Database::editPickup(const std::string& id, Date end) {
  editLiveObject<Pickup>(id, {{"end", end}}, "✍️ Edit Pickup: " + id + " " + end.description(),
                         "editPickup(id:end:)");
  // Also when nothing was written: the day is replaced all the same.
  updateEventsOfToday({pickupChange(id)});
  return id;
}

std::vector<std::string> Database::editPickups(DateInterval between, bool isIgnoredForSleepTime,
                                               const std::vector<std::string>& deviceIds) {
  Query query = live(deviceIds);
  touching(query, between);
  std::vector<std::string> ids;
  Store::open().write([&](WriteTransaction& t) {
    ids = t.update<Pickup>({{"isIgnoredForSleepTime", isIgnoredForSleepTime}}, query);
  });
  log.info("✍️ Edit Pickup Between: " + between.description() +
               ", isIgnoredForSleepTime: " + (isIgnoredForSleepTime ? "true" : "false"),
           {.function = "editPickups(between:isIgnoredForSleepTime:deviceIds:)"});
  std::vector<EventsOfInterval::EventsChangeType> changes;
  for (const auto& id : ids) changes.push_back(pickupChange(id));
  updateEventsOfToday(changes);
  return ids;
}

void Database::deletePickup(const std::string& id) {
  if (editLiveObject<Pickup>(id, {{"isDeleted", true}}, "✍️ Delete Pickup: " + id, "deletePickup(id:)")) {
    updateEventsOfToday({pickupChange(id)});
  }
}

std::vector<std::string> Database::getWalks(DateInterval between, const std::vector<std::string>& deviceIds) {
  return rangeQuery<Walk>(between, deviceIds);
}

std::optional<Walk> Database::getWalk(const std::string& id) { return liveObject<Walk>(id); }

std::optional<Walk> Database::getLatestWalk(const std::vector<std::string>& deviceIds) {
  return latest<Walk>(deviceIds);
}

std::string Database::addWalk(Date start, Date end) {
  const std::string id = addEvent<Walk>(start, end, "addWalk(start:end:)");
  updateEventsOfToday({EventsOfInterval::EventsChangeType::walk(id)});
  return id;
}

std::vector<std::string> Database::addWalks(const std::vector<DateInterval>& intervals) {
  std::vector<Walk> walks;
  walks.reserve(intervals.size());
  for (const auto& interval : intervals) walks.emplace_back(interval.start(), interval.end());
  Store::open().write([&walks](WriteTransaction& t) {
    for (const auto& walk : walks) t.add(walk, UpdatePolicy::error);
  });
  std::vector<std::string> ids;
  std::vector<EventsOfInterval::EventsChangeType> changes;
  for (const auto& walk : walks) {
    ids.push_back(*walk.id);
    changes.push_back(EventsOfInterval::EventsChangeType::walk(*walk.id));
  }
  updateEventsOfToday(changes);
  return ids;
}

std::string Database::editWalk(const std::string& id, Date start, Date end) {
  editLiveObject<Walk>(id, {{"start", start}, {"end", end}},
                       "✍️ Edit Walk: " + id + " " + start.description() + " " + end.description(),
                       "editWalk(id:start:end:)");
  updateEventsOfToday({EventsOfInterval::EventsChangeType::walk(id)});
  return id;
}

std::vector<std::string> Database::getAlives(DateInterval between, const std::vector<std::string>& deviceIds) {
  return rangeQuery<Alive>(between, deviceIds);
}

std::optional<Alive> Database::getAlive(const std::string& id) { return liveObject<Alive>(id); }

std::optional<Alive> Database::getLatestAlive(const std::vector<std::string>& deviceIds) {
  return latest<Alive>(deviceIds);
}

std::string Database::addAlive(Date start, Date end) {
  const std::string id = addEvent<Alive>(start, end, "addAlive(start:end:)");
  updateEventsOfToday({EventsOfInterval::EventsChangeType::alive(id)});
  return id;
}

// Unlike a walk's, an alive span's edit leaves today's older alive list as it is.
std::string Database::editAlive(const std::string& id, Date start, Date end) {
  editLiveObject<Alive>(id, {{"start", start}, {"end", end}},
                        "✍️ Edit Alive: " + id + " " + start.description() + " " + end.description(),
                        "editAlive(id:start:end:)");
  return id;
}

void Database::clearAlivePickupWalk() {
  const Date now = Date::now();
  Store::open().write([now](WriteTransaction& t) {
    // Deleted rows are marked again: the filters leave isDeleted aside.
    const Query backwards = Query().filter("start >= \"end\""), future = Query().filter("\"end\" > ?", {now});
    t.update<Alive>({{"isDeleted", true}}, backwards);
    t.update<Pickup>({{"isDeleted", true}}, backwards);
    t.update<Walk>({{"isDeleted", true}}, backwards);
    t.update<Alive>({{"isDeleted", true}}, future);
    t.update<Pickup>({{"isDeleted", true}}, future);
    t.update<Walk>({{"isDeleted", true}}, future);
  });
}

}  // namespace tarnwell

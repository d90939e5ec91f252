// The events: pickups, walks and alive spans, with the day cache that each
// write keeps up to date.

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

using namespace database_support;
using store::Query;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

namespace {

// Ids of the records touching the interval, by start, of positive length.
template <class Record>
std::vector<std::string> rangeQuery(DateInterval between, const std::vector<std::string>& deviceIds) {
  std::vector<std::string> ids;
  store::forEachEvent<Record>(between, deviceIds,
                              [&ids](const std::string& id, const DateInterval&) { ids.push_back(id); });
  return ids;
}

// The record that ends last.
template <class Record>
std::optional<Record> latest(const std::vector<std::string>& deviceIds) {
  return Store::open().first<Record>(store::liveEvents(deviceIds).sorted("\"end\" DESC"));
}

// Adds a new record of this device, logs "✍️ Add <Class>: id start end" and
// carries it into today as `change` makes it; its id.
template <class Record>
std::string addEvent(Date start, Date end, std::string_view function,
                     EventsOfInterval::EventsChangeType (*change)(std::string, std::optional<DateInterval>)) {
  Record record(start, end);
  std::optional<store::Commit> commit;
  Store::open().write([&record, &commit](WriteTransaction& t) {
    const store::Snapshot before = t.snapshot();
    t.add(record, UpdatePolicy::all);
    commit = store::Commit{before, t.snapshot()};
  });
  log.info("✍️ Add " + std::string(Record::className) + ": " + *record.id + " " + start.description() + " " +
               end.description(),
           {.function = function});
  updateEventsOfToday({change(*record.id, record.interval())}, commit);
  return *record.id;
}

EventsOfInterval::EventsChangeType pickupChange(const std::string& id) {
  return EventsOfInterval::EventsChangeType::pickup(id);
}

}  // namespace

std::vector<std::string> Database::getPickups(DateInterval between, const std::vector<std::string>& deviceIds) {
  return rangeQuery<Pickup>(between, deviceIds);
}

std::optional<Pickup> Database::getPickup(const std::string& id) { return store::liveObject<Pickup>(id); }

std::optional<std::string> Database::getFirstPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  if (auto pickup = store::firstPickup(between, deviceIds)) return std::move(pickup->id);
  return std::nullopt;
}

std::optional<std::string> Database::getLastPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  if (auto pickup = store::lastPickup(between, deviceIds)) return std::move(pickup->id);
  return std::nullopt;
}

std::optional<Pickup> Database::getPickup(Date start, Date end, const std::vector<std::string>& deviceIds) {
  return Store::open().first<Pickup>(store::liveEvents(deviceIds).filter("(start = ? OR \"end\" = ?)", {start, end}));
}

std::optional<Pickup> Database::getLatestPickup(const std::vector<std::string>& deviceIds) {
  return latest<Pickup>(deviceIds);
}

double Database::getScreenTime(const std::string& deviceId) {
  Store store = Store::open();
  double seconds = 0;
  for (auto rows = store.select("SELECT start, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ? ORDER BY rowid",
                                {deviceId});
       rows.next();) {
    Pickup pickup;
    store::readValue(*rows, 0, pickup.start);
    store::readValue(*rows, 1, pickup.end);
    if (const auto interval = pickup.interval()) seconds += interval->duration();
  }
  return seconds;
}

std::string Database::addPickup(Date start, Date end) {
  return addEvent<Pickup>(start, end, "addPickup(start:end:)", &EventsOfInterval::EventsChangeType::pickup);
}

std::string Database::editPickup(const std::string& id, Date end) {
  Written written;
  editLiveObject<Pickup>(id, {{"end", end}}, "✍️ Edit Pickup: " + id + " " + end.description(),
                         "editPickup(id:end:)", &written);
  // Also when nothing was written: the day is replaced all the same.
  updateEventsOfToday({EventsOfInterval::EventsChangeType::pickup(id, written.interval)}, written.commit);
  return id;
}

std::vector<std::string> Database::editPickups(DateInterval between, bool isIgnoredForSleepTime,
                                               const std::vector<std::string>& deviceIds) {
  Query query = store::liveEvents(deviceIds);
  store::touching(query, between);
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

std::optional<Walk> Database::getWalk(const std::string& id) { return store::liveObject<Walk>(id); }

std::optional<Walk> Database::getLatestWalk(const std::vector<std::string>& deviceIds) {
  return latest<Walk>(deviceIds);
}

std::string Database::addWalk(Date start, Date end) {
  return addEvent<Walk>(start, end, "addWalk(start:end:)", &EventsOfInterval::EventsChangeType::walk);
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
  Written written;
  editLiveObject<Walk>(id, {{"start", start}, {"end", end}},
                       "✍️ Edit Walk: " + id + " " + start.description() + " " + end.description(),
                       "editWalk(id:start:end:)", &written);
  updateEventsOfToday({EventsOfInterval::EventsChangeType::walk(id, written.interval)}, written.commit);
  return id;
}

std::vector<std::string> Database::getAlives(DateInterval between, const std::vector<std::string>& deviceIds) {
  return rangeQuery<Alive>(between, deviceIds);
}

std::optional<Alive> Database::getAlive(const std::string& id) { return store::liveObject<Alive>(id); }

std::optional<Alive> Database::getLatestAlive(const std::vector<std::string>& deviceIds) {
  return latest<Alive>(deviceIds);
}

std::string Database::addAlive(Date start, Date end) {
  return addEvent<Alive>(start, end, "addAlive(start:end:)", &EventsOfInterval::EventsChangeType::alive);
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

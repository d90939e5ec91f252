#include "tarnwell/store/Reads.h"

#include "tarnwell/settings/Settings.h"

namespace tarnwell::store {
namespace {

// The first pickup `query` selects, unless it has no id.
std::optional<Pickup> firstWithId(const Query& query) {
  auto pickup = Store::open().first<Pickup>(query);
  if (!pickup || !pickup->id) return std::nullopt;
  return pickup;
}

Query firstPickupQuery(DateInterval between, const std::vector<std::string>& deviceIds) {
  Query query = liveEvents(deviceIds).filter("isIgnoredForSleepTime = 0");
  return startingInside(query, between).sorted("start ASC").limited(1);
}

Query lastPickupQuery(DateInterval between, const std::vector<std::string>& deviceIds) {
  Query query = liveEvents(deviceIds).filter("isIgnoredForSleepTime = 0");
  // The last of the rows sorted by end ascending, ties in store order.
  return touching(query, between).sorted("\"end\" DESC, rowid DESC").limited(1);
}

}  // namespace

std::vector<std::string> selectIds(std::string_view className, std::string_view column, const Query& query) {
  std::vector<std::string> ids;
  Store store = Store::open();
  for (auto rows = store.select(className, column, query); rows.next();) {
    if (!rows->isNull(0)) ids.push_back(rows->text(0));
  }
  return ids;
}

Query liveRows() { return Query().filter("isDeleted = 0"); }

Query liveEvents(const std::vector<std::string>& deviceIds) {
  Query query = liveRows();
  query.filterIn("deviceId", deviceIds);
  return query;
}

Query& touching(Query& query, DateInterval span) {
  return query.filter("(start BETWEEN ? AND ? OR \"end\" BETWEEN ? AND ?)",
                      {span.start(), span.end(), span.start(), span.end()});
}

Query& startingInside(Query& query, DateInterval span) {
  return query.filter("start BETWEEN ? AND ?", {span.start(), span.end()});
}

std::array<Query, 2> eventReads(DateInterval span, const std::vector<std::string>& deviceIds) {
  // Together the rows of touching(): of the rows ending inside the span, the
  // others either start inside it, and come second, or start after it, and
  // have no interval. A row without a start sorts first, as it would there.
  Query before = liveEvents(deviceIds);
  before.filter("\"end\" BETWEEN ? AND ? AND (start < ? OR start IS NULL)", {span.start(), span.end(), span.start()});
  Query inside = liveEvents(deviceIds);
  startingInside(inside, span);
  before.sorted("start ASC");
  inside.sorted("start ASC");
  return {std::move(before), std::move(inside)};
}

std::optional<Pickup> firstPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  return firstWithId(firstPickupQuery(between, deviceIds));
}

std::optional<Pickup> lastPickup(DateInterval between, const std::vector<std::string>& deviceIds) {
  return firstWithId(lastPickupQuery(between, deviceIds));
}

NightEdges nightEdges(DateInterval lastBetween, DateInterval firstBetween, const std::vector<std::string>& deviceIds) {
  const Query last = lastPickupQuery(lastBetween, deviceIds), first = firstPickupQuery(firstBetween, deviceIds);
  // Each side is the one row its own read finds, tagged 0 or 1.
  const std::string sql = "SELECT 0, id, \"end\" FROM (" + Store::selectSQL("Pickup", "id, \"end\"", last) +
                          ") UNION ALL SELECT 1, id, start FROM (" + Store::selectSQL("Pickup", "id, start", first) +
                          ")";
  std::vector<QueryValue> arguments = last.arguments;
  arguments.insert(arguments.end(), first.arguments.begin(), first.arguments.end());
  NightEdges edges;
  Store store = Store::open();
  for (auto rows = store.select(sql, arguments); rows.next();) {
    if (rows->isNull(1)) continue;
    const bool isLast = rows->int64(0) == 0;
    readValue(*rows, 1, isLast ? edges.lastId : edges.firstId);
    readValue(*rows, 2, isLast ? edges.lastEnd : edges.firstStart);
  }
  return edges;
}

std::optional<Device> currentDevice() { return liveObject<Device>(Settings::deviceId()); }

std::vector<std::string> defaultDeviceIds() {
  std::vector<std::string> ids{Settings::deviceId()};
  if (const auto device = orNoData(currentDevice)) {
    ids.insert(ids.end(), device->deviceIds.begin(), device->deviceIds.end());
  }
  return ids;
}

std::vector<std::string> focusIds(const std::optional<std::string>& tagId,
                                  const std::optional<DateInterval>& startsBetween) {
  Query query = liveRows();
  if (tagId) query.filter("tagId = ?", {*tagId});
  if (startsBetween) startingInside(query, *startsBetween);
  if (tagId && startsBetween) query.sorted("start ASC");
  return selectIds(Focus::className, "id", query);
}

FocusProgress focusProgress(const std::string& tagId, DateInterval startsBetween) {
  Query query = liveRows().filter("tagId = ?", {tagId});
  startingInside(query, startsBetween).sorted("start ASC");
  FocusProgress sum;
  Store store = Store::open();
  for (auto rows = store.select(Focus::className, "id, progress", query); rows.next();) {
    if (rows->isNull(0)) continue;
    ++sum.count;
    sum.seconds += rows->isNull(1) ? 0.0 : rows->real(1);
  }
  return sum;
}

std::optional<Date> firstFocusStart(const std::string& tagId) {
  std::optional<Date> start;
  Store store = Store::open();
  auto rows = store.select("SELECT MIN(start) FROM Focus WHERE isDeleted = 0 AND tagId = ?1", {tagId});
  if (rows.next()) readValue(*rows, 0, start);
  return start;
}

}  // namespace tarnwell::store

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

// lastPickup() in two reads, each of one range of an index, where one read of
// the rows touching the span would merge two ranges and sort them: the rows
// starting inside that end outside it, and those ending inside. Each read
// gives its last row by end, ties in store order.
struct LastPickupReads {
  Query startingInsideEndingOutside, endingInside;
};

LastPickupReads lastPickupReads(DateInterval between, const std::vector<std::string>& deviceIds) {
  LastPickupReads reads{liveEvents(deviceIds).filter("isIgnoredForSleepTime = 0"), {}};
  reads.endingInside = reads.startingInsideEndingOutside;
  startingInside(reads.startingInsideEndingOutside, between)
      .filter("(\"end\" IS NULL OR +\"end\" NOT BETWEEN ? AND ?)", {between.start(), between.end()});
  reads.endingInside.filter("\"end\" BETWEEN ? AND ?", {between.start(), between.end()});
  for (Query* query : {&reads.startingInsideEndingOutside, &reads.endingInside}) {
    query->sorted("\"end\" DESC, rowid DESC").limited(1);
  }
  return reads;
}

// Of the two reads' rows, the one that ends last: one ending after the span
// beats any ending inside it, which beats one ending before it or never.
template <class Row, class End>
std::optional<Row> lastOf(std::optional<Row> outside, std::optional<Row> inside, DateInterval between, End end) {
  if (outside) {
    if (const std::optional<Date> ends = end(*outside); ends && between.end() < *ends) return outside;
  }
  return inside ? inside : outside;
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
  const auto reads = lastPickupReads(between, deviceIds);
  Store store = Store::open();
  auto last = lastOf(store.first<Pickup>(reads.startingInsideEndingOutside), store.first<Pickup>(reads.endingInside),
                     between, [](const Pickup& pickup) { return pickup.end; });
  if (!last || !last->id) return std::nullopt;
  return last;
}

NightEdges nightEdges(DateInterval lastBetween, DateInterval firstBetween, const std::vector<std::string>& deviceIds) {
  const auto last = lastPickupReads(lastBetween, deviceIds);
  const Query first = firstPickupQuery(firstBetween, deviceIds);
  // Each read's one row, tagged 0, 1 or 2.
  const std::string sql =
      "SELECT 0, id, \"end\" FROM (" + Store::selectSQL("Pickup", "id, \"end\"", last.startingInsideEndingOutside) +
      ") UNION ALL SELECT 1, id, \"end\" FROM (" + Store::selectSQL("Pickup", "id, \"end\"", last.endingInside) +
      ") UNION ALL SELECT 2, id, start FROM (" + Store::selectSQL("Pickup", "id, start", first) + ")";
  std::vector<QueryValue> arguments = last.startingInsideEndingOutside.arguments;
  for (const Query* query : {&last.endingInside, &first}) {
    arguments.insert(arguments.end(), query->arguments.begin(), query->arguments.end());
  }
  // A row found without an id counts as none.
  struct Found {
    bool hasId;
    std::optional<Date> date;
  };
  std::optional<Found> found[3];
  Store store = Store::open();
  for (auto rows = store.select(sql, arguments); rows.next();) {
    Found row{!rows->isNull(1), std::nullopt};
    readValue(*rows, 2, row.date);
    found[static_cast<std::size_t>(rows->int64(0))] = row;
  }
  NightEdges edges;
  const auto lastRow = lastOf(found[0], found[1], lastBetween, [](const Found& row) { return row.date; });
  if (lastRow && lastRow->hasId) edges.lastEnd = lastRow->date;
  if (found[2] && found[2]->hasId) edges.firstStart = found[2]->date;
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

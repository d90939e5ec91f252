#include "tarnwell/analytics/RememberedDays.h"

#include <cinttypes>
#include <cstdio>
#include <map>

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/health/HealthManager.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell {
namespace {

// Moves on whenever EventsOfDay computes a day differently: days kept by an
// older computation are then not read.
constexpr std::int64_t kComputation = 1;

// A day the clock can still change is not kept: its night's last pickup
// counts only once it ended this long ago (EventsOfDay).
constexpr double kSettledAfter = 60.0;

constexpr char kTable[] = "DayMetrics";

constexpr const char* kMetricColumns[] = {
    "screenTime",     "pickupTimes",    "longestPickup",  "checkingEvery", "walkingLife",
    "sleepTime",      "firstPickup",    "lastPickup",     "inferredFirst", "inferredLast",
    "bestBreakStart", "bestBreakEnd",   "usageStart",     "usageEnd"};

// The event tables whose rows shape days, by their start and end.
constexpr std::string_view kEventTables[] = {Alive::className, Pickup::className, Walk::className,
                                             Focus::className};

// Drops the kept days whose span of shaping times meets the row `row`
// (NEW or OLD) of a trigger. A row without both ends is read by no day.
std::string dropTouched(std::string_view row) {
  const std::string start = std::string(row) + ".\"start\"", end = std::string(row) + ".\"end\"";
  return "DELETE FROM \"DayMetrics\" WHERE \"shapedTo\" >= min(" + start + ", " + end + ") AND \"shapedFrom\" <= max(" +
         start + ", " + end + ");";
}

std::string trigger(std::string_view table, std::string_view event, std::string body) {
  return "CREATE TRIGGER IF NOT EXISTS \"DayMetricsOn" + std::string(table) + std::string(event) + "\" AFTER " +
         std::string(event == "Insert" ? "INSERT" : event == "Update" ? "UPDATE" : "DELETE") + " ON \"" +
         std::string(table) + "\" BEGIN " + body + " END";
}

// What shapes a day besides its events, as the key of its row.
struct Shape {
  std::string zone;
  double shift = 0.0;
  SleepDataSource source;
  bool excludesFocus = false;
  std::vector<std::string> deviceIds;
  std::string devices;

  static Shape now(const std::optional<std::vector<std::string>>& deviceIds) {
    Shape shape{Date::defaultRegion().timeZoneId(), Settings::startOfDayScreenTime(), Settings::defaultSleepDataSource(),
                Settings::excludeFocusTime(), deviceIds ? *deviceIds : EventsOfDay::defaultDeviceIds(), {}};
    for (const auto& id : shape.deviceIds) shape.devices += (shape.devices.empty() ? "" : "\n") + id;
    return shape;
  }
  std::string sourceKey() const { return source.bundleIdentifier + "\n" + source.name; }
};

// The sleep application's nights a day was computed from, exactly.
std::string sleepsText(const std::optional<SleepDataWithDataSource>& sleeps) {
  std::string text;
  if (!sleeps) return text;
  char piece[64];
  for (const auto& sleep : sleeps->sleeps) {
    std::snprintf(piece, sizeof piece, "%a %a;", sleep.start().timeIntervalSinceReferenceDate(),
                  sleep.end().timeIntervalSinceReferenceDate());
    text += piece;
  }
  return text;
}

// The span of event times that can change the day: the day itself and the
// hours its night is searched in.
DateInterval shapingSpan(const EventsOfDay& day) {
  const Date start = day.startOfDay(), fourAM = start.getTime(4, 0, 0);
  const auto span = day.eventsOfInterval().interval();
  const auto before = DateInterval::getDateIntervalForFindingLastPickup(start, fourAM);
  const auto after = DateInterval::getDateIntervalForFindingFirstPickup(start, fourAM);
  return DateInterval(std::min({span.start(), before.start(), after.start()}),
                      std::max({span.end(), before.end(), after.end()}));
}

bool isSettled(double shapedTo, Date now) { return shapedTo + kSettledAfter <= now.timeIntervalSinceReferenceDate(); }

std::optional<double> optionalReal(const sqlite::Statement& row, int column) {
  if (row.isNull(column)) return std::nullopt;
  return row.real(column);
}

std::optional<Date> optionalDate(const sqlite::Statement& row, int column) {
  if (row.isNull(column)) return std::nullopt;
  return Date::fromTimeIntervalSinceReferenceDate(row.real(column));
}

std::optional<DateInterval> optionalInterval(const sqlite::Statement& row, int column) {
  if (row.isNull(column) || row.isNull(column + 1)) return std::nullopt;
  return DateInterval(Date::fromTimeIntervalSinceReferenceDate(row.real(column)),
                      Date::fromTimeIntervalSinceReferenceDate(row.real(column + 1)));
}

std::optional<double> seconds(const std::optional<Date>& date) {
  if (!date) return std::nullopt;
  return date->timeIntervalSinceReferenceDate();
}

struct Kept {
  RememberedDay::Metrics metrics;
  // The span of event times that can change the day.
  DateInterval shaping;
  std::string sleeps;
};

std::string keyCondition() {
  return "\"zone\" = ?1 AND \"shift\" = ?2 AND \"sleepSource\" = ?3 AND \"excludesFocus\" = ?4 AND \"devices\" = ?5 "
         "AND \"computation\" = ?6";
}

void bindKey(sqlite::Statement& statement, const Shape& shape) {
  statement.bind(1, std::string_view(shape.zone)).bind(2, shape.shift);
  statement.bind(3, shape.sourceKey()).bind(4, shape.excludesFocus).bind(5, std::string_view(shape.devices));
  statement.bind(6, kComputation);
}

// The kept days from `first` to `last` (calendar starts), by start.
std::map<double, Kept> readKept(sqlite::Connection& connection, const Shape& shape, Date first, Date last) {
  std::string columns;
  for (const char* column : kMetricColumns) columns += std::string(", \"") + column + "\"";
  auto& statement = connection.cached("SELECT \"dayStart\", \"shapedFrom\", \"shapedTo\", \"sleeps\"" + columns + " FROM \"" + kTable +
                                      "\" WHERE " + keyCondition() + " AND \"dayStart\" BETWEEN ?7 AND ?8");
  bindKey(statement, shape);
  statement.bind(7, first.timeIntervalSinceReferenceDate()).bind(8, last.timeIntervalSinceReferenceDate());
  std::map<double, Kept> kept;
  for (sqlite::Cursor rows(statement); rows.next();) {
    const auto& row = *rows;
    Kept day;
    auto& m = day.metrics;
    m.startOfDay = Date::fromTimeIntervalSinceReferenceDate(row.real(0));
    day.shaping = *optionalInterval(row, 1);
    day.sleeps = row.text(3);
    m.screenTime = optionalReal(row, 4);
    if (!row.isNull(5)) m.pickupTimes = static_cast<int>(row.int64(5));
    m.longestPickup = optionalReal(row, 6);
    m.checkingEvery = optionalReal(row, 7);
    m.walkingLife = optionalReal(row, 8);
    m.sleepTime = optionalReal(row, 9);
    m.firstPickupDate = optionalDate(row, 10);
    m.lastPickupDate = optionalDate(row, 11);
    m.inferredFirstPickupDate = optionalDate(row, 12);
    m.inferredLastPickupDate = optionalDate(row, 13);
    m.bestBreak = optionalInterval(row, 14);
    m.continuouslyUsage = optionalInterval(row, 16);
    kept.emplace(row.real(0), std::move(day));
  }
  return kept;
}

void keep(sqlite::Connection& connection, const Shape& shape, const std::vector<Kept>& days) {
  std::string columns, values;
  for (std::size_t i = 0; i < std::size(kMetricColumns); ++i) {
    columns += std::string(", \"") + kMetricColumns[i] + "\"";
    values += ", ?" + std::to_string(11 + i);
  }
  auto& statement = connection.cached(
      std::string("INSERT OR REPLACE INTO \"") + kTable +
      "\" (\"zone\", \"shift\", \"sleepSource\", \"excludesFocus\", \"devices\", \"computation\", \"dayStart\", "
      "\"shapedFrom\", \"shapedTo\", \"sleeps\"" +
      columns + ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10" + values + ")");
  for (const auto& day : days) {
    const auto& m = day.metrics;
    bindKey(statement, shape);
    statement.bind(7, m.startOfDay.timeIntervalSinceReferenceDate());
    statement.bind(8, day.shaping.start().timeIntervalSinceReferenceDate());
    statement.bind(9, day.shaping.end().timeIntervalSinceReferenceDate()).bind(10, std::string_view(day.sleeps));
    statement.bind(11, m.screenTime).bind(12, m.pickupTimes).bind(13, m.longestPickup).bind(14, m.checkingEvery);
    statement.bind(15, m.walkingLife).bind(16, m.sleepTime).bind(17, seconds(m.firstPickupDate));
    statement.bind(18, seconds(m.lastPickupDate)).bind(19, seconds(m.inferredFirstPickupDate));
    statement.bind(20, seconds(m.inferredLastPickupDate));
    const auto bind = [&statement](int column, const std::optional<DateInterval>& interval) {
      statement.bind(column, interval ? std::optional(interval->start().timeIntervalSinceReferenceDate())
                                      : std::nullopt);
      statement.bind(column + 1, interval ? std::optional(interval->end().timeIntervalSinceReferenceDate())
                                          : std::nullopt);
    };
    bind(21, m.bestBreak);
    bind(23, m.continuouslyUsage);
    statement.execute();
    statement.reset();
  }
}

std::int64_t dataVersion(sqlite::Connection& connection) {
  auto& statement = connection.cached("PRAGMA data_version");
  sqlite::Cursor rows(statement);
  return rows.next() ? rows->int64(0) : -1;
}

}  // namespace

RememberedDay::Metrics RememberedDay::metricsOf(const EventsOfDay& day) {
  return Metrics{day.startOfDay(),        day.screenTime(),       day.pickupTimes(),
                 day.longestPickup(),     day.checkingEvery(),    day.walkingLife(),
                 day.sleepTime(),         day.firstPickupDate(),  day.lastPickupDate(),
                 day.inferredFirstPickupDate(), day.inferredLastPickupDate(), day.bestBreak(),
                 day.continuouslyUsage()};
}

RememberedDay::RememberedDay(Metrics metrics, std::vector<std::string> deviceIds, std::shared_ptr<const EventsOfDay> live)
    : metrics_(std::move(metrics)), deviceIds_(std::move(deviceIds)), live_(std::move(live)) {}

std::optional<std::vector<EventsOfHour>> RememberedDay::getEventsOfHours() const {
  if (live_) return live_->getEventsOfHours();
  return EventsOfDay(metrics_.startOfDay, deviceIds_).getEventsOfHours();
}

store::TableSchema RememberedDays::tableSchema() {
  std::vector<std::pair<std::string, std::string>> columns = {
      {"dayStart", "\"dayStart\" REAL NOT NULL"},       {"zone", "\"zone\" TEXT NOT NULL"},
      {"shift", "\"shift\" REAL NOT NULL"},             {"sleepSource", "\"sleepSource\" TEXT NOT NULL"},
      {"excludesFocus", "\"excludesFocus\" INTEGER NOT NULL"}, {"devices", "\"devices\" TEXT NOT NULL"},
      {"computation", "\"computation\" INTEGER NOT NULL"}, {"shapedFrom", "\"shapedFrom\" REAL NOT NULL"},
      {"shapedTo", "\"shapedTo\" REAL NOT NULL"},       {"sleeps", "\"sleeps\" TEXT NOT NULL"}};
  for (const char* column : kMetricColumns) {
    columns.emplace_back(column, "\"" + std::string(column) + "\"" +
                                     (std::string_view(column) == "pickupTimes" ? " INTEGER" : " REAL"));
  }
  std::string definitions;
  for (const auto& [name, definition] : columns) definitions += definition + ", ";
  // The key leads with the day, so that a range of one shape is one run of
  // the table.
  std::string create = std::string("CREATE TABLE IF NOT EXISTS \"") + kTable + "\" (" + definitions +
                       "PRIMARY KEY (\"zone\", \"shift\", \"sleepSource\", \"excludesFocus\", \"devices\", "
                       "\"computation\", \"dayStart\")) WITHOUT ROWID";
  // A new event lies after every settled day: the triggers' search by the
  // end of the shaping span finds nothing to drop at once.
  std::vector<std::string> statements = {
      std::string("CREATE INDEX IF NOT EXISTS \"DayMetricsByShapedTo\" ON \"") + kTable + "\" (\"shapedTo\")"};
  for (const auto table : kEventTables) {
    statements.push_back(trigger(table, "Insert", dropTouched("NEW")));
    statements.push_back(trigger(table, "Update", dropTouched("OLD") + " " + dropTouched("NEW")));
    statements.push_back(trigger(table, "Delete", dropTouched("OLD")));
  }
  return store::TableSchema{kTable, "", std::move(create), std::move(columns), std::move(statements)};
}

RememberedDays::Day RememberedDays::day(Date date, const std::optional<std::vector<std::string>>& deviceIds) {
  return days(date, 1, deviceIds).front();
}

std::vector<RememberedDays::Day> RememberedDays::days(Date date, int count,
                                                      const std::optional<std::vector<std::string>>& deviceIds) {
  if (count < 0) fatalError("RememberedDays: a negative count of days, " + std::to_string(count));
  const Shape shape = Shape::now(deviceIds);
  const Date now = Date::now();
  std::vector<Date> starts;
  starts.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) starts.push_back(date.addingDay(i).startOfDay());

  std::vector<Day> result;
  std::vector<Kept> fresh;
  const auto compute = [&](Date start) {
    auto computed = std::make_shared<const EventsOfDay>(start, shape.deviceIds);
    auto day = std::make_shared<const RememberedDay>(RememberedDay::metricsOf(*computed), shape.deviceIds, computed);
    const auto span = shapingSpan(*computed);
    if (isSettled(span.end().timeIntervalSinceReferenceDate(), now)) {
      fresh.push_back({day->metrics(), span, sleepsText(computed->sleepData())});
    }
    result.push_back(std::move(day));
  };
  // A kept day stands while the clock cannot change it and the sleep
  // application's nights are the ones it was computed from.
  const auto stands = [&](const Kept& kept) {
    if (!isSettled(kept.shaping.end().timeIntervalSinceReferenceDate(), now)) return false;
    if (shape.source.isBuiltIn()) return true;
    const Date spanStart = kept.metrics.startOfDay + shape.shift;
    return kept.sleeps == sleepsText(HealthManager::shared().getSleepData(shape.source, spanStart));
  };

  std::optional<store::Store> store;
  try {
    store.emplace(store::Store::open());
    if (!store->connection().tableExists(kTable)) store.reset();
  } catch (const sqlite::Error&) {
    store.reset();
  }
  if (!store || starts.empty()) {
    for (const Date start : starts) compute(start);
    return result;
  }
  auto& connection = store->connection();
  std::int64_t version = -1;
  try {
    // The kept days and those computed now come from one read: a write
    // between them could leave a row computed from events older than it.
    sqlite::Transaction read(connection, sqlite::Transaction::Behavior::deferred);
    version = dataVersion(connection);
    const auto kept = readKept(connection, shape, starts.front(), starts.back());
    for (const Date start : starts) {
      const auto found = kept.find(start.timeIntervalSinceReferenceDate());
      if (found != kept.end() && stands(found->second)) {
        result.push_back(std::make_shared<const RememberedDay>(found->second.metrics, shape.deviceIds));
      } else {
        compute(start);
      }
    }
    read.commit();
  } catch (const sqlite::Error&) {
    // Inside another transaction, or a store that fails: computed alone.
    result.clear();
    fresh.clear();
    for (const Date start : starts) compute(start);
    return result;
  }
  if (fresh.empty()) return result;
  try {
    sqlite::Transaction write(connection, sqlite::Transaction::Behavior::immediate);
    // Another connection wrote since the read: the days computed may miss it.
    if (dataVersion(connection) != version) return result;
    keep(connection, shape, fresh);
    write.commit();
  } catch (const sqlite::Error&) {
    // Kept days only save time: a busy or read-only store computes them again.
  }
  return result;
}

}  // namespace tarnwell

#include "tarnwell/analytics/RememberedDays.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>
#include <span>

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

// A day's metrics as stored: a mask of the values present, then the values,
// each a little-endian IEEE double, in the order of pack's list.
constexpr std::size_t kValues = 14;
using Values = std::array<std::optional<double>, kValues>;

std::optional<double> seconds(const std::optional<Date>& date) {
  if (!date) return std::nullopt;
  return date->timeIntervalSinceReferenceDate();
}

std::optional<Date> date(const std::optional<double>& seconds) {
  if (!seconds) return std::nullopt;
  return Date::fromTimeIntervalSinceReferenceDate(*seconds);
}

void putWord(std::vector<std::uint8_t>& bytes, std::uint64_t word) {
  for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<std::uint8_t>(word >> (8 * i)));
}

std::uint64_t word(const std::uint8_t* bytes) {
  std::uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::big) value = __builtin_bswap64(value);
  return value;
}

std::vector<std::uint8_t> pack(const RememberedDay::Metrics& m) {
  const auto start = [](const std::optional<DateInterval>& i) {
    return seconds(i ? std::optional(i->start()) : std::nullopt);
  };
  const auto end = [](const std::optional<DateInterval>& i) {
    return seconds(i ? std::optional(i->end()) : std::nullopt);
  };
  const auto& d = m.day;
  const Values values = {d.screenTime,
                         d.pickupTimes ? std::optional<double>(*d.pickupTimes) : std::nullopt,
                         d.longestPickup,
                         d.checkingEvery,
                         d.walkingLife,
                         d.sleepTime,
                         seconds(d.firstPickupDate),
                         seconds(d.lastPickupDate),
                         seconds(m.inferredFirstPickupDate),
                         seconds(m.inferredLastPickupDate),
                         start(d.bestBreak),
                         end(d.bestBreak),
                         start(d.continuouslyUsage),
                         end(d.continuouslyUsage)};
  std::vector<std::uint8_t> bytes;
  bytes.reserve(8 * (kValues + 1));
  std::uint64_t mask = 0;
  for (std::size_t i = 0; i < kValues; ++i) mask |= values[i] ? std::uint64_t{1} << i : 0;
  putWord(bytes, mask);
  for (const auto& value : values) putWord(bytes, std::bit_cast<std::uint64_t>(value.value_or(0.0)));
  return bytes;
}

// Nothing when the bytes are not a packed day: a row of another version, or
// one damaged on disk, is computed again rather than trusted.
std::optional<RememberedDay::Metrics> unpack(Date startOfDay, std::span<const std::uint8_t> bytes) {
  if (bytes.size() != 8 * (kValues + 1)) return std::nullopt;
  const std::uint64_t mask = word(bytes.data());
  Values v;
  for (std::size_t i = 0; i < kValues; ++i) {
    if (mask >> i & 1) v[i] = std::bit_cast<double>(word(bytes.data() + 8 * (i + 1)));
  }
  const auto span = [&v](std::size_t start) -> std::optional<DateInterval> {
    if (!v[start] || !v[start + 1]) return std::nullopt;
    return DateInterval(Date::fromTimeIntervalSinceReferenceDate(*v[start]),
                        Date::fromTimeIntervalSinceReferenceDate(*v[start + 1]));
  };
  // pack never writes a count no int holds, nor an interval ending before it starts.
  const auto reversed = [&v](std::size_t start) { return v[start] && v[start + 1] && !(*v[start] <= *v[start + 1]); };
  if ((v[1] && !(*v[1] >= 0 && *v[1] <= std::numeric_limits<int>::max())) || reversed(10) || reversed(12)) {
    return std::nullopt;
  }
  return RememberedDay::Metrics{
      widgets::ScreenTimeToday{startOfDay, v[0], v[1] ? std::optional<int>(static_cast<int>(*v[1])) : std::nullopt,
                               v[2], v[3], v[4], date(v[6]), date(v[7]), v[5], span(10), span(12)},
      date(v[8]), date(v[9])};
}

// The event tables whose rows shape days, by their start and end.
constexpr std::string_view kEventTables[] = {Alive::className, Pickup::className, Walk::className, Focus::className};

// Drops the kept days whose span of shaping times meets the row `row`
// (NEW or OLD) of a trigger. A row without both ends is read by no day.
std::string dropTouched(std::string_view row) {
  const std::string start = std::string(row) + ".\"start\"", end = std::string(row) + ".\"end\"";
  return "DELETE FROM \"DayMetrics\" WHERE \"shapedTo\" >= min(" + start + ", " + end + ") AND \"shapedFrom\" <= max(" +
         start + ", " + end + ");";
}

std::string trigger(std::string_view table, std::string_view event, std::string body) {
  return "CREATE TRIGGER IF NOT EXISTS \"DayMetricsOn" + std::string(table) + std::string(event) + "\" AFTER " +
         std::string(event == "Insert"   ? "INSERT"
                     : event == "Update" ? "UPDATE"
                                         : "DELETE") +
         " ON \"" + std::string(table) + "\" BEGIN " + body + " END";
}

// What shapes a day besides its events, as the key of its row.
struct Shape {
  // The zone and the version of its rules.
  std::string zone;
  double shift = 0.0;
  SleepDataSource source;
  bool excludesFocus = false;
  std::shared_ptr<const std::vector<std::string>> deviceIds;
  std::string devices;

  static Shape now(const std::optional<std::vector<std::string>>& deviceIds) {
    Shape shape{
        Date::defaultRegion().timeZoneId() + "@" + Region::timeZoneRulesVersion(),
        Settings::startOfDayScreenTime(),
        Settings::defaultSleepDataSource(),
        Settings::excludeFocusTime(),
        std::make_shared<const std::vector<std::string>>(deviceIds ? *deviceIds : EventsOfDay::defaultDeviceIds()),
        {}};
    for (const auto& id : *shape.deviceIds) shape.devices += (shape.devices.empty() ? "" : "\n") + id;
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

// A day to keep.
struct Kept {
  RememberedDay::Metrics metrics;
  // The span of event times that can change the day.
  DateInterval shaping;
  std::string sleeps;
};

// A kept day as read: the start of its span only matters to the triggers.
struct Read {
  RememberedDay::Metrics metrics;
  double shapedTo;
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

// The kept days of `starts` (calendar starts, ascending, not empty), by start; their
// sleep application's nights only `withSleeps`, the only reader of them.
std::vector<Read> readKept(sqlite::Connection& connection, const Shape& shape, std::span<const Date> starts,
                           bool withSleeps) {
  auto& statement =
      connection.cached(std::string("SELECT \"dayStart\", \"shapedTo\", \"sleeps\", \"metrics\" FROM \"") + kTable +
                        "\" WHERE " + keyCondition() + " AND \"dayStart\" BETWEEN ?7 AND ?8");
  bindKey(statement, shape);
  statement.bind(7, starts.front().timeIntervalSinceReferenceDate());
  statement.bind(8, starts.back().timeIntervalSinceReferenceDate());
  std::vector<Read> kept;
  kept.reserve(starts.size());
  for (sqlite::Cursor rows(statement); rows.next();) {
    const auto& row = *rows;
    auto metrics = unpack(Date::fromTimeIntervalSinceReferenceDate(row.real(0)), row.blobView(3));
    if (!metrics) continue;  // not a row this version wrote: computed again
    kept.push_back({std::move(*metrics), row.real(1), withSleeps ? row.text(2) : std::string()});
  }
  return kept;
}

void keep(sqlite::Connection& connection, const Shape& shape, const std::vector<Kept>& days) {
  auto& statement = connection.cached(
      std::string("INSERT OR REPLACE INTO \"") + kTable +
      "\" (\"zone\", \"shift\", \"sleepSource\", \"excludesFocus\", \"devices\", \"computation\", \"dayStart\", "
      "\"shapedFrom\", \"shapedTo\", \"sleeps\", \"metrics\") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
  for (const auto& day : days) {
    bindKey(statement, shape);
    statement.bind(7, day.metrics.day.startOfDay.timeIntervalSinceReferenceDate());
    statement.bind(8, day.shaping.start().timeIntervalSinceReferenceDate());
    statement.bind(9, day.shaping.end().timeIntervalSinceReferenceDate()).bind(10, std::string_view(day.sleeps));
    const auto bytes = pack(day.metrics);
    statement.bind(11, std::span<const std::uint8_t>(bytes));
    statement.execute();
    statement.reset();
  }
}

}  // namespace

RememberedDay::Metrics RememberedDay::metricsOf(const EventsOfDay& day) {
  return Metrics{day.summary(), day.inferredFirstPickupDate(), day.inferredLastPickupDate()};
}

RememberedDay::RememberedDay(Metrics metrics, std::shared_ptr<const std::vector<std::string>> deviceIds,
                             std::shared_ptr<const EventsOfDay> live)
    : metrics_(std::move(metrics)), deviceIds_(std::move(deviceIds)), live_(std::move(live)) {}

std::optional<std::vector<EventsOfHour>> RememberedDay::getEventsOfHours() const {
  if (live_) return live_->getEventsOfHours();
  return EventsOfDay(metrics_.day.startOfDay, *deviceIds_).getEventsOfHours();
}

store::TableSchema RememberedDays::tableSchema() {
  std::vector<std::pair<std::string, std::string>> columns = {{"dayStart", "\"dayStart\" REAL NOT NULL"},
                                                              {"zone", "\"zone\" TEXT NOT NULL"},
                                                              {"shift", "\"shift\" REAL NOT NULL"},
                                                              {"sleepSource", "\"sleepSource\" TEXT NOT NULL"},
                                                              {"excludesFocus", "\"excludesFocus\" INTEGER NOT NULL"},
                                                              {"devices", "\"devices\" TEXT NOT NULL"},
                                                              {"computation", "\"computation\" INTEGER NOT NULL"},
                                                              {"shapedFrom", "\"shapedFrom\" REAL NOT NULL"},
                                                              {"shapedTo", "\"shapedTo\" REAL NOT NULL"},
                                                              {"sleeps", "\"sleeps\" TEXT NOT NULL"},
                                                              {"metrics", "\"metrics\" BLOB NOT NULL"}};
  std::string definitions;
  for (const auto& [name, definition] : columns) definitions += definition + ", ";
  // The key ends with the day, so that a range of days of one shape is one
  // run of the table.
  std::string create = std::string("CREATE TABLE IF NOT EXISTS \"") + kTable + "\" (" + definitions +
                       "PRIMARY KEY (\"zone\", \"shift\", \"sleepSource\", \"excludesFocus\", \"devices\", "
                       "\"computation\", \"dayStart\")) WITHOUT ROWID";
  // A new event lies after every settled day: the triggers' search by the
  // end of the shaping span finds nothing to drop at once.
  std::vector<std::string> statements = {std::string("CREATE INDEX IF NOT EXISTS \"DayMetricsByShapedTo\" ON \"") +
                                         kTable + "\" (\"shapedTo\")"};
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
  const std::vector<Date> starts = date.startsOfDays(count);

  // The days share one allocation. A day computed now keeps its EventsOfDay
  // for the hours only when it is asked for alone: a longer run is charted
  // by days, and a year of events need not stay in memory.
  auto block = std::make_shared<std::vector<RememberedDay>>();
  block->reserve(starts.size());
  std::vector<Kept> fresh;
  // Days to compute wait here until the run of them ends, then are read a
  // month at a time: one read each, and no more than a month of events held.
  std::vector<Date> pending;
  const auto compute = [&] {
    constexpr std::size_t kMonth = 31;
    const std::span<const Date> all(pending);
    for (std::size_t from = 0; from < all.size(); from += kMonth) {
      for (auto& events :
           EventsOfDay::ofDays(all.subspan(from, std::min(kMonth, all.size() - from)), *shape.deviceIds)) {
        auto computed = std::make_shared<const EventsOfDay>(std::move(events));
        const auto& day =
            block->emplace_back(RememberedDay::metricsOf(*computed), shape.deviceIds, count == 1 ? computed : nullptr);
        const auto span = shapingSpan(*computed);
        if (isSettled(span.end().timeIntervalSinceReferenceDate(), now)) {
          fresh.push_back({day.metrics(), span, sleepsText(computed->sleepData())});
        }
      }
    }
    pending.clear();
  };
  const auto result = [&block] {
    std::vector<Day> days;
    days.reserve(block->size());
    for (const auto& day : *block) days.emplace_back(block, &day);
    return days;
  };
  // A kept day stands while the clock cannot change it and the sleep
  // application's nights are the ones it was computed from.
  const bool inferredSleep = shape.source.isBuiltIn();
  const auto stands = [&](const Read& kept) {
    if (!isSettled(kept.shapedTo, now)) return false;
    if (inferredSleep) return true;
    const Date spanStart = kept.metrics.day.startOfDay + shape.shift;
    return kept.sleeps == sleepsText(HealthManager::shared().getSleepData(shape.source, spanStart));
  };

  std::optional<store::Store> store;
  try {
    store.emplace(store::Store::open());
  } catch (const sqlite::Error&) {
    store.reset();
  }
  if (!store || starts.empty()) {
    pending = starts;
    compute();
    return result();
  }
  auto& connection = store->connection();
  std::int64_t version = -1;
  try {
    // The kept days and those computed now come from one read: a write
    // between them could leave a row computed from events older than it.
    sqlite::Transaction read(connection, sqlite::Transaction::Behavior::deferred);
    version = connection.dataVersion();
    auto kept = readKept(connection, shape, starts, !inferredSleep);
    // Both in the order of days.
    auto next = kept.begin();
    for (const Date start : starts) {
      while (next != kept.end() && next->metrics.day.startOfDay < start) ++next;
      if (next != kept.end() && next->metrics.day.startOfDay == start && stands(*next)) {
        compute();
        // Each day is kept once: its row is used up.
        block->emplace_back(std::move(next->metrics), shape.deviceIds);
        ++next;
      } else {
        pending.push_back(start);
      }
    }
    compute();
    read.commit();
  } catch (const sqlite::Error&) {
    // Inside another transaction, a store without the table (read-only and
    // older than it), or a store that fails: computed alone.
    block->clear();
    fresh.clear();
    pending = starts;
    compute();
    return result();
  }
  if (fresh.empty()) return result();
  try {
    sqlite::Transaction write(connection, sqlite::Transaction::Behavior::immediate);
    // Another connection wrote since the read: the days computed may miss it.
    if (connection.dataVersion() != version) return result();
    keep(connection, shape, fresh);
    write.commit();
  } catch (const sqlite::Error&) {
    // Kept days only save time: a busy or read-only store computes them again.
  }
  return result();
}

}  // namespace tarnwell

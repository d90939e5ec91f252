// A heavy day (500 pickups, walks, focus sessions) in a store of three years
// of such days: the day's metrics against one SELECT of its rows, and an
// edit of today's pickup with the update of today included.

#include <benchmark/benchmark.h>

#include "BenchEnvironment.h"

#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace {

using namespace tarnwell;

constexpr int kDays = 3 * 365;

const Date kNow = Date::fromTimeIntervalSince1970(1795341600.0 + 8 * 3600);

// Three years of heavy days up to today.
class HeavyStore : public bench::FilledStore {
 public:
  HeavyStore() : FilledStore("heavy-days", kNow, fill) {}

 private:
  static void fill() {
    const Date first = Date::now().startOfDay() - (kDays - 1) * 86400.0;
    store::Store::open().write([&](store::WriteTransaction& t) {
      for (int day = 0; day < kDays; ++day) {
        const Date morning = first + day * 86400.0 + 7 * 3600.0;
        for (int i = 0; i < 500; ++i) {
          const Date start = morning + i * 115.0;
          t.add(Pickup(start, start + 20 + (i * 37) % 90), store::UpdatePolicy::error);
        }
        for (int i = 0; i < 4; ++i) t.add(Walk(morning + i * 12000.0, morning + i * 12000.0 + 1200));
        for (int i = 0; i < 6; ++i) {
          const Date start = morning + 1800 + i * 9000.0;
          t.add(Focus(std::nullopt, start, start + 1500, "working", 1500, 1500, std::nullopt, std::nullopt,
                      std::nullopt));
        }
        for (int i = 0; i < 6; ++i)
          t.add(Alive(first + day * 86400.0 + i * 14400.0, first + day * 86400.0 + (i + 1) * 14400.0));
      }
    });
  }
};

void BM_EventsOfDayOfAHeavyDay(benchmark::State& state) {
  HeavyStore store;
  const Date day = Date::now().addingDay(-400);
  for (auto _ : state) {
    const EventsOfDay events(day, std::nullopt);
    benchmark::DoNotOptimize(events.screenTime());
    benchmark::DoNotOptimize(events.pickupTimes());
    benchmark::DoNotOptimize(events.longestPickup());
    benchmark::DoNotOptimize(events.checkingEvery());
    benchmark::DoNotOptimize(events.walkingLife());
    benchmark::DoNotOptimize(events.bestBreak());
    benchmark::DoNotOptimize(events.sleepTime());
    benchmark::DoNotOptimize(events.firstPickupDate());
  }
  state.counters["pickups"] = static_cast<double>(*EventsOfDay(day, std::nullopt).pickupTimes());
}
BENCHMARK(BM_EventsOfDayOfAHeavyDay)->Unit(benchmark::kMicrosecond);

// The same day's rows of all four kinds in one SELECT, into memory.
void BM_SelectRowsOfAHeavyDay(benchmark::State& state) {
  HeavyStore store;
  const Date day = Date::now().addingDay(-400).startOfDay();
  auto connection = store::Store::open();
  auto& select = connection.connection().cached(
      "SELECT id, start, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ?1 AND (start BETWEEN ?2 AND ?3 OR "
      "\"end\" BETWEEN ?2 AND ?3) UNION ALL "
      "SELECT id, start, \"end\" FROM Walk WHERE isDeleted = 0 AND deviceId = ?1 AND (start BETWEEN ?2 AND ?3 OR "
      "\"end\" BETWEEN ?2 AND ?3) UNION ALL "
      "SELECT id, start, \"end\" FROM Focus WHERE isDeleted = 0 AND deviceId = ?1 AND (start BETWEEN ?2 AND ?3 OR "
      "\"end\" BETWEEN ?2 AND ?3) UNION ALL "
      "SELECT id, start, \"end\" FROM Alive WHERE isDeleted = 0 AND deviceId = ?1 AND (start BETWEEN ?2 AND ?3 OR "
      "\"end\" BETWEEN ?2 AND ?3)");
  const std::string device = Settings::deviceId();
  struct Row {
    std::string id;
    double start, end;
  };
  std::size_t rows = 0;
  for (auto _ : state) {
    std::vector<Row> day_rows;
    select.bind(1, std::string_view(device));
    select.bind(2, day.timeIntervalSinceReferenceDate()).bind(3, (day + 86400.0).timeIntervalSinceReferenceDate());
    for (sqlite::Cursor cursor(select); cursor.next();) {
      day_rows.push_back({cursor->text(0), cursor->real(1), cursor->real(2)});
    }
    rows = day_rows.size();
    benchmark::DoNotOptimize(day_rows);
  }
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_SelectRowsOfAHeavyDay)->Unit(benchmark::kMicrosecond);

// Moving the end of today's latest pickup, as the host does while the phone
// is in use: the write, its log line and the update of today.
void BM_EditPickupOfToday(benchmark::State& state) {
  HeavyStore store;
  const auto today = Database::getPickups(DateInterval::getDateInterval(Date::now(), 1), {Settings::deviceId()});
  const std::string id = today.back();
  benchmark::DoNotOptimize(Database::eventsOfToday());
  Date end = *Database::getPickup(id)->end;
  for (auto _ : state) Database::editPickup(id, end = end + 1.0);
  state.counters["pickupsToday"] = static_cast<double>(today.size());
}
BENCHMARK(BM_EditPickupOfToday)->Unit(benchmark::kMicrosecond);

}  // namespace

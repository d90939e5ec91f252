// The year and month charts of screen time with a cold cache, for a typical
// user (150 pickups a day) and a heavy one (500), against loading the same
// year's pickups with one SELECT and one pass over them.

#include <benchmark/benchmark.h>

#include "BenchEnvironment.h"
#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace {

using namespace tarnwell;

// 2026-11-22 20:00 UTC: most of the year has data, as for a user in November.
const Date kNow = Date::fromTimeIntervalSince1970(1795341600.0 + 10 * 3600);
constexpr int kDays = 366;

// A year of days of `perDay` pickups of skewed lengths, with a few walks.
class YearStore : public bench::FilledStore {
 public:
  explicit YearStore(int perDay) : FilledStore("year-" + std::to_string(perDay), kNow, [perDay] { fill(perDay); }) {}

 private:
  static void fill(int perDay) {
    const Date first = Date::now().startOfDay() - (kDays - 1) * 86400.0;
    const double spacing = 16.0 * 3600 / perDay;
    store::Store::open().write([&](store::WriteTransaction& t) {
      for (int day = 0; day < kDays; ++day) {
        const Date morning = first + day * 86400.0 + 7 * 3600.0;
        for (int i = 0; i < perDay; ++i) {
          const Date start = morning + i * spacing;
          const double length = (i % 10 == 0) ? spacing * 0.8 : 10 + (i * 37) % 60;
          t.add(Pickup(start, start + length), store::UpdatePolicy::error);
        }
        for (int i = 0; i < 4; ++i) t.add(Walk(morning + i * 12000.0, morning + i * 12000.0 + 1200));
      }
    });
  }
};

void chart(benchmark::State& state, StatisticsDateRange range) {
  YearStore store(static_cast<int>(state.range(0)));
  const auto screenTime = std::make_shared<ScreenTimeDataType>(ScreenTimeDataType::Case::screenTime);
  std::size_t entries = 0;
  for (auto _ : state) {
    EventsOfDays::clearCaches();
    const StatisticsData model(Date::now(), range, screenTime);
    entries = model.entries.size();
    benchmark::DoNotOptimize(model.totalValue);
  }
  state.counters["entries"] = static_cast<double>(entries);
}

void BM_YearChartOfScreenTime(benchmark::State& state) { chart(state, StatisticsDateRange::year); }
BENCHMARK(BM_YearChartOfScreenTime)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

void BM_MonthChartOfScreenTime(benchmark::State& state) { chart(state, StatisticsDateRange::month); }
BENCHMARK(BM_MonthChartOfScreenTime)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

// The floor: the year's pickups in one SELECT, summed per day in one pass.
void BM_SelectYearOfPickups(benchmark::State& state) {
  YearStore store(static_cast<int>(state.range(0)));
  const Date start = Date::now().startOfYear(), end = Date::now().endOfYear();
  auto connection = store::Store::open();
  auto& select = connection.connection().cached(
      "SELECT start, \"end\" FROM Pickup WHERE isDeleted = 0 AND deviceId = ?1 AND "
      "(start BETWEEN ?2 AND ?3 OR \"end\" BETWEEN ?2 AND ?3)");
  const std::string device = Settings::deviceId();
  std::size_t rows = 0;
  for (auto _ : state) {
    std::vector<double> perDay(kDays + 1, 0.0);
    rows = 0;
    select.bind(1, std::string_view(device));
    select.bind(2, start.timeIntervalSinceReferenceDate()).bind(3, end.timeIntervalSinceReferenceDate());
    for (sqlite::Cursor cursor(select); cursor.next();) {
      const double from = cursor->real(0), to = cursor->real(1);
      perDay[static_cast<std::size_t>((from - start.timeIntervalSinceReferenceDate()) / 86400.0)] += to - from;
      ++rows;
    }
    benchmark::DoNotOptimize(perDay);
  }
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_SelectYearOfPickups)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

}  // namespace

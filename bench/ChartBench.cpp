// The year and month charts of screen time, for a typical user (150 pickups
// a day) and a heavy one (500): cold, every day computed from its events,
// against loading the year's pickups with one SELECT and one pass over them;
// and warm, every past day kept, against selecting the kept rows. Then ten
// years kept: their sums and means, and the streaks.

#include <benchmark/benchmark.h>

#include "BenchEnvironment.h"
#include "tarnwell/analytics/EventsCombo.h"
#include "tarnwell/analytics/EventsOfDays.h"
#include "tarnwell/charts/ScreenTimeDataType.h"
#include "tarnwell/charts/StatisticsData.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace {

using namespace tarnwell;

// 2026-11-22 20:00 UTC: most of the year has data, as for a user in November.
const Date kNow = Date::fromTimeIntervalSince1970(1795341600.0 + 10 * 3600);
constexpr int kDays = 366;

// `days` days of `perDay` pickups of skewed lengths, with a few walks.
class YearStore : public bench::FilledStore {
 public:
  explicit YearStore(int perDay, int days = kDays)
      : FilledStore("days-" + std::to_string(days) + "-" + std::to_string(perDay), kNow,
                    [perDay, days] { fill(perDay, days); }) {}

 private:
  static void fill(int perDay, int days) {
    const Date first = Date::now().startOfDay() - (days - 1) * 86400.0;
    const double spacing = 16.0 * 3600 / perDay;
    store::Store::open().write([&](store::WriteTransaction& t) {
      for (int day = 0; day < days; ++day) {
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

void forgetKeptDays() { store::Store::open().connection().execute("DELETE FROM \"DayMetrics\""); }

// The last whole year: every day of it past, and so kept once read.
Date lastYear() { return Date::now().startOfYear().addingDay(-1); }

void chart(benchmark::State& state, StatisticsDateRange range, bool kept) {
  YearStore store(static_cast<int>(state.range(0)));
  const auto screenTime = std::make_shared<ScreenTimeDataType>(ScreenTimeDataType::Case::screenTime);
  const Date date = kept ? lastYear() : Date::now();
  std::size_t entries = 0;
  if (kept) StatisticsData(date, range, screenTime);
  for (auto _ : state) {
    if (!kept) {
      state.PauseTiming();
      forgetKeptDays();
      state.ResumeTiming();
    }
    EventsOfDays::clearCaches();
    const StatisticsData model(date, range, screenTime);
    entries = model.entries.size();
    benchmark::DoNotOptimize(model.totalValue);
  }
  state.counters["entries"] = static_cast<double>(entries);
}

void BM_YearChartOfScreenTime(benchmark::State& state) { chart(state, StatisticsDateRange::year, false); }
BENCHMARK(BM_YearChartOfScreenTime)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

void BM_MonthChartOfScreenTime(benchmark::State& state) { chart(state, StatisticsDateRange::month, false); }
BENCHMARK(BM_MonthChartOfScreenTime)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

void BM_YearChartOfScreenTimeKept(benchmark::State& state) { chart(state, StatisticsDateRange::year, true); }
BENCHMARK(BM_YearChartOfScreenTimeKept)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

// The floor of a warm year chart: the kept rows of the year in one SELECT.
void BM_SelectYearOfKeptDays(benchmark::State& state) {
  YearStore store(static_cast<int>(state.range(0)));
  const Date start = lastYear().startOfYear(), end = lastYear().endOfYear();
  const std::string zone = "UTC@" + Region::timeZoneRulesVersion();
  EventsOfDays(start, lastYear().daysOfYear());
  auto connection = store::Store::open();
  auto& select = connection.connection().cached(
      "SELECT \"dayStart\", \"shapedFrom\", \"shapedTo\", \"sleeps\", \"metrics\" FROM \"DayMetrics\" WHERE "
      "\"zone\" = ?1 AND \"dayStart\" BETWEEN ?2 AND ?3");
  std::size_t rows = 0;
  for (auto _ : state) {
    rows = 0;
    double sum = 0.0;
    select.bind(1, zone).bind(2, start.timeIntervalSinceReferenceDate()).bind(3, end.timeIntervalSinceReferenceDate());
    for (sqlite::Cursor cursor(select); cursor.next();) {
      sum += cursor->real(0) + static_cast<double>(cursor->blob(4).size());
      ++rows;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_SelectYearOfKeptDays)->Arg(150)->Arg(500)->Unit(benchmark::kMillisecond);

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

constexpr int kTenYears = 3653;

// Ten years of kept days, summed and averaged as the report's summary does.
void BM_TenKeptYearsSummed(benchmark::State& state) {
  YearStore store(150, kTenYears);
  const Date first = Date::now().addingDay(1 - kTenYears);
  EventsOfDays(first, kTenYears);
  for (auto _ : state) {
    EventsOfDays::clearCaches();
    const EventsOfDays days(first, kTenYears);
    benchmark::DoNotOptimize(days.screenTime());
    benchmark::DoNotOptimize(days.averageSleepTime());
    benchmark::DoNotOptimize(days.averageFirstPickup());
  }
}
BENCHMARK(BM_TenKeptYearsSummed)->Unit(benchmark::kMillisecond);

// The streaks of a history of kept days, walked back as far as they go, in a
// process that has not walked them yet today.
void BM_StreaksOfTenKeptYears(benchmark::State& state) {
  std::optional<YearStore> store(std::in_place, 150, kTenYears);
  EventsCombo::currentCombo();
  for (auto _ : state) {
    state.PauseTiming();
    store.reset();
    store.emplace(150, kTenYears);
    state.ResumeTiming();
    benchmark::DoNotOptimize(EventsCombo::currentCombo());
  }
}
BENCHMARK(BM_StreaksOfTenKeptYears)->Unit(benchmark::kMillisecond);

}  // namespace

// The store's write path against the same SQLite work done by hand, and the
// day query in a store of three years.

#include <benchmark/benchmark.h>

#include "BenchEnvironment.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/settings/Logger.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace {

using namespace tarnwell;
using bench::BenchEnvironment;

const Date kStart = Date::fromTimeIntervalSinceReferenceDate(800000000);

// A started store with the log running, as in the app.
struct StartedStore {
  StartedStore() {
    Logger::start();
    Database::start();
  }
  BenchEnvironment environment;
};

void BM_AddPickup(benchmark::State& state) {
  StartedStore app;
  double offset = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Database::addPickup(kStart + offset, kStart + offset + 30));
    offset += 60;
  }
}
BENCHMARK(BM_AddPickup);

void BM_EditPickup(benchmark::State& state) {
  StartedStore app;
  const std::string id = Database::addPickup(kStart, kStart + 1);
  double end = 2;
  for (auto _ : state) benchmark::DoNotOptimize(Database::editPickup(id, kStart + (end += 1)));
}
BENCHMARK(BM_EditPickup);

// The same row written with SQLite alone: a prepared statement, one
// transaction per row, the same file settings.
struct RawStore {
  RawStore() : connection(environment.root() / "raw.sqlite") {
    connection.setBusyTimeout(10000);
    connection.execute("PRAGMA journal_mode = WAL");
    connection.execute("PRAGMA synchronous = NORMAL");
    connection.execute(store::createTableSQL<Pickup>());
    for (const auto& index : store::createIndexesSQL<Pickup>()) connection.execute(index);
  }
  BenchEnvironment environment;
  sqlite::Connection connection;
};

void BM_RawInsert(benchmark::State& state) {
  RawStore raw;
  auto& insert = raw.connection.cached(
      "INSERT INTO Pickup (id, deviceId, start, \"end\", isIgnoredForSleepTime, isDeleted) VALUES (?, ?, ?, ?, 0, 0)");
  const std::string device = "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B";
  double offset = 0;
  for (auto _ : state) {
    raw.connection.execute("BEGIN IMMEDIATE");
    insert.bind(1, makeUUIDString()).bind(2, std::string_view(device));
    insert.bind(3, (kStart + offset).timeIntervalSinceReferenceDate());
    insert.bind(4, (kStart + offset + 30).timeIntervalSinceReferenceDate());
    insert.execute();
    raw.connection.execute("COMMIT");
    offset += 60;
  }
}
BENCHMARK(BM_RawInsert);

void BM_RawUpdate(benchmark::State& state) {
  RawStore raw;
  raw.connection.execute("INSERT INTO Pickup (id, deviceId, start, \"end\") VALUES ('P', 'D', 0, 1)");
  auto& update = raw.connection.cached("UPDATE Pickup SET \"end\" = ? WHERE id = ?");
  double end = 2;
  for (auto _ : state) {
    raw.connection.execute("BEGIN IMMEDIATE");
    update.bind(1, end += 1).bind(2, std::string_view("P"));
    update.execute();
    raw.connection.execute("COMMIT");
  }
}
BENCHMARK(BM_RawUpdate);

// Three years of 150 pickups a day, then the query of one day in the middle.
void BM_GetPickupsOfOneDay(benchmark::State& state) {
  BenchEnvironment environment;
  Database::start();
  const std::string device = Settings::deviceId();
  {
    store::Store store = store::Store::open();
    store.write([&](store::WriteTransaction& t) {
      for (int day = 0; day < 3 * 365; ++day) {
        for (int i = 0; i < 150; ++i) {
          Pickup pickup(kStart + day * 86400.0 + i * 570.0, kStart + day * 86400.0 + i * 570.0 + 120);
          t.add(pickup, store::UpdatePolicy::error);
        }
      }
    });
  }
  const DateInterval day(kStart + 500 * 86400.0, kStart + 501 * 86400.0 - 1);
  std::size_t found = 0;
  for (auto _ : state) found = Database::getPickups(day, {device}).size();
  state.counters["pickups"] = static_cast<double>(found);
}
BENCHMARK(BM_GetPickupsOfOneDay)->Unit(benchmark::kMicrosecond);

}  // namespace

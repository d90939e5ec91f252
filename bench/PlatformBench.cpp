// The costs every later operation pays: a preference read or write, a
// settings read, a hop through a queue, a log line.

#include <benchmark/benchmark.h>

#include "BenchEnvironment.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/settings/Logger.h"
#include "tarnwell/settings/Settings.h"

namespace {

using namespace tarnwell;

using bench::BenchEnvironment;

void BM_UserDefaultsRead(benchmark::State& state) {
  BenchEnvironment environment;
  auto& store = Settings::suite();
  store.set("bench.double", 1500.0);
  for (auto _ : state) benchmark::DoNotOptimize(store.doubleForKey("bench.double"));
}
BENCHMARK(BM_UserDefaultsRead);

void BM_UserDefaultsWrite(benchmark::State& state) {
  BenchEnvironment environment;
  auto& store = Settings::suite();
  double value = 0;
  for (auto _ : state) store.set("bench.double", value += 1);
}
BENCHMARK(BM_UserDefaultsWrite);

void BM_SettingsDefaultScreenTimeGoal(benchmark::State& state) {
  BenchEnvironment environment;
  for (auto _ : state) benchmark::DoNotOptimize(Settings::defaultScreenTimeGoal());
}
BENCHMARK(BM_SettingsDefaultScreenTimeGoal);

void BM_SettingsDeviceId(benchmark::State& state) {
  BenchEnvironment environment;
  for (auto _ : state) benchmark::DoNotOptimize(Settings::deviceId());
}
BENCHMARK(BM_SettingsDeviceId);

void BM_DispatchQueueSync(benchmark::State& state) {
  BenchEnvironment environment;
  DispatchQueue queue("bench.queue");
  int counter = 0;
  for (auto _ : state) queue.sync([&counter] { ++counter; });
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_DispatchQueueSync);

void BM_LogLine(benchmark::State& state) {
  BenchEnvironment environment;
  Logger::start();
  for (auto _ : state)
    tarnwell::log.info("✍️ Add Pickup: 2026-11-22 10:00:00 +0000", {.function = "addPickup(start:end:)"});
  Logger::flush();
}
BENCHMARK(BM_LogLine);

}  // namespace

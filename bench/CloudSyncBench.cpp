// Two installations of one user through the cloud in a folder: the first
// pushes 100,000 pickups, the second pulls them into its store, one
// single-record commit each on the background worker, as a device does
// after it signs in.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include "BenchEnvironment.h"
#include "PeakResidentSet.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/sync/RecordConformances.h"
#include "tarnwell/sync/SyncEngine.h"
#include "tarnwell/sync/SyncObject.h"

namespace {

using namespace tarnwell;

constexpr int kPickups = 100'000;

// One installation: its store file, its preferences, its sync object.
struct Installation {
  Installation(const std::filesystem::path& root, const std::string& name, CloudEmulator& cloud)
      : defaults(root / (name + ".defaults.sqlite")), container(cloud.container(name, "iCloud.org.vostra.tarnwell")) {
    configuration.fileURL = root / (name + ".realm");
    configuration.schemaVersion = 1;
    configuration.tables = {store::tableSchema<Pickup>()};
    pickups = std::make_shared<sync::SyncObject<Pickup>>(configuration, true, defaults);
  }

  // Sets the engine up; its zone is made and everything in the store pushed.
  void start() {
    engine = sync::SyncEngine::make({pickups}, CKDatabaseScope::privateScope, container, nullptr, defaults);
    Environment::current().runPending();
  }

  std::size_t count() { return store::Store::open(configuration).objects<Pickup>().size(); }

  store::StoreConfiguration configuration;
  UserDefaults defaults;
  std::shared_ptr<EmulatedContainer> container;
  std::shared_ptr<sync::SyncObject<Pickup>> pickups;
  std::shared_ptr<sync::SyncEngine> engine;
};

// Every asynchronous step of the engine and the cloud runs on this thread
// when pumped; the store's writes from the cloud run on the worker.
Environment::Configuration pumpedIn(const std::filesystem::path& root) {
  auto configuration = bench::configurationIn(root);
  configuration.backgroundQueueMode = DispatchQueue::Mode::pumped;
  return configuration;
}

void fill(Installation& installation) {
  const Date first = Date::now().addingDay(-200);
  store::Store::open(installation.configuration).write([&](auto& t) {
    for (int i = 0; i < kPickups; ++i) {
      const Date start = first + i * 150.0;
      t.add(Pickup(start, start + 60));
    }
  });
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs `body(root, cloud)` once per iteration in a fresh folder holding a
// new cloud, then reports the pickups per second of the time it set.
template <class Body>
void eachInFreshCloud(benchmark::State& state, Body body) {
  for (auto _ : state) {
    const auto root = bench::makeTemporaryFolder();
    Environment::install(std::make_unique<Environment>(pumpedIn(root)));
    {
      auto cloud = CloudEmulator::open(root / "cloud", true, Environment::current().makeQueue("cloud"));
      body(root, *cloud);
    }
    Environment::install(nullptr);
    std::filesystem::remove_all(root);
  }
  state.counters["records/s"] = benchmark::Counter(
      static_cast<double>(kPickups) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_CloudPushPickups(benchmark::State& state) {
  eachInFreshCloud(state, [&state](const std::filesystem::path& root, CloudEmulator& cloud) {
    Installation phone(root, "PHONE", cloud);
    fill(phone);
    bench::PeakResidentSet peak;
    const auto start = std::chrono::steady_clock::now();
    phone.start();
    state.SetIterationTime(secondsSince(start));
    state.counters["peakMiB"] = peak.riseMiB();
    if (cloud.records(CKDatabaseScope::privateScope, "Pickup").size() != kPickups) {
      state.SkipWithError("not every pickup reached the cloud");
    }
  });
}
BENCHMARK(BM_CloudPushPickups)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_CloudPullPickups(benchmark::State& state) {
  eachInFreshCloud(state, [&state](const std::filesystem::path& root, CloudEmulator& cloud) {
    Installation phone(root, "PHONE", cloud);
    fill(phone);
    phone.start();
    Installation pad(root, "PAD", cloud);
    pad.start();
    bench::PeakResidentSet peak;
    bool pulled = false;
    const auto start = std::chrono::steady_clock::now();
    pad.engine->pull([&pulled](std::exception_ptr error) { pulled = !error; });
    Environment::current().runPending();
    state.SetIterationTime(secondsSince(start));
    state.counters["peakMiB"] = peak.riseMiB();
    if (!pulled || pad.count() != kPickups) state.SkipWithError("the pull did not bring every pickup");
  });
}
BENCHMARK(BM_CloudPullPickups)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

// Two installations of one user through the cloud, in a folder or on a
// PostgreSQL server: the first pushes its history of 100,000 pickups (and of
// 400,000, to show whether its memory grows with the history), the second
// pulls 100,000 into its store, one single-record commit each on the
// background worker, as a device does after it signs in. And ten devices
// pushing to one server at once while an eleventh pulls all the while.
//
// The server's cases run against TARNWELL_TEST_POSTGRES (a URL; its password
// from PGPASSFILE), each in a schema of its own that is dropped after, and
// report an error without it: scripts/pg-server.sh starts one.

#include <benchmark/benchmark.h>

#include <pqxx/pqxx>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "BenchEnvironment.h"
#include "PeakResidentSet.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/platform/Uuid.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/sync/RecordConformances.h"
#include "tarnwell/sync/SyncEngine.h"
#include "tarnwell/sync/SyncObject.h"

namespace {

using namespace tarnwell;

constexpr int kPickups = 100'000;

enum class Backing { folder, server };

std::optional<CloudServer> benchServer() {
  const char* url = std::getenv("TARNWELL_TEST_POSTGRES");
  return url ? CloudServer::parse(url) : std::nullopt;
}

// Whether there is a server to run against; the benchmark says so when not.
bool serverGiven(benchmark::State& state) {
  if (benchServer()) return true;
  state.SkipWithError("no server: set TARNWELL_TEST_POSTGRES (scripts/pg-server.sh starts one)");
  return false;
}

// A schema of its own on the bench server for one run, dropped after.
struct ScratchSchema {
  ScratchSchema() : server(*benchServer()) {
    std::string id = makeUUIDString();
    std::erase(id, '-');
    server.schema = "bench_" + id;
  }
  ~ScratchSchema() {
    try {
      pqxx::connection connection("host=" + server.host + " port=" + std::to_string(server.port) +
                                  " dbname=" + server.database + " user=" + server.user);
      pqxx::nontransaction(connection).exec("DROP SCHEMA IF EXISTS " + server.schema + " CASCADE");
    } catch (const std::exception&) {
      // Left for the throw-away server to take with it.
    }
  }
  CloudServer server;
};

// One installation: its store file, its preferences, its sync object.
struct Installation {
  Installation(const std::filesystem::path& root, const std::string& name, CloudEmulator& cloud)
      : defaults(root / (name + ".defaults.sqlite")), container(cloud.container(name, "iCloud.org.vostra.tarnwell")) {
    configuration.fileURL = root / (name + ".realm");
    configuration.schemaVersion = 1;
    configuration.tables = {store::tableSchema<Pickup>()};
    configuration.outboxClasses = {"Pickup"};
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

// A pickup every two and a half minutes; a longer history starts earlier
// and ends where the 100,000 do, all of it in the past.
void fill(Installation& installation, int pickups) {
  const Date first = Date::now().addingDay(-200) - (pickups - kPickups) * 150.0;
  store::Store::open(installation.configuration).write([&](auto& t) {
    for (int i = 0; i < pickups; ++i) {
      const Date start = first + i * 150.0;
      t.add(Pickup(start, start + 60));
    }
  });
}

// Each of these is one long run that times its own stretch.
void onceTimedByHand(benchmark::internal::Benchmark* run) {
  run->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs `body(root, cloud)` once per iteration in a fresh folder holding a
// new cloud, then reports the pickups per second of the time it set.
template <class Body>
void eachInFreshCloud(benchmark::State& state, Backing backing, int pickups, Body body) {
  if (backing == Backing::server && !serverGiven(state)) return;
  for (auto _ : state) {
    const auto root = bench::makeTemporaryFolder();
    Environment::install(std::make_unique<Environment>(pumpedIn(root)));
    {
      std::optional<ScratchSchema> schema;
      std::shared_ptr<CloudEmulator> cloud;
      if (backing == Backing::server) {
        schema.emplace();
        cloud = CloudEmulator::connect(schema->server, true, Environment::current().makeQueue("cloud"));
      } else {
        cloud = CloudEmulator::open(root / "cloud", true, Environment::current().makeQueue("cloud"));
      }
      body(root, *cloud);
    }
    Environment::install(nullptr);
    std::filesystem::remove_all(root);
  }
  state.counters["records/s"] = benchmark::Counter(
      static_cast<double>(pickups) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// The argument is the number of pickups in the history pushed. The peak is
// the rise over the filled store: a push that reads the store in pages shows
// the same peak for a history four times larger.
void BM_CloudPushPickups(benchmark::State& state, Backing backing) {
  const auto pickups = static_cast<int>(state.range(0));
  eachInFreshCloud(state, backing, pickups, [&](const std::filesystem::path& root, CloudEmulator& cloud) {
    Installation phone(root, "PHONE", cloud);
    fill(phone, pickups);
    // Filling the store frees memory that the allocator keeps; a push that
    // reused it would show no rise at all. It goes back first, so the peak is
    // what the push needs, as at a launch.
#if defined(__GLIBC__)
    ::malloc_trim(0);
#endif
    bench::PeakResidentSet peak;
    const auto start = std::chrono::steady_clock::now();
    phone.start();
    const double seconds = secondsSince(start);
    state.SetIterationTime(seconds);
    state.counters["peakMiB"] = peak.riseMiB();
    state.counters["seconds"] = seconds;
    if (cloud.records(CKDatabaseScope::privateScope, "Pickup").size() != static_cast<std::size_t>(pickups)) {
      state.SkipWithError("not every pickup reached the cloud");
    }
  });
}
BENCHMARK_CAPTURE(BM_CloudPushPickups, folder, Backing::folder)
    ->ArgName("pickups")
    ->Arg(kPickups)
    ->Arg(4 * kPickups)
    ->Apply(onceTimedByHand);
BENCHMARK_CAPTURE(BM_CloudPushPickups, server, Backing::server)
    ->ArgName("pickups")
    ->Arg(kPickups)
    ->Arg(4 * kPickups)
    ->Apply(onceTimedByHand);

void BM_CloudPullPickups(benchmark::State& state, Backing backing) {
  eachInFreshCloud(state, backing, kPickups, [&state](const std::filesystem::path& root, CloudEmulator& cloud) {
    Installation phone(root, "PHONE", cloud);
    fill(phone, kPickups);
    phone.start();
    Installation pad(root, "PAD", cloud);
    pad.start();
    bench::PeakResidentSet peak;
    bool pulled = false;
    const auto start = std::chrono::steady_clock::now();
    pad.engine->pull([&pulled](std::exception_ptr error) { pulled = !error; });
    Environment::current().runPending();
    const double seconds = secondsSince(start);
    state.SetIterationTime(seconds);
    state.counters["peakMiB"] = peak.riseMiB();
    state.counters["seconds"] = seconds;
    if (!pulled || pad.count() != kPickups) state.SkipWithError("the pull did not bring every pickup");
  });
}
BENCHMARK_CAPTURE(BM_CloudPullPickups, folder, Backing::folder)->Apply(onceTimedByHand);
BENCHMARK_CAPTURE(BM_CloudPullPickups, server, Backing::server)->Apply(onceTimedByHand);

// Ten devices, each with its own connection and thread, push 10,000
// pickups apiece in requests of 400 while an eleventh pages the zone's
// changes from its token the whole time; done when the reader holds all
// 100,000. Records per second over that whole stretch.
void BM_ServerTenDevicesPushWhileOnePulls(benchmark::State& state) {
  constexpr int kDevices = 10, kRequest = 400, kEach = kPickups / kDevices;
  const CKRecordZoneID zone{"PickupsZone", std::string(CKCurrentUserDefaultName)};
  if (!serverGiven(state)) return;
  for (auto _ : state) {
    const auto root = bench::makeTemporaryFolder();
    Environment::install(std::make_unique<Environment>(bench::configurationIn(root)));
    {
      ScratchSchema schema;
      const auto connect = [&](const std::string& name) {
        return CloudEmulator::connect(schema.server, true, Environment::current().makeThreadQueue(name));
      };
      // Waits for an operation's completion on the cloud's thread.
      const auto await = [](CKDatabase& database, std::shared_ptr<CKOperation> operation,
                            std::shared_ptr<std::promise<std::exception_ptr>> done) {
        auto future = done->get_future();
        database.add(std::move(operation));
        return future.get();
      };
      auto setup = connect("setup");
      auto setupDevice = setup->container("setup", "app");
      {
        auto done = std::make_shared<std::promise<std::exception_ptr>>();
        auto zones = std::make_shared<CKModifyRecordZonesOperation>(std::vector{CKRecordZone{zone}},
                                                                    std::vector<CKRecordZoneID>{});
        zones->modifyRecordZonesCompletionBlock = [done](auto, auto, std::exception_ptr error) {
          done->set_value(error);
        };
        if (await(setupDevice->privateCloudDatabase(), zones, done)) state.SkipWithError("the zone was not made");
      }

      std::atomic<int> failures = 0;
      const auto start = std::chrono::steady_clock::now();
      std::vector<std::thread> writers;
      for (int device = 0; device < kDevices; ++device) {
        writers.emplace_back([&, device] {
          const std::string name = "device" + std::to_string(device);
          auto cloud = connect(name);
          auto container = cloud->container(name, "app");
          const Date first = Date::fromTimeIntervalSince1970(1790000000.0);
          for (int offset = 0; offset < kEach; offset += kRequest) {
            std::vector<CKRecord> records;
            for (int index = offset; index < offset + kRequest; ++index) {
              CKRecord record("Pickup", CKRecordID{name + "-" + std::to_string(index), zone});
              record.setObject("start", first + index * 150.0);
              record.setObject("end", first + index * 150.0 + 60);
              records.push_back(std::move(record));
            }
            auto done = std::make_shared<std::promise<std::exception_ptr>>();
            auto modify = std::make_shared<CKModifyRecordsOperation>(std::move(records), std::vector<CKRecordID>{});
            modify->savePolicy = CKRecordSavePolicy::changedKeys;
            modify->modifyRecordsCompletionBlock = [done](auto, auto, std::exception_ptr error) {
              done->set_value(error);
            };
            if (await(container->privateCloudDatabase(), modify, done)) ++failures;
          }
        });
      }

      auto reader = connect("reader");
      auto pad = reader->container("reader", "app");
      std::optional<CKServerChangeToken> token;
      std::size_t held = 0;
      int pages = 0;
      while (held < static_cast<std::size_t>(kPickups) && failures == 0) {
        auto done = std::make_shared<std::promise<std::exception_ptr>>();
        auto fetch = std::make_shared<CKFetchRecordZoneChangesOperation>(
            std::vector{zone}, std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration>{{zone, {token, 0}}});
        fetch->fetchAllChanges = true;
        fetch->recordChangedBlock = [&held](const CKRecord&) { ++held; };
        fetch->recordZoneFetchCompletionBlock = [&token](auto&, auto changed, auto, bool, std::exception_ptr) {
          if (changed) token = changed;
        };
        fetch->fetchRecordZoneChangesCompletionBlock = [done](std::exception_ptr error) { done->set_value(error); };
        if (await(pad->privateCloudDatabase(), fetch, done)) ++failures;
        ++pages;
      }
      for (auto& writer : writers) writer.join();
      state.SetIterationTime(secondsSince(start));
      state.counters["fetches"] = pages;
      if (failures > 0 || held != static_cast<std::size_t>(kPickups)) {
        state.SkipWithError("the reader did not get every pickup exactly once");
      }
    }
    Environment::install(nullptr);
    std::filesystem::remove_all(root);
  }
  state.counters["records/s"] = benchmark::Counter(
      static_cast<double>(kPickups) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ServerTenDevicesPushWhileOnePulls)->Apply(onceTimedByHand);

}  // namespace

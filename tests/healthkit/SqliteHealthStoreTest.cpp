#include "tarnwell/healthkit/SqliteHealthStore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <random>
#include <thread>

#include "support/TestEnvironment.h"
#include "tarnwell/healthkit/MemoryHealthStore.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

constexpr auto kSleep = HKSampleType::sleepAnalysis;
constexpr auto kMindful = HKSampleType::mindfulSession;
const HKSource kSleepApp{"Sleep App", "com.example.sleep"};

Date at(double hours) { return testing::defaultTestNow() + hours * 3600; }

HKSample sleep(double fromHour, double toHour, HKMetadata metadata = nullptr) {
  return HKSample::category(kSleep, 1, at(fromHour), at(toHour), std::move(metadata));
}

class SqliteHealthStoreTest : public testing::EnvironmentTest {
 protected:
  // Success, or whether the failure carried an error.
  std::pair<bool, bool> authorize(HKHealthStore& store, std::set<HKSampleType> share,
                                  std::set<HKSampleType> read = {}) {
    std::pair<bool, bool> outcome;
    store.requestAuthorization(share, read, [&](bool success, std::exception_ptr error) {
      outcome = {success, error != nullptr};
    });
    env.pump();
    return outcome;
  }
  std::vector<HKSample> query(HKHealthStore& store, HKSampleType type,
                              std::optional<HKQueryPredicate> predicate = std::nullopt, std::size_t limit = 0,
                              std::vector<HKSortDescriptor> sort = {}) {
    std::vector<HKSample> result;
    store.execute(std::make_shared<HKSampleQuery>(type, std::move(predicate), limit, std::move(sort),
                                                  [&](auto samples, std::exception_ptr error) {
                                                    EXPECT_FALSE(error);
                                                    result = samples.value_or(std::vector<HKSample>{});
                                                  }));
    env.pump();
    return result;
  }
  std::shared_ptr<HKObserverQuery> counting(int& calls) {
    return std::make_shared<HKObserverQuery>(kSleep, std::nullopt, [&calls](auto&, auto done, auto) {
      ++calls;
      done();
    });
  }

  std::filesystem::path folder = env.root() / "HealthKit";
};

TEST_F(SqliteHealthStoreTest, TwoApplicationsShareTheFile) {
  SqliteHealthStore tarnwell(folder);
  SqliteHealthStore sleepApp(folder, kSleepApp);
  int heard = 0;
  tarnwell.execute(counting(heard));
  env.pump();
  EXPECT_EQ(heard, 1);
  authorize(tarnwell, {kSleep}, {kSleep});
  EXPECT_EQ(authorize(sleepApp, {kSleep}).first, true);

  sleepApp.save(sleep(-10, -2), [](bool success, std::exception_ptr) { EXPECT_TRUE(success); });
  env.pump();
  // However late the watcher is, the next operation catches up, and only once.
  const auto samples = query(tarnwell, kSleep);
  EXPECT_EQ(heard, 2);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].source, kSleepApp);
  EXPECT_EQ(samples[0].endDate, at(-2));
}

TEST_F(SqliteHealthStoreTest, AnswersAndStatusesAreKeptInTheFile) {
  {
    SqliteHealthStore first(folder);
    first.setAuthorizationAnswer(kMindful, HKAuthorizationAnswer::deny);
    authorize(first, {kSleep, kMindful});
  }
  SqliteHealthStore second(folder);
  EXPECT_EQ(second.authorizationStatus(kSleep), HKAuthorizationStatus::sharingAuthorized);
  EXPECT_EQ(second.authorizationStatus(kMindful), HKAuthorizationStatus::sharingDenied);
  EXPECT_EQ(authorize(second, {kMindful}), std::make_pair(true, false));
  EXPECT_EQ(second.authorizationStatus(kMindful), HKAuthorizationStatus::sharingDenied);

  SqliteHealthStore other(folder, kSleepApp);
  EXPECT_EQ(other.authorizationStatus(kSleep), HKAuthorizationStatus::notDetermined) << "each application its own";
  const std::map<HKAuthorizationAnswer, std::pair<bool, bool>> outcomes{{HKAuthorizationAnswer::silent, {false, false}},
                                                                        {HKAuthorizationAnswer::error, {false, true}},
                                                                        {HKAuthorizationAnswer::grant, {true, false}}};
  for (const auto& [answer, outcome] : outcomes) {
    other.setAuthorizationAnswer(kMindful, answer);
    SqliteHealthStore reopened(folder, kSleepApp);
    EXPECT_EQ(authorize(reopened, {kMindful}), outcome);
  }
}

TEST_F(SqliteHealthStoreTest, QueriesAgreeWithTheMemoryStore) {
  SqliteHealthStore file(folder);
  MemoryHealthStore memory;
  std::mt19937 random(7);
  const std::vector<nlohmann::json> marks{1, "1", true, 2.5};
  for (HKHealthStore* store : std::initializer_list<HKHealthStore*>{&file, &memory}) {
    authorize(*store, {kSleep}, {kSleep});
    std::mt19937 same = random;
    for (int i = 0; i < 150; ++i) {
      // Half-hour steps, so that ends meet the bounds exactly; now and then a very long sample.
      const double start = static_cast<double>(same() % 96) / 2;
      const double length = i % 37 == 0 ? 40 : static_cast<double>(same() % 24) / 2;
      HKMetadata metadata = i % 5 == 0 ? nullptr : HKMetadata{{"mark", marks[same() % marks.size()]}};
      store->save(sleep(start, start + length, metadata), [](bool success, auto) { EXPECT_TRUE(success); });
    }
    env.pump();
  }

  const auto described = [](const std::vector<HKSample>& samples) {
    std::vector<std::tuple<double, double, std::string>> rows;
    for (const auto& sample : samples) {
      rows.emplace_back((sample.startDate - at(0)) / 3600, (sample.endDate - at(0)) / 3600, sample.metadata.dump());
    }
    return rows;
  };
  std::vector<std::optional<HKQueryPredicate>> predicates{std::nullopt, HKQueryPredicate::forObjects("mark", {1}),
                                                          HKQueryPredicate::forObjects("mark", {"1", 2.5}),
                                                          HKQueryPredicate::forObjects("mark", {true})};
  for (const std::optional<double> start : {std::optional<double>{}, {0.0}, {12.5}, {30.0}}) {
    for (const std::optional<double> end : {std::optional<double>{}, {6.0}, {12.5}, {47.0}}) {
      predicates.push_back(HKQueryPredicate::forSamples(start ? std::optional(at(*start)) : std::nullopt,
                                                        end ? std::optional(at(*end)) : std::nullopt));
    }
  }
  const std::vector<std::vector<HKSortDescriptor>> sorts{
      {}, {{HKSortKey::startDate, false}}, {{HKSortKey::endDate, true}, {HKSortKey::startDate, false}}};
  for (std::size_t p = 0; p < predicates.size(); ++p) {
    for (std::size_t s = 0; s < sorts.size(); ++s) {
      for (const std::size_t limit : {0, 1, 9}) {
        const auto expected = described(query(memory, kSleep, predicates[p], limit, sorts[s]));
        EXPECT_EQ(described(query(file, kSleep, predicates[p], limit, sorts[s])), expected)
            << "predicate " << p << ", sort " << s << ", limit " << limit;
      }
    }
  }
}

TEST_F(SqliteHealthStoreTest, ImportIsAllOrNothingAndHeardOnce) {
  SqliteHealthStore store(folder);
  int heard = 0;
  store.execute(counting(heard));
  env.pump();

  int batches = 0;
  EXPECT_THROW(store.importSamples([&](std::vector<HKSample>& batch) {
    if (++batches == 3) throw std::runtime_error("the export breaks off");
    batch.push_back(sleep(batches, batches + 1));
    return true;
  }),
               std::runtime_error);
  EXPECT_THROW(store.importSamples([&](std::vector<HKSample>& batch) {
    batch = {sleep(0, 1), sleep(2, 1)};
    return false;
  }),
               std::invalid_argument);
  EXPECT_TRUE(store.allSamples().empty());

  batches = 0;
  const std::size_t saved = store.importSamples([&](std::vector<HKSample>& batch) {
    ++batches;
    for (int i = 0; i < 2; ++i) {
      HKSample sample = sleep(batches * 2 + i, batches * 2 + i + 1);
      if (i == 0) sample.source = kSleepApp;
      batch.push_back(sample);
    }
    return batches < 3;  // the batch that comes with false counts too
  });
  EXPECT_EQ(saved, 6u);
  env.pump();
  EXPECT_EQ(heard, 2);

  const auto all = store.allSamples();
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[0].source, kSleepApp);
  EXPECT_EQ(all[1].source, store.defaultSource()) << "a sample without a source is the importer's";
  EXPECT_EQ(store.importSamples([&all](std::vector<HKSample>& batch) {
    batch = all;
    return false;
  }),
            0u)
      << "known uuids are not saved twice";
}

TEST_F(SqliteHealthStoreTest, AFileThatIsNoHealthStoreIsRefused) {
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "health.sqlite") << std::string(4096, 'x');
  try {
    SqliteHealthStore store(folder);
    ADD_FAILURE() << "opened a garbage file";
  } catch (const std::runtime_error& failure) {
    const std::string message = failure.what();
    EXPECT_NE(message.find("health.sqlite"), std::string::npos) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
  }

  const auto elsewhere = env.root() / "Other";
  std::filesystem::create_directories(elsewhere);
  sqlite::Connection(elsewhere / "health.sqlite").execute("CREATE TABLE notes (text TEXT)");
  EXPECT_THROW(SqliteHealthStore{elsewhere}, std::runtime_error);
}

TEST_F(SqliteHealthStoreTest, TheInstalledStoreIsTheHealthFolders) {
  auto configuration = env.configuration();
  configuration.healthFolder = folder;
  Environment::install(std::make_unique<Environment>(configuration));
  EXPECT_NE(dynamic_cast<SqliteHealthStore*>(&HKHealthStore::installed()), nullptr);
  EXPECT_TRUE(std::filesystem::exists(folder / "health.sqlite"));
}

// Real threads, for ThreadSanitizer: saves from several threads while one
// handle's own observer and another handle's watcher-driven observer run.
TEST_F(SqliteHealthStoreTest, ThreadsSaveWhileObserversListen) {
  auto configuration = env.configuration();
  configuration.backgroundQueueMode = DispatchQueue::Mode::thread;
  Environment::install(std::make_unique<Environment>(configuration));
  constexpr int kThreads = 4;
  constexpr int kSavesEach = 25;
  constexpr std::size_t kTotal = kThreads * kSavesEach;

  std::mutex mutex;
  std::condition_variable changed;
  int saved = 0;
  int writerCalls = 0;
  bool readerSawAll = false;
  const auto waitUntil = [&](const std::function<bool()>& condition) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(30), condition);
  };

  SqliteHealthStore writer(folder, kSleepApp);
  SqliteHealthStore reader(folder);
  const auto ownChanges = std::make_shared<HKObserverQuery>(kSleep, std::nullopt, [&](auto&, auto done, auto) {
    std::lock_guard lock(mutex);
    ++writerCalls;
    changed.notify_all();
    done();
  });
  const auto fileChanges = std::make_shared<HKObserverQuery>(kSleep, std::nullopt, [&](auto&, auto, auto) {
    const bool all = reader.allSamples().size() == kTotal;
    std::lock_guard lock(mutex);
    readerSawAll = readerSawAll || all;
    changed.notify_all();
  });
  writer.execute(ownChanges);
  reader.execute(fileChanges);
  std::promise<bool> authorized;
  writer.requestAuthorization(std::set{kSleep}, std::nullopt,
                              [&](bool success, std::exception_ptr) { authorized.set_value(success); });
  ASSERT_TRUE(authorized.get_future().get());

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kSavesEach; ++i) {
        writer.save(sleep(t, t + i / 10.0), [&](bool success, std::exception_ptr) {
          EXPECT_TRUE(success);
          std::lock_guard lock(mutex);
          ++saved;
          changed.notify_all();
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(waitUntil([&] { return saved == static_cast<int>(kTotal); }));
  EXPECT_TRUE(waitUntil([&] { return writerCalls == static_cast<int>(kTotal) + 1; })) << writerCalls;
  EXPECT_TRUE(waitUntil([&] { return readerSawAll; }));

  // A query after stop runs after every handler already under way: then
  // nothing of the test is reached any more.
  writer.stop(ownChanges);
  reader.stop(fileChanges);
  for (HKHealthStore* store : std::initializer_list<HKHealthStore*>{&writer, &reader}) {
    std::promise<void> drained;
    store->execute(std::make_shared<HKSampleQuery>(kMindful, std::nullopt, 1, std::vector<HKSortDescriptor>{},
                                                   [&](auto, auto) { drained.set_value(); }));
    drained.get_future().wait();
  }
}

}  // namespace
}  // namespace tarnwell

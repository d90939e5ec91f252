// The store engine: change feed, transactions, threads, the outbox's
// bookkeeping, compaction, and the migration of files written by older
// versions.

#include "tarnwell/store/Store.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "support/TestEnvironment.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Outbox.h"

namespace tarnwell {
namespace {

using store::ChangeSet;
using store::Query;
using store::Store;
using store::WriteTransaction;

const Date t0 = testing::defaultTestNow();

class StoreTest : public testing::EnvironmentTest {
 protected:
  void SetUp() override { Database::start(); }

  std::vector<ChangeSet> heard;
  store::ObserverToken listen() {
    return Store::open().observe<Pickup>([this](const ChangeSet& change) { heard.push_back(change); });
  }

  // For writes that exclude a token: the fixture's listener, which they
  // exclude, and a second one into `other` that hears everything. Both start
  // past their initial change set.
  std::vector<ChangeSet> other;
  std::pair<store::ObserverToken, store::ObserverToken> listenTwice() {
    auto excluded = listen();
    auto token = Store::open().observe<Pickup>([this](const ChangeSet& change) { other.push_back(change); });
    env.pump();
    heard.clear();
    other.clear();
    return {std::move(excluded), std::move(token)};
  }
};

TEST_F(StoreTest, ObserversHearInsertedAndModifiedKeysLaterOnTheMainQueue) {
  auto token = listen();
  env.pump();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_TRUE(heard[0].isInitial);

  const std::string id = Database::addPickup(t0, t0 + 60);
  Database::editPickup(id, t0 + 120);
  EXPECT_EQ(heard.size(), 1u);  // nothing on the writer's stack
  env.pump();
  ASSERT_EQ(heard.size(), 3u);
  EXPECT_EQ(heard[1].className, "Pickup");
  EXPECT_EQ(heard[1].insertions, std::vector<std::string>{id});
  EXPECT_TRUE(heard[1].modifications.empty());
  EXPECT_EQ(heard[2].modifications, std::vector<std::string>{id});
  EXPECT_TRUE(Environment::current().isMainThread());
}

TEST_F(StoreTest, AnExcludedTokenHearsNothingOfThatWrite) {
  auto [excluded, token] = listenTwice();

  Pickup fromCloud(t0, t0 + 5);
  Store::open().write([&](WriteTransaction& t) { t.add(fromCloud); }, {&excluded});
  env.pump();
  EXPECT_TRUE(heard.empty());
  ASSERT_EQ(other.size(), 1u);
  EXPECT_EQ(other[0].insertions, std::vector<std::string>{*fromCloud.id});

  excluded.invalidate();
  Database::addPickup(t0, t0 + 1);
  env.pump();
  EXPECT_TRUE(heard.empty());
}

TEST_F(StoreTest, AThrowingWriteLeavesNothingAndTellsNobody) {
  auto token = listen();
  env.pump();
  heard.clear();
  Pickup pickup(t0, t0 + 5);
  EXPECT_THROW(Store::open().write([&](WriteTransaction& t) {
    t.add(pickup);
    throw std::runtime_error("interrupted");
  }),
               std::runtime_error);
  env.pump();
  EXPECT_TRUE(heard.empty());
  EXPECT_FALSE(Database::getPickup(*pickup.id));
  // Adding the same key again with the error policy fails and changes nothing.
  Database::addPickup(t0, t0 + 1);
  Store::open().write([&](WriteTransaction& t) { t.add(pickup); });
  EXPECT_THROW(Store::open().write([&](WriteTransaction& t) { t.add(pickup, store::UpdatePolicy::error); }),
               sqlite::Error);
}

TEST_F(StoreTest, ABatchIsSeenWholeAtItsCommitAndHeardWriteByWrite) {
  auto [excluded, token] = listenTwice();

  const Pickup first(t0, t0 + 60), second(t0 + 120, t0 + 180), failed(t0 + 240, t0 + 300);
  {
    store::BatchWriter batch(Store::defaultConfiguration());
    batch.write([&](WriteTransaction& t) { t.add(first); }, {&excluded});
    batch.write([&](WriteTransaction& t) { t.add(second); });
    EXPECT_THROW(batch.write([&](WriteTransaction& t) {
      t.add(failed);
      throw std::runtime_error("a record that cannot be written");
    }),
                 std::runtime_error);
    // Reads in the batch see it; the thread's own connection does not, and may read on.
    EXPECT_TRUE(batch.store().object<Pickup>(*second.id));
    EXPECT_FALSE(Store::open().object<Pickup>(*first.id));
    env.pump();
    EXPECT_TRUE(other.empty());
    batch.commit();
  }
  EXPECT_TRUE(Store::open().object<Pickup>(*first.id));
  EXPECT_FALSE(Store::open().object<Pickup>(*failed.id)) << "the failed write was undone alone";
  env.pump();
  ASSERT_EQ(other.size(), 2u) << "one change set per write, in order";
  EXPECT_EQ(other[0].insertions, std::vector<std::string>{*first.id});
  EXPECT_EQ(other[1].insertions, std::vector<std::string>{*second.id});
  ASSERT_EQ(heard.size(), 1u) << "the excluded token misses only its own write";
  EXPECT_EQ(heard[0].insertions, std::vector<std::string>{*second.id});
}

TEST_F(StoreTest, EveryThreadHasItsConnectionAndSeesTheLatestCommit) {
  const std::string id = Database::addPickup(t0, t0 + 60);
  std::optional<Pickup> seen;
  std::thread([&] {
    seen = Database::getPickup(id);
    Database::editPickup(id, t0 + 90);
  }).join();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->end, t0 + 60);
  EXPECT_EQ(Database::getPickup(id)->end, t0 + 90);
}

TEST_F(StoreTest, UpdatesReturnKeysInStoreOrder) {
  std::vector<std::string> ids;
  for (int i = 0; i < 5; ++i) ids.push_back(Database::addPickup(t0 - 10.0 * i, t0 + 10.0 * i));
  std::vector<std::string> touched;
  Store::open().write([&](WriteTransaction& t) {
    touched = t.update<Pickup>({{"isIgnoredForSleepTime", true}}, Query());
  });
  EXPECT_EQ(touched, ids);
}

// The outbox as its sender sees it: unsent keys and whether each is known.
std::map<std::string, bool> unsentPickups(Store& store) {
  store.write([](WriteTransaction& t) { store::Outbox(t.connection()).settle({"Pickup", "id"}); });
  std::map<std::string, bool> unsent;
  for (const auto& entry : store::Outbox(store.connection()).entries("Pickup", 100)) {
    unsent[entry.recordKey] = entry.known;
  }
  return unsent;
}

std::size_t unsentPickupCount(Store& store) {
  for (const auto& [className, count] : store::Outbox(store.connection()).summary(store.outboxClasses()).byClass) {
    if (className == "Pickup") return count;
  }
  return 0;
}

std::int64_t outboxRows(Store& store) {
  auto rows = store.select("SELECT count(*) FROM \"Outbox\"");
  return rows.next() ? rows->int64(0) : -1;
}

void acknowledgeAll(Store& store) {
  store.write([](WriteTransaction& t) {
    store::Outbox outbox(t.connection());
    std::vector<store::SentVersion> sent;
    for (const auto& entry : outbox.entries("Pickup", 100)) sent.emplace_back(entry.recordKey, entry.version);
    outbox.acknowledge("Pickup", sent);
  });
}

TEST_F(StoreTest, AnInsertWritesNothingToTheOutboxYetWaitsThereUnknown) {
  Store store = Store::open();
  const auto before = outboxRows(store);
  const std::string a = Database::addPickup(t0, t0 + 60), b = Database::addPickup(t0 + 120, t0 + 180);
  EXPECT_EQ(outboxRows(store), before);
  EXPECT_EQ(unsentPickupCount(store), 2u);
  EXPECT_EQ(store::Outbox(store.connection()).summary(store.outboxClasses()).oldest, t0)
      << "dated from the first insert";

  // A record from elsewhere is not a local change, and the local inserts
  // before it still are.
  const Pickup fetched(t0 + 240, t0 + 300);
  store.write([&](WriteTransaction& t) { t.add(fetched); }, {}, store::Origin::elsewhere);
  EXPECT_EQ(unsentPickupCount(store), 2u);
  const std::map<std::string, bool> neverSent{{a, false}, {b, false}};
  EXPECT_EQ(unsentPickups(store), neverSent);

  // An edit of a row never sent keeps it unknown; removed, it costs nothing.
  Database::editPickup(a, t0 + 90);
  store.write([&](WriteTransaction& t) { t.remove<Pickup>(Query().filter("id = ?", {b})); });
  EXPECT_EQ(unsentPickups(store), neverSent);
  store.write([](WriteTransaction& t) { store::Outbox(t.connection()).forgetUnsentDeletions("Pickup", "id"); });
  EXPECT_EQ(unsentPickups(store), (std::map<std::string, bool>{{a, false}}));
}

TEST_F(StoreTest, ARowidUsedAgainAfterTheLastRowsWentIsWrittenDownAtOnce) {
  Store store = Store::open();
  Database::addPickup(t0, t0 + 60);
  const std::string last = Database::addPickup(t0 + 120, t0 + 180);
  unsentPickups(store);
  acknowledgeAll(store);
  store.write([&](WriteTransaction& t) { t.remove<Pickup>(Query().filter("id = ?", {last})); });
  const auto before = outboxRows(store);
  const std::string again = Database::addPickup(t0 + 240, t0 + 300);
  EXPECT_EQ(outboxRows(store), before + 1);
  EXPECT_EQ(unsentPickups(store), (std::map<std::string, bool>{{last, true}, {again, false}}))
      << "the deletion of a sent row is known, the insert in its place is not";
}

TEST(CompactionTest, OnlyFilesOverFiftyMebibytesAndLessThanFortyPercentUsed) {
  constexpr std::uint64_t mib50 = 50ull * 1024 * 1024;
  EXPECT_FALSE(Database::shouldCompactOnLaunch(mib50, 0));
  EXPECT_TRUE(Database::shouldCompactOnLaunch(mib50 + 1, 0));
  EXPECT_FALSE(Database::shouldCompactOnLaunch(100, 0));
  EXPECT_FALSE(Database::shouldCompactOnLaunch(100'000'000, 40'000'000));  // exactly 0.4
  EXPECT_TRUE(Database::shouldCompactOnLaunch(100'000'000, 39'999'999));
}

TEST(CompactionTest, AWastefulFileShrinksAtLaunchAndKeepsItsUnsentInserts) {
  testing::TestEnvironment env;
  Database::start();
  std::string unsent;
  {
    Store store = Store::open();
    // Compaction numbers rows anew: a sent row behind removed ones, and an
    // insert not yet written down, must keep what they are.
    std::vector<std::string> ids;
    for (int i = 0; i < 3; ++i) ids.push_back(Database::addPickup(t0 + i * 60.0, t0 + i * 60.0 + 30));
    unsentPickups(store);
    acknowledgeAll(store);
    store.write([&](WriteTransaction& t) { t.remove<Pickup>(Query().filter("id != ?", {ids[2]})); });
    unsentPickups(store);
    acknowledgeAll(store);
    unsent = Database::addPickup(t0 + 600, t0 + 660);
    store.connection().execute("CREATE TABLE Filler (bytes BLOB)");
    auto insert = store.connection().prepare("INSERT INTO Filler VALUES (zeroblob(1048576))");
    for (int i = 0; i < 56; ++i) {
      insert.execute();
    }
    store.connection().execute("DELETE FROM Filler");
    store.connection().execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  const auto before = std::filesystem::file_size(Database::fileURL());
  ASSERT_GT(before, 50u * 1024 * 1024);
  env.relaunch();
  Database::start();
  EXPECT_LT(std::filesystem::file_size(Database::fileURL()), before / 10);
  Store store = Store::open();
  const std::string later = Database::addPickup(t0 + 900, t0 + 960);
  EXPECT_EQ(unsentPickups(store), (std::map<std::string, bool>{{unsent, false}, {later, false}}));
}

// Files written by older versions, built by hand: every table with every
// column, and values that each migration step would change.
class MigrationTest : public ::testing::Test {
 protected:
  void writeOldFile(int version) {
    Database::configureRealm();
    sqlite::Connection file(Database::fileURL());
    for (const auto& table : Store::defaultConfiguration().tables) file.execute(table.createSQL);
    file.execute(R"(INSERT INTO Pickup VALUES ('P', 'OLD', 0, 60, 1, 1))");
    file.execute(R"(INSERT INTO Walk VALUES ('W', 'OLD', 0, 60, 1))");
    file.execute(R"(INSERT INTO Alive VALUES ('A', 'OLD', 0, 60, 1))");
    file.execute(R"(INSERT INTO Focus VALUES ('F', 'OLD', 'working', 0, 60, 60, 60, 'pomodoro', 'strict', 1, 'W'))");
    for (const char* id : {"working", "U1", "U2"}) {
      file.execute(std::string("INSERT INTO Tag (id, title, syncToMindfulness, sort, colorHex, focusGoalData) "
                               "VALUES ('") +
                   id + "', 't', 0, 5, '#000000', X'01')");
    }
    file.setUserVersion(version);
  }

  // Which of the eight steps changed their sentinel values.
  std::set<int> stepsRun() {
    Store store = Store::open();
    std::set<int> steps;
    const auto pickup = store.object<Pickup>("P");
    const auto focus = store.object<Focus>("F");
    const auto u1 = store.object<Tag>("U1"), u2 = store.object<Tag>("U2"), working = store.object<Tag>("working");
    if (!pickup->isDeleted && pickup->deviceId == Settings::deviceId() && focus->deviceId == Settings::deviceId()) {
      steps.insert(1);
    }
    if (!pickup->isIgnoredForSleepTime) steps.insert(2);
    if (focus->typeString == "countdown" && focus->modeString == "easy") steps.insert(3);
    if (u1->syncToMindfulness && working->syncToMindfulness) {
      steps.insert(4);
      EXPECT_FALSE(u2->syncToMindfulness);  // listed as not to sync
    }
    if (u1->sort == Tag::kUnplacedSort) steps.insert(5);
    if (u1->typeData) {
      steps.insert(6);
      const std::string json(u1->typeData->begin(), u1->typeData->end());
      EXPECT_EQ(nlohmann::json::parse(json).get<widgets::FocusType>(), widgets::FocusType::countdown(1500));
    }
    if (!u1->focusGoalData) {
      steps.insert(7);
      EXPECT_EQ(working->colorHex, "#ff954f");
      EXPECT_EQ(u1->colorHex, TagColors::palette()[0]);
      EXPECT_EQ(u2->colorHex, TagColors::palette()[1]);
    }
    if (!focus->watchName) steps.insert(8);
    EXPECT_EQ(store.connection().userVersion(), 13);
    return steps;
  }

  void SetUp() override {
    UserDefaults::standard().set("SettingsModule.doNotSyncTagIdToHealthKitMindfulness", std::vector<std::string>{"U2"});
  }

  testing::TestEnvironment env;
};

TEST_F(MigrationTest, Version1SkipsStep2) {
  writeOldFile(1);
  EXPECT_EQ(stepsRun(), (std::set<int>{1, 3, 4, 5, 6, 7, 8}));
}

TEST_F(MigrationTest, Version2RunsSteps2To8) {
  writeOldFile(2);
  EXPECT_EQ(stepsRun(), (std::set<int>{2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(MigrationTest, Version11RunsStep8Only) {
  writeOldFile(11);
  EXPECT_EQ(stepsRun(), std::set<int>{8});
}

TEST_F(MigrationTest, Version12RunsNothing) {
  writeOldFile(12);
  EXPECT_EQ(stepsRun(), std::set<int>{});
  Store store = Store::open();
  EXPECT_EQ(store::Outbox(store.connection()).summary(store.outboxClasses()).count, 0u)
      << "rows older than the outbox are not changes";
}

TEST_F(MigrationTest, MissingColumnsArriveWithTheirDefaultsAndIndexesAreReplaced) {
  Database::configureRealm();
  {
    sqlite::Connection file(Database::fileURL());
    file.execute(R"(CREATE TABLE Pickup ("id" TEXT PRIMARY KEY, "start" REAL, "end" REAL))");
    file.execute(R"(CREATE INDEX "Pickup_end" ON Pickup ("end"))");
    file.execute(R"(INSERT INTO Pickup VALUES ('P', 0, 60))");
    file.setUserVersion(1);
  }
  const auto pickup = Store::open().object<Pickup>("P");
  ASSERT_TRUE(pickup);
  EXPECT_FALSE(pickup->isIgnoredForSleepTime);
  EXPECT_FALSE(pickup->isDeleted);
  EXPECT_EQ(pickup->deviceId, Settings::deviceId());  // step 1
  // The index of the end alone gives way to the one of the end and the start.
  auto indexes = Store::open().select(
      "SELECT group_concat(name) FROM (SELECT name FROM sqlite_schema WHERE tbl_name = 'Pickup' AND type = 'index' "
      "AND name LIKE 'Pickup_%' ORDER BY name)");
  ASSERT_TRUE(indexes.next());
  EXPECT_EQ(indexes->text(0), "Pickup_end_start,Pickup_start");
}

TEST(SchemaTest, TablesDeriveFromTheDeclaration) {
  EXPECT_EQ(store::createTableSQL<Walk>(),
            R"(CREATE TABLE IF NOT EXISTS "Walk" ("id" TEXT PRIMARY KEY, "deviceId" TEXT NOT NULL DEFAULT '', )"
            R"("start" REAL DEFAULT NULL, "end" REAL DEFAULT NULL, "isDeleted" INTEGER NOT NULL DEFAULT 0))");
  EXPECT_EQ(store::primaryKeyName<App>(), "trackId");
  EXPECT_NE(store::createTableSQL<Tag>().find(R"("sort" INTEGER NOT NULL DEFAULT 9223372036854775807)"),
            std::string::npos);
  EXPECT_NE(store::createTableSQL<Device>().find(R"("deviceIds" TEXT NOT NULL DEFAULT '[]')"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell

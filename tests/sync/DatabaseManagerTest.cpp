// The engine and its database managers against the in-memory cloud: the
// push path's retries, cuts and kept changes, and the pull path's tokens.

#include <gtest/gtest.h>

#include "sync/SyncFixture.h"
#include "sync/TestRecords.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Outbox.h"

namespace tarnwell::testing {
namespace {

class DatabaseManagerTest : public SyncFixture {};

TEST_F(DatabaseManagerTest, SetUpMakesTheZoneThenPushesEverythingAndSubscribesOnce) {
  Device& a = device("A");
  write(a, pickups(3));
  start("A");
  EXPECT_TRUE(a.ready);
  EXPECT_TRUE(a.pickups->isCustomZoneCreated());
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 3u);
  EXPECT_TRUE(a.defaults->boolForKey("cloudsync.keys.subscriptionIsLocallyCachedKey"));
  ASSERT_EQ(cloud->subscriptions(CKDatabaseScope::privateScope).size(), 1u);
  EXPECT_EQ(subscriptionID(cloud->subscriptions(CKDatabaseScope::privateScope)[0]), "private_changes");
  EXPECT_TRUE(logged("🔄 Add operation: syncRecordsToCloudKit store 3 Pickup objects, delete 0 objects"));

  // A second start finds the zone and the subscription made: nothing is sent again.
  const auto before = cloud->requests().size();
  a.engine.reset();
  start("A");
  EXPECT_TRUE(a.ready);
  EXPECT_EQ(cloud->requests().size(), before);
}

TEST_F(DatabaseManagerTest, AnAccountThatIsNotAvailableNeverCallsBack) {
  for (const auto status : {CKAccountStatus::couldNotDetermine, CKAccountStatus::temporarilyUnavailable,
                            CKAccountStatus::noAccount, CKAccountStatus::restricted}) {
    Device& d = device("D" + std::to_string(static_cast<int>(status)));
    d.container->setAccountStatus(status);
    start("D" + std::to_string(static_cast<int>(status)));
    EXPECT_FALSE(d.ready) << name(status);
  }
  EXPECT_TRUE(cloud->requests().empty());
}

// Sizes (records to save, ids to delete) of the modify requests from `from` on.
std::vector<std::pair<std::size_t, std::size_t>> sizes(const std::vector<CloudRequest>& sent, std::size_t from) {
  std::vector<std::pair<std::size_t, std::size_t>> found;
  for (auto i = from; i < sent.size(); ++i) found.emplace_back(sent[i].recordsToSave, sent[i].recordIDsToDelete);
  return found;
}

TEST_F(DatabaseManagerTest, AListTooLargeGoesOutThroughTheOutboxInRequestsOfAtMost400) {
  Device& a = start("A");
  const auto rows = pickups(650);
  // Rows the cloud already has: nothing of them waits in the outbox.
  store::Store::open(a.configuration)
      .write(
          [&](auto& t) {
            for (const auto& row : rows) t.add(row);
          },
          {}, store::Origin::elsewhere);
  std::vector<CKRecord> records;
  auto store = store::Store::open(a.configuration);
  for (const auto& pickup : rows) records.push_back(sync::record(pickup, store));
  const std::vector<CKRecordID> deletions{sync::recordID(pickups(1)[0])};
  int completions = 0;
  const auto before = modifies().size();
  a.engine->databaseManager().syncRecordsToCloudKit(records, deletions, [&completions](std::exception_ptr error) {
    EXPECT_FALSE(error);
    ++completions;
  });
  env.pump();
  const auto sent = modifies();
  ASSERT_GT(sent.size(), before);
  EXPECT_EQ(sent[before].errorCode, static_cast<int>(CKErrorCode::limitExceeded));
  // Two requests of at most 400 items; which holds the deletion follows the keys.
  const auto requests = sizes(sent, before + 1);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].first + requests[0].second, 400u);
  EXPECT_EQ(requests[0].first + requests[1].first, 650u);
  EXPECT_EQ(requests[0].second + requests[1].second, 1u);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 650u);
}

TEST_F(DatabaseManagerTest, DeletionsAloneAreSplitTooAndAFailedRequestIsHalved) {
  Device& a = start("A");
  write(a, pickups(450));
  ASSERT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 450u);
  cloud->addFault({.code = 27, .retryAfter = std::nullopt, .times = 1, .on = CKOperationKind::modifyRecords});
  const auto before = modifies().size();
  store::Store::open(a.configuration).write([](store::WriteTransaction& t) {
    t.update<Pickup>({{"isDeleted", true}}, store::Query());
  });
  env.pump();
  EXPECT_EQ(sizes(modifies(), before),
            (std::vector<std::pair<std::size_t, std::size_t>>{{0, 400}, {0, 200}, {0, 250}}));
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope, "Pickup").empty());
  a.pickups->cleanUp();
  EXPECT_TRUE(store::Store::open(a.configuration).objects<Pickup>().empty());
}

TEST_F(DatabaseManagerTest, AnUnhandledErrorKeepsTheChangesAndTellsTheCaller) {
  Device& a = start("A");
  cloud->addFault({.code = 15, .retryAfter = std::nullopt, .times = 3, .on = std::nullopt});
  std::exception_ptr pushed, pulled;
  const auto rows = pickups(1);
  write(a, rows);
  auto store = store::Store::open(a.configuration);
  a.engine->push({sync::PushItem{sync::record(rows[0], store), false}},
                 [&pushed](std::exception_ptr error) { pushed = error; });
  a.engine->pull([&pulled](std::exception_ptr error) { pulled = error; });
  env.pump();
  EXPECT_TRUE(pushed);
  EXPECT_TRUE(pulled);
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope, "Pickup").empty());
  EXPECT_EQ(store::Outbox(store.connection()).summary(store.outboxClasses()).count, 1u);

  // The growing wait tries again by itself; the next pull would too.
  env.advance(1);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 1u);
  EXPECT_EQ(store::Outbox(store.connection()).summary(store.outboxClasses()).count, 0u);
}

TEST_F(DatabaseManagerTest, ARetryWaitsOnTheMainQueueForTheSecondsTheCloudAsked) {
  Device& a = start("A");
  cloud->addFault({.code = 23, .retryAfter = 2.5, .times = 1, .on = CKOperationKind::modifyRecords});
  const auto before = modifies().size();
  write(a, pickups(1));
  EXPECT_EQ(modifies().size() - before, 1u);
  EXPECT_TRUE(logged("🔄 Modify record needs retry"));
  env.advance(2.4);
  EXPECT_EQ(modifies().size() - before, 1u);
  env.advance(0.2);
  ASSERT_EQ(modifies().size() - before, 2u);
  EXPECT_EQ(modifies().back().errorCode, 0);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 1u);
}

TEST_F(DatabaseManagerTest, APullBringsAnotherDevicesRecordsAndExpiredTokensFetchAgainIdempotently) {
  Device& a = start("A");
  write(a, pickups(5));
  Device& b = start("B");
  bool pulled = false;
  b.engine->pull([&pulled](std::exception_ptr error) {
    EXPECT_FALSE(error);
    pulled = true;
  });
  env.pump();
  EXPECT_TRUE(pulled);
  EXPECT_EQ(b.live(), a.live());
  const auto pushesOfB = [&] {
    std::size_t count = 0;
    for (const auto& request : cloud->requests()) count += request.deviceID == "B" && request.recordsToSave > 0;
    return count;
  };
  EXPECT_EQ(pushesOfB(), 0u) << "records from the cloud went back";

  cloud->expireTokens();
  pulled = false;
  b.engine->pull([&pulled](std::exception_ptr) { pulled = true; });
  env.pump();
  EXPECT_TRUE(logged("🔄 Database fetch token expired"));
  EXPECT_TRUE(pulled);
  EXPECT_EQ(b.live(), a.live());
  EXPECT_EQ(pushesOfB(), 0u);
}

// A zone the user deleted, found gone first by a device holding older
// copies: each device sends again what it recorded, the recorder's last edit
// is what every device ends with, and a deletion the zone took with it is
// not undone.
TEST_F(DatabaseManagerTest, AZoneMadeAgainEndsWithEachRecordersLatestVersion) {
  const auto as = [this](const char* name) -> Device& {
    Settings::setDeviceId(name);
    return devices.count(name) ? devices[name] : start(name);
  };
  const auto pull = [this](Device& d) {
    bool pulled = false;
    d.engine->pull([&pulled](std::exception_ptr) { pulled = true; });
    env.pump();
    EXPECT_TRUE(pulled);
  };
  Device& a = as("A");
  const auto made = pickups(2);
  Pickup edited = made[0];
  Pickup deleted = made[1];
  write(a, made);
  Device& b = as("B");
  write(b, pickups(1));
  pull(b);
  pull(as("A"));
  ASSERT_EQ(a.live().size(), 3u);
  ASSERT_EQ(b.live(), a.live());

  edited.end = *edited.end + 45;
  deleted.isDeleted = true;
  write(a, std::vector{edited, deleted});
  cloud->deleteZone(CKDatabaseScope::privateScope, sync::zoneID<Pickup>());
  pull(as("B"));
  EXPECT_TRUE(logged("🔄 Record zone " + sync::zoneID<Pickup>().description() + " is gone: made again"));
  pull(as("A"));
  pull(as("B"));

  EXPECT_EQ(a.live(), b.live());
  ASSERT_EQ(a.live().size(), 2u);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 2u);
  EXPECT_FALSE(store::Store::open(b.configuration).object<Pickup>(*deleted.id));
  for (const auto& pickup : b.live()) {
    if (pickup.id == edited.id) {
      EXPECT_EQ(pickup.end, edited.end);
    }
  }
}

TEST_F(DatabaseManagerTest, APushReachesTheOtherDeviceThroughItsSubscription) {
  Device& a = start("A");
  Device& b = start("B");
  hearPushes(b);
  write(a, pickups(2));
  env.pump();
  EXPECT_EQ(b.live(), a.live());
}

TEST_F(DatabaseManagerTest, EachStartOfObservingAddsOneMoreRemoteChangeObserver) {
  Device& a = start("A");
  auto* manager = dynamic_cast<sync::CloudDatabaseManager*>(&a.engine->databaseManager());
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->remoteChangeObserverCount(), 1u);
  a.engine->startObservingLocalAndRemoteChanges();
  a.engine->stopObservingLocalAndRemoteChanges();
  EXPECT_EQ(manager->remoteChangeObserverCount(), 2u);
  const auto before = cloud->requests().size();
  NotificationCenter::defaultCenter().post(sync::Notifications::cloudKitDataDidChangeRemotely);
  env.pump();
  std::size_t fetches = 0;
  const auto requests = cloud->requests();
  for (auto i = before; i < requests.size(); ++i) fetches += requests[i].kind == CKOperationKind::fetchDatabaseChanges;
  EXPECT_EQ(fetches, 2u);
}

TEST_F(DatabaseManagerTest, AnOperationWhoseCompletionWasLostIsCancelledAndAddedAgainAtTheNextStart) {
  Device& a = start("A");
  cloud->dropCompletions(1);
  write(a, pickups(1));
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope, "Pickup").size(), 1u) << "it ran on the server";
  bool listed = false;
  a.container->fetchAllLongLivedOperationIDs(
      [&listed](std::optional<std::vector<std::string>> ids, std::exception_ptr) { listed = ids && ids->size() == 1; });
  env.pump();
  ASSERT_TRUE(listed);

  log.clear();
  a.engine.reset();
  start("A");
  EXPECT_TRUE(logged("🔄 Cancel operation"));
  a.container->fetchAllLongLivedOperationIDs(
      [&listed](std::optional<std::vector<std::string>> ids, std::exception_ptr) { listed = ids && !ids->empty(); });
  env.pump();
  EXPECT_FALSE(listed) << "the cancelled operation ended and was forgotten";
}

TEST_F(DatabaseManagerTest, APublicEngineQueriesEverythingWithoutAnAccountAndCallsBackPerClass) {
  // Another user's device saves shelves into the public database.
  auto writer = cloud->container("WRITER", "iCloud.org.vostra.tarnwell");
  std::vector<CKRecord> shelves;
  for (std::int64_t id : {1, 2, 3}) {
    CKRecord record("Shelf", CKRecordID{std::to_string(id), CKRecordZoneID::defaultZone()});
    record.setObject("id", id);
    record.setObject("title", "Shelf " + std::to_string(id));
    record.setObject("isDeleted", std::int64_t{0});
    shelves.push_back(std::move(record));
  }
  writer->publicCloudDatabase().add(std::make_shared<CKModifyRecordsOperation>(shelves, std::vector<CKRecordID>{}));
  env.pump();

  const auto configuration = testRecordsConfiguration(env.root() / "reader.realm");
  UserDefaults defaults(env.root() / "reader.defaults.sqlite");
  auto reader = cloud->container("READER", "iCloud.org.vostra.tarnwell");
  reader->setAccountStatus(CKAccountStatus::noAccount);
  bool ready = false;
  auto engine = sync::SyncEngine::make(
      {std::make_shared<sync::SyncObject<Shelf>>(configuration, true, defaults)}, CKDatabaseScope::publicScope, reader,
      [&ready](const std::shared_ptr<sync::SyncEngine>&) { ready = true; }, defaults);
  env.pump();
  ASSERT_TRUE(ready);
  EXPECT_TRUE(logged("🔄 Add operation: createSubscriptionInPublicDatabase"));
  int callbacks = 0;
  engine->pull([&callbacks](std::exception_ptr error) {
    EXPECT_FALSE(error);
    ++callbacks;
  });
  env.pump();
  EXPECT_EQ(callbacks, 1);
  const auto kept = store::Store::open(configuration).objects<Shelf>(store::Query().sorted("id"));
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[2].id, 3);
  EXPECT_EQ(kept[2].title, "Shelf 3");
}

}  // namespace
}  // namespace tarnwell::testing

#include "tarnwell/cloudkit/CloudEmulator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "support/TestEnvironment.h"
#include "support/TestServer.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

const std::string kApp = "iCloud.org.vostra.tarnwell";
const CKRecordZoneID kPickups{"PickupsZone", std::string(CKCurrentUserDefaultName)};
const CKRecordZoneID kTags{"TagsZone", std::string(CKCurrentUserDefaultName)};

// The raw code of a CKError, 0 for no error.
int code(const std::exception_ptr& error) {
  if (!error) return 0;
  try {
    std::rethrow_exception(error);
  } catch (const CKError& failure) {
    return failure.code();
  } catch (...) {
    return -1;
  }
}

CKError ckError(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const CKError& failure) {
    return failure;
  }
}

CKRecord pickup(const std::string& name, std::int64_t count, const CKRecordZoneID& zone = kPickups) {
  CKRecord record("Pickup", CKRecordID{name, zone});
  record.setObject("count", count);
  return record;
}

std::int64_t countOf(const CKRecord& record) { return std::get<std::int64_t>(*record.object("count")); }

std::vector<std::string> namesOf(const std::vector<CKRecord>& records) {
  std::vector<std::string> names;
  for (const auto& record : records) names.push_back(record.recordID().recordName);
  return names;
}

struct Modified {
  bool completed = false;
  std::exception_ptr error;
  std::vector<CKRecord> saved;
  std::vector<CKRecordID> deleted;
};

// What a zone fetch handed over, in order: "name=count" for a change, "-name" for a deletion.
struct Fetched {
  std::vector<std::string> events;
  std::vector<CKRecord> records;
  int tokenUpdates = 0;
  int zoneCompletions = 0;
  std::optional<CKServerChangeToken> token;
  bool moreComing = false;
  std::exception_ptr zoneError;
  bool completed = false;
  std::exception_ptr error;
};

enum class Backing { memory, folder, server };
std::string_view nameOf(Backing backing) {
  return backing == Backing::memory ? "Memory" : backing == Backing::folder ? "Folder" : "Server";
}
void PrintTo(Backing backing, std::ostream* out) { *out << nameOf(backing); }

// The same behaviour on every backing; the server's cases run when a test
// server is configured (support/TestServer.h).
class CloudEmulatorTest : public ::testing::TestWithParam<Backing> {
 protected:
  void SetUp() override {
    if (GetParam() == Backing::server && !testing::testServer()) GTEST_SKIP() << "no test server";
  }

  std::shared_ptr<CloudEmulator> makeCloud(CloudEmulator::Options options = {}) {
    switch (GetParam()) {
      case Backing::folder:
        return CloudEmulator::open(env.root() / "cloud", true, queue, options);
      case Backing::server:
        if (testing::testServer()) return CloudEmulator::connect(scratch.server(), true, queue, options);
        break;
      case Backing::memory:
        break;
    }
    return CloudEmulator::inMemory(queue, options);
  }

  Modified modify(EmulatedContainer& device, std::vector<CKRecord> saves, std::vector<CKRecordID> deletions = {},
                  CKRecordSavePolicy policy = CKRecordSavePolicy::changedKeys, bool atomic = true,
                  CKDatabaseScope scope = CKDatabaseScope::privateScope) {
    Modified result;
    auto operation = std::make_shared<CKModifyRecordsOperation>(std::move(saves), std::move(deletions));
    operation->savePolicy = policy;
    operation->isAtomic = atomic;
    operation->modifyRecordsCompletionBlock = [&](auto saved, auto deleted, std::exception_ptr error) {
      result.completed = true;
      result.error = error;
      result.saved = saved.value_or(std::vector<CKRecord>{});
      result.deleted = deleted.value_or(std::vector<CKRecordID>{});
    };
    device.database(scope).add(operation);
    env.pump();
    return result;
  }

  std::exception_ptr modifyZones(EmulatedContainer& device, std::vector<CKRecordZone> saves,
                                 std::vector<CKRecordZoneID> deletions = {}) {
    std::exception_ptr result;
    auto operation = std::make_shared<CKModifyRecordZonesOperation>(std::move(saves), std::move(deletions));
    operation->modifyRecordZonesCompletionBlock = [&](auto, auto, std::exception_ptr error) { result = error; };
    device.privateCloudDatabase().add(operation);
    env.pump();
    return result;
  }

  Fetched fetch(EmulatedContainer& device, const CKRecordZoneID& zone, std::optional<CKServerChangeToken> since,
                std::size_t limit = 0, bool all = true) {
    Fetched result;
    auto operation = std::make_shared<CKFetchRecordZoneChangesOperation>(
        std::vector{zone}, std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration>{{zone, {since, limit}}});
    operation->fetchAllChanges = all;
    operation->recordChangedBlock = [&](const CKRecord& record) {
      result.records.push_back(record);
      result.events.push_back(record.recordID().recordName + "=" + std::to_string(countOf(record)));
    };
    operation->recordWithIDWasDeletedBlock = [&](const CKRecordID& id, const std::string&) {
      result.events.push_back("-" + id.recordName);
    };
    operation->recordZoneChangeTokensUpdatedBlock = [&](auto&, auto, auto) { ++result.tokenUpdates; };
    operation->recordZoneFetchCompletionBlock = [&](auto&, auto token, auto, bool more, std::exception_ptr error) {
      ++result.zoneCompletions;
      result.token = token;
      result.moreComing = more;
      result.zoneError = error;
    };
    operation->fetchRecordZoneChangesCompletionBlock = [&](std::exception_ptr error) {
      result.completed = true;
      result.error = error;
    };
    device.privateCloudDatabase().add(operation);
    env.pump();
    return result;
  }

  // Changed and deleted zones, the final token, or the error.
  struct DatabaseFetched {
    std::vector<std::string> changed, deleted;
    std::optional<CKServerChangeToken> token;
    std::exception_ptr error;
  };
  DatabaseFetched fetchDatabase(EmulatedContainer& device, std::optional<CKServerChangeToken> since) {
    DatabaseFetched result;
    auto operation = std::make_shared<CKFetchDatabaseChangesOperation>(std::move(since));
    operation->resultsLimit = 1;
    operation->recordZoneWithIDChangedBlock = [&](auto& zone) { result.changed.push_back(zone.zoneName); };
    operation->recordZoneWithIDWasDeletedBlock = [&](auto& zone) { result.deleted.push_back(zone.zoneName); };
    operation->fetchDatabaseChangesCompletionBlock = [&](auto token, bool, std::exception_ptr error) {
      result.token = token;
      result.error = error;
    };
    device.privateCloudDatabase().add(operation);
    env.pump();
    return result;
  }

  void subscribe(EmulatedContainer& device, CKSubscription subscription,
                 CKDatabaseScope scope = CKDatabaseScope::privateScope) {
    auto operation = std::make_shared<CKModifySubscriptionsOperation>(std::vector{std::move(subscription)},
                                                                      std::vector<std::string>{});
    device.database(scope).add(operation);
    env.pump();
  }

  testing::TestEnvironment env;
  testing::ScratchCloud scratch;
  std::shared_ptr<DispatchQueue> queue = env.environment().makeQueue("cloud");
  std::shared_ptr<CloudEmulator> cloud = makeCloud();
  std::shared_ptr<EmulatedContainer> phone = cloud->container("phone", kApp);
  std::shared_ptr<EmulatedContainer> pad = cloud->container("pad", kApp);
};

INSTANTIATE_TEST_SUITE_P(Backings, CloudEmulatorTest,
                         ::testing::Values(Backing::memory, Backing::folder, Backing::server),
                         [](const auto& each) { return std::string(nameOf(each.param)); });

TEST_P(CloudEmulatorTest, AFetchFromATokenPagesTheLaterChangesInCommitOrderOneVersionEach) {
  ASSERT_FALSE(modifyZones(*phone, {CKRecordZone{kPickups}}));
  ASSERT_TRUE(modify(*phone, {pickup("a", 1), pickup("b", 1), pickup("c", 1)}).completed);
  const auto before = fetch(*pad, kPickups, std::nullopt);
  EXPECT_EQ(before.events, (std::vector<std::string>{"a=1", "b=1", "c=1"}));

  modify(*phone, {pickup("b", 2)}, {CKRecordID{"a", kPickups}});
  modify(*phone, {pickup("d", 1), pickup("b", 3)});
  const auto later = fetch(*pad, kPickups, before.token, 2);
  EXPECT_EQ(later.events, (std::vector<std::string>{"-a", "d=1", "b=3"}));
  EXPECT_EQ(later.tokenUpdates, 1);
  EXPECT_EQ(later.zoneCompletions, 1);
  EXPECT_TRUE(later.completed);
  EXPECT_FALSE(later.moreComing);
  EXPECT_FALSE(later.error);
  EXPECT_TRUE(fetch(*pad, kPickups, later.token).events.empty());

  // Without fetchAllChanges one page comes, and says that more is coming.
  // From nothing the deletions come too, for a client that starts over.
  const auto firstPage = fetch(*pad, kPickups, std::nullopt, 2, false);
  EXPECT_EQ(firstPage.events, (std::vector<std::string>{"c=1", "-a"}));
  EXPECT_TRUE(firstPage.moreComing);
  EXPECT_EQ(fetch(*pad, kPickups, firstPage.token).events, (std::vector<std::string>{"d=1", "b=3"}));
}

TEST_P(CloudEmulatorTest, BlocksRunOnTheCloudQueueAndFetchedRecordsCarryTheServersVersion) {
  auto operation = std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("a", 1)}, std::vector<CKRecordID>{});
  bool completed = false;
  operation->modifyRecordsResultBlock = [&](std::exception_ptr) { completed = true; };
  phone->privateCloudDatabase().add(operation);
  EXPECT_FALSE(completed);
  env.pump();
  EXPECT_TRUE(completed);
  EXPECT_TRUE(operation->isFinished());
  const auto unmade = modify(*phone, {pickup("a", 1)});
  EXPECT_EQ(ckError(unmade.error).partialErrorsByItemID()->at(0).second.code(), 26);

  modifyZones(*phone, {CKRecordZone{kPickups}});
  const auto saved = modify(*phone, {pickup("a", 1)});
  ASSERT_EQ(saved.saved.size(), 1u);
  const auto fetched = fetch(*pad, kPickups, std::nullopt).records;
  ASSERT_EQ(fetched.size(), 1u);
  EXPECT_EQ(fetched[0].recordChangeTag(), saved.saved[0].recordChangeTag());
  EXPECT_EQ(fetched[0].creationDate(), testing::defaultTestNow());
  EXPECT_TRUE(fetched[0].changedKeys().empty());

  env.clock().advance(60);
  const auto again = modify(*phone, {pickup("a", 2)});
  EXPECT_NE(again.saved[0].recordChangeTag(), saved.saved[0].recordChangeTag());
  EXPECT_EQ(again.saved[0].creationDate(), testing::defaultTestNow());
  EXPECT_EQ(again.saved[0].modificationDate(), testing::defaultTestNow() + 60);
}

TEST_P(CloudEmulatorTest, SavePoliciesMergeReplaceOrRefuse) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  CKRecord full("Pickup", CKRecordID{"a", kPickups});
  full.setObject("count", std::int64_t{1});
  full.setObject("note", std::string("x"));
  modify(*phone, {full});

  // Changed keys: the last writer wins field by field, and no value removes the field.
  CKRecord noteOnly("Pickup", CKRecordID{"a", kPickups});
  noteOnly.setObject("note", std::string("y"));
  modify(*pad, {noteOnly});
  CKRecord cleared("Pickup", CKRecordID{"a", kPickups});
  cleared.setObject("count", std::nullopt);
  modify(*phone, {cleared});
  auto held = cloud->records(CKDatabaseScope::privateScope);
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held[0].allKeys(), std::vector<std::string>{"note"});
  EXPECT_EQ(std::get<std::string>(*held[0].object("note")), "y");

  // All keys: the record as sent is all there is, its unchanged fields too.
  CKRecord replacement = held[0];
  replacement.setObject("count", std::int64_t{7});
  CKRecord other("Pickup", CKRecordID{"a", kPickups});
  other.setObject("note", std::string("z"));
  other.setObject("photoCount", std::int64_t{3});
  modify(*pad, {other});
  modify(*phone, {replacement}, {}, CKRecordSavePolicy::allKeys);
  held = cloud->records(CKDatabaseScope::privateScope);
  EXPECT_EQ(held[0].allKeys(), (std::vector<std::string>{"count", "note"}));
  EXPECT_EQ(std::get<std::string>(*held[0].object("note")), "y");

  // If unchanged: a record edited from an older version is refused, item by item.
  const auto stale = modify(*pad, {replacement}, {}, CKRecordSavePolicy::ifServerRecordUnchanged);
  ASSERT_EQ(code(stale.error), 2);
  EXPECT_EQ(ckError(stale.error).partialErrorsByItemID()->at(0).second.code(), 14);
  CKRecord fresh = cloud->records(CKDatabaseScope::privateScope)[0];
  fresh.setObject("count", std::int64_t{8});
  EXPECT_FALSE(modify(*pad, {fresh}, {}, CKRecordSavePolicy::ifServerRecordUnchanged).error);
  EXPECT_EQ(countOf(cloud->records(CKDatabaseScope::privateScope)[0]), 8);
}

TEST_P(CloudEmulatorTest, AnAtomicWriteFailsItsZoneAsAWholeAndLeavesOtherZonesBe) {
  modifyZones(*phone, {CKRecordZone{kPickups}, CKRecordZone{kTags}});
  CKRecord broken = pickup("broken", 1);
  broken.setObject("photo", CKAsset{env.root() / "missing.jpg"});
  const CKRecordZoneID nowhere{"NowhereZone", std::string(CKCurrentUserDefaultName)};

  const auto atomic = modify(*phone, {pickup("good", 1), broken, pickup("tag", 1, kTags), pickup("lost", 1, nowhere)},
                             {CKRecordID{"gone", kPickups}});
  ASSERT_EQ(code(atomic.error), 2);
  std::map<std::string, int> codes;
  const CKError failure = ckError(atomic.error);
  for (const auto& [id, error] : *failure.partialErrorsByItemID()) codes[id.recordName] = error.code();
  EXPECT_EQ(codes, (std::map<std::string, int>{{"good", 22}, {"broken", 16}, {"gone", 22}, {"lost", 26}}));
  EXPECT_EQ(namesOf(atomic.saved), std::vector<std::string>{"tag"});
  EXPECT_EQ(namesOf(cloud->records(CKDatabaseScope::privateScope)), std::vector<std::string>{"tag"});

  const auto loose = modify(*phone, {pickup("good", 1), broken}, {}, CKRecordSavePolicy::changedKeys, false);
  EXPECT_EQ(ckError(loose.error).partialErrorsByItemID()->size(), 1u);
  EXPECT_EQ(namesOf(cloud->records(CKDatabaseScope::privateScope)), (std::vector<std::string>{"good", "tag"}));
}

TEST_P(CloudEmulatorTest, MoreThanTheRequestLimitFailsWholeAndWritesNothing) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  std::vector<CKRecord> records;
  for (int index = 0; index < 400; ++index) records.push_back(pickup("p" + std::to_string(index), index));
  const auto tooMany = modify(*phone, records, {CKRecordID{"x", kPickups}});
  EXPECT_EQ(code(tooMany.error), 27);
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope).empty());
  EXPECT_FALSE(modify(*phone, records).error);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope).size(), 400u);

  const auto requests = cloud->requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].deviceID, "phone");
  EXPECT_EQ(requests[1].kind, CKOperationKind::modifyRecords);
  EXPECT_EQ(requests[1].recordsToSave, 400u);
  EXPECT_EQ(requests[1].recordIDsToDelete, 1u);
  EXPECT_EQ(requests[1].errorCode, 27);
  EXPECT_EQ(requests[2].errorCode, 0);
}

TEST_P(CloudEmulatorTest, ExpiredTokensAreRefusedUntilAFetchStartsOver) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  modify(*phone, {pickup("a", 1)});
  const auto zoneToken = fetch(*pad, kPickups, std::nullopt).token;
  const auto databaseToken = fetchDatabase(*pad, std::nullopt).token;
  EXPECT_FALSE(fetch(*pad, kPickups, zoneToken).zoneError);

  cloud->expireTokens();
  const auto expired = fetch(*pad, kPickups, zoneToken);
  EXPECT_EQ(code(expired.zoneError), 21);
  EXPECT_EQ(code(expired.error), 2);
  EXPECT_EQ(code(fetchDatabase(*pad, databaseToken).error), 21);

  const auto again = fetch(*pad, kPickups, std::nullopt);
  EXPECT_EQ(again.events, std::vector<std::string>{"a=1"});
  EXPECT_FALSE(fetch(*pad, kPickups, again.token).zoneError);
  EXPECT_FALSE(fetchDatabase(*pad, fetchDatabase(*pad, std::nullopt).token).error);
}

TEST_P(CloudEmulatorTest, DatabaseChangesNameTheZonesChangedAndDeletedSinceAToken) {
  const auto start = fetchDatabase(*pad, std::nullopt);
  EXPECT_TRUE(start.changed.empty());
  modifyZones(*phone, {CKRecordZone{kPickups}, CKRecordZone{kTags}});
  modify(*phone, {pickup("a", 1)});
  const auto created = fetchDatabase(*pad, start.token);
  EXPECT_EQ(created.changed, (std::vector<std::string>{"TagsZone", "PickupsZone"}));

  modify(*phone, {pickup("t", 1, kTags)});
  modifyZones(*phone, {}, {kPickups});
  const auto later = fetchDatabase(*pad, created.token);
  EXPECT_EQ(later.changed, std::vector<std::string>{"TagsZone"});
  EXPECT_EQ(later.deleted, std::vector<std::string>{"PickupsZone"});
  EXPECT_TRUE(fetchDatabase(*pad, later.token).changed.empty());
}

TEST_P(CloudEmulatorTest, AZoneTheUserDeletedRefusesSavesAndFetchesUntilMadeAgain) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  modify(*phone, {pickup("a", 1)});
  const auto oldToken = fetch(*pad, kPickups, std::nullopt).token;

  cloud->deleteZone(CKDatabaseScope::privateScope, kPickups);
  const auto save = modify(*phone, {pickup("b", 1)});
  EXPECT_EQ(ckError(save.error).partialErrorsByItemID()->at(0).second.code(), 28);
  EXPECT_EQ(code(fetch(*pad, kPickups, std::nullopt).zoneError), 28);
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope).empty());
  EXPECT_EQ(cloud->zones(CKDatabaseScope::privateScope).size(), 1u);  // the default zone

  modifyZones(*phone, {CKRecordZone{kPickups}});
  EXPECT_FALSE(modify(*phone, {pickup("b", 1)}).error);
  EXPECT_EQ(code(fetch(*pad, kPickups, oldToken).zoneError), 21);
  EXPECT_EQ(fetch(*pad, kPickups, std::nullopt).events, std::vector<std::string>{"b=1"});

  // Deleting what is not there succeeds and changes nothing.
  const auto token = fetch(*pad, kPickups, std::nullopt).token;
  const auto absent = modify(*phone, {}, {CKRecordID{"never", kPickups}});
  EXPECT_FALSE(absent.error);
  EXPECT_EQ(absent.deleted.size(), 1u);
  EXPECT_TRUE(fetch(*pad, kPickups, token).events.empty());
}

TEST_P(CloudEmulatorTest, ACommitLeavesOneSilentPushPerOtherDeviceAndSubscription) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  subscribe(*phone, CKDatabaseSubscription{"private_changes", {true}});
  auto mac = cloud->container("mac", kApp);
  std::vector<nlohmann::json> phonePushes, padPushes, macPushes;
  phone->setRemoteNotificationHandler([&](const nlohmann::json& info) { phonePushes.push_back(info); });
  pad->setRemoteNotificationHandler([&](const nlohmann::json& info) { padPushes.push_back(info); });

  // Two commits before the pad hears anything make one push.
  auto operation = std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("a", 1)}, std::vector<CKRecordID>{});
  phone->privateCloudDatabase().add(operation);
  EXPECT_FALSE(modify(*phone, {pickup("b", 1)}).error);
  EXPECT_TRUE(phonePushes.empty());
  ASSERT_EQ(padPushes.size(), 1u);
  const auto notification = CKNotification::fromRemoteNotificationDictionary(padPushes[0]);
  ASSERT_TRUE(notification);
  EXPECT_EQ(notification->subscriptionID(), "private_changes");
  EXPECT_EQ(notification->notificationType(), CKNotification::Type::database);
  EXPECT_EQ(notification->databaseScope(), CKDatabaseScope::privateScope);

  // The mac has no handler yet: its push waits for one.
  EXPECT_EQ(mac->pendingPushCount(), 1u);
  mac->setRemoteNotificationHandler([&](const nlohmann::json& info) { macPushes.push_back(info); });
  env.pump();
  EXPECT_EQ(macPushes.size(), 1u);
  EXPECT_EQ(mac->pendingPushCount(), 0u);

  // One of the next four pushes is lost.
  cloud->dropPushes(1);
  modify(*phone, {pickup("c", 1)});
  modify(*phone, {pickup("d", 1)});
  EXPECT_EQ(padPushes.size() + macPushes.size(), 5u);
  EXPECT_TRUE(phonePushes.empty());
}

TEST_P(CloudEmulatorTest, AQuerySubscriptionFiresForItsTypeAndItsKindsOfChange) {
  subscribe(*phone, CKQuerySubscription{"Tag", "tags", CKQuerySubscription::firesOnRecordDeletion, {true}},
            CKDatabaseScope::publicScope);
  std::vector<nlohmann::json> pushes;
  pad->setRemoteNotificationHandler([&](const nlohmann::json& info) { pushes.push_back(info); });
  const auto zone = CKRecordZoneID::defaultZone();
  CKRecord tag("Tag", CKRecordID{"work", zone});
  tag.setObject("title", std::string("Work"));
  modify(*phone, {tag, pickup("p", 1, zone)}, {}, CKRecordSavePolicy::changedKeys, true, CKDatabaseScope::publicScope);
  modify(*phone, {}, {CKRecordID{"p", zone}}, CKRecordSavePolicy::changedKeys, true, CKDatabaseScope::publicScope);
  EXPECT_TRUE(pushes.empty());
  modify(*phone, {}, {tag.recordID()}, CKRecordSavePolicy::changedKeys, true, CKDatabaseScope::publicScope);
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(CKNotification::fromRemoteNotificationDictionary(pushes[0])->notificationType(),
            CKNotification::Type::query);
  EXPECT_EQ(pushes[0]["ck"]["qry"]["rid"], "work");
  EXPECT_EQ(pushes[0]["ck"]["qry"]["fo"], 3);
}

TEST_P(CloudEmulatorTest, AFaultFailsTheNextOperationsOfItsKindWithoutTouchingTheServer) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  cloud->addFault({static_cast<int>(CKErrorCode::zoneBusy), 2.5, 2, CKOperationKind::modifyRecords});
  EXPECT_FALSE(fetch(*pad, kPickups, std::nullopt).error);
  for (int attempt = 0; attempt < 2; ++attempt) {
    const auto refused = modify(*phone, {pickup("a", 1)});
    ASSERT_EQ(code(refused.error), 23);
    EXPECT_EQ(std::get<double>(*ckError(refused.error).retryAfter()), 2.5);
  }
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope).empty());
  EXPECT_FALSE(modify(*phone, {pickup("a", 1)}).error);
  EXPECT_TRUE(cloud->faults().empty());

  // A code the platform does not name, on any kind, without retry-after.
  cloud->addFault({99, std::nullopt, 1, std::nullopt});
  EXPECT_EQ(cloud->faults().size(), 1u);
  const auto fetched = fetch(*pad, kPickups, std::nullopt);
  EXPECT_EQ(code(fetched.zoneError), 99);
  EXPECT_EQ(code(fetched.error), 99);
  EXPECT_FALSE(ckError(fetched.error).retryAfter());
  EXPECT_EQ(cloud->requests().back().errorCode, 99);
}

TEST_P(CloudEmulatorTest, ADroppedCompletionRunsOnTheServerButNeverCallsBack) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  cloud->dropCompletions(2);
  const auto save = modify(*phone, {pickup("a", 1)});
  EXPECT_FALSE(save.completed);
  EXPECT_EQ(cloud->records(CKDatabaseScope::privateScope).size(), 1u);

  // A fetch still hands over its records; only its ends are lost.
  const auto fetched = fetch(*pad, kPickups, std::nullopt);
  EXPECT_EQ(fetched.events, std::vector<std::string>{"a=1"});
  EXPECT_EQ(fetched.zoneCompletions, 0);
  EXPECT_FALSE(fetched.completed);
  EXPECT_TRUE(modify(*phone, {pickup("b", 1)}).completed);
}

TEST_P(CloudEmulatorTest, ALongLivedOperationOutlivesItsContainerUntilItsCompletionArrives) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  CKRecord edited = CKRecord::fromServer("Pickup", CKRecordID{"a", kPickups}, {{"count", std::int64_t{1}}}, "tag1",
                                         testing::defaultTestNow(), testing::defaultTestNow());
  edited.setObject("note", std::string("kept"));
  auto operation = std::make_shared<CKModifyRecordsOperation>(std::vector{edited, pickup("b", 2)},
                                                              std::vector{CKRecordID{"c", kPickups}});
  operation->configuration.isLongLived = true;
  operation->savePolicy = CKRecordSavePolicy::allKeys;
  operation->isAtomic = false;
  const std::string id = operation->operationID;
  cloud->dropCompletions(1);
  phone->privateCloudDatabase().add(operation);
  env.pump();
  phone.reset();
  phone = cloud->container("phone", kApp);

  std::optional<std::vector<std::string>> ids;
  const auto listIDs = [&] {
    ids.reset();
    phone->fetchAllLongLivedOperationIDs([&](auto found, std::exception_ptr) { ids = found; });
    env.pump();
    return ids.value_or(std::vector<std::string>{"?"});
  };
  const auto rebuild = [&] {
    std::shared_ptr<CKModifyRecordsOperation> found;
    phone->fetchLongLivedOperation(id, [&](std::shared_ptr<CKOperation> each, std::exception_ptr) {
      found = std::dynamic_pointer_cast<CKModifyRecordsOperation>(each);
    });
    env.pump();
    return found;
  };
  EXPECT_EQ(listIDs(), std::vector<std::string>{id});
  auto resumed = rebuild();
  ASSERT_TRUE(resumed);
  EXPECT_EQ(resumed->operationID, id);
  EXPECT_EQ(resumed->recordsToSave, operation->recordsToSave);
  EXPECT_EQ(resumed->recordIDsToDelete, operation->recordIDsToDelete);
  EXPECT_EQ(resumed->savePolicy, CKRecordSavePolicy::allKeys);
  EXPECT_FALSE(resumed->isAtomic);
  EXPECT_TRUE(resumed->configuration.isLongLived);
  EXPECT_FALSE(resumed->isFinished());

  // Cancelled before it is added again: it ends at once and is forgotten.
  std::exception_ptr error;
  resumed->modifyRecordsResultBlock = [&](std::exception_ptr each) { error = each; };
  resumed->cancel();
  phone->privateCloudDatabase().add(resumed);
  env.pump();
  EXPECT_EQ(code(error), 20);
  EXPECT_TRUE(listIDs().empty());

  // A completion that arrives forgets it too.
  auto another = std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("d", 1)}, std::vector<CKRecordID>{});
  another->configuration.isLongLived = true;
  phone->privateCloudDatabase().add(another);
  env.pump();
  EXPECT_TRUE(listIDs().empty());
}

TEST_P(CloudEmulatorTest, ADeviceWithoutAnAvailableAccountRunsNothing) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  int posts = 0;
  auto observer = NotificationCenter::defaultCenter().addObserver(std::string(CKAccountChangedNotification), nullptr,
                                                                  [&](const Notification&) { ++posts; });
  pad->setAccountStatus(CKAccountStatus::noAccount);
  pad->setAccountStatus(CKAccountStatus::noAccount);
  env.pump();
  EXPECT_EQ(posts, 1);
  std::optional<CKAccountStatus> status;
  pad->accountStatus([&](CKAccountStatus each, std::exception_ptr) { status = each; });
  env.pump();
  EXPECT_EQ(status, CKAccountStatus::noAccount);
  EXPECT_EQ(code(modify(*pad, {pickup("a", 1)}).error), 9);
  EXPECT_EQ(code(fetch(*pad, kPickups, std::nullopt).error), 9);
  EXPECT_FALSE(modify(*phone, {pickup("a", 1)}).error);

  pad->setAccountStatus(CKAccountStatus::available);
  EXPECT_FALSE(modify(*pad, {pickup("b", 1)}).error);
  // A second container of the device keeps what was forced for it.
  pad->setAccountStatus(CKAccountStatus::restricted);
  pad.reset();
  pad = cloud->container("pad", kApp);
  EXPECT_EQ(code(modify(*pad, {pickup("c", 1)}).error), 9);
}

TEST_P(CloudEmulatorTest, AQueryPagesTheRecordsOfATypeInTheOrderTheyWereFirstSaved) {
  const auto zone = CKRecordZoneID::defaultZone();
  const auto publicSave = [&](std::vector<CKRecord> saves, std::vector<CKRecordID> deletions = {}) {
    modify(*phone, std::move(saves), std::move(deletions), CKRecordSavePolicy::changedKeys, true,
           CKDatabaseScope::publicScope);
  };
  publicSave({pickup("z", 1, zone), pickup("y", 1, zone), pickup("x", 1, zone), pickup("w", 1, zone)});
  publicSave({pickup("z", 2, zone)}, {CKRecordID{"y", zone}});
  CKRecord other("Tag", CKRecordID{"t", zone});
  other.setObject("count", std::int64_t{0});
  publicSave({other});

  std::vector<std::string> seen;
  std::optional<CKQueryCursor> cursor;
  int pages = 0;
  do {
    auto operation =
        cursor ? std::make_shared<CKQueryOperation>(*cursor) : std::make_shared<CKQueryOperation>(CKQuery{"Pickup"});
    operation->resultsLimit = 2;
    operation->recordFetchedBlock = [&](const CKRecord& record) {
      seen.push_back(record.recordID().recordName + "=" + std::to_string(countOf(record)));
    };
    operation->queryCompletionBlock = [&](auto next, std::exception_ptr error) {
      EXPECT_FALSE(error);
      cursor = next;
    };
    pad->publicCloudDatabase().add(operation);
    env.pump();
  } while (cursor && ++pages < 5);
  EXPECT_EQ(seen, (std::vector<std::string>{"z=2", "x=1", "w=1"}));
  EXPECT_TRUE(cloud->records(CKDatabaseScope::privateScope).empty());
  EXPECT_EQ(namesOf(cloud->records(CKDatabaseScope::publicScope, "Tag")), std::vector<std::string>{"t"});
}

TEST_P(CloudEmulatorTest, FieldValuesComeBackExactlyAndAssetsAsFilesOfTheirBytes) {
  modifyZones(*phone, {CKRecordZone{kPickups}});
  const auto photo = env.root() / "photo.jpg";
  std::ofstream(photo, std::ios::binary) << std::string("\xff\xd8jpeg\0bytes", 11);
  const CKReference owner{CKRecordID{"owner", kTags}, CKReferenceAction::deleteSelf};
  CKRecord record("Pickup", CKRecordID{"a", kPickups});
  const double third = 1.0 / 3.0;
  record.setObject("count", std::int64_t{-9007199254740993});
  record.setObject("ratio", third);
  record.setObject("negativeZero", -0.0);
  record.setObject("title", std::string("Zürich \"quoted\"\n"));
  record.setObject("bytes", Data{0, 1, 255});
  record.setObject("start", Date::fromTimeIntervalSinceReferenceDate(815000000.123456789));
  record.setObject("owner", owner);
  record.setObject("photo", CKAsset{photo});
  record.setObject("counts", std::vector<std::int64_t>{1, -2, 3});
  record.setObject("ratios", std::vector<double>{0.1, 1e308});
  record.setObject("names", std::vector<std::string>{"", "b"});
  record.setObject("blobs", std::vector<Data>{{}, {7}});
  record.setObject("dates", std::vector<Date>{Date(), Date::distantFuture()});
  record.setObject("owners", std::vector<CKReference>{owner});
  record.setObject("photos", std::vector<CKAsset>{CKAsset{photo}});
  ASSERT_FALSE(modify(*phone, {record}).error);
  std::filesystem::remove(photo);

  const auto fetched = fetch(*pad, kPickups, std::nullopt).records.at(0);
  EXPECT_EQ(fetched.allKeys(), record.allKeys());
  for (const auto& key : record.allKeys()) {
    if (key == "photo" || key == "photos") continue;
    EXPECT_EQ(*fetched.object(key), *record.object(key)) << key;
  }
  EXPECT_EQ(std::bit_cast<std::uint64_t>(std::get<double>(*fetched.object("negativeZero"))),
            std::bit_cast<std::uint64_t>(-0.0));
  const auto asset = std::get<CKAsset>(*fetched.object("photo"));
  ASSERT_TRUE(asset.fileURL);
  std::ifstream in(*asset.fileURL, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string("\xff\xd8jpeg\0bytes", 11));
  EXPECT_EQ(std::filesystem::status(*asset.fileURL).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
      << "an asset is the user's alone";
  EXPECT_EQ(std::get<std::vector<CKAsset>>(*fetched.object("photos")).size(), 1u);
}

// Two emulators on one folder stand for two processes of two installations.
class CloudFolderTest : public testing::EnvironmentTest {
 protected:
  std::shared_ptr<DispatchQueue> queue = env.environment().makeQueue("cloud");
  std::filesystem::path folder = env.root() / "cloud";
};

TEST_F(CloudFolderTest, TwoProcessesShareRecordsPushesFaultsAndAccounts) {
  auto first = CloudEmulator::open(folder, true, queue);
  auto second = CloudEmulator::open(folder, false, queue);
  auto phone = first->container("phone", kApp);
  auto pad = second->container("pad", kApp);
  std::vector<nlohmann::json> pushes;
  pad->setRemoteNotificationHandler([&](const nlohmann::json& info) { pushes.push_back(info); });

  auto subscription = std::make_shared<CKModifySubscriptionsOperation>(
      std::vector<CKSubscription>{CKDatabaseSubscription{"private_changes", {true}}}, std::vector<std::string>{});
  pad->privateCloudDatabase().add(subscription);
  auto zone = std::make_shared<CKModifyRecordZonesOperation>(std::vector{CKRecordZone{kPickups}},
                                                             std::vector<CKRecordZoneID>{});
  phone->privateCloudDatabase().add(zone);
  env.pump();
  phone->privateCloudDatabase().add(
      std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("a", 1)}, std::vector<CKRecordID>{}));
  env.pump();

  EXPECT_EQ(namesOf(second->records(CKDatabaseScope::privateScope)), std::vector<std::string>{"a"});
  // The pad runs in another process: its push waits in the folder until handed over.
  EXPECT_TRUE(pushes.empty());
  EXPECT_EQ(pad->pendingPushCount(), 1u);
  EXPECT_EQ(pad->deliverPendingPushes(), 1u);
  env.pump();
  EXPECT_EQ(pushes.size(), 1u);

  second->addFault({static_cast<int>(CKErrorCode::serviceUnavailable), 1.0, 1, CKOperationKind::modifyRecords});
  EXPECT_EQ(first->faults().size(), 1u);
  std::exception_ptr error;
  auto refused = std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("b", 1)}, std::vector<CKRecordID>{});
  refused->modifyRecordsResultBlock = [&](std::exception_ptr each) { error = each; };
  phone->privateCloudDatabase().add(refused);
  env.pump();
  EXPECT_EQ(code(error), 6);
  EXPECT_EQ(second->requests().back().deviceID, "phone");

  first->container("pad", kApp)->setAccountStatus(CKAccountStatus::temporarilyUnavailable);
  std::optional<CKAccountStatus> status;
  pad->accountStatus([&](CKAccountStatus each, std::exception_ptr) { status = each; });
  env.pump();
  EXPECT_EQ(status, CKAccountStatus::temporarilyUnavailable);

  // A long-lived operation left by a process that ended before it ran.
  auto longLived = std::make_shared<CKModifyRecordsOperation>(std::vector{pickup("c", 1)}, std::vector<CKRecordID>{});
  longLived->configuration.isLongLived = true;
  phone->privateCloudDatabase().add(longLived);
  phone.reset();
  first.reset();
  env.pump();
  auto relaunched = CloudEmulator::open(folder, false, queue)->container("phone", kApp);
  std::optional<std::vector<std::string>> ids;
  relaunched->fetchAllLongLivedOperationIDs([&](auto found, std::exception_ptr) { ids = found; });
  env.pump();
  EXPECT_EQ(ids, std::vector<std::string>{longLived->operationID});
}

TEST_F(CloudFolderTest, ProcessesWritingAtOnceAllGetThrough) {
  auto first = CloudEmulator::open(folder, true, env.environment().makeThreadQueue("first"));
  auto second = CloudEmulator::open(folder, false, env.environment().makeThreadQueue("second"));
  auto pad = first->container("pad", kApp);
  const std::vector writers{first->container("phone", kApp), second->container("mac", kApp)};

  // Shared with the cloud's threads, which may still hand over a push after the test is done.
  struct Tally {
    std::mutex mutex;
    std::condition_variable changed;
    int completions = 0;
    int failures = 0;
    std::atomic<int> pushes = 0;
  };
  auto tally = std::make_shared<Tally>();
  const auto settle = [&](int expected) {
    std::unique_lock lock(tally->mutex);
    return tally->changed.wait_for(lock, std::chrono::seconds(60), [&] { return tally->completions == expected; });
  };
  const auto done = [tally](std::exception_ptr error) {
    std::lock_guard lock(tally->mutex);
    ++tally->completions;
    tally->failures += error != nullptr;
    tally->changed.notify_all();
  };
  auto zone = std::make_shared<CKModifyRecordZonesOperation>(std::vector{CKRecordZone{kPickups}},
                                                             std::vector<CKRecordZoneID>{});
  zone->modifyRecordZonesCompletionBlock = [done](auto, auto, std::exception_ptr error) { done(error); };
  pad->privateCloudDatabase().add(zone);
  auto subscription = std::make_shared<CKModifySubscriptionsOperation>(
      std::vector<CKSubscription>{CKDatabaseSubscription{"private_changes", {true}}}, std::vector<std::string>{});
  subscription->modifySubscriptionsCompletionBlock = [done](auto, auto, std::exception_ptr error) { done(error); };
  pad->privateCloudDatabase().add(subscription);
  ASSERT_TRUE(settle(2));
  pad->setRemoteNotificationHandler([tally](const nlohmann::json&) { ++tally->pushes; });

  constexpr int kThreads = 4, kOperations = 10, kRecords = 20;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int operation = 0; operation < kOperations; ++operation) {
        std::vector<CKRecord> records;
        for (int index = 0; index < kRecords; ++index) {
          records.push_back(
              pickup(std::to_string(thread) + "-" + std::to_string(operation) + "-" + std::to_string(index), index));
        }
        auto modify = std::make_shared<CKModifyRecordsOperation>(std::move(records), std::vector<CKRecordID>{});
        modify->configuration.isLongLived = true;
        modify->modifyRecordsResultBlock = done;
        writers[thread % 2]->privateCloudDatabase().add(modify);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(settle(2 + kThreads * kOperations));
  EXPECT_EQ(tally->failures, 0);
  EXPECT_EQ(first->records(CKDatabaseScope::privateScope).size(), std::size_t{kThreads * kOperations * kRecords});
  EXPECT_EQ(second->requests().size(), std::size_t{2 + kThreads * kOperations});
}

TEST_F(CloudFolderTest, AFolderThatIsNotACloudIsRefusedAndLeftAlone) {
  EXPECT_THROW(CloudEmulator::open(folder, false, queue), CloudFolderError);
  EXPECT_FALSE(std::filesystem::exists(folder));

  std::filesystem::create_directories(folder);
  std::ofstream(folder / "notes.txt") << "mine";
  EXPECT_THROW(CloudEmulator::open(folder, true, queue), CloudFolderError);
  std::ofstream(folder / "cloud.sqlite") << "not a database, only text that is long enough to be read as a header";
  EXPECT_THROW(CloudEmulator::open(folder, true, queue), CloudFolderError);
  EXPECT_FALSE(CloudEmulator::isCloudFolder(folder));

  const auto other = env.root() / "other";
  std::filesystem::create_directories(other);
  sqlite::Connection(other / "cloud.sqlite").execute("CREATE TABLE t (x)");
  EXPECT_THROW(CloudEmulator::open(other, true, queue), CloudFolderError);
  EXPECT_FALSE(CloudEmulator::isCloudFolder(other));

  CloudEmulator::open(env.root() / "fresh", true, queue);
  EXPECT_TRUE(CloudEmulator::isCloudFolder(env.root() / "fresh"));
  EXPECT_TRUE(CloudEmulator::open(env.root() / "fresh", false, queue));
}

// The cloud holds every record the user has: the folder the library makes
// and every file of the database in it are the user's alone, whatever the
// umask.
TEST_F(CloudFolderTest, TheFolderAndItsFilesAreTheUsersAlone) {
  const mode_t old = ::umask(022);
  auto cloud = CloudEmulator::open(folder, true, queue);
  ::umask(old);
  cloud->container("phone", "app");
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(folder).permissions(), perms::owner_all);
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    EXPECT_EQ(entry.status().permissions(), perms::owner_read | perms::owner_write) << entry.path();
    ++files;
  }
  EXPECT_GE(files, 1u);
}

}  // namespace
}  // namespace tarnwell

#include "tarnwell/sync/SyncObject.h"

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/sync/RecordConformances.h"

namespace tarnwell::testing {
namespace {

using sync::SyncObject;

// What the sync object hands to the engine, call by call.
struct Pushed {
  std::vector<std::string> stored;
  std::vector<std::string> deleted;
};

class SyncObjectTest : public EnvironmentTest {
 protected:
  SyncObjectTest() {
    configuration.fileURL = env.root() / "sync.realm";
    configuration.schemaVersion = 1;
    configuration.tables = {store::tableSchema<Pickup>()};
  }

  std::shared_ptr<SyncObject<Pickup>> makeObject(bool canPause = true) {
    auto object = std::make_shared<SyncObject<Pickup>>(configuration, canPause);
    object->setPipeToEngine([this](std::vector<CKRecord> records, std::vector<CKRecordID> ids) {
      Pushed call;
      for (const auto& record : records) call.stored.push_back(record.recordID().recordName);
      for (const auto& id : ids) call.deleted.push_back(id.recordName);
      pushes.push_back(std::move(call));
    });
    object->registerLocalDatabase();
    env.pump();  // the initial delivery, which pushes nothing
    return object;
  }

  std::string write(Pickup pickup) {
    store::Store::open(configuration).write([&](auto& t) { t.add(pickup); });
    env.pump();
    return *pickup.id;
  }
  Pickup pickup(int minute) {
    const Date start = env.clock().now() + minute * 60.0;
    return Pickup(start, start + 60);
  }
  CKRecord cloudRecord(const Pickup& from) {
    auto store = store::Store::open(configuration);
    return sync::record(from, store);
  }

  store::StoreConfiguration configuration;
  std::vector<Pushed> pushes;
};

TEST_F(SyncObjectTest, LocalInsertsAndEditsArePushedAndARecordFromTheCloudIsNot) {
  auto object = makeObject();
  const std::string id = write(pickup(0));
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].stored, std::vector<std::string>{id});

  Pickup remote = pickup(10);
  remote.deviceId = "OTHER";
  object->add(cloudRecord(remote));
  env.pump();
  EXPECT_EQ(pushes.size(), 1u) << "a record from the cloud went back";
  const auto stored = store::Store::open(configuration).object<Pickup>(*remote.id);
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, remote);

  // Another observer of the class still hears the write: only the sync object is kept out.
  int heard = 0;
  auto other = store::Store::open(configuration).observe<Pickup>([&heard](const store::ChangeSet& changes) {
    if (!changes.isInitial) ++heard;
  });
  env.pump();
  remote.isIgnoredForSleepTime = true;
  object->add(cloudRecord(remote));
  env.pump();
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(pushes.size(), 1u);
}

TEST_F(SyncObjectTest, ASoftDeletionPushesADeletionAndTheRowStaysUntilCleanUp) {
  auto object = makeObject();
  Pickup gone = pickup(0);
  write(gone);
  gone.isDeleted = true;
  write(gone);
  ASSERT_EQ(pushes.size(), 2u);
  EXPECT_TRUE(pushes[1].stored.empty());
  EXPECT_EQ(pushes[1].deleted, std::vector<std::string>{*gone.id});
  EXPECT_TRUE(store::Store::open(configuration).object<Pickup>(*gone.id));

  // Rows removed for good report deletion keys only, which push nothing.
  const std::string kept = write(pickup(5));
  object->cleanUp();
  env.pump();
  EXPECT_FALSE(store::Store::open(configuration).object<Pickup>(*gone.id));
  EXPECT_TRUE(store::Store::open(configuration).object<Pickup>(kept));
  EXPECT_EQ(pushes.size(), 3u);
}

TEST_F(SyncObjectTest, ACloudDeletionRemovesTheRowForGoodWithoutAnEcho) {
  auto object = makeObject();
  const Pickup local = pickup(0);
  write(local);
  object->deleteRecord(sync::recordID(local));
  object->deleteRecord(CKRecordID{"NO-SUCH-ID", sync::zoneID<Pickup>()});
  env.pump();
  EXPECT_FALSE(store::Store::open(configuration).object<Pickup>(*local.id));
  EXPECT_EQ(pushes.size(), 1u);
}

TEST_F(SyncObjectTest, ChangesDuringAPauseLeaveOnlyWithALaterPush) {
  auto pausable = makeObject(true);
  pausable->pause();
  const std::string during = write(pickup(0));
  EXPECT_TRUE(pushes.empty());
  pausable->resume();
  EXPECT_TRUE(pushes.empty()) << "a resume does not replay what the pause dropped";

  Pickup deleted = pickup(3);
  deleted.isDeleted = true;
  write(deleted);
  pushes.clear();
  pausable->pushLocalObjectsToCloudKit();
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].stored, std::vector<std::string>{during}) << "deleted rows are not pushed by this path";
  EXPECT_TRUE(pushes[0].deleted.empty());
}

TEST_F(SyncObjectTest, AClassThatMayNotPauseKeepsPushingAndAnUnregisteredOneIsSilent) {
  auto focusLike = makeObject(false);
  focusLike->pause();
  EXPECT_FALSE(focusLike->isPaused());
  write(pickup(0));
  EXPECT_EQ(pushes.size(), 1u);

  focusLike->unregisterLocalDatabase();
  write(pickup(2));
  EXPECT_EQ(pushes.size(), 1u);
}

TEST_F(SyncObjectTest, TokensAndZoneFlagsAreKeptPerClass) {
  auto object = makeObject();
  EXPECT_FALSE(object->zoneChangesToken());
  EXPECT_FALSE(object->isCustomZoneCreated());
  object->setZoneChangesToken(CKServerChangeToken("zone-7"));
  object->setIsCustomZoneCreated(true);
  auto& defaults = UserDefaults::standard();
  EXPECT_TRUE(defaults.contains("Pickupcloudsync.keys.zoneChangesTokenKey"));
  EXPECT_TRUE(defaults.boolForKey("Pickupcloudsync.keys.hasCustomZoneCreatedKey"));
  EXPECT_EQ(*object->zoneChangesToken(), CKServerChangeToken("zone-7"));
  // Bytes that are no archive read as no token; setting none removes the key.
  defaults.set("Pickupcloudsync.keys.zoneChangesTokenKey", Data{1, 2, 3});
  EXPECT_FALSE(object->zoneChangesToken());
  object->setZoneChangesToken(std::nullopt);
  EXPECT_FALSE(defaults.contains("Pickupcloudsync.keys.zoneChangesTokenKey"));
  EXPECT_EQ(object->recordType(), "Pickup");
  EXPECT_EQ(object->zoneID().zoneName, "PickupsZone");
}

}  // namespace
}  // namespace tarnwell::testing

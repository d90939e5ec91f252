#include "tarnwell/sync/SyncObject.h"

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/store/Outbox.h"
#include "tarnwell/sync/RecordConformances.h"

namespace tarnwell::testing {
namespace {

using sync::SyncObject;

// What the sync object hands to the engine, call by call.
struct Pushed {
  std::vector<std::string> stored;
  std::vector<std::string> deleted;
  sync::OutgoingChanges changes;
};

class SyncObjectTest : public EnvironmentTest {
 protected:
  SyncObjectTest() {
    configuration.fileURL = env.root() / "sync.realm";
    configuration.schemaVersion = 1;
    configuration.tables = {store::tableSchema<Pickup>()};
    configuration.outboxClasses = {"Pickup"};
  }

  std::shared_ptr<SyncObject<Pickup>> makeObject(bool canPause = true) {
    auto object = std::make_shared<SyncObject<Pickup>>(configuration, canPause);
    object->setPipeToEngine([this](sync::OutgoingChanges changes) {
      Pushed call;
      for (const auto& record : changes.recordsToStore) call.stored.push_back(record.recordID().recordName);
      for (const auto& id : changes.recordIDsToDelete) call.deleted.push_back(id.recordName);
      call.changes = std::move(changes);
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
  template <class Record>
  CKRecord cloudRecord(const Record& from) {
    auto store = store::Store::open(configuration);
    return sync::record(from, store);
  }
  std::size_t unsent() {
    auto store = store::Store::open(configuration);
    return store::Outbox(store.connection()).summary(store.outboxClasses()).count;
  }
  std::optional<Pickup> row(const std::string& id) { return store::Store::open(configuration).object<Pickup>(id); }

  store::StoreConfiguration configuration;
  std::vector<Pushed> pushes;
};

TEST_F(SyncObjectTest, ALocalChangeLeavesUntilAcknowledgedAndARecordFromTheCloudDoesNotGoBack) {
  auto object = makeObject();
  const std::string id = write(pickup(0));
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].stored, std::vector<std::string>{id});
  EXPECT_EQ(unsent(), 1u) << "an entry leaves only when the cloud has it";
  object->didSend(pushes[0].changes);
  EXPECT_EQ(unsent(), 0u);
  EXPECT_EQ(pushes.size(), 1u);

  Pickup remote = pickup(10);
  remote.deviceId = "OTHER";
  object->add(cloudRecord(remote));
  env.pump();
  EXPECT_EQ(pushes.size(), 1u) << "a record from the cloud went back";
  EXPECT_EQ(unsent(), 0u);
  ASSERT_TRUE(row(*remote.id));
  EXPECT_EQ(*row(*remote.id), remote);

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

TEST_F(SyncObjectTest, AnEditMadeWhileASaveIsOnItsWayIsSentAgainAfterIt) {
  auto object = makeObject();
  Pickup edited = pickup(0);
  write(edited);
  ASSERT_EQ(pushes.size(), 1u);
  edited.end = edited.end->addingTimeInterval(120);
  write(edited);
  EXPECT_EQ(pushes.size(), 1u) << "a record on its way is not sent twice at once";

  object->didSend(pushes[0].changes);
  ASSERT_EQ(pushes.size(), 2u) << "the acknowledgement of the older version kept the edit";
  EXPECT_EQ(pushes[1].stored, std::vector<std::string>{*edited.id});
  const auto* end = pushes[1].changes.recordsToStore.at(0).object("end");
  ASSERT_TRUE(end && std::holds_alternative<Date>(*end));
  EXPECT_EQ(std::get<Date>(*end), *edited.end) << "the row is read when it is sent";
  object->didSend(pushes[1].changes);
  EXPECT_EQ(unsent(), 0u);
}

TEST_F(SyncObjectTest, APauseHoldsChangesBackAndAFailedSendKeepsThemForTheNextDrain) {
  auto pausable = makeObject(true);
  pausable->pause();
  Pickup held = pickup(0);
  write(held);
  EXPECT_TRUE(pushes.empty());
  pausable->drainOutbox(false);
  EXPECT_TRUE(pushes.empty()) << "the stretch decides when, not whether";
  pausable->resume();
  pausable->drainOutbox(false);
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].stored, std::vector<std::string>{*held.id});

  // A failure keeps the entry; the retry reads the row as it is by then.
  pausable->didNotSend(pushes[0].changes, false);
  held.isDeleted = true;
  store::Store::open(configuration).write([&](auto& t) { t.add(held); });
  pausable->drainOutbox(false);
  ASSERT_EQ(pushes.size(), 2u);
  EXPECT_TRUE(pushes[1].stored.empty());
  EXPECT_EQ(pushes[1].deleted, std::vector<std::string>{*held.id}) << "it may be in the cloud: its deletion goes";
  pausable->cleanUp();
  EXPECT_TRUE(row(*held.id)) << "an unacknowledged deletion keeps its row";
  pausable->didSend(pushes[1].changes);
  pausable->cleanUp();
  EXPECT_FALSE(row(*held.id));
  EXPECT_EQ(unsent(), 0u);

  // A class that may not pause goes on; an unregistered one still keeps its changes.
  auto focusLike = makeObject(false);
  focusLike->pause();
  EXPECT_FALSE(focusLike->isPaused());
  focusLike->unregisterLocalDatabase();
  pausable->unregisterLocalDatabase();
  pushes.clear();
  const std::string unheard = write(pickup(4));
  EXPECT_TRUE(pushes.empty());
  EXPECT_EQ(unsent(), 1u);
  focusLike->drainOutbox(false);
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].stored, std::vector<std::string>{unheard});
}

TEST_F(SyncObjectTest, ARecordAddedAndDeletedBeforeItWasEverSentCostsNothing) {
  auto object = makeObject();
  object->pause();
  Pickup brief = pickup(0);
  write(brief);
  brief.isDeleted = true;
  write(brief);
  object->resume();
  object->drainOutbox(false);
  EXPECT_TRUE(pushes.empty());
  EXPECT_EQ(unsent(), 0u);
  object->cleanUp();
  EXPECT_FALSE(row(*brief.id));
}

TEST_F(SyncObjectTest, PullsNeverWriteOverUnsentWorkButACloudDeletionWins) {
  auto object = makeObject();
  object->pause();
  Pickup mine = pickup(0);
  write(mine);
  Pickup theirs = mine;
  theirs.end = theirs.end->addingTimeInterval(600);
  object->add(cloudRecord(theirs));
  env.pump();
  EXPECT_EQ(row(*mine.id)->end, mine.end) << "the fetched record wrote over an unsent edit";
  EXPECT_EQ(unsent(), 1u);

  object->deleteRecord(sync::recordID(mine));
  env.pump();
  EXPECT_FALSE(row(*mine.id));
  EXPECT_EQ(unsent(), 0u) << "the unsent edit would bring the deleted record back";

  // A record whose name is no key is refused, not stored without one.
  CKRecord nameless("Pickup", CKRecordID{"", sync::zoneID<Pickup>()});
  object->add(nameless);
  env.pump();
  EXPECT_TRUE(store::Store::open(configuration).objects<Pickup>().empty());
}

// A fetch from nothing, as after a zone was deleted and made again by a
// device holding older copies: what this device speaks for stays and is sent
// again; the rest follows the zone.
TEST_F(SyncObjectTest, AFetchFromNothingKeepsWhatThisDeviceSpeaksFor) {
  configuration.tables.push_back(store::tableSchema<Tag>());
  configuration.outboxClasses.push_back("Tag");
  auto pickups = makeObject();
  auto tags = std::make_shared<SyncObject<Tag>>(configuration);
  tags->setPipeToEngine([this](sync::OutgoingChanges changes) { pushes.push_back({{}, {}, std::move(changes)}); });
  tags->registerLocalDatabase();
  env.pump();

  Pickup recorded = pickup(0);
  Pickup copy = pickup(5);
  copy.deviceId = "OTHER";
  write(recorded);
  const auto sent = pushes.back().changes;
  pickups->didSend(sent);
  store::Store::open(configuration).write([&](auto& t) { t.add(copy); }, {}, store::Origin::elsewhere);
  Tag tag;
  tag.id = "TAG";
  tag.title = "Mine";
  store::Store::open(configuration).write([&](auto& t) { t.add(tag); });
  env.pump();
  const auto tagSent = pushes.back().changes;
  tags->didSend(tagSent);
  EXPECT_EQ(unsent(), 0u);
  // The echo of the tag leaves it this device's own.
  tags->add(cloudRecord(tag));
  env.pump();

  Pickup older = recorded;
  older.end = older.end->addingTimeInterval(-30);
  Tag olderTag = tag;
  olderTag.title = "Theirs";
  pushes.clear();
  pickups->willFetchChanges();
  tags->willFetchChanges();
  pickups->add(cloudRecord(older));
  tags->add(cloudRecord(olderTag));
  env.pump();
  pickups->didFetchChanges();
  tags->didFetchChanges();
  env.pump();
  EXPECT_EQ(row(*recorded.id)->end, recorded.end) << "an older copy undid the recorder's edit";
  EXPECT_EQ(store::Store::open(configuration).object<Tag>("TAG")->title, "Mine");
  EXPECT_FALSE(row(*copy.id)) << "another device's copy the zone no longer holds stays";
  EXPECT_EQ(unsent(), 2u);

  // Outside a fetch from nothing the cloud's copy of a tag wins.
  tags->drainOutbox(false);
  ASSERT_FALSE(pushes.empty());
  const auto resent = pushes.back().changes;
  EXPECT_EQ(resent.versions.front().first, "TAG");
  tags->didSend(resent);
  tags->setZoneChangesToken(CKServerChangeToken("zone-1"));
  tags->willFetchChanges();
  tags->add(cloudRecord(olderTag));
  env.pump();
  EXPECT_EQ(store::Store::open(configuration).object<Tag>("TAG")->title, "Theirs");
}

TEST_F(SyncObjectTest, RequestsHoldAtMostFourHundredItemsAndGetSmallerWhenTooLarge) {
  auto object = makeObject();
  object->pause();
  store::Store::open(configuration).write([&](auto& t) {
    for (int i = 0; i < 450; ++i) t.add(pickup(i));
  });
  env.pump();
  object->drainOutbox(true);
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].changes.size(), 400u);
  object->didNotSend(pushes[0].changes, true);
  object->drainOutbox(true);
  ASSERT_EQ(pushes.size(), 2u);
  EXPECT_EQ(pushes[1].changes.size(), 200u);
  object->drainOutbox(true);
  ASSERT_EQ(pushes.size(), 3u) << "a second request while the first is on its way";
  EXPECT_EQ(pushes[2].changes.size(), 200u);
  object->didSend(pushes[1].changes);  // goes on by itself with what is left
  object->didSend(pushes[2].changes);
  ASSERT_GE(pushes.size(), 4u);
  for (std::size_t i = 3; i < pushes.size(); ++i) object->didSend(pushes[i].changes);
  EXPECT_EQ(unsent(), 0u);

  // A full push sends every live row again, a request at a time.
  pushes.clear();
  object->pushLocalObjectsToCloudKit();
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].changes.size(), 400u);
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

// Records to cloud records and back: field encodings, keys, lists of links
// that wait for their elements, and asset files.

#include "tarnwell/sync/RecordMapping.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/TestEnvironment.h"
#include "sync/TestRecords.h"
#include "tarnwell/sync/SyncAsset.h"

namespace tarnwell::testing {

// A date as the key, in the shared database: nothing the mapping accepts.
struct Dated {
  static constexpr std::string_view className = "Dated";
  std::optional<Date> stamp;
  static constexpr auto properties() { return std::tuple{records::primaryKey("stamp", &Dated::stamp)}; }
};

}  // namespace tarnwell::testing

namespace tarnwell::sync {
template <>
struct CKRecordDatabaseScope<testing::Dated> : std::integral_constant<CKDatabaseScope, CKDatabaseScope::sharedScope> {};
}  // namespace tarnwell::sync

namespace tarnwell {
namespace {

using records::Ref;
using store::Store;
using testing::Dated;
using testing::Label;
using testing::Sample;
using testing::Shelf;

const Date t0 = testing::defaultTestNow();

CKReference reference(std::string name, std::string zone) {
  return CKReference{
      CKRecordID{std::move(name), CKRecordZoneID{std::move(zone), std::string(CKCurrentUserDefaultName)}},
      CKReferenceAction::none};
}

bool changed(const CKRecord& record, const std::string& key) {
  const auto keys = record.changedKeys();
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

class RecordMappingTest : public testing::EnvironmentTest {
 protected:
  RecordMappingTest() {
    sync::CloudSync::shared().setSink([this](const std::string& line) { logged.push_back(line); });
  }

  Store store() { return Store::open(configuration); }
  template <class R>
  void put(const R& record) {
    store().write([&](store::WriteTransaction& t) { t.add(record); });
  }

  // A sample with every property set, its link targets and elements stored.
  Sample fullSample() {
    put(Label{"L1", "home", false});
    put(Label{"L2", "work", false});
    put(Shelf{42, "top", false});
    put(Shelf{-7, "floor", false});
    Sample sample("S1");
    sample.text = "text";
    sample.note = "note";
    sample.count = -3;
    sample.rank = 1;
    sample.flag = false;
    sample.checked = true;
    sample.ratio = 0.25;
    sample.weight = 61.5;
    sample.when = t0;
    sample.due = t0 + 3600;
    sample.bytes = {0, 1, 255};
    sample.blob = Data{7};
    sample.words = {"a", "b"};
    sample.numbers = {3, -1};
    sample.label = Ref<Label>{"L2"};
    sample.labels = {{"L1"}, {"L2"}};
    sample.shelves = {{"-7"}, {"42"}};
    sample.photo = sync::createSyncAsset("S1", "photo", Data{1, 2, 3}, true);
    return sample;
  }

  store::StoreConfiguration configuration = testing::testRecordsConfiguration(env.root() / "records.sqlite");
  std::vector<std::string> logged;
};

TEST_F(RecordMappingTest, EveryKindOfPropertyTravelsAndComesBack) {
  const Sample sample = fullSample();
  auto s = store();
  CKRecord record = sync::record(sample, s);
  EXPECT_EQ(record.recordType(), "Sample");
  EXPECT_EQ(record.recordID(), reference("S1", "SamplesZone").recordID);
  EXPECT_EQ(record.allKeys().size(), 20u);
  // A class of the public database lives in the default zone.
  EXPECT_EQ(sync::recordID(Shelf{42, "top", false}), (CKRecordID{"42", CKRecordZoneID::defaultZone()}));

  EXPECT_EQ(*record.object("flag"), CKRecordValue(std::int64_t{0}));
  EXPECT_EQ(*record.object("checked"), CKRecordValue(std::int64_t{1}));
  EXPECT_EQ(*record.object("when"), CKRecordValue(t0));
  EXPECT_EQ(*record.object("label"), CKRecordValue(reference("L2", "LabelsZone")));
  // List references assume the private zone, even for a public class.
  EXPECT_EQ(*record.object("shelves"),
            CKRecordValue(std::vector<CKReference>{reference("-7", "ShelfsZone"), reference("42", "ShelfsZone")}));
  EXPECT_EQ(*record.object("photo"), CKRecordValue(CKAsset{sync::filePath(*sample.photo)}));

  // On the receiving side the asset is a downloaded file of its own.
  const auto download = env.root() / "download";
  std::filesystem::copy_file(sync::filePath(*sample.photo), download);
  std::filesystem::remove(sync::filePath(*sample.photo));
  record.setObject("photo", CKAsset{download});

  sync::PendingRelationshipsWorker<Label> labels;
  sync::PendingRelationshipsWorker<Shelf> shelves;
  const Sample back = sync::parseFromRecord<Sample, Label, Shelf>(record, s, &labels, &shelves);
  EXPECT_EQ(back, sample);
  EXPECT_EQ(sync::storedData(*back.photo), (Data{1, 2, 3}));
  EXPECT_TRUE(labels.pendingListElementPrimaryKeyValue().empty());
}

TEST_F(RecordMappingTest, AbsentValuesAndEmptyListsAreChangedKeysWithNoValue) {
  const Sample bare("S2");
  auto s = store();
  const CKRecord record = sync::record(bare, s);
  EXPECT_EQ(record.object("note"), nullptr);
  EXPECT_TRUE(changed(record, "note"));
  EXPECT_TRUE(changed(record, "label"));
  EXPECT_TRUE(changed(record, "photo"));
  // An emptied list must clear the cloud's, or the echo brings it back.
  for (const char* list : {"words", "numbers", "labels", "shelves"}) {
    EXPECT_TRUE(changed(record, list)) << list;
    EXPECT_EQ(record.object(list), nullptr) << list;
  }
  EXPECT_EQ(sync::parseFromRecord<Sample>(record, s), bare);
}

TEST_F(RecordMappingTest, IntegerKeysAreTheirDecimalText) {
  const Shelf shelf{42, "top", false};
  std::vector<store::ChangeSet> heard;
  auto token = store().observe<Shelf>([&](const store::ChangeSet& change) { heard.push_back(change); });
  put(shelf);
  env.pump();
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[1].insertions, std::vector<std::string>{"42"});
  EXPECT_EQ(store().object<Shelf>("42"), shelf);

  auto s = store();
  const CKRecord record = sync::record(shelf, s);
  EXPECT_EQ(record.recordID().recordName, "42");
  EXPECT_EQ(sync::primaryKey<Shelf>(record.recordID()), 42);
  EXPECT_EQ(sync::parseFromRecord<Shelf>(record, s), shelf);

  const auto key = [](const char* name) { return sync::primaryKey<Shelf>(CKRecordID{name, {}}); };
  EXPECT_EQ(key("+42"), 42);
  EXPECT_EQ(key("-42"), -42);
  for (const char* malformed : {"4a", "", "+", "-", "+-4", " 4", "4.0", "99999999999999999999"}) {
    EXPECT_EQ(key(malformed), std::nullopt) << malformed;
  }
  EXPECT_EQ(sync::primaryKeyText<Shelf>(CKRecordID{"+42", {}}), "42");
  EXPECT_EQ(sync::primaryKey<Label>(CKRecordID{"4a", {}}), "4a");
}

TEST_F(RecordMappingTest, ListsLeaveOutElementsThatAreGoneOrDeleted) {
  put(Label{"L1", "live", false});
  put(Label{"L2", "deleted", true});
  Sample sample("S1");
  sample.label = Ref<Label>{"L3"};
  sample.labels = {{"L2"}, {"L1"}, {"L3"}};
  auto s = store();
  CKRecord record = sync::record(sample, s);
  EXPECT_EQ(*record.object("labels"), CKRecordValue(std::vector<CKReference>{reference("L1", "LabelsZone")}));
  EXPECT_EQ(record.object("label"), nullptr);

  // Nothing left to send still sends the (empty) array: only an empty list has no field.
  sample.labels = {{"L2"}};
  record = sync::record(sample, s);
  EXPECT_EQ(*record.object("labels"), CKRecordValue(std::vector<CKReference>{}));
}

TEST_F(RecordMappingTest, AMissingListElementIsAppendedOnceItArrives) {
  put(Label{"L1", "here", false});
  CKRecord record("Sample", CKRecordID{"S1", {"SamplesZone", std::string(CKCurrentUserDefaultName)}});
  record.setObject("labels", std::vector<CKReference>{reference("L1", "LabelsZone"), reference("L2", "LabelsZone")});
  record.setObject("shelves", std::vector<CKReference>{reference("42", "ShelfsZone")});
  // Read after the lists: the owner's key is known only at the end.
  record.setObject("id", std::string("S1"));

  auto s = store();
  sync::PendingRelationshipsWorker<Label> labels;
  sync::PendingRelationshipsWorker<Shelf> shelves;
  const Sample parsed = sync::parseFromRecord<Sample, Label, Shelf>(record, s, &labels, &shelves);
  EXPECT_EQ(parsed.labels, (std::vector<Ref<Label>>{{"L1"}}));
  EXPECT_TRUE(parsed.shelves.empty());
  const auto pending = labels.pendingListElementPrimaryKeyValue();
  ASSERT_EQ(pending.count("L2"), 1u);
  const auto& [property, owner] = pending.at("L2");
  EXPECT_EQ(property + " of " + owner.className + " " + owner.primaryKey, "labels of Sample S1");
  EXPECT_EQ(shelves.pendingListElementPrimaryKeyValue().count("42"), 1u);

  // Without a store nothing runs; without the owner in it the run stops.
  labels.resolvePendingListElements();
  labels.setRealmConfiguration(configuration);
  shelves.setRealmConfiguration(configuration);
  labels.resolvePendingListElements();
  EXPECT_TRUE(logged.empty());
  EXPECT_EQ(labels.pendingListElementPrimaryKeyValue().size(), 1u);

  put(parsed);
  std::vector<store::ChangeSet> heard;
  auto token = store().observe<Sample>([&](const store::ChangeSet& change) { heard.push_back(change); });
  env.pump();
  labels.resolvePendingListElements();
  EXPECT_EQ(logged, std::vector<std::string>{"Cannot find existing resolving record in Realm"});
  EXPECT_EQ(labels.pendingListElementPrimaryKeyValue().size(), 1u);

  put(Label{"L2", "late", false});
  put(Shelf{42, "late", false});
  labels.resolvePendingListElements();
  shelves.resolvePendingListElements();
  const auto stored = store().object<Sample>("S1");
  EXPECT_EQ(stored->labels, (std::vector<Ref<Label>>{{"L1"}, {"L2"}}));
  EXPECT_EQ(stored->shelves, (std::vector<Ref<Shelf>>{{"42"}}));
  EXPECT_TRUE(labels.pendingListElementPrimaryKeyValue().empty());
  EXPECT_TRUE(shelves.pendingListElementPrimaryKeyValue().empty());
  env.pump();
  EXPECT_EQ(heard.size(), 1u);  // the initial delivery only: what came from the cloud stays quiet
}

TEST_F(RecordMappingTest, LinksResolveOnlyToStoredTargetsOfTheWorkersClasses) {
  put(Label{"L1", "here", false});
  put(Shelf{42, "here", false});
  CKRecord record("Sample", CKRecordID{"S1", {}});
  record.setObject("id", std::string("S1"));
  record.setObject("label", reference("L9", "LabelsZone"));
  record.setObject("labels", std::vector<CKReference>{reference("L1", "LabelsZone")});
  record.setObject("shelves", std::vector<CKReference>{reference("42", "ShelfsZone"), reference("4a", "ShelfsZone")});

  auto s = store();
  sync::PendingRelationshipsWorker<Label> labels;
  // No worker for shelves: their elements are dropped, present or not.
  const Sample parsed = sync::parseFromRecord<Sample, Label>(record, s, &labels);
  EXPECT_EQ(parsed.labels, (std::vector<Ref<Label>>{{"L1"}}));
  EXPECT_TRUE(parsed.shelves.empty());
  // A single link to a target not yet here stays absent and is not retried.
  EXPECT_EQ(parsed.label, std::nullopt);
  EXPECT_TRUE(labels.pendingListElementPrimaryKeyValue().empty());
}

TEST_F(RecordMappingTest, AnOlderOrOddRecordStillConvertsWithDefaults) {
  CKRecord record("Sample", CKRecordID{"S1", {}});
  record.setObject("id", std::string("S1"));
  record.setObject("count", std::string("eight"));
  record.setObject("flag", std::int64_t{2});
  record.setObject("ratio", std::int64_t{1});
  record.setObject("note", std::int64_t{1});
  record.setObject("words", std::string("not a list"));
  record.setObject("photo", CKAsset{env.root() / "unreadable"});
  auto s = store();
  const Sample parsed = sync::parseFromRecord<Sample>(record, s);
  EXPECT_EQ(parsed, Sample("S1"));
}

TEST_F(RecordMappingTest, AssetFilesAreNamedByRecordAndProperty) {
  const auto folder = env.environment().privateFolder() / "Documents" / "SyncAsset";
  const auto asset = sync::createSyncAsset("S1", "photo", Data{1, 2}, false);
  ASSERT_TRUE(asset);
  EXPECT_EQ(asset->uniqueFileName, "S1_photo");
  EXPECT_EQ(sync::filePath(*asset), folder / "S1_photo");
  EXPECT_EQ(sync::storedData(*asset), (Data{1, 2}));

  sync::createSyncAsset("S1", "photo", Data{9}, false);
  EXPECT_EQ(sync::storedData(*asset), (Data{1, 2}));
  sync::createSyncAsset("S1", "photo", Data{9}, true);
  EXPECT_EQ(sync::storedData(*asset), (Data{9}));

  const auto source = env.root() / "scan.jpg";
  std::ofstream(source) << "jpg";
  EXPECT_EQ(sync::createSyncAsset(Sample("S1"), "thumb", source, false), SyncAsset{"S1_thumb"});
  EXPECT_EQ(sync::createSyncAsset("S12", "photo", source, false), SyncAsset{"S12_photo"});
  EXPECT_EQ(sync::createSyncAsset("S2", "photo", source, false), SyncAsset{"S2_photo"});
  EXPECT_EQ(sync::createSyncAsset("S3", "photo", env.root() / "missing", true), std::nullopt);
  EXPECT_EQ(sync::storedData(SyncAsset{"S3_photo"}), std::nullopt);

  // Every file whose name contains the record name goes, S12's too.
  sync::deleteSyncAssetFile("S1");
  EXPECT_EQ(sync::syncAssetFilesPaths(), std::vector<std::string>{"S2_photo"});
}

using RecordMappingDeathTest = RecordMappingTest;

TEST_F(RecordMappingDeathTest, MisconfigurationEndsTheProcess) {
  EXPECT_DEATH((void)sync::recordID(Label{}), "Should have a reasonable recordID");
  EXPECT_DEATH((void)sync::recordID(Dated{t0}), "Should have a reasonable recordID");
  EXPECT_DEATH((void)sync::primaryKey<Dated>(CKRecordID{"1", {}}),
               "The type of object primaryKey should be String or Int");
  EXPECT_DEATH((void)sync::zoneID<Dated>(), "Shared Database is not supported now");
}

}  // namespace
}  // namespace tarnwell

#include "cloudkit/CloudStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>
#include <span>
#include <system_error>

#include "cloudkit/CloudCoding.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell::cloudkit {
namespace {

constexpr std::string_view kFileName = "cloud.sqlite";
// "TCLD" in the header's application id is what makes a folder a cloud.
constexpr std::int64_t kApplicationId = 0x54434C44;
constexpr int kSchemaVersion = 1;
// The history of requests keeps this many, the newest.
constexpr std::int64_t kRequestHistory = 10000;

enum ZoneState : std::int64_t { kLive = 0, kDeletedByApp = 1, kDeletedByUser = 2 };

// What a query subscription's push says about why it fired.
enum QueryReason : std::int64_t { kRecordCreated = 1, kRecordUpdated = 2, kRecordDeleted = 3 };

// Sequences: `databases.sequence` counts the changes of zones (each changed
// zone of a commit takes its own value, so zones page by it one at a
// time); `zones.sequence` counts the record changes of a zone, each record
// keeping the value of its last one. A deleted record stays as a tombstone
// so that a fetch from before can hear of it; a deleted zone loses its
// records and, when made again, starts a new incarnation that the tokens of
// the old one do not reach.
constexpr std::string_view kSchema = R"sql(
CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID;
CREATE TABLE devices (device TEXT PRIMARY KEY NOT NULL, status INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE databases (scope INTEGER PRIMARY KEY, sequence INTEGER NOT NULL);
CREATE TABLE zones (
  id INTEGER PRIMARY KEY,
  scope INTEGER NOT NULL,
  name TEXT NOT NULL,
  owner TEXT NOT NULL,
  state INTEGER NOT NULL,
  incarnation INTEGER NOT NULL,
  sequence INTEGER NOT NULL,
  changed INTEGER NOT NULL,
  UNIQUE (scope, name, owner));
CREATE INDEX zonesByChange ON zones (scope, changed);
CREATE TABLE records (
  id INTEGER PRIMARY KEY,
  zone INTEGER NOT NULL,
  name TEXT NOT NULL,
  type TEXT NOT NULL,
  sequence INTEGER NOT NULL,
  born INTEGER NOT NULL,
  deleted INTEGER NOT NULL,
  assets INTEGER NOT NULL,
  created REAL NOT NULL,
  modified REAL NOT NULL,
  fields BLOB,
  UNIQUE (zone, name));
CREATE UNIQUE INDEX recordsByChange ON records (zone, sequence);
CREATE INDEX recordsByType ON records (zone, type, born);
CREATE TABLE assets (id INTEGER PRIMARY KEY AUTOINCREMENT, bytes BLOB NOT NULL);
CREATE TABLE subscriptions (
  scope INTEGER NOT NULL,
  id TEXT NOT NULL,
  body TEXT NOT NULL,
  PRIMARY KEY (scope, id)) WITHOUT ROWID;
CREATE TABLE pushes (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  scope INTEGER NOT NULL,
  subscription TEXT NOT NULL,
  userInfo TEXT NOT NULL,
  UNIQUE (device, scope, subscription));
CREATE TABLE longLived (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  operation TEXT NOT NULL,
  body BLOB NOT NULL,
  UNIQUE (device, operation));
CREATE TABLE faults (
  id INTEGER PRIMARY KEY,
  code INTEGER NOT NULL,
  retryAfter REAL,
  times INTEGER NOT NULL,
  kind TEXT);
CREATE TABLE requests (
  id INTEGER PRIMARY KEY,
  device TEXT NOT NULL,
  kind TEXT NOT NULL,
  scope INTEGER NOT NULL,
  saves INTEGER NOT NULL,
  deletions INTEGER NOT NULL,
  error INTEGER NOT NULL);
INSERT INTO settings (key, value) VALUES ('epoch', 0), ('dropCompletions', 0), ('dropPushes', 0);
INSERT INTO databases (scope, sequence) VALUES (1, 0), (2, 0), (3, 0);
INSERT INTO zones (scope, name, owner, state, incarnation, sequence, changed)
  VALUES (1, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0),
         (2, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0),
         (3, '_defaultZone', '__defaultOwner__', 0, 0, 0, 0);
)sql";

constexpr std::string_view kRecordColumns = "name, type, sequence, deleted, created, modified, fields";

std::span<const std::uint8_t> asBlob(std::string_view bytes) {
  return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

std::string_view blobColumn(const sqlite::Statement& row, int column) {
  const void* bytes = sqlite3_column_blob(row.handle(), column);
  const int size = sqlite3_column_bytes(row.handle(), column);
  return bytes ? std::string_view(static_cast<const char*>(bytes), static_cast<std::size_t>(size)) : std::string_view();
}

// A record's version as the client sees it.
std::string changeTag(std::int64_t sequence) {
  char buffer[24];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, sequence, 36).ptr;
  return std::string(buffer, end);
}

bool assetsReadable(const CKRecordValue& value) {
  const auto readable = [](const CKAsset& asset) {
    std::error_code error;
    return asset.fileURL && std::filesystem::is_regular_file(*asset.fileURL, error);
  };
  if (const auto* asset = std::get_if<CKAsset>(&value)) return readable(*asset);
  if (const auto* assets = std::get_if<std::vector<CKAsset>>(&value)) {
    return std::all_of(assets->begin(), assets->end(), readable);
  }
  return true;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CKError(CKErrorCode::assetFileNotFound);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::int64_t> assetIDsOf(std::string_view encodedFields) {
  std::vector<std::int64_t> ids;
  for (const auto& [key, value] : decodeFields(encodedFields)) {
    if (!holdsAssets(value)) continue;
    const auto some = storedAssetIDs(value);
    ids.insert(ids.end(), some.begin(), some.end());
  }
  return ids;
}

bool anyAssets(const EncodedFields& fields) {
  return std::any_of(fields.begin(), fields.end(), [](const auto& field) { return holdsAssets(field.second); });
}

sqlite::Connection openCloudFile(const std::filesystem::path& file, bool create) {
  const std::string folder = file.parent_path().string();
  try {
    return sqlite::openSharedFile(
        file, {kApplicationId, kSchemaVersion, kSchema}, create, [](sqlite::Connection& made) {
          made.cached("INSERT INTO settings (key, value) VALUES ('identity', ?1)").bind(1, makeUUIDString()).execute();
        });
  } catch (const sqlite::SharedFileError& error) {
    throw CloudFolderError(error.problem() == sqlite::SharedFileError::Problem::foreign
                               ? folder + " is not a cloud"
                               : folder + " holds a cloud of a newer version");
  } catch (const sqlite::Error& error) {
    throw CloudFolderError(folder + " is not a cloud: " + error.what());
  }
}

sqlite::Connection openFolder(const std::filesystem::path& folder, bool create) {
  std::error_code error;
  const std::filesystem::path file = folder / kFileName;
  if (!std::filesystem::is_directory(folder, error)) {
    if (!create) throw CloudFolderError("There is no cloud at " + folder.string());
    if (std::filesystem::exists(folder, error)) throw CloudFolderError(folder.string() + " is not a folder");
    std::filesystem::create_directories(folder, error);
    if (error) throw CloudFolderError("Cannot make a cloud at " + folder.string() + ": " + error.message());
  }
  if (!std::filesystem::exists(file, error)) {
    if (!create) throw CloudFolderError(folder.string() + " is not a cloud");
    // A folder that holds something else is not made into a cloud.
    if (std::filesystem::directory_iterator(folder, error) != std::filesystem::directory_iterator()) {
      throw CloudFolderError(folder.string() + " is not a cloud and not empty");
    }
  }
  return openCloudFile(file, create);
}

}  // namespace

struct CloudStore::ZoneRow {
  std::int64_t id = 0;
  std::int64_t state = kLive;
  std::int64_t incarnation = 0;
  std::int64_t sequence = 0;
};

struct CloudStore::StoredRecord {
  std::int64_t id = 0;
  std::string type;
  std::int64_t sequence = 0;
  std::int64_t born = 0;
  bool deleted = false;
  bool assets = false;
  double created = 0;
  std::string fields;
};

// One record changed by a commit, for the subscriptions to match.
struct CloudStore::Change {
  std::string recordType;
  std::string recordName;
  std::int64_t firesOn = 0;
};

CloudStore::CloudStore() : connection_(":memory:") {
  connection_.execute(kSchema);
  identity_ = makeUUIDString();
}

CloudStore::CloudStore(const std::filesystem::path& folder, bool create) : connection_(openFolder(folder, create)) {
  auto& select = connection_.cached("SELECT value FROM settings WHERE key = 'identity'");
  sqlite::Cursor rows(select);
  if (rows.next()) identity_ = rows->text(0);
}

bool CloudStore::isCloudFolder(const std::filesystem::path& folder) {
  std::error_code error;
  const std::filesystem::path file = folder / kFileName;
  if (!std::filesystem::is_regular_file(file, error)) return false;
  try {
    sqlite::Connection connection(file, sqlite::Connection::OpenMode::readOnly);
    auto applicationId = connection.prepare("PRAGMA application_id");
    return applicationId.step() && applicationId.int64(0) == kApplicationId;
  } catch (const sqlite::Error&) {
    return false;
  }
}

std::int64_t CloudStore::setting(std::string_view key) {
  auto& select = connection_.cached("SELECT value FROM settings WHERE key = ?1");
  select.bind(1, key);
  sqlite::Cursor rows(select);
  return rows.next() ? rows->int64(0) : 0;
}

void CloudStore::setSetting(std::string_view key, std::int64_t value) {
  connection_.cached("INSERT INTO settings (key, value) VALUES (?1, ?2) ON CONFLICT (key) DO UPDATE SET value = ?2")
      .bind(1, key)
      .bind(2, value)
      .execute();
}

void CloudStore::signIn(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  connection_.cached("INSERT OR IGNORE INTO devices (device, status) VALUES (?1, ?2)")
      .bind(1, deviceID)
      .bind(2, static_cast<std::int64_t>(CKAccountStatus::available))
      .execute();
}

CKAccountStatus CloudStore::accountStatus(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  auto& select = connection_.cached("SELECT status FROM devices WHERE device = ?1");
  select.bind(1, deviceID);
  sqlite::Cursor rows(select);
  if (!rows.next()) return CKAccountStatus::noAccount;
  const std::int64_t raw = rows->int64(0);
  return raw >= 0 && raw <= 4 ? static_cast<CKAccountStatus>(raw) : CKAccountStatus::couldNotDetermine;
}

bool CloudStore::setAccountStatus(const std::string& deviceID, CKAccountStatus status) {
  const CKAccountStatus before = accountStatus(deviceID);
  std::lock_guard lock(mutex_);
  connection_
      .cached("INSERT INTO devices (device, status) VALUES (?1, ?2) ON CONFLICT (device) DO UPDATE SET status = ?2")
      .bind(1, deviceID)
      .bind(2, static_cast<std::int64_t>(status))
      .execute();
  return before != status;
}

Admission CloudStore::admit(const std::string& deviceID, CKOperationKind kind, CKDatabaseScope scope, std::size_t saves,
                            std::size_t deletions, bool cancelled, std::size_t requestLimit) {
  const CKAccountStatus status = accountStatus(deviceID);
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  Admission admission;
  if (cancelled) {
    admission.error = CKError(CKErrorCode::operationCancelled);
  } else if (status != CKAccountStatus::available &&
             !(scope == CKDatabaseScope::publicScope && kind == CKOperationKind::query)) {
    // Everyone may read the public database; everything else needs the account.
    admission.error = CKError(CKErrorCode::notAuthenticated);
  } else {
    auto& select = connection_.cached(
        "SELECT id, code, retryAfter, times FROM faults WHERE kind IS NULL OR kind = ?1 ORDER BY id LIMIT 1");
    select.bind(1, name(kind));
    sqlite::Cursor rows(select);
    if (rows.next()) {
      CKError error(static_cast<int>(rows->int64(1)), {});
      if (!rows->isNull(2)) error.withRetryAfter(rows->real(2));
      admission.error = std::move(error);
      const std::int64_t id = rows->int64(0);
      const std::int64_t times = rows->int64(3);
      if (times > 1) {
        connection_.cached("UPDATE faults SET times = ?2 WHERE id = ?1").bind(1, id).bind(2, times - 1).execute();
      } else {
        connection_.cached("DELETE FROM faults WHERE id = ?1").bind(1, id).execute();
      }
    } else {
      if (const std::int64_t dropped = setting("dropCompletions"); dropped > 0) {
        setSetting("dropCompletions", dropped - 1);
        admission.dropCompletion = true;
      }
      if (kind == CKOperationKind::modifyRecords && saves + deletions > requestLimit) {
        admission.error = CKError(CKErrorCode::limitExceeded);
      }
    }
  }
  connection_
      .cached("INSERT INTO requests (device, kind, scope, saves, deletions, error) VALUES (?1, ?2, ?3, ?4, ?5, ?6)")
      .bind(1, deviceID)
      .bind(2, name(kind))
      .bind(3, static_cast<std::int64_t>(scope))
      .bind(4, static_cast<std::int64_t>(saves))
      .bind(5, static_cast<std::int64_t>(deletions))
      .bind(6, admission.error ? admission.error->code() : 0)
      .execute();
  admission.requestID = connection_.lastInsertRowId();
  connection_.cached("DELETE FROM requests WHERE id <= ?1").bind(1, admission.requestID - kRequestHistory).execute();
  transaction.commit();
  return admission;
}

void CloudStore::finishRequest(std::int64_t requestID, int errorCode) {
  std::lock_guard lock(mutex_);
  connection_.cached("UPDATE requests SET error = ?2 WHERE id = ?1").bind(1, requestID).bind(2, errorCode).execute();
}

std::optional<CloudStore::ZoneRow> CloudStore::findZone(CKDatabaseScope scope, const CKRecordZoneID& zoneID) {
  auto& select = connection_.cached(
      "SELECT id, state, incarnation, sequence FROM zones WHERE scope = ?1 AND name = ?2 AND owner = ?3");
  select.bind(1, static_cast<std::int64_t>(scope)).bind(2, zoneID.zoneName).bind(3, zoneID.ownerName);
  sqlite::Cursor rows(select);
  if (!rows.next()) return std::nullopt;
  return ZoneRow{rows->int64(0), rows->int64(1), rows->int64(2), rows->int64(3)};
}

std::optional<CloudStore::StoredRecord> CloudStore::findRecord(std::int64_t zone, const std::string& name) {
  auto& select = connection_.cached(
      "SELECT id, type, sequence, born, deleted, assets, created, fields FROM records WHERE zone = ?1 AND name = ?2");
  select.bind(1, zone).bind(2, name);
  sqlite::Cursor rows(select);
  if (!rows.next()) return std::nullopt;
  return StoredRecord{rows->int64(0),      rows->text(1),       rows->int64(2), rows->int64(3),
                      rows->int64(4) != 0, rows->int64(5) != 0, rows->real(6),  std::string(blobColumn(*rows, 7))};
}

void CloudStore::touchZone(CKDatabaseScope scope, std::int64_t zone, std::int64_t zoneSequence) {
  connection_.cached("UPDATE databases SET sequence = sequence + 1 WHERE scope = ?1")
      .bind(1, static_cast<std::int64_t>(scope))
      .execute();
  connection_
      .cached(
          "UPDATE zones SET sequence = ?2, changed = (SELECT sequence FROM databases WHERE scope = zones.scope) "
          "WHERE id = ?1")
      .bind(1, zone)
      .bind(2, zoneSequence)
      .execute();
}

void CloudStore::purgeZone(std::int64_t zone) {
  std::vector<std::int64_t> assetIDs;
  {
    auto& select = connection_.cached("SELECT fields FROM records WHERE zone = ?1 AND assets != 0");
    select.bind(1, zone);
    for (sqlite::Cursor rows(select); rows.next();) {
      const auto some = assetIDsOf(blobColumn(*rows, 0));
      assetIDs.insert(assetIDs.end(), some.begin(), some.end());
    }
  }
  releaseAssets(assetIDs);
  connection_.cached("DELETE FROM records WHERE zone = ?1").bind(1, zone).execute();
}

std::string CloudStore::storeAssetValue(const CKRecordValue& value) {
  const AssetCoding storing{
      [this](ByteWriter& writer, const CKAsset& asset) {
        const std::string bytes = readFile(*asset.fileURL);
        connection_.cached("INSERT INTO assets (bytes) VALUES (?1)").bind(1, asBlob(bytes)).execute();
        writer.varint(static_cast<std::uint64_t>(connection_.lastInsertRowId()));
      },
      {}};
  return encodeValue(value, storing);
}

void CloudStore::releaseAssets(const std::vector<std::int64_t>& assetIDs) {
  for (const std::int64_t id : assetIDs) connection_.cached("DELETE FROM assets WHERE id = ?1").bind(1, id).execute();
}

CKAsset CloudStore::cachedAsset(std::int64_t assetID) {
  // Stored bytes never change under an id (ids are not reused), so a file
  // written once for it serves every later fetch.
  const std::filesystem::path folder = Environment::current().temporaryDirectory() / "CloudAssets";
  const std::filesystem::path file = folder / (identity_ + "-" + std::to_string(assetID));
  std::error_code error;
  if (std::filesystem::is_regular_file(file, error)) return CKAsset{file};
  auto& select = connection_.cached("SELECT bytes FROM assets WHERE id = ?1");
  select.bind(1, assetID);
  sqlite::Cursor rows(select);
  if (!rows.next()) return CKAsset{};
  std::filesystem::create_directories(folder, error);
  const std::filesystem::path partial = file.string() + "." + makeUUIDString();
  {
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    const std::string_view bytes = blobColumn(*rows, 0);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("Cannot write the asset file " + partial.string());
  }
  std::filesystem::rename(partial, file);
  return CKAsset{file};
}

CKRecord CloudStore::readRecord(const sqlite::Statement& row, const CKRecordZoneID& zoneID) {
  const AssetCoding reading{
      {}, [this](ByteReader& reader) { return cachedAsset(static_cast<std::int64_t>(reader.varint())); }};
  return CKRecord::fromServer(row.text(1), CKRecordID{row.text(0), zoneID},
                              decodeFieldValues(blobColumn(row, 6), reading), changeTag(row.int64(2)),
                              Date::fromTimeIntervalSinceReferenceDate(row.real(4)),
                              Date::fromTimeIntervalSinceReferenceDate(row.real(5)));
}

std::optional<CKError> CloudStore::saveRecord(const ZoneRow& zone, const CKRecord& record, CKRecordSavePolicy policy,
                                              std::int64_t& sequence, std::vector<Change>& changes,
                                              std::vector<CKRecord>& saved) {
  const auto existing = findRecord(zone.id, record.recordID().recordName);
  const bool live = existing && !existing->deleted;
  if (policy == CKRecordSavePolicy::ifServerRecordUnchanged) {
    if (live && record.recordChangeTag() != changeTag(existing->sequence)) {
      return CKError(CKErrorCode::serverRecordChanged);
    }
    // The client edits a version the server no longer has.
    if (!live && record.recordChangeTag()) return CKError(CKErrorCode::unknownItem);
  }
  if (live && existing->type != record.recordType()) {
    return CKError(CKErrorCode::invalidArguments, "The record " + record.recordID().recordName + " is a " +
                                                      existing->type + ", not a " + record.recordType());
  }

  // What the save writes: every key with a value (all keys), or the keys
  // the client changed, over what the server has.
  std::vector<std::pair<std::string, const CKRecordValue*>> writes;
  if (policy == CKRecordSavePolicy::allKeys) {
    for (const auto& [key, value] : record.fields()) {
      if (value) writes.emplace_back(key, &*value);
    }
  } else {
    for (const auto& key : record.changedKeys()) writes.emplace_back(key, record.object(key));
  }
  for (const auto& [key, value] : writes) {
    if (value && !assetsReadable(*value)) {
      return CKError(CKErrorCode::assetFileNotFound, "The asset of " + key + " has no readable file");
    }
  }

  EncodedFields fields;
  if (live && policy != CKRecordSavePolicy::allKeys) fields = decodeFields(existing->fields);
  for (const auto& [key, value] : writes) {
    if (value) {
      fields[key] = storeAssetValue(*value);
    } else {
      fields.erase(key);
    }
  }
  if (existing && existing->assets) {
    std::vector<std::int64_t> released = assetIDsOf(existing->fields);
    const std::vector<std::int64_t> kept = assetIDsOf(encodeFields(fields));
    std::erase_if(released, [&](std::int64_t id) { return std::find(kept.begin(), kept.end(), id) != kept.end(); });
    releaseAssets(released);
  }

  ++sequence;
  const double now = Date::now().timeIntervalSinceReferenceDate();
  const double created = live ? existing->created : now;
  const std::string encoded = encodeFields(fields);
  auto& upsert = connection_.cached(
      "INSERT INTO records (zone, name, type, sequence, born, deleted, assets, created, modified, fields) "
      "VALUES (?1, ?2, ?3, ?4, ?5, 0, ?6, ?7, ?8, ?9) "
      "ON CONFLICT (zone, name) DO UPDATE SET type = ?3, sequence = ?4, born = ?5, deleted = 0, assets = ?6, "
      "created = ?7, modified = ?8, fields = ?9");
  upsert.bind(1, zone.id)
      .bind(2, record.recordID().recordName)
      .bind(3, record.recordType())
      .bind(4, sequence)
      .bind(5, live ? existing->born : sequence)
      .bind(6, anyAssets(fields))
      .bind(7, created)
      .bind(8, now)
      .bind(9, asBlob(encoded));
  upsert.execute();
  changes.push_back({record.recordType(), record.recordID().recordName,
                     live ? CKQuerySubscription::firesOnRecordUpdate : CKQuerySubscription::firesOnRecordCreation});

  // The client's record with the server's system fields, as the platform answers a save.
  std::map<std::string, std::optional<CKRecordValue>, std::less<>> sent;
  for (const auto& [key, value] : record.fields()) {
    if (value) sent.emplace_hint(sent.end(), key, *value);
  }
  saved.push_back(CKRecord::fromServer(record.recordType(), record.recordID(), std::move(sent), changeTag(sequence),
                                       Date::fromTimeIntervalSinceReferenceDate(created),
                                       Date::fromTimeIntervalSinceReferenceDate(now)));
  return std::nullopt;
}

void CloudStore::deleteRecord(const ZoneRow& zone, const CKRecordID& recordID, std::int64_t& sequence,
                              std::vector<Change>& changes) {
  const auto existing = findRecord(zone.id, recordID.recordName);
  if (!existing || existing->deleted) return;
  if (existing->assets) releaseAssets(assetIDsOf(existing->fields));
  ++sequence;
  connection_
      .cached("UPDATE records SET deleted = 1, assets = 0, fields = NULL, sequence = ?2, modified = ?3 WHERE id = ?1")
      .bind(1, existing->id)
      .bind(2, sequence)
      .bind(3, Date::now().timeIntervalSinceReferenceDate())
      .execute();
  changes.push_back({existing->type, recordID.recordName, CKQuerySubscription::firesOnRecordDeletion});
}

ModifyRecordsOutcome CloudStore::modifyRecords(const std::string& deviceID, CKDatabaseScope scope,
                                               const CKModifyRecordsOperation& operation) {
  // The items of one zone, which an atomic operation writes together.
  struct Batch {
    CKRecordZoneID zoneID;
    std::vector<const CKRecord*> saves;
    std::vector<const CKRecordID*> deletions;
  };
  std::vector<Batch> batches;
  std::map<CKRecordZoneID, std::size_t> batchOfZone;
  const auto batchFor = [&](const CKRecordZoneID& zoneID) -> Batch& {
    const auto [found, added] = batchOfZone.emplace(zoneID, batches.size());
    if (added) batches.push_back(Batch{zoneID, {}, {}});
    return batches[found->second];
  };
  for (const CKRecord& record : operation.recordsToSave) batchFor(record.recordID().zoneID).saves.push_back(&record);
  for (const CKRecordID& recordID : operation.recordIDsToDelete)
    batchFor(recordID.zoneID).deletions.push_back(&recordID);

  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  ModifyRecordsOutcome outcome;
  CKError::ItemErrors failures;
  std::vector<Change> changes;
  for (const Batch& batch : batches) {
    const auto zone = findZone(scope, batch.zoneID);
    if (!zone || zone->state != kLive) {
      const CKError error(zone && zone->state == kDeletedByUser ? CKErrorCode::userDeletedZone
                                                                : CKErrorCode::zoneNotFound);
      for (const CKRecord* record : batch.saves) failures.emplace_back(record->recordID(), error);
      for (const CKRecordID* recordID : batch.deletions) failures.emplace_back(*recordID, error);
      continue;
    }
    connection_.execute("SAVEPOINT zoneBatch");
    std::int64_t sequence = zone->sequence;
    std::vector<Change> zoneChanges;
    std::vector<std::optional<CKError>> saveErrors;
    std::vector<CKRecord> saved;
    for (const CKRecord* record : batch.saves) {
      saveErrors.push_back(saveRecord(*zone, *record, operation.savePolicy, sequence, zoneChanges, saved));
    }
    for (const CKRecordID* recordID : batch.deletions) deleteRecord(*zone, *recordID, sequence, zoneChanges);

    const bool failed = std::any_of(saveErrors.begin(), saveErrors.end(), [](const auto& error) { return error; });
    if (failed && operation.isAtomic) {
      connection_.execute("ROLLBACK TO zoneBatch; RELEASE zoneBatch");
      const CKError spoiled(CKErrorCode::batchRequestFailed);
      for (std::size_t index = 0; index < batch.saves.size(); ++index) {
        failures.emplace_back(batch.saves[index]->recordID(), saveErrors[index].value_or(spoiled));
      }
      for (const CKRecordID* recordID : batch.deletions) failures.emplace_back(*recordID, spoiled);
      continue;
    }
    connection_.execute("RELEASE zoneBatch");
    for (std::size_t index = 0; index < batch.saves.size(); ++index) {
      if (saveErrors[index]) failures.emplace_back(batch.saves[index]->recordID(), *saveErrors[index]);
    }
    if (sequence != zone->sequence) touchZone(scope, zone->id, sequence);
    std::move(saved.begin(), saved.end(), std::back_inserter(outcome.saved));
    for (const CKRecordID* recordID : batch.deletions) outcome.deleted.push_back(*recordID);
    std::move(zoneChanges.begin(), zoneChanges.end(), std::back_inserter(changes));
  }
  if (!failures.empty()) outcome.error = CKError(CKErrorCode::partialFailure).withPartialErrors(std::move(failures));
  outcome.notified = leavePushes(deviceID, scope, changes, false);
  transaction.commit();
  return outcome;
}

DatabaseChangesPage CloudStore::databaseChanges(CKDatabaseScope scope, const std::optional<CKServerChangeToken>& since,
                                                std::size_t limit) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_, sqlite::Transaction::Behavior::deferred);
  DatabaseChangesPage page;
  const std::int64_t epoch = setting("epoch");
  std::int64_t current = 0;
  {
    auto& select = connection_.cached("SELECT sequence FROM databases WHERE scope = ?1");
    select.bind(1, static_cast<std::int64_t>(scope));
    sqlite::Cursor rows(select);
    if (rows.next()) current = rows->int64(0);
  }
  std::int64_t from = 0;
  if (since) {
    const auto token = readDatabaseToken(*since);
    if (!token || token->scope != scope) {
      page.error = CKError(CKErrorCode::invalidArguments, "The token is not one of this database");
      return page;
    }
    if (token->cloud != identity_ || token->epoch != epoch || token->sequence > current) {
      page.error = CKError(CKErrorCode::changeTokenExpired);
      return page;
    }
    from = token->sequence;
  }
  // A client that starts from nothing hears only of the zones there are.
  auto& select = connection_.cached(
      "SELECT name, owner, state, changed FROM zones "
      "WHERE scope = ?1 AND changed > ?2 AND name != '_defaultZone' AND (?3 OR state = 0) "
      "ORDER BY changed LIMIT ?4");
  select.bind(1, static_cast<std::int64_t>(scope))
      .bind(2, from)
      .bind(3, since.has_value())
      .bind(4, static_cast<std::int64_t>(limit) + 1);
  std::int64_t last = current;
  std::size_t count = 0;
  for (sqlite::Cursor rows(select); rows.next();) {
    if (count++ == limit) {
      page.moreComing = true;
      break;
    }
    CKRecordZoneID zoneID{rows->text(0), rows->text(1)};
    (rows->int64(2) == kLive ? page.changed : page.deleted).push_back(std::move(zoneID));
    last = rows->int64(3);
  }
  page.token = makeToken(DatabaseToken{identity_, scope, epoch, page.moreComing ? last : current});
  return page;
}

ZoneChangesPage CloudStore::zoneChanges(CKDatabaseScope scope, const CKRecordZoneID& zoneID,
                                        const std::optional<CKServerChangeToken>& since, std::size_t limit) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_, sqlite::Transaction::Behavior::deferred);
  ZoneChangesPage page;
  const auto zone = findZone(scope, zoneID);
  if (!zone || zone->state != kLive) {
    page.error =
        CKError(zone && zone->state == kDeletedByUser ? CKErrorCode::userDeletedZone : CKErrorCode::zoneNotFound);
    return page;
  }
  const std::int64_t epoch = setting("epoch");
  std::int64_t from = 0;
  if (since) {
    const auto token = readZoneToken(*since);
    if (!token || token->scope != scope || token->zoneID != zoneID) {
      page.error = CKError(CKErrorCode::invalidArguments, "The token is not one of zone " + zoneID.description());
      return page;
    }
    if (token->cloud != identity_ || token->epoch != epoch || token->incarnation != zone->incarnation ||
        token->sequence > zone->sequence) {
      page.error = CKError(CKErrorCode::changeTokenExpired);
      return page;
    }
    from = token->sequence;
  }
  // A fetch from nothing names the deletions too: a client whose token
  // expired starts over from nothing, and would otherwise keep for good
  // what another device deleted meanwhile.
  auto& select = connection_.cached("SELECT " + std::string(kRecordColumns) +
                                    " FROM records WHERE zone = ?1 AND sequence > ?2 ORDER BY sequence LIMIT ?3");
  select.bind(1, zone->id).bind(2, from).bind(3, static_cast<std::int64_t>(limit) + 1);
  std::int64_t last = zone->sequence;
  std::size_t count = 0;
  for (sqlite::Cursor rows(select); rows.next();) {
    if (count++ == limit) {
      page.moreComing = true;
      break;
    }
    if (rows->int64(3) != 0) {
      page.changes.emplace_back(Tombstone{CKRecordID{rows->text(0), zoneID}, rows->text(1)});
    } else {
      page.changes.emplace_back(readRecord(*rows, zoneID));
    }
    last = rows->int64(2);
  }
  page.token =
      makeToken(ZoneToken{identity_, scope, zoneID, epoch, zone->incarnation, page.moreComing ? last : zone->sequence});
  return page;
}

QueryPage CloudStore::query(CKDatabaseScope scope, const std::optional<CKQuery>& query,
                            const std::optional<CKQueryCursor>& cursor, std::size_t limit) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_, sqlite::Transaction::Behavior::deferred);
  QueryPage page;
  QueryPosition position{identity_, scope, {}, 0};
  if (cursor) {
    const auto read = readCursor(*cursor);
    if (!read || read->scope != scope) {
      page.error = CKError(CKErrorCode::invalidArguments, "The cursor is not one of this database");
      return page;
    }
    if (read->cloud != identity_) {
      page.error = CKError(CKErrorCode::changeTokenExpired);
      return page;
    }
    position = *read;
  } else if (query) {
    position.recordType = query->recordType;
  } else {
    page.error = CKError(CKErrorCode::invalidArguments, "A query operation needs a query or a cursor");
    return page;
  }
  const CKRecordZoneID zoneID = CKRecordZoneID::defaultZone();
  const auto zone = findZone(scope, zoneID);
  if (!zone) return page;
  auto& select = connection_.cached(
      "SELECT " + std::string(kRecordColumns) +
      ", born FROM records WHERE zone = ?1 AND type = ?2 AND deleted = 0 AND born > ?3 ORDER BY born LIMIT ?4");
  select.bind(1, zone->id)
      .bind(2, position.recordType)
      .bind(3, position.after)
      .bind(4, static_cast<std::int64_t>(limit) + 1);
  bool more = false;
  for (sqlite::Cursor rows(select); rows.next();) {
    if (page.records.size() == limit) {
      more = true;
      break;
    }
    page.records.push_back(readRecord(*rows, zoneID));
    position.after = rows->int64(7);
  }
  if (more) page.cursor = makeCursor(position);
  return page;
}

ModifyZonesOutcome CloudStore::modifyZones(const std::string& deviceID, CKDatabaseScope scope,
                                           const CKModifyRecordZonesOperation& operation) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  ModifyZonesOutcome outcome;
  for (const CKRecordZoneID& zoneID : operation.recordZoneIDsToDelete) {
    if (zoneID.isDefault()) {
      outcome.error = CKError(CKErrorCode::invalidArguments, "The default zone cannot be deleted");
      return outcome;
    }
  }
  bool changed = false;
  for (const CKRecordZone& zone : operation.recordZonesToSave) {
    const auto found = findZone(scope, zone.zoneID);
    if (!found) {
      connection_
          .cached(
              "INSERT INTO zones (scope, name, owner, state, incarnation, sequence, changed) "
              "VALUES (?1, ?2, ?3, 0, 0, 0, 0)")
          .bind(1, static_cast<std::int64_t>(scope))
          .bind(2, zone.zoneID.zoneName)
          .bind(3, zone.zoneID.ownerName)
          .execute();
      touchZone(scope, connection_.lastInsertRowId(), 0);
      changed = true;
    } else if (found->state != kLive) {
      connection_.cached("UPDATE zones SET state = 0, incarnation = incarnation + 1 WHERE id = ?1")
          .bind(1, found->id)
          .execute();
      touchZone(scope, found->id, found->sequence);
      changed = true;
    }
    outcome.saved.push_back(zone);
  }
  for (const CKRecordZoneID& zoneID : operation.recordZoneIDsToDelete) {
    const auto found = findZone(scope, zoneID);
    if (found && found->state == kLive) {
      purgeZone(found->id);
      connection_.cached("UPDATE zones SET state = ?2 WHERE id = ?1")
          .bind(1, found->id)
          .bind(2, kDeletedByApp)
          .execute();
      touchZone(scope, found->id, found->sequence);
      changed = true;
    }
    outcome.deleted.push_back(zoneID);
  }
  if (changed) outcome.notified = leavePushes(deviceID, scope, {}, true);
  transaction.commit();
  return outcome;
}

void CloudStore::modifySubscriptions(CKDatabaseScope scope, const CKModifySubscriptionsOperation& operation) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  for (const CKSubscription& subscription : operation.subscriptionsToSave) {
    connection_.cached("INSERT OR REPLACE INTO subscriptions (scope, id, body) VALUES (?1, ?2, ?3)")
        .bind(1, static_cast<std::int64_t>(scope))
        .bind(2, subscriptionID(subscription))
        .bind(3, encodeSubscription(subscription))
        .execute();
  }
  for (const std::string& id : operation.subscriptionIDsToDelete) {
    connection_.cached("DELETE FROM subscriptions WHERE scope = ?1 AND id = ?2")
        .bind(1, static_cast<std::int64_t>(scope))
        .bind(2, id)
        .execute();
  }
  transaction.commit();
}

NotifiedDevices CloudStore::leavePushes(const std::optional<std::string>& originator, CKDatabaseScope scope,
                                        const std::vector<Change>& changes, bool zonesChanged) {
  NotifiedDevices notified;
  if (changes.empty() && !zonesChanged) return notified;

  struct Matched {
    std::string subscriptionID;
    nlohmann::json userInfo;
  };
  std::vector<Matched> matched;
  {
    auto& select = connection_.cached("SELECT body FROM subscriptions WHERE scope = ?1 ORDER BY id");
    select.bind(1, static_cast<std::int64_t>(scope));
    for (sqlite::Cursor rows(select); rows.next();) {
      const auto subscription = decodeSubscription(rows->text(0));
      if (!subscription) continue;
      if (const auto* database = std::get_if<CKDatabaseSubscription>(&*subscription)) {
        matched.push_back(
            {database->subscriptionID, CKNotification::userInfo(CKNotification::Type::database,
                                                                database->subscriptionID, scope, makeUUIDString())});
        continue;
      }
      const auto& query = std::get<CKQuerySubscription>(*subscription);
      const auto change = std::find_if(changes.begin(), changes.end(), [&](const Change& each) {
        return each.recordType == query.recordType && (query.options & each.firesOn) != 0;
      });
      if (change == changes.end()) continue;
      auto userInfo =
          CKNotification::userInfo(CKNotification::Type::query, query.subscriptionID, scope, makeUUIDString());
      userInfo["ck"]["qry"]["rid"] = change->recordName;
      userInfo["ck"]["qry"]["fo"] = change->firesOn == CKQuerySubscription::firesOnRecordCreation ? kRecordCreated
                                    : change->firesOn == CKQuerySubscription::firesOnRecordUpdate ? kRecordUpdated
                                                                                                  : kRecordDeleted;
      matched.push_back({query.subscriptionID, std::move(userInfo)});
    }
  }
  if (matched.empty()) return notified;

  std::vector<std::string> devices;
  {
    auto& select = connection_.cached("SELECT device FROM devices ORDER BY device");
    for (sqlite::Cursor rows(select); rows.next();) {
      if (rows->text(0) != originator) devices.push_back(rows->text(0));
    }
  }
  std::int64_t dropped = setting("dropPushes");
  const std::int64_t droppedBefore = dropped;
  for (const std::string& device : devices) {
    for (const Matched& match : matched) {
      // A push already waiting for the subscription says all this one would.
      auto& waiting = connection_.cached("SELECT 1 FROM pushes WHERE device = ?1 AND scope = ?2 AND subscription = ?3");
      waiting.bind(1, device).bind(2, static_cast<std::int64_t>(scope)).bind(3, match.subscriptionID);
      if (sqlite::Cursor rows(waiting); rows.next()) {
        notified.insert(device);
        continue;
      }
      // Only a push that would have been left is lost, not one merged into a waiting one.
      if (dropped > 0) {
        --dropped;
        continue;
      }
      connection_.cached("INSERT INTO pushes (device, scope, subscription, userInfo) VALUES (?1, ?2, ?3, ?4)")
          .bind(1, device)
          .bind(2, static_cast<std::int64_t>(scope))
          .bind(3, match.subscriptionID)
          .bind(4, match.userInfo.dump())
          .execute();
      notified.insert(device);
    }
  }
  if (dropped != droppedBefore) setSetting("dropPushes", dropped);
  return notified;
}

std::vector<nlohmann::json> CloudStore::takePushes(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  std::vector<nlohmann::json> pushes;
  auto& select = connection_.cached("SELECT userInfo FROM pushes WHERE device = ?1 ORDER BY id");
  select.bind(1, deviceID);
  for (sqlite::Cursor rows(select); rows.next();) pushes.push_back(nlohmann::json::parse(rows->text(0)));
  if (!pushes.empty()) connection_.cached("DELETE FROM pushes WHERE device = ?1").bind(1, deviceID).execute();
  transaction.commit();
  return pushes;
}

std::size_t CloudStore::pushCount(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  auto& select = connection_.cached("SELECT count(*) FROM pushes WHERE device = ?1");
  select.bind(1, deviceID);
  sqlite::Cursor rows(select);
  return rows.next() ? static_cast<std::size_t>(rows->int64(0)) : 0;
}

void CloudStore::rememberLongLived(const std::string& deviceID, const CKModifyRecordsOperation& operation) {
  const std::string body = encodeModifyOperation(operation);
  std::lock_guard lock(mutex_);
  connection_
      .cached(
          "INSERT INTO longLived (device, operation, body) VALUES (?1, ?2, ?3) "
          "ON CONFLICT (device, operation) DO UPDATE SET body = ?3")
      .bind(1, deviceID)
      .bind(2, operation.operationID)
      .bind(3, asBlob(body))
      .execute();
}

void CloudStore::forgetLongLived(const std::string& deviceID, const std::string& operationID) {
  std::lock_guard lock(mutex_);
  connection_.cached("DELETE FROM longLived WHERE device = ?1 AND operation = ?2")
      .bind(1, deviceID)
      .bind(2, operationID)
      .execute();
}

std::vector<std::string> CloudStore::longLivedIDs(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  std::vector<std::string> ids;
  auto& select = connection_.cached("SELECT operation FROM longLived WHERE device = ?1 ORDER BY id");
  select.bind(1, deviceID);
  for (sqlite::Cursor rows(select); rows.next();) ids.push_back(rows->text(0));
  return ids;
}

std::shared_ptr<CKModifyRecordsOperation> CloudStore::longLived(const std::string& deviceID,
                                                                const std::string& operationID) {
  std::lock_guard lock(mutex_);
  auto& select = connection_.cached("SELECT body FROM longLived WHERE device = ?1 AND operation = ?2");
  select.bind(1, deviceID).bind(2, operationID);
  sqlite::Cursor rows(select);
  if (!rows.next()) return nullptr;
  return decodeModifyOperation(operationID, blobColumn(*rows, 0));
}

void CloudStore::addFault(const CloudFault& fault) {
  if (fault.times <= 0) return;
  std::lock_guard lock(mutex_);
  auto& insert = connection_.cached("INSERT INTO faults (code, retryAfter, times, kind) VALUES (?1, ?2, ?3, ?4)");
  insert.bind(1, fault.code).bind(2, fault.retryAfter).bind(3, fault.times);
  if (fault.on) insert.bind(4, name(*fault.on));
  insert.execute();
}

std::vector<CloudFault> CloudStore::faults() {
  std::lock_guard lock(mutex_);
  std::vector<CloudFault> faults;
  auto& select = connection_.cached("SELECT code, retryAfter, times, kind FROM faults ORDER BY id");
  for (sqlite::Cursor rows(select); rows.next();) {
    CloudFault fault;
    fault.code = static_cast<int>(rows->int64(0));
    if (!rows->isNull(1)) fault.retryAfter = rows->real(1);
    fault.times = static_cast<int>(rows->int64(2));
    if (!rows->isNull(3)) fault.on = operationKindNamed(rows->text(3));
    faults.push_back(fault);
  }
  return faults;
}

void CloudStore::clearFaults() {
  std::lock_guard lock(mutex_);
  connection_.execute("DELETE FROM faults");
}

void CloudStore::expireTokens() {
  std::lock_guard lock(mutex_);
  connection_.execute("UPDATE settings SET value = value + 1 WHERE key = 'epoch'");
}

NotifiedDevices CloudStore::deleteZoneByUser(CKDatabaseScope scope, const CKRecordZoneID& zoneID) {
  if (zoneID.isDefault()) throw CKError(CKErrorCode::invalidArguments, "The default zone cannot be deleted");
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  const auto zone = findZone(scope, zoneID);
  if (!zone || zone->state != kLive) return {};
  purgeZone(zone->id);
  connection_.cached("UPDATE zones SET state = ?2 WHERE id = ?1").bind(1, zone->id).bind(2, kDeletedByUser).execute();
  touchZone(scope, zone->id, zone->sequence);
  // Nobody's device did it, so every device hears of it.
  NotifiedDevices notified = leavePushes(std::nullopt, scope, {}, true);
  transaction.commit();
  return notified;
}

void CloudStore::dropCompletions(int count) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  setSetting("dropCompletions", std::max<std::int64_t>(0, setting("dropCompletions") + count));
  transaction.commit();
}

void CloudStore::dropPushes(int count) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_);
  setSetting("dropPushes", std::max<std::int64_t>(0, setting("dropPushes") + count));
  transaction.commit();
}

std::vector<CKRecord> CloudStore::records(CKDatabaseScope scope, const std::optional<std::string>& recordType) {
  std::lock_guard lock(mutex_);
  sqlite::Transaction transaction(connection_, sqlite::Transaction::Behavior::deferred);
  std::vector<CKRecord> records;
  auto& select = connection_.cached(
      "SELECT r.name, r.type, r.sequence, r.deleted, r.created, r.modified, r.fields, z.name, z.owner "
      "FROM records r JOIN zones z ON z.id = r.zone "
      "WHERE z.scope = ?1 AND z.state = 0 AND r.deleted = 0 AND (?2 IS NULL OR r.type = ?2) "
      "ORDER BY z.name, z.owner, r.name");
  select.bind(1, static_cast<std::int64_t>(scope)).bind(2, recordType);
  for (sqlite::Cursor rows(select); rows.next();) {
    records.push_back(readRecord(*rows, CKRecordZoneID{rows->text(7), rows->text(8)}));
  }
  return records;
}

std::vector<CKRecordZone> CloudStore::zones(CKDatabaseScope scope) {
  std::lock_guard lock(mutex_);
  std::vector<CKRecordZone> zones;
  auto& select =
      connection_.cached("SELECT name, owner FROM zones WHERE scope = ?1 AND state = 0 ORDER BY name, owner");
  select.bind(1, static_cast<std::int64_t>(scope));
  for (sqlite::Cursor rows(select); rows.next();) zones.push_back(CKRecordZone{{rows->text(0), rows->text(1)}});
  return zones;
}

std::vector<CKSubscription> CloudStore::subscriptions(CKDatabaseScope scope) {
  std::lock_guard lock(mutex_);
  std::vector<CKSubscription> subscriptions;
  auto& select = connection_.cached("SELECT body FROM subscriptions WHERE scope = ?1 ORDER BY id");
  select.bind(1, static_cast<std::int64_t>(scope));
  for (sqlite::Cursor rows(select); rows.next();) {
    if (auto subscription = decodeSubscription(rows->text(0))) subscriptions.push_back(std::move(*subscription));
  }
  return subscriptions;
}

std::vector<CloudRequest> CloudStore::requests() {
  std::lock_guard lock(mutex_);
  std::vector<CloudRequest> requests;
  auto& select = connection_.cached("SELECT device, kind, scope, saves, deletions, error FROM requests ORDER BY id");
  for (sqlite::Cursor rows(select); rows.next();) {
    requests.push_back(
        CloudRequest{rows->text(0), operationKindNamed(rows->text(1)).value_or(CKOperationKind::modifyRecords),
                     static_cast<CKDatabaseScope>(rows->int64(2)), static_cast<std::size_t>(rows->int64(3)),
                     static_cast<std::size_t>(rows->int64(4)), static_cast<int>(rows->int64(5))});
  }
  return requests;
}

}  // namespace tarnwell::cloudkit

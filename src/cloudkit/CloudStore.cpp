#include "cloudkit/CloudStore.h"

#include <fcntl.h>
#include <unistd.h>

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

// The history of requests keeps at least this many, the newest, and is
// trimmed back to that at every kRequestTrim-th request.
constexpr std::int64_t kRequestHistory = 10000;
constexpr std::int64_t kRequestTrim = 100;

enum ZoneState : std::int64_t { kLive = 0, kDeletedByApp = 1, kDeletedByUser = 2 };

// What a query subscription's push says about why it fired.
enum QueryReason : std::int64_t { kRecordCreated = 1, kRecordUpdated = 2, kRecordDeleted = 3 };

constexpr std::string_view kRecordColumns = "name, type, sequence, deleted, created, modified, fields";

// A batch reads and writes its records this many at a time, well within
// either backend's limit on a statement's parameters.
constexpr std::size_t kRowsPerStatement = 400;

std::int64_t code(CKDatabaseScope scope) { return static_cast<std::int64_t>(scope); }

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

bool recordHoldsAssets(const CKRecord& record) {
  return std::any_of(record.fields().begin(), record.fields().end(), [](const auto& field) {
    return field.second && (std::holds_alternative<CKAsset>(*field.second) ||
                            std::holds_alternative<std::vector<CKAsset>>(*field.second));
  });
}

bool anyAssets(const EncodedFields& fields) {
  return std::any_of(fields.begin(), fields.end(), [](const auto& field) { return holdsAssets(field.second); });
}

}  // namespace

struct CloudStore::ZoneRow {
  std::int64_t id = 0;
  std::int64_t state = kLive;
  std::int64_t incarnation = 0;
  std::int64_t sequence = 0;
};

struct CloudStore::StoredRecord {
  std::string type;
  std::int64_t sequence = 0;
  std::int64_t born = 0;
  bool deleted = false;
  bool assets = false;
  double created = 0;
  double modified = 0;
  std::string fields;
  // Changed by the batch, to be written back.
  bool dirty = false;
};

// The records of one zone that a batch names, as they stand while it runs:
// read in one statement before it and written back in one after, so that a
// batch costs the server a few round trips whatever its size.
struct CloudStore::ZoneBatch {
  std::map<std::string, StoredRecord, std::less<>> records;
};

// One record changed by a commit, for the subscriptions to match.
struct CloudStore::Change {
  std::string recordType;
  std::string recordName;
  std::int64_t firesOn = 0;
};

CloudStore::CloudStore(OpenedCloud opened) : sql_(std::move(opened.sql)), identity_(std::move(opened.identity)) {}

CloudStore::~CloudStore() = default;

std::int64_t CloudStore::setting(std::string_view key) {
  const auto rows = select("SELECT value FROM settings WHERE key = $1", key);
  return rows->next() ? rows->int64(0) : 0;
}

void CloudStore::setSetting(std::string_view key, std::int64_t value) {
  run("INSERT INTO settings (key, value) VALUES ($1, $2) ON CONFLICT (key) DO UPDATE SET value = $2", key, value);
}

void CloudStore::signIn(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  run("INSERT INTO devices (device, status) VALUES ($1, $2) ON CONFLICT (device) DO NOTHING", deviceID,
      static_cast<std::int64_t>(CKAccountStatus::available));
}

CKAccountStatus CloudStore::accountStatus(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  const auto rows = select("SELECT status FROM devices WHERE device = $1", deviceID);
  if (!rows->next()) return CKAccountStatus::noAccount;
  const std::int64_t raw = rows->int64(0);
  return raw >= 0 && raw <= 4 ? static_cast<CKAccountStatus>(raw) : CKAccountStatus::couldNotDetermine;
}

bool CloudStore::setAccountStatus(const std::string& deviceID, CKAccountStatus status) {
  const CKAccountStatus before = accountStatus(deviceID);
  std::lock_guard lock(mutex_);
  run("INSERT INTO devices (device, status) VALUES ($1, $2) ON CONFLICT (device) DO UPDATE SET status = $2", deviceID,
      static_cast<std::int64_t>(status));
  return before != status;
}

Admission CloudStore::admit(const std::string& deviceID, CKOperationKind kind, CKDatabaseScope scope, std::size_t saves,
                            std::size_t deletions, bool cancelled, std::size_t requestLimit) {
  const CKAccountStatus status = accountStatus(deviceID);
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
  Admission admission;
  if (cancelled) {
    admission.error = CKError(CKErrorCode::operationCancelled);
  } else if (status != CKAccountStatus::available &&
             !(scope == CKDatabaseScope::publicScope && kind == CKOperationKind::query)) {
    // Everyone may read the public database; everything else needs the account.
    admission.error = CKError(CKErrorCode::notAuthenticated);
  } else {
    const auto rows =
        select("SELECT id, code, retryAfter, times FROM faults WHERE kind IS NULL OR kind = $1 ORDER BY id LIMIT 1",
               name(kind));
    if (rows->next()) {
      CKError error(static_cast<int>(rows->int64(1)), {});
      if (!rows->isNull(2)) error.withRetryAfter(rows->real(2));
      admission.error = std::move(error);
      const std::int64_t id = rows->int64(0);
      const std::int64_t times = rows->int64(3);
      if (times > 1) {
        run("UPDATE faults SET times = $2 WHERE id = $1", id, times - 1);
      } else {
        run("DELETE FROM faults WHERE id = $1", id);
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
  {
    const auto inserted = select(
        "INSERT INTO requests (device, kind, scope, saves, deletions, error) VALUES ($1, $2, $3, $4, $5, $6) "
        "RETURNING id",
        deviceID, name(kind), code(scope), saves, deletions, admission.error ? admission.error->code() : 0);
    inserted->next();
    admission.requestID = inserted->int64(0);
  }
  // Trimmed now and then rather than at every request, which saves the
  // server a statement per operation.
  if (admission.requestID % kRequestTrim == 0)
    run("DELETE FROM requests WHERE id <= $1", admission.requestID - kRequestHistory);
  transaction.commit();
  return admission;
}

void CloudStore::finishRequest(std::int64_t requestID, int errorCode) {
  std::lock_guard lock(mutex_);
  run("UPDATE requests SET error = $2 WHERE id = $1", requestID, errorCode);
}

std::optional<CloudStore::ZoneRow> CloudStore::findZone(CKDatabaseScope scope, const CKRecordZoneID& zoneID) {
  const auto rows =
      select("SELECT id, state, incarnation, sequence FROM zones WHERE scope = $1 AND name = $2 AND owner = $3",
             code(scope), zoneID.zoneName, zoneID.ownerName);
  if (!rows->next()) return std::nullopt;
  return ZoneRow{rows->int64(0), rows->int64(1), rows->int64(2), rows->int64(3)};
}

void CloudStore::readBatch(const ZoneRow& zone, std::vector<std::string_view> names, ZoneBatch& batch) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  for (std::size_t first = 0; first < names.size(); first += kRowsPerStatement) {
    const std::size_t count = std::min(kRowsPerStatement, names.size() - first);
    SqlParameters parameters(zone.id);
    for (std::size_t index = first; index < first + count; ++index) parameters.add(names[index]);
    const auto rows = sql_->query(
        "SELECT name, type, sequence, born, deleted, assets, created, modified, fields FROM records "
        "WHERE zone = $1 AND name IN (" +
            sqlPlaceholders(2, static_cast<int>(count)) + ")",
        parameters.span());
    while (rows->next()) {
      batch.records.emplace(rows->text(0), StoredRecord{rows->text(1), rows->int64(2), rows->int64(3),
                                                        rows->int64(4) != 0, rows->int64(5) != 0, rows->real(6),
                                                        rows->real(7), std::string(rows->bytes(8)), false});
    }
  }
}

void CloudStore::writeBatch(const ZoneRow& zone, const ZoneBatch& batch) {
  constexpr int kColumns = 10;
  std::vector<const std::pair<const std::string, StoredRecord>*> dirty;
  for (const auto& entry : batch.records) {
    if (entry.second.dirty) dirty.push_back(&entry);
  }
  for (std::size_t first = 0; first < dirty.size(); first += kRowsPerStatement) {
    const std::size_t count = std::min(kRowsPerStatement, dirty.size() - first);
    std::string sql =
        "INSERT INTO records (zone, name, type, sequence, born, deleted, assets, created, modified, fields) VALUES ";
    SqlParameters parameters;
    for (std::size_t index = 0; index < count; ++index) {
      const auto& [name, record] = *dirty[first + index];
      if (index > 0) sql += ", ";
      sql += "(" + sqlPlaceholders(static_cast<int>(index) * kColumns + 1, kColumns) + ")";
      parameters.add(zone.id);
      parameters.add(name);
      parameters.add(record.type);
      parameters.add(record.sequence);
      parameters.add(record.born);
      parameters.add(record.deleted);
      parameters.add(record.assets);
      parameters.add(record.created);
      parameters.add(record.modified);
      if (record.deleted) {
        parameters.add(nullptr);
      } else {
        parameters.add(SqlBytes{record.fields});
      }
    }
    sql +=
        " ON CONFLICT (zone, name) DO UPDATE SET type = excluded.type, sequence = excluded.sequence, "
        "born = excluded.born, deleted = excluded.deleted, assets = excluded.assets, created = excluded.created, "
        "modified = excluded.modified, fields = excluded.fields";
    sql_->execute(sql, parameters.span());
  }
}

void CloudStore::touchZone(CKDatabaseScope scope, std::int64_t zone, std::int64_t zoneSequence) {
  run("UPDATE databases SET sequence = sequence + 1 WHERE scope = $1", code(scope));
  run("UPDATE zones SET sequence = $2, changed = (SELECT sequence FROM databases WHERE scope = zones.scope) "
      "WHERE id = $1",
      zone, zoneSequence);
}

void CloudStore::purgeZone(std::int64_t zone) {
  std::vector<std::int64_t> assetIDs;
  {
    const auto rows = select("SELECT fields FROM records WHERE zone = $1 AND assets != 0", zone);
    while (rows->next()) {
      const auto some = assetIDsOf(rows->bytes(0));
      assetIDs.insert(assetIDs.end(), some.begin(), some.end());
    }
  }
  releaseAssets(assetIDs);
  run("DELETE FROM records WHERE zone = $1", zone);
}

std::string CloudStore::storeAssetValue(const CKRecordValue& value) {
  const AssetCoding storing{[this](ByteWriter& writer, const CKAsset& asset) {
                              const std::string bytes = readFile(*asset.fileURL);
                              const auto inserted =
                                  select("INSERT INTO assets (bytes) VALUES ($1) RETURNING id", SqlBytes{bytes});
                              inserted->next();
                              writer.varint(static_cast<std::uint64_t>(inserted->int64(0)));
                            },
                            {}};
  return encodeValue(value, storing);
}

void CloudStore::releaseAssets(const std::vector<std::int64_t>& assetIDs) {
  for (const std::int64_t id : assetIDs) run("DELETE FROM assets WHERE id = $1", id);
}

CKAsset CloudStore::cachedAsset(std::int64_t assetID) {
  // Stored bytes never change under an id (ids are not reused), so a file
  // written once for it serves every later fetch.
  const std::filesystem::path folder = Environment::current().temporaryDirectory() / "CloudAssets";
  const std::filesystem::path file = folder / (identity_ + "-" + std::to_string(assetID));
  std::error_code error;
  if (std::filesystem::is_regular_file(file, error)) return CKAsset{file};
  const auto rows = select("SELECT bytes FROM assets WHERE id = $1", assetID);
  if (!rows->next()) return CKAsset{};
  // An asset is the user's data: the folder and its files are theirs alone.
  if (std::filesystem::create_directories(folder, error)) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
  }
  const std::filesystem::path partial = file.string() + "." + makeUUIDString();
  if (const int made = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); made >= 0) {
    ::close(made);
  }
  {
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    const std::string_view bytes = rows->bytes(0);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("Cannot write the asset file " + partial.string());
  }
  std::filesystem::rename(partial, file);
  return CKAsset{file};
}

CKRecord CloudStore::readRecord(const SqlRows& row, const CKRecordZoneID& zoneID) {
  const AssetCoding reading{
      {}, [this](ByteReader& reader) { return cachedAsset(static_cast<std::int64_t>(reader.varint())); }};
  return CKRecord::fromServer(row.text(1), CKRecordID{row.text(0), zoneID}, decodeFieldValues(row.bytes(6), reading),
                              changeTag(row.int64(2)), Date::fromTimeIntervalSinceReferenceDate(row.real(4)),
                              Date::fromTimeIntervalSinceReferenceDate(row.real(5)));
}

std::optional<CKError> CloudStore::saveRecord(ZoneBatch& batch, const CKRecord& record, CKRecordSavePolicy policy,
                                              std::int64_t& sequence, std::vector<Change>& changes,
                                              std::vector<CKRecord>& saved) {
  const std::string& recordName = record.recordID().recordName;
  const auto found = batch.records.find(recordName);
  const StoredRecord* existing = found != batch.records.end() ? &found->second : nullptr;
  const bool live = existing && !existing->deleted;
  if (policy == CKRecordSavePolicy::ifServerRecordUnchanged) {
    if (live && record.recordChangeTag() != changeTag(existing->sequence)) {
      return CKError(CKErrorCode::serverRecordChanged);
    }
    // The client edits a version the server no longer has.
    if (!live && record.recordChangeTag()) return CKError(CKErrorCode::unknownItem);
  }
  if (live && existing->type != record.recordType()) {
    return CKError(CKErrorCode::invalidArguments,
                   "The record " + recordName + " is a " + existing->type + ", not a " + record.recordType());
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
  StoredRecord written{
      record.recordType(),  sequence, live ? existing->born : sequence, false, anyAssets(fields), created, now,
      encodeFields(fields), true};
  if (found != batch.records.end()) {
    found->second = std::move(written);
  } else {
    batch.records.emplace(recordName, std::move(written));
  }
  changes.push_back({record.recordType(), recordName,
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

void CloudStore::deleteRecord(ZoneBatch& batch, const CKRecordID& recordID, std::int64_t& sequence,
                              std::vector<Change>& changes) {
  const auto found = batch.records.find(recordID.recordName);
  if (found == batch.records.end() || found->second.deleted) return;
  StoredRecord& existing = found->second;
  if (existing.assets) releaseAssets(assetIDsOf(existing.fields));
  existing.sequence = ++sequence;
  existing.deleted = true;
  existing.assets = false;
  existing.fields.clear();
  existing.modified = Date::now().timeIntervalSinceReferenceDate();
  existing.dirty = true;
  changes.push_back({existing.type, recordID.recordName, CKQuerySubscription::firesOnRecordDeletion});
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
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
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
    ZoneBatch records;
    {
      std::vector<std::string_view> names;
      for (const CKRecord* record : batch.saves) names.push_back(record->recordID().recordName);
      for (const CKRecordID* recordID : batch.deletions) names.push_back(recordID->recordName);
      readBatch(*zone, std::move(names), records);
    }
    // Assets are stored and released as the saves go; a zone that fails as
    // a whole takes that back. Nothing else is written before it is decided.
    const bool touchesAssets = std::any_of(records.records.begin(), records.records.end(),
                                           [](const auto& each) { return each.second.assets; }) ||
                               std::any_of(batch.saves.begin(), batch.saves.end(),
                                           [](const CKRecord* record) { return recordHoldsAssets(*record); });
    if (touchesAssets) sql_->execute("SAVEPOINT zoneBatch");
    std::int64_t sequence = zone->sequence;
    std::vector<Change> zoneChanges;
    std::vector<std::optional<CKError>> saveErrors;
    std::vector<CKRecord> saved;
    for (const CKRecord* record : batch.saves) {
      saveErrors.push_back(saveRecord(records, *record, operation.savePolicy, sequence, zoneChanges, saved));
    }
    for (const CKRecordID* recordID : batch.deletions) deleteRecord(records, *recordID, sequence, zoneChanges);

    const bool failed = std::any_of(saveErrors.begin(), saveErrors.end(), [](const auto& error) { return error; });
    if (failed && operation.isAtomic) {
      if (touchesAssets) {
        sql_->execute("ROLLBACK TO SAVEPOINT zoneBatch");
        sql_->execute("RELEASE SAVEPOINT zoneBatch");
      }
      const CKError spoiled(CKErrorCode::batchRequestFailed);
      for (std::size_t index = 0; index < batch.saves.size(); ++index) {
        failures.emplace_back(batch.saves[index]->recordID(), saveErrors[index].value_or(spoiled));
      }
      for (const CKRecordID* recordID : batch.deletions) failures.emplace_back(*recordID, spoiled);
      continue;
    }
    writeBatch(*zone, records);
    if (touchesAssets) sql_->execute("RELEASE SAVEPOINT zoneBatch");
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
  // A first push of a whole history grows the records from nothing faster
  // than the server's own statistics follow, and on statistics that still
  // count a few rows its planner finds a batch's records by scanning the
  // zone. Refreshed at each doubling, that costs a handful of refreshes.
  recordsWritten_ += changes.size();
  if (recordsWritten_ >= nextStatistics_) {
    sql_->refreshStatistics();
    nextStatistics_ = recordsWritten_ * 2;
  }
  return outcome;
}

DatabaseChangesPage CloudStore::databaseChanges(CKDatabaseScope scope, const std::optional<CKServerChangeToken>& since,
                                                std::size_t limit) {
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::read);
  DatabaseChangesPage page;
  const std::int64_t epoch = setting("epoch");
  std::int64_t current = 0;
  {
    const auto rows = select("SELECT sequence FROM databases WHERE scope = $1", code(scope));
    if (rows->next()) current = rows->int64(0);
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
  const auto rows = select(
      "SELECT name, owner, state, changed FROM zones "
      "WHERE scope = $1 AND changed > $2 AND name != '_defaultZone' AND ($3 = 1 OR state = 0) "
      "ORDER BY changed LIMIT $4",
      code(scope), from, since.has_value(), limit + 1);
  std::int64_t last = current;
  std::size_t count = 0;
  while (rows->next()) {
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
  SqlTransaction transaction(*sql_, CloudSql::Access::read);
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
  const auto rows = select("SELECT " + std::string(kRecordColumns) +
                               " FROM records WHERE zone = $1 AND sequence > $2 ORDER BY sequence LIMIT $3",
                           zone->id, from, limit + 1);
  std::int64_t last = zone->sequence;
  std::size_t count = 0;
  while (rows->next()) {
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
  SqlTransaction transaction(*sql_, CloudSql::Access::read);
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
  const auto rows = select(
      "SELECT " + std::string(kRecordColumns) +
          ", born FROM records WHERE zone = $1 AND type = $2 AND deleted = 0 AND born > $3 ORDER BY born LIMIT $4",
      zone->id, position.recordType, position.after, limit + 1);
  bool more = false;
  while (rows->next()) {
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
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
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
      const auto inserted = select(
          "INSERT INTO zones (scope, name, owner, state, incarnation, sequence, changed) "
          "VALUES ($1, $2, $3, 0, 0, 0, 0) RETURNING id",
          code(scope), zone.zoneID.zoneName, zone.zoneID.ownerName);
      inserted->next();
      touchZone(scope, inserted->int64(0), 0);
      changed = true;
    } else if (found->state != kLive) {
      run("UPDATE zones SET state = 0, incarnation = incarnation + 1 WHERE id = $1", found->id);
      touchZone(scope, found->id, found->sequence);
      changed = true;
    }
    outcome.saved.push_back(zone);
  }
  for (const CKRecordZoneID& zoneID : operation.recordZoneIDsToDelete) {
    const auto found = findZone(scope, zoneID);
    if (found && found->state == kLive) {
      purgeZone(found->id);
      run("UPDATE zones SET state = $2 WHERE id = $1", found->id, static_cast<std::int64_t>(kDeletedByApp));
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
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
  for (const CKSubscription& subscription : operation.subscriptionsToSave) {
    run("INSERT INTO subscriptions (scope, id, body) VALUES ($1, $2, $3) "
        "ON CONFLICT (scope, id) DO UPDATE SET body = excluded.body",
        code(scope), subscriptionID(subscription), encodeSubscription(subscription));
  }
  for (const std::string& id : operation.subscriptionIDsToDelete) {
    run("DELETE FROM subscriptions WHERE scope = $1 AND id = $2", code(scope), id);
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
    const auto rows = select("SELECT body FROM subscriptions WHERE scope = $1 ORDER BY id", code(scope));
    while (rows->next()) {
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
    const auto rows = select("SELECT device FROM devices ORDER BY device");
    while (rows->next()) {
      if (rows->text(0) != originator) devices.push_back(rows->text(0));
    }
  }
  std::int64_t dropped = setting("dropPushes");
  const std::int64_t droppedBefore = dropped;
  for (const std::string& device : devices) {
    for (const Matched& match : matched) {
      // A push already waiting for the subscription says all this one would.
      if (select("SELECT 1 FROM pushes WHERE device = $1 AND scope = $2 AND subscription = $3", device, code(scope),
                 match.subscriptionID)
              ->next()) {
        notified.insert(device);
        continue;
      }
      // Only a push that would have been left is lost, not one merged into a waiting one.
      if (dropped > 0) {
        --dropped;
        continue;
      }
      run("INSERT INTO pushes (device, scope, subscription, userInfo) VALUES ($1, $2, $3, $4)", device, code(scope),
          match.subscriptionID, match.userInfo.dump());
      notified.insert(device);
    }
  }
  if (dropped != droppedBefore) setSetting("dropPushes", dropped);
  if (!notified.empty()) sql_->announcePushes();
  return notified;
}

std::vector<nlohmann::json> CloudStore::takePushes(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
  std::vector<nlohmann::json> pushes;
  {
    const auto rows = select("SELECT userInfo FROM pushes WHERE device = $1 ORDER BY id", deviceID);
    while (rows->next()) pushes.push_back(nlohmann::json::parse(rows->text(0)));
  }
  if (!pushes.empty()) run("DELETE FROM pushes WHERE device = $1", deviceID);
  transaction.commit();
  return pushes;
}

std::size_t CloudStore::pushCount(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  const auto rows = select("SELECT count(*) FROM pushes WHERE device = $1", deviceID);
  return rows->next() ? static_cast<std::size_t>(rows->int64(0)) : 0;
}

bool CloudStore::waitForPushes(std::chrono::milliseconds timeout) {
  // Not under the mutex: the wait has a connection of its own, and the
  // store goes on serving the device's operations meanwhile.
  return sql_->waitForAnnouncement(timeout);
}

void CloudStore::rememberLongLived(const std::string& deviceID, const CKModifyRecordsOperation& operation) {
  const std::string body = encodeModifyOperation(operation);
  std::lock_guard lock(mutex_);
  run("INSERT INTO longLived (device, operation, body) VALUES ($1, $2, $3) "
      "ON CONFLICT (device, operation) DO UPDATE SET body = $3",
      deviceID, operation.operationID, SqlBytes{body});
}

void CloudStore::forgetLongLived(const std::string& deviceID, const std::string& operationID) {
  std::lock_guard lock(mutex_);
  run("DELETE FROM longLived WHERE device = $1 AND operation = $2", deviceID, operationID);
}

std::vector<std::string> CloudStore::longLivedIDs(const std::string& deviceID) {
  std::lock_guard lock(mutex_);
  std::vector<std::string> ids;
  const auto rows = select("SELECT operation FROM longLived WHERE device = $1 ORDER BY id", deviceID);
  while (rows->next()) ids.push_back(rows->text(0));
  return ids;
}

std::shared_ptr<CKModifyRecordsOperation> CloudStore::longLived(const std::string& deviceID,
                                                                const std::string& operationID) {
  std::lock_guard lock(mutex_);
  const auto rows = select("SELECT body FROM longLived WHERE device = $1 AND operation = $2", deviceID, operationID);
  if (!rows->next()) return nullptr;
  return decodeModifyOperation(operationID, rows->bytes(0));
}

void CloudStore::addFault(const CloudFault& fault) {
  if (fault.times <= 0) return;
  std::lock_guard lock(mutex_);
  std::optional<std::string_view> kind;
  if (fault.on) kind = name(*fault.on);
  run("INSERT INTO faults (code, retryAfter, times, kind) VALUES ($1, $2, $3, $4)", fault.code, fault.retryAfter,
      fault.times, kind);
}

std::vector<CloudFault> CloudStore::faults() {
  std::lock_guard lock(mutex_);
  std::vector<CloudFault> faults;
  const auto rows = select("SELECT code, retryAfter, times, kind FROM faults ORDER BY id");
  while (rows->next()) {
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
  sql_->execute("DELETE FROM faults");
}

void CloudStore::expireTokens() {
  std::lock_guard lock(mutex_);
  sql_->execute("UPDATE settings SET value = value + 1 WHERE key = 'epoch'");
}

NotifiedDevices CloudStore::deleteZoneByUser(CKDatabaseScope scope, const CKRecordZoneID& zoneID) {
  if (zoneID.isDefault()) throw CKError(CKErrorCode::invalidArguments, "The default zone cannot be deleted");
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
  const auto zone = findZone(scope, zoneID);
  if (!zone || zone->state != kLive) return {};
  purgeZone(zone->id);
  run("UPDATE zones SET state = $2 WHERE id = $1", zone->id, static_cast<std::int64_t>(kDeletedByUser));
  touchZone(scope, zone->id, zone->sequence);
  // Nobody's device did it, so every device hears of it.
  NotifiedDevices notified = leavePushes(std::nullopt, scope, {}, true);
  transaction.commit();
  return notified;
}

void CloudStore::dropCompletions(int count) { addToSetting("dropCompletions", count); }

void CloudStore::dropPushes(int count) { addToSetting("dropPushes", count); }

void CloudStore::addToSetting(std::string_view key, int count) {
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::write);
  setSetting(key, std::max<std::int64_t>(0, setting(key) + count));
  transaction.commit();
}

std::vector<CKRecord> CloudStore::records(CKDatabaseScope scope, const std::optional<std::string>& recordType) {
  std::lock_guard lock(mutex_);
  SqlTransaction transaction(*sql_, CloudSql::Access::read);
  std::vector<CKRecord> records;
  const auto rows = select(
      "SELECT r.name, r.type, r.sequence, r.deleted, r.created, r.modified, r.fields, z.name, z.owner "
      "FROM records r JOIN zones z ON z.id = r.zone "
      "WHERE z.scope = $1 AND z.state = 0 AND r.deleted = 0 AND (CAST($2 AS TEXT) IS NULL OR r.type = $2) "
      "ORDER BY z.name, z.owner, r.name",
      code(scope), recordType);
  while (rows->next()) records.push_back(readRecord(*rows, CKRecordZoneID{rows->text(7), rows->text(8)}));
  return records;
}

std::vector<CKRecordZone> CloudStore::zones(CKDatabaseScope scope) {
  std::lock_guard lock(mutex_);
  std::vector<CKRecordZone> zones;
  const auto rows =
      select("SELECT name, owner FROM zones WHERE scope = $1 AND state = 0 ORDER BY name, owner", code(scope));
  while (rows->next()) zones.push_back(CKRecordZone{{rows->text(0), rows->text(1)}});
  return zones;
}

std::vector<CKSubscription> CloudStore::subscriptions(CKDatabaseScope scope) {
  std::lock_guard lock(mutex_);
  std::vector<CKSubscription> subscriptions;
  const auto rows = select("SELECT body FROM subscriptions WHERE scope = $1 ORDER BY id", code(scope));
  while (rows->next()) {
    if (auto subscription = decodeSubscription(rows->text(0))) subscriptions.push_back(std::move(*subscription));
  }
  return subscriptions;
}

std::vector<CloudRequest> CloudStore::requests() {
  std::lock_guard lock(mutex_);
  std::vector<CloudRequest> requests;
  const auto rows = select("SELECT device, kind, scope, saves, deletions, error FROM requests ORDER BY id");
  while (rows->next()) {
    requests.push_back(
        CloudRequest{rows->text(0), operationKindNamed(rows->text(1)).value_or(CKOperationKind::modifyRecords),
                     static_cast<CKDatabaseScope>(rows->int64(2)), static_cast<std::size_t>(rows->int64(3)),
                     static_cast<std::size_t>(rows->int64(4)), static_cast<int>(rows->int64(5))});
  }
  return requests;
}

}  // namespace tarnwell::cloudkit

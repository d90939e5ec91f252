// The cloud's server: what it holds and how an operation changes it, over
// one SQL session (CloudSql.h). In memory that database is private to the
// emulator; in a folder it is the file that the installations of one user
// share, and on a server the user's schema that all their devices reach, so
// every call is one transaction and reads nothing kept from an earlier one.
//
// The store decides and records; it calls no client block. The emulator
// (CloudEmulator.cpp) turns its answers into the operations' blocks.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "cloudkit/CloudSql.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/cloudkit/Operations.h"

namespace tarnwell::cloudkit {

// Whether an operation reaches the server, and how its reply fares.
struct Admission {
  // The operation ends with this, the server untouched.
  std::optional<CKError> error;
  // The server runs it, but the reply never comes.
  bool dropCompletion = false;
  std::int64_t requestID = 0;
};

// Devices with a push waiting because of a commit.
using NotifiedDevices = std::set<std::string>;

struct ModifyRecordsOutcome {
  std::vector<CKRecord> saved;
  std::vector<CKRecordID> deleted;
  // partialFailure with each failed item's error.
  std::optional<CKError> error;
  NotifiedDevices notified;
};

struct DatabaseChangesPage {
  std::vector<CKRecordZoneID> changed;
  std::vector<CKRecordZoneID> deleted;
  std::optional<CKServerChangeToken> token;
  bool moreComing = false;
  std::optional<CKError> error;
};

// A record deleted, with its type.
struct Tombstone {
  CKRecordID recordID;
  std::string recordType;
};

struct ZoneChangesPage {
  // In the order they were committed.
  std::vector<std::variant<CKRecord, Tombstone>> changes;
  std::optional<CKServerChangeToken> token;
  bool moreComing = false;
  std::optional<CKError> error;
};

struct QueryPage {
  std::vector<CKRecord> records;
  std::optional<CKQueryCursor> cursor;
  std::optional<CKError> error;
};

struct ModifyZonesOutcome {
  std::vector<CKRecordZone> saved;
  std::vector<CKRecordZoneID> deleted;
  std::optional<CKError> error;
  NotifiedDevices notified;
};

struct Push {
  std::string deviceID;
  nlohmann::json userInfo;
};

class CloudStore {
 public:
  explicit CloudStore(OpenedCloud opened);
  ~CloudStore();

  CloudStore(const CloudStore&) = delete;
  CloudStore& operator=(const CloudStore&) = delete;

  // Devices and their accounts. A device signs in once, with an available
  // account; later sign-ins keep what was forced for it since.
  void signIn(const std::string& deviceID);
  CKAccountStatus accountStatus(const std::string& deviceID);
  // Whether the status changed.
  bool setAccountStatus(const std::string& deviceID, CKAccountStatus status);

  // The first step of every operation: refusals that leave the server
  // untouched (cancelled, no account, an injected fault, too many items),
  // the dropped reply, and the request's line in the history.
  Admission admit(const std::string& deviceID, CKOperationKind kind, CKDatabaseScope scope, std::size_t saves,
                  std::size_t deletions, bool cancelled, std::size_t requestLimit);
  // The request's final error, when it only showed at the end.
  void finishRequest(std::int64_t requestID, int errorCode);

  ModifyRecordsOutcome modifyRecords(const std::string& deviceID, CKDatabaseScope scope,
                                     const CKModifyRecordsOperation& operation);
  DatabaseChangesPage databaseChanges(CKDatabaseScope scope, const std::optional<CKServerChangeToken>& since,
                                      std::size_t limit);
  ZoneChangesPage zoneChanges(CKDatabaseScope scope, const CKRecordZoneID& zoneID,
                              const std::optional<CKServerChangeToken>& since, std::size_t limit);
  QueryPage query(CKDatabaseScope scope, const std::optional<CKQuery>& query,
                  const std::optional<CKQueryCursor>& cursor, std::size_t limit);
  ModifyZonesOutcome modifyZones(const std::string& deviceID, CKDatabaseScope scope,
                                 const CKModifyRecordZonesOperation& operation);
  void modifySubscriptions(CKDatabaseScope scope, const CKModifySubscriptionsOperation& operation);

  // Pushes that wait for a device, taken out in the order they came.
  std::vector<nlohmann::json> takePushes(const std::string& deviceID);
  std::size_t pushCount(const std::string& deviceID);
  // Waits up to `timeout` for a commit that left pushes; see CloudSql.
  bool waitForPushes(std::chrono::milliseconds timeout);

  void rememberLongLived(const std::string& deviceID, const CKModifyRecordsOperation& operation);
  void forgetLongLived(const std::string& deviceID, const std::string& operationID);
  std::vector<std::string> longLivedIDs(const std::string& deviceID);
  std::shared_ptr<CKModifyRecordsOperation> longLived(const std::string& deviceID, const std::string& operationID);

  void addFault(const CloudFault& fault);
  std::vector<CloudFault> faults();
  void clearFaults();
  void expireTokens();
  NotifiedDevices deleteZoneByUser(CKDatabaseScope scope, const CKRecordZoneID& zoneID);
  void dropCompletions(int count);
  void dropPushes(int count);

  std::vector<CKRecord> records(CKDatabaseScope scope, const std::optional<std::string>& recordType);
  std::vector<CKRecordZone> zones(CKDatabaseScope scope);
  std::vector<CKSubscription> subscriptions(CKDatabaseScope scope);
  std::vector<CloudRequest> requests();

 private:
  struct ZoneRow;
  struct StoredRecord;
  struct ZoneBatch;
  struct Change;

  template <class... Values>
  void run(std::string_view sql, const Values&... values) {
    const SqlParameters parameters(values...);
    sql_->execute(sql, parameters.span());
  }
  template <class... Values>
  std::unique_ptr<SqlRows> select(std::string_view sql, const Values&... values) {
    const SqlParameters parameters(values...);
    return sql_->query(sql, parameters.span());
  }

  std::int64_t setting(std::string_view key);
  void setSetting(std::string_view key, std::int64_t value);
  void addToSetting(std::string_view key, int count);
  std::optional<ZoneRow> findZone(CKDatabaseScope scope, const CKRecordZoneID& zoneID);
  // The zone's records of these names, read into `batch`.
  void readBatch(const ZoneRow& zone, std::vector<std::string_view> names, ZoneBatch& batch);
  // The records the batch changed, written back.
  void writeBatch(const ZoneRow& zone, const ZoneBatch& batch);
  // Raises the database's sequence for one changed zone and gives it the new value.
  void touchZone(CKDatabaseScope scope, std::int64_t zone, std::int64_t zoneSequence);
  void purgeZone(std::int64_t zone);
  std::optional<CKError> saveRecord(ZoneBatch& batch, const CKRecord& record, CKRecordSavePolicy policy,
                                    std::int64_t& sequence, std::vector<Change>& changes, std::vector<CKRecord>& saved);
  void deleteRecord(ZoneBatch& batch, const CKRecordID& recordID, std::int64_t& sequence, std::vector<Change>& changes);
  std::string storeAssetValue(const CKRecordValue& value);
  void releaseAssets(const std::vector<std::int64_t>& assetIDs);
  CKRecord readRecord(const SqlRows& row, const CKRecordZoneID& zoneID);
  CKAsset cachedAsset(std::int64_t assetID);
  NotifiedDevices leavePushes(const std::optional<std::string>& originator, CKDatabaseScope scope,
                              const std::vector<Change>& changes, bool zonesChanged);

  mutable std::mutex mutex_;
  std::unique_ptr<CloudSql> sql_;
  // Records this store wrote, and the count at which it next refreshes the
  // planner's statistics.
  std::size_t recordsWritten_ = 0;
  std::size_t nextStatistics_ = 5000;
  // Names this cloud in its tokens, so that another cloud's expire.
  std::string identity_;
};

}  // namespace tarnwell::cloudkit

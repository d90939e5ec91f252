// The operations a client adds to a cloud database, with their blocks.
//
// An operation is a value of what to do plus the blocks the cloud calls as
// it goes; it is run by adding it to a database (CKDatabase::add). Every
// block runs on a queue of the cloud's own, never on the caller's stack.
// Errors reach the blocks as std::exception_ptr, usually holding a CKError.
//
// A long-lived operation outlasts the process that added it: the cloud keeps
// it, by its operationID, until its completion was delivered, and a later
// launch finds it with CKContainer::fetchAllLongLivedOperationIDs.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/cloudkit/Subscriptions.h"

namespace tarnwell {

enum class CKQualityOfService : std::int64_t {
  userInteractive = 33,
  userInitiated = 25,
  utility = 17,
  background = 9,
  defaultQoS = -1,
};

struct CKOperationConfiguration {
  bool isLongLived = false;
  CKQualityOfService qualityOfService = CKQualityOfService::defaultQoS;
};

class CKOperation {
 public:
  CKOperation();
  virtual ~CKOperation() = default;
  CKOperation(const CKOperation&) = delete;
  CKOperation& operator=(const CKOperation&) = delete;

  // A fresh UUID text, or the id the cloud kept for a long-lived one.
  std::string operationID;
  CKOperationConfiguration configuration;

  // A cancelled operation that has not run yet ends with operationCancelled (20).
  void cancel() { cancelled_ = true; }
  bool isCancelled() const { return cancelled_; }
  // True once the cloud called the completion (or meant to and dropped it).
  bool isFinished() const { return finished_; }
  void markFinished() { finished_ = true; }

 private:
  std::atomic<bool> cancelled_ = false;
  std::atomic<bool> finished_ = false;
};

enum class CKRecordSavePolicy : std::int64_t {
  // Refuses a save whose change tag is not the server's (serverRecordChanged, 14).
  ifServerRecordUnchanged = 0,
  // Writes the record's changed keys over the server's record, field by field.
  changedKeys = 1,
  // Replaces the server's record with the fields sent.
  allKeys = 2,
};

class CKModifyRecordsOperation : public CKOperation {
 public:
  CKModifyRecordsOperation(std::vector<CKRecord> records, std::vector<CKRecordID> deletions)
      : recordsToSave(std::move(records)), recordIDsToDelete(std::move(deletions)) {}

  std::vector<CKRecord> recordsToSave;
  std::vector<CKRecordID> recordIDsToDelete;
  CKRecordSavePolicy savePolicy = CKRecordSavePolicy::ifServerRecordUnchanged;
  // All items of a zone are written, or none of them.
  bool isAtomic = true;

  // The older completion: the saved records and deleted ids, or an error
  // (partialFailure with the failed items).
  std::function<void(std::optional<std::vector<CKRecord>> savedRecords,
                     std::optional<std::vector<CKRecordID>> deletedRecordIDs, std::exception_ptr error)>
      modifyRecordsCompletionBlock;
  // The newer completion (platform 15 and later): no error is success.
  std::function<void(std::exception_ptr error)> modifyRecordsResultBlock;
};

class CKFetchDatabaseChangesOperation : public CKOperation {
 public:
  explicit CKFetchDatabaseChangesOperation(std::optional<CKServerChangeToken> previousToken)
      : previousServerChangeToken(std::move(previousToken)) {}

  std::optional<CKServerChangeToken> previousServerChangeToken;
  std::size_t resultsLimit = 0;  // 0: the cloud's own page size
  bool fetchAllChanges = true;

  std::function<void(const CKRecordZoneID&)> recordZoneWithIDChangedBlock;
  std::function<void(const CKRecordZoneID&)> recordZoneWithIDWasDeletedBlock;
  std::function<void(const CKServerChangeToken&)> changeTokenUpdatedBlock;
  std::function<void(std::optional<CKServerChangeToken> serverChangeToken, bool moreComing, std::exception_ptr error)>
      fetchDatabaseChangesCompletionBlock;
};

struct CKFetchRecordZoneChangesConfiguration {
  std::optional<CKServerChangeToken> previousServerChangeToken;
  std::size_t resultsLimit = 0;  // 0: the cloud's own page size
};

class CKFetchRecordZoneChangesOperation : public CKOperation {
 public:
  CKFetchRecordZoneChangesOperation(std::vector<CKRecordZoneID> zoneIDs,
                                    std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration> configurations)
      : recordZoneIDs(std::move(zoneIDs)), configurationsByRecordZoneID(std::move(configurations)) {}

  std::vector<CKRecordZoneID> recordZoneIDs;
  std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration> configurationsByRecordZoneID;
  // Keep fetching a zone, page after page, until nothing more is coming.
  bool fetchAllChanges = true;

  std::function<void(const CKRecord&)> recordChangedBlock;
  std::function<void(const CKRecordID&, const std::string& recordType)> recordWithIDWasDeletedBlock;
  std::function<void(const CKRecordZoneID&, std::optional<CKServerChangeToken>, std::optional<Data> clientChangeToken)>
      recordZoneChangeTokensUpdatedBlock;
  std::function<void(const CKRecordZoneID&, std::optional<CKServerChangeToken>, std::optional<Data> clientChangeToken,
                     bool moreComing, std::exception_ptr error)>
      recordZoneFetchCompletionBlock;
  std::function<void(std::exception_ptr error)> fetchRecordZoneChangesCompletionBlock;
};

class CKModifyRecordZonesOperation : public CKOperation {
 public:
  CKModifyRecordZonesOperation(std::vector<CKRecordZone> zones, std::vector<CKRecordZoneID> deletions)
      : recordZonesToSave(std::move(zones)), recordZoneIDsToDelete(std::move(deletions)) {}

  std::vector<CKRecordZone> recordZonesToSave;
  std::vector<CKRecordZoneID> recordZoneIDsToDelete;

  std::function<void(std::optional<std::vector<CKRecordZone>> savedRecordZones,
                     std::optional<std::vector<CKRecordZoneID>> deletedRecordZoneIDs, std::exception_ptr error)>
      modifyRecordZonesCompletionBlock;
};

class CKModifySubscriptionsOperation : public CKOperation {
 public:
  CKModifySubscriptionsOperation(std::vector<CKSubscription> subscriptions, std::vector<std::string> deletions)
      : subscriptionsToSave(std::move(subscriptions)), subscriptionIDsToDelete(std::move(deletions)) {}

  std::vector<CKSubscription> subscriptionsToSave;
  std::vector<std::string> subscriptionIDsToDelete;

  std::function<void(std::optional<std::vector<CKSubscription>> savedSubscriptions,
                     std::optional<std::vector<std::string>> deletedSubscriptionIDs, std::exception_ptr error)>
      modifySubscriptionsCompletionBlock;
};

// All records of one type in the database's default zone (the predicate is
// always true here), in the order they were first saved.
struct CKQuery {
  std::string recordType;
};

// Where a query that had more results than one page stopped.
struct CKQueryCursor {
  std::string opaque;
};

class CKQueryOperation : public CKOperation {
 public:
  explicit CKQueryOperation(CKQuery what) : query(std::move(what)) {}
  explicit CKQueryOperation(CKQueryCursor from) : cursor(std::move(from)) {}

  std::optional<CKQuery> query;
  std::optional<CKQueryCursor> cursor;
  std::size_t resultsLimit = 0;  // 0: the cloud's own page size

  std::function<void(const CKRecord&)> recordFetchedBlock;
  // With a cursor when more results wait for another operation.
  std::function<void(std::optional<CKQueryCursor> cursor, std::exception_ptr error)> queryCompletionBlock;
};

}  // namespace tarnwell

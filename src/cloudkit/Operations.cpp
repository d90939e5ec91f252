#include "tarnwell/cloudkit/Operations.h"

#include "cloudkit/OperationFailure.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {

CKOperation::CKOperation() : operationID(makeUUIDString()) {}

namespace cloudkit {

void failOperation(CKOperation& operation, std::exception_ptr error) {
  operation.markFinished();
  if (auto* modify = dynamic_cast<CKModifyRecordsOperation*>(&operation)) {
    if (modify->modifyRecordsResultBlock) modify->modifyRecordsResultBlock(error);
    if (modify->modifyRecordsCompletionBlock) modify->modifyRecordsCompletionBlock(std::nullopt, std::nullopt, error);
  } else if (auto* database = dynamic_cast<CKFetchDatabaseChangesOperation*>(&operation)) {
    if (database->fetchDatabaseChangesCompletionBlock) {
      database->fetchDatabaseChangesCompletionBlock(std::nullopt, false, error);
    }
  } else if (auto* zones = dynamic_cast<CKFetchRecordZoneChangesOperation*>(&operation)) {
    if (zones->recordZoneFetchCompletionBlock) {
      for (const CKRecordZoneID& zoneID : zones->recordZoneIDs) {
        const auto configuration = zones->configurationsByRecordZoneID.find(zoneID);
        zones->recordZoneFetchCompletionBlock(zoneID,
                                              configuration == zones->configurationsByRecordZoneID.end()
                                                  ? std::nullopt
                                                  : configuration->second.previousServerChangeToken,
                                              std::nullopt, false, error);
      }
    }
    if (zones->fetchRecordZoneChangesCompletionBlock) zones->fetchRecordZoneChangesCompletionBlock(error);
  } else if (auto* modifyZones = dynamic_cast<CKModifyRecordZonesOperation*>(&operation)) {
    if (modifyZones->modifyRecordZonesCompletionBlock) {
      modifyZones->modifyRecordZonesCompletionBlock(std::nullopt, std::nullopt, error);
    }
  } else if (auto* subscriptions = dynamic_cast<CKModifySubscriptionsOperation*>(&operation)) {
    if (subscriptions->modifySubscriptionsCompletionBlock) {
      subscriptions->modifySubscriptionsCompletionBlock(std::nullopt, std::nullopt, error);
    }
  } else if (auto* query = dynamic_cast<CKQueryOperation*>(&operation)) {
    if (query->queryCompletionBlock) query->queryCompletionBlock(std::nullopt, error);
  }
}

}  // namespace cloudkit
}  // namespace tarnwell

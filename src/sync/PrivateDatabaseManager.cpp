#include "sync/ManagerSupport.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/sync/DatabaseManager.h"
#include "tarnwell/sync/ErrorHandler.h"

namespace tarnwell::sync {
namespace {

std::optional<CKServerChangeToken> storedToken(UserDefaults& defaults, const std::string& key) {
  const auto data = defaults.dataForKey(key);
  if (!data) return std::nullopt;
  return CKServerChangeToken::unarchived(*data);
}

void storeToken(UserDefaults& defaults, const std::string& key, const std::optional<CKServerChangeToken>& token) {
  if (token) {
    defaults.set(key, token->archived());
  } else {
    defaults.removeObject(key);
  }
}

// The sync object of a zone, or of a record type: the first that matches.
template <class Match>
std::shared_ptr<Syncable> first(const std::vector<std::shared_ptr<Syncable>>& objects, Match match) {
  for (const auto& object : objects) {
    if (match(*object)) return object;
  }
  return nullptr;
}

}  // namespace

PrivateDatabaseManager::PrivateDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects,
                                               std::shared_ptr<CKContainer> container, UserDefaults& defaults)
    : CloudDatabaseManager(std::move(objects), container, container->privateCloudDatabase(), defaults) {}

void PrivateDatabaseManager::fetchChangesInDatabase(Callback callback) {
  const std::string tokenKey = storedKey(CloudSyncKey::databaseChangesTokenKey);
  auto operation = std::make_shared<CKFetchDatabaseChangesOperation>(storedToken(defaults(), tokenKey));
  operation->changeTokenUpdatedBlock = [weak = weakSelf(), tokenKey](const CKServerChangeToken& token) {
    const auto self = weak.lock();
    if (!self) return;
    CloudSync::shared().log("🔄 Database change token updated");
    storeToken(self->defaults(), tokenKey, token);
  };
  operation->fetchDatabaseChangesCompletionBlock = [weak = weakSelf(), tokenKey, callback](
                                                       std::optional<CKServerChangeToken> token, bool,
                                                       std::exception_ptr error) {
    const auto self = std::static_pointer_cast<PrivateDatabaseManager>(weak.lock());
    if (!self) return;
    auto& sync = CloudSync::shared();
    const auto result = ErrorHandler::resultType(error);
    if (result.isSuccess()) {
      sync.log("🔄 Database fetch completed, token updated");
      storeToken(self->defaults(), tokenKey, token);
      self->fetchChangesInZones(callback);
    } else if (result.isRetry()) {
      sync.log("🔄 Database fetch needs retry");
      ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weak, callback] {
        if (const auto again = weak.lock()) again->fetchChangesInDatabase(callback);
      });
    } else if (result.isRecoverableError() && result.reason() == CKOperationFailReason::changeTokenExpired) {
      sync.log("🔄 Database fetch token expired");
      self->defaults().removeObject(tokenKey);
      self->fetchChangesInDatabase(callback);
    } else {
      if (result.isRecoverableError()) {
        sync.log("🔄 Database fetch unhandled recoverable error: " + std::string(name(result.reason())));
      } else {
        sync.log("🔄 Database unhandled completion: " + debugDescription(error));
      }
      // The caller learns that this pull ended; nothing local is lost by it.
      if (callback) callback(error);
    }
  };
  CloudSync::shared().log("🔄 Add operation: fetchChangesInDatabase");
  database().add(std::move(operation));
}

void PrivateDatabaseManager::fetchChangesInZones(Callback callback) {
  std::vector<CKRecordZoneID> zoneIDs;
  std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration> configurations;
  for (const auto& object : syncObjects()) {
    object->willFetchChanges();
    zoneIDs.push_back(object->zoneID());
    configurations[object->zoneID()].previousServerChangeToken = object->zoneChangesToken();
  }
  auto operation = std::make_shared<CKFetchRecordZoneChangesOperation>(zoneIDs, std::move(configurations));
  operation->fetchAllChanges = true;
  const auto zoneObject = [weak = weakSelf()](const CKRecordZoneID& zoneID) -> std::shared_ptr<Syncable> {
    const auto self = weak.lock();
    if (!self) return nullptr;
    return first(self->syncObjects(), [&zoneID](const Syncable& object) { return object.zoneID() == zoneID; });
  };
  operation->recordZoneChangeTokensUpdatedBlock =
      [zoneObject](const CKRecordZoneID& zoneID, std::optional<CKServerChangeToken> token, std::optional<Data>) {
        CloudSync::shared().log("🔄 Record zone " + zoneID.description() + " change token updated");
        if (const auto object = zoneObject(zoneID)) object->setZoneChangesToken(token);
      };
  operation->recordChangedBlock = [weak = weakSelf()](const CKRecord& record) {
    const auto self = weak.lock();
    if (!self) return;
    CloudSync::shared().log("🔄 Record zone " + record.recordID().description() + " changed");
    // A record of a type nobody syncs is left alone.
    const auto object = first(self->syncObjects(),
                              [&record](const Syncable& each) { return each.recordType() == record.recordType(); });
    if (object) object->add(record);
  };
  operation->recordWithIDWasDeletedBlock = [zoneObject](const CKRecordID& recordID, const std::string&) {
    CloudSync::shared().log("🔄 Record " + recordID.description() + " deleted");
    if (const auto object = zoneObject(recordID.zoneID)) object->deleteRecord(recordID);
  };
  operation->recordZoneFetchCompletionBlock =
      [weak = weakSelf(), zoneObject, callback](const CKRecordZoneID& zoneID, std::optional<CKServerChangeToken> token,
                                                std::optional<Data>, bool, std::exception_ptr error) {
        const auto self = std::static_pointer_cast<PrivateDatabaseManager>(weak.lock());
        if (!self) return;
        auto& sync = CloudSync::shared();
        const std::string zone = "🔄 Record zone " + zoneID.description();
        const auto result = ErrorHandler::resultType(error);
        if (result.isSuccess()) {
          sync.log(zone + " fetch completed, token updated");
          if (const auto object = zoneObject(zoneID)) {
            object->setZoneChangesToken(token);
            object->didFetchChanges();
          }
        } else if (result.isRetry()) {
          sync.log(zone + " fetch needs retry");
          ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weak, callback] {
            if (const auto again = std::static_pointer_cast<PrivateDatabaseManager>(weak.lock())) {
              again->fetchChangesInZones(callback);
            }
          });
        } else if (result.isRecoverableError() && result.reason() == CKOperationFailReason::changeTokenExpired) {
          sync.log(zone + " token expired");
          if (const auto object = zoneObject(zoneID)) object->setZoneChangesToken(std::nullopt);
          self->fetchChangesInZones(callback);
        } else if (result.isRecoverableError()) {
          sync.log(zone + " unhandled recoverable error: " + std::string(name(result.reason())));
        } else {
          sync.log(zone + " unhandled completion: " + debugDescription(error));
          if (const auto object = zoneObject(zoneID); object && ErrorHandler::isZoneGone(error)) {
            self->zoneIsGone(*object);
          }
        }
      };
  operation->fetchRecordZoneChangesCompletionBlock = [weak = weakSelf(), callback](std::exception_ptr error) {
    const auto self = weak.lock();
    if (!self) return;
    for (const auto& object : self->syncObjects()) object->resolvePendingRelationships();
    // What waits here leaves once the pull is in.
    if (!error) self->drainOutboxes();
    if (callback) callback(error);
  };
  CloudSync::shared().log("🔄 Add operation: fetchChangesInZones");
  database().add(std::move(operation));
}

void PrivateDatabaseManager::createCustomZonesIfAllowed() { createZones(true); }

void PrivateDatabaseManager::makeZonesAgain() { createZones(false); }

void PrivateDatabaseManager::createZones(bool firstTime) {
  std::vector<CKRecordZone> zones;
  for (const auto& object : syncObjects()) {
    if (!object->isCustomZoneCreated()) zones.push_back(CKRecordZone{object->zoneID()});
  }
  if (zones.empty()) return;
  auto operation = std::make_shared<CKModifyRecordZonesOperation>(std::move(zones), std::vector<CKRecordZoneID>{});
  operation->modifyRecordZonesCompletionBlock =
      [weak = weakSelf(), firstTime](std::optional<std::vector<CKRecordZone>>,
                                     std::optional<std::vector<CKRecordZoneID>>, std::exception_ptr error) {
        const auto self = std::static_pointer_cast<PrivateDatabaseManager>(weak.lock());
        if (!self) return;
        const auto result = ErrorHandler::resultType(error);
        if (result.isRetry()) {
          ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weak, firstTime] {
            if (const auto again = std::static_pointer_cast<PrivateDatabaseManager>(weak.lock())) {
              again->createZones(firstTime);
            }
          });
        } else if (result.isSuccess() && firstTime) {
          // Every class, not only those whose zone was missing: the first full
          // push happens here.
          for (const auto& object : self->syncObjects()) {
            object->setIsCustomZoneCreated(true);
            DispatchQueue::main().async([object] { object->pushLocalObjectsToCloudKit(); });
          }
        } else if (result.isSuccess()) {
          // A zone made again is fetched from nothing, which sends what it lacks
          // of this installation's records; another installation may have
          // filled it first, and its copies must not undo newer edits here.
          for (const auto& object : self->syncObjects()) object->setIsCustomZoneCreated(true);
          self->fetchChangesInDatabase(nullptr);
        }
      };
  CloudSync::shared().log("🔄 Add operation: createCustomZonesIfAllowed");
  database().add(std::move(operation));
}

void PrivateDatabaseManager::createDatabaseSubscriptionIfHaveNot() {
  const std::string cachedKey = storedKey(CloudSyncKey::subscriptionIsLocallyCachedKey);
  if (defaults().boolForKey(cachedKey)) return;
  const CKDatabaseSubscription subscription{std::string(CloudSyncSubscription::cloudKitPrivateDatabaseSubscriptionID),
                                            CKNotificationInfo{.shouldSendContentAvailable = true}};
  auto operation = std::make_shared<CKModifySubscriptionsOperation>(std::vector<CKSubscription>{subscription},
                                                                    std::vector<std::string>{});
  operation->configuration.qualityOfService = CKQualityOfService::utility;
  operation->modifySubscriptionsCompletionBlock =
      [weak = weakSelf(), cachedKey](std::optional<std::vector<CKSubscription>>,
                                     std::optional<std::vector<std::string>>, std::exception_ptr error) {
        // An error leaves the flag, so the next start tries again.
        if (const auto self = weak.lock(); self && !error) self->defaults().set(cachedKey, true);
      };
  CloudSync::shared().log("🔄 Add operation: createDatabaseSubscriptionIfHaveNot");
  database().add(std::move(operation));
}

}  // namespace tarnwell::sync

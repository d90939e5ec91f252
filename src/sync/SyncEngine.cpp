#include "tarnwell/sync/SyncEngine.h"

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/sync/DatabaseManager.h"

namespace tarnwell::sync {

std::shared_ptr<SyncEngine> SyncEngine::make(std::vector<std::shared_ptr<Syncable>> objects, CKDatabaseScope scope,
                                             std::shared_ptr<CKContainer> container, ReadyCallback callback,
                                             UserDefaults& defaults) {
  std::shared_ptr<CloudDatabaseManager> manager;
  switch (scope) {
    case CKDatabaseScope::privateScope:
      manager = std::make_shared<PrivateDatabaseManager>(std::move(objects), container, defaults);
      break;
    case CKDatabaseScope::publicScope:
      manager = std::make_shared<PublicDatabaseManager>(std::move(objects), container, defaults);
      break;
    case CKDatabaseScope::sharedScope:
      fatalError("Shared database scope is not supported yet");
  }
  std::shared_ptr<SyncEngine> engine(new SyncEngine(manager));
  manager->prepare();
  container->accountStatus([weak = std::weak_ptr(engine), callback](CKAccountStatus status, std::exception_ptr) {
    const auto self = weak.lock();
    if (!self) return;
    auto& ready = self->databaseManager();
    switch (status) {
      case CKAccountStatus::available:
        ready.createCustomZonesIfAllowed();
        break;
      case CKAccountStatus::restricted:
      case CKAccountStatus::noAccount:
        // The public database can be read without an account; nothing is created there.
        if (self->isPrivate()) return;
        break;
      case CKAccountStatus::couldNotDetermine:
      case CKAccountStatus::temporarilyUnavailable:
        return;
    }
    ready.resumeLongLivedOperationIfPossible();
    ready.createDatabaseSubscriptionIfHaveNot();
    if (callback) callback(self);
  });
  return engine;
}

bool SyncEngine::isPrivate() const { return dynamic_cast<PrivateDatabaseManager*>(databaseManager_.get()) != nullptr; }

void SyncEngine::pull(Callback completionHandler) {
  databaseManager_->fetchChangesInDatabase(std::move(completionHandler));
}

void SyncEngine::sendUnsentChanges() {
  for (const auto& object : databaseManager_->syncObjects()) object->drainOutbox(false);
}

void SyncEngine::pushAll() {
  for (const auto& object : databaseManager_->syncObjects()) object->pushLocalObjectsToCloudKit();
}

void SyncEngine::push(const std::vector<PushItem>& objects, Callback completionHandler) {
  std::vector<CKRecord> records;
  std::vector<CKRecordID> recordIDs;
  for (const auto& object : objects) {
    if (!object.isDeleted) records.push_back(object.record);
  }
  for (const auto& object : objects) {
    if (object.isDeleted) recordIDs.push_back(object.record.recordID());
  }
  databaseManager_->syncRecordsToCloudKit(std::move(records), std::move(recordIDs), std::move(completionHandler));
}

void SyncEngine::startObservingLocalAndRemoteChanges() {
  stopObservingLocalAndRemoteChanges();
  // A public database is read only here: its local changes are never observed.
  if (isPrivate()) databaseManager_->registerLocalDatabase();
  databaseManager_->startObservingRemoteChanges();
  databaseManager_->startObservingTermination();
}

void SyncEngine::stopObservingLocalAndRemoteChanges() {
  if (isPrivate()) databaseManager_->unregisterLocalDatabase();
  databaseManager_->stopObservingRemoteChanges();
  databaseManager_->stopObservingTermination();
}

void SyncEngine::partiallyPauseSync() {
  for (const auto& object : databaseManager_->syncObjects()) object->pause();
}

void SyncEngine::resumeSync() {
  for (const auto& object : databaseManager_->syncObjects()) object->resume();
}

}  // namespace tarnwell::sync

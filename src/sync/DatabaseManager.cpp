#include "tarnwell/sync/DatabaseManager.h"

#include <map>

#include "sync/ManagerSupport.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/sync/ErrorHandler.h"

namespace tarnwell::sync {

bool platformHasResultBlocks() { return Environment::current().device().platformVersion >= 15; }

CloudDatabaseManager::CloudDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects,
                                           std::shared_ptr<CKContainer> container, CKDatabase& database,
                                           UserDefaults& defaults)
    : container_(std::move(container)),
      database_(database),
      syncObjects_(std::move(objects)),
      defaults_(defaults),
      utilityQueue_(Environment::current().makeQueue("org.vostra.tarnwell.sync.utility")) {}

void CloudDatabaseManager::prepare() {
  for (const auto& object : syncObjects_) {
    object->setPipeToEngine([weak = weakSelf(), weakObject = std::weak_ptr(object)](OutgoingChanges changes) {
      const auto self = weak.lock();
      const auto owner = weakObject.lock();
      if (self && owner) self->sendOutgoing(owner, std::move(changes));
    });
  }
}

namespace {

void logAddOperation(const std::vector<CKRecord>& records, std::size_t deletions) {
  const std::string type = records.empty() ? "unknown" : records.front().recordType();
  CloudSync::shared().log("🔄 Add operation: syncRecordsToCloudKit store " + std::to_string(records.size()) + " " +
                          type + " objects, delete " + std::to_string(deletions) + " objects");
}

std::shared_ptr<CKModifyRecordsOperation> modifyOperation(std::vector<CKRecord> records,
                                                          std::vector<CKRecordID> deletions) {
  logAddOperation(records, deletions.size());
  auto operation = std::make_shared<CKModifyRecordsOperation>(std::move(records), std::move(deletions));
  operation->configuration.isLongLived = true;
  operation->savePolicy = CKRecordSavePolicy::changedKeys;
  operation->isAtomic = true;
  return operation;
}

// What became of a modify request, as the log tells it.
enum class Outcome { sent, retry, chunk, failed };

// A request of one record is not split (`canChunk` false): too large alone, it fails.
Outcome outcomeOf(const CKOperationResultType& result, const std::exception_ptr& error, bool canChunk) {
  auto& sync = CloudSync::shared();
  if (result.isSuccess()) {
    sync.log("🔄 Modify record completed");
    return Outcome::sent;
  }
  if (result.isRetry()) {
    sync.log("🔄 Modify record needs retry");
    return Outcome::retry;
  }
  if (result.isChunk() && canChunk) {
    sync.log("🔄 Modify record needs chunk");
    return Outcome::chunk;
  }
  sync.log("🔄 Modify record unhandled completion: " + debugDescription(error));
  return Outcome::failed;
}

}  // namespace

void CloudDatabaseManager::sendOutgoing(const std::shared_ptr<Syncable>& object, OutgoingChanges changes) {
  auto operation = modifyOperation(std::move(changes.recordsToStore), std::move(changes.recordIDsToDelete));
  // The versions are all the completion keeps; the lists are the operation's.
  operation->modifyRecordsCompletionBlock =
      [weak = weakSelf(), weakObject = std::weak_ptr(object),
       sent = OutgoingChanges{{}, {}, std::move(changes.versions), changes.evenIfPaused}](
          std::optional<std::vector<CKRecord>>, std::optional<std::vector<CKRecordID>>, std::exception_ptr error) {
        const auto self = weak.lock();
        const auto owner = weakObject.lock();
        if (!self || !owner) return;
        const auto result = ErrorHandler::resultType(error);
        switch (outcomeOf(result, error, sent.size() > 1)) {
          case Outcome::sent:
            self->failuresInARow_ = 0;
            owner->didSend(sent);
            return;
          case Outcome::retry:
            owner->didNotSend(sent, false);
            // The rows are read again when the retry is sent, edits made meanwhile included.
            ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weakObject, paused = sent.evenIfPaused] {
              if (const auto again = weakObject.lock()) again->drainOutbox(paused);
            });
            return;
          case Outcome::chunk:
            owner->didNotSend(sent, true);
            owner->drainOutbox(sent.evenIfPaused);
            return;
          case Outcome::failed:
            owner->didNotSend(sent, false);
            if (ErrorHandler::isZoneGone(error)) {
              self->zoneIsGone(*owner);
            } else {
              self->drainLater(owner, sent.evenIfPaused);
            }
            return;
        }
      };
  database_.add(std::move(operation));
}

void CloudDatabaseManager::drainLater(const std::shared_ptr<Syncable>& object, bool evenIfPaused) {
  ErrorHandler::retryLater(failuresInARow_++, [weakObject = std::weak_ptr(object), evenIfPaused] {
    if (const auto again = weakObject.lock()) again->drainOutbox(evenIfPaused);
  });
}

void CloudDatabaseManager::drainOutboxes() {
  for (const auto& object : syncObjects_) object->drainOutbox(false);
}

void CloudDatabaseManager::zoneIsGone(Syncable& object) {
  CloudSync::shared().log("🔄 Record zone " + object.zoneID().description() + " is gone: made again");
  object.setZoneChangesToken(std::nullopt);
  object.setIsCustomZoneCreated(false);
  makeZonesAgain();
}

std::shared_ptr<Syncable> CloudDatabaseManager::objectOfZone(const CKRecordZoneID& zoneID) const {
  for (const auto& object : syncObjects_) {
    if (object->zoneID() == zoneID) return object;
  }
  return nullptr;
}

void CloudDatabaseManager::syncRecordsToCloudKit(std::vector<CKRecord> recordsToStore,
                                                 std::vector<CKRecordID> recordIDsToDelete, Callback completion) {
  auto operation = modifyOperation(std::move(recordsToStore), std::move(recordIDsToDelete));
  // The lists are read back from the operation, which the cloud holds while
  // its block runs: a push of many records is not kept twice.
  operation->modifyRecordsCompletionBlock = [weak = weakSelf(), sent = std::weak_ptr(operation), completion](
                                                std::optional<std::vector<CKRecord>>,
                                                std::optional<std::vector<CKRecordID>>, std::exception_ptr error) {
    const auto self = weak.lock();
    const auto finished = sent.lock();
    if (!self || !finished) return;
    const auto result = ErrorHandler::resultType(error);
    const auto outcome = outcomeOf(result, error, true);
    const auto finish = [completion](std::exception_ptr failure) {
      DispatchQueue::main().async([completion, failure] {
        if (completion) completion(failure);
      });
    };
    if (outcome == Outcome::sent) return finish(nullptr);
    // What did not go goes into the outbox of its class, so that nothing of
    // it is lost, and is sent from there as the rows are then.
    const auto objects = self->keepInOutboxes(*finished);
    const auto drain = [objects] {
      for (const auto& object : objects) object->drainOutbox(true);
    };
    if (outcome == Outcome::retry) {
      ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [drain, completion] {
        drain();
        if (completion) completion(nullptr);
      });
    } else if (outcome == Outcome::chunk) {
      drain();
      finish(nullptr);
    } else {
      if (ErrorHandler::isZoneGone(error)) {
        for (const auto& object : objects) self->zoneIsGone(*object);
      }
      finish(error);
    }
  };
  database_.add(std::move(operation));
}

std::vector<std::shared_ptr<Syncable>> CloudDatabaseManager::keepInOutboxes(const CKModifyRecordsOperation& operation) {
  std::map<std::shared_ptr<Syncable>, std::vector<CKRecordID>> byObject;
  for (const auto& record : operation.recordsToSave) {
    if (auto object = objectOfZone(record.recordID().zoneID)) byObject[object].push_back(record.recordID());
  }
  for (const auto& id : operation.recordIDsToDelete) {
    if (auto object = objectOfZone(id.zoneID)) byObject[object].push_back(id);
  }
  std::vector<std::shared_ptr<Syncable>> objects;
  for (auto& [object, ids] : byObject) {
    object->enqueue(ids);
    objects.push_back(object);
  }
  return objects;
}

void CloudDatabaseManager::resumeLongLivedOperationIfPossible() {
  container_->fetchAllLongLivedOperationIDs([weak = weakSelf()](std::optional<std::vector<std::string>> ids,
                                                                std::exception_ptr error) {
    const auto self = weak.lock();
    if (!self || error || !ids) return;
    for (const auto& id : *ids) {
      self->container_->fetchLongLivedOperation(
          id, [weak](std::shared_ptr<CKOperation> fetched, std::exception_ptr fetchError) {
            const auto manager = weak.lock();
            auto operation = std::dynamic_pointer_cast<CKModifyRecordsOperation>(fetched);
            if (!manager || fetchError || !operation) return;
            auto& sync = CloudSync::shared();
            const bool newer = platformHasResultBlocks();
            if (newer) {
              operation->modifyRecordsResultBlock = [](std::exception_ptr result) {
                CloudSync::shared().log("🔄 modify result: " + (result ? "failure(" + debugDescription(result) + ")"
                                                                      : std::string("success(())")));
              };
            } else {
              operation->modifyRecordsCompletionBlock = [](std::optional<std::vector<CKRecord>>,
                                                           std::optional<std::vector<CKRecordID>>, std::exception_ptr) {
                CloudSync::shared().log("🔄 Resume modify records success!");
              };
            }
            // Cancelled before it is added again: the order the system has always had.
            if (!operation->isFinished()) {
              sync.log("🔄 Cancel operation");
              operation->cancel();
            }
            if (newer) {
              sync.log("🔄 Add fetched long-lived operation");
              manager->database_.add(std::move(operation));
            } else {
              manager->container_->add(std::move(operation));
            }
          });
    }
  });
}

void CloudDatabaseManager::startObservingRemoteChanges() {
  // The token is kept only so that the block lives; stop does not reach it.
  remoteChangeObservers_.push_back(NotificationCenter::defaultCenter().addObserver(
      std::string(Notifications::cloudKitDataDidChangeRemotely), nullptr, [weak = weakSelf()](const Notification&) {
        const auto self = weak.lock();
        if (!self) return;
        self->utilityQueue_->async([weak] {
          if (const auto manager = weak.lock()) manager->fetchChangesInDatabase(nullptr);
        });
      }));
}

void CloudDatabaseManager::stopObservingRemoteChanges() {
  // Removes the manager itself as an observer of the name, which it never
  // is: the blocks that startObservingRemoteChanges added stay, so every
  // start adds one more and a push starts one fetch per block.
}

void CloudDatabaseManager::startObservingTermination() {
  terminationObservers_.push_back(NotificationCenter::defaultCenter().addObserver(
      std::string(UIApplicationWillTerminateNotification), nullptr, [weak = weakSelf()](const Notification&) {
        if (const auto self = weak.lock()) self->cleanUp();
      }));
}

void CloudDatabaseManager::stopObservingTermination() { terminationObservers_.clear(); }

void CloudDatabaseManager::cleanUp() {
  for (const auto& object : syncObjects_) object->cleanUp();
}

void CloudDatabaseManager::registerLocalDatabase() {
  for (const auto& object : syncObjects_) {
    DispatchQueue::main().async([object] { object->registerLocalDatabase(); });
  }
}

void CloudDatabaseManager::unregisterLocalDatabase() {
  for (const auto& object : syncObjects_) {
    DispatchQueue::main().async([object] { object->unregisterLocalDatabase(); });
  }
}

}  // namespace tarnwell::sync

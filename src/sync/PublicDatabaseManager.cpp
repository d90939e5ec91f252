#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/sync/DatabaseManager.h"
#include "tarnwell/sync/ErrorHandler.h"

namespace tarnwell::sync {

PublicDatabaseManager::PublicDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects,
                                             std::shared_ptr<CKContainer> container, UserDefaults& defaults)
    : CloudDatabaseManager(std::move(objects), container, container->publicCloudDatabase(), defaults) {}

void PublicDatabaseManager::fetchChangesInDatabase(Callback callback) {
  // No tokens here: every fetch reads everything.
  for (const auto& object : syncObjects()) {
    addQueryOperation(std::make_shared<CKQueryOperation>(CKQuery{object->recordType()}), object, callback);
  }
}

void PublicDatabaseManager::addQueryOperation(std::shared_ptr<CKQueryOperation> operation,
                                              const std::shared_ptr<Syncable>& object, Callback callback) {
  operation->recordFetchedBlock = [object](const CKRecord& record) { object->add(record); };
  operation->queryCompletionBlock = [weak = weakSelf(), object, callback, operation = std::weak_ptr(operation)](
                                        std::optional<CKQueryCursor> cursor, std::exception_ptr error) {
    const auto self = std::static_pointer_cast<PublicDatabaseManager>(weak.lock());
    if (!self) return;
    if (cursor) {
      self->addQueryOperation(std::make_shared<CKQueryOperation>(std::move(*cursor)), object, callback);
      return;
    }
    const auto result = ErrorHandler::resultType(error);
    if (result.isSuccess()) {
      DispatchQueue::main().async([callback] {
        if (callback) callback(nullptr);
      });
    } else if (result.isRetry()) {
      // The same operation again, blocks and all; the cloud holds it while its block runs.
      ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weak, same = operation.lock()] {
        const auto again = weak.lock();
        if (!again || !same) return;
        CloudSync::shared().log("🔄 Add operation: excuteQueryOperation");
        again->database().add(same);
      });
    }
  };
  CloudSync::shared().log("🔄 Add operation: excuteQueryOperation");
  database().add(std::move(operation));
}

void PublicDatabaseManager::createCustomZonesIfAllowed() {}

void PublicDatabaseManager::createDatabaseSubscriptionIfHaveNot() {
  // Every class under the one identifier, as the system has always saved them.
  for (const auto& object : syncObjects()) {
    const CKQuerySubscription subscription{
        object->recordType(), std::string(CloudSyncSubscription::cloudKitPublicDatabaseSubscriptionID),
        CKQuerySubscription::firesOnRecordCreation | CKQuerySubscription::firesOnRecordUpdate |
            CKQuerySubscription::firesOnRecordDeletion,
        CKNotificationInfo{.shouldSendContentAvailable = true}};
    auto operation = std::make_shared<CKModifySubscriptionsOperation>(std::vector<CKSubscription>{subscription},
                                                                      std::vector<std::string>{});
    operation->configuration.qualityOfService = CKQualityOfService::utility;
    operation->modifySubscriptionsCompletionBlock = [](std::optional<std::vector<CKSubscription>>,
                                                       std::optional<std::vector<std::string>>, std::exception_ptr) {};
    CloudSync::shared().log("🔄 Add operation: createSubscriptionInPublicDatabase");
    database().add(std::move(operation));
  }
}

}  // namespace tarnwell::sync

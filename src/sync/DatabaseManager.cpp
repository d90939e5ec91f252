#include "tarnwell/sync/DatabaseManager.h"
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
    object->setPipeToEngine([weak = weakSelf()](std::vector<CKRecord> records, std::vector<CKRecordID> ids) {
      if (const auto self = weak.lock()) self->syncRecordsToCloudKit(std::move(records), std::move(ids), nullptr);
    });
  }
}

void CloudDatabaseManager::syncRecordsToCloudKit(std::vector<CKRecord> recordsToStore,
                                                 std::vector<CKRecordID> recordIDsToDelete, Callback completion) {
  const std::string type = recordsToStore.empty() ? "unknown" : recordsToStore.front().recordType();
  CloudSync::shared().log("🔄 Add operation: syncRecordsToCloudKit store " + std::to_string(recordsToStore.size()) +
                          " " + type + " objects, delete " + std::to_string(recordIDsToDelete.size()) + " objects");
  auto operation = std::make_shared<CKModifyRecordsOperation>(std::move(recordsToStore), std::move(recordIDsToDelete));
  operation->configuration.isLongLived = true;
  operation->savePolicy = CKRecordSavePolicy::changedKeys;
  operation->isAtomic = true;
  // The lists are read back from the operation, which the cloud holds while
  // its block runs: a first push of every record is not kept twice.
  operation->modifyRecordsCompletionBlock = [weak = weakSelf(), sent = std::weak_ptr(operation), completion](
                                                std::optional<std::vector<CKRecord>>,
                                                std::optional<std::vector<CKRecordID>>, std::exception_ptr error) {
    const auto self = weak.lock();
    const auto finished = sent.lock();
    if (!self || !finished) return;
    const auto result = ErrorHandler::resultType(error);
    auto& sync = CloudSync::shared();
    const auto& records = finished->recordsToSave;
    const auto& deletions = finished->recordIDsToDelete;
    if (result.isSuccess()) {
      sync.log("🔄 Modify record completed");
      DispatchQueue::main().async([completion] {
        if (completion) completion(nullptr);
      });
    } else if (result.isRetry()) {
      sync.log("🔄 Modify record needs retry");
      ErrorHandler::retryOperationIfPossible(result.afterSeconds(), [weak, records, deletions, completion] {
        if (const auto again = weak.lock()) again->syncRecordsToCloudKit(records, deletions, completion);
      });
    } else if (result.isChunk()) {
      sync.log("🔄 Modify record needs chunk");
      // Every piece carries all the deletions; with nothing to store there is no piece at all.
      for (std::size_t start = 0; start < records.size(); start += kChunkSize) {
        const auto end = std::min(records.size(), start + kChunkSize);
        self->syncRecordsToCloudKit(std::vector<CKRecord>(records.begin() + static_cast<std::ptrdiff_t>(start),
                                                          records.begin() + static_cast<std::ptrdiff_t>(end)),
                                    deletions, completion);
      }
    } else {
      // The changes stay unsent until a later push; the completion hears nothing.
      sync.log("🔄 Modify record unhandled completion: " + debugDescription(error));
    }
  };
  database_.add(std::move(operation));
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

#include "tarnwell/cloudkit/CloudEmulator.h"

#include <sqlite3.h>

#include <array>
#include <map>
#include <mutex>
#include <utility>

#include "cloudkit/CloudStore.h"
#include "cloudkit/OperationFailure.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

using cloudkit::Admission;
using cloudkit::CloudStore;
using cloudkit::NotifiedDevices;

constexpr std::array<std::pair<CKOperationKind, std::string_view>, 6> kKindNames{{
    {CKOperationKind::modifyRecords, "modify"},
    {CKOperationKind::fetchDatabaseChanges, "fetch-database"},
    {CKOperationKind::fetchZoneChanges, "fetch-zone"},
    {CKOperationKind::modifyZones, "modify-zones"},
    {CKOperationKind::modifySubscriptions, "subscriptions"},
    {CKOperationKind::query, "query"},
}};

using PushHandler = std::function<void(const nlohmann::json&)>;

// What the client hears when the server itself failed. A folder that
// another process holds too long is busy, which a client may retry.
CKError serverFailure(std::exception_ptr failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const CKError& error) {
    return error;
  } catch (const sqlite::Error& error) {
    log.error(std::string("The cloud failed: ") + error.what());
    if (error.primaryCode() == SQLITE_BUSY || error.primaryCode() == SQLITE_LOCKED) {
      return CKError(CKErrorCode::serviceUnavailable).withRetryAfter(1.0);
    }
    return CKError(CKErrorCode::internalError, error.what());
  } catch (const std::exception& error) {
    log.error(std::string("The cloud failed: ") + error.what());
    return CKError(CKErrorCode::internalError, error.what());
  }
}

std::exception_ptr asPointer(const std::optional<CKError>& error) {
  return error ? std::make_exception_ptr(*error) : nullptr;
}

class Emulator;

class EmulatedDatabase final : public CKDatabase {
 public:
  EmulatedDatabase(Emulator& emulator, const std::string& deviceID, CKDatabaseScope scope)
      : emulator_(emulator), deviceID_(deviceID), scope_(scope) {}

  CKDatabaseScope databaseScope() const override { return scope_; }
  void add(std::shared_ptr<CKOperation> operation) override;

 private:
  // The container that owns this database keeps the emulator.
  Emulator& emulator_;
  const std::string& deviceID_;
  CKDatabaseScope scope_;
};

class DeviceContainer final : public EmulatedContainer {
 public:
  DeviceContainer(std::shared_ptr<Emulator> emulator, std::string deviceID, std::string identifier);

  const std::string& containerIdentifier() const override { return identifier_; }
  CKDatabase& privateCloudDatabase() override { return private_; }
  CKDatabase& publicCloudDatabase() override { return public_; }
  void accountStatus(AccountStatusCompletion completion) override;
  void fetchAllLongLivedOperationIDs(
      std::function<void(std::optional<std::vector<std::string>>, std::exception_ptr)> completion) override;
  void fetchLongLivedOperation(
      const std::string& operationID,
      std::function<void(std::shared_ptr<CKOperation>, std::exception_ptr)> completion) override;
  void add(std::shared_ptr<CKOperation> operation) override { private_.add(std::move(operation)); }
  void setRemoteNotificationHandler(PushHandler handler) override;

  const std::string& deviceID() const override { return deviceID_; }
  void setAccountStatus(CKAccountStatus status) override;
  std::size_t deliverPendingPushes() override;
  std::size_t pendingPushCount() const override;

  PushHandler handler() const {
    std::lock_guard lock(mutex_);
    return handler_;
  }

 private:
  std::shared_ptr<Emulator> emulator_;
  std::string deviceID_;
  std::string identifier_;
  EmulatedDatabase private_;
  EmulatedDatabase public_;
  mutable std::mutex mutex_;
  PushHandler handler_;
};

class Emulator final : public CloudEmulator {
 public:
  Emulator(std::unique_ptr<CloudStore> store, std::shared_ptr<DispatchQueue> queue, Options options)
      : store_(std::move(store)), queue_(std::move(queue)), options_(options) {}

  std::shared_ptr<EmulatedContainer> container(const std::string& deviceID,
                                               const std::string& containerIdentifier) override {
    store_->signIn(deviceID);
    std::lock_guard lock(mutex_);
    std::erase_if(containers_, [](const auto& entry) { return entry.second.expired(); });
    auto& slot = containers_[{deviceID, containerIdentifier}];
    if (auto existing = slot.lock()) return existing;
    auto made = std::make_shared<DeviceContainer>(std::static_pointer_cast<Emulator>(shared_from_this()), deviceID,
                                                  containerIdentifier);
    slot = made;
    return made;
  }

  void addFault(CloudFault fault) override { store_->addFault(fault); }
  std::vector<CloudFault> faults() const override { return store_->faults(); }
  void clearFaults() override { store_->clearFaults(); }
  void expireTokens() override { store_->expireTokens(); }
  void deleteZone(CKDatabaseScope scope, const CKRecordZoneID& zoneID) override {
    deliverSoon(store_->deleteZoneByUser(scope, zoneID));
  }
  void dropCompletions(int count) override { store_->dropCompletions(count); }
  void dropPushes(int count) override { store_->dropPushes(count); }

  std::vector<CKRecord> records(CKDatabaseScope scope, const std::optional<std::string>& recordType) const override {
    return store_->records(scope, recordType);
  }
  std::vector<CKRecordZone> zones(CKDatabaseScope scope) const override { return store_->zones(scope); }
  std::vector<CKSubscription> subscriptions(CKDatabaseScope scope) const override {
    return store_->subscriptions(scope);
  }
  std::vector<CloudRequest> requests() const override { return store_->requests(); }
  bool waitForPushes(std::chrono::milliseconds timeout) override { return store_->waitForPushes(timeout); }

  CloudStore& store() { return *store_; }

  // Runs `block` on the queue, unless the emulator is gone by then: a cloud
  // whose last user left answers nobody.
  void later(std::function<void(Emulator&)> block) {
    queue_->async([weak = weak_from_this(), block = std::move(block)] {
      if (auto self = weak.lock()) block(static_cast<Emulator&>(*self));
    });
  }

  void submit(const std::string& deviceID, CKDatabaseScope scope, std::shared_ptr<CKOperation> operation) {
    if (!operation) return;
    // Kept before it runs, so that a process that ends first leaves it behind.
    if (auto* modify = dynamic_cast<CKModifyRecordsOperation*>(operation.get());
        modify && modify->configuration.isLongLived && !modify->isCancelled()) {
      try {
        store_->rememberLongLived(deviceID, *modify);
      } catch (const std::exception& error) {
        log.error(std::string("The cloud cannot keep a long-lived operation: ") + error.what());
      }
    }
    later([deviceID, scope, operation](Emulator& self) { self.run(deviceID, scope, operation); });
  }

  // Hands the waiting pushes of each device that has a handler here to it, soon.
  void deliverSoon(const NotifiedDevices& devices) {
    for (const std::string& deviceID : devices) {
      if (handlerOf(deviceID)) later([deviceID](Emulator& self) { self.deliverWaiting(deviceID); });
    }
  }

  void deliverWaiting(const std::string& deviceID) {
    const PushHandler handler = handlerOf(deviceID);
    if (!handler) return;
    std::vector<nlohmann::json> pushes;
    try {
      pushes = store_->takePushes(deviceID);
    } catch (const std::exception& error) {
      log.error(std::string("The cloud cannot hand over pushes: ") + error.what());
    }
    for (const auto& push : pushes) handler(push);
  }

 private:
  PushHandler handlerOf(const std::string& deviceID) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, weak] : containers_) {
      if (key.first != deviceID) continue;
      if (auto container = weak.lock()) {
        if (auto handler = container->handler()) return handler;
      }
    }
    return nullptr;
  }

  std::size_t pageLimit(std::size_t resultsLimit) const {
    return std::max<std::size_t>(1, resultsLimit != 0 ? resultsLimit : options_.pageSize);
  }

  // Admission, or the operation ends here with what refused it.
  std::optional<Admission> admit(const std::string& deviceID, CKOperationKind kind, CKDatabaseScope scope,
                                 CKOperation& operation, std::size_t saves = 0, std::size_t deletions = 0) {
    std::optional<CKError> refusal;
    try {
      Admission admission =
          store_->admit(deviceID, kind, scope, saves, deletions, operation.isCancelled(), options_.requestLimit);
      if (!admission.error) return admission;
      refusal = std::move(admission.error);
    } catch (...) {
      refusal = serverFailure(std::current_exception());
    }
    cloudkit::failOperation(operation, asPointer(refusal));
    return std::nullopt;
  }

  void finishRequest(std::int64_t requestID, const std::optional<CKError>& error) {
    if (!error) return;
    try {
      store_->finishRequest(requestID, error->code());
    } catch (const std::exception& failure) {
      log.error(std::string("The cloud cannot note a request: ") + failure.what());
    }
  }

  void run(const std::string& deviceID, CKDatabaseScope scope, const std::shared_ptr<CKOperation>& operation) {
    if (auto modify = std::dynamic_pointer_cast<CKModifyRecordsOperation>(operation)) {
      runModifyRecords(deviceID, scope, *modify);
    } else if (auto database = std::dynamic_pointer_cast<CKFetchDatabaseChangesOperation>(operation)) {
      if (auto admission = admit(deviceID, CKOperationKind::fetchDatabaseChanges, scope, *database)) {
        fetchDatabasePage(scope, database, *admission, database->previousServerChangeToken);
      }
    } else if (auto zones = std::dynamic_pointer_cast<CKFetchRecordZoneChangesOperation>(operation)) {
      if (auto admission = admit(deviceID, CKOperationKind::fetchZoneChanges, scope, *zones)) {
        fetchZonePage(scope, zones, std::make_shared<ZoneFetch>(ZoneFetch{*admission, 0, std::nullopt, false}));
      }
    } else if (auto query = std::dynamic_pointer_cast<CKQueryOperation>(operation)) {
      runQuery(deviceID, scope, *query);
    } else if (auto modifyZones = std::dynamic_pointer_cast<CKModifyRecordZonesOperation>(operation)) {
      runModifyZones(deviceID, scope, *modifyZones);
    } else if (auto subscriptions = std::dynamic_pointer_cast<CKModifySubscriptionsOperation>(operation)) {
      runModifySubscriptions(deviceID, scope, *subscriptions);
    } else {
      cloudkit::failOperation(*operation, std::make_exception_ptr(CKError(CKErrorCode::invalidArguments)));
    }
  }

  void runModifyRecords(const std::string& deviceID, CKDatabaseScope scope, CKModifyRecordsOperation& operation) {
    Admission admission;
    cloudkit::ModifyRecordsOutcome outcome;
    std::optional<CKError> error;
    try {
      admission = store_->admit(deviceID, CKOperationKind::modifyRecords, scope, operation.recordsToSave.size(),
                                operation.recordIDsToDelete.size(), operation.isCancelled(), options_.requestLimit);
      if (admission.error) {
        error = admission.error;
      } else {
        outcome = store_->modifyRecords(deviceID, scope, operation);
        error = outcome.error;
        finishRequest(admission.requestID, error);
      }
      // A reply that never came leaves the operation to a later launch.
      if (operation.configuration.isLongLived && !admission.dropCompletion) {
        store_->forgetLongLived(deviceID, operation.operationID);
      }
    } catch (...) {
      error = serverFailure(std::current_exception());
    }
    deliverSoon(outcome.notified);
    operation.markFinished();
    if (admission.dropCompletion) return;

    const std::exception_ptr failure = asPointer(error);
    if (operation.modifyRecordsResultBlock) operation.modifyRecordsResultBlock(failure);
    if (operation.modifyRecordsCompletionBlock) {
      if (error && error->code() != static_cast<int>(CKErrorCode::partialFailure)) {
        operation.modifyRecordsCompletionBlock(std::nullopt, std::nullopt, failure);
      } else {
        operation.modifyRecordsCompletionBlock(std::move(outcome.saved), std::move(outcome.deleted), failure);
      }
    }
  }

  // One page of database changes; the next one is another turn of the queue.
  void fetchDatabasePage(CKDatabaseScope scope, const std::shared_ptr<CKFetchDatabaseChangesOperation>& operation,
                         Admission admission, std::optional<CKServerChangeToken> token) {
    cloudkit::DatabaseChangesPage page;
    if (operation->isCancelled()) {
      page.error = CKError(CKErrorCode::operationCancelled);
    } else {
      try {
        page = store_->databaseChanges(scope, token, pageLimit(operation->resultsLimit));
      } catch (...) {
        page.error = serverFailure(std::current_exception());
      }
    }
    if (page.error) {
      finishRequest(admission.requestID, page.error);
      operation->markFinished();
      if (!admission.dropCompletion && operation->fetchDatabaseChangesCompletionBlock) {
        operation->fetchDatabaseChangesCompletionBlock(std::nullopt, false, asPointer(page.error));
      }
      return;
    }
    if (operation->recordZoneWithIDChangedBlock) {
      for (const auto& zoneID : page.changed) operation->recordZoneWithIDChangedBlock(zoneID);
    }
    if (operation->recordZoneWithIDWasDeletedBlock) {
      for (const auto& zoneID : page.deleted) operation->recordZoneWithIDWasDeletedBlock(zoneID);
    }
    if (page.moreComing && operation->fetchAllChanges) {
      if (operation->changeTokenUpdatedBlock) operation->changeTokenUpdatedBlock(*page.token);
      later([scope, operation, admission, next = page.token](Emulator& self) {
        self.fetchDatabasePage(scope, operation, admission, next);
      });
      return;
    }
    operation->markFinished();
    if (!admission.dropCompletion && operation->fetchDatabaseChangesCompletionBlock) {
      operation->fetchDatabaseChangesCompletionBlock(page.token, page.moreComing, nullptr);
    }
  }

  struct ZoneFetch {
    Admission admission;
    std::size_t zone = 0;
    // Where the zone being fetched stands; nothing before its first page.
    std::optional<std::optional<CKServerChangeToken>> token;
    bool zoneFailed = false;
  };

  void fetchZonePage(CKDatabaseScope scope, const std::shared_ptr<CKFetchRecordZoneChangesOperation>& operation,
                     const std::shared_ptr<ZoneFetch>& fetch) {
    const bool dropped = fetch->admission.dropCompletion;
    if (fetch->zone == operation->recordZoneIDs.size()) {
      std::optional<CKError> error;
      if (operation->isCancelled()) {
        error = CKError(CKErrorCode::operationCancelled);
      } else if (fetch->zoneFailed) {
        error = CKError(CKErrorCode::partialFailure, "Some zones could not be fetched");
      }
      finishRequest(fetch->admission.requestID, error);
      operation->markFinished();
      if (!dropped && operation->fetchRecordZoneChangesCompletionBlock) {
        operation->fetchRecordZoneChangesCompletionBlock(asPointer(error));
      }
      return;
    }

    const CKRecordZoneID& zoneID = operation->recordZoneIDs[fetch->zone];
    const auto found = operation->configurationsByRecordZoneID.find(zoneID);
    const CKFetchRecordZoneChangesConfiguration configuration = found == operation->configurationsByRecordZoneID.end()
                                                                    ? CKFetchRecordZoneChangesConfiguration{}
                                                                    : found->second;
    if (!fetch->token) fetch->token = configuration.previousServerChangeToken;

    cloudkit::ZoneChangesPage page;
    if (operation->isCancelled()) {
      page.error = CKError(CKErrorCode::operationCancelled);
    } else {
      try {
        page = store_->zoneChanges(scope, zoneID, *fetch->token, pageLimit(configuration.resultsLimit));
      } catch (...) {
        page.error = serverFailure(std::current_exception());
      }
    }
    const auto nextZone = [&] {
      ++fetch->zone;
      fetch->token.reset();
      later([scope, operation, fetch](Emulator& self) { self.fetchZonePage(scope, operation, fetch); });
    };
    if (page.error) {
      fetch->zoneFailed = true;
      if (!dropped && operation->recordZoneFetchCompletionBlock) {
        operation->recordZoneFetchCompletionBlock(zoneID, *fetch->token, std::nullopt, false, asPointer(page.error));
      }
      nextZone();
      return;
    }
    for (const auto& change : page.changes) {
      if (const auto* record = std::get_if<CKRecord>(&change)) {
        if (operation->recordChangedBlock) operation->recordChangedBlock(*record);
      } else if (operation->recordWithIDWasDeletedBlock) {
        const auto& tombstone = std::get<cloudkit::Tombstone>(change);
        operation->recordWithIDWasDeletedBlock(tombstone.recordID, tombstone.recordType);
      }
    }
    fetch->token = page.token;
    if (page.moreComing && operation->fetchAllChanges) {
      if (operation->recordZoneChangeTokensUpdatedBlock) {
        operation->recordZoneChangeTokensUpdatedBlock(zoneID, page.token, std::nullopt);
      }
      later([scope, operation, fetch](Emulator& self) { self.fetchZonePage(scope, operation, fetch); });
      return;
    }
    if (!dropped && operation->recordZoneFetchCompletionBlock) {
      operation->recordZoneFetchCompletionBlock(zoneID, page.token, std::nullopt, page.moreComing, nullptr);
    }
    nextZone();
  }

  void runQuery(const std::string& deviceID, CKDatabaseScope scope, CKQueryOperation& operation) {
    const auto admission = admit(deviceID, CKOperationKind::query, scope, operation);
    if (!admission) return;
    cloudkit::QueryPage page;
    try {
      page = store_->query(scope, operation.query, operation.cursor, pageLimit(operation.resultsLimit));
    } catch (...) {
      page.error = serverFailure(std::current_exception());
    }
    finishRequest(admission->requestID, page.error);
    if (operation.recordFetchedBlock) {
      for (const CKRecord& record : page.records) operation.recordFetchedBlock(record);
    }
    operation.markFinished();
    if (!admission->dropCompletion && operation.queryCompletionBlock) {
      operation.queryCompletionBlock(page.cursor, asPointer(page.error));
    }
  }

  void runModifyZones(const std::string& deviceID, CKDatabaseScope scope, CKModifyRecordZonesOperation& operation) {
    const auto admission = admit(deviceID, CKOperationKind::modifyZones, scope, operation);
    if (!admission) return;
    cloudkit::ModifyZonesOutcome outcome;
    try {
      outcome = store_->modifyZones(deviceID, scope, operation);
    } catch (...) {
      outcome.error = serverFailure(std::current_exception());
    }
    finishRequest(admission->requestID, outcome.error);
    deliverSoon(outcome.notified);
    operation.markFinished();
    if (admission->dropCompletion || !operation.modifyRecordZonesCompletionBlock) return;
    if (outcome.error) {
      operation.modifyRecordZonesCompletionBlock(std::nullopt, std::nullopt, asPointer(outcome.error));
    } else {
      operation.modifyRecordZonesCompletionBlock(std::move(outcome.saved), std::move(outcome.deleted), nullptr);
    }
  }

  void runModifySubscriptions(const std::string& deviceID, CKDatabaseScope scope,
                              CKModifySubscriptionsOperation& operation) {
    const auto admission = admit(deviceID, CKOperationKind::modifySubscriptions, scope, operation);
    if (!admission) return;
    std::optional<CKError> error;
    try {
      store_->modifySubscriptions(scope, operation);
    } catch (...) {
      error = serverFailure(std::current_exception());
    }
    finishRequest(admission->requestID, error);
    operation.markFinished();
    if (admission->dropCompletion || !operation.modifySubscriptionsCompletionBlock) return;
    if (error) {
      operation.modifySubscriptionsCompletionBlock(std::nullopt, std::nullopt, asPointer(error));
    } else {
      operation.modifySubscriptionsCompletionBlock(operation.subscriptionsToSave, operation.subscriptionIDsToDelete,
                                                   nullptr);
    }
  }

  std::unique_ptr<CloudStore> store_;
  std::shared_ptr<DispatchQueue> queue_;
  Options options_;
  std::mutex mutex_;
  // The containers of this process, by device and application: where pushes go.
  std::map<std::pair<std::string, std::string>, std::weak_ptr<DeviceContainer>> containers_;
};

void EmulatedDatabase::add(std::shared_ptr<CKOperation> operation) {
  emulator_.submit(deviceID_, scope_, std::move(operation));
}

DeviceContainer::DeviceContainer(std::shared_ptr<Emulator> emulator, std::string deviceID, std::string identifier)
    : emulator_(std::move(emulator)),
      deviceID_(std::move(deviceID)),
      identifier_(std::move(identifier)),
      private_(*emulator_, deviceID_, CKDatabaseScope::privateScope),
      public_(*emulator_, deviceID_, CKDatabaseScope::publicScope) {}

void DeviceContainer::accountStatus(AccountStatusCompletion completion) {
  emulator_->later([deviceID = deviceID_, completion = std::move(completion)](Emulator& emulator) {
    completion(emulator.store().accountStatus(deviceID), nullptr);
  });
}

void DeviceContainer::fetchAllLongLivedOperationIDs(
    std::function<void(std::optional<std::vector<std::string>>, std::exception_ptr)> completion) {
  emulator_->later([deviceID = deviceID_, completion = std::move(completion)](Emulator& emulator) {
    completion(emulator.store().longLivedIDs(deviceID), nullptr);
  });
}

void DeviceContainer::fetchLongLivedOperation(
    const std::string& operationID, std::function<void(std::shared_ptr<CKOperation>, std::exception_ptr)> completion) {
  emulator_->later([deviceID = deviceID_, operationID, completion = std::move(completion)](Emulator& emulator) {
    if (auto operation = emulator.store().longLived(deviceID, operationID)) {
      completion(std::move(operation), nullptr);
    } else {
      completion(nullptr,
                 std::make_exception_ptr(CKError(CKErrorCode::unknownItem, "No long-lived operation " + operationID)));
    }
  });
}

void DeviceContainer::setRemoteNotificationHandler(PushHandler handler) {
  const bool given = static_cast<bool>(handler);
  {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }
  if (given) emulator_->later([deviceID = deviceID_](Emulator& emulator) { emulator.deliverWaiting(deviceID); });
}

void DeviceContainer::setAccountStatus(CKAccountStatus status) {
  if (!emulator_->store().setAccountStatus(deviceID_, status)) return;
  emulator_->later([](Emulator&) { NotificationCenter::defaultCenter().post(CKAccountChangedNotification); });
}

std::size_t DeviceContainer::deliverPendingPushes() {
  PushHandler handler = this->handler();
  if (!handler) return 0;
  auto pushes = emulator_->store().takePushes(deviceID_);
  const std::size_t count = pushes.size();
  if (count > 0) {
    emulator_->later([handler = std::move(handler), pushes = std::move(pushes)](Emulator&) {
      for (const auto& push : pushes) handler(push);
    });
  }
  return count;
}

std::size_t DeviceContainer::pendingPushCount() const { return emulator_->store().pushCount(deviceID_); }

}  // namespace

std::string_view name(CKOperationKind kind) {
  for (const auto& [known, word] : kKindNames) {
    if (known == kind) return word;
  }
  return "modify";
}

std::optional<CKOperationKind> operationKindNamed(std::string_view name) {
  for (const auto& [kind, word] : kKindNames) {
    if (word == name) return kind;
  }
  return std::nullopt;
}

std::shared_ptr<CloudEmulator> CloudEmulator::inMemory(std::shared_ptr<DispatchQueue> queue, Options options) {
  return std::make_shared<Emulator>(std::make_unique<CloudStore>(cloudkit::openMemoryCloud()), std::move(queue),
                                    options);
}

std::shared_ptr<CloudEmulator> CloudEmulator::open(const std::filesystem::path& folder, bool create,
                                                   std::shared_ptr<DispatchQueue> queue, Options options) {
  return std::make_shared<Emulator>(std::make_unique<CloudStore>(cloudkit::openFolderCloud(folder, create)),
                                    std::move(queue), options);
}

bool CloudEmulator::isCloudFolder(const std::filesystem::path& folder) { return cloudkit::isCloudFolder(folder); }

std::shared_ptr<CloudEmulator> CloudEmulator::connect(const CloudServer& server, bool create,
                                                      std::shared_ptr<DispatchQueue> queue, Options options) {
  return std::make_shared<Emulator>(std::make_unique<CloudStore>(cloudkit::openServerCloud(server, create)),
                                    std::move(queue), options);
}

bool CloudEmulator::serverHoldsCloud(const CloudServer& server) { return cloudkit::serverHoldsCloud(server); }

}  // namespace tarnwell

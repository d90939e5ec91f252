// SyncObject: one record class, as the sync engine drives it.
//
// It turns local changes of the class into cloud operations and cloud
// changes into local writes. Locally it observes the store: every commit
// that inserts or modifies rows of the class hands their records (or, for
// rows marked deleted, their record ids) to the engine. From the cloud it
// writes on the BackgroundWorker, one record per commit, with a commit its
// own observation does not hear, so a record from the cloud never goes back.
//
// A local deletion only marks the row; the cloud deletion follows from the
// change, and the row stays until cleanUp(). A deletion from the cloud
// removes the row for good.
//
// While paused (only a class that may pause, see partiallyPauseSync) the
// observation drops what it hears: such changes leave only with a later
// explicit push.
//
// U, V and W are the element classes of the record's lists of links, if it
// has any; an element that arrives after its owner is linked when the
// engine resolves pending relationships.

#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/BackgroundWorker.h"
#include "tarnwell/sync/CloudSync.h"
#include "tarnwell/sync/PendingRelationshipsWorker.h"
#include "tarnwell/sync/RecordMapping.h"
#include "tarnwell/sync/SyncAsset.h"

namespace tarnwell::sync {

template <class T, class U = NoListElement, class V = NoListElement, class W = NoListElement>
class SyncObject : public Syncable, public std::enable_shared_from_this<SyncObject<T, U, V, W>> {
 public:
  // `defaults` keeps the zone's token and flag: the process's standard store.
  explicit SyncObject(store::StoreConfiguration realmConfiguration, bool canPauseSync = true,
                      UserDefaults& defaults = UserDefaults::standard())
      : realmConfiguration_(std::move(realmConfiguration)), canPauseSync_(canPauseSync), defaults_(defaults) {}

  std::string recordType() const override { return sync::recordType<T>(); }
  CKRecordZoneID zoneID() const override { return sync::zoneID<T>(); }

  std::optional<CKServerChangeToken> zoneChangesToken() const override {
    const auto data = defaults_.dataForKey(classKey(CloudSyncKey::zoneChangesTokenKey));
    if (!data) return std::nullopt;
    return CKServerChangeToken::unarchived(*data);
  }
  void setZoneChangesToken(const std::optional<CKServerChangeToken>& token) override {
    // The records a token covers are in the store before the token is kept.
    BackgroundWorker::shared().commitPending();
    const std::string key = classKey(CloudSyncKey::zoneChangesTokenKey);
    if (token) {
      defaults_.set(key, token->archived());
    } else {
      defaults_.removeObject(key);
    }
  }
  bool isCustomZoneCreated() const override {
    return defaults_.boolForKey(classKey(CloudSyncKey::hasCustomZoneCreatedKey));
  }
  void setIsCustomZoneCreated(bool created) override {
    defaults_.set(classKey(CloudSyncKey::hasCustomZoneCreatedKey), created);
  }

  void registerLocalDatabase() override {
    auto token = openStore().template observe<T>([weak = this->weak_from_this()](const store::ChangeSet& changes) {
      if (const auto self = weak.lock()) self->storeDidChange(changes);
    });
    std::lock_guard lock(tokenMutex_);
    notificationToken_ = std::move(token);
  }

  void unregisterLocalDatabase() override {
    BackgroundWorker::shared().start([this] {
      std::lock_guard lock(tokenMutex_);
      notificationToken_.reset();
    });
  }

  void cleanUp() override {
    BackgroundWorker::shared().start([this] {
      BackgroundWorker::shared().commitPending();
      writeUnheard([](store::WriteTransaction& t) { t.template remove<T>(store::Query().filter("isDeleted = 1")); });
    });
  }

  void add(const CKRecord& record) override {
    BackgroundWorker::shared().start([this, &record] {
      auto& batch = openBatch();
      const T object = parseFromRecord<T, U, V, W>(record, batch.store(), &uWorker_, &vWorker_, &wWorker_);
      uWorker_.setRealmConfiguration(realmConfiguration_);
      vWorker_.setRealmConfiguration(realmConfiguration_);
      wWorker_.setRealmConfiguration(realmConfiguration_);
      writeUnheard(batch, [&object](store::WriteTransaction& t) { t.add(object, store::UpdatePolicy::all); });
    });
  }

  void deleteRecord(const CKRecordID& recordID) override {
    BackgroundWorker::shared().start([this, &recordID] {
      auto& batch = openBatch();
      const auto key = primaryKeyText<T>(recordID);
      if (!key || !batch.store().template object<T>(*key)) return;
      deleteSyncAssetFile(recordID.recordName);
      writeUnheard(batch, [&key](store::WriteTransaction& t) {
        t.template remove<T>(store::Query().filter(store::quoteIdentifier(records::primaryKeyName<T>()) + " = ?",
                                                   {store::QueryValue(*key)}));
      });
    });
  }

  void resolvePendingRelationships() override {
    BackgroundWorker::shared().commitPending();
    uWorker_.resolvePendingListElements();
    vWorker_.resolvePendingListElements();
    wWorker_.resolvePendingListElements();
  }

  void pushLocalObjectsToCloudKit() override {
    auto store = openStore();
    std::vector<CKRecord> records;
    for (const auto& object : store.template objects<T>(store::Query().filter("isDeleted = 0"))) {
      records.push_back(sync::record(object, store));
    }
    if (const auto pipe = pipeToEngine()) pipe(std::move(records), {});
  }

  void pause() override {
    if (canPauseSync_) isPaused_ = true;
  }
  void resume() override {
    if (canPauseSync_) isPaused_ = false;
  }
  bool isPaused() const { return isPaused_; }
  bool canPauseSync() const { return canPauseSync_; }
  void setCanPauseSync(bool canPause) { canPauseSync_ = canPause; }

  PipeToEngine pipeToEngine() const override {
    std::lock_guard lock(pipeMutex_);
    return pipe_;
  }
  void setPipeToEngine(PipeToEngine pipe) override {
    std::lock_guard lock(pipeMutex_);
    pipe_ = std::move(pipe);
  }

 private:
  // "<class>cloudsync.keys.<key>": one token and one flag per class.
  std::string classKey(CloudSyncKey key) const { return std::string(T::className) + storedKey(key); }

  store::Store openStore() const {
    try {
      return store::Store::open(realmConfiguration_);
    } catch (const std::exception& error) {
      fatalError(std::string("The store of ") + std::string(T::className) + " cannot be opened: " + error.what());
    }
  }

  store::BatchWriter& openBatch() {
    try {
      return BackgroundWorker::shared().batch(realmConfiguration_);
    } catch (const std::exception& error) {
      fatalError(std::string("The store of ") + std::string(T::className) + " cannot be opened: " + error.what());
    }
  }

  // A write the observation of this class does not hear; with no
  // observation running there is nobody of this class to keep out.
  template <class Writer, class F>
  void writeUnheard(Writer& writer, F&& body) {
    std::lock_guard lock(tokenMutex_);
    if (notificationToken_) {
      writer.write(std::forward<F>(body), {&*notificationToken_});
    } else {
      writer.write(std::forward<F>(body));
    }
  }
  template <class F>
  void writeUnheard(F&& body) {
    auto store = openStore();
    writeUnheard(store, std::forward<F>(body));
  }

  void storeDidChange(const store::ChangeSet& changes) {
    // Changes heard during a pause are not kept: a resume must push by other means.
    if (isPaused_ || changes.isInitial) return;
    auto store = openStore();
    std::vector<CKRecord> records;
    std::vector<CKRecordID> deletions;
    // Deleted rows are never reported here: a record is only deleted by marking it.
    for (const auto* keys : {&changes.insertions, &changes.modifications}) {
      for (const auto& key : *keys) {
        const auto object = store.template object<T>(key);
        if (!object) continue;
        if (object->isDeleted) {
          deletions.push_back(sync::recordID(*object));
        } else {
          records.push_back(sync::record(*object, store));
        }
      }
    }
    if (records.empty() && deletions.empty()) return;
    if (const auto pipe = pipeToEngine()) pipe(std::move(records), std::move(deletions));
  }

  store::StoreConfiguration realmConfiguration_;
  std::atomic<bool> canPauseSync_;
  std::atomic<bool> isPaused_ = false;
  UserDefaults& defaults_;

  mutable std::mutex tokenMutex_;
  std::optional<store::ObserverToken> notificationToken_;
  mutable std::mutex pipeMutex_;
  PipeToEngine pipe_;

  PendingRelationshipsWorker<U> uWorker_;
  PendingRelationshipsWorker<V> vWorker_;
  PendingRelationshipsWorker<W> wWorker_;
};

}  // namespace tarnwell::sync

// SyncObject: one record class, as the sync engine drives it.
//
// It turns local changes of the class into cloud operations and cloud
// changes into local writes. Locally the store keeps every change of the
// class in its outbox (store/Outbox.h) in the same transaction as the change;
// the object drains it: the entries not on their way yet, a
// request at a time, each row read as it is at that moment (a record to
// store, or for a row marked deleted or gone, its id to delete). An entry
// leaves the outbox only when the cloud acknowledged the version that was
// read; one that failed, or whose completion never came before the process
// ended, is sent by a later drain. The store's observation only says when
// to drain: a commit it did not hear (observers re-registering) is still in
// the outbox.
//
// From the cloud it writes on the BackgroundWorker, with a commit its own
// observation does not hear and that leaves no outbox entry, so a record
// from the cloud never goes back. A fetched record is not written over a row
// whose changes were not sent yet: the local version is sent instead. A
// deletion from the cloud removes the row, and its unsent changes, for good.
// A record whose name gives no primary key is refused with a log line.
//
// A fetch from nothing (the first, one after expired tokens, or of a zone
// made again) learns the whole zone. The rows this installation recorded
// that the zone lacks then go into the outbox, and a fetched copy that
// differs from such a row is not written: the row is sent instead. Events
// name the device that recorded them and a Device row is its device's own.
// So a zone deleted and made again is filled by the devices that recorded
// its records, and an older copy that another device sent first does not
// undo the recorder's edits. A copy of another device's row that the zone
// no longer holds, with no unsent change here, is removed: the zone lost its
// deletion, or its recorder sends it again. For records nobody recorded
// (tags) the installation that made a row's last change speaks for it: the
// outbox keeps an authored mark once that change was acknowledged, which an
// echo leaves and any other copy from the cloud clears. Rows of such records
// that the zone lacks are sent so that it has them, giving way to any copy
// that arrives first.
//
// A local deletion only marks the row; the row stays until cleanUp(), which
// removes it only once its deletion was acknowledged (or it never left).
//
// While paused (only a class that may pause, see partiallyPauseSync) the
// outbox is held back, never dropped: what changed leaves with the first
// drain after the pause.
//
// U, V and W are the element classes of the record's lists of links, if it
// has any; an element that arrives after its owner is linked when the
// engine resolves pending relationships.

#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/settings/Settings.h"
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
      : realmConfiguration_(std::move(realmConfiguration)), canPauseSync_(canPauseSync), defaults_(defaults) {
    const auto& classes = realmConfiguration_.outboxClasses;
    if (std::find(classes.begin(), classes.end(), T::className) == classes.end()) {
      fatalError(std::string("The store keeps no outbox for ") + std::string(T::className) +
                 ": its local changes would never be sent");
    }
  }

  std::string recordType() const override { return sync::recordType<T>(); }
  CKRecordZoneID zoneID() const override { return sync::zoneID<T>(); }

  std::optional<CKServerChangeToken> zoneChangesToken() const override {
    const auto data = defaults_.dataForKey(classKey(CloudSyncKey::zoneChangesTokenKey));
    if (!data) return std::nullopt;
    return CKServerChangeToken::unarchived(*data);
  }
  void setZoneChangesToken(const std::optional<CKServerChangeToken>& token) override {
    {
      // A fetch from nothing keeps its tokens until it has seen the whole
      // zone: one cut short starts from nothing again, and learns it all.
      std::lock_guard lock(fetchMutex_);
      if (fetchingFromNothing_ && token) {
        tokenOfFetch_ = token;
        return;
      }
    }
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
      // A deletion the cloud has not acknowledged keeps its row, which the
      // next drain still has to read.
      writeUnheard([](store::WriteTransaction& t) {
        store::Outbox(t.connection()).forgetUnsentDeletions(T::className, records::primaryKeyName<T>());
        t.template remove<T>(store::Query().filter(
            "isDeleted = 1 AND " +
            store::Outbox::hasNoUnsentWork(T::className, store::quoteIdentifier(records::primaryKeyName<T>()))));
      });
    });
  }

  void add(const CKRecord& record) override {
    BackgroundWorker::shared().start([this, &record] {
      auto& batch = openBatch();
      const auto key = primaryKeyText<T>(record.recordID());
      if (!key || key->empty()) {
        CloudSync::shared().log("There is something wrong with the converson from cloud record to local object");
        return;
      }
      noteFetched(*key);
      // Unsent work wins over what the cloud has: the drain sends it. The
      // batch settles the outbox as it begins.
      batch.begin();
      const auto hold = store::Outbox(batch.store().connection()).hold(T::className, *key);
      if (hold == store::Outbox::Hold::keep) {
        CloudSync::shared().log("🔄 Record " + record.recordID().description() + " kept: it has unsent changes");
        return;
      }
      const T object = parseFromRecord<T, U, V, W>(record, batch.store(), &uWorker_, &vWorker_, &wWorker_);
      if (keepsOwnVersion(batch, *key, object, hold)) return;
      uWorker_.setRealmConfiguration(realmConfiguration_);
      vWorker_.setRealmConfiguration(realmConfiguration_);
      wWorker_.setRealmConfiguration(realmConfiguration_);
      writeUnheard(batch, [&](store::WriteTransaction& t) {
        // A copy from the cloud is what this device holds now.
        if (hold != store::Outbox::Hold::none) store::Outbox(t.connection()).forget(T::className, *key);
        t.add(object, store::UpdatePolicy::all);
      });
    });
  }

  void deleteRecord(const CKRecordID& recordID) override {
    BackgroundWorker::shared().start([this, &recordID] {
      auto& batch = openBatch();
      const auto key = primaryKeyText<T>(recordID);
      if (key) noteFetched(*key);
      if (!key || !batch.store().template object<T>(*key)) return;
      deleteSyncAssetFile(recordID.recordName);
      writeUnheard(batch, [&key](store::WriteTransaction& t) {
        store::Outbox(t.connection()).forget(T::className, *key);
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

  // Every live row goes into the outbox and leaves a request at a time, so
  // that a push of a long history never holds it all in memory.
  void pushLocalObjectsToCloudKit() override {
    BackgroundWorker::shared().start([this] {
      auto store = workerStore();
      writeUnheard(store, [](store::WriteTransaction& t) {
        store::Outbox(t.connection()).enqueueLive(T::className, records::primaryKeyName<T>());
      });
    });
    drainOutbox(true);
  }

  void drainOutbox(bool evenIfPaused) override {
    if (isPaused_ && !evenIfPaused) return;
    const auto pipe = pipeToEngine();
    if (!pipe) return;
    OutgoingChanges changes;
    BackgroundWorker::shared().start([&] { changes = takeOutgoing(evenIfPaused); });
    if (changes.size() > 0) pipe(std::move(changes));
  }

  void didSend(const OutgoingChanges& changes) override {
    BackgroundWorker::shared().start([&] {
      auto store = workerStore();
      writeUnheard(store, [&changes](store::WriteTransaction& t) {
        store::Outbox(t.connection()).acknowledge(T::className, changes.versions, !kHasRecorder);
      });
      std::lock_guard lock(inFlightMutex_);
      for (const auto& [key, version] : changes.versions) inFlight_.erase(key);
      requestLimit_ = std::min(kRequestLimit, requestLimit_ * 2);
    });
    drainOutbox(changes.evenIfPaused);
  }

  void didNotSend(const OutgoingChanges& changes, bool tooLarge) override {
    std::lock_guard lock(inFlightMutex_);
    for (const auto& [key, version] : changes.versions) inFlight_.erase(key);
    if (tooLarge) requestLimit_ = std::max<std::size_t>(1, std::min(requestLimit_, changes.size() / 2));
  }

  void enqueue(const std::vector<CKRecordID>& recordIDs) override {
    BackgroundWorker::shared().start([&] {
      auto store = workerStore();
      writeUnheard(store, [&recordIDs](store::WriteTransaction& t) {
        store::Outbox outbox(t.connection());
        for (const auto& id : recordIDs) {
          if (const auto key = primaryKeyText<T>(id)) outbox.journal(outboxClass(), *key);
        }
      });
    });
  }

  void willFetchChanges() override {
    // A store with no live row of the class has nothing the zone could lack.
    const bool fromNothing = !zoneChangesToken() && hasLiveRows();
    std::lock_guard lock(fetchMutex_);
    fetchingFromNothing_ = fromNothing;
    fetched_.clear();
    tokenOfFetch_.reset();
  }

  void didFetchChanges() override {
    std::optional<CKServerChangeToken> token;
    {
      std::lock_guard lock(fetchMutex_);
      if (!fetchingFromNothing_) return;
      fetchingFromNothing_ = false;
      token = std::exchange(tokenOfFetch_, std::nullopt);
    }
    BackgroundWorker::shared().start([this] {
      auto store = workerStore();
      const auto key = store::quoteIdentifier(records::primaryKeyName<T>());
      // Rows without unsent changes: the key, whether this installation
      // speaks for the row, and whether it is deleted.
      auto& statement = store.connection().cached(
          "SELECT " + key + ", " + (kHasRecorder ? store::quoteIdentifier(recorderColumn()) + " = ?1" : "1") +
          ", \"isDeleted\" FROM " + store::quoteIdentifier(T::className) + " WHERE " +
          store::Outbox::hasNoUnsentWork(T::className, key));
      if constexpr (kHasRecorder) statement.bind(1, Settings::deviceId());
      std::vector<std::string> lacking;
      std::vector<std::string> gone;
      {
        std::lock_guard lock(fetchMutex_);
        for (sqlite::Cursor rows(statement); rows.next();) {
          if (rows->isNull(0) || fetched_.contains(rows->text(0))) continue;
          if (rows->int64(1) == 0) {
            gone.push_back(rows->text(0));
          } else if (rows->int64(2) == 0) {
            lacking.push_back(rows->text(0));
          }
        }
        fetched_.clear();
      }
      const std::string zone = "🔄 Record zone " + sync::zoneID<T>().description();
      // A copy of another device's record that the zone no longer holds was
      // deleted there; if the zone was only lost, its recorder sends it again.
      if (!gone.empty()) {
        CloudSync::shared().log(zone + " no longer holds " + std::to_string(gone.size()) +
                                " records of other devices: removed here");
        for (const auto& each : gone) deleteSyncAssetFile(each);
        writeUnheard(store, [&](store::WriteTransaction& t) {
          for (const auto& each : gone) {
            t.template remove<T>(store::Query().filter(key + " = ?", {store::QueryValue(each)}));
          }
        });
      }
      if (!lacking.empty()) {
        CloudSync::shared().log(zone + " lacks " + std::to_string(lacking.size()) + " local records: sent again");
        // What nobody recorded is sent so that the zone has it, not over a
        // copy another device has sent meanwhile, which may be newer.
        writeUnheard(store, [&](store::WriteTransaction& t) {
          store::Outbox outbox(t.connection());
          for (const auto& each : lacking) outbox.enqueue(T::className, each, !kHasRecorder);
        });
      }
    });
    // Kept only now: the zone's records are all in the store, and those it
    // lacks in the outbox.
    if (token) setZoneChangesToken(token);
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

  // On the worker: the next request of the outbox, its rows read now and
  // its entries marked on their way, in one transaction, so that a change
  // committed after the read moves the version on. A row inserted here and
  // deleted before it was ever sent costs nothing; a save is marked known to
  // the cloud before it leaves, so that a later deletion of it is never
  // skipped.
  OutgoingChanges takeOutgoing(bool evenIfPaused) {
    auto store = workerStore();
    std::lock_guard lock(inFlightMutex_);
    OutgoingChanges changes;
    changes.evenIfPaused = evenIfPaused;
    writeUnheard(store, [&](store::WriteTransaction& t) {
      store::Outbox outbox(t.connection());
      outbox.settle(outboxClass());
      std::vector<std::string> taken;
      std::vector<std::string> neverSent;
      // Entries on their way are skipped, so reading that many more still
      // finds a full request when there is one.
      for (const auto& entry : outbox.entries(T::className, requestLimit_ + inFlight_.size())) {
        if (changes.size() >= requestLimit_) break;
        if (inFlight_.contains(entry.recordKey)) continue;
        const auto object = store.template object<T>(entry.recordKey);
        if (!object || object->isDeleted) {
          if (!entry.known) {
            neverSent.push_back(entry.recordKey);
            continue;
          }
          changes.recordIDsToDelete.push_back(CKRecordID{entry.recordKey, sync::zoneID<T>()});
        } else {
          changes.recordsToStore.push_back(sync::record(*object, store));
        }
        changes.versions.emplace_back(entry.recordKey, entry.version);
        taken.push_back(entry.recordKey);
      }
      outbox.markSending(T::className, taken);
      for (const auto& key : neverSent) outbox.forget(T::className, key);
    });
    for (const auto& [key, version] : changes.versions) inFlight_.insert(key);
    return changes;
  }

  // On the worker: its own store, once what the cloud brought is committed,
  // for the outbox's bookkeeping, which commits at once.
  store::Store workerStore() {
    BackgroundWorker::shared().commitPending();
    return openStore();
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
  template <class F>
  void writeUnheard(store::Store& store, F&& body) {
    std::lock_guard lock(tokenMutex_);
    store.write(std::forward<F>(body), {notificationToken_ ? &*notificationToken_ : nullptr}, store::Origin::elsewhere);
  }
  template <class F>
  void writeUnheard(store::BatchWriter& batch, F&& body) {
    std::lock_guard lock(tokenMutex_);
    batch.write(std::forward<F>(body), {notificationToken_ ? &*notificationToken_ : nullptr});
  }
  template <class F>
  void writeUnheard(F&& body) {
    auto store = openStore();
    writeUnheard(store, std::forward<F>(body));
  }

  static store::OutboxClass outboxClass() {
    return {std::string(T::className), std::string(records::primaryKeyName<T>())};
  }

  // Events name the installation that recorded them in `deviceId`, and a
  // Device row is its installation's own, by its key; other records (tags)
  // have no recorder.
  static constexpr bool kIsDevice = std::is_same_v<T, Device>;
  static constexpr bool kHasRecorder = kIsDevice || requires(T object) { object.deviceId; };
  static std::string recorderColumn() {
    return kIsDevice ? std::string(records::primaryKeyName<T>()) : std::string("deviceId");
  }
  static bool recordedHere(const T& object) {
    if constexpr (kIsDevice) {
      return object.id == Settings::deviceId();
    } else if constexpr (kHasRecorder) {
      return object.deviceId == Settings::deviceId();
    } else {
      return false;
    }
  }

  // On the worker: whether the row of `fetched` stays as it is, because
  // this installation speaks for it: it recorded the row, or for records
  // nobody recorded, it made the row's last change (`hold` authored). The
  // echo of that change leaves the row alone. In a fetch from nothing a copy
  // that differs does too, for another installation may have sent an older
  // copy into a zone made again first; the row is sent again instead.
  bool keepsOwnVersion(store::BatchWriter& batch, const std::string& key, const T& fetched, store::Outbox::Hold hold) {
    bool fromNothing = false;
    {
      std::lock_guard lock(fetchMutex_);
      fromNothing = fetchingFromNothing_;
    }
    const bool authored = hold == store::Outbox::Hold::authored;
    if (!authored && !(fromNothing && kHasRecorder)) return false;
    const auto local = batch.store().template object<T>(key);
    if (!local || (kHasRecorder && !recordedHere(*local))) return false;
    if (*local == fetched) return true;
    if (!fromNothing) return false;
    CloudSync::shared().log("🔄 Record " + key + " kept: this device made it as it is");
    writeUnheard(batch,
                 [&key](store::WriteTransaction& t) { store::Outbox(t.connection()).enqueue(T::className, key); });
    return true;
  }

  bool hasLiveRows() {
    bool found = false;
    BackgroundWorker::shared().start([&] {
      auto store = workerStore();
      auto& statement = store.connection().cached("SELECT 1 FROM " + store::quoteIdentifier(T::className) +
                                                  " WHERE \"isDeleted\" = 0 LIMIT 1");
      found = sqlite::Cursor(statement).next();
    });
    return found;
  }

  void noteFetched(const std::string& key) {
    std::lock_guard lock(fetchMutex_);
    if (fetchingFromNothing_) fetched_.insert(key);
  }

  // A local commit: its changes are in the outbox already, and leave now
  // unless the class is paused.
  void storeDidChange(const store::ChangeSet& changes) {
    if (isPaused_ || changes.isInitial) return;
    drainOutbox(false);
  }

  store::StoreConfiguration realmConfiguration_;
  std::atomic<bool> canPauseSync_;
  std::atomic<bool> isPaused_ = false;
  UserDefaults& defaults_;

  mutable std::mutex tokenMutex_;
  std::optional<store::ObserverToken> notificationToken_;
  mutable std::mutex pipeMutex_;
  PipeToEngine pipe_;

  // Requests hold at most this many items, records and deletions counted;
  // halved after a request the cloud found too large.
  static constexpr std::size_t kRequestLimit = 400;
  // What a fetch from nothing has seen of the zone so far.
  std::mutex fetchMutex_;
  bool fetchingFromNothing_ = false;
  std::unordered_set<std::string> fetched_;
  std::optional<CKServerChangeToken> tokenOfFetch_;

  std::mutex inFlightMutex_;
  std::set<std::string> inFlight_;
  std::size_t requestLimit_ = kRequestLimit;

  PendingRelationshipsWorker<U> uWorker_;
  PendingRelationshipsWorker<V> vWorker_;
  PendingRelationshipsWorker<W> wWorker_;
};

}  // namespace tarnwell::sync

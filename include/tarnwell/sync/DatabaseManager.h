// The two database managers: the part of the sync layer that speaks to the
// cloud.
//
// PrivateDatabaseManager keeps one custom zone per record class in the
// user's private database and pulls what changed since its change tokens.
// PublicDatabaseManager works in the default zone of the public database,
// which it can only query, whole, each time. Both push the same way: one
// long-lived, atomic operation with the changed-keys policy per request, and
// every outcome goes through the ErrorHandler.
//
// Local changes leave from the outbox of their class (SyncObject.h), a
// request of at most 400 items at a time, deletions counted, and after
// every successful pull. Nothing unacknowledged is dropped: a retry waits
// the seconds the cloud asked for and reads the rows again when it is sent;
// a request the cloud finds too large is sent again in smaller ones; any
// other error keeps the changes and tries again after a growing wait, and
// the next launch drains what is left. A zone the cloud no longer has
// (26, 28) is made again and fetched from nothing; what it then lacks of
// the records this installation recorded (events name their device; other
// records are everybody's) is sent again, and where the zone holds another
// installation's older copy of such a record, this one's version replaces
// it. A list given to syncRecordsToCloudKit that fails goes into the outbox
// the same way, and its completion hears the error.
//
// Some behaviour is kept as the system has always had it, because devices in
// the field depend on the data it produced and nothing depends on it being
// otherwise: each start of the remote-change observation adds one more
// observer, which stop does not remove.

#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell::sync {

// Posted by the host when the application is about to end.
inline constexpr std::string_view UIApplicationWillTerminateNotification = "UIApplicationWillTerminateNotification";

// What both managers share.
class CloudDatabaseManager : public DatabaseManager, public std::enable_shared_from_this<CloudDatabaseManager> {
 public:
  CKDatabase& database() override { return database_; }
  CKContainer& container() override { return *container_; }
  const std::vector<std::shared_ptr<Syncable>>& syncObjects() const override { return syncObjects_; }

  void prepare() override;
  void resumeLongLivedOperationIfPossible() override;
  void startObservingRemoteChanges() override;
  void stopObservingRemoteChanges() override;
  void startObservingTermination() override;
  void stopObservingTermination() override;
  void registerLocalDatabase() override;
  void unregisterLocalDatabase() override;
  void syncRecordsToCloudKit(std::vector<CKRecord> recordsToStore, std::vector<CKRecordID> recordIDsToDelete,
                             Callback completion) override;

  // Calls cleanUp() on every sync object, in list order.
  void cleanUp();
  // Drains the outbox of every sync object that is not paused.
  void drainOutboxes();

  // Where the tokens and flags are kept.
  UserDefaults& defaults() { return defaults_; }

  // How many remote-change observers the starts have added.
  std::size_t remoteChangeObserverCount() const { return remoteChangeObservers_.size(); }

 protected:
  // `defaults` keeps the tokens and flags: the process's standard store.
  CloudDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects, std::shared_ptr<CKContainer> container,
                       CKDatabase& database, UserDefaults& defaults);

  std::weak_ptr<CloudDatabaseManager> weakSelf() { return weak_from_this(); }
  std::shared_ptr<Syncable> objectOfZone(const CKRecordZoneID& zoneID) const;
  // The zone of `object` is not on the server: made again and fetched from
  // nothing (makeZonesAgain).
  void zoneIsGone(Syncable& object);
  // Makes the zones whose flag is down again, then pulls.
  virtual void makeZonesAgain() {}

 private:
  // One request of an outbox; see the top of this file for its outcomes.
  void sendOutgoing(const std::shared_ptr<Syncable>& object, OutgoingChanges changes);
  // Drains `object` again after a growing wait.
  void drainLater(const std::shared_ptr<Syncable>& object, bool evenIfPaused);
  // Puts what `operation` carried into the outbox of its class; the classes.
  std::vector<std::shared_ptr<Syncable>> keepInOutboxes(const CKModifyRecordsOperation& operation);

  std::shared_ptr<CKContainer> container_;
  CKDatabase& database_;
  std::vector<std::shared_ptr<Syncable>> syncObjects_;
  UserDefaults& defaults_;
  std::shared_ptr<DispatchQueue> utilityQueue_;
  std::vector<NotificationToken> remoteChangeObservers_;
  std::vector<NotificationToken> terminationObservers_;
  std::atomic<int> failuresInARow_ = 0;
};

class PrivateDatabaseManager : public CloudDatabaseManager {
 public:
  PrivateDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects, std::shared_ptr<CKContainer> container,
                         UserDefaults& defaults = UserDefaults::standard());

  // From the stored database token: which zones changed, then every zone.
  void fetchChangesInDatabase(Callback callback) override;
  void fetchChangesInZones(Callback callback);
  // The zones not made yet; once made, the first full push of every class.
  void createCustomZonesIfAllowed() override;
  void makeZonesAgain() override;
  // The database subscription "private_changes", until it was saved once.
  void createDatabaseSubscriptionIfHaveNot() override;

 private:
  // The zones whose flag is down; `firstTime` pushes every class once they
  // are made, otherwise a pull follows.
  void createZones(bool firstTime);
};

class PublicDatabaseManager : public CloudDatabaseManager {
 public:
  PublicDatabaseManager(std::vector<std::shared_ptr<Syncable>> objects, std::shared_ptr<CKContainer> container,
                        UserDefaults& defaults = UserDefaults::standard());

  // Queries every record of every class, page after page; calls back once
  // per class.
  void fetchChangesInDatabase(Callback callback) override;
  // The public database has only its default zone.
  void createCustomZonesIfAllowed() override;
  // One query subscription per class, every time.
  void createDatabaseSubscriptionIfHaveNot() override;

 private:
  void addQueryOperation(std::shared_ptr<CKQueryOperation> operation, const std::shared_ptr<Syncable>& object,
                         Callback callback);
};

}  // namespace tarnwell::sync

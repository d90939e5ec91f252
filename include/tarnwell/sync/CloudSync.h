// CloudSync: the names and the two protocols of the sync layer.
//
// The sync layer keeps the local store and the user's cloud database in step
// without code per record type. A SyncObject stands for one record class
// (Syncable), a DatabaseManager speaks to one cloud database, and the
// SyncEngine joins them. What is kept between launches (change tokens, the
// zone and subscription flags) lives in the standard user defaults under the
// keys below.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/cloudkit/Container.h"
#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/store/Outbox.h"

namespace tarnwell::sync {

// The layer's diagnostics: the lines that begin with "🔄 " and those of the
// error handler. Nothing depends on them. They are composed always and
// printed to the log only by a development build with `enableLogging` on;
// a sink set here (for tests) hears every line whatever the flag says.
class CloudSync {
 public:
  static CloudSync& shared();

  bool enableLogging = false;

  void log(const std::string& line);
  void setSink(std::function<void(const std::string&)> sink);

 private:
  std::function<void(const std::string&)> sink_;
};

// Keys of the values kept between launches; each is stored as
// "cloudsync.keys." followed by its raw value.
enum class CloudSyncKey {
  databaseChangesTokenKey,
  zoneChangesTokenKey,
  subscriptionIsLocallyCachedKey,
  hasCustomZoneCreatedKey,
};
std::string_view rawValue(CloudSyncKey key);
// "cloudsync.keys.databaseChangesTokenKey" and so on.
std::string storedKey(CloudSyncKey key);

struct CloudSyncSubscription {
  static constexpr std::string_view cloudKitPrivateDatabaseSubscriptionID = "private_changes";
  // So written.
  static constexpr std::string_view cloudKitPublicDatabaseSubscriptionID = "cloudKitPublicDatabaseSubcriptionID";
  static std::vector<std::string> allIDs();
};

struct Notifications {
  // Posted when a push says the cloud changed; the database managers fetch.
  static constexpr std::string_view cloudKitDataDidChangeRemotely = "cloudKitDataDidChangeRemotely";
};

// The changes of one class on their way to the cloud: the records to store,
// the record ids to delete, and the outbox version each was read at, which
// the acknowledgement must match for the change to leave the outbox.
struct OutgoingChanges {
  std::vector<CKRecord> recordsToStore;
  std::vector<CKRecordID> recordIDsToDelete;
  std::vector<store::SentVersion> versions;
  // Sent although the class is paused: a full push the user asked for.
  bool evenIfPaused = false;

  // Items of the request: every record and deletion has its version.
  std::size_t size() const { return versions.size(); }
};

// Where a class hands its outgoing changes: the engine sends them and tells
// the class how it went (Syncable::didSend, didNotSend).
using PipeToEngine = std::function<void(OutgoingChanges changes)>;

// Anything the engine can drive: one record class and its zone.
class Syncable {
 public:
  virtual ~Syncable() = default;

  virtual std::string recordType() const = 0;
  virtual CKRecordZoneID zoneID() const = 0;
  virtual std::optional<CKServerChangeToken> zoneChangesToken() const = 0;
  virtual void setZoneChangesToken(const std::optional<CKServerChangeToken>& token) = 0;
  virtual bool isCustomZoneCreated() const = 0;
  virtual void setIsCustomZoneCreated(bool created) = 0;

  virtual void registerLocalDatabase() = 0;
  virtual void unregisterLocalDatabase() = 0;
  virtual void cleanUp() = 0;
  virtual void add(const CKRecord& record) = 0;
  virtual void deleteRecord(const CKRecordID& recordID) = 0;
  virtual void resolvePendingRelationships() = 0;
  virtual void pushLocalObjectsToCloudKit() = 0;
  virtual void pause() = 0;
  virtual void resume() = 0;

  // Hands the engine the next changes of the class's outbox that are not on
  // their way already, at most a request's worth; nothing while paused,
  // unless `evenIfPaused`.
  virtual void drainOutbox(bool evenIfPaused) = 0;
  // The cloud acknowledged `changes`: their entries leave the outbox unless
  // changed since, and the drain goes on.
  virtual void didSend(const OutgoingChanges& changes) = 0;
  // `changes` did not reach the cloud; their entries wait for the next
  // drain, which sends smaller requests when this one was `tooLarge`.
  virtual void didNotSend(const OutgoingChanges& changes, bool tooLarge) = 0;
  // Puts the rows of `recordIDs` into the outbox, to be read and sent as
  // they are when the next drain comes: a list that could not be sent.
  virtual void enqueue(const std::vector<CKRecordID>& recordIDs) = 0;
  // A fetch of the class's zone starts, and ends having brought all of it.
  // A fetch from nothing (no token: the first, one whose token expired, or a
  // zone made again) learns every record the zone holds, and at its end
  // settles the rows the zone lacks (see SyncObject.h).
  virtual void willFetchChanges() = 0;
  virtual void didFetchChanges() = 0;

  virtual PipeToEngine pipeToEngine() const = 0;
  virtual void setPipeToEngine(PipeToEngine pipe) = 0;
};

using Callback = std::function<void(std::exception_ptr error)>;

// The part that speaks to one cloud database (PrivateDatabaseManager,
// PublicDatabaseManager).
class DatabaseManager {
 public:
  virtual ~DatabaseManager() = default;

  virtual CKDatabase& database() = 0;
  virtual CKContainer& container() = 0;
  virtual const std::vector<std::shared_ptr<Syncable>>& syncObjects() const = 0;

  virtual void prepare() = 0;
  virtual void fetchChangesInDatabase(Callback callback) = 0;
  virtual void resumeLongLivedOperationIfPossible() = 0;
  virtual void createCustomZonesIfAllowed() = 0;
  virtual void startObservingRemoteChanges() = 0;
  virtual void stopObservingRemoteChanges() = 0;
  virtual void startObservingTermination() = 0;
  virtual void stopObservingTermination() = 0;
  virtual void createDatabaseSubscriptionIfHaveNot() = 0;
  virtual void registerLocalDatabase() = 0;
  virtual void unregisterLocalDatabase() = 0;
  // Sends the records and deletions in one operation; see DatabaseManager.h.
  virtual void syncRecordsToCloudKit(std::vector<CKRecord> recordsToStore, std::vector<CKRecordID> recordIDsToDelete,
                                     Callback completion) = 0;
};

}  // namespace tarnwell::sync

// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → [sync] → health → analytics → charts → modules → automation.
//
// SyncEngine: the one object an application talks to about cloud sync.
//
// It is given the sync objects (one per record class, SyncObject.h), the
// database scope and the container. It sets up a database manager for the
// scope, asks the container for the account, and, once the account allows,
// makes the zones, resumes what a previous launch left running, saves the
// subscription, and hands itself to the callback. An application that hears
// nothing from the callback has no usable account. The engine neither
// observes nor pulls by itself: that is the caller's decision.
//
//   auto engine = SyncEngine::make(objects, CKDatabaseScope::privateScope, container,
//                                  [](const std::shared_ptr<SyncEngine>& ready) {
//                                    ready->startObservingLocalAndRemoteChanges();
//                                    ready->pull(nullptr);
//                                  });

#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "tarnwell/platform/UserDefaults.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell::sync {

// A record as the engine pushes it: its cloud form, and whether the local
// object is deleted (then only its id goes, as a deletion).
struct PushItem {
  CKRecord record;
  bool isDeleted = false;
};

class SyncEngine : public std::enable_shared_from_this<SyncEngine> {
 public:
  using ReadyCallback = std::function<void(const std::shared_ptr<SyncEngine>& engine)>;

  // Scope private or public; the shared scope stops the process. The callback
  // runs on the cloud's queue once the account allows syncing, or never.
  // `defaults` keeps tokens and flags: the process's standard store.
  static std::shared_ptr<SyncEngine> make(std::vector<std::shared_ptr<Syncable>> objects, CKDatabaseScope scope,
                                          std::shared_ptr<CKContainer> container, ReadyCallback callback,
                                          UserDefaults& defaults = UserDefaults::standard());

  DatabaseManager& databaseManager() { return *databaseManager_; }

  // Fetches what changed in the cloud into the store.
  void pull(Callback completionHandler);
  // Every live object of every class, as if new.
  void pushAll();
  // What waits in the outboxes of the classes that are not paused, now.
  void sendUnsentChanges();
  // These objects now, in one request: live ones stored, deleted ones removed.
  void push(const std::vector<PushItem>& objects, Callback completionHandler);

  // Safe to call again: tears down what a previous call set up first.
  void startObservingLocalAndRemoteChanges();
  void stopObservingLocalAndRemoteChanges();

  // Pauses (resumes) the classes that may pause while the app is in the background.
  void partiallyPauseSync();
  void resumeSync();

 private:
  explicit SyncEngine(std::shared_ptr<DatabaseManager> manager) : databaseManager_(std::move(manager)) {}
  bool isPrivate() const;

  std::shared_ptr<DatabaseManager> databaseManager_;
};

}  // namespace tarnwell::sync

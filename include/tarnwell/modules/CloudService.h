// Layers, bottom to top: platform → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → charts → [modules] → automation.
//
// CloudService: when and what this application syncs with the user's cloud.
//
// It owns the sync engine of the private database, for five record classes
// in this order: Device, Tag, Focus, Pickup and Walk (alive spans and apps
// stay on the device). Database::start() starts it. Once the engine is
// ready it observes the store and the cloud and pulls, if the user lets the
// app sync at all (Settings::syncToCloudKit). Later syncs all take one path,
// which tracks the account and a sync state for the user interface; each
// change of either is posted on the main queue.
//
// The host tells it about the application's life: silent pushes
// (handleRemoteNotification), and going to the background and back. In the
// background only focus sessions still leave at once; every other change
// waits in the store's outbox, whatever record it touches, and leaves with
// the pull on return. The pickups and walks of this device from that stretch
// are then pushed as well, as the app has always done.
//
// Unlike a design that lets changes made during a pause go unqueued, or a
// push that failed wait for a full push, nothing a command wrote is left to
// chance here: a change leaves the outbox only once the cloud acknowledged
// it (sync/SyncObject.h), and every pull that succeeds drains it.
//
//   CloudService::pullAll([](bool synced) { ... });

#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/Promise.h"

namespace tarnwell {

class CloudService {
 public:
  CloudService() = delete;

  // The application's container in the user's cloud.
  static constexpr std::string_view containerIdentifier = "iCloud.org.vostra.tarnwell";

  struct NotificationName {
    static constexpr std::string_view accountStatusDidChange = "CloudService.NotificationName.accountStatusDidChange";
    static constexpr std::string_view syncStateDidChange = "CloudService.NotificationName.syncStateDidChange";
  };

  // Where syncing stands, for the user interface.
  struct SyncState {
    // Since `startAt` the application is in the background.
    struct Background {
      Date startAt;
      friend bool operator==(const Background&, const Background&) = default;
    };
    struct Success {
      Date date;
      friend bool operator==(const Success&, const Success&) = default;
    };
    // `reason` is a text for the user.
    struct Failed {
      std::string reason;
      friend bool operator==(const Failed&, const Failed&) = default;
    };
    struct Idle {
      friend bool operator==(const Idle&, const Idle&) = default;
    };
    struct Syncing {
      friend bool operator==(const Syncing&, const Syncing&) = default;
    };

    std::variant<Background, Success, Failed, Idle, Syncing> value = Idle{};

    template <class Case>
    const Case* as() const {
      return std::get_if<Case>(&value);
    }
    // "success(date: 2026-11-23 07:00:00 +0000)", "idle" and so on: the log's form.
    std::string description() const;
    friend bool operator==(const SyncState&, const SyncState&) = default;
  };

  // Why a sync did not run.
  class SyncError : public std::runtime_error {
   public:
    enum class Kind { accountStatusInvalid, syncEngineIsSyncing, syncTurnedOff };

    static SyncError accountStatusInvalid(CKAccountStatus status);
    static SyncError syncEngineIsSyncing();
    static SyncError syncTurnedOff();

    Kind kind() const { return kind_; }
    // The account's status, for accountStatusInvalid.
    CKAccountStatus status() const { return status_; }

   private:
    SyncError(Kind kind, CKAccountStatus status, const std::string& what)
        : std::runtime_error(what), kind_(kind), status_(status) {}
    Kind kind_;
    CKAccountStatus status_;
  };

  // Builds the engine; once it is ready, observes and pulls if syncing is on.
  // Also follows the setting and the device's account from now on.
  static void start();

  // The container's answer, kept in accountStatus(). An error is logged and
  // the status given with it used all the same.
  static Guarantee<CKAccountStatus> getAccountStatus();

  // A silent push's user information: true when it came from the cloud, and
  // then, for one of the sync layer's subscriptions, the database manager is
  // told to fetch.
  static bool handleRemoteNotification(const nlohmann::json& userInfo);

  // Fetches what changed in the cloud; `completion` hears whether the sync
  // succeeded.
  static void pullAll(std::function<void(bool synced)> completion = nullptr);
  // Pushes every live record, as if new; the operations are not waited for.
  static void pushAll(std::function<void(bool synced)> completion = nullptr);

  // Sends what waits in the outbox now, when the engine is ready and sync
  // is on: for a writer whose rows no observer heard of (a bulk import).
  // Otherwise it waits for the next pull.
  static void sendUnsentChanges();

  // Pauses the classes that may pause and notes when.
  static void enterBackground();
  // Resumes and pulls, which sends what the stretch left in the outbox, then
  // pushes this device's pickups and walks of the stretch.
  static void enterForeground();
  // For a host whose process ends while the app is in the background, where
  // the app would only have been suspended: the stretch that began at
  // `startAt` goes on in this process, paused as enterBackground() left it.
  static void resumeBackground(Date startAt);

  static CKAccountStatus accountStatus();
  static SyncState syncState();

  // Handlers of Settings' syncToCloudKitChanged and of the account change.
  static void syncToCloudDidChange();
  static void accountDidChange();
};

}  // namespace tarnwell

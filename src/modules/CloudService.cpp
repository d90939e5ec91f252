#include "tarnwell/modules/CloudService.h"

#include <mutex>
#include <optional>
#include <utility>

#include "tarnwell/cloudkit/Container.h"
#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/cloudkit/Subscriptions.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Reads.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/SyncEngine.h"
#include "tarnwell/sync/SyncObject.h"

namespace tarnwell {
namespace {

using sync::SyncEngine;
using EngineGuarantee = Guarantee<std::shared_ptr<SyncEngine>>;
using SyncState = CloudService::SyncState;
using SyncError = CloudService::SyncError;

// The façade's static state, in the Environment so that each test (and each
// relaunch of a host) starts from idle. The two values are the user
// interface's; the lock only keeps the engine's queue and the main queue
// from tearing them.
struct CloudServiceState {
  std::mutex mutex;
  CKAccountStatus accountStatus = CKAccountStatus::couldNotDetermine;
  SyncState syncState;
  std::optional<EngineGuarantee> pendingEngine;
  EngineGuarantee::Resolver resolveEngine;
  // The engine as made, which waits for the account, and the same engine once
  // the pending one settled with it.
  std::shared_ptr<SyncEngine> madeEngine;
  std::shared_ptr<SyncEngine> engine;
  NotificationToken syncToCloudObserver;
  NotificationToken accountObserver;
};

CloudServiceState& serviceState() { return Environment::current().component<CloudServiceState>(); }

// Made on first use; resolved by the engine's callback, or never when the
// engine found no account.
EngineGuarantee pendingEngine() {
  auto& s = serviceState();
  std::lock_guard lock(s.mutex);
  if (!s.pendingEngine) {
    auto [guarantee, resolver] = EngineGuarantee::pending();
    s.pendingEngine = guarantee;
    s.resolveEngine = [resolver](std::shared_ptr<SyncEngine> engine) {
      {
        auto& current = serviceState();
        std::lock_guard engineLock(current.mutex);
        current.engine = engine;
      }
      resolver(std::move(engine));
    };
  }
  return *s.pendingEngine;
}

// The engine, when it is there.
std::shared_ptr<SyncEngine> readyEngine() {
  auto& s = serviceState();
  std::lock_guard lock(s.mutex);
  return s.engine;
}

void info(const std::string& line, std::string_view function) { log.info("☁️ " + line, {.function = function}); }

void postOnMain(std::string_view name) {
  DispatchQueue::main().async([name] { NotificationCenter::defaultCenter().post(name); });
}

void setAccountStatus(CKAccountStatus status) {
  auto& s = serviceState();
  CKAccountStatus old;
  {
    std::lock_guard lock(s.mutex);
    old = std::exchange(s.accountStatus, status);
  }
  info("Account Status Changed from " + std::string(name(old)) + " to " + std::string(name(status)), "accountStatus");
  postOnMain(CloudService::NotificationName::accountStatusDidChange);
}

void setSyncState(SyncState next) {
  auto& s = serviceState();
  SyncState old;
  {
    std::lock_guard lock(s.mutex);
    old = std::exchange(s.syncState, next);
  }
  info("Sync State Changed from " + old.description() + " to " + next.description(), "syncState");
  if (const auto* success = next.as<SyncState::Success>()) {
    Settings::setCloudKitLastSyncDate(success->date);
    try {
      Database::setCurrentDeviceLastSyncDate(success->date);
    } catch (const std::exception&) {
      // The device row's date is a courtesy; the sync itself succeeded.
    }
    Database::refreshEventsOfToday();
  }
  postOnMain(CloudService::NotificationName::syncStateDidChange);
}

// What the user reads when a sync failed; nothing for a sync that is
// already under way.
void applyFailureRule(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const SyncError& e) {
    switch (e.kind()) {
      case SyncError::Kind::accountStatusInvalid:
        setSyncState({SyncState::Failed{localized("iCloud.Fail.AccountStatusInvalid")}});
        break;
      case SyncError::Kind::syncTurnedOff:
        setSyncState({SyncState::Failed{localized("iCloud.Fail.SyncUnavailable")}});
        break;
      case SyncError::Kind::syncEngineIsSyncing:
        break;
    }
  } catch (const CKError& e) {
    setSyncState({SyncState::Failed{
        localizedFormat("iCloud.Fail.ErrorCode", {e.localizedDescription(), std::to_string(e.code())})}});
  } catch (const std::exception& e) {
    setSyncState({SyncState::Failed{e.what()}});
  } catch (...) {
    setSyncState({SyncState::Failed{"unknown error"}});
  }
}

// Settles `resolver` with the outcome an engine's completion reports.
sync::Callback settling(const Promise<void>::Resolver& resolver) {
  return [resolver](std::exception_ptr error) {
    if (error) {
      resolver.reject(error);
    } else {
      resolver.fulfill();
    }
  };
}

using Block = std::function<void(SyncEngine& engine, const Promise<void>::Resolver& resolver)>;

// The one path of every sync after the first.
Guarantee<bool> startSync(Block block) {
  info("start sync", "startSync(block:)");
  auto pending = Guarantee<bool>::pending();
  const Guarantee<bool> synced = pending.first;
  const auto resolveSynced = pending.second;
  pendingEngine()
      .then([](std::shared_ptr<SyncEngine> engine) {
        return CloudService::getAccountStatus().map(
            [engine](CKAccountStatus status) { return std::pair(engine, status); });
      })
      .asPromise()
      .then([block](std::pair<std::shared_ptr<SyncEngine>, CKAccountStatus> ready) {
        auto& [engine, status] = ready;
        if (!Settings::syncToCloudKit()) {
          engine->stopObservingLocalAndRemoteChanges();
          throw SyncError::syncTurnedOff();
        }
        // Observing begins before the account is looked at.
        engine->startObservingLocalAndRemoteChanges();
        if (status != CKAccountStatus::available) throw SyncError::accountStatusInvalid(status);
        setSyncState({SyncState::Syncing{}});
        return Promise<void>([&](const Promise<void>::Resolver& resolver) { block(*engine, resolver); });
      })
      .done([resolveSynced] {
        info("sync successfully", "startSync(block:)");
        setSyncState({SyncState::Success{Date::now()}});
        resolveSynced(true);
      })
      .catchError([resolveSynced](std::exception_ptr error) {
        info("sync failed: " + debugDescription(error), "startSync(block:)");
        applyFailureRule(error);
        resolveSynced(false);
      });
  return synced;
}

void pullThenPush(SyncEngine& engine, const Promise<void>::Resolver& resolver) {
  engine.pull([engine = engine.shared_from_this(), resolver](std::exception_ptr error) {
    if (error) {
      resolver.reject(error);
      return;
    }
    engine->pushAll();
    resolver.fulfill();
  });
}

// This device's pickups and walks that touch `interval`, deleted ones
// included, so that what changed while nothing observed leaves now.
template <class Record>
void collectTouching(store::Store& store, DateInterval interval, std::vector<sync::PushItem>& items) {
  store::Query query;
  query.filter("deviceId = ?", {store::QueryValue(Settings::deviceId())});
  for (const auto& object : store.objects<Record>(store::touching(query, interval))) {
    items.push_back({sync::record(object, store), object.isDeleted});
  }
}

Promise<void> pushObjectsWhenResume(SyncEngine& engine, DateInterval between) {
  std::vector<sync::PushItem> objects;
  auto store = store::Store::open();
  collectTouching<Pickup>(store, between, objects);
  collectTouching<Walk>(store, between, objects);
  info("push " + std::to_string(objects.size()) + " objects to cloud", "pushObjectsWhenResume(between:)");
  return Promise<void>([&](const Promise<void>::Resolver& resolver) { engine.push(objects, settling(resolver)); });
}

template <class Record>
std::shared_ptr<sync::Syncable> syncObject(bool canPauseSync) {
  return std::make_shared<sync::SyncObject<Record>>(store::Store::defaultConfiguration(), canPauseSync);
}

void reportResult(const Guarantee<bool>& synced, std::function<void(bool)> completion) {
  if (completion) synced.done([completion = std::move(completion)](bool result) { completion(result); });
}

}  // namespace

std::string CloudService::SyncState::description() const {
  return std::visit(
      [](const auto& held) -> std::string {
        using Case = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Case, Background>) {
          return "background(startAt: " + held.startAt.description() + ")";
        } else if constexpr (std::is_same_v<Case, Success>) {
          return "success(date: " + held.date.description() + ")";
        } else if constexpr (std::is_same_v<Case, Failed>) {
          return "failed(reason: \"" + held.reason + "\")";
        } else if constexpr (std::is_same_v<Case, Idle>) {
          return "idle";
        } else {
          return "syncing";
        }
      },
      value);
}

CloudService::SyncError CloudService::SyncError::accountStatusInvalid(CKAccountStatus status) {
  return SyncError(Kind::accountStatusInvalid, status,
                   "the cloud account is not available (" + std::string(name(status)) + ")");
}
CloudService::SyncError CloudService::SyncError::syncEngineIsSyncing() {
  return SyncError(Kind::syncEngineIsSyncing, CKAccountStatus::couldNotDetermine, "the sync engine is syncing");
}
CloudService::SyncError CloudService::SyncError::syncTurnedOff() {
  return SyncError(Kind::syncTurnedOff, CKAccountStatus::couldNotDetermine, "sync is turned off");
}

void CloudService::start() {
  std::vector<std::shared_ptr<sync::Syncable>> objects{syncObject<Device>(true), syncObject<Tag>(true),
                                                       syncObject<Focus>(false), syncObject<Pickup>(true),
                                                       syncObject<Walk>(true)};
  pendingEngine();
  auto& s = serviceState();
  // The engine waits for the account on the cloud's queue, holding only a
  // weak reference to itself: the service keeps it.
  auto made =
      SyncEngine::make(std::move(objects), CKDatabaseScope::privateScope, CKContainer::installedPointer(),
                       [resolve = s.resolveEngine](const std::shared_ptr<SyncEngine>& ready) { resolve(ready); });
  {
    std::lock_guard lock(s.mutex);
    s.madeEngine = std::move(made);
  }

  pendingEngine().done([](std::shared_ptr<SyncEngine> engine) {
    if (!Settings::syncToCloudKit()) return;
    setSyncState({SyncState::Syncing{}});
    engine->startObservingLocalAndRemoteChanges();
    engine->pull([](std::exception_ptr error) {
      if (error) {
        applyFailureRule(error);
      } else {
        setSyncState({SyncState::Success{Date::now()}});
      }
    });
  });

  auto& center = NotificationCenter::defaultCenter();
  s.syncToCloudObserver = center.addObserver(std::string(Settings::NotificationName::syncToCloudKitChanged), nullptr,
                                             [](const Notification&) { syncToCloudDidChange(); });
  s.accountObserver = center.addObserver(std::string(CKAccountChangedNotification), nullptr,
                                         [](const Notification&) { accountDidChange(); });
  sync::CloudSync::shared().enableLogging = false;
}

Guarantee<CKAccountStatus> CloudService::getAccountStatus() {
  return Guarantee<CKAccountStatus>([](const Guarantee<CKAccountStatus>::Resolver& resolver) {
    CKContainer::installed().accountStatus([resolver](CKAccountStatus status, std::exception_ptr error) {
      if (error) log.error(debugDescription(error), {.function = "getAccountStatus()"});
      setAccountStatus(status);
      resolver(status);
    });
  });
}

bool CloudService::handleRemoteNotification(const nlohmann::json& userInfo) {
  if (!userInfo.is_object()) return false;
  const auto notification = CKNotification::fromRemoteNotificationDictionary(userInfo);
  if (!notification || !notification->subscriptionID()) return false;
  info("post cloudKitDataDidChangeRemotely notification", "handleRemoteNotification(userInfo:)");
  const auto ours = sync::CloudSyncSubscription::allIDs();
  if (std::find(ours.begin(), ours.end(), *notification->subscriptionID()) != ours.end()) {
    Notification post{std::string(sync::Notifications::cloudKitDataDidChangeRemotely), {}, {}};
    for (const auto& [key, value] : userInfo.items()) post.userInfo.emplace(key, value);
    NotificationCenter::defaultCenter().post(std::move(post));
  }
  return true;
}

void CloudService::pullAll(std::function<void(bool)> completion) {
  reportResult(startSync([](SyncEngine& engine, const Promise<void>::Resolver& resolver) {
                 info("pull from cloud", "pullAll(_:)");
                 engine.pull(settling(resolver));
               }),
               std::move(completion));
}

void CloudService::pushAll(std::function<void(bool)> completion) {
  reportResult(startSync([](SyncEngine& engine, const Promise<void>::Resolver& resolver) {
                 info("push all to cloud", "pushAll(_:)");
                 engine.pushAll();
                 resolver.fulfill();
               }),
               std::move(completion));
}

void CloudService::sendUnsentChanges() {
  const auto engine = readyEngine();
  if (engine && Settings::syncToCloudKit()) engine->sendUnsentChanges();
}

void CloudService::enterBackground() { resumeBackground(Date::now()); }

void CloudService::resumeBackground(Date startAt) {
  const auto engine = readyEngine();
  if (!engine) return;
  engine->partiallyPauseSync();
  setSyncState({SyncState::Background{startAt}});
}

void CloudService::enterForeground() {
  const SyncState current = syncState();
  const auto* background = current.as<SyncState::Background>();
  if (!background) return;
  const Date startAt = background->startAt;
  const Date now = Date::now();
  // A clock moved back leaves the stretch unfinished.
  if (!(startAt < now)) return;
  const auto engine = readyEngine();
  if (!engine) return;
  engine->resumeSync();
  startSync([between = DateInterval(startAt, now)](SyncEngine& ready, const Promise<void>::Resolver& resolver) {
    ready.pull([engine = ready.shared_from_this(), between, resolver](std::exception_ptr error) {
      if (error) {
        resolver.reject(error);
        return;
      }
      pushObjectsWhenResume(*engine, between).pipe(resolver);
    });
  });
}

CKAccountStatus CloudService::accountStatus() {
  auto& s = serviceState();
  std::lock_guard lock(s.mutex);
  return s.accountStatus;
}

CloudService::SyncState CloudService::syncState() {
  auto& s = serviceState();
  std::lock_guard lock(s.mutex);
  return s.syncState;
}

void CloudService::syncToCloudDidChange() { startSync(pullThenPush); }

void CloudService::accountDidChange() {
  CKContainer::installed().accountStatus([](CKAccountStatus status, std::exception_ptr) {
    // accountStatus() moves inside the sync that follows.
    if (accountStatus() != CKAccountStatus::available && status == CKAccountStatus::available) {
      startSync(pullThenPush);
    }
  });
}

}  // namespace tarnwell

#include "tarnwell/sync/CloudSync.h"

#include <mutex>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Log.h"

namespace tarnwell::sync {
namespace {

// The sink is set by a test on its own thread while the layer logs from the
// worker and the cloud's queues.
std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

CloudSync& CloudSync::shared() { return Environment::current().component<CloudSync>(); }

void CloudSync::log(const std::string& line) {
  std::function<void(const std::string&)> sink;
  {
    std::lock_guard lock(sinkMutex());
    sink = sink_;
  }
  if (sink) sink(line);
  // A release build composes the lines and prints none, whatever the flag says.
  if (enableLogging && Environment::current().bundle().isDebugBuild) tarnwell::log.info(line);
}

void CloudSync::setSink(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(sinkMutex());
  sink_ = std::move(sink);
}

std::string_view rawValue(CloudSyncKey key) {
  switch (key) {
    case CloudSyncKey::databaseChangesTokenKey:
      return "databaseChangesTokenKey";
    case CloudSyncKey::zoneChangesTokenKey:
      return "zoneChangesTokenKey";
    case CloudSyncKey::subscriptionIsLocallyCachedKey:
      return "subscriptionIsLocallyCachedKey";
    case CloudSyncKey::hasCustomZoneCreatedKey:
      return "hasCustomZoneCreatedKey";
  }
  return {};
}

std::string storedKey(CloudSyncKey key) { return "cloudsync.keys." + std::string(rawValue(key)); }

std::vector<std::string> CloudSyncSubscription::allIDs() {
  return {std::string(cloudKitPrivateDatabaseSubscriptionID), std::string(cloudKitPublicDatabaseSubscriptionID)};
}

}  // namespace tarnwell::sync

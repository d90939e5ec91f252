// Devices of one user over one in-memory cloud, each with its own store and
// preferences and engines that sync pickups and walks, as the app sets them up.

#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/TestEnvironment.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/sync/DatabaseManager.h"
#include "tarnwell/sync/RecordConformances.h"
#include "tarnwell/sync/SyncEngine.h"
#include "tarnwell/sync/SyncObject.h"

namespace tarnwell::testing {

// One installation: its store, its preferences and its view of the cloud.
struct Device {
  store::StoreConfiguration configuration;
  std::unique_ptr<UserDefaults> defaults;
  std::shared_ptr<EmulatedContainer> container;
  std::shared_ptr<sync::SyncObject<Pickup>> pickups;
  std::shared_ptr<sync::SyncObject<Walk>> walks;
  std::shared_ptr<sync::SyncEngine> engine;
  bool ready = false;

  template <class Record>
  std::vector<Record> live() const {
    return store::Store::open(configuration).objects<Record>(store::Query().filter("isDeleted = 0").sorted("id"));
  }
  std::vector<Pickup> live() const { return live<Pickup>(); }
};

class SyncFixture : public EnvironmentTest {
 protected:
  SyncFixture() : cloud(CloudEmulator::inMemory(env.environment().makeQueue("cloud"))) {
    sync::CloudSync::shared().setSink([this](const std::string& line) { log.push_back(line); });
  }

  Device& device(const std::string& name) {
    auto& made = devices[name];
    made.configuration.fileURL = env.root() / (name + ".realm");
    made.configuration.schemaVersion = 1;
    made.configuration.tables = {store::tableSchema<Pickup>(), store::tableSchema<Walk>()};
    made.configuration.outboxClasses = {"Pickup", "Walk"};
    made.defaults = std::make_unique<UserDefaults>(env.root() / (name + ".defaults.sqlite"));
    made.container = cloud->container(name, "iCloud.org.vostra.tarnwell");
    made.pickups = std::make_shared<sync::SyncObject<Pickup>>(made.configuration, true, *made.defaults);
    made.walks = std::make_shared<sync::SyncObject<Walk>>(made.configuration, true, *made.defaults);
    return made;
  }

  // Sets the engine up as the app does, lets it make its zones and push, and
  // starts observing.
  Device& start(const std::string& name) {
    Device& d = devices.count(name) ? devices[name] : device(name);
    d.engine = sync::SyncEngine::make(
        {d.pickups, d.walks}, CKDatabaseScope::privateScope, d.container,
        [&d](const std::shared_ptr<sync::SyncEngine>&) { d.ready = true; }, *d.defaults);
    env.pump();
    d.engine->startObservingLocalAndRemoteChanges();
    env.pump();
    return d;
  }

  // A push reaches the app as the host hands it over.
  void hearPushes(Device& d) {
    d.container->setRemoteNotificationHandler([](const nlohmann::json& userInfo) {
      const auto notification = CKNotification::fromRemoteNotificationDictionary(userInfo);
      if (notification && notification->subscriptionID()) {
        NotificationCenter::defaultCenter().post(sync::Notifications::cloudKitDataDidChangeRemotely);
      }
    });
  }

  template <class Record>
  void write(Device& d, const std::vector<Record>& records) {
    store::Store::open(d.configuration).write([&](auto& t) {
      for (const auto& record : records) t.add(record);
    });
    env.pump();
  }

  std::vector<Pickup> pickups(int count) {
    std::vector<Pickup> made;
    for (int i = 0; i < count; ++i) {
      const Date start = env.clock().now() + i * 120.0;
      made.emplace_back(start, start + 60);
    }
    return made;
  }

  std::vector<CloudRequest> modifies() const {
    std::vector<CloudRequest> found;
    for (const auto& request : cloud->requests()) {
      if (request.kind == CKOperationKind::modifyRecords) found.push_back(request);
    }
    return found;
  }

  bool logged(const std::string& line) const { return std::find(log.begin(), log.end(), line) != log.end(); }

  std::shared_ptr<CloudEmulator> cloud;
  std::map<std::string, Device> devices;
  std::vector<std::string> log;
};

}  // namespace tarnwell::testing

// The cloud service over an in-memory cloud: when it syncs, what the user
// reads when that fails, and the background stretch.

#include "tarnwell/modules/CloudService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "support/TestEnvironment.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Localization.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell {
namespace {

using SyncState = CloudService::SyncState;

const Date t0 = testing::defaultTestNow();

// Keeps the lines of the cloud service.
class CloudLines final : public LogDestination {
 public:
  std::string_view identifier() const override { return "cloudLines"; }
  LogLevel outputLevel() const override { return LogLevel::debug; }
  void write(const LogRecord& record) override {
    if (!record.message.starts_with("☁️ ")) return;
    std::lock_guard lock(mutex_);
    lines_.push_back(record.message);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(std::string_view line) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class CloudServiceTest : public testing::EnvironmentTest {
 protected:
  CloudServiceTest() : cloud(CloudEmulator::inMemory(env.environment().makeQueue("cloud"))) {
    log.add(lines);
    container = cloud->container(Settings::deviceId(), std::string(CloudService::containerIdentifier));
    container->setRemoteNotificationHandler(
        [](const nlohmann::json& userInfo) { CloudService::handleRemoteNotification(userInfo); });
    CKContainer::install(container);
    states = NotificationCenter::defaultCenter().addObserver(
        std::string(CloudService::NotificationName::syncStateDidChange), nullptr,
        [this](const Notification&) { heard.push_back(CloudService::syncState()); });
  }

  void start() {
    Database::start();
    env.pump();
  }

  std::size_t cloudRecords(const std::string& type) const {
    return cloud->records(CKDatabaseScope::privateScope, type).size();
  }
  std::size_t remoteObservers() const {
    return NotificationCenter::defaultCenter().observerCount(sync::Notifications::cloudKitDataDidChangeRemotely);
  }
  // The outcome of CloudService::pullAll once the queues ran.
  std::optional<bool> pullAll() {
    std::optional<bool> synced;
    CloudService::pullAll([&synced](bool result) { synced = result; });
    env.pump();
    return synced;
  }

  std::shared_ptr<CloudLines> lines = std::make_shared<CloudLines>();
  std::shared_ptr<CloudEmulator> cloud;
  std::shared_ptr<EmulatedContainer> container;
  std::vector<SyncState> heard;
  NotificationToken states;
};

TEST_F(CloudServiceTest, TheFirstPullSucceedsAndLeavesItsDateEverywhere) {
  start();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Success{t0}});
  EXPECT_EQ(Settings::cloudKitLastSyncDate(), t0);
  EXPECT_EQ(Database::getCurrentDevice()->lastSyncDate, t0);
  ASSERT_EQ(heard.size(), 2u) << "each change is posted on the main queue";
  EXPECT_EQ(heard.back(), CloudService::syncState());
  EXPECT_TRUE(lines->has("☁️ Sync State Changed from idle to syncing"));
  EXPECT_TRUE(lines->has("☁️ Sync State Changed from syncing to success(date: " + t0.description() + ")"));
  // The zones were made and everything this device had went up.
  EXPECT_EQ(cloudRecords("Device"), 1u);
  EXPECT_GE(cloudRecords("Tag"), 1u);
  EXPECT_EQ(remoteObservers(), 1u);
  EXPECT_EQ(CloudService::accountStatus(), CKAccountStatus::couldNotDetermine) << "only a later sync asks";

  env.advance(60);
  EXPECT_EQ(pullAll(), true);
  EXPECT_EQ(CloudService::accountStatus(), CKAccountStatus::available);
  EXPECT_EQ(Settings::cloudKitLastSyncDate(), t0 + 60);
  EXPECT_TRUE(lines->has("☁️ Account Status Changed from couldNotDetermine to available"));
  EXPECT_TRUE(lines->has("☁️ pull from cloud"));
  EXPECT_TRUE(lines->has("☁️ sync successfully"));
}

TEST_F(CloudServiceTest, WithSyncOffTheStartNeitherObservesNorPulls) {
  Settings::setSyncToCloudKit(false);
  env.pump();
  start();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Idle{}});
  EXPECT_EQ(remoteObservers(), 0u);
  Database::addPickup(t0 - 600, t0 - 300);
  env.pump();
  EXPECT_EQ(cloudRecords("Pickup"), 0u);
  EXPECT_EQ(pullAll(), false);
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Failed{localized("iCloud.Fail.SyncUnavailable")}});

  // Turning it on pulls, then pushes what was written meanwhile.
  Settings::setSyncToCloudKit(true);
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Success{t0}});
  EXPECT_EQ(cloudRecords("Pickup"), 1u);
  EXPECT_EQ(remoteObservers(), 1u);
}

TEST_F(CloudServiceTest, TurningSyncOffStopsObservingAndFailsWithItsText) {
  start();
  Settings::setSyncToCloudKit(false);
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Failed{localized("iCloud.Fail.SyncUnavailable")}});
  Database::addPickup(t0 - 600, t0 - 300);
  env.pump();
  EXPECT_EQ(cloudRecords("Pickup"), 0u) << "local changes are no longer observed";
}

TEST_F(CloudServiceTest, FailuresReadAsTheAccountTheCloudsCodeOrNothingNew) {
  start();
  const std::size_t observing = remoteObservers();

  container->setAccountStatus(CKAccountStatus::restricted);
  env.pump();
  EXPECT_EQ(pullAll(), false);
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Failed{localized("iCloud.Fail.AccountStatusInvalid")}});
  EXPECT_EQ(CloudService::accountStatus(), CKAccountStatus::restricted);
  EXPECT_GT(remoteObservers(), observing) << "observing starts before the account is looked at";

  container->setAccountStatus(CKAccountStatus::available);
  env.pump();
  cloud->addFault({.code = 6, .retryAfter = std::nullopt, .times = 1, .on = CKOperationKind::fetchZoneChanges});
  EXPECT_EQ(pullAll(), false);
  EXPECT_EQ(CloudService::syncState(),
            SyncState{SyncState::Failed{localizedFormat(
                "iCloud.Fail.ErrorCode", {CKError(CKErrorCode::serviceUnavailable).localizedDescription(), "6"})}});

  // A fetch that ends in an error nobody handles still ends the sync, failed.
  cloud->addFault({.code = 15, .retryAfter = std::nullopt, .times = 1, .on = CKOperationKind::fetchDatabaseChanges});
  EXPECT_EQ(pullAll(), false);
  EXPECT_TRUE(CloudService::syncState().as<SyncState::Failed>());
}

TEST_F(CloudServiceTest, AnAccountThatBecomesAvailablePullsThenPushesEverything) {
  start();
  Database::addPickup(t0 - 600, t0 - 300);
  env.pump();
  const auto before = cloud->requests().size();

  container->setAccountStatus(CKAccountStatus::temporarilyUnavailable);
  env.pump();
  EXPECT_EQ(cloud->requests().size(), before) << "only a change to available syncs";
  container->setAccountStatus(CKAccountStatus::available);
  env.pump();
  EXPECT_EQ(CloudService::accountStatus(), CKAccountStatus::available);
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Success{t0}});
  const auto requests = cloud->requests();
  ASSERT_GT(requests.size(), before);
  EXPECT_EQ(requests[before].kind, CKOperationKind::fetchDatabaseChanges) << "the pull goes first";
  EXPECT_TRUE(std::any_of(requests.begin() + static_cast<std::ptrdiff_t>(before), requests.end(),
                          [](const CloudRequest& r) { return r.recordsToSave > 1; }))
      << "then every record";

  // Already available: nothing more.
  const auto after = cloud->requests().size();
  CloudService::accountDidChange();
  env.pump();
  EXPECT_EQ(cloud->requests().size(), after);
}

TEST_F(CloudServiceTest, InTheBackgroundOnlyFocusLeavesAndTheStretchFollowsOnReturn) {
  start();
  CloudService::enterBackground();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Background{t0}});

  env.advance(300);
  const std::string early = Database::addPickup(t0 + 60, t0 + 120);
  Database::addWalk(t0 + 100, t0 + 200);
  Database::addFocus(std::nullopt, t0 + 200, t0 + 260, std::nullopt, 60, 60, std::nullopt, std::nullopt, std::nullopt);
  env.pump();
  EXPECT_EQ(cloudRecords("Pickup"), 0u);
  EXPECT_EQ(cloudRecords("Walk"), 0u);
  EXPECT_EQ(cloudRecords("Focus"), 1u);

  // A second stretch starts later: what the first one held still leaves on return.
  CloudService::enterBackground();
  env.advance(300);
  Database::addPickup(t0 + 400, t0 + 500);
  Database::deletePickup(early);
  env.pump();
  CloudService::enterForeground();
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Success{t0 + 600}});
  EXPECT_TRUE(lines->has("☁️ push 1 objects to cloud"));
  EXPECT_EQ(cloudRecords("Pickup"), 1u);
  EXPECT_EQ(cloudRecords("Walk"), 1u);

  // After the return, changes leave at once again.
  Database::addWalk(t0 + 600, t0 + 700);
  env.pump();
  EXPECT_EQ(cloudRecords("Walk"), 2u);
}

TEST_F(CloudServiceTest, ADeletionInTheBackgroundLeavesOnReturn) {
  start();
  const std::string id = Database::addPickup(t0 + 30, t0 + 40);
  env.pump();
  ASSERT_EQ(cloudRecords("Pickup"), 1u);
  // Pulled once since, so that the return's pull does not bring the
  // pickup's older cloud version back over the deletion.
  ASSERT_EQ(pullAll(), true);
  CloudService::enterBackground();
  env.advance(60);
  Database::deletePickup(id);
  env.pump();
  EXPECT_EQ(cloudRecords("Pickup"), 1u);
  CloudService::enterForeground();
  env.pump();
  EXPECT_EQ(cloudRecords("Pickup"), 0u);
}

TEST_F(CloudServiceTest, AReturnBeforeTheStretchBeganStaysInTheBackground) {
  start();
  CloudService::enterBackground();
  env.clock().set(t0 - 1);
  CloudService::enterForeground();
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Background{t0}});
  env.clock().set(t0);
  CloudService::enterForeground();
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Background{t0}}) << "not earlier than now";

  // Coming back when nothing went to the background does nothing.
  env.clock().set(t0 + 10);
  CloudService::enterForeground();
  env.pump();
  CloudService::enterForeground();
  env.pump();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Success{t0 + 10}});
}

TEST_F(CloudServiceTest, OnlyCloudPushesAreTakenAndOnlyOursAreHeard) {
  start();
  std::vector<Notification> posted;
  auto token = NotificationCenter::defaultCenter().addObserver(
      std::string(sync::Notifications::cloudKitDataDidChangeRemotely), nullptr,
      [&posted](const Notification& n) { posted.push_back(n); });

  EXPECT_FALSE(CloudService::handleRemoteNotification(nlohmann::json::array({1, 2})));
  EXPECT_FALSE(CloudService::handleRemoteNotification({{"aps", {{"alert", "hello"}}}}));
  const auto push = [](const std::string& subscription) {
    return CKNotification::userInfo(CKNotification::Type::database, subscription, CKDatabaseScope::privateScope, "n1");
  };
  EXPECT_TRUE(CloudService::handleRemoteNotification(push("somebody-elses")));
  EXPECT_TRUE(posted.empty());
  EXPECT_TRUE(CloudService::handleRemoteNotification(push("private_changes")));
  ASSERT_EQ(posted.size(), 1u);
  EXPECT_EQ(posted[0].userInfo.size(), push("private_changes").size());
  EXPECT_TRUE(lines->has("☁️ post cloudKitDataDidChangeRemotely notification"));
}

TEST_F(CloudServiceTest, WithoutAnAccountAtLaunchNothingEverSyncs) {
  container->setAccountStatus(CKAccountStatus::noAccount);
  start();
  EXPECT_EQ(pullAll(), std::nullopt);
  container->setAccountStatus(CKAccountStatus::available);
  env.pump();
  EXPECT_EQ(pullAll(), std::nullopt) << "the engine waits for the next launch";
  CloudService::enterBackground();
  EXPECT_EQ(CloudService::syncState(), SyncState{SyncState::Idle{}});
}

}  // namespace

void PrintTo(const CloudService::SyncState& state, std::ostream* out) { *out << state.description(); }

}  // namespace tarnwell

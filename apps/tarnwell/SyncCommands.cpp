// `tarnwell sync` and `tarnwell lifecycle`: syncing with the cloud this
// installation signed in to, and the phone's life that decides when. Also
// the launch's and the exit's part in that life: a process is one launch
// of the app, and the background stretch it may be in outlives the process.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "Cli.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/records/Device.h"
#include "tarnwell/records/EventRecords.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/records/Tag.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Outbox.h"
#include "tarnwell/store/Reads.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/DatabaseManager.h"
#include "tarnwell/sync/RecordMapping.h"

namespace tarnwell::cli {
namespace {

// Where an installation in the background keeps when the stretch began,
// as the app keeps it in memory between the two calls.
constexpr std::string_view kBackgroundSinceKey = "TarnwellHost.backgroundSince";

using SyncState = CloudService::SyncState;

// The classes whose records the cloud holds, by their record types.
const std::vector<std::string> kSyncedTypes{"Device", "Tag", "Focus", "Pickup", "Walk"};

nlohmann::ordered_json stateJSON(const SyncState& state) {
  return std::visit(
      [](const auto& held) -> nlohmann::ordered_json {
        using Case = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Case, SyncState::Background>) {
          return {{"state", "background"}, {"startAt", held.startAt.iso8601()}};
        } else if constexpr (std::is_same_v<Case, SyncState::Success>) {
          return {{"state", "success"}, {"date", held.date.iso8601()}};
        } else if constexpr (std::is_same_v<Case, SyncState::Failed>) {
          return {{"state", "failed"}, {"reason", held.reason}};
        } else if constexpr (std::is_same_v<Case, SyncState::Idle>) {
          return {{"state", "idle"}};
        } else {
          return {{"state", "syncing"}};
        }
      },
      state.value);
}

// The instants stay in ISO 8601, as the cloud and the other devices, in
// other zones, have them.
std::string stateLine(const SyncState& state) {
  if (const auto* background = state.as<SyncState::Background>()) {
    return words("Sync.State.Background", {background->startAt.iso8601()});
  }
  if (const auto* success = state.as<SyncState::Success>()) {
    return words("Sync.State.Synced", {success->date.iso8601()});
  }
  if (const auto* failed = state.as<SyncState::Failed>()) return words("Sync.State.Failed", {failed->reason});
  if (state.as<SyncState::Idle>()) return words("Sync.State.Idle");
  return words("Sync.State.Syncing");
}

// Why nothing can sync, when the launch found no way to: the engine comes
// only with an account that was available at launch. In the user's language,
// for the refusals that end with it.
std::string whyNoEngine() {
  if (!signedInCloudName()) return errorWords("this installation is not signed in to a cloud (cloud sign-in DIR|URL)");
  return formatString(errorWords("the cloud account was not available at launch (account: %@)"),
                      {name(CloudService::accountStatus())});
}

// Runs one sync of CloudService and waits for its outcome, retries the
// cloud asked for included; InputError when it cannot end.
void runSync(const GlobalOptions& options, const std::string& command,
             void (*sync)(std::function<void(bool)> completion)) {
  auto synced = std::make_shared<std::optional<bool>>();
  sync([synced](bool result) { *synced = result; });
  settleOperations();
  if (!*synced) throw refusal("%1$@: nothing synced: %2$@", {command, whyNoEngine()});
  const SyncState state = CloudService::syncState();
  if (!**synced) throw std::runtime_error(command + ": " + stateLine(state));
  Output(options).print(stateJSON(state), stateLine(state));
}

// The changes the cloud has not acknowledged yet, as JSON and as a line.
std::pair<nlohmann::ordered_json, std::string> unsentChanges() {
  auto store = store::Store::open();
  const auto summary = store::Outbox(store.connection()).summary(store.outboxClasses());
  nlohmann::ordered_json byClass = nlohmann::ordered_json::object();
  std::string classes;
  for (const auto& [className, count] : summary.byClass) {
    byClass[className] = count;
    classes += (classes.empty() ? "" : ", ") + className + " " + std::to_string(count);
  }
  const auto age = summary.oldest ? std::max(0.0, Date::now().timeIntervalSince(*summary.oldest)) : 0.0;
  nlohmann::ordered_json json{{"count", summary.count},
                              {"byClass", std::move(byClass)},
                              {"oldest", optionalJSON(summary.oldest)},
                              {"oldestAgeSeconds", summary.oldest ? nlohmann::ordered_json(age) : nullptr}};
  if (summary.count == 0) return {json, words("Sync.Unsent.None")};
  return {json, words("Sync.Unsent.Some", {static_cast<std::int64_t>(summary.count), classes, summary.oldest->iso8601(),
                                           static_cast<std::int64_t>(std::llround(age)), localized("DateTime.s")})};
}

void printStatus(const GlobalOptions& options) {
  const CKAccountStatus account = await(CloudService::getAccountStatus().asPromise());
  const SyncState state = CloudService::syncState();
  const auto lastSync = Settings::cloudKitLastSyncDate();
  const auto cloud = signedInCloudName();
  auto [unsent, unsentLine] = unsentChanges();
  nlohmann::ordered_json json{{"cloud", cloud ? nlohmann::ordered_json(*cloud) : nullptr},
                              {"accountStatus", name(account)},
                              {"syncToCloudKit", Settings::syncToCloudKit()},
                              {"syncState", stateJSON(state)},
                              {"lastSyncDate", optionalJSON(lastSync)},
                              {"unsent", std::move(unsent)}};
  Output(options).print(
      json, joinLines({
                words("Sync.Status.Cloud", {cloud.value_or(words("List.None"))}),
                words("Sync.Status.Account", {name(account)}),
                words("Sync.Status.Sync", {words(Settings::syncToCloudKit() ? "Sync.Status.On" : "Sync.Status.Off")}),
                words("Sync.Status.State", {stateLine(state)}),
                words("Sync.Status.LastSync", {lastSync ? lastSync->iso8601() : words("Sync.Status.Never")}),
                unsentLine,
            }));
}

// This installation's live records of the synced classes, as the cloud
// would hold them, in the order `cloud records` lists the cloud's.
template <class Record>
void collectRecords(store::Store& store, std::vector<CKRecord>& records) {
  for (const auto& object : store.objects<Record>(store::liveRows())) records.push_back(sync::record(object, store));
}

void printSyncedRecords(const GlobalOptions& options, const std::optional<std::string>& type) {
  if (type && std::find(kSyncedTypes.begin(), kSyncedTypes.end(), *type) == kSyncedTypes.end()) {
    refuse("--type", *type, "Device, Tag, Focus, Pickup or Walk");
  }
  auto store = store::Store::open();
  std::vector<CKRecord> records;
  collectRecords<Device>(store, records);
  collectRecords<Tag>(store, records);
  collectRecords<Focus>(store, records);
  collectRecords<Pickup>(store, records);
  collectRecords<Walk>(store, records);
  std::erase_if(records, [&type](const CKRecord& r) { return type && r.recordType() != *type; });
  std::sort(records.begin(), records.end(), [](const CKRecord& a, const CKRecord& b) {
    return std::tie(a.recordID().zoneID.zoneName, a.recordID().recordName) <
           std::tie(b.recordID().zoneID.zoneName, b.recordID().recordName);
  });
  printCloudRecords(options, records);
}

volatile std::sig_atomic_t interrupted = 0;

std::string pushCount(std::size_t count) {
  return words(count == 1 ? "Sync.Pushes.One" : "Sync.Pushes.Many", {static_cast<std::int64_t>(count)});
}

// The records that syncs wrote into this installation while it lives. The
// store tells its observers on the main queue, so once a sync has settled,
// all it wrote has been counted. Nothing else writes the synced classes
// while a watch waits.
class FetchedRecords {
 public:
  FetchedRecords() {
    auto store = store::Store::open();
    for (const auto& type : kSyncedTypes) {
      tokens_.push_back(store.observe(type, [this, type](const store::ChangeSet& change) {
        auto& keys = keysByType_[type];
        for (const auto* list : {&change.insertions, &change.modifications, &change.deletions}) {
          keys.insert(list->begin(), list->end());
        }
      }));
    }
  }

  // "2 records (Device 1, Pickup 1)" since the last call, or "nothing new".
  std::string take() {
    std::size_t total = 0;
    std::string byType;
    for (const auto& type : kSyncedTypes) {
      const std::size_t count = keysByType_[type].size();
      if (count == 0) continue;
      total += count;
      byType += (byType.empty() ? "" : ", ") + type + " " + std::to_string(count);
    }
    keysByType_.clear();
    if (total == 0) return words("Sync.Fetched.Nothing");
    return words(total == 1 ? "Sync.Fetched.One" : "Sync.Fetched.Many", {static_cast<std::int64_t>(total), byType});
  }

 private:
  std::map<std::string, std::set<std::string>> keysByType_;
  std::vector<store::ObserverToken> tokens_;
};

// Stays connected to the cloud, and hands each push to the app as a phone
// hands over its silent pushes, letting the sync each one starts run to its
// end; until `seconds` have passed, or until interrupted when not given.
void watch(const GlobalOptions& options, std::optional<double> seconds) {
  if (!signedInCloudName()) throw refusal("sync watch: nothing to watch: %@", {whyNoEngine()});
  interrupted = 0;
  const auto stop = [](int) { interrupted = 1; };
  std::signal(SIGINT, stop);
  std::signal(SIGTERM, stop);
  using Clock = std::chrono::steady_clock;
  const auto deadline =
      seconds ? Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*seconds))
              : Clock::time_point::max();
  if (!options.json) {
    standardOutput() << words(seconds ? "Sync.Watch.Started" : "Sync.Watch.StartedUntilInterrupted") << std::endl;
  }
  std::size_t pushes = 0;
  FetchedRecords fetched;
  settleOperations();
  fetched.take();
  while (!interrupted && Clock::now() < deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    waitForPushes(std::clamp(left, std::chrono::milliseconds(0), std::chrono::milliseconds(1000)));
    const std::size_t delivered = deliverWaitingPushes();
    if (delivered == 0) continue;
    pushes += delivered;
    settleOperations();
    // A push is one commit of another device, and a command there that
    // writes makes two: its launch's sync saves that device's record before
    // the command's records go. So each line says what its push brought.
    const std::string brought = fetched.take();
    if (!options.json) standardOutput() << words("Sync.Watch.Heard", {pushCount(delivered), brought}) << std::endl;
  }
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  nlohmann::ordered_json json = stateJSON(CloudService::syncState());
  json["pushes"] = pushes;
  Output(options).print(json, words("Sync.Watch.Stopped", {pushCount(pushes)}));
}

void enterBackground(const GlobalOptions& options) {
  CloudService::enterBackground();
  const SyncState state = CloudService::syncState();
  const auto* background = state.as<SyncState::Background>();
  if (!background) throw refusal("lifecycle background: sync is not running: %@", {whyNoEngine()});
  UserDefaults::standard().set(kBackgroundSinceKey, background->startAt);
  Output(options).print(stateJSON(state), stateLine(state));
}

void enterForeground(const GlobalOptions& options) {
  if (!CloudService::syncState().as<SyncState::Background>()) {
    throw refusal("lifecycle foreground: the app is not in the background (lifecycle background)");
  }
  CloudService::enterForeground();
  settleOperations();
  const SyncState state = CloudService::syncState();
  // A stretch that has not begun yet (the clock went back) goes on.
  if (!state.as<SyncState::Background>()) UserDefaults::standard().removeObject(kBackgroundSinceKey);
  Output(options).print(stateJSON(state), stateLine(state));
}

// The switch in the app's settings, flipped while the app runs: the service
// hears the change (on: pull, then push everything; off: it stops observing
// and fails with its text), and the state it ends in is printed.
void switchSync(const GlobalOptions& options, bool on) {
  Settings::setSyncToCloudKit(on);
  settleOperations();
  const SyncState state = CloudService::syncState();
  Output(options).print(stateJSON(state), stateLine(state));
}

}  // namespace

void resumeLaunch() {
  if (const auto since = UserDefaults::standard().dateForKey(kBackgroundSinceKey)) {
    CloudService::resumeBackground(*since);
  }
  deliverWaitingPushes();
}

void endLaunch() {
  // A process that ends in the background is an app the system suspended;
  // otherwise the app is quit, and the sync layer cleans up.
  if (CloudService::syncState().as<SyncState::Background>()) return;
  NotificationCenter::defaultCenter().post(sync::UIApplicationWillTerminateNotification);
  settleOperations();
}

void addSyncCommands(CLI::App& app, const GlobalOptions& options, Action& action) {
  auto* sync = app.add_subcommand("sync", "Sync this installation with the cloud it signed in to");
  sync->require_subcommand(1);

  auto* pull = sync->add_subcommand("pull", "Fetch what the other devices wrote");
  onRun(pull, action, [&options] { runSync(options, "sync pull", &CloudService::pullAll); });

  auto* push = sync->add_subcommand("push", "Send every record of this installation, as if new");
  onRun(push, action, [&options] { runSync(options, "sync push", &CloudService::pushAll); });

  auto watchFor = std::make_shared<std::optional<std::string>>();
  auto* watching = sync->add_subcommand("watch", "Stay connected and sync at each push, as a phone hears them");
  watching->add_option("--for", *watchFor, "Seconds to watch (until interrupted when left out)");
  onRun(
      watching, action,
      [watchFor]() -> std::optional<double> {
        if (!*watchFor) return std::nullopt;
        const double seconds = parseSeconds("--for", **watchFor);
        if (seconds <= 0) refuse("--for", **watchFor, "seconds, more than 0");
        return seconds;
      },
      [&options](std::optional<double> seconds) { watch(options, seconds); });

  auto* status = sync->add_subcommand("status", "The account, the sync state and the last sync");
  onRun(status, action, [&options] { printStatus(options); });

  auto* on = sync->add_subcommand("on", "Turn syncing on while the app runs: pull, then push everything");
  onRun(on, action, [&options] { switchSync(options, true); });
  auto* off = sync->add_subcommand("off", "Turn syncing off while the app runs");
  onRun(off, action, [&options] { switchSync(options, false); });

  auto type = std::make_shared<std::optional<std::string>>();
  auto* records = sync->add_subcommand("records", "This installation's synced records as the cloud would hold them");
  records->add_option("--type", *type, "Only records of this type (Device, Tag, Focus, Pickup, Walk)");
  onRun(records, action, [&options, type] { printSyncedRecords(options, *type); });

  auto* lifecycle = app.add_subcommand("lifecycle", "Play the app's going to the background and coming back");
  lifecycle->require_subcommand(1);

  auto* background = lifecycle->add_subcommand("background", "The app goes to the background");
  onRun(background, action, [&options] { enterBackground(options); });

  auto* foreground = lifecycle->add_subcommand("foreground", "The app comes back: pull, then push the stretch");
  onRun(foreground, action, [&options] { enterForeground(options); });
}

}  // namespace tarnwell::cli

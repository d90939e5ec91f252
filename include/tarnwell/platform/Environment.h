// Layers, bottom to top: [platform] → healthkit → cloudkit → widgets → settings → extensions → records → store → sync → health → analytics → charts → modules → automation.
//
// Environment: everything the outside world provides, in one replaceable place.
//
// One Environment is installed per process. It owns the folders of the
// installation, the clock, the main queue, the notification centre, the
// preference stores, the keychain, the facts about device and bundle, and the
// region. Every facade of the library reads them from here and nowhere else:
// nothing reads the system clock, the home folder or the locale directly.
//
// A host installs one at launch (Environment::install). A test installs a
// fresh one per case, with a manual clock, a pumped main queue and a temporary
// folder. Process-wide state of the facades (caches, once-computed values,
// timers, observers) lives in components of the Environment, so installing a
// new one resets all of it.

#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <typeindex>
#include <vector>

#include "tarnwell/platform/Clock.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Keychain.h"
#include "tarnwell/platform/NotificationCenter.h"
#include "tarnwell/platform/Region.h"
#include "tarnwell/platform/UserDefaults.h"

namespace tarnwell {

// What the platform tells about the device, as a phone's device object does.
struct DeviceInfo {
  std::string name;
  std::string systemName;
  std::string systemVersion;
  std::string model;
  std::string localizedModel;
  // Stable for this installation; absent when the platform cannot say.
  std::optional<std::string> identifierForVendor;
  // The major version of the phone platform whose behaviour the library
  // follows where that behaviour changed between versions (result blocks of
  // the cloud's operations, widget families, control reloads). A host plays
  // the newest the library knows; tests may play an older one.
  int platformVersion = kNewestPlatformVersion;

  static constexpr int kNewestPlatformVersion = 18;

  // This machine: host name, kernel name and release, hardware name. The
  // vendor identifier is kept in `identifierFile`, made on first use.
  static DeviceInfo host(const std::filesystem::path& identifierFile);
};

// What the app bundle tells about the build.
struct BundleInfo {
  std::string bundleIdentifier = "org.vostra.tarnwell";
  // "CFBundleShortVersionString", "CFBundleVersion", "CFBundleDisplayName", ...
  std::map<std::string, std::string> infoDictionary;
  std::map<std::string, std::string> localizedInfoDictionary;
  // Where a store receipt would be; absent outside a store install.
  std::optional<std::filesystem::path> appStoreReceiptURL;
  bool isDebugBuild = false;

  // This build of the library: version and build number from the project.
  static BundleInfo current();
};

class Environment {
 public:
  enum class MainQueueMode {
    // The host (or a test) runs the main queue with runPending()/runUntil().
    pumped,
    // The main queue runs on a thread of its own.
    ownThread,
  };

  struct Configuration {
    // The app-group container of "group.org.vostra.tarnwell".
    std::filesystem::path appGroupContainer;
    // The app's own folder: its Library, its standard preferences, its temporary files.
    std::filesystem::path privateFolder;
    // The keychain's file store; ignored when `keychain` is given.
    std::filesystem::path keychainFolder;
    std::shared_ptr<KeychainStore> keychain;
    // The system clock when absent.
    std::shared_ptr<Clock> clock;
    MainQueueMode mainQueueMode = MainQueueMode::pumped;
    // How the library's background queues (the health manager's, the health
    // store's) run: each on a thread of its own, as in an app, or pumped with
    // the main queue by its thread, as in tests and the command-line host,
    // where every asynchronous step then runs when the owner says so.
    DispatchQueue::Mode backgroundQueueMode = DispatchQueue::Mode::thread;
    // Where the installation's health store keeps its file; without one the
    // health store lives in memory.
    std::optional<std::filesystem::path> healthFolder;
    std::optional<Region> region;                 // Region::system() when absent
    std::vector<std::string> preferredLanguages;  // BCP 47 tags, most preferred first
    DeviceInfo device;
    BundleInfo bundle = BundleInfo::current();

    // The folders of one installation: "<installation>/group.org.vostra.tarnwell",
    // "<installation>/org.vostra.tarnwell" and "<installation>/HealthKit", with the keychain in
    // "$XDG_DATA_HOME/tarnwell/keychain" (outside, so that it survives a
    // reinstall). Without an installation folder, "$XDG_DATA_HOME/tarnwell/container".
    // The device, region and languages are this host's.
    static Configuration system(const std::optional<std::filesystem::path>& installation = std::nullopt);
  };

  static constexpr std::string_view kAppGroupIdentifier = "group.org.vostra.tarnwell";

  explicit Environment(Configuration configuration);
  ~Environment();

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  // The installed Environment. When none was installed, the system one is
  // installed on first use.
  static Environment& current();
  // The platform version the current Environment plays (DeviceInfo).
  static int platformVersion() { return current().device().platformVersion; }
  static Environment* currentIfInstalled();
  // Replaces the process's Environment; the previous one is destroyed first,
  // while it is still current, so its own threads end in a consistent world.
  static void install(std::unique_ptr<Environment> environment);
  // Counts installations, so that values computed under one can tell.
  static std::uint64_t generation();

  // The app-group container for `groupIdentifier`; nothing for any other group.
  std::optional<std::filesystem::path> containerURL(std::string_view groupIdentifier) const;
  const std::filesystem::path& appGroupContainer() const { return configuration_.appGroupContainer; }
  const std::filesystem::path& privateFolder() const { return configuration_.privateFolder; }
  // "<private>/tmp", created on demand.
  std::filesystem::path temporaryDirectory() const;
  // Where the file keychain keeps its items, if the keychain is the file store.
  std::optional<std::filesystem::path> keychainFolder() const;

  Clock& clock() const { return *clock_; }
  DispatchQueue& mainQueue() { return *mainQueue_; }
  bool isMainThread() const { return mainQueue_->isOwnedByCurrentThread(); }
  NotificationCenter& notificationCenter() { return notificationCenter_; }

  // A serial background queue of the library, run as `backgroundQueueMode`
  // says. A pumped one belongs to the main queue's thread.
  std::shared_ptr<DispatchQueue> makeQueue(std::string label);
  // A queue of its own thread whatever the configuration says, for a queue
  // that callers wait on with sync(); closed with the others.
  std::shared_ptr<DispatchQueue> makeThreadQueue(std::string label);
  // The main queue's thread only. Runs what is due on the main queue and on
  // every pumped background queue, over and over, until none of them has
  // anything due; returns how many blocks ran. Thread-backed queues go on by
  // themselves.
  std::size_t runPending();
  // runPending(), then lets the deadlines of the next `horizon` seconds come
  // (a manual clock is moved to each, the system clock is waited for) until
  // no pumped queue has anything due within the horizon: what a host does
  // before it answers, so that debounced work is done.
  std::size_t settle(double horizon);
  // settle(), and while an activity is under way the later deadlines too:
  // what a host does before it exits.
  std::size_t finish(double horizon);

  // Marks work the process owes although it is due later than a host's
  // horizon, such as a retry the cloud asked for in a minute. The activity
  // lasts as long as the returned token.
  [[nodiscard]] std::shared_ptr<void> beginActivity();
  std::size_t activityCount() const { return activities_->load(); }
  const std::optional<std::filesystem::path>& healthFolder() const { return configuration_.healthFolder; }

  // The app's own store, "<private>/Library/Preferences/<bundle id>.sqlite".
  UserDefaults& standardUserDefaults();
  // A shared store, "<container>/Library/Preferences/<suite>.sqlite". Nothing
  // when the suite cannot be opened (not the app group, or a file error).
  UserDefaults* userDefaults(std::string_view suiteName);

  KeychainStore& keychain() { return *keychain_; }
  const DeviceInfo& device() const { return configuration_.device; }
  const BundleInfo& bundle() const { return configuration_.bundle; }

  Region region() const;
  void setRegion(Region region);
  std::vector<std::string> preferredLanguages() const;

  // The component of type T, made on first use with T(Environment&) or T().
  // Components are destroyed with the Environment, last made first.
  template <class T>
  T& component();
  // Installs a component before first use, for tests that substitute one.
  template <class T>
  void setComponent(std::shared_ptr<T> component);

 private:
  std::size_t settle(double horizon, bool whileActive);
  std::shared_ptr<void>* findComponent(std::type_index type);
  void addComponent(std::type_index type, std::shared_ptr<void> component);

  Configuration configuration_;
  std::shared_ptr<Clock> clock_;
  std::unique_ptr<DispatchQueue> mainQueue_;
  NotificationCenter notificationCenter_;
  std::shared_ptr<KeychainStore> keychain_;
  // Shared with the tokens, which may outlive the Environment.
  std::shared_ptr<std::atomic<std::size_t>> activities_ = std::make_shared<std::atomic<std::size_t>>(0);

  mutable std::mutex mutex_;
  Region region_;
  std::unique_ptr<UserDefaults> standardUserDefaults_;
  std::map<std::string, std::unique_ptr<UserDefaults>, std::less<>> suites_;
  // Closed before the components go, so that no background block outlives what it reaches.
  std::vector<std::shared_ptr<DispatchQueue>> backgroundQueues_;

  std::recursive_mutex componentsMutex_;
  std::map<std::type_index, std::shared_ptr<void>> components_;
  std::vector<std::shared_ptr<void>> componentsInOrder_;
};

template <class T>
T& Environment::component() {
  std::lock_guard lock(componentsMutex_);
  if (auto* existing = findComponent(typeid(T))) return *static_cast<T*>(existing->get());
  std::shared_ptr<T> made;
  if constexpr (std::is_constructible_v<T, Environment&>) {
    made = std::make_shared<T>(*this);
  } else {
    made = std::make_shared<T>();
  }
  T& reference = *made;
  addComponent(typeid(T), std::move(made));
  return reference;
}

template <class T>
void Environment::setComponent(std::shared_ptr<T> component) {
  std::lock_guard lock(componentsMutex_);
  addComponent(typeid(T), std::move(component));
}

}  // namespace tarnwell

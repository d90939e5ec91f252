#include "tarnwell/platform/Environment.h"

#include <sys/utsname.h>
#include <unicode/locid.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <fstream>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Uuid.h"

#ifndef TARNWELL_VERSION
#define TARNWELL_VERSION "0.0.0"
#endif
#ifndef TARNWELL_BUILD
#define TARNWELL_BUILD "0"
#endif

namespace tarnwell {
namespace {

std::mutex installationMutex;
std::unique_ptr<Environment> installed;
std::atomic<Environment*> currentEnvironment{nullptr};
std::atomic<std::uint64_t> installations{0};

std::filesystem::path dataHome() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') return xdg;
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home && *home ? home : "/tmp") / ".local" / "share";
}

// "de_DE.UTF-8" or "zh_CN" as the platform's language tag: "de-DE", "zh-Hans-CN".
std::optional<std::string> languageTag(std::string posix) {
  posix = posix.substr(0, posix.find_first_of(".@"));
  if (posix.empty() || posix == "C" || posix == "POSIX") return std::nullopt;
  icu::Locale locale = icu::Locale::createCanonical(posix.c_str());
  if (locale.isBogus() || std::string_view(locale.getLanguage()).empty()) return std::nullopt;
  if (std::string_view(locale.getLanguage()) == "zh" && std::string_view(locale.getScript()).empty()) {
    UErrorCode status = U_ZERO_ERROR;
    locale.addLikelySubtags(status);
  }
  // Language, script and region only: variants such as POSIX are no language.
  std::string tag = locale.getLanguage();
  for (const char* part : {locale.getScript(), locale.getCountry()}) {
    if (*part) tag += std::string("-") + part;
  }
  return tag;
}

std::vector<std::string> hostPreferredLanguages() {
  std::vector<std::string> languages;
  auto add = [&languages](const std::string& posix) {
    if (auto tag = languageTag(posix); tag && std::find(languages.begin(), languages.end(), *tag) == languages.end()) {
      languages.push_back(*tag);
    }
  };
  if (const char* list = std::getenv("LANGUAGE"); list && *list) {
    std::string_view rest(list);
    while (!rest.empty()) {
      const auto colon = rest.find(':');
      add(std::string(rest.substr(0, colon)));
      rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    }
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const char* value = std::getenv(variable); value && *value) {
      add(value);
      break;
    }
  }
  return languages;
}

}  // namespace

DeviceInfo DeviceInfo::host(const std::filesystem::path& identifierFile) {
  DeviceInfo info;
  char hostname[256] = {};
  if (::gethostname(hostname, sizeof hostname - 1) == 0) info.name = hostname;
  struct utsname system {};
  if (::uname(&system) == 0) {
    info.systemName = system.sysname;
    info.systemVersion = system.release;
    info.model = system.machine;
    info.localizedModel = system.machine;
  }
  // Like a vendor identifier, it lives as long as the installation's own folder.
  tightenFile(identifierFile);
  std::ifstream in(identifierFile);
  std::string identifier;
  if (in >> identifier && isUpperCaseUUIDString(identifier)) {
    info.identifierForVendor = identifier;
    return info;
  }
  identifier = makeUUIDString();
  try {
    makePrivateFile(identifierFile);
  } catch (const std::filesystem::filesystem_error&) {
    return info;  // without a folder of its own, the device has no identifier
  }
  std::ofstream out(identifierFile, std::ios::trunc);
  if (out << identifier << '\n') info.identifierForVendor = identifier;
  return info;
}

BundleInfo BundleInfo::current() {
  BundleInfo info;
  info.infoDictionary = {
      {"CFBundleIdentifier", info.bundleIdentifier}, {"CFBundleName", "Tarnwell"},
      {"CFBundleDisplayName", "Tarnwell"},           {"CFBundleShortVersionString", TARNWELL_VERSION},
      {"CFBundleVersion", TARNWELL_BUILD},
  };
#ifndef NDEBUG
  info.isDebugBuild = true;
#endif
  return info;
}

Environment::Configuration Environment::Configuration::system(
    const std::optional<std::filesystem::path>& installation) {
  const auto base = dataHome() / "tarnwell";
  const auto folder = installation ? std::filesystem::absolute(*installation) : base / "container";
  Configuration configuration;
  configuration.appGroupContainer = folder / kAppGroupIdentifier;
  configuration.privateFolder = folder / configuration.bundle.bundleIdentifier;
  configuration.keychainFolder = base / "keychain";
  configuration.clock = std::make_shared<SystemClock>();
  configuration.preferredLanguages = hostPreferredLanguages();
  configuration.device = DeviceInfo::host(configuration.privateFolder / "Library" / "identifierForVendor");
  configuration.healthFolder = folder / "HealthKit";
  return configuration;
}

Environment::Environment(Configuration configuration)
    : configuration_(std::move(configuration)),
      clock_(configuration_.clock ? configuration_.clock : std::make_shared<SystemClock>()),
      mainQueue_(std::make_unique<DispatchQueue>("main-thread", *clock_,
                                                 configuration_.mainQueueMode == MainQueueMode::pumped
                                                     ? DispatchQueue::Mode::pumped
                                                     : DispatchQueue::Mode::thread)),
      keychain_(configuration_.keychain ? configuration_.keychain
                                        : std::make_shared<FileKeychainStore>(configuration_.keychainFolder)),
      region_(configuration_.region ? *configuration_.region : Region::system()) {
  // Folders an older version made open to others close again; the files in
  // them are tightened as they are opened.
  for (const auto& folder : {configuration_.appGroupContainer, configuration_.appGroupContainer / "Library",
                             configuration_.privateFolder, configuration_.privateFolder / "Library"}) {
    tightenFile(folder);
  }
  if (configuration_.healthFolder) tightenFile(*configuration_.healthFolder);
}

Environment::~Environment() {
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  {
    std::lock_guard lock(mutex_);
    queues = backgroundQueues_;
  }
  for (const auto& queue : queues) queue->close();
  std::vector<std::shared_ptr<void>> components;
  {
    std::lock_guard lock(componentsMutex_);
    components_.clear();
    components.swap(componentsInOrder_);
  }
  while (!components.empty()) components.pop_back();
}

std::shared_ptr<DispatchQueue> Environment::makeQueue(std::string label) {
  auto queue = configuration_.backgroundQueueMode == DispatchQueue::Mode::thread
                   ? std::make_shared<DispatchQueue>(std::move(label), *clock_)
                   : std::make_shared<DispatchQueue>(std::move(label), *clock_, mainQueue_->owner());
  std::lock_guard lock(mutex_);
  backgroundQueues_.push_back(queue);
  return queue;
}

std::shared_ptr<DispatchQueue> Environment::makeThreadQueue(std::string label) {
  auto queue = std::make_shared<DispatchQueue>(std::move(label), *clock_);
  std::lock_guard lock(mutex_);
  backgroundQueues_.push_back(queue);
  return queue;
}

std::size_t Environment::runPending() {
  std::size_t total = 0;
  for (;;) {
    std::vector<std::shared_ptr<DispatchQueue>> queues;
    {
      std::lock_guard lock(mutex_);
      for (const auto& queue : backgroundQueues_) {
        if (queue->mode() == DispatchQueue::Mode::pumped) queues.push_back(queue);
      }
    }
    std::size_t ran = mainQueue_->mode() == DispatchQueue::Mode::pumped ? mainQueue_->runPending() : 0;
    for (const auto& queue : queues) ran += queue->runPending();
    if (ran == 0) return total;
    total += ran;
  }
}

std::size_t Environment::settle(double horizon) { return settle(horizon, false); }

std::size_t Environment::finish(double horizon) { return settle(horizon, true); }

std::size_t Environment::settle(double horizon, bool whileActive) {
  std::size_t total = runPending();
  const Date limit = clock_->now() + horizon;
  for (;;) {
    std::optional<Date> next;
    auto consider = [&next](const DispatchQueue& queue) {
      const auto deadline = queue.nextDeadline();
      if (deadline && (!next || *deadline < *next)) next = deadline;
    };
    if (mainQueue_->mode() == DispatchQueue::Mode::pumped) consider(*mainQueue_);
    {
      std::lock_guard lock(mutex_);
      for (const auto& queue : backgroundQueues_) {
        if (queue->mode() == DispatchQueue::Mode::pumped) consider(*queue);
      }
    }
    if (!next || (*next > limit && !(whileActive && activityCount() > 0))) return total;
    if (auto* manual = dynamic_cast<ManualClock*>(clock_.get())) {
      if (*next > manual->now()) manual->set(*next);
    } else {
      std::mutex mutex;
      std::condition_variable condition;
      std::unique_lock lock(mutex);
      while (clock_->now() < *next) clock_->wait(lock, condition, *next);
    }
    total += runPending();
  }
}

std::shared_ptr<void> Environment::beginActivity() {
  ++*activities_;
  return std::shared_ptr<void>(nullptr, [activities = activities_](void*) { --*activities; });
}

Environment& Environment::current() {
  if (Environment* environment = currentEnvironment.load(std::memory_order_acquire)) return *environment;
  std::lock_guard lock(installationMutex);
  if (!installed) {
    installed = std::make_unique<Environment>(Configuration::system());
    currentEnvironment.store(installed.get(), std::memory_order_release);
    ++installations;
  }
  return *installed;
}

Environment* Environment::currentIfInstalled() { return currentEnvironment.load(std::memory_order_acquire); }

void Environment::install(std::unique_ptr<Environment> environment) {
  std::lock_guard lock(installationMutex);
  installed.reset();
  currentEnvironment.store(environment.get(), std::memory_order_release);
  installed = std::move(environment);
  ++installations;
}

std::uint64_t Environment::generation() { return installations.load(); }

std::optional<std::filesystem::path> Environment::containerURL(std::string_view groupIdentifier) const {
  if (groupIdentifier != kAppGroupIdentifier) return std::nullopt;
  std::error_code error;
  makePrivateFolder(configuration_.appGroupContainer, error);
  if (error) return std::nullopt;
  return configuration_.appGroupContainer;
}

std::filesystem::path Environment::temporaryDirectory() const {
  const auto folder = configuration_.privateFolder / "tmp";
  std::error_code error;
  makePrivateFolder(folder, error);
  return folder;
}

std::optional<std::filesystem::path> Environment::keychainFolder() const {
  if (const auto* file = dynamic_cast<const FileKeychainStore*>(keychain_.get())) return file->folder();
  return std::nullopt;
}

UserDefaults& Environment::standardUserDefaults() {
  std::lock_guard lock(mutex_);
  if (!standardUserDefaults_) {
    const auto file =
        configuration_.privateFolder / "Library" / "Preferences" / (configuration_.bundle.bundleIdentifier + ".sqlite");
    try {
      standardUserDefaults_ = std::make_unique<UserDefaults>(file);
    } catch (const std::exception& error) {
      fatalError(std::string("The standard preferences cannot be opened: ") + error.what());
    }
  }
  return *standardUserDefaults_;
}

UserDefaults* Environment::userDefaults(std::string_view suiteName) {
  if (suiteName.empty()) return nullptr;
  std::lock_guard lock(mutex_);
  if (auto found = suites_.find(suiteName); found != suites_.end()) return found->second.get();
  const auto& folder =
      suiteName == kAppGroupIdentifier ? configuration_.appGroupContainer : configuration_.privateFolder;
  try {
    auto store =
        std::make_unique<UserDefaults>(folder / "Library" / "Preferences" / (std::string(suiteName) + ".sqlite"));
    return suites_.emplace(std::string(suiteName), std::move(store)).first->second.get();
  } catch (const std::exception&) {
    return nullptr;
  }
}

Region Environment::region() const {
  std::lock_guard lock(mutex_);
  return region_;
}

void Environment::setRegion(Region region) {
  std::lock_guard lock(mutex_);
  region_ = std::move(region);
}

std::vector<std::string> Environment::preferredLanguages() const {
  if (!configuration_.preferredLanguages.empty()) return configuration_.preferredLanguages;
  if (auto tag = languageTag(region().localeId())) return {*tag};
  return {};
}

std::shared_ptr<void>* Environment::findComponent(std::type_index type) {
  const auto found = components_.find(type);
  return found == components_.end() ? nullptr : &found->second;
}

void Environment::addComponent(std::type_index type, std::shared_ptr<void> component) {
  componentsInOrder_.push_back(component);
  components_[type] = std::move(component);
}

}  // namespace tarnwell

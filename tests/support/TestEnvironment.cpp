#include "support/TestEnvironment.h"

#include <cstdlib>

namespace tarnwell::testing {

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarnwell-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

TestEnvironment::TestEnvironment(TestEnvironmentOptions options)
    : options_(std::move(options)), clock_(std::make_shared<ManualClock>(options_.now)) {
  Environment::install(std::make_unique<Environment>(configuration()));
}

TestEnvironment::~TestEnvironment() { Environment::install(nullptr); }

Environment::Configuration TestEnvironment::configuration() const {
  Environment::Configuration configuration;
  configuration.appGroupContainer = root() / "installation" / Environment::kAppGroupIdentifier;
  configuration.privateFolder = root() / "installation" / "org.vostra.tarnwell";
  configuration.keychainFolder = root() / "keychain";
  configuration.clock = clock_;
  configuration.mainQueueMode = Environment::MainQueueMode::pumped;
  configuration.backgroundQueueMode = DispatchQueue::Mode::pumped;
  configuration.region = Region(options_.timeZone, options_.locale);
  configuration.preferredLanguages = {"en-US"};
  configuration.device =
      DeviceInfo{"Test Device", "Linux", "6.1", "x86_64", "x86_64", "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B"};
  configuration.bundle.isDebugBuild = options_.isDebugBuild;
  return configuration;
}

void TestEnvironment::relaunch() {
  Environment::install(nullptr);
  Environment::install(std::make_unique<Environment>(configuration()));
}

std::size_t TestEnvironment::pump() { return environment().runPending(); }

std::size_t TestEnvironment::advance(double seconds) {
  const Date end = clock_->now() + seconds;
  std::size_t count = environment().settle(seconds);
  if (clock_->now() < end) clock_->set(end);
  return count + environment().runPending();
}

}  // namespace tarnwell::testing

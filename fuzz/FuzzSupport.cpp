#include "FuzzSupport.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "tarnwell/platform/Clock.h"

namespace tarnwell::fuzzing {
namespace {

std::filesystem::path& folder() {
  static std::filesystem::path path;
  return path;
}

void removeFolder() {
  Environment::install(nullptr);
  std::error_code error;
  if (!folder().empty()) std::filesystem::remove_all(folder(), error);
}

}  // namespace

Environment& environment() {
  static const bool installed = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarnwell-fuzz-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    folder() = pattern;
    Environment::Configuration configuration;
    configuration.appGroupContainer = folder() / "installation" / Environment::kAppGroupIdentifier;
    configuration.privateFolder = folder() / "installation" / "org.vostra.tarnwell";
    configuration.keychainFolder = folder() / "keychain";
    // 2026-11-22T10:00:00Z, as the tests have it.
    configuration.clock = std::make_shared<ManualClock>(Date::fromTimeIntervalSince1970(1795341600.0));
    configuration.mainQueueMode = Environment::MainQueueMode::pumped;
    configuration.backgroundQueueMode = DispatchQueue::Mode::pumped;
    configuration.region = Region("UTC", "en_US");
    configuration.preferredLanguages = {"en-US"};
    configuration.device =
        DeviceInfo{"Fuzz Device", "Linux", "6.1", "x86_64", "x86_64", "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B"};
    Environment::install(std::make_unique<Environment>(configuration));
    std::atexit(removeFolder);
    return true;
  }();
  (void)installed;
  return Environment::current();
}

std::uint8_t Input::byte() {
  if (rest_.empty()) return 0;
  const auto value = static_cast<std::uint8_t>(rest_.front());
  rest_.remove_prefix(1);
  return value;
}

std::uint64_t Input::integer() {
  std::uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = (value << 8) | byte();
  return value;
}

double Input::number() {
  const std::uint64_t bits = integer();
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::string Input::text(std::size_t limit) {
  const std::size_t count = std::min<std::size_t>({byte(), limit, rest_.size()});
  std::string value(rest_.substr(0, count));
  rest_.remove_prefix(count);
  return value;
}

std::string Input::rest() {
  std::string value(rest_);
  rest_ = {};
  return value;
}

}  // namespace tarnwell::fuzzing

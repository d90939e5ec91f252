// A throwaway installation for one benchmark, like the tests' but without GoogleTest.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "tarnwell/platform/Environment.h"

namespace tarnwell::bench {

class BenchEnvironment {
 public:
  BenchEnvironment() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarnwell-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    root_ = pattern;
    Environment::Configuration configuration;
    configuration.appGroupContainer = root_ / Environment::kAppGroupIdentifier;
    configuration.privateFolder = root_ / "org.vostra.tarnwell";
    configuration.keychainFolder = root_ / "keychain";
    configuration.clock = std::make_shared<ManualClock>(Date::fromTimeIntervalSince1970(1795341600.0));
    configuration.region = Region("UTC", "en_US");
    configuration.device.identifierForVendor = "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B";
    Environment::install(std::make_unique<Environment>(std::move(configuration)));
  }
  ~BenchEnvironment() {
    Environment::install(nullptr);
    std::filesystem::remove_all(root_);
  }
  BenchEnvironment(const BenchEnvironment&) = delete;
  BenchEnvironment& operator=(const BenchEnvironment&) = delete;

  const std::filesystem::path& root() const { return root_; }

 private:
  std::filesystem::path root_;
};

}  // namespace tarnwell::bench

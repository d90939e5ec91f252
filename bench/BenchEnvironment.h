// A throwaway installation for one benchmark, like the tests' but without GoogleTest.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell::bench {

// A new temporary folder; the caller removes it.
inline std::filesystem::path makeTemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarnwell-bench-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) std::abort();
  return pattern;
}

// An installation in `root` at a fixed instant, in UTC and en_US.
inline Environment::Configuration configurationIn(const std::filesystem::path& root,
                                                  Date now = Date::fromTimeIntervalSince1970(1795341600.0)) {
  Environment::Configuration configuration;
  configuration.appGroupContainer = root / Environment::kAppGroupIdentifier;
  configuration.privateFolder = root / "org.vostra.tarnwell";
  configuration.keychainFolder = root / "keychain";
  configuration.clock = std::make_shared<ManualClock>(now);
  configuration.region = Region("UTC", "en_US");
  configuration.device.identifierForVendor = "6D1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B";
  return configuration;
}

// A started store filled by `fill` the first time `name` is asked for in the
// process, installed anew for each benchmark that uses it. Filling a store of
// years takes far longer than any one measurement, so it is done once.
class FilledStore {
 public:
  FilledStore(const std::string& name, Date now, const std::function<void()>& fill) {
    static std::map<std::string, std::filesystem::path> roots;
    auto found = roots.find(name);
    if (found == roots.end()) {
      found = roots.emplace(name, makeTemporaryFolder()).first;
      static std::vector<std::filesystem::path>* made = new std::vector<std::filesystem::path>;
      made->push_back(found->second);
      if (made->size() == 1) {
        std::atexit([] {
          for (const auto& root : *made) std::filesystem::remove_all(root);
        });
      }
      Environment::install(std::make_unique<Environment>(configurationIn(found->second, now)));
      Database::start();
      fill();
      Environment::install(nullptr);
    }
    Environment::install(std::make_unique<Environment>(configurationIn(found->second, now)));
    Database::start();
  }
  ~FilledStore() { Environment::install(nullptr); }
  FilledStore(const FilledStore&) = delete;
  FilledStore& operator=(const FilledStore&) = delete;
};

class BenchEnvironment {
 public:
  BenchEnvironment() : root_(makeTemporaryFolder()) {
    Environment::install(std::make_unique<Environment>(configurationIn(root_)));
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

// A fresh, deterministic Environment for one test.
//
// Everything lives in a new temporary folder that is removed afterwards: the
// installation, the keychain, the XDG data home. The clock is manual and
// starts at 2026-11-22 10:00:00 UTC, the main queue and the library's
// background queues are pumped by the test, and the zone and locale are fixed
// (UTC, en_US unless given).

#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tarnwell/platform/Clock.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell::testing {

// 2026-11-22T10:00:00Z.
inline Date defaultTestNow() { return Date::fromTimeIntervalSince1970(1795341600.0); }

// A temporary folder, removed with the object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct TestEnvironmentOptions {
  std::string timeZone = "UTC";
  std::string locale = "en_US";
  Date now = defaultTestNow();
  bool isDebugBuild = false;
};

class TestEnvironment {
 public:
  explicit TestEnvironment(TestEnvironmentOptions options = {});
  ~TestEnvironment();

  Environment& environment() { return Environment::current(); }
  ManualClock& clock() { return *clock_; }
  const std::filesystem::path& root() const { return folder_.path(); }

  // A configuration over the same folders, as another process of the same
  // installation would see them (for a second Environment).
  Environment::Configuration configuration() const;
  // Replaces the installed Environment by a new one over the same folders:
  // what a relaunch of the app would find.
  void relaunch();

  // Runs what is due now on the main queue and the background queues.
  std::size_t pump();
  // Moves the clock forward, running the queues' work at each deadline.
  std::size_t advance(double seconds);

 private:
  TemporaryFolder folder_;
  TestEnvironmentOptions options_;
  std::shared_ptr<ManualClock> clock_;
};

// A fixture with a fresh TestEnvironment per case.
class EnvironmentTest : public ::testing::Test {
 protected:
  TestEnvironment env;
};

}  // namespace tarnwell::testing

// AppEnvironment: which kind of build is running.

#pragma once

#include <string_view>

namespace tarnwell {

class AppEnvironment {
 public:
  enum Value { debug, testflight, release };

  AppEnvironment() = delete;

  // Decided once per Environment: a debug build is `debug`; otherwise a store
  // receipt named "sandboxReceipt" means a beta (`testflight`); anything
  // else is `release`.
  static Value current();
  static bool isTestFlight() { return current() == testflight; }
  static bool isTestFlightOrDebug() { return current() != release; }

  static std::string_view name(Value value);
};

}  // namespace tarnwell

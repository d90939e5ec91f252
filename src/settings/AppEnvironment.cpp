#include "tarnwell/settings/AppEnvironment.h"

#include <optional>

#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace {

struct DecidedAppEnvironment {
  explicit DecidedAppEnvironment(Environment& environment) {
    const BundleInfo& bundle = environment.bundle();
    if (bundle.isDebugBuild) {
      value = AppEnvironment::debug;
    } else if (bundle.appStoreReceiptURL && bundle.appStoreReceiptURL->filename() == "sandboxReceipt") {
      value = AppEnvironment::testflight;
    } else {
      value = AppEnvironment::release;
    }
  }
  AppEnvironment::Value value;
};

}  // namespace

AppEnvironment::Value AppEnvironment::current() {
  return Environment::current().component<DecidedAppEnvironment>().value;
}

std::string_view AppEnvironment::name(Value value) {
  switch (value) {
    case debug:
      return "debug";
    case testflight:
      return "testflight";
    case release:
      return "release";
  }
  return "release";
}

}  // namespace tarnwell

#include "tarnwell/healthkit/HealthStore.h"

#include "tarnwell/healthkit/MemoryHealthStore.h"
#include "tarnwell/healthkit/SqliteHealthStore.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace {

// The store as a component of the Environment, so that a new Environment
// (a test's, a relaunch's) comes with a store of its own.
struct InstalledHealthStore {
  explicit InstalledHealthStore(Environment& environment)
      : store(environment.healthFolder()
                  ? std::shared_ptr<HKHealthStore>(std::make_shared<SqliteHealthStore>(*environment.healthFolder()))
                  : std::shared_ptr<HKHealthStore>(std::make_shared<MemoryHealthStore>())) {}
  explicit InstalledHealthStore(std::shared_ptr<HKHealthStore> given) : store(std::move(given)) {}

  std::shared_ptr<HKHealthStore> store;
};

}  // namespace

HKHealthStore& HKHealthStore::installed() { return *installedPointer(); }

std::shared_ptr<HKHealthStore> HKHealthStore::installedPointer() {
  return Environment::current().component<InstalledHealthStore>().store;
}

void HKHealthStore::install(std::shared_ptr<HKHealthStore> store) {
  Environment::current().setComponent(std::make_shared<InstalledHealthStore>(std::move(store)));
}

}  // namespace tarnwell

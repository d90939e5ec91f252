#include "tarnwell/cloudkit/Container.h"

#include <mutex>

#include "cloudkit/OperationFailure.h"
#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace {

std::exception_ptr notAuthenticated() { return std::make_exception_ptr(CKError(CKErrorCode::notAuthenticated)); }

// What a device without an account has: a container that answers, later
// and on its own queue, that nothing can be done.
class SignedOutDatabase final : public CKDatabase {
 public:
  SignedOutDatabase(std::shared_ptr<DispatchQueue> queue, CKDatabaseScope scope)
      : queue_(std::move(queue)), scope_(scope) {}

  CKDatabaseScope databaseScope() const override { return scope_; }
  void add(std::shared_ptr<CKOperation> operation) override {
    if (!operation) return;
    queue_->async([operation] { cloudkit::failOperation(*operation, notAuthenticated()); });
  }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  CKDatabaseScope scope_;
};

class SignedOutContainer final : public CKContainer {
 public:
  explicit SignedOutContainer(Environment& environment)
      : identifier_("iCloud." + environment.bundle().bundleIdentifier),
        queue_(environment.makeQueue("CloudKit.signedOut")),
        private_(queue_, CKDatabaseScope::privateScope),
        public_(queue_, CKDatabaseScope::publicScope) {}

  const std::string& containerIdentifier() const override { return identifier_; }
  CKDatabase& privateCloudDatabase() override { return private_; }
  CKDatabase& publicCloudDatabase() override { return public_; }

  void accountStatus(AccountStatusCompletion completion) override {
    queue_->async([completion = std::move(completion)] { completion(CKAccountStatus::noAccount, nullptr); });
  }
  void fetchAllLongLivedOperationIDs(
      std::function<void(std::optional<std::vector<std::string>>, std::exception_ptr)> completion) override {
    queue_->async([completion = std::move(completion)] { completion(std::nullopt, notAuthenticated()); });
  }
  void fetchLongLivedOperation(
      const std::string&, std::function<void(std::shared_ptr<CKOperation>, std::exception_ptr)> completion) override {
    queue_->async([completion = std::move(completion)] { completion(nullptr, notAuthenticated()); });
  }
  void add(std::shared_ptr<CKOperation> operation) override { private_.add(std::move(operation)); }
  // No push ever comes without an account.
  void setRemoteNotificationHandler(std::function<void(const nlohmann::json&)>) override {}

 private:
  std::string identifier_;
  std::shared_ptr<DispatchQueue> queue_;
  SignedOutDatabase private_;
  SignedOutDatabase public_;
};

// The container as a component of the Environment, so that a new
// Environment (a test's, a relaunch's) starts without the last one's.
struct InstalledContainer {
  explicit InstalledContainer(Environment& environment)
      : container(std::make_shared<SignedOutContainer>(environment)) {}
  explicit InstalledContainer(std::shared_ptr<CKContainer> given) : container(std::move(given)) {}

  std::shared_ptr<CKContainer> container;
};

}  // namespace

CKDatabase& CKContainer::database(CKDatabaseScope scope) {
  switch (scope) {
    case CKDatabaseScope::privateScope:
      return privateCloudDatabase();
    case CKDatabaseScope::publicScope:
      return publicCloudDatabase();
    case CKDatabaseScope::sharedScope:
      break;
  }
  throw CKError(CKErrorCode::badDatabase, "This container has no shared database");
}

CKContainer& CKContainer::installed() { return *installedPointer(); }

std::shared_ptr<CKContainer> CKContainer::installedPointer() {
  return Environment::current().component<InstalledContainer>().container;
}

void CKContainer::install(std::shared_ptr<CKContainer> container) {
  Environment::current().setComponent(std::make_shared<InstalledContainer>(std::move(container)));
}

}  // namespace tarnwell

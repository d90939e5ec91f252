// Layers, bottom to top: platform → healthkit → [cloudkit] → widgets → settings → extensions → records → store → sync → health → analytics → charts → modules → automation.
//
// CKContainer and CKDatabase: the port to the user's cloud database.
//
// A container is one application's space in the user's cloud: a private
// database only this user reaches and a public one every user of the
// application reads. A database runs the operations added to it
// (Operations.h) and calls their blocks on a queue of its own. The account
// the device is signed in with decides whether anything works at all.
//
// A host installs the platform's container. On this machine the cloud is an
// emulator (CloudEmulator.h) with the platform's semantics: in memory for
// tests, or a folder that the installations of one user share.

#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/cloudkit/Operations.h"
#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/cloudkit/Subscriptions.h"

namespace tarnwell {

// Posted on the default notification centre when the device's account changes.
inline constexpr std::string_view CKAccountChangedNotification = "CKAccountChangedNotification";

class CKDatabase {
 public:
  virtual ~CKDatabase() = default;

  virtual CKDatabaseScope databaseScope() const = 0;
  // Runs the operation; its blocks are called later, on the cloud's queue.
  virtual void add(std::shared_ptr<CKOperation> operation) = 0;
};

class CKContainer {
 public:
  using AccountStatusCompletion = std::function<void(CKAccountStatus status, std::exception_ptr error)>;

  virtual ~CKContainer() = default;

  virtual const std::string& containerIdentifier() const = 0;
  virtual CKDatabase& privateCloudDatabase() = 0;
  virtual CKDatabase& publicCloudDatabase() = 0;
  virtual CKDatabase& database(CKDatabaseScope scope);

  virtual void accountStatus(AccountStatusCompletion completion) = 0;

  // The long-lived operations this device added whose completion it has not
  // had yet, by id; and one of them, rebuilt, not finished, to add again.
  virtual void fetchAllLongLivedOperationIDs(
      std::function<void(std::optional<std::vector<std::string>> ids, std::exception_ptr error)> completion) = 0;
  virtual void fetchLongLivedOperation(
      const std::string& operationID,
      std::function<void(std::shared_ptr<CKOperation> operation, std::exception_ptr error)> completion) = 0;
  // Runs a database operation on the private database, as older platforms
  // let a container do.
  virtual void add(std::shared_ptr<CKOperation> operation) = 0;

  // Where the silent pushes of this device's subscriptions go: the host's
  // remote-notification entry point. Pushes that came while none was set
  // wait for one.
  virtual void setRemoteNotificationHandler(std::function<void(const nlohmann::json& userInfo)> handler) = 0;

  // The container of the installed Environment; without one installed, a
  // container whose account is absent (noAccount), which runs nothing.
  static CKContainer& installed();
  static std::shared_ptr<CKContainer> installedPointer();
  static void install(std::shared_ptr<CKContainer> container);
};

}  // namespace tarnwell

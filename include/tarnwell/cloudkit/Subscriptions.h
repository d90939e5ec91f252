// Subscriptions and the notifications they bring.
//
// A subscription asks the cloud to tell this device when something changes:
// a database subscription for any change in the database, a query
// subscription for records of one type. The cloud tells by a silent push
// (content-available, no alert) whose user information names the
// subscription; CKNotification reads it back.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>

#include "tarnwell/cloudkit/Records.h"

namespace tarnwell {

struct CKNotificationInfo {
  // A silent push that wakes the application to fetch.
  bool shouldSendContentAvailable = false;

  friend bool operator==(const CKNotificationInfo&, const CKNotificationInfo&) = default;
};

struct CKDatabaseSubscription {
  std::string subscriptionID;
  CKNotificationInfo notificationInfo;

  friend bool operator==(const CKDatabaseSubscription&, const CKDatabaseSubscription&) = default;
};

// Fires on creation (1), update (2) and deletion (4) of records of
// `recordType`, as `options` says; the predicate is always true here.
struct CKQuerySubscription {
  enum Options : std::int64_t { firesOnRecordCreation = 1, firesOnRecordUpdate = 2, firesOnRecordDeletion = 4 };

  std::string recordType;
  std::string subscriptionID;
  std::int64_t options = 0;
  CKNotificationInfo notificationInfo;

  friend bool operator==(const CKQuerySubscription&, const CKQuerySubscription&) = default;
};

using CKSubscription = std::variant<CKDatabaseSubscription, CKQuerySubscription>;

const std::string& subscriptionID(const CKSubscription& subscription);

// A push's user information read as a cloud notification.
//
// The user information of a cloud push is
//   {"aps": {"content-available": 1},
//    "ck": {"ce": 2, "nid": "<uuid>", "sid": "<subscription>", "met": {"dbs": <scope>}}}
// ("met" for a database notification, "qry" with "rid" and "fo" for a query one).
class CKNotification {
 public:
  enum class Type { query = 1, recordZone = 2, readNotification = 3, database = 4 };

  // Nothing when the dictionary is not a cloud push.
  static std::optional<CKNotification> fromRemoteNotificationDictionary(const nlohmann::json& userInfo);

  // The user information of a push for `subscriptionID` of this type.
  static nlohmann::json userInfo(Type type, const std::string& subscriptionID, CKDatabaseScope scope,
                                 const std::string& notificationID);

  Type notificationType() const { return type_; }
  const std::optional<std::string>& subscriptionID() const { return subscriptionID_; }
  const std::string& notificationID() const { return notificationID_; }
  std::optional<CKDatabaseScope> databaseScope() const { return scope_; }

 private:
  Type type_ = Type::database;
  std::optional<std::string> subscriptionID_;
  std::string notificationID_;
  std::optional<CKDatabaseScope> scope_;
};

}  // namespace tarnwell

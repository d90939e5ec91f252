#include "tarnwell/cloudkit/Subscriptions.h"

namespace tarnwell {
namespace {

// The body key of each kind of notification under "ck".
constexpr std::string_view kQueryKey = "qry";
constexpr std::string_view kRecordZoneKey = "fet";
constexpr std::string_view kDatabaseKey = "met";

std::optional<CKDatabaseScope> scopeFromRaw(const nlohmann::json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  const auto raw = value.get<std::int64_t>();
  for (const auto scope : {CKDatabaseScope::publicScope, CKDatabaseScope::privateScope, CKDatabaseScope::sharedScope}) {
    if (static_cast<std::int64_t>(scope) == raw) return scope;
  }
  return std::nullopt;
}

}  // namespace

const std::string& subscriptionID(const CKSubscription& subscription) {
  return std::visit([](const auto& each) -> const std::string& { return each.subscriptionID; }, subscription);
}

std::optional<CKNotification> CKNotification::fromRemoteNotificationDictionary(const nlohmann::json& userInfo) {
  if (!userInfo.is_object()) return std::nullopt;
  const auto ck = userInfo.find("ck");
  if (ck == userInfo.end() || !ck->is_object()) return std::nullopt;

  CKNotification notification;
  const nlohmann::json* body = nullptr;
  for (const auto& [key, type] : {std::pair{kQueryKey, Type::query}, std::pair{kRecordZoneKey, Type::recordZone},
                                  std::pair{kDatabaseKey, Type::database}}) {
    const auto found = ck->find(key);
    if (found != ck->end() && found->is_object()) {
      notification.type_ = type;
      body = &*found;
      break;
    }
  }
  // A cloud push without a body of a kind named here is taken as a read notification.
  if (!body) notification.type_ = Type::readNotification;

  if (const auto sid = ck->find("sid"); sid != ck->end() && sid->is_string()) {
    notification.subscriptionID_ = sid->get<std::string>();
  }
  if (const auto nid = ck->find("nid"); nid != ck->end() && nid->is_string()) {
    notification.notificationID_ = nid->get<std::string>();
  }
  if (body) {
    if (const auto dbs = body->find("dbs"); dbs != body->end()) notification.scope_ = scopeFromRaw(*dbs);
  }
  return notification;
}

nlohmann::json CKNotification::userInfo(Type type, const std::string& subscriptionID, CKDatabaseScope scope,
                                        const std::string& notificationID) {
  nlohmann::json ck = {{"ce", 2}, {"nid", notificationID}, {"sid", subscriptionID}};
  const nlohmann::json body = {{"dbs", static_cast<std::int64_t>(scope)}};
  switch (type) {
    case Type::query:
      ck[std::string(kQueryKey)] = body;
      break;
    case Type::recordZone:
      ck[std::string(kRecordZoneKey)] = body;
      break;
    case Type::database:
      ck[std::string(kDatabaseKey)] = body;
      break;
    case Type::readNotification:
      break;
  }
  return {{"aps", {{"content-available", 1}}}, {"ck", std::move(ck)}};
}

}  // namespace tarnwell

#include "tarnwell/cloudkit/Records.h"

#include <gtest/gtest.h>

#include "cloudkit/CloudCoding.h"
#include "support/TestEnvironment.h"
#include "tarnwell/cloudkit/Container.h"
#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/cloudkit/Subscriptions.h"

namespace tarnwell {
namespace {

TEST(CKRecordTest, AKeySetToNoValueIsChangedButHasNoValue) {
  CKRecord record("Tag", CKRecordID{"work", CKRecordZoneID{"TagsZone"}});
  record.setObject("title", std::string("Work"));
  record.setObject("archived", std::nullopt);
  record.setObject("title", std::string("Office"));
  EXPECT_EQ(record.allKeys(), std::vector<std::string>{"title"});
  EXPECT_EQ(record.changedKeys(), (std::vector<std::string>{"archived", "title"}));
  EXPECT_EQ(record.object("archived"), nullptr);
  EXPECT_EQ(record.object("missing"), nullptr);
  EXPECT_EQ(record.recordID().description(), "work:(TagsZone:__defaultOwner__)");

  auto fetched = CKRecord::fromServer("Tag", record.recordID(), {{"title", std::string("Work")}}, "1a", Date(), Date());
  EXPECT_TRUE(fetched.changedKeys().empty());
  fetched.setObject("title", std::nullopt);
  EXPECT_EQ(fetched.changedKeys(), std::vector<std::string>{"title"});
  EXPECT_TRUE(fetched.allKeys().empty());
}

TEST(CKServerChangeTokenTest, OnlyAnArchivedTokenUnarchives) {
  const CKServerChangeToken token(std::string("opaque\0bytes", 12));
  EXPECT_EQ(CKServerChangeToken::unarchived(token.archived()), token);
  EXPECT_FALSE(CKServerChangeToken::unarchived(Data{'4', '2'}));
  EXPECT_FALSE(CKServerChangeToken::unarchived(Data{}));
}

TEST(CKErrorTest, CodesByNameOrNumberAndTheDebugForm) {
  EXPECT_EQ(errorCodeNamed("zoneBusy"), CKErrorCode::zoneBusy);
  EXPECT_EQ(errorCodeNamed("27"), CKErrorCode::limitExceeded);
  EXPECT_EQ(errorCodeNamed("99"), static_cast<CKErrorCode>(99));
  EXPECT_FALSE(errorCodeNamed("4a"));
  EXPECT_FALSE(errorCodeNamed(""));
  EXPECT_FALSE(name(static_cast<CKErrorCode>(99)));

  EXPECT_EQ(CKError(CKErrorCode::zoneBusy).withRetryAfter(2.5).debugDescription(),
            "<CKError 0x0: \"Zone Busy\" (23); Retry after 2.5>");
  EXPECT_EQ(CKError(99, "").localizedDescription(), "Error 99");
  EXPECT_EQ(accountStatusNamed("temporarilyUnavailable"), CKAccountStatus::temporarilyUnavailable);
  EXPECT_FALSE(accountStatusNamed("signedOut"));
}

TEST(CKNotificationTest, ACloudPushReadsBackAsTheNotificationItWasMadeFor) {
  const auto info =
      CKNotification::userInfo(CKNotification::Type::database, "private_changes", CKDatabaseScope::privateScope, "N1");
  EXPECT_EQ(info["aps"]["content-available"], 1);
  const auto notification = CKNotification::fromRemoteNotificationDictionary(info);
  ASSERT_TRUE(notification);
  EXPECT_EQ(notification->notificationType(), CKNotification::Type::database);
  EXPECT_EQ(notification->subscriptionID(), "private_changes");
  EXPECT_EQ(notification->notificationID(), "N1");
  EXPECT_EQ(notification->databaseScope(), CKDatabaseScope::privateScope);

  const auto query = CKNotification::fromRemoteNotificationDictionary(
      CKNotification::userInfo(CKNotification::Type::query, "tags", CKDatabaseScope::publicScope, "N2"));
  EXPECT_EQ(query->notificationType(), CKNotification::Type::query);
  EXPECT_EQ(query->databaseScope(), CKDatabaseScope::publicScope);

  EXPECT_FALSE(CKNotification::fromRemoteNotificationDictionary({{"aps", {{"alert", "Hi"}}}}));
  EXPECT_FALSE(CKNotification::fromRemoteNotificationDictionary({{"ck", "text"}}));
  EXPECT_FALSE(CKNotification::fromRemoteNotificationDictionary({{"ck", {{"met", {}}}}})->subscriptionID());
  EXPECT_EQ(subscriptionID(CKQuerySubscription{"Tag", "tags", 7, {true}}), "tags");
}

class InstalledContainerTest : public testing::EnvironmentTest {};

TEST_F(InstalledContainerTest, WithoutAnInstalledCloudNothingRunsAndEverythingSaysSo) {
  CKContainer& container = CKContainer::installed();
  EXPECT_EQ(&container, CKContainer::installedPointer().get());
  EXPECT_THROW(container.database(CKDatabaseScope::sharedScope), CKError);
  EXPECT_EQ(container.database(CKDatabaseScope::publicScope).databaseScope(), CKDatabaseScope::publicScope);

  std::optional<CKAccountStatus> status;
  container.accountStatus([&](CKAccountStatus each, std::exception_ptr) { status = each; });
  std::exception_ptr error;
  std::map<CKRecordZoneID, CKFetchRecordZoneChangesConfiguration> configurations;
  auto fetch = std::make_shared<CKFetchRecordZoneChangesOperation>(
      std::vector{CKRecordZoneID{"A"}, CKRecordZoneID{"B"}}, configurations);
  int zoneErrors = 0;
  fetch->recordZoneFetchCompletionBlock = [&](auto&, auto, auto, bool, std::exception_ptr each) {
    zoneErrors += each != nullptr;
  };
  fetch->fetchRecordZoneChangesCompletionBlock = [&](std::exception_ptr each) { error = each; };
  container.add(fetch);
  EXPECT_FALSE(status);
  EXPECT_FALSE(error);
  env.pump();
  EXPECT_EQ(status, CKAccountStatus::noAccount);
  EXPECT_EQ(zoneErrors, 2);
  ASSERT_TRUE(error);
  try {
    std::rethrow_exception(error);
  } catch (const CKError& failure) {
    EXPECT_EQ(failure.code(), 9);
  }
  EXPECT_TRUE(fetch->isFinished());
}

// Stored bytes that count more elements than they hold are damaged: refused
// before anything is made for the count, not an allocation the process dies of.
TEST(CloudCodingTest, CountsTheBytesCannotHoldAreRefusedBeforeAnythingIsMade) {
  using namespace cloudkit;
  const auto huge = [] {
    ByteWriter writer;
    writer.varint(std::uint64_t{1} << 61);
    return writer.bytes();
  };
  const std::string textList = std::string(1, static_cast<char>(0x43)) + huge();
  EXPECT_THROW(decodeValue(textList, clientAssetCoding()), std::runtime_error);
  // A modify operation of a save policy, not atomic, and then the count of its records.
  const std::string operation = std::string("\x01\x00", 2) + huge();
  EXPECT_THROW(decodeModifyOperation("id", operation), std::runtime_error);

  const CKRecordValue names = std::vector<std::string>{"a", "", "b"};
  EXPECT_EQ(decodeValue(encodeValue(names, clientAssetCoding()), clientAssetCoding()), names);
  CKRecord record("Tag", CKRecordID{"work", CKRecordZoneID{"TagsZone"}});
  record.setObject("title", std::string("Work"));
  const auto decoded = decodeModifyOperation("id", encodeModifyOperation(CKModifyRecordsOperation({record}, {})));
  ASSERT_EQ(decoded->recordsToSave.size(), 1u);
  EXPECT_EQ(decoded->recordsToSave[0].recordID(), record.recordID());
}

// A stored subscription whose fields have other types is damaged: no
// subscription, not an exception of the JSON library the caller cannot expect
// (found by fuzzing: an id of `true`).
TEST(CloudCodingTest, SubscriptionsOfOtherShapesReadAsNone) {
  using namespace cloudkit;
  const CKSubscription query = CKQuerySubscription{"Pickup", "pickups", 7, CKNotificationInfo{true}};
  const CKSubscription database = CKDatabaseSubscription{"all", CKNotificationInfo{false}};
  EXPECT_EQ(decodeSubscription(encodeSubscription(query)), query);
  EXPECT_EQ(decodeSubscription(encodeSubscription(database)), database);
  for (const char* damaged :
       {R"({"id":true, "recordType": "Pickup", "options": 3})", R"({"id":"a", "recordType": 1})",
        R"({"id":"a", "recordType": "Pickup", "options": "3"})", R"({"id":"a", "contentAvailable": 1})",
        R"({"recordType": "Pickup"})", "[]", "not json"}) {
    EXPECT_FALSE(decodeSubscription(damaged)) << damaged;
  }
}

}  // namespace
}  // namespace tarnwell

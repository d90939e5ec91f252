// The values of the cloud database: zone and record ids, references,
// assets, field values, records, server change tokens, zones and the
// account's status.
//
// They mirror the phone platform's cloud database closely enough that the
// sync layer is written against them as it would be against the platform.
// Numbers (account status, reference actions, database scopes) are the
// platform's raw values.

#pragma once

#include <compare>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarnwell/platform/Data.h"
#include "tarnwell/platform/Date.h"

namespace tarnwell {

// The owner name that stands for the signed-in user.
inline constexpr std::string_view CKCurrentUserDefaultName = "__defaultOwner__";

struct CKRecordZoneID {
  // The zone every database has and nobody creates.
  static constexpr std::string_view defaultZoneName = "_defaultZone";

  std::string zoneName = std::string(defaultZoneName);
  std::string ownerName = std::string(CKCurrentUserDefaultName);

  static CKRecordZoneID defaultZone() { return {}; }
  bool isDefault() const { return zoneName == defaultZoneName; }
  // "<zoneName>:<ownerName>", as the platform describes a zone id.
  std::string description() const;

  friend auto operator<=>(const CKRecordZoneID&, const CKRecordZoneID&) = default;
};

struct CKRecordID {
  std::string recordName;
  CKRecordZoneID zoneID;

  std::string description() const;

  friend auto operator<=>(const CKRecordID&, const CKRecordID&) = default;
};

enum class CKReferenceAction : std::int64_t { none = 0, deleteSelf = 1 };

struct CKReference {
  CKRecordID recordID;
  CKReferenceAction action = CKReferenceAction::none;

  friend bool operator==(const CKReference&, const CKReference&) = default;
};

// A file that travels with a record. A saved asset's bytes are kept by the
// cloud; a fetched one names a file of the receiving side.
struct CKAsset {
  std::optional<std::filesystem::path> fileURL;

  friend bool operator==(const CKAsset&, const CKAsset&) = default;
};

// A field's value. Booleans travel as integers 0 and 1, as on the platform.
using CKRecordValue =
    std::variant<std::int64_t, double, std::string, Data, Date, CKReference, CKAsset, std::vector<std::int64_t>,
                 std::vector<double>, std::vector<std::string>, std::vector<Data>, std::vector<Date>,
                 std::vector<CKReference>, std::vector<CKAsset>>;

// A record: a type, an id and named fields. A field set to no value is still
// a changed key, which the changed-keys save policy sends as a removal; a
// key never set is not sent at all. The system fields (change tag, dates)
// are the server's, filled in by a fetch or a save.
class CKRecord {
 public:
  CKRecord() = default;
  CKRecord(std::string recordType, CKRecordID recordID)
      : recordType_(std::move(recordType)), recordID_(std::move(recordID)) {}

  const std::string& recordType() const { return recordType_; }
  const CKRecordID& recordID() const { return recordID_; }

  // The field's value; nothing when unset or set to no value.
  const CKRecordValue* object(std::string_view key) const;
  // Sets (or, with no value, clears) the field and marks the key changed.
  void setObject(std::string_view key, std::optional<CKRecordValue> value);
  // The keys with a value, in key order.
  std::vector<std::string> allKeys() const;
  // The keys set since the record was made or fetched, in key order.
  std::vector<std::string> changedKeys() const;
  // Every key set or fetched, with its value or no value: what a save sends
  // for its changed keys and what a fetch delivers.
  const std::map<std::string, std::optional<CKRecordValue>, std::less<>>& fields() const { return fields_; }

  const std::optional<std::string>& recordChangeTag() const { return recordChangeTag_; }
  const std::optional<Date>& creationDate() const { return creationDate_; }
  const std::optional<Date>& modificationDate() const { return modificationDate_; }

  // For the cloud's side: a record as the server holds it, with its system
  // fields and no changed keys.
  static CKRecord fromServer(std::string recordType, CKRecordID recordID,
                             std::map<std::string, std::optional<CKRecordValue>, std::less<>> fields,
                             std::string changeTag, Date created, Date modified);

  friend bool operator==(const CKRecord&, const CKRecord&) = default;

 private:
  std::string recordType_;
  CKRecordID recordID_;
  std::map<std::string, std::optional<CKRecordValue>, std::less<>> fields_;
  std::vector<std::string> changed_;
  std::optional<std::string> recordChangeTag_;
  std::optional<Date> creationDate_;
  std::optional<Date> modificationDate_;
};

// A point in a database's or a zone's history, opaque to its holder. The
// archived form is what a client keeps between launches.
class CKServerChangeToken {
 public:
  explicit CKServerChangeToken(std::string opaque) : opaque_(std::move(opaque)) {}

  const std::string& opaque() const { return opaque_; }
  // A keyed archive of the token; unarchive gives nothing for bytes that are not one.
  Data archived() const;
  static std::optional<CKServerChangeToken> unarchived(const Data& data);

  friend bool operator==(const CKServerChangeToken&, const CKServerChangeToken&) = default;

 private:
  std::string opaque_;
};

struct CKRecordZone {
  CKRecordZoneID zoneID;

  friend bool operator==(const CKRecordZone&, const CKRecordZone&) = default;
};

enum class CKDatabaseScope : std::int64_t { publicScope = 1, privateScope = 2, sharedScope = 3 };

enum class CKAccountStatus : std::int64_t {
  couldNotDetermine = 0,
  available = 1,
  restricted = 2,
  noAccount = 3,
  temporarilyUnavailable = 4,
};

// "couldNotDetermine", "available", ...; nothing for another word.
std::string_view name(CKAccountStatus status);
std::optional<CKAccountStatus> accountStatusNamed(std::string_view name);

}  // namespace tarnwell

#include "tarnwell/cloudkit/Records.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tarnwell {
namespace {

// The keyed archive of a token: a fixed header, then the opaque text.
constexpr std::string_view kTokenArchiveHeader = "CKServerChangeToken.v1:";

constexpr std::array<std::pair<CKAccountStatus, std::string_view>, 5> kStatusNames{{
    {CKAccountStatus::couldNotDetermine, "couldNotDetermine"},
    {CKAccountStatus::available, "available"},
    {CKAccountStatus::restricted, "restricted"},
    {CKAccountStatus::noAccount, "noAccount"},
    {CKAccountStatus::temporarilyUnavailable, "temporarilyUnavailable"},
}};

}  // namespace

std::string CKRecordZoneID::description() const { return zoneName + ":" + ownerName; }

std::string CKRecordID::description() const { return recordName + ":(" + zoneID.description() + ")"; }

const CKRecordValue* CKRecord::object(std::string_view key) const {
  const auto found = fields_.find(key);
  if (found == fields_.end() || !found->second) return nullptr;
  return &*found->second;
}

void CKRecord::setObject(std::string_view key, std::optional<CKRecordValue> value) {
  const auto found = fields_.find(key);
  if (found == fields_.end()) {
    fields_.emplace(std::string(key), std::move(value));
  } else {
    found->second = std::move(value);
  }
  const auto at = std::lower_bound(changed_.begin(), changed_.end(), key);
  if (at == changed_.end() || *at != key) changed_.insert(at, std::string(key));
}

std::vector<std::string> CKRecord::allKeys() const {
  std::vector<std::string> keys;
  for (const auto& [key, value] : fields_) {
    if (value) keys.push_back(key);
  }
  return keys;
}

std::vector<std::string> CKRecord::changedKeys() const { return changed_; }

CKRecord CKRecord::fromServer(std::string recordType, CKRecordID recordID,
                              std::map<std::string, std::optional<CKRecordValue>, std::less<>> fields,
                              std::string changeTag, Date created, Date modified) {
  CKRecord record(std::move(recordType), std::move(recordID));
  record.fields_ = std::move(fields);
  record.recordChangeTag_ = std::move(changeTag);
  record.creationDate_ = created;
  record.modificationDate_ = modified;
  return record;
}

Data CKServerChangeToken::archived() const {
  const std::string text = std::string(kTokenArchiveHeader) + opaque_;
  return Data(text.begin(), text.end());
}

std::optional<CKServerChangeToken> CKServerChangeToken::unarchived(const Data& data) {
  if (data.size() < kTokenArchiveHeader.size() ||
      !std::equal(kTokenArchiveHeader.begin(), kTokenArchiveHeader.end(), data.begin())) {
    return std::nullopt;
  }
  return CKServerChangeToken(
      std::string(data.begin() + static_cast<std::ptrdiff_t>(kTokenArchiveHeader.size()), data.end()));
}

std::string_view name(CKAccountStatus status) {
  for (const auto& [known, word] : kStatusNames) {
    if (known == status) return word;
  }
  return "couldNotDetermine";
}

std::optional<CKAccountStatus> accountStatusNamed(std::string_view name) {
  for (const auto& [status, word] : kStatusNames) {
    if (word == name) return status;
  }
  return std::nullopt;
}

}  // namespace tarnwell

// CKError: how the cloud database says that an operation, or a part of one,
// did not go through.
//
// An error carries the platform's numeric code and its user information: for
// the codes that ask the client to wait (6, 7, 23), the seconds under
// "CKErrorRetryAfterKey"; for a partial failure (2), the error of each item
// that failed under "CKPartialErrorsByItemIDKey". Errors travel as
// std::exception_ptr in completions, like every error of the library, so a
// completion may also carry an error of another kind.

#pragma once

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tarnwell/cloudkit/Records.h"

namespace tarnwell {

// The platform's codes, by their raw values.
enum class CKErrorCode : int {
  internalError = 1,
  partialFailure = 2,
  networkUnavailable = 3,
  networkFailure = 4,
  badContainer = 5,
  serviceUnavailable = 6,
  requestRateLimited = 7,
  missingEntitlement = 8,
  notAuthenticated = 9,
  permissionFailure = 10,
  unknownItem = 11,
  invalidArguments = 12,
  resultsTruncated = 13,
  serverRecordChanged = 14,
  serverRejectedRequest = 15,
  assetFileNotFound = 16,
  assetFileModified = 17,
  incompatibleVersion = 18,
  constraintViolation = 19,
  operationCancelled = 20,
  changeTokenExpired = 21,
  batchRequestFailed = 22,
  zoneBusy = 23,
  badDatabase = 24,
  quotaExceeded = 25,
  zoneNotFound = 26,
  limitExceeded = 27,
  userDeletedZone = 28,
  tooManyParticipants = 29,
  alreadyShared = 30,
  referenceViolation = 31,
  managedAccountRestricted = 32,
  participantMayNeedVerification = 33,
  serverResponseLost = 34,
};

// "serviceUnavailable" for 6 and so on; nothing for a number the platform does not name.
std::optional<std::string_view> name(CKErrorCode code);
// A code by its name or its number ("zoneBusy", "23").
std::optional<CKErrorCode> errorCodeNamed(std::string_view text);

class CKError : public std::runtime_error {
 public:
  // What "CKErrorRetryAfterKey" holds: seconds as a number, or, from a
  // confused server, something else.
  using RetryAfter = std::variant<double, std::string>;
  using ItemErrors = std::vector<std::pair<CKRecordID, CKError>>;

  explicit CKError(CKErrorCode code, std::string description = {});
  CKError(int rawCode, std::string description);

  int code() const { return code_; }
  // The platform's short text, or the one given.
  const std::string& localizedDescription() const { return description_; }

  const std::optional<RetryAfter>& retryAfter() const { return retryAfter_; }
  CKError& withRetryAfter(RetryAfter value) {
    retryAfter_ = std::move(value);
    return *this;
  }
  const std::optional<ItemErrors>& partialErrorsByItemID() const { return partialErrors_; }
  CKError& withPartialErrors(ItemErrors errors) {
    partialErrors_ = std::move(errors);
    return *this;
  }

  // "<CKError 0x0: \"Zone Busy\" (23); Retry after 2.5>": the debug form logs show.
  std::string debugDescription() const;

 private:
  int code_;
  std::string description_;
  std::optional<RetryAfter> retryAfter_;
  std::optional<ItemErrors> partialErrors_;
};

// An error as a log line shows it: a cloud error's debug description, any
// other error's text, "nil" for none.
std::string debugDescription(const std::exception_ptr& error);

}  // namespace tarnwell

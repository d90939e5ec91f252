#include "tarnwell/cloudkit/Errors.h"

#include <array>
#include <charconv>

#include "tarnwell/platform/Date.h"

namespace tarnwell {
namespace {

struct CodeInfo {
  CKErrorCode code;
  std::string_view name;
  std::string_view description;
};

constexpr std::array<CodeInfo, 34> kCodes{{
    {CKErrorCode::internalError, "internalError", "Internal Error"},
    {CKErrorCode::partialFailure, "partialFailure", "Partial Failure"},
    {CKErrorCode::networkUnavailable, "networkUnavailable", "Network Unavailable"},
    {CKErrorCode::networkFailure, "networkFailure", "Network Failure"},
    {CKErrorCode::badContainer, "badContainer", "Bad Container"},
    {CKErrorCode::serviceUnavailable, "serviceUnavailable", "Service Unavailable"},
    {CKErrorCode::requestRateLimited, "requestRateLimited", "Request Rate Limited"},
    {CKErrorCode::missingEntitlement, "missingEntitlement", "Missing Entitlement"},
    {CKErrorCode::notAuthenticated, "notAuthenticated", "Not Authenticated"},
    {CKErrorCode::permissionFailure, "permissionFailure", "Permission Failure"},
    {CKErrorCode::unknownItem, "unknownItem", "Unknown Item"},
    {CKErrorCode::invalidArguments, "invalidArguments", "Invalid Arguments"},
    {CKErrorCode::resultsTruncated, "resultsTruncated", "Results Truncated"},
    {CKErrorCode::serverRecordChanged, "serverRecordChanged", "Server Record Changed"},
    {CKErrorCode::serverRejectedRequest, "serverRejectedRequest", "Server Rejected Request"},
    {CKErrorCode::assetFileNotFound, "assetFileNotFound", "Asset File Not Found"},
    {CKErrorCode::assetFileModified, "assetFileModified", "Asset File Modified"},
    {CKErrorCode::incompatibleVersion, "incompatibleVersion", "Incompatible Version"},
    {CKErrorCode::constraintViolation, "constraintViolation", "Constraint Violation"},
    {CKErrorCode::operationCancelled, "operationCancelled", "Operation Cancelled"},
    {CKErrorCode::changeTokenExpired, "changeTokenExpired", "Change Token Expired"},
    {CKErrorCode::batchRequestFailed, "batchRequestFailed", "Batch Request Failed"},
    {CKErrorCode::zoneBusy, "zoneBusy", "Zone Busy"},
    {CKErrorCode::badDatabase, "badDatabase", "Bad Database"},
    {CKErrorCode::quotaExceeded, "quotaExceeded", "Quota Exceeded"},
    {CKErrorCode::zoneNotFound, "zoneNotFound", "Zone Not Found"},
    {CKErrorCode::limitExceeded, "limitExceeded", "Limit Exceeded"},
    {CKErrorCode::userDeletedZone, "userDeletedZone", "User Deleted Zone"},
    {CKErrorCode::tooManyParticipants, "tooManyParticipants", "Too Many Participants"},
    {CKErrorCode::alreadyShared, "alreadyShared", "Already Shared"},
    {CKErrorCode::referenceViolation, "referenceViolation", "Reference Violation"},
    {CKErrorCode::managedAccountRestricted, "managedAccountRestricted", "Managed Account Restricted"},
    {CKErrorCode::participantMayNeedVerification, "participantMayNeedVerification",
     "Participant May Need Verification"},
    {CKErrorCode::serverResponseLost, "serverResponseLost", "Server Response Lost"},
}};

const CodeInfo* info(int raw) {
  for (const auto& each : kCodes) {
    if (static_cast<int>(each.code) == raw) return &each;
  }
  return nullptr;
}

std::string defaultDescription(int raw) {
  if (const auto* known = info(raw)) return std::string(known->description);
  return "Error " + std::to_string(raw);
}

}  // namespace

std::optional<std::string_view> name(CKErrorCode code) {
  if (const auto* known = info(static_cast<int>(code))) return known->name;
  return std::nullopt;
}

std::optional<CKErrorCode> errorCodeNamed(std::string_view text) {
  for (const auto& each : kCodes) {
    if (each.name == text) return each.code;
  }
  int raw = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), raw);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return static_cast<CKErrorCode>(raw);
}

CKError::CKError(CKErrorCode code, std::string description) : CKError(static_cast<int>(code), std::move(description)) {}

CKError::CKError(int rawCode, std::string description)
    : std::runtime_error(description.empty() ? defaultDescription(rawCode) : description),
      code_(rawCode),
      description_(description.empty() ? defaultDescription(rawCode) : std::move(description)) {}

std::string CKError::debugDescription() const {
  std::string text = "<CKError 0x0: \"" + description_ + "\" (" + std::to_string(code_) + ")";
  if (retryAfter_) {
    if (const double* seconds = std::get_if<double>(&*retryAfter_)) {
      text += "; Retry after " + formatDouble(*seconds);
    } else {
      text += "; Retry after \"" + std::get<std::string>(*retryAfter_) + "\"";
    }
  }
  if (partialErrors_) text += "; partial errors: " + std::to_string(partialErrors_->size()) + " items";
  return text + ">";
}

std::string debugDescription(const std::exception_ptr& error) {
  if (!error) return "nil";
  try {
    std::rethrow_exception(error);
  } catch (const CKError& cloud) {
    return cloud.debugDescription();
  } catch (const std::exception& other) {
    return other.what();
  } catch (...) {
    return "an unknown error";
  }
}

}  // namespace tarnwell

#include "tarnwell/sync/ErrorHandler.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/platform/Date.h"
#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell::sync {
namespace {

using Reason = CKOperationFailReason;

// The texts are the ones users and support have always seen, the stray
// blank of 11 included. Any code not here, 13 among them, is unhandled.
constexpr std::pair<int, std::string_view> kTexts[] = {
    {1, "Internal Error: a nonrecoverable error was encountered by CloudKit."},
    {2, "Partial Failure: some items failed, but the operation succeeded overall."},
    {3, "Network Unavailable: the internet connection appears to be offline."},
    {4, "Network Failure: the internet connection appears to be offline."},
    {5, "Bad Container: the specified container is unknown or unauthorized."},
    {6, "Service Unavailable: Please try again."},
    {7, "Request Rate Limited: transfers to and from the server are being rate limited at this time."},
    {8, "Missing Entitlement: the app is missing a required entitlement."},
    {9,
     "Not Authenticated: to use this app, you must enable iCloud syncing. Go to device Settings, sign in to "
     "iCloud, then in the app settings, be sure the iCloud feature is enabled."},
    {10,
     "Permission Failure: to use this app, you must enable iCloud syncing. Go to device Settings, sign in to "
     "iCloud, then in the app settings, be sure the iCloud feature is enabled."},
    {11, "Unknown Item:  the specified record does not exist."},
    {12, "Invalid Arguments: the specified request contains bad information."},
    {14, "Server Record Changed: the record was rejected because the version on the server is different."},
    {15, "Server Rejected Request"},
    {16, "Asset File Not Found: the specified asset file is not found."},
    {17, "Asset File Modified: the content of the specified asset file was modified while being saved."},
    {18, "Incompatible Version: your app version is older than the oldest version allowed."},
    {19, "Constraint Violation: the server rejected the request because of a conflict with a unique field."},
    {20, "Operation Cancelled: the operation was explicitly canceled."},
    {21, "Change Token Expired: the previous server change token is too old."},
    {22, "Batch Request Failed: the entire batch was rejected."},
    {23, "Zone Busy: the server is too busy to handle the zone operation."},
    {24, "Bad Database: the operation could not be completed on the given database."},
    {25, "Quota Exceeded: saving would exceed your current iCloud storage quota."},
    {26, "Zone Not Found: the specified record zone does not exist on the server."},
    {27, "Limit Exceeded: the request to the server is too large."},
    {28, "User Deleted Zone: the user has deleted this zone from the settings UI."},
    {29,
     "Too Many Participants: a share cannot be saved because too many participants are attached to the "
     "share."},
    {30,
     "Already Shared: a record or share cannot be saved because doing so would cause the same hierarchy of "
     "records to exist in multiple shares."},
    {31, "Reference Violation: the target of a record's parent or share reference was not found."},
    {32, "Managed Account Restricted: the request was rejected due to a managed-account restriction."},
    {33, "Participant May Need Verification: you are not a member of the share."},
    {34, "Server Response Lost"},
};

std::string_view text(int code) {
  for (const auto& [known, words] : kTexts) {
    if (known == code) return words;
  }
  return "Unhandled Error.";
}

// The partial errors as one readable line, in the cloud's order.
std::string describe(const CKError::ItemErrors& errors) {
  std::string text = "{";
  for (std::size_t i = 0; i < errors.size(); ++i) {
    if (i > 0) text += ", ";
    text += errors[i].first.description() + ": " + errors[i].second.debugDescription();
  }
  return text + "}";
}

CKOperationResultType classify(const CKError& error) {
  auto& sync = CloudSync::shared();
  const int code = error.code();
  std::string message = ErrorHandler::message(code);
  const auto recoverable = [&](Reason reason) {
    sync.log("ErrorHandler.recoverableError: " + message);
    return CKOperationResultType::recoverableError(reason, message);
  };
  const auto fail = [&](Reason reason) {
    sync.log("ErrorHandler.Fail: " + message);
    return CKOperationResultType::fail(reason, message);
  };
  switch (code) {
    case 2:
      if (const auto& items = error.partialErrorsByItemID()) {
        sync.log("ErrorHandler.partialFailure for " + std::to_string(items->size()) +
                 " items; CKPartialErrorsByItemIDKey: " + describe(*items));
      }
      return CKOperationResultType::recoverableError(Reason::partialFailure, message);
    case 3:
    case 4:
      return recoverable(Reason::network);
    case 6:
    case 7:
    case 23: {
      const auto& retryAfter = error.retryAfter();
      const double* seconds = retryAfter ? std::get_if<double>(&*retryAfter) : nullptr;
      // No delay of our own: without the cloud's number there is no retry.
      if (!seconds) return CKOperationResultType::fail(Reason::unknown, message);
      sync.log("ErrorHandler - " + message + ". Should retry in " + formatDouble(*seconds) + " seconds.");
      return CKOperationResultType::retry(*seconds, message);
    }
    case 14:
      return recoverable(Reason::serverRecordChanged);
    case 21:
      return recoverable(Reason::changeTokenExpired);
    case 25:
      return fail(Reason::quotaExceeded);
    case 27:
      sync.log("ErrorHandler.Chunk: " + message);
      return CKOperationResultType::chunk();
    case 29:
    case 30:
    case 31:
    case 33:
      return fail(Reason::shareRelated);
    default:
      return fail(Reason::unknown);
  }
}

}  // namespace

std::string_view name(CKOperationFailReason reason) {
  switch (reason) {
    case Reason::changeTokenExpired:
      return "changeTokenExpired";
    case Reason::network:
      return "network";
    case Reason::quotaExceeded:
      return "quotaExceeded";
    case Reason::partialFailure:
      return "partialFailure";
    case Reason::serverRecordChanged:
      return "serverRecordChanged";
    case Reason::shareRelated:
      return "shareRelated";
    case Reason::unhandledErrorCode:
      return "unhandledErrorCode";
    case Reason::unknown:
      return "unknown";
  }
  return "unknown";
}

double CKOperationResultType::afterSeconds() const {
  const auto* retry = std::get_if<Retry>(&value_);
  return retry ? retry->afterSeconds : 0;
}

CKOperationFailReason CKOperationResultType::reason() const {
  if (const auto* recoverable = std::get_if<RecoverableError>(&value_)) return recoverable->reason;
  if (const auto* failed = std::get_if<Fail>(&value_)) return failed->reason;
  return Reason::unknown;
}

const std::string& CKOperationResultType::message() const {
  static const std::string none;
  if (const auto* retry = std::get_if<Retry>(&value_)) return retry->message;
  if (const auto* recoverable = std::get_if<RecoverableError>(&value_)) return recoverable->message;
  if (const auto* failed = std::get_if<Fail>(&value_)) return failed->message;
  return none;
}

CKOperationResultType ErrorHandler::resultType(const std::exception_ptr& error) {
  if (!error) return CKOperationResultType::success();
  try {
    std::rethrow_exception(error);
  } catch (const CKError& cloudError) {
    return classify(cloudError);
  } catch (...) {
    return CKOperationResultType::fail(Reason::unknown, "The error returned is not a CKError");
  }
}

void ErrorHandler::retryOperationIfPossible(double retryAfter, std::function<void()> block) {
  // The retry is work the process owes the user: a host waits for it.
  // Not-a-number and negative waits are no wait.
  const double seconds = retryAfter > 0 ? std::min(retryAfter, kLongestRetryWait) : 0;
  DispatchQueue::main().asyncAfter(
      seconds, [activity = Environment::current().beginActivity(), block = std::move(block)] { block(); });
}

void ErrorHandler::retryLater(int attempt, std::function<void()> block) {
  const double seconds = std::min(std::ldexp(1.0, std::clamp(attempt, 0, 16)), kLongestRetryWait);
  DispatchQueue::main().asyncAfter(seconds, std::move(block));
}

bool ErrorHandler::isZoneGone(const std::exception_ptr& error) {
  if (!error) return false;
  try {
    std::rethrow_exception(error);
  } catch (const CKError& cloudError) {
    return cloudError.code() == static_cast<int>(CKErrorCode::zoneNotFound) ||
           cloudError.code() == static_cast<int>(CKErrorCode::userDeletedZone);
  } catch (...) {
    return false;
  }
}

std::string ErrorHandler::message(int code) {
  return std::string(text(code)) + "CKError.Code: " + std::to_string(code);
}

}  // namespace tarnwell::sync

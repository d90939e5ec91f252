// ErrorHandler: what an operation's error means for the sync layer.
//
// Every completion of a cloud operation hands its error here and acts on
// one of five outcomes, so that no operation inspects error codes itself:
//
//   const auto result = ErrorHandler::resultType(error);
//   if (result.isRetry()) ErrorHandler::retryOperationIfPossible(result.afterSeconds(), again);
//
// It also owns the text of every code and the rules for waiting: a retry
// waits as long as the cloud asked; changes kept after an error that asked
// for no wait go again after a growing wait of its own (retryLater), since
// here no error may leave a change unsent. It keeps
// no state; every call stands alone, on whatever thread the operation's block
// runs.

#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

namespace tarnwell::sync {

// Why an operation did not go through. unhandledErrorCode is never produced.
enum class CKOperationFailReason {
  changeTokenExpired,
  network,
  quotaExceeded,
  partialFailure,
  serverRecordChanged,
  shareRelated,
  unhandledErrorCode,
  unknown,
};

// "changeTokenExpired", "network", ...
std::string_view name(CKOperationFailReason reason);

// The outcome of an operation: retry after the seconds the cloud asked, an
// error the caller may recover from, a failure, success, or a request too
// large that must be sent in pieces.
class CKOperationResultType {
 public:
  struct Retry {
    double afterSeconds = 0;
    std::string message;
    friend bool operator==(const Retry&, const Retry&) = default;
  };
  struct RecoverableError {
    CKOperationFailReason reason = CKOperationFailReason::unknown;
    std::string message;
    friend bool operator==(const RecoverableError&, const RecoverableError&) = default;
  };
  struct Fail {
    CKOperationFailReason reason = CKOperationFailReason::unknown;
    std::string message;
    friend bool operator==(const Fail&, const Fail&) = default;
  };
  struct Success {
    friend bool operator==(const Success&, const Success&) = default;
  };
  struct Chunk {
    friend bool operator==(const Chunk&, const Chunk&) = default;
  };
  using Value = std::variant<Retry, RecoverableError, Fail, Success, Chunk>;

  static CKOperationResultType retry(double afterSeconds, std::string message) {
    return CKOperationResultType(Retry{afterSeconds, std::move(message)});
  }
  static CKOperationResultType recoverableError(CKOperationFailReason reason, std::string message) {
    return CKOperationResultType(RecoverableError{reason, std::move(message)});
  }
  static CKOperationResultType fail(CKOperationFailReason reason, std::string message) {
    return CKOperationResultType(Fail{reason, std::move(message)});
  }
  static CKOperationResultType success() { return CKOperationResultType(Success{}); }
  static CKOperationResultType chunk() { return CKOperationResultType(Chunk{}); }

  bool isRetry() const { return std::holds_alternative<Retry>(value_); }
  bool isRecoverableError() const { return std::holds_alternative<RecoverableError>(value_); }
  bool isFail() const { return std::holds_alternative<Fail>(value_); }
  bool isSuccess() const { return std::holds_alternative<Success>(value_); }
  bool isChunk() const { return std::holds_alternative<Chunk>(value_); }

  // The payloads. A case without one gives 0, unknown or an empty text.
  double afterSeconds() const;
  CKOperationFailReason reason() const;
  const std::string& message() const;
  const Value& value() const { return value_; }

  friend bool operator==(const CKOperationResultType&, const CKOperationResultType&) = default;

 private:
  explicit CKOperationResultType(Value value) : value_(std::move(value)) {}
  Value value_;
};

class ErrorHandler {
 public:
  // No error: success. An error that is not a CKError: fail, unknown, "The
  // error returned is not a CKError". A CKError goes by its code, and most
  // outcomes leave a line in the layer's log (CloudSync::log). A partial
  // failure logs its items as
  //   "{<record id description>: <error debug description>, ...}"
  // in the cloud's order, or nothing when the error lists no items. The codes
  // that ask to wait (6, 7, 23) give retry only with a retry-after that is a
  // number; otherwise fail, unknown, without waiting.
  static CKOperationResultType resultType(const std::exception_ptr& error);

  // Runs `block` on the main queue `retryAfter` seconds from now, but never
  // later than kLongestRetryWait: a cloud that asks for more (a fault set to
  // 1e300) must not hold back the write behind it for ever. There is no
  // count and no backoff: an operation retries as long as the cloud asks.
  static constexpr double kLongestRetryWait = 60;
  static void retryOperationIfPossible(double retryAfter, std::function<void()> block);
  // For changes kept in the outbox after an error that asked for no wait:
  // runs `block` on the main queue after 1, 2, 4 ... seconds for the
  // `attempt`th time in a row (from 0), at most kLongestRetryWait. Not work
  // a host waits for: what it would send is in the store for the next launch.
  static void retryLater(int attempt, std::function<void()> block);
  // Whether the error says the zone is not there: not found (26), or
  // deleted by the user (28).
  static bool isZoneGone(const std::exception_ptr& error);

  // The text of a CKError code followed directly by "CKError.Code: <code>":
  // "Zone Busy: the server is too busy to handle the zone operation.CKError.Code: 23".
  static std::string message(int code);
};

}  // namespace tarnwell::sync

// What an operation's error becomes: outcome, retry rule, texts and log lines.

#include "tarnwell/sync/ErrorHandler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/TestEnvironment.h"
#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell {
namespace {

using sync::CKOperationFailReason;
using sync::CKOperationResultType;
using sync::ErrorHandler;

std::exception_ptr error(CKError cloudError) { return std::make_exception_ptr(std::move(cloudError)); }
std::exception_ptr error(int code) { return error(CKError(code, "")); }

class ErrorHandlerTest : public testing::EnvironmentTest {
 protected:
  ErrorHandlerTest() {
    sync::CloudSync::shared().setSink([this](const std::string& line) { logged.push_back(line); });
  }
  std::vector<std::string> logged;
};

TEST_F(ErrorHandlerTest, EveryCodeHasItsOutcome) {
  using R = CKOperationFailReason;
  const auto recoverable = [](int code, R reason) {
    return CKOperationResultType::recoverableError(reason, ErrorHandler::message(code));
  };
  const auto fail = [](int code, R reason) { return CKOperationResultType::fail(reason, ErrorHandler::message(code)); };
  EXPECT_EQ(ErrorHandler::resultType(nullptr), CKOperationResultType::success());
  EXPECT_EQ(ErrorHandler::resultType(error(2)), recoverable(2, R::partialFailure));
  EXPECT_EQ(ErrorHandler::resultType(error(3)), recoverable(3, R::network));
  EXPECT_EQ(ErrorHandler::resultType(error(4)), recoverable(4, R::network));
  EXPECT_EQ(ErrorHandler::resultType(error(14)), recoverable(14, R::serverRecordChanged));
  EXPECT_EQ(ErrorHandler::resultType(error(21)), recoverable(21, R::changeTokenExpired));
  EXPECT_EQ(ErrorHandler::resultType(error(25)), fail(25, R::quotaExceeded));
  EXPECT_EQ(ErrorHandler::resultType(error(27)), CKOperationResultType::chunk());
  for (const int code : {29, 30, 31, 33}) EXPECT_EQ(ErrorHandler::resultType(error(code)), fail(code, R::shareRelated));
  // A zone gone (26, 28) is no different from any other code: nothing remakes it.
  for (const int code : {1, 5, 13, 26, 28, 34, 99})
    EXPECT_EQ(ErrorHandler::resultType(error(code)), fail(code, R::unknown));
  EXPECT_EQ(ErrorHandler::resultType(std::make_exception_ptr(std::runtime_error("disk full"))),
            CKOperationResultType::fail(R::unknown, "The error returned is not a CKError"));
}

TEST_F(ErrorHandlerTest, OnlyANumberOfSecondsFromTheCloudMeansRetry) {
  const auto result = ErrorHandler::resultType(error(CKError(CKErrorCode::zoneBusy).withRetryAfter(2.5)));
  EXPECT_TRUE(result.isRetry());
  EXPECT_EQ(result.afterSeconds(), 2.5);
  EXPECT_EQ(result.message(), "Zone Busy: the server is too busy to handle the zone operation.CKError.Code: 23");
  EXPECT_EQ(logged, std::vector<std::string>{"ErrorHandler - Zone Busy: the server is too busy to handle the zone "
                                             "operation.CKError.Code: 23. Should retry in 2.5 seconds."});
  EXPECT_EQ(ErrorHandler::resultType(error(CKError(CKErrorCode::requestRateLimited).withRetryAfter(3.0))),
            CKOperationResultType::retry(3.0, ErrorHandler::message(7)));
  EXPECT_EQ(logged.back(), "ErrorHandler - " + ErrorHandler::message(7) + ". Should retry in 3.0 seconds.");

  logged.clear();
  const auto unknown = CKOperationResultType::fail(CKOperationFailReason::unknown, ErrorHandler::message(6));
  EXPECT_EQ(ErrorHandler::resultType(error(6)), unknown);
  EXPECT_EQ(ErrorHandler::resultType(error(CKError(CKErrorCode::serviceUnavailable).withRetryAfter("2.5"))), unknown);
  EXPECT_TRUE(logged.empty());
}

TEST_F(ErrorHandlerTest, OutcomesLeaveTheirLines) {
  ErrorHandler::resultType(nullptr);
  ErrorHandler::resultType(std::make_exception_ptr(std::runtime_error("other")));
  EXPECT_TRUE(logged.empty());

  ErrorHandler::resultType(error(21));
  ErrorHandler::resultType(error(25));
  ErrorHandler::resultType(error(27));
  ErrorHandler::resultType(error(2));  // no items listed: no line
  const CKRecordID item{"A", {"PickupsZone", std::string(CKCurrentUserDefaultName)}};
  ErrorHandler::resultType(error(
      CKError(CKErrorCode::partialFailure).withPartialErrors({{item, CKError(CKErrorCode::serverRecordChanged)}})));
  EXPECT_EQ(logged, (std::vector<std::string>{
                        "ErrorHandler.recoverableError: " + ErrorHandler::message(21),
                        "ErrorHandler.Fail: " + ErrorHandler::message(25),
                        "ErrorHandler.Chunk: " + ErrorHandler::message(27),
                        "ErrorHandler.partialFailure for 1 items; CKPartialErrorsByItemIDKey: {A:(PickupsZone:"
                        "__defaultOwner__): <CKError 0x0: \"Server Record Changed\" (14)>}",
                    }));
}

TEST_F(ErrorHandlerTest, MessagesAreTheTextAndTheCode) {
  EXPECT_EQ(ErrorHandler::message(13), "Unhandled Error.CKError.Code: 13");
  EXPECT_EQ(ErrorHandler::message(11), "Unknown Item:  the specified record does not exist.CKError.Code: 11");
  EXPECT_EQ(ErrorHandler::message(15), "Server Rejected RequestCKError.Code: 15");
  EXPECT_EQ(ErrorHandler::message(99), "Unhandled Error.CKError.Code: 99");
}

TEST_F(ErrorHandlerTest, ARetryRunsOnTheMainQueueAfterTheSeconds) {
  bool ran = false;
  ErrorHandler::retryOperationIfPossible(2.5, [&] {
    ran = true;
    EXPECT_TRUE(Environment::current().isMainThread());
  });
  env.advance(2.4);
  EXPECT_FALSE(ran);
  env.advance(0.1);
  EXPECT_TRUE(ran);
}

// A cloud that asks to wait for ever (or for a wait that is no number) is
// retried within a minute, so the write behind it is never held for good.
TEST_F(ErrorHandlerTest, NoRetryWaitsLongerThanAMinute) {
  int ran = 0;
  for (const double asked : {1e300, std::numeric_limits<double>::infinity(), std::nan("")}) {
    ErrorHandler::retryOperationIfPossible(asked, [&] { ++ran; });
  }
  env.advance(ErrorHandler::kLongestRetryWait - 0.5);
  EXPECT_EQ(ran, 1) << "a wait that is no number is no wait";
  env.advance(0.5);
  EXPECT_EQ(ran, 3);
}

}  // namespace
}  // namespace tarnwell

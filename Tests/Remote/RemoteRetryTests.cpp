#include "Tests/Remote/ScriptedTransport.h"

namespace vellicor::testing {
namespace {

const std::string far = "Fri, 31 Dec 9999 23:59:59 GMT", badDay = "Sun, 36 Nov 1994 08:49:37 GMT";
constexpr std::uint64_t second = 1'000'000'000, hour = 3600 * second;

RepackError status(std::int64_t code, std::optional<std::string> retryAfter = std::nullopt) {
  return RepackError(RemoteHTTPResponse{.url = "u", .status = code, .retryAfter = std::move(retryAfter)});
}

TEST(RemoteRetry, AttemptsWaitsAndOutcome) {
  const RemoteRetryPolicy plain;
  const RepackError busy = status(503);
  const auto exceeds = [](const std::string& text) {
    return "remote Retry-After " + text + " exceeds 3600-second cap";
  };
  const auto unreadable = [](const std::string& text) { return protocol + "invalid Retry-After " + text; };
  const struct {
    std::string name;
    RemoteRetryPolicy policy;
    std::vector<RepackError> failures;
    std::vector<std::uint64_t> waits;
    std::string outcome = "no error";
  } rows[] = {
      {"doubling", plain, {busy, busy, busy}, {second + 7, 2 * second + 7, 4 * second + 7}},
      {"last error", {.attempts = 2}, {busy, status(408)}, {second + 7}, "remote HTTP 408: u"},
      {"no attempts", {.attempts = 0}, {busy}, {}, "remote HTTP 503: u"},
      {"no delay", {.attempts = 3, .baseDelayNs = 0}, {busy, busy}, {}},
      {"cap", {.baseDelayNs = 10 * second}, {busy, busy}, {10 * second + 7, 16 * second + 7}},
      {"huge", {.baseDelayNs = ~0ULL}, {busy, busy}, {hour, 16 * second + 7}},
      {"half of all", {.baseDelayNs = 1ULL << 63}, {busy, busy}, {hour, 16 * second + 7}},
      {"seconds", plain, {status(503, " \t+3600\u00A0\r\n")}, {hour}},
      {"shorter", plain, {status(503, "1")}, {second + 7}},
      {"date", plain, {status(503, "Sun, 06 Nov 1994 08:49:37 GMT")}, {30 * second}},
      {"RFC 850", plain, {status(503, "Sunday, 06-Nov-94 08:49:37 GMT")}, {30 * second}},
      {"asctime", plain, {status(503, "Sun Nov  6 08:49:37 1994")}, {30 * second}},
      {"past", plain, {status(503, "Sun, 06 Nov 1994 08:49:06 GMT")}, {second + 7}},
      {"far", plain, {status(429, far)}, {}, exceeds(far)},
      {"too long", plain, {status(429, "3601 ")}, {}, exceeds("3601 ")},
      {"overflow", plain, {status(429, "18446744074")}, {}, exceeds("18446744074")},
      {"too late", {.attempts = 1}, {status(503, "9999")}, {}, "remote HTTP 503: u, Retry-After 9999"},
      {"garbage", plain, {status(503, " soon ")}, {}, unreadable("soon")},
      {"signed", plain, {status(503, "-1")}, {}, unreadable("-1")},
      {"no such day", plain, {status(503, badDay)}, {}, unreadable(badDay)},
      {"trailing", plain, {status(503, far + " x")}, {}, unreadable(far + " x")},
      {"empty", plain, {status(503, "")}, {}, unreadable("")},
      {"not retried", plain, {status(404, "5")}, {}, "remote HTTP 404: u, Retry-After 5"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedHub hub;
    std::size_t calls = 0;
    const auto failing = [&] {
      if (calls++ < row.failures.size()) throw row.failures[calls - 1];
      return calls;
    };
    const auto run = [&] { withRemoteRetries(row.policy, "op", &hub.audit, hub.environment, {}, failing); };
    EXPECT_EQ(errorText(run), row.outcome);
    EXPECT_EQ(hub.waits, row.waits);
    EXPECT_EQ(calls, row.failures.size() + (row.outcome == "no error" ? 1 : 0));
    EXPECT_EQ(hub.audit.remoteRetries.size(), calls - 1);
  }
}

TEST(RemoteRetry, RetriesWhatMayPassOnly) {
  const auto retried = RemoteRetryPolicy::isRetryable;
  for (const int code : {408, 429, 500, 502, 503, 504}) EXPECT_TRUE(retried(status(code))) << code;
  for (const int code : {302, 401, 404, 416, 501, 505}) EXPECT_FALSE(retried(status(code))) << code;
  EXPECT_TRUE(retried(RepackError(RemoteBodyTruncated{.path = "f", .expected = 2, .actual = 1})));
  EXPECT_FALSE(retried(RepackError(RemoteBodyExceeded{.path = "f", .limit = 1, .attempted = 2})));
  using enum NetworkError::Code;
  for (const auto code : {timedOut, connectionLost, cannotConnect, nameResolution, offline}) {
    EXPECT_TRUE(retried(NetworkError(code, ""))) << static_cast<int>(code);
  }
  EXPECT_TRUE(retried(NetworkError(resourceUnavailable, "")));
  for (const auto code : {tls, other}) EXPECT_FALSE(retried(NetworkError(code, "")));
}

TEST(RemoteRetry, CancellationEndsTheWaitAndBeginsNothing) {
  ScriptedHub hub;
  const auto failing = [&] {
    hub.stop.cancel();
    throw status(503);
  };
  const RetryEnvironment real = RetryEnvironment::production();
  const auto run = [&] {
    runWithRemoteRetries({.baseDelayNs = hour}, "op", &hub.audit, real, hub.source.stop, failing);
  };
  EXPECT_EQ(errorText(run), "cancelled");
  EXPECT_EQ(errorText(run), "cancelled");
  const std::vector<RepackAudit::RemoteRetryRecord> records = {{"op", 1, "remote HTTP 503: u"}};
  EXPECT_EQ(hub.audit.remoteRetries, records) << "one attempt, recorded before its wait";
  EXPECT_LT(std::max({real.jitter(), real.jitter(), real.jitter()}), second / 4);
}

}  // namespace
}  // namespace vellicor::testing

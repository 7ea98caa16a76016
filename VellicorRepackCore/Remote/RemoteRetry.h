#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// The clock, the randomness and the waiting of the retry loop, with their production values.
struct RetryEnvironment {
  std::function<std::chrono::system_clock::time_point()> now;
  /// Uniformly distributed nanoseconds in [0, 250000000), from the secure generator, unbiased.
  std::function<std::uint64_t()> jitter;
  /// Waits that many nanoseconds; throws `CancellationError` at once when a stop is asked for.
  std::function<void(std::uint64_t, const CancellationToken&)> sleeper;

  static RetryEnvironment production();
};

struct RemoteRetryPolicy {
  /// Total tries of one operation; below 1 counts as 1.
  std::int64_t attempts = 4;
  std::uint64_t baseDelayNs = 1'000'000'000;
  /// Cap of the doubling back-off.
  std::uint64_t maxDelayNs = 16'000'000'000;
  /// Cap of any single wait, and the largest Retry-After accepted.
  std::uint64_t maxServerDelayNs = 3'600'000'000'000;

  bool operator==(const RemoteRetryPolicy&) const = default;

  /// Time-outs, lost connections, unreachable hosts, HTTP 408, 429, 500, 502, 503, 504 and truncated bodies;
  /// nothing else.
  static bool isRetryable(const std::exception& error);

  /// The wait before the next attempt: the back-off, or the server's Retry-After when that is longer. Throws
  /// `remoteRetryDelayExceeded`, or `remoteProtocolInvalid` for a Retry-After that cannot be read.
  std::uint64_t retryDelayNs(const std::exception& error, std::uint64_t localDelayNs,
                             std::chrono::system_clock::time_point now) const;
};

/// Nanoseconds from `now` to what a Retry-After value asks for (RFC 9110, section 10.2.3: seconds or one of
/// the three HTTP date forms), saturating; 0 for a date in the past. Throws `remoteProtocolInvalid`.
std::uint64_t parseRetryAfterNs(std::string_view value, std::chrono::system_clock::time_point now);

/// Calls `op` until it returns, under the policy; each retry is recorded in `audit`, when given, before its
/// wait. Rethrows the last error unchanged. Throws `CancellationError` between attempts and while waiting.
void runWithRemoteRetries(const RemoteRetryPolicy& policy, const std::string& label, RepackAudit* audit,
                          const RetryEnvironment& environment, const CancellationToken& stop,
                          const std::function<void()>& op);

/// The same for an operation that returns a value.
template <typename Op>
auto withRemoteRetries(const RemoteRetryPolicy& policy, const std::string& label, RepackAudit* audit,
                       const RetryEnvironment& environment, const CancellationToken& stop, Op&& op) {
  using Result = std::invoke_result_t<Op&>;
  if constexpr (std::is_void_v<Result>) {
    runWithRemoteRetries(policy, label, audit, environment, stop, op);
  } else {
    std::optional<Result> result;
    runWithRemoteRetries(policy, label, audit, environment, stop, [&] { result.emplace(op()); });
    return std::move(*result);
  }
}

}  // namespace vellicor

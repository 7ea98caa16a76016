#include "VellicorRepackCore/Remote/RemoteRetry.h"

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <stdexcept>

#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Random.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {
namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t largestDelay = std::numeric_limits<std::uint64_t>::max();

/// The preferred HTTP date, the obsolete RFC 850 form and the asctime form, in the order they are tried.
constexpr std::array<const char*, 3> httpDatePatterns = {
    "EEE',' dd MMM yyyy HH':'mm':'ss zzz",
    "EEEE',' dd-MMM-yy HH':'mm':'ss zzz",
    "EEE MMM d HH':'mm':'ss yyyy",
};

std::uint64_t secureRandomWord() {
  std::array<unsigned char, sizeof(std::uint64_t)> bytes{};
  fillRandom(bytes);
  std::uint64_t word = 0;
  for (const unsigned char byte : bytes) word = word << 8 | byte;
  return word;
}

/// Multiply-high of a random word; the words that would favour some results are drawn again.
std::uint64_t secureJitter() {
  __extension__ using Product = unsigned __int128;
  constexpr std::uint64_t bound = 250'000'000;
  constexpr std::uint64_t rejectedBelow = 209'551'616;  // 2^64 mod bound
  for (;;) {
    const Product product = static_cast<Product>(secureRandomWord()) * bound;
    if (static_cast<std::uint64_t>(product) >= rejectedBelow)
      return static_cast<std::uint64_t>(product >> 64);
  }
}

void sleepNanoseconds(std::uint64_t delay, const CancellationToken& stop) {
  constexpr auto longest = static_cast<std::uint64_t>(std::chrono::nanoseconds::max().count());
  sleepUnlessCancelled(
      std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(std::min(delay, longest))), stop);
}

/// Seconds since 1970 of a text that is, as a whole, a date of that pattern.
std::optional<double> parseDate(const icu::UnicodeString& text, const char* pattern) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat format(icu::UnicodeString(pattern), icu::Locale("en", "US", "POSIX"), status);
  if (U_FAILURE(status)) throw std::runtime_error(u_errorName(status));
  format.adoptTimeZone(icu::TimeZone::getGMT()->clone());
  format.setLenient(false);
  icu::ParsePosition position(0);
  const UDate milliseconds = format.parse(text, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != text.length()) return std::nullopt;
  return milliseconds / 1000.0;
}

std::optional<double> parseHTTPDate(std::string_view text) {
  const icu::UnicodeString unicode =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  for (const char* pattern : httpDatePatterns) {
    if (const auto date = parseDate(unicode, pattern)) return date;
  }
  return std::nullopt;
}

bool isRetryableCode(NetworkError::Code code) {
  switch (code) {
    case NetworkError::Code::timedOut:
    case NetworkError::Code::connectionLost:
    case NetworkError::Code::cannotConnect:
    case NetworkError::Code::nameResolution:
    case NetworkError::Code::offline:
    case NetworkError::Code::resourceUnavailable:
      return true;
    case NetworkError::Code::tls:
    case NetworkError::Code::other:
      return false;
  }
  return false;
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  return b > largestDelay - a ? largestDelay : a + b;
}

std::uint64_t nextBackoff(std::uint64_t backoff, std::uint64_t maximum) {
  if (backoff > largestDelay / 2) return maximum;
  return std::min(maximum, 2 * backoff);
}

}  // namespace

RetryEnvironment RetryEnvironment::production() {
  return {.now = [] { return std::chrono::system_clock::now(); },
          .jitter = secureJitter,
          .sleeper = sleepNanoseconds};
}

bool RemoteRetryPolicy::isRetryable(const std::exception& error) {
  if (const auto* network = dynamic_cast<const NetworkError*>(&error))
    return isRetryableCode(network->code());
  const auto* repack = dynamic_cast<const RepackError*>(&error);
  if (repack == nullptr) return false;
  if (const auto* status = repack->as<RemoteHTTPStatus>()) {
    return isRetryableStatus(status->status);
  }
  if (const auto* response = repack->as<RemoteHTTPResponse>()) {
    return isRetryableStatus(response->status);
  }
  return repack->as<RemoteBodyTruncated>() != nullptr;
}

std::uint64_t RemoteRetryPolicy::retryDelayNs(const std::exception& error, std::uint64_t localDelayNs,
                                              std::chrono::system_clock::time_point now) const {
  const std::uint64_t local = std::min(maxServerDelayNs, localDelayNs);
  const auto* repack = dynamic_cast<const RepackError*>(&error);
  const auto* response = repack != nullptr ? repack->as<RemoteHTTPResponse>() : nullptr;
  if (response == nullptr || !response->retryAfter) return local;
  const std::uint64_t server = parseRetryAfterNs(*response->retryAfter, now);
  if (server > maxServerDelayNs) {
    throw RepackError(RemoteRetryDelayExceeded{.value = *response->retryAfter,
                                               .capSeconds = maxServerDelayNs / nanosecondsPerSecond});
  }
  return std::max(server, local);
}

std::uint64_t parseRetryAfterNs(std::string_view value, std::chrono::system_clock::time_point now) {
  const std::string_view text = trimmedWhitespace(value);
  if (const auto seconds = parseUnsignedDecimal(text)) {
    return *seconds > largestDelay / nanosecondsPerSecond ? largestDelay : *seconds * nanosecondsPerSecond;
  }
  const auto date = parseHTTPDate(text);
  if (!date) throw RepackError(RemoteProtocolInvalid{"invalid Retry-After " + std::string(text)});
  const double seconds = *date - std::chrono::duration<double>(now.time_since_epoch()).count();
  if (seconds <= 0) return 0;
  if (seconds >= 18446744073.0) return largestDelay;
  return static_cast<std::uint64_t>(seconds * 1e9);
}

void runWithRemoteRetries(const RemoteRetryPolicy& policy, const std::string& label, RepackAudit* audit,
                          const RetryEnvironment& environment, const CancellationToken& stop,
                          const std::function<void()>& op) {
  const std::int64_t attempts = std::max<std::int64_t>(policy.attempts, 1);
  std::uint64_t backoff = policy.baseDelayNs;
  throwIfCancelled(stop);
  for (std::int64_t attempt = 1;; ++attempt) {
    std::uint64_t delay = 0;
    try {
      op();
      return;
    } catch (const std::exception& error) {
      if (attempt == attempts || !RemoteRetryPolicy::isRetryable(error)) throw;
      const std::uint64_t local = backoff == 0 ? 0 : saturatingAdd(backoff, environment.jitter());
      delay = policy.retryDelayNs(error, local, environment.now());
      if (audit != nullptr) audit->recordRemoteRetry(label, attempt, error.what());
    }
    if (delay > 0) environment.sleeper(delay, stop);
    throwIfCancelled(stop);
    backoff = nextBackoff(backoff, policy.maxDelayNs);
  }
}

}  // namespace vellicor

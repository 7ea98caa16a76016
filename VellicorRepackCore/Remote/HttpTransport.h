#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

/// Whether a later attempt may get another answer than this status.
bool isRetryableStatus(std::int64_t status);

/// Header fields in the order they are sent or were received. Names compare case-insensitively.
class HttpHeaders {
 public:
  /// Replaces every field of that name by one, or adds it.
  void set(std::string_view name, std::string_view value);
  void remove(std::string_view name);
  /// Adds a field after the others, keeping those of the same name.
  void add(std::string_view name, std::string_view value);
  void clear() { fields_.clear(); }

  /// The first field of that name.
  std::optional<std::string> get(std::string_view name) const;
  const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }

 private:
  std::vector<std::pair<std::string, std::string>> fields_;
};

struct HttpRequest {
  RemoteUrl url;
  std::string method = "GET";
  HttpHeaders headers;
  /// Idle time allowed to this request; the session's own limit applies too, whichever is shorter.
  std::chrono::duration<double> timeout{60.0};
};

struct HttpResponseHead {
  RemoteUrl url;
  int status = 0;
  HttpHeaders headers;
};

/// Receives one hop's answer as it comes. Either call may refuse by throwing: the hop is then broken off and
/// the exception leaves `perform`.
class HttpObserver {
 public:
  virtual ~HttpObserver() = default;
  /// The final header block of the hop; informational (1xx) and proxy blocks are not shown.
  virtual void onResponse(const HttpResponseHead& head) = 0;
  /// The next piece of the body, valid during the call only.
  virtual void onData(std::span<const std::byte> bytes) = 0;
};

/// Limits of one hop.
struct HttpHopLimits {
  /// Longest time without a sign of the other side, connecting included.
  std::chrono::duration<double> idleTimeout{60.0};
  /// When the whole exchange, all hops together, must be over.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  /// While no network interface but loopback is up, wait instead of failing.
  bool waitsForConnectivity = true;
  /// How many connections to one host may be open, kept ones included; below 1 counts as 1.
  int maximumConnectionsPerHost = 1;
};

/// The narrow door to the network: one request, one answer. Never follows a redirect, keeps no cookies, cache
/// or credentials. Connections, name lookups and TLS sessions are kept from hop to hop. It belongs to one
/// thread at a time, and nothing is shared between transports.
class HttpTransport {
 public:
  virtual ~HttpTransport() = default;

  /// Returns when the answer has ended, be it short of what it announced: counting bytes is the observer's
  /// business. Throws `NetworkError`, `CancellationError` within a fraction of a second after a stop is asked
  /// for, or what the observer threw.
  virtual void perform(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
                       const CancellationToken& stop) = 0;
};

}  // namespace vellicor

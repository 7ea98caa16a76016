#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "VellicorRepackCore/Remote/HttpTransport.h"
#include "VellicorRepackCore/Remote/RemoteRangeTransfer.h"

namespace vellicor {

struct RemoteDownloadSessionPolicy {
  /// Idle time allowed between two pieces of an answer.
  double requestTimeoutSeconds = 300.0;
  /// For a whole exchange, all hops together.
  double resourceTimeoutSeconds = 604800.0;
  bool waitsForConnectivity = true;
  /// Exchanges are serialised over a transport that keeps one connection per host.
  int maximumConnectionsPerHost = 1;
  int maximumRedirects = 5;
  bool operator==(const RemoteDownloadSessionPolicy&) const = default;
};

/// The connection policy of one install over one transport. Exchanges are serialised, which keeps one
/// connection per host. Shared by everything in an install that talks to the hub.
class RemoteDownloadSession {
 public:
  RemoteDownloadSession(RemoteDownloadSessionPolicy policy, std::shared_ptr<HttpTransport> transport);

  struct Response {
    /// Nothing when the exchange ended without an answer.
    std::optional<HttpResponseHead> head;
    std::string body;
  };

  /// The metadata exchange: follows redirects on the same host; any other redirect is the answer itself.
  /// Judging the answer is the caller's business. A body beyond 1 MiB is `remoteBodyExceeded`.
  Response response(const HttpRequest& request, const std::stop_token& stop);

  /// The range transfer, see `RemoteRangeTransfer::run`.
  RemoteRangeTransferResult transfer(const HttpRequest& request, const std::string& targetPath,
                                     const RemoteRangeExpectation& expectation,
                                     const RemoteProgressCallback& progress, const std::stop_token& stop);

  const RemoteDownloadSessionPolicy& policy() const { return policy_; }

 private:
  HttpHopLimits limits(const HttpRequest& request) const;

  RemoteDownloadSessionPolicy policy_;
  std::shared_ptr<HttpTransport> transport_;
};

}  // namespace vellicor

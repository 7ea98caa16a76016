#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Remote/HttpTransport.h"
#include "VellicorRepackCore/Remote/RemoteRangeTransfer.h"

namespace vellicor {

struct RemoteDownloadSessionPolicy {
  /// Idle time allowed between two pieces of an answer.
  double requestTimeoutSeconds = 300.0;
  /// For a whole exchange, all hops together.
  double resourceTimeoutSeconds = 604800.0;
  bool waitsForConnectivity = true;
  /// Connections that the session's transport may have open to one host, kept ones included; below 1 counts
  /// as 1.
  int maximumConnectionsPerHost = 1;
  int maximumRedirects = 5;
  bool operator==(const RemoteDownloadSessionPolicy&) const = default;
};

/// The connection policy of one install over one transport. A session belongs to one thread, and has one
/// exchange at a time: a second thread that asks during an exchange gets the `std::logic_error` of
/// `CurlTransport::perform`. What is to run side by side takes a session and a transport of its own.
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
  Response response(const HttpRequest& request, const CancellationToken& stop);

  /// The range transfer, see `RemoteRangeTransfer::run`.
  RemoteRangeTransferResult transfer(const HttpRequest& request, const std::string& targetPath,
                                     const RemoteRangeExpectation& expectation,
                                     const RemoteProgressCallback& progress, const CancellationToken& stop,
                                     Posix::FileMode mode = Posix::FileMode::ownerOnly);

  const RemoteDownloadSessionPolicy& policy() const { return policy_; }

 private:
  HttpHopLimits limits(const HttpRequest& request) const;

  RemoteDownloadSessionPolicy policy_;
  std::shared_ptr<HttpTransport> transport_;
};

}  // namespace vellicor

#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"

#include <algorithm>
#include <utility>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"
#include "VellicorRepackCore/Remote/RemoteRedirect.h"

namespace vellicor {
namespace {

constexpr std::uint64_t maximumMetadataBodyBytes = 1048576;

/// Holds one hop's head and small body.
class MetadataObserver final : public HttpObserver {
 public:
  void onResponse(const HttpResponseHead& head) override { response_.head = head; }

  void onData(std::span<const std::byte> bytes) override {
    if (!response_.head) return;
    std::string& body = response_.body;
    if (bytes.size() > maximumMetadataBodyBytes - body.size()) {
      throw RepackError(RemoteBodyExceeded{.path = redactRemoteURL(response_.head->url),
                                           .limit = maximumMetadataBodyBytes,
                                           .attempted = body.size() + bytes.size()});
    }
    body.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }

  RemoteDownloadSession::Response& response() { return response_; }

 private:
  RemoteDownloadSession::Response response_;
};

/// That many seconds from now, or the end of time where the clock cannot tell.
std::chrono::steady_clock::time_point deadlineAfter(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto now = Clock::now();
  const std::chrono::duration<double> wanted(seconds);
  if (wanted >= std::chrono::duration<double>(Clock::time_point::max() - now)) {
    return Clock::time_point::max();
  }
  return now + std::chrono::duration_cast<Clock::duration>(wanted);
}

}  // namespace

RemoteDownloadSession::RemoteDownloadSession(RemoteDownloadSessionPolicy policy,
                                             std::shared_ptr<HttpTransport> transport)
    : policy_(policy), transport_(std::move(transport)) {}

HttpHopLimits RemoteDownloadSession::limits(const HttpRequest& request) const {
  const std::chrono::duration<double> sessionTimeout(policy_.requestTimeoutSeconds);
  return {.idleTimeout = std::min(request.timeout, sessionTimeout),
          .deadline = deadlineAfter(policy_.resourceTimeoutSeconds),
          .waitsForConnectivity = policy_.waitsForConnectivity,
          .maximumConnectionsPerHost = policy_.maximumConnectionsPerHost};
}

RemoteDownloadSession::Response RemoteDownloadSession::response(const HttpRequest& request,
                                                                const CancellationToken& stop) {
  const HttpHopLimits exchange = limits(request);
  RemoteMetadataRedirectPolicy redirects(request, policy_.maximumRedirects);
  HttpRequest hop = request;
  for (;;) {
    throwIfCancelled(stop);
    MetadataObserver observer;
    transport_->perform(hop, exchange, observer, stop);
    Response& answer = observer.response();
    if (!answer.head || !isRedirect(*answer.head)) return std::move(answer);
    const auto next = redirects.request(redirectTarget(*answer.head));
    if (!next) return std::move(answer);
    hop = *next;
  }
}

RemoteRangeTransferResult RemoteDownloadSession::transfer(
    const HttpRequest& request, const std::string& targetPath, const RemoteRangeExpectation& expectation,
    const RemoteProgressCallback& progress, const CancellationToken& stop, Posix::FileMode mode) {
  return RemoteRangeTransfer::run(*transport_, limits(request), request, targetPath, expectation,
                                  policy_.maximumRedirects, progress, stop, mode);
}

}  // namespace vellicor

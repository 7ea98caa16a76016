#pragma once

#include <optional>
#include <string>

#include "VellicorRepackCore/Remote/HttpTransport.h"

namespace vellicor {

/// Which redirects of a range transfer are followed and which headers travel with them: HTTPS only, at most
/// `maximumRedirects`, the range always, the authorization only to the first request's host and never again
/// once the chain has left it. One per transfer.
class RemoteRedirectPolicy {
 public:
  RemoteRedirectPolicy(const HttpRequest& originalRequest, int maximumRedirects);

  /// The request to follow; `proposed` has no URL when the answer's Location cannot be read. Throws
  /// `remoteRedirectRejected`.
  HttpRequest request(const HttpResponseHead& response, const std::optional<RemoteUrl>& proposedUrl);

 private:
  HttpRequest original_;
  std::string sourceHost_;
  int maximumRedirects_;
  int redirectCount_ = 0;
  bool authorizationMayBeForwarded_ = true;
};

/// Which redirects of a metadata exchange are followed: HTTPS, same host, at most `maximumRedirects`. It
/// never fails, it only refuses; a refused redirect is then the exchange's answer. One per exchange.
class RemoteMetadataRedirectPolicy {
 public:
  RemoteMetadataRedirectPolicy(const HttpRequest& originalRequest, int maximumRedirects);

  /// The request to follow, or nothing.
  std::optional<HttpRequest> request(const std::optional<RemoteUrl>& proposedUrl);

 private:
  HttpRequest original_;
  std::string sourceHost_;
  int maximumRedirects_;
  int redirectCount_ = 0;
};

/// Whether the answer asks to go elsewhere: 301, 302, 303, 307 or 308 with a Location.
bool isRedirect(const HttpResponseHead& response);

/// Where it points, resolved against the answer's own URL; nothing when that cannot be read.
std::optional<RemoteUrl> redirectTarget(const HttpResponseHead& response);

}  // namespace vellicor
